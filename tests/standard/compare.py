# SPDX-License-Identifier: Apache-2.0
"""Whether two servers say the same to a question, and what is different where they do not."""
import collections
import dataclasses
import itertools
import os

import ldap
from ldap.dn import str2dn

from client import Connection
from known import KNOWN
from peer import dump
from questions import Questions

# What back-mdb makes for itself, of its own writing.
OWN = {"entrycsn", "creatorsname", "modifiersname", "contextcsn"}
MEMBER_OF = {"memberof", "1.2.840.113556.1.2.102"}
DN_SYNTAX = "1.3.6.1.4.1.1466.115.121.1.12"
SIZE_LIMIT_EXCEEDED = 4
MOST_SHOWN = 5  # differences of one question
MOST_FOUND = 300  # questions; after so many there is enough to do
SEED = int(os.environ.get("ZX_SEED") or 20260102)


@dataclasses.dataclass(frozen=True)
class Difference:
    what: str  # "result", "matched DN", "entries", "attributes", "values", "controls", "pages"
    text: str


def folded_dn(value):
    """DNs are the same whatever their spelling; anything else is itself."""
    try:
        return tuple(tuple(sorted((name.lower(), text.lower()) for name, text, _ in rdn)) for rdn in str2dn(value.decode()))
    except (UnicodeDecodeError, ldap.DECODING_ERROR):
        return value


def short(values):
    text = ", ".join(repr(value)[1:] if isinstance(value, bytes) else str(value) for value in values)
    return text if len(text) < 300 else text[:300] + "..."


class Comparison:
    """peer and other are Connections; what the peer says is right. entries: all that it has."""

    def __init__(self, peer, other, dn_names, entries=()):
        self.peer, self.other, self.dn_names, self.entries = peer, other, dn_names, dict(entries)
        self.asked, self.agreed = collections.Counter(), collections.Counter()
        self.known = collections.Counter()
        self.found = []  # [(question, the peer's answer, the other's, [Difference])] that nobody knows

    def ask(self, question):
        """Asks both, and counts. Returns the differences that are not known."""
        self.peer.begin(question)
        self.other.begin(question)
        right, answer = self.peer.end(question), self.other.end(question)
        differences = self.differences(question, right, answer)
        self.asked[question.kind] += 1
        if not differences:
            self.agreed[question.kind] += 1
            return []
        kind = next((one for one in KNOWN if one.explains(question, right, answer, self.entries)), None)
        if kind is not None:
            self.known[kind.name] += 1
            return []
        self.found.append((question, right, answer, differences))
        return differences

    def percentage(self):
        return 100 * self.agreed.total() / max(1, self.asked.total())

    def report(self, most=20):
        """What agrees, by kinds of questions, and the first differences, each to be repeated
        by hand."""
        lines = [f"{self.agreed.total()} of {self.asked.total()} questions are answered alike: {self.percentage():.2f} %"]
        lines += [f"  {kind}: {self.agreed[kind]} of {count}" for kind, count in sorted(self.asked.items())]
        lines += [f"  known: {name}: {count}" for name, count in self.known.most_common()]
        kinds = collections.Counter(difference.what for *_, differences in self.found for difference in differences[:1])
        lines += [f"  not known, {what} first: {count}" for what, count in kinds.most_common()]
        for question, right, answer, differences in self.found[:most]:
            lines += ["", question.command(f"ldap://127.0.0.1:{self.other.port}"), f"  the peer: {right}", f"  here:     {answer}"]
            lines += [f"  {one.what}: {one.text}" for one in differences[:MOST_SHOWN]]
        return "\n".join(lines)

    # ---- one question

    def differences(self, question, right, answer):
        found = []
        if right.code != answer.code:
            found.append(Difference("result", f"{right.code} and {answer.code}"))
        if folded_dn(right.matched.encode()) != folded_dn(answer.matched.encode()):
            found.append(Difference("matched DN", f"{right.matched!r} and {answer.matched!r}"))
        if right.controls != answer.controls:
            found.append(Difference("controls", f"{short(right.controls)} and {short(answer.controls)}"))
        if right.sizes != answer.sizes:
            found.append(Difference("pages", f"{list(right.sizes)} and {list(answer.sizes)}"))
        return found + self._entries(question, right, answer)

    def _entries(self, question, right, answer):
        if len(right.entries) != len(answer.entries) and right.code == answer.code == SIZE_LIMIT_EXCEEDED:
            return [Difference("entries", f"{len(right.entries)} and {len(answer.entries)}")]
        expected = right
        if right.code == answer.code == SIZE_LIMIT_EXCEEDED:
            # Which ones they are is for each server to choose.
            expected = self.peer.ask(dataclasses.replace(question, size=0))
        ours, theirs = dict(answer.entries), dict(expected.entries)
        found = []
        if len(ours) != len(answer.entries):
            found.append(Difference("entries", "one comes twice"))
        for title, missing in (("missing", theirs.keys() - ours.keys()), ("too many", ours.keys() - theirs.keys())):
            if missing and not (title == "missing" and expected is not right):
                found.append(Difference("entries", f"{title}: {short(sorted(missing))}"))
        for dn in sorted(ours.keys() & theirs.keys()):
            found += self._attributes(question, dn, theirs[dn], ours[dn])
        return found

    def _attributes(self, question, dn, theirs, ours):
        if theirs == ours:
            return []
        wanted = {name.lower().partition(";")[0] for name in question.names}
        ignored = OWN if wanted & MEMBER_OF else OWN | {"memberof"}
        theirs, ours = ({name: values for name, values in entry.items() if name.lower() not in ignored} for entry in (theirs, ours))
        found = [Difference("attributes", f"{dn}: {title}: {short(sorted(names))}")
                 for title, names in (("missing", theirs.keys() - ours.keys()), ("too many", ours.keys() - theirs.keys())) if names]
        for name in sorted(theirs.keys() & ours.keys()):
            if self._values(name, theirs[name]) != self._values(name, ours[name]):
                found.append(Difference("values", f"{dn}: {name}: {short(theirs[name])} and {short(ours[name])}"))
        return found

    def _values(self, name, values):
        fold = folded_dn if name.lower() in self.dn_names else bytes
        return collections.Counter(map(fold, values))


def ask_both(peer, other, dn_names, count, seed=SEED):
    """Asks two servers so many questions about what the first one holds."""
    entries = dump(peer)
    comparison = Comparison(Connection(peer.port), Connection(other.port), dn_names, entries)
    for question in itertools.islice(Questions(entries, seed), count):
        comparison.ask(question)
        if len(comparison.found) == MOST_FOUND:
            break
    comparison.peer.close()
    comparison.other.close()
    return comparison
