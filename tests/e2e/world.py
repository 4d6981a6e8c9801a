# SPDX-License-Identifier: Apache-2.0
"""A test's world: a folder, and the servers that run in it. What they said comes with
the report of a test that fails, and the folder stays. The hooks and fixtures here are
for the conftest.py of each folder of tests that wants them."""
import pathlib
import shutil
import tempfile

import pytest

from directories import DIRECTORY
from gateway import Agent, Slapd

LOG_LINES = 40
FAILED = pytest.StashKey()


class World:
    """A folder, and the servers that a test starts in it."""

    def __init__(self, directory=DIRECTORY):
        # Short, so that the paths of sockets in it are short enough.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zx-"))
        self.running_servers = []
        self.directory = directory

    def agent(self, **settings):
        return Agent(self.folder, self.running_servers, self.directory, **settings)

    def slapd(self, agent=None, **parts):
        if agent is not None:
            parts["env"] = {**agent.env, **parts.get("env", {})}
        return Slapd(self.folder, self.running_servers, **parts)

    def close(self):
        """Stops everything; a server that crashed fails the test, and so does what a
        sanitizer has to say."""
        errors = []
        for server in reversed(self.running_servers):
            try:
                server.stop()
            except AssertionError as error:
                errors.append(str(error))
        self.directory.restore()
        errors += [f"{report.name}:\n{report.read_text(errors='replace')}"
                   for report in sorted(self.folder.glob("*.sanitizer.*"))]
        assert not errors, "\n".join(errors)

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def make_world(request, directory=DIRECTORY):
    """For fixtures: a world until the end of the test, or of the module."""
    world = World(directory)
    yield world
    try:
        world.close()
    finally:
        if any(name.startswith(request.node.nodeid) for name in request.session.stash.get(FAILED, ())):
            print(f"kept: {world.folder}")
        else:
            world.remove()


@pytest.fixture
def world(request):
    """A world of the test's own."""
    yield from make_world(request)


@pytest.fixture(scope="module")
def shared_world(request):
    """One that the tests of a file share, and do not disturb."""
    yield from make_world(request)


def pytest_configure(config):
    config.addinivalue_line("markers", "embedded: about the embedded directory alone, or about none")


def pytest_collection_modifyitems(config, items):
    """On a domain the tests run that would see the difference."""
    if DIRECTORY.kind == "embedded":
        return
    indifferent = [item for item in items if item.get_closest_marker("embedded") or "standin" in item.fixturenames]
    config.hook.pytest_deselected(items=indifferent)
    items[:] = [item for item in items if item not in indifferent]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """The servers' last words come with a failure."""
    outcome = yield
    report = outcome.get_result()
    if not report.failed:
        return
    item.session.stash.setdefault(FAILED, set()).add(item.nodeid)
    for fixture in item.funcargs.values():
        for server in getattr(fixture, "running_servers", []):
            lines = server.log().splitlines()[-LOG_LINES:]
            report.sections.append((server.log_file.as_posix(), "\n".join(lines)))
