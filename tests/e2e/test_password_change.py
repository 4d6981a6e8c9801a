# SPDX-License-Identifier: Apache-2.0
"""A person who gives himself a new password in the embedded directory."""
import ldap
import pytest

from gateway import SUFFIX
from password_change import change
from test_secrets import copies, random_password

pytestmark = pytest.mark.embedded  # tests/ad has a domain's

ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"


def test_a_new_password_counts_at_once_and_outlives_the_agent(world):
    log = world.folder / "agent.log"
    agent = world.agent(agent__password__change="true", log__file=log).start()
    slapd = world.slapd(agent).start()
    new = random_password(20)
    assert change(agent, ANN, "wrong", new) == "14 49 wrong password"
    assert change(agent, ANN, "welcome", "welcome") == "16 19 the new password is the old one"
    assert change(agent, ANN, "welcome", new) == "0 0"
    assert len(copies(agent, new)) == 0
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        slapd.connect(ANN, "welcome")
    slapd.connect(ANN, new).unbind_s()
    assert agent.served()["password"] == 3
    said = log.read_text(encoding="utf-8")
    assert f'change of the password of "{ANN}" for pid ' in said
    assert new not in said and "welcome" not in said

    agent.stop()
    agent.start()
    slapd.connect(ANN, new).unbind_s()


def test_nobody_changes_a_password_unless_it_is_allowed(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    assert change(agent, ANN, "welcome", "new") == "4 53 this directory changes no passwords"
    slapd.connect(ANN, "welcome").unbind_s()
