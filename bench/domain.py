# SPDX-License-Identifier: Apache-2.0
"""What the gateway costs in front of an Active Directory domain, for run.py: beside ldapsearch on
the domain itself, and beside back-ldap with rwm on the same domain.

The domain is tests/ad's, with 10,000 more people in 500 groups; it takes root. Nothing
is cached. Within a round the contenders run one directly after the other, in another
order each round. Everybody is asked for of new servers each time; look-ups, which are
short, in many short rounds of servers that stay.
"""
import contextlib
import itertools
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

import ldap

from servers import ROOT, gateway  # the tests' modules below are beside gateway

sys.path.append(str(ROOT / "tests/ad"))

from directories import Domain  # noqa: E402
from fill import PEOPLE  # noqa: E402
from lab import BASE, SERVICE, SERVICE_PASSWORD  # noqa: E402
from world import World  # noqa: E402

LOOK_UPS = 60  # of one contender in one round
LOOK_UP_ROUNDS = 30  # for each of everybody's
REFUSALS = 5  # of one kind in one round
DISABLED = 10  # accounts
UNIX = ["uid", "uidNumber", "gidNumber", "homeDirectory", "loginShell", "gecos"]
WINDOWS = ["sAMAccountName", "uidNumber", "gidNumber", "unixHomeDirectory", "loginShell", "gecos"]
CROWD = f"ou=Crowd,{gateway.SUFFIX}"  # at the root the domain would add its references to the proxy's answers
EVERYBODY = "(&(objectClass=posixAccount)(uid=user*))"


class Straight:
    """The domain itself, asked by ldapsearch."""

    key, title = "straight", "ldapsearch on the domain"


class Contender:
    """One slapd of its own, and what is behind it."""

    def __init__(self, domain):
        self.world = World(domain)
        self.slapd = self.start(domain)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.world.close()
        self.world.remove()


class Gateway(Contender):
    key, title = "gateway_uncached", "zanthedx, no cache"

    def start(self, domain):
        agent = self.world.agent(**self.settings_for(domain.lab)).start()
        return self.world.slapd(agent, directives=gateway.Slapd.DIRECTIVES).start()

    def settings_for(self, lab):
        return {}


class GatewayOverTls(Gateway):
    """With a service account, as the proxy."""

    key, title = "gateway_uncached_tls", "zanthedx over LDAPS, no cache"

    def settings_for(self, lab):
        return lab.agent_settings("ldaps")


class Proxy(Contender):
    """back-ldap over TLS with a service account, and rwm for the names."""

    key, title = "proxy", "back-ldap + rwm"

    def start(self, domain):
        lab = domain.lab
        account = f'bindmethod=simple binddn="CN={SERVICE},CN=Users,{BASE}" credentials="{SERVICE_PASSWORD}"'
        tls = f'tls_cacert="{lab.authority}" tls_reqcert=demand'
        lines = ["database ldap", f'suffix "{gateway.SUFFIX}"', f'uri "ldaps://{lab.addresses[0]}"', "chase-referrals no",
                 f"idassert-bind {account} mode=none {tls}", 'idassert-authzFrom "*"', f"tls ldaps {tls}",
                 "overlay rwm", "rwm-map attribute uid sAMAccountName", "rwm-map attribute homeDirectory unixHomeDirectory",
                 "rwm-map objectclass posixAccount user"]
        return self.world.slapd(module="back_ldap", modules=["rwm"], database=False, env=lab.environment,
                                globals=["sizelimit unlimited", "timelimit unlimited", "loglevel 0", *lines]).start()


def enumerate_by(words, environment=None):
    """Runs ldapsearch to its end. Returns entries a second."""
    start = time.monotonic()
    result = subprocess.run(["ldapsearch", "-LLL", *words], check=True, capture_output=True,
                            env={**os.environ, **(environment or {})}, timeout=300)
    seconds = time.monotonic() - start
    entries = result.stdout.count(b"\ndn:") + result.stdout.startswith(b"dn:")
    if entries != PEOPLE:
        raise RuntimeError(f"{entries} entries of {PEOPLE}")
    return entries / seconds


def enumerate_straight(lab):
    """By pages of 1,000, as the domain wants it."""
    environment = {**lab.environment, "KRB5_CLIENT_KTNAME": str(lab.keytab), "KRB5CCNAME": f"FILE:{lab.folder}/bench.cc"}
    return enumerate_by(["-Q", "-Y", "GSSAPI", "-N", "-H", f"ldap://{lab.addresses[0]}", "-b", f"OU=Crowd,{BASE}", "-E",
                         "pr=1000/noprompt", "(&(objectClass=user)(sAMAccountName=user*))", *WINDOWS], environment)


