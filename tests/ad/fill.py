#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Fills a stopped controller's directory. For lab.py, which runs it as a program.

    fill.py company FOLDER HOST ADDRESS LDIF    names, password policy, the example's objects
    fill.py names FOLDER HOST ADDRESS           a further controller's names
    fill.py states FOLDER                       accounts in every state; large, nested, cyclic groups
    fill.py crowd FOLDER                        10,000 people in 500 groups
"""
import pathlib
import random
import subprocess
import sys
import time

import ldb
from samba import dsdb
from samba.auth import system_session
from samba.dcerpc import security
from samba.ndr import ndr_unpack
from samba.param import LoadParm
from samba.samdb import SamDB

WELCOME = "welcome"
SERVICE_PASSWORD = "Service.123"
PASSWORDS = {"rosa": "Tea, at 4 o'clock", "zoe": "mot de passe é", "nils": None}  # all others' is "welcome"
NO_PASSWORD_NEEDED, NEVER_EXPIRES, DISABLED, NORMAL, SMARTCARD = 0x20, 0x10000, 0x2, 0x200, 0x40000
FOREVER = -(1 << 63)
SECOND = 10_000_000
# One transaction with a large cache: a sixth of the time.
QUICK = ["batch_mode:1", "transaction_index_cache_size:200000"]
RELAX = ["relax:0"]
UNCHECKED_PASSWORD_TIMES = [f"local_oid:{dsdb.DSDB_CONTROL_BYPASS_PASSWORD_HASH_OID}:0"]


def open_database(folder):
    settings = LoadParm()
    settings.load(f"{folder}/etc/smb.conf")
    return SamDB(url=f"{folder}/private/sam.ldb", lp=settings, session_info=system_session(),
                 options=QUICK)


def replace(database, dn, attributes, controls=None, flag=ldb.FLAG_MOD_REPLACE):
    message = ldb.Message(dn if isinstance(dn, ldb.Dn) else ldb.Dn(database, dn))
    for name, values in attributes.items():
        message[name] = ldb.MessageElement(values if isinstance(values, list) else [values], flag, name)
    database.modify(message, controls=controls or [])


def quoted(password):
    """As the attribute unicodePwd wants it."""
    return f'"{password}"'.encode("utf-16-le")


def windows_time(seconds):
    return str(int((seconds + 11_644_473_600) * SECOND))


def find(database, name):
    [entry] = database.search(database.domain_dn(), ldb.SCOPE_SUBTREE, f"(sAMAccountName={name})", ["servicePrincipalName"])
    return entry


# ---- the controller itself

def add_names(folder, host, address):
    """The service principals that a controller gives itself in a network with dynamic
    DNS, and one for its bare address, so that Kerberos works without any name service."""
    database = open_database(folder)
    domain, full = database.domain_dns_name(), f"{host}.{database.domain_dns_name()}"
    short = "EXAMPLE"
    wanted = [f"ldap/{full}", f"ldap/{host.upper()}", f"ldap/{full}/{domain}", f"ldap/{full}/{short}", f"ldap/{address}",
              f"GC/{full}/{domain}", f"HOST/{full}/{domain}", f"HOST/{full}/{short}", f"RestrictedKrbHost/{full}",
              f"RestrictedKrbHost/{host.upper()}", f"ldap/{database.get_ntds_GUID()}._msdcs.{domain}",
              f"E3514235-4B06-11D1-AB04-00C04FC2DCD2/{database.get_ntds_GUID()}/{domain}"]
    account = find(database, f"{host}$")
    have = {str(name).lower() for name in account["servicePrincipalName"]}
    replace(database, account.dn, {"servicePrincipalName": [name for name in wanted if name.lower() not in have]},
            flag=ldb.FLAG_MOD_ADD)


def set_policy(database, lockout_threshold):
    """Weak passwords are allowed, and none expires while an image is kept."""
    replace(database, database.domain_dn(), {
        "pwdProperties": "0", "pwdHistoryLength": "0", "minPwdAge": "0", "minPwdLength": "0",
        "maxPwdAge": str(-3650 * 86400 * SECOND), "lockoutThreshold": str(lockout_threshold),
        "lockoutDuration": str(FOREVER), "lockOutObservationWindow": str(-1800 * SECOND)})


# ---- the example's objects

class Example:
    """Adds what an LDIF file of the embedded directory's kind holds. Values that a
    domain makes itself are left to it: categories, names; so are values of the wrong
    kind: a hash is no password here."""

    LEFT_OUT = {"objectcategory", "userpassword", "cn", "ou", "member", "primarygroupid", "useraccountcontrol"}

    def __init__(self, database, text):
        self.database = database
        self.records = [message for _, message in database.parse_ldif(text)]
        self.domain_sid = database.domain_sid

    def add(self):
        # Containers come before what is in them, and members need to be there.
        for record in sorted(self.records, key=lambda record: len(record.dn)):
            self.add_object(record)
        for record in self.records:
            if "member" in record:
                replace(self.database, record.dn, {"member": list(record["member"])}, flag=ldb.FLAG_MOD_ADD)
        for record in self.records:
            self.set_primary_group(record)

    def add_object(self, record):
        if self.exists(record.dn):
            return
        sid = str(ndr_unpack(security.dom_sid, record["objectSid"][0])) if "objectSid" in record else None
        attributes = {name: list(record[name]) for name in record.keys()
                      if name.lower() not in self.LEFT_OUT and name != "dn"}
        if sid and int(sid.rsplit("-", 1)[1]) < 1000:
            self.take_over(record, sid, attributes)
            return
        attributes["objectClass"] = [record["objectClass"][-1]]  # the domain adds the classes above it
        attributes.update(self.account(record))
        message = ldb.Message(record.dn)
        for name, values in attributes.items():
            message[name] = ldb.MessageElement(values, ldb.FLAG_MOD_ADD, name)
        self.database.add(message, controls=RELAX)

    def exists(self, dn):
        return len(self.database.search(self.database.domain_dn(), ldb.SCOPE_SUBTREE, f"(distinguishedName={ldb.binary_encode(str(dn))})",
                                        ["1.1"])) > 0

    def take_over(self, record, sid, attributes):
        """An object that every domain has, such as Domain Users: it moves to where the
        example has it."""
        [own] = self.database.search(self.database.domain_dn(), ldb.SCOPE_SUBTREE, f"(objectSid={sid})", ["1.1"])
        self.database.rename(own.dn, record.dn)
        for name in ("objectClass", "sAMAccountName", "groupType", "objectSid"):
            del attributes[name]
        replace(self.database, record.dn, attributes)

    @staticmethod
    def account(record):
        if "userAccountControl" not in record:
            return {}
        control = int(str(record["userAccountControl"]))
        if "userPassword" not in record and control & NORMAL:
            control |= NO_PASSWORD_NEEDED
        attributes = {"userAccountControl": str(control)}
        password = PASSWORDS.get(str(record["sAMAccountName"]), WELCOME)
        if password and control & NORMAL:
            attributes["unicodePwd"] = quoted(password)
        return attributes

    def set_primary_group(self, record):
        """Only a member can be given another primary group, and its members are not in
        the attribute member; but it keeps a place in the one it had."""
        group = str(record["primaryGroupID"]) if "primaryGroupID" in record else "513"
        if group in ("513", "515"):
            return
        [entry] = self.database.search(self.database.domain_dn(), ldb.SCOPE_SUBTREE, f"(objectSid={self.domain_sid}-{group})", ["1.1"])
        replace(self.database, entry.dn, {"member": str(record.dn)}, flag=ldb.FLAG_MOD_ADD)
        replace(self.database, record.dn, {"primaryGroupID": group})
        [users] = self.database.search(self.database.domain_dn(), ldb.SCOPE_SUBTREE, f"(objectSid={self.domain_sid}-513)", ["1.1"])
        replace(self.database, users.dn, {"member": str(record.dn)}, flag=ldb.FLAG_MOD_DELETE)


def company(folder, host, address, ldif):
    add_names(folder, host, address)
    database = open_database(folder)
    set_policy(database, 0)
    database.transaction_start()
    # The example has a guest of its own.
    replace(database, find(database, "Guest").dn, {"sAMAccountName": "Visitor"})
    Example(database, pathlib.Path(ldif).read_text(encoding="utf-8")).add()
    # Whom the agent is to a domain when it has no keytab.
    database.add({"dn": f"CN=gateway,CN=Users,{database.domain_dn()}", "objectClass": "user", "sAMAccountName": "gateway",
                  "userAccountControl": str(NORMAL | NEVER_EXPIRES), "unicodePwd": quoted(SERVICE_PASSWORD)})
    database.transaction_commit()


# ---- accounts in every state

class States:
    """Everything below OU=States; everybody's password is "welcome"."""

    def __init__(self, database):
        self.database = database
        self.unit = f"OU=States,{database.domain_dn()}"
        self.number = 0

    def add(self, dn, **attributes):
        self.database.add({"dn": dn, **attributes})
        return dn

    def person(self, name, control=NORMAL | NEVER_EXPIRES, password=WELCOME, **more):
        self.number += 1
        attributes = {
            "objectClass": "user", "sAMAccountName": name, "userPrincipalName": f"{name}@example.com", "uid": name,
            "uidNumber": str(31000 + self.number), "gidNumber": "10000", "gecos": name, "loginShell": "/bin/sh",
            "unixHomeDirectory": f"/home/{name}", "userAccountControl": str(control), **more}
        if password:
            attributes["unicodePwd"] = quoted(password)
        return self.add(f"CN={name},{self.unit}", **attributes)

    def group(self, name, members):
        self.number += 1
        members = {"member": list(members)} if members else {}
        return self.add(f"CN={name},{self.unit}", objectClass="group", sAMAccountName=name, gidNumber=str(31000 + self.number),
                        **members)

    def fill(self):
        self.add(self.unit, objectClass="organizationalUnit")
        self.person("s-good")
        self.person("s-other")
        self.person("s-disabled", NORMAL | NEVER_EXPIRES | DISABLED)
        self.person("s-expired", accountExpires=windows_time(time.time() - 86400))
        self.person("s-mustchange", NORMAL, pwdLastSet="0")
        self.person("s-hours", logonHours=b"\0" * 21)  # none of the week's hours
        self.person("s-elsewhere", userWorkstations="NOSUCHHOST")
        self.person("s-nopassword", NORMAL | NO_PASSWORD_NEEDED | NEVER_EXPIRES, None)
        self.person("s-smartcard", NORMAL | NEVER_EXPIRES | SMARTCARD)
        self.written_by_the_server_only()
        self.groups()

    def written_by_the_server_only(self):
        old = self.person("s-pwexpired", NORMAL)
        replace(self.database, old, {"pwdLastSet": windows_time(time.time() - 20 * 365 * 86400)}, UNCHECKED_PASSWORD_TIMES)
        locked = self.person("s-locked")
        now = windows_time(time.time())
        replace(self.database, locked, {"lockoutTime": now, "badPasswordTime": now, "badPwdCount": "5"}, RELAX)

    def groups(self):
        """Twelve levels of nesting, a cycle of three, 2,500 direct members."""
        members = [self.person(f"m{number:04}", NORMAL | NO_PASSWORD_NEEDED, None) for number in range(2500)]
        self.group("g-large", members)
        below = self.group("g-level12", [f"CN=s-good,{self.unit}"])
        for level in range(11, 0, -1):
            below = self.group(f"g-level{level:02}", [below])
        first = self.group("g-cycle1", [f"CN=s-good,{self.unit}"])
        second = self.group("g-cycle2", [first, f"CN=s-other,{self.unit}"])
        third = self.group("g-cycle3", [second])
        replace(self.database, first, {"member": third}, flag=ldb.FLAG_MOD_ADD)
        self.group("g-ofgroups", [f"CN=g-large,{self.unit}", f"CN=g-level01,{self.unit}"])


