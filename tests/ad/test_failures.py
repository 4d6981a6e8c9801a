# SPDX-License-Identifier: Apache-2.0
"""Controllers stop, hang and come back; keytabs, clocks and name services are wrong. What
clients see, and after how long: a table of it ends the run.

The domain has two controllers. The agent is told of both, in this order.
"""
import contextlib
import signal
import subprocess
import threading
import time

import ldap
import psutil
import pytest

from directories import Domain
from gateway import SANITIZER, SUFFIX, Slapd, search, wait_until
from host import Clock, busy_seconds
from lab import Lab
from name_server import NameServer
from observed import note, told
from world import make_world

ANN = f"cn=ann,ou=Engineering,ou=People,{SUFFIX}"
BEN = f"cn=ben,ou=Engineering,ou=People,{SUFFIX}"
FILTER = "(&(objectClass=posixAccount)(uid=ann))"
MANY = "(&(objectClass=posixAccount)(uid=m0*))"  # a thousand people, in several batches
TIMEOUT = 4  # seconds that the agent has for one request
AT_ONCE = 3.0 if SANITIZER.kind else 1.0  # to another controller from one that is dead
SLACK = 1.5  # of a loaded machine, beside a deadline


# ---- the servers

@pytest.fixture(scope="module")
def pair(states_domain):
    states_domain.close()  # it starts again when it is wanted
    domain = Domain("pair")
    yield domain
    domain.close()


@pytest.fixture
def controllers(pair):
    """Both at work, before and after."""
    def at_work():
        for controller in pair.lab.controllers:
            if controller.process is None:
                controller.start()
            controller.resume()
        return pair.lab.controllers
    yield at_work()
    at_work()


@pytest.fixture
def world(request, pair, controllers):
    yield from make_world(request, pair)


def start(world, *directives, **settings):
    agent = world.agent(**{"ad__timeout": TIMEOUT, **settings}).start()
    slapd = world.slapd(agent, directives=(*Slapd.DIRECTIVES, *directives)).start()
    return agent, slapd


def look_up(connection):
    return search(connection, FILTER, ["uid", "uidNumber"])


def warm(slapd):
    """A connection over which both a look-up and a bind have been answered."""
    connection = slapd.connect()
    assert len(look_up(connection)) == 1
    slapd.close_connection(slapd.connect(BEN, "welcome"))
    return connection


# ---- one of two

