# SPDX-License-Identifier: Apache-2.0
"""An LDAP server that plays what a Samba controller never does.

    with ScriptedPeer(lab_files, entries) as peer:
        peer.settings(folder)        # vexagent's, to serve this peer
        peer.limits(unpaged=1000)    # as a Windows controller cuts results
        peer.fault(Cut(3))           # what goes wrong with the next search
        peer.hung = True             # from now on it answers nothing at all

It holds entries as {DN: {attribute: [values]}} and answers binds and searches: base,
scope, filters, pages, attribute ranges. A fault is a callable that the next matching
search runs instead of answering in order. Every request is written down.
"""
import contextlib
import re
import socket
import ssl
import threading

import ber

BIND, SEARCH, EXTENDED, ABANDON, UNBIND = 0x60, 0x63, 0x77, 0x50, 0x42
ENTRY, REFERENCE, DONE, BIND_DONE, EXTENDED_DONE = 0x64, 0x73, 0x65, 0x61, 0x78
PAGED, START_TLS = "1.2.840.113556.1.4.319", "1.3.6.1.4.1.1466.20037"
BITS = b"1.2.840.113556.1.4.803"
NOTICE = "1.3.6.1.4.1.1466.20036"
SUCCESS, OPERATIONS_ERROR, SIZE_LIMIT, REFERRAL, NO_SUCH_OBJECT, INVALID, BUSY, UNAVAILABLE = 0, 1, 4, 10, 32, 49, 51, 52


def fold(name):
    """A DN for comparison: without regard to case and to blanks after commas."""
    return re.sub(r"\s*,\s*", ",", name).lower()


class Search:
    """A search request, taken apart."""

    def __init__(self, content):
        parts = ber.elements(content)
        self.base = parts[0][1].decode()
        self.scope, self.size_limit = ber.integer(parts[1][1]), ber.integer(parts[3][1])
        self.filter = parts[6]
        self.attributes = [name.decode() for _, name in ber.elements(parts[7][1])]
        self.page, self.cookie = None, b""

    def take_controls(self, content):
        for _, control in ber.elements(content):
            fields = ber.elements(control)
            if fields[0][1].decode() == PAGED:
                size, cookie = ber.elements(ber.elements(fields[-1][1])[0][1])
                self.page, self.cookie = ber.integer(size[1]), cookie[1]

    def wants(self, name):
        """Whether an attribute is asked for, and as which range: None, or its first value."""
        for asked in self.attributes or ["*"]:
            plain, _, option = asked.partition(";range=")
            if plain == "*" or plain.lower() == name.lower():
                return True, int(option.partition("-")[0]) if option else 0
        return False, 0


def matches(filter, dn, entry):
    """Whether an entry matches: and, or, not, equality, presence, substrings, orderings,
    and whether a number has certain bits. Anything else is false."""
    tag, content = filter
    if tag in (0xA0, 0xA1):
        return (all if tag == 0xA0 else any)(matches(part, dn, entry) for part in ber.elements(content))
    if tag == 0xA2:
        return not matches(ber.elements(content)[0], dn, entry)
    if tag == 0x87:
        return bool(values_of(dn, entry, content.decode()))
    if tag == 0xA9:
        parts = dict(ber.elements(content))
        values, wanted = values_of(dn, entry, parts[0x82].decode()), parts[0x83]
        return parts.get(0x81) == BITS and any(int(value) & int(wanted) == int(wanted) for value in values)
    if tag not in (0xA3, 0xA4, 0xA5, 0xA6):
        return False
    (_, name), (_, wanted) = ber.elements(content)
    values = values_of(dn, entry, name.decode())
    if tag == 0xA4:
        pieces = [(kind, piece.lower()) for kind, piece in ber.elements(wanted)]
        pattern = b"".join((b"" if kind == 0x80 else b".*") + re.escape(piece) for kind, piece in pieces)
        pattern += b"" if pieces[-1][0] == 0x82 else b".*"
        return any(re.fullmatch(pattern, value.lower(), re.DOTALL) for value in values)
    if tag == 0xA3:
        return any(value.lower() == wanted.lower() for value in values)
    order = (lambda value: int(value) >= int(wanted)) if tag == 0xA5 else (lambda value: int(value) <= int(wanted))
    return any(order(value) for value in values)


