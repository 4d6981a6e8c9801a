# SPDX-License-Identifier: Apache-2.0
"""vexagent by itself: what it refuses, in one line that names the thing, leaving nothing behind."""
import os
import re
import signal
import socket
import subprocess

import pytest

from gateway import BUILD, ROOT, SECONDS, accepts, wait_until

pytestmark = pytest.mark.embedded


def one_line(log):
    lines = log.strip().splitlines()
    assert len(lines) == 1, log
    return lines[0]


def refused(agent):
    status, log = agent.refused()
    assert status not in (0, None) and status > 0, f"status {status}: {log}"
    assert not agent.socket.exists()
    return one_line(log)


def test_a_setting_that_nobody_knows(world):
    agent = world.agent(agent__sokket="/tmp/x")
    assert f"{agent.settings_file}:7: unknown setting agent.sokket" in refused(agent)


@pytest.mark.parametrize("content, line", [(b"agent.socket = /tmp/x\n= what\n", 2), (b"a = \\u12\n", 1), (b"a = \xff\n", 1)])
def test_malformed_settings(world, content, line):
    agent = world.agent()
    agent.settings_file.write_bytes(content)
    assert f"{agent.settings_file}:{line}: " in refused(agent)


def test_settings_that_are_not_there(world):
    agent = world.agent()
    agent.settings_file.unlink()
    assert f"{agent.settings_file}: No such file or directory" in refused(agent)


@pytest.mark.parametrize("name, value", [
    ("directory", "elsewhere"),
    ("agent.threads", "0"),
    ("agent.threads", "many"),
    ("agent.clients.max", "-1"),
    ("agent.timeout", "soon"),
    ("agent.socket.mode", "rw"),
])
def test_a_value_that_makes_no_sense(world, name, value):
    agent = world.agent(**{name.replace(".", "__"): value})
    line = refused(agent)
    assert name in line and value in line


def test_a_group_that_nobody_knows(world):
    agent = world.agent(agent__socket__group="no-such-group-here")
    assert refused(agent) == (f'vexagent: {agent.settings_file}:7: agent.socket.group is "no-such-group-here", '
                              "which is no group of this host")


def test_every_setting_is_documented(world):
    text = subprocess.run([BUILD / "agent/vexagent", "--help"], check=True, capture_output=True, text=True).stdout
    names = [line.split()[0].removesuffix(".*") for line in text.split("The settings:\n")[1].splitlines()]
    assert len(names) > 10
    for document in ("examples/zanthe.conf", "docs/configuration.md"):
        content = (ROOT / document).read_text()
        assert [name for name in names if name not in content] == []


@pytest.mark.parametrize("ldif", [
    "dn: CN=x,DC=example,DC=com\nthis is no attribute\n",
    "cn: no dn comes first\n",
    "dn: not a dn\ncn: x\n",
])
def test_an_ldif_that_is_none(world, ldif):
    file = world.folder / "bad.ldif"
    file.write_text(ldif)
    agent = world.agent(embedded__ldif=file)
    assert str(file) in refused(agent)
    # A half-made database would be taken for the directory at the next start.
    assert not (world.folder / "directory.ldb").exists()


def test_an_ldif_that_is_not_there(world):
    agent = world.agent(embedded__ldif=world.folder / "missing.ldif")
    assert f"{world.folder}/missing.ldif" in refused(agent)


def test_a_database_that_is_none(world):
    (world.folder / "directory.ldb").write_bytes(b"no database" * 1000)
    agent = world.agent()
    assert f"{world.folder}/directory.ldb" in refused(agent)


def test_a_socket_that_is_in_use(world):
    agent = world.agent().start()
    second = world.agent(embedded__database=world.folder / "second.ldb")
    second.log_file = world.folder / "second.log"
    status, log = second.refused()
    assert status > 0 and str(agent.socket) in one_line(log)
    assert accepts(socket.AF_UNIX, str(agent.socket))


def test_a_stale_socket_is_replaced(world):
    agent = world.agent().start()
    agent.kill()
    assert agent.socket.exists()
    agent.start()


def test_a_file_in_the_socket_s_place_is_left_alone(world):
    agent = world.agent()
    agent.socket.write_text("precious")
    status, log = agent.refused()
    assert status > 0 and str(agent.socket) in one_line(log)
    assert agent.socket.read_text() == "precious"


