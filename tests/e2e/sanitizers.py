# SPDX-License-Identifier: Apache-2.0
"""What servers of a sanitized build are started with (tests/sanitizers/README.md)."""
import functools
import re
import subprocess


class Sanitizer:
    """The sanitizer of a build folder: kind is "address", "thread" or empty."""

    EXIT_CODES = (98, 66)  # of a process in which one found something

    def __init__(self, build, root):
        cache = build / "CMakeCache.txt"
        text = cache.read_text(encoding="utf-8") if cache.exists() else ""
        kinds = re.search(r"^ZX_SANITIZE:[A-Z]+=(.*)$", text, re.MULTILINE)
        self.kind = kinds.group(1).split(",")[0] if kinds else ""
        self.files = root / "tests/sanitizers"
        self.compiler = re.search(r"^CMAKE_CXX_COMPILER:[A-Z]+=(.*)$", text, re.MULTILINE)

    def options(self, report):
        """The environment of every program of the build. Reports go to files that
        begin with the given path."""
        if self.kind == "address":
            # Debian's libraries keep no frame pointers: only the slow unwinder sees
            # through them to where a leak was made; ten frames of it are enough.
            common = f"log_path={report}:exitcode={self.EXIT_CODES[0]}"
            return {
                "ASAN_OPTIONS": f"{common}:detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=10:detect_stack_use_after_return=1",
                "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
                "LSAN_OPTIONS": f"suppressions={self.files / 'leaks.supp'}:print_suppressions=0",
            }
        if self.kind == "thread":
            return {"TSAN_OPTIONS": f"log_path={report}:exitcode={self.EXIT_CODES[1]}:ignore_noninstrumented_modules=1:"
                                    f"suppressions={self.files / 'threads.supp'}:print_suppressions=0"}
        return {}

    @functools.cached_property
    def preload(self):
        """The environment of a program that is not sanitized and loads what is."""
        runtime = {"address": "libasan.so", "thread": "libtsan.so"}.get(self.kind)
        if runtime is None:
            return {}
        # The runtime looks for the functions of the C++ library when it starts.
        return {"LD_PRELOAD": ":".join(self._library(name) for name in (runtime, "libstdc++.so"))}

    def _library(self, name):
        command = [self.compiler.group(1) if self.compiler else "c++", f"-print-file-name={name}"]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()
