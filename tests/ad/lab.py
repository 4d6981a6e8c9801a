"""A real Active Directory domain for the tests: Samba domain controllers on loopback.

    with Lab("company") as lab:              # a running domain; gone at the end
        lab.agent_settings, lab.environment  # what vexagent needs to serve it
        lab.administrator()                  # an LDAP connection that may do anything

A domain lives below one temporary folder. Nothing is written to /etc or /var: the
controllers' and the tests' Kerberos configuration is the folder's own, and name
servers are changed by a bind mount that only the controller sees. Every controller
has an address of its own and holds the usual ports there.

Images. What takes seconds is done once: a domain that was provisioned and filled is
kept as build/ad-lab/IMAGE-SLOT-HASH.tar, where the hash is of all that it was made
from. Unpacking it and starting takes about a second.

    company   the people, groups and netgroups of examples/example.ldif
    states    company, accounts in every state and large, nested and cyclic groups
    pair      states, and a second controller
    crowd     company and 10,000 more people in 500 groups, for the benchmark

Slots. Labs can run side by side on one host: each takes the first pair of addresses
that no other lab has.
"""
import contextlib
import ctypes
import hashlib
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tarfile
import tempfile
import time

import ldap

ROOT = pathlib.Path(__file__).resolve().parents[2]
HERE = pathlib.Path(__file__).resolve().parent
IMAGES = ROOT / "build/ad-lab"
REALM, DOMAIN, DNS_NAME = "EXAMPLE.COM", "EXAMPLE", "example.com"
BASE = "DC=example,DC=com"
ZONE = f"CN=Global,CN=Zones,{BASE}"
DOMAIN_SID = "S-1-5-21-3623811015-3361044348-30300820"  # as in the example
ADMINISTRATOR, ADMINISTRATOR_PASSWORD = "Administrator", "Passw0rd.Admin1"
MACHINE = "ZXHOST"
SLOTS = 16
FIRST_HOST = 61  # 127.0.0.61 and upwards
SECONDS = 60
IMAGE_DAYS = 7  # replication and passwords do not like to be much older
SERVICES = "rpc ldap cldap kdc drepl kcc dns"

# What each image is made from: the image below it, and the step on top of that.
IMAGE_BASES = {"company": None, "states": "company", "pair": "states", "crowd": "company"}


def wait_until(condition, what, seconds=SECONDS):
    """Polls until the condition gives something true, and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {seconds} seconds: {what}")
        time.sleep(0.02)


def run(command, env=None, text=None):
    """Runs a program to its end; its words come with a failure."""
    result = subprocess.run([str(word) for word in command], env={**os.environ, "TDB_NO_FSYNC": "1", **(env or {})},
                            input=text, capture_output=True, text=True, timeout=300)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with status {result.returncode}:\n{result.stdout[-3000:]}{result.stderr[-3000:]}")
    return result.stdout


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


# ---- addresses

class Slot:
    """Two loopback addresses that are this lab's alone. The claim is a socket in the
    abstract namespace: it ends with the process, whatever ends that."""

    def __init__(self):
        for number in range(SLOTS):
            claim = socket.socket(socket.AF_UNIX)
            addresses = [f"127.0.0.{FIRST_HOST + 2 * number + which}" for which in (0, 1)]
            with contextlib.suppress(OSError):
                claim.bind(f"\0zx-ad-lab-{number}")
                if all(map(self._free, addresses)):
                    self.number, self.addresses, self._claim = number, addresses, claim
                    return
            claim.close()
        raise RuntimeError("every address for a test domain is taken")

    @staticmethod
    def _free(address):
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            probe.bind((address, 389))
            return True
        return False

    def close(self):
        self._claim.close()


# ---- answers of the services

def dns_question(name):
    """An SRV question, as a packet."""
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack(">6H", 4711, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack(">2H", 33, 1)


def dns_answers(address, name):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.settimeout(1)
        try:
            probe.sendto(dns_question(name), (address, 53))
            answer = probe.recv(4096)
        except OSError:
            return False
    return len(answer) > 12 and struct.unpack(">H", answer[6:8])[0] > 0


def tcp_answers(address, port):
    with socket.socket() as probe:
        probe.settimeout(1)
        return probe.connect_ex((address, port)) == 0


def ldap_answers(address):
    connection = ldap.initialize(f"ldap://{address}")
    connection.set_option(ldap.OPT_NETWORK_TIMEOUT, 1)
    connection.set_option(ldap.OPT_TIMEOUT, 1)
    try:
        [(_, root)] = connection.search_s("", ldap.SCOPE_BASE, "(objectClass=*)", ["isSynchronized"])
        return root.get("isSynchronized") == [b"TRUE"]
    except (ldap.LDAPError, ValueError):
        return False
    finally:
        connection.unbind_ext()


# ---- files

def krb5_conf(addresses, folder):
    kdcs = "".join(f"    kdc = {address}\n    kpasswd_server = {address}\n" for address in addresses)
    return f"""[libdefaults]
  default_realm = {REALM}
  dns_lookup_realm = false
  dns_lookup_kdc = false
  rdns = false
  dns_canonicalize_hostname = false
  udp_preference_limit = 0
  default_ccache_name = FILE:{folder}/krb5cc_%{{uid}}
