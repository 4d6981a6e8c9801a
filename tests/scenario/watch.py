# SPDX-License-Identifier: Apache-2.0
"""Asks slapd for its root DSE again and again, each time on a new connection: whatever
the agent does, slapd itself has the answer.

    watch.py SETTINGS

Ends with a line of JSON, as clients.py does.
"""
import json
import os
import pathlib
import sys
import time

os.environ["LDAPNOINIT"] = "1"

import ldap  # noqa: E402

EVERY = 0.25  # seconds


def ask(uri):
    """The seconds that an answer takes."""
    begun = time.monotonic()
    connection = ldap.initialize(uri)
    connection.search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["namingContexts"])
    seconds = time.monotonic() - begun
    connection.unbind_ext()
    return seconds


def main():
    settings = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    times, wrong = [], []
    while time.monotonic() < settings["until"]:
        times.append(ask(settings["uri"]))
        if times[-1] > settings["at_once"]:
            wrong.append(f"{time.monotonic():.1f} the root DSE took {times[-1]:.1f} s")
        time.sleep(EVERY)
    print(json.dumps({"counts": {"root DSE": len(times), "slowest root DSE, ms": int(max(times) * 1000), "wrong root DSE": len(wrong)},
                      "wrong": wrong[:20]}))


if __name__ == "__main__":
    main()
