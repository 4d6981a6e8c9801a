# SPDX-License-Identifier: Apache-2.0
"""An agent that hangs: what needs none of it is answered as ever."""
import array
import fcntl
import signal
import termios
import time

import ldap
import pytest

import crowd
from gateway import SUFFIX, Slapd, wait_until
from wire import WireClient, equality, paged

ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
BUSY = (51, "vex dirgate: too many requests wait for the agent")
THREADS, WAITING = 4, 2
TIMEOUT = 8
EVERYBODY = equality("objectClass", "posixAccount")
PROMPT = 0.5 * 4  # half a second on a machine that does nothing else


@pytest.fixture
def slapd(world):
    agent = world.agent(agent__timeout=str(TIMEOUT), log__file=world.folder / "module.log").start()
    slapd = world.slapd(agent, globals=("sizelimit unlimited", f"threads {THREADS}"),
                        directives=(*Slapd.DIRECTIVES, "dirgate.cache.enabled true")).start()
    slapd.agent = agent
    slapd.connect(ANN, "welcome")
    client = WireClient(slapd.port, TIMEOUT * 3)
    for _ in range(2):  # kept from the second time on
        client.search(SUFFIX, equality("uid", "ann"), ["uid"])
        assert client.until_result()[-1].code == 0
    slapd.cached = client
    yield slapd
    agent.signal(signal.SIGCONT)


def ask_for(slapd, number):
    """A search that is not cached, sent and not read."""
    client = WireClient(slapd.port, TIMEOUT * 3)
    client.search(SUFFIX, equality("uid", f"nobody{number}"), ["uid"])
    return client


def promptly(action):
    start = time.monotonic()
    result = action()
    assert time.monotonic() - start < PROMPT
    return result


def test_cached_answers_the_root_dse_and_remembered_binds_need_no_turn(slapd):
    slapd.agent.signal(signal.SIGSTOP)
    start = time.monotonic()
    clients = [ask_for(slapd, number) for number in range(20)]

    root = promptly(lambda: slapd.connect().search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["namingContexts"]))
    assert root
    slapd.cached.search(SUFFIX, equality("uid", "ann"), ["uid"])
    assert promptly(slapd.cached.until_result)[-1].code == 0
    promptly(lambda: slapd.connect(ANN, "welcome"))
    refused = WireClient(slapd.port, TIMEOUT * 3)
    answer = promptly(lambda: refused.bind(ANN, "wrong"))
    assert (answer.code, answer.text) == BUSY
    assert time.monotonic() - start < TIMEOUT, "while all turns are taken"

    results = [client.until_result()[-1] for client in clients]
    waited = [result for result in results if (result.code, result.text) != BUSY]
    assert len(waited) == WAITING
    assert all(result.code == 52 for result in waited)
    assert BUSY[1] in (slapd.folder / "module.log").read_text(encoding="utf-8")

    slapd.agent.signal(signal.SIGCONT)
    found = wait_until(lambda: search_or_none(slapd), "the same slapd answers again")
    assert len(found) == 1


def search_or_none(slapd, uid="zoe"):
    try:
        return slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, f"(&(objectClass=posixAccount)(uid={uid}))", ["uid"])
    except (ldap.UNAVAILABLE, ldap.BUSY):
        return None


def test_connections_with_open_pages_end_beside_it(slapd):
    """More of them than slapd has threads."""
    clients = [WireClient(slapd.port, TIMEOUT * 3) for _ in range(3 * THREADS)]
    for client in clients:
        client.search(SUFFIX, equality("objectClass", "posixAccount"), ["uid"], control=paged(2, critical=True))
        assert client.until_result()[-1].cookie
    slapd.agent.signal(signal.SIGSTOP)
    for client in clients:
        client.close()
    for _ in range(3):
        assert promptly(lambda: slapd.connect().search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["namingContexts"]))
    slapd.agent.signal(signal.SIGCONT)
    wait_until(lambda: search_or_none(slapd), "the same slapd answers again")
    wait_until(lambda: slapd.agent.open_searches() == 0, "the agent was told of the searches' end")


def unread(client):
    """Bytes that have arrived for a client."""
    count = array.array("i", [0])
    fcntl.ioctl(client.socket, termios.FIONREAD, count)
    return count[0]


@pytest.fixture
def crowded(request, world):
    """A gateway with a large answer in its cache; the parameter: more of slapd's own lines."""
    agent = world.agent(agent__timeout=str(TIMEOUT), embedded__ldif=crowd.write(world.folder, 400)).start()
    slapd = world.slapd(agent, globals=("sizelimit unlimited", f"threads {2 * THREADS}", *request.param),
                        directives=(*Slapd.DIRECTIVES, "dirgate.cache.enabled true")).start()
    slapd.agent = agent
    reader = WireClient(slapd.port, TIMEOUT * 3)
    reader.search(SUFFIX, EVERYBODY, ["uid"])
    assert reader.until_result()[-1].code == 0
    yield slapd
    agent.signal(signal.SIGCONT)


def sleeper(slapd):
    """A client that asks for much and reads nothing: slapd cannot send it any more. Of one
    connection slapd works on so many requests at once as it has threads, divided by two."""
    client = WireClient(slapd.port, TIMEOUT * 3)
    for _ in range(90):
        client.search(SUFFIX, EVERYBODY)
    seen = [-1]
    wait_until(lambda: seen.append(unread(client)) or 0 < seen[-1] == seen[-50 if len(seen) > 50 else 0], "nothing more arrives")
    return client


@pytest.mark.embedded
@pytest.mark.parametrize("crowded", [()], indirect=True)
def test_clients_that_do_not_read_leave_less_to_share(crowded):
    """They hold threads, too. Cached answers are sent without the agent."""
    idle = sleeper(crowded)
    crowded.agent.signal(signal.SIGSTOP)
    clients = [ask_for(crowded, number) for number in range(20)]
    for _ in range(3):
        assert promptly(lambda: crowded.connect().search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["namingContexts"]))
    results = [client.until_result()[-1] for client in clients]
    assert {(result.code, result.text) for result in results if result.code != 52} == {BUSY}
    crowded.agent.signal(signal.SIGCONT)
    idle.close()
    assert len(wait_until(lambda: search_or_none(crowded, crowd.uid(0)), "the same slapd answers again")) == 1


@pytest.mark.embedded
@pytest.mark.parametrize("crowded", [("writetimeout 1",)], indirect=True)
def test_slapd_s_write_timeout_ends_clients_that_do_not_read(crowded):
    """However many they are: these hold all threads."""
    idle = [sleeper(crowded) for _ in range(2)]
    assert len(wait_until(lambda: search_or_none(crowded, crowd.uid(0)), "slapd has threads again")) == 1
    for client in idle:
        client.close()
