# SPDX-License-Identifier: Apache-2.0
"""SSSD with the LDAP provider: the name service and log-ins, over TLS, and what it still
answers when the gateway is down."""
import signal
from concurrent.futures import ThreadPoolExecutor

import psutil
import pytest

from client_host import EXAMPLES, GATEWAY, NO_CHANGE, Host
from gateway import wait_until

PIPES = "/var/lib/sss/pipes"
WELCOME = ["pamtester: successfully authenticated", "pamtester: account management done."]
REFUSED = ["pamtester: Authentication failure"]
NOT_FOUND = 2  # getent's exit status


def start(world, tls, settings=EXAMPLES / "sssd.conf", encrypted=True):
    host = Host(world, {"sssd/sssd.conf": settings, "nsswitch.conf": EXAMPLES / "nsswitch-sss.conf", "pam.d/door": EXAMPLES / "pam-sss",
                        "zanthe/authority.pem": tls / "authority.pem"})
    host.slapd = host.gateway(world.agent().start(), tls if encrypted else None)
    host.sssd = host.start("sssd", "sssd --interactive --logger=stderr", f"{PIPES}/nss")
    wait_until(lambda: host.answers(f"{PIPES}/pam"), "SSSD answers to PAM")
    return host


@pytest.fixture(scope="module")
def host(shared_world, tls):
    return start(shared_world, tls)


def log_in(host, name, password):
    said = host.shell(f"stdbuf -oL pamtester door {name} authenticate acct_mgmt 2>&1", f"{password}\n")
    return said.out.removeprefix("Password: ").splitlines()


# ---- the name service

@pytest.mark.parametrize("key, line", [
    ("ann", "ann:*:20001:10000:Ann Lee:/home/ann:/bin/bash"),
    ("20002", "ben:*:20002:10000:Ben Okafor:/home/ben:/bin/bash"),
    ("ann@example.com", "ann:*:20001:10000:Ann Lee:/home/ann:/bin/bash"),  # SSSD takes the domain off
    ("sven", "sven:*:20019:10020:Sven Partner:/home/sven:/bin/bash"),
    ("iris", "iris:*:20037:10000:Iris Old:/home/iris:/usr/sbin/nologin"),
])
def test_getent_passwd(host, key, line):
    assert host.shell(f"getent passwd {key}").lines == [line]


@pytest.mark.parametrize("line", ["passwd nobody-here", "passwd 29999", "passwd guest", "passwd '*'", "group nobody-here",
                                  "group mailing-list", "group 29999", "netgroup nobody-here"])
def test_getent_of_nobody_and_nothing(host, line):
    assert host.shell(f"getent {line}").status == NOT_FOUND


def test_the_lists_are_the_hosts_own(host):
    """SSSD enumerates only when it is told to."""
    assert len(host.shell("getent passwd").lines) == len(host.shell("getent --service=files passwd").lines) == 4


@pytest.mark.parametrize("key, name, people", [
    ("kernel", "kernel:*:10002", {"ben", "chloe"}),
    ("10001", "engineering:*:10001", {"ann", "ben", "chloe", "dmitri", "elena", "farid", "grace", "hugo", "ingrid", "jurgen",
                                      "kit", "lukasz"}),  # ben and chloe by way of kernel
    ("contractors", "contractors:*:10020", {"sven"}),  # whose primary group it is
    ("'reading room'", "reading room:*:10010", {"wanda", "taro"}),
    ("day-shift", "day-shift:*:10008", {"olga", "pedro", "uma", "victor"}),
    ("empty", "empty:*:10011", set()),
])
def test_getent_group(host, key, name, people):
    [line] = host.shell(f"getent group {key}").lines
    head, _, members = line.rpartition(":")
    assert (head, set(filter(None, members.split(",")))) == (name, people)


@pytest.mark.parametrize("name, groups", [
    ("ann", {"Domain Users", "engineering", "all-staff", "admins"}),
    ("ben", {"Domain Users", "kernel", "engineering", "all-staff"}),
    ("sven", {"contractors", "operations", "all-staff"}),
    ("uma", {"Domain Users", "operations", "all-staff", "day-shift", "night-shift"}),
    ("iris", {"Domain Users"}),
])
def test_id(host, name, groups):
    assert set(host.shell(f"id -Gnz {name}").out.strip("\0").split("\0")) == groups


