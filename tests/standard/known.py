# SPDX-License-Identifier: Apache-2.0
"""Kinds of differences from back-mdb that are meant to be, each with its reason. They do
not count as agreeing. There may be ten of them, and no more."""
import unicodedata
from dataclasses import dataclass
from typing import Callable

from ldap import DECODING_ERROR
from ldap.dn import str2dn

MOST = 10
NO_SUCH_OBJECT = 32
OTHERS = {"member", "memberOf", "memberUid", "manager", "secretary", "seeAlso", "owner", "managedBy"}


@dataclass(frozen=True)
class Known:
    name: str
    reason: str
    explains: Callable  # (question, the peer's answer, the other's, {DN: entry} of the peer): whether this is why


def prepared(text):
    """Near to RFC 4518: enough to tell which names are equal."""
    return " ".join(unicodedata.normalize("NFKC", unicodedata.normalize("NFKC", text).lower()).split())


def becomes_ascii(text):
    """Whether a character that is not ASCII stands for one that is."""
    return any(ord(one) > 127 and any(part.isascii() and part.isalnum() for part in prepared(one)) for one in text)


def has_such_values(entry):
    """Of its own, and not in the names of others."""
    return any(becomes_ascii(value.decode(errors="ignore")) for name, values in entry.items() if name not in OTHERS for value in values)


def name_of(dn):
    try:
        return tuple(prepared(value) for rdn in str2dn(dn) for _, value, _ in rdn)
    except DECODING_ERROR:
        return None


def asked_by_another_letter(question, right, answer, entries):
    """The base, or the entry to compare, is one that is written with such a letter."""
    asked = name_of(getattr(question, "base", None) or question.dn)
    meant = [dn for dn in entries if becomes_ascii(dn) and name_of(dn) == asked]
    return bool(meant) and (answer.code == NO_SUCH_OBJECT or "hasSubordinates" in getattr(question, "name", ""))


def only_such_are_missing(question, right, answer, entries):
    ours, theirs = dict(answer.entries), dict(right.entries)
    missing = theirs.keys() - ours.keys()
    alike = right.code == answer.code and not ours.keys() - theirs.keys() and len(ours) == len(answer.entries)
    return alike and bool(missing) and all(has_such_values(entries[dn]) or mentions_such(question) for dn in missing)


def mentions_such(question):
    """A filter may name such an entry by its DN, as in (member=...)."""
    return any(becomes_ascii(text) for text in texts(question.filter))


def texts(tree):
    if isinstance(tree, bytes):
        yield tree.decode(errors="ignore").replace("\\", "")
    elif isinstance(tree, (tuple, list)):
        for part in tree:
            yield from texts(part)


KNOWN = (
    Known("a letter that becomes an ASCII one",
          "Preparation (RFC 4518) makes ASCII of full-width letters, ligatures and a few others. The agent's directory compares "
          "them as they are, and finding them by ASCII letters would mean to ask for everybody at each look-up.",
          lambda *facts: asked_by_another_letter(*facts) or only_such_are_missing(*facts)),
)
