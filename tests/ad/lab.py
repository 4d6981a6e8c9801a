# SPDX-License-Identifier: Apache-2.0
"""A real Active Directory domain for the tests: Samba domain controllers on loopback.

    with Lab("company") as lab:                # a running domain; gone at the end
        lab.agent_settings(), lab.environment  # what vexagent needs to serve it
        lab.administrator()                    # an LDAP connection that may do anything

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
import hashlib
import os
import pathlib
import shutil
import sys
import tarfile
import tempfile
import time

import ldap

from controller import Controller
from host import (ADMINISTRATOR, ADMINISTRATOR_PASSWORD, DNS_NAME, HERE, REALM, SECONDS, Slot, dns_answers, fill, krb5_conf,
                  make_authority, run, wait_until)

ROOT = HERE.parents[1]
IMAGES = ROOT / "build/ad-lab"
BASE = "DC=example,DC=com"
ZONE = f"CN=Global,CN=Zones,{BASE}"
MACHINE = "ZXHOST"
SERVICE, SERVICE_PASSWORD = "gateway", "Service.123"
IMAGE_DAYS = 7  # replication and passwords do not like to be much older

# What each image is made from: the image below it, and the step on top of that.
IMAGE_BASES = {"company": None, "states": "company", "pair": "states", "crowd": "company"}


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
        digest = hashlib.sha256(run(["dpkg-query", "-W", "samba", "samba-dsdb-modules"]).encode())
        for file in (ROOT / "examples/example.ldif", *(HERE / name for name in ("controller.py", "fill.py", "host.py", "lab.py", "samba_tool.py"))):
            digest.update(file.read_bytes())
        return IMAGES / f"{self.image}-{self.slot.number}-{digest.hexdigest()[:16]}.tar"

    def prepare(self):
        """Puts a stopped domain into the folder: the kept image, or a new one."""
        archive = self.archive()
        if not archive.exists() or time.time() - archive.stat().st_mtime > IMAGE_DAYS * 86400:
            self.make()
            self.keep(archive)
            return
        self.unpack(archive)

    def unpack(self, archive):
        with tarfile.open(archive) as tar:
            tar.extractall(self.folder)
        # Its settings name the folder that it was made in.
        old = (self.folder / "folder").read_text(encoding="utf-8")
        for settings in self.folder.glob("dc?/etc/smb.conf"):
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
        password = self.folder / "service.password"
        password.write_text(f"{SERVICE_PASSWORD}\n", encoding="utf-8")
        password.chmod(0o600)
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
        with contextlib.closing(Lab(base, self.slot)) as below:
            below.prepare()
            self.unpack(below.archive())
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

    def agent_settings(self, transport="gssapi"):
        """vexagent's settings for this domain: with the machine's account, or over TLS
        with a service account."""
        common = {
            "directory": "ad",
            "ad.servers": " ".join(controller.address for controller in self.controllers),
            "ad.transport": transport,
            "ad.tls.ca": self.authority,
            "domain.name": DNS_NAME,
            "zone.dn": ZONE,
        }
        if transport == "gssapi":
            return {**common, "ad.keytab": self.keytab, "ad.principal": f"{MACHINE}$@{REALM}"}
        return {**common, "ad.bind.name": f"{SERVICE}@{DNS_NAME}", "ad.bind.password.file": self.folder / "service.password"}

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

    def set_password(self, dn, password):
        self.administrator().modify_s(dn, [(ldap.MOD_REPLACE, "unicodePwd", f'"{password}"'.encode("utf-16-le"))])

    def modify(self, ldif):
        """Changes the directory under its users: LDIF with changetypes."""
        run(["ldapmodify", "-x", "-H", f"ldaps://{self.controllers[0].address}", "-D", f"{ADMINISTRATOR}@{REALM}",
             "-w", ADMINISTRATOR_PASSWORD], self.environment, ldif)


if __name__ == "__main__":
    # tests/ad/lab.py [IMAGE]: a domain to try things on, until Enter.
    with Lab(sys.argv[1] if len(sys.argv) > 1 else "company") as running:
        print(f"in {running.folder}, at {' '.join(running.addresses[:len(running.controllers)])}")
        print("\n".join(f"{name} = {value}" for name, value in running.agent_settings().items()))
        print(" ".join(f"{name}={value}" for name, value in running.environment.items()))
        with contextlib.suppress(EOFError, KeyboardInterrupt):
            input("Enter ends it. ")
