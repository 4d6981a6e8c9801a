# SPDX-License-Identifier: Apache-2.0
"""The same questions where the people are in an Active Directory domain: the example's,
and people and groups with odd names. What the entries are to be, the judge works out from
what a controller itself shows of its objects.

ZX_QUESTIONS says how many (100), ZX_SEED which ones."""
import os

import ldap
import pytest
from ldap.dn import escape_dn_chars

import company
from compare import ask_both
from directories import Domain
from judge import Judge, ldif
from peer import Mdb
from standard import Standard
from test_dump import expect_the_judges_entries
from world import make_world

QUESTIONS = int(os.environ.get("ZX_QUESTIONS") or 100)
UNIT = f"OU=Odd names,OU=People,{company.DOMAIN}"
# What a domain does not take as a name: others would be equal to it, or it is too long.
NOT_THERE = {"x" * 200}
GROUPS = {"odd ones": ["odd.jose", "odd.taro", "guest2"], "Größe": ["odd ones", "ann"], "lists & more": ["guest2"]}


@pytest.fixture(scope="module")
def domain_world(request):
    yield from make_world(request, Domain("company"))


def add(connection, dn, objectclass, **attributes):
    entry = [("objectClass", [objectclass.encode()])]
    entry += [(name, [str(value).encode() for value in (values if isinstance(values, list) else [values])])
              for name, values in attributes.items()]
    connection.add_s(dn, entry)


def fill(connection):
    """Odd people, one without numbers, and groups of them within groups."""
    add(connection, UNIT, "organizationalUnit")
    names = {}
    for number, (name, login) in enumerate(company.ODD_NAMES):
        if name in NOT_THERE:
            continue
        login = f"odd.{login}"  # the example's people have the others
        dn = f"CN={escape_dn_chars(name)},{UNIT}"
        add(connection, dn, "user", sAMAccountName=login, displayName=name, mail=f"{login}@example.com", uidNumber=30000 + number,
            gidNumber=10000, unixHomeDirectory=f"/home/{login}", loginShell="/bin/bash", gecos=name, userAccountControl=544,
            **({"uid": login} if number % 2 else {"uid": f"{login}-two", "manager": f"CN=Ann Lee,OU=Engineering,OU=People,{company.DOMAIN}"}))
        names[login] = dn
    names["guest2"] = f"CN=Odd Guest,{UNIT}"
    add(connection, names["guest2"], "user", sAMAccountName="guest2", userAccountControl=544)
    names["ann"] = f"CN=Ann Lee,OU=Engineering,OU=People,{company.DOMAIN}"
    for number, (name, members) in enumerate(GROUPS.items()):
        names[name] = f"CN={escape_dn_chars(name)},{UNIT}"
        add(connection, names[name], "group", sAMAccountName=f"shown {number}", gidNumber=12000 + number,
            member=[names[one] for one in members], mail=f"list{number}@example.com")


def shown_by_a_controller(lab):
    """All objects that an account of the gateway's kind may read, in LDIF."""
    account = lab.connect("gateway@example.com", "Service.123")
    objects = [(dn, entry) for dn, entry in account.search_s(company.DOMAIN, ldap.SCOPE_SUBTREE) if dn and "objectGUID" in entry]
    return ldif(objects)


@pytest.fixture(scope="module")
def judged(domain_world, schema, map_file):
    lab = domain_world.directory.lab
    fill(lab.administrator())
    return Judge(shown_by_a_controller(lab), map_file.read_text(encoding="utf-8"), schema, company.ZONE).entries()


@pytest.fixture(scope="module")
def gateway(domain_world, judged, map_file):
    agent = domain_world.agent(unix__id__min=1000).start()
    directives = (f'vextranslation "{map_file}"', *Standard.MODE)
    return Standard(domain_world.folder, domain_world.running_servers, env=agent.env, directives=directives).start()


def test_the_entries_are_those_that_the_judge_has_made(peer, gateway, dn_names):
    expect_the_judges_entries(peer, gateway, dn_names)


def test_every_question_is_answered_as_back_mdb_answers_it(peer, gateway, dn_names):
    comparison = ask_both(peer, gateway, dn_names, QUESTIONS)
    print(comparison.report())
    assert not comparison.found
