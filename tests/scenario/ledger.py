# SPDX-License-Identifier: Apache-2.0
"""What the servers hold: memory over the whole time, descriptors at its end."""
import collections
import contextlib
import os
import pathlib
import time

import psutil

GROWTH = 4 << 20  # bytes; what a heap may wander
KEPT = 10  # this part of the time is long enough for memory that is freed again
LONG_ENOUGH = 120  # seconds for which a process has lived that is judged


class Memory:
    """Samples of a server's memory, apart for each of its lives."""

    def __init__(self, server):
        self.server, self.lives = server, collections.OrderedDict()

    def sample(self):
        with contextlib.suppress(psutil.Error):  # it may be dead just now
            self.lives.setdefault(self.server.process.pid, []).append((time.monotonic(), self.server.memory()))

    def growth(self):
        """The most that a life long enough has grown by, from the peak of its first third
        to what it has kept in the rest: what many large requests at once take comes and goes."""
        return max((self.growth_of(samples) for samples in self.lives.values()), default=0)

    @staticmethod
    def growth_of(samples):
        begun, ended = samples[0][0], samples[-1][0]
        if ended - begun < LONG_ENOUGH:
            return 0
        third = begun + (ended - begun) / 3
        peak = max(memory for when, memory in samples if when <= third)
        rest = [memory for when, memory in samples if when > third]
        stretch = max(1, len(rest) // KEPT)
        kept = max(min(rest[first:first + stretch]) for first in range(0, len(rest) - stretch + 1, stretch))
        return max(0, kept - peak)

    def __str__(self):
        return ", ".join(f"{samples[0][1] >> 10} to {max(memory for _, memory in samples) >> 10} KiB in {samples[-1][0] - samples[0][0]:.0f} s"
                         for samples in self.lives.values() if samples[-1][0] - samples[0][0] > 20)


def descriptors(server):
    """What it has open, by kind: Unix sockets apart from those of the network, and files by
    name. A socket may be there twice."""
    process = psutil.Process(server.process.pid)
    families = {connection.fd: "unix" if connection.family.name == "AF_UNIX" else "network"
                for connection in process.connections("all")}
    links = {}
    for entry in pathlib.Path(f"/proc/{process.pid}/fd").iterdir():
        with contextlib.suppress(OSError):  # closed just now
            links[int(entry.name)] = os.readlink(entry)
    kinds = {links[number]: family for number, family in families.items() if number in links}
    return collections.Counter(kinds.get(link) or link.partition(":")[0] for link in links.values())
