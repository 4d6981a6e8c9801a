# SPDX-License-Identifier: Apache-2.0
"""The contenders: slapd in its different shapes, all on loopback, with the same people.

Servers run on the machine's first processor and the load generator on its second, so
that neither takes the other's time. A contender that is not measured waits and takes
none at all.
"""
import os
import pathlib
import socket
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/e2e"))

import gateway  # noqa: E402  (how the tests start slapd and the agent)
from people import PASSWORD, POSIX_ATTRIBUTES, SUFFIX, shown_dn  # noqa: E402

PINNED = (os.cpu_count() or 1) > 1
SERVER_CORE, GENERATOR_CORE = "0", "1"


def pin(core, command):
    return ["taskset", "-c", core, *command] if PINNED else list(command)


class Pinned:
    """A server of the tests, on the servers' processor, and inside another program if one is given."""

    wrapper = ()

    def spawn(self, command, env=None):
        super().spawn(pin(SERVER_CORE, [*self.wrapper, *command]), env)


class Agent(Pinned, gateway.Agent):
    def start_within(self, seconds):
        """A directory of many people takes longer to load than those of the tests."""
        self.launch()
        gateway.wait_until(lambda: not self.running() or gateway.accepts(socket.AF_UNIX, str(self.socket)),
                           "vexagent has loaded its directory", seconds)
        assert self.running(), self.log()


class Slapd(Pinned, gateway.Slapd):
    pass


class Contender:
    """One slapd, and what is behind it. Key names it in results, title in tables."""

    key = title = None
    entries = True  # whether it has any
    wrapper = ()    # what its slapd runs inside

    def __init__(self, lab):
        self.lab = lab
        self.folder = lab.folder / self.key
        self.folder.mkdir()
        self.behind = []  # servers that work for this one
        self.slapd = None

    def asked(self, options):
        """The generator's options for this contender; a directory with other names changes them."""
        return options

    def parts(self):
        """What of the slapd is not as in the tests."""
        raise NotImplementedError

    def make(self):
        self.slapd = Slapd(self.folder, self.lab.servers, **self.parts())
        self.slapd.wrapper = self.wrapper

    def start(self):
        self.make()
        self.slapd.start()
        return self

    def restart(self):
        """From nothing: whatever it has cached is gone."""
        self.slapd.stop()
        self.forget()
        self.slapd.start()

    def forget(self):
        """Removes what a stopped slapd would find again."""

    def port(self):
        return self.slapd.port

    def processes(self):
        """Whose processor time counts."""
        return [self.slapd.process.pid, *(server.process.pid for server in self.behind)]


def proportional_memory(process):
    """In KiB, what is shared with others counted by its share."""
    for line in pathlib.Path(f"/proc/{process}/smaps_rollup").read_text(encoding="ascii").splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1])
    raise RuntimeError("no Pss in smaps_rollup")


# slapd's default sends several lines a request to syslog.
GLOBALS = ("sizelimit unlimited", "timelimit unlimited", "loglevel 0")


def database(*lines):
    """The end of a configuration that has another database than the gateway's."""
    return {"database": False, "globals": (*GLOBALS, *lines)}


class Null(Contender):
    key, title = "null", "back-null"
    entries = False

    def parts(self):
        return {"module": "back_null", **database("database null", f'suffix "{SUFFIX}"', "bind on")}


class Mdb(Contender):
    """The people under the names that clients ask for."""

    key, title, scheme = "mdb", "back-mdb", "SSHA"
    indexes = ("objectClass", "uid", "cn", "uidNumber", "gidNumber", "memberUid")

    def write_ldif(self, file):
        self.lab.directory.write_rfc2307(file, self.scheme)

    def parts(self):
        data = self.folder / "data"
        data.mkdir(exist_ok=True)
        return {"module": "back_mdb", **database(
            "database mdb", f'suffix "{SUFFIX}"', f'directory "{data}"', "maxsize 4294967296",
            *(f"index {name} eq" for name in self.indexes),
            "access to attrs=userPassword by anonymous auth by * none", "access to * by * read")}

    def start(self):
        self.make()
        self.load()
        self.slapd.start()
        return self

    def load(self):
        """Without a check of the schema: an entry is user and posixAccount at once."""
        ldif = self.folder / "people.ldif"
        with open(ldif, "w", encoding="utf-8") as file:
            self.write_ldif(file)
        subprocess.run([gateway.SLAPD, "-T", "add", "-q", "-s", "-f", self.slapd.config_file, "-l", ldif], check=True)
        ldif.unlink()


