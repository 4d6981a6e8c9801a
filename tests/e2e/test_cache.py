# SPDX-License-Identifier: Apache-2.0
"""The search cache in a running slapd: what a search costs the agent, and the dump.

The dump's folder is fixed, so slapd runs in a mount namespace of its own, with an
empty /var: nothing of it is left when slapd ends. What slapd writes there is read
through its /proc entry.
"""
import concurrent.futures
import os
import pathlib
import re
import signal
import stat
import time

import ldap
import pytest

import crowd
from gateway import SLAPD, SUFFIX, ScriptedAgent, Slapd, pages, search, values, wait_until

CACHE = ("dirgate.cache.enabled true",)
ANN = f"cn=Ann Lee,ou=Staff,{SUFFIX}"
SHOWN = f"cn=ann,ou=Staff,{SUFFIX}"
GUID = "6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1001"
OBJECT = [["_dn", ANN], ["_GUID", GUID], ["_objectCategory", "Person"], ["sAMAccountName", "ann"], ["cn", "Ann Lee"],
          ["uidNumber", "20001"], ["objectClass", "top", "user"]]
SUPPORTED = ["cn", "sAMAccountName", "uidNumber", "gidNumber", "objectClass", "unixHomeDirectory"]
FILTER = "(&(objectClass=posixAccount)(uid=ann))"
PERSON = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"  # of the example directory
NOBODY = "(&(objectClass=posixAccount)(uid=nobody))"
KEY = f"(&(objectclass=user)(samaccountname=ann)){SUFFIX}2"
NOBODY_KEY = f"(&(objectclass=user)(samaccountname=nobody)){SUFFIX}2"
NAME_AND_NUMBER = ["uid", "uidNumber"]

RULE = "-" * 62
STARTING = "Starting to dump memory cache setting, statistics and entire content..."
CONTENT = "Starting to dump entire cache content..."
COMPLETE = "Dump entire cache content complete."
REFUSED = "Can't open file "


class PrivateSlapd(Slapd):
    """slapd that has /var for itself; the dump's folder is there, mode 0700. prepare is
    a shell command that runs before slapd, for a folder that is not as it should be."""

    FOLDER = "/var/zanthe/tmp"

    def __init__(self, folder, servers, prepare=f"mkdir -m 700 {FOLDER}", **parts):
        super().__init__(folder, servers, **parts)
        self.module_log = folder / "dirgate.log"
        self.prepare = prepare

    def sanitizer_env(self):
        return {}  # for slapd alone, not for the shell: see launch

    def launch(self):
        # Private mounts: nothing that happens in the namespace is seen outside.
        script = f"mount -t tmpfs -o mode=755 none /var && mkdir -m 755 /var/zanthe && {self.prepare} && exec env \"$@\""
        preload = [f"{name}={value}" for name, value in super().sanitizer_env().items()]
        self.spawn(["unshare", "--mount", "--propagation", "private", "--", "sh", "-c", script, "slapd", *preload,
                    SLAPD, "-d", "0", "-h", self.uri, "-f", self.config_file], self.env)

    def dumps(self):
        """The dump files, by name."""
        folder = pathlib.Path(f"/proc/{self.process.pid}/root{self.FOLDER}")
        return {file.name: file for file in folder.iterdir()}

    def lines(self):
        """What the module logged, without what the logger puts before a text."""
        text = self.module_log.read_text(errors="replace") if self.module_log.exists() else ""
        return re.findall(r"^\S+ \S+ info dirgate \d+ \d+ \S+ JPrintf (.*)$", text, re.MULTILINE)

    def wait_for_line(self, text, count=1):
        return wait_until(lambda: [line for line in self.lines() if line.startswith(text)][count - 1:], text)[0]

    def dump(self):
        """The text of a new dump file, whole."""
        before, complete = set(self.dumps()), self.lines().count(COMPLETE)
        self.signal(signal.SIGUSR1)
        self.wait_for_line(COMPLETE, complete + 1)
        (name,) = set(self.dumps()) - before
        return self.dumps()[name].read_text(encoding="utf-8")


@pytest.fixture
def start(world):
    """Starts such a slapd; agent is the real one or the scripted one."""
    def started(agent, *directives, prepare=None):
        settings = pathlib.Path(agent.env["ZANTHE_CONF"])
        with open(settings, "a", encoding="utf-8") as file:
            file.write(f"log.file = {world.folder}/dirgate.log\nlog.level.dirgate = 1\n")
        options = {"prepare": prepare} if prepare is not None else {}
        return PrivateSlapd(world.folder, world.running_servers, env=agent.env,
                            directives=[*Slapd.DIRECTIVES, *CACHE, *directives], **options).start()
    return started


