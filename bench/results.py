# SPDX-License-Identifier: Apache-2.0
"""The figures of a run: medians, ratios and their spread."""
import statistics

from measures import RATIOS


class Results:
    """Collects figures by measure and contender, a list of one a round."""

    def __init__(self):
        self.rounds = {}   # measure key -> contender key -> [figures]
        self.titles = {}   # measure key -> (title, unit)
        self.contenders = {}  # contender key -> title
        self.memory = {}   # what -> KiB
        self.facts = {}    # how the run was made
        self.checks = {}   # what another generator says
        self.roundtrips = {}  # how many people -> figures of libvex

    def add(self, measure, contender, figures):
        self.titles[measure.key] = (measure.title, measure.unit)
        self.contenders[contender.key] = contender.title
        self.rounds.setdefault(measure.key, {}).setdefault(contender.key, []).append(figures)

    def values(self, measure, contender, name="rate"):
        return [figures[name] for figures in self.rounds[measure][contender]]

    def median(self, measure, contender, name="rate"):
        return statistics.median(self.values(measure, contender, name))

    def ratio(self, measure, ours, theirs, name="rate"):
        """Round by round, so that what slowed both down does not count: median, least, most.
        Of processor time less is better, so there theirs is divided by ours."""
        pairs = zip(self.values(measure, ours, name), self.values(measure, theirs, name))
        rounds = [a / b if name == "rate" else b / a for a, b in pairs]
        return {"median": statistics.median(rounds), "least": min(rounds), "most": max(rounds)}

    def ratios(self, name="rate"):
        return {key: self.ratio(*parts, name) for key, parts in RATIOS.items()
                if all(self.has(parts[0], contender, name) for contender in parts[1:])}

    def has(self, measure, contender, name):
        return all(name in figures for figures in self.rounds.get(measure, {}).get(contender, [{}]))

    def as_json(self):
        rates, processor = self.ratios(), self.ratios("processor_us")
        return {
            "ratios": {key: round(value["median"], 4) for key, value in rates.items()},
            "ratios_spread": rates,
            "processor_time_ratios": {key: round(value["median"], 4) for key, value in processor.items()},
            "processor_time_ratios_spread": processor,
            "growth": {key: self.ratio(key, "gateway", "mdb")["median"] for key in self.rounds
                       if key.startswith(("connections_", "people_"))},
            "memory_kib": self.memory,
            "roundtrips": self.roundtrips,
            "checks": self.checks,
            "facts": self.facts,
            "rounds": self.rounds,
        }
