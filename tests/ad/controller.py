# SPDX-License-Identifier: Apache-2.0
"""A Samba domain controller: what makes it, starts it, hangs it and stops it."""
import contextlib
import os
import shutil
import signal
import subprocess
import sys

from host import (ADMINISTRATOR, ADMINISTRATOR_PASSWORD, DNS_NAME, DOMAIN, DOMAIN_SID, HERE, REALM, SECONDS, die_with_parent,
                  dns_answers, fill, ldap_answers, make_certificate, run, tcp_answers, wait_until)

SERVICES = "rpc ldap cldap kdc drepl kcc dns"


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
        credentials = f"-U{ADMINISTRATOR}%{ADMINISTRATOR_PASSWORD}"
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

    def start(self, environment=None):
        """Returns when LDAP, Kerberos and DNS answer. Each connection has a process of
        its own, so that one slow search does not stop the others."""
        command = [*self.lab.resolving_by(self), "samba", "-s", self.folder / "etc/smb.conf", "-M", "standard", "-F",
                   "-l", self.folder / "log"]  # otherwise it opens one in /var/log before it reads its settings
        with open(self.folder / "log/stdout", "ab") as output:
            self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                            start_new_session=True, preexec_fn=die_with_parent,
                                            env={**os.environ, "TDB_NO_FSYNC": "1", **self.lab.environment,
                                                 **(environment or {})})
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
