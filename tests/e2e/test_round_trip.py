# SPDX-License-Identifier: Apache-2.0
"""Whatever bytes an object holds, a client gets exactly these: from the agent's object
through the module's LDIF and slapd's own reading of it to the wire."""
import random

import pytest

from gateway import SUFFIX, search
from test_calls import standin, start  # noqa: F401 (fixtures)

# What an LDIF line could be mistaken for, or cut at.
RISKY = [b"", b" ", b" leading", b"trailing ", b":colon", b"::", b"<file:///etc/passwd", b"< file:///etc/passwd",
         b"\n", b"a\nuidNumber: 0", b"a\r\nb", b"\0", b"a\0b", b"#comment", b"-", b"dn: cn=other", b"\x7f", b"\xff\xfe",
         b"\xc3", "é".encode(), "山田".encode(), b"x" * 76, b"x" * 77, b"x" * 1021, b"x" * 100_000]


def made(seed, count, longest):
    """Values of any bytes, none twice."""
    generator = random.Random(seed)
    return list({generator.randbytes(generator.randrange(longest)) for _ in range(count)})


def scripted(name, values):
    return [["_dn", f"cn=odd,{SUFFIX}"], ["_GUID", "6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1001"], ["_objectCategory", "Person"],
            ["objectClass", "top", "user"], [name, *({"hex": value.hex()} for value in values)]]


def served(start, standin, name, values, asked):  # noqa: F811
    slapd = start(lines=())
    standin.script(searches=[{"objects": [scripted(name, values)]}])
    [entry] = search(slapd.connect(), "(uid=odd)", asked).values()
    return next((got for key, got in entry.items() if key.split(";")[0].lower() == name.lower()), None)


# Single bytes and risky texts one by one, since one lost value can hide in a list.
@pytest.mark.parametrize("name", ["thumbnailPhoto", "THUMBNAILphoto"])
def test_each_value_alone(start, standin, name):  # noqa: F811
    slapd = start(lines=())
    values = RISKY + [bytes([byte]) for byte in range(256)]
    standin.script(searches=[
        {"filter": f"(uid=v{number})", "objects": [scripted(name, [value])]} for number, value in enumerate(values)])
    connection = slapd.connect()
    for number, value in enumerate(values):
        [entry] = search(connection, f"(uid=v{number})", ["thumbnailPhoto"]).values()
        assert entry == {"thumbnailPhoto": [value]}, value


@pytest.mark.parametrize("seed", range(8))
def test_many_values_of_any_bytes(start, standin, seed):  # noqa: F811
    values = made(seed, 400, 300)
    assert sorted(served(start, standin, "jpegPhoto", values, None)) == sorted(values)


@pytest.mark.parametrize("asked", [["memberUid"], None])
def test_thousands_of_values(start, standin, asked):  # noqa: F811
    values = [f"member{number:05}".encode() for number in range(5000)]
    assert served(start, standin, "memberUid", values, asked) == values


def test_values_of_a_megabyte(start, standin):  # noqa: F811
    values = [random.Random(1).randbytes(1 << 20), b"x" * (1 << 20)]
    assert sorted(served(start, standin, "jpegPhoto", values, ["jpegPhoto"])) == sorted(values)


@pytest.mark.parametrize("text", ["Chloé", " leading", "trailing ", ":colon", "<file:///etc/passwd", "# no comment", "山田 太郎",
                                  "a\nuidNumber: 0", "ends with a colon:", "Ünï cödé " * 200])
def test_text_stays_text(start, standin, text):  # noqa: F811
    assert served(start, standin, "description", [text.encode()], ["description"]) == [text.encode()]