[realms]
  {REALM} = {{
{kdcs}    admin_server = {addresses[0]}
  }}
[domain_realm]
  .{DNS_NAME} = {REALM}
  {DNS_NAME} = {REALM}
"""


def make_authority(folder):
    folder.mkdir(parents=True, exist_ok=True)
    run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "3650", "-subj", "/CN=authority of the tests",
         "-keyout", folder / "authority-key.pem", "-out", folder / "authority.pem"])


def make_certificate(authority, names, certificate, key):
    """A server's certificate for names such as DNS:dc1.example.com or IP:127.0.0.61."""
    request, extensions = certificate.with_suffix(".request"), certificate.with_suffix(".extensions")
    extensions.write_text(f"subjectAltName={','.join(names)}\nextendedKeyUsage=serverAuth\n", encoding="utf-8")
    run(["openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={names[0].partition(':')[2]}", "-keyout", key,
         "-out", request])
    run(["openssl", "x509", "-req", "-in", request, "-CA", authority / "authority.pem", "-CAkey", authority / "authority-key.pem",
         "-CAcreateserial", "-days", "3650", "-extfile", extensions, "-out", certificate])
    key.chmod(0o600)
    request.unlink()
    extensions.unlink()


def fill(step, *words):
    """One step of fill.py, in a process of its own: Samba's database library keeps
    locks and threads of its own."""
    return run([sys.executable, HERE / "fill.py", step, *words])


# ---- controllers

