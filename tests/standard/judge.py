# SPDX-License-Identifier: Apache-2.0
"""What the gateway is to show in the standard mode: the entries that a directory's LDIF
file, the translation map and slapd's schema make, worked out a second time and by other
means than the gateway's. What it says is loaded into back-mdb, which then is the peer
that the gateway is compared with.

    judge.py LDIF MAP URI [ZONE]    writes the entries; URI is of a slapd with the schema
"""
import base64
import re
import struct
import sys
import uuid
from dataclasses import dataclass, field

import ldap
import ldap.schema
from ldap.dn import dn2str, escape_dn_chars, str2dn

WITHOUT_NUMBERS = "entries.without.numbers"
CONTAINERS = {"organizationalunit": "organizationalUnit", "container": "container", "builtindomain": "container",
              "lostandfound": "container", "domaindns": "domain"}
DEFAULTS = {"user": "inetOrgPerson", "group": "groupOfNames", "computer": "device"}
UNIX_ONLY = {"user": ("posixaccount", "shadowaccount"), "group": ("posixgroup",)}
NEVER = {"userpassword"}
LEAST_ID, NOBODY = 1000, 2**32 - 1


def records(text):
    """An LDIF file's records, as [(DN, {name in lower case: [bytes]})]."""
    lines = []
    for line in text.split("\n"):
        if line.startswith(" ") and lines:
            lines[-1] += line[1:]
        else:
            lines.append(line)
    found, record = [], []
    for line in [*lines, ""]:
        if line.startswith("#") or (not record and line.lower().startswith("version:")):
            continue
        if line:
            name, _, value = line.partition(":")
            record.append((name.lower(), base64.b64decode(value[1:]) if value[:1] == ":" else value.lstrip(" ").encode()))
        elif record:
            attributes = {}
            for name, value in record[1:]:
                attributes.setdefault(name, []).append(value)
            found.append((record[0][1].decode(), attributes))
            record = []
    return found


def folded(dn):
    """A DN as a key: what is written differently is the same."""
    return tuple(tuple(sorted((name.lower(), value.lower()) for name, value, _ in rdn)) for rdn in str2dn(dn))


def parent(dn):
    return dn2str(str2dn(dn)[1:])


def guid_of(value):
    """Of a GUID as text, or as a controller sends it."""
    return uuid.UUID(bytes_le=value) if len(value) == 16 else uuid.UUID(value.decode())


def sid_text(value):
    """Of a SID as text, or as a controller sends it."""
    if value[:1] != b"\x01":
        return value.decode()
    return "-".join(["S-1", str(int.from_bytes(value[2:8], "big")), *(str(part) for (part,) in struct.iter_unpack("<I", value[8:]))])


def sid_bytes(text):
    _, revision, authority, *rest = text.split("-")
    return bytes([int(revision), len(rest)]) + int(authority).to_bytes(6, "big") + b"".join(struct.pack("<I", int(n)) for n in rest)


class Schema:
    """slapd's own, as it publishes it."""

    def __init__(self, uri):
        connection = ldap.initialize(uri)
        names = ["attributeTypes", "objectClasses"]
        [(_, entry)] = connection.search_ext_s("cn=Subschema", ldap.SCOPE_BASE, "(objectClass=*)", names)
        connection.unbind_ext()
        self.known = ldap.schema.SubSchema(entry)

    def attribute(self, name):
        """The first of the type's names."""
        return self.known.get_obj(ldap.schema.AttributeType, name).names[0]

    def chain(self, name):
        """The classes down to the one of this name, the most general one first."""
        one = self.known.get_obj(ldap.schema.ObjectClass, name)
        if one is None:
            raise ValueError(f"the schema has no class {name}")
        above = []
        for superior in one.sup:
            above += [other for other in self.chain(superior) if other not in above]
        return [*above, one]

    def needs(self, name):
        return {self.attribute(need) for one in self.chain(name) for need in one.must} - {"objectClass"}

    def allows(self, name):
        return {self.attribute(one) for part in self.chain(name) for one in (*part.must, *part.may)}

    def structural(self, name):
        return self.chain(name)[-1].kind == 0

    def names_others(self, name):
        """Whether an attribute's values are DNs."""
        one = self.known.get_obj(ldap.schema.AttributeType, name)
        while one.equality is None and one.sup:
            one = self.known.get_obj(ldap.schema.AttributeType, one.sup[0])
        return one.equality == "distinguishedNameMatch"


@dataclass
class Kind:
    category: str
    classes: list = field(default_factory=list)
    sources: dict = field(default_factory=dict)  # {attribute: [the object's attributes]}

    @property
    def renamed(self):
        return any(source.lower() == "samaccountname" for source in self.sources.get("cn", ()))


