# SPDX-License-Identifier: Apache-2.0
"""Log-ins at slapd by Kerberos: slapd has a keytab of its own, and finds by a search of the
gateway who has come."""
import pytest

from host import REALM, run
from standard import standard_slapd, tool

ACCOUNT, SECRET = "zx-slapd", "Aa1.slapd's own key"
ACCOUNT_DN = f"CN={ACCOUNT},CN=Users,DC=example,DC=com"
SERVICE = "ldap/localhost"
AES = 16  # of msDS-SupportedEncryptionTypes
GLOBALS = ("sizelimit unlimited", "sasl-host localhost", f"sasl-realm {REALM}",
           "sasl-secprops noplain,noanonymous,minssf=56",
           r'authz-regexp "uid=([^,/]+),cn=example.com,cn=gssapi,cn=auth" '
           '"ldap:///dc=example,dc=com??sub?(&(objectClass=posixAccount)(uid=$1))"')


@pytest.fixture
def keytab(lab, world):
    """Of an account for slapd, as an administrator makes it: a name, a service name, a key."""
    administrator = lab.administrator()
    administrator.add_s(ACCOUNT_DN, [("objectClass", [b"user"]), ("sAMAccountName", ACCOUNT.encode()),
                                     ("servicePrincipalName", SERVICE.encode()),
                                     ("msDS-SupportedEncryptionTypes", str(AES).encode())])
    lab.set_password(ACCOUNT_DN, SECRET)
    administrator.modify_s(ACCOUNT_DN, [(2, "userAccountControl", b"512")])
    version = lab.value(ACCOUNT, "msDS-KeyVersionNumber")
    file = world.folder / "slapd.keytab"
    run(["ktutil"], lab.environment, f"addent -password -p {SERVICE}@{REALM} -k {version} -e aes256-cts -s {REALM}{ACCOUNT}\n"
        f"{SECRET}\nwrite_kt {file}\n")
    yield file
    administrator.delete_s(ACCOUNT_DN)


@pytest.fixture
def slapd(lab, world, keytab):
    settings = {name.replace(".", "__"): value for name, value in lab.agent_settings().items()}
    agent = world.agent(**settings).start()
    return standard_slapd(world, agent, globals=GLOBALS, env={**lab.environment, "KRB5_KTNAME": str(keytab)}).start()


@pytest.fixture
def ticket(lab, world):
    """Gets somebody a ticket: what programs need in their environment to show it."""
    def get(name, password="welcome"):
        environment = {**lab.environment, "KRB5CCNAME": f"FILE:{world.folder}/{name}.tickets"}
        run(["kinit", f"{name}@{REALM}"], environment, f"{password}\n")
        return environment
    return get


def who_am_i(slapd, environment, *words):
    return tool(slapd, "ldapwhoami", "-Q", "-N", "-Y", "GSSAPI", *words, uri=f"ldap://localhost:{slapd.port}", env=environment)


def test_who_has_a_ticket_is_who_a_search_shows(slapd, ticket):
    assert who_am_i(slapd, ticket("ann")) == (0, f"dn:{slapd.dn('ann').lower()}\n")


def test_who_is_no_person_here_stays_a_name_of_kerberos(slapd, ticket):
    assert who_am_i(slapd, ticket(ACCOUNT, SECRET)) == (0, f"dn:uid={ACCOUNT},cn=example.com,cn=gssapi,cn=auth\n")


def test_nobody_is_let_in_without_a_ticket(slapd, lab, world):
    status, said = who_am_i(slapd, {**lab.environment, "KRB5CCNAME": f"FILE:{world.folder}/none"})
    assert status != 0 and "dn:" not in said
