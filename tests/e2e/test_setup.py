# SPDX-License-Identifier: Apache-2.0
"""tools/setup: installs what is missing, or says how."""
import os
import subprocess

import pytest

from gateway import ROOT

pytestmark = pytest.mark.embedded


def run_setup(packages):
    return subprocess.run([ROOT / "tools/setup", packages], capture_output=True, text=True, timeout=60)


@pytest.fixture
def packages(tmp_path):
    tmp_path.chmod(0o755)
    for parent in list(tmp_path.parents)[:2]:
        parent.chmod(0o755)

    def written(*lines):
        path = tmp_path / "packages.txt"
        path.write_text("\n".join(lines) + "\n", encoding="utf-8")
        path.chmod(0o644)
        return path
    return written


def test_nothing_missing_is_nothing_done(packages):
    result = run_setup(packages("# a comment", "", "libc6-dev   the C library's headers", "slapd the server"))
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_every_package_has_its_reason():
    for line in (ROOT / "tools/packages.txt").read_text(encoding="utf-8").splitlines():
        assert not line or line.startswith("#") or len(line.split()) > 2, line


@pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
def test_without_root_the_one_line_to_run_is_told(packages):
    file = packages("libc6-dev present", "no-such-package-here absent", "another-absent absent")
    copy = file.parent / "setup"  # where the other user can read it
    copy.write_text((ROOT / "tools/setup").read_text(encoding="utf-8"), encoding="utf-8")
    copy.chmod(0o755)
    result = subprocess.run(["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "bash", copy, file],
                            capture_output=True, text=True, timeout=60, cwd="/")
    assert result.returncode == 1 and result.stdout == ""
    heading, line = result.stderr.splitlines()
    assert heading == "setup: packages are missing; run this once, then try again:"
    assert "debconf-set-selections" in line
    assert line.endswith("apt-get install -y -q --no-install-recommends no-such-package-here another-absent")


def test_a_package_that_does_not_exist_is_a_clear_error(packages):
    before = set(os.listdir("/usr/sbin"))
    result = run_setup(packages("no-such-package-here absent"))
    assert result.returncode == 1
    assert result.stderr.splitlines()[-1].startswith("setup: 'apt-get ")
    assert set(os.listdir("/usr/sbin")) == before, "nothing is left behind"
