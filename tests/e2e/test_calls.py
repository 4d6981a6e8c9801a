# SPDX-License-Identifier: Apache-2.0
"""What the module asks of libvex, call by call, and what it tells clients when a call
fails. A scripted libvex stands in for the agent."""
import ldap
import pytest

from gateway import SUFFIX, ScriptedAgent, Slapd, failure, search, values, wait_until

ANN = f"cn=Ann Lee,ou=Staff,{SUFFIX}"
SHOWN = f"cn=ann,ou=Staff,{SUFFIX}"
GUID = "6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1001"
OBJECT = [["_dn", ANN], ["_GUID", GUID], ["_objectCategory", "Person"], ["sAMAccountName", "ann"], ["cn", "Ann Lee"],
          ["uidNumber", "20001"], ["objectClass", "top", "user"]]
FILTER = "(&(objectClass=posixAccount)(uid=ann))"
AGENT_FILTER = "(&(objectClass=User)(sAMAccountName=ann))"
BASE = "dc=example,dc=com"  # as slapd hands DNs on
OPENED = ["vexSetOption(null, 4, 1)", "vexSessionOpen(1, 21)", "vexSetOption(session1, 4, 1)"]
CLOSED = ["vexLdapSearchClose(search1)", "vexSessionClose(session1)"]


@pytest.fixture
def standin(world):
    agent = world.agent()
    return ScriptedAgent(world.folder, agent.settings_file)


@pytest.fixture
def start(world, standin):
    """Starts slapd with further directives; at the test's end the stand-in must have no complaint."""
    def started(*directives, lines=Slapd.DIRECTIVES):
        return world.slapd(env=standin.env, directives=[*lines, *directives]).start()
    yield started
    for server in world.running_servers:
        if server.process:
            assert server.stop() == 0
    assert standin.complaints() == []


def opened(filter=AGENT_FILTER, base=BASE, attributes="null", scope=2, domain="", size=-1, page=0):
    return f'vexLdapSearchOpen(session1, "{domain}", "{filter}", "{base}", {attributes}, {scope}, {size}, {page})'


# ---- searches

def test_a_search_that_names_a_class(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT]}])
    found = search(slapd.connect(), FILTER, ["uid", "uidNumber"])
    assert {dn: values(entry, "uid") for dn, entry in found.items()} == {SHOWN: ["ann"]}
    assert standin.requests() == [
        *OPENED, "vexSetOption(session1, 64, 1)",
        opened(attributes='["sAMAccountName","uidNumber","sAMAccountName","_objectCategory","_nssEntryInvalid"]'),
        "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)", *CLOSED]


def test_with_cn_by_name_the_naming_attribute_is_not_asked_for_again(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT]}])
    found = search(slapd.connect(), FILTER, ["cn"])
    assert [values(entry, "cn") for entry in found.values()] == [["ann"]]
    assert opened(attributes='["sAMAccountName","_objectCategory","_nssEntryInvalid"]') in standin.requests()


@pytest.mark.parametrize("asked, attributes", [(["*"], "null"), (None, "null"), (["1.1"],
                         '["_dn","sAMAccountName","_objectCategory","_nssEntryInvalid"]')])
def test_the_attributes_that_stand_for_others(start, standin, asked, attributes):
    slapd = start()
    search(slapd.connect(), FILTER, asked)
    assert opened(attributes=attributes) in [line.replace("[], ", "null, ") for line in standin.requests()]


def test_a_search_that_names_no_class(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT]}])
    found = search(slapd.connect(), "(uidNumber>=20001)", ["cn"])
    assert list(found) == [ANN]
    assert standin.requests() == [
        *OPENED, "vexSetOption(session1, 64, 0)", opened("(uidNumber=20001)", attributes='["cn"]'),
        "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)", *CLOSED]


def test_without_a_translation_the_zone_s_view_is_not_asked_for(start, standin):
    slapd = start(lines=[])
    search(slapd.connect(), "(cn=ann)", ["cn"])
    assert standin.requests() == [
        "vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)", opened("(cn=ann)", attributes='["cn"]'),
        "vexLdapSearchNext(search1)", *CLOSED]


