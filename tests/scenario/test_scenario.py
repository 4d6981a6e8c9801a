# SPDX-License-Identifier: Apache-2.0
"""Everything at once: many clients, an agent that stops and dies, controllers that hang,
are late, go wrong and are not who they say they are. No answer is wrong, nothing grows,
nothing is left open.

ZX_SCENARIO_SECONDS is how long it takes for each directory, ZX_SEED what becomes of it.
"""
import collections
import contextlib
import json
import os
import pathlib
import random
import signal
import sys
import time

import ldap
import psutil
import pytest

import troubles
from clients import crowd_of_names
from company import Company
from directories import Embedded
from domain import PlayedDomain
from gateway import ROOT, SANITIZER, Server, Slapd, search, wait_until
from ledger import GROWTH, Memory, descriptors
from weather import Weather
from world import make_world

LENGTH = int(os.environ.get("ZX_SCENARIO_SECONDS") or 10)
SEED = os.environ.get("ZX_SEED") or str(random.randrange(10 ** 6))
LONG = LENGTH >= 120
ROUND = 30 if LONG else LENGTH / (LENGTH // 10 or 1)
CONNECTIONS, PROCESSES = (64, 4) if LONG else (24, 2)
PEOPLE = 200 if LONG else 90
SLOW = 2 if SANITIZER.kind else 1
AGENT_TIMEOUT, DOMAIN_TIMEOUT = 3 * SLOW, 2 * SLOW  # seconds
DEADLINES = (0.5 * DOMAIN_TIMEOUT, 1.0, DOMAIN_TIMEOUT, AGENT_TIMEOUT)  # of parts of a request, and of the whole
IDLE_LINKS = 2 * 2 * 8  # descriptors: the agent keeps 8 connections to each of the controllers, and holds them twice
TICK = 0.1
IDLE_CONNECTIONS = 32  # connections to the agent that libvex keeps
LOG = "agent-log"  # both servers write to it, and open it when they have something to say
THREADS = CONNECTIONS + 8  # slapd's: a request that waits for the domain holds one
GLOBALS = ("sizelimit unlimited", "timelimit unlimited", f"threads {THREADS}")
DIRECTIVES = (*Slapd.DIRECTIVES, "dirgate.cache.enabled true", "dirgate.cache.ttl 3", "dirgate.cache.negative.ttl 3",
              "dirgate.cache.max.objects 120", "dirgate.cache.max.lists 60", "dirgate.cache.credential.expires 1")
HERE = pathlib.Path(__file__).parent


class Program(Server):
    """One of the clients' processes."""

    def __init__(self, name, world, *words):
        super().__init__(name, world.folder, world.running_servers)
        tests = os.pathsep.join((str(ROOT / "tests/e2e"), str(HERE)))
        self.spawn([sys.executable, *words], {"PYTHONPATH": tests})

    def report(self):
        assert self.process.wait() == 0, self.log()
        return json.loads(self.log().splitlines()[-1])


class Gateway:
    """slapd and agent before one of the directories, and those who use them."""

    def __init__(self, world, company, domain):
        self.world, self.company, self.domain = world, company, domain
        self.running_servers = world.running_servers
        common = {"agent__timeout": AGENT_TIMEOUT, "agent__threads": 8, "log__file": world.folder / LOG}
        if domain:
            self.agent = world.agent(ad__timeout=DOMAIN_TIMEOUT, **common)
            self.agent.resolve_by(domain.resolv)
        else:
            self.agent = world.agent(embedded__ldif=company.write(world.folder), **common)
        self.agent.start()
        self.slapd = world.slapd(self.agent, globals=GLOBALS, directives=DIRECTIVES, env={"MALLOC_ARENA_MAX": "1"}).start()
        self.weather = Weather(world.folder / "weather")

    def dn(self, uid):
        return f"cn={uid},{self.company.model()['unit']}"

    def answers(self):
        """Whether it does all that it should."""
        assert self.agent.running(), self.agent.log()
        uid = self.company.able[0]
        connection = self.slapd.connect()
        with contextlib.suppress(ldap.UNAVAILABLE, ldap.BUSY, ldap.OTHER):
            found = search(connection, f"(&(objectClass=posixAccount)(uid={uid}))", ["uid"])
            connection.simple_bind_s(self.dn(uid), f"pw-{uid}")
            return len(found) == 1
        self.close_connections()
        return False

    def descriptors(self):
        return {server.name: descriptors(server) for server in (self.slapd, self.agent)}

    def close_connections(self):
        for connection in self.slapd.connections:
            self.slapd.close_connection(connection)
        self.slapd.connections.clear()

    def let_depart(self):
        """The domain has accepted them once, and the agent remembers it; now they go."""
        for uid in self.company.departed:
            self.slapd.connect(self.dn(uid), f"old-{uid}")
        self.close_connections()
        self.domain.depart()

    def clients(self, until):
        settings = self.world.folder / "clients.json"
        settings.write_text(json.dumps({
            "uri": self.slapd.uri, "model": self.company.model(), "weather": str(self.world.folder / "weather"), "seed": SEED,
            "until": until, "connections": CONNECTIONS, "processes": PROCESSES, "pause": 0.1,
            "at_once": AGENT_TIMEOUT}), encoding="utf-8")
        return [Program(f"clients{number}", self.world, HERE / "clients.py", settings, number) for number in range(PROCESSES)] + [
            Program("watch", self.world, HERE / "watch.py", settings)]

    def troubles(self, chance):
        return troubles.of_servers(self.agent, self.slapd, self.domain) + (troubles.of_domain(self.domain, chance, DEADLINES) if self.domain else [])


@pytest.fixture(params=["embedded", "starttls", "ldaps"])
def gateway(request, tmp_path):
    company = Company(PEOPLE, departed=CONNECTIONS if LONG else 6)
    with contextlib.ExitStack() as stack:
        domain = None
        if request.param != "embedded":
            domain = stack.enter_context(contextlib.closing(PlayedDomain(company, request.param, request.getfixturevalue("certificates"), tmp_path)))
        world = stack.enter_context(contextlib.contextmanager(make_world)(request, domain or Embedded()))
        yield Gateway(world, company, domain)


def serve(gateway, seconds):
    """Runs clients and troubles to their end. Returns what the clients say, and the memories."""
    chance = random.Random(SEED)
    rounds = max(1, round(seconds / ROUND))
    maker = troubles.Troublemaker(troubles.plan(chance, gateway.troubles(chance), rounds, ROUND), gateway.weather,
                                  gateway.world.folder / "troubles")
    memories = {server.name: Memory(server) for server in (gateway.slapd, gateway.agent)}
    programs = gateway.clients(maker.begun + rounds * ROUND)
    while any(program.running() for program in programs):
        maker.step()
        assert gateway.slapd.running(), gateway.slapd.log()
        for memory in memories.values():
            memory.sample()
        time.sleep(TICK)
    maker.stop()
    return [program.report() for program in programs], memories


def fill_threads(gateway):
    """Each of slapd's threads works on as large a request as there will be, and keeps the
    memory: with an agent that does not answer, no thread gets two of them."""
    gateway.agent.signal(signal.SIGSTOP)
    connections = [gateway.slapd.connect() for _ in range(THREADS)]
    for connection in connections:
        connection.search_ext(gateway.company.model()["base"], ldap.SCOPE_SUBTREE, crowd_of_names(0), ["cn"])
    wait_until(lambda: psutil.Process(gateway.slapd.process.pid).num_threads() > THREADS, "all threads are there")
    gateway.agent.signal(signal.SIGCONT)
    gateway.close_connections()


def warm_up(gateway):
    """Everything that is opened once is open. Returns the descriptors."""
    if LONG:  # memory is judged
        fill_threads(gateway)
    wait_until(gateway.answers, "the gateway answers")
    if gateway.domain:
        gateway.let_depart()
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        gateway.slapd.connect(gateway.dn(gateway.company.able[0]), "wrong")  # which is logged
    gateway.close_connections()
    return gateway.descriptors()


def settle(gateway, before):
    """After it all, the gateway does what it did before, and holds no more than it did."""
    wait_until(gateway.answers, "the gateway answers again", 3 * 60)
    gateway.close_connections()
    wait_until(lambda: gateway.agent.open_searches() == 0, "no search stays open")
    wait_until(lambda: left_open(before, gateway.descriptors()) == {},
               lambda: f"nothing stays open: {left_open(before, gateway.descriptors())}")


def left_open(before, after):
    """What is there in excess. Connections between the two, and to controllers, are kept
    for the next request, up to a bound; the log is opened once."""
    kept = {"slapd": {"unix": IDLE_CONNECTIONS}, "vexagent": {"unix": IDLE_CONNECTIONS, "network": IDLE_LINKS}}

    def expected(name, kind):
        if pathlib.PurePath(kind).name == LOG:
            return 1
        return before[name][kind] + kept[name].get(kind, 0)
    return {(name, kind): count - before[name][kind] for name in after for kind, count in after[name].items()
            if count > expected(name, kind)}


def test_everything_at_once(gateway):
    print(f"ZX_SEED={SEED} ZX_SCENARIO_SECONDS={LENGTH}")
    before = warm_up(gateway)
    reports, memories = serve(gateway, LENGTH)
    counts = sum((collections.Counter(report["counts"]) for report in reports), collections.Counter())
    wrong = [one for report in reports for one in report["wrong"]]
    print(dict(sorted(counts.items())))
    for name, memory in memories.items():
        print(name, memory, "grew by", memory.growth() >> 10, "KiB")
    print(*wrong, sep="\n")
    settle(gateway, before)

    assert not wrong, f"{len(wrong)} wrong answers"
    assert counts["lookup"] > 0 and (counts["answered in calm"] > CONNECTIONS or not LONG)
    assert counts["failed in calm"] <= 5 + counts["answered in calm"] / 50
    if gateway.domain:
        assert gateway.domain.questions()
        assert sum(peer.betrayed for peer in gateway.domain.peers) == 0, "a password went to a false controller"
        assert not [name for name in gateway.domain.questions() if not name.endswith("example.com")]
    if not SANITIZER.kind:
        assert {name: memory.growth() for name, memory in memories.items() if memory.growth() > GROWTH} == {}
