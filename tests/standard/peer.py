# SPDX-License-Identifier: Apache-2.0
"""slapd with back-mdb: the peer that is asked what the gateway is asked."""
import socket
import subprocess

import ldap

from gateway import EXAMPLES, SLAPD, SUFFIX, Server, accepts, free_port
from standard import Standard

SCHEMAS = [*Standard.SCHEMAS, EXAMPLES / "zanthedx.schema"]


class Mdb(Server):
    """Holds the entries of an LDIF text, which slapadd has checked against the schema.
    Without a text it has the schema, and nothing else. Further parts of the configuration
    are those of the gateway's slapd: modules, access, overlays."""

    def __init__(self, folder, servers, ldif=None, name="mdb", **parts):
        super().__init__(name, folder, servers)
        self.port = free_port()
        self.uri = f"ldap://127.0.0.1:{self.port}"
        self.config_file = folder / f"{name}.conf"
        lines = [f'include "{schema}"' for schema in SCHEMAS]
        lines += ['modulepath "/usr/lib/ldap"', *(f"moduleload {module}" for module in ("back_mdb", *parts.get("modules", ()))),
                  "sizelimit unlimited", "timelimit unlimited"]
        if ldif is not None:
            (folder / f"{name}-data").mkdir()
            # What slapd itself would make of who added an entry, and when, is not the directory's.
            lines += ["database mdb", f'suffix "{SUFFIX}"', f'directory "{folder}/{name}-data"', "maxsize 104857600",
                      "dbnosync", "lastmod off", *parts.get("access", ("access to * by * read",)), *parts.get("overlays", ())]
        self.config_file.write_text("\n".join(lines) + "\n", encoding="utf-8")
        if ldif is not None:
            self.load(ldif)

    def load(self, ldif):
        added = subprocess.run([SLAPD, "-Tadd", "-f", self.config_file], input=ldif.encode(), check=False, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
        assert added.returncode == 0, added.stdout.decode(errors="replace")

    def start(self):
        self.spawn([SLAPD, "-d", "0", "-h", self.uri, "-f", self.config_file])
        self.wait_ready(lambda: accepts(socket.AF_INET, ("127.0.0.1", self.port)))
        return self


def dump(server):
    """All that a server shows, as [(DN, {name: (values)})]."""
    connection = ldap.initialize(server.uri)
    found = connection.search_ext_s(SUFFIX, ldap.SCOPE_SUBTREE, "(objectClass=*)", ["*", "+", "memberOf"])
    connection.unbind_ext()
    return [(dn, {name: tuple(values) for name, values in entry.items()}) for dn, entry in found if dn is not None]
