# SPDX-License-Identifier: Apache-2.0
"""The scenario's places to look for what it uses of the other tests. The build folder is
ZX_BUILD, as for them."""
import os
import pathlib
import sys

os.environ["LDAPNOINIT"] = "1"
os.environ.pop("ZX_DIRECTORY", None)  # it brings its own
TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(TESTS / "e2e"), str(TESTS / "ad")]

import pytest  # noqa: E402

from domain import Certificates  # noqa: E402
from gateway import BUILD  # noqa: E402
from world import pytest_runtest_makereport  # noqa: E402,F401 (a hook)


def pytest_sessionstart(session):
    if not (BUILD / "agent/vexagent").exists():
        pytest.exit(f"{BUILD} is not built: run make build", returncode=2)


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    return Certificates(tmp_path_factory.mktemp("tls"))
