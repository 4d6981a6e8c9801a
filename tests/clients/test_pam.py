# SPDX-License-Identifier: Apache-2.0
"""pam_ldap: log-ins on a host, as pamtester makes them for any program that uses PAM.
nslcd binds to the gateway as the person."""
import calendar
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from client_host import EXAMPLES, NO_CHANGE, SPRING, STANDARD, Host
from gateway import ROOT

FILES = {"nslcd.conf": EXAMPLES / "nslcd.conf", "nsswitch.conf": EXAMPLES / "nsswitch.conf", "pam.d/door": EXAMPLES / "pam-ldap"}
WELCOME = "pamtester: successfully authenticated"
REFUSED = "pamtester: Authentication failure"
# In the standard mode a person's one entry is posixAccount and shadowAccount. So nslcd says "x"
# for the password, and pam_unix looks at its age as well, before pam_ldap does.
SOON, TOO_OLD, EXPIRED = ["Password will expire in 10 days"], ["Password expired 10 days ago"], ["Account expired 10 days ago"]
if STANDARD:
    SOON.insert(0, "Warning: your password will expire in 10 days.")
    TOO_OLD.insert(0, "You are required to change your password immediately (password expired).")
    EXPIRED.insert(0, "Your account has expired; please contact your system administrator.")


@pytest.fixture(scope="module")
def running(shared_world):
    host = Host(shared_world, FILES)
    host.gateway(shared_world.agent().start())
    host.start_nslcd(SPRING)
    return host


@pytest.fixture
def host(running):
    return running.set_date(SPRING)


def log_in(host, name, password, operations="authenticate"):
    """What pamtester says, without its prompts."""
    said = host.shell(f"stdbuf -oL pamtester door {name} {operations} 2>&1", f"{password}\n")
    return said.out.removeprefix("Password: ").splitlines()


# ---- passwords

@pytest.mark.parametrize("name, password", [
    ("ann", "welcome"),
    ("rosa", "Tea, at 4 o'clock"),
    ("zoe", "mot de passe é"),
    ("sven", "welcome"),  # a plus sign in the real name
    ("taro", "welcome"),  # a real name outside ASCII
])
def test_the_right_password(host, name, password):
    assert log_in(host, name, password) == [WELCOME]


def test_the_wrong_password_and_the_wrong_person_look_alike(host):
    refused = [
        ("ann", "wrong"),
        ("ann", "Welcome"),
        ("ann", ""),  # never passed on: an anonymous bind would succeed
        ("zoe", "mot de passe e"),
        ("nils", "welcome"),  # has no password
        ("nobody-here", "welcome"),
        ("guest", "welcome"),  # has no uid number, and does not exist here
        ("iris", "welcome"),  # disabled
        ("root", "welcome"),  # the host's own
        ("'*'", "welcome"),
    ]
    with ThreadPoolExecutor(len(refused)) as pool:  # PAM makes each of them wait for two seconds
        said = pool.map(lambda words: log_in(host, *words), refused)
    assert dict(zip(refused, said)) == {words: [REFUSED] for words in refused}


# ---- the account, once the password was right

def test_the_whole_of_a_log_in(host):
    assert log_in(host, "rosa", "Tea, at 4 o'clock", "authenticate acct_mgmt setcred open_session close_session") == [
        WELCOME, "pamtester: account management done.", "pamtester: credential info has successfully been set.",
        "pamtester: successfully opened a session", "pamtester: session has successfully been closed."]


@pytest.mark.parametrize("name, password, date, lines", [
    ("ann", "welcome", SPRING, [WELCOME, "pamtester: account management done."]),
    ("ann", "welcome", "2026-08-05", [WELCOME, *SOON, "pamtester: account management done."]),
    ("ann", "welcome", "2026-08-25", [WELCOME, *TOO_OLD, "pamtester: Authentication token is no longer valid; new one required"]),
    ("taro", "welcome", "2026-08-25", [WELCOME, "pamtester: account management done."]),  # without password ages
])
def test_password_ages_of_the_directory_count(host, name, password, date, lines):
    assert log_in(host.set_date(date), name, password, "authenticate acct_mgmt") == lines


def test_an_account_that_has_expired_is_shut_for_every_way_in(host):
    """With a key, say, where no password was asked for."""
    host.set_date("2026-03-28")
    assert log_in(host, "ann", "", "acct_mgmt") == ["pamtester: account management done."]
    assert log_in(host, "iris", "", "acct_mgmt") == [*EXPIRED, "pamtester: User account has expired"]


