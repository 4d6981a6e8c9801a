# SPDX-License-Identifier: Apache-2.0
"""People with values that slapd cannot take: bytes that are not UTF-8 cost a text its
value and nobody the person, and what is refused is refused once."""
import base64

import pytest

import crowd
from gateway import SANITIZER, search, values

pytestmark = pytest.mark.embedded

JUERGEN = "J\xfcrgen"
LEFT_OUT = "left out what is not UTF-8 of"


def lines_of(name, value):
    return f"{name}:: {base64.b64encode(value).decode()}\n"


def served(world, *more):
    """slapd before people of whom each has further LDIF lines of his own."""
    file = crowd.write(world.folder, 0)
    with file.open("a", encoding="utf-8") as records:
        for number, lines in enumerate(more):
            records.write("\n" + crowd.record(number, "right") + lines)
    agent = world.agent(embedded__ldif=file).start()
    return world.slapd(agent).start()


def test_a_byte_that_is_not_utf8_costs_its_value_and_nobody_the_person(world):
    juergen = JUERGEN.encode("latin-1")
    slapd = served(world, "description: plain\n" + lines_of("description", juergen) + lines_of("description", JUERGEN.encode())
                   + lines_of("displayName", juergen) + lines_of("objectSid", juergen) + lines_of("thumbnailPhoto", juergen))
    connection = slapd.connect()
    for asked in (None, ["uid", "displayName", "description", "thumbnailPhoto", "objectSid"], None):
        found = search(connection, "(&(objectClass=posixAccount)(uid=user0))", asked)
        [entry] = found.values()
        assert values(entry, "uid") == ["user0"]
        assert sorted(values(entry, "description")) == [JUERGEN, "plain"]
        assert values(entry, "displayName") == []
        assert entry["thumbnailPhoto"] == entry["objectSid"] == [juergen]
    told = [line for line in slapd.log().splitlines() if LEFT_OUT in line]
    assert sorted(line.split(LEFT_OUT)[1].split()[0] for line in told) == ["description", "displayName"]
    assert all("User 0" in line for line in told)


@pytest.mark.skipif(bool(SANITIZER.kind), reason="memory is counted, and slapd's own leak is one")
def test_what_slapd_refuses_for_another_reason_is_given_to_it_once(world):
    """It does not give back all that it takes for it."""
    slapd = served(world, f"description: {'x' * 10_000}\nwhenChanged: yesterday\n", "")
    connection = slapd.connect()

    def look_up(times):
        for _ in range(times):
            assert list(search(connection, "(objectClass=posixAccount)", ["*"])) == [crowd.dn(1)]
    look_up(200)
    before = slapd.memory()
    look_up(2000)
    grown = slapd.memory() - before
    print(f"slapd grew by {grown} bytes")
    assert grown < 4 << 20
