# SPDX-License-Identifier: Apache-2.0
"""What each kind of request costs a controller: requests to LDAP and to the KDC, counted
by a relay. The numbers are exact, so that one more is seen."""
import contextlib
import time

import ldap
import pytest

from gateway import SUFFIX, Slapd, search, values
from relay import CATALOG, KDC, LDAP, Relay
from test_failures import keytab_with


@pytest.fixture(scope="module")
def relay(states_domain):
    """It stands at the lab's second address, which the controller answers to as well."""
    lab = states_domain.lab
    address, service = lab.addresses[1], f"ldap/{lab.addresses[1]}"
    lab.modify(named(lab, "add", service))
    with Relay(address, lab.addresses[0]) as running:
        yield running
    lab.modify(named(lab, "delete", service))


def named(lab, change, service):
    [(controller, _)] = lab.find(None, f"(sAMAccountName={lab.controllers[0].name}$)", ["1.1"])
    return f"dn: {controller}\nchangetype: modify\n{change}: servicePrincipalName\nservicePrincipalName: {service}\n"


@pytest.fixture
def start(world, relay):
    """Starts an agent that asks the relay, and slapd."""
    def begin(**settings):
        agent = world.agent(ad__servers=relay.address, ad__timeout=8, **settings).start()
        return world.slapd(agent).start()
    return begin


@pytest.fixture
def warm(start):
    """A gateway whose agent has a connection and knows the domain, its attributes and
    the stored memberUid values."""
    slapd = start()
    connection = slapd.connect()
    assert person(connection, "ann") and groups(connection, "ann")
    slapd.connect(f"cn=ann,ou=Engineering,ou=People,{SUFFIX}", "welcome")
    slapd.connection = connection
    return slapd


@contextlib.contextmanager
def costs(relay, ldap_requests, kdc_requests=0):
    before = relay.asked(LDAP), relay.asked(KDC)
    yield
    assert (relay.asked(LDAP) - before[0], relay.asked(KDC) - before[1]) == (ldap_requests, kdc_requests)


def person(connection, name):
    return search(connection, f"(&(objectClass=posixAccount)(uid={name}))", ["uid", "uidNumber", "gidNumber", "homeDirectory"])


def groups(connection, name):
    found = search(connection, f"(&(objectClass=posixGroup)(memberUid={name}))", ["cn", "gidNumber"])
    return {value for entry in found.values() for value in values(entry, "cn")}


def test_the_first_look_up_of_an_agent(start, relay):
    """The machine's ticket (asked for, then with its key), and one for the service; a
    bind in three messages; what the domain is, in three searches; its schema, in two; the
    look-up."""
    slapd = start()
    with costs(relay, 3 + 3 + 2 + 1, 3):
        assert len(person(slapd.connect(), "s-good")) == 1


def test_people_of_a_list_that_have_left_the_cache_are_looked_up_together(world, relay):
    """One look-up, one question for all that follow it, and one look-up of the last person,
    who was still in the cache when that question was asked."""
    agent = world.agent(ad__servers=relay.address, ad__timeout=8).start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, "dirgate.cache.enabled true", "dirgate.cache.max.objects 1")).start()
    slapd.connect(f"cn=ann,ou=Engineering,ou=People,{SUFFIX}", "welcome")  # brings the names of attributes
    connection = slapd.connect()
    everybody = "(objectClass=posixAccount)"
    before = search(connection, everybody, ["uid"])
    assert len(before) > 10
    with costs(relay, 1 + 1 + 1):
        assert search(connection, everybody, ["uid"]) == before


def test_a_key_that_is_refused_is_shown_ever_more_rarely(start, relay, world):
    """Each time takes two messages: the machine's name, and then its key."""
    begun, before = time.monotonic(), relay.asked(KDC)
    connection = start(ad__keytab=keytab_with(world.folder, "ZXHOST$@EXAMPLE.COM")).connect()
    for _ in range(10):
        with pytest.raises(ldap.UNAVAILABLE):
            person(connection, "s-good")
    rounds = 1 + sum(time.monotonic() - begun > delay for delay in (5, 15, 35, 75))
    assert 2 <= relay.asked(KDC) - before <= 2 * rounds


def test_a_person_by_name_and_by_number(warm, relay):
    with costs(relay, 1):
        assert len(person(warm.connection, "s-good")) == 1
    with costs(relay, 1):
        assert len(search(warm.connection, "(&(objectClass=posixAccount)(uidNumber=20001))", ["uid"])) == 1
    with costs(relay, 1):
        assert person(warm.connection, "nobody-of-this-name") == {}


