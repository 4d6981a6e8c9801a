# SPDX-License-Identifier: Apache-2.0
"""The agent on a socket that the service manager has made, and keeps."""
import contextlib
import os
import select
import socket
import threading

import ldap
import psutil
import pytest

import crowd
from gateway import SECONDS, SUFFIX, search, wait_until
from wire import WireClient, conjunction, equality, paged

FILTER = "(&(objectClass=posixAccount)(uid=ann))"
PEOPLE = 1_200  # several batches of the agent's
ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"


def listen(path, kind=socket.SOCK_STREAM):
    """As the service manager does it."""
    made = socket.socket(socket.AF_UNIX, kind)
    made.bind(str(path))
    if kind == socket.SOCK_STREAM:
        made.listen()
    return made


@pytest.fixture
def manager(world):
    """(agent, the socket that it will be given). The agent does not run yet."""
    agent = world.agent(agent__socket__mode="0600", agent__timeout="60")
    with listen(agent.socket) as made:
        agent.hand_over(made)
        yield agent, made


def is_knocked_at(made):
    return bool(select.select([made], [], [], 0)[0])


def test_a_request_that_finds_no_agent_waits_for_it(world, manager):
    agent, made = manager
    slapd = world.slapd(agent).start()
    connection = slapd.connect()
    request = connection.search(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    wait_until(lambda: is_knocked_at(made), "the request waits in the socket")
    agent.launch()
    _, entries = connection.result(request, timeout=SECONDS)
    assert [attributes["uid"] for _, attributes in entries] == [[b"ann"]]


def test_the_socket_has_the_settings_mode_and_outlives_the_agent(manager):
    agent, made = manager
    agent.socket.chmod(0o666)
    agent.start()
    wait_until(lambda: os.stat(agent.socket).st_mode & 0o7777 == 0o600, "the socket has its mode")
    agent.stop()
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(agent.socket))
        assert is_knocked_at(made)


def test_restarts_lose_no_request(world, manager):
    agent, _ = manager
    agent.launch()
    slapd = world.slapd(agent).start()
    stop, wrong, answered = threading.Event(), [], [0] * 4

    def ask(number):
        connection = slapd.connect()
        while not stop.is_set():
            try:
                found = search(connection, FILTER, ["uid"])
                if len(found) != 1:
                    wrong.append(found)
                # Another password each time, so that the agent is asked.
                with pytest.raises(ldap.INVALID_CREDENTIALS):
                    slapd.connect(ANN, f"wrong {number} {answered[number]}")
            except BaseException as error:  # noqa: BLE001  (pytest's own failures too)
                wrong.append(repr(error))
            answered[number] += 1

    threads = [threading.Thread(target=ask, args=[number]) for number in range(len(answered))]
    for thread in threads:
        thread.start()
    try:
        for _ in range(5):
            before = list(answered)
            wait_until(lambda: wrong or all(now > then + 2 for now, then in zip(answered, before)), "all are answered", 60)
            assert agent.stop() == 0
            agent.launch()
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    assert wrong == []


@pytest.mark.embedded
def test_a_request_at_work_is_answered_before_the_agent_ends(world, manager):
    agent, _ = manager
    agent.launch()
    slapd = world.slapd(agent).start()
    assert len(search(slapd.connect(), FILTER)) == 1  # the database is there
    slow = crowd.crypt_hash("slow", "$5$rounds=5000000$salt")  # some seconds
    agent.modify(f"dn: CN=Ann Lee,OU=Engineering,OU=People,{SUFFIX}\nchangetype: modify\n"
                 f"replace: userPassword\nuserPassword: {{CRYPT}}{slow}\n")
    connection = slapd.connect()
    before = psutil.Process(agent.process.pid).cpu_times().user
    request = connection.simple_bind(ANN, "slow")
    wait_until(lambda: psutil.Process(agent.process.pid).cpu_times().user > before + 0.2, "the password is being checked")
    assert agent.stop() == 0
    assert connection.result(request, timeout=SECONDS)[0] == ldap.RES_BIND


@pytest.mark.embedded
@pytest.mark.parametrize("given", [False, True], ids=["its own", "handed over"])
def test_an_idle_paged_search_ends_with_its_text(world, given):
    """What slapd has received of it comes still; the rest went with the agent."""
    agent = world.agent(embedded__ldif=crowd.write(world.folder, PEOPLE))
    with listen(agent.socket if given else world.folder / "unused") as made:
        if given:
            agent.hand_over(made)
        agent.start()
        slapd = world.slapd(agent).start()
        with contextlib.closing(WireClient(slapd.port, SECONDS)) as client:
            def page(cookie):
                client.search(SUFFIX, conjunction(equality("objectClass", "posixAccount")), ["uid"],
                              control=paged(100, cookie, critical=True))
                *entries, result = client.until_result()
                return len(entries), result

            seen, result = page(b"")
            agent.stop()
            agent.start()
            while result.code == 0 and result.cookie:
                more, result = page(result.cookie)
                seen += more
        assert 100 <= seen < PEOPLE
        assert (result.code, result.text) == (52, "vexLdapSearch : Failed to communicate with vexagent due to broken session handle")
        assert len(search(slapd.connect(), "(&(objectClass=posixAccount)(uid=user7))")) == 1


def refusal(agent):
    status, log = agent.refused()
    assert status == 1 and log.count("\n") == 1, log
    return log.removeprefix("vexagent: ").rstrip("\n")


def test_what_is_no_such_socket_is_refused(world):
    agent = world.agent()
    none = f"{agent.socket}: what the service manager handed over is not a listening Unix stream socket"
    with listen(world.folder / "datagrams", socket.SOCK_DGRAM) as datagrams, open("/dev/null", "rb") as file:
        for given in (datagrams, file):
            agent.hand_over(given)
            assert refusal(agent) == none
            agent.log_file.unlink()
    assert not agent.socket.exists()


def test_a_socket_elsewhere_is_refused_by_the_check_too(world):
    agent = world.agent()
    place = world.folder / "elsewhere"
    expected = (f'{agent.socket}: the service manager handed over a socket at "{place}"; '
                "ListenStream of the socket's unit and agent.socket must be the same")
    with listen(place) as made:
        agent.hand_over(made)
        assert refusal(agent) == expected
        agent.log_file.unlink()
        agent.spawn([*agent.command(), "--check"], agent.env)
        assert agent.process.wait(SECONDS) == 1
        assert agent.log() == f"vexagent: {expected}\n"


def test_more_than_one_socket_is_refused(world):
    agent = world.agent()
    with listen(agent.socket) as first, listen(world.folder / "second") as second:
        agent.hand_over(first, second)
        assert refusal(agent) == "LISTEN_FDS=2: the service manager must hand over one socket, the agent's"


def test_what_was_handed_to_another_process_is_left_alone(world):
    """A program that was given sockets may start others, and leave the variables to them."""
    agent = world.agent()
    agent.env = {**agent.env, "LISTEN_PID": str(os.getpid()), "LISTEN_FDS": "1"}
    agent.start()
    assert agent.stop() == 0 and not agent.socket.exists()
