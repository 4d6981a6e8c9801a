# SPDX-License-Identifier: Apache-2.0
"""The servers under test: vexagent and slapd, as child processes in a folder of
their own, on loopback and Unix sockets only.

Whatever is started is registered with the test's Servers and stopped at its end by
its process id. Nothing waits for a fixed time: wait_until polls with a deadline.
"""
import contextlib
import ctypes
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import time

import ldap
import psutil
from ldap.controls import SimplePagedResultsControl

from directories import DIRECTORY
from sanitizers import Sanitizer

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZX_BUILD") or ROOT / "build/release").absolute()
EXAMPLES = ROOT / "examples"
SUFFIX = "dc=example,dc=com"  # as slapd shows it
SLAPD = next((path for path in ("/usr/sbin/slapd", "/usr/local/sbin/slapd") if os.path.exists(path)), "slapd")
SANITIZER = Sanitizer(BUILD, ROOT)
# The deadline of everything that is waited for.
SECONDS = 60 if SANITIZER.kind else 20
# Whether tests that come in a short and a long form are to be long (make soak).
LONG = bool(os.environ.get("ZX_LONG"))
STATISTICS = "vexagent: requests served:"  # how the line that answers SIGUSR1 begins
CRASHES = (signal.SIGSEGV, signal.SIGABRT, signal.SIGBUS, signal.SIGFPE, signal.SIGILL)


def wait_until(condition, what, seconds=SECONDS):
    """Polls until the condition gives something true, and returns that. What is waited for
    is a text, or makes one of what is there in the end."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"not within {seconds} seconds: {what() if callable(what) else what}"
        time.sleep(0.01)


def free_port():
    """Below the range that the kernel takes clients' ports from: one from there could
    be anybody's a moment later."""
    while True:
        port = random.randrange(10000, 32000)
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("127.0.0.1", port))
            return port


def accepts(family, address):
    with socket.socket(family) as probe:
        probe.settimeout(1)
        try:
            probe.connect(address)
        except OSError:
            return False
        return True


class Server:
    """A child process and its log."""

    def __init__(self, name, folder, servers):
        self.name, self.folder, self.process = name, folder, None
        self.descriptors_given = ()  # beside the usual three
        self.log_file = folder / f"{name}.log"
        servers.append(self)

    def spawn(self, command, env=None, stdin=subprocess.DEVNULL):
        environment = {**os.environ, **SANITIZER.options(self.report_file()), **self.sanitizer_env(), **(env or {})}
        with open(self.log_file, "ab") as output:
            self.process = subprocess.Popen(
                [str(word) for word in command], stdin=stdin, stdout=output, stderr=output,
                env=environment, pass_fds=self.descriptors_given, preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGKILL))

    def report_file(self):
        """What a sanitizer's reports are called: a full stop and the process id follow."""
        return self.folder / f"{self.name}.sanitizer"

    def sanitizer_env(self):
        """What a program of a sanitized build needs in its environment."""
        return {}

    def log(self):
        return self.log_file.read_text(errors="replace") if self.log_file.exists() else ""

    def running(self):
        return self.process is not None and self.process.poll() is None

    def wait_ready(self, condition):
        def ready():
            assert self.running(), f"{self.name} ended with status {self.process.returncode}:\n{self.log()}"
            return condition()
        wait_until(ready, f"{self.name} is ready")

    def signal(self, number):
        self.process.send_signal(number)

    def memory(self):
        """Its own resident memory in bytes, without files that it maps."""
        memory = psutil.Process(self.process.pid).memory_info()
        return memory.rss - memory.shared

    def descriptors(self):
        return psutil.Process(self.process.pid).num_fds()

    def threads(self):
        return psutil.Process(self.process.pid).num_threads()

    def stop(self):
        """Stops it in order. Returns its exit status."""
        if self.running():
            self.signal(signal.SIGCONT)
            self.process.terminate()
            try:
                self.process.wait(SECONDS)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
                raise AssertionError(f"{self.name} did not end when it was asked to") from None
        if self.process is None:
            return None
        status = self.process.returncode
        assert -status not in CRASHES, f"{self.name} crashed with status {status}:\n{self.log()}"
        assert status not in SANITIZER.EXIT_CODES, f"{self.name}: a sanitizer found something:\n{self.log()}"
        return status

    def kill(self):
        self.process.kill()
        self.process.wait()