def look_up(contender, names, connections):
    """Look-ups a second of so many different people."""
    with tempfile.NamedTemporaryFile("w", suffix=".keys") as keys:
        keys.write("".join(f"{name}\n" for name in names))
        keys.flush()
        line = subprocess.run(
            [gateway.BUILD / "bench/ldap_load", "lookup", "--port", str(contender.slapd.port), "--keys", keys.name,
             "--base", CROWD, "--scope", "2", "--filter", "(&(objectClass=posixAccount)(uid=%s))",
             "--attributes", ",".join(UNIX), "--count", str(len(names)), "--connections", str(connections),
             "--expect-entries", "1", "--expect-key", "yes"],
            check=True, capture_output=True, text=True, timeout=300).stdout
    return json.loads(line)["operations_per_second"]


class WrongPassword:
    """Of somebody who may log in: another one each time, since the domain counts them."""

    key, title = "wrong", "a wrong password"

    @staticmethod
    def name(number):
        return f"user{DISABLED + number}"


class Disabled:
    """Of an account that is disabled."""

    key, title = "disabled", "a disabled account"

    @staticmethod
    def name(number):
        return f"user{number % DISABLED + 1}"


class Nobody:
    """Of somebody who does not exist."""

    key, title = "nobody", "an unknown name"

    @staticmethod
    def name(number):
        return f"nobody{number}"


def disable_some(lab):
    """The first few of the crowd."""
    for number in range(1, DISABLED + 1):
        [(dn, _)] = lab.find(None, f"(sAMAccountName=user{number})", ["1.1"])
        lab.modify(f"dn: {dn}\nchangetype: modify\nreplace: userAccountControl\nuserAccountControl: 514\n")


def refused_by(connection, kind, number):
    """How long a refused log-in takes."""
    start = time.monotonic()
    try:
        connection.simple_bind_s(f"cn={kind.name(number)},{CROWD}", "no such password")
    except ldap.INVALID_CREDENTIALS:
        return time.monotonic() - start
    raise RuntimeError(f"{kind.name(number)} was let in")


def measure_refusals(domain, rounds, note):
    """One directly after the other, so that what else the machine does meets all alike."""
    disable_some(domain.lab)
    numbers = itertools.count()
    for gateway_kind, measure in REFUSALS_ON_DOMAIN.items():
        with gateway_kind(domain) as contender:
            connection = contender.slapd.connect()
            for kind in measure.contenders:
                refused_by(connection, kind, next(numbers))

            def rate(kind):
                return 1 / statistics.median(refused_by(connection, kind, next(numbers)) for _ in range(REFUSALS))

            measure_rounds(measure, rounds, note, rate)


def enumerate_anew(domain, kind):
    if kind is Straight:
        return enumerate_straight(domain.lab)
    with kind(domain) as contender:
        return enumerate_by(["-x", "-H", contender.slapd.uri, "-b", CROWD, EVERYBODY, *UNIX])


@dataclass(frozen=True)
class Measure:
    """Key, title and unit are for the results."""

    key: str
    title: str
    unit: str
    contenders: tuple


EVERYBODY_OF_DOMAIN = Measure("domain_enum", "on a domain, everybody, not cached", "entries", (Straight, Gateway, Proxy))
LOOK_UPS_ON_DOMAIN = {
    1: Measure("domain_lookup_1", "on a domain, look-up, not cached, 1 connection", "operations", (Gateway, GatewayOverTls, Proxy)),
    8: Measure("domain_lookup_8", "on a domain, look-up, not cached, 8 connections", "operations", (Gateway, GatewayOverTls, Proxy)),
}


REFUSALS_ON_DOMAIN = {
    Gateway: Measure("domain_refusal", "on a domain, refused log-in", "operations", (WrongPassword, Disabled, Nobody)),
    GatewayOverTls: Measure("domain_refusal_tls", "on a domain over LDAPS, refused log-in", "operations",
                            (WrongPassword, Disabled, Nobody)),
}


def measure_rounds(measure, rounds, note, rate):
    """rate(contender's class) measures once."""
    for number in range(rounds):
        shift = number % len(measure.contenders)
        order = measure.contenders[shift:] + measure.contenders[:shift]
        note(number, rounds, measure, {kind: {"rate": rate(kind)} for kind in order})


def measure_look_ups(domain, rounds, note):
    chance = random.Random(5)
    with contextlib.ExitStack() as stack:
        contenders = {kind: stack.enter_context(kind(domain)) for kind in LOOK_UPS_ON_DOMAIN[1].contenders}
        for contender in contenders.values():
            look_up(contender, ["user1", "user2"], 1)  # its connections are there
        for connections, measure in LOOK_UPS_ON_DOMAIN.items():
            measure_rounds(measure, rounds, note, lambda kind: look_up(
                contenders[kind], [f"user{number}" for number in chance.sample(range(PEOPLE), LOOK_UPS)], connections))


def measure(rounds, note):
    """Calls note(round, rounds, measure, {contender's class: {"rate": what it did in a second}})."""
    domain = Domain("crowd")
    try:
        measure_rounds(EVERYBODY_OF_DOMAIN, rounds, note, lambda kind: enumerate_anew(domain, kind))
        measure_look_ups(domain, rounds * LOOK_UP_ROUNDS, note)
        measure_refusals(domain, rounds * LOOK_UP_ROUNDS, note)
    finally:
        domain.close()
