#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the contenders side by side and writes results.md, results.json and ratios.svg.

    bench/run.py [--quick] [--rounds N] [--seconds S] [--people N] [--only KEY,...] [--output FOLDER]

ZX_BUILD names the build folder, which must have been configured with ZX_BENCH=ON.
"""
import argparse
import contextlib
import datetime
import json
import os
import pathlib
import shutil
import signal
import sys
import tempfile
import time

os.environ["LDAPNOINIT"] = "1"
ROOT = pathlib.Path(__file__).resolve().parents[1]
os.environ.setdefault("ZX_BUILD", str(ROOT / "build/bench"))

import ldclt  # noqa: E402
import measures  # noqa: E402
import plot  # noqa: E402
import report  # noqa: E402
import servers  # noqa: E402
from people import Directory  # noqa: E402
from results import Results  # noqa: E402
from roundtrip import roundtrip  # noqa: E402

SOME = 500  # people who bind again and again
SMALL, LARGE = 1_000, 100_000
DOMAIN = "domain"  # for --only
CONTENDERS = (servers.Null, servers.Mdb, servers.MdbCrypt, servers.Upstream, servers.Proxy, servers.CachingProxy,
              servers.Gateway, servers.StandardGateway, servers.UncachedGateway)


class Lab:
    """A folder with a directory, its servers, and what they are asked."""

    def __init__(self, people, seconds):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zx-bench-"))
        self.servers = []
        self.contenders = {}
        self.seconds = seconds
        self.directory = Directory(people)
        self.keys = {name: self.folder / name for name in ("everybody", "some", "strangers")}
        names = self.directory.names()
        self.keys["everybody"].write_text("\n".join(names) + "\n", encoding="ascii")
        self.keys["some"].write_text("\n".join(names[:SOME]) + "\n", encoding="ascii")
        self.strangers = names[SOME:]

    def meet_strangers(self):
        """People who have not bound yet: a gateway may remember the others."""
        if len(self.strangers) < measures.COLD_BINDS:
            raise RuntimeError("too few people for so many rounds of first binds")
        new, self.strangers = self.strangers[:measures.COLD_BINDS], self.strangers[measures.COLD_BINDS:]
        self.keys["strangers"].write_text("\n".join(new) + "\n", encoding="ascii")

    def start(self, kinds):
        self.start_agent()
        for kind in kinds:
            contender = kind(self)
            if kind is servers.Upstream:
                self.upstream = contender
            self.contenders[contender.key] = contender.start()

    def start_agent(self):
        """load_seconds: from the LDIF file to the agent that answers."""
        ldif = self.folder / "directory.ldif"
        with open(ldif, "w", encoding="utf-8") as file:
            self.directory.write_embedded(file)
        self.agent = servers.Agent(self.folder, self.servers, embedded__ldif=ldif)
        start = time.monotonic()
        self.agent.start_within(600)
        self.load_seconds = time.monotonic() - start
        ldif.unlink()

    def close(self):
        try:
            for server in reversed(self.servers):
                server.stop()
        finally:
            shutil.rmtree(self.folder)


class Bench:
    def __init__(self, options):
        self.options = options
        self.results = Results()
        self.start = time.monotonic()

    def say(self, text):
        print(f"[{time.monotonic() - self.start:5.0f} s] {text}", file=sys.stderr, flush=True)

    def measure_again(self, lab, measure, rounds):
        """Many short rounds: what disturbs the machine for a moment disturbs few of them, and what
        disturbs it for long, all contenders."""
        with contextlib.ExitStack() as stack:
            generators = {key: stack.enter_context(measures.Generator(measure, lab.contenders[key], lab))
                          for key in measure.contenders if key in lab.contenders}
            self.measure(lab, measure, rounds, lambda key: generators[key].step())

    def measure_first(self, lab, measure, rounds):
        """Of what happens once: a generator of its own for each figure."""
        self.measure(lab, measure, rounds, lambda key: measure.run(lab.contenders[key], lab))

    def measure(self, lab, measure, rounds, figures_of):
        """Round by round, so that what is compared runs close together."""
        keys = [key for key in measure.contenders if key in lab.contenders]
        for number in range(rounds):
            if measure.first_time:
                lab.meet_strangers()
            shift = number % len(keys)
            self.note(number, rounds, measure,
                      {lab.contenders[key]: figures_of(key) for key in keys[shift:] + keys[:shift]})

    def note(self, number, rounds, measure, found):
        """found: the figures of each contender in one round."""
        for contender, figures in found.items():
            self.results.add(measure, contender, figures)
        shown = "; ".join(f"{contender.title} {figures['rate']:,.0f}" for contender, figures in found.items())
        self.say(f"round {number + 1} of {rounds}: {measure.title}, {measure.unit}/s: {shown}")

    def fill_caches(self, lab):
        """So that with the generator's own first requests everything has been asked for twice: an entry is kept
        when it is made from a cached object."""
        for measure in self.chosen():
            if measure.key not in ("lookup", "lookup_all", "enum"):
                continue
            for key in ("gateway", "pcache"):
                if key in lab.contenders and key in measure.contenders:
                    self.fill(lab, measure, lab.contenders[key])

    def fill(self, lab, measure, contender):
        count = len(lab.directory.people) if measure.mode == "lookup" else 1
        filling = measures.Measure(measure.key, measure.title, measure.mode, measure.contenders,
                                   {**measure.options, "prime": "no", "count": count})
        filling.run(contender, lab)
        self.say(f"{contender.title}: filled for: {measure.title}")

    def main_lab(self):
        options = self.options
        lab = Lab(options.people, options.seconds)
        try:
            self.say(f"{options.people} people for each contender")
            lab.start(CONTENDERS)
            self.results.facts["load of the embedded directory"] = f"{lab.load_seconds:.1f} s"
            self.note_memory(lab, "empty cache")
            self.measure_roundtrip(lab)
            for measure in self.chosen():
                if not measure.repeats:
                    self.measure_first(lab, measure, options.fewer_rounds)
            self.fill_caches(lab)
            for measure in self.chosen():
                if measure.repeats:
                    self.measure_again(lab, measure, measure.rounds * options.rounds)
            if not options.only:
                self.compare_with_ldclt(lab)
                for connections in measures.CONNECTIONS:
                    self.measure_again(lab, measures.growth_of_connections(connections), options.fewer_rounds)
            self.note_memory(lab, "afterwards")
        finally:
            lab.close()

    def growth_lab(self, people):
        lab = Lab(people, self.options.seconds)
        try:
            self.say(f"{people} people")
            lab.start((servers.Mdb, servers.Gateway))
            self.results.facts[f"load of {people} people"] = f"{lab.load_seconds:.1f} s"
            measure = measures.growth_of_people(people)
            self.fill(lab, measure, lab.contenders["gateway"])
            self.measure_again(lab, measure, self.options.fewer_rounds)
            self.measure_roundtrip(lab)
            self.note_memory(lab, "afterwards")
        finally:
            lab.close()

    def compare_with_ldclt(self, lab):
        self.say("ten seconds of ldclt")
        found = ldclt.compare(lab.contenders["mdb"], lab)
        self.results.checks["ldclt"] = found or "not installed"
        self.say(f"ldclt: {self.results.checks['ldclt']}")

    def measure_roundtrip(self, lab):
        people = len(lab.directory.people)
        self.results.roundtrips[f"{people} people"] = roundtrip(lab)
        self.say(f"round trips of libvex, {people} people: {self.results.roundtrips[f'{people} people']}")

    def measure_domain(self):
        """Straight to the domain, and through slapd."""
        if os.geteuid() != 0 or not shutil.which("samba"):
            self.results.checks["domain"] = "left out: takes root and Samba"
            self.say("no domain: takes root and Samba")
            return
        import domain  # only now: it needs Samba
        self.say("a domain with as many people")
        domain.measure(self.options.domain_rounds, self.note)

    def chosen(self):
        only = self.options.only.split(",") if self.options.only else None
        return [measure for measure in measures.MEASURES if only is None or measure.key in only]

    def note_memory(self, lab, when):
        people = f"{len(lab.directory.people)} people, {when}"
        for contender in lab.contenders.values():
            process = contender.slapd.process.pid
            self.results.memory[f"{contender.title}, {people}"] = servers.proportional_memory(process)
        self.results.memory[f"vexagent, {people}"] = servers.proportional_memory(lab.agent.process.pid)

    def run(self):
        options = self.options
        self.results.facts |= {
            "date": datetime.datetime.now().isoformat(timespec="seconds"),
            "rounds, seconds a figure": f"{options.rounds}, {options.seconds}",
            "people": options.people,
            "processors": f"{os.cpu_count()}, servers and generator on one each" if servers.PINNED else "1",
        }
        if options.only != DOMAIN:
            self.main_lab()
        if not options.quick and not options.only:
            for people in (SMALL, LARGE):
                self.growth_lab(people)
        if options.only == DOMAIN or not (options.quick or options.only):
            self.measure_domain()
        self.results.facts["load of the machine at the end"] = f"{os.getloadavg()[0]:.1f}"
        self.results.facts["duration"] = f"{time.monotonic() - self.start:.0f} s"
        self.write()

    def write(self):
        folder = self.options.output
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "results.json").write_text(json.dumps(self.results.as_json(), indent=1) + "\n", encoding="utf-8")
        (folder / "ratios.svg").write_text(plot.ratio_plot(self.results.ratios()), encoding="utf-8")
        (folder / "results.md").write_text(report.markdown(self.results), encoding="utf-8")
        print(report.ratio_table(self.results))
        self.say(f"written to {folder}: results.md, results.json, ratios.svg")


def main():
    parser = argparse.ArgumentParser(description="Runs the contenders side by side.")
    parser.add_argument("--quick", action="store_true", help="a minute instead of a quarter of an hour")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--seconds", type=float, help="for each figure")
    parser.add_argument("--people", type=int)
    parser.add_argument("--only", default="", help="measures by key, separated by commas; or domain")
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path(os.environ["ZX_BUILD"]))
    options = parser.parse_args()
    usual = (3, 0.2, 2_000) if options.quick else (30, 0.3, 10_000)
    options.rounds = options.rounds or usual[0]
    options.seconds = options.seconds or usual[1]
    options.people = options.people or usual[2]
    options.fewer_rounds = max(1, options.rounds // 3)
    options.domain_rounds = max(1, options.rounds // 5)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the servers in order, too
    Bench(options).run()


if __name__ == "__main__":
    main()
