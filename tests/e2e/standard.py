# SPDX-License-Identifier: Apache-2.0
"""slapd with the module in the standard mode, with the map for applications."""
import subprocess

from gateway import EXAMPLES, Slapd, search, values


class Standard(Slapd):
    """With the schemas that go with its maps."""

    SCHEMAS = [*(f"/etc/ldap/schema/{name}.schema" for name in ("core", "cosine", "inetorgperson")),
               *(EXAMPLES / f"{name}.schema" for name in ("rfc2307bis", "sudo", "mail"))]
    MODE = ("dirgate.ldap.standard true", "dirgate.netgroup.use.rfc2307nisnetgroup true")
    DIRECTIVES = (f'vextranslation "{EXAMPLES}/applications.map"', *MODE)

    def dn(self, uid):
        """As it shows a person's."""
        [dn] = search(self.connect(), f"(uid={uid})", ["1.1"])
        return dn

    def groups(self, uid):
        """Those that it shows of a person, sorted."""
        [person] = search(self.connect(), f"(uid={uid})", ["memberOf"]).values()
        return sorted(values(person, "memberOf"))


def standard_slapd(world, agent, **parts):
    """The gateway of an agent in a test's world."""
    return Standard(world.folder, world.running_servers, **{**parts, "env": {**agent.env, **parts.get("env", {})}})


def tool(slapd, name, *words, who=None, password=None, uri=None, env=None, before=()):
    """One of OpenLDAP's programs, with a simple bind of somebody or behind another command:
    (status, what it said)."""
    bind = ["-x", "-D", who, "-w", password] if who else []
    done = subprocess.run([*before, name, "-H", uri or slapd.uri, *bind, *words], check=False, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env={**(env or {}), "LDAPNOINIT": "1"})
    return done.returncode, done.stdout
