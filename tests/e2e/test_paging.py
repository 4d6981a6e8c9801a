# SPDX-License-Identifier: Apache-2.0
"""Paged results with the clients that people use, and what paged searches leave behind."""
import pathlib
import re
import subprocess

import ldap
import ldap3
import pytest

import crowd
from gateway import LONG, SANITIZER, SECONDS, SUFFIX, Slapd, pages, wait_until
from wire import WireClient, conjunction, equality, paged

PEOPLE = 10_000 if LONG else 1_200
ALL = "(objectClass=posixAccount)"
ON_THE_WIRE = conjunction(equality("objectClass", "posixAccount"))
CACHE = ("dirgate.cache.enabled true", f"dirgate.cache.max.objects {2 * PEOPLE}")
EVERYBODY = sorted(map(crowd.uid, range(PEOPLE)))
HERE = pathlib.Path(__file__).parent

pytestmark = pytest.mark.embedded


@pytest.fixture(scope="module")
def people_file(tmp_path_factory):
    return crowd.write(tmp_path_factory.mktemp("people"), PEOPLE)


@pytest.fixture(scope="module", params=["uncached", "cached"])
def served(request, shared_world, people_file):
    """(agent, slapd); with the cache, everybody is in it."""
    agent = shared_world.agent(embedded__ldif=people_file).start()
    cache = CACHE if request.param == "cached" else ()
    slapd = shared_world.slapd(agent, directives=(*Slapd.DIRECTIVES, *cache)).start()
    connection = slapd.connect(crowd.dn(0), "right")
    assert len(connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, ALL, ["uid"])) == PEOPLE
    yield agent, slapd
    for server in (slapd, agent):
        server.stop()


# Each reads everybody by pages: (the uids in their order, the pages' sizes).

def with_ldapsearch(slapd, size):
    output = subprocess.run(["ldapsearch", "-x", "-LLL", "-H", slapd.uri, "-b", SUFFIX, "-E", f"!pr={size}/noprompt", ALL, "uid"],
                            check=True, capture_output=True, text=True, env={"LDAPNOINIT": "1", "PATH": "/usr/bin:/bin"}).stdout
    # It writes a line on each page but the last.
    pages = [re.findall(r"^uid: (.*)$", page, re.MULTILINE) for page in output.split("# pagedresults: cookie=")]
    pages = [page for page in pages if page]
    return sum(pages, []), [len(page) for page in pages]


def with_python_ldap(slapd, size):
    found = [[values["uid"][0].decode() for _, values in page] for page in pages(slapd.connect(), ALL, size)]
    return sum(found, []), [len(page) for page in found]


def with_ldap3(slapd, size):
    connection = ldap3.Connection(ldap3.Server("127.0.0.1", slapd.port, get_info=ldap3.NONE), auto_bind=True,
                                  receive_timeout=SECONDS)
    names, sizes, cookie = [], [], None
    while True:
        connection.search(SUFFIX, ALL, attributes=["uid"], paged_size=size, paged_criticality=True, paged_cookie=cookie)
        # A second result that arrives together with the first is among the answers.
        entries = [answer for answer in connection.response if answer["type"] == "searchResEntry"]
        names += [entry["attributes"]["uid"][0] for entry in entries]
        sizes.append(len(entries))
        controls = connection.result.get("controls")
        cookie = controls["1.2.840.113556.1.4.319"]["value"]["cookie"] if controls else None
        if not cookie:
            connection.unbind()
            return names, sizes


def with_jndi(slapd, size):
    output = subprocess.run(["java", HERE / "PagedSearch.java", slapd.uri, SUFFIX, ALL, str(size)], check=True,
                            capture_output=True, text=True).stdout.splitlines()
    return ([line for line in output if not line.startswith("page ")],
            [int(line.split()[1]) for line in output if line.startswith("page ")])


@pytest.mark.parametrize("read", [with_ldapsearch, with_python_ldap, with_ldap3, with_jndi])
@pytest.mark.parametrize("size", [7, 100, 500, 1000])
def test_everybody_comes_once_and_every_page_is_full(served, read, size):
    _, slapd = served
    names, sizes = read(slapd, size)
    assert sorted(names) == EVERYBODY
    full, rest = divmod(PEOPLE, size)
    assert sizes == [size] * full + ([rest] if rest else [])


def page(client, size, cookie=b""):
    """One page: (uids, cookie)."""
    client.search(SUFFIX, ON_THE_WIRE, ["uid"], control=paged(size, cookie, critical=True))
    *entries, result = client.until_result()
    assert result.code == 0, result
    return [entry.attributes["uid"][0] for entry in entries], result.cookie


def test_two_paged_searches_one_after_the_other_on_one_connection(served):
    _, slapd = served
    client = WireClient(slapd.port, SECONDS)
    for size in (400, 500):
        names, cookie = page(client, size)
        while cookie:
            more, cookie = page(client, size, cookie)
            names += more
        assert sorted(names) == EVERYBODY
    client.close()


def test_clients_that_disappear_leave_nothing(served):
    agent, slapd = served

    def disappear(times):
        for _ in range(times):
            client = WireClient(slapd.port, SECONDS)
            _, cookie = page(client, 100)
            page(client, 100, cookie)
            client.close()
        wait_until(lambda: agent.open_searches() == 0, "the agent has let go of the searches")

    disappear(50)
    before = {server: (server.descriptors(), server.memory()) for server in served}
    threads = agent.threads()
    disappear(1000 if LONG else 200)
    for server, (descriptors, memory) in before.items():
        assert server.descriptors() <= descriptors + 8
        if not SANITIZER.kind:
            assert server.memory() - memory < 2 << 20
    assert agent.threads() == threads
    assert slapd.threads() <= 20, "slapd starts up to 16 threads when it needs them"


def test_after_a_paged_search_more_searches_on_its_connection_leave_the_agent_as_it_was(served):
    """The paged one stays registered with its connection until that closes."""
    agent, slapd = served
    client = WireClient(slapd.port, SECONDS)
    _, cookie = page(client, 100)
    while cookie:
        _, cookie = page(client, 100, cookie)
    for number in range(200):
        search(client, number)
    before, searches = agent.memory(), agent.open_searches()
    for number in range(10_000 if LONG else 2_000):
        search(client, number)
    assert agent.open_searches() <= searches <= 1
    if not SANITIZER.kind:
        assert agent.memory() - before < 1 << 20
    client.close()
    wait_until(lambda: agent.open_searches() == 0, "the agent has let go of the search")


def search(client, number):
    client.search(SUFFIX, conjunction(equality("objectClass", "posixAccount"), equality("uid", crowd.uid(number % PEOPLE))), ["uid"])
    assert [repr(message) for message in client.until_result()] == [f"entry user{number % PEOPLE}", "result 0"]
    assert repr(client.rest()) in ("[]", "[result 0]")
