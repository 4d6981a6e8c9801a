# SPDX-License-Identifier: Apache-2.0
"""slapd's access rules and overlays over the gateway, where they look at more of an entry than
is sent, or at other entries: as over back-mdb with the same ones."""
import ldap
import pytest
from ldap.controls.deref import DereferenceControl
from ldap.controls.sss import SSSRequestControl, SSSResponseControl
from ldap.controls.vlv import VLVRequestControl, VLVResponseControl

from company import PASSWORD
from compare import folded_dn
from gateway import EXAMPLES, SUFFIX
from judge import ldif
from peer import Mdb
from standard import standard_slapd

ANN, BOB = f"cn=Ann Lee,ou=Engineering,ou=People,{SUFFIX}", f"cn=Back\\5Cslash Bob,ou=R&D\\2C Labs,ou=People,{SUFFIX}"
LARGE, STORED = f"cn=large,ou=Groups,{SUFFIX}", f"cn=stored,ou=Groups,{SUFFIX}"
EVERYTHING = "(objectClass=*)"


@pytest.fixture
def both(world, agent, judged):
    """Starts both servers with the same lines. Ann and Bob can log in at back-mdb, too."""
    def start(*access, **parts):
        passwords = {ldap.dn.str2dn(dn)[0][0][1]: dn for dn in (ANN, BOB)}
        entries = [(dn, {**entry, "userPassword": [PASSWORD.encode()]} if ldap.dn.str2dn(dn)[0][0][1] in passwords else entry)
                   for dn, entry in judged]
        parts["access"] = ("access to attrs=userPassword by * auth", f'access to dn.base="{SUFFIX}" by * read', *(access or ("access to * by * read",)))
        peer = Mdb(world.folder, world.running_servers, ldif(entries), **parts)
        return peer.start(), standard_slapd(world, agent, **parts).start()
    return start


def connect(server, who):
    connection = ldap.initialize(server.uri)
    if who:
        connection.simple_bind_s(who, PASSWORD)
    return connection


def shown(server, who, attributes, filter=EVERYTHING, controls=None):
    """What a search shows of which entries, and how much of it; and its controls."""
    connection = connect(server, who)
    request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, filter, attributes, serverctrls=controls)
    _, found, _, returned = connection.result3(request)
    connection.unbind_ext()
    return [(dn.lower(), {name: len(values) for name, values in sorted(entry.items())}) for dn, entry in found], returned


RULES = {
    "who is named in an attribute": 'access to * by dnattr=manager read',
    "a group's own members": 'access to filter=(objectClass=groupOfNames) by dnattr=member read',
    "themselves": 'access to * by self read',
    "a group": f'access to * by group="{STORED}" read',
    "a group by its class and attribute": f'access to * by group/groupOfNames/member="{LARGE}" read',
    "a group that is not there": f'access to * by group="cn=none,ou=Groups,{SUFFIX}" read',
    "a set of a group's members": f'access to * by set="[{STORED}]/member & user" read',
    "a set of names": f'access to * by set="[{STORED}]/memberUid & user/uid" read',
    "a set of the one that is asked for": 'access to * by set="this/manager & user" read',
    "a set of the members of the one that is asked for": 'access to * by set="this/member & user" read',
    "a set by a search": f'rootdn "cn=manager,{SUFFIX}"\naccess to * by set="[ldap:///{SUFFIX}?member?sub?cn=stored]/member & user" read',
    "a set of a person's groups": f'access to * by set="user/memberOf & [{STORED.lower()}]" read',
    "a set of groups that both are in": 'access to filter=(objectClass=person) by set="this/memberOf & user/memberOf" read',
    "an entry's groups": f'access to filter="(memberOf={STORED})" by users read',
    "an entry's class": 'access to filter=(objectClass=posixAccount) by users read',
    "an entry's members": f'access to filter="(member={ANN})" by users read',
    "values": f'access to attrs=member val.regex=".*ann.*" by users read\naccess to * by users read',
}


@pytest.mark.parametrize("rule", RULES)
def test_who_may_see_what(both, rule):
    peer, gateway = both(*RULES[rule].split("\n"), "access to * by * none")
    seen = 0
    for who in (ANN, BOB, None):
        for attributes in (["1.1"], ["uid", "cn", "memberOf"], ["member"]):
            right, seen_here = (sorted(map(str, shown(server, who, attributes)[0])) for server in (peer, gateway))
            assert seen_here == right, (who, attributes)
            seen += len(right)
    assert (seen > 12) == ("not there" not in rule)


