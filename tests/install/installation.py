# SPDX-License-Identifier: Apache-2.0
"""An installation below a folder of its own (DESTDIR), and the servers in it."""
import os
import pathlib
import subprocess

from gateway import BUILD, ROOT, Agent, Slapd

LIBRARIES = "usr/lib/" + subprocess.run(["dpkg-architecture", "-qDEB_HOST_MULTIARCH"], capture_output=True, text=True,
                                        check=True).stdout.strip()
DOCUMENTS = "usr/share/doc/zanthedx"
SECONDS = 900  # for a make that may have to build first


def make(target, **variables):
    """Runs make in the source tree, as an administrator does. Returns what it said."""
    # Not as a part of the make that runs the tests.
    env = {name: value for name, value in os.environ.items() if name not in ("MAKEFLAGS", "MAKELEVEL", "MFLAGS", "TARGETS")}
    result = subprocess.run(["make", target, f"PRESET={BUILD.name}", *(f"{name}={value}" for name, value in variables.items())],
                            cwd=ROOT, env=env, capture_output=True, text=True, timeout=SECONDS)
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout


def files_below(folder):
    """Every file and link, as paths below the folder."""
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_symlink() or not path.is_dir()}


class Installation:
    def __init__(self, root):
        self.root = pathlib.Path(root)
        for folder in [self.root, *self.root.parents[:2]]:
            folder.chmod(0o755)  # other users' servers run from here, too
        make("install", DESTDIR=self.root)

    def __truediv__(self, path):
        return self.root / path

    def files(self):
        return files_below(self.root)

    @property
    def environment(self):
        """What the loader needs to find libvex where it would not look."""
        return {"LD_LIBRARY_PATH": str(self / LIBRARIES)}

    def example(self, name, target, **paths):
        """A copy of an installed example, as an administrator makes it, with the paths
        that are keys replaced. Each of them must be there."""
        text = (self / f"{DOCUMENTS}/examples/{name}").read_text(encoding="utf-8")
        for old, new in paths.items():
            assert old in text, f"{name} does not hold {old}"
            text = text.replace(old, str(new))
        target.write_text(text, encoding="utf-8")


class InstalledAgent(Agent):
    """The installed agent with the example's settings."""

    def __init__(self, world, installed):
        self.installed = installed
        super().__init__(world.folder, world.running_servers)

    def write_settings(self):
        self.installed.example("zanthe.conf", self.settings_file, **{
            "/run/zanthe/vexagent.sock": self.socket,
            "/var/lib/zanthe/directory.ldb": self.folder / "directory.ldb",
            "/etc/zanthe/example.ldif": self.installed / f"{DOCUMENTS}/examples/example.ldif"})

    def command(self):
        return [self.installed / "usr/sbin/vexagent"]


class InstalledSlapd(Slapd):
    """slapd with the installed module and the example's configuration."""

    def __init__(self, world, installed, agent):
        self.installed = installed
        super().__init__(world.folder, world.running_servers, env={**agent.env, **installed.environment})

    def write_config(self):
        self.installed.example("slapd.conf", self.config_file, **{
            "/usr/lib/ldap": self.installed / "usr/lib/ldap",
            "/usr/share/zanthedx": self.installed / "usr/share/zanthedx",
            "/run/slapd": self.folder})
