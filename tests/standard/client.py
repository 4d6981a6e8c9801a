# SPDX-License-Identifier: Apache-2.0
"""Questions and their answers, as bytes on a connection: no client library comes
between, which would hide what is asked and answered."""
import functools
import shlex
import socket
from dataclasses import dataclass, field

import filters
from ber import BOOLEAN, ENUMERATED, element, elements, number, octets, sequence

ENTRY, REFERENCE, DONE, COMPARED = 0x64, 0x73, 0x65, 0x6F
PAGED = b"1.2.840.113556.1.4.319"
MOST_PAGES = 1000


@dataclass(frozen=True)
class Search:
    base: bytes
    scope: int
    filter: tuple
    names: tuple = ()
    types_only: bool = False
    size: int = 0
    pages: tuple = ()  # the pages' sizes, of which the last one repeats; none: no pages

    kind = property(lambda self: "pages" if self.pages else "size limit" if self.size else "search")

    def encoded(self):
        return sequence(octets(self.base), number(self.scope, ENUMERATED), number(0, ENUMERATED), number(self.size), number(0),
                        element(BOOLEAN, b"\xff" if self.types_only else b"\0"), filters.encoded(self.filter),
                        sequence(*map(octets, self.names)), tag=0x63)

    def command(self, uri):
        words = ["ldapsearch", "-x", "-LLL", "-H", uri, "-b", self.base.decode(errors="backslashreplace"),
                 "-s", ("base", "one", "sub", "children")[self.scope]]
        words += ["-A"] if self.types_only else []
        words += ["-z", str(self.size)] if self.size else []
        words += ["-E", f"pr={self.pages[0]}/noprompt"] if self.pages else []
        return shlex.join([*words, filters.text(self.filter), *self.names])


@dataclass(frozen=True)
class Compare:
    dn: bytes
    name: str
    value: bytes

    kind = "compare"

    def encoded(self):
        return sequence(octets(self.dn), sequence(octets(self.name), octets(self.value)), tag=0x6E)

    def command(self, uri):
        dn, value = (part.decode(errors="backslashreplace") for part in (self.dn, self.value))
        return shlex.join(["ldapcompare", "-x", "-H", uri, dn, f"{self.name}:{value}"])


@dataclass
class Answer:
    code: int = 0
    matched: str = ""
    text: str = ""
    entries: list = field(default_factory=list)  # [(DN, {name: (values)})], as they came
    references: int = 0
    controls: tuple = ()  # of the results, their numbers
    sizes: tuple = ()  # of the pages: how many entries each had

    def __str__(self):
        lines = [f"result {self.code}" + (f", matched {self.matched}" if self.matched else "") + (f", \"{self.text}\"" if self.text else ""),
                 f"{len(self.entries)} entries" + (f" in pages of {list(self.sizes)}" if self.sizes else "")]
        return "; ".join(lines)


@functools.lru_cache(maxsize=20000)
def entry_of(body):
    (_, dn), (_, attributes) = elements(body)
    return dn.decode(), {name.decode(): tuple(value for _, value in elements(values))
                         for (_, name), (_, values) in (elements(one) for _, one in elements(attributes))}


class Connection:
    def __init__(self, port, timeout=60):
        self.port, self.timeout, self.number = port, timeout, 0
        self.socket = socket.create_connection(("127.0.0.1", port), timeout)
        self.stream = self.socket.makefile("rb", buffering=1 << 16)

    def close(self):
        self.stream.close()
        self.socket.close()

    def send(self, operation, controls=()):
        self.number += 1
        rest = [sequence(*controls, tag=0xA0)] if controls else []
        self.socket.sendall(sequence(number(self.number), operation, *rest))

    def read(self):
        """The next message: its operation's tag, its body, its controls."""
        head = self.stream.read(2)
        assert len(head) == 2, "the server closed the connection"
        length = head[1]
        if length & 0x80:
            length = int.from_bytes(self.stream.read(length & 0x7F), "big")
        (_, answered), (tag, body), *rest = elements(self.stream.read(length))
        assert int.from_bytes(answered, "big") == self.number, "an answer to another question"
        return tag, body, [[part for _, part in elements(control)] for _, control in elements(rest[0][1])] if rest else []

    def begin(self, question):
        """Sends a question, or the first page's: the answer is read by end()."""
        pages = getattr(question, "pages", ())
        self.send(question.encoded(), [paging(pages[0], b"")] if pages else ())

    def end(self, question):
        answer = Answer()
        cookie = self._read(answer)
        pages = getattr(question, "pages", ())
        for page in range(1, MOST_PAGES):
            if not cookie:
                break
            self.send(question.encoded(), [paging(pages[min(page, len(pages) - 1)], cookie)])
            cookie = self._read(answer)
        else:
            answer.text += " (there was no end of pages)"
        return answer

    def ask(self, question):
        self.begin(question)
        return self.end(question)

    def _read(self, answer):
        """Up to the result. Returns the cookie of the pages, if there is one."""
        before = len(answer.entries)
        tag, body, controls = self.read()
        while tag in (ENTRY, REFERENCE):
            if tag == ENTRY:
                answer.entries.append(entry_of(body))
            else:
                answer.references += 1
            tag, body, controls = self.read()
        (_, code), (_, matched), (_, text), *_ = elements(body)
        answer.code, answer.matched, answer.text = code[0], matched.decode(errors="replace"), text.decode(errors="replace")
        answer.controls += tuple(control[0] for control in controls)
        answer.sizes += (len(answer.entries) - before,)
        [cookie] = [elements(elements(control[-1])[0][1])[1][1] for control in controls if control[0] == PAGED] or [b""]
        return cookie


def paging(size, cookie):
    return sequence(octets(PAGED), octets(sequence(number(size), octets(cookie))))
