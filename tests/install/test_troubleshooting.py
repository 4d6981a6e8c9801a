# SPDX-License-Identifier: Apache-2.0
"""docs/troubleshooting.md tells the truth: each symptom is brought about on a host of its
own, what is seen is what the page quotes, and the remedy is one.

In a quotation "..." stands for anything, and LINE for a number.
"""
import contextlib
import re

import pytest

from gateway import ROOT, SUFFIX, wait_until

PAGE = " ".join((ROOT / "docs/troubleshooting.md").read_text(encoding="utf-8").split())
ANN = f"cn=Ann Lee,ou=Engineering,ou=People,{SUFFIX}"
BY_LOGIN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
PERSON = "(&(objectClass=posixAccount)(uid=ann))"
SETTINGS, CONFIGURATION, LDIF = "/etc/zanthe/zanthe.conf", "/etc/ldap/slapd.conf", "/etc/zanthe/example.ldif"
DATABASE = "/var/lib/zanthe/directory.ldb"
END = r"\Z"


def restart(host, *units):
    """Restarts them in this order. Whether all run then."""
    host.tell("systemctl", "reset-failed", *units)
    if any(host.tell("systemctl", "restart", unit).returncode != 0 for unit in units):
        return False
    if "slapd" in units:
        wait_until(host.answers, "slapd answers")
    return True


@contextlib.contextmanager
def changed(host, path, pattern, text, *units):
    """A file with something in another's place, and these units restarted with it; both
    undone in the end."""
    before = host.run("cat", path)
    after = re.sub(pattern, text, before, count=1, flags=re.MULTILINE)
    assert after != before
    host.write(path, after)
    try:
        yield restart(host, *units)
    finally:
        host.write(path, before)
        assert restart(host, *units)


def exactly(host):
    """Without the standard mode."""
    return changed(host, CONFIGURATION, r"(?s)applications(\.map.*^dirgate\.ldap\.standard +)true", r"rfc2307\1false", "slapd")


def quoted(quotation, seen):
    """Whether the page says so, and it was seen."""
    assert quotation in PAGE
    pattern = re.escape(quotation).replace(re.escape("..."), ".*").replace("LINE", r"\d+")
    assert re.search(pattern, seen, re.DOTALL), seen
    return True


def ask(host, *words, port=389):
    """An LDAP search: what it said, with its failure."""
    result = host.tell("ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", f"ldap://127.0.0.1:{port}", "-b", SUFFIX, *words)
    return result.stdout + result.stderr


def bind(host, dn, *password):
    return ask(host, "-D", dn, *password, PERSON, "1.1")


def journal(host, *match):
    return host.run("journalctl", "-q", "--no-pager", "-o", "cat", *match)


def configured(host):
    result = host.tell("slaptest", "-u", "-f", CONFIGURATION)
    return result.stdout + result.stderr


# ---- the servers do not start

def test_a_misspelt_setting(host):
    with changed(host, SETTINGS, END, "agent.sokcet = /x\n", "vexagent") as started:
        assert not started
        wait_until(lambda: "unknown" in journal(host, "-t", "vexagent"), "it is logged")
        quoted("vexagent: /etc/zanthe/zanthe.conf:LINE: unknown setting agent.sokcet", journal(host, "-t", "vexagent"))


def test_an_agent_that_runs_already(host):
    quoted("vexagent: /run/zanthe/vexagent.sock: another agent answers on it", host.tell("timeout", "10", "vexagent").stderr)


@pytest.mark.parametrize("spoil, quotation", [
    (("chmod", "600", LDIF), "vexagent: /etc/zanthe/example.ldif: Permission denied"),
    (("sed", "-i", "s/^uidNumber: 20001/no attribute/", LDIF), "vexagent: /etc/zanthe/example.ldif:LINE: malformed LDIF"),
])
def test_an_ldif_file_that_cannot_be_used(host, spoil, quotation):
    host.run("cp", "-p", LDIF, "/tmp/example.ldif")
    host.run("systemctl", "stop", "vexagent")
    host.run("rm", DATABASE, f"{DATABASE}-lock")
    host.run(*spoil)
    assert not restart(host, "vexagent")
    wait_until(lambda: f"{LDIF}:" in journal(host, "-t", "vexagent"), "the reason is logged")
    quoted(quotation, journal(host, "-t", "vexagent"))
    host.run("systemctl", "stop", "vexagent")
    host.run("cp", "-p", "/tmp/example.ldif", LDIF)
    assert restart(host, "vexagent")


