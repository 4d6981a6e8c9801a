# SPDX-License-Identifier: Apache-2.0
"""`make run` and what is behind it, as a newcomer uses it."""
import os
import pathlib
import signal
import socket
import subprocess

import psutil
import pytest

from gateway import BUILD, ROOT, SECONDS, accepts, free_port, wait_until

pytestmark = pytest.mark.embedded


def environment(world, **variables):
    env = {name: value for name, value in os.environ.items() if not name.startswith("MAKE")}
    return {**env, "RUN_DIR": str(world.folder / "run"), "ZX_BUILD": str(BUILD), **variables}


def gateway_of(world):
    """The servers that run in the world's folder."""
    found = []
    for process in psutil.process_iter(["name"]):
        try:
            if process.info["name"] in ("slapd", "vexagent") and (
                    str(world.folder) in process.environ().get("ZANTHE_CONF", "")):
                found.append(process)
        except psutil.Error:
            pass
    return found


@pytest.fixture(autouse=True)
def nothing_outlives_its_test(world):
    """Also when a test fails half-way: a gateway whose servers die ends itself."""
    yield
    for server in gateway_of(world):
        server.kill()


def heed_interruptions():
    """As from a terminal, also when the tests run in the background, where shells let
    their children ignore interruptions."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_DFL)


def start(world, command, **variables):
    port = free_port()
    process = subprocess.Popen(command, cwd=ROOT, env=environment(world, PORT=str(port), **variables),
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
                               preexec_fn=heed_interruptions)
    output = b""
    for line in process.stdout:
        output += line
        if b"Ctrl-C stops it." in line:
            break
    return process, port, output.decode()


def run(world, **variables):
    return subprocess.run(["tools/run-gateway"], cwd=ROOT, env=environment(world, **variables), capture_output=True,
                          text=True, timeout=60)


def one_error(result):
    lines = result.stderr.strip().splitlines()
    assert result.returncode == 1 and len(lines) == 1, result.stderr
    return lines[0].removeprefix("run-gateway: ")


def test_make_run_once(world):
    port = free_port()
    result = subprocess.run(["make", "run", f"PORT={port}", f"RUN_DIR={world.folder}/run", "ONESHOT=1"], cwd=ROOT,
                            env=environment(world), capture_output=True, text=True, timeout=300)
    assert result.returncode == 0, result.stdout + result.stderr
    for line in ("    dn: cn=Ann Lee,ou=Engineering,ou=People,dc=example,dc=com", "    homeDirectory: /home/ann",
                 "    memberOf: cn=engineering,ou=Groups,dc=example,dc=com", "    memberUid: ben",
                 "    member: cn=Ben Okafor,ou=Engineering,ou=People,dc=example,dc=com",
                 "    nisNetgroupTriple: (console.example.com,-,example.com)", "All look-ups were answered."):
        assert line in result.stdout.splitlines()
    assert not accepts(socket.AF_INET, ("127.0.0.1", port))
    assert gateway_of(world) == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_an_interruption_leaves_nothing_running(world, number):
    process, port, output = start(world, ["tools/run-gateway"])
    assert len(gateway_of(world)) == 2, output
    process.send_signal(number)
    assert process.wait(SECONDS) == 0
    assert gateway_of(world) == []
    assert not accepts(socket.AF_INET, ("127.0.0.1", port))


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("whole_group", [True, False])
def test_an_interruption_of_make(world, number, whole_group):
    process, port, output = start(world, ["make", "run"])
    assert len(gateway_of(world)) == 2, output
    if whole_group:
        os.killpg(process.pid, number)
    else:
        process.send_signal(number)
    process.wait(SECONDS)
    wait_until(lambda: gateway_of(world) == [], "both servers have ended")
    assert not accepts(socket.AF_INET, ("127.0.0.1", port))


def test_even_a_killed_run_leaves_nothing(world):
    process, _, _ = start(world, ["tools/run-gateway"])
    process.kill()
    process.wait()
    wait_until(lambda: gateway_of(world) == [], "both servers have ended")


def test_a_server_that_dies_ends_the_run(world):
    process, _, _ = start(world, ["tools/run-gateway"])
    next(server for server in gateway_of(world) if server.name() == "vexagent").kill()
    assert process.wait(SECONDS) == 1
    assert b"vexagent ended with status -9" in process.stdout.read()
    assert gateway_of(world) == []


def test_a_port_in_use(world):
    with socket.socket() as other:
        other.bind(("127.0.0.1", 0))
        other.listen()
        port = other.getsockname()[1]
        assert one_error(run(world, PORT=str(port))) == f"PORT {port} is in use on 127.0.0.1"


@pytest.mark.parametrize("port", ["0", "65536", "ldap", "-1"])
def test_a_port_that_is_none(world, port):
    assert one_error(run(world, PORT=port)) == f"PORT {port} is not a port number"


def test_a_folder_that_cannot_be_made(world):
    (world.folder / "run").write_text("a file")
    assert one_error(run(world)) == f"RUN_DIR {world.folder}/run: File exists"


def test_two_runs_in_one_folder(world):
    first, _, _ = start(world, ["tools/run-gateway"])
    assert one_error(run(world)) == f"RUN_DIR {world.folder}/run is in use by another run"
    first.terminate()
    first.wait(SECONDS)


def test_a_folder_whose_path_is_too_long_for_a_socket(world):
    deep = world.folder.joinpath(*["a folder with a long name"] * 5)
    result = run(world, RUN_DIR=str(deep), ONESHOT="1")
    assert result.returncode == 0, result.stderr
    assert not list(pathlib.Path(deep).glob("*.sock"))
