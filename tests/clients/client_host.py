# SPDX-License-Identifier: Apache-2.0
"""A host that clients are installed on, with slapd on its loopback, beside the machine
that the tests run on and without a trace on it.

    host = Host(world, {"nslcd.conf": EXAMPLES / "nslcd.conf"})
    host.gateway(agent)                  # ldap://127.0.0.1/ of that host
    host.start_nslcd()
    host.shell("getent passwd ann")      # its output, as a Said

It is a mount, a network and a UTS namespace (namespace.py). The agent stays outside: it
reaches its directory by the machine's network, and slapd reaches it by a Unix socket.
"""
import dataclasses
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import urllib.parse

from directories import DIRECTORY
from gateway import ROOT, SECONDS, SLAPD, Server, Slapd, accepts, wait_until
from standard import Standard

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLES = ROOT / "examples/clients"
UNPACKED = pathlib.Path(os.environ.get("ZX_CLIENTS") or ROOT / "build/clients").absolute()
PACKAGES = UNPACKED / "root"
# Which mode the gateway is in. Each has its directory, unless ZX_MODE says "standard" or "exact".
STANDARD = (os.environ.get("ZX_MODE") or {"embedded": "standard", "ad": "exact"}[DIRECTORY.kind]) == "standard"
USERS = (("root", 0, "/root"), ("nslcd", 110, "/run/nslcd"), ("www-data", 33, "/var/www"), ("nobody", 65534, "/nonexistent"))
NAME, GATEWAY = "build01.example.com", "gateway.example.com"
# What is said of a password change, which agent.password.change does not allow.
NO_CHANGE = "this directory changes no passwords" if STANDARD else "operation not supported for current user"
SPRING = "2026-03-01"  # the password dates of the example are good for another 167 days
FAKETIME = "/usr/$LIB/faketime/libfaketimeMT.so.1"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": "/root"}

# The folders of all hosts that there have been.
HOSTS = set()


@dataclasses.dataclass
class Said:
    """What a command came to."""
    status: int
    out: str
    err: str

    @property
    def lines(self):
        return self.out.splitlines()


