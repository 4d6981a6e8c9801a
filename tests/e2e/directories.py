# SPDX-License-Identifier: Apache-2.0
"""The directories that the gateway is tested with: the same people, groups and
netgroups in the embedded directory and in an Active Directory domain.

ZX_DIRECTORY chooses: "embedded" (the default), or "ad"; for the latter ZX_TRANSPORT how
it is reached ("gssapi", the default, "starttls" or "ldaps"). A test that is about the
embedded directory alone is marked so (@pytest.mark.embedded). What a test changes is
undone before the next one.
"""
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLE = ROOT / "examples/example.ldif"
ZONE = "CN=Global,CN=Zones,DC=example,DC=com"


class Embedded:
    """A database of each agent's own, built from the example when it starts."""

    kind = "embedded"
    environment = {}

    # crypt(3) hashes (SHA-512, few rounds) of the passwords that tests change to
    HASHES = {"new": "$6$rounds=1000$zanthedx$FwT5CipbZ2.mql.HJIGriYK0.JOsHeIdE1NA"
                     "HXZbOY3oZ0JsFk0lQcmMbHXrNyHD0yjk8WT1oNX/.oYBU4wlP1"}

    def settings(self, folder):
        return {"directory": "embedded", "embedded.database": folder / "directory.ldb", "embedded.ldif": EXAMPLE,
                "domain.name": "example.com", "zone.dn": ZONE}

    def modify(self, ldif, settings):
        """Changes it under the running agent. Without mdb:// the tool would take the
        file for a database of another kind, and overwrite it."""
        subprocess.run(["ldbmodify", "-H", f"mdb://{settings['embedded.database']}"], input=ldif.encode(), check=True,
                       stdout=subprocess.DEVNULL)

    def set_password(self, dn, password, settings):
        self.modify(f"dn: {dn}\nchangetype: modify\nreplace: userPassword\nuserPassword: {{CRYPT}}{self.HASHES[password]}\n",
                    settings)

    def restore(self):
        """Nothing to do: the next agent has another database."""

    def close(self):
        pass


class Domain:
    """One domain for all agents; it starts with the first of them, and starts anew
    when a test has changed it."""

    kind = "ad"

    def __init__(self, image="company"):
        self.image, self._lab, self._changed = image, None, False

    @property
    def lab(self):
        if self._lab is None:
            sys.path.append(str(ROOT / "tests/ad"))
            from lab import Lab  # only now: it needs Samba
            self._lab = Lab(self.image).__enter__()
        return self._lab

    @property
    def environment(self):
        return self.lab.environment

    def settings(self, _folder):
        return self.lab.agent_settings(os.environ.get("ZX_TRANSPORT") or "gssapi")

    def modify(self, ldif, _settings):
        self._changed = True
        self.lab.modify(ldif)

    def set_password(self, dn, password, _settings):
        self._changed = True
        self.lab.set_password(dn, password)

    def restore(self):
        if self._changed:
            self.close()

    def close(self):
        if self._lab is not None:
            self._lab.close()
        self._lab, self._changed = None, False


DIRECTORY = {"embedded": Embedded, "ad": Domain}[os.environ.get("ZX_DIRECTORY") or "embedded"]()