class Controller:
    """One domain controller: a folder, an address, and the processes while it runs."""

    def __init__(self, lab, number):
        self.lab, self.name = lab, f"dc{number + 1}"
        self.address = lab.addresses[number]
        self.folder = lab.folder / self.name
        self.host = f"{self.name}.{DNS_NAME}"
        self.process = None

    @property
    def database(self):
        return self.folder / "private/sam.ldb"

    def options(self):
        """The settings that keep it inside its folder and on its address."""
        lines = [f"netbios name = {self.name}", f"interfaces = {self.address}/8", "bind interfaces only = yes",
                 "ldb:nosync = true", "dns forwarder =", "disable spoolss = yes", "load printers = no",
                 "printcap name = /dev/null", f"server services = {SERVICES}", "kccsrv:periodic_startup_interval = 1",
                 "kccsrv:periodic_interval = 10", "dreplsrv:periodic_startup_interval = 2",
                 "dreplsrv:periodic_interval = 5", "dreplsrv:notify_interval = 1",
                 f"log file = {self.folder}/log/log.samba"]
        places = {"pid directory": "run", "ncalrpc dir": "ncalrpc", "winbindd socket directory": "winbindd",
                  "ntp signd socket directory": "ntp_signd", "usershare path": "usershares"}
        lines += [f"{name} = {self.folder}/{place}" for name, place in places.items()]
        return [f"--option={line}" for line in lines]

    def make_folders(self):
        for place in ("run", "ncalrpc", "winbindd", "ntp_signd", "log", "usershares"):
            (self.folder / place).mkdir(parents=True, exist_ok=True)
        (self.folder / "ntp_signd").chmod(0o750)
        # Empty, so that the host's own smb.conf has no say.
        (self.folder / "empty.conf").write_text("[global]\n", encoding="utf-8")

    def provision(self):
        self.make_folders()
        run([sys.executable, HERE / "samba_tool.py", "domain", "provision", "-s", self.folder / "empty.conf",
             f"--targetdir={self.folder}", f"--realm={REALM}", f"--domain={DOMAIN}", "--server-role=dc",
             f"--host-name={self.name}", f"--host-ip={self.address}", "--use-rfc2307", "--dns-backend=SAMBA_INTERNAL",
             f"--adminpass={ADMINISTRATOR_PASSWORD}", f"--domain-sid={DOMAIN_SID}",
             "--next-rid=5000",  # below are the example's own
             *self.options()])
        self.certify()

    def join(self, first):
        """Becomes a further controller of the running first one's domain."""
        self.make_folders()
        credentials = f"-UAdministrator%{ADMINISTRATOR_PASSWORD}"
        run([*self.lab.resolving_by(first), sys.executable, HERE / "samba_tool.py", "domain", "join", DNS_NAME, "DC", credentials,
             f"--realm={REALM}", "-W", DOMAIN, f"--server={first.host}", "-s", self.folder / "empty.conf",
             f"--targetdir={self.folder}", "--dns-backend=SAMBA_INTERNAL", *self.options()], self.lab.environment)
        self.certify()
        fill("names", self.folder, self.name, self.address)
        # The join leaves loopback addresses out of the DNS.
        run([*self.lab.resolving_by(first), "samba_dnsupdate", "-s", self.folder / "etc/smb.conf", "--all-names",
             "--use-samba-tool", f"--current-ip={self.address}", f"--rpc-server-ip={first.address}"], self.lab.environment)

    def certify(self):
        tls = self.folder / "private/tls"
        tls.mkdir(parents=True, exist_ok=True)
        shutil.copy(self.lab.authority, tls / "ca.pem")
        make_certificate(self.lab.tls, [f"DNS:{self.host}", f"DNS:{DNS_NAME}", f"IP:{self.address}"], tls / "cert.pem",
                         tls / "key.pem")

    def start(self, model="standard"):
        """Returns when LDAP, Kerberos and DNS answer. The model "standard" has a
        process for each connection, as if it were several cores' controller."""
        command = [*self.lab.resolving_by(self), "samba", "-s", self.folder / "etc/smb.conf", "-M", model, "-F"]
        with open(self.folder / "log/stdout", "ab") as output:
            self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                            start_new_session=True, preexec_fn=die_with_parent,
                                            env={**os.environ, "TDB_NO_FSYNC": "1", **self.lab.environment})
        wait_until(self.answers, f"{self.name} answers")
        return self

    def answers(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"samba ended with status {self.process.returncode}:\n{self.last_words()}")
        return (ldap_answers(self.address) and tcp_answers(self.address, 88) and tcp_answers(self.address, 464)
                and tcp_answers(self.address, 636) and dns_answers(self.address, f"_ldap._tcp.{DNS_NAME}"))

    def last_words(self):
        files = [self.folder / "log/stdout", self.folder / "log/log.samba"]
        return "\n".join(file.read_text(errors="replace")[-2000:] for file in files if file.exists())

    def signal(self, number):
        """To all of its processes, which are a session of their own."""
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, number)

    def hang(self):
        """From now on it takes connections, and answers nothing."""
        self.signal(signal.SIGSTOP)

    def resume(self):
        self.signal(signal.SIGCONT)

    def members(self):
        """Whether any process of it is left."""
        try:
            os.killpg(self.process.pid, 0)
            return True
        except ProcessLookupError:
            return False

    def stop(self):
        """In order: what it holds is on disk."""
        if self.process is None:
            return
        self.resume()
        self.process.terminate()
        self.process.wait(SECONDS)
        with contextlib.suppress(TimeoutError):
            wait_until(lambda: not self.members(), f"{self.name} ends", 10)
        self.kill()

    def kill(self):
        if self.process is None:
            return
        self.signal(signal.SIGKILL)
        self.process.wait(SECONDS)
        wait_until(lambda: not self.members(), f"{self.name} is gone")
        self.process = None


# ---- the domain

