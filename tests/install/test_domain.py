# SPDX-License-Identifier: Apache-2.0
"""From nothing to an answer from a domain, step by step as the manual tells it: a host
of its own joins a domain that runs on the host's loopback, and serves it."""
import subprocess

import pytest

from gateway import ROOT, SUFFIX, wait_until
from host import Host
from installation import DOCUMENTS

CONTROLLER = "127.0.0.61"  # the first of a domain's addresses, on a host without other domains
ADMINISTRATOR_PASSWORD = "Passw0rd.Admin1"
CHECK = ("setpriv", "--reuid", "vexagent", "--regid", "zanthe", "--init-groups", "vexagent", "--check")
UNREADABLE = ("wrong: keytab /etc/krb5.keytab: Keytab FILE:/etc/krb5.keytab is nonexistent or empty\n"
              "   do: join the domain (adcli join, or realm join), or set ad.keytab to the keytab that was made then; "
              "the agent's user must be able to read it\n")


@pytest.fixture(scope="module")
def domain_host(installed, tmp_path_factory):
    with Host(installed, tmp_path_factory.mktemp("host")) as host:
        host.run("hostname", "gw1.example.com")
        host.run("sh", "-c", "rm -f /etc/resolv.conf; cat > /etc/resolv.conf", text=f"nameserver {CONTROLLER}\n")
        with subprocess.Popen(host.inside("/usr/bin/python3", ROOT / "tests/ad/lab.py", "company"), stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True) as lab:
            # It shows its settings when it runs, and ends without them when something is wrong.
            assert any("ad.principal" in line for line in iter(lab.stdout.readline, "")), "the domain does not run"
            yield host
            lab.stdin.close()


@pytest.fixture(scope="module")
def joined(domain_host):
    """The host joined, the gateway set up; the keytab still root's alone."""
    host = domain_host
    host.run("adcli", "join", "--stdin-password", "--login-user=Administrator", "example.com", text=ADMINISTRATOR_PASSWORD)
    host.set_up()
    settings = host.run("cat", "/etc/zanthe/zanthe.conf").splitlines()
    settings = ["directory = ad" if line == "directory = embedded" else line for line in settings
                if not line.startswith("embedded.")]
    host.write("/etc/zanthe/zanthe.conf", "\n".join(settings) + "\n")
    # The controller has the same port on another address.
    host.run("sed", "-i", 's|^SLAPD_SERVICES=.*|SLAPD_SERVICES="ldap://127.0.0.1/ ldapi:///"|', "/etc/default/slapd")
    return host


@pytest.fixture(scope="module")
def serving(joined):
    joined.run("chgrp", "vexagent", "/etc/krb5.keytab")
    joined.run("chmod", "640", "/etc/krb5.keytab")
    joined.serve()
    return joined


def look_up(host, *options, filter="(&(objectClass=posixAccount)(uid=ann))"):
    return host.tell("ldapsearch", "-x", "-LLL", "-H", "ldap://127.0.0.1", "-b", SUFFIX, *options, filter, "uidNumber", "memberUid")


def bind(host, name, password):
    return look_up(host, "-D", f"cn={name},ou=Engineering,ou=People,{SUFFIX}", "-w", password).returncode


def test_the_check_tells_that_the_keytab_cannot_be_read(joined):
    joined.run("chown", "root:root", "/etc/krb5.keytab")
    joined.run("chmod", "600", "/etc/krb5.keytab")
    result = joined.tell(*CHECK)
    assert result.returncode == 1
    assert result.stdout.startswith(UNREADABLE)


def test_the_check_finds_everything_in_order(serving):
    lines = serving.run(*CHECK).splitlines()
    assert lines[0] == "ok: keytab /etc/krb5.keytab holds GW1$@EXAMPLE.COM"
    assert [line for line in lines if not line.startswith("ok: ")] == []


def test_people_are_found(serving):
    assert "uidNumber: 20001" in look_up(serving).stdout.splitlines()


def test_a_group_s_members_are_found(serving):
    assert "memberUid: ben" in look_up(serving, filter="(&(objectClass=posixGroup)(cn=engineering))").stdout.splitlines()


def test_people_log_in(serving):
    assert bind(serving, "ann", "welcome") == 0
    assert bind(serving, "ann", "wrong") == 49


def test_the_machine_s_new_password_is_noticed(serving):
    """adcli changes the keytab in its place: its group stays, and the agent reads it anew."""
    serving.run("adcli", "update", "--domain=example.com", "--computer-password-lifetime=0")
    assert serving.run("stat", "-c", "%A %U %G", "/etc/krb5.keytab") == "-rw-r----- root vexagent\n"
    assert bind(serving, "ben", "welcome") == 0
    serving.run("systemctl", "restart", "vexagent")
    assert bind(serving, "chloe", "welcome") == 0


def test_getent_answers(serving):
    """The last step: a client as clients.md has it, here on the same host. Its packages are
    those that the tests of clients unpack; the host's overlay takes them as an
    installation would."""
    unpacked, examples = ROOT / "build/clients/root", f"/{DOCUMENTS}/examples/clients"
    assert unpacked.exists(), "run make setup-clients"
    serving.run("cp", "-a", unpacked / "usr", unpacked / "etc", "/")
    serving.run("useradd", "--system", "--user-group", "nslcd")
    serving.run("cp", f"{examples}/nslcd.conf", f"{examples}/nsswitch.conf", "/etc")
    serving.run("install", "-d", "-o", "nslcd", "-g", "nslcd", "/run/nslcd")
    serving.run("ldconfig")
    serving.run("nslcd")
    assert wait_until(lambda: serving.tell("getent", "passwd", "ann").stdout, "somebody is found") == \
        "ann:x:20001:10000:Ann Lee:/home/ann:/bin/bash\n"
    assert "engineering" in serving.run("id", "-nG", "ben").split()
