"""halvekctl show: the wiring as text, as a drawing and for programs."""

from pathlib import Path
from xml.etree import ElementTree

import pytest
from ctl import answer, ctl, json_answer, write_store
from testing.settings import SERVER, Settings, handler, source, timer

SVG = "{http://www.w3.org/2000/svg}"
SETTINGS: Settings = (
    SERVER
    | timer(1, 5)
    | source(2, "Alarm", Index=3, BankName="Local")
    | {"Events/Source#3": {"Type": "Doorbell"}, "Events/Source#4": {}}
    | handler(1, "Events/Source#1", "Events/Source#3", handler_type="Relay", BankName="Local", Index=4)
    | handler(2, "Events/Source#1", handler_type="Preset", Id="gate")
    | handler(3, "Events/Source#1", "Events/Source#9", handler_type="Tour", Id="7", EnabledTimes="800-1700")
    | handler(4, "Events/Source#2", handler_type="Folder")
    | handler(5, "Applications/halvek/Server", handler_type="Email", To="guard@example.com")
)


@pytest.fixture
def store(tmp_path: Path) -> Path:
    return write_store(tmp_path, SETTINGS)


def test_findings_are_marked_where_they_belong(store: Path) -> None:
    found = json_answer("--format", "json", "check", store, status=1)["findings"]
    told = json_answer("--settings", store, "show")
    for item in told["sources"] + told["handlers"]:
        group = item["group"]
        own = [f["id"] for f in found if f["group"] == group or f["group"].startswith(group + "/")]
        assert [mark["id"] for mark in item["findings"]] == own, group
    marks = {item["group"]: {mark["severity"] for mark in item["findings"]} for item in told["handlers"]}
    assert "error" in marks["Events/Handler#3"] and marks["Events/Handler#1"] == set()
    text = answer("--settings", store, "show")
    assert "[HK3003]" in text and "color=red" in answer("--settings", store, "show", "--as", "dot")
    assert "HK3003" in answer("--settings", store, "show", "--as", "svg")


def test_each_edge_has_its_place_in_the_order_of_delivery(store: Path) -> None:
    told = json_answer("--settings", store, "show")
    edges = {(edge["from"], edge["to"]): edge["order"] for edge in told["edges"]}
    assert edges == {
        ("Events/Source#1", "Events/Handler#1"): 1,
        ("Events/Source#1", "Events/Handler#2"): 2,
        ("Events/Source#1", "Events/Handler#3"): 3,
        ("Applications/halvek/Server", "Events/Handler#5"): 1,
        # The handler of the server and the one that passes all events on come before it.
        ("Events/Source#3", "Events/Handler#1"): 3,
    }
    lost = {(edge["from"], edge["to"]) for edge in told["lost_edges"]}
    assert lost == {("Events/Source#9", "Events/Handler#3"), ("Events/Source#2", "Events/Handler#4")}


def test_sources_and_handlers_tell_what_has_become_of_them(store: Path) -> None:
    told = json_answer("--settings", store, "show", "--as", "json")
    sources = {one["group"]: one for one in told["sources"]}
    assert sources["Events/Source#2"]["detail"] == "input 3 of Local"
    assert sources["Events/Source#3"]["posted"] and not sources["Events/Source#3"]["left_out"]
    assert sources["Events/Source#4"]["remark"] == "There is no key Type in settings group Events/Source#4"
    assert sources["Events/Source#9"]["left_out"]
    handlers = {one["group"].removeprefix("Events/"): one for one in told["handlers"]}
    assert [one["target"] for one in handlers.values()] == [
        "relay 4 of Local",
        "preset gate",
        "tour 7",
        "folder ",
        "mail to guard@example.com",
    ]
    assert {name for name, one in handlers.items() if one["left_out"]} == {"Handler#4"}
    assert handlers["Handler#3"]["week"].startswith("Mo ..+##+.. Tu ")
    assert told["always_on"] == ["Extern"]


def test_text_lists_the_handlers_of_each_source_in_order(store: Path) -> None:
    lines = answer("--settings", store, "show").splitlines()
    begin = lines.index("Source#1  Timer  every 5 s")
    assert [line.split()[:2] for line in lines[begin + 1 : begin + 4]] == [
        ["1.", "Handler#1"],
        ["2.", "Handler#2"],
        ["3.", "Handler#3"],
    ]


def texts(drawing: ElementTree.Element) -> list[str]:
    return ["".join(node.itertext()) for node in drawing.iter(f"{SVG}text")]


def test_a_drawing_is_plain_svg_without_a_script(store: Path) -> None:
    text = answer("--settings", store, "show", "--as", "svg")
    drawing = ElementTree.fromstring(text)
    assert drawing.tag == f"{SVG}svg"
    used = {node.tag.removeprefix(SVG) for node in drawing.iter()}
    assert used <= {"svg", "title", "style", "defs", "marker", "path", "rect", "text", "g", "line"}
    assert "href" not in text and "url(#arrow)" in text and text.count("url(") == text.count("url(#arrow)")
    shown = texts(drawing)
    assert {"Handler#1", "Handler#4", "Timer", "Doorbell", "preset gate", "1", "2", "3"} <= set(shown)
    boxes = [set(node.get("class").split()) for node in drawing.iter(f"{SVG}rect")]
    left_out = [box for box in boxes if "left-out" in box]
    assert [sum(kind in box for box in left_out) for kind in ("handler", "source")] == [1, 2]
    assert all("error" in box for box in left_out if "handler" in box)


