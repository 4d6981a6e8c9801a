"""Groups of a domain through the gateway: large, deeply nested, cyclic."""
import pytest

from gateway import SUFFIX, search, values

LARGE = {f"m{number:04}" for number in range(2500)}
NESTED = [f"g-level{level:02}" for level in range(1, 13)]
CYCLE = ["g-cycle1", "g-cycle2", "g-cycle3"]


@pytest.fixture(scope="module")
def anonymous(shared_world):
    slapd = shared_world.slapd(shared_world.agent().start()).start()
    return slapd.connect()


def members(connection, group):
    found = search(connection, f"(&(objectClass=posixGroup)(cn={group}))", ["memberUid"])
    assert list(found) == [f"cn={group},ou=States,{SUFFIX}"]
    return values(next(iter(found.values())), "memberUid")


def groups_of(connection, name):
    found = search(connection, f"(&(objectClass=posixGroup)(memberUid={name}))", ["cn"])
    return {value for entry in found.values() for value in values(entry, "cn")}


def test_a_large_group_has_each_of_its_members_once(anonymous):
    found = members(anonymous, "g-large")
    assert len(found) == len(LARGE) and set(found) == LARGE


@pytest.mark.parametrize("group", NESTED)
def test_a_member_twelve_levels_down(anonymous, group):
    assert members(anonymous, group) == ["s-good"]


@pytest.mark.parametrize("group", CYCLE)
def test_groups_that_contain_each_other(anonymous, group):
    assert sorted(members(anonymous, group)) == ["s-good", "s-other"]


def test_a_group_of_groups(anonymous):
    assert set(members(anonymous, "g-ofgroups")) == LARGE | {"s-good"}


def test_the_groups_of_a_person_at_any_depth(anonymous):
    assert groups_of(anonymous, "s-good") == {*NESTED, *CYCLE, "g-ofgroups", "Domain Users"}
    assert groups_of(anonymous, "s-other") == {*CYCLE, "Domain Users"}
    assert groups_of(anonymous, "m2499") == {"g-large", "g-ofgroups", "Domain Users"}


def test_everybody_is_in_the_primary_group(anonymous):
    everybody = set(members_of_domain_users(anonymous))
    assert LARGE | {"s-good", "ann"} <= everybody and "sven" not in everybody


def members_of_domain_users(connection):
    found = search(connection, "(&(objectClass=posixGroup)(cn=Domain Users))", ["memberUid"])
    return values(next(iter(found.values())), "memberUid")


def test_more_people_than_a_page_are_enumerated_once_each(anonymous):
    found = search(anonymous, "(&(objectClass=posixAccount)(uid=m*))", ["uid"])
    assert {values(entry, "uid")[0] for entry in found.values()} >= LARGE
