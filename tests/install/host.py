# SPDX-License-Identifier: Apache-2.0
"""A host of its own, on which the gateway is installed and run as on any other: by
systemd, as the users that it makes, with the paths that the documents name.

    with Host(installed, folder) as host:
        host.run("systemctl", "start", "vexagent")

Its files are this machine's, with an overlay that takes all changes; its processes,
its network (loopback and nothing else) and its systemd are its own. Takes root.
"""
import contextlib
import ctypes
import os
import pathlib
import signal
import subprocess

from gateway import ROOT, wait_until
from installation import DOCUMENTS

HERE = pathlib.Path(__file__).resolve().parent
SECONDS = 120


def children(pid):
    return [int(word) for word in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


class Host:
    def __init__(self, installed, folder):
        self.installed, self.folder = installed, folder
        self.process, self.init = None, None
        self.log = pathlib.Path(f"{folder}.log")

    def __enter__(self):
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(
                ["unshare", "--mount", "--net", "--ipc", "--uts", HERE / "host.sh", self.folder, self.installed.root, ROOT],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
                preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGKILL))
        try:
            self.init = wait_until(self.find_init, "the host's systemd runs")
            wait_until(lambda: self.tell("systemctl", "is-active", "-q", "basic.target").returncode == 0,
                       "the host is up", SECONDS)
        except BaseException:
            self.__exit__()
            raise
        return self

    def find_init(self):
        """The first process of the host, once it is systemd."""
        assert self.process.poll() is None, f"the host ended:\n{self.log.read_text(errors='replace')}"
        with contextlib.suppress(OSError, IndexError, ValueError):
            # host.sh, its sub-shell that becomes unshare, and that one's child
            [init] = children(children(self.process.pid)[0])
            if pathlib.Path(f"/proc/{init}/comm").read_text().strip() == "systemd":
                return init
        return None

    def __exit__(self, *_):
        if self.init is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.init, signal.SIGKILL)
        else:
            self.process.terminate()
        self.process.wait(SECONDS)

    def path(self, name):
        """One of the host's files, as this machine sees it."""
        return pathlib.Path(f"/proc/{self.init}/root{name}")

    def inside(self, *command):
        """The command that runs a command on the host."""
        return ["nsenter", "-t", str(self.init), "--mount", "--net", "--ipc", "--uts", "--pid", "--cgroup", "--root",
                "env", "-C", "/", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LDAPNOINIT=1", *map(str, command)]

    def tell(self, *command, text=None):
        """Runs a program on the host. Returns how it ended and what it said."""
        return subprocess.run(self.inside(*command), input=text, capture_output=True, text=True, errors="replace",
                              timeout=SECONDS)

    def run(self, *command, text=None):
        """The same for one that must succeed. Returns what it said on standard output."""
        result = self.tell(*command, text=text)
        assert result.returncode == 0, f"{command}: status {result.returncode}\n{result.stdout}{result.stderr}\n{self.journal()}"
        return result.stdout

    def journal(self):
        return self.tell("journalctl", "--no-pager", "-q", "-n", "60").stdout

    def write(self, path, text):
        """Writes a file in its place: owner and mode stay."""
        self.run("sh", "-c", 'cat > "$0"', path, text=text)

    def set_up(self):
        """The gateway on the embedded directory, as the manual tells; nothing runs yet."""
        examples = f"/{DOCUMENTS}/examples"
        self.run("mkdir", "-p", "/etc/zanthe")
        self.run("cp", f"{examples}/zanthe.conf", f"{examples}/example.ldif", "/etc/zanthe")
        self.run("cp", f"{examples}/slapd.conf", "/etc/ldap/slapd.conf")
        self.run("sed", "-i", "s|^SLAPD_CONF=.*|SLAPD_CONF=/etc/ldap/slapd.conf|", "/etc/default/slapd")

    def answers(self):
        """Whether slapd answers."""
        return self.tell("ldapsearch", "-x", "-H", "ldap://127.0.0.1", "-b", "", "-s", "base").returncode == 0

    def serve(self):
        """Starts both servers. slapd's start counts as done a little before it answers."""
        self.run("systemctl", "start", "vexagent", "slapd")
        wait_until(self.answers, "slapd answers")

    def status(self, pid):
        """What the kernel says of one of the host's processes, as {field: value}."""
        lines = self.run("cat", f"/proc/{pid}/status").splitlines()
        return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}
