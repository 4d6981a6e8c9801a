# SPDX-License-Identifier: Apache-2.0
"""What the settings of a joined domain change, seen through slapd, on a domain that a
scripted peer plays. tests/README.md says where those stand that are not here."""
import contextlib

import ldap
import pytest

import played_domain
from gateway import SUFFIX, Slapd, search, values
from host import make_authority, make_certificate
from played_domain import PASSWORD, SERVICE, PeerDirectory
from scripted_peer import ScriptedPeer
from test_peer import certificate  # noqa: F401 (a fixture)
from world import World

FILTER = "(&(objectClass=posixAccount)(uid={}))"
NAMES = ("ann", "ben")
WITHOUT = "zoe"  # has no numbers
RID = 10042


def dn(name):
    return f"cn={name},ou=People,{SUFFIX}"


def make_entries():
    where, zoe = played_domain.person(WITHOUT, WITHOUT, RID - 10000)
    zoe = {name: some for name, some in zoe.items() if name not in ("uidNumber", "gidNumber", "unixHomeDirectory")}
    return played_domain.entries([*(played_domain.person(name, name, number) for number, name in enumerate(NAMES)), (where, zoe)])


@pytest.fixture
def peer(certificate):
    logins = {login: "welcome" for name in NAMES for login in (f"{name}@example.com", played_domain.person(name, name, 0)[0])}
    with ScriptedPeer(make_entries(), certificate=(certificate / "cert.pem", certificate / "key.pem"), transport="ldaps",
                      passwords={SERVICE: PASSWORD, **logins}) as made:
        yield made


@pytest.fixture
def start(certificate, peer):
    """Starts an agent with these settings, and a slapd; gives the slapd."""
    with contextlib.ExitStack() as stack:
        def started(*directives, **settings):
            world = World(PeerDirectory(certificate, "ldaps", [peer]))
            stack.callback(world.remove)
            stack.callback(world.close)
            agent = world.agent(**{"ad__timeout": 3, **settings}).start()
            slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, *directives)).start()
            slapd.agent = agent
            return slapd
        yield started


def look_up(slapd, name="ann", attributes=("uid",)):
    return search(slapd.connect(), FILTER.format(name), list(attributes))


def test_the_service_account_and_its_transport(start, peer, tmp_path):
    other = tmp_path / "password"
    other.write_text("not the password\n", encoding="utf-8")
    other.chmod(0o600)
    assert len(look_up(start())) == 1
    for setting in ({"ad__bind__name": "nobody@example.com"}, {"ad__bind__password__file": other},
                    {"ad__transport": "starttls"}):
        slapd = start(**setting)
        with pytest.raises(ldap.LDAPError) as caught:
            look_up(slapd)
        assert not isinstance(caught.value, ldap.NO_SUCH_OBJECT), setting


def test_controllers_are_trusted_by_the_authority_of_the_setting(start, peer, tmp_path_factory):
    stranger = tmp_path_factory.mktemp("authority")
    make_authority(stranger)
    slapd = start(ad__tls__ca=stranger / "authority.pem")
    with pytest.raises(ldap.UNAVAILABLE):
        look_up(slapd)
    assert not [request for request in peer.requests if request == ("bind", SERVICE)]
    assert len(look_up(start())) == 1


def numbers(slapd):
    found = look_up(slapd, WITHOUT, ("uidNumber", "gidNumber", "homeDirectory"))
    return [tuple(values(entry, name)[0] for name in ("uidNumber", "homeDirectory")) for entry in found.values()]


IDS = {"ad__ids__from__sid": "true", "ad__ids__first": 300000, "ad__ids__slices": 1, "ad__ids__slice__size": 50000}


def test_ids_are_made_where_the_setting_says_so(start):
    """In the one slice that there is, at the account's own number."""
    assert numbers(start()) == []
    assert numbers(start(**IDS)) == [(str(300000 + RID), f"/home/{WITHOUT}")]
    assert numbers(start(**{**IDS, "ad__ids__first": 400000})) == [(str(400000 + RID), f"/home/{WITHOUT}")]
    assert numbers(start(**{**IDS, "ad__ids__home": "/users/%u"})) == [(str(300000 + RID), f"/users/{WITHOUT}")]


def test_the_domain_s_slice_is_one_of_as_many_as_there_are(start):
    slices = set()
    for many, size in ((1, 50000), (1000, 50000), (1000, 60000)):
        [(uid, _)] = numbers(start(**{**IDS, "ad__ids__slices": many, "ad__ids__slice__size": size}))
        number, own = divmod(int(uid) - 300000, size)
        assert own == RID and 0 <= number < many
        slices.add(number)
    assert len(slices) == 2, "the same of a thousand whatever their size, and not the first"


# ---- log-ins while the domain is out of reach

@pytest.fixture
def remembering(start, peer, tmp_path):
    """A slapd, which forgets at once, before an agent that remembers ann, and no domain."""
    def started(**settings):
        slapd = start("vex-auth-prefer-cache true", **{"ad__auth__cache": "true", "ad__auth__cache__file": tmp_path / "logins",
                                                       "ad__timeout": 2, **settings})
        slapd.close_connection(slapd.connect(dn("ann"), "welcome"))
        peer.close()
        return slapd
    return started


def answer(slapd, password):
    try:
        slapd.close_connection(slapd.connect(dn("ann"), password))
    except ldap.LDAPError as error:
        return error.args[0]["result"]
    return 0


def test_log_ins_are_remembered_where_the_setting_says_so(remembering, tmp_path):
    assert answer(remembering(), "welcome") == 0
    assert (tmp_path / "logins").exists()


def test_what_is_remembered_is_asked_only_where_the_module_wants_it(start, peer, tmp_path):
    slapd = start("vex-auth-prefer-cache false", ad__auth__cache="true", ad__auth__cache__file=tmp_path / "logins", ad__timeout=2)
    slapd.close_connection(slapd.connect(dn("ann"), "welcome"))
    peer.close()
    assert answer(slapd, "welcome") == 52


def test_log_ins_are_forgotten_where_it_does_not(remembering, tmp_path):
    assert answer(remembering(ad__auth__cache="false"), "welcome") == 52
    assert not (tmp_path / "logins").exists()


@pytest.mark.parametrize("attempts, told", [(2, [49, 52, 52]), (3, [49, 49, 0])])
def test_as_many_wrong_passwords_end_what_is_remembered(remembering, attempts, told):
    """With the last of them nothing is left to answer with."""
    slapd = remembering(ad__auth__cache__attempts=attempts)
    assert [answer(slapd, password) for password in ("wrong", "wrong", "welcome")] == told


@pytest.mark.parametrize("hours, told", [(1, 52), (3, 0)])
def test_for_as_many_hours_a_log_in_is_remembered(remembering, tmp_path, hours, told):
    slapd = remembering(ad__auth__cache__max__age=hours)
    slapd.agent.stop()
    file = tmp_path / "logins"
    moment, rest = file.read_text(encoding="utf-8").split(" ", 1)
    file.write_text(f"{int(moment) - 2 * 3600} {rest}", encoding="utf-8")
    slapd.agent.start()
    assert answer(slapd, "welcome") == told
