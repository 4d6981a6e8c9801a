# SPDX-License-Identifier: Apache-2.0
"""People who give themselves a new password with ldappasswd (RFC 3062), at the embedded
directory or at a domain."""
import re

import ldap
import pytest

from gateway import failure, log_in
from standard import standard_slapd, tool
from test_secrets import random_password

ANN = "cn=Ann Lee,ou=Engineering,ou=People,DC=example,DC=com"
SECRET = "new"  # which the tests can set


@pytest.fixture
def agent(world):
    agent = world.agent(agent__password__change="true").start()
    agent.set_password(ANN, SECRET)
    return agent


@pytest.fixture
def slapd(world, agent):
    return standard_slapd(world, agent).start()


def change(slapd, who, *words, bound_with=SECRET):
    """The result code that ldappasswd tells, and all that it said."""
    status, said = tool(slapd, "ldappasswd", *words, who=who, password=bound_with)
    code = re.search(r"^Result: .*\((\d+)\)$", said, re.MULTILINE)
    assert (code is None) == (status == 0), said
    return int(code[1]) if code else 0, said


def new_password():
    return f"Aa1.{random_password(16)}"


def test_the_old_password_is_nobodys_at_once(slapd):
    ann, new = slapd.dn("ann"), new_password()
    connection = slapd.connect(ann, SECRET)  # it is remembered while this one is open
    other = slapd.connect(ANN, SECRET)
    assert change(slapd, ann, "-a", SECRET, "-s", new) == (0, "")
    assert log_in(slapd, ann, SECRET) == log_in(slapd, ANN, SECRET) == 49
    assert log_in(slapd, ann, new) == log_in(slapd, ANN, new) == 0
    assert {connection.whoami_s(), other.whoami_s()} == {f"dn:{ann}"}


def test_a_person_may_name_herself(slapd):
    ann, new = slapd.dn("ann"), new_password()
    assert change(slapd, ann, "-a", SECRET, "-s", new, ann)[0] == 0
    assert log_in(slapd, ann, new) == 0


@pytest.mark.parametrize("words, code, text", [
    (("-a", "wrong", "-s", "other"), 49, "invalid user or password"),
    (("-s", "other"), 49, "the old password must be given, too"),
    (("-a", SECRET), 19, "the new password must be given: none is made up here"),
    (("-a", SECRET, "-s", "other", "ben"), 50, "people change their own passwords only")])
def test_what_is_refused(slapd, words, code, text):
    ann = slapd.dn("ann")
    *options, last = words
    words = [*options, slapd.dn(last)] if last == "ben" else words
    status, said = change(slapd, ann, *words)
    assert status == code and text in said, said
    assert log_in(slapd, ann, SECRET) == 0


def test_a_password_cannot_hold_a_nul(slapd):
    ann = slapd.dn("ann")
    connection = slapd.connect(ann, SECRET)
    for old, new, code in ((SECRET.encode() + b"\0x", b"other", 49), (SECRET.encode(), b"other\0x", 19)):
        with pytest.raises(ldap.LDAPError) as refused:
            connection.passwd_s(None, old, new)
        assert failure(refused.value)[0] == code
    assert log_in(slapd, ann, SECRET) == 0 and log_in(slapd, ann, "other") == 49


def test_nobody_changes_a_password_without_a_log_in(slapd):
    with pytest.raises(ldap.STRONG_AUTH_REQUIRED):
        slapd.connect().passwd_s(slapd.dn("ann"), SECRET, "other")


def test_the_directory_decides_which_passwords_it_takes(slapd, agent):
    """The embedded one takes any but the old one."""
    bad, why = SECRET, "the new password is the old one"
    if agent.directory.kind == "ad":
        agent.modify("dn: DC=example,DC=com\nchangetype: modify\nreplace: minPwdLength\nminPwdLength: 14\n")
        bad, why = "short", "the domain does not take this new password"
    code, said = change(slapd, slapd.dn("ann"), "-a", SECRET, "-s", bad)
    assert code == 19 and why in said


def test_slapds_own_rules_for_writes_hold(world, agent):
    slapd = standard_slapd(world, agent, globals=("sizelimit unlimited", "security update_ssf=128")).start()
    ann = slapd.dn("ann")
    assert change(slapd, ann, "-a", SECRET, "-s", new_password())[0] == 13
    assert log_in(slapd, ann, SECRET) == 0


def test_an_agent_that_changes_none_says_so(world):
    agent = world.agent().start()
    agent.set_password(ANN, SECRET)
    slapd = standard_slapd(world, agent).start()
    status, said = change(slapd, slapd.dn("ann"), "-a", SECRET, "-s", new_password())
    assert status == 50 and "changes no passwords" in said


def test_the_exact_mode_changes_none(world, agent):
    slapd = world.slapd(agent).start()
    who = "cn=ann,ou=Engineering,ou=People,dc=example,dc=com"
    status, said = change(slapd, who, "-a", SECRET, "-s", new_password())
    assert status == 53 and "operation not supported for current user" in said