@pytest.mark.parametrize("scope", [ldap.SCOPE_ONELEVEL, ldap.SCOPE_SUBTREE, ldap.SCOPE_SUBORDINATE])
def test_scopes_and_limits_are_handed_on(start, standin, scope):
    slapd = start()
    search(slapd.connect(), "(cn=ann)", ["cn"], scope=scope, sizelimit=7)
    assert opened("(cn=ann)", attributes='["cn"]', scope=scope, size=7) in standin.requests()


def test_a_netgroup_search(start, standin):
    slapd = start()
    zone = "CN=netgroup,CN=Rfc2307NisMaps,CN=Global,CN=Zones,DC=example,DC=com"
    standin.script(searches=[{"objects": [[
        ["_dn", f"CN=hosts,{zone}"], ["_objectCategory", "nisNetgroup"], ["cn", "hosts"], ["nisNetgroupTriple", "(a,b,c)"]]]}])
    found = search(slapd.connect(), "(&(objectClass=nisNetgroup)(cn=hosts))", ["nisNetgroupTriple"])
    assert list(found) == [f"cn=hosts,cn=netgroup,cn=Rfc2307NisMaps,cn=Global,cn=Zones,{SUFFIX}"]
    assert standin.requests()[:5] == [
        *OPENED, "vexSetOption(session1, 64, 0)",
        opened("(&(objectClass=nisNetgroup)(cn=hosts))", zone, '["nisNetgroupTriple"]', domain="example.com")]


def test_the_whole_forest_by_cn_dollar(start, standin):
    """Found anywhere by its name alone, then fetched from its own domain."""
    slapd = start()
    far = "cn=Ann Lee,ou=Staff,dc=far,dc=example,dc=com"
    standin.script(searches=[{"objects": [[["_dn", far], ["_GUID", GUID], ["_objectCategory", "Person"]]]}],
                   fetch={far: [["_dn", far], *OBJECT[1:]]})
    found = search(slapd.connect(), FILTER, ["uid"], f"cn=$,{SUFFIX}")
    assert {dn: values(entry, "uid") for dn, entry in found.items()} == {
        "cn=ann,ou=Staff,dc=far,dc=example,dc=com": ["ann"]}
    asked = '["sAMAccountName","sAMAccountName","_objectCategory","_nssEntryInvalid"]'
    assert standin.requests() == [
        *OPENED, "vexSetOption(session1, 64, 1)", opened(attributes='["1.1"]', domain="$"),
        "vexLdapSearchNext(search1)", f'vexLdapFetch(session1, "far.example.com", "{far}", {asked})',
        "vexLdapSearchNext(search1)", *CLOSED]


def test_the_suffix_itself_asks_nothing_but_opens_a_session(start, standin):
    slapd = start()
    found = search(slapd.connect(), "(objectClass=*)", None, SUFFIX, ldap.SCOPE_BASE)
    assert len(found) == 1
    assert standin.requests() == [*OPENED, "vexSessionClose(session1)"]


def test_a_base_search_for_a_made_up_uid_dn(start, standin):
    slapd = start("dirgate.vextranslate.fetchbydnuid true")
    standin.script(searches=[{"objects": [OBJECT]}])
    base = f"uid=ann,ou=people,{BASE}"
    found = search(slapd.connect(), "(objectClass=*)", ["uidNumber"], base, ldap.SCOPE_BASE)
    assert {dn: values(entry, "uidNumber") for dn, entry in found.items()} == {SHOWN: ["20001"]}
    assert opened(AGENT_FILTER, base, '["uidNumber"]', 0) in standin.requests()


def test_without_the_directive_a_made_up_uid_dn_is_nobody_s(start, standin):
    slapd = start("dirgate.vextranslate.fetchbydnuid false")
    standin.script(searches=[{"objects": [OBJECT]}])
    base = f"uid=ann,ou=people,{BASE}"
    assert search(slapd.connect(), "(objectClass=*)", ["uidNumber"], base, ldap.SCOPE_BASE) == {}
    assert opened("(objectClass=*)", base, '["uidNumber"]', 0) in standin.requests()


def test_an_object_that_carries_the_marker_is_passed_over_even_when_it_says_false(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [[*OBJECT, ["_nssEntryInvalid", "FALSE"]], OBJECT]}])
    found = slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    assert len(found) == 1


