# SPDX-License-Identifier: Apache-2.0
"""Filters by bits in the standard mode, which the directory answers itself: embedded or a domain."""
import pytest

from gateway import search, values
from standard import standard_slapd


@pytest.fixture(scope="module")
def slapd(shared_world):
    return standard_slapd(shared_world, shared_world.agent().start()).start()


@pytest.mark.parametrize("rule, holds", [("803", lambda number, bits: number & bits == bits), ("804", lambda number, bits: number & bits != 0)])
@pytest.mark.parametrize("attribute, bits", [("userAccountControl", 2), ("userAccountControl", 512), ("userAccountControl", 514),
                                             ("groupType", 2147483648), ("groupType", 6), ("uidNumber", 1), ("uidNumber", 3)])
def test_who_has_the_bits_is_found(slapd, attribute, bits, rule, holds):
    everybody = search(slapd.connect(), f"({attribute}=*)", [attribute])
    right = {dn for dn, entry in everybody.items() if holds(int(values(entry, attribute)[0]), bits)}
    assert search(slapd.connect(), f"({attribute}:1.2.840.113556.1.4.{rule}:={bits})", ["1.1"]).keys() == right
    assert everybody