@pytest.mark.parametrize("path", ["no/such/folder/agent.sock", "x" * 120])
def test_a_socket_that_cannot_be_made(world, path):
    agent = world.agent(agent__socket=world.folder / path)
    status, log = agent.refused()
    assert status > 0 and str(world.folder / path) in one_line(log)


def test_the_socket_s_mode_and_its_end(world):
    agent = world.agent(agent__socket__mode="0600").start()
    assert os.stat(agent.socket).st_mode & 0o7777 == 0o600
    assert agent.stop() == 0
    assert not agent.socket.exists()


def test_garbage_on_the_socket_ends_that_connection_only(world):
    agent = world.agent().start()
    for garbage in (b"GET / HTTP/1.0\r\n\r\n" * 10, b"\xff" * 64, b"\0" * 64):
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(SECONDS)
            client.connect(str(agent.socket))
            try:
                client.sendall(garbage)
                while client.recv(4096):
                    pass
            except ConnectionError:
                pass
    assert agent.running() and accepts(socket.AF_UNIX, str(agent.socket))


def test_the_database_counts_once_it_is_there(world):
    """Not the LDIF file, which may change or go."""
    agent = world.agent().start()
    agent.stop()
    agent.settings["embedded.ldif"] = world.folder / "gone.ldif"
    agent.write_settings()
    agent.start()


def run(*words):
    return subprocess.run([BUILD / "agent/vexagent", *words], capture_output=True, text=True, timeout=SECONDS)


def test_hashes_that_others_can_read_are_told_of(world):
    """With what to do: the file stays when the database is built."""
    ldif = world.folder / "people.ldif"
    ldif.write_bytes((ROOT / "examples/example.ldif").read_bytes())
    ldif.chmod(0o644)
    agent = world.agent(embedded__ldif=ldif).start()
    line = wait_until(lambda: agent.log() and one_line(agent.log()), "the warning")
    assert line == (f"vexagent: {ldif}: others can read the password hashes in it (embedded.ldif); "
                    "install -o vexagent -m 400 makes a copy that is the agent's alone")
    agent.stop()
    agent.log_file = world.folder / "again.log"
    ldif.chmod(0o400)
    agent.start()
    agent.stop()
    assert agent.log() == ""


def test_help_and_version():
    text = run("--help")
    assert (text.returncode, text.stderr) == (0, "")
    assert text.stdout.startswith("Usage: vexagent [--config FILE] [--check]\n")
    version = run("--version")
    assert (version.returncode, version.stderr) == (0, "")
    assert re.fullmatch(r"vexagent \d+(\.\d+)+\n", version.stdout)


@pytest.mark.parametrize("words, complaint", [
    (["--chek-it"], "unknown option --chek-it"),
    (["--config"], "--config needs a value"),
    (["start"], 'unexpected word "start"'),
])
def test_wrong_usage(words, complaint):
    result = run(*words)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == f"vexagent: {complaint}; try --help\n"


def test_a_check_serves_and_builds_nothing(world):
    agent = world.agent()
    result = run("--config", agent.settings_file, "--check")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert not agent.socket.exists() and not (world.folder / "directory.ldb").exists()


def test_a_check_finds_a_database_that_is_none(world):
    (world.folder / "directory.ldb").write_bytes(b"no database" * 1000)
    result = run("--config", world.agent().settings_file, "--check")
    assert result.returncode == 1 and f"{world.folder}/directory.ldb" in one_line(result.stderr)


def test_the_levels_are_read_anew_and_the_agent_goes_on(world):
    agent = world.agent().start()
    agent.settings_file.write_bytes(b"= what\n")
    agent.signal(signal.SIGHUP)
    wait_until(lambda: f"{agent.settings_file}:1: " in agent.log(), "the complaint")
    assert agent.running() and accepts(socket.AF_UNIX, str(agent.socket))
    assert agent.stop() == 0


def test_two_at_the_same_instant(world):
    first, second = world.agent(), world.agent()
    second.log_file = world.folder / "second.log"
    first.launch()
    second.launch()
    wait_until(lambda: first.running() != second.running(), "one of them gives up")
    left, ended = (first, second) if first.running() else (second, first)
    assert ended.process.returncode == 1 and "another agent answers on it" in one_line(ended.log())
    left.wait_ready(lambda: accepts(socket.AF_UNIX, str(left.socket)))
    assert left.stop() == 0
