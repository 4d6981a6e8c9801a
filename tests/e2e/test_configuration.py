# SPDX-License-Identifier: Apache-2.0
"""slapd's configuration: loading the module, its directives, overlays beside it."""
import ldap
import pytest

from gateway import EXAMPLES, SUFFIX, failure, search, values, wait_until

pytestmark = pytest.mark.embedded

FILTER = "(&(objectClass=posixAccount)(uid=ann))"
BOOLEANS = ("vex-auth-prefer-cache", "dirgate.vextranslate.fetchbydnuid", "dirgate.cache.enabled",
            "dirgate.netgroup.use.rfc2307nisnetgroup", "dirgate.paged.critical", "dirgate.search.report.errors")
COUNTS = ("dirgate.cache.max.lists", "dirgate.cache.max.objects", "dirgate.cache.ttl", "dirgate.cache.negative.ttl",
          "dirgate.cache.credential.expires", "dirgate.cache.credential.max")
BAD = ([(name, "yes") for name in BOOLEANS] + [(name, "") for name in BOOLEANS[:1]] +
       [(name, value) for name in COUNTS for value in ("0", "-5", "many", "2147483648")] +
       [("dirgate.cache.max.bytes", value) for value in ("-1", "many", "1.5G", "17179869184G")] +
       [("dirgate.performance.log.interval", "-1"), ("dirgate.cache.hash.loadfactor", "0"),
        ("dirgate.cache.hash.loadfactor", "1e-50")])


@pytest.mark.parametrize("name", ["libback_zanthedx.so.0", "libback_zanthedx.so", "libback_zanthedx.la",
                                  "libback_zanthedx"])
def test_every_usual_spelling_of_moduleload(world, name):
    slapd = world.slapd(world.agent().start(), module=name).start()
    assert len(search(slapd.connect(), FILTER)) == 1


def test_both_sections_take_directives(world):
    """The translation from the back-end's section, the netgroups from the database's."""
    slapd = world.slapd(world.agent().start(), backend=[f'vextranslation "{EXAMPLES}/rfc2307.map"'],
                        directives=["dirgate.netgroup.use.rfc2307nisnetgroup true"]).start()
    found = search(slapd.connect(), FILTER, ["homeDirectory"])
    assert [values(entry, "homeDirectory") for entry in found.values()] == [["/home/ann"]]
    assert len(search(slapd.connect(), "(objectClass=nisNetgroup)")) == 6


def test_without_directives_nothing_is_translated(world):
    slapd = world.slapd(world.agent().start(), directives=[]).start()
    assert search(slapd.connect(), FILTER) == {}
    found = search(slapd.connect(), "(sAMAccountName=ann)", ["unixHomeDirectory"])
    assert list(found) == [f"cn=Ann Lee,ou=Engineering,ou=People,{SUFFIX}"]


def test_a_configuration_without_a_database_starts(world):
    slapd = world.slapd(database=False).start()
    assert slapd.stop() == 0


@pytest.mark.parametrize("section, name, value",
                         [("directives", *bad) for bad in BAD] + [("backend", *bad) for bad in BAD[::7]])
def test_a_bad_value_is_refused_with_its_message(world, section, name, value):
    slapd = world.slapd(**{section: [f'{name} "{value}"']})
    status, log = slapd.refused()
    assert status != 0
    message = f"{slapd.config_file}: line {slapd.line_of(name)}: {name}'s value '{value}' is invalid."
    assert message in log


def test_directives_ignore_case_as_do_their_booleans(world):
    slapd = world.slapd(world.agent().start(), directives=[
        f'VexTranslation "{EXAMPLES}/rfc2307.map"', "DirGate.Netgroup.Use.Rfc2307NisNetgroup TRUE"]).start()
    assert len(search(slapd.connect(), "(objectClass=nisNetgroup)")) == 6


@pytest.mark.parametrize("line", [
    "dirgate.no.such.directive true",
    "dirgate.cache.ttl",
    "dirgate.cache.ttl 1 2",
    "dirgate.cache.enabled true false",
    "dirgate.cache.ttl 60seconds",
    "dirgate.cache.max.lists 4294967396",
    "dirgate.performance.log.interval 0",
    "dirgate.cache.hash.loadfactor 0.75",
])
def test_lines_that_are_accepted(world, line):
    slapd = world.slapd(backend=[line], directives=[line]).start()
    assert "invalid" not in slapd.log()


def test_translation_without_a_file(world):
    slapd = world.slapd(directives=["VexTranslation"])
    status, log = slapd.refused()
    assert status != 0
    assert (f"{slapd.config_file}: line {slapd.line_of('VexTranslation')}: "
            "missing filenamein vextranslation line: VexTranslation.") in log


