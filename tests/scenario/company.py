# SPDX-License-Identifier: Apache-2.0
"""The company of the scenario: who is in it, with which password, in which groups. The
same in the embedded directory, at played controllers, and for those who judge answers."""
import crowd
import played_domain
from played_domain import BASE

UNIT = "ou=People,dc=example,dc=com"  # as slapd shows it
GROUPS = 12
FIRST = 100  # the first group's number; none gets the SID of a domain's own
LARGE, ABOVE = "everyone", "above"  # a group of all, and one whose only member is the first group
REFUSED = "80090308: LdapErr: DSID-0C090439, comment: AcceptSecurityContext error, data 533, v4563"


class Company:
    """People p0000 and on. The last of them are disabled, and before them are the
    departed: the domain has accepted a password of theirs, and does so no more."""

    def __init__(self, people, disabled=4, departed=24):
        self.uids = [f"p{number:04}" for number in range(people)]
        self.disabled = self.uids[people - disabled:]
        self.departed = self.uids[people - disabled - departed:people - disabled]
        self.able = self.uids[:people - disabled - departed]
        self.groups = {f"g{group:02}": [uid for number, uid in enumerate(self.uids) if (7 * number + 3 * group) % 11 < 4]
                       for group in range(GROUPS)}
        self.groups[LARGE] = self.uids
        self.groups[ABOVE] = self.groups["g00"]

    def number(self, uid):
        return int(uid[1:])

    def model(self):
        """What clients see, and who may log in, as JSON takes it."""
        people = {uid: {"uid": [uid], "uidNumber": [str(10000 + self.number(uid))], "gidNumber": ["10000"],
                        "homeDirectory": [f"/home/{uid}"], "loginShell": ["/bin/sh"]} for uid in self.uids}
        return {"base": BASE.lower(), "unit": UNIT, "people": people, "groups": self.groups, "able": self.able,
                "disabled": self.disabled, "departed": self.departed}

    def members(self, group):
        if group == ABOVE:
            return [f"CN=g00,OU=Groups,{BASE}"]
        return [self.dn(uid) for uid in self.groups[group]]

    def dn(self, uid):
        """The directory's own, which clients do not see."""
        return f"CN=Person {self.number(uid)},OU=People,{BASE}"

    # -- the embedded directory

    def write(self, folder):
        """Its LDIF file."""
        records = [self.record(uid) for uid in self.uids]
        for number, group in enumerate(self.groups, FIRST):
            members = "".join(f"member: {dn}\n" for dn in self.members(group))
            records.append(f"dn: CN={group},OU=Groups,{BASE}\nobjectClass: group\nsAMAccountName: {group}\n"
                           f"gidNumber: {20000 + number}\n{members}")
        file = folder / "company.ldif"
        file.write_text("\n".join(records), encoding="utf-8")
        return file

    def record(self, uid):
        number = self.number(uid)
        control = 512 if uid in self.able else 514
        return (f"dn: {self.dn(uid)}\nobjectClass: user\nsAMAccountName: {uid}\nuidNumber: {10000 + number}\n"
                f"gidNumber: 10000\nunixHomeDirectory: /home/{uid}\nloginShell: /bin/sh\nuserAccountControl: {control}\n"
                f"userPassword: {crowd.crypt_hash(f'pw-{uid}')}\n")

    # -- a domain

    def entries(self):
        groups = {uid: [f"CN={group},OU=Groups,{BASE}" for group, members in self.groups.items()
                        if uid in members and group != ABOVE] for uid in self.uids}
        people = [played_domain.person(f"Person {self.number(uid)}", uid, self.number(uid), *groups[uid]) for uid in self.uids]
        above = {"g00": [f"CN={ABOVE},OU=Groups,{BASE}"]}
        return played_domain.entries(people + [played_domain.group(group, number, self.members(group), *above.get(group, ()))
                                               for number, group in enumerate(self.groups, FIRST)])

    def passwords(self):
        """By DN, as a scripted peer takes them: those of the departed as they were once."""
        return {**{self.dn(uid): f"pw-{uid}" for uid in self.able}, **{self.dn(uid): f"old-{uid}" for uid in self.departed},
                **{self.dn(uid): REFUSED for uid in self.disabled}}
