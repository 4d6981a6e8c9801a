# SPDX-License-Identifier: Apache-2.0
"""What programs ask for besides people and groups, each in its own words: mail servers,
autofs, sudo, and hosts that take their services and networks from the directory."""
import pytest

from gateway import search, values

ZONE = "cn=Rfc2307NisMaps,cn=Global,cn=Zones,dc=example,dc=com"


@pytest.fixture(scope="module")
def connection(gateway):
    return gateway.connect()


@pytest.mark.parametrize("filter, dn, name, expected", [
    ("(&(objectClass=mailGroup)(mail=empty@example.com))", "cn=empty,ou=Groups,dc=example,dc=com", "mail", ["empty@example.com"]),
    ("(&(objectClass=automountMap)(automountMapName=auto.home))", f"cn=auto.home,{ZONE}", "automountMapName", ["auto.home"]),
    ("(&(objectClass=automount)(automountKey=ann))", f"cn=ann,cn=auto.home,{ZONE}", "automountInformation", ["files01:/export/Ann (1)"]),
    ("(&(objectClass=sudoRole)(sudoUser=%depth1))", "cn=admins,ou=SUDOers,dc=example,dc=com", "sudoCommand", ["ALL"]),
    ("(&(objectClass=ipService)(cn=ssh)(ipServiceProtocol=tcp))", f"cn=ssh,cn=things,{ZONE}", "ipServicePort", ["22"]),
    ("(&(objectClass=ipProtocol)(ipProtocolNumber=6))", f"cn=tcp,cn=things,{ZONE}", "cn", ["tcp"]),
    ("(&(objectClass=oncRpc)(cn=nfs))", f"cn=nfs,cn=things,{ZONE}", "oncRpcNumber", ["100003"]),
    ("(&(objectClass=ipNetwork)(ipNetworkNumber=127.0.0.0))", f"cn=loopback,cn=things,{ZONE}", "ipNetmaskNumber", ["255.0.0.0"]),
    ("(&(objectClass=ipHost)(cn=files01.example.com))", "cn=FILES01,cn=Computers,dc=example,dc=com", "ipHostNumber", ["192.0.2.2"]),
])
def test_what_there_is_is_found(connection, filter, dn, name, expected):
    assert [(found, values(entry, name)) for found, entry in search(connection, filter, [name]).items()] == [(dn, expected)]


def test_mail_to_a_group_goes_to_its_members_and_to_those_of_the_groups_in_it(connection):
    """As a mail server asks: first for the group, then for each member's address."""
    [group] = search(connection, "(&(objectClass=mailGroup)(mail=list@example.com))", ["member"]).values()
    addresses = [values(entry, "mail") for dn in values(group, "member") for entry in search(connection, "(objectClass=*)", ["mail"], dn, 0).values()]
    assert len(addresses) >= 5 and ["ann@example.com"] in addresses


@pytest.mark.parametrize("names, searches", [(["uid", "mail"], 1), (["manager"], 2), (["seeAlso", "secretary", "manager"], 2), (["*"], 2)])
def test_what_others_are_called_is_asked_once_and_only_where_it_is_wanted(agent, connection, names, searches):
    """Her own entry is one search, and all that it names are one more."""
    before = agent.served()["search"]
    [person] = search(connection, "(uid=star)", names).values()
    assert agent.served()["search"] - before == searches
    if "seeAlso" in names:
        assert "cn=shown-name,ou=Groups,dc=example,dc=com" in values(person, "seeAlso")
        assert "cn=Nobody There,dc=example,dc=com" in values(person, "seeAlso")
