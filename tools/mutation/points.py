# SPDX-License-Identifier: Apache-2.0
"""Where a source file can be changed, found on clang's syntax tree.

A point is one small change: at an offset of the file so many bytes give way to others.
"""
import dataclasses
import hashlib
import json
import pathlib
import re
import shlex

from clang import cindex
from clang.cindex import CursorKind, TypeKind

BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPPOSITE = {"<": ">=", "<=": ">", ">": "<=", ">=": "<", "==": "!=", "!=": "==", "&&": "||", "||": "&&"}
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.FUNCTION_TEMPLATE, CursorKind.CONVERSION_FUNCTION,
             CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR)
CONDITIONS = (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.CXX_FOR_RANGE_STMT)
LABELED = (CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)
BODIES = CONDITIONS + (CursorKind.DO_STMT, CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)
SIGNED = (CursorKind.BINARY_OPERATOR, CursorKind.CALL_EXPR)  # a call: of an overloaded operator
NOTHING = re.compile(r"0|\w*(_OK|_SUCCESS)|kAccepted|kHit")  # what a zero is called
KEPT_FLAGS = ("-I", "-D", "-isystem", "-std")


@dataclasses.dataclass(frozen=True)
class Point:
    file: str  # below the root of the tree
    offset: int
    length: int
    new: str
    change: str  # "old -> new", blanks folded
    line: int
    text: str  # the line, without the blanks around it
    body: tuple = ()  # where the function's body around it begins and ends; none for what no function holds

    def applied(self, source):
        return source[:self.offset] + self.new.encode() + source[self.offset + self.length:]


def fold(text, most=60):
    text = " ".join(text.split())
    return text if len(text) <= most else text[:most - 3] + "..."


def numberless(text):
    return re.fullmatch(r"(\d+)([uUlL]*)", text)