@pytest.mark.parametrize("name, triples", [
    ("kernel-people", {"(-,ben,example.com)", "(-,chloe,example.com)"}),
    ("all-hosts", {"(console.example.com,-,example.com)", "(build01.example.com,-,example.com)",
                   "(build02.example.com,-,example.com)", "(files01.example.com,-,example.com)"}),
    ("loop-a", {"(a.example.com,,)", "(b.example.com,,)"}),
])
def test_getent_netgroup(host, name, triples):
    first, *found = host.shell(f"getent netgroup {name}").out.split()
    assert (first, set(found), len(found)) == (name, triples, len(triples))


# ---- log-ins

@pytest.mark.parametrize("name, password", [
    ("ann", "welcome"),  # password ages do not count here: ldap_pwd_policy says whether
    ("rosa", "Tea, at 4 o'clock"),
    ("zoe", "mot de passe é"),
    ("sven", "welcome"),
])
def test_the_right_password(host, name, password):
    assert log_in(host, name, password) == WELCOME


def test_the_wrong_password_and_the_wrong_person(host):
    refused = [("ann", "wrong"), ("ann", ""), ("nils", "welcome"), ("iris", "welcome"), ("nobody-here", "welcome")]
    with ThreadPoolExecutor(len(refused)) as pool:  # PAM makes each of them wait for two seconds
        said = pool.map(lambda words: log_in(host, *words), refused)
    assert dict(zip(refused, said)) == {words: REFUSED for words in refused}


def test_the_certificate_is_checked(host):
    """Another authority's certificate is none: the same query with the machine's authorities."""
    line = "ldapsearch -x -H ldaps://gateway.example.com/ -b dc=example,dc=com -s base"
    assert host.shell(f"LDAPTLS_CACERT=/etc/zanthe/authority.pem {line}").status == 0
    assert host.shell(line).status != 0


def test_no_password_crosses_unencrypted(world, tls):
    settings = (EXAMPLES / "sssd.conf").read_text(encoding="utf-8").replace(f"ldaps://{GATEWAY}/", "ldap://127.0.0.1/")
    (world.folder / "sssd.conf").write_text(settings, encoding="utf-8")
    host = start(world, tls, world.folder / "sssd.conf", encrypted=False)
    assert host.shell("getent passwd ann").status == 0
    assert log_in(host, "ann", "welcome") == REFUSED


def test_a_password_cannot_be_changed_and_the_person_is_told_at_the_end(host):
    said = host.shell("setpriv --reuid taro --clear-groups pamtester door taro chauthtok", "welcome\nother\nother\n")
    assert said.out == f"Password change failed. Server message: {NO_CHANGE}\n"
    assert said.err.endswith("pamtester: Authentication token manipulation error\n")
    assert log_in(host, "taro", "welcome") == WELCOME


# ---- the gateway away

@pytest.fixture
def offline(host):
    """SSSD without the gateway; what it knows counts as out of date."""
    assert log_in(host, "ann", "welcome") == WELCOME
    assert host.shell("id ben; getent group kernel; getent netgroup all-hosts").status == 0
    assert host.shell("getent passwd yara").status == 0
    host.slapd.kill()
    assert host.shell("sss_cache --everything").status == 0
    return host


def test_what_was_asked_before_is_answered_while_the_gateway_is_down(offline):
    assert offline.shell("getent passwd ann").lines == ["ann:*:20001:10000:Ann Lee:/home/ann:/bin/bash"]
    assert offline.shell("getent passwd wanda").status == NOT_FOUND  # was never asked for
    assert "kernel" in offline.shell("id -Gn ben").out.split()
    assert offline.shell("getent group kernel").lines == ["kernel:*:10002:ben,chloe"]
    assert "(build02.example.com,-,example.com)" in offline.shell("getent netgroup all-hosts").out
    assert log_in(offline, "ann", "welcome") == WELCOME
    assert log_in(offline, "ann", "wrong") == REFUSED
    assert log_in(offline, "yara", "welcome") == REFUSED  # has not logged in here before

    offline.slapd.start()
    [monitor] = [process for process in psutil.Process(offline.sssd.process.pid).children(recursive=True) if process.name() == "sssd"]
    monitor.send_signal(signal.SIGUSR2)  # the network is back; otherwise it looks once a minute or so
    wait_until(lambda: offline.shell("getent passwd wanda").status == 0, "SSSD asks the gateway again")
    assert log_in(offline, "yara", "welcome") == WELCOME
