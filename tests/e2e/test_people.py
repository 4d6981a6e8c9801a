# SPDX-License-Identifier: Apache-2.0
"""What clients see of the example directory."""
import ldap
import pytest

from gateway import SUFFIX, failure, search, values

PEOPLE = f"ou=People,{SUFFIX}"


def person(connection, name, attributes=None, object_class="posixAccount"):
    found = search(connection, f"(&(objectClass={object_class})(uid={name}))", attributes)
    assert len(found) == 1, found
    return next(iter(found.items()))


def group_members(connection, name):
    found = search(connection, f"(&(objectClass=posixGroup)(cn={name}))", ["memberUid"])
    assert len(found) == 1, found
    return set(values(next(iter(found.values())), "memberUid"))


def groups_of(connection, name):
    found = search(connection, f"(&(objectClass=posixGroup)(memberUid={name}))", ["cn"])
    return {value for entry in found.values() for value in values(entry, "cn")}


# ---- accounts

def test_an_account_has_its_rfc2307_attributes(anonymous):
    dn, entry = person(anonymous, "ann", ["uid", "uidNumber", "gidNumber", "homeDirectory", "loginShell", "gecos"])
    assert dn == f"cn=ann,ou=Engineering,{PEOPLE}"
    assert values(entry, "uid") == ["ann"]
    assert values(entry, "uidNumber") == ["20001"]
    assert values(entry, "gidNumber") == ["10000"]
    assert values(entry, "homeDirectory") == ["/home/ann"]
    assert values(entry, "loginShell") == ["/bin/bash"]
    assert values(entry, "gecos") == ["Ann Lee"]


def test_an_account_is_found_by_uid_number(anonymous):
    found = search(anonymous, "(&(objectClass=posixAccount)(uidNumber=20002))", ["uid"])
    assert list(found) == [f"cn=ben,ou=Engineering,{PEOPLE}"]


def test_every_unix_account_is_enumerated_and_no_other(anonymous):
    found = search(anonymous, "(objectClass=posixAccount)", ["uid", "uidNumber"])
    names = {values(entry, "uid")[0] for entry in found.values()}
    assert len(found) == 38  # 37 people with a uid number and one service
    assert "guest" not in names
    assert all(len(values(entry, "uidNumber")) == 1 for entry in found.values())


def test_an_account_without_a_uid_number_does_not_exist(anonymous):
    with pytest.raises(ldap.NO_SUCH_OBJECT):
        anonymous.search_s(SUFFIX, ldap.SCOPE_SUBTREE, "(&(objectClass=posixAccount)(uid=guest))")


def test_a_disabled_account_is_still_found(anonymous):
    dn, _ = person(anonymous, "iris")
    assert dn == f"cn=iris,ou=Former,{PEOPLE}"


def test_a_search_that_names_no_class_does_not_show_it_either(anonymous):
    assert len(search(anonymous, "(sAMAccountName=ann)", ["displayName"])) == 1
    assert search(anonymous, "(sAMAccountName=guest)", ["displayName"]) == {}


def test_shadow_attributes(anonymous):
    dn, entry = person(anonymous, "ann", ["uid", "shadowMax", "shadowWarning", "shadowLastChange"], "shadowAccount")
    assert dn == f"cn=ann,ou=Engineering,{PEOPLE}"
    assert values(entry, "shadowMax") == ["180"]
    assert values(entry, "shadowWarning") == ["14"]
    assert values(entry, "shadowLastChange") == ["20500"]


@pytest.mark.parametrize("name, display", [
    ("chloe", "Chloé Dubois"),
    ("taro", "山田 太郎"),
    ("vasilis", "Βασίλης Παππάς"),
    ("kit", 'Katherine "Kit" O\'Neil'),
])
def test_names_outside_ascii_and_with_quotes_arrive_as_they_are(anonymous, name, display):
    _, entry = person(anonymous, name, ["displayName"])
    assert values(entry, "displayName") == [display]