def test_a_bad_value_of_a_directive(host):
    with changed(host, CONFIGURATION, END, "dirgate.cache.enabled yes\n", "slapd") as started:
        assert not started
        assert "slapd stopped." in journal(host) and "invalid" not in journal(host)
        quoted("/etc/ldap/slapd.conf: line LINE: dirgate.cache.enabled's value 'yes' is invalid.", configured(host))


def test_a_translation_file_that_is_missing(host):
    with changed(host, CONFIGURATION, "^vextranslation.*", "vextranslation /etc/zanthe/my.map"):
        quoted("line LINE: /etc/zanthe/my.map: No such file or directory", configured(host))


def test_a_module_that_is_not_found(host):
    with changed(host, CONFIGURATION, "^modulepath.*", "modulepath /usr/lib/elsewhere"):
        quoted("lt_dlopenext failed: (libback_zanthedx.so.0) file not found", configured(host))


# ---- answers with an error

BROKEN = "Failed to communicate with vexagent due to broken session handle"


def test_no_agent(host):
    host.run("systemctl", "stop", "vexagent")
    seen = ask(host, PERSON)
    assert quoted("Server is unavailable (52)", seen) and quoted(f"vexLdapSearch : {BROKEN}", seen)
    assert f"vexAuth : {BROKEN}" in bind(host, ANN, "-w", "welcome to nobody")
    host.run("systemctl", "start", "vexagent")
    assert "uid: ann" in ask(host, PERSON), "slapd was not restarted"


def test_slapd_s_user_outside_the_group(host):
    host.run("gpasswd", "-d", "openldap", "zanthe")
    restart(host, "slapd")
    assert BROKEN in ask(host, PERSON)
    host.run("gpasswd", "-a", "openldap", "zanthe")
    restart(host, "slapd")
    assert "uid: ann" in ask(host, PERSON)


@pytest.mark.parametrize("settings, quotation", [
    ("directory = ad\ndomain.name = example.com\nad.servers = 127.0.0.9\nad.transport = ldaps\nad.bind.name = x@example.com\n"
     "ad.bind.password.file = /etc/zanthe/password\nad.tls.ca = /etc/zanthe/authority.pem\n", "Connection refused"),
    ("directory = ad\ndomain.name = example.com\nad.servers = 127.0.0.9\n",
     "no ticket for ldap/...: keytab /etc/krb5.keytab: ... is nonexistent or empty"),
])
def test_a_domain_that_does_not_answer(host, settings, quotation):
    host.run("install", "-o", "vexagent", "-m", "400", "/etc/hostname", "/etc/zanthe/password")
    with changed(host, SETTINGS, r"(?s)\A.*\Z", settings + "log.syslog.level.vexagent = 2\n", "vexagent", "slapd"):
        seen = ask(host, PERSON)
        assert "Server is unavailable (52)" in seen
        assert quoted("System is unhealthy(cc=12), reason:unavailable, ... errString=the domain is out of reach", seen)
        wait_until(lambda: quotation.split("...")[-1] in journal(host, "-t", "vexagent"), "the reason is logged")
        quoted(quotation, journal(host, "-t", "vexagent"))


def test_a_netgroup_search_without_a_zone(host):
    with changed(host, SETTINGS, "^zone.dn.*\n", "", "vexagent", "slapd"):
        assert ask(host, "(objectClass=nisNetgroup)") == ""
    with exactly(host), changed(host, SETTINGS, "^zone.dn.*\n", "", "vexagent", "slapd"):
        seen = ask(host, "(objectClass=nisNetgroup)")
        assert quoted("Other (80)", seen.replace("Other (e.g., implementation specific) error (80)", "Other (80)"))
        quoted("vex dirgate: can not get currently joined zone dn", seen)


@pytest.mark.parametrize("dn, quotation", [
    (f"uid=ann,ou=Engineering,ou=People,{SUFFIX}", "Invalid credentials (49)"),
    ("ann@example.com", "Invalid DN syntax (34)"),
    ("EXAMPLE\\ann", "Invalid DN syntax (34)"),
])
def test_names_that_cannot_bind(host, dn, quotation):
    quoted(quotation, bind(host, dn, "-w", "welcome"))


@pytest.mark.parametrize("dn", [ANN, BY_LOGIN])
def test_names_that_can_bind(host, dn):
    assert f"dn: {ANN}" in bind(host, dn, "-w", "welcome")


