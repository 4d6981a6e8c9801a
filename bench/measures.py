# SPDX-License-Identifier: Apache-2.0
"""What is measured: which requests, of whom, and which contenders answer them."""
import json
import subprocess
from dataclasses import dataclass, field

from people import EVERYBODY_FILTER, PASSWORD, PERSON_FILTER, POSIX_ATTRIBUTES, SUFFIX, shown_dn
from servers import GENERATOR_CORE, gateway, pin

# Busy enough that the server's processor is never idle.
BUSY = {"connections": 8, "outstanding": 8}
POSIX = {"attributes": ",".join(POSIX_ATTRIBUTES)}
LOOKUP = {"filter": PERSON_FILTER, "keys": "everybody"}
# Everything that is asked for while it is measured was asked for before.
AGAIN = {"prime": "yes"}
COLD_BINDS = 400
FIRST_LOOKUPS = 2000


@dataclass(frozen=True)
class Measure:
    """One kind of request. options are ldap_load's; unit is what a second is full of."""

    key: str
    title: str
    mode: str
    contenders: tuple
    options: dict = field(default_factory=dict)
    unit: str = "operations"
    from_nothing: bool = False  # restarts its contenders first
    first_time: bool = False    # needs people who have not bound before
    rounds: int = 1             # times as many, since its figures differ much from round to round

    @property
    def repeats(self):
        """Whether the same is asked again and again, over the same connections."""
        return not self.from_nothing and not self.first_time

    def command(self, contender, lab):
        options = {"port": contender.port(), "seconds": lab.seconds, "warmup": lab.seconds / 4, **self.options}
        if self.mode == "bind":
            options |= {"dn": shown_dn("%s"), "password": PASSWORD}
        else:
            options |= {"base": SUFFIX, "expect-entries": self.expected(contender, lab)}
        options = contender.asked(options)
        if "keys" in options:
            options["keys"] = lab.keys[options["keys"]]
        words = [gateway.BUILD / "bench/ldap_load", self.mode]
        for name, value in options.items():
            words += [f"--{name}", value]
        for process in contender.processes():
            words += ["--watch", process]
        return [str(word) for word in words]

    def expected(self, contender, lab):
        if not contender.entries:
            return 0
        return 1 if self.mode == "lookup" else len(lab.directory.people)

    def run(self, contender, lab):
        """The figures of a generator of its own."""
        if self.from_nothing:
            contender.restart()
        run = subprocess.run(pin(GENERATOR_CORE, self.command(contender, lab)), stdout=subprocess.PIPE,
                             timeout=300, check=True)
        return self.read(run.stdout)

    def read(self, line):
        """The generator's figures, with the processor time that the contender took for each unit."""
        figures = json.loads(line)
        figures["rate"] = figures[f"{self.unit}_per_second"]
        figures["processor_us"] = 1e6 * sum(figures["watched_busy"]) / figures["rate"]
        return figures


