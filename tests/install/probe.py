# SPDX-License-Identifier: Apache-2.0
"""Runs in the agent's place, under the agent's unit: tries what the unit forbids and
prints how each attempt ended, as {name: error, or "" for none}."""
import ctypes
import errno
import json
import mmap
import os
import pathlib
import socket
import sys

LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWUSER = 0x10000000
KEYCTL = 250  # by its number on x86-64


def call(function, *words):
    if function(*words) == -1:
        raise OSError(ctypes.get_errno(), "")


def write(path):
    pathlib.Path(path).write_text("x", encoding="utf-8")


ATTEMPTS = {
    "a netlink socket": lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW),
    "a packet socket": lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW),
    "writing in /etc": lambda: write("/etc/zanthe/probe"),
    "writing in /usr": lambda: write("/usr/probe"),
    "writing in /var": lambda: write("/var/lib/probe"),
    "looking into /home": lambda: os.listdir("/home"),
    "a name space of its own": lambda: call(LIBC.unshare, CLONE_NEWUSER),
    "memory that is written and run": lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC),
    "a file that runs as its owner": lambda: os.chmod(pathlib.Path("/var/lib/zanthe"), 0o4700),
    "keys of the kernel": lambda: call(LIBC.syscall, KEYCTL, 0, 0, 0, 0, 0),
    "a device": lambda: os.stat("/dev/console"),
    # and what it must be able to do
    "its own files": lambda: write("/var/lib/zanthe/probe"),
    "its run-time files": lambda: write("/run/zanthe/probe"),
    "temporary files": lambda: write("/tmp/probe"),
    "a Unix socket": lambda: socket.socket(socket.AF_UNIX),
    "IPv4": lambda: socket.socket(socket.AF_INET),
    "IPv6": lambda: socket.socket(socket.AF_INET6),
    "the keytab": lambda: open("/etc/krb5.keytab", "rb"),
}


def attempt(action):
    try:
        action()
    except OSError as error:
        return errno.errorcode[error.errno]
    return ""


results = {name: attempt(action) for name, action in ATTEMPTS.items()}
for name in ("/var/lib/zanthe/probe", "/run/zanthe/probe"):
    os.unlink(name)
pathlib.Path(sys.argv[1]).write_text(json.dumps(results), encoding="utf-8")
