# SPDX-License-Identifier: Apache-2.0
"""What clients saw when something was wrong, and after how long: the run's last table."""
import time

import ldap

from gateway import failure

TABLE = []


def told(what, action):
    """Runs the action as a client, and writes down what it saw. Returns (result code,
    text, seconds); the code is 0 when all went well."""
    start = time.monotonic()
    try:
        seen = action()
        code, text = 0, f"{len(seen)} found" if isinstance(seen, dict) else "bound"
    except ldap.LDAPError as error:
        code, text = failure(error)
    seconds = time.monotonic() - start
    note(what, code, text, seconds)
    return code, text, seconds


def note(what, code, text, seconds):
    TABLE.append(f"{seconds:6.2f} s  {code:3}  {what}: {text}")
