"""Finds what can be changed in a C++ file, and writes the file with every change in it, each behind a switch.

A mutant is one small change, such as `>=` made `>`. All mutants of a file are compiled at once: `HALVEK_MUTANT(n)` is
true in a process that was told to be mutant n, and notes that it was asked, so that one knows which test gets there.
"""

import re
from bisect import bisect_right
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from clang.cindex import Cursor, CursorKind, Index, TypeKind

SWITCH = "HALVEK_MUTANT"
NUMBER, INNER = "\x01", "\x02"

RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGICAL = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<", "&": "|"}
COMPOUND = {"+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|=", "<<=": ">>=", ">>=": "<<="}

NUMBERS = {
    kind
    for name, kind in vars(TypeKind).items()
    if name in {"BOOL", "CHAR_S", "SCHAR", "UCHAR", "SHORT", "USHORT", "INT", "UINT", "LONG", "ULONG", "LONGLONG",
                "ULONGLONG", "FLOAT", "DOUBLE", "ENUM"}
}  # fmt: skip
STATEMENTS = {
    CursorKind.CALL_EXPR,
    CursorKind.UNEXPOSED_EXPR,
    CursorKind.BINARY_OPERATOR,
    CursorKind.COMPOUND_ASSIGNMENT_OPERATOR,
    CursorKind.UNARY_OPERATOR,
    CursorKind.CXX_STATIC_CAST_EXPR,
    CursorKind.CXX_DELETE_EXPR,
    CursorKind.CXX_THROW_EXPR,
    CursorKind.BREAK_STMT,
    CursorKind.CONTINUE_STMT,
}
FUNCTIONS = {
    CursorKind.FUNCTION_DECL,
    CursorKind.CXX_METHOD,
    CursorKind.CONSTRUCTOR,
    CursorKind.DESTRUCTOR,
    CursorKind.CONVERSION_FUNCTION,
    CursorKind.FUNCTION_TEMPLATE,
    CursorKind.LAMBDA_EXPR,
}


@dataclass
class Mutant:
    file: str
    line: int
    text: str  # of the line where it begins, without the blanks around it
    what: str  # is changed, with a number behind it where one line of text has several
    number: int = 0  # of the switch, within the file

    @property
    def key(self) -> str:
        return f"{self.file} | {self.text} | {self.what}"


@dataclass
class Site:
    """A stretch of the file, and what is written there: NUMBER stands for the switch, INNER for what was there."""

    begin: int
    end: int
    form: str
    mutant: Mutant | None = None  # none where the original must be made ready for a mutant before `reach`
    reach: int = 0


