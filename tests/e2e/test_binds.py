# SPDX-License-Identifier: Apache-2.0
"""Simple binds: which names and passwords are right, and what is said when they are not."""
import time

import ldap
import pytest

from gateway import SECONDS, SUFFIX, Slapd, failure, search, wait_until
from wire import WireClient

PEOPLE = f"ou=People,{SUFFIX}"
ANN = f"cn=ann,ou=Engineering,{PEOPLE}"
WRONG = (49, "vexAuth : cannot bind to server due to invalid user or password.")


def refusal(gateway, who, password):
    with pytest.raises(ldap.LDAPError) as caught:
        gateway.connect(who, password)
    return failure(caught.value)


@pytest.mark.parametrize("who, password", [
    (ANN, "welcome"),
    (ANN.upper(), "welcome"),
    (f"cn=Ann Lee,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=rosa,ou=Operations,{PEOPLE}", "Tea, at 4 o'clock"),
    (f"cn=zoe,ou=Finance,{PEOPLE}", "mot de passe é"),
    (f"cn=Zoë Martin,ou=Finance,{PEOPLE}", "mot de passe é"),
    (f"cn=grace,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=Lovelace\\, Grace,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=Katherine \\\"Kit\\\" O'Neil,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=taro,ou=Research,{PEOPLE}", "welcome"),
    (f"cn=Łukasz Żak,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=Βασίλης Παππάς,ou=Research,{PEOPLE}", "welcome"),
    (f"cn=Sven \\+ Partner,ou=Operations,{PEOPLE}", "welcome"),
    (f"cn=Back\\\\slash Bob,ou=Research,{PEOPLE}", "welcome"),
    (f"cn=Backup Service,ou=Service Accounts,{SUFFIX}", "welcome"),
])
def test_a_right_password(gateway, who, password):
    connection = gateway.connect(who, password)
    assert ldap.dn.str2dn(connection.whoami_s().removeprefix("dn:").lower()) == ldap.dn.str2dn(who.lower())


def test_one_binds_with_the_dn_that_a_search_showed(gateway, anonymous):
    found = search(anonymous, "(&(objectClass=posixAccount)(uid=hugo))", ["1.1"])
    gateway.connect(next(iter(found)), "welcome")


@pytest.mark.parametrize("who, password", [
    (ANN, "Welcome"),
    (ANN, "welcome "),
    (ANN, "welcom"),
    (f"cn=nils,ou=Operations,{PEOPLE}", "welcome"),
    (f"cn=nobody,ou=Operations,{PEOPLE}", "welcome"),
    (f"cn=ann,ou=Finance,{PEOPLE}", "welcome"),
    (f"ou=Groups,{SUFFIX}", "welcome"),
    (f"cn=kernel,ou=Groups,{SUFFIX}", "welcome"),
])
def test_a_wrong_name_or_password(gateway, who, password):
    assert refusal(gateway, who, password) == WRONG


@pytest.mark.parametrize("who, password", [
    (ANN, "welcome\0"),
    (ANN, "welcome\0junk"),
    (ANN, "\0welcome"),
    (f"cn=ann\\00,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=ann\\00x,ou=Engineering,{PEOPLE}", "welcome"),
    (f"cn=ann,ou=Engineering\\00,{PEOPLE}", "welcome"),
])
def test_a_nul_makes_a_name_nobodys_and_a_password_wrong(gateway, who, password):
    """With nothing remembered of the person, and with the right password remembered."""
    for remembered in (False, True):
        client = WireClient(gateway.port, SECONDS)
        if remembered:
            assert client.bind(ANN, "welcome").code == 0
        answer = client.bind(who, password)
        assert (answer.code, answer.text) == WRONG
        client.close()


@pytest.mark.parametrize("who", [f"{ANN}\0", f"cn=ann\0x,ou=Engineering,{PEOPLE}"])
def test_slapd_takes_no_name_with_a_plain_nul(gateway, who):
    client = WireClient(gateway.port, SECONDS)
    assert client.bind(who, "welcome").code == 34
    client.close()


def test_the_right_password_again_after_a_wrong_one(gateway):
    assert refusal(gateway, ANN, "wrong") == WRONG
    gateway.connect(ANN, "welcome")
    assert refusal(gateway, ANN, "wrong") == WRONG


def test_a_disabled_account_is_refused(gateway):
    code, text = refusal(gateway, f"cn=iris,ou=Former,{PEOPLE}", "welcome")
    assert code != 0 and text.startswith("vexAuth :")


def test_a_password_without_a_name_is_anonymous_or_refused(gateway):
    # slapd's own rule: a name without a password is refused (unauthenticated bind).
    with pytest.raises(ldap.LDAPError) as caught:
        gateway.connect(ANN, "")
    assert caught.value.args[0]["result"] in (48, 53)


def change_password(agent):
    """Ann's is "new" from now on."""
    agent.set_password(f"cn=Ann Lee,ou=Engineering,{PEOPLE}", "new")


def test_a_changed_password(world):
    """The old one keeps working no longer than its credential lives; the new one works at once."""
    agent = world.agent().start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, "dirgate.cache.credential.expires 3600")).start()
    slapd.connect(ANN, "welcome")
    change_password(agent)
    slapd.connect(ANN, "welcome")
    slapd.connect(ANN, "new")
    assert refusal(slapd, ANN, "welcome") == WRONG


def test_an_old_password_ends_with_its_credential(world):
    """Nobody binds with the new one. Lifetimes are in whole seconds of the calendar."""
    lifetime = 2
    agent = world.agent().start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, f"dirgate.cache.credential.expires {lifetime}")).start()
    before = time.time()
    connection = slapd.connect(ANN, "welcome")
    after = time.time()
    change_password(agent)

    started = []

    def refused_at():
        started.append(time.time())
        try:
            connection.simple_bind_s(ANN, "welcome")
        except ldap.INVALID_CREDENTIALS:
            return time.time()
        return None
    refused = wait_until(refused_at, "the old password is refused")
    assert refused >= int(before) + lifetime
    assert all(attempt < after + lifetime + 0.1 for attempt in started[:-1])
    slapd.connect(ANN, "new")
