# SPDX-License-Identifier: Apache-2.0
"""A domain that scripted peers play: its entries, and the agent's settings for it."""
from directories import ZONE

BASE = "DC=example,DC=com"
SERVICE, PASSWORD = "gateway@example.com", "Service.123"
ENOUGH = 8  # seconds, for what is to be answered


def guid(number):
    return number.to_bytes(16, "big")


def sid(rid):
    parts = (21, 1, 2, 3, rid) if rid else (21, 1, 2, 3)
    return bytes([1, len(parts), 0, 0, 0, 0, 0, 5]) + b"".join(part.to_bytes(4, "little") for part in parts)


def person(cn, name, number, *groups):
    """(DN, entry) of somebody who logs in by that name and is in the groups of these DNs."""
    return f"CN={cn},OU=People,{BASE}", {
        "shoeSize": [44],
        "objectClass": ["top", "person", "organizationalPerson", "user"], "cn": [cn], "name": [cn], "sAMAccountName": [name],
        "userPrincipalName": [f"{name}@example.com"], "uid": [name], "uidNumber": [10000 + number], "gidNumber": [10000],
        "unixHomeDirectory": [f"/home/{name}"], "loginShell": ["/bin/sh"], "objectGUID": [guid(1000 + number)],
        "objectSid": [sid(10000 + number)], "primaryGroupID": [513], "userAccountControl": [512],
        "objectCategory": [f"CN=Person,CN=Schema,CN=Configuration,{BASE}"],
        "memberOf": list(groups)}


def group(name, number, members, *groups):
    """(DN, entry) of a group of the members of these DNs, itself in other groups."""
    return f"CN={name},OU=Groups,{BASE}", {
        "objectClass": ["top", "group"], "cn": [name], "name": [name], "sAMAccountName": [name], "gidNumber": [20000 + number],
        "objectGUID": [guid(500 + number)], "objectSid": [sid(500 + number)], "groupType": [-2147483646],
        "objectCategory": [f"CN=Group,CN=Schema,CN=Configuration,{BASE}"], "member": members,
        **({"memberOf": list(groups)} if groups else {})}


def own_entries():
    """What a controller holds whoever is in the domain."""
    contexts = {"defaultNamingContext": [BASE], "rootDomainNamingContext": [BASE],
                "configurationNamingContext": [f"CN=Configuration,{BASE}"],
                "schemaNamingContext": [f"CN=Schema,CN=Configuration,{BASE}"],
                "namingContexts": [BASE, f"CN=Configuration,{BASE}", f"CN=Schema,CN=Configuration,{BASE}"]}
    names = ("cn", "sAMAccountName", "uidNumber", "gidNumber", "objectClass", "member", "unixHomeDirectory", "loginShell")
    return {
        "": {**contexts, "dnsHostName": ["peer.example.com"], "supportedControl": ["1.2.840.113556.1.4.319"],
             "supportedLDAPVersion": [3, 2], "isSynchronized": ["TRUE"], "isGlobalCatalogReady": ["TRUE"],
             "supportedSASLMechanisms": ["GSSAPI"]},
        BASE: {"objectClass": ["top", "domain", "domainDNS"], "dc": ["example"], "objectSid": [sid(None)],
               "objectGUID": [guid(1)]},
        f"CN=Configuration,{BASE}": {"objectClass": ["top", "configuration"], "cn": ["Configuration"]},
        f"CN=Partitions,CN=Configuration,{BASE}": {"objectClass": ["top", "crossRefContainer"], "cn": ["Partitions"]},
        f"CN=EXAMPLE,CN=Partitions,CN=Configuration,{BASE}": {
            "objectClass": ["top", "crossRef"], "cn": ["EXAMPLE"], "nETBIOSName": ["EXAMPLE"], "nCName": [BASE],
            "objectCategory": [f"CN=Cross-Ref,CN=Schema,CN=Configuration,{BASE}"]},
        f"CN=Schema,CN=Configuration,{BASE}": {"objectClass": ["top", "dMD"], "cn": ["Schema"]},
        **{f"OU={name},{BASE}": {"objectClass": ["top", "organizationalUnit"], "ou": [name], "objectGUID": [guid(2 + number)]}
           for number, name in enumerate(("People", "Groups"))},
        f"CN=Aggregate,CN=Schema,CN=Configuration,{BASE}": {
            "objectClass": ["top", "subSchema"], "cn": ["Aggregate"],
            "attributeTypes": [f"( 1.2.3.{number} NAME '{name}' SYNTAX '1.3.6' )"
                               for number, name in [*enumerate(names), (100, "shoeSize")]]},
        **{f"CN={name},CN=Schema,CN=Configuration,{BASE}": {
            "objectClass": ["top", "attributeSchema"], "lDAPDisplayName": [name], "searchFlags": [flags]}
           for name, flags in (("cn", 1), ("shoeSize", 128 + 16))}}


def entries(people_and_groups):
    """What a controller holds, as a ScriptedPeer takes it."""
    return {**own_entries(), **dict(people_and_groups)}


class PeerDirectory:
    """A directory for a World: one scripted peer, or several."""

    kind, environment = "peer", {}

    def __init__(self, certificate, transport, peers):
        self.certificate, self.transport, self.peers = certificate, transport, peers

    def settings(self, folder):
        password = folder / "service.password"
        password.write_text(f"{PASSWORD}\n", encoding="utf-8")
        password.chmod(0o600)
        return {"directory": "ad", "ad.servers": " ".join(f"{peer.address}:{peer.port}" for peer in self.peers),
                "ad.transport": self.transport, "ad.tls.ca": self.certificate / "authority.pem", "ad.timeout": ENOUGH,
                "ad.bind.name": SERVICE, "ad.bind.password.file": password, "domain.name": "example.com", "zone.dn": ZONE}

    def restore(self):
        pass
