# SPDX-License-Identifier: Apache-2.0
"""What `ldapsearch -LLL` writes out of the gateway in the standard mode are the entries
that there are to be, and another server takes them."""
import subprocess

from compare import OWN, folded_dn
from judge import ldif, records
from peer import Mdb

# slapd makes these for each answer: no entry carries them.
COMPUTED = {"entrydn", "subschemasubentry", "hassubordinates"}


def written(server, *names):
    """Records as a shell gets them, without what a server says of itself."""
    command = ["ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-H", server.uri, "-b", "dc=example,dc=com", "(objectClass=*)", *names]
    text = subprocess.run(command, check=True, capture_output=True, timeout=60).stdout.decode()
    return text, {folded_dn(dn.encode()): {name: values for name, values in entry.items() if name not in OWN}
                  for dn, entry in records(text)}


def canonical(entry, dn_names):
    return {name: sorted(map(folded_dn if name in dn_names else bytes, values), key=str) for name, values in entry.items()}


def expect_the_judges_entries(peer, gateway, dn_names):
    _, right = written(peer, "*", "+", "memberOf")
    _, shown = written(gateway, "*", "+", "memberOf")
    assert len(right) > 100
    assert shown.keys() == right.keys()
    different = {dn: (canonical(right[dn], dn_names), canonical(shown[dn], dn_names)) for dn in right
                 if canonical(right[dn], dn_names) != canonical(shown[dn], dn_names)}
    assert not different


def test_the_entries_are_those_that_the_judge_has_made(peer, gateway, dn_names):
    expect_the_judges_entries(peer, gateway, dn_names)


def test_slapadd_takes_what_the_gateway_shows(shared_world, gateway):
    """Its checks pass; so each entry has the classes that what it carries needs."""
    text, shown = written(gateway)
    assert len(shown) > 100
    Mdb(shared_world.folder, shared_world.running_servers, text, name="of-the-dump")


def test_and_with_the_attributes_that_servers_keep(shared_world, gateway):
    text, shown = written(gateway, "*", "+")
    kept = [(dn, {name: values for name, values in entry.items() if name not in COMPUTED}) for dn, entry in records(text)]
    assert len(kept) == len(shown)
    copy = Mdb(shared_world.folder, shared_world.running_servers, ldif(kept), name="of-the-whole-dump").start()
    assert written(copy, "*", "+")[1] == shown
