# SPDX-License-Identifier: Apache-2.0
"""No password outlives its bind in the memory of slapd or the agent.

slapd itself keeps the last requests of a connection in its read buffers, passwords
included. There a password stands as it came over the wire (RFC 4511, 4.2): behind the
DN, the tag of a simple bind, which slapd overwrites with the NUL that ends the DN, and
its length. Any other copy would be the module's or libvex's.
"""
import os
import pathlib
import random
import re
import socket
import string

import ldap
import pytest

import crowd
from gateway import SANITIZER, SUFFIX, wait_until

BLOCK = 1 << 24
LARGEST = 1 << 28  # a sanitizer's shadow memory is larger
WHO = crowd.dn(0)


def writable(process):
    """The writable mappings, as (start, end)."""
    for line in pathlib.Path(f"/proc/{process.pid}/maps").read_text(encoding="utf-8").splitlines():
        span, mode = line.split()[:2]
        start, end = (int(number, 16) for number in span.split("-"))
        if mode.startswith("rw") and end - start <= LARGEST:
            yield start, end


def copies(server, secret):
    """What stands before each copy of the secret in a process."""
    secret, found = secret.encode(), []
    with open(f"/proc/{server.process.pid}/mem", "rb", buffering=0) as memory:
        for start, end in writable(server.process):
            for place in range(start, end, BLOCK):
                memory.seek(place)
                try:
                    bytes_ = memory.read(min(BLOCK + len(secret), end - place))
                except OSError:  # a mapping that cannot be read, or has gone
                    break
                at = bytes_.find(secret)
                while at >= 0:
                    found.append(bytes_[max(at - len(SUFFIX) - 3, 0):at])
                    at = bytes_.find(secret, at + 1)
    return found


def as_received(secret):
    """What of a bind stands before its password: the end of the DN, and the NUL that slapd
    puts in the place of a tag. free() overwrites the beginning of a buffer, and more of it
    the later that is used again."""
    return SUFFIX.encode()[-6:] + bytes([0, len(secret)])


def others(server, secret):
    """The copies that are not slapd's own."""
    return [before for before in copies(server, secret) if not before.endswith(as_received(secret))]


def random_password(size):
    return "".join(random.choices(string.ascii_letters, k=size))


@pytest.mark.embedded
@pytest.mark.parametrize("size", [12, 100])  # in a string's own buffer, and outside of it
def test_after_binds_only_slapd_s_read_buffers_hold_a_password(world, size):
    right, wrong = random_password(size), random_password(size)
    agent = world.agent(embedded__ldif=crowd.write(world.folder, 1, lambda _uid: right)).start()
    slapd = world.slapd(agent).start()
    asked = slapd.connect(WHO, right)
    for _ in range(3):
        cached = slapd.connect(WHO, right)
    asked.simple_bind_s(WHO, right)
    for _ in range(3):
        with pytest.raises(ldap.INVALID_CREDENTIALS):
            slapd.connect(WHO, wrong)
    assert agent.served()["authenticate"] == 4

    assert copies(agent, right) == copies(agent, wrong) == []
    assert others(slapd, right) == others(slapd, wrong) == []
    for connection in (asked, cached):
        slapd.close_connection(connection)
    assert others(slapd, right) == []


def test_the_scan_sees_what_there_is(gateway):
    """A bind request of which more is to come is in slapd's buffer."""
    secret = random_password(30)
    with socket.create_connection(("127.0.0.1", gateway.port)) as connection:
        connection.sendall(b"\x30\x82\x10\x00\x02\x01\x01\x60\x82\x0f\x00\x02\x01\x03\x04"
                           + bytes([len(WHO)]) + WHO.encode() + bytes([0x80, len(secret)]) + secret.encode())
        wait_until(lambda: f",{SUFFIX}".encode() + bytes([0x80, len(secret)]) in copies(gateway, secret),
                   "the password is seen in slapd")


@pytest.mark.embedded
@pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
@pytest.mark.skipif(bool(SANITIZER.kind), reason="a sanitizer's runtime wants to look, too")
def test_only_root_can_look_into_the_agent(world):
    """It writes no core, and what /proc has of it is root's, whoever it runs as."""
    os.chown(world.folder, 65534, 65534)
    agent = world.agent()
    command = agent.command
    agent.command = lambda: ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", *command()]
    agent.start()
    process = pathlib.Path(f"/proc/{agent.process.pid}")
    assert "Uid:\t65534" in (process / "status").read_text(encoding="utf-8")
    assert (process / "environ").stat().st_uid == 0
    assert re.search(r"^Max core file size +0 +0 ", (process / "limits").read_text(encoding="utf-8"), re.MULTILINE)