def test_an_entry_that_slapd_cannot_read_is_passed_over(start, standin):
    slapd = start()
    bad = [["_dn", "not a dn"], ["_objectCategory", "Person"], ["sAMAccountName", "a,b"]]
    standin.script(searches=[{"objects": [bad, OBJECT, [["_objectCategory", "Person"]]]}])
    assert len(search(slapd.connect(), FILTER, ["uid"])) == 1


def test_a_time_limit_that_passes_while_the_agent_answers(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT] * 5}], delays={"vexLdapSearchNext": 1100})
    connection = slapd.connect()
    request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"], timeout=1)
    with pytest.raises(ldap.TIMELIMIT_EXCEEDED) as caught:
        connection.result3(request, timeout=30)
    assert failure(caught.value) == (3, "")


def test_a_client_that_goes_away_in_the_middle(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT] * 50}], delays={"vexLdapSearchNext": 20})
    connection = slapd.connect()
    connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    wait_until(lambda: sum("SearchNext" in line for line in standin.lines()) >= 2, "the search is under way")
    connection.unbind_ext()
    wait_until(lambda: "vexSessionClose(session1)" in standin.lines(), "its session is closed")
    assert "vexLdapSearchClose(search1)" in standin.lines()


def test_a_paged_search_that_is_never_read_to_its_end(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT] * 5}])
    control = ldap.controls.SimplePagedResultsControl(True, size=2, cookie="")
    connection = slapd.connect()
    request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"], serverctrls=[control])
    assert len(connection.result3(request)[1]) == 2
    assert opened(attributes='["sAMAccountName","sAMAccountName","_objectCategory","_nssEntryInvalid"]',
                  page=2) in standin.requests(still_open=1)
    connection.unbind_ext()
    wait_until(lambda: "vexSessionClose(session1)" in standin.lines(), "the connection's search is released")
    assert standin.requests() == CLOSED


