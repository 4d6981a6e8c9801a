# SPDX-License-Identifier: Apache-2.0
"""sudo on a host of the directory's people: rules by netgroup and by group, with nslcd
as the name service and for the passwords."""
import pytest

from client_host import EXAMPLES, NAME, SPRING, Host

FILES = {"nslcd.conf": "nslcd.conf", "nsswitch.conf": "nsswitch.conf", "pam.d/sudo": "pam-ldap", "sudoers": "sudoers"}


@pytest.fixture(scope="module")
def host(shared_world):
    host = Host(shared_world, {name: EXAMPLES / file for name, file in FILES.items()})
    host.gateway(shared_world.agent().start())
    host.start_nslcd(SPRING)
    return host


def sudo(host, name, command, password="welcome"):
    """What that person sees, logged in and with that password at hand."""
    said = host.shell(f"setpriv --reuid {name} --regid 10000 --init-groups sudo --stdin --prompt= {command} 2>&1", f"{password}\n")
    return said.out.splitlines()


@pytest.mark.parametrize("name", ["ben", "chloe"])
def test_the_people_of_a_netgroup_on_the_hosts_of_another(host, name):
    assert host.shell("hostname").out == f"{NAME}\n"
    assert sudo(host, name, "id --user") == ["0"]


def test_what_the_rule_does_not_name(host):
    assert sudo(host, "ben", "ls /") == [f"Sorry, user ben is not allowed to execute '/usr/bin/ls /' as root on {NAME}."]


def test_who_is_in_no_netgroup_and_no_group(host):
    assert sudo(host, "dmitri", "id --user") == ["dmitri is not in the sudoers file."]


def test_the_members_of_a_group(host):
    assert sudo(host, "mei", "--user=taro id --user") == ["20030"]


def test_the_members_of_a_group_with_a_blank_in_its_name(host):
    [line] = sudo(host, "taro", "uptime", "")
    assert "load average" in line
    assert sudo(host, "dmitri", "--non-interactive uptime") == ["sudo: a password is required"]


def test_the_wrong_password(host):
    lines = sudo(host, "ben", "id --user", "wrong")
    assert lines[0] == "Sorry, try again." and lines[-1] == "sudo: 1 incorrect password attempt"


def test_a_host_outside_the_netgroup(host):
    """The same rules on a file server: they are for build hosts."""
    said = host.shell("unshare --uts sh -c 'hostname files01.example.com; echo 127.0.1.2 files01.example.com >> /etc/hosts; "
                      "setpriv --reuid ben --regid 10000 --init-groups sudo --stdin --prompt= id --user 2>&1'", "welcome\n")
    assert said.lines == ["ben is not allowed to run sudo on files01."]
