"""Paged results with the clients that people use, and what paged searches leave behind."""
import pathlib
import re
import subprocess

import ldap
import ldap3
import psutil
import pytest

from gateway import LONG, SANITIZER, SECONDS, SUFFIX, Slapd, wait_until
from wire import WireClient, conjunction, equality, paged

PEOPLE = 10_000 if LONG else 1_200
ALL = "(objectClass=posixAccount)"
ON_THE_WIRE = conjunction(equality("objectClass", "posixAccount"))
CACHE = ("dirgate.cache.enabled true", f"dirgate.cache.max.objects {2 * PEOPLE}")
OPEN = re.compile(r"; open searches: (\d+);")
HERE = pathlib.Path(__file__).parent

pytestmark = pytest.mark.embedded


@pytest.fixture(scope="module")
def people_file(tmp_path_factory, crypt_hash):
    records = [f"dn: CN=user{number},{SUFFIX}\nobjectClass: user\nsAMAccountName: user{number}\n"
               f"uidNumber: {5000 + number}\ngidNumber: 5000\nunixHomeDirectory: /home/user{number}\n"
               + (f"userPassword: {crypt_hash('right', 'salt')}\n" if number == 0 else "") for number in range(PEOPLE)]
    file = tmp_path_factory.mktemp("people") / "people.ldif"
    file.write_text("\n".join(records), encoding="utf-8")
    return file


@pytest.fixture(scope="module", params=["uncached", "cached"])
def served(request, shared_world, people_file):
    """(agent, slapd); with the cache, everybody is in it."""
    agent = shared_world.agent(embedded__ldif=people_file).start()
    cache = CACHE if request.param == "cached" else ()
    slapd = shared_world.slapd(agent, directives=(*Slapd.DIRECTIVES, *cache)).start()
    connection = slapd.connect(f"cn=user0,{SUFFIX}", "right")
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
    connection, names, sizes = slapd.connect(), [], []
    control = ldap.controls.SimplePagedResultsControl(True, size=size, cookie="")
    while True:
        number = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, ALL, ["uid"], serverctrls=[control])
        _, entries, _, controls = connection.result3(number)
        names += [values["uid"][0].decode() for _, values in entries]
        sizes.append(len(entries))
        control.cookie = controls[0].cookie if controls else ""
        if not control.cookie:
            connection.unbind_ext()
            return names, sizes


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
    assert sorted(names) == sorted(f"user{number}" for number in range(PEOPLE))
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
        assert sorted(names) == sorted(f"user{number}" for number in range(PEOPLE))
    client.close()


def open_searches(agent):
    agent.served()
    return int(OPEN.findall(agent.log())[-1])


def holdings(server):
    process = psutil.Process(server.process.pid)
    return process.num_fds(), process.num_threads(), process.memory_info().rss


def test_clients_that_disappear_leave_nothing(served):
    agent, slapd = served

    def disappear(times):
        for _ in range(times):
            client = WireClient(slapd.port, SECONDS)
            _, cookie = page(client, 100)
            page(client, 100, cookie)
            client.close()
        wait_until(lambda: open_searches(agent) == 0, "the agent has let go of the searches")

    disappear(50)
    before = holdings(slapd), holdings(agent)
    disappear(1000 if LONG else 200)
    after = holdings(slapd), holdings(agent)
    for now, then in zip(after, before):
        assert now[0] <= then[0] + 8
        if not SANITIZER.kind:
            assert now[2] - then[2] < 2 << 20
    assert after[0][1] <= 20, "slapd starts up to 16 threads when it needs them"
    assert after[1][1] == before[1][1]


def test_after_a_paged_search_more_searches_on_its_connection_leave_the_agent_as_it_was(served):
    """The paged one stays registered with its connection until that closes."""
    agent, slapd = served
    client = WireClient(slapd.port, SECONDS)
    _, cookie = page(client, 100)
    while cookie:
        _, cookie = page(client, 100, cookie)
    for number in range(200):
        search(client, number)
    before = holdings(agent), open_searches(agent)
    for number in range(10_000 if LONG else 2_000):
        search(client, number)
    assert open_searches(agent) <= before[1] <= 1
    if not SANITIZER.kind:
        assert holdings(agent)[2] - before[0][2] < 1 << 20
    client.close()
    wait_until(lambda: open_searches(agent) == 0, "the agent has let go of the search")


def search(client, number):
    client.search(SUFFIX, conjunction(equality("objectClass", "posixAccount"), equality("uid", f"user{number % PEOPLE}")), ["uid"])
    assert [repr(message) for message in client.until_result()] == [f"entry user{number % PEOPLE}", "result 0"]
    assert repr(client.rest()) in ("[]", "[result 0]")