@pytest.fixture
def standin(world):
    """The scripted libvex; it has no complaint at the end."""
    agent = ScriptedAgent(world.folder, world.agent().settings_file)
    agent.say = lambda **sections: agent.script(supported=SUPPORTED, users={SHOWN: {"secret": 0}}, **sections)
    agent.say(searches=[{"filter": "(&(objectClass=User)(sAMAccountName=ann))", "objects": [OBJECT]}])
    yield agent
    for server in world.running_servers:
        if server.process:
            assert server.stop() == 0
    assert agent.complaints() == []


def asked(standin):
    """What the agent was asked since the last time, without sessions and options."""
    return [line.split("(")[0] for line in standin.requests() if not line.startswith(("vexSession", "vexSetOption"))]


SEARCHED = ["vexLdapSearchOpen", "vexLdapSearchNext", "vexLdapSearchNext", "vexLdapSearchClose"]
FOUND_NOTHING = ["vexLdapSearchOpen", "vexLdapSearchNext", "vexLdapSearchClose"]


@pytest.fixture
def bound(start, standin):
    """A slapd whose cache is in use: somebody has bound."""
    def started(*directives, prepare=None):
        slapd = start(standin, *directives, prepare=prepare)
        slapd.connect(SHOWN, "secret")
        standin.requests()
        return slapd
    return started


# ---- what a search costs the agent

def test_before_a_first_bind_nothing_is_cached(start, standin):
    slapd = start(standin)
    connection = slapd.connect()
    for _ in range(2):
        assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
        assert asked(standin) == SEARCHED
    slapd.connect(SHOWN, "secret")
    standin.requests()
    assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
    assert asked(standin) == SEARCHED
    assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
    assert asked(standin) == []


def test_a_search_that_is_repeated_costs_the_agent_nothing(bound, standin):
    connection = bound().connect()
    first = search(connection, FILTER, NAME_AND_NUMBER)
    assert asked(standin) == SEARCHED
    again = search(connection, FILTER, NAME_AND_NUMBER)
    assert asked(standin) == []
    assert again == first == {SHOWN: {"uid": [b"ann"], "uidNumber": [b"20001"]}}
    # All attributes are there, whichever the first search asked for.
    assert search(connection, FILTER, ["cn"]).keys() == {SHOWN}
    assert asked(standin) == []


def test_a_person_who_does_not_exist_costs_the_agent_one_search(bound, standin):
    connection = bound().connect()
    assert search(connection, NOBODY, NAME_AND_NUMBER) == {}
    assert asked(standin) == FOUND_NOTHING
    assert search(connection, NOBODY, NAME_AND_NUMBER) == {}
    assert asked(standin) == []


def test_where_case_does_not_count_any_spelling_is_answered_from_the_cache(bound, standin):
    connection = bound().connect()
    search(connection, FILTER, NAME_AND_NUMBER)
    assert asked(standin) == SEARCHED
    for spelling in ("(&(objectClass=posixAccount)(uid=ANN))", "(&(OBJECTCLASS=POSIXACCOUNT)(UID=Ann))"):
        assert list(search(connection, spelling, NAME_AND_NUMBER)) == [SHOWN]
        assert asked(standin) == []
    pieces = "(&(objectClass=posixAccount)(uid={}*))"
    assert search(connection, pieces.format("no"), NAME_AND_NUMBER) == {}
    assert asked(standin) == FOUND_NOTHING
    assert search(connection, pieces.format("NO"), NAME_AND_NUMBER) == {}
    assert asked(standin) == []


def test_where_case_counts_a_spelling_that_finds_nothing_takes_nothing_from_another(bound, standin):
    group = [["_dn", f"cn=staff,{SUFFIX}"], ["_GUID", GUID], ["_objectCategory", "Group"], ["cn", "staff"],
             ["gidNumber", "20001"], ["objectClass", "top", "group"]]
    standin.say(searches=[{"filter": "(&(objectClass=Group)(memberUid=ann))", "objects": [group]}])
    connection = bound().connect()
    groups = "(&(objectClass=posixGroup)(memberUid={}))"
    for _ in range(2):
        assert search(connection, groups.format("ANN"), ["gidNumber"]) == {}
        assert asked(standin) == FOUND_NOTHING
    assert list(search(connection, groups.format("ann"), ["gidNumber"])) == [f"cn=staff,{SUFFIX}"]
    assert asked(standin) == SEARCHED
    assert search(connection, groups.format("ANN"), ["gidNumber"]) == {}
    assert asked(standin) == FOUND_NOTHING
    assert list(search(connection, groups.format("ann"), ["gidNumber"])) == [f"cn=staff,{SUFFIX}"]
    assert asked(standin) == []


