# SPDX-License-Identifier: Apache-2.0
"""make install and make uninstall: what lies where, and that it works from there."""
import re
import stat
import subprocess

import ldap
import psutil
import pytest

from gateway import ROOT, SUFFIX, search, values
from installation import DOCUMENTS, LIBRARIES, InstalledAgent, InstalledSlapd, Installation, files_below, make

PEOPLE = "(&(objectClass=posixAccount)(uid=ann))"
ANN = f"cn=Ann Lee,ou=Engineering,ou=People,{SUFFIX}"

# Everything but the documents, with its mode, or where it leads.
LAYOUT = {
    "usr/include/vex/vex.h": 0o644,
    "usr/lib/ldap/libback_zanthedx.la": 0o644,
    "usr/lib/ldap/libback_zanthedx.so": "libback_zanthedx.so.0",
    "usr/lib/ldap/libback_zanthedx.so.0": 0o644,
    "usr/lib/ldap/libback_zanthedx.so.0.la": 0o644,
    "usr/lib/systemd/system/vexagent.service": 0o644,
    "usr/lib/systemd/system/vexagent.socket": 0o644,
    "usr/lib/sysusers.d/zanthedx.conf": 0o644,
    "usr/lib/tmpfiles.d/zanthedx.conf": 0o644,
    f"{LIBRARIES}/libvex.so": "libvex.so.0",
    f"{LIBRARIES}/libvex.so.0": 0o644,
    f"{LIBRARIES}/pkgconfig/vex.pc": 0o644,
    "usr/sbin/vexagent": 0o755,
    "usr/share/man/man5/slapd-zanthedx.5": 0o644,
    "usr/share/man/man5/zanthe.conf.5": 0o644,
    "usr/share/man/man8/vexagent.8": 0o644,
    "usr/share/zanthedx/applications.map": 0o644,
    "usr/share/zanthedx/mail.schema": 0o644,
    "usr/share/zanthedx/rfc2307.map": 0o644,
    "usr/share/zanthedx/rfc2307bis.schema": 0o644,
    "usr/share/zanthedx/sudo.schema": 0o644,
    "usr/share/zanthedx/zanthedx.schema": 0o644,
}
PROGRAMS = ("usr/lib/ldap/libback_zanthedx.so.0", f"{LIBRARIES}/libvex.so.0", "usr/sbin/vexagent")


def documents():
    """The source tree's, with the folders that they lie in there."""
    shown = {f"{folder}/{name}" for folder in ("docs", "examples") for name in files_below(ROOT / folder)}
    return {"README.md", "CHANGELOG.md", "CONTRIBUTING.md", "LICENSE", "SECURITY.md"} | {name for name in shown if not name.startswith("docs/man/")}


def look(path):
    return str(path.readlink()) if path.is_symlink() else stat.S_IMODE(path.stat().st_mode)


def test_the_layout(installed):
    assert {name: look(installed / name) for name in installed.files() if not name.startswith(DOCUMENTS)} == LAYOUT


def test_the_documents(installed):
    found = {name.removeprefix(f"{DOCUMENTS}/") for name in installed.files() if name.startswith(DOCUMENTS)}
    assert found == documents()
    for name in found:
        assert (installed / f"{DOCUMENTS}/{name}").read_bytes() == (ROOT / name).read_bytes(), name


def test_everybody_can_read_it(installed):
    for path in [*installed.root.rglob("*")]:
        assert path.is_symlink() or path.stat().st_mode & 0o444 == 0o444, path


@pytest.mark.parametrize("name", PROGRAMS)
def test_libraries_are_found_where_the_host_keeps_them(installed, name):
    """Nothing leads back to the build folder, or anywhere else."""
    dynamic = subprocess.run(["readelf", "-d", installed / name], capture_output=True, text=True, check=True).stdout
    assert "RPATH" not in dynamic and "RUNPATH" not in dynamic
    found = subprocess.run(["ldd", installed / name], env=installed.environment, capture_output=True, text=True, check=True)
    assert "not found" not in found.stdout
    assert str(ROOT) not in found.stdout


