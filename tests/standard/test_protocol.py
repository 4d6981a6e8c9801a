# SPDX-License-Identifier: Apache-2.0
"""What RFC 4511 and 2696 ask of every server, whatever it holds: back-mdb does it, and the
gateway in the standard mode."""
import pytest

import filters
from ber import BOOLEAN, ENUMERATED, element, elements, number, octets, sequence
from client import DONE, ENTRY, PAGED, Connection, Search, paging
from company import PASSWORD

SUFFIX = b"dc=example,dc=com"
PEOPLE = ("=", "objectClass", b"inetOrgPerson")
ENGINEERING = b"ou=Engineering,ou=People," + SUFFIX
EVERYBODY = Search(SUFFIX, 2, PEOPLE, ("1.1",))
SUCCESS, PROTOCOL_ERROR, NO_SUCH_OBJECT, CRITICAL, INVALID_CREDENTIALS, UNWILLING = 0, 2, 32, 12, 49, 53
EXTENDED = 0x78
WHO_AM_I, NOTICE_OF_DISCONNECTION = b"1.3.6.1.4.1.4203.1.11.3", b"1.3.6.1.4.1.1466.20036"


@pytest.fixture(params=["peer", "gateway"])
def server(request):
    return request.getfixturevalue(request.param)


@pytest.fixture
def connection(server):
    connection = Connection(server.port)
    yield connection
    connection.close()


def outcome(body):
    """(result code, matched DN, text)."""
    (_, code), (_, matched), (_, text), *_ = elements(body)
    return code[0], matched, text.decode()


def searched(connection, question, *controls):
    """(the entries' bodies, the result's outcome, its controls)."""
    connection.send(question.encoded(), controls)
    found = []
    tag, body, returned = connection.read()
    while tag == ENTRY:
        found.append(body)
        tag, body, returned = connection.read()
    assert tag == DONE
    return found, outcome(body), returned


def control(oid, critical, value=None):
    return sequence(octets(oid), element(BOOLEAN, b"\xff" if critical else b"\0"), *([octets(value)] if value is not None else []))


def bind(connection, name, password, version=3):
    connection.send(sequence(number(version), octets(name), octets(password, 0x80), tag=0x60))
    return outcome(connection.read()[1])[0]


def who_am_i(connection):
    connection.send(sequence(octets(WHO_AM_I, 0x80), tag=0x77))
    tag, body, _ = connection.read()
    assert tag == EXTENDED
    return next((value for tag, value in elements(body) if tag == 0x8B), b"")


# ---- messages

def test_questions_at_once_have_their_own_answers(server):
    """Each answer has the number of its question."""
    connection = Connection(server.port)
    for count in range(1, 11):
        connection.send(Search(SUFFIX, 0, ("present", "objectClass"), ("1.1",)).encoded())
        assert connection.number == count
    answered = []
    while len(answered) < 10:
        head = connection.stream.read(2)
        (_, question), (tag, _), *_ = elements(connection.stream.read(head[1]))
        answered += [int.from_bytes(question, "big")] if tag == DONE else []
    assert sorted(answered) == list(range(1, 11))
    connection.close()


@pytest.mark.parametrize("bytes_sent", [b"\x04\x00", b"\x30\x03\x02\x01", b"\x30\x05\x02\x01\x01\x7f\x00", b"GET / HTTP/1.0\r\n\r\n"])
def test_what_is_no_message_ends_the_connection(server, bytes_sent):
    connection = Connection(server.port)
    connection.socket.sendall(bytes_sent)
    connection.socket.shutdown(1)
    rest = connection.stream.read()
    # At most a notice of disconnection comes before the end.
    assert not rest or NOTICE_OF_DISCONNECTION in rest or PROTOCOL_ERROR in rest
    connection.close()
    assert searched(Connection(server.port), EVERYBODY)[1][0] == SUCCESS


# ---- controls

@pytest.mark.parametrize("oid", ["1.2.3.4.5", "1.2.840.113556.1.4.841"])
def test_a_critical_control_that_nobody_knows_is_refused_and_nothing_done(connection, oid):
    found, (code, *_), _ = searched(connection, EVERYBODY, control(oid, True))
    assert (found, code) == ([], CRITICAL)


def test_another_one_is_ignored(connection):
    found, (code, *_), controls = searched(connection, EVERYBODY, control("1.2.3.4.5", False, b"x"))
    assert found and (code, controls) == (SUCCESS, [])


