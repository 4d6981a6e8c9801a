# SPDX-License-Identifier: Apache-2.0
"""The scenario's own parts: that the oracle sees what is wrong, that a seed is a plan, that
growth is found."""
import contextlib
import random

import ldap
import pytest

from company import ABOVE, Company
from domain import Controller
from host import Slot
from ledger import Memory
from oracle import CANNOT_TELL, Oracle, WrongAnswer, judge, refused
from troubles import ROUGH, Trouble, plan
from weather import SETTLED, Weather

COMPANY = Company(40, departed=6)
ORACLE = Oracle(COMPANY.model())


def error(code):
    return ldap.LDAPError({"result": code, "desc": "told", "info": "why"})


@pytest.mark.parametrize("code", [-1, 0, 2, 4, 32, 34, 48, 49, 50, 53])
def test_what_says_too_much_is_wrong(code):
    assert code not in CANNOT_TELL
    with pytest.raises(WrongAnswer):
        judge(error(code))


@pytest.mark.parametrize("code", sorted(CANNOT_TELL))
def test_what_says_nothing_is_not_wrong(code):
    assert judge(error(code)) == code


def test_the_end_of_a_connection_is_wrong():
    with pytest.raises(WrongAnswer):
        judge(ldap.SERVER_DOWN({"desc": "Can't contact LDAP server"}))


def test_an_accepted_bind_that_should_be_refused_is_wrong():
    def refuse():
        raise ldap.INVALID_CREDENTIALS({"result": 49})
    refused(refuse, "somebody")
    with pytest.raises(WrongAnswer):
        refused(lambda: None, "somebody")


def answer_of_groups(names):
    return [(f"cn={name},ou=Groups", {"cn": [name.encode()]}) for name in names]


def test_groups_are_wrong_when_one_is_missing_or_comes_twice_or_is_another_s():
    right = sorted(ORACLE.groups_of("p0000"))
    ORACLE.check_groups("p0000", answer_of_groups(right))
    stranger = next(group for group in ORACLE.groups if group not in right)
    for wrong in (right[1:], right + right[:1], [*right, stranger], []):
        with pytest.raises(WrongAnswer):
            ORACLE.check_groups("p0000", answer_of_groups(wrong))


def test_members_are_wrong_when_one_is_missing():
    members = [uid.encode() for uid in ORACLE.groups[ABOVE]]
    ORACLE.check_members(ABOVE, [("cn=above", {"memberUid": members})])
    for wrong in ([("cn=above", {"memberUid": members[1:]})], [("cn=above", {})], []):
        with pytest.raises(WrongAnswer):
            ORACLE.check_members(ABOVE, wrong)


def test_an_entry_is_wrong_that_is_another_s_or_nobody_s():
    entry = ORACLE.people["p0001"]
    ORACLE.check_part({"p0001": entry})
    for uid in ("p0002", "p9999"):
        with pytest.raises(WrongAnswer):
            ORACLE.check_part({uid: entry})


def bind_blindly(peer):
    """As somebody does who believes every certificate."""
    connection = ldap.initialize(f"ldaps://{peer.address}:{peer.port}")
    connection.set_option(ldap.OPT_X_TLS_REQUIRE_CERT, ldap.OPT_X_TLS_NEVER)
    connection.set_option(ldap.OPT_X_TLS_NEWCTX, 0)
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        connection.simple_bind_s("somebody", "wrong")
    connection.unbind_ext()


def test_a_password_that_goes_to_a_false_controller_is_seen(certificates):
    with contextlib.closing(Slot()) as slot, \
            Controller(COMPANY.entries(), slot.addresses[0], "ldaps", certificates.of["dc1"], {}) as peer:
        for betrayed, shown in enumerate(("true", "another name", "another authority")):
            peer.show(shown)
            bind_blindly(peer)
            assert peer.betrayed == betrayed


TROUBLES = [Trouble("agent", "stopped", None), Trouble("agent", "killed", None), Trouble("names", "gone", None)]
TROUBLES[1].mortal = True


def test_a_seed_is_a_plan():
    first, second = (plan(random.Random("7"), TROUBLES, 30, 10) for _ in range(2))
    assert first == second != plan(random.Random("8"), TROUBLES, 30, 10)


def test_a_plan_leaves_a_calm_and_a_lane_has_one_trouble_at_a_time():
    events = plan(random.Random("7"), TROUBLES, 30, 10)
    assert [when for when, _, _ in events] == sorted(when for when, _, _ in events)
    open_ones = []
    for when, what, trouble in events:
        if what == "begin":
            assert trouble.lane not in [other.lane for other in open_ones] and when % 10 < ROUGH * 10
            open_ones.append(trouble)
        elif what == "end":
            open_ones.remove(trouble)
            assert when % 10 <= ROUGH * 10 + 1e-6
    assert open_ones == []


def test_the_agent_dies_in_the_first_third_and_once_later():
    deaths = {int(when // 10) for seed in range(20) for when, what, trouble in plan(random.Random(seed), TROUBLES, 30, 10)
              if what == "begin" and trouble.mortal}
    assert deaths == {*range(10), 20}


def test_growth_is_what_comes_after_the_first_third():
    def growth(memory):
        return Memory.growth_of([(second, memory(second)) for second in range(301)])
    assert growth(lambda second: min(second, 100) * 1000) == 0
    assert 175_000 < growth(lambda second: second * 1000) <= 200_000
    assert growth(lambda second: 1_000_000 + (500_000 if second > 200 else 0)) == 500_000
    assert growth(lambda second: 1_000_000 + (500_000 if 200 < second < 210 else 0)) == 0
    assert growth(lambda second: 5_000_000 if second % 50 == 0 else 1_000_000) == 0


def test_calm_counts_once_it_has_settled(tmp_path, monkeypatch):
    now = 1000.0
    monkeypatch.setattr("weather.time.monotonic", lambda: now)
    weather, elsewhere = Weather(tmp_path / "weather"), Weather(tmp_path / "weather")
    assert not elsewhere.calm_since(now)
    weather.calm()
    assert not elsewhere.calm_since(now) and elsewhere.calm_since(now + SETTLED)
    weather.calm(now + 20)
    assert not elsewhere.calm_since(now + 19) and elsewhere.calm_since(now + 20)
    weather.rough()
    assert not elsewhere.calm_since(now + SETTLED)
