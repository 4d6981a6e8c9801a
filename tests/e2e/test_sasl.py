# SPDX-License-Identifier: Apache-2.0
"""Log-ins at slapd without a password, by the Unix socket, and requests in another's name: slapd
finds by searches of the gateway who is meant, and who may be whom. Kerberos: tests/ad."""
import re

import pytest

from gateway import EXAMPLES, search, values
from standard import standard_slapd, tool

ANN, ENGINEERING = "cn=Ann Lee,ou=Engineering,ou=People,DC=example,DC=com", "ou=Engineering,ou=People,dc=example,dc=com"
MANAGER = "cn=manager,dc=example,dc=com"
PEER = "cn=peercred,cn=external,cn=auth"
PEOPLE = "ldap:///dc=example,dc=com??sub?(&(objectClass=posixAccount)(%s))"
GLOBALS = ("sizelimit unlimited", "authz-policy to",
           rf'authz-regexp "gidNumber=0\\+uidNumber=0,{PEER}" "{MANAGER}"',
           rf'authz-regexp "gidNumber=[0-9]+\\+uidNumber=([0-9]+),{PEER}" "{PEOPLE % "uidNumber=$1"}"',
           rf'authz-regexp "uid=([^,]+)(,cn=[^,]+)?,cn=auth" "{PEOPLE % "uid=$1"}"')


@pytest.fixture(scope="module")
def slapd(shared_world):
    """Root is the database's manager. The map takes rules of who may be whom from a description."""
    shared_world.folder.chmod(0o755)
    map_file = shared_world.folder / "rules.map"
    map_file.write_text((EXAMPLES / "applications.map").read_text(encoding="utf-8") + "\ninetOrgPerson.authzTo = description\n",
                        encoding="utf-8")
    agent = shared_world.agent().start()
    agent.modify(f"dn: {ANN}\nchangetype: modify\nreplace: description\ndescription: dn.children:{ENGINEERING}\n")
    slapd = standard_slapd(shared_world, agent, globals=GLOBALS, uris=(local(shared_world),),
                           directives=(f'vextranslation "{map_file}"', f'rootdn "{MANAGER}"', "dirgate.ldap.standard true"))
    slapd.local = local(shared_world)
    return slapd.start()


def local(world):
    return f"ldapi://{str(world.folder / 'ldapi').replace('/', '%2F')}"


def as_user(slapd, number, *words):
    """ldapwhoami at the socket, as a user of the host."""
    user = ("setpriv", "--reuid", number, "--regid", number, "--clear-groups")
    return tool(slapd, "ldapwhoami", "-Q", "-Y", "EXTERNAL", *words, uri=slapd.local, before=user)


def number_of(slapd, uid):
    [person] = search(slapd.connect(), f"(uid={uid})", ["uidNumber"]).values()
    return values(person, "uidNumber")[0]


def normal(slapd, uid):
    return slapd.dn(uid).lower()


def test_a_user_of_the_host_is_the_person_of_that_number(slapd):
    for uid in ("ann", "ben"):
        assert as_user(slapd, number_of(slapd, uid)) == (0, f"dn:{normal(slapd, uid)}\n")


def test_a_number_that_nobody_has_stays_a_number(slapd):
    assert as_user(slapd, "4711") == (0, f"dn:gidNumber=4711+uidNumber=4711,{PEER}\n")


def test_the_manager_speaks_for_everybody(slapd):
    for meant in ("u:ben", f"dn:{slapd.dn('ben')}"):
        assert as_user(slapd, "0", "-X", meant) == (0, f"dn:{normal(slapd, 'ben')}\n")
        assert as_user(slapd, "0", "-e", f"!authzid={meant}") == (0, f"dn:{normal(slapd, 'ben')}\n")


def test_a_person_speaks_for_those_whom_her_entry_names(slapd):
    ann = number_of(slapd, "ann")
    assert as_user(slapd, ann, "-X", "u:ben") == (0, f"dn:{normal(slapd, 'ben')}\n")
    status, said = as_user(slapd, ann, "-X", f"dn:cn=nobody,{ENGINEERING.replace('Engineering', 'Other')}")
    assert status != 0 and "not authorized" in said
    status, said = as_user(slapd, number_of(slapd, "ben"), "-X", "u:ann")
    assert status != 0 and "not authorized" in said, "his own entry names nobody"


def test_a_request_in_anothers_name_has_the_rights_of_that_one(slapd):
    """With the control for it, after a simple bind."""
    words = ("-LLL", "-b", "dc=example,dc=com", "(uid=ben)", "uid")
    for whose, code in (("u:ben", 0), (f"dn:{slapd.dn('ben')}", 0), ("u:nobody", 123)):
        status, said = tool(slapd, "ldapsearch", *words, "-e", f"!authzid={whose}", who=slapd.dn("ann"), password="welcome")
        assert status == code, said
        assert ("uid: ben" in said) == (code == 0)
    status, said = tool(slapd, "ldapsearch", *words, "-e", "!authzid=u:ann", who=slapd.dn("ben"), password="welcome")
    assert status == 123 and re.search("not authorized", said)
