"""halvek-rules by its verbs: what is wrong with rules, what a script brings out, and what it ends with."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest
from testing.rules import PROGRAM, answer, rule, rules

pytestmark = pytest.mark.not_under("sanitizer", reason="the unit tests have the rules there")

ROOT = Path(__file__).resolve().parents[2]
RECIPES = sorted((ROOT / "examples/rules").glob("*.conf"))
ECHO = rule("echo", "When=A", "Post=P", "Set.x=${x}")


@pytest.fixture
def write(tmp_path):
    def write(name: str, text: str | bytes) -> Path:
        path = tmp_path / name
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    return write


def test_rules_without_a_mistake_are_right_and_nothing_is_said(write):
    assert answer("check", write("r.conf", ECHO)) == ""
    assert answer("--rules", write("r.conf", ECHO), "check") == ""


def test_a_finding_has_its_place_and_its_id(write):
    path = write("r.conf", ECHO + rule("echo", "When=A", "Count=0", "Within.sec=-1", "Where.x=<y", "Post=${x}"))
    lines = answer("check", path, status=1).splitlines()
    ids = ["5:1: HK8004", "7:7: HK8009", "8:12: HK8010", "9:9: HK8011", "10:6: HK8008"]
    found = [re.fullmatch(rf"{re.escape(str(path))}:(\d+:\d+): error: .+ \[(HK8\d\d\d)\]", line) for line in lines]
    assert [f"{match[1]}: {match[2]}" for match in found] == ids


def test_the_json_of_a_check_says_the_same_as_its_text(write):
    path = write("r.conf", "word\n" + rule("r", "When=A", "Post=P]"))
    found = json.loads(answer("--format", "json", "check", path, status=1))
    lines = [
        f"{one['file']}:{one['line']}:{one['column']}: {one['severity']}: {one['text']} [{one['id']}]"
        for one in found["findings"]
    ]
    assert lines == answer("check", path, status=1).splitlines()
    assert (found["format"], found["verb"], found["counts"]) == (1, "check", {"error": 2})


def test_the_text_of_a_file_never_reaches_a_terminal_raw(write):
    path = write("\x1b[31m.conf", b"[Rule \x1b]0;x\x07,]\nWhen=A\nPost=\x9b\xff\nSe\x1bt=1\n")
    done = rules("check", path)
    assert done.returncode == 1 and not re.search(rb"[\x00-\x09\x0b-\x1f\x7f-\xff]", done.stdout + done.stderr)


@pytest.mark.parametrize("recipe", RECIPES, ids=lambda path: path.stem)
def test_a_recipe_is_right_and_does_what_its_script_says(recipe):
    assert answer("check", recipe) == ""
    assert answer("--rules", recipe, "test", recipe.with_suffix(".test")) == ""


def test_there_are_recipes_for_what_is_wanted_most():
    names = {path.stem for path in RECIPES}
    assert {"door-mail", "follow", "hold-off", "open-for-a-minute", "three-motions"} <= names


def test_a_script_that_brings_out_something_else_is_told_line_by_line(write):
    script = write("s", "+0 A x=1\n=> P x=2\n+1 B\n=> P\n")
    text = answer("--rules", write("r.conf", ECHO), "test", script, status=1)
    assert text.splitlines() == [
        f"{script}:1: this came out, and is not expected: P x=1 rule=echo ruleChain=echo",
        f"{script}:2: this did not come out: P x=2",
        f"{script}:4: this did not come out: P",
    ]


def test_the_json_of_a_test_has_all_that_came_out(write):
    found = json.loads(
        answer("--rules", write("r.conf", ECHO), "test", write("s", "+1.5 A x=1\n"), "--format=json", status=1)
    )
    props = {"x": "1", "rule": "echo", "ruleChain": "echo"}
    assert found["posts"] == [{"at_ms": 1500, "type": "P", "props": props}]
    assert [failure["line"] for failure in found["failures"]] == [1]


def test_a_script_with_a_mistake_is_a_wrong_command_line(write):
    done = rules("--rules", write("r.conf", ECHO), "test", write("s", "+0 A\nwhat\n"))
    assert done.returncode == 2 and b"/s:2: " in done.stderr


def test_a_test_of_rules_that_are_wrong_cannot_be_done(write):
    done = rules("--rules", write("r.conf", "word\n"), "test", write("s", "+0 A\n"))
    assert done.returncode == 3 and b"r.conf:1:1: " in done.stderr


@pytest.mark.parametrize(
    "words",
    [
        ["what"],
        ["--what"],
        ["-x"],
        ["check", "a", "b"],
        ["test"],
        ["test", "a", "b"],
        ["--format", "xml", "check"],
        ["--rules"],
        ["--rules=", "check"],
    ],
    ids=" ".join,
)
def test_a_wrong_command_line_is_status_2(words):
    done = rules(*words)
    assert (done.returncode, done.stdout) == (2, b"") and done.stderr.startswith(b"halvek-rules: ")


@pytest.mark.parametrize("path", ["/nowhere/rules.conf", "/", "/dev/null"])
def test_what_is_no_file_cannot_be_checked(path):
    done = rules("check", path)
    assert done.returncode == 3 and path.encode() in done.stderr


def test_a_pipe_is_no_file_either_and_is_not_waited_for(tmp_path):
    os.mkfifo(tmp_path / "pipe")
    assert rules("check", tmp_path / "pipe").returncode == 3


def test_an_answer_that_cannot_be_written_is_status_3(write):
    path = write("r.conf", ECHO)
    with open("/dev/full", "wb") as full:
        for words in (["--help"], ["--version"], ["check", write("w.conf", "x\n")]):
            assert rules(*words, stdout=full).returncode == 3
    for words in (["--help"], ["check", path]):
        closed = subprocess.run(["sh", "-c", 'exec "$@" >&-', "sh", PROGRAM, *map(str, words)], stderr=subprocess.PIPE)
        assert closed.returncode == 3


def test_the_help_fits_on_a_screen_and_its_rule_is_right(write):
    text = answer("--help")
    assert len(text.splitlines()) <= 50
    shown = text.partition("A rule:\n")[2].partition("With Count")[0]
    assert answer("check", write("r.conf", shown)) == ""
    script = text.partition("A script:\n")[2].partition("\nStatus")[0]
    # What stands behind a blank and a semicolon is a comment in rules, and only said here in a script.
    script = re.sub(r" +;.*", "", script)
    assert answer("--rules", write("r.conf", shown), "test", write("s", script)) == ""


def test_the_version_is_the_projects():
    assert re.fullmatch(r"halvek-rules \d+\.\d+\.\d+\n", answer("--version"))


PAGE = (ROOT / "docs/halvek-rules.1").read_text()


def test_every_id_is_explained_and_every_explained_one_can_be_found():
    reader = "".join((ROOT / "companions/rules" / name).read_text() for name in ("RuleFile.cpp", "RuleReader.cpp"))
    assert set(re.findall(r"^\.It Li (HK8\d\d\d)$", PAGE, re.M)) == set(re.findall(r'"(HK8\d\d\d)"', reader))


def test_every_option_is_explained_and_every_explained_one_is_there():
    explained = {name.replace("\\-", "-") for name in re.findall(r"^\.It Fl Fl (\S+)", PAGE, re.M)}
    assert explained == set(re.findall(r"--([a-z-]+)", answer("--help").partition("A rule:")[0]))


def displays() -> list[str]:
    blocks = re.findall(r"^\.Bd -literal.*\n((?:.*\n)*?)\.Ed$", PAGE, re.M)
    return [block.replace("\\-", "-").replace("\\&", "") for block in blocks]


def test_the_rules_and_the_script_of_the_page_are_right(write):
    first, script, second = displays()
    assert answer("check", write("r.conf", first + second)) == ""
    assert answer("--rules", write("r.conf", first), "test", write("s", script)) == ""
