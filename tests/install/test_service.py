# SPDX-License-Identifier: Apache-2.0
"""The installed service on a host of its own: its unit under a real systemd, its users,
what it may do and what not, and slapd beside it as Debian runs it."""
import json
import pathlib
import re
import subprocess

import pytest

from gateway import SUFFIX, wait_until
from host import SECONDS

PEOPLE = "(&(objectClass=posixAccount)(uid=ann))"
ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
UNIT = "/usr/lib/systemd/system/vexagent.service"
SOCKET_UNIT = "/usr/lib/systemd/system/vexagent.socket"
EXPOSURE = 14  # tenths, of 100; below 20 is systemd's "OK"
PROBE = pathlib.Path(__file__).resolve().parent / "probe.py"


def main_pid(host):
    return int(host.run("systemctl", "show", "-P", "MainPID", "vexagent"))


def look_up(host, *options):
    return host.tell("ldapsearch", "-x", "-LLL", "-H", "ldap://127.0.0.1", "-b", SUFFIX, *options, PEOPLE, "uid")


def found(host):
    return "uid: ann" in look_up(host).stdout.splitlines()


# ---- the unit

@pytest.mark.parametrize("unit", [UNIT, SOCKET_UNIT])
def test_systemd_has_nothing_to_say_about_the_unit(host, unit):
    result = host.tell("systemd-analyze", "verify", "--man=no", unit)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_its_exposure(host):
    report = host.run("systemd-analyze", "security", "--offline=true", "--no-pager", f"--threshold={EXPOSURE}", UNIT)
    exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+) ", report)[1])
    assert 10 * exposure <= EXPOSURE


def test_who_belongs_to_what(host):
    groups = {name: host.run("getent", "group", name).strip().split(":")[3] for name in ("zanthe", "vexagent")}
    assert sorted(groups["zanthe"].split(",")) == ["openldap", "vexagent"]
    assert groups["vexagent"] == "", "nobody but the agent, whose first group it is"
    entry = host.run("getent", "passwd", "vexagent").strip().split(":")
    assert entry[5:] == ["/var/lib/zanthe", "/usr/sbin/nologin"]


def test_where_its_files_lie(host):
    modes = host.run("stat", "-c", "%n %A %U %G", "/run/zanthe", "/run/zanthe/vexagent.sock", "/var/lib/zanthe",
                     "/var/lib/zanthe/directory.ldb", "/var/zanthe/tmp", "/etc/zanthe")
    assert modes.splitlines() == [
        "/run/zanthe drwxr-x--- vexagent zanthe",
        "/run/zanthe/vexagent.sock srw-rw---- vexagent zanthe",
        "/var/lib/zanthe drwx------ vexagent zanthe",
        "/var/lib/zanthe/directory.ldb -rw------- vexagent zanthe",
        "/var/zanthe/tmp drwx------ openldap openldap",
        "/etc/zanthe drwxr-xr-x root root",
    ]


# ---- what works under it

def test_slapd_as_another_user_looks_people_up(host):
    assert host.run("ps", "-C", "slapd", "-o", "user=").strip() == "openldap"
    assert found(host)


def test_slapd_has_passwords_checked(host):
    assert look_up(host, "-D", ANN, "-w", "welcome").returncode == 0
    assert look_up(host, "-D", ANN, "-w", "wrong").returncode == 49


def test_it_ends_in_order_and_comes_back(host):
    host.run("systemctl", "stop", "vexagent")
    assert host.run("systemctl", "show", "-P", "Result", "vexagent").strip() == "success"
    assert host.tell("test", "-e", "/run/zanthe/vexagent.sock").returncode == 1
    assert look_up(host, "-D", ANN, "-w", "other than before").returncode == 52
    host.run("systemctl", "start", "vexagent")
    assert found(host)


def test_it_is_started_again_when_it_fails(host):
    before = main_pid(host)
    host.run("kill", "-KILL", before)
    wait_until(lambda: main_pid(host) not in (0, before) and found(host), "another agent answers")


