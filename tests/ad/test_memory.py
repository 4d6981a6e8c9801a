# SPDX-License-Identifier: Apache-2.0
"""No password outlives its use in the agent's memory, whatever carries it to a controller:
the people's, and the service account's own."""
import ldap
import pytest

from gateway import SUFFIX, search
from lab import SERVICE_PASSWORD
from test_secrets import copies, random_password

WHO, REAL = f"cn=s-good,ou=States,{SUFFIX}", "CN=s-good,OU=States,DC=example,DC=com"


@pytest.mark.parametrize("transport", ["gssapi", "starttls", "ldaps"])
def test_no_password_stays_in_the_agent(world, states_domain, transport):
    settings = {name.replace(".", "__"): value for name, value in world.directory.lab.agent_settings(transport).items()}
    agent = world.agent(**settings).start()
    slapd = world.slapd(agent).start()
    right, wrong = f"Aa1.{random_password(20)}", f"Aa1.{random_password(20)}"
    states_domain.set_password(REAL, right, None)
    assert len(search(slapd.connect(), "(&(objectClass=posixAccount)(uid=s-good))")) == 1
    for _ in range(3):
        slapd.close_connection(slapd.connect(WHO, right))
        with pytest.raises(ldap.INVALID_CREDENTIALS):
            slapd.connect(WHO, wrong)
    assert agent.served()["authenticate"] == 6
    assert [len(copies(agent, secret)) for secret in (right, wrong, SERVICE_PASSWORD)] == [0, 0, 0]
