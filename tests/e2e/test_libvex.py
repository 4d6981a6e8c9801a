# SPDX-License-Identifier: Apache-2.0
"""A program of many requests over libvex against a running agent: what the agent keeps
for its clients, and that nothing grows."""
import contextlib
import subprocess

import pytest

import crowd
from gateway import BUILD, LONG, SANITIZER, Server, wait_until

# What the agent keeps for its clients does not depend on the directory; how long the load takes does.
pytestmark = pytest.mark.embedded

# Under a sanitizer each takes its time.
SEARCHES, PARTIAL, PEOPLE = (2_000, 50, 700) if SANITIZER.kind else (10_000, 500, 2_000)
ROUNDS = 10_000 if LONG else 300 if SANITIZER.kind else 1_000


class VexLoad(Server):
    """The program, reading from a pipe whose end lets it go."""

    def __init__(self, world, agent, *words):
        super().__init__(f"vex_load{len(world.running_servers)}", world.folder, world.running_servers)
        self.agent, self.words = agent, words

    def start(self):
        self.spawn([BUILD / "tests/e2e/vex_load", *self.words], self.agent.env, stdin=subprocess.PIPE)
        return self

    def wait_for(self, line):
        wait_until(lambda: line in self.log() or not self.running(), f"vex_load says {line}", seconds=300)
        assert line in self.log(), self.log()

    def let_go(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        assert self.process.wait(300) == 0, self.log()


def test_sessions_and_searches_that_were_read_cost_the_agent_nothing(world):
    agent = world.agent().start()
    with_one = VexLoad(world, agent, "sessions", 1, 1).start()
    with_one.wait_for("open")
    before = agent.memory(), agent.descriptors(), agent.threads()
    with_one.let_go()

    load = VexLoad(world, agent, "sessions", 1_000, SEARCHES).start()
    load.wait_for("open")
    assert agent.open_searches() == 0
    assert agent.descriptors() < before[1] + 10, "the sessions share few connections"
    assert agent.threads() == before[2]
    if not SANITIZER.kind:
        assert agent.memory() - before[0] < 1 << 20
    load.let_go()


def test_a_search_that_is_not_read_costs_what_is_left_of_it(world):
    agent = world.agent(embedded__ldif=crowd.write(world.folder, PEOPLE)).start()
    load = VexLoad(world, agent, "partial", 1).start()
    load.wait_for("open")
    before = agent.memory()
    load.let_go()

    load = VexLoad(world, agent, "partial", PARTIAL).start()
    load.wait_for("open")
    assert agent.open_searches() == PARTIAL
    if not SANITIZER.kind:
        # 16 bytes for each of the people not yet sent, and half as much for all else.
        assert agent.memory() - before < PARTIAL * PEOPLE * 24
    load.let_go()
    wait_until(lambda: agent.open_searches() == 0, "the agent has let go of them")


def test_searches_of_a_client_that_dies_end(world):
    agent = world.agent(embedded__ldif=crowd.write(world.folder, PEOPLE)).start()
    load = VexLoad(world, agent, "partial", 50).start()
    load.wait_for("open")
    assert agent.open_searches() == 50
    load.kill()
    wait_until(lambda: agent.open_searches() == 0, "the agent has let go of them")


def test_nothing_grows_over_many_rounds(world):
    agent = world.agent().start()
    load = VexLoad(world, agent, "rounds", ROUNDS).start()
    load.wait_for("begun")
    descriptors, threads, memory = agent.descriptors(), agent.threads(), agent.memory()
    load.wait_for("rounds 0 0\n")
    assert load.process.wait(60) == 0
    agent.statistics()  # it is at rest
    assert agent.descriptors() <= descriptors
    assert agent.threads() <= threads
    if not SANITIZER.kind:
        assert agent.memory() - memory < 1 << 20
