# SPDX-License-Identifier: Apache-2.0
"""A directory of people, groups and things whose names are as odd as names get: the
LDIF file that the gateway's embedded directory is built from. Always the same one."""
import base64
import random
import unicodedata
import uuid

from ldap.dn import escape_dn_chars

from crowd import crypt_hash

DOMAIN = "DC=example,DC=com"
ZONE = f"CN=Global,CN=Zones,{DOMAIN}"
OTHER_ZONE = f"CN=Elsewhere,CN=Zones,{DOMAIN}"
SID = "S-1-5-21-3623811015-3361044348-30300820"
OTHER_SID = "S-1-5-21-1-2-3"
CATEGORIES = {"user": "Person", "group": "Group", "computer": "Computer", "nisNetgroup": "NisNetgroup", "nisMap": "NisMap",
              "nisObject": "NisObject", "ipService": "IpService", "ipNetwork": "IpNetwork", "ipProtocol": "IpProtocol",
              "oncRpc": "OncRpc", "organizationalUnit": "Organizational-Unit", "container": "Container",
              "domainDNS": "Domain-DNS", "contact": "Person", "sudoRole": "sudoRole"}
SUPERIORS = {"user": ["person", "organizationalPerson"], "computer": ["person", "organizationalPerson", "user"],
             "contact": ["person", "organizationalPerson"], "domainDNS": ["domain"]}

# One of whom more is known: her password, as crypt(3) has it, is this one.
ANN, PASSWORD = "Ann Lee", "welcome"

# What people are called, and what they log in with. Those who would be one to a server
# that prepares names are in different units: two entries cannot have one DN.
ODD_NAMES = [
    (ANN, "ann"), ("José Ångström", "jose"), ("Ｗａｎｄａ Ｗｉｄｅ", "wanda"), ("Οδυσσεύς", "odysseus"),
    ("Ann  Marie   Many", "annmarie"), (" Lead Blank", "lead"), ("Trail Blank ", "trail"), ("Par (en) thesis", "paren"),
    ("Star * Star", "star"), ("Back\\slash Bob", "bob"), ("Comma, Person", "comma"), ("Plus + Plus", "plus"),
    ('Quote "Q" Uote', "quote"), ("#hash first", "hash"), ("not #first", "hash2"), ("semi;colon", "semi"),
    ("<angle> brackets", "angle"), ("dc=equals = sign", "equals"), ("slash/solidus", "slash"), ("100% Percent", "percent"),
    ("😀 Smile", "smile"), ("山田 太郎", "taro"), ("Дарья Волкова", "darya"), ("ﬁsh Ligature", "fish"), ("Jürgen Straße", "juergen"),
    ("Tuğba Yılmaz", "tugba"), ("İstanbul Ilk", "istanbul"), ("soft\u00adhyphen", "soft"), ("zero\u200dwidth", "zero"),
    ("non\u00a0breaking", "nbsp"), ("נועה לוי", "noa"), ("O'Neil", "oneil"), ("under_score", "under"), ("dash-ed", "dashed"),
    ("UPPER CASE", "UPPER"), ("Ǆ Digraph", "digraph"), ("½ Half", "half"), ("x" * 200, "long"), ("a", "a"), ("7", "7"),
    ("objectClass=*", "star2"), ("(uid=ann)", "filter"), ("cn\\2cescaped", "escaped"), ("ﷺ Long form", "longform"),
]
TWINS = [("José Ångström", "jose2", "NFD"), ("WANDA WIDE", "wanda2", None), ("ΟΔΥΣΣΕΎΣ", "odysseus2", None),
         ("Ann Marie Many", "annmarie2", None), ("jürgen STRASSE", "juergen2", None), ("Fish Ligature", "fish2", None),
         ("tuğba yilmaz", "tugba2", None), ("softhyphen", "soft2", None), ("non breaking", "nbsp2", None)]


def record(dn, objectclass, **attributes):
    """One object. A value may be a list; bytes, numbers and text are all right."""
    lines = [("dn", dn), ("objectClass", ["top", *SUPERIORS.get(objectclass, ()), objectclass]),
             ("objectCategory", f"CN={CATEGORIES[objectclass]},CN=Schema,CN=Configuration,{DOMAIN}"),
             ("objectGUID", str(uuid.uuid5(uuid.NAMESPACE_X500, dn))), *attributes.items()]
    text = ""
    for name, values in lines:
        for value in values if isinstance(values, list) else [values]:
            data = value if isinstance(value, bytes) else str(value).encode()
            text += f"{name}:: {base64.b64encode(data).decode()}\n"
    return text


