# SPDX-License-Identifier: Apache-2.0
"""Size limits, time limits, and pages."""
import ldap
import pytest
from ldap.controls import SimplePagedResultsControl

from gateway import SUFFIX, Slapd, failure, search

EVERYBODY = "(objectClass=posixAccount)"
COUNT = 38


@pytest.mark.parametrize("limit", [1, 5, COUNT - 1])
def test_exactly_as_many_entries_as_the_size_limit_and_then_its_result(anonymous, limit):
    request = anonymous.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["uid"], sizelimit=limit)
    entries = []
    with pytest.raises(ldap.SIZELIMIT_EXCEEDED) as caught:
        while True:
            kind, some = anonymous.result(request, all=0)
            entries += some
            assert kind == ldap.RES_SEARCH_ENTRY
    assert len(entries) == limit
    assert failure(caught.value) == (4, "")


@pytest.mark.parametrize("limit", [COUNT + 1, 1000])
def test_a_size_limit_above_the_results_changes_nothing(anonymous, limit):
    assert len(search(anonymous, EVERYBODY, ["uid"], sizelimit=limit)) == COUNT


def test_a_time_limit_that_is_kept(anonymous):
    assert len(search(anonymous, EVERYBODY, ["uid"], timeout=30)) == COUNT


def page(connection, size, cookie="", critical=True):
    """One page. Returns the DNs and the cookie; the cookie is None without the control."""
    control = SimplePagedResultsControl(critical, size=size, cookie=cookie)
    request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["uid"], serverctrls=[control])
    _, entries, _, controls = connection.result3(request)
    cookies = [answer.cookie for answer in controls if answer.controlType == SimplePagedResultsControl.controlType]
    return [dn for dn, _ in entries], cookies[0] if cookies else None


@pytest.mark.parametrize("size", [2, 3, 7, 37])
@pytest.mark.parametrize("critical", [True, False])
def test_pages_hold_everybody_once(gateway, size, critical):
    connection = gateway.connect()
    everybody, cookie, sizes = [], "", []
    while cookie is not None:
        dns, cookie = page(connection, size, cookie, critical)
        everybody += dns
        sizes.append(len(dns))
        if not cookie:
            break
    assert len(everybody) == len(set(everybody)) == COUNT
    assert all(count == size for count in sizes[:-1]) and 0 < sizes[-1] <= size


def test_pages_of_one_entry_end_with_no_such_object(gateway):
    """The last page holds nothing but the entry that the page before had no room for,
    and is full with it: the search itself finds nothing in it."""
    connection = gateway.connect()
    everybody, cookie = [], ""
    for _ in range(COUNT - 1):
        dns, cookie = page(connection, 1, cookie)
        everybody += dns
    control = SimplePagedResultsControl(True, size=1, cookie=cookie)
    request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["uid"], serverctrls=[control])
    kind, last = connection.result(request, all=0)
    assert kind == ldap.RES_SEARCH_ENTRY
    with pytest.raises(ldap.NO_SUCH_OBJECT):
        connection.result(request, all=0)
    assert len({*everybody, *(dn for dn, _ in last)}) == COUNT


def test_the_last_page_has_an_empty_cookie_when_it_is_not_full(gateway):
    connection = gateway.connect()
    _, cookie = page(connection, 30)
    dns, last = page(connection, 30, cookie)
    assert len(dns) == COUNT - 30 and last == b""


def test_a_last_page_that_is_full_carries_no_control(gateway):
    connection = gateway.connect()
    _, cookie = page(connection, COUNT // 2)
    dns, last = page(connection, COUNT // 2, cookie)
    assert len(dns) == COUNT // 2 and last is None


def test_one_page_holds_all(gateway):
    dns, cookie = page(gateway.connect(), 100)
    assert len(dns) == COUNT and cookie == b""


def paging_failure(connection, size, cookie):
    with pytest.raises(ldap.LDAPError) as caught:
        page(connection, size, cookie)
    return failure(caught.value)


def test_a_page_of_nothing_gives_the_search_up(gateway):
    connection = gateway.connect()
    _, cookie = page(connection, 5)
    control = SimplePagedResultsControl(True, size=0, cookie=cookie)
    with pytest.raises(ldap.LDAPError) as caught:
        request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, EVERYBODY, ["uid"], serverctrls=[control])
        answer = connection.result3(request)
        # A text with a success is no exception to python-ldap.
        assert answer[1] == []
        raise ldap.LDAPError({"result": 0, "info": "search abandoned by pagedResult size=0"})
    assert failure(caught.value) == (0, "search abandoned by pagedResult size=0")


def test_a_cookie_that_is_cut_short(gateway):
    connection = gateway.connect()
    _, cookie = page(connection, 5)
    assert paging_failure(connection, 5, cookie[:-1]) == (2, "paged results cookie is invalid")


def test_a_cookie_that_was_used_already(gateway):
    connection = gateway.connect()
    _, first = page(connection, 5)
    _, second = page(connection, 5, first)
    assert paging_failure(connection, 5, first) == (53, "paged results cookie is invalid or old")
    assert second


@pytest.mark.parametrize("change", [
    lambda cookie: cookie[:8] + b"\0" * 16,
    lambda cookie: cookie[:8] + bytes(byte ^ 8 for byte in cookie[8:]),
    lambda cookie: b"\xff" * 24,
    lambda cookie: cookie[:8] + cookie[16:] + cookie[8:16],
])
def test_a_forged_cookie_is_refused_and_slapd_lives(gateway, change):
    connection = gateway.connect()
    _, cookie = page(connection, 5)
    assert paging_failure(connection, 5, change(cookie)) == (2, "paged results cookie is invalid")
    assert len(page(gateway.connect(), 100)[0]) == COUNT


def test_a_cookie_of_another_connection_is_refused(gateway):
    one, other = gateway.connect(), gateway.connect()
    _, cookie = page(one, 5)
    page(other, 5)
    assert paging_failure(other, 5, cookie) == (2, "paged results cookie is invalid")


def test_two_paged_searches_at_once_on_two_connections(gateway):
    connections = [gateway.connect(), gateway.connect()]
    cookies, found = ["", ""], [[], []]
    while any(cookie is not None and cookie != b"" for cookie in cookies):
        for number, connection in enumerate(connections):
            if cookies[number] is None or cookies[number] == b"":
                continue
            dns, cookies[number] = page(connection, 7, cookies[number])
            found[number] += dns
    assert [len(set(dns)) for dns in found] == [COUNT, COUNT]


def test_without_the_directive_a_critical_control_is_refused(world):
    slapd = world.slapd(world.agent().start(), directives=[
        line for line in Slapd.DIRECTIVES if "paged" not in line]).start()
    with pytest.raises(ldap.UNAVAILABLE_CRITICAL_EXTENSION):
        page(slapd.connect(), 5)
    assert len(page(slapd.connect(), 5, critical=False)[0]) == 5
