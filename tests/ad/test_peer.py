# SPDX-License-Identifier: Apache-2.0
"""vexagent and a peer that plays what Samba does not: cut results, ranges of values,
notices of disconnection, garbage, silence. Through slapd, as a client sees it."""
import contextlib
import functools
import socket
import time

import ldap
import pytest

import played_domain
from gateway import SUFFIX, Slapd, failure, search, values, wait_until
from host import busy_seconds, make_authority, make_certificate
from played_domain import BASE, ENOUGH, PASSWORD, SERVICE, PeerDirectory, group, guid
from scripted_peer import BUSY, UNAVAILABLE, Cut, Fail, Garbage, Notice, Refer, Renamed, ScriptedPeer, Stall
from world import World

PEOPLE, MOST, MOST_VALUES = 1250, 500, 750  # as a Windows controller cuts 2500 at 1000, and at 1500 values
TIMEOUT, SLACK = 2, 1.5  # for what is to be waited for in vain
EVERYBODY, LOOK_UP = "(objectClass=posixAccount)", "(&(objectClass=posixAccount)(uid=p0007))"


def person(number):
    name = f"p{number:04}"
    return played_domain.person(name, name, number, f"CN=large,OU=Groups,{BASE}")


def make_entries():
    people = [person(number) for number in range(PEOPLE)]
    return played_domain.entries([*people, group("large", 1, [dn for dn, _ in people]), group("small", 2, [people[0][0]])])


ENTRIES = make_entries()


@pytest.fixture(scope="module")
def certificate(tmp_path_factory):
    folder = tmp_path_factory.mktemp("tls")
    make_authority(folder)
    make_certificate(folder, ["IP:127.0.0.1", "DNS:peer.example.com"], folder / "cert.pem", folder / "key.pem")
    return folder


@pytest.fixture(params=["ldaps", "starttls"])
def transport(request):
    return request.param


def make_peer(certificate, transport):
    return ScriptedPeer(ENTRIES, certificate=(certificate / "cert.pem", certificate / "key.pem"), transport=transport,
                        passwords={SERVICE: PASSWORD, "p0001@example.com": "welcome", person(1)[0]: "welcome"})


@pytest.fixture
def peers(certificate, transport):
    """Makes peers that end with the test."""
    with contextlib.ExitStack() as stack:
        yield lambda count=1: [stack.enter_context(make_peer(certificate, transport)) for _ in range(count)]


@contextlib.contextmanager
def serving(certificate, transport, peers, settings):
    """A new agent before these peers, and a slapd: a connection, and the agent."""
    world = World(PeerDirectory(certificate, transport, peers))
    try:
        agent = world.agent(**settings).start()
        yield world.slapd(agent, directives=Slapd.DIRECTIVES).start().connect(), agent
    finally:
        world.close()
        world.remove()


@pytest.fixture
def served(certificate, transport, peers):
    """Starts agent and slapd on new peers; gives (connection, the peers, the agent)."""
    with contextlib.ExitStack() as stack:
        def start(count=1, **settings):
            made = peers(count)
            connection, agent = stack.enter_context(serving(certificate, transport, made, settings))
            return connection, made, agent
        yield start


@pytest.fixture(scope="module", params=["ldaps", "starttls"])
def enduring(request, certificate):
    """Peers that go wrong again and again, and gateways that get over it: for each time
    limit (connection, the peer)."""
    with contextlib.ExitStack() as stack:
        @functools.cache
        def start(timeout):
            peer = stack.enter_context(make_peer(certificate, request.param))
            peer.limits(unpaged=MOST)
            connection, _ = stack.enter_context(serving(certificate, request.param, [peer], {"ad__timeout": timeout}))
            return connection, peer
        yield start


def names(found):
    return sorted(value for entry in found.values() for value in values(entry, "uid"))


NAMES = [f"p{number:04}" for number in range(PEOPLE)]


def test_an_entry(served):
    connection, _, _ = served()
    found = search(connection, LOOK_UP, ["uid", "uidNumber", "homeDirectory"])
    assert found == {f"cn=p0007,ou=People,{SUFFIX}": {"uid": [b"p0007"], "uidNumber": [b"10007"], "homeDirectory": [b"/home/p0007"]}}


