# SPDX-License-Identifier: Apache-2.0
"""The same with the map for hosts, whose people have other DNs than the directory's, and
which shows nobody without numbers. Fewer questions: most is as with the other map."""
from compare import ask_both
from test_differential import QUESTIONS

MAP = "rfc2307.map"


def test_every_question_is_answered_as_back_mdb_answers_it(peer, gateway, dn_names):
    comparison = ask_both(peer, gateway, dn_names, QUESTIONS // 5)
    print(comparison.report())
    assert not comparison.found