class Map:
    def __init__(self, text, schema):
        pairs = [line.partition("=")[::2] for line in text.splitlines() if line.strip() and not line.startswith("#")]
        lines = {key.strip(): value.strip() for key, value in pairs}
        self.without_numbers = any(key.lower() == WITHOUT_NUMBERS and value.lower() == "true" for key, value in lines.items())
        self.kinds, kind_of = {}, {}
        for key, value in lines.items():
            if "." not in key:
                kind = self.kinds.setdefault(value.lower(), Kind(value.lower()))
                kind.classes.append(schema.chain(key)[-1].names[0])
                kind_of[key.lower()] = kind
        for category, name in CONTAINERS.items():
            self.kinds.setdefault(category, Kind(category, [name]))
        for key, value in lines.items():
            name, _, attribute = key.partition(".")
            if attribute and name.lower() in kind_of:
                sources = kind_of[name.lower()].sources.setdefault(schema.attribute(attribute), [])
                sources += [value] if value else []


class Thing:
    """One object of the directory."""

    def __init__(self, dn, attributes):
        self.dn, self.attributes, self.key = dn, attributes, folded(dn)
        rdn = str2dn(dn)[0][0]
        attributes.setdefault(rdn[0].lower(), [rdn[1].encode()])
        self.guid = guid_of(attributes["objectguid"][0])
        attributes["objectguid"] = [self.guid.bytes_le]
        sid = sid_text(attributes.get("objectsid", [b""])[0])
        if sid:
            attributes["objectsid"] = [sid_bytes(sid)]
        self.rid = int(sid.rpartition("-")[2]) if sid else None
        self.domain = sid.rpartition("-")[0]
        self.classes = [name.decode().lower() for name in attributes["objectclass"]]
        self.category = str2dn(self.text("objectcategory"))[0][0][1].lower()

    def text(self, name):
        return self.attributes.get(name, [b""])[0].decode()

    def has(self, name):
        return bool(self.text(name))

    def refused(self, name):
        return any(not (value.isdigit() and LEAST_ID <= int(value) < NOBODY) for value in self.attributes.get(name, ()))

    def incomplete(self):
        """Whether the agent marks it as no entry of a host."""
        account = all(map(self.has, ("uidnumber", "gidnumber", "unixhomedirectory")))
        if self.category == "person":
            return not account or self.refused("uidnumber")
        if self.category == "group":
            return not self.has("gidnumber") or self.refused("gidnumber")
        address = self.has("iphostnumber") or self.has("macaddress")
        return self.category == "computer" and (self.refused("uidnumber") or not (account or address))

    def member_name(self):
        """What a group calls it; nothing for what is no account."""
        return self.text("samaccountname") if self.category == "person" else ""