def test_names_that_can_bind_without_the_standard_mode(host):
    with exactly(host):
        assert [f"dn: {BY_LOGIN}" in bind(host, dn, "-w", "welcome") for dn in (ANN, BY_LOGIN)] == [True, True]


def test_the_log_tells_why_a_bind_failed(host):
    bind(host, f"cn=iris,ou=Former,ou=People,{SUFFIX}", "-w", "welcome")
    wait_until(lambda: "the account is disabled" in journal(host, "-t", "vexagent"), "the reason is logged")


def test_what_slapd_itself_refuses(host):
    quoted("unauthenticated bind (DN with no password) disallowed", bind(host, ANN))
    change = f"dn: {ANN}\nchangetype: modify\nreplace: gecos\ngecos: x\n"
    who = ("-x", "-H", "ldap://127.0.0.1", "-D", ANN, "-w", "welcome")
    quoted("this directory is read here: change the object at a domain controller", host.tell("ldapmodify", *who, text=change).stderr)
    with exactly(host):
        quoted("operation not supported within namingContext", host.tell("ldapmodify", *who, text=change).stderr)
        new = host.tell("ldappasswd", *who, "-s", "new")
        quoted("operation not supported for current user", new.stdout + new.stderr)


def test_a_client_that_insists_on_pages(host):
    with exactly(host), changed(host, CONFIGURATION, "^dirgate.paged.critical.*\n", "", "slapd"):
        quoted("Critical extension is unavailable (12)", ask(host, "-E", "!pr=5/noprompt", "(objectClass=posixAccount)", "1.1"))
    assert ask(host, "-E", "!pr=5/noprompt", "(objectClass=posixAccount)", "1.1").count("dn:") == 38


def test_slapd_s_size_limit(host):
    with changed(host, CONFIGURATION, "^sizelimit.*", "sizelimit 10", "slapd"):
        seen = ask(host, "(objectClass=posixAccount)", "1.1")
        assert quoted("Size limit exceeded (4)", seen) and seen.count("dn:") == 10


# ---- nobody, or not everybody, is found

def test_an_entry_by_its_dn(host):
    assert f"dn: {ANN}" in ask(host, "-b", ANN, "-s", "base", "(objectClass=*)")
    with exactly(host):
        quoted("No such object (32)", ask(host, "-b", BY_LOGIN, "-s", "base", "(objectClass=*)"))
        assert "`-s base '(objectClass=posixAccount)'`" in PAGE
        assert f"dn: {BY_LOGIN}" in ask(host, "-b", BY_LOGIN, "-s", "base", "(objectClass=posixAccount)")


def test_a_person_without_a_home_folder(host):
    wanted = "(&(objectClass=posixAccount)(uid=ben))"
    dn = re.search(r"^dn: (CN=Ben .*)$", host.run("cat", LDIF), re.MULTILINE)[1]
    change = f"dn: {dn}\nchangetype: modify\n%s: unixHomeDirectory\nunixHomeDirectory: /home/ben\n"
    host.run("ldbmodify", "-H", f"mdb://{DATABASE}", text=change % "delete")
    restart(host, "slapd")
    assert ask(host, wanted) == ""
    with exactly(host):
        quoted("No such object (32)", ask(host, wanted))
    host.run("ldbmodify", "-H", f"mdb://{DATABASE}", text=change % "add")
    restart(host, "slapd")
    assert "uid: ben" in ask(host, wanted)


def test_a_configuration_folder(host):
    host.run("mkdir", "-p", "/root/converted")
    result = host.tell("slaptest", "-f", CONFIGURATION, "-F", "/root/converted")
    quoted("The converted cn=config directory is incomplete", result.stdout + result.stderr)
    # Its process id goes to a file of its own: the service's is in the configuration.
    host.run("sed", "-i", "/^olcPidFile/d;/^olcArgsFile/d", "/root/converted/cn=config.ldif")
    host.run("slapd", "-F", "/root/converted", "-h", "ldap://127.0.0.1:3899")
    wait_until(lambda: "No such object (32)" in ask(host, PERSON, port=3899), "it finds nobody")


def test_a_change_does_not_show(host):
    change = f"dn: CN=Ann Lee,OU=Engineering,OU=People,{SUFFIX}\nchangetype: modify\nreplace: gecos\ngecos: %s\n"
    assert f"dn: {ANN}" in bind(host, ANN, "-w", "welcome")
    assert "gecos: Ann Lee\n" in ask(host, PERSON, "gecos")
    host.run("ldbmodify", "-H", f"mdb://{DATABASE}", text=change % "Ann B. Lee")
    assert "gecos: Ann Lee\n" in ask(host, PERSON, "gecos")
    restart(host, "slapd")
    assert "gecos: Ann B. Lee\n" in ask(host, PERSON, "gecos")
    host.run("ldbmodify", "-H", f"mdb://{DATABASE}", text=change % "Ann Lee")
    restart(host, "slapd")