class Generator:
    """One that stays connected to a contender and measures for a moment each time that it is told to."""

    def __init__(self, measure, contender, lab):
        self.measure = measure
        self.process = subprocess.Popen(
            pin(GENERATOR_CORE, [*measure.command(contender, lab), "--stepwise", "yes"]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        self.step()  # with it what is asked again and again is asked once
        return self

    def __exit__(self, *_):
        with self.process:
            self.process.terminate()

    def step(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:  # it gives up when nothing comes for half a minute
            raise RuntimeError(f"the generator of {self.measure.title} failed")
        return self.measure.read(line)


def lookup(key, title, contenders, **options):
    return Measure(key, title, "lookup", contenders, {**LOOKUP, **AGAIN, "expect-key": "yes", **options})


def enumeration(key, title, contenders, clients):
    """A figure is that of one whole enumeration by each client."""
    return Measure(key, title, "enumeration", contenders,
                   {"filter": EVERYBODY_FILTER, **POSIX, **AGAIN, "connections": clients, "count": clients}, unit="entries",
                   rounds=2)


MEASURES = (
    lookup("lookup", "look-up of a person, what getent asks",
           ("null", "mdb", "pcache", "gateway", "gateway_standard", "gateway_uncached", "proxy"), **POSIX, **BUSY),
    lookup("lookup_all", "look-up of a person, all attributes", ("mdb", "pcache", "gateway", "gateway_standard"), **BUSY),
    lookup("latency", "look-up, one at a time", ("null", "mdb", "pcache", "gateway", "gateway_uncached", "proxy"),
           **POSIX, keys="some"),
    enumeration("enum", "everybody, 1 client", ("mdb", "gateway", "gateway_standard"), 1),
    enumeration("enum_2", "everybody, 2 clients", ("mdb", "gateway"), 2),
    enumeration("enum_uncached", "everybody, not cached", ("gateway_uncached", "proxy"), 1),
    Measure("paged", "everybody in pages of 500", "paged", ("mdb", "gateway", "gateway_standard"),
            {"filter": EVERYBODY_FILTER, **POSIX, **AGAIN, "page-size": 500}, unit="entries"),
    Measure("bind", "bind again", "bind", ("mdb", "gateway"),
            {"keys": "some", **AGAIN, "connections": 32}, rounds=3),
    Measure("bind_cold", "first bind, the same crypt(3) hash", "bind", ("mdb_crypt", "gateway"),
            {"keys": "strangers", "count": COLD_BINDS, "connections": 8}, first_time=True),
    Measure("first_lookup", "first look-up, stored", "lookup", ("pcache", "gateway"),
            {**LOOKUP, **POSIX, **BUSY, "count": FIRST_LOOKUPS, "expect-key": "yes"}, from_nothing=True),
)

# Ratio: (measure, ours, theirs). Above 1 is in our favour.
RATIOS = {
    "lookup_cached_vs_mdb": ("lookup", "gateway", "mdb"),
    "lookup_cached_vs_pcache": ("lookup", "gateway", "pcache"),
    "lookup_cached_vs_null": ("lookup", "gateway", "null"),
    "lookup_all_cached_vs_mdb": ("lookup_all", "gateway", "mdb"),
    "lookup_all_cached_vs_pcache": ("lookup_all", "gateway", "pcache"),
    "enum_cached_vs_mdb": ("enum", "gateway", "mdb"),
    "enum_cached_vs_mdb_2_clients": ("enum_2", "gateway", "mdb"),
    "paged_cached_vs_mdb": ("paged", "gateway", "mdb"),
    "bind_cached_vs_mdb": ("bind", "gateway", "mdb"),
    "bind_cold_vs_mdb_same_hash": ("bind_cold", "gateway", "mdb_crypt"),
    "lookup_uncached_vs_back_ldap": ("lookup", "gateway_uncached", "proxy"),
    "enum_uncached_vs_back_ldap": ("enum_uncached", "gateway_uncached", "proxy"),
    "miss_and_store_vs_pcache": ("first_lookup", "gateway", "pcache"),
    # Those of domain.py.
    "enum_on_domain_vs_straight": ("domain_enum", "gateway_uncached", "straight"),
    "enum_on_domain_vs_back_ldap": ("domain_enum", "gateway_uncached", "proxy"),
    "lookup_on_domain_vs_back_ldap": ("domain_lookup_1", "gateway_uncached", "proxy"),
    "lookup_on_domain_vs_back_ldap_8": ("domain_lookup_8", "gateway_uncached", "proxy"),
    "lookup_on_domain_over_tls_vs_back_ldap": ("domain_lookup_1", "gateway_uncached_tls", "proxy"),
    "lookup_on_domain_over_tls_vs_back_ldap_8": ("domain_lookup_8", "gateway_uncached_tls", "proxy"),
    "unknown_name_vs_wrong_password": ("domain_refusal", "nobody", "wrong"),
    "disabled_vs_wrong_password": ("domain_refusal", "disabled", "wrong"),
    "unknown_name_vs_wrong_password_over_tls": ("domain_refusal_tls", "nobody", "wrong"),
    "disabled_vs_wrong_password_over_tls": ("domain_refusal_tls", "disabled", "wrong"),
}

CONNECTIONS = (1, 8, 64)


def growth_of_connections(connections):
    return lookup(f"connections_{connections}", f"{connections} connection{'s' * (connections > 1)}", ("mdb", "gateway"), **POSIX,
                  connections=connections)


def growth_of_people(count):
    return lookup(f"people_{count}", f"{count} people", ("mdb", "gateway"), **POSIX, **BUSY)
