"""LDAP messages as they are on the wire (RFC 4511), for tests of what client libraries
hide: the order of messages, second results, controls. BER is read and written here by
its lengths and tags alone."""
import contextlib
import socket

PAGED = "1.2.840.113556.1.4.319"
SEARCH_ENTRY, SEARCH_DONE, BIND_RESPONSE, EXTENDED_RESPONSE = 0x64, 0x65, 0x61, 0x78
CONTROLS = 0xA0


def tlv(tag, *parts):
    content = b"".join(part if isinstance(part, bytes) else part.encode() for part in parts)
    if len(content) < 128:
        return bytes([tag, len(content)]) + content
    length = len(content).to_bytes(4, "big")
    return bytes([tag, 0x84]) + length + content


def integer(value, tag=0x02):
    return tlv(tag, value.to_bytes(value.bit_length() // 8 + 1, "big"))


def elements(content):
    """The (tag, content) pairs that follow one another."""
    found = []
    while content:
        length, start = content[1], 2
        if length & 0x80:
            start += length & 0x7F
            length = int.from_bytes(content[2:start], "big")
        found.append((content[0], content[start:start + length]))
        content = content[start + length:]
    return found


def equality(name, value):
    return tlv(0xA3, tlv(0x04, name), tlv(0x04, value))


def conjunction(*filters):
    return tlv(0xA0, *filters)


def extensible(name, rule, value):
    return tlv(0xA9, tlv(0x81, rule), tlv(0x82, name), tlv(0x83, value))


def paged(size, cookie=b"", critical=False):
    value = tlv(0x30, integer(size), tlv(0x04, cookie))
    return tlv(0x30, tlv(0x04, PAGED), *([tlv(0x01, b"\xff")] if critical else []), tlv(0x04, value))


class Message:
    """A message that a server sent: a search entry or a result."""

    def __init__(self, content):
        (_, number), (self.tag, body), *rest = elements(content)
        self.number = int.from_bytes(number, "big")
        self.controls = [[part for _, part in elements(control)] for tag, part in rest if tag == CONTROLS
                         for _, control in elements(part)]
        parts = elements(body)
        if self.tag == SEARCH_ENTRY:
            self.dn = parts[0][1].decode()
            self.attributes = {name.decode(): [value.decode() for _, value in elements(values)]
                               for (_, name), (_, values) in (elements(one) for _, one in elements(parts[1][1]))}
        else:
            self.code, self.text = parts[0][1][0], parts[2][1].decode()

    @property
    def cookie(self):
        """Of a result with the paged results control; without, None."""
        for oid, *_, value in self.controls:
            if oid.decode() == PAGED:
                return elements(elements(value)[0][1])[1][1]
        return None

    def __repr__(self):
        if self.tag == SEARCH_ENTRY:
            return f"entry {self.dn.split(',')[0].partition('=')[2]}"
        paging = {None: "", b"": " last page"}.get(self.cookie, " cookie")
        return f"result {self.code}{paging}" + (f": {self.text}" if self.text else "")


class WireClient:
    """One connection."""

    WHO_AM_I = "1.3.6.1.4.1.4203.1.11.3"  # RFC 4532: an answer that marks an end

    def __init__(self, port, timeout):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout)
        self.stream = self.socket.makefile("rb")
        self.number = 0

    def close(self):
        with contextlib.suppress(OSError):
            self.stream.close()
            self.socket.close()

    def send(self, operation, controls=()):
        self.number += 1
        rest = [tlv(CONTROLS, *controls)] if controls else []
        self.socket.sendall(tlv(0x30, integer(self.number), operation, *rest))
        return self.number

    def search(self, base, filter, attributes=(), **options):
        """Sends a search. Options: scope (2), size and time limit (0), control."""
        get = options.get
        operation = tlv(0x63, tlv(0x04, base), integer(get("scope", 2), 0x0A), integer(0, 0x0A), integer(get("size", 0)),
                        integer(get("time", 0)), tlv(0x01, b"\x00"), filter,
                        tlv(0x30, *(tlv(0x04, name) for name in attributes)))
        return self.send(operation, [options["control"]] if "control" in options else ())

    def bind(self, dn, password):
        return self.send(tlv(0x60, integer(3), tlv(0x04, dn), tlv(0x80, password)))

    def abandon(self, number):
        return self.send(integer(number, 0x50))

    def read(self):
        """The next message."""
        head = self.stream.read(2)
        assert len(head) == 2, "the server closed the connection"
        length = head[1]
        if length & 0x80:
            length = int.from_bytes(self.stream.read(length & 0x7F), "big")
        return Message(self.stream.read(length))

    def until_result(self):
        """Messages up to the first result."""
        messages = [self.read()]
        while messages[-1].tag == SEARCH_ENTRY:
            messages.append(self.read())
        return messages

    def rest(self):
        """What the server has sent beyond that. It works on several requests of a
        connection at once: what is to be seen must have been sent before this is called."""
        self.send(tlv(0x77, tlv(0x80, self.WHO_AM_I)))
        messages = [self.read()]
        while messages[-1].tag != EXTENDED_RESPONSE:
            messages.append(self.read())
        return messages[:-1]