class Finder:
    """Collects the points of one file."""

    def __init__(self, file, source):
        self.file, self.source = file, source
        self.lines = source.decode(errors="replace").splitlines()
        self.points = []
        self.results = []  # the result types of the functions around the cursor
        self.body = ()  # of the outermost function around the cursor
        self.lastBreaks = set()  # where a "break" stands that skips nothing of its switch

    def text(self, start, end):
        return self.source[start:end].decode(errors="replace")

    def of(self, cursor):
        return self.text(cursor.extent.start.offset, cursor.extent.end.offset)

    def add(self, start, end, new, what=None):
        line = self.source.count(b"\n", 0, start) + 1
        change = f"{fold(self.text(start, end))} -> {what or new}"
        inside = self.body if self.body and self.body[0] < start < self.body[1] else ()
        self.points.append(Point(self.file, start, end - start, new, change, line, self.lines[line - 1].strip(), inside))

    def replace(self, cursor, new, what=None):
        start, end = cursor.extent.start.offset, cursor.extent.end.offset
        if start < end:
            self.add(start, end, new, what)

    # ---------------------------------------------------------------- kinds

    def between(self, cursor):
        """Where the sign between the two sides of an expression may stand."""
        sides = [child for child in cursor.get_children() if child.kind.is_expression()]
        if cursor.kind not in SIGNED or len(sides) not in (2, 3):
            return 0, 0
        return sides[0].extent.end.offset, sides[-1].extent.start.offset

    def sign(self, cursor):
        """The comparison or connective of an expression with two sides, or none."""
        sign = self.text(*self.between(cursor)).strip()
        return sign if sign in OPPOSITE else None

    def operator(self, cursor):
        sign, (start, end) = self.sign(cursor), self.between(cursor)
        if sign is None:
            return
        at = start + self.source[start:end].index(sign.encode())
        for table in (BOUNDARY, OPPOSITE):
            if sign in table:
                self.add(at, at + len(sign), table[sign])

    def condition(self, cursor):
        """The condition of a statement, unless it declares something or a macro has it."""
        if not self.of(cursor).startswith(("if", "while")):
            return
        inside = [child for child in cursor.get_children() if child.kind.is_expression()]
        if cursor.kind in (CursorKind.FOR_STMT, CursorKind.CXX_FOR_RANGE_STMT) or not inside:
            return
        before = self.text(cursor.extent.start.offset, inside[0].extent.start.offset).partition("(")[2].strip()
        if not before or before.endswith(";"):
            self.negate(inside[0])

    def choice(self, cursor):
        condition = next(cursor.get_children(), None)
        if condition is not None:
            self.negate(condition)

    def negate(self, condition):
        """But a comparison's opposite is its negation, and is there already."""
        if self.sign(condition) in (None, "&&", "||"):
            self.replace(condition, f"!({self.of(condition)})", "negated")

    def statement(self, cursor):
        """A statement that gives no value, and declares nothing."""
        if cursor.kind in (CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT):
            if cursor.extent.start.offset not in self.lastBreaks:
                self.replace(cursor, "(void)0", "dropped")
        elif cursor.kind.is_expression() and not self.of(cursor).startswith("static_cast<void>"):
            self.replace(cursor, "(void)0", "dropped")
        elif cursor.kind == CursorKind.RETURN_STMT and next(cursor.get_children(), None) is None:
            self.replace(cursor, "(void)0", "dropped")

    def number(self, cursor):
        match = numberless(self.of(cursor))
        if match is None:
            return
        value, suffix = int(match[1], 8 if re.fullmatch("0[0-7]+", match[1]) else 10), match[2]
        self.replace(cursor, f"{value + 1}{suffix}")
        if value > 0:
            self.replace(cursor, f"{value - 1}{suffix}")

    def result(self, cursor):
        value = next(cursor.get_children(), None)
        kind = self.results[-1].kind if self.results else TypeKind.INVALID
        if value is None or kind in (TypeKind.INVALID, TypeKind.VOID):
            return
        old = self.of(value)
        if kind == TypeKind.BOOL:
            if old not in ("true", "false"):  # changed as constants
                self.replace(value, f"!({old})", "negated")
            return
        if kind == TypeKind.POINTER:
            new = "nullptr"
        elif kind in (TypeKind.RECORD, TypeKind.UNEXPOSED, TypeKind.ELABORATED):
            new = "{}"
        elif TypeKind.CHAR_U.value <= kind.value <= TypeKind.LONGDOUBLE.value:
            new = "1" if NOTHING.fullmatch(old) else "0"
        else:
            return
        if old not in ("{}", "std::nullopt", "nullptr", '""', new):
            self.replace(value, new)

    # ---------------------------------------------------------------- walk

    def walk(self, cursor, parent=None):
        kind = cursor.kind
        if kind == CursorKind.CALL_EXPR and re.match(r"\w+\.reserve\(", self.of(cursor)):
            return  # room that is made at once instead of little by little: nobody can tell
        if parent is not None and (parent.kind == CursorKind.COMPOUND_STMT or parent.kind in BODIES):
            self.child(cursor, parent)
        if kind in SIGNED:
            self.operator(cursor)
        elif kind in CONDITIONS:
            self.condition(cursor)
        elif kind == CursorKind.SWITCH_STMT:
            self.switch(cursor)
        elif kind == CursorKind.CONDITIONAL_OPERATOR:
            self.choice(cursor)
        elif kind == CursorKind.INTEGER_LITERAL:
            self.number(cursor)
        elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR and self.of(cursor) in ("true", "false"):
            self.replace(cursor, "false" if self.of(cursor) == "true" else "true")
        elif kind == CursorKind.RETURN_STMT:
            self.result(cursor)
        self.inside(cursor)

    def child(self, cursor, parent):
        if parent.kind == CursorKind.COMPOUND_STMT:
            self.statement(cursor)
            return
        *_, last = parent.get_children()
        if cursor == last or not cursor.kind.is_expression():
            self.statement(cursor)
        elif parent.kind == CursorKind.IF_STMT and cursor != self.firstExpression(parent):
            self.statement(cursor)  # what stands before an "else"

    def switch(self, cursor):
        """A "break" at its end is dropped in vain: nothing is behind it."""
        last, inside = cursor, [*cursor.get_children()]
        while inside:
            last = inside[-1]
            inside = [*last.get_children()] if last.kind in LABELED else []
        if last.kind == CursorKind.BREAK_STMT:
            self.lastBreaks.add(last.extent.start.offset)

    @staticmethod
    def firstExpression(cursor):
        return next((child for child in cursor.get_children() if child.kind.is_expression()), None)

    def body_of(self, cursor):
        """Of a function that runs: none for one of which the compiler may have to know the result."""
        for child in cursor.get_children():
            if child.kind == CursorKind.CXX_TRY_STMT:
                child = next(child.get_children())
            if child.kind == CursorKind.COMPOUND_STMT:
                start, end = child.extent.start.offset, child.extent.end.offset
                head = self.text(cursor.extent.start.offset, start)
                return () if re.search(r"\b(constexpr|consteval)\b", head) else (start, end)
        return ()

    def inside(self, cursor):
        """What stands below: not what other files hold, nor what is checked at compile time."""
        if cursor.kind == CursorKind.STATIC_ASSERT:
            return
        function = cursor.result_type if cursor.kind in FUNCTIONS else None
        outermost = cursor.kind in FUNCTIONS and not self.body
        if outermost:
            self.body = self.body_of(cursor)
        if cursor.kind == CursorKind.LAMBDA_EXPR:
            function = cindex.Type()  # not known here: no result is replaced
            function._kind_id = TypeKind.INVALID.value
        if function is not None:
            self.results.append(function.get_canonical() if function.kind != TypeKind.INVALID else function)
        bound = cursor.kind in (CursorKind.VAR_DECL, CursorKind.FIELD_DECL) and cursor.type.kind == TypeKind.CONSTANTARRAY
        for child in cursor.get_children():
            if bound and child.kind == CursorKind.INTEGER_LITERAL:
                continue
            self.walk(child, cursor)
        if function is not None:
            self.results.pop()
        if outermost:
            self.body = ()


