"""tools/mutants: what it changes, what it leaves alone, what it counts."""
import importlib.util
import sys

import pytest

from gateway import ROOT

sys.path.insert(0, str(ROOT / "tools"))
from mutation import equivalents  # noqa: E402
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


@pytest.mark.parametrize("text", ["a.cpp: x\n    dropped\n", "    a.cpp: x\n    dropped\n    why\n", "a.cpp: x\ndropped\n    why\n"])
def test_a_malformed_explanation_is_refused(tmp_path, text):
    file = tmp_path / "list.txt"
    file.write_text(text, encoding="utf-8")
    with pytest.raises(ValueError):
        equivalents.read(file)
