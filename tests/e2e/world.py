"""A test's world: a folder, and the servers that run in it."""
import pathlib
import shutil
import tempfile

from directories import DIRECTORY
from gateway import Agent, Slapd


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
