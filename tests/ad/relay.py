# SPDX-License-Identifier: Apache-2.0
"""A relay before a domain controller, at an address of its own: it counts what clients
ask, can stop serving a port, and has answers come late or never.

    with Relay(address, controller.address) as relay:
        relay.asked(LDAP)   # requests that have come for that port so far
        relay.refuse(KDC)   # from now on nobody listens there
        relay.late(delay)   # each piece of an answer is kept for delay() seconds; None is for ever
        relay.prompt()      # all that is kept goes on, and what follows is not kept

Requests are counted by their frames, sealed or not: BER messages, the packets of a
SASL layer (RFC 4422, section 3.7), Kerberos messages over TCP (RFC 4120, 7.2.2). The
notice of an unbind is no request.
"""
import contextlib
import socket
import threading

import ber

LDAP, CATALOG, KDC = 389, 3268, 88
BER_MESSAGE, UNBIND = 0x30, 0x42


class Frames:
    """Finds the frames in what a client sends."""

    def __init__(self, port):
        self.port, self.buffer, self.count, self.sealed = port, b"", 0, False

    def add(self, data):
        """Returns how many requests these bytes complete."""
        self.buffer += data
        before = self.count
        while self.take():
            pass
        return self.count - before

    def take(self):
        if len(self.buffer) < 5:
            return False
        # A packet of the SASL layer begins with its length, whose first byte is 0.
        if self.port != KDC and self.buffer[0] == BER_MESSAGE:
            if ber.missing(self.buffer):
                return False
            _, content, end = ber.read(self.buffer)
            self.count += ber.elements(content)[1][0] != UNBIND
        else:
            end = 4 + int.from_bytes(self.buffer[:4], "big")
            if len(self.buffer) < end:
                return False
            self.count += 1
        self.buffer = self.buffer[end:]
        return True


class Relay(contextlib.AbstractContextManager):
    """Listens until close()."""

    def __init__(self, address, controller, ports=(LDAP, CATALOG, KDC)):
        self.address, self.controller = address, controller
        self.lock = threading.Lock()
        self.counts = dict.fromkeys(ports, 0)
        self.listeners, self.sockets = {}, set()
        self.delay, self.on_time = None, threading.Event()
        self.prompt()
        for port in ports:
            self.serve(port)

    def __exit__(self, *_):
        self.close()

    def asked(self, port):
        with self.lock:
            return self.counts[port]

    def late(self, delay):
        self.delay = delay
        self.on_time.clear()

    def prompt(self):
        self.on_time.set()

    def serve(self, port):
        listener = socket.create_server((self.address, port))
        self.listeners[port] = listener
        threading.Thread(target=self.accept, args=(listener, port), daemon=True).start()

    def refuse(self, port):
        listener = self.listeners.pop(port)
        # Whoever is in accept() would hold the port open.
        with contextlib.suppress(OSError):
            listener.shutdown(socket.SHUT_RDWR)
        listener.close()

    def drop(self):
        """Every connection ends now, without a word."""
        with self.lock:
            for each in self.sockets:
                with contextlib.suppress(OSError):
                    each.shutdown(socket.SHUT_RDWR)

    def close(self):
        for port in list(self.listeners):
            self.refuse(port)
        self.drop()
        self.prompt()

    def accept(self, listener, port):
        while True:
            try:
                client, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self.join, args=(client, port), daemon=True).start()

    def join(self, client, port):
        """Until either side ends."""
        with contextlib.ExitStack() as stack:
            stack.enter_context(client)
            try:
                server = stack.enter_context(socket.create_connection((self.controller, port), 10))
            except OSError:
                return
            server.settimeout(None)
            ends = {client, server}
            with self.lock:
                self.sockets |= ends
            back = threading.Thread(target=self.carry, args=(server, client, None), daemon=True)
            back.start()
            self.carry(client, server, Frames(port))
            back.join()
            with self.lock:  # before others can have the descriptors
                self.sockets -= ends

    def carry(self, source, target, frames):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                if frames:
                    self.count(frames, data)
                elif not self.on_time.is_set():
                    self.on_time.wait(self.delay())
                target.sendall(data)
        for each in (source, target):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)

    def count(self, frames, data):
        complete = frames.add(data)
        with self.lock:  # before the answer can be there
            self.counts[frames.port] += complete