def states(folder):
    database = open_database(folder)
    set_policy(database, 5)
    database.transaction_start()
    States(database).fill()
    database.transaction_commit()


# ---- the crowd

PEOPLE, GROUPS = 10_000, 500


def crowd_records(base):
    """The LDIF records of the crowd: group 0 holds everybody, group 1 the first 3,000,
    the others 50 each."""
    choice = random.Random(7)
    people, groups = f"OU=People,OU=Crowd,{base}", f"OU=Groups,OU=Crowd,{base}"
    for unit in (f"OU=Crowd,{base}", people, groups):
        yield unit, [("objectClass", "organizationalUnit")]
    names = [f"CN=user{number},{people}" for number in range(PEOPLE)]
    for number, dn in enumerate(names):
        name = f"user{number}"
        yield dn, [
            ("objectClass", "user"), ("sAMAccountName", name), ("userPrincipalName", f"{name}@example.com"), ("givenName", "User"),
            ("sn", f"Number {number}"), ("displayName", f"User Number {number}"), ("mail", f"{name}@example.com"), ("uid", name),
            ("uidNumber", 40000 + number), ("gidNumber", 60000 + number % GROUPS), ("unixHomeDirectory", f"/home/{name}"),
            ("loginShell", "/bin/bash"), ("gecos", f"User Number {number}"),
            ("userAccountControl", NORMAL | NO_PASSWORD_NEEDED | NEVER_EXPIRES)]
    for number in range(GROUPS):
        members = names if number == 0 else names[:3000] if number == 1 else sorted(choice.sample(names, 50))
        yield f"CN=group{number},{groups}", [("objectClass", "group"), ("sAMAccountName", f"group{number}"),
                                             ("gidNumber", 60000 + number), *(("member", member) for member in members)]


def crowd(folder):
    base = str(open_database(folder).domain_dn())
    text = "\n".join(f"dn: {dn}\n" + "".join(f"{name}: {value}\n" for name, value in lines) for dn, lines in crowd_records(base))
    file = pathlib.Path(folder, "crowd.ldif")
    file.write_text(text, encoding="utf-8")
    options = [word for option in QUICK for word in ("-o", option)]
    subprocess.run(["ldbadd", "-H", f"{folder}/private/sam.ldb", *options, str(file)], check=True, stdout=subprocess.DEVNULL)
    file.unlink()


STEPS = {"company": company, "names": add_names, "states": states, "crowd": crowd}

if __name__ == "__main__":
    STEPS[sys.argv[1]](*sys.argv[2:])
