# SPDX-License-Identifier: Apache-2.0
"""What slapd's access rules say of the entry that a search begins at, and rules that ask
for other entries: as back-mdb has it."""
import pytest

from client import Compare, Connection, Search
from compare import Comparison
from judge import ldif
from peer import Mdb
from standard import Standard

SUFFIX = b"dc=example,dc=com"
PEOPLE = b"ou=People," + SUFFIX
ENGINEERING, LABS = b"ou=Engineering," + PEOPLE, b"ou=R&D\\2C Labs," + PEOPLE
ANN = b"cn=Ann Lee," + ENGINEERING
DENIED, HIDDEN = 'dn.exact="ou=engineering,ou=people,dc=example,dc=com"', 'dn.exact="ou=r&d\\2c labs,ou=people,dc=example,dc=com"'
BY_NAME = (f"access to {DENIED} by * disclose", f"access to {HIDDEN} by * none", "access to * by * read")
RULES = {
    "by name": BY_NAME,
    "by what the entry holds": ("access to filter=(ou=Engineering) by * disclose", "access to filter=(l=Nowhere) by * none",
                                "access to * by * read"),
    "by who the entry names": ("access to dn.subtree=\"ou=groups,dc=example,dc=com\" by dnattr=member read by * disclose",
                               "access to * by * read"),
    "nothing": ("access to * by * none",),
    "without rules": (),
}
BASES = [SUFFIX, PEOPLE, ENGINEERING, LABS, ANN, b"ou=Empty," + SUFFIX, b"ou=Groups," + SUFFIX, b"cn=nobody," + ENGINEERING,
         b"ou=nowhere," + LABS, b"OU=ENGINEERING, OU=People," + SUFFIX, b"ou=Engineering,ou=nowhere," + SUFFIX]
ANYTHING = ("present", "objectClass")


@pytest.fixture(scope="module", params=RULES)
def pair(request, shared_world, judged, agent, map_file, dn_names):
    """Both servers, with the same rules."""
    rules = RULES[request.param]
    name = request.param.replace(" ", "-")
    peer = Mdb(shared_world.folder, shared_world.running_servers, ldif(judged), name=name, access=rules).start()
    directives = (f'vextranslation "{map_file}"', *Standard.MODE)
    gateway = Standard(shared_world.folder, shared_world.running_servers, env=agent.env, directives=directives, access=rules).start()
    comparison = Comparison(Connection(peer.port), Connection(gateway.port), dn_names)
    yield comparison
    comparison.peer.close()
    comparison.other.close()
    gateway.stop()
    peer.stop()


@pytest.mark.parametrize("pages", [(), (3,)])
@pytest.mark.parametrize("scope", [0, 1, 2])
def test_a_search_begins_where_the_client_may_search(pair, scope, pages):
    for base in BASES:
        for filter in (ANYTHING, ("=", "uid", b"ann")):
            pair.ask(Search(base, scope, filter, ("ou", "uid"), pages=pages))
        pair.ask(Compare(base, "objectClass", b"top"))
    assert not pair.found, pair.report()
