# SPDX-License-Identifier: Apache-2.0
"""Mixed operations of several clients at once, first in calm, then while agents die and
dumps are asked for. Every answer is checked; memory stays where it was. The long form
(make soak) is a million operations."""
import collections
import json
import pathlib
import signal
import sys
import time

import pytest

import crowd
from gateway import LONG, SANITIZER, Server, Slapd, wait_until

CLIENTS = 3
PEOPLE = 100 if SANITIZER.kind else 400
CALM, ROUGH = (80_000, 260_000) if LONG else (700, 500)  # operations of each client
GROWTH = 2 << 20
THREAD = 3 << 19  # bytes: slapd gives each of its threads, started when it is needed, a slab of 1 MiB, and it has a stack
ONE_HEAP = {"MALLOC_ARENA_MAX": "1"}  # a heap for each few threads would fill for hours, whatever is freed
LIFE = 3 if SANITIZER.kind else 0.5  # seconds that an agent is given
DIRECTIVES = (
    *Slapd.DIRECTIVES, "dirgate.cache.enabled true", "dirgate.cache.ttl 2", "dirgate.cache.negative.ttl 1",
    "dirgate.cache.max.objects 300", "dirgate.cache.max.lists 60", "dirgate.cache.credential.expires 2")


def make_people(folder):
    """The directory's LDIF file, and a file of what the clients are to see of it."""
    model = folder / "people.json"
    people = {crowd.uid(number): crowd.seen(number) for number in range(PEOPLE)}
    model.write_text(json.dumps({"base": crowd.UNIT, "people": people}), encoding="utf-8")
    return crowd.write(folder, PEOPLE, lambda uid: f"pw-{uid}"), model


class Client(Server):
    def __init__(self, world, number):
        super().__init__(f"client{number}", world.folder, world.running_servers)
        self.number = number

    def start(self, slapd, model, operations):
        script = pathlib.Path(__file__).with_name("soak_client.py")
        self.spawn([sys.executable, script, slapd.uri, model, f"seed{self.number}", operations])
        return self

    def result(self):
        assert self.process.returncode == 0, self.log()
        return collections.Counter(json.loads(self.log()))


def run_clients(world, slapd, model, operations, meanwhile):
    """Runs the clients to their end. Returns the sum of their counts."""
    first = len(world.running_servers)
    clients = [Client(world, first + number).start(slapd, model, operations) for number in range(CLIENTS)]
    while any(client.running() for client in clients):
        assert slapd.running(), slapd.log()
        meanwhile()
    return sum((client.result() for client in clients), collections.Counter())


def failures(counts):
    return sum(count for kind, count in counts.items() if kind.startswith("failure"))


@pytest.mark.embedded
def test_every_answer_is_right_and_nothing_grows(world):
    ldif, model = make_people(world.folder)
    agent = world.agent(embedded__ldif=ldif).start()
    slapd = world.slapd(agent, directives=DIRECTIVES, env=ONE_HEAP).start()
    slapd.connect(crowd.dn(0), "pw-user0")  # nothing is cached before

    counts = run_clients(world, slapd, model, CALM, lambda: time.sleep(0.05))
    print("calm", dict(counts))
    assert failures(counts) == 0
    assert counts["lookup"] > CALM
    memory, descriptors, threads = slapd.memory(), slapd.descriptors(), slapd.threads()

    restarts = 0

    def disturb():
        nonlocal restarts
        next_death = time.monotonic() + LIFE
        slapd.signal(signal.SIGUSR1)
        wait_until(lambda: time.monotonic() > next_death, "the next death")
        agent.kill()
        agent.start()
        restarts += 1

    counts = run_clients(world, slapd, model, ROUGH, disturb)
    print("rough", dict(counts), restarts, "agents")
    assert restarts > 0
    assert failures(counts) < sum(counts.values()) / 4

    # The last agent serves as the first one did.
    counts = run_clients(world, slapd, model, 100, lambda: time.sleep(0.05))
    assert failures(counts) == 0
    wait_until(lambda: agent.open_searches() == 0, "no search stays open")
    assert slapd.descriptors() <= descriptors + 2 * CLIENTS
    grown, new_threads = slapd.memory() - memory, slapd.threads() - threads
    print("slapd grew by", grown, "bytes and", new_threads, "threads")
    assert threads + new_threads <= 20, "slapd starts up to 16 for requests"
    if not SANITIZER.kind:
        assert grown < GROWTH + new_threads * THREAD