class Lab:
    """A running domain. Slots, folders and processes are its own until close()."""

    def __init__(self, image, slot=None):
        self.image, self.slot = image, slot or Slot()
        self.owns_slot = slot is None
        self.addresses = self.slot.addresses
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zx-ad-"))
        self.tls = self.folder / "tls"
        self.authority = self.tls / "authority.pem"
        self.keytab = self.folder / "machine.keytab"
        self.controllers = [Controller(self, number) for number in range(2 if image == "pair" else 1)]
        self.environment = {"KRB5_CONFIG": str(self.folder / "krb5.conf"), "LDAPTLS_CACERT": str(self.authority)}
        self.connections = []

    def __enter__(self):
        try:
            self.prepare()
            for controller in self.controllers:
                controller.start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.disconnect()
        for controller in self.controllers:
            controller.kill()
        shutil.rmtree(self.folder, ignore_errors=True)
        if self.owns_slot:
            self.slot.close()

    # -- images

    def archive(self):
        """The file that keeps this image."""
        digest = hashlib.sha256(run(["samba", "--version"]).encode())
        for file in (ROOT / "examples/example.ldif", *sorted(HERE / name for name in ("lab.py", "fill.py", "samba_tool.py"))):
            digest.update(file.read_bytes())
        return IMAGES / f"{self.image}-{self.slot.number}-{digest.hexdigest()[:16]}.tar"

    def prepare(self):
        """Puts a stopped domain into the folder: the kept image, or a new one."""
        archive = self.archive()
        if not archive.exists() or time.time() - archive.stat().st_mtime > IMAGE_DAYS * 86400:
            self.make()
            self.keep(archive)
            return
        with tarfile.open(archive) as tar:
            tar.extractall(self.folder)
        old = (self.folder / "folder").read_text(encoding="utf-8")
        for controller in self.controllers:
            settings = controller.folder / "etc/smb.conf"
            settings.write_text(settings.read_text(encoding="utf-8").replace(old, str(self.folder)), encoding="utf-8")
        self.write_files()

    def keep(self, archive):
        IMAGES.mkdir(parents=True, exist_ok=True)
        for stale in IMAGES.glob(f"{self.image}-{self.slot.number}-*.tar"):
            stale.unlink()
        new = archive.with_suffix(f".{os.getpid()}")
        with tarfile.open(new, "w") as tar:
            tar.add(self.folder, arcname=".", filter=lambda member: member if member.isdir() or member.isfile() else None)
        new.rename(archive)

    def write_files(self):
        (self.folder / "folder").write_text(str(self.folder), encoding="utf-8")
        (self.folder / "krb5.conf").write_text(
            krb5_conf([controller.address for controller in self.controllers], self.folder), encoding="utf-8")
        for controller in self.controllers:
            (self.folder / f"{controller.name}.resolv.conf").write_text(f"nameserver {controller.address}\n", encoding="utf-8")

    def make(self):
        """Makes the image in the folder; nothing runs at the end."""
        base = IMAGE_BASES[self.image]
        if base is None:
            make_authority(self.tls)
            self.write_files()
            self.controllers[0].provision()
            fill("company", self.controllers[0].folder, self.controllers[0].name, self.controllers[0].address,
                 ROOT / "examples/example.ldif")
            with self.running():
                self.join_machine()
            return
        below = Lab(base, self.slot)
        try:
            below.prepare()
            shutil.rmtree(self.folder)
            shutil.copytree(below.folder, self.folder)
        finally:
            below.close()
        settings = self.controllers[0].folder / "etc/smb.conf"
        settings.write_text(settings.read_text(encoding="utf-8").replace(str(below.folder), str(self.folder)), encoding="utf-8")
        self.write_files()
        if self.image == "pair":
            self.join_second()
        else:
            fill(self.image, self.controllers[0].folder)

    @contextlib.contextmanager
    def running(self):
        self.controllers[0].start()
        try:
            yield
        finally:
            self.controllers[0].stop()

    def join_machine(self):
        """As an administrator does it; the password goes through a pipe."""
        run(["adcli", "join", f"--domain={DNS_NAME}", f"--domain-realm={REALM}",
             f"--domain-controller={self.controllers[0].address}", f"--host-fqdn={MACHINE.lower()}.{DNS_NAME}",
             f"--computer-name={MACHINE}", f"--host-keytab={self.keytab}", f"--login-user={ADMINISTRATOR}",
             "--stdin-password"], self.environment, ADMINISTRATOR_PASSWORD)

    def join_second(self):
        first, second = self.controllers
        # The KDC of the one that is not there yet would cost the join its patience.
        (self.folder / "krb5.conf").write_text(krb5_conf([first.address], self.folder), encoding="utf-8")
        with self.running():
            second.join(first)
            # Both ways, so that what either is told later reaches the other.
            second.start()
            try:
                wait_until(lambda: self.replicated(first, second), "the controllers replicate")
            finally:
                second.stop()
        self.write_files()

    def replicated(self, first, second):
        """Whether the second one's names are known to the first, and the people to both."""
        return dns_answers(first.address, f"_ldap._tcp.{DNS_NAME}") and all(
            len(self.find(controller, f"(sAMAccountName={second.name}$)", ["servicePrincipalName"])) == 1
            for controller in (first, second))

    def resolving_by(self, controller):
        """The beginning of a command whose name server is that controller."""
        return ["unshare", "--mount", "--propagation", "private", "--", "sh", "-c",
                'mount --bind "$0" /etc/resolv.conf && exec "$@"', self.folder / f"{controller.name}.resolv.conf"]

    # -- access

    @property
    def agent_settings(self):
        """vexagent's settings for this domain, with the machine's account."""
        return {
            "directory": "ad",
            "ad.servers": " ".join(controller.address for controller in self.controllers),
            "ad.keytab": self.keytab,
            "ad.principal": f"{MACHINE}$@{REALM}",
            "ad.tls.ca": self.authority,
            "domain.name": DNS_NAME,
            "zone.dn": ZONE,
        }

    def connect(self, who, password, controller=None):
        """A connection over TLS with a simple bind."""
        connection = ldap.initialize(f"ldaps://{(controller or self.controllers[0]).address}")
        connection.set_option(ldap.OPT_REFERRALS, 0)
        connection.set_option(ldap.OPT_TIMEOUT, SECONDS)
        connection.set_option(ldap.OPT_X_TLS_CACERTFILE, str(self.authority))
        connection.set_option(ldap.OPT_X_TLS_REQUIRE_CERT, ldap.OPT_X_TLS_DEMAND)
        connection.set_option(ldap.OPT_X_TLS_NEWCTX, 0)
        self.connections.append(connection)
        connection.simple_bind_s(who, password)
        return connection

    def administrator(self, controller=None):
        return self.connect(f"{ADMINISTRATOR}@{REALM}", ADMINISTRATOR_PASSWORD, controller)

    def disconnect(self):
        for connection in self.connections:
            with contextlib.suppress(ldap.LDAPError, AttributeError):
                connection.unbind_ext()
        self.connections.clear()

    def find(self, controller, filter, attributes):
        """The entries that a controller has, as [(DN, {attribute: [bytes]})]."""
        found = self.administrator(controller).search_s(BASE, ldap.SCOPE_SUBTREE, filter, attributes)
        return [(dn, entry) for dn, entry in found if dn]

    def value(self, name, attribute, controller=None):
        """An account's attribute as text; None when it has none."""
        [(_, entry)] = self.find(controller, f"(sAMAccountName={name})", [attribute])
        return entry[attribute][0].decode() if attribute in entry else None

    def set_password(self, name, password):
        [(dn, _)] = self.find(None, f"(sAMAccountName={name})", ["cn"])
        self.administrator().modify_s(dn, [(ldap.MOD_REPLACE, "unicodePwd", f'"{password}"'.encode("utf-16-le"))])

    def modify(self, ldif):
        """Changes the directory under its users: LDIF with changetypes."""
        run(["ldapmodify", "-x", "-H", f"ldaps://{self.controllers[0].address}", "-D", f"{ADMINISTRATOR}@{REALM}",
             "-w", ADMINISTRATOR_PASSWORD], {**self.environment, "LDAPNOINIT": ""}, ldif)


if __name__ == "__main__":
    # tests/ad/lab.py [IMAGE]: a domain to try things on, until Enter.
    with Lab(sys.argv[1] if len(sys.argv) > 1 else "company") as running:
        print(f"in {running.folder}, at {' '.join(running.addresses[:len(running.controllers)])}")
        print("\n".join(f"{name} = {value}" for name, value in running.agent_settings.items()))
        print(" ".join(f"{name}={value}" for name, value in running.environment.items()))
        with contextlib.suppress(EOFError, KeyboardInterrupt):
            input("Enter ends it. ")
