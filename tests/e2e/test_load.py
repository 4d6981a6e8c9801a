"""Many binds: what the performance line says of them, and which of them the agent is
asked about. The agent counts what it is asked."""
import re
import time

import ldap
import pytest

from gateway import SUFFIX, Slapd, failure, search, wait_until

PEOPLE = f"ou=People,{SUFFIX}"
ANN = f"cn=ann,ou=Engineering,{PEOPLE}"
NAMES = [f"cn={name},ou={unit},{PEOPLE}" for name, unit in (
    ("ann", "Engineering"), ("ben", "Engineering"), ("grace", "Engineering"), ("taro", "Research"))]
LINE = re.compile(r"auth total: (\d+), success from cache: (\d+), success from vexagent: (\d+), "
                  r"success from vexagent average time: (\d+)ms, auth failed: (\d+)$", re.MULTILINE)


def refused(connection, who, password):
    with pytest.raises(ldap.INVALID_CREDENTIALS) as caught:
        connection.simple_bind_s(who, password)
    assert failure(caught.value)[1] == "vexAuth : cannot bind to server due to invalid user or password."


class Ledger:
    """What became of each bind, in order; for comparison with slapd's own count."""

    def __init__(self):
        self.outcomes = []

    def bind(self, connection, who, password="welcome"):
        first = not any(name == who and outcome == "agent" for name, outcome in self.outcomes)
        if password != "welcome":
            refused(connection, who, password)
            self.outcomes.append((who, "failed"))
        else:
            connection.simple_bind_s(who, password)
            self.outcomes.append((who, "agent" if first else "cache"))

    def count(self, outcome, first):
        """Among the first so many binds."""
        return sum(1 for _, one in self.outcomes[:first] if one == outcome)


def test_a_thousand_binds_and_their_performance_line(world):
    """Two connections a person: the agent is asked once for each, and for every wrong password."""
    log = world.folder / "gateway.log"
    agent = world.agent(log__file=log, log__level__dirgate=1).start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, "dirgate.performance.log.interval 1",
                                           "dirgate.cache.credential.expires 3600")).start()
    connections = [slapd.connect() for _ in range(8)]
    ledger = Ledger()

    def lines():
        return [tuple(map(int, line)) for line in LINE.findall(log.read_text(encoding="utf-8"))]

    start = time.monotonic()
    for number in range(1000):
        turn = number % len(connections)
        who = NAMES[turn % len(NAMES)]
        ledger.bind(connections[turn], who, "wrong" if number % 100 == 57 else "welcome")

    # A line is due after a bind that succeeds, a second after the line before it.
    def a_line_on_all_of_them():
        ledger.bind(connections[0], NAMES[0])
        return any(line[0] >= 1000 for line in lines())
    wait_until(a_line_on_all_of_them, "a performance line on the whole")

    seen = lines()
    for total, cache, asked, average, failed in seen:
        assert (cache, asked, failed) == tuple(ledger.count(outcome, total) for outcome in ("cache", "agent", "failed"))
        assert average <= (time.monotonic() - start) * 1000 / max(asked, 1)
    assert [line[0] for line in seen] == sorted({line[0] for line in seen})
    assert (seen[-1][2], seen[-1][4]) == (len(NAMES), 10)
    assert agent.served()["authenticate"] == len(NAMES) + 10


def test_the_same_bind_again_is_not_asked_about(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    first = slapd.connect(ANN, "welcome")
    asked = agent.served()
    assert asked["authenticate"] == 1
    second = slapd.connect(ANN, "welcome")
    first.simple_bind_s(ANN, "welcome")
    assert agent.served() == asked
    assert second.whoami_s() == first.whoami_s() != ""


def test_a_wrong_password_against_a_live_credential_is_asked_about_and_refused(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    slapd.connect(ANN, "welcome")
    for number, wrong in enumerate(("Welcome", "welcome ", "{SHA}welcome"), 2):
        refused(slapd.connect(), ANN, wrong)
        assert agent.served()["authenticate"] == number
    # The credential is none the worse for it.
    slapd.connect(ANN, "welcome")
    assert agent.served()["authenticate"] == 4


def test_the_last_connection_that_closes_takes_the_credential_with_it(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    first, second = slapd.connect(ANN, "welcome"), slapd.connect(ANN, "welcome")
    slapd.close_connection(first)
    third = slapd.connect(ANN, "welcome")
    assert agent.served()["authenticate"] == 1
    slapd.close_connection(second)
    slapd.close_connection(third)
    slapd.connect(ANN, "welcome")
    assert agent.served()["authenticate"] == 2


def test_connections_that_never_bound_change_no_credential(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    slapd.connect(ANN, "welcome")
    other = slapd.connect()
    assert len(search(other, "(&(objectClass=posixAccount)(uid=ann))", ["uid"])) == 1
    slapd.close_connection(other)
    slapd.connect(ANN, "welcome")
    assert agent.served()["authenticate"] == 1