@pytest.mark.parametrize("rule", ["group", "set"])
def test_a_group_may_see_itself(both, rule):
    """Its own members decide, and they are not asked for."""
    peer, gateway = both({"group": f'access to * by group="{LARGE}" read', "set": f'access to * by set="[{LARGE}]/member & user" read'}[rule],
                         "access to * by * none")
    for server in (peer, gateway):
        connection = connect(server, ANN)
        assert [entry for _, entry in connection.search_s(LARGE, ldap.SCOPE_BASE, attrlist=["cn"])] == [{"cn": [b"large"]}]


# ---- overlays

def ordered(server, key, *controls, attributes=("1.1",)):
    """(the entries in their order, the controls that came back)."""
    sort = SSSRequestControl(ordering_rules=[key])
    return shown(server, None, list(attributes), "(objectClass=posixAccount)", [sort, *controls])


@pytest.fixture
def sorting(both):
    # The sorted pages of a connection count until slapd has seen its end.
    return both(modules=("sssvlv",), overlays=("overlay sssvlv", "sssvlv-max 100"))


@pytest.mark.parametrize("key", ["uidNumber", "-uidNumber", "sAMAccountName:caseIgnoreOrderingMatch", "-uid:2.5.13.3", "homeDirectory:caseExactOrderingMatch"])
def test_entries_are_sorted_by_slapds_overlay(sorting, key):
    peer, gateway = sorting
    right, right_controls = ordered(peer, key)
    seen, seen_controls = ordered(gateway, key)
    assert seen == right and len(right) > 40
    assert [control.result for control in seen_controls if isinstance(control, SSSResponseControl)] == [0]
    assert len(seen_controls) == len(right_controls)


def test_a_key_without_an_order_is_refused_as_ever(sorting):
    for server in sorting:
        with pytest.raises(ldap.INAPPROPRIATE_MATCHING):
            ordered(server, "cn")


def sorted_page(connection, page):
    """The overlay is done with a page a moment after its client has the page: another is busy until
    then. None: it stays so."""
    for _ in range(100):
        request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, "(objectClass=posixAccount)", ["1.1"],
                                        serverctrls=[SSSRequestControl(ordering_rules=["uidNumber"]), page])
        try:
            return connection.result3(request)
        except ldap.BUSY:
            connection.read_rootdse_s()
    return None


def test_sorted_pages(sorting):
    """They end where slapd's overlay ends them."""
    def pages(server):
        page, seen = ldap.controls.SimplePagedResultsControl(True, size=10, cookie=""), []
        connection = connect(server, None)
        while len(seen) < 20:
            answer = sorted_page(connection, page)
            if answer is None:
                return [*seen, "busy"]
            _, found, _, controls = answer
            seen.append([dn.lower() for dn, _ in found])
            [page.cookie] = [control.cookie for control in controls if control.controlType == page.controlType]
            if not page.cookie:
                return seen
        return seen
    peer, gateway = sorting
    assert pages(gateway) == pages(peer)
    assert len(pages(gateway)) > 3


@pytest.mark.parametrize("before, after, at", [(0, 4, 1), (2, 2, 10), (3, 0, 40)])
def test_a_window_on_the_sorted_entries(sorting, before, after, at):
    def window(server):
        view = VLVRequestControl(criticality=True, before_count=before, after_count=after, offset=at, content_count=0)
        found, controls = ordered(server, "uidNumber", view)
        [place] = [control for control in controls if isinstance(control, VLVResponseControl)]
        return found, (place.target_position, place.content_count, place.result)
    peer, gateway = sorting
    assert window(gateway) == window(peer)
    assert len(window(gateway)[0]) > 1


def test_attributes_of_those_who_are_named_come_along(both):
    def dereferenced(server):
        wish = DereferenceControl(True, {"member": ["uid", "cn"], "manager": ["mail"], "memberOf": ["gidNumber"]})
        connection = connect(server, None)
        request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, EVERYTHING, ["member", "manager", "memberOf"], serverctrls=[wish])
        _, found, *_ = connection.result4(request, add_ctrls=1)
        return {folded_dn(dn.encode()): {(attribute, folded_dn(who.encode()), str(sorted((name, sorted(values)) for name, values in more.items())))
                             for control in controls for attribute, some in control.derefRes.items() for who, more in some}
                for dn, _, controls in found}
    peer, gateway = both(modules=("deref",), overlays=("overlay deref",))
    assert dereferenced(gateway) == dereferenced(peer)


