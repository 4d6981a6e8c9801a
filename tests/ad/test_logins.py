# SPDX-License-Identifier: Apache-2.0
"""Log-ins to a played domain: what a late or lying controller, an old password and an account of
an odd state come to. Through slapd, as a client sees it."""
import contextlib

import ldap
import pytest

from gateway import SUFFIX, Slapd, failure, log_in, search
from host import make_authority, make_certificate
from played_domain import PASSWORD, SERVICE, PeerDirectory, entries, person
from scripted_peer import ScriptedPeer, Search, Stall
from world import World

TIMEOUT = 2  # seconds, for what is to be waited for in vain
SLOW = "(&(objectClass=posixAccount)(uid=slow))"
LOOK_UP = "(&(objectClass=posixAccount)(uid=ann))"

PEOPLE = [person("ann", "ann", 1), person("ben", "ben", 2),
          # Of two with one name: one's own is another's rewritten one, or both are rewritten.
          person("one", "first", 3), person("two", "one", 4), person("three", "three", 5), person("four", "four", 6)]
for _, entry in PEOPLE[4:6]:
    entry["uid"] = ["both"]


def dn(name):
    return f"cn={name},ou=People,{SUFFIX}"


@pytest.fixture(scope="module")
def certificate(tmp_path_factory):
    folder = tmp_path_factory.mktemp("tls")
    make_authority(folder)
    make_certificate(folder, ["IP:127.0.0.1"], folder / "cert.pem", folder / "key.pem")
    return folder


@pytest.fixture(params=["ldaps", "starttls"])
def transport(request):
    return request.param


@pytest.fixture
def peer(certificate, transport):
    passwords = {SERVICE: PASSWORD, **{name: name.partition(",")[0][3:] for name, _ in PEOPLE}}
    with ScriptedPeer(entries((name, dict(entry)) for name, entry in PEOPLE), transport=transport, passwords=passwords,
                      certificate=(certificate / "cert.pem", certificate / "key.pem")) as played:
        yield played


@pytest.fixture
def gateway(certificate, transport, peer):
    """Starts agent and slapd on the peer; gives slapd."""
    with contextlib.ExitStack() as stack:
        def start(*directives, **settings):
            world = World(PeerDirectory(certificate, transport, [peer]))
            stack.callback(world.remove)
            stack.callback(world.close)
            agent = world.agent(**settings).start()
            return world.slapd(agent, directives=(*Slapd.DIRECTIVES, *directives)).start()
        yield start


@pytest.fixture
def remembering(gateway, tmp_path):
    """A gateway that may remember log-ins; slapd itself forgets them at once."""
    memory = tmp_path / "logins"

    def start(**settings):
        return gateway("vex-auth-prefer-cache true", ad__auth__cache="true", ad__auth__cache__file=memory, **settings)
    return start


# What a log-in means is the same over each transport; agent/ad/logins_test.cpp shows it of all.
over_one = pytest.mark.parametrize("transport", ["ldaps"], indirect=True)


def asks_for(value):
    """Whether a search asserts this value."""
    return lambda request: value.encode() in request.filter[1]


def use_up_the_time(slapd, peer):
    """A request that takes all its time at a controller that answers everything else."""
    peer.fault(Stall(), asks_for("slow"))
    with pytest.raises(ldap.LDAPError) as caught:
        search(slapd.connect(), SLOW)
    assert peer.faults == []
    return failure(caught.value)[0]


# ---- time

def test_a_request_that_has_used_up_its_time_fails_by_itself(gateway, peer):
    slapd = gateway(ad__timeout=TIMEOUT)
    assert len(search(slapd.connect(), LOOK_UP)) == 1
    for _ in range(2):
        assert use_up_the_time(slapd, peer) == 3
        # Nobody takes the controller for one that is gone.
        assert log_in(slapd, dn("ann"), "ann") == 0
        assert log_in(slapd, dn("ben"), "wrong") == 49


