# SPDX-License-Identifier: Apache-2.0
"""A forest of two domains, played by scripted peers: the joined one, its global catalog,
and another domain, which the agent finds by its name."""
import contextlib

import ldap
import pytest

from gateway import SUFFIX, Slapd, log_in, search, values
from host import Slot, make_authority, make_certificate
from name_server import NameServer
from scripted_peer import Fail, ScriptedPeer
from test_peer import BASE, ENTRIES, PASSWORD, SERVICE, PeerDirectory, guid, person
from world import World

FAR = f"DC=far,{BASE}"
CATALOG_PORT = 3268
PARTITION = f"CN=FAR,CN=Partitions,CN=Configuration,{BASE}"


def far_person():
    dn, entry = person(9001)
    return dn.replace(BASE, FAR), {**entry, "unixHomeDirectory": ["/home/far/p9001"]}


def entries():
    """The joined domain's, which know that there is another domain."""
    crossing = {"objectClass": ["top", "crossRef"], "cn": ["FAR"], "nETBIOSName": ["FAR"], "nCName": [FAR],
                "objectCategory": [f"CN=Cross-Ref,CN=Schema,CN=Configuration,{BASE}"], "objectGUID": [guid(77)]}
    return {**ENTRIES, PARTITION: crossing}


def catalog_entries():
    """Both domains' people, without what a catalog does not hold."""
    dn, entry = far_person()
    part = {name: value for name, value in entry.items() if name in ("objectClass", "cn", "sAMAccountName", "objectGUID",
                                                                      "objectCategory", "objectSid", "uidNumber", "gidNumber")}
    return {**entries(), FAR: {"objectClass": ["top", "domain", "domainDNS"], "dc": ["far"]},
            f"OU=People,{FAR}": {"objectClass": ["top", "organizationalUnit"], "ou": ["People"]}, dn: part}


def far_entries():
    root = {**ENTRIES[""], "defaultNamingContext": [FAR], "dnsHostName": ["dc.far.example.com"]}
    configuration = {dn: entry for dn, entry in entries().items() if dn.endswith(f"CN=Configuration,{BASE}")}
    dn, entry = far_person()
    return {"": root, **configuration, FAR: {"objectClass": ["top", "domain", "domainDNS"], "dc": ["far"], "objectGUID": [guid(78)]},
            f"OU=People,{FAR}": {"objectClass": ["top", "organizationalUnit"], "ou": ["People"], "objectGUID": [guid(79)]}, dn: entry}


class Forest:
    """The peers, their name server, and a gateway before them."""

    def __init__(self, stack, folder):
        make_authority(folder)
        slot = stack.enter_context(contextlib.closing(Slot()))
        near, far = slot.addresses
        make_certificate(folder, [f"IP:{near}", "DNS:dc.far.example.com", "DNS:dc.example.com"], folder / "cert.pem", folder / "key.pem")
        passwords = {SERVICE: PASSWORD, far_person()[0]: "welcome", person(1)[0]: "welcome"}

        def peer(holding, where):
            return stack.enter_context(ScriptedPeer(holding, where, (folder / "cert.pem", folder / "key.pem"), "starttls", passwords))
        self.joined, self.catalog = peer(entries(), (near, 0)), peer(catalog_entries(), (near, CATALOG_PORT))
        self.far = peer(far_entries(), (far, 0))
        self.names = stack.enter_context(NameServer(
            far, {"_ldap._tcp.dc._msdcs.far.example.com": ("dc.far.example.com", self.far.port)}, {"dc.far.example.com": far}))
        self.services = dict(self.names.services)
        self.resolv = folder / "resolv.conf"
        self.resolv.write_text(f"nameserver {far}\noptions timeout:1 attempts:1\n", encoding="utf-8")
        self.world = World(PeerDirectory(folder, "starttls", [self.joined]))
        stack.callback(self.world.remove)
        stack.callback(self.world.close)
        self.agent = self.world.agent(ad__timeout=6)
        self.agent.resolve_by(self.resolv)
        self.slapd = self.world.slapd(self.agent.start(), directives=Slapd.DIRECTIVES).start()

    def forget(self):
        """The agent does not know yet which domains there are."""
        self.agent.stop()
        self.agent.start()

    def packets(self):
        """What has been asked of controllers and of the name server so far."""
        return [len(self.names.questions), *(len(peer.requests) for peer in (self.joined, self.catalog, self.far))]


@pytest.fixture(scope="module")
def forest(tmp_path_factory):
    with contextlib.ExitStack() as stack:
        yield Forest(stack, tmp_path_factory.mktemp("forest"))


def test_somebody_of_another_domain_is_found_in_the_whole_forest(forest):
    """The catalog knows where, and that domain's own controller the rest."""
    [(dn, entry)] = search(forest.slapd.connect(), "(&(objectClass=posixAccount)(uid=p9001))", ["uid", "homeDirectory"],
                           f"cn=$,{SUFFIX}").items()
    assert (dn.lower(), values(entry, "homeDirectory")) == (f"cn=p9001,ou=people,dc=far,{SUFFIX}", ["/home/far/p9001"])
    assert forest.names.questions.count("_ldap._tcp.dc._msdcs.far.example.com") == 1
    assert [request for request in forest.far.searches() if request.base.lower() == dn.lower().replace("cn=p9001", "cn=p9001")]


def test_the_joined_domain_alone_does_not_know_them(forest):
    assert search(forest.slapd.connect(), "(&(objectClass=posixAccount)(uid=p9001))", ["uid"]) == {}