@pytest.mark.parametrize("text, name", [
    ("displayName=Chloé Dubois", "chloe"),
    ("displayName=山田 太郎", "taro"),
    ("displayName=Łukasz*", "lukasz"),
    ("displayName=*\\28nobody\\29*", None),
    ("uid=a*n", "ann"),
])
def test_values_outside_ascii_are_found(anonymous, text, name):
    found = search(anonymous, f"(&(objectClass=posixAccount)({text}))", ["uid"])
    assert [values(entry, "uid") for entry in found.values()] == ([[name]] if name else [])


@pytest.mark.parametrize("name, rdn", [
    ("grace", "cn=Lovelace\\2C Grace"),
    ("kit", "cn=Katherine \\22Kit\\22 O'Neil"),
    ("sven", "cn=Sven \\2B Partner"),
    ("tim", "cn=Tim Tester \\3Ctim\\3E"),
    ("bob", "cn=Back\\5Cslash Bob"),
    ("adam2", "cn=Smith\\2C Adam (2)"),
])
def test_real_names_with_special_characters_are_good_dns(anonymous, name, rdn):
    dn, _ = person(anonymous, name, ["uid"], "inetOrgPerson")
    assert ldap.dn.str2dn(dn)[0] == ldap.dn.str2dn(rdn)[0]
    assert dn.endswith(PEOPLE) and len(ldap.dn.str2dn(dn)) == 5


def test_address_books_find_people_by_their_full_name(anonymous):
    found = search(anonymous, "(&(objectClass=inetOrgPerson)(cn=Ann*))", ["cn", "mail", "proxyAddresses"])
    assert list(found) == [f"cn=Ann Lee,ou=Engineering,{PEOPLE}"]
    entry = found[f"cn=Ann Lee,ou=Engineering,{PEOPLE}"]
    assert values(entry, "cn") == ["Ann Lee"]
    assert values(entry, "mail") == ["ann@example.com"]
    assert sorted(values(entry, "proxyAddresses")) == ["SMTP:ann@example.com", "smtp:ann.lee@example.com"]


def test_a_base_search_reads_one_entry(anonymous):
    dn = f"cn=Ann Lee,ou=Engineering,{PEOPLE}"
    assert list(search(anonymous, "(objectClass=*)", ["displayName"], dn, ldap.SCOPE_BASE)) == [dn]
    # As an account her DN is the rewritten one, which is not the base that was asked for.
    assert search(anonymous, "(objectClass=posixAccount)", ["uid"], dn, ldap.SCOPE_BASE) == {}


def test_the_scopes(anonymous):
    one_level = search(anonymous, "(objectClass=posixAccount)", ["uid"], f"ou=Finance,{PEOPLE}", ldap.SCOPE_ONELEVEL)
    assert len(one_level) == 6
    assert search(anonymous, "(objectClass=posixAccount)", ["uid"], PEOPLE, ldap.SCOPE_ONELEVEL) == {}
    assert len(search(anonymous, "(objectClass=posixAccount)", ["uid"], PEOPLE)) == 37


def test_a_base_that_does_not_exist(anonymous):
    # The directory's own answer, not the one for "nothing found".
    with pytest.raises(ldap.LDAPError) as caught:
        anonymous.search_s(f"ou=Nowhere,{SUFFIX}", ldap.SCOPE_SUBTREE, "(objectClass=posixAccount)")
    code, text = failure(caught.value)
    assert code in (ldap.NO_SUCH_OBJECT.errnum, ldap.OTHER.errnum)
    assert text.startswith("vexLdapSearch :") or code == ldap.NO_SUCH_OBJECT.errnum


# ---- the attributes asked for

def names(entry):
    return {name.lower() for name in entry}


def test_only_the_attributes_asked_for_are_sent(anonymous):
    _, entry = person(anonymous, "ann", ["uidNumber", "homeDirectory"])
    assert names(entry) == {"uidnumber", "homedirectory"}


def test_no_attributes(anonymous):
    _, entry = person(anonymous, "ann", ["1.1"])
    assert entry == {}


def test_all_attributes(anonymous):
    _, entry = person(anonymous, "ann", ["*"])
    assert {"uid", "uidnumber", "gidnumber", "homedirectory", "mail", "samaccountname", "objectclass"} <= names(entry)
    assert values(entry, "objectClass") == ["top", "posixAccount"]
    assert values(entry, "cn") == ["Ann Lee"]
    assert not {"userpassword", "unixuserpassword", "objectcategory"} & names(entry)
    assert not [name for name in names(entry) if name.startswith("_")]


