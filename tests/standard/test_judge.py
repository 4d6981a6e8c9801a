# SPDX-License-Identifier: Apache-2.0
"""The judge and the comparison themselves: what they say must be so, and what is wrong
must not go unseen."""
import itertools

import pytest

import filters
from client import Answer, Search
from compare import Comparison, ask_both
from judge import ldif, records
from known import KNOWN, MOST
from peer import Mdb, dump
from questions import Questions

ENOUGH = 1500


@pytest.fixture(scope="module")
def by_dn(judged):
    return dict(judged)


PEOPLE, GROUPS = "OU=People,DC=example,DC=com", "OU=Groups,DC=example,DC=com"
ENGINEERING = f"OU=Engineering,{PEOPLE}"


def test_a_person_has_one_entry_with_all_its_classes(by_dn):
    ann = by_dn[f"CN=Ann Lee,{ENGINEERING}"]
    assert ann["objectClass"] == [b"top", b"person", b"organizationalPerson", b"inetOrgPerson", b"posixAccount", b"shadowAccount",
                                  b"adObject"]
    assert (ann["uid"], ann["homeDirectory"], ann["sAMAccountName"]) == ([b"ann"], [b"/home/ann"], [b"ann"])
    assert "userPassword" not in ann and "info" not in ann
    assert by_dn[f"CN=José Ångström,OU=R&D\\, Labs,{PEOPLE}"]["street"] == [b"1 Main Street"]


def test_a_person_without_numbers_is_no_account(by_dn):
    guest, refused = by_dn[f"CN=Guest Researcher,{ENGINEERING}"], by_dn[f"CN=Below Least,{ENGINEERING}"]
    for person in (guest, refused):
        assert not {b"posixAccount", b"shadowAccount"} & set(person["objectClass"])
        assert not {"uidNumber", "gidNumber", "homeDirectory", "loginShell", "gecos"} & set(person)
    assert by_dn[f"CN=No Surname Service,{ENGINEERING}"]["sn"] == [b"No Surname Service"]


def test_a_group_holds_whom_its_groups_hold_and_whose_primary_group_it_is(by_dn):
    deepest, outermost = by_dn[f"cn=depth5,{GROUPS}"], by_dn[f"cn=depth1,{GROUPS}"]
    assert set(deepest["memberUid"]) < set(outermost["memberUid"]) and set(deepest["member"]) < set(outermost["member"])
    assert by_dn[f"cn=contractors,{GROUPS}"]["memberUid"] == [b"contractor"]
    assert set(by_dn[f"cn=cycle-a,{GROUPS}"]["member"]) == set(by_dn[f"cn=cycle-b,{GROUPS}"]["member"])


def test_a_group_without_members_is_one_that_may_be_empty(by_dn):
    assert b"groupOfMembers" in by_dn[f"cn=empty,{GROUPS}"]["objectClass"]
    assert by_dn[f"cn=mailing-list,{GROUPS}"]["objectClass"] == [b"top", b"groupOfNames", b"mailGroup", b"adObject"]


def test_what_a_person_is_a_member_of_is_the_other_side_of_member(judged):
    members = {(member, dn.encode()) for dn, entry in judged for member in entry.get("member", ())}
    assert members and members == {(dn.encode(), group) for dn, entry in judged for group in entry.get("memberOf", ())}


def test_what_is_not_shown(by_dn):
    names = " ".join(by_dn)
    assert "Some Contact" not in names and "NOTHING" not in names and "Real Name" not in names
    assert [dn for dn in by_dn if "loop-a" in dn] == ["CN=loop-a,CN=netgroup,CN=Rfc2307NisMaps,CN=Global,CN=Zones,DC=example,DC=com"]


def test_a_file_is_read_as_it_is_meant():
    text = "# a comment\n that goes on\nversion: 1\ndn: CN=a\ncn:: w6k=\ndescription: long\n er\n\n\n# x\ndn:: Q049Yg==\ncn: b\n"
    assert records(text) == [("CN=a", {"cn": ["é".encode()], "description": [b"longer"]}), ("CN=b", {"cn": [b"b"]})]