class Company:
    """The records, as they come."""

    def __init__(self, seed=20260102):
        self.random = random.Random(seed)
        self.records, self.people, self.numbers = [], [], 20000
        self._units()
        self._people()
        self._edges()
        self._groups()
        self._computers()
        self._zones()
        self._hidden()

    def ldif(self):
        return "\n".join(self.records)

    def add(self, dn, objectclass, **attributes):
        self.records.append(record(dn, objectclass, **attributes))
        return dn

    # ---- the tree

    def _units(self):
        self.add(DOMAIN, "domainDNS", dc="example", objectSid=SID, description="An imaginary company",
                 whenCreated="20200101000000.0Z", whenChanged="20260101000000.0Z")
        self.people_unit = self.add(f"OU=People,{DOMAIN}", "organizationalUnit", ou="People", description="Everybody")
        self.units = [self.add(f"OU={escape_dn_chars(name)},{self.people_unit}", "organizationalUnit", ou=name, whenCreated=when)
                      for name, when in (("Engineering", "20210101000000.0Z"), ("R&D, Labs", "20210102030405.0Z"),
                                         ("Größe + Maß", "20210101000000.0Z"), ("#1", "20210101000001.0Z"))]
        self.add(f"OU=Empty,{DOMAIN}", "organizationalUnit", ou="Empty", l="Nowhere", postalCode="00000")
        self.group_unit = self.add(f"OU=Groups,{DOMAIN}", "organizationalUnit", ou="Groups")
        self.computers_unit = self.add(f"CN=Computers,{DOMAIN}", "container", cn="Computers", description="Machines")

    def person(self, name, login, unit, **attributes):
        """One with numbers, unless they are given as None."""
        self.numbers += 1
        facts = {"cn": name, "sAMAccountName": login, "displayName": name, "uidNumber": self.numbers, "gidNumber": 10000,
                 "unixHomeDirectory": f"/home/{login}", "loginShell": "/bin/bash", "gecos": name,
                 "userPrincipalName": f"{login}@example.com", "mail": f"{login}@example.com", "primaryGroupID": 513,
                 "userAccountControl": 512, "objectSid": f"{SID}-{self.numbers}", **attributes}
        words = name.split()
        facts.setdefault("sn", words[-1] if words else name)
        dn = f"CN={escape_dn_chars(name)},{unit}"
        self.people.append((dn, login))
        return self.add(dn, "user", **{key: value for key, value in facts.items() if value is not None})

    def _people(self):
        for number, (name, login) in enumerate(ODD_NAMES):
            self.person(name, login, self.units[number % len(self.units)], **self._extras(number, login))
        for name, login, form in TWINS:
            self.person(unicodedata.normalize(form, name) if form else name, login, self.people_unit)

    def _extras(self, number, login):
        """Some of them, so that presence means something."""
        draw, extras = self.random, {}
        if number % 2:
            extras.update(uid=login, givenName=login.capitalize(), streetAddress=f"{number} Main Street",
                          department=draw.choice(["R&D", "Größe", "IT (Ops)", "a*b", "IT"]))
        if number % 3 == 0:
            extras.update(shadowLastChange=20500 + number, shadowMin=0, shadowMax=draw.choice([90, 180, 99999]),
                          shadowWarning=14, shadowInactive=-1)
        if number % 4 == 0:
            extras.update(telephoneNumber=f"+49 30 555-{number:04}", whenCreated=f"2024010{1 + number % 9}120000.0Z",
                          whenChanged=f"2025010{1 + number % 9}1200{number:02}.0Z", accountExpires=2**63 - 1)
        if number % 5 == 0:
            extras.update(description="x" * (10000 if number == 5 else number + 1), title=draw.choice(["Head", "head", "Head  of it"]))
        if number % 6 == 0:
            extras.update(thumbnailPhoto=b"\x89PNG\r\n\x1a\n\0" + bytes([number]), userParameters=b"\0a\0" + bytes([number]),
                          logonHours=b"\xff" * 21)
        if number % 7 == 0:
            extras.update(proxyAddresses=[f"SMTP:{login}@example.com", f"smtp:{login}.x@example.com"], l="Genève",
                          pwdLastSet=133500000000000000 + number, employeeNumber=f"00{number}", badPwdCount=0)
        if number % 8 == 0 and self.people:
            extras.update(manager=self.people[0][0], seeAlso=[self.group_dn("Real Name"), f"CN=Nobody There,{DOMAIN}", self.people[-1][0]],
                          secretary=self.people[number // 2][0], memberOf=f"CN=not shown as it is,{DOMAIN}", co="Germany", info="not shown")
        if number % 9 == 0:
            extras.update(userPassword="{CRYPT}" + crypt_hash(PASSWORD), isCriticalSystemObject="TRUE", postalAddress="Street 1$City")
        return extras

    def _edges(self):
        unit = self.units[0]
        for name, login, number in (("Least Number", "least", 1000), ("Below Least", "below", 999), ("Great Number", "great", 2**31 - 1),
                                    ("Greatest Number", "greatest", 2**32 - 2), ("Nobody Number", "nobody", 2**32 - 1)):
            self.person(name, login, unit, uidNumber=number)
        self.person("Guest Researcher", "guest", unit, uidNumber=None, gidNumber=None, unixHomeDirectory=None, loginShell=None)
        self.person("No Home", "nohome", unit, unixHomeDirectory=None, shadowMax=7, uid="nohome")
        self.person("No Group Number", "nogid", unit, gidNumber=None)
        self.person("No Surname Service", "nosn", unit, sn=None)
        self.person("One Name", "one1", unit, displayName="The Same", uid="one1")
        self.person("Other Name", "one2", unit, displayName="The Same")
        self.person("Elsewhere Primary", "far", unit, primaryGroupID=1620, objectSid=f"{OTHER_SID}-7")
        self.person("By Primary", "contractor", unit, primaryGroupID=1620, uid="contractor")
        self.person("By Primary Unnumbered", "contractor2", unit, primaryGroupID=1620, uidNumber=None)
        self.person("Two Names", "two", unit, uid="deux")

    # ---- groups

    def group(self, name, rid, members=(), **attributes):
        facts = {"cn": name, "sAMAccountName": name, "gidNumber": 10000 + rid, "groupType": -2147483646, "objectSid": f"{SID}-{rid}",
                 "member": list(members), **attributes}
        return self.add(f"CN={escape_dn_chars(name)},{self.group_unit}", "group",
                        **{key: value for key, value in facts.items() if value not in (None, [])})

    def group_dn(self, name):
        return f"CN={escape_dn_chars(name)},{self.group_unit}"

    def _groups(self):
        everyone = [dn for dn, _ in self.people]
        draw = self.random
        self.group("Domain Users", 513, gidNumber=10000, description="Everybody's primary group")
        for depth in range(1, 6):
            inner = [self.group_dn(f"depth{depth + 1}")] if depth < 5 else []
            self.group(f"depth{depth}", 1700 + depth, [*draw.sample(everyone, 2), *inner], description=f"level {depth}")
        self.group("cycle-a", 1710, [everyone[3], self.group_dn("cycle-b")])
        self.group("cycle-b", 1711, [everyone[4], self.group_dn("cycle-a")])
        self.group("selfish", 1712, [self.group_dn("selfish"), everyone[5]])
        self.group("empty", 1713, mail="empty@example.com", displayName="Nobody Here")
        self.group("empty unnumbered", 1714, gidNumber=None)
        self.group("mailing-list", 1715, everyone[:5] + [self.people[-1][0]], gidNumber=None, mail="list@example.com")
        self.group("only guests", 1716, [dn for dn, login in self.people if login == "guest"])
        self.group("contractors", 1620, description="By primary group alone")
        self.group("refused", 1717, everyone[6:8], gidNumber=5)
        self.group("stored", 1718, everyone[8:9], memberUid=["ann", "nobody-has-this-name"])
        self.group("with computer", 1719, [everyone[1], f"CN=BUILD01,{self.computers_unit}"])
        for rid, name in enumerate(("reading room", "#hash group", "comma, group", "Größe", "plus+plus", 'quo"te', "back\\slash",
                                    "par(en)*", "UPPER", "  blanks  inside"), 1730):
            self.group(name, rid, draw.sample(everyone, draw.randrange(1, 12)), whenCreated="20230101000000.0Z")
        # One whose DN is not its name.
        self.add(f"CN=Real Name,{self.group_unit}", "group", cn="Real Name", sAMAccountName="shown-name", gidNumber=11000,
                 objectSid=f"{SID}-1760", member=everyone[10:13], managedBy=everyone[2], owner=[everyone[3], self.group_dn("Real Name")], whenChanged="20240101000000.0Z")
        self.group("large", 1761, everyone)

    # ---- machines, and what is in zones

    def _computers(self):
        for number, (name, facts) in enumerate((
                ("BUILD01", {"ipHostNumber": ["192.0.2.1", "2001:db8::1"], "macAddress": "52:54:00:12:34:56"}),
                ("FILES01", {"ipHostNumber": "192.0.2.2"}), ("ONLYMAC", {"macAddress": "52:54:00:12:34:57"}), ("NOTHING", {}))):
            self.add(f"CN={name},{self.computers_unit}", "computer", cn=name, sAMAccountName=f"{name}$",
                     dNSHostName=f"{name.lower()}.example.com", operatingSystem="Debian GNU/Linux 12", primaryGroupID=515,
                     objectSid=f"{SID}-{2951 + number}", userAccountControl=4096, **facts)

    def _zones(self):
        self.add(f"CN=Zones,{DOMAIN}", "container", cn="Zones")
        for zone in (ZONE, OTHER_ZONE):
            self.add(zone, "container", description="A zone")
            maps = self.add(f"CN=Rfc2307NisMaps,{zone}", "container")
            netgroups = self.add(f"CN=netgroup,{maps}", "container")
            for name, triples, inner in (("build-hosts", ["(build01.example.com,-,example.com)", "(build02,,)"], []),
                                         ("all-hosts", ["(console,,)"], ["build-hosts", "loop-a"]),
                                         ("loop-a", ["(a,,)"], ["loop-b"]), ("loop-b", [], ["loop-a"])):
                self.add(f"CN={name},{netgroups}", "nisNetgroup", nisNetgroupTriple=triples, memberNisNetgroup=inner)
        self._maps(f"CN=Rfc2307NisMaps,{ZONE}")

    def _maps(self, maps):
        for name, lines in (("auto.master", {"/home": "auto.home", "/net": "-hosts"}),
                            ("auto.home", {"*": "-rw files01:/home/&", "ann": "files01:/export/Ann (1)"})):
            auto = self.add(f"CN={name},{maps}", "nisMap", nisMapName=name, description="autofs")
            for key, value in lines.items():
                self.add(f"CN={escape_dn_chars(key)},{auto}", "nisObject", nisMapName=name, nisMapEntry=value)
        things = self.add(f"CN=things,{maps}", "container")
        self.add(f"CN=ssh,{things}", "ipService", ipServicePort=22, ipServiceProtocol=["tcp", "udp"])
        self.add(f"CN=tcp,{things}", "ipProtocol", ipProtocolNumber=6, description="Transmission control")
        self.add(f"CN=nfs,{things}", "oncRpc", oncRpcNumber=100003)
        self.add(f"CN=loopback,{things}", "ipNetwork", ipNetworkNumber="127.0.0.0", ipNetmaskNumber="255.0.0.0")
        sudoers = self.add(f"OU=SUDOers,{DOMAIN}", "organizationalUnit")
        self.add(f"CN=admins,{sudoers}", "sudoRole", sudoUser=["ann", "%depth1", "+all-hosts"], sudoHost="ALL", sudoCommand="ALL",
                 sudoOption="!authenticate", sudoOrder=10, sudoNotAfter="20300101000000Z")
        self.add(f"CN=backup,{sudoers}", "sudoRole", sudoUser="ANN", sudoHost="files01",
                 sudoCommand=["/usr/bin/rsync *", "!/bin/sh"], sudoOrder=2)

    def _hidden(self):
        self.add(f"CN=Some Contact,{self.units[1]}", "contact", displayName="Some Contact", mail="contact@example.org", sn="Contact")


def ldif():
    return Company().ldif()
