# SPDX-License-Identifier: Apache-2.0
"""The LDAP libraries of applications: python-ldap, ldap3 and Perl's Net::LDAP say the same
over TLS. JNDI reads by pages."""
import pytest

from client_host import EXAMPLES, GATEWAY, STANDARD, Host
from gateway import ROOT, SUFFIX

DN = f"cn={'Ann Lee' if STANDARD else 'ann'},ou=Engineering,ou=People,{SUFFIX}"
NOBODY, COMPARED, NO_CHANGE = (0, 6, 50) if STANDARD else (32, 53, 53)
SAID = f"""\
wrong password: 49
logged in: dn:{DN}
found: {DN} 20001 ann@example.com
nobody: {NOBODY}
pages: 10 10 10 8
compare: {COMPARED}
modify: 53
add: 53
rename: 53
delete: 53
password change: {NO_CHANGE}
"""


@pytest.fixture(scope="module")
def host(shared_world, tls):
    host = Host(shared_world, {"zanthe/authority.pem": tls / "authority.pem"})
    host.gateway(shared_world.agent().start(), tls)
    return host


@pytest.mark.parametrize("program", ["python3 people.py", "python3 people_ldap3.py", "perl people.pl"])
def test_what_a_program_can_do(host, program):
    said = host.shell(f"cd {EXAMPLES} && {program} ldaps://{GATEWAY} /etc/zanthe/authority.pem '{DN}' welcome")
    assert said.out == SAID, said.err


@pytest.mark.parametrize("program", ["python3 people.py", "python3 people_ldap3.py", "perl people.pl"])
def test_a_certificate_of_somebody_else_ends_it(host, program):
    said = host.shell(f"cd {EXAMPLES} && {program} ldaps://{GATEWAY} /etc/ssl/certs/ca-certificates.crt '{DN}' welcome")
    assert said.status != 0 and "logged in" not in said.out, said


def test_jndi(host):
    said = host.shell(f"java {ROOT}/tests/e2e/PagedSearch.java ldap://127.0.0.1/ {SUFFIX} '(objectClass=posixAccount)' 10")
    assert said.status == 0, said.err
    pages = [line for line in said.lines if line.startswith("page ")]
    people = set(said.lines) - set(pages)
    assert (pages, len(people)) == (["page 10", "page 10", "page 10", "page 8"], 38)
    assert {"ann", "taro", "backup"} <= people