def test_an_entry_by_its_name(warm, relay):
    with costs(relay, 1):
        assert len(search(warm.connection, "(objectClass=*)", ["uid"], f"cn=s-good,ou=States,{SUFFIX}", ldap.SCOPE_BASE)) == 1


@pytest.mark.parametrize("name, count", [("m0001", 3), ("s-other", 4)])
def test_the_groups_of_a_person(warm, relay, name, count):
    """The person; the groups level by level, ten to a search, and the primary one by its
    SID; the groups themselves. And now and then, all groups' stored values."""
    costs = set()
    for _ in range(6):
        before = relay.asked(LDAP)
        assert "Domain Users" in groups(warm.connection, name)
        costs.add(relay.asked(LDAP) - before)
    assert min(costs) == 1 + count + 1 and max(costs) <= min(costs) + 1


def test_a_group(warm, relay):
    """The group; its members, ten to a search; whose primary group it is."""
    with costs(relay, 1 + 1 + 1):
        found = search(warm.connection, "(&(objectClass=posixGroup)(cn=g-level12))", ["memberUid"])
    assert [values(entry, "memberUid") for entry in found.values()] == [["s-good"]]


def test_a_large_group(warm, relay):
    with costs(relay, 1 + 250 + 1):
        [entry] = search(warm.connection, "(&(objectClass=posixGroup)(cn=g-large))", ["memberUid"]).values()
    assert len(values(entry, "memberUid")) == 2500
    # What people are called is known by now.
    with costs(relay, 1 + 1):
        [entry] = search(warm.connection, "(&(objectClass=posixGroup)(cn=g-large))", ["memberUid"]).values()
    assert len(values(entry, "memberUid")) == 2500


def test_a_bind(warm, relay):
    """Whom the name may mean: the DN, and each of the three login attributes, in one go.
    The password: the KDC wants to be shown it, and then gives a ticket for this host."""
    with costs(relay, 4, 2), pytest.raises(ldap.INVALID_CREDENTIALS):
        warm.connect(f"cn=s-good,ou=States,{SUFFIX}", "wrong")
    with costs(relay, 4, 2):
        warm.connect(f"cn=s-good,ou=States,{SUFFIX}", "welcome")


@pytest.mark.parametrize("name", ["s-nobody", "s-disabled", "s-expired", "s-locked", "s-pwexpired"])
@pytest.mark.parametrize("password", ["wrong", "welcome"])
def test_a_refused_bind_costs_the_same_for_everybody(warm, relay, name, password):
    """As much as a wrong password: what is asked tells nobody who exists."""
    with costs(relay, 4, 2), pytest.raises(ldap.INVALID_CREDENTIALS):
        warm.connect(f"cn={name},ou=States,{SUFFIX}", password)


def test_the_whole_forest(warm, relay):
    """The global catalog finds it, over a connection of its own, for which the ticket is
    there; then it is fetched from its own domain."""
    def found():
        [(dn, entry)] = search(warm.connection, "(&(objectClass=posixAccount)(uid=s-good))", ["uid", "homeDirectory"],
                               f"cn=$,{SUFFIX}").items()
        assert (dn, values(entry, "uid"), values(entry, "homeDirectory")) == (
            f"cn=s-good,ou=States,{SUFFIX}", ["s-good"], ["/home/s-good"])
    before = relay.asked(CATALOG)
    with costs(relay, 1):
        found()
    assert relay.asked(CATALOG) - before == 3 + 1
    with costs(relay, 1):
        found()
    assert relay.asked(CATALOG) - before == 3 + 2


def test_a_kdc_that_has_gone_while_ldap_is_there(warm, relay):
    """A failure of the domain, not of the password; and nobody's look-ups."""
    relay.refuse(KDC)
    try:
        with pytest.raises(ldap.UNAVAILABLE) as caught:
            warm.connect(f"cn=s-good,ou=States,{SUFFIX}", "welcome")
        assert "no KDC of the domain can be reached to check the password" in caught.value.args[0]["info"]
        assert len(person(warm.connection, "s-other")) == 1
    finally:
        relay.serve(KDC)
    warm.connect(f"cn=s-good,ou=States,{SUFFIX}", "welcome")
