# SPDX-License-Identifier: Apache-2.0
"""The domain of the tests itself: that it holds what it should, where it should."""
import os
import pathlib

import ldap
import pytest

from directories import EXAMPLE
from host import dns_answers, run
from lab import BASE, Lab

# Where Samba and Kerberos would keep things of their own.
OUTSIDE = ("/etc", "/var/lib/samba", "/var/log/samba", "/var/cache/samba", "/run/samba", "/var/tmp")


def files_of(folders):
    """{path: (time of change, size)} of all files below them."""
    paths = [path for folder in folders for path in pathlib.Path(folder).rglob("*")]
    return {str(path): (path.lstat().st_mtime_ns, path.lstat().st_size) for path in paths}


def test_nothing_is_left_outside_its_folder():
    before = files_of(OUTSIDE)
    with Lab("company") as lab:
        folder = lab.folder
        assert lab.find(None, "(sAMAccountName=ann)", ["uidNumber"])[0][1] == {"uidNumber": [b"20001"]}
    assert not folder.exists()
    assert files_of(OUTSIDE) == before


def test_two_side_by_side(lab):
    with Lab("company") as other:
        assert not set(other.addresses) & set(lab.addresses)
        assert len(other.find(None, "(sAMAccountName=ann)", ["1.1"])) == 1
        assert other.find(None, "(sAMAccountName=s-good)", ["1.1"]) == []
        assert len(lab.find(None, "(sAMAccountName=s-good)", ["1.1"])) == 1


def test_it_holds_the_example_s_objects(lab):
    names = {line.partition(": ")[2] for line in EXAMPLE.read_text(encoding="utf-8").splitlines()
             if line.startswith("sAMAccountName: ")}
    assert len(names) > 50
    found = {entry["sAMAccountName"][0].decode() for _, entry in lab.find(None, "(sAMAccountName=*)", ["sAMAccountName"])}
    assert names - found == set()


def test_binds_in_the_clear_are_refused(lab):
    connection = ldap.initialize(f"ldap://{lab.addresses[0]}")
    with pytest.raises(ldap.STRONG_AUTH_REQUIRED):
        connection.simple_bind_s("ann@example.com", "welcome")
    connection.unbind_ext()


def test_the_machine_s_keytab_opens_the_directory(lab):
    # Both a ticket and its use; no name is looked up anywhere.
    said = run(["ldapsearch", "-Y", "GSSAPI", "-LLL", "-Q", "-N", "-H", f"ldap://{lab.addresses[0]}", "-b", BASE,
                "(sAMAccountName=ann)", "uidNumber"],
               {**lab.environment, "KRB5_CLIENT_KTNAME": str(lab.keytab), "KRB5CCNAME": "MEMORY:test"})
    assert "uidNumber: 20001" in said


def test_its_own_name_service_knows_the_controllers(lab):
    for service in ("_ldap._tcp", "_kerberos._udp", "_gc._tcp", "_ldap._tcp.Default-First-Site-Name._sites"):
        assert dns_answers(lab.addresses[0], f"{service}.example.com"), service
    assert not dns_answers(lab.addresses[0], "_ldap._tcp.nowhere.example.com")


def test_a_hung_controller_and_one_that_goes_on(lab):
    [controller] = lab.controllers
    connection = lab.administrator()
    controller.hang()
    try:
        with pytest.raises(ldap.TIMEOUT):
            connection.search_ext_s(BASE, ldap.SCOPE_BASE, "(objectClass=*)", ["1.1"], timeout=1)
    finally:
        controller.resume()
    assert len(connection.search_s(BASE, ldap.SCOPE_BASE, "(objectClass=*)", ["1.1"])) == 1
    assert os.getpgid(controller.process.pid) == controller.process.pid