class Judge:
    def __init__(self, ldif, map_text, schema, zone=None):
        self.schema, self.map = schema, Map(map_text, schema)
        self.zone = folded(zone) if zone else None
        self.things = [Thing(dn, attributes) for dn, attributes in records(ldif)]
        self.by_key = {thing.key: thing for thing in self.things}
        self.by_name = {thing.member_name(): thing for thing in self.things if thing.member_name()}
        self.members = {group.key: self._walk(group) for group in self.things if group.category == "group"}

    def entries(self):
        """All that is shown, as [(DN, {attribute: [bytes]})], parents before their children."""
        shown = [entry for entry in map(self.entry, self.things) if entry]
        return sorted(shown, key=lambda entry: len(str2dn(entry[0])))

    # ---- which kind an object is of, and what it is called

    def kind(self, thing):
        if "contact" in thing.classes:
            return None
        kind = next((self.map.kinds[name] for name in reversed(thing.classes) if name in self.map.kinds), None)
        if kind is None or (kind.category == "user" and "computer" in thing.classes):
            return None
        if kind.category == "nisnetgroup" and self.zone and thing.key[-len(self.zone):] != self.zone:
            return None
        return kind

    def shown(self, thing):
        """Its kind when it is shown, else nothing."""
        kind = self.kind(thing)
        if kind and thing.incomplete() and not (self.map.without_numbers and kind.category in UNIX_ONLY):
            return None
        return kind

    def dn(self, thing):
        if self.kind(thing).renamed and thing.has("samaccountname"):
            return f"cn={escape_dn_chars(thing.text('samaccountname'))},{parent(thing.dn)}"
        return thing.dn

    def shown_name(self, real):
        """What a real DN is to clients."""
        other = self.by_key.get(folded(real.decode()))
        return self.dn(other).encode() if other and self.shown(other) else real

    # ---- groups and their members

    def _walk(self, group):
        """(what stands in memberUid, the people). Those without a number have no name there."""
        names, people, seen, pending = set(), set(), {group.key}, [group]
        while pending:
            one = pending.pop()
            names |= {value.decode() for value in one.attributes.get("memberuid", ())}
            held = [self.by_key.get(folded(value.decode())) for value in one.attributes.get("member", ())]
            held += [thing for thing in self.things if one.rid and thing.domain == one.domain
                     and thing.text("primarygroupid") == str(one.rid)]
            for thing in filter(None, held):
                if thing.category == "group" and thing.key not in seen:
                    seen.add(thing.key)
                    pending.append(thing)
                elif thing.member_name():
                    people.add(thing.member_name())
        numbered = {name for name in people if self.by_name[name].has("uidnumber")}
        return names | numbered, {self.by_name[name] for name in names | people if name in self.by_name}

    def member(self, group):
        return [self.dn(person).encode() for person in self.members[group.key][1] if self.shown(person)]

    def member_of(self, person):
        groups = [thing for thing in self.things if thing.key in self.members and self.shown(thing)]
        return [self.dn(group).encode() for group in groups if person in self.members[group.key][1]]

    # ---- attributes and classes

    def values(self, kind, thing, name):
        """What the object has for an attribute, whether a class allows it or not."""
        computed = {"member": lambda: self.member(thing) if kind.category == "group" else [],
                    "memberUid": lambda: [one.encode() for one in self.members[thing.key][0]] if kind.category == "group" else [],
                    "memberOf": lambda: self.member_of(thing) if kind.category == "user" else []}
        if name in computed:
            return computed[name]()
        if name.lower() in NEVER | {"objectclass"}:
            return []
        sources = kind.sources.get(name, [name])
        found = []
        for source in sources:
            found += [value for value in thing.attributes.get(source.lower(), ()) if value not in found]
        if self.schema.names_others(name):
            found = [self.shown_name(value) for value in found]
        if name == "sn" and kind.category == "user" and not found:
            found = self.values(kind, thing, "cn")[:1]
        return found

    def entry(self, thing):
        kind = self.shown(thing)
        if kind is None:
            return None
        has = lambda name: bool(self.values(kind, thing, name))  # noqa: E731
        classes = self._classes(kind, thing, has)
        allowed = {name for one in classes for name in self.schema.allows(one)}
        if any(has(name) for name in self.schema.allows("adObject") - allowed):
            classes.append("adObject")
            allowed |= self.schema.allows("adObject")
        entry = {"objectClass": list(dict.fromkeys(part.names[0].encode() for one in classes for part in self.schema.chain(one)))}
        entry.update({name: self.values(kind, thing, name) for name in sorted(allowed - {"objectClass"}) if has(name)})
        dn = self.dn(thing)
        self._add_naming_value(dn, entry)
        return dn, {**entry, **self._operational(thing)}

    def _classes(self, kind, thing, has):
        """The structural one first, and the map's others."""
        fits = lambda name: all(map(has, self.schema.needs(name)))  # noqa: E731
        structural = next(filter(self.schema.structural, kind.classes), DEFAULTS.get(kind.category))
        if not fits(structural):
            if kind.category != "group":
                raise ValueError(f"{thing.dn} lacks what {structural} needs")
            structural = "groupOfMembers"
        missing = UNIX_ONLY.get(kind.category, ()) if thing.incomplete() else ()
        others = [name for name in kind.classes if not self.schema.structural(name) and name.lower() not in missing]
        return [structural, *filter(fits, others)]

    def _add_naming_value(self, dn, entry):
        name, value, _ = str2dn(dn)[0][0]
        values = entry.setdefault(self.schema.attribute(name), [])
        if value.lower() not in (one.decode().lower() for one in values):
            values.append(value.encode())

    @staticmethod
    def _operational(thing):
        entry = {"entryUUID": [str(thing.guid).encode()]}
        for name, source in (("createTimestamp", "whencreated"), ("modifyTimestamp", "whenchanged")):
            if thing.has(source):
                entry[name] = [re.sub(r"\.\d+Z$", "Z", thing.text(source)).encode()]
        return entry


def ldif(entries):
    """As slapadd reads it."""
    parts = []
    for dn, attributes in entries:
        lines = [f"dn:: {base64.b64encode(dn.encode()).decode()}"]
        lines += [f"{name}:: {base64.b64encode(value).decode()}" for name, values in attributes.items() for value in values]
        parts.append("\n".join(lines) + "\n")
    return "\n".join(parts)


def main():
    source, map_file, uri, *zone = sys.argv[1:]
    with open(source, encoding="utf-8") as data, open(map_file, encoding="utf-8") as lines:
        judge = Judge(data.read(), lines.read(), Schema(uri), *zone)
    sys.stdout.write(ldif(judge.entries()))


if __name__ == "__main__":
    main()
