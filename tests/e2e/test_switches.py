# SPDX-License-Identifier: Apache-2.0
"""What each directive and setting changes, seen from outside: each test switches one.
tests/README.md says where those stand that are not here."""
import grp
import os
import re
import socket

import ldap
import pytest

from gateway import ROOT, SECONDS, SUFFIX, Slapd, failure, search, wait_until
from test_cache import FILTER, NAME_AND_NUMBER, SEARCHED, asked, bound, parse, start, standin  # noqa: F401 (fixtures)

ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
NETGROUPS = "(objectClass=nisNetgroup)"


# ---- the list of them

TABLE = re.compile(r"^\| ((?:`[a-z][\w.*-]*`(?:, )?)+) \| .* \| (.*) \|$", re.MULTILINE)


def test_every_directive_and_setting_names_its_test():
    """Those of the code's own tables, no fewer and no more; and the tests named are there."""
    source = (ROOT / "backend/directives.cpp").read_text(encoding="utf-8")
    names = set(re.findall(r'Directive\{\s*"([^"]+)"', source)) | {"vextranslation"}
    assert len(names) > 10
    source = (ROOT / "vorn/settings.h").read_text(encoding="utf-8")
    names |= set(re.findall(r'constexpr Setting SETTING_\w+\s*=\s*\{\s*"([^"]+)"', source))
    listed = {}
    for cells, tests in TABLE.findall((ROOT / "tests/README.md").read_text(encoding="utf-8")):
        listed.update(dict.fromkeys(re.findall("`([^`]+)`", cells), re.findall(r"`([^`:]+)::(\w+)`", tests)))
    assert set(listed) == names
    for name, tests in listed.items():
        assert tests, name
        for file, test in tests:
            text = (ROOT / "tests" / file).read_text(encoding="utf-8")
            assert re.search(rf"^def {test}\(", text, re.MULTILINE), (name, file, test)


# ---- the module's

def test_the_place_of_netgroups_is_the_zone_s_where_the_directive_says_so(world):
    """For a host of another domain this suffix is no place for the zone's netgroups."""
    agent = world.agent().start()
    elsewhere = world.folder / "elsewhere.conf"
    elsewhere.write_text(f"agent.socket = {agent.socket}\ndomain.name = other.net\nzone.dn = CN=Zones,DC=other,DC=net\n",
                         encoding="utf-8")
    switched = {}
    for switch in ("true", "false"):
        slapd = world.slapd(agent, env={"ZANTHE_CONF": str(elsewhere)}, directives=[
            *Slapd.DIRECTIVES, f"dirgate.netgroup.use.rfc2307nisnetgroup {switch}"]).start()
        try:
            switched[switch] = len(search(slapd.connect(), NETGROUPS))
        except ldap.OTHER as error:
            switched[switch] = failure(error)[0]
        slapd.stop()
    assert switched == {"true": 80, "false": 6}


def test_nothing_found_is_no_error_in_the_standard_mode(world):
    """And a filter needs no class there to be in the map's terms."""
    agent = world.agent().start()
    home, nobody = "(homeDirectory=/home/ann)", "(uid=nobody-of-this-name)"
    found = {}
    for switch in ("true", "false"):
        connection = world.slapd(agent, directives=[*Slapd.DIRECTIVES, f"dirgate.ldap.standard {switch}"]).start().connect()
        for filter in (home, nobody):
            try:
                found[switch, filter] = len(connection.search_ext_s(SUFFIX, ldap.SCOPE_SUBTREE, filter))
            except ldap.NO_SUCH_OBJECT:
                found[switch, filter] = "no such object"
    assert found == {("true", home): 1, ("true", nobody): 0,
                     ("false", home): "no such object", ("false", nobody): "no such object"}


@pytest.mark.embedded
@pytest.mark.parametrize("switch, again", [("true", []), ("false", SEARCHED)])
def test_a_repeated_search_asks_the_agent_where_nothing_is_cached(bound, standin, switch, again):  # noqa: F811
    connection = bound(f"dirgate.cache.enabled {switch}").connect()
    for expected in (SEARCHED, again):
        assert len(search(connection, FILTER, NAME_AND_NUMBER)) == 1
        assert asked(standin) == expected


def tables(slapd):
    (line,) = [line for line in slapd.lines() if line.startswith("Init memory cache successfully.")]
    return dict(re.findall(r"([a-z][a-z ]*): (\d+)", line))


@pytest.mark.embedded
@pytest.mark.parametrize("directive, shown", [
    ("dirgate.cache.max.lists 7", {"max lists": "7", "list cache bucket number": "11"}),
    ("dirgate.cache.max.objects 9", {"max objects": "9", "object cache bucket number": "11"}),
    ("dirgate.cache.hash.loadfactor 0.1", {"list cache bucket number": "1031", "object cache bucket number": "49157"}),
    ("dirgate.cache.hash.loadfactor 130", {"list cache bucket number": "5", "object cache bucket number": "29"}),
])
def test_the_tables_are_made_as_the_directives_say(bound, standin, directive, shown):  # noqa: F811
    usual = {"max lists": "100", "max objects": "3000", "list cache bucket number": "79", "object cache bucket number": "3079"}
    slapd = bound(directive)
    search(slapd.connect(), FILTER, NAME_AND_NUMBER)
    assert {name: value for name, value in tables(slapd).items() if name in usual} == {**usual, **shown}


