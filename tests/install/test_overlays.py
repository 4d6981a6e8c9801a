# SPDX-License-Identifier: Apache-2.0
"""slapd's overlays behave on the gateway as docs/manual.md says."""
import re

import pytest

from gateway import ROOT, SUFFIX, Slapd, search, values
from ldap.controls.sss import SSSRequestControl

PEOPLE = "(objectClass=posixAccount)"
PERSON = "(&(objectClass=posixAccount)(uid=ann))"
GROUP = "(&(objectClass=posixGroup)(cn=engineering))"
ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"

# What each one is configured with, beside its name.
LINES = {
    "accesslog": ["logdb cn=log", "logops reads", "database mdb", "suffix cn=log", "directory {folder}"],
    "auditlog": ["auditlog {folder}/audit.ldif"],
    "constraint": ["constraint_attribute mail count 3"],
    "dynlist": ["dynlist-attrset groupOfURLs memberURL"],
    "refint": ["refint_attributes member"],
    "retcode": ['retcode-parent "cn=codes,dc=example,dc=com"', 'retcode-item "cn=busy" 0x33'],
    "rwm": ["rwm-map attribute employeeNumber uidNumber"],
    "unique": ["unique_uri ldap:///?uid?sub"],
    "valsort": [f"valsort-attr memberUid {SUFFIX} alpha-descend"],
}
GLOBALS = {"accesslog": ["moduleload back_mdb"], "dynlist": ["include /etc/ldap/schema/dyngroup.schema"]}


def told(verdict):
    """The overlays of the manual's table whose row says so."""
    [row] = [row for row in re.findall(r"(?m)^\| ([a-z, 0-9]+) \| (.*) \|$", (ROOT / "docs/manual.md").read_text(encoding="utf-8"))
             if verdict in row[1]]
    return row[0].split(", ")


def start(world, overlay):
    data = world.folder / "data"
    data.mkdir()
    lines = [f"overlay {overlay}", *(line.format(folder=data) for line in LINES.get(overlay, []))]
    agent = world.agent().start()
    # The search cache is on: what it keeps must stay as it is, whatever the overlay does.
    return world.slapd(agent, modules=[overlay], overlays=lines, globals=[*GLOBALS.get(overlay, []), "sizelimit unlimited"],
                       directives=[*Slapd.DIRECTIVES, "dirgate.cache.enabled true"]).start()


@pytest.mark.parametrize("overlay", [*told("leave searches and binds as they are"), *told("work on the gateway's entries"),
                                     *told("adds nothing")])
def test_searches_and_binds_go_on(world, overlay):
    slapd = start(world, overlay)
    for connection in (slapd.connect(ANN, "welcome"), slapd.connect(), slapd.connect()):
        assert [values(entry, "homeDirectory") for entry in search(connection, PERSON, ["homeDirectory"]).values()] == [["/home/ann"]]
        assert len(search(connection, PEOPLE, ["uid"])) == 38


def members(slapd):
    [entry] = search(slapd.connect(), GROUP, ["memberUid"]).values()
    return values(entry, "memberUid")


def test_valsort_sorts(world):
    slapd = start(world, "valsort")
    slapd.connect(ANN, "welcome")
    for _ in range(3):  # from the agent, from the cache, from the entry that is kept
        names = members(slapd)
        assert len(names) > 5 and names == sorted(names, reverse=True)


def test_rwm_renames(world):
    slapd = start(world, "rwm")
    slapd.connect(ANN, "welcome")
    for _ in range(3):
        [entry] = search(slapd.connect(), PERSON, ["employeeNumber"]).values()
        assert values(entry, "employeeNumber") == ["20001"]


def test_accesslog_takes_notes(world):
    slapd = start(world, "accesslog")
    search(slapd.connect(ANN, "welcome"), PERSON, ["uid"])
    found = search(slapd.connect(), "(reqDN=*)", ["reqFilter"], base="cn=log")
    assert PERSON in [text for entry in found.values() for text in values(entry, "reqFilter")]


def test_sssvlv_loses_entries(world):
    """Why the manual warns of it."""
    assert told("not in the exact mode") == ["sssvlv"]
    connection = start(world, "sssvlv").connect()
    control = SSSRequestControl(ordering_rules=["uidNumber"])
    assert search(connection, PEOPLE, ["uid"], serverctrls=[control]) == {}
    assert len(search(connection, PEOPLE, ["uid"])) == 38
