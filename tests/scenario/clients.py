# SPDX-License-Identifier: Apache-2.0
"""The clients of the scenario, so many of one process: each a thread with a connection,
which does one thing after another and has the oracle judge every answer.

    clients.py SETTINGS NUMBER

SETTINGS is a JSON file (test_scenario.py writes it). Ends with a line of JSON: what was
done how often, and the wrong answers.
"""
import collections
import json
import pathlib
import sys
import threading
import time

import soak_client  # before ldap, which it forbids to read the machine's settings
import ldap
from oracle import Oracle, WrongAnswer, expect, judge, refused
from soak_client import ALL, NAMES, person, readable
from weather import Weather

PATIENCE = 120  # seconds for an answer; more than any deadline of the servers adds up to
CROWD = 1500  # made-up names in a request that costs a domain too much
AFTER_FAILURE = 5  # times the pause
KEPT = 3  # wrong answers of a client and a kind that are told in full


def group(assertion):
    return f"(&(objectClass=posixGroup)({assertion}))"


def crowd_of_names(first):
    names = "".join(f"(memberUid=q{number})" for number in range(first, first + CROWD))
    return f"(&(objectClass=posixGroup)(|{names}))"


class Client(soak_client.Client):
    KINDS = {"lookup": 300, "miss": 50, "groups": 70, "members": 40, "capitals": 5, "many_names": 2, "bind": 70,
             "wrong_password": 50, "own_entry": 20, "disabled": 10, "departed": 10, "nul_name": 5, "enumerate": 20,
             "enumerate_slowly": 10, "pages": 25, "pages_left": 15, "abandon": 30, "disconnect": 15, "gone_in_between": 10}

    def __init__(self, settings, number):
        super().__init__(settings["uri"], settings["model"], f"{settings['seed']}-{number}")
        self.oracle = Oracle(settings["model"])
        self.weather = Weather(pathlib.Path(settings["weather"]))
        self.pause = settings["pause"]
        share = slice(number, None, settings["connections"])
        self.departed_ones = self.oracle.departed[share]
        self.wrong = []

    def open(self):
        connection = super().open()
        connection.set_option(ldap.OPT_TIMEOUT, PATIENCE)
        return connection

    def dn(self, uid):
        return self.oracle.dn(uid)

    # -- searches

    def groups(self):
        uid = self.random.choice(self.uids)
        found = self.open().search_ext_s(self.base, ldap.SCOPE_SUBTREE, group(f"memberUid={uid}"), ["cn"])
        self.oracle.check_groups(uid, found)

    def members(self):
        name = self.random.choice(list(self.oracle.groups))
        found = self.open().search_ext_s(self.base, ldap.SCOPE_SUBTREE, group(f"cn={name}"), ["memberUid"])
        self.oracle.check_members(name, found)

    def capitals(self):
        """A name with another case is another name, or the same: but what is told of it is
        told of nobody else, whom the next ones ask for."""
        uid = self.random.choice(self.uids)
        try:
            found = self.open().search_ext_s(self.base, ldap.SCOPE_SUBTREE, group(f"memberUid={uid.upper()}"), ["cn"])
        except ldap.NO_SUCH_OBJECT:
            return
        self.oracle.check_groups(uid, found)

    def many_names(self):
        """A request on which anybody can spend all the time there is. It finds nothing."""
        first = self.random.randrange(10 ** 6)
        try:
            found = self.open().search_ext_s(self.base, ldap.SCOPE_SUBTREE, crowd_of_names(first), ["cn"])
        except ldap.NO_SUCH_OBJECT:
            return
        raise WrongAnswer(f"groups of nobody: {found}")

    def enumerate_slowly(self):
        """One entry after the other: those that come before a failure are right too."""
        number = self.open().search_ext(self.base, ldap.SCOPE_SUBTREE, ALL, NAMES)
        entries = {}
        while True:
            kind, found, _, _ = self.connection.result3(number, all=0)
            if kind == ldap.RES_SEARCH_RESULT:
                break
            one = readable(found)
            self.oracle.check_part(one)
            if one.keys() & entries.keys():
                raise WrongAnswer(f"{list(one)} came twice")
            entries.update(one)
        expect("everybody, one by one", entries, self.people)

    def gone_in_between(self):
        """A client that goes in the middle of an answer."""
        number = self.open().search_ext(self.base, ldap.SCOPE_SUBTREE, ALL, NAMES)
        self.oracle.check_part(readable(self.connection.result3(number, all=0)[1]))
        self.close()

    # -- binds

    def bind(self):
        uid = self.random.choice(self.oracle.able)
        self.open().simple_bind_s(self.dn(uid), f"pw-{uid}")

    def own_entry(self):
        """Who binds is who binds, and sees what everybody sees."""
        uid = self.random.choice(self.oracle.able)
        self.open().simple_bind_s(self.dn(uid), f"pw-{uid}")
        expect("who am I", self.oracle.dn_s_owner(self.connection.whoami_s()), uid)
        expect(uid, self.search(person(uid)), {uid: self.people[uid]})

    def wrong_password(self):
        uid = self.random.choice(self.oracle.able)
        right, another = f"pw-{uid}", f"pw-{self.random.choice([other for other in self.oracle.able if other != uid])}"
        wrong = self.random.choice((right + "x", right[:-1], right.upper(), another, right + "\0junk", right + "\0", "\0" + right,
                                    " " + right, ""))
        reason = ldap.INVALID_CREDENTIALS if wrong else ldap.UNWILLING_TO_PERFORM
        refused(lambda: self.open().simple_bind_s(self.dn(uid), wrong), f"{uid} with {wrong!r}", reason)

    def disabled(self):
        uid = self.random.choice(self.oracle.disabled)
        refused(lambda: self.open().simple_bind_s(self.dn(uid), f"pw-{uid}"), f"{uid}, who is disabled,")

    def nul_name(self):
        uid = self.random.choice(self.oracle.able)
        name = self.dn(uid).replace(",", "\\00x,", 1)
        refused(lambda: self.open().simple_bind_s(name, f"pw-{uid}"), name)

    def departed(self):
        """With the password that was right once. While no controller can be reached, the
        agent remembers it in good faith; so only where all is well. The refusal ends that
        memory: each of them is good for one attempt."""
        begun = time.monotonic()
        uid = self.departed_ones.pop()
        try:
            self.open().simple_bind_s(self.dn(uid), f"old-{uid}")
        except ldap.INVALID_CREDENTIALS:
            return
        if self.weather.calm_since(begun):
            raise WrongAnswer(f"{uid}, who has departed, was accepted")

    # -- all of it

    def choose(self):
        kind = super().choose()
        if kind == self.departed and not (self.departed_ones and self.weather.calm_since(time.monotonic())):
            return self.lookup
        return kind

    def attempt(self, kind):
        """Whether there was an answer."""
        begun = time.monotonic()
        try:
            kind()
            self.counts[kind.__name__] += 1
        except ldap.LDAPError as error:
            self.counts[f"failure {judge(error)}"] += 1
            self.counts[f"failed {kind.__name__}"] += 1
            if self.weather.calm_since(begun):
                self.counts["failed in calm"] += 1
            self.close()
            return False
        if self.weather.calm_since(begun):
            self.counts["answered in calm"] += 1
        return True

    def run(self, until):
        while time.monotonic() < until:
            kind, pause = self.choose(), self.pause
            try:
                pause *= 1 if self.attempt(kind) else AFTER_FAILURE
            except WrongAnswer as error:
                self.note(kind.__name__, str(error))
                self.close()
            time.sleep(self.random.uniform(0, 2 * pause))
        self.close()

    def note(self, kind, words):
        self.counts[f"wrong {kind}"] += 1
        if self.counts[f"wrong {kind}"] <= KEPT:
            self.wrong.append(f"{time.monotonic():.1f} {kind}: {words[:500]}")


def serve(client, until):
    """Whatever happens to it is told; nothing is lost with its thread."""
    try:
        client.run(until)
    except Exception as error:  # noqa: BLE001
        client.note("client", repr(error))


def main():
    file, number = sys.argv[1:]
    settings = json.loads(pathlib.Path(file).read_text(encoding="utf-8"))
    share = range(int(number), settings["connections"], settings["processes"])
    clients = [Client(settings, one) for one in share]
    threads = [threading.Thread(target=serve, args=(client, settings["until"])) for client in clients]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    counts = sum((client.counts for client in clients), collections.Counter())
    print(json.dumps({"counts": counts, "wrong": [one for client in clients for one in client.wrong]}))


if __name__ == "__main__":
    main()
