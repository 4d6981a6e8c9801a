# SPDX-License-Identifier: Apache-2.0
"""The gateway in the standard mode and back-mdb hold the same entries, and are asked the
same questions: what they answer must be the same.

ZX_QUESTIONS says how many (10,000), ZX_SEED which ones. A difference is printed as a
command that repeats it. known.py lists the kinds that are meant to be."""
import os

from compare import ask_both

QUESTIONS = int(os.environ.get("ZX_QUESTIONS") or 10000)


def test_every_question_is_answered_as_back_mdb_answers_it(peer, gateway, dn_names):
    comparison = ask_both(peer, gateway, dn_names, QUESTIONS)
    print(comparison.report())
    assert not comparison.found