@pytest.mark.embedded
@pytest.mark.parametrize("directive, kept", [("", (3, 3)), ("dirgate.cache.max.lists 2", (2, 3)),
                                             ("dirgate.cache.max.objects 2", (3, 2))])
def test_the_dump_holds_no_more_than_the_directives_allow(bound, standin, directive, kept):  # noqa: F811
    slapd = bound(*filter(None, [directive]))
    names = ("one", "two", "three")
    standin.say(searches=[{"filter": f"(&(objectClass=User)(sAMAccountName={name}))", "objects": [
        [["_dn", f"CN={name},{SUFFIX}"], ["_GUID", f"guid-{name}"], ["_objectCategory", "Person"],
         ["sAMAccountName", name], ["uidNumber", "1"]]]} for name in names])
    connection = slapd.connect()
    for name in names:
        assert len(search(connection, f"(&(objectClass=posixAccount)(uid={name}))", NAME_AND_NUMBER)) == 1
        standin.requests()  # the list is stored after the answer
    lists, objects = parse(slapd.dump())
    assert (len(lists), len(objects)) == kept


# ---- the agent's

@pytest.mark.embedded
def test_the_socket_belongs_to_the_group_of_the_setting(world):
    own = os.getegid()
    other = next(group for group in grp.getgrall() if group.gr_gid != own and (os.geteuid() == 0 or group.gr_gid in os.getgroups()))
    assert os.stat(world.agent().start().socket).st_gid == own
    world.running_servers[-1].stop()
    assert os.stat(world.agent(agent__socket__group=other.gr_name).start().socket).st_gid == other.gr_gid


@pytest.mark.embedded
def test_as_many_requests_are_worked_on_as_there_are_threads(world):
    threads = {}
    for number in (1, 6):
        agent = world.agent(agent__threads=number).start()
        threads[number] = agent.threads()
        agent.stop()
    assert threads[6] - threads[1] == 5


def connected(agent):
    client = socket.socket(socket.AF_UNIX)
    client.settimeout(SECONDS)
    client.connect(str(agent.socket))
    return client


def wait_for_end(client):
    """Until the agent ends the connection, whatever it has said before."""
    try:
        while client.recv(4096):
            pass
    except ConnectionResetError:
        pass


def is_open(client):
    """Whether there is more to be read, or nothing yet."""
    client.setblocking(False)
    try:
        return client.recv(4096) != b""
    except BlockingIOError:
        return True


@pytest.mark.embedded
def test_one_connection_more_than_the_setting_ends_the_one_idle_longest(world):
    agent = world.agent(agent__clients__max=2).start()
    with connected(agent) as first, connected(agent) as second:
        assert is_open(first) and is_open(second)
        with connected(agent) as third:
            first.setblocking(True)
            wait_for_end(first)
            assert is_open(second) and is_open(third)
            assert found(world.slapd(agent).start()), "another process gets a place"


def found(slapd):
    try:
        return search(slapd.connect(), FILTER)
    except ldap.UNAVAILABLE:
        return None


@pytest.mark.embedded
def test_who_is_meant_by_a_rewritten_name_is_for_the_setting_to_say(world):
    slapd = world.slapd(world.agent(login__attributes="displayName").start()).start()
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        slapd.connect(ANN, "welcome")
    slapd.stop()
    world.running_servers[0].stop()
    slapd = world.slapd(world.agent(login__attributes="uid").start()).start()
    slapd.connect(ANN, "welcome")


# ---- logs

def written(world, **settings):
    """What the agent writes to its log file in a short life."""
    file = world.folder / "agent.log.txt"
    agent = world.agent(log__file=file, **settings).start()
    agent.statistics()
    agent.stop()
    text = file.read_text(encoding="utf-8") if file.exists() else ""
    file.unlink(missing_ok=True)
    return text


@pytest.mark.embedded
@pytest.mark.parametrize("settings, told", [
    ({}, False),
    ({"log__level": 1}, True),
    ({"log__level": 4, "log__level__vexagent": 1}, True),
    ({"log__level": 1, "log__level__vexagent": 2}, False),
])
def test_the_log_s_level_and_its_channel_s(world, settings, told):
    assert (" info vexagent " in written(world, **settings)) == told


# The system's log is a socket of the test's own: nothing goes to the machine's.
DEVICES = """mount -t tmpfs -o mode=755 none /dev && mknod -m 666 /dev/null c 1 3 && mknod -m 666 /dev/urandom c 1 9 &&
mknod -m 666 /dev/zero c 1 5 && ln -s "$0" /dev/log && exec "$@\""""


def sent_to_syslog(world, **settings):
    file = world.folder / "syslog"
    file.unlink(missing_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        log.bind(str(file))
        agent = world.agent(**settings)
        command = agent.command()
        agent.command = lambda: ["unshare", "--mount", "--propagation", "private", "--", "sh", "-c", DEVICES, file, *command]
        agent.start()
        agent.statistics()
        agent.stop()
        log.setblocking(False)
        lines = []
        while True:
            try:
                lines.append(log.recv(65536).decode())
            except BlockingIOError:
                return lines


@pytest.mark.embedded
@pytest.mark.parametrize("settings, told", [
    ({}, False),
    ({"log__syslog__level": 1}, True),
    ({"log__syslog__level": 4, "log__syslog__level__vexagent": 1}, True),
    ({"log__syslog__level": 1, "log__syslog__level__vexagent": 2}, False),
])
def test_the_system_s_log_has_levels_of_its_own(world, settings, told):
    assert any("requests served" in line for line in sent_to_syslog(world, **settings)) == told
