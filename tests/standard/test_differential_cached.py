# SPDX-License-Identifier: Apache-2.0
"""The same with the search cache: each question is asked again when the others have been,
and whatever the cache has kept must be the answer still. What asks for other attributes,
in another case or from another base is another question."""
from compare import ask_both
from test_differential import QUESTIONS

MORE = ("dirgate.cache.enabled true", "dirgate.cache.max.lists 100000", "dirgate.cache.max.objects 3000")


def test_every_question_is_answered_as_back_mdb_answers_it(peer, agent, gateway, dn_names):
    searches = []
    for _ in range(2):
        before = agent.served()["search"]
        comparison = ask_both(peer, gateway, dn_names, QUESTIONS // 5)
        searches.append(agent.served()["search"] - before)
        print(comparison.report())
        assert not comparison.found
    assert searches[1] < searches[0] / 2, "the cache answers the second time"
