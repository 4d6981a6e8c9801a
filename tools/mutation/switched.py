# SPDX-License-Identifier: Apache-2.0
"""A source file with many changes at once, of which one is chosen when the program runs.

The body of a function stands there once for each of its changes, and once as it is. What
mutation_change (chosen.cpp) is asked with is the number of the function's first change: so it
also knows which functions a test reaches.
"""
import itertools
import re

SLOW_MS = 100  # tests that take longer are asked last
HEAD = """#ifdef __cplusplus
extern "C"
#endif
int mutation_change(int function);
#line 1 "{file}"
"""


def bodies(numbered):
    """The changes of each body, by their numbers; what no function holds is left out."""
    inside = sorted(((point.body, number, point) for number, point in numbered.items() if point.body),
                    key=lambda one: one[:2])
    return [(body, [(number, point) for _, number, point in group])
            for body, group in itertools.groupby(inside, key=lambda one: one[0])]


def function_of(numbered):
    """The number that each change's function is called by."""
    return {number: changes[0][0] for _, changes in bodies(numbered) for number, _ in changes}


def source_with(source, file, numbered, left_out=()):
    """The file with the numbered changes (number: point), but for those that do not compile."""
    text, kept = [HEAD.format(file=file).encode()], 0
    for (start, end), changes in bodies(numbered):
        text.append(source[kept:start])
        text.append(switch(source, file, (start, end), changes, left_out))
        kept = end
    return b"".join([*text, source[kept:]])


def switch(source, file, body, changes, left_out):
    start, end = body
    first, last = (source.count(b"\n", 0, offset) + 1 for offset in (start, end))

    def variant(label, name, text):
        return f'\n{label}:\n#line {first} "{name}"\n'.encode() + text + b"\nbreak;"
    cases = [variant(f"case {number}", f"change{number}", point.applied(source)[start:end + len(point.new) - point.length])
             for number, point in changes if number not in left_out]
    return b"".join([f"{{ switch (mutation_change({changes[0][0]})) {{".encode(), *cases,
                     variant("default", file, source[start:end]), f'\n}} }}\n#line {last} "{file}"\n'.encode()])


def at_fault(complaints):
    """The numbers of the changes that a compiler complains of."""
    return {int(number) for line in complaints.splitlines() if "error:" in line or "required from" in line
            for number in re.findall(r"\bchange(\d+):\d+", line)}


def tests_of(reached):
    """The tests that reach each function, by its number, of what chosen.cpp writes, as the quick and
    the slow ones; and the tests that failed. What is called outside of every test counts for
    functions that none reaches."""
    found, slow, failed = {}, {"*"}, []
    for line in reached.splitlines():
        test, milliseconds, *functions = line.split()
        if test.startswith("!"):
            failed.append(test[1:])
            continue
        if int(milliseconds) > SLOW_MS:
            slow.add(test)
        for function in functions:
            found.setdefault(int(function), set()).add(test)

    def parted(tests):
        tests = tests - {"*"} or {"*"}
        return sorted(tests - slow), sorted(tests & slow)
    return {function: parted(tests) for function, tests in found.items()}, failed