def test_a_list_lives_for_its_time(bound, standin):
    connection = bound("dirgate.cache.ttl 1").connect()
    search(connection, FILTER, NAME_AND_NUMBER)
    assert asked(standin) == SEARCHED

    def asked_again():
        assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
        return asked(standin)
    assert wait_until(asked_again, "the agent is asked again") == SEARCHED


def test_a_person_who_is_created_is_found_when_the_negative_entry_is_past_its_time(bound, standin):
    connection = bound("dirgate.cache.negative.ttl 1").connect()
    standin.say()
    assert search(connection, FILTER, NAME_AND_NUMBER) == {}
    assert asked(standin) == FOUND_NOTHING  # its last calls come after the answer
    standin.say(searches=[{"objects": [OBJECT]}])
    found = wait_until(lambda: search(connection, FILTER, NAME_AND_NUMBER), "the new person is found")
    assert list(found) == [SHOWN]
    assert asked(standin) == SEARCHED


def test_the_statistics_are_logged_at_their_interval(bound, standin):
    slapd = bound("dirgate.performance.log.interval 1")
    connection = slapd.connect()
    # A miss, the list and the object, a miss. What is found is stored after the
    # client's answer, and before the session closes.
    for filter in (FILTER, FILTER, NOBODY):
        search(connection, filter, NAME_AND_NUMBER)
        standin.requests()
    count = 0

    def logged():
        nonlocal count
        search(connection, NOBODY, NAME_AND_NUMBER)  # a negative hit
        count += 1
        # A line that was due between the searches above knows less.
        return [line for line in slapd.lines() if re.match(r"cache hits: \d+, negHits: [1-9]\d*, misses: ", line)]
    line = wait_until(logged, "the statistics")[0]
    hits, negative = re.fullmatch(
        r"cache hits: (\d+), negHits: (\d+), misses: 2, expires: 0, overflows: 0, cloneErrs: 0", line).groups()
    assert hits == "2" and 1 <= int(negative) <= count
    lines = slapd.lines()
    state = lines[lines.index(line) + 1]
    held, most = re.fullmatch(r"cache bytes: (\d+), max bytes: (\d+), lists: 2, objects: 1, evicted for bytes: 0, "
                              r"refused: 0", state).groups()
    assert 25_000 < int(held) < 30_000 and int(most) == 256 << 20


def test_the_cache_keeps_below_its_bytes(bound, standin):
    slapd = bound("dirgate.cache.max.bytes 32K", "dirgate.performance.log.interval 1")
    connection = slapd.connect()
    for number in range(100):
        search(connection, f"(uid={'x' * 300}{number})", ["cn"])

    def state():
        search(connection, NOBODY, NAME_AND_NUMBER)
        return [re.match(r"cache bytes: (\d+), max bytes: 32768, .* evicted for bytes: [1-9]", line)
                for line in slapd.lines() if line.startswith("cache bytes: ")][-1:]
    (line,) = wait_until(lambda: [one for one in state() if one], "a line that tells of evictions")
    assert int(line.group(1)) <= 32768


@pytest.mark.parametrize("directive", ["dirgate.cache.max.bytes 1K", "dirgate.cache.hash.loadfactor 1e-38",
                                       "dirgate.cache.max.objects 2147483647"])
def test_a_cache_that_cannot_be_had_is_said_once_and_searches_are_answered(bound, standin, directive):
    slapd = bound(directive)
    connection = slapd.connect()
    for _ in range(2):
        assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
        assert asked(standin) == SEARCHED
    said = slapd.module_log.read_text(encoding="utf-8")
    assert said.count("The memory cache stays off: no room for its tables.") == 1
    assert "Init memory cache successfully" not in said


# ---- the dump

