# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the tests of an installation. The build folder is ZX_BUILD, as for the
end-to-end tests, whose servers these tests run as they are installed."""
import os
import pathlib
import sys

os.environ["LDAPNOINIT"] = "1"
os.environ.pop("ZX_DIRECTORY", None)
sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

import pytest  # noqa: E402

from host import Host  # noqa: E402
from installation import Installation  # noqa: E402
from world import pytest_runtest_makereport, world  # noqa: E402,F401


@pytest.fixture(scope="session")
def installed(tmp_path_factory):
    """What `make install` puts below a folder. Tests leave it as it is."""
    return Installation(tmp_path_factory.mktemp("root"))


@pytest.fixture(scope="module")
def host(installed, tmp_path_factory):
    """A host with the gateway set up on it as the manual tells, both servers running."""
    with Host(installed, tmp_path_factory.mktemp("host")) as host:
        host.set_up()
        host.serve()
        yield host
