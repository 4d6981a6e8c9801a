"""Groups of ten thousand, asked for by agents that know nobody yet, within the time that
a request has by itself."""
import pytest

from directories import Domain
from gateway import search, values
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


def members(world, group):
    """As an agent and a slapd say that have just started."""
    connection = world.slapd(world.agent().start()).start().connect()
    [entry] = search(connection, f"(&(objectClass=posixGroup)(cn={group}))", ["memberUid"]).values()
    return values(entry, "memberUid")


@pytest.mark.parametrize("group, count", [("group0", 10_000), ("group1", 3_000)])
def test_a_large_group(world, group, count):
    found = members(world, group)
    assert len(found) == count and set(found) == {f"user{number}" for number in range(count)}


def test_everybody_s_primary_group(world):
    found = members(world, "Domain Users")
    assert len(found) == len(set(found)) and {"ann", *(f"user{number}" for number in range(10_000))} <= set(found)