@over_one
def test_no_slow_request_lets_an_old_password_in(remembering, peer):
    slapd = remembering(ad__timeout=TIMEOUT)
    assert log_in(slapd, dn("ann"), "ann") == 0
    peer.passwords[PEOPLE[0][0].lower()] = "newer"
    for _ in range(2):
        use_up_the_time(slapd, peer)
        assert log_in(slapd, dn("ann"), "ann") == 49
    assert log_in(slapd, dn("ann"), "newer") == 0


@over_one
def test_a_log_in_whose_time_is_up_is_no_success(gateway, peer):
    slapd = gateway(ad__timeout=TIMEOUT)
    assert log_in(slapd, dn("ann"), "ann") == 0
    peer.fault(Stall(), lambda request: request.scope == 0 and request.base.lower() == PEOPLE[0][0].lower())
    assert log_in(slapd, dn("ann"), "wrong") not in (0, 49)


# ---- the memory of log-ins

@over_one
def test_the_memory_answers_when_no_controller_does(remembering, peer):
    slapd = remembering(ad__timeout=TIMEOUT)
    assert log_in(slapd, dn("ann"), "ann") == 0
    peer.hung = True
    assert log_in(slapd, dn("ann"), "ann") == 0
    assert log_in(slapd, dn("ann"), "wrong") == 49
    assert log_in(slapd, dn("ben"), "ben") == 52


# ---- accounts

@over_one
def test_a_state_that_cannot_be_read_refuses_the_log_in(gateway, peer):
    slapd = gateway()
    assert log_in(slapd, dn("ann"), "ann") == 0
    peer.entries[PEOPLE[0][0]].update({"userAccountControl": ["512", "514"]})
    assert log_in(slapd, dn("ann"), "ann") == 49


# ---- what a refusal tells

def conversation(peer, slapd, who, password):
    """What the controller is asked for a log-in, without names and values."""
    before = len(peer.requests)
    assert log_in(slapd, who, password) == 49
    return [(request.scope, request.filter[0]) if isinstance(request, Search) else request[0] for request in peer.requests[before:]]


def test_what_is_asked_for_a_refused_log_in_tells_nobody_who_exists(gateway, peer):
    slapd = gateway()
    assert log_in(slapd, dn("ann"), "ann") == 0
    peer.passwords[PEOPLE[1][0].lower()] = "80090308: LdapErr: DSID-0C090439, comment: AcceptSecurityContext error, data 533, v4563"
    wrong = conversation(peer, slapd, dn("ann"), "wrong")
    assert wrong[-1] == "bind" and len(wrong) > 1
    for who, password in ((dn("nobody"), "ann"), (dn("ben"), "ben"), (dn("one"), "one"), (dn("both"), "wrong")):
        assert conversation(peer, slapd, who, password) == wrong


@over_one
def test_no_password_of_anybody_goes_to_somebody_who_does_not_exist(gateway, peer):
    slapd = gateway()
    assert log_in(slapd, dn("nobody"), "my secret") == 49
    [(who, password)] = [shown for shown in peer.shown if shown[0] != SERVICE]
    assert who.lower() not in (name.lower() for name in peer.entries) and password != "my secret"


def test_a_failure_tells_no_address(gateway, peer, tmp_path):
    log = tmp_path / "agent.log"
    slapd = gateway(ad__timeout=TIMEOUT, log__file=log)
    peer.close()
    for action in (lambda: search(slapd.connect(), LOOK_UP), lambda: slapd.connect(dn("ann"), "ann")):
        with pytest.raises(ldap.UNAVAILABLE) as caught:
            action()
        text = failure(caught.value)[1]
        assert "127.0.0.1" not in text and str(peer.port) not in text and "/" not in text and "ad." not in text
        assert "the domain is out of reach" in text
    assert f"127.0.0.1 port {peer.port}: Connection refused" in log.read_text(encoding="utf-8")
