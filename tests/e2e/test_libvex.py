"""A program of many requests over libvex against a running agent: what the agent keeps
for its clients, and that nothing grows."""
import contextlib
import re
import subprocess

import psutil
import pytest

from gateway import BUILD, LONG, SANITIZER, Server, wait_until

# What the agent keeps for its clients does not depend on the directory; how long the load takes does.
pytestmark = pytest.mark.embedded

# Under a sanitizer each takes its time.
SEARCHES, PARTIAL, PEOPLE = (2_000, 50, 700) if SANITIZER.kind else (10_000, 500, 2_000)
ROUNDS = 10_000 if LONG else 300 if SANITIZER.kind else 1_000
OPEN = re.compile(r"; open searches: (\d+); client processes: (\d+)")


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


def open_searches(agent):
    """How many searches the agent keeps."""
    agent.served()
    return int(OPEN.findall(agent.log())[-1][0])


def memory(process):
    return psutil.Process(process.pid).memory_info().rss


def holdings(process):
    process = psutil.Process(process.pid)
    return process.num_fds(), process.num_threads()


def test_sessions_and_searches_that_were_read_cost_the_agent_nothing(world):
    agent = world.agent().start()
    with_one = VexLoad(world, agent, "sessions", 1, 1).start()
    with_one.wait_for("open")
    before = memory(agent.process), *holdings(agent.process)
    with_one.let_go()

    load = VexLoad(world, agent, "sessions", 1_000, SEARCHES).start()
    load.wait_for("open")
    assert open_searches(agent) == 0
    descriptors, agent_threads = holdings(agent.process)
    assert descriptors < before[1] + 10, "the sessions share few connections"
    assert agent_threads == before[2]
    if not SANITIZER.kind:
        assert memory(agent.process) - before[0] < 1 << 20
    load.let_go()


def test_a_search_that_is_not_read_costs_what_is_left_of_it(world):
    agent = world.agent(embedded__ldif=many_people(world, PEOPLE)).start()
    load = VexLoad(world, agent, "partial", 1).start()
    load.wait_for("open")
    before = memory(agent.process)
    load.let_go()

    load = VexLoad(world, agent, "partial", PARTIAL).start()
    load.wait_for("open")
    assert open_searches(agent) == PARTIAL
    if not SANITIZER.kind:
        # 16 bytes for each of the people not yet sent, and half as much for all else.
        assert memory(agent.process) - before < PARTIAL * PEOPLE * 24
    load.let_go()
    wait_until(lambda: open_searches(agent) == 0, "the agent has let go of them")


def test_searches_of_a_client_that_dies_end(world):
    agent = world.agent(embedded__ldif=many_people(world, PEOPLE)).start()
    load = VexLoad(world, agent, "partial", 50).start()
    load.wait_for("open")
    assert open_searches(agent) == 50
    load.kill()
    wait_until(lambda: open_searches(agent) == 0, "the agent has let go of them")


def test_nothing_grows_over_many_rounds(world):
    agent = world.agent().start()
    load = VexLoad(world, agent, "rounds", ROUNDS).start()
    load.wait_for("begun")
    agent_before = holdings(agent.process)
    memory_before = memory(agent.process), memory(load.process)
    load.wait_for("rounds 0 0\n")
    assert load.process.wait(60) == 0
    agent.served()
    assert holdings(agent.process) <= agent_before
    if not SANITIZER.kind:
        assert memory(agent.process) - memory_before[0] < 1 << 20


def many_people(world, count):
    """An LDIF file of the domain, and so many people in it."""
    records = ["dn: CN=Users,DC=example,DC=com\nobjectClass: container\n"]
    records += [f"dn: CN=ann{number or ''},CN=Users,DC=example,DC=com\nobjectClass: user\n"
                f"sAMAccountName: ann{number or ''}\nuidNumber: {10_000 + number}\n" for number in range(count)]
    file = world.folder / "people.ldif"
    file.write_text("\n".join(records), encoding="utf-8")
    return file