def test_bad_settings_are_not_tried_again(host):
    settings = host.run("cat", "/etc/zanthe/zanthe.conf")
    host.write("/etc/zanthe/zanthe.conf", f"{settings}agent.sokcet = /nowhere\n")
    try:
        assert host.tell("systemctl", "restart", "vexagent").returncode != 0
        assert host.run("systemctl", "show", "-P", "ActiveState", "vexagent").strip() == "failed"
    finally:
        host.write("/etc/zanthe/zanthe.conf", settings)
        host.run("systemctl", "restart", "vexagent")


def test_a_reload_reads_the_log_levels_anew(host):
    before = main_pid(host)
    host.run("sed", "-i", "$ a log.syslog.level.vexagent = 1", "/etc/zanthe/zanthe.conf")
    host.run("systemctl", "reload", "vexagent")
    def journal_tells():
        look_up(host, "-D", ANN, "-w", "wrong")
        return f'authenticate "{ANN}" from pid ' in host.run("journalctl", "-q", "--no-pager", "-o", "cat", "-t", "vexagent")
    wait_until(journal_tells, "the journal shows a log-in")
    assert main_pid(host) == before


def test_slapd_can_write_what_the_cache_holds(host):
    assert look_up(host, "-D", ANN, "-w", "welcome").returncode == 0  # what may be cached is known now
    assert found(host)
    host.run("sh", "-c", "kill -USR1 $(cat /run/slapd/slapd.pid)")
    wait_until(lambda: host.tell("sh", "-c", "grep -qs 'sAMAccountName:ann' /var/zanthe/tmp/dirgate.cache.out_*").returncode == 0,
               "the dump is there")
    assert host.run("sh", "-c", "stat -c '%A %U' /var/zanthe/tmp/*").splitlines()[0] == "-r-------- openldap"


# ---- the socket's unit

MODES = ["/run/zanthe drwxr-x--- vexagent zanthe", "/run/zanthe/vexagent.sock srw-rw---- vexagent zanthe"]


def modes_in_run(host):
    return host.run("stat", "-c", "%n %A %U %G", "/run/zanthe", "/run/zanthe/vexagent.sock").splitlines()


ASK = f"ldapwhoami -x -H ldap://127.0.0.1 -D {ANN} -w"


def is_answered(host, password):
    """Asks what slapd cannot know by itself: about a password that was not tried before."""
    return host.tell(*ASK.split(), password).returncode == 49


def is_active(host):
    return host.tell("systemctl", "is-active", "-q", "vexagent").returncode == 0


@pytest.fixture
def with_socket(host):
    """The host as it is after a boot with both units: the socket is there, the agent not yet."""
    host.run("systemctl", "stop", "vexagent")
    host.run("rm", "-rf", "/run/zanthe")
    host.run("systemd-tmpfiles", "--create", "zanthedx.conf")
    host.run("systemctl", "start", "vexagent.socket")
    yield host
    host.run("systemctl", "stop", "vexagent.socket", "vexagent")
    assert host.tell("test", "-e", "/run/zanthe/vexagent.sock").returncode == 1
    host.run("systemctl", "start", "vexagent")


def test_the_first_request_after_a_boot_waits_for_the_agent(with_socket):
    assert modes_in_run(with_socket) == MODES
    assert not is_active(with_socket)
    assert is_answered(with_socket, "first after a boot")
    assert is_active(with_socket)
    assert modes_in_run(with_socket) == MODES


def test_a_restart_is_noticed_by_nobody(with_socket):
    assert is_answered(with_socket, "before the restarts")
    before = main_pid(with_socket)
    loop = f'for i in $(seq 20); do {ASK} "$0 $i"; test $? = 49 || exit 1; done'
    clients = [subprocess.Popen(with_socket.inside("sh", "-c", loop, name), stderr=subprocess.PIPE, text=True)
               for name in ("one", "two")]
    for _ in range(3):
        with_socket.run("systemctl", "restart", "vexagent")
    for client in clients:
        said = client.communicate(timeout=SECONDS)[1]
        assert client.returncode == 0, said
    assert main_pid(with_socket) != before
    assert modes_in_run(with_socket) == MODES


def test_an_agent_that_is_stopped_comes_back_with_the_next_request(with_socket):
    assert is_answered(with_socket, "before the stop")
    with_socket.run("systemctl", "stop", "vexagent")
    assert modes_in_run(with_socket) == MODES
    assert is_answered(with_socket, "after the stop")