def test_an_account_that_is_disabled_is_shut_only_for_passwords(host):
    assert log_in(host, "iris", "", "acct_mgmt") == ["pamtester: account management done."]


def test_an_unknown_account(host):
    assert log_in(host, "nobody-here", "", "acct_mgmt") == ["pamtester: User not known to the underlying authentication module"]


# ---- what the gateway cannot do

def test_a_password_cannot_be_changed_and_is_not_asked_for(host):
    said = host.shell("setpriv --reuid taro --clear-groups pamtester door taro chauthtok 2>&1", "welcome\nother\nother\n")
    assert said.lines == ["Passwords are changed in Active Directory.", "pamtester: Permission denied"]
    assert log_in(host, "taro", "welcome") == [WELCOME]


def host_without(world, setting):
    """With the example's nslcd.conf but for one line."""
    lines = (EXAMPLES / "nslcd.conf").read_text(encoding="utf-8").splitlines()
    kept = [line for line in lines if not line.startswith(setting)]
    assert len(kept) == len(lines) - 1
    (world.folder / "nslcd.conf").write_text("\n".join([*kept, ""]), encoding="utf-8")
    host = Host(world, {**FILES, "nslcd.conf": world.folder / "nslcd.conf"})
    host.gateway(world.agent().start())
    host.start_nslcd(SPRING)
    return host


def test_nslcd_finds_the_dn_it_was_bound_with_in_the_standard_mode_alone(world):
    assert log_in(host_without(world, "pam_authc_search"), "ann", "welcome") == [WELCOME if STANDARD else REFUSED]


def test_a_password_change_without_the_message(world):
    host = host_without(world, "pam_password_prohibit_message")
    said = host.shell("setpriv --reuid taro --clear-groups pamtester door taro chauthtok 2>&1", "welcome\nother\nother\n")
    assert said.out == ("(current) LDAP Password: New password: Retype new password: "
                        f"password change failed: {NO_CHANGE}\npamtester: Permission denied\n")


# ---- what hosts are told of accounts, where the map has it worked out

@pytest.fixture
def telling_host(world):
    changes = {"CN=Ann Lee,OU=Engineering": {"pwdLastSet": windows_time("2026-01-15")},
               "CN=Ben Okafor,OU=Engineering": {"lockoutTime": windows_time("2026-02-28"), "userAccountControl": 512},
               "CN=Mei Tanaka,OU=Operations": {"accountExpires": windows_time("2026-02-01")}}
    agent = world.agent().start()
    for name, facts in changes.items():
        lines = "".join(f"replace: {name}\n{name}: {value}\n-\n" for name, value in facts.items())
        agent.modify(f"dn: {name},OU=People,DC=example,DC=com\nchangetype: modify\n{lines}\n")
    agent.modify(f"dn: DC=example,DC=com\nchangetype: modify\nadd: maxPwdAge\nmaxPwdAge: {-90 * 86400 * 10**7}\n")
    text = (ROOT / "examples/applications.map").read_text(encoding="utf-8").replace("#shadow.of.account", "shadow.of.account")
    (world.folder / "telling.map").write_text(text, encoding="utf-8")
    host = Host(world, FILES)
    host.gateway(agent, more=[f'vextranslation "{world.folder}/telling.map"'])
    host.start_nslcd(SPRING)
    return host


def windows_time(day):
    return (calendar.timegm(time.strptime(day, "%Y-%m-%d")) + 11644473600) * 10**7


if STANDARD:  # the map is for it
    def test_whoever_is_not_to_come_in_is_shut_out_of_every_host(telling_host):
        """Without a password, as with a key."""
        assert telling_host.shell("getent shadow ann ben mei iris dmitri").lines == [
            "ann:*:20468:0:90:14:::0", "ben:*::0::14::1:0", "mei:*::0::14::20485:0", "iris:*::0::14::1:0", "dmitri:*:::::::0"]
        assert log_in(telling_host, "ann", "", "acct_mgmt")[-1] == "pamtester: account management done."
        for name in ("ben", "mei", "iris"):
            assert log_in(telling_host, name, "", "acct_mgmt")[-1] == "pamtester: User account has expired", name


# ---- the gateway away: last, as it does not come back

def test_the_hosts_own_users_do_not_wait_for_a_gateway_that_is_down(host):
    [slapd] = [server for server in host.servers if server.name == "slapd"]
    slapd.stop()
    assert host.shell("id root").out == "uid=0(root) gid=0(root) groups=0(root)\n"
    assert log_in(host, "root", "", "acct_mgmt") == ["pamtester: account management done."]