def test_an_open_paged_search_when_slapd_stops(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT] * 5}])
    control = ldap.controls.SimplePagedResultsControl(True, size=2, cookie="")
    connection = slapd.connect()
    connection.result3(connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"], serverctrls=[control]))
    slapd.connections.clear()  # still open when it stops
    assert slapd.stop() == 0
    assert CLOSED == standin.requests()[-2:]


# ---- the search cache

def test_a_cached_search_asks_for_all_attributes_and_then_not_at_all(start, standin):
    slapd = start("dirgate.cache.enabled true")
    standin.script(users={SHOWN: {"secret": 0}, SHOWN: {"secret": 0}},
                   supported=["sAMAccountName", "uidNumber", "cn"],
                   searches=[{"filter": AGENT_FILTER, "objects": [OBJECT]}])
    slapd.connect(SHOWN, "secret")
    standin.requests()
    first = search(slapd.connect(), FILTER, ["uid"])
    requests = standin.requests()
    assert any('"%s", %s, 2, -1, 0)' % (BASE, nothing) in line for line in requests for nothing in ("null", "[]"))
    assert search(slapd.connect(), FILTER, ["uid"]) == first
    assert [line for line in standin.requests() if "Ldap" in line or "Lookup" in line] == []
    # Other attributes, the same search: the object was kept whole.
    again = search(slapd.connect(), FILTER, ["uidNumber"])
    assert [values(entry, "uidNumber") for entry in again.values()] == [["20001"]]
    assert [line for line in standin.requests() if "Ldap" in line or "Lookup" in line] == []


def test_before_the_first_bind_nothing_is_cached(start, standin):
    slapd = start("dirgate.cache.enabled true")
    standin.script(searches=[{"filter": AGENT_FILTER, "objects": [OBJECT]}])
    for _ in range(2):
        search(slapd.connect(), FILTER, ["uid"])
        assert len([line for line in standin.requests() if line.startswith("vexLdapSearchOpen")]) == 1


# ---- binds

def test_a_bind(start, standin):
    slapd = start()
    standin.script(users={SHOWN: {"secret": 0}}, supported=["cn"])
    slapd.connect(SHOWN, "secret")
    assert standin.requests() == [
        "vexSessionOpen(1, 21)", "vexGetObjectSupportedAttributes(session1)", "vexSetOption(session1, 256, 1)",
        "vexSetOption(session1, 4096, 1)", f'vexAuthValidatePlainTextUser(session1, "{SHOWN}", "secret", 0)',
        "vexSessionClose(session1)"]


def test_the_second_bind_asks_for_no_list(start, standin):
    slapd = start("vex-auth-prefer-cache false")
    ben = f"cn=ben,{SUFFIX}"
    standin.script(users={SHOWN: {"secret": 0}, ben: {"secret": 0}}, supported=["cn"])
    slapd.connect(SHOWN, "secret")
    standin.requests()
    slapd.connect(ben, "secret")
    requests = standin.requests()
    assert [line.split("(")[0] for line in requests] == [
        "vexSessionOpen", "vexAuthValidatePlainTextUser", "vexSessionClose"]


def test_the_same_bind_again_asks_nothing(start, standin):
    slapd = start()
    standin.script(users={SHOWN: {"secret": 0}}, supported=["cn"])
    slapd.connect(SHOWN, "secret")
    standin.requests()
    slapd.connect(SHOWN, "secret")
    assert standin.requests() == []
    standin.script(always={"vexAuthValidatePlainTextUser": 14})
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        slapd.connect(SHOWN, "other")
    assert len([line for line in standin.requests() if line.startswith("vexAuth")]) == 1


def test_a_bind_that_fails(start, standin):
    slapd = start()
    standin.script(always={"vexAuthValidatePlainTextUser": 14}, supported=["cn"])
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect(SHOWN, "wrong")
    assert failure(caught.value) == (49, "vexAuth : cannot bind to server due to invalid user or password.")
    assert [line.split("(")[0] for line in standin.requests()] == [
        "vexSessionOpen", "vexGetObjectSupportedAttributes", "vexSetOption", "vexSetOption",
        "vexAuthValidatePlainTextUser", "vexSystemHealthInfo", "vexSessionClose"]


# ---- failures, word for word

BROKEN = "Failed to communicate with vexagent due to broken session handle"
CASES = [  # the code of the failing call, the rest of the script, the result, the text after the call's name
    (6, {}, 52, f": {BROKEN}"),
    (32, {"health": {"condition": 12}}, 52, f": {BROKEN}"),
    (8, {"answers": {"vexSystemHealthInfo": [6]}}, 52,
     ": Failed to retrieve last system error, due to broken session handle."),
    (8, {"health": {"condition": 12, "system": 2, "code": -1, "text": "no server"}}, 52,
     ":System is unhealthy(cc=12), reason:unavailable, errSystem=LDAP, errCode=-1, errString=no server"),
    (14, {"health": {"condition": 12, "system": 3, "code": -1765328228}}, 52,
     ":System is unhealthy(cc=12), reason:unavailable, errSystem=Kerberos, errCode=-1765328228, errString=<No Message>"),
    (13, {}, 49, ": cannot bind to server due to invalid user or password."),
    (14, {}, 49, ": cannot bind to server due to invalid user or password."),
    (8, {"error": {"system": 2, "code": 53, "text": "not now"}}, 53,
     ":directory error (vexRC=8), errSystem=LDAP, errCode=53, errString=not now"),
    (8, {"error": {"system": 2, "code": -1}}, 52,
     ":directory error (vexRC=8), errSystem=LDAP, errCode=-1, errString=<No Message>"),
    (15, {"error": {"system": 3, "code": -1765328366, "text": "revoked"}}, 80,
     ":account refused (vexRC=15), errSystem=Kerberos, errCode=-1765328366, errString=revoked"),
    (8, {"answers": {"vexGetLastProtocolError": [6]}}, 52,
     ": Failed to retrieve last protocol error, due to broken session handle"),
    (8, {"answers": {"vexGetLastProtocolError": [10]}}, 80, ": directory error (vexRC=8)"),
]


def script_failing(function, code, sections):
    answers = {**sections.get("answers", {}), function: [code]}
    return {"supported": ["cn"], **sections, "answers": answers}


@pytest.mark.parametrize("code, sections, result, text", CASES)
def test_the_texts_of_a_failed_search(start, standin, code, sections, result, text):
    slapd = start()
    standin.script(**script_failing("vexLdapSearchOpen", code, sections))
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER)
    assert failure(caught.value) == (result, "vexLdapSearch " + text)


