# SPDX-License-Identifier: Apache-2.0
"""tools/unpack: lays packages out for these tests without installing them."""
import os
import subprocess

import pytest

from client_host import PACKAGES, UNPACKED
from gateway import ROOT

LIST = ROOT / "tools/packages-clients.txt"

pytestmark = pytest.mark.embedded


def unpack(packages, folder, **env):
    return subprocess.run([ROOT / "tools/unpack", packages, folder], capture_output=True, text=True, timeout=60,
                          env={**os.environ, **env})


@pytest.fixture
def wanted(tmp_path):
    def written(line):
        (tmp_path / "packages.txt").write_text(f"{line}\n", encoding="utf-8")
        return tmp_path / "packages.txt"
    return written


def test_what_is_there_is_not_fetched_again():
    before = os.stat(PACKAGES).st_mtime_ns
    result = unpack(LIST, UNPACKED)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert os.stat(PACKAGES).st_mtime_ns == before


def test_every_package_has_its_reason():
    for line in LIST.read_text(encoding="utf-8").splitlines():
        assert not line or line.startswith("#") or len(line.split()) > 2, line


def test_files_lie_where_an_installation_would_have_put_them():
    for file in ("usr/sbin/nslcd", "usr/sbin/sssd", "usr/sbin/apache2", "usr/lib/x86_64-linux-gnu/libnss_ldap.so.2"):
        assert (PACKAGES / file).is_file(), file
    assert {place.name for place in PACKAGES.iterdir() if place.is_symlink()} == {"bin", "sbin", "lib", "lib64"}
    assert (PACKAGES / "usr/bin/sudo").stat().st_mode & 0o4000


def test_a_package_that_does_not_exist(wanted, tmp_path):
    """On a machine that knows of no server to fetch it from, which is quick."""
    (tmp_path / "lists/partial").mkdir(parents=True)
    (tmp_path / "apt.conf").write_text(
        'Dir::Etc::SourceList "/dev/null"; Dir::Etc::SourceParts "/dev/null"; Dir::Cache::pkgcache ""; Dir::Cache::srcpkgcache "";'
        f'Dir::State::Lists "{tmp_path}/lists";', encoding="utf-8")
    result = unpack(wanted("no-such-package-here absent"), tmp_path / "folder", APT_CONFIG=str(tmp_path / "apt.conf"))
    assert result.returncode == 1
    assert "E: Unable to locate package no-such-package-here" in result.stderr
    assert result.stderr.splitlines()[-1] == "unpack: the packages cannot be fetched"
    assert not (tmp_path / "folder/list").exists()


def test_a_folder_of_somebody_else_stays(wanted, tmp_path):
    precious = tmp_path / "folder/precious"
    precious.parent.mkdir()
    precious.write_text("1", encoding="utf-8")
    result = unpack(wanted("nslcd daemon"), precious.parent)
    assert (result.returncode, result.stderr) == (1, f"unpack: {precious.parent} is not a folder of mine; it stays as it is\n")
    assert precious.exists()