def test_a_socket_elsewhere_than_in_the_settings_is_told(with_socket):
    settings = with_socket.run("cat", "/etc/zanthe/zanthe.conf")
    with_socket.write("/etc/zanthe/zanthe.conf",
                      settings.replace("agent.socket = /run/zanthe/vexagent.sock", "agent.socket = /run/zanthe/other.sock"))
    try:
        assert with_socket.tell("systemctl", "start", "vexagent").returncode != 0
        said = with_socket.run("journalctl", "-q", "--no-pager", "-o", "cat", "-u", "vexagent")
        assert ('vexagent: /run/zanthe/other.sock: the service manager handed over a socket at "/run/zanthe/vexagent.sock"; '
                "ListenStream of the socket's unit and agent.socket must be the same\n") in said
    finally:
        with_socket.write("/etc/zanthe/zanthe.conf", settings)
        with_socket.tell("systemctl", "reset-failed", "vexagent.socket", "vexagent")


# ---- what does not

def test_its_process_has_no_privilege(host):
    status = host.status(main_pid(host))
    user = int(host.run("id", "-u", "vexagent"))
    assert [int(word) for word in status["Uid"].split()] == [user] * 4
    assert {int(status[name], 16) for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")} == {0}
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")


@pytest.mark.parametrize("user, group, refused", [("openldap", "openldap", False), ("nobody", "nogroup", True)])
def test_who_can_ask_the_agent(host, user, group, refused):
    program = "import socket; socket.socket(socket.AF_UNIX).connect('/run/zanthe/vexagent.sock')"
    result = host.tell("setpriv", "--reuid", user, "--regid", group, "--init-groups", "/usr/bin/python3", "-c", program)
    assert ("PermissionError" in result.stderr, result.returncode != 0) == (refused, refused)


@pytest.fixture(scope="module")
def keytab(host):
    """A machine's keytab, as the manual has it: root's, and the agent's to read."""
    host.run("ktutil", text="addent -password -p HOST1$@EXAMPLE.COM -k 1 -e aes256-cts-hmac-sha1-96 -s salt\nsecret\n"
                            "wkt /etc/krb5.keytab\nquit\n")
    host.run("chgrp", "vexagent", "/etc/krb5.keytab")
    host.run("chmod", "640", "/etc/krb5.keytab")


@pytest.fixture(scope="module")
def attempts(host, keytab):
    """How the probe's attempts end in the agent's place: under the same unit, but for the program."""
    unit = host.run("cat", UNIT)
    unit = re.sub(r"(?m)^ExecStart=.*", "ExecStart=/usr/bin/python3 /probe.py /var/lib/zanthe/attempts", unit)
    unit = re.sub(r"(?m)^Type=.*", "Type=oneshot", unit)
    unit = re.sub(r"(?m)^(Restart|RestartSec)=.*\n", "", unit)
    host.write("/probe.py", PROBE.read_text(encoding="utf-8"))
    host.write("/etc/systemd/system/probe.service", unit)
    host.run("systemctl", "daemon-reload")
    host.run("systemctl", "start", "probe")
    return json.loads(host.run("cat", "/var/lib/zanthe/attempts"))


@pytest.mark.parametrize("name, errors", [
    ("a netlink socket", {"EAFNOSUPPORT"}),
    ("a packet socket", {"EAFNOSUPPORT"}),
    ("writing in /etc", {"EROFS"}),
    ("writing in /usr", {"EROFS"}),
    ("writing in /var", {"EROFS"}),
    ("looking into /home", {"EACCES"}),
    ("a name space of its own", {"EPERM"}),
    ("memory that is written and run", {"EPERM"}),
    ("a file that runs as its owner", {"EPERM"}),
    ("keys of the kernel", {"EPERM"}),
    ("a device", {"ENOENT"}),
    *((name, {""}) for name in ("its own files", "its run-time files", "temporary files", "a Unix socket", "IPv4", "IPv6",
                                "the keytab")),
])
def test_what_the_unit_allows(attempts, name, errors):
    assert attempts[name] in errors


def test_slapd_cannot_read_the_keytab(host, keytab):
    """It may ask the agent, and that is all: it is not the machine."""
    result = host.tell("setpriv", "--reuid", "openldap", "--regid", "openldap", "--init-groups", "cat", "/etc/krb5.keytab")
    assert "Permission denied" in result.stderr
