# SPDX-License-Identifier: Apache-2.0
"""Questions drawn by chance, but the same ones for the same seed: what programs ask,
what they might ask, and what nobody should. Names and values come from the entries, so
that there is something to find."""
import random
import re
import string
import unicodedata

from ldap.dn import dn2str, is_dn, str2dn

from client import Compare, Search

SUFFIX = "dc=example,dc=com"
SCOPES = (0, 1, 2, 2, 2, 2, 3)
OTHER_NAMES = ("surname", "commonName", "userid", "2.5.4.3", "0.9.2342.19200300.100.1.1", "name", "CN", "UID", "ObjectClass",
               "rfc822mailbox", "2.5.4.0", "1.3.6.1.1.1.1.0")
KNOWN_ABSENT = ("roomNumber", "carLicense", "jpegPhoto", "seeAlso", "street", "owner", "bootFile", "dc", "associatedDomain")
UNKNOWN = ("foo", "noSuchAttribute", "1.2.3.4.5.6", "x-unknown", "posixAccount")
WITH_OPTIONS = ("cn;lang-en", "uid;x-foo", "userCertificate;binary", "description;lang-de;lang-en")
OPERATIONAL = ("entryDN", "entryUUID", "createTimestamp", "modifyTimestamp", "structuralObjectClass", "hasSubordinates",
               "subschemaSubentry", "numSubordinates")
CLASSES = ("top", "person", "inetOrgPerson", "posixAccount", "shadowAccount", "posixGroup", "groupOfNames", "groupOfMembers",
           "adObject", "mailGroup", "organizationalUnit", "container", "domain", "device", "ipHost", "ieee802Device", "nisNetgroup",
           "automountMap", "automount", "sudoRole", "ipService", "ipProtocol", "oncRpc", "ipNetwork", "user", "group", "computer",
           "nisMap", "noSuchClass", "alias", "POSIXACCOUNT", "1.3.6.1.1.1.2.0", "2.5.6.6", "*", "")
RULES = ("caseIgnoreMatch", "caseExactMatch", "2.5.13.2", "integerMatch", "distinguishedNameMatch", "dnSubtreeMatch",
         "dnOneLevelMatch", "dnSubordinateMatch", "dnSuperiorMatch", "caseIgnoreSubstringsMatch", "octetStringMatch",
         "1.2.840.113556.1.4.803", "1.2.840.113556.1.4.804", "generalizedTimeOrderingMatch", "integerOrderingMatch",
         "caseExactIA5Match", "objectIdentifierMatch", "booleanMatch", "telephoneNumberMatch", "uuidMatch", "noSuchRule")
LISTS = ((), (), ("*",), ("+",), ("*", "+"), ("1.1",), ("1.1", "cn"), ("*", "memberOf"), ("memberOf",), ("objectClass",),
         ("@posixAccount",), ("@inetOrgPerson", "entryUUID"), ("@posixGroup", "@noSuchClass"), ("CN", "uID"), ("2.5.4.3",),
         ("name",), ("cn;lang-en",), ("cn", "cn"), ("noSuchAttribute",), ("noSuchAttribute", "cn"), ("+", "memberOf"),
         ("entryDN", "hasSubordinates"), ("member", "memberUid"), ("dn",), ("", "cn"), ("@adObject",))