SHOE_SIZE = "44"


def test_what_the_schema_marks_as_confidential_is_neither_shown_nor_asked_for(served):
    """By its name and by its number, in the filter and among the attributes."""
    connection, [peer], _ = served()
    who = f"cn=p0007,ou=People,{SUFFIX}"
    for name in ("shoeSize", "1.2.3.100"):
        for filter in (f"({name}={SHOE_SIZE})", f"({name}=4*)", f"(!({name}=1))"):
            assert search(connection, f"(&(uid=p0007){filter})", ["uid"]) == {}
    assert list(search(connection, "(&(objectClass=posixAccount)(1.2.3.1=p0007))", ["uid"])) == [who]
    [entry] = search(connection, LOOK_UP, ["uid", "shoeSize", "1.2.3.100"]).values()
    assert list(entry) == ["uid"]
    [entry] = search(connection, LOOK_UP).values()
    assert not {"shoesize", "1.2.3.100"} & {name.lower() for name in entry}
    for request in peer.searches():
        assert b"shoeSize" not in request.filter[1] and b"1.2.3." not in request.filter[1]
        assert not {"shoeSize", "1.2.3.100"} & set(request.attributes)


def everybody_once(connection):
    found = connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["uid"])
    assert sorted(values(entry, "uid")[0] for _, entry in found) == NAMES


def enumerations(peer):
    """For each request that began an enumeration: whether it asked for pages."""
    return [request.page is not None for request in peer.searches() if request.scope == 2 and not request.cookie]


def test_results_come_as_a_whole_where_the_peer_lets_them(served):
    connection, [peer], _ = served()
    everybody_once(connection)
    everybody_once(connection)
    assert enumerations(peer) == [False, False]


def test_a_peer_that_cuts_results(served):
    """The rest comes in pages, and nobody twice; later results do from their beginning."""
    connection, [peer], _ = served()
    peer.limits(unpaged=MOST)
    everybody_once(connection)
    everybody_once(connection)
    assert enumerations(peer) == [False, True, True]


def test_a_peer_that_collects_a_large_result_for_too_long(served):
    """It is asked for pages then, on another connection, and for a while."""
    connection, [peer], _ = served()
    peer.fault(Stall(0), lambda request: request.scope == 2 and request.page is None)
    everybody_once(connection)
    everybody_once(connection)
    assert enumerations(peer) == [False, True, True]


def test_all_attributes_of_everybody_come_in_pages(served):
    connection, [peer], _ = served()
    found = connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["*"])
    assert sorted(values(entry, "uid")[0] for _, entry in found) == NAMES
    assert enumerations(peer) == [True]


def test_a_peer_that_gives_members_in_ranges(served):
    connection, [peer], _ = served()
    peer.limits(unpaged=MOST, values=MOST_VALUES)
    [entry] = search(connection, "(&(objectClass=posixGroup)(cn=large))", ["memberUid"]).values()
    assert sorted(values(entry, "memberUid")) == NAMES
    # The members themselves too, when a client asks for them.
    [entry] = search(connection, "(&(objectClass=posixGroup)(cn=large))", ["member"]).values()
    assert len(values(entry, "member")) == PEOPLE
    assert not [name for name in entry if ";" in name]


@pytest.mark.parametrize("part", ["member;range=0-soon", "member;range=0", "member;range=0-99999999999999999999"])
def test_a_part_of_a_group_that_leads_nowhere_is_a_failure(served, part):
    connection, [peer], _ = served()
    peer.fault(Renamed("member", part), lambda request: request.scope == 2)
    with pytest.raises(ldap.LDAPError) as caught:
        search(connection, "(&(objectClass=posixGroup)(cn=small))", ["memberUid"])
    assert f"the controller sends a part that leads nowhere: {part}" in failure(caught.value)[1]
    [entry] = search(connection, "(&(objectClass=posixGroup)(cn=small))", ["memberUid"]).values()
    assert values(entry, "memberUid") == ["p0000"]


