# SPDX-License-Identifier: Apache-2.0
"""What the agent shows of itself, and to whom: the service account's password, and over
what TLS. Controllers are scripted peers, through slapd, as a client sees it."""
import contextlib
import pathlib
import socket
import ssl
import subprocess
import time

import ldap
import pytest

from gateway import BUILD, SUFFIX, Slapd, failure, search, wait_until
from host import Slot, make_authority, make_certificate
from name_server import NameServer
from played_domain import PASSWORD, SERVICE, PeerDirectory, entries, person
from scripted_peer import ScriptedPeer
from test_peer import certificate, make_peer, peers, served, transport  # noqa: F401 (fixtures)
from world import World

LOOK_UP = "(&(objectClass=posixAccount)(uid=p0007))"
WHO = f"cn=p0001,ou=People,{SUFFIX}"
DELAYS = (5, 15, 35, 75, 155)  # seconds after the first refusal


def service_binds(made):
    return sum(request == ("bind", SERVICE) for peer in made for request in list(peer.requests))


def code(action):
    try:
        action()
        return 0
    except ldap.LDAPError as error:
        return failure(error)[0]


# ---- a password that is refused

@pytest.mark.parametrize("count", [1, 2, 3])
def test_a_password_that_is_refused_is_shown_ever_more_rarely(served, tmp_path, count):
    """Once, and once more to another controller: a domain counts, and locks the account.
    Nobody who binds is told that it was his. The right one is used at once."""
    log = tmp_path / "agent.log"
    connection, made, agent = served(count, log__file=log, log__level__vexagent=2)
    for peer in made:
        peer.passwords[SERVICE] = "Another.1"
    start = time.monotonic()
    assert [code(lambda: search(connection, LOOK_UP)) for _ in range(10)] == [52] * 10
    assert code(lambda: connection.simple_bind_s(WHO, "welcome")) == 52
    rounds = sum(time.monotonic() - start > delay - 0.2 for delay in DELAYS)
    assert min(count, 2) <= service_binds(made) <= min(count, 2) + rounds
    [line] = [line for line in log.read_text(encoding="utf-8").splitlines() if " error vexagent " in line]
    assert "ad.bind.password.file" in line and "locked" in line
    pathlib.Path(agent.settings["ad.bind.password.file"]).write_text("Another.1\n", encoding="utf-8")
    assert len(search(connection, LOOK_UP)) == 1
    assert "lets gateway@example.com" not in log.read_text(encoding="utf-8"), "nobody wants to know"


def test_many_at_once_show_one_password_that_is_refused(served):
    connection, [peer], agent = served(agent__threads=8)
    peer.passwords[SERVICE] = "Another.1"
    start = time.monotonic()
    requests = [connection.search_ext(SUFFIX, ldap.SCOPE_SUBTREE, f"(&(objectClass=posixAccount)(uid=p000{number}))")
                for number in range(8)]
    for request in requests:
        assert code(lambda: connection.result(request)) == 52
    assert service_binds([peer]) <= 1 + sum(time.monotonic() - start > delay - 0.2 for delay in DELAYS)


# ---- the file that it is in

@pytest.mark.parametrize("mode", [0o644, 0o640, 0o604])
def test_a_password_that_others_can_read_is_refused_at_the_start(certificate, transport, mode):
    world = World(PeerDirectory(certificate, transport, []))
    try:
        agent = world.agent(ad__servers="127.0.0.1:1")
        pathlib.Path(agent.settings["ad.bind.password.file"]).chmod(mode)
        status, said = agent.refused()
        assert (status, said) == (1, f"vexagent: {agent.settings['ad.bind.password.file']}: "
                                     "is not a file of the agent's own with mode 0600\n")
    finally:
        world.close()
        world.remove()


def test_a_password_that_others_can_read_by_now_is_not_used(served):
    connection, [peer], agent = served()
    assert len(search(connection, LOOK_UP)) == 1
    file = pathlib.Path(agent.settings["ad.bind.password.file"])
    file.chmod(0o644)
    peer.drop()
    before = service_binds([peer])
    assert code(lambda: search(connection, LOOK_UP)) == 52
    assert service_binds([peer]) == before
    file.chmod(0o600)
    wait_until(lambda: code(lambda: search(connection, LOOK_UP)) == 0, "it is used again")


# ---- who DNS says is a controller

@pytest.mark.parametrize("target, shown", [("dc1.example.com", True), ("DC.Site.Example.Com", True), ("example.com", True),
                                           ("dc.attacker.net", False), ("dc1.example.com.attacker.net", False),
                                           ("dcexample.com", False)])
