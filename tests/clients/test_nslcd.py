# SPDX-License-Identifier: Apache-2.0
"""nslcd and libnss-ldapd: the host's name service asks the gateway. What getent(1) and
id(1) then say."""
import pytest

from client_host import EXAMPLES, GATEWAY, STANDARD, Host

NOT_FOUND = 2  # getent's exit status


@pytest.fixture(scope="module")
def host(shared_world):
    host = Host(shared_world, {name: EXAMPLES / name for name in ("nslcd.conf", "nsswitch.conf")})
    host.gateway(shared_world.agent().start())
    host.start_nslcd()
    return host


def members(line):
    """Of a line of group(5): its members, as a set."""
    return set(filter(None, line.strip().split(":")[3].split(",")))


# ---- passwd

def account(line):
    """In the standard mode her one entry is a shadowAccount too, and nslcd says so."""
    return line.replace(":*:", ":x:", 1) if STANDARD else line


@pytest.mark.parametrize("key, line", [
    ("ann", "ann:*:20001:10000:Ann Lee:/home/ann:/bin/bash"),
    ("20002", "ben:*:20002:10000:Ben Okafor:/home/ben:/bin/bash"),
    ("sven", "sven:*:20019:10020:Sven Partner:/home/sven:/bin/bash"),
    ("kit", "kit:*:20011:10000:Kit O'Neil:/home/kit:/bin/bash"),
    ("backup", "backup:*:20900:10000:Backup Service:/var/backups:/usr/sbin/nologin"),
    ("iris", "iris:*:20037:10000:Iris Old:/home/iris:/usr/sbin/nologin"),  # disabled, but her files are still hers
])
def test_getent_passwd(host, key, line):
    assert host.shell(f"getent passwd {key}").lines == [account(line)]


@pytest.mark.parametrize("key", ["nobody-here", "29999", "guest", "BUILD01$", "ann@example.com", "'*'", "'a*n'"])
def test_getent_passwd_of_nobody(host, key):
    said = host.shell(f"getent passwd {key}")
    assert (said.status, said.out) == (NOT_FOUND, "")


def test_names_in_the_wrong_case_are_nobodys_unless_nslcd_ignores_case(host):
    assert host.shell("getent passwd ANN").status == NOT_FOUND


def test_getent_passwd_enumerates(host):
    lines = host.shell("getent --service=ldap passwd").lines
    names = {line.split(":")[0] for line in lines}
    assert len(lines) == len(names) == 38
    assert {"ann", "zoe", "taro", "iris", "backup"} <= names and "guest" not in names


# ---- group

@pytest.mark.parametrize("key, name, number, people", [
    ("kernel", "kernel", 10002, {"ben", "chloe"}),
    ("10001", "engineering", 10001, {"ann", "ben", "chloe", "dmitri", "elena", "farid", "grace", "hugo", "ingrid", "jurgen",
                                     "kit", "lukasz"}),  # ben and chloe by way of kernel
    ("contractors", "contractors", 10020, {"sven"}),  # whose primary group it is
    ("'reading room'", "reading room", 10010, {"wanda", "taro"}),
    ("day-shift", "day-shift", 10008, {"olga", "pedro", "uma", "victor"}),  # it and night-shift contain each other
    ("empty", "empty", 10011, set()),
])
def test_getent_group(host, key, name, number, people):
    [line] = host.shell(f"getent group {key}").lines
    assert line.startswith(f"{name}:*:{number}:")
    assert members(line) == people


@pytest.mark.parametrize("key", ["nobody-here", "29999", "mailing-list"])  # the last has no number
def test_getent_group_of_none(host, key):
    said = host.shell(f"getent group {key}")
    assert (said.status, said.out) == (NOT_FOUND, "")


def test_getent_group_enumerates(host):
    found = {line.split(":")[0]: line for line in host.shell("getent --service=ldap group").lines}
    assert set(found) == {"Domain Users", "engineering", "kernel", "operations", "finance", "research", "all-staff", "admins",
                          "day-shift", "night-shift", "reading room", "empty", "contractors"}
    assert members(found["kernel"]) == {"ben", "chloe"}
    assert {"ann", "backup"} <= members(found["Domain Users"])


# ---- id: the primary group first, then those that list the person

@pytest.mark.parametrize("name, numbers, groups", [
    ("ann", "20001 10000", {"Domain Users", "engineering", "all-staff", "admins"}),
    ("ben", "20002 10000", {"Domain Users", "kernel", "engineering", "all-staff"}),
    ("sven", "20019 10020", {"contractors", "operations", "all-staff"}),
    ("uma", "20021 10000", {"Domain Users", "operations", "all-staff", "day-shift", "night-shift"}),
    ("iris", "20037 10000", {"Domain Users"}),
])
def test_id(host, name, numbers, groups):
    said = host.shell(f"id -u {name}; id -g {name}; id -Gnz {name}")
    user, primary, names = said.lines
    assert f"{user} {primary}" == numbers
    assert set(names.strip("\0").split("\0")) == groups