def test_a_search_in_an_entry_gives_it_values(world):
    """dynlist, for searches and compares. Only the gateway: no entry of back-mdb's has such a search."""
    agent = world.agent().start()
    map_file = world.folder / "lists.map"
    map_file.write_text((EXAMPLES / "applications.map").read_text(encoding="utf-8") + "\ninetOrgPerson.labeledURI = info\n",
                        encoding="utf-8")
    agent.modify(f"dn: {ANN}\nchangetype: modify\nreplace: info\n"
                 f"info: ldap:///ou=Engineering,ou=People,{SUFFIX}??one?(objectClass=posixAccount)\n")
    gateway = standard_slapd(world, agent, modules=("dynlist",), directives=(f'vextranslation "{map_file}"', "dirgate.ldap.standard true"),
                             overlays=("overlay dynlist", "dynlist-attrset inetOrgPerson labeledURI seeAlso")).start()
    connection = connect(gateway, None)
    engineers = connection.search_s(f"ou=Engineering,ou=People,{SUFFIX}", ldap.SCOPE_ONELEVEL, "(objectClass=posixAccount)", ["1.1"])
    [(_, ann)] = connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, "(uid=ann)", ["seeAlso"])
    assert len(engineers) > 5 and sorted(value.decode() for value in ann["seeAlso"]) == sorted(dn for dn, _ in engineers)
    assert connection.compare_s(ANN, "seeAlso", ANN.encode()) is True
    assert connection.compare_s(ANN, "seeAlso", SUFFIX.encode()) is False


@pytest.mark.parametrize("overlay", [("valsort", f"valsort-attr memberUid {SUFFIX} alpha-descend"), ("rwm", "rwm-map attribute surname sn"),
                                     ("memberof",), ("collect",), ("refint",), ("unique",), ("constraint",), ("ppolicy",)])
def test_with_other_overlays_entries_are_what_they_are_with_back_mdb(both, overlay):
    name, *lines = overlay
    peer, gateway = both(modules=(name,), overlays=(f"overlay {name}", *lines))
    right, seen = (sorted(map(str, shown(server, ANN, ["uid", "sn", "memberUid", "member", "memberOf"])[0])) for server in (peer, gateway))
    assert seen == right and len(right) > 100


def test_sorted_values(both):
    peer, gateway = both(modules=("valsort",), overlays=("overlay valsort", f"valsort-attr memberUid {SUFFIX} alpha-descend"))
    values = [connect(server, None).search_s(LARGE, ldap.SCOPE_BASE, attrlist=["memberUid"])[0][1]["memberUid"] for server in (peer, gateway)]
    assert values[1] == values[0] == sorted(values[0], reverse=True)


# ---- the rules about bits, which slapd has and the directories too

ALL, ANY = "1.2.840.113556.1.4.803", "1.2.840.113556.1.4.804"


@pytest.mark.parametrize("filter, some", [
    (f"(userAccountControl:{ALL}:=512)", True), (f"(userAccountControl:{ANY}:=513)", True), (f"(userAccountControl:{ALL}:=513)", False),
    (f"(groupType:{ALL}:=2147483648)", True), ("(groupType:integerBitAndMatch:=2)", True), (f"(groupType:{ANY}:=-1)", True),
    (f"(groupType:{ALL}:=0)", True), (f"(groupType:{ANY}:=0)", False), (f"(uidNumber:{ALL}:=1)", True),
    (f"(uidNumber:{ALL}:=4294967296)", False), (f"(uidNumber:{ALL}:=99999999999999999999)", False), (f"(uid:{ANY}:=1)", False),
    (f"(userAccountControl:{ALL}:=x)", False), (f"(!(userAccountControl:{ALL}:=512))", True), (f"(:{ALL}:=2)", True),
    # What nobody is shown, nobody finds by its bits.
    (f"(unicodePwd:{ALL}:=1)", False), (f"(userPassword:{ANY}:=1)", False), (f"(!(unicodePwd:{ALL}:=1))", False)])
def test_bits(peer, gateway, filter, some):
    right, seen = (sorted(map(str, shown(server, None, ["1.1"], filter)[0])) for server in (peer, gateway))
    assert seen == right and (len(right) > 0) == some