@pytest.mark.parametrize("content, line", [
    (b"posixAccount = User\n= nothing\n", 2),
    (b"posixAccount = User\n\n# a comment\nposixAccount.uid = \\u12\n", 4),
    (b"posixAccount = \xff\n", 1),
])
def test_a_malformed_translation_file(world, content, line):
    file = world.folder / "bad.map"
    file.write_bytes(content)
    slapd = world.slapd(directives=[f'vextranslation "{file}"'])
    status, log = slapd.refused()
    assert status != 0
    assert f"{slapd.config_file}: line {slapd.line_of('vextranslation')}: " in log
    assert f"{file}:{line}: " in log


def test_a_translation_file_that_is_not_there(world):
    file = world.folder / "missing.map"
    slapd = world.slapd(directives=[f'vextranslation "{file}"'])
    status, log = slapd.refused()
    assert status != 0
    assert f"{slapd.config_file}: line {slapd.line_of('vextranslation')}: " in log
    assert f"{file}: No such file or directory" in log


def test_the_later_translation_counts(world):
    first = world.folder / "first.map"
    first.write_text("posixAccount = Nothing\n")
    slapd = world.slapd(world.agent().start(), directives=[
        f'vextranslation "{first}"', f'vextranslation "{EXAMPLES}/rfc2307.map"']).start()
    assert len(search(slapd.connect(), FILTER)) == 1


# ---- overlays

def test_an_overlay_s_own_directives_reach_it(world):
    slapd = world.slapd(world.agent().start(), modules=["rwm"],
                        overlays=["overlay rwm", "rwm-map attribute employeeNumber uidNumber"]).start()
    found = search(slapd.connect(), FILTER, ["employeeNumber"])
    assert [values(entry, "employeeNumber") for entry in found.values()] == [["20001"]]


@pytest.mark.parametrize("module, lines", [
    ("unique", ["overlay unique", "unique_uri ldap:///?uid?sub"]),
    ("dynlist", ["overlay dynlist", "dynlist-attrset groupOfURLs memberURL"]),
    ("constraint", ["overlay constraint", "constraint_attribute mail count 3"]),
])
def test_overlays_that_are_configured_after_the_database(world, module, lines):
    includes = ["include /etc/ldap/schema/dyngroup.schema"] if module == "dynlist" else []
    slapd = world.slapd(world.agent().start(), modules=[module], overlays=lines,
                        globals=[*includes, "sizelimit unlimited"]).start()
    assert len(search(slapd.connect(), FILTER)) == 1


def test_a_bad_line_of_an_overlay_is_still_refused(world):
    slapd = world.slapd(modules=["unique"], overlays=["overlay unique", "unique_uri not-a-uri"])
    status, _ = slapd.refused()
    assert status != 0


# ---- logging

def test_lines_show_in_slapd_s_debug_mode(world):
    slapd = world.slapd(world.agent().start(), debug="1").start()
    search(slapd.connect(), FILTER)
    wait_until(lambda: "vex search complete on connection: " in slapd.log(), "the search's last line is there")
    log = slapd.log()
    assert "vex search start with filterstr: (&(objectClass=posixAccount)(uid=ann))" in log
    assert "vex search: objectType = objectClass (posixAccount is mapped to User)" in log
    assert "vex search after translation filter = (&(objectClass=User)(sAMAccountName=ann))" in log
    assert f"vex search using base: {SUFFIX}" in log


def test_without_debug_mode_only_errors_show(world):
    slapd = world.slapd(world.agent().start()).start()
    search(slapd.connect(), FILTER)
    with pytest.raises(ldap.LDAPError):
        slapd.connect().search_s(SUFFIX, ldap.SCOPE_SUBTREE, "(cn~=ann)")
    assert "vex search" not in slapd.log()
    assert "dirgate ERROR: Unknown choice in filter: 168\n" in slapd.log()


def test_the_log_file_of_the_settings(world):
    log = world.folder / "dirgate.log"
    agent = world.agent(**{"log__file": log, "log__level__dirgate": "1"}).start()
    slapd = world.slapd(agent).start()
    search(slapd.connect(), FILTER)
    slapd.stop()
    assert "vex search start with filterstr: (&(objectClass=posixAccount)(uid=ann))" in log.read_text(errors="replace")


# ---- what slapd answers by itself

READ_ONLY = "operation not supported within namingContext"


@pytest.mark.parametrize("action, text", [
    (lambda connection, dn: connection.compare_s(dn, "uid", b"ann"), ""),
    (lambda connection, dn: connection.modify_s(dn, [(ldap.MOD_REPLACE, "gecos", b"x")]), READ_ONLY),
    (lambda connection, dn: connection.add_s(f"cn=new,{SUFFIX}", [("objectClass", b"device"), ("cn", b"new")]), READ_ONLY),
    (lambda connection, dn: connection.delete_s(dn), READ_ONLY),
    (lambda connection, dn: connection.rename_s(dn, "cn=other"), READ_ONLY),
])
def test_the_directory_is_read_only(world, action, text):
    slapd = world.slapd(world.agent().start()).start()
    dn = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
    connection = slapd.connect(dn, "welcome")
    with pytest.raises(ldap.LDAPError) as caught:
        action(connection, dn)
    assert failure(caught.value) == (53, text)
    assert len(search(connection, FILTER)) == 1