@pytest.mark.parametrize("critical", [False, True])
@pytest.mark.parametrize("oid", ["2.16.840.1.113730.3.4.2", "1.2.840.113556.1.4.1339"])
def test_controls_that_change_nothing_here_are_taken(connection, oid, critical):
    """There are no referrals to manage, and none to follow out of the naming context."""
    found, (code, *_), _ = searched(connection, EVERYBODY, control(oid, critical))
    assert found and code == SUCCESS


def test_the_assertion_control_is_obeyed(connection):
    """RFC 4528: nothing is done where the assertion does not hold of the base."""
    def asserting(tree):
        return control("1.3.6.1.1.12", True, filters.encoded(tree))
    base = Search(SUFFIX, 0, ("present", "objectClass"), ("1.1",))
    found, (code, *_), _ = searched(connection, base, asserting(("=", "objectClass", b"domain")))
    assert (len(found), code) == (1, SUCCESS)
    found, (code, *_), _ = searched(connection, base, asserting(("=", "objectClass", b"device")))
    assert (found, code) == ([], 122)


# ---- bind

def test_only_version_three_is_spoken(connection):
    assert bind(connection, b"", b"", version=4) == PROTOCOL_ERROR


def test_a_name_without_a_password_is_no_log_in(connection):
    assert bind(connection, b"cn=Ann Lee," + ENGINEERING, b"") == UNWILLING


def test_who_is_refused_is_anonymous(connection):
    assert bind(connection, b"cn=Ann Lee," + ENGINEERING, b"not this") == INVALID_CREDENTIALS
    assert who_am_i(connection) == b""
    assert searched(connection, EVERYBODY)[0]


# ---- search

def test_nothing_found_is_no_error(connection):
    assert searched(connection, Search(SUFFIX, 2, ("=", "uid", b"no-one"))) == ([], (SUCCESS, b"", ""), [])


@pytest.mark.parametrize("base, matched", [
    (b"cn=nobody," + ENGINEERING, ENGINEERING), (b"cn=a,cn=b,cn=c," + SUFFIX, SUFFIX),
    (b"cn=x,cn=Ann Lee," + ENGINEERING, b"cn=Ann Lee," + ENGINEERING)])
@pytest.mark.parametrize("scope", [0, 1, 2, 3])
def test_an_absent_base_is_told_with_the_last_name_that_there_is(connection, base, matched, scope):
    found, (code, told, _), _ = searched(connection, Search(base, scope, ("present", "objectClass")))
    assert (found, code, told) == ([], NO_SUCH_OBJECT, matched)


def test_a_base_that_is_no_name(connection):
    assert searched(connection, Search(b"no name", 2, ("present", "objectClass")))[1][0] == 34


def test_a_scope_that_there_is_not(connection):
    request = EVERYBODY.encoded()
    assert request.count(number(2, ENUMERATED)) == 1
    connection.send(request.replace(number(2, ENUMERATED), number(9, ENUMERATED)))
    tag, body, _ = connection.read()
    assert (tag, outcome(body)[0]) == (DONE, PROTOCOL_ERROR)


def test_no_more_entries_come_than_the_size_limit_says(connection):
    found, (code, *_), _ = searched(connection, Search(SUFFIX, 2, PEOPLE, ("1.1",), size=3))
    assert (len(found), code) == (3, 4)
    exactly = len(searched(connection, EVERYBODY)[0])
    found, (code, *_), _ = searched(connection, Search(SUFFIX, 2, PEOPLE, ("1.1",), size=exactly))
    assert (len(found), code) == (exactly, SUCCESS)


@pytest.mark.parametrize("tree, count", [
    (("=", "noSuchAttribute", b"x"), 0), (("not", ("=", "noSuchAttribute", b"x")), 0), (("=", "uidNumber", b"no number"), 0),
    (("not", ("=", "uidNumber", b"no number")), 0), (("not", ("=", "roomNumber", b"1")), 1), (("present", "noSuchAttribute"), 0),
    (("or", [("=", "noSuchAttribute", b"x"), ("=", "uid", b"ann")]), 1), (("and", [("not", ("=", "noSuchAttribute", b"x"))]), 0),
    (("and", []), 1), (("or", []), 0), (("not", ("or", [])), 1)])
