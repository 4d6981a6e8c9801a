# SPDX-License-Identifier: Apache-2.0
"""What administrators are promised of the standard mode: that mistakes in a map are found,
that the log can be searched for failures."""
import re
import subprocess

import ldap
import pytest

from client import Compare, Connection
from gateway import EXAMPLES, SLAPD, wait_until
from standard import Standard

PEOPLE = "ou=People,dc=example,dc=com"
ENGINEERING = f"ou=Engineering,{PEOPLE}"
ANN = f"cn=Ann Lee,{ENGINEERING}"
NIS = "/etc/ldap/schema/nis.schema"
BAD_LINES = {
    "noSuchClass = User": "the schema has no object class noSuchClass",
    "posixAccount.noSuchName = cn": "the schema has no attribute noSuchName",
    "device = User": "User has two structural classes, inetOrgPerson and device",
    "inetOrgPerson.sn = sn\ninetOrgPerson.surname = displayName": "inetOrgPerson has another line for sn",
}


class Host(Standard):
    """A gateway of one test, which may be made wrong."""

    def __init__(self, world, map_file, **parts):
        super().__init__(world.folder, world.running_servers, directives=(f'vextranslation "{map_file}"', *self.MODE), **parts)

    def test(self, *options):
        """slaptest's status and words."""
        done = subprocess.run([SLAPD, "-Ttest", *options, "-f", self.config_file], check=False, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, env={**self.env, "LDAPNOINIT": "1"})
        return done.returncode, done.stdout.decode()


class HostWithNis(Host):
    SCHEMAS = [NIS if "rfc2307bis" in str(schema) else schema for schema in Host.SCHEMAS]


@pytest.fixture
def bad_map(request, world):
    """A map with a line that does not fit, and "FILE:LINE: REASON"."""
    lines = (EXAMPLES / "applications.map").read_text(encoding="utf-8").splitlines() + request.param.splitlines()
    file = world.folder / "own.map"
    file.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return file, f"{file}:{len(lines)}: {BAD_LINES[request.param]}"


@pytest.mark.parametrize("bad_map", BAD_LINES, indirect=True)
def test_slapd_does_not_start_with_a_map_that_does_not_fit(world, bad_map):
    file, complaint = bad_map
    status, words = Host(world, file).refused()
    assert status != 0 and complaint in words


@pytest.mark.parametrize("bad_map", list(BAD_LINES)[:1], indirect=True)
def test_slaptest_finds_such_a_mistake_when_it_opens_the_database(world, bad_map):
    """-u does not: it looks at the configuration alone."""
    file, complaint = bad_map
    assert Host(world, file).test("-u")[0] == 0
    status, words = Host(world, file).test()
    assert status != 0 and complaint in words
    status, words = Host(world, EXAMPLES / "applications.map").test()
    assert status == 0, words


def test_with_the_other_schema_of_hosts_slapd_starts_and_warns(world):
    lines = (EXAMPLES / "applications.map").read_text(encoding="utf-8").splitlines()
    file = world.folder / "without-automount.map"  # which that schema lacks
    file.write_text("".join(f"{line}\n" for line in lines if not line.startswith("automount")), encoding="utf-8")
    assert "structural" not in Host(world, file).start().log()
    assert "groupOfNames and posixGroup are both structural" in HostWithNis(world, file).start().log()


def test_a_failure_tells_its_kind_and_the_request_s_name_in_slapd_s_log(world, map_file):
    gateway = Standard(world.folder, world.running_servers, debug="stats",
                       directives=(f'vextranslation "{map_file}"', *Standard.MODE)).start()
    for question in (lambda: gateway.connect().search_s(PEOPLE, ldap.SCOPE_SUBTREE, "(uid=ann)"),
                     lambda: gateway.connect().compare_s(ANN, "uid", b"ann")):
        with pytest.raises(ldap.UNAVAILABLE) as caught:
            question()
        [(kind, name)] = re.findall(r"^(vexLdapSearch : .*) \((conn=\d+ op=\d+)\)$", caught.value.args[0]["info"])
        assert "broken session" in kind
        wait_until(lambda name=name: re.search(rf"{name} .*err=52", gateway.log()), "slapd's log names it so")


def test_a_name_in_another_spelling_that_is_nobody_s_is_looked_for_once(shared_world, agent, gateway):
    """And its parent once."""
    connection = Connection(gateway.port)
    parent = b"ou=Engineering,ou=People,dc=example,dc=com"
    counts = []
    for name in (b"ou=Nobody,", b"ou=Nob\\c3\\b6dy,"):
        before = agent.served()["search"]
        assert connection.ask(Compare(name + parent, "uid", b"x")).code == 32
        counts.append(agent.served()["search"] - before)
    connection.close()
    plain, spelled = counts
    assert spelled == plain + 1