class Agent(Server):
    """vexagent with a settings file of its own; further settings as a dictionary."""

    def __init__(self, folder, servers, behind=DIRECTORY, **settings):
        super().__init__("vexagent", folder, servers)
        self.socket = folder / "agent.sock"
        self.namespace = []
        self.settings_file = folder / "zanthe.conf"
        self.directory = behind
        self.settings = {"agent.socket": self.socket, **behind.settings(folder)}
        self.settings.update({name.replace("__", "."): value for name, value in settings.items()})
        self.env = {"ZANTHE_CONF": str(self.settings_file), **behind.environment}
        self.write_settings()

    def write_settings(self):
        self.settings_file.write_text("".join(f"{name} = {value}\n" for name, value in self.settings.items()),
                                      encoding="utf-8")

    def command(self):
        return [*self.namespace, BUILD / "agent/vexagent"]

    def launch(self):
        self.spawn(self.command(), self.env)

    def start(self):
        self.launch()
        self.wait_ready(lambda: accepts(socket.AF_UNIX, str(self.socket)))
        return self

    def resolve_by(self, resolv):
        """Its name servers are those of a file, by a mount that only it sees."""
        self.namespace = ["unshare", "--mount", "--propagation", "private", "--", "sh", "-c",
                          'mount --bind "$0" /etc/resolv.conf && exec "$@"', resolv]

    def hand_over(self, *sockets):
        """Its descriptors from 3 on will be these, and it is told so as systemd tells it."""
        self.descriptors_given = tuple(handed.fileno() for handed in sockets)
        # Out of each other's way first.
        moves = [f"exec {20 + number}<&{descriptor}" for number, descriptor in enumerate(self.descriptors_given)]
        moves += [f"exec {3 + number}<&{20 + number} {20 + number}<&-" for number in range(len(sockets))]
        script = "; ".join([*moves, f"export LISTEN_PID=$$ LISTEN_FDS={len(sockets)}", 'exec "$@"'])
        self.namespace = ["bash", "-c", script, "bash"]

    def refused(self):
        """Starts it where it must not start: returns its exit status and its words."""
        self.launch()
        status = self.process.wait(SECONDS)
        return status, self.log()

    def statistics(self):
        """What it says of itself when it is asked, behind STATISTICS."""
        before = self.log().count(STATISTICS)
        self.signal(signal.SIGUSR1)
        def answered():
            log = self.log()
            return log.endswith("\n") and log.count(STATISTICS) > before and log
        return wait_until(answered, "a line of statistics").rpartition(STATISTICS)[2]

    def served(self):
        """How many requests of each kind it has served, as {kind: count}."""
        line = self.statistics().split(";")[0]
        return {kind: int(count) for kind, count in (item.split() for item in line.split(","))}

    def open_searches(self):
        """How many searches it keeps for its clients."""
        return int(re.search(r"; open searches: (\d+);", self.statistics())[1])

    def modify(self, ldif):
        """Changes the directory under the running agent."""
        self.directory.modify(ldif, self.settings)

    def set_password(self, dn, password):
        self.directory.set_password(dn, password, self.settings)


class Slapd(Server):
    """slapd with the module. The configuration is made of lines that a test chooses;
    what is left out is as in the example."""

    SCHEMAS = [f"/etc/ldap/schema/{name}.schema" for name in ("core", "cosine", "nis", "inetorgperson")]
    DIRECTIVES = (
        f'vextranslation "{EXAMPLES}/rfc2307.map"',
        "dirgate.netgroup.use.rfc2307nisnetgroup true",
        "dirgate.search.report.errors true",
        "dirgate.paged.critical true",
    )

    def __init__(self, folder, servers, **parts):
        super().__init__("slapd", folder, servers)
        self.parts = parts
        self.port = free_port()
        self.uri = f"ldap://127.0.0.1:{self.port}"
        self.config_file = folder / "slapd.conf"
        self.env = dict(parts.get("env", {}))
        self.connections = []
        self.write_config()

    def write_config(self):
        part = self.parts.get
        lines = [f'include "{schema}"' for schema in [*self.SCHEMAS, EXAMPLES / "zanthedx.schema"]]
        lines += [f'pidfile "{self.folder}/slapd.pid"', f'modulepath "{part("modulepath", BUILD / "backend")}:/usr/lib/ldap"']
        lines += [f"moduleload {name}" for name in (part("module", "libback_zanthedx.so.0"), *part("modules", ()))]
        lines += part("globals", ("sizelimit unlimited", "timelimit unlimited"))
        if part("backend"):
            lines += ["backend zanthedx", *part("backend")]
        if part("database", True):
            lines += ["database zanthedx", f'suffix "{SUFFIX}"', *part("access", ("access to * by * read",))]
            lines += part("directives", self.DIRECTIVES)
            lines += part("overlays", ())
        self.config_file.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def launch(self):
        uris = " ".join((self.uri, *self.parts.get("uris", ())))
        self.spawn([SLAPD, "-d", self.parts.get("debug", "0"), "-h", uris, "-f", self.config_file], self.env)

    def start(self):
        self.launch()
        self.wait_ready(lambda: accepts(socket.AF_INET, ("127.0.0.1", self.port)) and self.settled())
        return self

    def sanitizer_env(self):
        return SANITIZER.preload

    def settled(self):
        """Whether the main thread waits for the listener thread's end. slapd answers a
        little earlier, but ends badly when it is told to stop then."""
        process = pathlib.Path(f"/proc/{self.process.pid}")
        try:
            call = (process / "syscall").read_text().split()
            threads = {int(thread.name) for thread in (process / "task").iterdir()} - {self.process.pid}
        except OSError:  # not allowed to look
            return True
        # A join is a futex wait for the other thread's id: the third argument.
        return len(call) > 3 and int(call[3], 16) in threads

    def refused(self):
        self.launch()
        status = self.process.wait(SECONDS)
        return status, self.log()

    def line_of(self, text):
        """The number of the configuration's first line that begins with the text."""
        lines = self.config_file.read_text(encoding="utf-8").splitlines()
        return next(number for number, line in enumerate(lines, 1) if line.startswith(text))

    def connect(self, who=None, password=None):
        """A connection, anonymous or bound."""
        connection = ldap.initialize(self.uri)
        connection.set_option(ldap.OPT_REFERRALS, 0)
        connection.set_option(ldap.OPT_TIMEOUT, SECONDS + 10)
        connection.set_option(ldap.OPT_NETWORK_TIMEOUT, SECONDS)
        self.connections.append(connection)
        if who is not None:
            connection.simple_bind_s(who, password)
        return connection

    def close_connection(self, connection):
        """Ends a connection of connect() and returns when slapd has forgotten it: only
        then it closes its side. libldap would shut down both sides, and not wait."""
        with socket.socket(fileno=os.dup(connection.fileno())) as still_ours:
            still_ours.settimeout(SECONDS)
            still_ours.shutdown(socket.SHUT_WR)
            while still_ours.recv(4096):
                pass
        with contextlib.suppress(ldap.LDAPError):  # it is closed already
            connection.unbind_ext()

    def stop(self):
        for connection in self.connections:
            with contextlib.suppress(ldap.LDAPError, AttributeError):  # closed already
                connection.unbind_ext()
        self.connections.clear()
        return super().stop()