@pytest.mark.parametrize("code, sections, result, text", CASES)
def test_the_texts_of_a_failed_bind(start, standin, code, sections, result, text):
    slapd = start()
    for function, name in (("vexGetObjectSupportedAttributes", "vexGetObjectSupportedAttributes "),
                           ("vexAuthValidatePlainTextUser", "vexAuth ")):
        standin.script(**script_failing(function, code, sections))
        with pytest.raises(ldap.LDAPError) as caught:
            slapd.connect(SHOWN, "secret")
        assert failure(caught.value) == (result, name + text)


@pytest.mark.parametrize("code, text", [
    (6, BROKEN), (32, BROKEN), (3, "Failed to retrieve last system error, due to broken session handle.")])
def test_the_texts_when_no_session_could_be_opened(start, standin, code, text):
    """Nothing can be asked about the reason, either."""
    slapd = start()
    standin.script(always={"vexSessionOpen": code})
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER)
    assert failure(caught.value) == (52, f"vexSessionOpen: {text}")
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect(SHOWN, "secret")
    assert failure(caught.value) == (52, f"vexAuth : {text}")


@pytest.mark.parametrize("code", [6, 8, 12])
def test_a_search_that_breaks_off_is_a_failure(start, standin, code):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT], "end": code}], error={"system": 2, "code": 51, "text": "busy"})
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    result, text = failure(caught.value)
    assert (result, text.startswith("vexLdapSearch :")) == (52 if code == 6 else 51, True)


def test_without_the_directive_it_ends_as_if_it_were_whole(start, standin):
    slapd = start(lines=[line for line in Slapd.DIRECTIVES if "report.errors" not in line])
    standin.script(searches=[{"objects": [OBJECT], "end": 6}, {"objects": [], "end": 6}])
    assert len(search(slapd.connect(), FILTER, ["uid"])) == 1
    with pytest.raises(ldap.NO_SUCH_OBJECT):
        slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, FILTER)


def test_a_fetch_that_fails(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [OBJECT]}], fetch={ANN: 8}, error={"system": 2, "code": 32})
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(f"cn=$,{SUFFIX}", ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    assert failure(caught.value) == (
        32, "vexLdapFetch :directory error (vexRC=8), errSystem=LDAP, errCode=32, errString=<No Message>")


def test_an_object_without_a_dn_to_fetch_by(start, standin):
    slapd = start()
    standin.script(searches=[{"objects": [[["_objectCategory", "Person"], ["sAMAccountName", "ann"], {"unreadable": "_dn", "code": 8}]]}],
                   error={"system": 1, "code": 8})
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(f"cn=$,{SUFFIX}", ldap.SCOPE_SUBTREE, FILTER, ["uid"])
    assert failure(caught.value) == (
        80, "vexGetAttributeStr(DN):directory error (vexRC=8), errSystem=agent, errCode=8, errString=<No Message>")


# ---- netgroup bases that belong nowhere

@pytest.mark.parametrize("settings, base, text", [
    ({"zone.dn": ""}, SUFFIX, "vex dirgate: can not get currently joined zone dn"),
    ({"domain.name": ""}, SUFFIX, "vex dirgate: can not get currently joined domain name"),
    ({"domain.name": "other.net", "zone.dn": "CN=Global,CN=Zones,DC=other,DC=net"}, SUFFIX,
     "vex dirgate: the specified search base is different from the currently joined domain dn "
     "or the currently joined zone domain dn"),
])
def test_a_netgroup_base_that_is_refused(world, standin, start, settings, base, text):
    world.agent(**{name.replace(".", "__"): value for name, value in settings.items()})
    slapd = start()
    with pytest.raises(ldap.LDAPError) as caught:
        slapd.connect().search_s(base, ldap.SCOPE_SUBTREE, "(objectClass=nisNetgroup)")
    assert failure(caught.value) == (80, text)
    assert standin.requests() == ["vexSetOption(null, 4, 1)"]