def test_what_cannot_be_said_of_an_entry_is_neither_true_nor_false(connection, tree, count):
    """An unknown attribute and an impossible value are Undefined, and no error."""
    ann = Search(b"cn=Ann Lee," + ENGINEERING, 0, tree, ("1.1",))
    found, (code, *_), _ = searched(connection, ann)
    assert (len(found), code) == (count, SUCCESS)


def nested(levels):
    tree = ("=", "uid", b"ann")
    for _ in range(levels):
        tree = ("not", tree)
    return tree


@pytest.mark.parametrize("tree, codes", [
    (nested(62), {SUCCESS}), (nested(200), {SUCCESS, UNWILLING}), (("or", [("=", "uid", b"ann")] * 3000), {SUCCESS}),
    (("or", [("=", "uid", f"n{number}".encode()) for number in range(9000)]), {SUCCESS, UNWILLING}),
    (("=", "description", b"(" * 100000), {SUCCESS}), (("sub", "cn", None, [b"*"] * 20000, None), {SUCCESS}),
    (("=", "member", b"cn=\xc3\xa9," * 500 + SUFFIX), {SUCCESS})])
def test_a_filter_that_is_a_burden_is_answered_or_refused(server, connection, tree, codes):
    _, (code, *_), _ = searched(connection, Search(SUFFIX, 2, tree, ("1.1",)))
    assert code in codes
    assert server.running() and searched(connection, EVERYBODY)[0]


def attributes_of(connection, *names, types_only=False):
    [body], *_ = searched(connection, Search(b"cn=Ann Lee," + ENGINEERING, 0, ("present", "objectClass"), names, types_only))
    return [(name, [value for _, value in elements(values)])
            for (_, name), (_, values) in (elements(one) for _, one in elements(elements(body)[1][1]))]


def test_the_attributes_that_are_asked_for(connection):
    user, operational = (dict(attributes_of(connection, name)) for name in ("*", "+"))
    assert dict(attributes_of(connection)) == user and not user.keys() & operational.keys()
    assert not user.keys() & {b"memberUid"} and b"memberOf" in dict(attributes_of(connection, "memberof"))
    assert dict(attributes_of(connection, "*", "+")) == {**user, **operational}
    assert attributes_of(connection, "1.1") == [] and attributes_of(connection, "noSuchAttribute") == []
    assert attributes_of(connection, "CN", "cn", "commonName", "2.5.4.3", "1.1") == [(b"cn", [b"Ann Lee"])]
    assert b"entryUUID" in operational and b"objectClass" in user


def test_types_only(connection):
    shown = attributes_of(connection, "*", types_only=True)
    assert len(shown) > 10 and all(values == [] for _, values in shown)


def test_no_attribute_comes_twice(connection):
    names = [name for name, _ in attributes_of(connection, "*", "+", "cn", "CN", "@posixAccount", "name")]
    assert len(names) == len(set(names))


# ---- the other operations

@pytest.mark.parametrize("name, value, code", [(b"uid", b"ANN", 6), (b"uid", b"ben", 5), (b"roomNumber", b"1", 16),
                                               (b"noSuchAttribute", b"x", 17), (b"memberUid", b"ann", 16), (b"2.5.4.3", b"ann  lee", 6),
                                               (b"uidNumber", b"many", 21)])
def test_compare(connection, name, value, code):
    connection.send(sequence(octets(b"cn=Ann Lee," + ENGINEERING), sequence(octets(name), octets(value)), tag=0x6E))
    assert outcome(connection.read()[1])[0] == code


def test_compare_with_what_is_not_there(connection):
    connection.send(sequence(octets(b"cn=nobody," + ENGINEERING), sequence(octets(b"cn"), octets(b"x")), tag=0x6E))
    assert outcome(connection.read()[1])[:2] == (NO_SUCH_OBJECT, ENGINEERING)


def test_an_extended_request_that_nobody_knows(connection):
    connection.send(sequence(octets("1.2.3.4", 0x80), tag=0x77))
    tag, body, _ = connection.read()
    assert (tag, outcome(body)[0]) == (EXTENDED, PROTOCOL_ERROR)


def test_abandon_is_not_answered(connection):
    connection.send(number(99, 0x50))
    assert who_am_i(connection) == b""  # the next answer is to the next question


def test_unbind_ends_the_connection(connection):
    connection.send(element(0x42, b""))
    assert connection.stream.read() == b""