def test_somebody_of_the_joined_domain_is_found_in_the_whole_forest(forest):
    [(dn, entry)] = search(forest.slapd.connect(), "(&(objectClass=posixAccount)(uid=p0007))", ["uid", "homeDirectory"],
                           f"cn=$,{SUFFIX}").items()
    assert (dn.lower(), values(entry, "homeDirectory")) == (f"cn=p0007,ou=people,{SUFFIX}", ["/home/p0007"])


def test_a_domain_that_nobody_knows(forest):
    """The catalog names somebody of a domain that has no controllers: a failure, and no
    answer without them."""
    dn, entry = person(9002)
    lost = dn.replace(BASE, f"DC=lost,{BASE}")
    forest.catalog.entries[lost] = entry
    forest.catalog.sorted = sorted(forest.catalog.entries.items())
    with pytest.raises(ldap.LDAPError):
        search(forest.slapd.connect(), "(&(objectClass=posixAccount)(uid=p9002))", ["uid"], f"cn=$,{SUFFIX}")


# ---- names of domains that clients make up

FAR_PERSON = f"cn=p9001,ou=People,dc=far,{SUFFIX}"
NEAR_PERSON = f"cn=p0001,ou=People,{SUFFIX}"


def made_up(number):
    return f"cn=p0001,ou=People,dc=made-up-{number},{SUFFIX}"


def test_a_domain_that_a_client_makes_up_gets_no_packet(forest):
    """Nor does anybody who may be asked where it is; its people are nobody."""
    forest.forget()
    assert log_in(forest.slapd, made_up(0), "welcome") == 49
    before = forest.packets()
    assert [log_in(forest.slapd, made_up(number), "welcome") for number in range(1, 41)] == [49] * 40
    assert forest.packets() == before
    assert not [name for name in forest.names.questions if "made-up" in name]


def test_made_up_domains_leave_the_others_room(forest):
    forest.forget()
    assert [log_in(forest.slapd, made_up(number), "welcome") for number in range(40)] == [49] * 40
    assert log_in(forest.slapd, FAR_PERSON, "welcome") == 0
    assert log_in(forest.slapd, NEAR_PERSON, "welcome") == 0
    assert log_in(forest.slapd, FAR_PERSON, "wrong") == 49


def lists_domains(request):
    return request.base.lower().startswith("cn=partitions,") and "systemFlags" in request.attributes


def test_which_domains_there_are_and_cannot_be_asked_is_a_failure(forest):
    """Neither a wrong password nor nobody: who is asked again later may get in."""
    forest.forget()
    assert log_in(forest.slapd, NEAR_PERSON, "welcome") == 0
    for who in (FAR_PERSON, made_up(0)):
        forest.joined.fault(Fail(1, "00002020: Operation unavailable"), lists_domains)
        assert log_in(forest.slapd, who, "welcome") == 52
    assert forest.joined.faults == []
    assert (log_in(forest.slapd, FAR_PERSON, "welcome"), log_in(forest.slapd, made_up(0), "welcome")) == (0, 49)


def test_what_the_joined_domain_has_named_counts_while_it_is_gone(forest):
    forest.forget()
    assert log_in(forest.slapd, FAR_PERSON, "welcome") == 0
    forest.joined.hung = True
    try:
        assert log_in(forest.slapd, FAR_PERSON, "welcome") == 0
    finally:
        forest.joined.hung = False


def test_a_domain_whose_controllers_are_gone_is_a_failure(forest):
    forest.forget()
    forest.names.services.clear()
    try:
        assert log_in(forest.slapd, FAR_PERSON, "welcome") == 52
        assert log_in(forest.slapd, FAR_PERSON, "wrong") == 52
    finally:
        forest.names.services.update(forest.services)


def test_another_domain_s_controllers_may_have_the_forest_s_name(forest):
    forest.names.services["_ldap._tcp.dc._msdcs.far.example.com"] = ("dc.example.com", forest.far.port)
    forest.names.hosts["dc.example.com"] = forest.far.address
    forest.forget()
    try:
        assert log_in(forest.slapd, FAR_PERSON, "welcome") == 0
    finally:
        forest.names.services.update(forest.services)


def test_a_place_outside_the_forest_is_none_of_its_domains(forest):
    """Whatever the joined domain knows of it: a reference, or a trust, which a service
    account's password is not shown to."""
    outside = f"CN=made-up-0,CN=Partitions,CN=Configuration,{BASE}"
    forest.joined.entries[outside] = {
        "objectClass": ["top", "crossRef"], "cn": ["made-up-0"], "nCName": [f"DC=made-up-0,{BASE}"],
        "dnsRoot": ["made-up-0.example.com"], "objectCategory": [f"CN=Cross-Ref,CN=Schema,CN=Configuration,{BASE}"]}
    trusted = f"CN=made-up-1.example.com,CN=System,{BASE}"
    forest.joined.entries[f"CN=System,{BASE}"] = {"objectClass": ["top", "container"], "cn": ["System"]}
    forest.joined.entries[trusted] = {
        "objectClass": ["top", "leaf", "trustedDomain"], "cn": ["made-up-1.example.com"], "trustPartner": ["made-up-1.example.com"],
        "flatName": ["MADEUP1"], "trustDirection": [3], "trustType": [2], "trustAttributes": [8]}
    forest.joined.index()
    forest.forget()
    assert [log_in(forest.slapd, made_up(number), "welcome") for number in (0, 1)] == [49, 49]
    assert not [name for name in forest.names.questions if "made-up" in name]