def test_filters_are_drawn_from_every_kind_and_to_their_depth(peer):
    drawn = [question for question in itertools.islice(Questions(dump(peer), 1), 3000) if isinstance(question, Search)]
    def kinds(tree):
        inner = tree[1] if tree[0] in ("and", "or") else [tree[1]] if tree[0] == "not" else []
        return {tree[0]}.union(*map(kinds, inner))
    assert set().union(*(kinds(question.filter) for question in drawn)) == {"and", "or", "not", "present", "=", ">=", "<=", "~=",
                                                                            "sub", ":="}
    assert max(filters.depth(question.filter) for question in drawn) == 6
    assert {question.scope for question in drawn} == {0, 1, 2, 3} and {question.kind for question in drawn} == {"search", "pages",
                                                                                                              "size limit"}


def test_the_same_seed_asks_the_same(peer):
    entries = dump(peer)
    first, second = (list(itertools.islice(Questions(entries, 7), 200)) for _ in range(2))
    assert first == second


def test_the_same_entries_on_another_server_agree_in_everything(shared_world, peer, judged, dn_names):
    # In another order, which is nobody's business.
    twin = Mdb(shared_world.folder, shared_world.running_servers, ldif(sorted(judged, key=lambda entry: len(entry[0]))), name="twin")
    comparison = ask_both(peer, twin.start(), dn_names, ENOUGH)
    assert not comparison.found, comparison.report()
    assert comparison.percentage() == 100
    # There was something to agree about.
    assert comparison.agreed.total() == ENOUGH


def without(entry, name):
    return {key: values for key, values in entry.items() if key != name}


CHANGES = {
    "an entry less": lambda dn, entry: None if dn.startswith("CN=Some") or dn.startswith("CN=a,") else (dn, entry),
    "an attribute less": lambda dn, entry: (dn, without(entry, "description")),
    "another value": lambda dn, entry: (dn, {**entry, "displayName": [b"Somebody Else"]} if "displayName" in entry else entry),
    "another time": lambda dn, entry: (dn, {**entry, "modifyTimestamp": [b"20260101000000Z"]}),
}


@pytest.mark.parametrize("change", CHANGES)
def test_what_is_different_is_seen(shared_world, peer, judged, dn_names, change):
    changed = [entry for entry in (CHANGES[change](dn, entry) for dn, entry in judged) if entry]
    name = f"changed-{list(CHANGES).index(change)}"
    other = Mdb(shared_world.folder, shared_world.running_servers, ldif(changed), name=name).start()
    comparison = ask_both(peer, other, dn_names, ENOUGH)
    assert comparison.found and comparison.percentage() < 100
    assert "ldapsearch" in comparison.report()


@pytest.mark.parametrize("change, what", [
    ({"code": 32}, "result"), ({"matched": "dc=com"}, "matched DN"), ({"controls": (b"1.2.3",)}, "controls"), ({"sizes": (2,)}, "pages"),
    ({"entries": []}, "entries"), ({"entries": [("cn=a", {"cn": (b"a",)})] * 2}, "entries"),
    ({"entries": [("cn=a", {"cn": (b"A",)})]}, "values"), ({"entries": [("cn=a", {"CN": (b"a",)})]}, "attributes"),
    ({"entries": [("cn=a", {"cn": (b"a", b"a")})]}, "values")])
def test_every_part_of_an_answer_is_looked_at(change, what):
    right = {"entries": [("cn=a", {"cn": (b"a",)})]}
    comparison = Comparison(None, None, set())
    question = Search(b"", 2, ("present", "cn"))
    assert not comparison.differences(question, Answer(**right), Answer(**right))
    assert what in {one.what for one in comparison.differences(question, Answer(**right), Answer(**{**right, **change}))}


@pytest.mark.parametrize("missing, code, explained", [
    ("cn=ｗide", 0, True), ("cn=plain", 0, False), ("cn=é", 0, False), ("cn=ｗide", 32, False), (None, 0, False)])
def test_a_known_difference_explains_no_other(missing, code, explained):
    """What is missing has a letter that becomes an ASCII one, and all else is alike."""
    entries = {dn: {"cn": (dn[3:].encode(),)} for dn in ("cn=ｗide", "cn=plain", "cn=é")}
    right = Answer(entries=list(entries.items()))
    answer = Answer(code=code, entries=[entry for entry in entries.items() if entry[0] != missing])
    assert KNOWN[0].explains(Search(b"dc=example", 2, ("present", "cn")), right, answer, entries) == explained


def test_few_kinds_of_differences_are_known_each_with_its_reason():
    assert len(KNOWN) <= MOST
    assert all(one.name and len(one.reason.split()) > 4 for one in KNOWN)
