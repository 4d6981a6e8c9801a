# SPDX-License-Identifier: Apache-2.0
"""An agent that is lost, hangs or answers nonsense at every point of a search. A proxy
stands between slapd and the real agent, and spoils the Nth frame that the agent sends:
whatever the point, a search ends whole or as a failure, and the next one is right."""
import socket
import struct
import threading

import ldap
import pytest

import crowd
from gateway import SECONDS, SUFFIX, Slapd, pages, wait_until

PEOPLE = 600  # three batches of the agent's
ALL = "(objectClass=posixAccount)"
TEXT = "vexLdapSearch :"
DEADLINE = 2  # seconds, of the requests to the agent


class Proxy:
    """A Unix socket in front of the agent's. The agent begins with a greeting of 8 bytes;
    a frame is a length of 4 bytes, the lowest first, and as many bytes (vex/wire.h)."""

    def __init__(self, path, agent):
        self.path, self.agent = str(path), str(agent)
        self.fault, self.countdown = None, 0
        self.seen = 0  # frames that the agent has sent
        self.lock = threading.Lock()
        self.sockets = []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen(16)
        threading.Thread(target=self.accept, daemon=True).start()

    def spoil(self, fault, frame):
        """The fault befalls the frame that so many others precede, and nothing later."""
        with self.lock:
            self.fault, self.countdown, self.seen = fault, frame, 0

    def accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            agent = socket.socket(socket.AF_UNIX)
            agent.connect(self.agent)
            self.sockets += [client, agent]
            threading.Thread(target=self.copy, args=(client, agent), daemon=True).start()
            threading.Thread(target=self.answer, args=(agent, client), daemon=True).start()

    @staticmethod
    def end(*sockets):
        for one in sockets:
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def copy(self, source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
        except OSError:
            pass
        self.end(source, target)

    def next_fault(self):
        with self.lock:
            self.seen += 1
            if self.fault is None or self.seen <= self.countdown:
                return None
            fault, self.fault = self.fault, None
            return fault

    def answer(self, agent, client):
        stream = agent.makefile("rb")
        try:
            client.sendall(stream.read(8))
            while len(head := stream.read(4)) == 4:
                body = stream.read(struct.unpack("<I", head)[0])
                fault = self.next_fault()
                if fault is None:
                    client.sendall(head + body)
                elif not fault(client, head, body):
                    break
        except OSError:
            pass
        self.end(agent, client)

    def close(self):
        self.listener.close()
        self.end(*self.sockets)


# Each gets the frame; whether the connection goes on is its answer.

def lost(_client, _head, _body):
    """The agent has gone."""
    return False


def cut(client, head, body):
    """It goes in the middle of a frame."""
    client.sendall(head + body[:len(body) // 2])
    return False


def silent(_client, _head, _body):
    """It never answers."""
    return True


def nonsense(client, head, body):
    """The frame's length holds, its content does not."""
    client.sendall(head + bytes(byte ^ 0xA5 for byte in body))
    return True


def too_long(client, _head, body):
    """A length that no frame has."""
    client.sendall(b"\xff\xff\xff\x7f" + body)
    return True


def twice(client, head, body):
    """An answer that comes a second time, where the next one is due."""
    client.sendall((head + body) * 2)
    return True


@pytest.fixture(scope="module")
def served(shared_world):
    """The agent with many people, the proxy, and slapd behind it with the cache on."""
    agent = shared_world.agent(embedded__ldif=crowd.write(shared_world.folder, PEOPLE)).start()
    proxy = Proxy(shared_world.folder / "proxy.sock", agent.socket)
    settings = shared_world.folder / "slapd.settings"
    settings.write_text(agent.settings_file.read_text().replace(str(agent.socket), proxy.path)
                        + f"agent.timeout = {DEADLINE}\n")
    slapd = shared_world.slapd(env={**agent.env, "ZANTHE_CONF": str(settings)}, directives=(
        *Slapd.DIRECTIVES, "dirgate.cache.enabled true", "dirgate.cache.max.objects 2000")).start()
    slapd.connect(crowd.dn(1), "right")  # from here on answers are cached
    yield slapd, proxy
    proxy.close()


def people(connection, filter):
    return {values["uid"][0].decode() for dn, values in
            connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, filter, ["uid"]) if dn}


def paged_people(connection, filter):
    return {values["uid"][0].decode() for page in pages(connection, filter, 130) for _, values in page}


EVERYBODY = {crowd.uid(number) for number in range(PEOPLE)}
SERIAL = iter(range(1_000_000))


def another_filter(what):
    """A filter that has not been asked: nothing is known of it in the cache."""
    return f"(&{what}(!(uidNumber={next(SERIAL)})))"


@pytest.mark.embedded
@pytest.mark.parametrize("fault", [lost, cut, silent, nonsense, too_long, twice])
@pytest.mark.parametrize("read, what, expected", [
    (people, "(&(objectClass=posixAccount)(uid=user7))", {"user7"}),
    (people, ALL, EVERYBODY),
    (paged_people, ALL, EVERYBODY),
], ids=["one", "everybody", "pages"])
def test_at_every_point_a_search_is_whole_or_fails(served, fault, read, what, expected):
    slapd, proxy = served
    proxy.spoil(None, 0)
    assert read(slapd.connect(), another_filter(what)) == expected
    frames = proxy.seen
    outcomes = []
    for point in range(frames):
        filter = another_filter(what)
        connection = slapd.connect()
        proxy.spoil(fault, point)
        try:
            assert read(connection, filter) == expected
            outcomes.append("whole")
        except ldap.UNAVAILABLE as error:
            assert error.args[0]["info"].startswith(TEXT), error
            outcomes.append("failed")
        # Whatever the cache has kept of it, it is no part of the list.
        proxy.spoil(None, 0)
        wait_until(lambda: answers(slapd, read, filter, expected), "the next search is right", SECONDS)
        connection.unbind_ext()
    assert slapd.running()
    # An answer that comes too often is noticed at the latest where the next is due.
    assert "failed" in outcomes or fault is twice, outcomes


def answers(slapd, read, filter, expected):
    try:
        found = read(slapd.connect(), filter)
    except ldap.UNAVAILABLE:
        return False
    assert found == expected
    return True
