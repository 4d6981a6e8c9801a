# SPDX-License-Identifier: Apache-2.0
"""Numbers of the directory that hosts are not shown."""
import pytest

from gateway import search

ANN_DN = "CN=Ann Lee,OU=Engineering,OU=People,DC=example,DC=com"


@pytest.mark.parametrize("number", [0, 999])
def test_a_number_below_the_lowest_makes_nobody(world, number):
    """Whoever changes a person in the directory makes no root of any host by that."""
    agent = world.agent(unix__id__min=1000)
    agent.start()
    connection = world.slapd(agent).start().connect()
    assert len(search(connection, "(&(objectClass=posixAccount)(uid=ann))")) == 1
    agent.modify(f"dn: {ANN_DN}\nchangetype: modify\nreplace: uidNumber\nuidNumber: {number}\n")
    for filter in ("(&(objectClass=posixAccount)(uid=ann))", f"(&(objectClass=posixAccount)(uidNumber={number}))"):
        assert search(connection, filter) == {}