def parse(text):
    """(lists, objects) of a dump, each as [(key, expiry, the rest's lines)]; every line
    must be where it belongs."""
    lines = iter(text.split("\n"))

    def expect(*texts):
        for wanted in texts:
            assert next(lines) == wanted, text

    def entries(end, body):
        found = []
        while (line := next(lines)) != end:
            number, key = re.fullmatch(r"Key\[(\d+)\]: (.*)", line).groups()
            assert int(number) == len(found) + 1
            found.append(body(key))
        return found

    def expiry():
        label, moment = next(lines).split(": ", 1)
        assert label == "Cache expiry time"
        return time.mktime(time.strptime(moment, "%a %b %d %H:%M:%S %Y"))

    def list_entry(key):
        entry = (key, expiry(), next(lines))
        expect(RULE)
        return entry

    def object_entry(key):
        expect(f"ADObject: {key}")
        when = expiry()
        expect("Object data:")
        attributes = []
        while (line := next(lines)) != RULE:
            attributes.append(line)
        return key, when, attributes

    expect(RULE, "Dumping dirgate memory cache of list", RULE)
    lists = entries("", list_entry)
    expect("", "", RULE, "Dumping dirgate memory cache of object", RULE)
    objects = entries("", object_entry)
    assert next(lines, None) is None, text  # the last line ended with a newline
    return lists, objects


def test_a_dump_shows_what_searches_have_cached(bound, standin):
    slapd = bound()
    connection = slapd.connect()
    before = int(time.time())
    search(connection, FILTER, NAME_AND_NUMBER)
    search(connection, NOBODY, NAME_AND_NUMBER)
    standin.requests()  # the list is stored after the answer
    after = int(time.time())
    lists, objects = parse(slapd.dump())

    assert {(key, guids) for key, _, guids in lists} == {(KEY, f"GuidList(s): {GUID}"), (NOBODY_KEY, "GuidList(s): ")}
    expiries = {key: expiry for key, expiry, _ in lists}
    assert before + 3600 <= expiries[KEY] <= after + 3600
    assert before + 300 <= expiries[NOBODY_KEY] <= after + 300
    ((guid, expiry, attributes),) = objects
    assert guid == GUID and before + 3600 <= expiry <= after + 3600
    assert attributes == [f"{name}:{','.join(some)}" for name, *some in OBJECT]

    ((name, file),) = slapd.dumps().items()
    assert re.fullmatch(r"dirgate\.cache\.out_\d{4}(-\d\d){5}", name)
    moment = time.mktime(time.strptime(name.partition("_")[2], "%Y-%m-%d-%H-%M-%S"))
    assert after <= moment <= time.time()
    assert stat.S_IMODE(file.stat().st_mode) == 0o400
    lines = slapd.lines()
    begin = lines.index(STARTING)
    assert lines[begin:begin + 5] == [
        STARTING,
        "memory cache enabled, max lists: 100, max objects: 3000, ttl: 3600, negative ttl: 300, "
        "load factor: 1.300000, log interval: 0",
        "cache hits: 0, negHits: 0, misses: 2, expires: 0, overflows: 0, cloneErrs: 0",
        CONTENT, COMPLETE]
    assert "Thread starts to check signal..." in lines
    assert ("Init memory cache successfully. max lists: 100, max objects: 3000, ttl: 3600, negative ttl: 300, "
            "log interval: 0, list cache bucket number: 79, object cache bucket number: 3079") in lines


def test_a_dump_of_an_empty_cache(bound, standin):
    slapd = bound()
    search(slapd.connect(), "(cn=x)", ["jpegPhoto"])  # the first search starts the watcher, and this one is not cached
    assert parse(slapd.dump()) == ([], [])


def test_a_dump_with_the_real_agent(world, start):
    agent = world.agent().start()
    slapd = start(agent)
    slapd.connect(PERSON, "welcome")
    connection = slapd.connect()
    filter = "(objectClass=posixAccount)"
    people = search(connection, filter, ["uid"])
    assert len(people) > 1
    # The list is stored after the answer: it is there when a search finds it.
    wait_until(lambda: search(connection, filter, ["uid"]) == people
               and any(line.startswith("Successfully find search result") for line in slapd.lines()), "the list is cached")
    lists, objects = parse(slapd.dump())
    ((key, _, guids),) = lists
    assert key == f"(objectclass=user){SUFFIX}2"
    listed = guids.removeprefix("GuidList(s): ").split(",")
    assert sorted(listed) == sorted(guid for guid, _, _ in objects)
    names = {line.partition(":")[2] for _, _, lines in objects for line in lines if line.startswith("sAMAccountName:")}
    assert names >= {value for entry in people.values() for value in values(entry, "uid")}
    assert not any(line.lower().startswith(("userpassword:", "unixuserpassword:", "unicodepwd:"))
                   for _, _, lines in objects for line in lines)


