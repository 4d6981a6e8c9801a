# SPDX-License-Identifier: Apache-2.0
"""A base search of "uid=NAME,...", as UNIX programs make them up: the person of that name,
where the directive says so, and nobody otherwise. The real agent, on each directory."""
import ldap
import pytest

from gateway import SUFFIX, Slapd, search, values

PEOPLE = f"ou=People,{SUFFIX}"
ANN = f"cn=ann,ou=Engineering,{PEOPLE}"


@pytest.fixture(scope="module")
def looked_up(shared_world):
    """{DN: the uids that it shows} of what a base search finds."""
    agent = shared_world.agent().start()
    directives = (*Slapd.DIRECTIVES, "dirgate.vextranslate.fetchbydnuid true")
    connection = shared_world.slapd(agent, directives=directives).start().connect()

    def look_up(base, filter="(objectClass=*)"):
        found = search(connection, filter, None, base, ldap.SCOPE_BASE)
        return {dn.lower(): values(entry, "uid") for dn, entry in found.items()}
    return look_up


@pytest.mark.parametrize("base", [
    f"uid=ann,{PEOPLE}", f"uid=ann,{SUFFIX}", f"uid=ann,ou=Engineering,{PEOPLE}", f"uid=ANN,{PEOPLE}"])
def test_the_person_of_that_name_is_found(looked_up, base):
    assert list(looked_up(base)) == [ANN.lower()]


@pytest.mark.parametrize("base", [
    f"uid=nobody,{PEOPLE}", f"uid=*,{PEOPLE}", f"uid=an*,{PEOPLE}", f"uid=ann,ou=Finance,{PEOPLE}",
    f"uid=ann,ou=Nowhere,{SUFFIX}", f"uid=kernel,{SUFFIX}", f"uid=ann\\00,{PEOPLE}"])
def test_nobody_else_is(looked_up, base):
    assert looked_up(base) == {}


def test_a_filter_of_the_clients_own_asks_for_the_object_itself(looked_up):
    assert looked_up(f"uid=ann,{PEOPLE}", "(objectClass=posixAccount)") == {}
    assert looked_up(f"uid=ann,{PEOPLE}", "(&(objectClass=posixAccount)(uid=ann))") == {}


def test_without_the_directive_nobody_is_named_so(gateway):
    found = search(gateway.connect(), "(objectClass=*)", ["uid"], f"uid=ann,{PEOPLE}", ldap.SCOPE_BASE)
    assert found == {}
