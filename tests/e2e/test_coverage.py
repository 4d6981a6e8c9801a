# SPDX-License-Identifier: Apache-2.0
"""tools/coverage: which lines count, and where they are told."""
import shutil
import subprocess

import pytest

from gateway import ROOT

pytestmark = pytest.mark.embedded

SOURCES = {
    "agent/ad/net/sign.h": """#pragma once
inline int half(int number) {
    return number / 2;
}
int sign(int number);
""",
    "agent/ad/sign.cpp": """#include "agent/ad/net/sign.h"
int sign(int number) {
    if (number < 0)
        return -half(2);
    return 1;
}
""",
    "cache/zero.cpp": """#include "agent/ad/net/sign.h"
int zero() {
    return half(1);
}
""",
    "agent/ad/sign_test.cpp": """#include "agent/ad/net/sign.h"
#include "agent/ad/numbers_testing.h"
int zero();
int main(int count, char**) {
    return count > 1 ? sign(given()) + zero() + 1 : sign(1) - 1;
}
""",
    "agent/ad/numbers_testing.h": """#pragma once
inline int given() {
    return -1;
}
""",
}
PROGRAM = "build/coverage/sign_test"


@pytest.fixture(scope="module")
def compiled(tmp_path_factory):
    root = tmp_path_factory.mktemp("tree")
    for name, text in SOURCES.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text, encoding="utf-8")
    (root / PROGRAM).parent.mkdir(parents=True)
    subprocess.run(["g++", "-O0", "--coverage", "-I", root, *(root / name for name in SOURCES if name.endswith(".cpp")),
                    "-o", root / PROGRAM], check=True, cwd=root / "build/coverage")
    return root


@pytest.fixture
def tree(compiled):
    """A source tree whose one test runs all lines when it is given a word. It has not run."""
    for counts in compiled.rglob("*.gcda"):
        counts.unlink()
    return compiled


def run_tests_are(tree, *lines):
    (tree / "tools").mkdir(exist_ok=True)
    (tree / "tools/run-tests").write_text("\n".join(("#!/bin/sh", *lines, "")), encoding="utf-8")
    (tree / "tools/run-tests").chmod(0o755)


def coverage(tree, *words):
    return subprocess.run([ROOT / "tools/coverage", "--root", tree, *words], capture_output=True, text=True, timeout=60)


def rows(text):
    """The table's rows: files, lines, lines that were run, share."""
    table = text.partition("\n\n")[0].splitlines()[1:]
    return {line[:20].strip(): tuple(line[20:].replace("%", "").split()) for line in table}


if shutil.which("gcovr"):  # what only developers install

    def test_a_line_counts_where_a_test_compiled_it_and_is_run_where_one_ran_it(tree):
        subprocess.run([tree / PROGRAM, "all"], check=True)
        result = coverage(tree, "--counted")
        assert result.returncode == 0, result.stderr
        assert rows(result.stdout) == {
            "agent/ad": ("1", "4", "3", "75.0"), "agent/ad/net": ("1", "2", "2", "100.0"), "cache": ("1", "2", "2", "100.0"),
            "all of agent/ad": ("2", "6", "5", "83.3"), "the agent": ("2", "6", "5", "83.3"),
            "the module": ("1", "2", "2", "100.0"), "all": ("3", "8", "7", "87.5")}
        assert result.stdout.split("runs:\n")[1].splitlines()[0].split() == ["agent/ad/sign.cpp", "1", "of", "4"]

    def test_what_no_test_runs_counts_too(tree):
        assert rows(coverage(tree, "--counted").stdout)["cache"] == ("1", "2", "0", "0.0")

    def test_counts_of_an_earlier_run_are_forgotten(tree):
        subprocess.run([tree / PROGRAM, "all"], check=True)
        run_tests_are(tree, f'[ "$*" = "coverage --unit" ] && {tree / PROGRAM}')
        result = coverage(tree)
        assert result.returncode == 0, result.stderr
        assert rows(result.stdout)["all of agent/ad"] == ("2", "6", "3", "50.0")
        assert rows(result.stdout)["cache"] == ("1", "2", "0", "0.0")

    def test_the_table_is_kept_and_each_line_shown(tree):
        table = coverage(tree, "--counted").stdout
        assert (tree / "build/coverage/coverage.txt").read_text(encoding="utf-8") == table
        shown = {page.name for page in (tree / "build/coverage/lines").glob("index.*.html")}
        assert any("sign.cpp" in name for name in shown) and not any("_test" in name for name in shown)

    def test_a_failing_test_is_told_and_the_table_shown(tree):
        run_tests_are(tree, "exit 1")
        result = coverage(tree)
        assert result.returncode == 1
        assert "the module" in rows(result.stdout)
