# SPDX-License-Identifier: Apache-2.0
"""The unit tests of a build: what each is linked from, and how it is run with a file changed.

Nothing of the build is touched: changed files are compiled to objects of their own, and
linked, instead of the originals, into tests of their own.
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

HERE = pathlib.Path(__file__).resolve().parent
LEAST_SECONDS = 5.0  # that tests may take, however quick they are
SLOWDOWN = 10  # how many times as long as usual they may take
STACK = 64 << 20  # a function's changes share one frame
# Fresh memory is not empty, and what is written behind a block ends the test: the sanitizers'
# runs of the same tests would see more.
MEMORY = {"LD_PRELOAD": "libc_malloc_debug.so.0", "GLIBC_TUNABLES": "glibc.malloc.check=3:glibc.malloc.perturb=165"}
USUAL_MEMORY = dict.fromkeys(MEMORY, "")
# A test that is linked so fails at its end when memory is left that nothing points to.
LEAKS = ("-fsanitize=leak",)
LEAK_OPTIONS = {"LSAN_OPTIONS": "suppressions=tests/sanitizers/leaks.supp:print_suppressions=0"}


class NotBuilt(Exception):
    """The change is no C++, or nothing that can be linked."""


@dataclasses.dataclass
class Program:
    target: str  # below the build folder
    link: list  # the words of its link command
    archives: dict  # of those in the link command that the build makes, the objects
    arguments: list

    @property
    def is_google(self):
        return any("gtest" in word for word in self.link)

    @property
    def objects(self):
        """What it may hold: of an archive the linker takes only what is missed."""
        return {one for word in self.link for one in self.archives.get(word, [word])}


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
        return Program(target, words, archives, arguments)

    def object_of(self, path):
        return self.compiles[str(path)][1]

    def nearest(self, path):
        """The programs, those beside the file first."""
        folder = os.path.relpath(path.parent, self.root)
        return sorted(self.programs, key=lambda one: not one.target.startswith(folder + "/"))


class Bench:
    """A place to build and run in: one for each job."""

    def __init__(self, build, folder, tree):
        self.build, self.folder, self.tree = build, pathlib.Path(folder), pathlib.Path(tree)
        self.scratch = self.folder / "tmp"
        self.scratch.mkdir(parents=True, exist_ok=True)

    def run(self, words, seconds, cwd, errors=subprocess.DEVNULL, **environment):
        """Whether a command succeeds in the time."""
        process = subprocess.Popen(words, cwd=cwd, env={**os.environ, "TMPDIR": str(self.scratch), **environment},
                                   start_new_session=True, preexec_fn=limit,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=errors)
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

    def compile(self, path, source, made, flags=("-O0",)):
        """Makes an object of a file with this source. What the compiler says; nothing when all is well."""
        command, _ = self.build.compiles[str(path)]
        copy, complaints = made.with_suffix(path.suffix), made.with_suffix(".err")
        copy.write_bytes(source)
        words = [word for word in shlex.split(command) if word not in ("-Werror", "-g")]
        words[words.index("-o") + 1] = str(made)
        words[words.index("-c") + 1] = str(copy)
        with open(complaints, "w", encoding="utf-8") as errors:
            good = self.run([*words, *flags, "-w"], 900, self.build.folder, errors)
        return "" if good else complaints.read_text(encoding="utf-8") or "no object"

    def chosen(self, is_google):
        """The object that chooses between the changes."""
        made, source = self.folder / f"chosen{int(is_google)}.o", HERE / "chosen.cpp"
        flags = ["-DMUTATION_GTEST"] if is_google else []
        isNew = made.exists() and made.stat().st_mtime > source.stat().st_mtime
        if not isNew and not self.run(["c++", "-std=c++20", "-O2", *flags, "-c", str(source), "-o", str(made)],
                                      300, self.folder):
            raise NotBuilt("chosen.cpp does not compile")
        return made

    def link(self, program, changed, test, flags=()):
        """The program with other objects (original: changed), by the fastest linker that there is."""
        words = []
        for word in program.link:
            if changed.keys() & set(program.archives.get(word, ())):
                word = self.archive(word, [changed.get(one, one) for one in program.archives[word]])
            words.append(str(changed.get(word, word)))
        words[words.index("-o") + 1] = str(test)
        words[words.index("-o"):words.index("-o")] = [str(self.chosen(program.is_google)), *flags]
        if not self.run([*words, "-fuse-ld=lld"], 300, self.build.folder) and not self.run(words, 300, self.build.folder):
            raise NotBuilt(f"{program.target} does not link")
        return test

    def archive(self, name, objects):
        made = self.folder / pathlib.Path(name).name
        made.unlink(missing_ok=True)
        if not self.run(["ar", "qcs", str(made), *map(str, objects)], 300, self.build.folder):
            raise NotBuilt(f"{name} is not made")
        return str(made)

    def passes(self, program, test, selected, seconds, **environment):
        """Whether the tests of a program pass: the selected ones (all of them by "*") in the time."""
        if not selected:
            return True
        if program.is_google:
            words = ["--gtest_brief=1", f"--gtest_filter={':'.join(selected)}"]
            words += ["--gtest_fail_fast"] if selected != ["*"] else []
        else:
            words = program.arguments
        return self.run([str(test), *words], seconds, self.tree, **{**MEMORY, **environment})

    def leaks_nothing(self, program, test, selected, seconds, **environment):
        """The same of a program that is linked with LEAKS."""
        return self.passes(program, test, selected, seconds, **LEAK_OPTIONS, **USUAL_MEMORY, **environment)


def limit():
    """What a change may not do to the machine; and nothing outlives the trial."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))
    resource.setrlimit(resource.RLIMIT_DATA, (8 << 30, 8 << 30))
    most = resource.getrlimit(resource.RLIMIT_STACK)[1]
    resource.setrlimit(resource.RLIMIT_STACK, (most if 0 <= most < STACK else STACK, most))
