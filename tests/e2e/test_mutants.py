# SPDX-License-Identifier: Apache-2.0
"""tools/mutants: what it changes, what it leaves alone, what it counts."""
import importlib.util
import subprocess
import sys
import types

import pytest

from gateway import ROOT

sys.path.insert(0, str(ROOT / "tools"))
from mutation import equivalents, programs, switched  # noqa: E402
from mutation.share import bound  # noqa: E402

pytestmark = pytest.mark.embedded

SOURCE = """
#include <string>
static_assert(sizeof(int) == 4);
struct Box { char text[64]; };
int count(const std::string& text, bool whole) {
    int found = 0;
    for (char c : text) {
        if (c < 'a') continue;
        ++found;
    }
    if (const int more = found; whole && more) return 0;
    // found == 7
    return found > 9 ? found : 1;
}
bool empty(const std::string& text) { return text == ""; }
std::string twice(const std::string& text) { return text + text; }
int none() { return {}; }
void prepare(std::string& text) { text.reserve(64); }
"""
USER = """
#include <iostream>
#include <string>
int count(const std::string& text, bool whole);
bool empty(const std::string& text);
std::string twice(const std::string& text);
int main() { std::cout << count("abcdefghijX", false) << ' ' << empty("x") << ' ' << twice("xy") << std::endl; }
"""
CHANGES = [
    (6, "0 -> 1"), (8, "< -> <="), (8, "< -> >="), (8, "continue -> dropped"), (9, "++found -> dropped"),
    (11, "&& -> ||"), (11, "whole && more -> negated"), (11, "0 -> 1"), (13, "> -> >="), (13, "> -> <="), (13, "9 -> 10"),
    (13, "9 -> 8"), (13, "1 -> 2"), (13, "1 -> 0"), (13, "found > 9 ? found : 1 -> 0"), (15, "== -> !="),
    (15, 'text == "" -> negated'), (16, "text + text -> {}"),
]


if importlib.util.find_spec("clang") is not None:  # what only developers install

    def test_the_changes_of_a_file(tmp_path):
        from mutation import points
        path = tmp_path / "source.cpp"
        path.write_text(SOURCE, encoding="utf-8")
        found = points.parse(path, "source.cpp", "c++ -std=c++20 -Wall -c source.cpp -o source.o")
        assert sorted((point.line, point.change) for point in found) == sorted(CHANGES)
        changed = {point.change: point.applied(path.read_bytes()).decode() for point in found}
        assert changed["continue -> dropped"] == SOURCE.replace("continue;", "(void)0;")
        assert changed["whole && more -> negated"] == SOURCE.replace("whole && more", "!(whole && more)")
        assert changed["9 -> 8"] == SOURCE.replace("> 9 ?", "> 8 ?")

    def test_nothing_is_behind_the_last_break_of_a_switch(tmp_path):
        from mutation import points
        path = tmp_path / "source.cpp"
        path.write_text("""
            void count(int kind, int& found) {
                for (;;) {
                    switch (kind) {
                        case 0: ++found; break;
                        default: { ++found; break; }
                    }
                    switch (kind) {
                        case 1: ++found;
                        default: continue;
                    }
                    break;
                }
            }""", encoding="utf-8")
        found = points.parse(path, "source.cpp", "c++ -std=c++20 -c source.cpp -o source.o")
        assert [(point.line, point.change) for point in found if point.change.startswith(("break", "continue"))] == [
            (5, "break -> dropped"), (10, "continue -> dropped"), (12, "break -> dropped")]

    def test_the_condition_of_a_macro_is_not_changed(tmp_path):
        from mutation import points
        path = tmp_path / "source.cpp"
        path.write_text("#define TELL(a) do { if (a) tell(); } while (0)\nvoid tell();\n"
                        "void count(bool some) {\n    if (some) TELL(some);\n}\n", encoding="utf-8")
        found = points.parse(path, "source.cpp", "c++ -std=c++20 -c source.cpp -o source.o")
        assert [point.change for point in found if "negated" in point.change] == ["some -> negated"]

    def test_what_is_known_of_a_file_is_not_looked_for_again(tmp_path):
        from mutation import points
        path = tmp_path / "source.cpp"
        path.write_text(SOURCE, encoding="utf-8")
        command = "c++ -std=c++20 -c source.cpp -o source.o"
        first = points.points_of(path, "source.cpp", command, tmp_path / "points")
        (kept,) = (tmp_path / "points").iterdir()
        assert points.points_of(path, "source.cpp", command, tmp_path / "points") == first
        path.write_text(SOURCE.replace("9", "10"), encoding="utf-8")
        assert points.points_of(path, "source.cpp", command, tmp_path / "points") != first
        assert kept.exists()

    def test_a_file_stands_for_all_of_its_changes(tmp_path):
        from mutation import points
        path, command = tmp_path / "source.cpp", "c++ -std=c++20 -c source.cpp -o source.o"
        path.write_text(SOURCE, encoding="utf-8")
        numbered = dict(enumerate(points.parse(path, "source.cpp", command), 1))
        assert not [point for point in numbered.values() if not point.body]
        assert set(switched.function_of(numbered).values()) == {first(numbered, line) for line in (6, 15, 16)}

        (tmp_path / "all.cpp").write_bytes(switched.source_with(SOURCE.encode(), "source.cpp", numbered))
        (tmp_path / "main.cpp").write_text(USER, encoding="utf-8")
        made = ["c++", "-std=c++20", "-w", "main.cpp", "all.cpp", ROOT / "tools/mutation/chosen.cpp", "-o", "all"]
        subprocess.run(made, cwd=tmp_path, check=True)

        def says(**environment):
            return subprocess.run([tmp_path / "all"], env=environment, capture_output=True, text=True, check=True).stdout
        assert says() == "10 0 xyxy\n"
        dropped, negated, empty = (number for number, point in numbered.items() if point.change in (
            "continue -> dropped", 'text == "" -> negated', "text + text -> {}"))
        assert says(MUTATION_CHANGE=str(dropped)) == "11 0 xyxy\n"
        assert says(MUTATION_CHANGE=str(negated)) == "10 1 xyxy\n"
        assert says(MUTATION_CHANGE=str(empty)) == "10 0 \n"

        says(MUTATION_REACHED=str(tmp_path / "reached"))
        assert switched.tests_of((tmp_path / "reached").read_text(encoding="utf-8")) == (
            {first(numbered, line): ([], ["*"]) for line in (6, 15, 16)}, [])

    def test_what_a_function_tries_is_its_body(tmp_path):
        from mutation import points
        path = tmp_path / "source.cpp"
        path.write_text("int tried(int x) try { return x + 3; } catch (...) { return 5; }\n", encoding="utf-8")
        found = points.parse(path, "source.cpp", "c++ -std=c++20 -c source.cpp -o source.o")
        assert {point.change: bool(point.body) for point in found} == {
            "x + 3 -> 0": True, "3 -> 4": True, "3 -> 2": True, "5 -> 0": False, "5 -> 6": False, "5 -> 4": False}

    def test_a_change_that_does_not_compile_is_left_out(tmp_path):
        from mutation import points
        path, text = tmp_path / "source.cpp", SOURCE + "struct Whole { Whole(int); }; Whole whole() { return Whole(7); }\n"
        path.write_text(text, encoding="utf-8")
        numbered = dict(enumerate(points.parse(path, "source.cpp", "c++ -std=c++20 -c source.cpp -o source.o"), 1))
        (wrong,) = (number for number, point in numbered.items() if point.change == "Whole(7) -> {}")

        def complaints(*left_out):
            path.write_bytes(switched.source_with(text.encode(), "source.cpp", numbered, left_out))
            return subprocess.run(["c++", "-std=c++20", "-w", "-fsyntax-only", path], capture_output=True, text=True).stderr
        assert switched.at_fault(complaints()) == {wrong}
        assert complaints(wrong) == ""