class Questions:
    """entries: all there are, as [(DN, {name: (values)})]."""

    def __init__(self, entries, seed):
        self.entries, self.random = entries, random.Random(seed)
        self.names = sorted({name for _, entry in entries for name in entry})
        self.carriers = {name: [entry for _, entry in entries if name in entry] for name in self.names}
        self.dns = [dn for dn, _ in entries]
        self.parents = sorted({dn2str(str2dn(dn)[1:]) for dn in self.dns})

    def __iter__(self):
        while True:
            yield self.draw()

    def draw(self):
        kind = self.random.random()
        if kind < 0.08:
            return self.compare()
        if kind < 0.20:
            # Never with a size limit, too: back-mdb then sends some entries twice.
            return self.search(pages=self.page_sizes())
        if kind < 0.30:
            return self.search(size=self.random.choice((1, 2, 3, 5, 10, 20, 50, 100, 200, 1000)))
        return self.search()

    def search(self, **more):
        draw = self.random
        return Search(self.base().encode(), draw.choice(SCOPES), self.filter(draw.choice((1, 1, 1, 1, 2, 2, 3, 4, 5, 6))),
                      self.names_wanted(), draw.random() < 0.08, **more)

    def page_sizes(self):
        draw = self.random
        return tuple(draw.choice((1, 2, 3, 7, 20, 50, 500)) for _ in range(draw.choice((1, 1, 1, 2, 4)))) + (draw.choice((5, 20, 100)),)

    def compare(self):
        draw = self.random
        dn, entry = draw.choice(self.entries)
        name = draw.choice(sorted(entry)) if draw.random() < 0.7 else self.name()
        value = self.changed(draw.choice(entry[name])) if name in entry else self.value(name)
        return Compare((self.spelled(dn) if draw.random() < 0.8 else self.base()).encode(), name, value)

    # ---- names

    def name(self):
        draw = self.random
        kind = draw.random()
        if kind < 0.40:
            return draw.choice(("cn", "uid", "uidNumber", "gidNumber", "mail", "objectClass", "member", "memberUid", "sn", "description",
                                "memberOf", "homeDirectory", "displayName", "sAMAccountName", "entryDN", "nisNetgroupTriple"))
        if kind < 0.80:
            return self.cased(draw.choice(self.names))
        return draw.choice(draw.choice((OTHER_NAMES, KNOWN_ABSENT, UNKNOWN, WITH_OPTIONS, OPERATIONAL)))

    def cased(self, name):
        return self.random.choice((name, name, name, name.lower(), name.upper()))

    def names_wanted(self):
        draw = self.random
        if draw.random() < 0.6:
            return draw.choice(LISTS)
        return tuple(self.name() for _ in range(draw.randrange(1, 5))) + draw.choice(((), (), ("*",), ("+",), ("1.1",), ("@person",)))

    # ---- bases

    def base(self):
        draw = self.random
        kind = draw.random()
        if kind < 0.60:
            return SUFFIX
        if kind < 0.75:
            return self.spelled(draw.choice(self.parents) or SUFFIX)
        if kind < 0.90:
            return self.spelled(draw.choice(self.dns))
        return draw.choice((self.absent, self.odd))()

    def absent(self):
        draw = self.random
        below = draw.choice((SUFFIX, draw.choice(self.dns), draw.choice(self.parents) or SUFFIX, "ou=nowhere," + SUFFIX))
        return draw.choice(("cn=nobody,", "ou=nowhere,ou=at all,", "uid=ann,", "cn=Real Name,", "cn=*,", "cn=ann+uid=ann,")) + below

    def odd(self):
        """Elsewhere, and what is no DN."""
        return self.random.choice(("dc=com", "dc=example", "dc=example,dc=org", "foo", "cn=", "=x,dc=example,dc=com", SUFFIX.upper(),
                                   "DC=Example , DC=Com", "0.9.2342.19200300.100.1.25=example,dc=com", "noSuch=x,dc=example,dc=com",
                                   "cn=\\zz,dc=example,dc=com", ",dc=example,dc=com", "cn=a\\2cb,dc=example,dc=com",
                                   "domainComponent=example,dc=com", "cn=#04024869,dc=example,dc=com"))

    def spelled(self, dn):
        """The same DN, as somebody else would write it."""
        draw = self.random
        kind = draw.random()
        if kind < 0.5:
            return dn
        if kind < 0.6:
            return dn.upper() if dn.isascii() and "\\" not in dn else dn
        if kind < 0.7:
            return dn.replace(",ou=", " ,  OU=").replace(",dc=", ", Dc = ")
        if kind < 0.8:
            return dn.replace("cn=", "commonName=", 1).replace("ou=", "2.5.4.11=")
        if kind < 0.85:
            return unicodedata.normalize(draw.choice(("NFD", "NFKC")), dn)
        if kind < 0.9:
            return draw.choice((re.sub(" +", " ", dn), dn.replace(" ", "  ")))
        rdn, *rest = str2dn(dn)
        spelled = "+".join(f"{name}=" + "".join(f"\\{byte:02x}" for byte in value.encode()) for name, value, _ in rdn)
        return ",".join([spelled, dn2str(rest)] if rest else [spelled])

    # ---- values

    def value(self, name):
        """One that somebody has for it, usually; changed in some way, often."""
        draw = self.random
        known = next((one for one in self.names if one.lower() == name.lower()), None)
        if name.lower() == "objectclass":
            return draw.choice(CLASSES).encode()
        if known is None or draw.random() < 0.08:
            return self.any_value()
        return self.changed(draw.choice(draw.choice(self.carriers[known])[known]))

    def any_value(self):
        draw = self.random
        if draw.random() < 0.5:
            return draw.choice(draw.choice(list(draw.choice(self.entries)[1].values())))
        return draw.choice((b"", b" ", b"*", b"\0", b"\xff\xfe", b"TRUE", b"0", b"-1", b"x" * 10000, b"a\0b", "é".encode(), b"(", b"\\",
                            b"dc=example,dc=com", b"20240101120000Z", bytes(draw.choices(string.printable.encode(), k=5))))

    def changed(self, value):
        draw = self.random
        if draw.random() < 0.6:
            return value
        try:
            text = value.decode()
        except UnicodeDecodeError:
            return draw.choice((value[:-1], value + b"\0", value[1:]))
        if text.lstrip("-").isdigit():
            return draw.choice((str(int(text) + draw.choice((-1, 1, 100))), f"0{text}", f" {text}", str(-int(text)), text + "0", "9" * 30)).encode()
        if "=" in text and text.lower().endswith("dc=com") and is_dn(text):
            return self.spelled(text).encode()
        at = draw.randrange(len(text) + 1)
        return draw.choice((text.upper(), text.lower(), text.swapcase(), text.replace(" ", "   "), f" {text}  ", text.replace(" ", ""),
                            unicodedata.normalize("NFD", text), unicodedata.normalize("NFKC", text), unicodedata.normalize("NFC", text),
                            text[:at], text[at:], text[:at] + "x" + text[at:], text.casefold(), text + "\0", text + "*")).encode()

    # ---- filters

    def filter(self, depth):
        draw = self.random
        if depth > 1:
            kind = draw.choice(("and", "and", "or", "or", "not"))
            if kind == "not":
                return ("not", self.filter(depth - 1))
            count = draw.choice((0, 1, 2, 2, 2, 3)) if draw.random() < 0.1 else draw.choice((2, 2, 3))
            return (kind, [self.filter(depth - 1 if one == 0 else draw.randrange(1, depth)) for one in range(count)])
        return draw.choice((self.equality,) * 8 + (self.presence,) * 4 + (self.substrings,) * 4 + (self.of_class,) * 4
                           + (self.ordering,) * 3 + (self.approximate, self.extensible, self.extensible))()

    def equality(self):
        name = self.name()
        return ("=", name, self.value(name))

    def of_class(self):
        return ("=", self.random.choice(("objectClass", "objectclass", "2.5.4.0", "structuralObjectClass")),
                self.random.choice(CLASSES).encode())

    def presence(self):
        return ("present", self.name() if self.random.random() < 0.8 else "objectClass")

    def ordering(self):
        draw = self.random
        name = draw.choice(("uidNumber", "gidNumber", "createTimestamp", "modifyTimestamp", "shadowMax", "entryUUID", "accountExpires",
                            self.name(), self.name()))
        return (draw.choice((">=", "<=")), name, self.value(name))

    def approximate(self):
        name = self.name()
        return ("~=", name, self.value(name))

    def substrings(self):
        draw = self.random
        name = self.name()
        value = self.value(name)
        cuts = sorted(draw.randrange(len(value) + 1) for _ in range(draw.choice((2, 2, 3, 4))))
        pieces = [value[start:end] for start, end in zip([0, *cuts], [*cuts, len(value)])][:: draw.choice((1, 1, 2))]
        initial, *middle, final = pieces if len(pieces) > 1 else [pieces[0], b""]
        kind = draw.randrange(4)
        initial = None if kind in (1, 3) or not initial else initial
        final = None if kind in (2, 3) or not final else final
        middle = [piece for piece in middle if piece]
        if initial is None and final is None and not middle:
            middle = [value or b"a"]
        return ("sub", name, initial, middle, final)

    def extensible(self):
        draw = self.random
        name = self.name() if draw.random() < 0.85 else None
        rule = draw.choice(RULES) if name is None or draw.random() < 0.75 else None
        if name == "userAccountControl" or draw.random() < 0.15:
            name, rule = draw.choice(("userAccountControl", "groupType", "uidNumber")), draw.choice(RULES[11:13])
            return (":=", name, rule, str(draw.choice((1, 2, 512, 514, 2**31, 0))).encode(), False)
        return (":=", name, rule, self.value(name or "cn"), draw.random() < 0.3)
