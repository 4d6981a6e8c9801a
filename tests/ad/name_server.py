# SPDX-License-Identifier: Apache-2.0
"""A name server that knows a few names: SRV records and addresses (RFC 1035, RFC 2782).
A service of several servers is a list of them.

    with NameServer("127.0.0.62", services={"_ldap._tcp.example.com": ("dc.example.com", 389)},
                    hosts={"dc.example.com": "127.0.0.61"}) as server:
        server.questions    # the names that were asked for, in order
"""
import contextlib
import socket
import struct
import threading

A, SRV = 1, 33
RESPONSE, NAME_ERROR = 0x8580, 3


def encoded(name):
    return b"".join(bytes([len(label)]) + label.encode() for label in name.split(".")) + b"\0"


class NameServer(contextlib.AbstractContextManager):
    """Answers on UDP until close()."""

    def __init__(self, address, services, hosts):
        self.services, self.hosts, self.questions = services, hosts, []
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((address, 53))
        threading.Thread(target=self.serve, daemon=True).start()

    def __exit__(self, *_):
        self.close()

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)  # ends a wait for questions
        self.socket.close()

    def serve(self):
        with contextlib.suppress(OSError):
            while True:
                question, client = self.socket.recvfrom(4096)
                if not question:
                    return
                self.socket.sendto(self.answer(question), client)

    def answer(self, question):
        labels, at = [], 12
        while question[at]:
            labels.append(question[at + 1:at + 1 + question[at]].decode())
            at += 1 + question[at]
        name, end = ".".join(labels).lower(), at + 5
        [kind] = struct.unpack(">H", question[at + 1:at + 3])
        self.questions.append(name)
        records = self.records(name, kind)
        known = name in self.services or name in self.hosts
        header = question[:2] + struct.pack(">5H", RESPONSE | (0 if known else NAME_ERROR), 1, len(records), 0, 0)
        return header + question[12:end] + b"".join(
            struct.pack(">HHHIH", 0xC00C, kind, 1, 60, len(data)) + data for data in records)

    def records(self, name, kind):
        if kind == SRV and name in self.services:
            services = self.services[name]
            return [struct.pack(">3H", 0, 100, port) + encoded(host)
                    for host, port in (services if isinstance(services, list) else [services])]
        if kind == A and name in self.hosts:
            return [socket.inet_aton(self.hosts[name])]
        return []
