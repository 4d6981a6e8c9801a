# SPDX-License-Identifier: Apache-2.0
"""The people and groups of every contender, from one seed.

The same facts in two shapes: as Active Directory has them (the embedded directory, and
the server behind the proxies), and as RFC 2307 has them (the server with the names
that clients ask for). The RFC 2307 shape carries what the gateway shows of the other
one, so that entries are equally large whoever answers.
"""
import base64
import crypt
import hashlib
import random
import uuid

SUFFIX = "DC=example,DC=com"
PASSWORD = "welcome"
UNITS = ("Engineering", "Operations", "Finance", "Research", "Sales")
GIVEN = ("Ann", "Ben", "Clara", "David", "Elif", "Femi", "Greta", "Hugo", "Ines", "Jonas", "Kira", "Liam", "Mira",
         "Nora", "Omar", "Paula", "Quentin", "Rosa", "Sven", "Tara")
FAMILY = ("Adler", "Berger", "Costa", "Dahl", "Eriksen", "Fischer", "Grant", "Haas", "Ivanov", "Jansen", "Keller",
          "Lopez", "Meyer", "Novak", "Okafor", "Peters", "Quist", "Rossi", "Silva", "Tanaka")
TITLES = ("Developer", "Engineer", "Analyst", "Manager", "Designer")
SHELLS = ("/bin/bash", "/bin/zsh", "/bin/sh")
GROUP_SIZE = 40
SCHEMA = "CN=Schema,CN=Configuration," + SUFFIX
# What getent asks of a person.
POSIX_ATTRIBUTES = ("uid", "uidNumber", "gidNumber", "cn", "gecos", "homeDirectory", "loginShell")
PERSON_FILTER = "(&(objectClass=posixAccount)(uid=%s))"
EVERYBODY_FILTER = "(objectClass=posixAccount)"


def login_name(number):
    return f"u{number:06d}"


def shown_dn(name):
    """The DN under which a person binds, whoever answers."""
    return f"cn={name},ou=People,{SUFFIX}"


class Person:
    """The facts; ad() and rfc2307() give them as (DN, [(attribute, value)])."""

    def __init__(self, number, chance):
        self.login = login_name(number)
        self.number = number
        self.given, self.family = chance.choice(GIVEN), chance.choice(FAMILY)
        self.title, self.department = chance.choice(TITLES), chance.choice(UNITS)
        self.shell = chance.choice(SHELLS)
        self.guid = uuid.UUID(int=chance.getrandbits(128), version=4)
        self.salt = chance.randbytes(8)

    def common(self):
        full = f"{self.given} {self.family}"
        return [
            ("givenName", self.given), ("sn", self.family), ("displayName", f"{full} {self.number}"),
            ("title", self.title), ("department", self.department),
            ("mail", f"{self.login}@example.com"), ("telephoneNumber", f"+49 30 5550 {self.number:06d}"),
            ("uidNumber", str(20000 + self.number)), ("gidNumber", str(10000 + self.number // GROUP_SIZE)),
            ("gecos", full), ("loginShell", self.shell),
            ("userPrincipalName", f"{self.login}@example.com"), ("primaryGroupID", "513"),
            ("userAccountControl", "512"), ("objectCategory", f"CN=Person,{SCHEMA}"),
        ]

    def real_name(self):
        return f"{self.given} {self.family} {self.number}"

    def real_dn(self):
        return f"CN={self.real_name()},OU=People,{SUFFIX}"

    def ad(self):
        classes = [("objectClass", name) for name in ("top", "person", "organizationalPerson", "user")]
        return self.real_dn(), [
            *classes, ("cn", self.real_name()), *self.common(), ("sAMAccountName", self.login),
            ("unixHomeDirectory", f"/home/{self.login}"), ("objectGUID", self.guid.bytes_le)]

    def rfc2307(self):
        classes = [("objectClass", name) for name in ("top", "person", "organizationalPerson", "user", "posixAccount")]
        return shown_dn(self.login), [
            *classes, ("cn", self.login), *self.common(), ("uid", self.login),
            ("homeDirectory", f"/home/{self.login}"), ("objectGUID", self.guid.bytes_le)]


class Directory:
    """So many people, and a group for every 40 of them."""

    def __init__(self, count, seed=1):
        chance = random.Random(seed)
        self.people = [Person(number, chance) for number in range(count)]
        # A cheap hash, so that a bind shows what is around it.
        self.hash = crypt.crypt(PASSWORD, "$5$rounds=1000$zanthedx")

    def names(self):
        return [person.login for person in self.people]

    def groups(self):
        for first in range(0, len(self.people), GROUP_SIZE):
            number = first // GROUP_SIZE
            yield f"g{number:05d}", 10000 + number, self.people[first:first + GROUP_SIZE]

    def write_embedded(self, file):
        """For vexagent: Active Directory's shape, GUIDs as text, passwords as it checks them."""
        write_containers(file)
        for person in self.people:
            dn, facts = person.ad()
            facts = [(name, str(person.guid) if name == "objectGUID" else value) for name, value in facts]
            write_record(file, dn, [*facts, ("userPassword", "{CRYPT}" + self.hash)])
        self.write_ad_groups(file)

    def write_ad(self, file):
        """For a slapd that stands in for a domain controller behind the proxies."""
        write_containers(file)
        for person in self.people:
            write_record(file, *person.ad())
        self.write_ad_groups(file)

    def write_ad_groups(self, file):
        for name, number, members in self.groups():
            write_record(file, f"CN={name},OU=Groups,{SUFFIX}", [
                ("objectClass", "top"), ("objectClass", "group"), ("cn", name), ("sAMAccountName", name),
                ("gidNumber", str(number)), ("objectCategory", f"CN=Group,{SCHEMA}"),
                *(("member", person.real_dn()) for person in members)])

    def write_rfc2307(self, file, scheme="SSHA"):
        write_containers(file)
        for person in self.people:
            dn, facts = person.rfc2307()
            write_record(file, dn, [*facts, ("userPassword", self.password(person, scheme))])
        for name, number, members in self.groups():
            write_record(file, f"cn={name},ou=Groups,{SUFFIX}", [
                ("objectClass", "top"), ("objectClass", "posixGroup"), ("cn", name), ("gidNumber", str(number)),
                *(("memberUid", person.login) for person in members)])

    def password(self, person, scheme):
        if scheme == "CRYPT":
            return "{CRYPT}" + self.hash
        digest = hashlib.sha1(PASSWORD.encode() + person.salt).digest() + person.salt
        return "{SSHA}" + base64.b64encode(digest).decode()


def write_containers(file):
    write_record(file, SUFFIX, [("objectClass", "top"), ("objectClass", "domain"), ("dc", "example")])
    for name in ("People", "Groups"):
        write_record(file, f"OU={name},{SUFFIX}", [("objectClass", "top"), ("objectClass", "organizationalUnit"),
                                                   ("ou", name)])


def write_record(file, dn, facts):
    lines = [f"dn: {dn}"]
    for name, value in facts:
        lines.append(f"{name}:: {base64.b64encode(value).decode()}" if isinstance(value, bytes) else f"{name}: {value}")
    file.write("\n".join(lines) + "\n\n")