def values_of(dn, entry, name):
    if name.lower() == "distinguishedname":
        return [dn.encode()]
    if name.lower() == "objectcategory":
        # A class's name stands for the DN of its category.
        return [as_bytes(name) for category in entry.get("objectCategory", [])
                for name in (category, category.partition(",")[0][3:].replace("-", ""))]
    return [as_bytes(value) for key, some in entry.items() if key.lower() == name.lower() for value in some]


def as_bytes(value):
    return value if isinstance(value, bytes) else str(value).encode()


class ScriptedPeer(contextlib.AbstractContextManager):
    """The server: one thread that accepts, and one for each connection."""

    conversation = None  # a kind of Conversation of a test's own

    def __init__(self, entries, where=("127.0.0.1", 0), certificate=None, transport="ldaps", passwords=None):
        """certificate is the files' (certificate, key). passwords is {name: password,
        or the text of a refusal}; names as a bind gives them, in any case."""
        self.entries, self.transport = entries, transport
        self.index()
        self.passwords = {name.lower(): password for name, password in (passwords or {}).items()}
        self.unpaged_limit = self.value_limit = None
        self.faults, self.requests, self.shown = [], [], []  # shown: name and password of each bind
        self.hang_handshake = self.hung = False
        self.connections = []
        self.lock = threading.Lock()
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        if certificate:
            self.context.load_cert_chain(*certificate)
        self.listener = socket.create_server(where)
        self.address, self.port = self.listener.getsockname()
        threading.Thread(target=self.accept, daemon=True).start()

    def index(self):
        """After a change of the entries."""
        self.by_name = {fold(dn): dn for dn in self.entries}
        self.sorted = sorted(self.entries.items())

    def __exit__(self, *_):
        self.close()

    def close(self):
        # Whoever is in accept() would hold the port open.
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.drop()

    def drop(self):
        """Every connection ends now, without a word."""
        with self.lock:
            connections, self.connections = self.connections, []
        for connection in connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)

    def limits(self, unpaged=None, values=None):
        """At most so many entries without pages, and values of one attribute at a time."""
        self.unpaged_limit, self.value_limit = unpaged, values

    def fault(self, fault, when=lambda search: True):
        """What happens to the next search that the condition is true for."""
        with self.lock:
            self.faults.append((when, fault))

    def searches(self):
        with self.lock:
            return [request for request in self.requests if isinstance(request, Search)]

    def logins(self, service):
        """The names of the binds that were tried, but for the service account's."""
        with self.lock:
            binds = [request[1] for request in self.requests if isinstance(request, tuple) and request[0] == "bind"]
        return [name for name in binds if name.lower() != service.lower()]

    # -- serving

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            with self.lock:
                self.connections.append(connection)
            threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        # Peers that go wrong make clients hang up; that is no error here.
        conversation = (self.conversation or Conversation)(self, connection)
        with contextlib.suppress(OSError, ValueError, IndexError):
            if self.transport == "ldaps":
                conversation.secure()
            conversation.run()
        with contextlib.suppress(OSError):
            conversation.connection.close()

    def secure(self, connection):
        if self.hang_handshake or self.hung:
            while connection.recv(4096):  # to the client's end; not a word
                pass
            raise OSError("hung up")
        secured = self.context.wrap_socket(connection, server_side=True)
        with self.lock:
            self.connections.append(secured)
        return secured

    def take_fault(self, search):
        with self.lock:
            for number, (when, fault) in enumerate(self.faults):
                if when(search):
                    del self.faults[number]
                    return fault
        return None

    def note(self, request):
        with self.lock:
            self.requests.append(request)

    def found(self, search):
        """The entries that a search finds, sorted; None when its base is not there."""
        base = fold(search.base)
        if base == "" and search.scope == 0:
            return [("", self.entries[""])] if "" in self.entries else []
        guid = re.fullmatch(r"<guid=([0-9a-f-]+)>", base)
        if guid:
            return [(dn, entry) for dn, entry in self.sorted if guid_of(entry) == guid[1].replace("-", "")]
        if base not in self.by_name:
            return None
        def inside(dn):
            name = fold(dn)
            below = name.endswith("," + base)
            if search.scope == 0:
                return name == base
            if search.scope == 1:
                return below and "," not in re.sub(r"\\.", "", name[:-len(base) - 1])
            return name == base or below
        return [(dn, entry) for dn, entry in self.candidates(search.filter)
                if dn and inside(dn) and matches(search.filter, dn, entry)]

    def candidates(self, filter):
        """The entries that may match. Some DNs are looked up, as a directory would."""
        _, content = filter
        wanted = [ber.elements(part)[-1][1].decode() for tag, part in (ber.elements(content) if filter[0] == 0xA1 else [filter])
                  if tag == 0xA3 and ber.elements(part)[0][1].lower() == b"distinguishedname"]
        if not wanted or filter[0] == 0xA1 and len(wanted) < len(ber.elements(content)):
            return self.sorted
        return sorted((dn, self.entries[dn]) for dn in (self.by_name.get(fold(name)) for name in wanted) if dn)


