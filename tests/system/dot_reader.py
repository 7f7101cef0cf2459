"""Reads a drawing in the language of dot(1): as much of it as halvekctl may write, and nothing that is malformed."""

import re
from typing import NamedTuple

TOKEN = re.compile(
    r"""\s+
    | (?P<quoted> "(?:[^"\\]|\\.)*" )
    | (?P<word> [A-Za-z_][A-Za-z_0-9]* | -?(?:\.[0-9]+|[0-9]+(?:\.[0-9]*)?) )
    | (?P<sign> -> | [][{};,=] )""",
    re.VERBOSE | re.DOTALL,
)
KEYWORDS = {"node", "edge", "graph", "digraph", "subgraph", "strict"}
END = ("end", "")
ESCAPED = {"\\\\": "\\", "&amp;": "&"}


class Graph(NamedTuple):
    """Attributes of each node by its name, and the edges in their order."""

    nodes: dict[str, dict[str, str]]
    edges: list[tuple[str, str, dict[str, str]]]


class Malformed(AssertionError):
    pass


def label_lines(label: str) -> list[str]:
    """The lines that dot draws. A backslash or "&" must stand for itself: the rest is dot's own language."""
    lines = [""]
    for piece in re.findall(r"\\.|&\w+;|.", label, re.DOTALL):
        if piece == r"\n":
            lines.append("")
        elif piece in ESCAPED or piece not in ("\\", "&") and len(piece) == 1:
            lines[-1] += ESCAPED.get(piece, piece)
        else:
            raise Malformed(f"{piece} is more than text: {label}")
    return lines


class Reader:
    def __init__(self, text: str) -> None:
        self._tokens = list(self._tokens_of(text))
        self.graph = Graph({}, [])

    def read(self) -> Graph:
        self._expect("word", "digraph")
        self._name()
        self._expect("sign", "{")
        while not self._take("sign", "}"):
            self._statement()
            self._take("sign", ";")
        self._expect(*END)
        return self.graph

    @staticmethod
    def _tokens_of(text: str):
        position = 0
        while position < len(text):
            match = TOKEN.match(text, position)
            if not match:
                raise Malformed(f"no token: {text[position:position + 80]!r}")
            position = match.end()
            if match.lastgroup:
                yield match.lastgroup, match[0]
        yield END

    def _statement(self) -> None:
        if self._tokens[0][1] in ("node", "edge", "graph"):
            self._tokens.pop(0)
            self._attributes()
            return
        name = self._name()
        if self._take("sign", "="):
            self._name()
        elif self._take("sign", "->"):
            self.graph.edges.append((name, self._name(), self._attributes()))
        elif name in self.graph.nodes:
            raise Malformed(f"{name} stands twice")
        else:
            self.graph.nodes[name] = self._attributes()

    def _attributes(self) -> dict[str, str]:
        attributes: dict[str, str] = {}
        if not self._take("sign", "["):
            return attributes
        while not self._take("sign", "]"):
            key = self._name()
            self._expect("sign", "=")
            attributes[key] = self._name()
            self._take("sign", ",")
        return attributes

    def _name(self) -> str:
        kind, text = self._tokens.pop(0)
        if kind == "quoted":
            return text[1:-1].replace('\\"', '"')
        if kind != "word" or text.lower() in KEYWORDS:
            raise Malformed(f"no name: {text}")
        return text

    def _take(self, *token: str) -> bool:
        if self._tokens[0] != token:
            return False
        self._tokens.pop(0)
        return True

    def _expect(self, *token: str) -> None:
        if not self._take(*token):
            raise Malformed(f"{token[1]} is missing before {self._tokens[0][1]}")


def read(text: str) -> Graph:
    return Reader(text).read()