class Maker:
    def __init__(self, name: str, path: Path, arguments: list[str]) -> None:
        self.name = name
        self.source = path.read_bytes()
        self.line_starts = [0] + [match.end() for match in re.finditer(rb"\n", self.source)]
        self.sites: list[Site] = []
        self._seen: Counter[tuple[str, str]] = Counter()
        unit = Index.create().parse(str(path), ["-x", "c++", *arguments])
        errors = [str(message) for message in unit.diagnostics if message.severity >= 3]
        if errors:
            raise RuntimeError(f"{name}: {errors[0]}")
        for cursor in unit.cursor.get_children():
            if cursor.location.file and cursor.location.file.name == str(path):
                self._visit(cursor, [])
        self.sites.sort(key=lambda site: (site.begin, -site.end))
        for number, mutant in enumerate(self.mutants()):
            mutant.number = number
            self._seen[mutant.text, mutant.what] += 1
            if (count := self._seen[mutant.text, mutant.what]) > 1:
                mutant.what += f" ({count})"

    def mutants(self) -> Iterator[Mutant]:
        for site in self.sites:
            if site.mutant is not None:
                yield site.mutant

    def schemata(self, base: int, left_out: set[str]) -> str:
        """The file with all mutants but those left out, line by line; the first switch is number `base`."""
        chosen = [site for site in self.sites if site.mutant is not None and site.mutant.key not in left_out]
        begins = [site.begin for site in chosen]
        chosen += [
            site
            for site in self.sites
            if site.mutant is None and any(site.begin < begin < site.reach for begin in begins)
        ]
        chosen.sort(key=lambda site: (site.begin, -site.end))
        text, rest = self._render(base, 0, len(self.source), chosen)
        assert not rest
        return text

    # --- writing

    def _render(self, base: int, begin: int, end: int, sites: list[Site]) -> tuple[str, list[Site]]:
        """The text from begin to end with the sites in it, which are in order; and the sites behind it."""
        parts = []
        position = begin
        while sites and sites[0].end <= end:
            site, *sites = sites
            if site.begin < position:  # overlaps what has been written: nothing that could be told apart
                continue
            parts.append(self._slice(position, site.begin))
            inner, sites = self._render(base, site.begin, site.end, sites)
            number = str(base + site.mutant.number) if site.mutant is not None else ""
            parts.append(site.form.replace(NUMBER, number).replace(INNER, inner))
            position = site.end
        parts.append(self._slice(position, end))
        return "".join(parts), sites

    def _slice(self, begin: int, end: int) -> str:
        return self.source[begin:end].decode()

    # --- finding

    def _text(self, cursor: Cursor) -> str:
        return self._slice(cursor.extent.start.offset, cursor.extent.end.offset)

    def _add(self, begin: int, end: int, what: str, form: str) -> None:
        line = bisect_right(self.line_starts, begin)
        line_end = self.source.find(b"\n", begin)
        text = self._slice(self.line_starts[line - 1], line_end).strip()
        self.sites.append(Site(begin, end, form, Mutant(self.name, line, text, " ".join(what.split()))))

    def _replace(self, begin: int, end: int, what: str, other: str) -> None:
        other = " ".join(other.split("\n"))
        self._add(begin, end, what, f"({SWITCH}({NUMBER}) ? ({other}) : ({INNER}))")

    def _visit(self, cursor: Cursor, parents: list[Cursor]) -> None:
        if not cursor.extent.start.file or cursor.extent.start.file.name != cursor.translation_unit.spelling:
            return
        kind = cursor.kind
        if kind == CursorKind.VAR_DECL and "constexpr" in self._text(cursor).split("=")[0]:
            self._loosen(cursor)
        if kind == CursorKind.BINARY_OPERATOR:
            self._binary(cursor)
        elif kind == CursorKind.COMPOUND_ASSIGNMENT_OPERATOR:
            self._assignment(cursor)
        elif kind == CursorKind.UNARY_OPERATOR:
            self._unary(cursor)
        elif kind == CursorKind.CALL_EXPR:
            self._call(cursor)
        elif kind in {CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR}:
            self._condition(cursor)
        elif kind == CursorKind.RETURN_STMT:
            self._return(cursor, parents)
        elif kind == CursorKind.DECL_STMT:
            self._guard(cursor, parents)
        elif kind == CursorKind.INTEGER_LITERAL:
            self._integer(cursor)
        elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            old = self._text(cursor)
            if old in {"true", "false"}:
                new = "false" if old == "true" else "true"
                self._replace(*self._extent(cursor), f"{old} -> {new}", new)
        elif kind == CursorKind.CHARACTER_LITERAL:
            self._character(cursor)
        elif kind == CursorKind.STRING_LITERAL:
            self._string(cursor)
        if kind == CursorKind.COMPOUND_STMT:
            for child in cursor.get_children():
                if child.kind in STATEMENTS or child.kind == CursorKind.RETURN_STMT:
                    self._statement(child)
        if kind in {CursorKind.STATIC_ASSERT, CursorKind.ENUM_DECL, CursorKind.ASM_STMT}:
            return
        for child in cursor.get_children():
            self._visit(child, [*parents, cursor])

    def _extent(self, cursor: Cursor) -> tuple[int, int]:
        return cursor.extent.start.offset, cursor.extent.end.offset

    def _loosen(self, cursor: Cursor) -> None:
        """A constant that a mutant may change cannot be one to the compiler."""
        begin, end = self._extent(cursor)
        head = self._slice(begin, end).split("=")[0]
        at = begin + head.index("constexpr")
        if cursor.semantic_parent.kind in {CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL}:
            word = "inline"
        elif "inline" in head:
            word = ""
        else:
            word = "static"
        self.sites.append(Site(at, at + len("constexpr"), word, reach=end))

    def _operands(self, cursor: Cursor) -> tuple[str, str, str] | None:
        """The texts of the left side, of the operator and of the right side, if it is all written out here."""
        children = list(cursor.get_children())
        if len(children) < 2:
            return None
        left, right = children[0], children[-1]
        begin, end = self._extent(cursor)
        if self._extent(left)[0] != begin or self._extent(right)[1] != end:
            return None
        operator = self._slice(self._extent(left)[1], self._extent(right)[0]).strip()
        return self._text(left), operator, self._text(right)

    def _binary(self, cursor: Cursor) -> None:
        if (operands := self._operands(cursor)) is None:
            return
        left, operator, right = operands
        begin, end = self._extent(cursor)
        kinds = [child.type.get_canonical().kind for child in cursor.get_children()]
        if operator in RELATIONAL | LOGICAL:
            other = (RELATIONAL | LOGICAL)[operator]
            self._replace(begin, end, f"{operator} -> {other}", f"{left} {other} {right}")
        elif operator == "|" and left != "O_RDONLY":  # which is no bit
            self._replace(begin, end, f"'| {right}' dropped", left)
            if "|" not in left:
                self._replace(begin, end, f"'{left} |' dropped", right)
        elif operator in ARITHMETIC and all(kind in NUMBERS for kind in kinds):
            other = ARITHMETIC[operator]
            self._replace(begin, end, f"{operator} -> {other}", f"{left} {other} {right}")

    def _assignment(self, cursor: Cursor) -> None:
        if (operands := self._operands(cursor)) is None:
            return
        left, operator, right = operands
        if operator in COMPOUND and cursor.type.get_canonical().kind in NUMBERS:
            other = COMPOUND[operator]
            self._replace(*self._extent(cursor), f"{operator} -> {other}", f"{left} {other} {right}")

    def _unary(self, cursor: Cursor) -> None:
        text = self._text(cursor)
        begin, end = self._extent(cursor)
        if text.startswith("!="):  # an operator == that serves for it
            return
        if text.startswith("!"):
            self._replace(begin, end, "! dropped", f"static_cast<bool>({text[1:]})")
        elif text.startswith("-") and not text.startswith("--"):
            self._replace(begin, end, "- dropped", text[1:])
        else:
            for operator, other in {"++": "--", "--": "++"}.items():
                if text.startswith(operator):
                    self._replace(begin, end, f"{operator} -> {other}", other + text[2:])
                elif text.endswith(operator):
                    self._replace(begin, end, f"{operator} -> {other}", text[:-2] + other)

    def _call(self, cursor: Cursor) -> None:
        called = cursor.referenced
        if called is not None and called.kind == CursorKind.CONSTRUCTOR:
            return
        begin, end = self._extent(cursor)
        if cursor.spelling.startswith("operator"):
            operands = self._operands(cursor)
            if operands is not None and operands[1] in RELATIONAL:
                left, operator, right = operands
                other = RELATIONAL[operator]
                self._replace(begin, end, f"{operator} -> {other}", f"{left} {other} {right}")
            return
        arguments = [child for child in cursor.get_arguments() if child is not None and self._text(child)]
        for position, (first, second) in enumerate(zip(arguments, arguments[1:]), 1):
            if self._kind_of(first) != self._kind_of(second) or self._text(first) == self._text(second):
                continue
            (first_begin, first_end), (second_begin, second_end) = self._extent(first), self._extent(second)
            if not begin <= first_begin < first_end < second_begin < second_end <= end:
                continue
            other = (
                self._slice(begin, first_begin) + self._text(second) + self._slice(first_end, second_begin)
                + self._text(first) + self._slice(second_end, end)
            )  # fmt: skip
            self._replace(begin, end, f"arguments {position} and {position + 1} swapped", other)

    @staticmethod
    def _kind_of(cursor: Cursor) -> str:
        return cursor.type.get_canonical().spelling.replace("const ", "").removesuffix(" &")

    def _condition(self, cursor: Cursor) -> None:
        children = list(cursor.get_children())
        condition = children[0]
        begin, end = self._extent(condition)
        if cursor.kind != CursorKind.CONDITIONAL_OPERATOR:
            opening = self._slice(cursor.extent.start.offset, begin)
            if not re.fullmatch(r"(if|while) \(", opening) or condition.kind in {
                CursorKind.VAR_DECL, CursorKind.DECL_STMT
            }:  # fmt: skip
                return
        self._invert(condition, "condition negated")

    def _invert(self, cursor: Cursor, what: str) -> None:
        """Not where a change of the operator comes to the same."""
        text = self._text(cursor)
        operands = self._operands(cursor)
        if text in {"true", "false"} or text.startswith("!") or (operands and operands[1] in {"==", "!="}):
            return
        begin, end = self._extent(cursor)
        self._add(begin, end, what, f"({SWITCH}({NUMBER}) != static_cast<bool>({INNER}))")

    def _return(self, cursor: Cursor, parents: list[Cursor]) -> None:
        functions = [parent for parent in parents if parent.kind in FUNCTIONS]
        children = list(cursor.get_children())
        if not functions or not children or functions[-1].kind == CursorKind.LAMBDA_EXPR:
            return
        if functions[-1].result_type.get_canonical().kind == TypeKind.BOOL:
            self._invert(children[0], "result inverted")

    def _guard(self, cursor: Cursor, parents: list[Cursor]) -> None:
        """An object that is there for what its construction and destruction do, such as a lock."""
        children = list(cursor.get_children())
        if len(children) != 1 or children[0].kind != CursorKind.VAR_DECL:
            return
        variable = children[0]
        begin, end = self._extent(cursor)
        form = r"(.*?)\b" + re.escape(variable.spelling) + r"\((.*)\);"
        match = re.fullmatch(form, self._slice(begin, end), re.DOTALL)
        kind = variable.type.get_canonical()
        if match is None or kind.kind != TypeKind.RECORD or variable.type.spelling.startswith("std::string"):
            return
        function = [parent for parent in parents if parent.kind in FUNCTIONS][-1]
        if len(re.findall(rf"\b{re.escape(variable.spelling)}\b", self._text(function))) != 1:
            return
        type_name = kind.spelling.removeprefix("const ")
        arguments = match.group(2)
        name = variable.spelling
        self._add(
            begin, end, f"{name} removed",
            f"std::optional<{type_name}> {name}; if (!{SWITCH}({NUMBER})) {{ {name}.emplace({arguments}); }}",
        )  # fmt: skip

    def _integer(self, cursor: Cursor) -> None:
        text = self._text(cursor)
        if not (match := re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlLzZ]*)", text)):
            return
        value = int(match.group(1), 8 if re.fullmatch(r"0[0-7]+", match.group(1)) else 0)
        begin, end = self._extent(cursor)
        for other in {value + 1, value - 1} if value > 1 else {1 - value, value + 1}:
            self._replace(begin, end, f"{text} -> {other}{match.group(2)}", f"{other}{match.group(2)}")

    def _character(self, cursor: Cursor) -> None:
        text = self._text(cursor)
        if re.fullmatch(r"'[^\\']'", text):
            other = "'" + chr(ord(text[1]) + 1) + "'" if text not in {"'&'", "'['"} else "'x'"
            self._replace(*self._extent(cursor), f"{text} -> {other}", other)
        elif re.fullmatch(r"'\\.'", text):
            self._replace(*self._extent(cursor), f"{text} -> 'x'", "'x'")

    def _string(self, cursor: Cursor) -> None:
        """One letter changed; one that belongs to a conversion of a format must stay."""
        text = self._text(cursor)
        if not re.fullmatch(r'"([^"\\]|\\.)*"', text):
            return
        if text == '""':
            self._replace(*self._extent(cursor), '"" -> "x"', '"x"')
            return
        covered = re.sub(r"%[-+ #0-9.lhz*]*[A-Za-z%]|\\.|\"", lambda match: "\0" * len(match.group()), text)
        if not (letters := [at for at, letter in enumerate(covered) if letter != "\0"]):
            return
        at = letters[len(letters) // 2]
        new = "x" if text[at] != "x" else "y"
        other = text[:at] + new + text[at + 1 :]
        self._replace(*self._extent(cursor), f"{text} -> {other}", other)

    def _statement(self, cursor: Cursor) -> None:
        begin, end = self._extent(cursor)
        text = self._text(cursor)
        behind = re.match(rb"\s*;", self.source[end:])
        if behind is None:
            return
        if cursor.kind == CursorKind.RETURN_STMT and text != "return":
            return
        if cursor.kind == CursorKind.BINARY_OPERATOR and not re.search(r"[^=!<>]=[^=]", text):
            return
        word = re.match(r"[^\s(=]*", text).group()
        self._add(
            begin, end + behind.end(), f"statement removed: {word}",
            f"if ({SWITCH}({NUMBER})) {{ }} else {{ {INNER} }}",
        )  # fmt: skip
