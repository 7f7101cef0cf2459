"""halvekctl with rules: the types that they post are known, and the chains from event to event are shown."""

import json
import re
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, json_answer, write_store
from testing.settings import SERVER, handler, source

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="one build shows it")

RULES = """[Rule opened]
When=Alarm
Where.alarmState=1
Post=DoorOpened

[Rule open-long]
When=DoorOpened
Unless=DoorClosed
After.sec=60
Post=OpenLong
"""
SETTINGS = (
    SERVER
    | source(1, "Alarm", BankName="Local", Index=2)
    | {"Events/Source#2": {"Type": "DoorOpened"}, "Events/Source#3": {"Type": "OpenLong"}}
    | handler(1, "Events/Source#2", handler_type="Relay", BankName="Local")
    | handler(2, "Events/Source#3", handler_type="Relay", BankName="Local", Index=1)
)


@pytest.fixture
def words(tmp_path: Path) -> list[object]:
    """The options that name the settings and the rules."""
    rules = tmp_path / "rules.conf"
    rules.write_text(RULES)
    return ["--settings", write_store(tmp_path, SETTINGS), "--rules", rules]


def ids(words: list[object]) -> list[str]:
    return [finding["id"] for finding in json_answer(*words, "check", "--fail-on", "never")["findings"]]


def test_a_type_that_a_rule_posts_is_known_and_so_is_a_source_that_a_rule_hears(words):
    assert sorted(ids(words[:2])) == ["HK2008", "HK2008", "HK2010"]
    assert ids(words) == []


@pytest.mark.not_under("one user", reason="an ordinary user cannot stand in for /etc")
def test_the_installed_rules_are_read_without_being_asked_for(words):
    script = (
        "mkdir /run/upper /run/work && "
        "mount -t overlay -o lowerdir=/etc,upperdir=/run/upper,workdir=/run/work overlay /etc && "
        'mkdir -p /etc/halvek-rules && cp "$0" /etc/halvek-rules/rules.conf && exec "$@"'
    )
    command = [PROGRAM, "--format", "json", *words[:2], "check", "--fail-on", "never"]
    done = subprocess.run(["unshare", "-m", "sh", "-c", script, words[3], *command], capture_output=True, timeout=60)
    assert json.loads(done.stdout)["findings"] == [], done


def test_the_chain_is_shown_from_event_to_event(words):
    shown = json_answer(*words, "show")
    first, second = shown["rules"]
    assert (first["name"], first["from"], first["to"]) == ("opened", ["Events/Source#1"], ["Events/Source#2"])
    assert (second["kind"], second["from_rules"], second["to"]) == ("unless", ["opened"], ["Events/Source#3"])
    assert (first["line"], second["line"]) == (1, 6)
    text = answer(*words, "show")
    assert "rule opened  Alarm => DoorOpened  -> Source#2" in text
    assert "DoorOpened  posted by the rule opened" in text


def test_the_chain_is_drawn(words):
    dot = answer(*words, "show", "--as", "dot")
    for edge in (
        '"Events/Source#1" -> "rule opened"',
        '"rule opened" -> "Events/Source#2"',
        '"rule opened" -> "rule open-long"',
        '"rule open-long" -> "Events/Source#3"',
    ):
        assert edge in dot
    drawing = answer(*words, "show", "--as", "svg")
    titles = [element.text for element in ElementTree.fromstring(drawing).iter("{http://www.w3.org/2000/svg}title")]
    assert "rule opened: Alarm => DoorOpened" in titles


def test_only_one_source_shows_the_rules_that_have_to_do_with_it(words):
    shown = json_answer(*words, "show", "--only", "Source#3")
    assert [rule["name"] for rule in shown["rules"]] == ["open-long"]


def test_what_rules_make_of_an_event_is_told(words):
    explained = json_answer(*words, "explain", "Alarm", "alarmIndex=2", "alarmState=1", status=1)
    assert [(rule["name"], rule["post"], rule["line"]) for rule in explained["rules"]] == [("opened", "DoorOpened", 1)]
    assert json_answer(*words, "explain", "Alarm", "alarmIndex=2", "alarmState=0", status=1)["rules"] == []
    text = answer(*words, "explain", "DoorOpened")
    assert re.search(r"The rule open-long \(.*rules\.conf:6\) may post OpenLong", text)


def test_rules_with_a_mistake_are_told_and_the_others_are_taken(words):
    words[3].write_text(RULES + "[Rule]\nWhat=1\n")
    done = ctl(*words, "check")
    assert done.returncode == 0 and b"the rules have mistakes, see halvek-rules check " in done.stderr


def test_rules_that_are_named_and_cannot_be_read_are_a_failure(words):
    assert ctl(*words[:2], "--rules", "/nowhere", "check").returncode == 3
    assert ctl(*words[:2], "--rules=", "check").returncode == 2


def test_names_of_rules_reach_no_terminal_raw(words):
    words[3].write_bytes(b"[Rule a\x1b[31m]\nWhen=Alarm\x07\nPost=Do\x9b\n")
    for verb in (["show"], ["show", "--as", "dot"], ["show", "--as", "svg"], ["explain", "Alarm"], ["check"]):
        done = ctl(*words, *verb)
        assert not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]", done.stdout + done.stderr)
