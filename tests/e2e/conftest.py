# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the end-to-end tests. The build folder is ZX_BUILD (default build/release),
the directory behind the gateway ZX_DIRECTORY (directories.py)."""
import os

# Neither the user's nor the machine's LDAP settings may change an answer.
os.environ["LDAPNOINIT"] = "1"

import pytest  # noqa: E402

from directories import DIRECTORY  # noqa: E402
from gateway import BUILD, SANITIZER  # noqa: E402
from world import (pytest_collection_modifyitems, pytest_configure, pytest_runtest_makereport,  # noqa: E402,F401
                   shared_world, world)

# What `make run` starts is the build that is shipped, whichever one is tested.
collect_ignore = ["test_front_door.py"] if SANITIZER.kind else []


def pytest_sessionstart(session):
    if not (BUILD / "agent/vexagent").exists():
        pytest.exit(f"{BUILD} is not built: run make build", returncode=2)


def pytest_sessionfinish(session):
    DIRECTORY.close()


@pytest.fixture(scope="module")
def gateway(shared_world):
    """The gateway with the example directory; nothing is cached."""
    slapd = shared_world.slapd(shared_world.agent().start()).start()
    slapd.running_servers = shared_world.running_servers
    return slapd


@pytest.fixture
def anonymous(gateway):
    return gateway.connect()
