# SPDX-License-Identifier: Apache-2.0
"""Since when all is well: what the troublemaker tells the clients, which are other
processes, through a file that they have mapped."""
import math
import mmap
import struct
import time

FORMAT = "d"  # seconds of the monotonic clock, which all processes share
SETTLED = 2.0  # seconds after which what went before is over


class Weather:
    def __init__(self, file):
        if not file.exists():
            file.write_bytes(struct.pack(FORMAT, math.inf))
        with open(file, "r+b") as opened:
            self.map = mmap.mmap(opened.fileno(), struct.calcsize(FORMAT))

    def rough(self):
        struct.pack_into(FORMAT, self.map, 0, math.inf)

    def calm(self, earliest=0):
        """Nothing goes wrong any more; all is well when that has settled, and not before a moment."""
        struct.pack_into(FORMAT, self.map, 0, max(time.monotonic() + SETTLED, earliest))

    def calm_since(self, moment):
        """Whether all has been well from then until now."""
        return struct.unpack_from(FORMAT, self.map)[0] <= moment