def test_two_signals_at_once_make_one_file(bound):
    slapd = bound()
    search(slapd.connect(), FILTER, NAME_AND_NUMBER)
    slapd.signal(signal.SIGUSR1)
    slapd.signal(signal.SIGUSR1)
    slapd.wait_for_line(COMPLETE)
    # A second dump would begin at the watcher's next look; a later one proves that
    # it has looked.
    first = set(slapd.dumps())
    assert len(first) == 1
    wait_until(lambda: time.strftime("%S") != next(iter(first))[-2:], "the next second")
    slapd.dump()
    assert len(slapd.dumps()) == 2
    assert slapd.lines().count(STARTING) == 2


REFUSALS = {
    "no folder": "true",
    "a folder that all may write to": "mkdir -m 777 /var/zanthe/tmp",
    "a link to a folder": "mkdir -m 700 /var/zanthe/other && ln -s other /var/zanthe/tmp",
    "a file": "touch /var/zanthe/tmp",
    "somebody else's folder": "mkdir -m 700 /var/zanthe/tmp && chown 1 /var/zanthe/tmp",
}


@pytest.mark.parametrize("prepare", REFUSALS.values(), ids=REFUSALS.keys())
def test_a_dump_that_is_refused(bound, standin, prepare):
    slapd = bound(prepare=prepare)
    connection = slapd.connect()
    search(connection, FILTER, NAME_AND_NUMBER)
    for count in (1, 2):  # the watcher goes on
        slapd.signal(signal.SIGUSR1)
        line = slapd.wait_for_line(REFUSED, count)
        assert re.fullmatch(rf"Can't open file {PrivateSlapd.FOLDER}/dirgate\.cache\.out_\d{{4}}(-\d\d){{5}}", line)
    assert COMPLETE not in slapd.lines()
    standin.requests()
    assert list(search(connection, FILTER, NAME_AND_NUMBER)) == [SHOWN]
    assert asked(standin) == []  # the cache is as it was


def test_signals_disturb_neither_searches_nor_binds(world, start):
    """A few hundred signals while clients work: every answer is right."""
    agent = world.agent().start()
    slapd = start(agent)
    people = search(slapd.connect(), "(objectClass=posixAccount)", ["uid", "uidNumber"])
    names = sorted(values(entry, "uid")[0] for entry in people.values())
    signalling = True

    def client(number):
        connection, answers = slapd.connect(), 0
        while signalling:
            name = names[(number + answers) % len(names)]
            found = search(connection, f"(&(objectClass=posixAccount)(uid={name}))", ["uid", "uidNumber"])
            assert [values(entry, "uid") for entry in found.values()] == [[name]]
            assert found.items() <= people.items()
            assert search(connection, f"(&(objectClass=posixAccount)(uid=no{number}-{answers}))", ["uid"]) == {}
            slapd.connect(PERSON, "welcome")
            with pytest.raises(ldap.INVALID_CREDENTIALS):
                slapd.connect(PERSON, "wrong")
            answers += 1
        return answers

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        clients = [pool.submit(client, number) for number in range(4)]
        for _ in range(400):
            slapd.signal(signal.SIGUSR1)
            # A fresh connection each time: the listener answers between two signals.
            assert search(slapd.connect(), f"(&(objectClass=posixAccount)(uid={names[0]}))", ["uid"])
        signalling = False
        assert all(future.result() > 0 for future in clients)
    slapd.wait_for_line(STARTING)


@pytest.mark.embedded
def test_a_replay_whose_objects_left_the_cache_makes_few_round_trips(world):
    """The agent's count of look-ups is one of round trips: each brings what follows it."""
    agent = world.agent(embedded__ldif=crowd.write(world.folder, 600)).start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, *CACHE, "dirgate.cache.max.objects 50")).start()
    connection = slapd.connect(crowd.dn(1), "right")
    first = search(connection, "(objectClass=posixAccount)", NAME_AND_NUMBER)
    assert len(first) == 600
    before = agent.served()
    assert search(connection, "(objectClass=posixAccount)", NAME_AND_NUMBER) == first
    after = agent.served()
    assert after["search"] == before["search"]
    assert 0 < after["lookup"] - before["lookup"] <= 60
    before = after
    paged = dict(entry for page in pages(connection, "(objectClass=posixAccount)", 100) for entry in page)
    assert set(paged) == set(first)
    after = agent.served()
    assert after["search"] == before["search"]
    assert 0 < after["lookup"] - before["lookup"] <= 60


def test_nothing_of_it_is_left_outside(bound):
    before = os.path.exists("/var/zanthe")
    slapd = bound()
    search(slapd.connect(), FILTER, NAME_AND_NUMBER)
    slapd.dump()
    assert os.path.exists("/var/zanthe") == before
    assert not [name for name in slapd.dumps() if os.path.exists(f"{PrivateSlapd.FOLDER}/{name}")]
