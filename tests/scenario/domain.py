# SPDX-License-Identifier: Apache-2.0
"""The domain of the scenario: two controllers that scripted peers play, each behind a
relay, and a name server that knows the relays' addresses."""
import contextlib

from host import DNS_NAME, Slot, make_authority, make_certificate
from company import REFUSED
from name_server import NameServer
from played_domain import PASSWORD, SERVICE, PeerDirectory
from relay import Relay
from scripted_peer import Conversation, ScriptedPeer

import ber

NAMES = ("dc1", "dc2")
PORTS = {"starttls": 389, "ldaps": 636}


class Certificates:
    """Of each controller the true one and the false ones, as files' (certificate, key)."""

    def __init__(self, folder):
        self.folder = folder
        make_authority(folder)
        make_authority(folder / "false")
        self.of = {name: {"true": self.make(folder, name, "true"), "another name": self.make(folder, "elsewhere", name),
                          "another authority": self.make(folder / "false", name, "false")} for name in NAMES}

    def make(self, authority, host, file):
        files = self.folder / f"{host}-{file}.pem", self.folder / f"{host}-{file}.key"
        make_certificate(authority, [f"DNS:{host}.{DNS_NAME}"], *files)
        return files


class Listener(Conversation):
    """Sees whether anybody gives a password to a controller of a false name."""

    def secure(self):
        false = self.peer.false
        super().secure()
        self.deceived = false and self.peer.false

    def bind(self, identifier, content):
        self.peer.betrayed += getattr(self, "deceived", False)
        super().bind(identifier, content)


class Controller(ScriptedPeer):
    """One that finds entries by an index, and may do something else than answer."""

    conversation = Listener
    INDEXED = (b"samaccountname", b"uid", b"uidnumber", b"gidnumber", b"member")

    def __init__(self, entries, address, transport, certificates, passwords):
        self.certificates, self.false, self.betrayed = certificates, False, 0
        self.by_value = {}
        for dn, entry in sorted(entries.items()):
            for name, values in entry.items():
                for value in values if name.lower().encode() in self.INDEXED else ():
                    self.by_value.setdefault((name.lower().encode(), str(value).lower().encode()), []).append((dn, entry))
        self.mischief = lambda: None
        super().__init__(entries, (address, PORTS[transport]), certificates["true"], transport, passwords)

    def candidates(self, filter):
        tag, content = filter
        for part, inner in ber.elements(content) if tag == 0xA0 else [filter]:
            if part == 0xA3:
                (_, name), (_, value) = ber.elements(inner)
                if name.lower() in self.INDEXED:
                    return self.by_value.get((name.lower(), value.lower()), [])
        return super().candidates(filter)

    def note(self, request):
        """In the long run they are too many to keep."""

    def take_fault(self, search):
        return self.mischief()

    def show(self, certificate):
        """From the next connection on: "true", or one of another name or authority."""
        self.context.load_cert_chain(*self.certificates[certificate])
        self.false = certificate != "true"


class PlayedDomain(PeerDirectory):
    """For a World. Agents find it by DNS."""

    def __init__(self, company, transport, certificates, folder):
        self.company = company
        self.stack = contextlib.ExitStack()
        outer, inner = (self.stack.enter_context(contextlib.closing(Slot())) for _ in range(2))
        passwords = {SERVICE: PASSWORD, **company.passwords()}
        peers = [self.stack.enter_context(Controller(company.entries(), address, transport, certificates.of[name], passwords))
                 for name, address in zip(NAMES, inner.addresses)]
        super().__init__(certificates.folder, transport, peers)
        self.relays = [self.stack.enter_context(Relay(address, peer.address, [peer.port]))
                       for address, peer in zip(outer.addresses, peers)]
        self.resolv = folder / "resolv.conf"
        self.resolv.write_text(f"nameserver {outer.addresses[0]}\noptions timeout:1 attempts:1\n", encoding="utf-8")
        self.earlier_questions, self.names = set(), None
        self.names_back()

    def names_back(self):
        services = {f"_ldap._tcp.dc._msdcs.{DNS_NAME}": [(f"{name}.{DNS_NAME}", PORTS[self.transport]) for name in NAMES]}
        hosts = {f"{name}.{DNS_NAME}": relay.address for name, relay in zip(NAMES, self.relays)}
        self.names = NameServer(self.relays[0].address, services, hosts)

    def questions(self):
        """The names that were asked for."""
        return self.earlier_questions | set(self.names.questions if self.names else ())

    def names_gone(self):
        self.earlier_questions = self.questions()
        self.names.close()
        self.names = None

    def settings(self, folder):
        settings = {**super().settings(folder), "ad.auth.cache": "true", "ad.auth.cache.file": folder / "logins"}
        del settings["ad.servers"]
        return settings

    def depart(self):
        """From now on the domain refuses the departed."""
        for peer in self.peers:
            peer.passwords.update({self.company.dn(uid).lower(): REFUSED for uid in self.company.departed})

    def close(self):
        self.names_gone()
        self.stack.close()