FAULTS = {
    "notice of disconnection": Notice, "garbage": Garbage, "a message cut short": Cut, "silence": Stall,
    "silence in a message": lambda count: Stall(count, half=True), "busy": lambda count: Fail(BUSY, "busy", count),
    "unavailable": lambda count: Fail(UNAVAILABLE, "going down", count),
    "an error of its own": lambda count: Fail(1, "00002020: Operation unavailable", count)}


@pytest.mark.parametrize("page, count", [(0, 0), (0, 5), (1, 5)])
@pytest.mark.parametrize("fault", FAULTS)
def test_a_search_that_goes_wrong_on_a_page(enduring, fault, page, count):
    """What is told is a failure, or everybody; and the next search is answered."""
    timeout = TIMEOUT if fault.startswith("silence") else ENOUGH
    connection, peer = enduring(timeout)
    peer.fault(FAULTS[fault](count), lambda request: request.page is not None and request.cookie == (str(MOST).encode() if page else b"")
               and request.scope == 2)
    start = time.monotonic()
    try:
        assert names(search(connection, EVERYBODY, ["uid"])) == NAMES
    except ldap.LDAPError as error:
        code, text = failure(error)
        assert code in (1, 3, 51, 52, 80) and text.startswith("vexLdapSearch")
    assert time.monotonic() - start < 2 * timeout + SLACK  # each batch of a long search has its own time
    assert peer.faults == [], "the fault was met"
    assert names(search(connection, EVERYBODY, ["uid"])) == NAMES


BROKEN = [fault for fault in FAULTS if not fault.startswith("silence") and fault != "an error of its own"]


@pytest.mark.parametrize("fault", BROKEN)
def test_another_peer_takes_a_look_up_over(served, fault):
    connection, made, _ = served(2)
    for number in range(3):
        for peer in made:
            peer.faults.clear()
        # Whichever is in use gets it wrong once.
        made[number % 2].fault(FAULTS[fault](0), lambda request: request.scope == 2)
        start = time.monotonic()
        assert len(search(connection, LOOK_UP, ["uid"])) == 1
        assert time.monotonic() - start < ENOUGH


@pytest.mark.parametrize("timeout", [2, 4])
def test_another_peer_takes_over_from_one_that_hangs(served, timeout):
    """One that hangs gets a share of the time, however little that is."""
    connection, made, _ = served(2, ad__timeout=timeout)
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    made[0].hung = True
    start = time.monotonic()
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    assert time.monotonic() - start < timeout
    start = time.monotonic()
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    assert time.monotonic() - start < 1, "it is not asked again at once"
    made[1].hung = True
    made[0].hung = False
    wait_until(lambda: found_or_none(connection), "the first one is asked again")


def test_a_slow_search_is_not_asked_of_another_peer_while_the_first_lives(served):
    """It would be slow there too, and cost them all."""
    connection, made, _ = served(2, ad__timeout=2 * TIMEOUT)
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    for peer in made:
        peer.fault(Stall(0), lambda request: request.scope == 2)
    with pytest.raises(ldap.TIMELIMIT_EXCEEDED):
        search(connection, LOOK_UP, ["uid"])
    assert sum(len(peer.faults) for peer in made) == 1
    for peer in made:
        peer.faults.clear()
    assert len(search(connection, LOOK_UP, ["uid"])) == 1


def test_a_peer_that_answers_all_but_the_searches_is_not_asked_first_again(served):
    """It is there, so that nobody takes it for one that has failed."""
    connection, made, _ = served(2, ad__timeout=TIMEOUT)
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    for _ in range(2):
        made[0].fault(Stall(0), lambda request: request.scope == 2)
    with pytest.raises(ldap.TIMELIMIT_EXCEEDED):
        search(connection, LOOK_UP, ["uid"])
    assert len(search(connection, LOOK_UP, ["uid"])) == 1
    assert len(made[0].faults) == 1