def described(name, values):
    return ber.sequence(ber.octets(name), ber.sequence(*(ber.octets(as_bytes(value)) for value in values), tag=ber.SET))


def guid_of(entry):
    [value] = entry.get("objectGUID") or [b""]
    little = value[3::-1] + value[5:3:-1] + value[7:5:-1] + value[8:]
    return little.hex()


class Conversation:
    """One connection, from its first request to its end."""

    def __init__(self, peer, connection):
        self.peer, self.connection = peer, connection
        self.buffer = b""
        self.pages = {}

    def run(self):
        while True:
            message = self.receive()
            if message is None:
                return
            parts = ber.elements(message)
            identifier, (tag, content) = ber.integer(parts[0][1]), parts[1]
            if tag == UNBIND:
                return
            if self.peer.hung:
                continue
            if tag == BIND:
                self.bind(identifier, content)
            elif tag == EXTENDED:
                self.extended(identifier, content)
            elif tag == SEARCH:
                search = Search(content)
                if len(parts) > 2:
                    search.take_controls(parts[2][1])
                self.peer.note(search)
                (self.peer.take_fault(search) or answer)(self, identifier, search)

    def receive(self):
        """The content of the next message; None when the client has gone."""
        while lacking := ber.missing(self.buffer):
            received = self.connection.recv(max(lacking, 4096))
            if not received:
                return None
            self.buffer += received
        _, content, end = ber.read(self.buffer)
        self.buffer = self.buffer[end:]
        return content

    def send(self, identifier, operation, controls=b""):
        self.connection.sendall(ber.sequence(ber.number(identifier), operation, controls))

    def result(self, identifier, tag, code, text="", controls=b"", more=b""):
        self.send(identifier, ber.sequence(ber.number(code, ber.ENUMERATED), ber.octets(""), ber.octets(text), more, tag=tag),
                  controls)

    def done(self, identifier, code=SUCCESS, text="", controls=b""):
        self.result(identifier, DONE, code, text, controls)

    def bind(self, identifier, content):
        _, (_, name), (kind, password) = ber.elements(content)[:3]
        self.peer.note(("bind", name.decode()))
        self.peer.shown.append((name.decode(), password.decode()))
        known = self.peer.passwords.get(name.decode().lower())
        if kind == 0x80 and known is not None and password.decode() == known:
            self.result(identifier, BIND_DONE, SUCCESS)
        else:
            self.result(identifier, BIND_DONE, INVALID, known if known and known.startswith("8") else "80090308: data 52e")

    def extended(self, identifier, content):
        name = ber.elements(content)[0][1].decode()
        self.peer.note(("extended", name))
        if name != START_TLS:
            self.result(identifier, EXTENDED_DONE, 2, "unknown")
            return
        self.result(identifier, EXTENDED_DONE, SUCCESS)
        self.secure()

    def secure(self):
        self.connection = self.peer.secure(self.connection)

    def entry(self, identifier, dn, entry, search):
        attributes = [self.attribute(name, values, search) for name, values in entry.items() if search.wants(name)[0]]
        self.send(identifier, ber.sequence(ber.octets(dn), ber.sequence(*attributes), tag=ENTRY))

    def attribute(self, name, values, search):
        """As one sequence; a part of too many values comes beside an attribute that
        seems to have none, as Windows sends it."""
        limit = self.peer.value_limit
        if not limit or len(values) <= limit:
            return described(name, values)
        _, first = search.wants(name)
        last = "*" if first + limit >= len(values) else first + limit - 1
        part = described(f"{name};range={first}-{last}", values[first:first + limit])
        return part if first else described(name, []) + part

    def page_of(self, search, entries):
        """The entries to send now, and the control that goes with them."""
        if search.page is None:
            limit = self.peer.unpaged_limit
            return (entries[:limit], b"", len(entries) > limit) if limit else (entries, b"", False)
        size = min(search.page or 1000, self.peer.unpaged_limit or search.page or 1000)
        first = int(search.cookie or b"0")
        rest = first + size < len(entries)
        cookie = str(first + size).encode() if rest else b""
        value = ber.sequence(ber.number(0), ber.octets(cookie))
        control = ber.sequence(ber.sequence(ber.octets(PAGED), ber.octets(value)), tag=0xA0)
        return entries[first:first + size], control, False