def test_an_attribute_that_the_schema_does_not_know(host):
    with exactly(host), changed(host, CONFIGURATION, "^include.*zanthedx.schema\n", "", "slapd"):
        assert "ann" not in ask(host, PERSON, "sAMAccountName").replace(BY_LOGIN, "")
        assert "SAMACCOUNTNAME: ann\n" in ask(host, PERSON, "+")
    assert "sAMAccountName: ann\n" in ask(host, PERSON, "sAMAccountName")


def test_sorting_by_the_overlay(host):
    with exactly(host), changed(host, CONFIGURATION, END, "moduleload sssvlv\noverlay sssvlv\n", "slapd"):
        seen = ask(host, "-E", "sss=uidNumber", "(objectClass=posixAccount)", "uidNumber")
        assert "sortResult: (0) Success" in seen and "dn:" not in seen
        assert ask(host, "(objectClass=posixAccount)", "uidNumber").count("dn:") == 38


# ---- it works, but

def test_nothing_is_cached_before_the_first_bind(host):
    quotation = "Requested attribute(s) is not supported by vexagent."
    with exactly(host), changed(host, SETTINGS, END, "log.syslog.level.dirgate = 1\n", "slapd"):
        assert "uid: ann" in ask(host, PERSON)
        wait_until(lambda: quoted(quotation, journal(host, "-t", "slapd")), "the search is logged")
        bind(host, ANN, "-w", "welcome")
        ask(host, PERSON)
        ask(host, PERSON)
        wait_until(lambda: "from cache successfully." in journal(host, "-t", "slapd"), "the cache answers")


def test_a_misspelt_directive(host):
    with changed(host, CONFIGURATION, "^dirgate.cache.enabled ", "dirgate.cache.enable "):
        assert "dirgate.cache.enable true" in PAGE
        assert "config file testing succeeded" in configured(host)


def test_a_dump_without_a_folder(host):
    host.run("mv", "/var/zanthe/tmp", "/var/zanthe/elsewhere")
    with changed(host, SETTINGS, END, "log.syslog.level.dirgate = 1\n", "slapd"):
        bind(host, ANN, "-w", "welcome")
        host.run("sh", "-c", "kill -USR1 $(cat /run/slapd/slapd.pid)")
        wait_until(lambda: "Can't open file" in journal(host, "-t", "slapd"), "the dump fails")
        quoted("Can't open file /var/zanthe/tmp/dirgate.cache.out_...", journal(host, "-t", "slapd"))
    host.run("systemd-tmpfiles", "--create", "zanthedx.conf")
    assert host.run("stat", "-c", "%A %U", "/var/zanthe/tmp") == "drwx------ openldap\n"


def test_a_log_file_for_two(host):
    file = "/var/log/zanthe/gateway.log"
    lines = "log.level = 1\nlog.file = " + file + "\n"
    with changed(host, SETTINGS, END, lines, "vexagent", "slapd"):
        assert "uid: ann" in ask(host, PERSON)
        log = host.run("cat", file)
        assert " vexagent " in log and " dirgate " not in log
        host.run("systemctl", "stop", "vexagent")
        host.run("install", "-o", "vexagent", "-g", "zanthe", "-m", "660", "/dev/null", file)
        restart(host, "vexagent", "slapd")
        assert "uid: ann" in ask(host, PERSON)
        wait_until(lambda: {"vexagent", "dirgate"} <= set(host.run("cat", file).split()), "both write to it")


def test_slapd_writes_nothing_of_entries_that_are_kept_ready(host):
    """It would remark on each whose classes the client did not ask for."""
    restart(host, "slapd")
    bind(host, ANN, "-w", "welcome")
    for _ in range(3):
        assert "uid: ann" in ask(host, PERSON, "uid")
    ends = journal(host, "-t", "slapd").count("slapd stopped.")
    host.run("systemctl", "stop", "slapd")
    wait_until(lambda: journal(host, "-t", "slapd").count("slapd stopped.") > ends, "all that it wrote is there")
    host.run("systemctl", "start", "slapd")
    assert "is_entry_objectclass" not in journal(host, "-t", "slapd")