@pytest.mark.parametrize("hung", ["at first", "later"])
def test_a_handshake_that_hangs(served, hung):
    connection, [peer], agent = served(ad__timeout=TIMEOUT)
    if hung == "later":
        assert len(search(connection, LOOK_UP)) == 1
        peer.drop()
    peer.hang_handshake = True
    start = time.monotonic()
    with pytest.raises(ldap.UNAVAILABLE):
        search(connection, LOOK_UP)
    assert time.monotonic() - start < TIMEOUT + SLACK
    assert busy_seconds(agent.process.pid, 1.0) < 0.5, "it waits, and does not spin"
    peer.hang_handshake = False
    peer.drop()
    wait_until(lambda: found_or_none(connection), "the peer is asked again")


def found_or_none(connection):
    try:
        return search(connection, LOOK_UP)
    except ldap.UNAVAILABLE:
        return None


def test_referrals_are_not_followed(served):
    connection, [peer], _ = served()
    with socket.create_server(("127.0.0.1", 0)) as elsewhere:
        elsewhere.settimeout(0.2)
        uri = f"ldap://127.0.0.1:{elsewhere.getsockname()[1]}/CN=Configuration,{BASE}"
        peer.fault(Refer(uri, uri), lambda request: request.scope == 2)
        assert len(search(connection, LOOK_UP, ["uid"])) == 1
        with pytest.raises(TimeoutError):
            elsewhere.accept()


def test_a_connection_that_was_dropped_while_idle(served):
    connection, [peer], _ = served()
    for _ in range(3):
        assert len(search(connection, LOOK_UP, ["uid"])) == 1
        peer.drop()


def test_a_certificate_of_another_name_is_refused(certificate, transport, tmp_path, peers):
    make_certificate(certificate, ["DNS:elsewhere.example.net"], tmp_path / "cert.pem", tmp_path / "key.pem")
    with ScriptedPeer(ENTRIES, certificate=(tmp_path / "cert.pem", tmp_path / "key.pem"), transport=transport,
                      passwords={SERVICE: PASSWORD}) as peer:
        world = World(PeerDirectory(certificate, transport, [peer]))
        try:
            slapd = world.slapd(world.agent().start()).start()
            with pytest.raises(ldap.UNAVAILABLE):
                search(slapd.connect(), LOOK_UP)
            assert not [request for request in peer.requests if request == ("bind", SERVICE)]
        finally:
            world.close()
            world.remove()


# ---- binds

def refusal(slapd_connection, who, password):
    with pytest.raises(ldap.LDAPError) as caught:
        slapd_connection.simple_bind_s(who, password)
    return failure(caught.value)


WINDOWS = "80090308: LdapErr: DSID-0C090439, comment: AcceptSecurityContext error, data {}, v4563"


@pytest.mark.parametrize("data, why", [
    ("52e", None), ("525", None), ("530", "the account may not log in here or now"),
    ("531", "the account may not log in here or now"), ("532", "the password has expired"), ("533", "the account is disabled"),
    ("701", "the account has expired"), ("773", "the password must be changed"), ("775", None)])
def test_what_a_windows_controller_says_of_an_account(served, data, why):
    connection, [peer], _ = served()
    for name in list(peer.passwords):
        if "p0001" in name:
            peer.passwords[name] = WINDOWS.format(data)
    text = (f":account refused (vexRC=15), errSystem=LDAP, errCode=49, errString={why}" if why else
            ": cannot bind to server due to invalid user or password.")
    assert refusal(connection, f"cn=p0001,ou=People,{SUFFIX}", "whatever") == (49, f"vexAuth {text}")


def test_one_attempt_is_one_attempt(served):
    connection, made, _ = served(2)
    who = f"cn=p0001,ou=People,{SUFFIX}"
    connection.simple_bind_s(who, "welcome")
    assert refusal(connection, who, "wrong")[0] == 49
    assert sum(len(peer.logins(SERVICE)) for peer in made) == 2


def test_no_attempt_without_a_password(served):
    """An empty password with a name is an anonymous bind to a Windows controller, which
    answers it with success."""
    connection, [peer], _ = served()
    assert refusal(connection, f"cn=p0001,ou=People,{SUFFIX}", "")[0] in (48, 53)
    assert peer.logins(SERVICE) == []