def test_the_first_is_stopped(world, controllers):
    _, slapd = start(world)
    connection = warm(slapd)
    controllers[0].kill()
    code, text, seconds = told("first of two dead: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE
    code, _, seconds = told("first of two dead: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < AT_ONCE
    code, _, seconds = told("first of two dead: next look-up", lambda: look_up(connection))
    assert code == 0 and seconds < AT_ONCE


def test_the_first_hangs(world, controllers):
    _, slapd = start(world)
    connection = warm(slapd)
    controllers[0].hang()
    code, text, seconds = told("first of two hung: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < TIMEOUT + SLACK
    code, _, seconds = told("first of two hung: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < TIMEOUT + SLACK
    code, _, seconds = told("first of two hung: next look-up", lambda: look_up(connection))
    assert code == 0 and seconds < AT_ONCE


def test_the_first_hangs_before_a_bind(world, controllers):
    _, slapd = start(world)
    warm(slapd)
    controllers[0].hang()
    code, _, seconds = told("first of two hung: bind first", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < TIMEOUT + SLACK


def test_the_first_is_gone_when_the_agent_starts(world, controllers):
    controllers[0].kill()
    _, slapd = start(world)
    code, text, seconds = told("first of two dead at the start: look-up", lambda: look_up(slapd.connect()))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE + SLACK


def test_it_is_used_again_when_it_is_back(world, controllers):
    """The second one goes then: what answers is the first."""
    _, slapd = start(world)
    connection = warm(slapd)
    controllers[0].kill()
    assert len(look_up(connection)) == 1
    controllers[0].start()
    controllers[1].kill()
    code, text, seconds = told("first back, second dead: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < TIMEOUT + SLACK
    code, _, seconds = told("first back, second dead: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < TIMEOUT + SLACK


# ---- both

def test_both_are_stopped_and_come_back(world, controllers):
    _, slapd = start(world, "dirgate.cache.credential.expires 3600")
    connection = warm(slapd)
    kept = slapd.connect(ANN, "welcome")
    for controller in controllers:
        controller.kill()
    code, _, seconds = told("both dead: look-up", lambda: look_up(connection))
    assert code == 52 and seconds < TIMEOUT + SLACK
    code, _, seconds = told("both dead: bind", lambda: slapd.connect(BEN, "welcome"))
    assert code == 52 and seconds < TIMEOUT + SLACK
    code, _, seconds = told("both dead: wrong password", lambda: slapd.connect(BEN, "wrong"))
    assert code == 52 and seconds < TIMEOUT + SLACK
    code, _, seconds = told("both dead: bind that the gateway remembers", lambda: kept.simple_bind_s(ANN, "welcome"))
    assert code == 0 and seconds < AT_ONCE
    controllers[0].start()
    back = time.monotonic()
    wait_until(lambda: look_up_or_nothing(connection), "the domain is asked again")
    note("both dead, one back: answers again", 0, "1 found", time.monotonic() - back)


def test_the_agent_remembers_passwords_where_it_may(world, controllers):
    """slapd forgets at once here: its last connection for a name is closed."""
    file = world.folder / "auth.cache"
    _, slapd = start(world, "vex-auth-prefer-cache true", ad__auth__cache="true", ad__auth__cache__file=file)
    slapd.close_connection(slapd.connect(ANN, "welcome"))
    assert b"welcome" not in file.read_bytes() and file.stat().st_mode & 0o077 == 0
    for controller in controllers:
        controller.kill()
    code, _, seconds = told("both dead, agent may remember: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < TIMEOUT + SLACK
    slapd.close_connection(slapd.connections[-1])
    code, _, _ = told("both dead, agent may remember: wrong password", lambda: slapd.connect(ANN, "wrong"))
    assert code == 49
    code, _, _ = told("both dead, agent may remember: somebody new", lambda: slapd.connect(BEN, "welcome"))
    assert code == 52


def look_up_or_nothing(connection):
    with contextlib.suppress(ldap.UNAVAILABLE):
        return look_up(connection)
    return None


def test_both_hang_and_go_on(world, controllers):
    agent, slapd = start(world)
    connection = warm(slapd)
    for controller in controllers:
        controller.hang()
    code, _, seconds = told("both hung: look-up", lambda: look_up(connection))
    assert code == 52 and seconds < TIMEOUT + SLACK
    code, _, seconds = told("both hung: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 52 and seconds < TIMEOUT + SLACK
    assert busy_seconds(agent.process.pid, 1.0) < 0.5, "it waits, and does not spin"
    for controller in controllers:
        controller.resume()
    wait_until(lambda: look_up_or_nothing(connection), "the domain is asked again")


@pytest.mark.parametrize("transport", ["starttls", "ldaps"])
def test_both_hang_under_tls(world, controllers, transport):
    """libldap's handshake with a peer that is hung knows no deadline of its own."""
    settings = {name.replace(".", "__"): value for name, value in world.directory.lab.agent_settings(transport).items()}
    agent, slapd = start(world, **settings)
    for controller in controllers:
        controller.hang()
    code, _, seconds = told(f"both hung from the start ({transport}): look-up", lambda: look_up(slapd.connect()))
    assert code == 52 and seconds < TIMEOUT + SLACK
    assert busy_seconds(agent.process.pid, 1.0) < 0.5, "it waits, and does not spin"
    for controller in controllers:
        controller.resume()
    wait_until(lambda: look_up_or_nothing(slapd.connect()), "the domain is asked again")


def test_the_only_one_restarts_between_two_look_ups(world, controllers):
    _, slapd = start(world, ad__servers=controllers[0].address)
    connection = warm(slapd)
    controllers[0].kill()
    controllers[0].start()
    code, text, seconds = told("the only one restarted: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE + SLACK


def test_no_search_ends_well_without_its_entries(world, controllers):
    """Clients enumerate while controllers die, hang and come back, one at a time and both."""
    _, slapd = start(world, ad__timeout=8)
    everybody = len(search(slapd.connect(), MANY, ["uid"]))
    assert everybody == 1000
    begun = time.monotonic()
    stop, wrong, outcomes, lock = threading.Event(), [], {"whole": 0, "failed": 0}, threading.Lock()

    def enumerate_people():
        connection = slapd.connect()
        while not stop.is_set():
            try:
                found = connection.search_s(SUFFIX, ldap.SCOPE_SUBTREE, MANY, ["uid"])
                kind = "whole" if len(found) == everybody else f"success with {len(found)} of {everybody} entries"
            except (ldap.UNAVAILABLE, ldap.TIMELIMIT_EXCEEDED):
                kind = "failed"
            except ldap.LDAPError as error:
                kind = repr(error)
            with lock:
                outcomes[kind] = outcomes.get(kind, 0) + 1
                if kind not in ("whole", "failed"):
                    wrong.append(kind)

    def more(kind, count=2):
        before = outcomes.get(kind, 0)
        wait_until(lambda: outcomes.get(kind, 0) >= before + count or wrong, f"searches are {kind}", 60)

    threads = [threading.Thread(target=enumerate_people) for _ in range(2)]
    for thread in threads:
        thread.start()
    try:
        more("whole")
        controllers[0].kill()
        more("whole", 3)
        controllers[0].start()
        controllers[1].hang()
        more("whole", 3)
        controllers[0].kill()
        more("failed")
        controllers[1].resume()
        controllers[0].start()
        more("whole", 3)
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    note("enumerations while controllers come and go", 0, str(outcomes), time.monotonic() - begun)
    assert wrong == []


# ---- keytab, clock, tickets

def keytab_with(folder, *keys):
    """A keytab of the machine's name with other keys than the domain's."""
    file = folder / "other.keytab"
    lines = [f"addent -password -p {principal} -k 1 -e aes256-cts-hmac-sha1-96" for principal in keys]
    script = "".join(f"{line}\nnot the machine's password\n" for line in lines) + f"wkt {file}\nquit\n"
    subprocess.run(["ktutil"], input=script, text=True, check=True, stdout=subprocess.DEVNULL)
    return file


def test_a_keytab_with_another_key(world, controllers):
    log, keytab = world.folder / "agent.log", keytab_with(world.folder, "ZXHOST$@EXAMPLE.COM")
    _, slapd = start(world, ad__servers=controllers[0].address, ad__keytab=keytab, log__file=log)
    code, text, seconds = told("keytab with a wrong key: look-up", lambda: look_up(slapd.connect()))
    assert code not in (0, 32) and seconds < TIMEOUT + SLACK
    assert str(keytab) not in text and controllers[0].address not in text, "that is nothing for clients"
    assert f"keytab {keytab}" in log.read_text(encoding="utf-8")
    code, text, seconds = told("keytab with a wrong key: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code not in (0, 49) and seconds < TIMEOUT + SLACK


def test_a_keytab_that_is_not_there(world):
    agent = world.agent(ad__keytab=world.folder / "missing.keytab")
    agent.launch()
    slapd = world.slapd(agent).start()
    code, text, seconds = told("no keytab: look-up", lambda: look_up(slapd.connect()))
    assert code not in (0, 32) and seconds < TIMEOUT + SLACK


def test_a_principal_that_the_keytab_does_not_hold(world, controllers):
    _, slapd = start(world, ad__servers=controllers[0].address, ad__principal="ELSEWHERE$@EXAMPLE.COM")
    code, text, seconds = told("principal not in the keytab: look-up", lambda: look_up(slapd.connect()))
    assert code not in (0, 32) and seconds < TIMEOUT + SLACK


def test_a_keytab_that_is_put_right(world, pair):
    file = world.folder / "machine.keytab"
    file.write_bytes(keytab_with(world.folder, "ZXHOST$@EXAMPLE.COM").read_bytes())
    _, slapd = start(world, ad__keytab=file)
    connection = slapd.connect()
    assert look_up_or_error(connection) is None
    file.write_bytes(pair.lab.keytab.read_bytes())
    wait_until(lambda: look_up_or_error(connection), "the new keytab is used")


def look_up_or_error(connection):
    with contextlib.suppress(ldap.LDAPError):
        return look_up(connection)
    return None


@pytest.fixture
def clocked(request):
    """A world on a domain whose controller, and agents if they want, follow a clock."""
    with contextlib.closing(Lab("company")) as lab:
        lab.prepare()
        lab.clock = Clock(lab.folder / "clock")
        lab.controllers[0].start(lab.clock.environment)
        domain = Domain("company")
        domain._lab = lab
        yield from make_world(request, domain)


def test_tickets_end(clocked):
    """Both the agent and the domain are eleven hours on: tickets last ten."""
    lab = clocked.directory.lab
    agent = clocked.agent(ad__timeout=TIMEOUT)
    settings = dict(agent.env)
    # The sanitizer's runtime wants to be the first.
    agent.env.update(lab.clock.environment, LD_PRELOAD=":".join([*SANITIZER.preload.values(), Clock.LIBRARY]))
    slapd = clocked.slapd(env=settings).start()
    agent.start()
    connection = warm(slapd)
    for hours, name in ((11, "ann"), (22, "chloe")):  # somebody whom slapd does not remember
        lab.clock.ahead(hours * 3600)
        code, text, seconds = told(f"tickets ended ({hours} h later): look-up", lambda: look_up(connection))
        assert (code, text) == (0, "1 found") and seconds < TIMEOUT
        code, _, seconds = told(f"tickets ended ({hours} h later): bind", lambda: slapd.connect(ANN.replace("ann", name), "welcome"))
        assert code == 0 and seconds < TIMEOUT


def test_the_domain_s_clock_is_off(clocked):
    lab = clocked.directory.lab
    lab.clock.ahead(3600)
    agent = clocked.agent(ad__timeout=TIMEOUT).start()
    slapd = clocked.slapd(agent).start()
    code, text, seconds = told("clock an hour off at the start: look-up", lambda: look_up(slapd.connect()))
    assert seconds < TIMEOUT + SLACK and (code == 0 or "clock" in text.lower())
    code, text, seconds = told("clock an hour off: bind", lambda: slapd.connect(ANN, "welcome"))
    assert seconds < TIMEOUT + SLACK and (code == 0 or "clock" in text.lower())


# ---- name service

def start_resolving(world, nameserver, **settings):
    """The agent finds controllers by DNS, with a name server of its own."""
    resolv = world.folder / "resolv.conf"
    resolv.write_text(f"nameserver {nameserver}\noptions timeout:1 attempts:1\n", encoding="utf-8")
    agent = world.agent(ad__timeout=TIMEOUT, **settings)
    agent.settings.pop("ad.servers")
    agent.write_settings()
    agent.resolve_by(resolv)
    return agent, resolv


def in_use(agent, controllers):
    """The controller that the agent is connected to: it has had no need of the other's address."""
    peers = {connection.raddr.ip for connection in psutil.Process(agent.process.pid).connections() if connection.raddr}
    (controller,) = (controller for controller in controllers if controller.address in peers)
    return controller


def test_controllers_are_found_by_dns(world, controllers):
    agent, _ = start_resolving(world, controllers[0].address)
    slapd = world.slapd(agent.start()).start()
    code, text, seconds = told("found by DNS: look-up", lambda: look_up(slapd.connect()))
    assert (code, text) == (0, "1 found") and seconds < TIMEOUT
    controllers[1].kill()
    code, text, seconds = told("found by DNS, one dead: look-up", lambda: look_up(slapd.connect()))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE


def test_the_site_s_controllers_are_found(world, controllers):
    agent, _ = start_resolving(world, controllers[0].address, ad__site="Default-First-Site-Name")
    slapd = world.slapd(agent.start()).start()
    code, text, _ = told("found by DNS in a site: look-up", lambda: look_up(slapd.connect()))
    assert (code, text) == (0, "1 found")


def test_no_name_service_at_the_start(world, controllers):
    agent, resolv = start_resolving(world, "127.0.0.60")
    slapd = world.slapd(agent.start()).start()
    connection = slapd.connect()
    code, _, seconds = told("DNS gone at the start: look-up", lambda: look_up(connection))
    assert code == 52 and seconds < TIMEOUT + 3 + SLACK
    resolv.write_text(f"nameserver {controllers[0].address}\n", encoding="utf-8")
    wait_until(lambda: look_up_or_nothing(connection), "the name service is asked again")


def test_the_name_service_goes(world, controllers):
    agent, resolv = start_resolving(world, controllers[0].address)
    slapd = world.slapd(agent.start()).start()
    connection = warm(slapd)
    resolv.write_text("nameserver 127.0.0.60\noptions timeout:1 attempts:1\n", encoding="utf-8")
    code, text, seconds = told("DNS gone later: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE
    code, _, seconds = told("DNS gone later: bind", lambda: slapd.connect(ANN, "welcome"))
    assert code == 0 and seconds < AT_ONCE + SLACK
    asked = in_use(agent, controllers)
    asked.signal(signal.SIGKILL)
    asked.kill()
    code, text, seconds = told("DNS gone later, one dead: look-up", lambda: look_up(connection))
    assert (code, text) == (0, "1 found") and seconds < AT_ONCE + SLACK


def test_names_of_clients_reach_no_name_service(world, controllers):
    """Neither LDAP nor Kerberos looks for a domain that a client makes up."""
    first, service = controllers[0], "_ldap._tcp.dc._msdcs.example.com"
    with NameServer("127.0.0.59", {service: (first.host, 389)}, {first.host: first.address}) as names:
        agent, _ = start_resolving(world, "127.0.0.59")
        slapd = world.slapd(agent.start()).start()
        assert len(look_up(slapd.connect())) == 1
        for who, password, code in ((ANN, "welcome", 0), (f"cn=ann,dc=made-up,{SUFFIX}", "welcome", 49),
                                    (f"cn=ann,ou=People,dc=deep,dc=made-up,{SUFFIX}", "wrong", 49)):
            assert told(f"bind as {who}", lambda: slapd.connect(who, password))[0] == code
        assert set(names.questions) == {service, first.host}
