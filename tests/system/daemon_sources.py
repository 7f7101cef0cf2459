"""The sources of the daemon and of its platform, as the tests read them."""

import re
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from testing.tree import ROOT


class Call(NamedTuple):
    place: str
    arguments: list[str]
    name: str


TOKEN = r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|//[^\n]*|/\*.*?\*/'


def blank_comment(token: re.Match) -> str:
    return re.sub(r"[^\n]", " ", token[0]) if token[0].startswith("/") else token[0]


def split_arguments(text: str, begin: int) -> list[str]:
    """The arguments of a call, from behind its opening parenthesis on."""
    arguments, depth, start = [], 0, begin
    for token in re.compile(rf"{TOKEN}|[()\[\]{{}},]", re.DOTALL).finditer(text, begin):
        if depth == 0 and token[0] in (",", ")"):
            arguments.append(" ".join(text[start : token.start()].split()))
            start = token.end()
        if token[0] == ")" and depth == 0:
            return arguments
        depth += (token[0] in "([{") - (token[0] in ")]}") if len(token[0]) == 1 else 0
    raise AssertionError(f"no end of the call: {text[begin:begin + 80]}")


class Source:
    """A file of the daemon or of its platform, without its comments."""

    def __init__(self, path: Path) -> None:
        self.name = str(path.relative_to(ROOT))
        self.text = re.sub(TOKEN, blank_comment, path.read_text(), flags=re.DOTALL)
        own_header = path.with_suffix(".h")
        shared = own_header.read_text() if own_header.exists() else ""
        definition = r"constexpr (?:const )?[\w:]+(?:\*)? (\w+)\s*(?:=|\()\s*(\"(?:\\.|[^\"\\])*\"|-?\d+)\)?;"
        self.constants = dict(re.findall(definition, shared + self.text))

    def place(self, position: int) -> str:
        return f"{self.name}:{self.text.count(chr(10), 0, position) + 1}"

    def value(self, expression: str) -> str | None:
        """What an expression of literals and constants says; what varies in a sum with them is %s."""
        expression = re.sub(r"\.c_str\(\)", "", expression).strip()
        expression = self.constants.get(expression, expression)
        pieces = re.findall(r'(?:"(?:\\.|[^"\\])*"\s*)+|[\w:.]+', expression)
        if re.sub(r'"(?:\\.|[^"\\])*"|[\w:.]+|[\s+()]', "", expression) or '"' not in expression:
            return None
        return "".join(self._piece(piece) for piece in pieces)

    def _piece(self, piece: str) -> str:
        literals = re.findall(r'"((?:\\.|[^"\\])*)"', self.constants.get(piece, piece))
        return "".join(literals).encode().decode("unicode_escape") if literals else "%s"

    def calls(self, pattern: str) -> Iterator[Call]:
        """Calls only: what declares the function has types for its arguments."""
        for found in re.finditer(rf"({pattern})\(", self.text):
            arguments = split_arguments(self.text, found.end())
            if not re.match(r"const |int ", arguments[0]):
                yield Call(self.place(found.start()), arguments, found[1])


def sources(*folders: str) -> list[Source]:
    paths = [path for folder in folders for path in sorted((ROOT / folder).rglob("*")) if path.suffix in (".h", ".cpp")]
    return [Source(path) for path in paths]


DAEMON = sources("app", "monitor", "env", "event", "source", "handler")
PLATFORM = sources("platform")


def literals(pattern: str, files: list[Source]) -> dict[str, str]:
    """What the pattern's group finds, with the place where it was found first."""
    found: dict[str, str] = {}
    for file in files:
        for match in re.finditer(pattern, file.text):
            found.setdefault(match[1], file.place(match.start()))
    return found
