# SPDX-License-Identifier: Apache-2.0
"""Groups of a domain through the gateway: large, deeply nested, cyclic, mixed."""
import ldap
import pytest

from gateway import SUFFIX, failure, pages, search, values
from lab import BASE

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


# ---- members of every kind

UNIT = f"OU=States,{BASE}"
STRANGERS = {  # who are in a group, and nobody to UNIX
    "x-contact": ["contact"], "x-machine": ["computer"], "x-nobody": ["user"]}


@pytest.fixture
def mixed(lab):
    """A group of a person, somebody disabled, a person without numbers, a contact, a
    computer, somebody of another forest, and another group."""
    administrator = lab.administrator()
    made = []

    def add(dn, **attributes):
        administrator.add_s(dn, [(name, [value.encode() for value in values]) for name, values in attributes.items()])
        made.append(dn)
        return dn
    members = [f"CN=s-good,{UNIT}", f"CN=s-disabled,{UNIT}", f"CN=g-cycle2,{UNIT}"]
    for name, classes in STRANGERS.items():
        account = {} if classes == ["contact"] else {"sAMAccountName": [name]}
        members.append(add(f"CN={name},{UNIT}", objectClass=classes, **account))
    members.append("<SID=S-1-5-21-1111-2222-3333-4444>")
    add(f"CN=x-mixed,{UNIT}", objectClass=["group"], sAMAccountName=["x-mixed"], gidNumber=["39001"], member=members)
    add(f"CN=x-around,{UNIT}", objectClass=["group"], sAMAccountName=["x-around"], gidNumber=["39002"],
        member=[f"CN=x-mixed,{UNIT}"])
    yield "x-mixed"
    for dn in reversed(made):
        administrator.delete_s(dn)
    lab.disconnect()


def test_only_people_are_members(mixed, lab, anonymous):
    [(_, group)] = lab.find(None, f"(sAMAccountName={mixed})", ["member"])
    assert len(group["member"]) == 7 and any(b"ForeignSecurityPrincipals" in member for member in group["member"])
    assert sorted(members(anonymous, mixed)) == ["s-disabled", "s-good", "s-other"]
    assert sorted(members(anonymous, "x-around")) == ["s-disabled", "s-good", "s-other"]
    assert groups_of(anonymous, "x-nobody") & {"x-mixed", "x-around"} == set()
    assert {"x-mixed", "x-around"} <= groups_of(anonymous, "s-disabled")


# ---- limits

def refusal(action):
    with pytest.raises(ldap.LDAPError) as caught:
        action()
    return failure(caught.value)


def test_too_many_groups_are_a_failure_and_no_part_of_the_answer(world):
    log = world.folder / "agent.log"
    connection = world.slapd(world.agent(ad__groups__max=5, log__file=log).start()).start().connect()
    why = (11, "vexLdapSearch :directory error (vexRC=8), errSystem=LDAP, errCode=11, "
               "errString=membership goes through too many groups")
    assert members(connection, "g-level08") == ["s-good"]
    assert refusal(lambda: members(connection, "g-level07")) == why
    assert groups_of(connection, "s-other") == {*CYCLE, "Domain Users"}
    assert refusal(lambda: groups_of(connection, "s-good")) == why
    assert "membership goes through more than 5 groups (ad.groups.max)" in log.read_text(encoding="utf-8")


def test_too_many_open_searches_are_told_so(world):
    """Each holds a connection to the domain until it is read to its end or given up."""
    log = world.folder / "agent.log"
    slapd = world.slapd(world.agent(ad__connections=1, log__file=log).start()).start()
    everybody = "(&(objectClass=posixAccount)(uid=m0*))"
    reading = [pages(slapd.connect(), everybody, 10) for _ in range(4)]
    assert [len(next(each)) for each in reading] == [10] * 4
    assert refusal(lambda: next(pages(slapd.connect(), everybody, 10))) == (
        51, "vexLdapSearch :directory error (vexRC=8), errSystem=LDAP, errCode=51, "
            "errString=too many searches are open")
    told = "too many searches of example.com are open: 4, four times ad.connections"
    assert told in log.read_text(encoding="utf-8")
    assert len(search(slapd.connect(), "(&(objectClass=posixAccount)(uid=s-good))")) == 1
    assert sum(map(len, reading[0])) == 990
    assert len(next(pages(slapd.connect(), everybody, 10))) == 10
