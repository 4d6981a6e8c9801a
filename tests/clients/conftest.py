# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests of real clients. The build folder is ZX_BUILD, the directory
behind the gateway ZX_DIRECTORY, as for the end-to-end tests, whose servers these run."""
import os
import pathlib
import sys

os.environ["LDAPNOINIT"] = "1"
TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(TESTS / "e2e"), str(TESTS / "ad")]

import pytest  # noqa: E402

from directories import DIRECTORY  # noqa: E402
from gateway import BUILD  # noqa: E402
from client_host import GATEWAY, UNPACKED  # noqa: E402
import machine  # noqa: E402
from host import make_authority, make_certificate  # noqa: E402
from world import (pytest_collection_modifyitems, pytest_configure, pytest_runtest_makereport,  # noqa: E402,F401
                   shared_world, world)

BEFORE = pytest.StashKey()


def pytest_sessionstart(session):
    if not (BUILD / "agent/vexagent").exists():
        pytest.exit(f"{BUILD} is not built: run make build", returncode=2)
    if not (UNPACKED / "list").exists():
        pytest.exit(f"{UNPACKED} is not there: run make setup-clients", returncode=2)
    session.config.stash[BEFORE] = machine.state()


def pytest_sessionfinish(session):
    DIRECTORY.close()


@pytest.fixture
def machine_before(request):
    """What the machine was like before the first test."""
    return request.config.stash[BEFORE]


@pytest.fixture(scope="session")
def tls(tmp_path_factory):
    """A folder with slapd's certificate, and that of the authority that it is from."""
    folder = tmp_path_factory.mktemp("tls")
    make_authority(folder)
    make_certificate(folder, [f"DNS:{GATEWAY}", "IP:127.0.0.1"], folder / "slapd.pem", folder / "slapd-key.pem")
    return folder