def test_an_application_is_built_with_the_installed_libvex(installed, tmp_path):
    flags = subprocess.run(["pkg-config", "--define-variable", f"prefix={installed / 'usr'}", "--cflags", "--libs", "vex"],
                           env={"PKG_CONFIG_PATH": str(installed / f"{LIBRARIES}/pkgconfig")}, capture_output=True, text=True,
                           check=True).stdout.split()
    program = tmp_path / "program"
    subprocess.run(["cc", "-std=c11", "-Wall", "-Werror", ROOT / "vex/vex_c_test.c", "-o", program, *flags], check=True)
    subprocess.run([program], env={**installed.environment, "ZANTHE_CONF": str(tmp_path / "none.conf")}, check=True, timeout=60)
    assert "libvex.so.0" in subprocess.run(["readelf", "-d", program], capture_output=True, text=True, check=True).stdout


def mapped(process):
    """The files that a process has loaded."""
    return {entry.path for entry in psutil.Process(process.pid).memory_maps()}


def test_the_installed_gateway_with_the_installed_examples(installed, world):
    agent = InstalledAgent(world, installed).start()
    slapd = InstalledSlapd(world, installed, agent).start()
    found = search(slapd.connect(), PEOPLE, ["homeDirectory"])
    assert [(dn, values(entry, "homeDirectory")) for dn, entry in found.items()] == [(ANN, ["/home/ann"])]
    bound = slapd.connect(ANN, "welcome")
    assert len(search(bound, "(objectClass=nisNetgroup)")) == 6
    assert list(search(bound, "(mail=ann@example.com)", ["1.1"])) == [ANN], "in the standard mode"
    with pytest.raises(ldap.INVALID_CREDENTIALS):
        slapd.connect(ANN, "wrong")
    loaded = mapped(slapd.process)
    assert {str(installed / name) for name in PROGRAMS[:2]} <= loaded
    assert not [path for path in loaded if path.startswith(str(ROOT))]
    assert psutil.Process(agent.process.pid).exe() == str(installed / "usr/sbin/vexagent")


@pytest.mark.parametrize("spelling", ["libback_zanthedx", "libback_zanthedx.la", "libback_zanthedx.so"])
def test_other_spellings_of_moduleload(installed, world, spelling):
    slapd = InstalledSlapd(world, installed, InstalledAgent(world, installed).start())
    text = slapd.config_file.read_text(encoding="utf-8")
    slapd.config_file.write_text(re.sub(r"(moduleload\s+)\S+", rf"\g<1>{spelling}", text), encoding="utf-8")
    assert len(search(slapd.start().connect(), PEOPLE)) == 1


def test_another_prefix(tmp_path):
    make("install", PREFIX="/opt/gateway", DESTDIR=tmp_path)
    assert [path.name for path in tmp_path.iterdir()] == ["opt"]
    prefix = tmp_path / "opt/gateway"
    assert "\nlibdir='/opt/gateway/lib/ldap'\n" in (prefix / "lib/ldap/libback_zanthedx.la").read_text() + "\n"
    assert "\nExecStart=/opt/gateway/sbin/vexagent\n" in (prefix / "lib/systemd/system/vexagent.service").read_text()
    assert "\nprefix=/opt/gateway\n" in "\n" + (prefix / "lib/pkgconfig/vex.pc").read_text()
    assert (prefix / "lib/libvex.so.0").exists()
    make("uninstall", DESTDIR=tmp_path)
    assert list(tmp_path.iterdir()) == []


def test_uninstalling_leaves_nothing(tmp_path):
    root = tmp_path / "a folder with blanks"
    root.mkdir()
    Installation(root)
    make("uninstall", DESTDIR=root)
    assert list(root.iterdir()) == []


def test_uninstalling_what_was_never_installed(tmp_path):
    result = subprocess.run([ROOT / "tools/uninstall", tmp_path / "manifest"], capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (1, f"uninstall: {tmp_path}/manifest: nothing was installed from this build\n")


def test_uninstalling_leaves_what_is_not_ours(tmp_path):
    Installation(tmp_path)
    theirs = [tmp_path / name for name in ("usr/lib/ldap/back_mdb.so", "etc/zanthe/zanthe.conf",
                                           f"{DOCUMENTS}/notes of the administrator")]
    for path in theirs:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("kept")
    make("uninstall", DESTDIR=tmp_path)
    assert files_below(tmp_path) == {str(path.relative_to(tmp_path)) for path in theirs}


def test_a_file_that_is_installed_already_is_replaced(tmp_path):
    """A server that runs keeps the file that it has loaded: nothing is written into it."""
    old = Installation(tmp_path) / "usr/lib/ldap/libback_zanthedx.so.0"
    old.write_bytes(b"an older one")
    with open(old, "rb") as held:
        make("install", DESTDIR=tmp_path)
        assert held.read() == b"an older one"
    assert old.read_bytes().startswith(b"\x7fELF")
