# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests on a domain. The build folder is ZX_BUILD, as for the
end-to-end tests, whose servers these tests run."""
import os
import pathlib
import sys

os.environ["LDAPNOINIT"] = "1"
sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

import pytest  # noqa: E402

from directories import Domain  # noqa: E402
from gateway import BUILD  # noqa: E402
from observed import TABLE  # noqa: E402
from world import make_world, pytest_configure, pytest_runtest_makereport  # noqa: E402,F401 (hooks)


def pytest_sessionstart(session):
    if not (BUILD / "agent/vexagent").exists():
        pytest.exit(f"{BUILD} is not built: run make build", returncode=2)


def pytest_terminal_summary(terminalreporter):
    if TABLE:
        terminalreporter.section("what clients saw, and after how long")
        for line in TABLE:
            terminalreporter.write_line(line)


@pytest.fixture(scope="session")
def states_domain():
    """The domain with accounts in every state, for all tests that leave it as it is."""
    domain = Domain("states")
    yield domain
    domain.close()


@pytest.fixture
def lab(states_domain):
    return states_domain.lab


@pytest.fixture
def world(request, states_domain):
    yield from make_world(request, states_domain)


@pytest.fixture(scope="module")
def shared_world(request, states_domain):
    yield from make_world(request, states_domain)
