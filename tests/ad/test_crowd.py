# SPDX-License-Identifier: Apache-2.0
"""Groups of ten thousand, asked for by agents that know nobody yet. What counts against
the time that a request has by itself (ad.timeout is 8) is processor time: the domain's
and the agent's, who wait for each other."""
import psutil
import pytest

from directories import Domain
from gateway import SANITIZER, search, values
from world import make_world


@pytest.fixture(scope="module")
def crowd(states_domain):
    states_domain.close()  # it starts again when it is wanted
    domain = Domain("crowd")
    yield domain
    domain.close()


@pytest.fixture
def world(request, crowd):
    yield from make_world(request, crowd)


SECONDS = 4 * (10 if SANITIZER.kind else 1)


def processor_seconds(agent, controller):
    domain = psutil.Process(controller.process.pid)
    times = [process.cpu_times() for process in (domain, *domain.children(recursive=True), psutil.Process(agent.process.pid))]
    return sum(time.user + time.system for time in times)


def members(world, group):
    """As an agent and a slapd say that have just started."""
    agent = world.agent(ad__timeout=80, agent__timeout=90).start()
    connection = world.slapd(agent).start().connect()
    assert len(search(connection, "(&(objectClass=posixAccount)(uid=ann))")) == 1
    [controller] = world.directory.lab.controllers
    before = processor_seconds(agent, controller)
    [entry] = search(connection, f"(&(objectClass=posixGroup)(cn={group}))", ["memberUid"]).values()
    assert processor_seconds(agent, controller) - before < SECONDS
    return values(entry, "memberUid")


@pytest.mark.parametrize("group, count", [("group0", 10_000), ("group1", 3_000)])
def test_a_large_group(world, group, count):
    found = members(world, group)
    assert len(found) == count and set(found) == {f"user{number}" for number in range(count)}


def test_everybody_s_primary_group(world):
    found = members(world, "Domain Users")
    assert len(found) == len(set(found)) and {"ann", *(f"user{number}" for number in range(10_000))} <= set(found)
