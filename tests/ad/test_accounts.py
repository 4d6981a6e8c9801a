# SPDX-License-Identifier: Apache-2.0
"""Binds against a domain: accounts in every state, and what a bind costs them."""
import ldap
import pytest

from gateway import SUFFIX, failure, search

WRONG = (49, "vexAuth : cannot bind to server due to invalid user or password.")
TRANSPORTS = ("gssapi", "starttls", "ldaps")


def dn(name):
    return f"cn={name},ou=States,{SUFFIX}"


@pytest.fixture(scope="module", params=TRANSPORTS)
def agent(request, shared_world):
    world = shared_world
    settings = world.directory.lab.agent_settings(request.param)
    log = world.folder / "accounts.log"
    agent = world.agent(log__file=log, **{name.replace(".", "__"): value for name, value in settings.items()}).start()
    agent.transport = request.param
    yield agent
    agent.stop()


@pytest.fixture(scope="module")
def gateway(shared_world, agent):
    slapd = shared_world.slapd(agent).start()
    yield slapd
    slapd.stop()


def refusal(gateway, who, password):
    with pytest.raises(ldap.LDAPError) as caught:
        gateway.connect(who, password)
    return failure(caught.value)


def last_line(agent):
    return (agent.folder / "accounts.log").read_text(encoding="utf-8").splitlines()[-1]


def bad_passwords(lab, name):
    """The domain's count of wrong passwords in a row."""
    return int(lab.value(name, "badPwdCount") or 0)


@pytest.fixture
def forgiven(lab):
    """Nobody has a wrong password counted against them, before and after."""
    def forgive():
        for name in ("s-good", "s-other"):
            [(where, _)] = lab.find(None, f"(sAMAccountName={name})", ["1.1"])
            lab.administrator().modify_s(where, [(ldap.MOD_REPLACE, "lockoutTime", b"0")])
            assert bad_passwords(lab, name) == 0
        lab.disconnect()
    forgive()
    yield
    forgive()


# ---- states

def test_a_good_account(gateway, forgiven):
    gateway.connect(dn("s-good"), "welcome")
    assert refusal(gateway, dn("s-good"), "wrong") == WRONG
    assert refusal(gateway, dn("s-nobody"), "welcome") == WRONG


# Why an account may not log in though its password is right.
REFUSED = {
    "s-disabled": "the account is disabled",
    "s-expired": "the account has expired",
    "s-locked": "the account is locked out",
    "s-mustchange": "the password must be changed",
    "s-pwexpired": "the password has expired",
}


def refused(why):
    return 49, f"vexAuth :account refused (vexRC=15), errSystem=LDAP, errCode=49, errString={why}"


@pytest.mark.parametrize("name", REFUSED)
def test_a_right_password_of_an_account_that_may_not_log_in(gateway, agent, name):
    """A client is told why only where the controller has seen that the password is right:
    a KDC may refuse an account before that, and so may any controller a locked one. The
    log says it always."""
    unseen = agent.transport == "gssapi" or name == "s-locked"
    assert refusal(gateway, dn(name), "welcome") == (WRONG if unseen else refused(REFUSED[name]))
    assert f'authentication of "{dn(name)}"' in last_line(agent) and REFUSED[name] in last_line(agent)


def test_an_account_that_may_log_in_at_no_hour(gateway, agent):
    code, text = refusal(gateway, dn("s-hours"), "welcome")
    assert (code, text.startswith("vexAuth :account refused (vexRC=15)")) == (49, agent.transport != "gssapi")


@pytest.mark.parametrize("name", ["s-good", "s-nobody", "s-disabled", "s-expired", "s-locked", "s-mustchange", "s-pwexpired",
                                  "s-nopassword", "s-hours"])
def test_a_wrong_password_tells_nothing_of_the_account(gateway, forgiven, name):
    assert refusal(gateway, dn(name), "wrong") == WRONG


def test_all_of_them_are_found(gateway):
    found = search(gateway.connect(), "(&(objectClass=posixAccount)(uid=s-*))", ["uid"])
    assert {dn(name).lower() for name in REFUSED} <= {name.lower() for name in found}


# ---- what the domain counts

@pytest.mark.parametrize("count", [1, 3])
def test_each_wrong_password_counts_once(gateway, lab, forgiven, count):
    for _ in range(count):
        assert refusal(gateway, dn("s-other"), "wrong") == WRONG
    assert bad_passwords(lab, "s-other") == count


def test_a_right_one_from_the_cache_does_not_touch_the_count(gateway, agent, lab, forgiven):
    # A right password that reached the domain would reset the count.
    kept = gateway.connect(dn("s-good"), "welcome")
    assert refusal(gateway, dn("s-good"), "wrong") == WRONG
    assert refusal(gateway, dn("s-good"), "wrong again") == WRONG
    assert bad_passwords(lab, "s-good") == 2
    asked = agent.served()["authenticate"]
    gateway.connect(dn("s-good"), "welcome")
    kept.simple_bind_s(dn("s-good"), "welcome")
    assert agent.served()["authenticate"] == asked
    assert bad_passwords(lab, "s-good") == 2


def test_a_name_that_nobody_has_counts_against_nobody(gateway, lab, forgiven):
    assert refusal(gateway, f"cn=s-good,ou=Nowhere,{SUFFIX}", "wrong") == WRONG
    assert refusal(gateway, f"cn=s-goo,ou=States,{SUFFIX}", "wrong") == WRONG
    assert bad_passwords(lab, "s-good") == 0


def test_an_empty_password_reaches_nobody(gateway, agent, lab, forgiven):
    asked = agent.served()["authenticate"]
    assert refusal(gateway, dn("s-good"), "")[0] in (48, 53)
    assert agent.served()["authenticate"] == asked
    assert bad_passwords(lab, "s-good") == 0


def test_the_domain_locks_an_account_after_its_own_number(world, forgiven, lab):
    """Five wrong ones here; the right one is refused then."""
    slapd = world.slapd(world.agent().start()).start()
    for number in range(1, 6):
        assert refusal(slapd, dn("s-other"), f"wrong {number}") == WRONG
        assert bad_passwords(lab, "s-other") == number
    assert refusal(slapd, dn("s-other"), "welcome") == WRONG  # nobody says that this one is right
