# SPDX-License-Identifier: Apache-2.0
"""That what a sanitizer finds in a server fails the test. The first test runs the
servers of the build under test, whichever it is."""
import pathlib
import sys

import pytest

from gateway import SANITIZER, Server, wait_until
from world import World

RUNTIMES = {"address": "libasan.so", "thread": "libtsan.so"}


def runtimes_of(server):
    maps = pathlib.Path(f"/proc/{server.process.pid}/maps").read_text(encoding="utf-8")
    return [kind for kind, library in RUNTIMES.items() if library in maps]


def test_the_servers_run_under_the_build_s_sanitizer_and_no_other(world):
    agent = world.agent().start()
    expected = [SANITIZER.kind] if SANITIZER.kind else []
    assert runtimes_of(agent) == expected
    assert runtimes_of(world.slapd(agent).start()) == expected


@pytest.fixture
def private_world():
    """One that the test closes itself."""
    world = World()
    yield world
    world.remove()


def test_a_report_fails_the_test(private_world):
    report = private_world.folder / "slapd.sanitizer.4711"
    report.write_text("heap-use-after-free")
    with pytest.raises(AssertionError, match=r"slapd\.sanitizer\.4711:\s+heap-use-after-free"):
        private_world.close()


@pytest.mark.parametrize("code", SANITIZER.EXIT_CODES)
def test_a_sanitizer_s_exit_code_fails_the_test(private_world, code):
    server = Server("program", private_world.folder, private_world.running_servers)
    server.spawn([sys.executable, "-c", f"raise SystemExit({code})"])
    wait_until(lambda: not server.running(), "the program ends")
    with pytest.raises(AssertionError, match="program: a sanitizer found something"):
        private_world.close()
