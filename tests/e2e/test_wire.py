# SPDX-License-Identifier: Apache-2.0
"""What is on the wire for every way that a search can end: its entries, its first result
and its second one. Clients take the first; the second is sent by design, without controls.
It says 32 where the request has sent no entry but one that was left from the page before."""
import pytest

from gateway import SECONDS, SUFFIX, ScriptedAgent, Slapd, wait_until
from wire import SEARCH_DONE, WireClient, conjunction, equality, extensible, paged

FILTER = conjunction(equality("objectClass", "posixAccount"), equality("uid", "ann"))
READABLE = ["access to * by * read"]
SILENT = tuple(line for line in Slapd.DIRECTIVES if "report.errors" not in line)


def person(name):
    return [["_dn", f"CN={name},{SUFFIX}"], ["_GUID", f"guid-{name}"], ["_objectCategory", "Person"],
            ["sAMAccountName", name], ["objectClass", "user"]]


def found(*names, end=7):
    return {"searches": [{"objects": [person(name) for name in names], "end": end}]}



def case(what, script, expected, **request):
    """expected: what one request is answered with, or a list of that for each page."""
    return pytest.param(script, expected, request, id=what)


CASES = [
    # how it ends            what the agent has       the client sees
    case("found",            found("ann", "bob"),     "entry ann, entry bob, result 0"),
    case("nothing found",    found(),                 "result 32"),
    case("size limit",       found("ann", "bob"),     "entry ann, result 4, result 4", size=1),
    case("size limit above", found("ann", "bob"),     "entry ann, entry bob, result 0", size=3),
    case("time limit",       {**found("ann", "bob"), "delays": {"vexLdapSearchNext": 2100}},
         "result 3, result 32", time=1),
    case("failed send",      found("ann"),
         "result 50: send_search_entry Failed, lrc = 50, result 32: send_search_entry Failed, lrc = 50", access=["access to * by * none"]),
    case("failed send of a later entry", {**found("ann", "bob")},
         "entry ann, result 50: send_search_entry Failed, lrc = 50, result 50: send_search_entry Failed, lrc = 50",
         access=['access to dn.exact="cn=bob,dc=example,dc=com" by * none', *READABLE]),
    case("filter that cannot be translated", found(), "result 21: vex dirgate: invalid search filter",
         filter=extensible("uid", "2.5.13.5", "ann")),
    case("attribute name that writes a filter of its own", found("ann"),
         "result 21: vex dirgate: invalid search filter", filter=equality("objectGUID=*)(uid", "ann")),
    case("attribute name that names a matching rule", found("ann"),
         "result 21: vex dirgate: invalid search filter",
         filter=equality("userAccountControl:1.2.840.113556.1.4.803:", "2")),
    case("base with a NUL", found("ann"),             "result 32", base=f"cn=a\\00b,{SUFFIX}"),
    case("the suffix itself", found(),                "entry example, result 0", scope=0,
         filter=equality("objectClass", "domain")),
    case("the suffix itself, not matched", found(),   "result 32", scope=0, filter=equality("objectClass", "person")),
    case("no page size",     found("ann"),
         "result 0: search abandoned by pagedResult size=0", pages=0),
    case("cookie that is none", found("ann"),
         "result 2: paged results cookie is invalid", pages=2, cookie=b"x" * 24),

    # page by page
    case("first page of nothing",       found(),                    ["result 32"], pages=2),
    case("last page, not full",         found("ann"),               ["entry ann, result 0 last page, result 0"], pages=2),
    case("last page, full",             found("ann", "bob"),        ["entry ann, entry bob, result 0"], pages=2),
    case("full page, then a last one",  found("ann", "bob", "cid", "dan", "eve"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, entry dan, result 0 cookie",
          "entry eve, result 0 last page, result 32"], pages=2),
    case("the last page is full",       found("ann", "bob", "cid", "dan"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, entry dan, result 0"], pages=2),
    case("pending entry only",          found("ann", "bob", "cid"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, result 0 last page, result 32"], pages=2),
    case("size limit on the first page", found("ann", "bob", "cid"),
         ["entry ann, entry bob, result 4, result 4"], pages=5, size=2),
    case("size limit on a later page",  found("ann", "bob", "cid", "dan", "eve"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, result 4, result 32"], pages=2, size=3),
    case("size limit at a page's end",  found("ann", "bob", "cid", "dan", "eve"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, entry dan, result 4, result 4"], pages=2, size=4),
    case("size limit that is the number", found("ann", "bob", "cid", "dan"),
         ["entry ann, entry bob, result 0 cookie", "entry cid, entry dan, result 0"], pages=2, size=4),
    case("agent lost on a later page",  found("ann", "bob", "cid", end=6),
         ["entry ann, entry bob, result 0 cookie", "entry cid, result 52*, result 52*"], pages=2),

    # the agent fails
    case("no session",       {"answers": {"vexSessionOpen": [6]}}, "result 52*, result 52*"),
    case("no search",        {"answers": {"vexLdapSearchOpen": [6]}}, "result 52*, result 52*"),
    case("agent lost at once", found(end=6),          "result 52*, result 52*"),
    case("agent lost midway", found("ann", end=6),    "entry ann, result 52*, result 52*"),
    case("agent lost midway, not reported", found("ann", end=6), "entry ann, result 0", directives=SILENT),
    case("agent lost at once, not reported", found(end=6), "result 32", directives=SILENT),
    case("no DN to fetch by", {"searches": [{"objects": [person("ann")[1:]]}]}, "result 32"),
]


@pytest.fixture
def module_log(world):
    return world.folder / "module.log"


@pytest.fixture
def standin(world, module_log):
    agent = world.agent(log__file=module_log, log__level__dirgate=1)
    return ScriptedAgent(world.folder, agent.settings_file)


class Conversation:
    """A client's requests and what came for each, to the last page."""

    def __init__(self, slapd, module_log):
        self.client, self.log = WireClient(slapd.port, SECONDS), module_log
        self.ended = 0

    def searches_ended(self):
        """How many searches have sent all that they will."""
        return self.log.read_text(encoding="utf-8", errors="replace").count("vex search complete on connection: ")

    def answer(self):
        messages = self.client.until_result()
        if not messages[-1].cookie:  # else the search goes on with the next page
            self.ended += 1
            wait_until(lambda: self.searches_ended() == self.ended, "the search has ended")
        return messages + self.client.rest()

    def hold(self, base=SUFFIX, filter=FILTER, pages=None, cookie=b"", **request):
        answers = []
        while True:
            control = {} if pages is None else {"control": paged(pages, cookie, critical=True)}
            self.client.search(base, filter, ["uid"], **request, **control)
            answers.append(self.answer())
            cookie = results(answers[-1])[0].cookie
            if not cookie:
                self.client.close()
                return answers


def results(messages):
    return [message for message in messages if message.tag == SEARCH_DONE]


@pytest.mark.parametrize("script, expected, request_parts", CASES)
def test_how_a_search_ends(world, standin, module_log, script, expected, request_parts):
    request = dict(request_parts)
    slapd = world.slapd(env=standin.env, directives=request.pop("directives", Slapd.DIRECTIVES),
                        access=request.pop("access", READABLE)).start()
    standin.script(**script)
    answers = Conversation(slapd, module_log).hold(**request)

    shown = [", ".join(map(repr, messages)) for messages in answers]
    if isinstance(expected, str):
        expected = [expected]
    # A star stands for the failure's text, the same both times.
    for messages, text in zip(shown, expected):
        if "*" in text:
            failures = {part.partition(": ")[2] for part in messages.split(", result ") if "52: " in part}
            assert len(failures) == 1, messages
            messages = messages.replace(": " + failures.pop(), "*")
        assert messages == text
    assert len(shown) == len(expected)
    # The second results carry no controls, and come after the first.
    for messages in answers:
        assert all(message.controls == [] for message in results(messages)[1:])
    assert slapd.stop() == 0
    assert standin.complaints() == []


def test_an_abandoned_search_is_not_answered(world, standin):
    slapd = world.slapd(env=standin.env).start()
    standin.script(**found(*(f"user{number}" for number in range(40))), delays={"vexLdapSearchNext": 20})
    client = WireClient(slapd.port, SECONDS)
    number = client.search(SUFFIX, FILTER, ["uid"])
    assert repr(client.read()) == "entry user0"
    client.abandon(number)
    client.send(b"")  # nothing more is to come for it: an unreadable request ends the connection
    rest = client.stream.read()
    assert b"user39" not in rest
    client.close()
    assert slapd.stop() == 0
    assert standin.complaints() == []
