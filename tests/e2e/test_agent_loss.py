# SPDX-License-Identifier: Apache-2.0
"""The agent is killed, restarted, hung: a failure is always told, and told soon."""
import signal
import threading
import time

import ldap
import pytest

from gateway import SUFFIX, failure, search, wait_until

ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
FILTER = "(&(objectClass=posixAccount)(uid=ann))"
AT_ONCE = 2.0  # seconds; far below any deadline of a call


def timed(action):
    """Runs what must fail. Returns the result code, the text and the seconds."""
    start = time.monotonic()
    with pytest.raises(ldap.LDAPError) as caught:
        action()
    return (*failure(caught.value), time.monotonic() - start)


def test_an_agent_that_is_killed_and_comes_back(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    connection = slapd.connect()
    assert len(search(connection, FILTER, ["uid"])) == 1
    slapd.connect(ANN, "welcome")

    agent.kill()
    code, text, seconds = timed(lambda: connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER))
    assert (code, text) == (52, "vexSessionOpen: Failed to communicate with vexagent due to broken session handle")
    assert seconds < AT_ONCE
    code, text, seconds = timed(lambda: slapd.connect(f"cn=ben,ou=Engineering,ou=People,{SUFFIX}", "welcome"))
    assert (code, text) == (52, "vexAuth : Failed to communicate with vexagent due to broken session handle")
    assert seconds < AT_ONCE

    agent.start()
    assert len(search(connection, FILTER, ["uid"])) == 1
    slapd.connect(f"cn=ben,ou=Engineering,ou=People,{SUFFIX}", "welcome")


def test_slapd_starts_before_the_agent(world):
    agent = world.agent()
    slapd = world.slapd(agent).start()
    code, _, seconds = timed(lambda: search(slapd.connect(), FILTER))
    assert code == 52 and seconds < AT_ONCE
    agent.start()
    assert len(search(slapd.connect(), FILTER)) == 1


def test_a_bind_from_the_credential_cache_outlives_the_agent(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    slapd.connect(ANN, "welcome")
    agent.kill()
    slapd.connect(ANN, "welcome")
    code, _, _ = timed(lambda: slapd.connect(ANN, "wrong"))
    assert code == 52


def test_a_hung_agent_is_reported_within_the_deadline(world):
    agent = world.agent(agent__timeout="2").start()
    slapd = world.slapd(agent).start()
    connection = slapd.connect()
    assert len(search(connection, FILTER)) == 1
    agent.signal(signal.SIGSTOP)
    code, text, seconds = timed(lambda: connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER))
    assert code == 52 and "broken session handle" in text
    assert 1.5 < seconds < 6
    agent.signal(signal.SIGCONT)
    wait_until(lambda: search_or_none(connection), "the same slapd answers again")


def search_or_none(connection):
    try:
        return search(connection, FILTER, ["uid"])
    except ldap.UNAVAILABLE:
        return None


def test_no_search_ever_ends_well_without_its_entries(world):
    """Clients that enumerate while the agent is killed and restarted see everybody, or a failure."""
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    stop, wrong, outcomes = threading.Event(), [], {"whole": 0, "failed": 0}
    lock = threading.Lock()

    def enumerate_people():
        connection = slapd.connect()
        while not stop.is_set():
            try:
                found = connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, "(objectClass=posixAccount)", ["uid"])
                kind = "whole" if len(found) == 38 else f"success with {len(found)} entries"
            except ldap.UNAVAILABLE:
                kind = "failed"
            except ldap.LDAPError as error:
                kind = repr(error)
            with lock:
                if kind in outcomes:
                    outcomes[kind] += 1
                else:
                    wrong.append(kind)

    threads = [threading.Thread(target=enumerate_people) for _ in range(4)]
    for thread in threads:
        thread.start()
    try:
        for _ in range(3):
            before = dict(outcomes)
            wait_until(lambda: outcomes["whole"] >= before["whole"] + 4 or wrong, "searches are answered")
            agent.kill()
            wait_until(lambda: outcomes["failed"] >= before["failed"] + 4 or wrong, "searches fail")
            agent.start()
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    assert wrong == []
    assert slapd.running()


def test_slapd_stops_in_order_while_the_agent_is_gone(world):
    agent = world.agent().start()
    slapd = world.slapd(agent).start()
    search(slapd.connect(), FILTER)
    agent.kill()
    assert slapd.stop() == 0