def flags_of(command):
    words = shlex.split(command)
    flags = []
    for i, word in enumerate(words):
        if word.startswith(KEPT_FLAGS):
            flags.append(word)
            if word == "-isystem":
                flags.append(words[i + 1])
    return flags


def parse(path, file, command):
    """The points of one file, in their order."""
    source = pathlib.Path(path).read_bytes()
    tree = cindex.Index.create().parse(str(path), args=flags_of(command))
    broken = [str(one) for one in tree.diagnostics if one.severity >= cindex.Diagnostic.Error]
    if broken:
        raise ValueError(f"{file}: {broken[0]}")
    finder = Finder(file, source)
    for cursor in tree.cursor.get_children():
        if cursor.location.file is not None and cursor.location.file.name == str(path):
            finder.walk(cursor)
    return sorted(set(finder.points), key=lambda point: (point.offset, point.length, point.new))


def points_of(path, file, command, cache):
    """The same, from the cache when the file, its headers' names and this script are as they were."""
    key = hashlib.sha256(pathlib.Path(path).read_bytes() + pathlib.Path(__file__).read_bytes()
                         + shlex.join(flags_of(command)).encode()).hexdigest()[:32]
    kept = pathlib.Path(cache) / f"{key}.json"
    if kept.exists():
        return [Point(**{**one, "body": tuple(one["body"])}) for one in json.loads(kept.read_text(encoding="utf-8"))]
    points = parse(path, file, command)
    kept.parent.mkdir(parents=True, exist_ok=True)
    kept.write_text(json.dumps([dataclasses.asdict(point) for point in points]), encoding="utf-8")
    return points
