# SPDX-License-Identifier: Apache-2.0
"""Kinds of differences from back-mdb that are meant to be, each with its reason. They do
not count as agreeing. There may be ten of them, and no more."""
from dataclasses import dataclass
from typing import Callable

MOST = 10


@dataclass(frozen=True)
class Known:
    name: str
    reason: str
    explains: Callable  # (question, Difference): whether this is why


KNOWN = ()
