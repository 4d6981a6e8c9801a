# SPDX-License-Identifier: Apache-2.0
"""One client of the soak (test_soak.py): mixed operations, each answer checked.

    soak_client.py URI PEOPLE SEED OPERATIONS

PEOPLE is a JSON file, {"base": DN, "people": {uid: {attribute: [value]}}}; the password of
everybody is "pw-" and the uid. Ends with a line of JSON, the number of operations of each kind
and of the failures; or at the first wrong answer, with status 1 and what was wrong.
A failure is an error where an answer was due: allowed while agents die, and counted.
"""
import collections
import json
import os
import random
import sys
import time

os.environ["LDAPNOINIT"] = "1"

import ldap  # noqa: E402
from ldap.controls import SimplePagedResultsControl  # noqa: E402

NAMES = ["uid", "uidNumber", "gidNumber", "homeDirectory", "loginShell"]
PAUSE = 0.02  # seconds after a failure
ALL = "(objectClass=posixAccount)"


class WrongAnswer(Exception):
    pass


def person(uid):
    return f"(&(objectClass=posixAccount)(uid={uid}))"


def readable(found):
    """{uid: {attribute: [value]}} of search results."""
    entries = {}
    for dn, values in found:
        if dn is None:
            continue
        text = {name: sorted(value.decode() for value in some) for name, some in values.items()}
        uid = text["uid"][0]
        if uid in entries:
            raise WrongAnswer(f"{uid} came twice")
        entries[uid] = text
    return entries


class Client:
    # What it does, and how often among all of it.
    KINDS = {"lookup": 60, "miss": 8, "bind": 10, "wrong_password": 5, "enumerate": 2, "pages": 3, "pages_left": 2,
             "abandon": 4, "disconnect": 2}

    def __init__(self, uri, model, seed):
        self.uri, self.base, self.people = uri, model["base"], model["people"]
        self.uids = list(self.people)
        self.random = random.Random(seed)
        self.counts = collections.Counter()
        self.connection = None

    def choose(self):
        """What it does next."""
        [name] = self.random.choices(list(self.KINDS), self.KINDS.values())
        return getattr(self, name)

    def open(self):
        if self.connection is None:
            self.connection = ldap.initialize(self.uri)
            self.connection.set_option(ldap.OPT_NETWORK_TIMEOUT, 60)
            self.connection.set_option(ldap.OPT_TIMEOUT, 60)
        return self.connection

    def close(self):
        if self.connection is not None:
            self.connection.unbind_ext()
            self.connection = None

    def search(self, filter):
        return readable(self.open().search_ext_s(self.base, ldap.SCOPE_SUBTREE, filter, NAMES))

    def expect(self, what, found, expected):
        if found != expected:
            raise WrongAnswer(f"{what}: {found} and not {expected}")

    def lookup(self):
        # Some are asked for much more often than others.
        uid = self.uids[min(self.random.randrange(len(self.uids)) for _ in range(3))]
        self.expect(uid, self.search(person(uid)), {uid: self.people[uid]})

    def miss(self):
        try:
            found = self.search(person(f"nobody{self.random.randrange(50)}"))
        except ldap.NO_SUCH_OBJECT:
            return
        raise WrongAnswer(f"found {found}")

    def dn(self, uid):
        return f"cn={uid},{self.base}"

    def bind(self):
        uid = self.random.choice(self.uids[:50])
        try:
            self.open().simple_bind_s(self.dn(uid), f"pw-{uid}")
        except ldap.INVALID_CREDENTIALS as error:
            # This too is how an agent that is gone shows; but never a wrong password.
            if "invalid user or password" in error.args[0].get("info", ""):
                raise WrongAnswer(f"{uid}: the right password was refused") from None
            raise

    def wrong_password(self):
        uid = self.random.choice(self.uids[:50])
        try:
            self.open().simple_bind_s(self.dn(uid), f"pw-{uid}x")
        except ldap.INVALID_CREDENTIALS:
            return
        raise WrongAnswer(f"{uid}: a wrong password was right")

    def enumerate(self):
        self.expect("everybody", self.search(ALL), self.people)

    def read_pages(self, size, pages=None):
        control = SimplePagedResultsControl(True, size=size, cookie="")
        entries = {}
        while pages is None or pages > 0:
            number = self.open().search_ext(self.base, ldap.SCOPE_SUBTREE, ALL, NAMES, serverctrls=[control])
            _, found, _, controls = self.connection.result3(number)
            page = readable(found)
            if page.keys() & entries.keys():
                raise WrongAnswer("an entry came on two pages")
            entries.update(page)
            control.cookie = controls[0].cookie if controls else ""
            if not control.cookie:
                break
            if len(page) != size:
                raise WrongAnswer(f"a page of {len(page)}, not {size}, with more to come")
            pages = pages and pages - 1
        return entries

    def pages(self):
        self.expect("everybody by pages", self.read_pages(self.random.choice((7, 50, 100, 399, 1000))), self.people)

    def pages_left(self):
        self.read_pages(self.random.choice((7, 50)), pages=2)
        if self.random.randrange(2):
            self.close()

    def abandon(self):
        number = self.open().search_ext(self.base, ldap.SCOPE_SUBTREE, ALL, NAMES)
        self.connection.abandon_ext(number)

    def disconnect(self):
        if self.random.randrange(2):
            self.open().search_ext(self.base, ldap.SCOPE_SUBTREE, ALL, NAMES)
        self.close()

    def run(self, operations):
        for _ in range(operations):
            kind = self.choose()
            try:
                kind()
            except ldap.LDAPError as error:
                self.counts[f"failure {error.args[0].get('result', error.args[0].get('desc'))}"] += 1
                self.close()
                time.sleep(PAUSE)
            self.counts[kind.__name__] += 1
        self.close()


def main():
    uri, people, seed, operations = sys.argv[1:]
    with open(people, encoding="utf-8") as file:
        client = Client(uri, json.load(file), seed)
    try:
        client.run(int(operations))
    except WrongAnswer as error:
        print(str(error)[:4000])
        return 1
    print(json.dumps(client.counts))
    return 0


if __name__ == "__main__":
    sys.exit(main())
