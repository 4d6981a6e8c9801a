# SPDX-License-Identifier: Apache-2.0
"""What a domain on loopback takes from its host: addresses, certificates, programs."""
import contextlib
import ctypes
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import time

import ldap

HERE = pathlib.Path(__file__).resolve().parent
REALM, DOMAIN, DNS_NAME = "EXAMPLE.COM", "EXAMPLE", "example.com"
DOMAIN_SID = "S-1-5-21-3623811015-3361044348-30300820"  # as in the example
ADMINISTRATOR, ADMINISTRATOR_PASSWORD = "Administrator", "Passw0rd.Admin1"
SLOTS = 16
FIRST_HOST = 61  # 127.0.0.61 and upwards
SECONDS = 60


def wait_until(condition, what, seconds=SECONDS):
    """Polls until the condition gives something true, and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {seconds} seconds: {what}")
        time.sleep(0.02)


def run(command, env=None, text=None):
    """Runs a program to its end; its words come with a failure. libldap heeds the
    environment that is given, and no settings of the user's or the host's."""
    environment = {**os.environ, "TDB_NO_FSYNC": "1", "LDAPCONF": "/dev/null", "LDAPRC": "none", **(env or {})}
    environment.pop("LDAPNOINIT", None)  # it would not even heed the environment
    result = subprocess.run([str(word) for word in command], env=environment, input=text, capture_output=True, text=True, timeout=300)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with status {result.returncode}:\n{result.stdout[-3000:]}{result.stderr[-3000:]}")
    return result.stdout


def busy_seconds(pid, period):
    """The processor time that a process takes in so many seconds from now."""
    def used():
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    before, end = used(), time.monotonic() + period
    wait_until(lambda: time.monotonic() >= end, "the period is over")
    return used() - before


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


class Clock:
    """The time of day that chosen programs see; monotonic clocks go on as they are.
    Programs started with its environment follow every change."""

    LIBRARY = "/usr/$LIB/faketime/libfaketimeMT.so.1"

    def __init__(self, file):
        self.file = file
        self.ahead(0)

    def ahead(self, seconds):
        """From now on so far ahead of the host's; behind, when negative."""
        new = self.file.with_suffix(".new")
        new.write_text(f"{seconds:+d}\n", encoding="utf-8")
        new.rename(self.file)

    @property
    def environment(self):
        return {"LD_PRELOAD": self.LIBRARY, "FAKETIME_TIMESTAMP_FILE": str(self.file), "FAKETIME_NO_CACHE": "1",
                "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1"}


# ---- addresses

class Slot:
    """Two loopback addresses that are this lab's alone. The claim is a socket in the
    abstract namespace: it ends with the process, whatever ends that."""

    def __init__(self):
        for number in range(SLOTS):
            claim = socket.socket(socket.AF_UNIX)
            addresses = [f"127.0.0.{FIRST_HOST + 2 * number + which}" for which in (0, 1)]
            with contextlib.suppress(OSError):
                claim.bind(f"\0zx-ad-lab-{number}")
                if all(map(self._free, addresses)):
                    self.number, self.addresses, self._claim = number, addresses, claim
                    return
            claim.close()
        raise RuntimeError("every address for a test domain is taken")

    @staticmethod
    def _free(address):
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            probe.bind((address, 389))
            return True
        return False

    def close(self):
        self._claim.close()


# ---- answers of the services

def dns_question(name):
    """An SRV question, as a packet."""
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack(">6H", 4711, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack(">2H", 33, 1)


def dns_answers(address, name):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.settimeout(1)
        try:
            probe.sendto(dns_question(name), (address, 53))
            answer = probe.recv(4096)
        except OSError:
            return False
    return len(answer) > 12 and struct.unpack(">H", answer[6:8])[0] > 0


def tcp_answers(address, port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex((address, port)) == 0


def ldap_answers(address):
    connection = ldap.initialize(f"ldap://{address}")
    connection.set_option(ldap.OPT_NETWORK_TIMEOUT, 1)
    connection.set_option(ldap.OPT_TIMEOUT, 1)
    try:
        [(_, root)] = connection.search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["isSynchronized"])
        return root.get("isSynchronized") == [b"TRUE"]
    except (ldap.LDAPError, ValueError):
        return False
    finally:
        connection.unbind_ext()


# ---- files

def krb5_conf(addresses, folder):
    kdcs = "".join(f"    kdc = {address}\n    kpasswd_server = {address}\n" for address in addresses)
    return f"""[libdefaults]
  default_realm = {REALM}
  dns_lookup_realm = false
  dns_lookup_kdc = false
  rdns = false
  dns_canonicalize_hostname = false
  udp_preference_limit = 0
  default_ccache_name = FILE:{folder}/krb5cc_%{{uid}}
  default_rcache_name = file2:{folder}/rcache
[realms]
  {REALM} = {{
{kdcs}    admin_server = {addresses[0]}
  }}
[domain_realm]
  .{DNS_NAME} = {REALM}
  {DNS_NAME} = {REALM}
"""


def make_authority(folder):
    folder.mkdir(parents=True, exist_ok=True)
    run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "3650", "-subj", "/CN=authority of the tests",
         "-keyout", folder / "authority-key.pem", "-out", folder / "authority.pem"])


def make_certificate(authority, names, certificate, key):
    """A server's certificate for names such as DNS:dc1.example.com or IP:127.0.0.61."""
    request, extensions = certificate.with_suffix(".request"), certificate.with_suffix(".extensions")
    extensions.write_text(f"subjectAltName={','.join(names)}\nextendedKeyUsage=serverAuth\n", encoding="utf-8")
    run(["openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={names[0].partition(':')[2]}", "-keyout", key,
         "-out", request])
    run(["openssl", "x509", "-req", "-in", request, "-CA", authority / "authority.pem", "-CAkey", authority / "authority-key.pem",
         "-CAcreateserial", "-days", "3650", "-extfile", extensions, "-out", certificate])
    key.chmod(0o600)
    request.unlink()
    extensions.unlink()


def fill(step, *words):
    """One step of fill.py, in a process of its own: Samba's database library keeps
    locks and threads of its own."""
    return run([sys.executable, HERE / "fill.py", step, *words])
