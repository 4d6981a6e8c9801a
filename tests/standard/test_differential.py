# SPDX-License-Identifier: Apache-2.0
"""The gateway in the standard mode and back-mdb hold the same entries, and are asked the
same questions: what they answer must be the same.

ZX_QUESTIONS says how many (10,000), ZX_SEED which ones. A difference is printed as a
command that repeats it. known.py lists the kinds that are meant to be."""
import itertools
import os

from client import Connection
from compare import Comparison
from peer import dump
from questions import Questions

QUESTIONS = int(os.environ.get("ZX_QUESTIONS") or 10000)
SEED = int(os.environ.get("ZX_SEED") or 20260102)
MOST_DIFFERENCES = 300  # after so many there is enough to do


def test_every_question_is_answered_as_back_mdb_answers_it(peer, gateway, dn_names):
    comparison = Comparison(Connection(peer.port), Connection(gateway.port), dn_names)
    for question in itertools.islice(Questions(dump(peer), SEED), QUESTIONS):
        comparison.ask(question)
        if len(comparison.found) == MOST_DIFFERENCES:
            break
    print(comparison.report())
    assert not comparison.found