class MdbCrypt(Mdb):
    """With the hash that the embedded directory checks passwords against."""

    key, title, scheme = "mdb_crypt", "back-mdb, crypt(3) hashes", "CRYPT"


class Upstream(Mdb):
    """A stand-in for the domain controller behind the proxies: Active Directory's names."""

    key, title = "upstream", "back-mdb with Active Directory's names"
    indexes = ("objectClass", "sAMAccountName", "uidNumber", "gidNumber")

    def write_ldif(self, file):
        self.lab.directory.write_ad(file)


class Proxy(Contender):
    """back-ldap with rwm, which maps the names."""

    key, title = "proxy", "back-ldap + rwm"
    modules = ("rwm",)

    def cache(self):
        return ()

    def parts(self):
        self.behind = [self.lab.upstream.slapd]
        return {"module": "back_ldap", "modules": self.modules, **database(
            "database ldap", f'suffix "{SUFFIX}"', f'rootdn "cn=root,{SUFFIX}"',
            f'uri "{self.lab.upstream.slapd.uri}"', "chase-referrals no", "rebind-as-user no",
            "overlay rwm", "rwm-map attribute uid sAMAccountName",
            "rwm-map attribute homeDirectory unixHomeDirectory", "rwm-map objectclass posixAccount user",
            *self.cache())}


class CachingProxy(Proxy):
    """With pcache in front: its cache is a database of its own."""

    key, title = "pcache", "back-ldap + rwm + pcache"
    modules = ("rwm", "pcache", "back_mdb")

    def cache(self):
        self.data().mkdir(exist_ok=True)
        return ("overlay pcache", "pcache mdb 1000000 2 200000 3600", f"pcacheattrset 0 {' '.join(POSIX_ATTRIBUTES)}",
                "pcacheattrset 1 *", "pcachetemplate (&(objectClass=)(uid=)) 0 3600",
                "pcachetemplate (&(objectClass=)(uid=)) 1 3600", "pcachemaxqueries 1000000",
                f'directory "{self.data()}"', "maxsize 4294967296", "index objectClass eq", "index uid eq",
                "index pcacheQueryid eq")

    def data(self):
        return self.folder / "cache"

    def forget(self):
        for file in self.data().iterdir():
            file.unlink()


class Gateway(Contender):
    """This gateway on the embedded directory, with room in its cache for everybody."""

    key, title, cached = "gateway", "zanthedx, cached", True

    def parts(self):
        self.behind = [self.lab.agent]
        room = 2 * len(self.lab.directory.people) + 1000
        directives = [*Slapd.DIRECTIVES]
        if self.cached:
            directives += ["dirgate.cache.enabled true", f"dirgate.cache.max.lists {room}",
                           f"dirgate.cache.max.objects {room}"]
        return {"globals": GLOBALS, "directives": directives, "env": self.lab.agent.env}

    def start(self):
        super().start()
        self.first_bind()
        return self

    def restart(self):
        super().restart()
        self.first_bind()

    def first_bind(self):
        """Nothing is cached before it."""
        connection = self.slapd.connect(shown_dn(self.lab.directory.people[0].login), PASSWORD)
        self.slapd.close_connection(connection)
        self.slapd.connections.clear()


class UncachedGateway(Gateway):
    key, title, cached = "gateway_uncached", "zanthedx, no cache", False


class StandardGateway(Gateway):
    """The same in the standard mode, where one object is one entry."""

    key, title = "gateway_standard", "zanthedx, cached, standard mode"

    def parts(self):
        parts = super().parts()
        return {**parts, "directives": [*parts["directives"], "dirgate.ldap.standard true"]}
