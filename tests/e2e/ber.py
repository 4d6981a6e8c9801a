# SPDX-License-Identifier: Apache-2.0
"""As much BER as LDAP needs (RFC 4511, section 5.1): enough to read requests and to
write answers, right ones and wrong ones."""

SEQUENCE, SET, OCTETS, INTEGER, ENUMERATED, BOOLEAN = 0x30, 0x31, 0x04, 0x02, 0x0A, 0x01


def element(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def number(value, tag=INTEGER):
    return element(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def octets(value, tag=OCTETS):
    return element(tag, value if isinstance(value, bytes) else value.encode())


def sequence(*parts, tag=SEQUENCE):
    return element(tag, b"".join(parts))


def read(data, offset=0):
    """(tag, content, the offset behind it) of the element that begins there."""
    tag, size = data[offset], data[offset + 1]
    offset += 2
    if size & 0x80:
        count = size & 0x7F
        size = int.from_bytes(data[offset:offset + count], "big")
        offset += count
    if offset + size > len(data):
        raise ValueError("an element ends behind its end")
    return tag, data[offset:offset + size], offset + size


def elements(data):
    """The elements of a constructed one's content, as [(tag, content)]."""
    found, offset = [], 0
    while offset < len(data):
        tag, content, offset = read(data, offset)
        found.append((tag, content))
    return found


def integer(content):
    return int.from_bytes(content, "big", signed=True)


def missing(data):
    """How many bytes the element at the beginning still lacks, at least; 0 when it is whole."""
    if len(data) < 2:
        return 2 - len(data)
    header, size = 2, data[1]
    if size & 0x80:
        header += size & 0x7F
        if len(data) < header:
            return header - len(data)
        size = int.from_bytes(data[2:header], "big")
    return max(0, header + size - len(data))