def answer(conversation, identifier, search):
    """A search as it should be answered."""
    entries = conversation.peer.found(search)
    if entries is None:
        conversation.done(identifier, NO_SUCH_OBJECT, "0000208D: NameErr")
        return
    entries, control, cut = conversation.page_of(search, entries)
    for dn, entry in entries:
        conversation.entry(identifier, dn, entry, search)
    conversation.done(identifier, SIZE_LIMIT if cut else SUCCESS, "", control)


# ---- faults

class After:
    """The first so many entries of the answer, and then something else."""

    def __init__(self, count=0):
        self.count = count

    def __call__(self, conversation, identifier, search):
        entries, _, _ = conversation.page_of(search, conversation.peer.found(search) or [])
        for dn, entry in entries[:self.count]:
            conversation.entry(identifier, dn, entry, search)
        self.then(conversation, identifier)


class Notice(After):
    """Notice of disconnection (RFC 4511, section 4.4.1), and the end."""

    def then(self, conversation, _):
        conversation.result(0, EXTENDED_DONE, UNAVAILABLE, "going down", more=ber.octets(NOTICE, 0x8A))
        raise OSError("disconnected")


class Garbage(After):
    """Bytes that are no BER."""

    def then(self, conversation, _):
        conversation.connection.sendall(bytes(range(256)) * 4)
        raise OSError("garbage was sent")


class Cut(After):
    """The beginning of a message, and the end of the connection."""

    def then(self, conversation, identifier):
        message = ber.sequence(ber.number(identifier), ber.sequence(ber.octets("CN=x"), ber.octets("y" * 4000), tag=ENTRY))
        conversation.connection.sendall(message[:2000])
        raise OSError("cut")


class Stall(After):
    """Nothing more, with the connection open; or half a message and nothing more."""

    def __init__(self, count=0, half=False):
        super().__init__(count)
        self.half = half

    def then(self, conversation, identifier):
        if self.half:
            message = ber.sequence(ber.number(identifier), ber.sequence(ber.octets("CN=x"), ber.octets("y" * 4000), tag=ENTRY))
            conversation.connection.sendall(message[:2000])
        while conversation.connection.recv(4096):
            pass
        raise OSError("the client hung up")


class Fail(After):
    """A result code in place of the rest."""

    def __init__(self, code, text="", count=0):
        super().__init__(count)
        self.code, self.text = code, text

    def then(self, conversation, identifier):
        conversation.done(identifier, self.code, self.text)


class Refer:
    """The whole answer, and references to other servers among it, as at a domain's root."""

    def __init__(self, *uris):
        self.uris = uris

    def __call__(self, conversation, identifier, search):
        for uri in self.uris:
            conversation.send(identifier, ber.sequence(ber.octets(uri), tag=REFERENCE))
        answer(conversation, identifier, search)


class Renamed:
    """The whole answer, with an attribute's values under another name."""

    def __init__(self, name, other):
        self.name, self.other = name, other

    def __call__(self, conversation, identifier, search):
        search.attributes = ["*"]
        for dn, entry in conversation.peer.found(search):
            renamed = {self.other if name == self.name else name: values for name, values in entry.items()}
            conversation.entry(identifier, dn, renamed, search)
        conversation.done(identifier)