DN = b"cn=new," + ENGINEERING
WRITES = {
    "add": sequence(octets(DN), sequence(sequence(octets("objectClass"), sequence(octets("device"), tag=0x31))), tag=0x68),
    "modify": sequence(octets(b"cn=Ann Lee," + ENGINEERING),
                       sequence(sequence(number(2, ENUMERATED), sequence(octets("title"), sequence(octets("x"), tag=0x31)))), tag=0x66),
    "delete": octets(b"cn=Ann Lee," + ENGINEERING, 0x4A),
    "rename": sequence(octets(b"cn=Ann Lee," + ENGINEERING), octets("cn=Other"), element(BOOLEAN, b"\xff"), tag=0x6C)}


@pytest.mark.parametrize("operation", WRITES)
def test_changes_are_refused_with_the_place_to_make_them(gateway, operation):
    connection = Connection(gateway.port)
    assert bind(connection, b"cn=Ann Lee," + ENGINEERING, PASSWORD.encode()) == SUCCESS  # of nobody else does slapd take one
    connection.send(WRITES[operation])
    code, _, text = outcome(connection.read()[1])
    connection.close()
    assert code == UNWILLING and "directory" in text.lower()


# ---- pages

def pages(connection, sizes, filter=PEOPLE):
    """What each page has, and the cookies; the last size repeats."""
    counts, cookies = [], []
    cookie = b""
    while True:
        found, (code, *_), controls = searched(connection, Search(SUFFIX, 2, filter, ("1.1",)),
                                               paging(sizes[min(len(counts), len(sizes) - 1)], cookie))
        assert code == SUCCESS and [one[0] for one in controls] == [PAGED]
        counts.append(len(found))
        cookie = elements(elements(controls[0][-1])[0][1])[1][1]
        if not cookie:
            return counts, cookies
        cookies.append(cookie)


def test_each_page_has_its_control_and_the_last_one_no_cookie(connection):
    everybody = len(searched(connection, EVERYBODY)[0])
    assert pages(connection, [everybody])[0] == [everybody]  # also when it is full
    assert pages(connection, [everybody - 1])[0] == [everybody - 1, 1]
    assert sum(pages(connection, [7])[0]) == everybody
    assert pages(connection, [5], ("=", "uid", b"no-one"))[0] == [0]


def test_the_size_of_pages_may_change(connection):
    everybody = len(searched(connection, EVERYBODY)[0])
    assert pages(connection, [3, 1, 10, everybody])[0] == [3, 1, 10, everybody - 14]


def test_the_control_may_be_critical(connection):
    value = sequence(number(5), octets(b""))
    found, (code, *_), controls = searched(connection, EVERYBODY, control(PAGED, True, value))
    assert (len(found), code, len(controls)) == (5, SUCCESS, 1)


@pytest.mark.parametrize("cookie", [b"x", b"12345678", b"\xff" * 100])
def test_a_cookie_that_nobody_gave_is_refused(connection, cookie):
    found, (code, *_), _ = searched(connection, EVERYBODY, paging(5, cookie))
    assert found == [] and code in (PROTOCOL_ERROR, UNWILLING)


def test_a_page_of_none_ends_the_pages(connection):
    """A size of 0 with a cookie says that no more are wanted."""
    _, _, controls = searched(connection, EVERYBODY, paging(5, b""))
    cookie = elements(elements(controls[0][-1])[0][1])[1][1]
    found, (code, *_), _ = searched(connection, EVERYBODY, paging(0, cookie))
    assert (found, code) == ([], SUCCESS)


def test_two_searches_by_pages_take_turns_on_a_connection(gateway):
    """More than RFC 2696 asks, and more than back-mdb does."""
    connection = Connection(gateway.port)
    groups = Search(SUFFIX, 2, ("=", "objectClass", b"posixGroup"), ("1.1",))
    whole = {question: len(searched(connection, question)[0]) for question in (EVERYBODY, groups)}
    found, cookies = dict.fromkeys(whole, 0), dict.fromkeys(whole, b"")
    while cookies:
        for question in list(cookies):
            entries, (code, *_), controls = searched(connection, question, paging(4, cookies[question]))
            assert code == SUCCESS
            found[question] += len(entries)
            cookies[question] = elements(elements(controls[0][-1])[0][1])[1][1]
            if not cookies[question]:
                del cookies[question]
    connection.close()
    assert found == whole