class Host:
    """Up from its making until its world closes."""

    def __init__(self, world, files=None):
        self.world, self.folder = world, world.folder / "host"
        self.run = self.folder / "run"
        self.servers = world.running_servers
        for place in (self.folder / "etc", self.run / "slapd"):
            place.mkdir(parents=True)
        self.write_accounts()
        for name, source in (files or {}).items():
            self.copy(source, name)
        self.holder = Holder(self)
        HOSTS.add(str(self.folder))

    def write_accounts(self):
        """The host's own: none of the machine's is known there."""
        lines = {"passwd": "{name}:x:{number}:{number}:{name}:{home}:/bin/sh", "group": "{name}:x:{number}:",
                 "shadow": "{name}:*:19000:0:99999:7:::", "gshadow": "{name}:*::"}
        for file, form in lines.items():
            text = "".join(form.format(name=name, number=number, home=home) + "\n" for name, number, home in USERS)
            (self.folder / "etc" / file).write_text(text, encoding="utf-8")
        hosts = f"127.0.0.1 localhost\n127.0.1.1 {NAME} {NAME.partition('.')[0]}\n127.0.0.1 {GATEWAY}\n"
        (self.folder / "etc/hosts").write_text(hosts, encoding="utf-8")

    def copy(self, source, name):
        """A file of its /etc; root's alone, as some programs insist."""
        path = self.folder / "etc" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, path)
        path.chmod(0o600 if name.startswith(("sssd", "sudoers")) else 0o644)

    def inside(self, *namespaces):
        """The beginning of a command that runs in those of its namespaces."""
        return ["nsenter", f"--target={self.holder.process.pid}", *(f"--{name}" for name in namespaces), "--"]

    def path(self, file):
        """A file of the host, as the tests can reach it."""
        return f"/proc/{self.holder.process.pid}/root{file}"

    def shell(self, line, text=""):
        """Runs a line of shell to its end."""
        result = subprocess.run([*self.inside("mount", "net", "uts"), "sh", "-c", line], input=text, env=ENVIRONMENT, timeout=3 * SECONDS,
                                capture_output=True, encoding="utf-8", errors="replace")
        return Said(result.returncode, result.stdout, result.stderr)

    def start(self, name, line, door, env=None):
        """Starts a daemon that stays in the foreground; it is up when it answers at its
        door, a Unix socket or a port of the loopback."""
        return Daemon(self, name, line, door).start(env)

    def answers(self, door):
        if isinstance(door, str):
            return accepts(socket.AF_UNIX, self.path(door))
        return self.shell(f"python3 -c 'import socket; socket.create_connection((\"127.0.0.1\", {door}), 1)'").status == 0

    def start_nslcd(self, date=None):
        """nslcd; on a date, when one is given: it looks at password ages, and so does
        pam_unix in the programs that use it. set_date() changes it."""
        faketime = {}
        if date is not None:
            self.set_date(date)  # in a file, as nslcd clears its environment
            assert self.shell(f"echo '{FAKETIME}' > /etc/ld.so.preload").status == 0  # sudo takes none from its environment
            faketime = {"FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        return self.start("nslcd", "nslcd --nofork", "/run/nslcd/socket", faketime)

    def set_date(self, date):
        assert self.shell(f"echo '@{date} 12:00:00' > /etc/faketimerc").status == 0
        return self

    def gateway(self, agent, tls=None, more=()):
        """Starts slapd; with the folder of a certificate, for TLS too; with more directives."""
        return HostSlapd(self, tls, more, env=agent.env).start()


class Holder(Server):
    """The process that the host's namespaces belong to."""

    def __init__(self, host):
        super().__init__("host", host.folder, host.servers)
        read, write = os.pipe()
        self.alive = os.fdopen(write, "w")
        with os.fdopen(read) as stdin:
            self.spawn(["unshare", "--mount", "--net", "--uts", "--propagation", "private", "--", sys.executable,
                        HERE / "namespace.py", host.folder, PACKAGES, NAME], stdin=stdin)
        self.wait_ready(lambda: "ready" in self.log())

    def stop(self):
        self.alive.close()
        self.process.wait(SECONDS)


class Daemon(Server):
    """In a process namespace, so that none of its children outlives it. The shell is the
    process whose end ends it: the kernel forgets to kill one that changes its user."""

    COMMAND = ("unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "--", "sh", "-c", '"$@"; exit', "sh")

    def __init__(self, host, name, line, door):
        super().__init__(name, host.folder, host.servers)
        self.host, self.line, self.door = host, line, door

    def start(self, env):
        self.spawn([*self.host.inside("mount", "net", "uts"), *self.COMMAND, *self.line.split()], {**ENVIRONMENT, **(env or {})})
        self.wait_ready(lambda: self.host.answers(self.door))
        return self

    def stop(self):
        assert self.running(), f"{self.name} ended by itself:\n{self.log()}"
        self.kill()  # the others die a moment later
        wait_until(lambda: not self.host.answers(self.door), f"{self.name} is gone")


class HostSlapd(Standard if STANDARD else Slapd):
    """slapd on the host's loopback, at the usual ports. The tests themselves reach it by
    its Unix socket."""

    def __init__(self, host, tls, more, **parts):
        self.host, self.socket_file = host, host.run / "slapd/ldapi"
        self.urls = "ldap://127.0.0.1/"
        lines = ["sizelimit unlimited", "timelimit unlimited"]
        if tls is not None:
            self.urls += " ldaps://127.0.0.1/"
            lines += [f'TLSCertificateFile "{tls}/slapd.pem"', f'TLSCertificateKeyFile "{tls}/slapd-key.pem"']
        super().__init__(host.folder, host.servers, globals=lines, directives=(*self.DIRECTIVES, "dirgate.cache.enabled true", *more), **parts)
        self.uri = f"ldapi://{urllib.parse.quote(str(self.socket_file), safe='')}"

    def sanitizer_env(self):
        return {**super().sanitizer_env(), "LSAN_OPTIONS": f"suppressions={HERE}/leaks.supp:print_suppressions=0"}

    def report_file(self):
        """Where the world looks."""
        return self.host.world.folder / "slapd.sanitizer"

    def launch(self):
        self.spawn([*self.host.inside("net"), SLAPD, "-d", self.parts.get("debug", "0"), "-f", self.config_file,
                    "-h", f"{self.urls} {self.uri}"], self.env)

    def start(self):
        self.launch()
        self.wait_ready(lambda: accepts(socket.AF_UNIX, str(self.socket_file)) and self.settled())
        return self