def test_id_of_nobody(host):
    said = host.shell("id nobody-here")
    assert (said.status, said.err) == (1, "id: ‘nobody-here’: no such user\n")


def test_a_process_of_hers_owns_files_by_name(host):
    said = host.shell("touch /run/hers; chown ann:'reading room' /run/hers; stat -c '%U %u %G %g' /run/hers")
    assert said.out == "ann 20001 reading room 10010\n"


# ---- shadow: dates only; no password hash leaves the agent

@pytest.mark.parametrize("name, line", [
    ("ann", "ann:*:20500:0:180:14:::0"),
    ("iris", "iris:*:20500:0:180:14::20530:0"),
    ("taro", "taro:*:::::::0"),  # without any
])
def test_getent_shadow(host, name, line):
    assert host.shell(f"getent shadow {name}").lines == [line]


def test_getent_shadow_shows_nobody_a_hash(host):
    lines = host.shell("getent --service=ldap shadow").lines
    assert len(lines) == 38
    assert {line.split(":")[1] for line in lines} == {"*"}


# ---- netgroup

@pytest.mark.parametrize("name, triples", [
    ("kernel-people", {"(-,ben,example.com)", "(-,chloe,example.com)"}),
    ("all-hosts", {"(console.example.com,-,example.com)", "(build01.example.com,-,example.com)",
                   "(build02.example.com,-,example.com)", "(files01.example.com,-,example.com)"}),  # of the groups in it, too
    ("loop-a", {"(a.example.com,,)", "(b.example.com,,)"}),  # it and loop-b contain each other
])
def test_getent_netgroup(host, name, triples):
    first, *found = host.shell(f"getent netgroup {name}").out.split()
    assert (first, set(found), len(found)) == (name, triples, len(triples))


def test_getent_netgroup_of_none(host):
    assert host.shell("getent netgroup nobody-here").status == NOT_FOUND


# innetgr(3), as sudo, sshd and NFS ask: a part that is None does not count.
INNETGR = "import ctypes, sys; print(ctypes.CDLL(None).innetgr(*(word.encode() if word else None for word in sys.argv[1:])))"


@pytest.mark.parametrize("group, machine, user, domain, within", [
    ("kernel-people", "", "ben", "", 1),
    ("kernel-people", "", "ben", "example.com", 1),
    ("kernel-people", "", "ben", "elsewhere.com", 0),
    ("kernel-people", "", "ann", "", 0),
    ("kernel-people", "build01.example.com", "ben", "", 0),  # its triples have no host, and "-" is not "any"
    ("kernel-people", "-", "ben", "", 1),
    ("loop-a", "b.example.com", "anybody", "any.where", 1),  # what is empty is any
    ("all-hosts", "build02.example.com", "", "", 1),  # of a group in it
    ("all-hosts", "ben", "", "", 0),
    ("nobody-here", "", "ben", "", 0),
])
def test_innetgr(host, group, machine, user, domain, within):
    said = host.shell(f"python3 -c '{INNETGR}' '{group}' '{machine}' '{user}' '{domain}'")
    assert said.out == f"{within}\n", said


# ---- other settings than the example's

def changed(world, tls, *lines):
    """A host whose nslcd.conf has these lines in the place of those that begin alike."""
    kept = [line for line in (EXAMPLES / "nslcd.conf").read_text(encoding="utf-8").splitlines()
            if not line.startswith(tuple(line.split()[0] for line in lines))]
    (world.folder / "nslcd.conf").write_text("\n".join([*kept, *lines, ""]), encoding="utf-8")
    host = Host(world, {"nslcd.conf": world.folder / "nslcd.conf", "nsswitch.conf": EXAMPLES / "nsswitch.conf",
                        "zanthe/authority.pem": tls / "authority.pem"})
    host.slapd = host.gateway(world.agent().start(), tls)
    host.start_nslcd()
    return host


def test_ignorecase(world, tls):
    host = changed(world, tls, "ignorecase yes")
    assert host.shell("getent passwd ANN").out.endswith(":20001:10000:Ann Lee:/home/ann:/bin/bash\n")
    assert members(host.shell("getent group Kernel").out) == {"ben", "chloe"}


def test_pages(world, tls):
    host = changed(world, tls, "pagesize 7")
    assert len(host.shell("getent --service=ldap passwd").lines) == 38
    assert len(host.shell("getent --service=ldap group").lines) == 13
    assert len(host.shell("getent --service=ldap passwd").lines) == 38


def test_tls(world, tls):
    host = changed(world, tls, f"uri ldaps://{GATEWAY}/", "tls_cacertfile /etc/zanthe/authority.pem")
    assert host.shell("getent passwd ann").status == 0
    assert host.shell("id -G sven").out.split()[0] == "10020"


def test_tls_with_a_certificate_of_somebody_else(world, tls):
    host = changed(world, tls, f"uri ldaps://{GATEWAY}/", "tls_cacertfile /etc/ssl/certs/ca-certificates.crt",
                   "reconnect_sleeptime 1", "reconnect_retrytime 1")
    assert host.shell("getent passwd ann").status == NOT_FOUND
