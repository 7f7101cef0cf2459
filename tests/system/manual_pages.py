"""The manual pages, as the tests read them."""

import re
from collections.abc import Iterator
from typing import NamedTuple

from testing.tree import ROOT


class Line(NamedTuple):
    place: str
    section: str
    subsection: str
    words: list[str]


ESCAPES = {r"\(aq": "'", r"\(dq": '"', r"\-": "-", r"\e": "\\", r"\&": ""}


def plain(text: str) -> str:
    return re.sub(r"\\(?:\(..|.)", lambda escape: ESCAPES[escape[0]], text)


def words_of(line: str) -> list[str]:
    return [plain(quoted or word) for quoted, word in re.findall(r'"((?:[^"]|"")*)"|(\S+)', line)]


def page_lines(page: str) -> Iterator[Line]:
    section = subsection = ""
    for number, line in enumerate((ROOT / "docs" / page).read_text().splitlines(), 1):
        words = words_of(line)
        if words[:1] == [".Sh"]:
            section, subsection = " ".join(words[1:]), ""
        elif words[:1] == [".Ss"]:
            subsection = re.sub(r" ?\bNs ?|\bAr ", "", " ".join(words[1:])).replace(" /", "/")
        yield Line(f"docs/{page}:{number}", section, subsection, words)


def items(page: str, section: str) -> Iterator[Line]:
    """The heads of the lists in a section, without their ".It"."""
    for line in page_lines(page):
        if line.section == section and line.words[:1] == [".It"]:
            yield line._replace(words=line.words[1:])


def listed(page: str, section: str, macro: str) -> dict[str, str]:
    """The names that the heads of a section's lists have in a macro, with their places."""
    found = {}
    for line in items(page, section):
        if line.words[0] == macro:
            found |= {word: line.place for word in line.words[1:] if word != ","}
    return found


def displays(page: str, section: str) -> list[str]:
    """The literal displays of a section, as a reader would copy them."""
    text = (ROOT / "docs" / page).read_text().partition(f"\n.Sh {section}\n")[2].partition("\n.Sh ")[0]
    return [plain(block) for block in re.findall(r"^\.Bd -literal.*\n((?:.*\n)*?)\.Ed$", text, re.M)]


def typed(display: str) -> list[str]:
    """The commands of a display, with the lines that belong to them."""
    return [command.rstrip("\n") for command in re.split(r"^\$ ", display, flags=re.M)[1:]]
