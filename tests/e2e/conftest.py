"""Fixtures of the end-to-end tests. The build folder is ZX_BUILD (default build/release)."""
import os
import pathlib
import shutil
import tempfile

# Neither the user's nor the machine's LDAP settings may change an answer.
os.environ["LDAPNOINIT"] = "1"

import pytest  # noqa: E402

from gateway import BUILD, SANITIZER, Agent, Slapd  # noqa: E402

# What `make run` starts is the build that is shipped, whichever one is tested.
collect_ignore = ["test_front_door.py"] if SANITIZER.kind else []

LOG_LINES = 40


def pytest_sessionstart(session):
    if not (BUILD / "agent/vexagent").exists():
        pytest.exit(f"{BUILD} is not built: run make build", returncode=2)


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


FAILED = pytest.StashKey()


class World:
    """A folder, and the servers that a test starts in it."""

    def __init__(self):
        # Short, so that the paths of sockets in it are short enough.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zx-"))
        self.running_servers = []

    def agent(self, **settings):
        return Agent(self.folder, self.running_servers, **settings)

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
        errors += [f"{report.name}:\n{report.read_text(errors='replace')}"
                   for report in sorted(self.folder.glob("*.sanitizer.*"))]
        assert not errors, "\n".join(errors)

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def make_world(request):
    world = World()
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


@pytest.fixture(scope="module")
def gateway(shared_world):
    """The gateway with the example directory; nothing is cached."""
    slapd = shared_world.slapd(shared_world.agent().start()).start()
    slapd.running_servers = shared_world.running_servers
    return slapd


@pytest.fixture
def anonymous(gateway):
    return gateway.connect()
