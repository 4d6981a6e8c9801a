#!/usr/bin/python3
"""What the gateway costs in front of an Active Directory domain: beside ldapsearch on
the domain itself, and beside back-ldap with rwm on the same domain.

    bench/domain.py BUILD     a build folder with the benchmarks (make bench); takes root

The domain is tests/ad's, with 10,000 more people in 500 groups. Nothing is cached:
each gateway is new, and each look-up asks for somebody else. Rounds alternate between
the contenders; medians are shown.
"""
import json
import os
import pathlib
import random
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
os.environ["ZX_BUILD"] = str(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/bench").absolute())
os.environ["LDAPNOINIT"] = "1"
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "tests/ad")]

from directories import Domain  # noqa: E402
from fill import GROUPS, PEOPLE  # noqa: E402
from gateway import BUILD, SUFFIX, Slapd  # noqa: E402
from lab import BASE, SERVICE, SERVICE_PASSWORD  # noqa: E402
from world import World  # noqa: E402

ENUMERATIONS, ROUNDS, LOOK_UPS = 5, 5, 1900
UNIX = ["uid", "uidNumber", "gidNumber", "homeDirectory", "loginShell", "gecos"]
WINDOWS = ["sAMAccountName", "uidNumber", "gidNumber", "unixHomeDirectory", "loginShell", "gecos"]
CROWD = f"ou=Crowd,{SUFFIX}"  # at the root the domain would add its references to the proxy's answers
EVERYBODY = "(&(objectClass=posixAccount)(uid=user*))"


class Gateway:
    """A new agent and a new slapd."""

    title = "zanthedx"

    def __init__(self, domain):
        self.world = World(domain)
        self.agent = self.world.agent().start()
        self.slapd = self.world.slapd(self.agent, directives=Slapd.DIRECTIVES).start()

    def processes(self):
        return [self.agent.process.pid, self.slapd.process.pid]

    def close(self):
        self.world.close()
        self.world.remove()


class Proxy:
    """back-ldap over TLS with a service account, and rwm for the names."""

    title = "back-ldap + rwm"

    def __init__(self, domain):
        lab = domain.lab
        self.world = World(domain)
        account = f'bindmethod=simple binddn="CN={SERVICE},CN=Users,{BASE}" credentials="{SERVICE_PASSWORD}"'
        lines = ["database ldap", f'suffix "{SUFFIX}"', f'uri "ldaps://{lab.addresses[0]}"', "chase-referrals no",
                 f'idassert-bind {account} mode=none tls_cacert="{lab.authority}" tls_reqcert=demand', 'idassert-authzFrom "*"',
                 f'tls ldaps tls_cacert="{lab.authority}" tls_reqcert=demand',
                 "overlay rwm", "rwm-map attribute uid sAMAccountName", "rwm-map attribute homeDirectory unixHomeDirectory",
                 "rwm-map objectclass posixAccount user"]
        self.slapd = self.world.slapd(module="back_ldap", modules=["rwm"], database=False, env=lab.environment,
                                      globals=["sizelimit unlimited", "timelimit unlimited", "loglevel 0", *lines]).start()

    def processes(self):
        return [self.slapd.process.pid]

    def close(self):
        self.world.close()
        self.world.remove()


def memory(processes):
    """The most that they have ever held, in MiB."""
    def peak(process):
        lines = pathlib.Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines()
        return next(int(line.split()[1]) for line in lines if line.startswith("VmHWM:"))
    return sum(map(peak, processes)) / 1024


def enumerate_by(words, environment=None):
    """Runs ldapsearch to its end: (seconds, entries)."""
    start = time.monotonic()
    result = subprocess.run(["ldapsearch", "-LLL", "-Q" if "GSSAPI" in words else "-x", *words], check=False, capture_output=True,
                            env={**os.environ, **(environment or {})}, timeout=300)
    seconds = time.monotonic() - start
    if result.returncode != 0:
        raise RuntimeError(result.stderr.decode())
    return seconds, result.stdout.count(b"\ndn:") + result.stdout.startswith(b"dn:")


def straight(lab):
    """The domain itself, by pages of 1,000."""
    environment = {**lab.environment, "KRB5_CLIENT_KTNAME": str(lab.keytab), "KRB5CCNAME": f"FILE:{lab.folder}/bench.cc"}
    return enumerate_by(["-Y", "GSSAPI", "-N", "-H", f"ldap://{lab.addresses[0]}", "-b", f"OU=Crowd,{BASE}", "-E",
                         "pr=1000/noprompt", "(&(objectClass=user)(sAMAccountName=user*))", *WINDOWS], environment)


def through(slapd):
    return enumerate_by(["-H", slapd.uri, "-b", CROWD, EVERYBODY, *UNIX])


def measure_enumeration(domain):
    figures = {}
    def note(title, result, peak):
        seconds, entries = result
        assert entries == PEOPLE, f"{title}: {entries} entries"
        figures.setdefault(title, []).append((seconds, peak))
    for _ in range(ENUMERATIONS):
        note("ldapsearch on the domain", straight(domain.lab), 0)
        for kind in (Gateway, Proxy):
            contender = kind(domain)
            note(kind.title, through(contender.slapd), memory(contender.processes()))
            contender.close()
    return {title: [statistics.median(column) for column in zip(*rows)] for title, rows in figures.items()}


def look_up(slapd, names, connections):
    """Look-ups a second of so many different people."""
    with tempfile.NamedTemporaryFile("w", suffix=".keys") as keys:
        keys.write("".join(f"{name}\n" for name in names))
        keys.flush()
        line = subprocess.run(
            [BUILD / "bench/ldap_load", "lookup", "--port", str(slapd.port), "--keys", keys.name, "--base", CROWD, "--scope", "2",
             "--filter", "(&(objectClass=posixAccount)(uid=%s))", "--attributes", ",".join(UNIX), "--count", str(len(names)),
             "--connections", str(connections), "--expect-entries", "1", "--expect-key", "yes"],
            check=True, capture_output=True, text=True, timeout=300).stdout
    return json.loads(line)["operations_per_second"]


def measure_look_ups(domain, connections):
    people = [f"user{number}" for number in range(PEOPLE)]
    random.Random(5).shuffle(people)
    figures = {}
    for number in range(ROUNDS):
        names = people[number * LOOK_UPS:][:LOOK_UPS]
        for kind in (Gateway, Proxy):
            contender = kind(domain)
            look_up(contender.slapd, people[-2:], 1)  # its connections are there
            figures.setdefault(kind.title, []).append(look_up(contender.slapd, names, connections))
            contender.close()
    return {title: statistics.median(rates) for title, rates in figures.items()}


def main():
    domain = Domain("crowd")
    try:
        print(f"{PEOPLE} people in {GROUPS} groups; medians of {ENUMERATIONS} enumerations, {ROUNDS} rounds of {LOOK_UPS} look-ups")
        enumerations = measure_enumeration(domain)
        own = enumerations["ldapsearch on the domain"][0]
        for title, (seconds, peak) in enumerations.items():
            print(f"enumeration  {title:26} {seconds:6.2f} s  {seconds / own:5.2f} of ldapsearch's"
                  + (f"  {peak:6.1f} MiB at most" if peak else ""))
        for connections in (1, 8):
            rates = measure_look_ups(domain, connections)
            for title, rate in rates.items():
                print(f"look-up      {title:26} {rate:8.0f} a second on {connections} connections")
            ratio = rates[Gateway.title] / rates[Proxy.title]
            print(f"lookup_uncached_vs_back_ldap on {connections} connections: {ratio:.2f}")
    finally:
        domain.close()


if __name__ == "__main__":
    main()