def test_a_drawing_names_what_its_boxes_and_arrows_stand_for(store: Path) -> None:
    """So that a document which shows it can light the way of an event."""
    drawing = ElementTree.fromstring(answer("--settings", store, "show", "--as", "svg"))
    told = json_answer("--settings", store, "show", "--as", "json")
    groups = [one["group"] for one in told["sources"] + told["handlers"]]
    boxes = [node.get("data-group") for node in drawing.iter(f"{SVG}g") if node.get("class") == "item"]
    assert sorted(boxes) == sorted(groups)
    targets = [node.get("data-group") for node in drawing.iter(f"{SVG}g") if node.get("class") == "action"]
    assert targets == [one["group"] for one in told["handlers"] if one["target"]] + ["Extern"]
    edges = [(node.get("data-from"), node.get("data-to")) for node in drawing.iter(f"{SVG}path")]
    assert {(one["from"], one["to"]) for one in told["edges"]} <= set(edges)


def test_what_stands_in_the_settings_stays_text_in_a_drawing(tmp_path: Path) -> None:
    name = """<script>alert("x")<!--&>'"""
    settings = timer(1, 5) | {f"Events/Handler#{name}": {"Type": name, "EnabledTimes": name}}
    settings |= {f"Events/Handler#{name}/SourceIds": {"1": "Events/Source#1"}}
    settings |= handler(2, "Events/Source#1", handler_type="Preset", Id=name)
    path = write_store(tmp_path, settings)
    for words in (["show", "--as", "svg"], ["schedule", "--svg"]):
        text = answer("--settings", path, *words)
        drawing = ElementTree.fromstring(text)
        assert "<script" not in text
        assert any("<script>" in "".join(node.itertext()) for node in drawing.iter())


def test_nothing_in_a_drawing_lies_outside_of_it_or_upon_another_box(store: Path) -> None:
    drawing = ElementTree.fromstring(answer("--settings", store, "show", "--as", "svg"))
    width, height = (float(drawing.get(side)) for side in ("width", "height"))
    boxes = []
    for node in drawing.iter(f"{SVG}rect"):
        if (node.get("class") or "").split()[0] in ("source", "handler", "target"):
            x, y, w, h = (float(node.get(key)) for key in ("x", "y", "width", "height"))
            assert 0 <= x and 0 <= y and x + w <= width and y + h <= height
            boxes.append((x, y, w, h))
    assert len(boxes) == 7 + 6 + 6
    for i, (x, y, w, h) in enumerate(boxes):
        for other_x, other_y, other_w, other_h in boxes[:i]:
            apart = x + w <= other_x or other_x + other_w <= x or y + h <= other_y or other_y + other_h <= y
            assert apart


def test_dot_quotes_what_it_is_given(tmp_path: Path) -> None:
    settings = timer(1, 5) | {'Events/Handler#"a\\': {"Type": "Preset", "Id": 'x"] evil [\\'}}
    settings |= {'Events/Handler#"a\\/SourceIds': {"1": "Events/Source#1"}}
    text = answer("--settings", write_store(tmp_path, settings), "show", "--as", "dot")
    assert text.startswith("digraph halvek {\n") and text.endswith("}\n")
    assert r'"Events/Source#1" -> "Events/Handler#\"a\\" [label="1"];' in text
    assert r'label="preset x\"] evil [\\"' in text


@pytest.mark.parametrize(
    "only, groups",
    [
        ("Handler#3", {"Events/Source#1", "Events/Source#9", "Events/Handler#3"}),
        ("Events/Source#3", {"Events/Source#3", "Events/Handler#1"}),
        ("Applications/halvek/Server", {"Applications/halvek/Server", "Events/Handler#5"}),
    ],
)
def test_only_shows_one_group_and_its_neighbours(only: str, groups: set[str], store: Path) -> None:
    told = json_answer("--settings", store, "show", "--only", only)
    assert {one["group"] for key in ("sources", "handlers") for one in told[key]} == groups


@pytest.mark.parametrize("words", [["--only", "Handler#99"], ["--as", "png"], ["Handler#1"]])
def test_a_wrong_command_line_is_2(words: list[str], store: Path) -> None:
    done = ctl("--settings", store, "show", *words)
    assert (done.returncode, done.stdout) == (2, b"")


def test_settings_without_anything_are_a_picture_too(tmp_path: Path) -> None:
    path = write_store(tmp_path, "")
    assert json_answer("--settings", path, "show")["handlers"] == []
    ElementTree.fromstring(answer("--settings", path, "show", "--as", "svg"))
    ElementTree.fromstring(answer("--settings", path, "schedule", "--svg"))