def log_in(slapd, who, password):
    """The result of a bind, by a connection that is gone afterwards."""
    connection = slapd.connect()
    try:
        connection.simple_bind_s(who, password)
        return 0
    except ldap.LDAPError as error:
        return failure(error)[0]
    finally:
        slapd.close_connection(connection)


def search(connection, filter, attributes=None, base=SUFFIX, scope=ldap.SCOPE_SUBTREE, **limits):
    """The entries found, as {DN: {attribute: [bytes]}}; none when the answer is 32."""
    try:
        found = connection.search_ext_s(base, scope, filter, attributes, **limits)
    except ldap.NO_SUCH_OBJECT:
        return {}
    return {dn: values for dn, values in found if dn is not None}


def pages(connection, filter, size):
    """A search by pages: for each page its entries, as [(DN, {attribute: [bytes]})]."""
    control = SimplePagedResultsControl(True, size=size, cookie="")
    while True:
        request = connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, filter, ["uid"], serverctrls=[control])
        _, entries, _, controls = connection.result3(request)
        yield entries
        control.cookie = controls[0].cookie if controls else ""
        if not control.cookie:
            return


def values(entry, name):
    """An attribute's values as text, whatever the spelling of its name."""
    return [value.decode() for key, some in entry.items() if key.lower() == name.lower() for value in some]


def failure(exception):
    """The result code and the text of an LDAPError, as they came over the wire."""
    detail = exception.args[0]
    return detail["result"], detail.get("info", "")


class ScriptedAgent:
    """libvex's stand-in in slapd's process: answers from a script, records every call
    (tests/standin/README.md). Pass env to a Slapd."""

    REQUESTS = ("vexSession", "vexSetOption", "vexLdap", "vexLookup", "vexAuth", "vexGetObjectSupported",
                "vexSystemHealth", "vexGetLastProtocol")

    def __init__(self, folder, settings_file):
        self.script_file, self.log_file = folder / "script.json", folder / "calls"
        self.seen = 0
        self.script()
        self.env = {
            "LD_LIBRARY_PATH": str(BUILD / "tests/standin/lib"),
            "VEX_STANDIN_SCRIPT": str(self.script_file),
            "VEX_STANDIN_LOG": str(self.log_file),
            "ZANTHE_CONF": str(settings_file),
        }

    def script(self, **sections):
        """Replaces the script as a whole."""
        new = self.script_file.with_suffix(".new")
        new.write_text(json.dumps(sections), encoding="utf-8")
        new.rename(self.script_file)

    def lines(self):
        return self.log_file.read_text(encoding="utf-8").splitlines() if self.log_file.exists() else []

    def calls(self):
        """The calls since this was asked last."""
        lines = self.lines()
        new, self.seen = lines[self.seen:], len(lines)
        return new

    def requests(self, still_open=0):
        """Of these the ones that ask the agent or change a session. The last of them
        come after the client's answer: waits until no more sessions are open than said."""
        def open_sessions():
            names = [line.split("(")[0] for line in self.lines()]
            return names.count("vexSessionOpen") - names.count("vexSessionClose")
        wait_until(lambda: open_sessions() == still_open, f"{still_open} sessions are open")
        return [line for line in self.calls() if line.startswith(self.REQUESTS)]

    def complaints(self):
        """What was used after its release, freed twice, or never freed."""
        return [line for line in self.lines() if line.startswith(("failure: ", "leak: "))]