def test_no_list_is_all_attributes(anonymous):
    assert person(anonymous, "ann", None)[1] == person(anonymous, "ann", ["*"])[1]


def test_cn_by_name_is_the_mapped_one(anonymous):
    _, entry = person(anonymous, "ann", ["cn"])
    assert values(entry, "cn") == ["ann"]


def test_a_windows_home_directory_never_shows(anonymous):
    for attributes in (["homeDirectory"], ["*"]):
        _, entry = person(anonymous, "mei", attributes)
        assert values(entry, "homeDirectory") == ["/home/mei"]


def test_a_picture_arrives_byte_by_byte(anonymous):
    _, entry = person(anonymous, "ann", ["thumbnailPhoto"])
    pictures = [value for some in entry.values() for value in some]
    assert len(pictures) == 1
    assert pictures[0].startswith(b"\x89PNG\r\n\x1a\n") and pictures[0].endswith(b"IEND\xaeB\x60\x82")


def test_binary_identifiers(anonymous):
    _, entry = person(anonymous, "ann", ["objectSid", "objectGUID"])
    by_name = {name.lower().split(";")[0]: some for name, some in entry.items()}
    sid, guid = by_name["objectsid"][0], by_name["objectguid"][0]
    assert sid[:8] == b"\x01\x05\x00\x00\x00\x00\x00\x05" and len(sid) == 28
    assert int.from_bytes(sid[-4:], "little") == 2001
    assert guid == bytes.fromhex("7e2b1c6f540d394a9c1b2e5f8a7d1001")


@pytest.mark.parametrize("filter", [
    "(userPassword=*)", "(&(objectClass=posixAccount)(uid=ann)(userPassword=*))", "(unixUserPassword=*)",
    "(unicodePwd=*)", "(2.5.4.35=*)", "(1.2.840.113556.1.4.1910=*)", "(1.2.840.113556.1.4.90=*)",
    "(!(1.2.840.113556.1.4.1910=x))",
])
def test_passwords_are_no_condition_and_no_answer(anonymous, filter):
    assert search(anonymous, filter, ["userPassword", "uid"]) == {}


# ---- groups

def test_a_group_lists_direct_and_nested_members(anonymous):
    assert group_members(anonymous, "kernel") == {"ben", "chloe"}
    assert group_members(anonymous, "engineering") == {
        "ann", "ben", "chloe", "dmitri", "elena", "farid", "grace", "hugo", "ingrid", "jurgen", "kit", "lukasz"}


def test_members_by_primary_group(anonymous):
    assert group_members(anonymous, "contractors") == {"sven"}
    everyone = group_members(anonymous, "Domain Users")
    assert {"ann", "zoe", "backup"} <= everyone and "sven" not in everyone


def test_nesting_of_two_levels_with_a_primary_group_below(anonymous):
    members = group_members(anonymous, "all-staff")
    assert {"ann", "ben", "mei", "sven", "wanda", "taro"} <= members
    assert not {"iris", "otto", "backup", "guest"} & members


def test_a_cycle_of_groups(anonymous):
    everyone = {"olga", "pedro", "uma", "victor"}
    assert group_members(anonymous, "day-shift") == everyone
    assert group_members(anonymous, "night-shift") == everyone


def test_an_empty_group(anonymous):
    assert group_members(anonymous, "empty") == set()


def test_a_group_without_a_gid_number_is_no_unix_group(anonymous):
    assert search(anonymous, "(&(objectClass=posixGroup)(cn=mailing-list))") == {}


def test_a_group_by_number_and_one_with_a_blank(anonymous):
    found = search(anonymous, "(&(objectClass=posixGroup)(gidNumber=10010))", ["cn", "memberUid"])
    assert list(found) == [f"cn=reading room,ou=Groups,{SUFFIX}"]
    assert set(values(found[f"cn=reading room,ou=Groups,{SUFFIX}"], "memberUid")) == {"wanda", "taro"}


