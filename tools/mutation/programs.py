"""The unit tests of a build: what each is linked from, and how it is run with one object changed.

Nothing of the build is touched: a changed file is compiled to an object of its own, and
linked, instead of the original, into a test of its own.
"""
import ctypes
import dataclasses
import json
import os
import pathlib
import re
import resource
import shlex
import signal
import subprocess
import time

LEAST_SECONDS = 20.0  # that a test may take, however quick it is
# Fresh memory is not empty, and what is written behind a block ends the test: the sanitizers'
# runs of the same tests would see more.
MEMORY = {"LD_PRELOAD": "libc_malloc_debug.so.0", "GLIBC_TUNABLES": "glibc.malloc.check=3:glibc.malloc.perturb=165"}
SLOWDOWN = 8  # how many times as long as usual a test may take


class NotBuilt(Exception):
    """The change is no C++, or nothing that can be linked."""


@dataclasses.dataclass
class Program:
    target: str  # below the build folder
    link: list  # the words of its link command
    objects: set  # that it holds, archives included
    arguments: list
    seconds: float = 0.0


def outputs(tool, *arguments):
    return subprocess.run([tool, *arguments], check=True, capture_output=True, text=True).stdout


class Build:
    def __init__(self, folder, root):
        self.folder, self.root = pathlib.Path(folder), pathlib.Path(root)
        commands = json.loads((self.folder / "compile_commands.json").read_text(encoding="utf-8"))
        self.compiles = {}
        for one in commands:
            words = shlex.split(one["command"])
            self.compiles.setdefault(one["file"], (one["command"], words[words.index("-o") + 1]))
        self.programs = [self.program(target, arguments) for target, arguments in self.tests()]

    def tests(self):
        """Each test program of the build, with the arguments that it is given."""
        listed = json.loads(outputs("ctest", "--test-dir", str(self.folder), "--show-only=json-v1"))
        found = {}
        for one in listed["tests"]:
            words = one.get("command")
            if words is None or not words[0].startswith(f"{self.folder}/"):
                continue
            isGoogle = any(word.startswith("--gtest_filter") for word in words)
            found[os.path.relpath(words[0], self.folder)] = [] if isGoogle else words[1:]
        return sorted(found.items())

    def program(self, target, arguments):
        lines = outputs("ninja", "-C", str(self.folder), "-t", "commands", target).splitlines()
        archives = {}
        for line in lines:
            if made := re.search(r"/ar qc (\S+)\s+(.*?) &&", line):
                archives[made[1]] = made[2].split()
        link = next(line for line in reversed(lines) if f" -o {target} " in line)
        words = next(shlex.split(part) for part in link.split("&&") if f" -o {target} " in part)
        objects = set()
        for word in words:
            objects.update(archives.get(word, [word] if word.endswith(".o") else []))
        return Program(target, words, objects, arguments)

    def object_of(self, path):
        return self.compiles[str(path)][1]

    def programs_of(self, path):
        """Those that hold the file, the nearest first, the quickest of each kind before the others."""
        held, folder = self.object_of(path), os.path.relpath(path.parent, self.root)
        return sorted((one for one in self.programs if held in one.objects),
                      key=lambda one: (not one.target.startswith(folder + "/"), one.seconds))


class Bench:
    """A place to build and run in: one for each change that is tried at a time."""

    def __init__(self, build, folder, tree):
        self.build, self.folder, self.tree = build, pathlib.Path(folder), pathlib.Path(tree)
        self.scratch = self.folder / "tmp"
        self.scratch.mkdir(parents=True, exist_ok=True)

    def run(self, words, seconds, cwd, **environment):
        """Whether a command succeeds in the time."""
        process = subprocess.Popen(words, cwd=cwd, env={**os.environ, "TMPDIR": str(self.scratch), **environment},
                                   start_new_session=True,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   preexec_fn=limit)
        try:
            return process.wait(seconds) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()

    def compile(self, path, source):
        """The object of a file with this source."""
        command, original = self.build.compiles[str(path)]
        copy, made = self.folder / path.name, self.folder / "changed.o"
        copy.write_bytes(source)
        words = [word for word in shlex.split(command) if word not in ("-Werror", "-g", "-O2")]
        words[words.index("-o") + 1] = str(made)
        words[words.index("-c") + 1] = str(copy)
        if not self.run([*words, "-O0", "-w"], 300, self.build.folder):
            raise NotBuilt("does not compile")
        return original, made

    def link(self, program, original, made):
        """The program with the object in the original's place. What stands before an archive
        makes the archive's member of the same symbols superfluous."""
        test = self.folder / "changed_test"
        words = [str(made) if word == original else word for word in program.link]
        if str(made) not in words:
            words.insert(words.index("-o"), str(made))
        words[words.index("-o") + 1] = str(test)
        if not self.run(words, 300, self.build.folder):
            raise NotBuilt("does not link")
        return test

    def passes(self, program, test):
        fast = program.arguments or ["--gtest_fail_fast", "--gtest_brief=1"]
        return self.run([str(test), *fast], max(LEAST_SECONDS, SLOWDOWN * program.seconds), self.tree, **MEMORY)

    def measure(self, program):
        """Notes how long the program takes as it is. Whether it passes."""
        start = time.monotonic()
        program.seconds = LEAST_SECONDS
        passed = self.passes(program, self.build.folder / program.target)
        program.seconds = time.monotonic() - start
        return passed

    def survives(self, path, source):
        """Whether every test that holds the file passes with this source."""
        original, made = self.compile(path, source)
        return all(self.passes(program, self.link(program, original, made))
                   for program in self.build.programs_of(path))


def limit():
    """What a change may not do to the machine; and nothing outlives the trial."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))
    resource.setrlimit(resource.RLIMIT_DATA, (8 << 30, 8 << 30))
