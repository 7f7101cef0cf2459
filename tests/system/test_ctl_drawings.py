"""The drawings of halvekctl: whatever stands in the settings, other programs can read them and find text in it."""

from pathlib import Path
from xml.etree import ElementTree

import pytest
from ctl import answer, json_answer, write_store
from dot_reader import Malformed, label_lines, read
from testing.settings import SERVER, Settings, handler, source, timer

pytestmark = pytest.mark.not_under("emulator", reason="each of many runs takes a second there")

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = [*sorted((ROOT / "examples").glob("*.ini")), ROOT / "packaging/settings.ini"]
SVG = "{http://www.w3.org/2000/svg}"
TAGS = {"svg", "title", "desc", "style", "defs", "marker", "path", "rect", "circle", "text", "tspan", "g", "line"}
# Each would end a word, begin a tag, be read as a command or be refused by a reader of XML or dot.
HOSTILE = {
    "markup": b"""<script>alert("x")</script><!--&>'""",
    "entities": b"&lt;b&gt; &amp;amp; &copy; &#60; %x; &none",
    "end of data": b"]]> <![CDATA[ ?> <?xml",
    "quotes": b"""" onload="alert(1)" '""",
    "dot": rb'a"] ; x -> y [label="\N \G \L \n \l \\ \" ' + b"\\",
    "dot's html": b"<<b>bold</b>>",
    "controls": b"\x01\x1b[31m\x7f\xc2\x9b\x0b\x0c\t",
    "no characters": b"\xff\xc0\xaf\xed\xa0\x80\xf5\x80\x80\x80",
    "noncharacters": b"\xef\xbf\xbe\xef\xbf\xbf\xef\xb7\x90\xf4\x8f\xbf\xbf",
    "others": "\u202eTür\u2028門\U0001f6aa\u0301".encode(),
    # Dot takes no word of more than 16384 bytes.
    "long": b"<&>" * 500,
}


def hostile_store(folder: Path, text: bytes) -> Path:
    """The text as each value that is shown and, less the bracket that would end it, as the name of a group."""
    word, name = "\ue000", "\ue001"
    settings: Settings = SERVER | timer(1, 5) | source(2, name) | source(3, "Alarm", Index=1, BankName=word)
    settings |= {f"Events/Source#{name}": {"Type": word}}
    settings |= handler(1, "Events/Source#1", f"Events/Source#{name}", word, handler_type="Extern")
    settings |= handler(5, "Events/Source#1", handler_type=name)
    settings |= handler(2, "Events/Source#1", handler_type="Preset", Id=word, EnabledTimes=word, EnabledDays=word)
    settings |= handler(3, "Events/Source#2", handler_type="Email", To=word, Attachment="true")
    settings |= handler(4, "Events/Source#3", handler_type="Relay", BankName=word, Index=1)
    settings |= {f"Events/Handler#{name}": {"Type": "Tour", "Id": "1"}}
    settings |= {f"Events/Handler#{name}/SourceIds": {"1": f"Events/Source#{name}"}}
    path = write_store(folder, settings)
    named = path.read_bytes().replace(name.encode(), text.replace(b"]", b""))
    path.write_bytes(named.replace(word.encode(), text))
    return path


@pytest.fixture(params=HOSTILE.values(), ids=HOSTILE.keys())
def hostile(request: pytest.FixtureRequest, tmp_path: Path) -> Path:
    return hostile_store(tmp_path, request.param)


def check_dot(path: Path) -> None:
    """It holds the same as the answer for programs: every node, every edge, every number."""
    graph = read(answer("--settings", path, "show", "--as", "dot"))
    told = json_answer("--settings", path, "show", "--as", "json")
    lost = len(told["lost_edges"])
    targets = [one for one in told["handlers"] if one["target"]]
    assert len(graph.nodes) == len(told["sources"]) + len(told["handlers"]) + len(targets)
    assert len(graph.edges) == len(told["edges"]) + lost + len(targets)
    numbers = [attributes["label"] for *_, attributes in graph.edges if "label" in attributes]
    assert sorted(map(int, numbers)) == sorted(edge["order"] for edge in told["edges"])
    assert sum(attributes.get("style") == "dashed" for *_, attributes in graph.edges) >= lost
    assert all({one, other} <= graph.nodes.keys() for one, other, _ in graph.edges)
    for name, attributes in graph.nodes.items():
        assert len(label_lines(name)) == 1 and 1 <= len(label_lines(attributes["label"])) <= 2


def check_svg(text: str) -> ElementTree.Element:
    """Well-formed, without anything that acts or fetches."""
    drawing = ElementTree.fromstring(text)
    assert drawing.tag == f"{SVG}svg"
    assert {node.tag.removeprefix(SVG) for node in drawing.iter()} <= TAGS
    for node in drawing.iter():
        assert not [key for key in node.keys() if key.startswith("on") or "href" in key or key == "style"]
    assert "<!" not in text and text.count("<?") <= 1
    assert text.count("url(") == text.count("url(#arrow)") and "@import" not in text
    return drawing


@pytest.mark.parametrize("path", EXAMPLES, ids=lambda path: path.name)
def test_the_examples_can_be_drawn_by_dot(path: Path) -> None:
    check_dot(path)


@pytest.mark.parametrize("words", [["show", "--as", "svg"], ["schedule", "--svg"]], ids=" ".join)
@pytest.mark.parametrize("path", EXAMPLES, ids=lambda path: path.name)
def test_the_examples_are_drawings_that_a_document_can_take(path: Path, words: list[str]) -> None:
    check_svg(answer("--settings", path, *words))


def test_dot_takes_whatever_stands_in_the_settings(hostile: Path) -> None:
    check_dot(hostile)


@pytest.mark.parametrize("words", [["show", "--as", "svg"], ["schedule", "--svg"]], ids=" ".join)
def test_an_svg_takes_whatever_stands_in_the_settings(hostile: Path, words: list[str]) -> None:
    check_svg(answer("--settings", hostile, *words))


@pytest.mark.parametrize("name", ["markup", "entities", "end of data", "quotes", "dot", "dot's html", "others"])
def test_a_drawing_shows_a_name_as_it_is_written(name: str, tmp_path: Path) -> None:
    path = hostile_store(tmp_path, HOSTILE[name])
    shown = f"preset {HOSTILE[name].decode()}"
    graph = read(answer("--settings", path, "show", "--as", "dot"))
    assert [shown] in [label_lines(attributes["label"]) for attributes in graph.nodes.values()]
    drawing = check_svg(answer("--settings", path, "show", "--as", "svg"))
    titles = ["".join(node.itertext()) for node in drawing.iter() if node.tag in (f"{SVG}text", f"{SVG}title")]
    assert any(title.startswith(shown) for title in titles)


@pytest.mark.parametrize(
    "rest", ["{", '{ "x }', "{ x -> ; }", "{ x [label=]; }", "{ x [a=b c] }", "{ } }", "{ x; x; }"]
)
def test_the_reader_of_these_tests_refuses_what_dot_refuses(rest: str) -> None:
    assert read("digraph a { x [b=c, d=e]; x -> x; }").nodes == {"x": {"b": "c", "d": "e"}}
    with pytest.raises(Malformed):
        read(f"digraph a {rest}")


@pytest.mark.parametrize("label", [r"\N", r"a\l", "&lt;", "&", "a & b"])
def test_the_reader_of_these_tests_sees_what_dot_would_draw_otherwise(label: str) -> None:
    with pytest.raises(Malformed):
        label_lines(label)
