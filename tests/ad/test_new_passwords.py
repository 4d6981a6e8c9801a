# SPDX-License-Identifier: Apache-2.0
"""People of a domain who give themselves a new password."""
import ldap
import pytest

from gateway import SUFFIX
from password_change import change
from test_secrets import copies, random_password

WHO, REAL = f"cn=s-good,ou=States,{SUFFIX}", "CN=s-good,OU=States,DC=example,DC=com"


def served(world, transport, **more):
    settings = {name.replace(".", "__"): value for name, value in world.directory.lab.agent_settings(transport).items()}
    agent = world.agent(**settings, **more).start()
    return agent, world.slapd(agent).start()


@pytest.fixture(params=["gssapi", "starttls", "ldaps"])
def transport(request):
    """By Kerberos, or over TLS by the person's own log-in."""
    return request.param


def test_a_new_password_counts_at_once(world, states_domain, transport):
    agent, slapd = served(world, transport, agent__password__change="true")
    old, new = f"Aa1.{random_password(20)}", f"Aa1.{random_password(20)}"
    states_domain.set_password(REAL, old, None)
    assert change(agent, WHO, "wrong", new) == "14 49 wrong password"
    assert change(agent, f"cn=s-nobody,ou=States,{SUFFIX}", old, new) == "13 49 no such user"
    assert change(agent, WHO, old, new) == "0 0"
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        slapd.connect(WHO, old)
    slapd.connect(WHO, new).unbind_s()
    assert [len(copies(agent, secret)) for secret in (old, new)] == [0, 0]


def test_the_domain_says_which_passwords_it_takes(world, states_domain, transport):
    agent, slapd = served(world, transport, agent__password__change="true")
    old = f"Aa1.{random_password(20)}"
    states_domain.set_password(REAL, old, None)
    states_domain.modify(f"dn: {SUFFIX}\nchangetype: modify\nreplace: minPwdLength\nminPwdLength: 14\n", None)
    assert change(agent, WHO, old, "short") == "16 19 the domain does not take this new password"
    slapd.connect(WHO, old).unbind_s()
    assert change(agent, WHO, old, "a password that is long enough") == "0 0"


def test_letters_of_all_kinds_are_as_good_as_others(world, states_domain, transport):
    agent, slapd = served(world, transport, agent__password__change="true")
    old, new = f"Aa1.{random_password(20)}", f"Aa1.ÄÖ€😀{random_password(20)}"
    states_domain.set_password(REAL, old, None)
    assert change(agent, WHO, old, new) == "0 0"
    slapd.connect(WHO, new).unbind_s()


def test_who_may_not_log_in_changes_no_password(world, states_domain, transport):
    """Whatever the state is: also the one who must change it, who asks a controller."""
    agent, _ = served(world, transport, agent__password__change="true")
    for name in ("s-disabled", "s-mustchange"):
        answer = change(agent, f"cn={name},ou=States,{SUFFIX}", "welcome", f"Aa1.{random_password(20)}")
        assert answer.split()[1] == "49", answer


def test_otherwise_no_password_is_changed(world, transport):
    agent, slapd = served(world, transport)
    assert change(agent, WHO, "welcome", "new") == "4 53 this agent changes no passwords"
    slapd.connect(WHO, "welcome").unbind_s()