def test_a_host_that_dns_names_lies_below_the_domain(tmp_path, transport, target, shown):
    """Any other may have a certificate of its name, and is nobody's controller."""
    with contextlib.ExitStack() as stack:
        make_authority(tmp_path)
        make_certificate(tmp_path, [f"DNS:{target.lower()}"], tmp_path / "cert.pem", tmp_path / "key.pem")
        near, other = stack.enter_context(contextlib.closing(Slot())).addresses
        files = (tmp_path / "cert.pem", tmp_path / "key.pem")
        peer = stack.enter_context(ScriptedPeer(entries([person("p0007", "p0007", 7)]), (near, 636 if transport == "ldaps" else 0),
                                                files, transport, {SERVICE: PASSWORD}))
        stack.enter_context(NameServer(other, {"_ldap._tcp.dc._msdcs.example.com": (target, peer.port)}, {target.lower(): near}))
        world = World(PeerDirectory(tmp_path, transport, [peer]))
        stack.callback(world.remove)
        stack.callback(world.close)
        log = tmp_path / "agent.log"
        agent = world.agent(ad__servers="", ad__timeout=4, log__file=log, log__level__vexagent=2)
        resolv = tmp_path / "resolv.conf"
        resolv.write_text(f"nameserver {other}\noptions timeout:1 attempts:1\n", encoding="utf-8")
        agent.resolve_by(resolv)
        slapd = world.slapd(agent.start(), directives=Slapd.DIRECTIVES).start()
        connection = slapd.connect()
        if shown:
            assert len(search(connection, LOOK_UP)) == 1
            assert service_binds([peer]) == 1
            return
        assert [code(lambda: search(connection, LOOK_UP)) for _ in range(3)] == [52] * 3
        assert peer.requests == peer.connections == []
        assert log.read_text(encoding="utf-8").count(f"DNS names {target} for example.com") == 1


# ---- over which TLS

VERSIONS = {"1.0": ssl.TLSVersion.TLSv1, "1.1": ssl.TLSVersion.TLSv1_1, "1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


def speaks_only(context, version):
    """What is old is allowed to this context alone."""
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = context.maximum_version = VERSIONS[version]


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion")
@pytest.mark.parametrize("version", VERSIONS)
def test_a_controller_with_an_old_tls_is_not_shown_the_password(served, transport, version):
    connection, [peer], _ = served(ad__timeout=4)
    speaks_only(peer.context, version)
    modern = version in ("1.2", "1.3")
    assert code(lambda: search(connection, LOOK_UP)) == (0 if modern else 52)
    assert (service_binds([peer]) > 0) == modern


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion")
@pytest.mark.parametrize("version", VERSIONS)
def test_the_controller_of_that_test_speaks_it(certificate, version):
    """With a client that does, too: else the test above could not fail."""
    with ScriptedPeer({}, certificate=(certificate / "cert.pem", certificate / "key.pem"), transport="ldaps") as peer:
        speaks_only(peer.context, version)
        context = ssl.create_default_context(cafile=certificate / "authority.pem")
        speaks_only(context, version)
        with socket.create_connection((peer.address, peer.port)) as plain, \
                context.wrap_socket(plain, server_hostname="peer.example.com") as secured:
            assert secured.version() == f"TLSv{version}".removesuffix(".0")


# ---- what the check says of it

def test_the_check_says_what_is_open_and_what_slapd_wants(certificate, transport):
    with make_peer(certificate, transport) as peer:
        world = World(PeerDirectory(certificate, transport, [peer]))
        try:
            agent = world.agent()
            password = pathlib.Path(agent.settings["ad.bind.password.file"])
            good = check(agent)
            package = ldap.get_option(ldap.OPT_X_TLS_PACKAGE)
            line = {"GnuTLS": "TLSCipherSuite NORMAL:-VERS-TLS1.0:-VERS-TLS1.1", "OpenSSL": "TLSProtocolMin 3.3"}[package]
            assert f"ok: TLS comes from {package}; in slapd.conf, TLS before version 1.2 is refused by: {line}\n" in good
            assert f"ok: a password for {SERVICE} is in {password}\n" in good and "ok: the domain lets the agent in\n" in good
            password.chmod(0o644)
            bad = check(agent)
            assert f"wrong: {password}: is not a file of the agent's own with mode 0600\n   do: put" in bad
            assert "install -o vexagent -m 400" in bad and SERVICE not in bad.partition("wrong: ")[0]
        finally:
            world.close()
            world.remove()


def check(agent):
    return subprocess.run([BUILD / "agent/vexagent", "--config", agent.settings_file, "--check"], capture_output=True, text=True,
                          timeout=60).stdout
