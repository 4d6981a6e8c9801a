# SPDX-License-Identifier: Apache-2.0
"""Many binds: what the performance line says of them, and which of them the agent is
asked about. The agent counts what it is asked."""
import re
import time

import ldap
import pytest

import crowd
from gateway import LONG, SANITIZER, SUFFIX, Slapd, failure, search, wait_until

PEOPLE = f"ou=People,{SUFFIX}"
ANN = f"cn=ann,ou=Engineering,{PEOPLE}"
NAMES = [f"cn={name},ou={unit},{PEOPLE}" for name, unit in (
    ("ann", "Engineering"), ("ben", "Engineering"), ("grace", "Engineering"), ("taro", "Research"))]
BINDS = 100_000 if LONG else 64 * 50
ALLOWED = 1 << 20  # for what a server comes to hold and uses again
MOST_FOR_A_BIND = 16  # bytes: a number takes 8, and the array that doubles keeps as much in hand
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


def test_of_more_people_than_the_cache_keeps_the_least_recent_is_asked_about_again(world):
    agent = world.agent().start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, "dirgate.cache.credential.max 2")).start()
    first, second, third = NAMES[:3]
    for who, asked in ((first, 1), (second, 2), (first, 2), (third, 3), (first, 3), (second, 4), (third, 5)):
        slapd.connect(who, "welcome")
        assert agent.served()["authenticate"] == asked, who


def test_connections_that_never_bound_change_no_credential(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    slapd.connect(ANN, "welcome")
    other = slapd.connect()
    assert len(search(other, "(&(objectClass=posixAccount)(uid=ann))", ["uid"])) == 1
    slapd.close_connection(other)
    slapd.connect(ANN, "welcome")
    assert agent.served()["authenticate"] == 1


def bind_again_and_again(slapd, binds, in_a_row):
    """Binds from 64 connections at once; each closes after so many in a row, and opens
    anew. Every 97th password is wrong."""
    connections = [None] * 64
    for number in range(0, binds, len(connections)):
        waiting = []
        for place in range(len(connections)):
            if connections[place] is None:
                connections[place] = ldap.initialize(slapd.uri)
            wrong = (number + place) % 97 == 0
            message = connections[place].simple_bind(crowd.dn(place % 16), "wrong" if wrong else "right")
            waiting.append((connections[place], wrong, message))
        for connection, wrong, message in waiting:
            if wrong:
                with pytest.raises(ldap.INVALID_CREDENTIALS):
                    connection.result(message)
            else:
                connection.result(message)
        if number // len(connections) % in_a_row == in_a_row - 1:
            for place, connection in enumerate(connections):
                connection.unbind_ext()
                connections[place] = None
    for connection in filter(None, connections):
        connection.unbind_ext()


@pytest.mark.embedded
@pytest.mark.parametrize("in_a_row", [1, 25])
def test_binds_from_64_connections_that_open_and_close(world, in_a_row):
    """With one bind on each, resident memory is afterwards where it was. Of several binds a
    close takes back one: the others' numbers stay."""
    agent = world.agent(embedded__ldif=crowd.write(world.folder, 16)).start()
    slapd = world.slapd(agent).start()
    bind_again_and_again(slapd, BINDS // 4, in_a_row)  # each of slapd's threads fills a heap of its own
    before = slapd.memory(), agent.memory()
    bind_again_and_again(slapd, BINDS, in_a_row)
    grown = slapd.memory() - before[0], agent.memory() - before[1]
    print(f"{BINDS} binds, {in_a_row} in a row: slapd and agent grew by {grown[0]} and {grown[1]} bytes")
    if not SANITIZER.kind:
        stay = BINDS * (in_a_row - 1) // in_a_row
        assert grown[0] < ALLOWED + stay * MOST_FOR_A_BIND
        assert grown[1] < ALLOWED


def test_a_connection_that_binds_again_and_again_costs_its_number_for_each_bind(world):
    """The number stays when the connection closes, but for one."""
    slapd = world.slapd(world.agent().start()).start()
    binds = 40_000 if LONG else 8_000
    grown = []
    slapd.connect(ANN, "welcome")
    for _ in range(4):
        before = slapd.memory()
        connection = slapd.connect()
        for _ in range(binds):
            connection.simple_bind_s(ANN, "welcome")
        slapd.close_connection(connection)
        grown.append(slapd.memory() - before)
    print(f"{binds} binds on one connection: slapd grew by {grown}")
    if not SANITIZER.kind:
        assert sum(grown) < ALLOWED + len(grown) * binds * MOST_FOR_A_BIND
