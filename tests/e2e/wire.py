# SPDX-License-Identifier: Apache-2.0
"""LDAP messages as they are on the wire (RFC 4511), for tests of what client libraries
hide: the order of messages, second results, controls."""
import contextlib
import socket

from ber import BOOLEAN, ENUMERATED, element, elements, number, octets, sequence

PAGED = "1.2.840.113556.1.4.319"
SEARCH_ENTRY, SEARCH_DONE, EXTENDED_RESPONSE = 0x64, 0x65, 0x78
CONTROLS = 0xA0


def equality(name, value):
    return sequence(octets(name), octets(value), tag=0xA3)


def conjunction(*filters):
    return sequence(*filters, tag=0xA0)


def extensible(name, rule, value):
    return sequence(octets(rule, 0x81), octets(name, 0x82), octets(value, 0x83), tag=0xA9)


def paged(size, cookie=b"", critical=False):
    value = sequence(number(size), octets(cookie))
    return sequence(octets(PAGED), *([element(BOOLEAN, b"\xff")] if critical else []), octets(value))


class Message:
    """A message that a server sent: a search entry or a result."""

    def __init__(self, content):
        _, (self.tag, body), *rest = elements(content)
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
        rest = [sequence(*controls, tag=CONTROLS)] if controls else []
        self.socket.sendall(sequence(number(self.number), operation, *rest))
        return self.number

    def search(self, base, filter, attributes=(), **options):
        """Sends a search. Options: scope (2), size and time limit (0), control."""
        get = options.get
        operation = sequence(octets(base), number(get("scope", 2), ENUMERATED), number(0, ENUMERATED),
                             number(get("size", 0)), number(get("time", 0)), element(BOOLEAN, b"\x00"), filter,
                             sequence(*map(octets, attributes)), tag=0x63)
        return self.send(operation, [options["control"]] if "control" in options else ())

    def bind(self, dn, password):
        """A simple bind, and its result. The texts are sent as they are."""
        self.send(sequence(number(3), octets(dn), octets(password, 0x80), tag=0x60))
        return self.read()

    def abandon(self, request):
        return self.send(number(request, 0x50))

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
        self.send(sequence(octets(self.WHO_AM_I, 0x80), tag=0x77))
        messages = [self.read()]
        while messages[-1].tag != EXTENDED_RESPONSE:
            messages.append(self.read())
        return messages[:-1]