@pytest.mark.parametrize("name, groups", [
    ("ben", {"Domain Users", "kernel", "engineering", "all-staff"}),
    ("sven", {"contractors", "operations", "all-staff"}),
    ("uma", {"Domain Users", "operations", "all-staff", "day-shift", "night-shift"}),
    ("iris", {"Domain Users"}),
    ("nobody-here", set()),
])
def test_the_groups_of_a_person(anonymous, name, groups):
    assert groups_of(anonymous, name) == groups


def test_groups_and_members_agree(anonymous):
    found = search(anonymous, "(objectClass=posixGroup)", ["cn", "memberUid"])
    listed = {values(entry, "cn")[0]: set(values(entry, "memberUid")) for entry in found.values()}
    for name in ("ann", "victor", "sven", "zoe"):
        assert groups_of(anonymous, name) == {group for group, members in listed.items() if name in members}


# ---- netgroups

@pytest.mark.parametrize("base", [SUFFIX, SUFFIX.lower(), f"cn=netgroup,cn=Rfc2307NisMaps,cn=Global,cn=Zones,{SUFFIX}"])
def test_a_netgroup_from_the_zone(anonymous, base):
    found = search(anonymous, "(&(objectClass=nisNetgroup)(cn=all-hosts))",
                   ["cn", "nisNetgroupTriple", "memberNisNetgroup"], base)
    dn = f"cn=all-hosts,cn=netgroup,cn=Rfc2307NisMaps,cn=Global,cn=Zones,{SUFFIX}"
    assert list(found) == [dn]
    assert values(found[dn], "nisNetgroupTriple") == ["(console.example.com,-,example.com)"]
    assert set(values(found[dn], "memberNisNetgroup")) == {"build-hosts", "file-servers"}


def test_all_netgroups(anonymous):
    found = search(anonymous, "(objectClass=nisNetgroup)", ["cn"])
    assert {values(entry, "cn")[0] for entry in found.values()} == {
        "build-hosts", "file-servers", "all-hosts", "kernel-people", "loop-a", "loop-b"}


def test_netgroups_below_another_place(anonymous):
    assert search(anonymous, "(objectClass=nisNetgroup)", ["cn"], f"ou=Groups,{SUFFIX}") == {}


# ---- the whole

@pytest.mark.parametrize("filter, entry", [
    ("(objectClass=*)", {"objectClass": [b"domain"], "dc": [b"example"]}),
    ("(objectClass=domain)", {"objectClass": [b"domain"], "dc": [b"example"]}),
    ("(objectClass=posixAccount)", None),
])
def test_the_suffix_itself(anonymous, filter, entry):
    found = search(anonymous, filter, None, SUFFIX, ldap.SCOPE_BASE)
    got = [{name.lower(): some for name, some in entry.items()} for entry in found.values()]
    assert got == ([{name.lower(): some for name, some in entry.items()}] if entry else [])


@pytest.mark.parametrize("filter", [
    "(&(objectClass=posixAccount)(uid=nobody-here))",
    "(&(objectClass=posixGroup)(cn=nobody-here))",
    "(&(objectClass=nisNetgroup)(cn=nobody-here))",
    "(sAMAccountName=nobody-here)",
])
def test_nothing_found_is_no_such_object(anonymous, filter):
    with pytest.raises(ldap.NO_SUCH_OBJECT):
        anonymous.search_s(SUFFIX, ldap.SCOPE_SUBTREE, filter)


@pytest.mark.parametrize("filter, tag", [("(cn~=ann)", 168), ("(uid:caseExactMatch:=ann)", 169)])
def test_a_filter_that_the_agent_cannot_be_asked(gateway, anonymous, filter, tag):
    with pytest.raises(ldap.LDAPError) as caught:
        anonymous.search_s(SUFFIX, ldap.SCOPE_SUBTREE, filter)
    assert failure(caught.value) == (21, "vex dirgate: invalid search filter")
    assert f"dirgate ERROR: Unknown choice in filter: {tag}" in gateway.log()


def test_parentheses_and_stars_in_values_are_only_text(anonymous):
    for value in ("a\\2a", "ann\\29\\28uid=*", "\\2a"):
        assert search(anonymous, f"(&(objectClass=posixAccount)(uid={value}))") == {}