def first(numbered, line):
    return min(number for number, point in numbered.items() if point.line >= line)


def test_who_reaches_a_function():
    told = "* 0 1 2\nA.b 5 1 3\n!A.fails 5 4\nC.d 500 3\n* 0 5\n"
    assert switched.tests_of(told) == (
        {1: (["A.b"], []), 2: ([], ["*"]), 3: (["A.b"], ["C.d"]), 5: ([], ["*"])}, ["A.fails"])


def test_memory_that_nothing_points_to_is_noticed(tmp_path):
    (tmp_path / "main.cpp").write_text(
        "#include <cstdlib>\nvoid* volatile kept;\n"
        "int main(int count, char**) { for (int i = 0; i < count; ++i) kept = std::malloc(64 + 64 * i); }\n", encoding="utf-8")
    bench = programs.Bench(types.SimpleNamespace(folder=tmp_path), tmp_path / "bench", ROOT)

    def program(*arguments):
        return programs.Program("test", ["c++", str(tmp_path / "main.cpp"), "-o", "test"], {}, list(arguments))
    keeps, loses = program(), program("once", "more", "often")
    test = bench.link(keeps, {}, tmp_path / "test", programs.LEAKS)
    assert bench.leaks_nothing(keeps, test, ["*"], 60)
    assert not bench.leaks_nothing(loses, test, ["*"], 60)
    assert bench.passes(loses, bench.link(loses, {}, tmp_path / "other"), ["*"], 60)


@pytest.mark.parametrize("survivors, tried, share", [(0, 600, 0.00498), (3, 600, 0.01286), (6, 600, 0.01964), (7, 7, 1.0)])
def test_the_upper_bound_of_a_share(survivors, tried, share):
    assert abs(bound(survivors, tried) - share) < 0.0001


# ---- what is explained

def test_each_explanation_is_of_a_line_that_is_there():
    explained = equivalents.read(ROOT / "tools/mutants-equivalent.txt")
    assert explained
    assert equivalents.stale(explained, ROOT) == []


def test_an_explanation_names_file_line_change_and_reason(tmp_path):
    file = tmp_path / "list.txt"
    file.write_text("# a comment\n\na/b.cpp: if (x: y)\n    < -> <=\n    Since so,\n    and so.\n", encoding="utf-8")
    assert equivalents.read(file) == [equivalents.Equivalent("a/b.cpp", "if (x: y)", "< -> <=", "Since so, and so.")]
    assert equivalents.stale(equivalents.read(file), tmp_path) == equivalents.read(file)


def test_an_explanation_may_be_of_any_change_of_a_line():
    class Point:
        file, text, change = "a.cpp", "x = 1;", "1 -> 2"
    named = [equivalents.Equivalent("a.cpp", text, change, "why").names(Point) for text, change in (
        ("x = 1;", "1 -> 2"), ("x = 1;", "any"), ("x = 1;", "1 -> 0"), ("y = 1;", "any"))]
    assert named == [True, True, False, False]


@pytest.mark.parametrize("text", ["a.cpp: x\n    dropped\n", "    a.cpp: x\n    dropped\n    why\n", "a.cpp: x\ndropped\n    why\n"])
def test_a_malformed_explanation_is_refused(tmp_path, text):
    file = tmp_path / "list.txt"
    file.write_text(text, encoding="utf-8")
    with pytest.raises(ValueError):
        equivalents.read(file)
