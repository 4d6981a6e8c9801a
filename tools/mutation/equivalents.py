# SPDX-License-Identifier: Apache-2.0
"""The list of changes that no test can notice, each with its reason.

    search/reply.cpp: rs->sr_flags = 0;
        rs->sr_flags = 0 -> dropped
        The reason, in as many lines as it takes.

The file, and the line as it stands there; the change, as tools/mutants shows it, "any" for
all that it makes of the line, or in words for one that it does not make; the reason. A blank line ends an entry; "#" begins a comment.
"""
import dataclasses
import pathlib


@dataclasses.dataclass(frozen=True)
class Equivalent:
    file: str
    text: str  # the line, without the blanks around it
    change: str
    reason: str

    def names(self, point):
        return (self.file, self.text) == (point.file, point.text) and self.change in ("any", point.change)


def read(path):
    entries, block = [], []
    for line in [*pathlib.Path(path).read_text(encoding="utf-8").splitlines(), ""]:
        if line.startswith("#"):
            continue
        if line.strip():
            block.append(line)
        elif block:
            entries.append(entry(block))
            block = []
    return entries


def entry(block):
    if len(block) < 3 or block[0].startswith(" ") or not all(line.startswith("    ") for line in block[1:]):
        raise ValueError(f"not file and line, change, reason: {block[0]}")
    file, _, text = block[0].partition(": ")
    return Equivalent(file, text.strip(), block[1].strip(), " ".join(line.strip() for line in block[2:]))


def stale(entries, root):
    """Those whose line is not in their file any more."""
    def stands(one):
        path = pathlib.Path(root) / one.file
        return path.is_file() and one.text in {line.strip() for line in path.read_text(encoding="utf-8").splitlines()}
    return [one for one in entries if not stands(one)]
