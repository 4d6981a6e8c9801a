# SPDX-License-Identifier: Apache-2.0
"""Knows every password and every entry, and tells a wrong answer from a right one and
from "cannot tell"."""
from soak_client import WrongAnswer  # before ldap, which it forbids to read the machine's settings

import ldap

# operationsError, timeLimitExceeded, adminLimitExceeded, busy, unavailable, other: all say "cannot
# tell". Anything else is an answer, or the end of a connection, and both must be right.
CANNOT_TELL = {1, 3, 11, 51, 52, 80}


def code_of(error):
    detail = error.args[0] if error.args and isinstance(error.args[0], dict) else {}
    return detail.get("result", detail.get("desc", repr(error)))


def text_of(error):
    return error.args[0].get("info", "") if error.args and isinstance(error.args[0], dict) else ""


def judge(error):
    """Raises what an error says too much; returns its code when it says nothing."""
    code = code_of(error)
    if code not in CANNOT_TELL:
        raise WrongAnswer(f"{code}: {text_of(error)}")
    return code


def refused(bind, what, reason=ldap.INVALID_CREDENTIALS):
    """A bind that must not succeed."""
    try:
        bind()
    except reason:
        return
    raise WrongAnswer(f"{what} was accepted")


class Oracle:
    def __init__(self, model):
        self.people, self.groups = model["people"], model["groups"]
        self.able, self.disabled, self.departed = model["able"], model["disabled"], model["departed"]
        self.unit = model["unit"]

    def dn(self, uid):
        return f"cn={uid},{self.unit}"

    def groups_of(self, uid):
        return {group for group, members in self.groups.items() if uid in members}

    def check_groups(self, uid, found):
        """The answer to which groups somebody is in, as (DN, {"cn": [bytes]})."""
        names = [entry["cn"][0].decode() for dn, entry in found if dn is not None]
        expect(f"groups of {uid}", sorted(names), sorted(self.groups_of(uid)))

    def check_members(self, group, found):
        entries = [sorted(value.decode() for value in entry.get("memberUid", [])) for dn, entry in found if dn is not None]
        expect(f"members of {group}", entries, [sorted(self.groups[group])])

    def check_part(self, found):
        """Entries that came before a failure, or were not all read: {uid: entry}."""
        for uid, entry in found.items():
            expect(uid, entry, self.people.get(uid))

    def dn_s_owner(self, dn):
        return dn.removeprefix("dn:").lower().partition(",")[0].removeprefix("cn=")


def expect(what, found, expected):
    if found != expected:
        raise WrongAnswer(f"{what}: {found} and not {expected}")
