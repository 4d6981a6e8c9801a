# SPDX-License-Identifier: Apache-2.0
"""Filters as trees, and as what goes over the wire or to a shell (RFC 4511, 4515).

    ("and" | "or", [filters])   ("not", filter)   ("present", name)
    ("=" | ">=" | "<=" | "~=", name, value)
    ("sub", name, initial, [any], final)            pieces may be None
    (":=", name, rule, value, whether the DN counts)    name or rule may be None
"""
from ber import element, octets, sequence

AVA_TAGS = {"=": 0xA3, ">=": 0xA5, "<=": 0xA6, "~=": 0xA8}


def encoded(tree):
    kind, *parts = tree
    if kind in ("and", "or"):
        return sequence(*map(encoded, parts[0]), tag=0xA0 if kind == "and" else 0xA1)
    if kind == "not":
        return sequence(encoded(parts[0]), tag=0xA2)
    if kind == "present":
        return octets(parts[0], 0x87)
    if kind == "sub":
        name, initial, middle, final = parts
        pieces = [octets(initial, 0x80)] if initial is not None else []
        pieces += [octets(piece, 0x81) for piece in middle]
        pieces += [octets(final, 0x82)] if final is not None else []
        return sequence(octets(name), sequence(*pieces), tag=0xA4)
    if kind == ":=":
        name, rule, value, dn = parts
        fields = [octets(rule, 0x81)] if rule is not None else []
        fields += [octets(name, 0x82)] if name is not None else []
        fields += [octets(value, 0x83)] + ([element(0x84, b"\xff")] if dn else [])
        return sequence(*fields, tag=0xA9)
    return sequence(octets(parts[0]), octets(parts[1]), tag=AVA_TAGS[kind])


def escaped(value):
    return "".join(chr(byte) if 32 < byte < 127 and chr(byte) not in "\\()*'" else f"\\{byte:02x}" for byte in value)


def text(tree):
    kind, *parts = tree
    if kind in ("and", "or"):
        return f"({'&' if kind == 'and' else '|'}{''.join(map(text, parts[0]))})"
    if kind == "not":
        return f"(!{text(parts[0])})"
    if kind == "present":
        return f"({parts[0]}=*)"
    if kind == "sub":
        name, initial, middle, final = parts
        return f"({name}={'*'.join(escaped(piece or b'') for piece in (initial, *middle, final))})"
    if kind == ":=":
        name, rule, value, dn = parts
        return f"({name or ''}{':dn' if dn else ''}{f':{rule}' if rule else ''}:={escaped(value)})"
    return f"({parts[0]}{kind}{escaped(parts[1])})"


def depth(tree):
    kind, *parts = tree
    inner = parts[0] if kind in ("and", "or") else [parts[0]] if kind == "not" else []
    return 1 + max(map(depth, inner), default=0)
