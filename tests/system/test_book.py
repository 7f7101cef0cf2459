"""The man pages against the code, both ways: what stands in only one of the two fails, and says where."""

import json
import os
import re
import subprocess
from collections.abc import Iterator
from typing import NamedTuple

import pytest
from daemon_sources import DAEMON, PLATFORM, Call, Source, literals
from manual_pages import items, listed, page_lines
from testing.tree import ROOT

PAGES = (
    "halvek.8",
    "halvek-settings.5",
    "halvek-events.5",
    "kelto-vcam.1",
    "kelto-vcam-page.1",
    "halvekctl.1",
    "halvekctl-checks.7",
    "halvek-rules.1",
    "halvek-mqtt.1",
    "halvek-outbox.8",
    "outbox.conf.5",
)

# Functions whose callers hand them a part of an exception's text: which argument, and what it becomes.
TEXT_HELPERS = {"CheckBusResult": (1, "{}: %s"), "ThrowSystemError": (0, "Cannot {} %s: %s")}
# Texts in the code that no record has, and why.
NOT_LOGGED = {
    "Cannot %s %s: %s": "each step of ThrowSystemError is a text of its own",
    "interrupted by signal %d": "whoever catches it logs it at Debug",
}
GETTER = r"\b(?:TryGet|Get)(?:Value|Int|Bool)(?:OrDefault)?(?:FromGroup)?\("
PROPERTY_SECTIONS = {
    "event/Event.cpp": "Every event",
    "source/EventServerSource.cpp": "Posted events",
    "source/TimerEventSource.cpp": "Timer",
    "source/AlarmEventSource.cpp": "Alarm",
    "source/ParkEventSource.cpp": "Park",
    "source/AnalyticsAlertConversion.cpp": "Analytics",
}
READ_BY_LIBRARIES = {"NOTIFY_SOCKET", "DBUS_SYSTEM_BUS_ADDRESS", "TZ", "PATH"}
ID_WITHOUT_GROUP = "Applications/halvek/MsgBus"


# --- comparing


def differences(page: str, in_page: dict, in_code: dict) -> list[str]:
    """One line for each thing that stands in only one of the two."""
    only_code = [f"{place}: {thing} is not in docs/{page}" for thing, place in in_code.items() if thing not in in_page]
    only_page = [f"{place}: {thing} is not in the code" for thing, place in in_page.items() if thing not in in_code]
    return only_code + only_page


def assert_same(page: str, in_page: dict, in_code: dict) -> None:
    assert in_page and in_code, "nothing to compare"
    found = differences(page, in_page, in_code)
    assert not found, "\n" + "\n".join(found)


# --- messages


def filled(file: Source, call: Call, position: int) -> str:
    """The format that a call hands on, with what its arguments say themselves put in."""
    text = file.value(call.arguments[position])
    assert text is not None, f"{call.place}: the text cannot be read here: {call.arguments[position]}"
    rest = iter(call.arguments[position + 1 :])
    conversion = r"%[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?[a-z]"
    return re.sub(conversion, lambda found: file.value(next(rest, "")) or found[0], text).strip()


def message_calls(file: Source) -> Iterator[tuple[Call, str, str]]:
    for call in file.calls(r"(?:\.|->)(?:Warning|Error)"):
        yield call, call.name.strip(".->"), filled(file, call, 0)
    for call in file.calls(r"\bWarn(?=\(Add)"):
        yield call, "Warning", filled(file, call, 1)
    for call in file.calls(r"\bsnprintf(?=\(notice)"):
        yield call, "Error", filled(file, call, 2).removesuffix("\\n")
    for call in file.calls(r"(?<!\w)Exception"):
        yield call, "", filled(file, call, 0)
    for helper, (position, text) in TEXT_HELPERS.items():
        for call in file.calls(rf"\b{helper}"):
            yield call, "", text.format(filled(file, call, position))
    if file.name.startswith("platform/util/"):
        return
    for call in file.calls(r"\bfprintf(?=\(stderr)"):
        yield call, "Standard error", filled(file, call, 1)
    for call in file.calls(r"\bfputs"):
        yield call, "Standard error", filled(file, call, 0)


def messages_in_code() -> dict[tuple[str, str], str]:
    found: dict[tuple[str, str], str] = {}
    for file in DAEMON + PLATFORM:
        for call, level, text in message_calls(file):
            if text != "%s":
                found.setdefault((level, text), call.place)
    return found


def messages_in_page() -> dict[tuple[str, str], str]:
    found: dict[tuple[str, str], str] = {}
    for line in items("halvek.8", "DIAGNOSTICS"):
        *level, _, text = line.words
        message = (" ".join(level[1:]), text)
        assert message not in found, f"{line.place}: {message} stands at {found[message]} already"
        found[message] = line.place
    return found


def test_every_warning_error_and_reason_is_explained_and_every_explained_one_is_in_the_code():
    in_code = messages_in_code()
    for text, reason in NOT_LOGGED.items():
        assert in_code.pop(("", text), None), f"the code has no text {text!r} any more ({reason})"
    assert_same("halvek.8", messages_in_page(), in_code)


# --- settings


class Key(NamedTuple):
    section: str
    name: str
    type: str
    default: str

    def __str__(self) -> str:
        return f"{self.section}: {self.name} ({self.type}, {self.default})"


@pytest.fixture(scope="module")
def known() -> dict[str, list[dict]]:
    """The daemon's own tables: the keys of each pattern of group names."""
    printed = subprocess.run([os.environ["HALVEK_KNOWN_SETTINGS"]], capture_output=True, check=True, timeout=60).stdout
    return {group["pattern"]: group["keys"] for group in json.loads(printed)}


def types_of(known: dict[str, list[dict]], item: str) -> dict[str, list[dict]]:
    """The types of sources or handlers with their keys."""
    begin = f"Events/{item}#*/"
    return {pattern.removeprefix(begin): keys for pattern, keys in known.items() if pattern.startswith(begin)}


def keys_in_tables(known: dict[str, list[dict]]) -> dict[Key, str]:
    sections = {pattern.replace("*", "name"): keys for pattern, keys in known.items() if "*/" not in pattern}
    every_handler = [key for key in sections["Events/Handler#name"] if key["name"] != "Type"]
    sections["Events/Handler#name"] = [key for key in sections["Events/Handler#name"] if key["name"] == "Type"]
    sections["Every handler"] = every_handler
    sections |= types_of(known, "Source")
    for name, keys in types_of(known, "Handler").items():
        sections[name] = [key for key in keys if key not in every_handler]
    assert sections.pop("server") == sections["Applications/halvek/Server/Pipe"], "explained as one"
    assert [key["name"] for key in sections.pop("SourceIds")] == ["*"], "explained without a list"
    found = {}
    for section, keys in sections.items():
        for key in keys:
            default = f"default {key['default']}" if key["default"] else "no default"
            default = "required" if key["required"] else default
            found[Key(section, key["name"].rstrip("*"), key["kind"], default)] = f"table of {section}"
    return found


def keys_in_page() -> dict[Key, str]:
    found = {}
    for section in ("THE DAEMON", "SOURCES", "HANDLERS"):
        for line in items("halvek-settings.5", section):
            if "Pq" in line.words:
                kind, _, default = " ".join(line.words[line.words.index("Pq") + 1 :]).partition(", ")
                found[Key(line.subsection, line.words[1], kind, default)] = line.place
    return found


def explanations() -> list[tuple[str, str, str]]:
    """Each key of the page with its type and the text below it."""
    text = (ROOT / "docs/halvek-settings.5").read_text()
    return re.findall(r"^\.It Li (\S+)[^\n]* Pq (\w+).*\n((?:(?!\.It |\.El).*\n)*)", text, re.M)


def test_every_key_is_explained_with_its_type_and_default_and_every_explained_one_is_in_a_table(known):
    assert_same("halvek-settings.5", keys_in_page(), keys_in_tables(known))


def test_every_handler_knows_the_keys_of_every_handler(known):
    common = [key for key in known["Events/Handler#*"] if key["name"] != "Type"]
    del (types := types_of(known, "Handler"))["SourceIds"]
    assert [name for name, keys in types.items() if [key for key in keys if key in common] != common] == []


def test_the_range_of_every_number_is_that_of_its_table(known):
    ranges = {}
    for keys in known.values():
        for key in keys:
            if key["kind"] == "integer":
                ranges.setdefault(key["name"], set()).add((key["lowest"], key["highest"]))
    in_page = {}
    for name, kind, body in explanations():
        if kind == "integer":
            said = body.partition(".Em Range :\n")[2].partition(".Em Wrong :")[0]
            numbers = [int(number) for number in re.findall(r"\d+", said)]
            in_page.setdefault(name, set()).add((min(numbers), 2**31 - 1 if "and more" in said else max(numbers)))
    assert in_page and in_page == ranges


def test_settings_are_read_through_the_tables_only():
    """A reader asks a table for its key while it is compiled: only a reader beside the tables could know another."""
    beside = literals(rf'({GETTER}|\b(?:group|settings|reader)(?:\.(?:find|at|count|Has)\(|\[)"[^"]*")', DAEMON)
    assert {place.partition(":")[0] for place in beside.values()} == {"env/SettingsReader.cpp"}


def test_every_key_has_a_range_what_a_wrong_value_does_and_an_example():
    explained = explanations()
    assert len(explained) == len(keys_in_page())
    for key, _, body in explained:
        assert ".Em Range :\n" in body and ".Em Wrong :\n" in body, f"{key} lacks its range or what is wrong"
        assert re.search(rf"^\.Dl {re.escape(key)}\S*=\S", body, re.M), f"{key} lacks its example"


@pytest.mark.parametrize(("section", "item"), [("SOURCES", "Source"), ("HANDLERS", "Handler")])
def test_every_type_is_explained_and_every_explained_one_can_be_made(known, section, item):
    lines = [line for line in page_lines("halvek-settings.5") if line.section == section]
    titles = {line.subsection: line.place for line in lines if line.words[:1] == [".Ss"] and "/" not in line.subsection}
    others = [line for line in lines if line.words[:1] == [".It"] and line.subsection == "Other types"]
    named = titles | {line.words[2]: line.place for line in others}
    in_page = {name: place for name, place in named.items() if " " not in name}
    types = types_of(known, item)
    types.pop("SourceIds", None)
    assert_same("halvek-settings.5", in_page, dict.fromkeys(types, "the tables"))


def test_every_group_is_explained_and_every_explained_one_is_known(known):
    lines = [line for line in page_lines("halvek-settings.5") if line.words[:1] == [".Ss"] and "/" in line.subsection]
    in_page = {line.subsection: line.place for line in lines}
    types = [f"Events/{item}#*/{name}" for item in ("Source", "Handler") for name in types_of(known, item)]
    types.remove("Events/Handler#*/SourceIds")
    in_tables = {group.replace("*", "name"): "the tables" for group in known if group not in types}
    assert_same("halvek-settings.5", in_page, in_tables)


def test_every_group_that_the_code_names_is_known(known):
    in_code = literals(r'"((?:Applications|Events|Video)/[\w/#]+)"', DAEMON)
    assert in_code.pop(ID_WITHOUT_GROUP)
    assert [name for name in in_code if not any(pattern.startswith(name) for pattern in known)] == []


def test_every_logger_that_can_have_a_level_of_its_own_is_named():
    text = (ROOT / "docs/halvek-settings.5").read_text()
    described = text.partition(".It Li LogLevel. ")[2].partition(".Pp")[0]
    lines = re.findall(r"^\.Li (.*)", described, re.M)
    named = {word.rstrip("."): "docs/halvek-settings.5" for line in lines for word in line.split() if len(word) > 1}
    assert_same("halvek-settings.5", named, literals(r'(?:GetLogger|Warn\(Add)\("([\w.]+)"\)', DAEMON + PLATFORM))


# --- events


def test_every_property_of_an_event_is_explained_and_every_explained_one_is_set():
    in_code = {}
    for file in DAEMON:
        section = PROPERTY_SECTIONS.get(file.name)
        asked = r'|\bproperties\.find\("(?:region)"' if section == "Posted events" else ""
        for found in re.finditer(rf'\{{"(\w+)", |properties\["(\w+)"\]{asked}', file.text):
            if file.name.startswith(("source/", "event/")):
                name = found[1] or found[2] or "region"
                in_code.setdefault((section, name), file.place(found.start()))
    in_page = {
        (line.subsection, word): line.place
        for line in items("halvek-events.5", "PROPERTIES")
        for word in line.words[1:]
        if word != ","
    }
    assert_same("halvek-events.5", in_page, in_code)


# --- the rest of halvek(8)


def test_every_environment_variable_is_explained_and_every_explained_one_is_read():
    in_page = listed("halvek.8", "ENVIRONMENT", "Ev")
    assert READ_BY_LIBRARIES <= in_page.keys()
    for name in READ_BY_LIBRARIES:
        in_page.pop(name)
    assert_same("halvek.8", in_page, literals(r'getenv\("(\w+)"\)', DAEMON + PLATFORM))


def test_every_signal_is_explained_and_every_explained_one_is_caught():
    caught = re.search(r"caughtSignals = \{(.*)\};", (ROOT / "app/Application.cpp").read_text())[1]
    in_code = dict.fromkeys(caught.split(", "), "app/Application.cpp")
    assert_same("halvek.8", listed("halvek.8", "SIGNALS", "Dv"), in_code)


def test_every_file_is_listed_and_every_listed_one_is_used():
    in_page = listed("halvek.8", "FILES", "Pa")
    assert in_page.pop("/etc/esmtprc")  # by esmtp
    in_code = literals(r'"(/(?:etc|var|tmp|media)/[^"]+)"', DAEMON + PLATFORM)
    assert_same("halvek.8", in_page, in_code)


# --- the pages by themselves


@pytest.mark.parametrize("page", PAGES)
def test_a_page_is_well_formed(page):
    checked = subprocess.run(
        ["groff", "-mandoc", "-ww", "-z", str(ROOT / "docs" / page)], capture_output=True, text=True, timeout=60
    )
    assert (checked.returncode, checked.stderr) == (0, "")


@pytest.mark.parametrize("page", PAGES)
def test_a_page_is_installed_with_its_program(page):
    folders = (ROOT / "app", ROOT / "camera", *(ROOT / "companions").iterdir())
    rules = "".join((folder / "CMakeLists.txt").read_text() for folder in folders if folder.is_dir())
    assert re.search(rf"docs/{re.escape(page)}\b", rules), f"no install rule names docs/{page}"


def test_the_package_has_the_pages_that_the_readme_lists_but_for_those_of_the_source():
    listed = set(re.findall(r"\]\(([^)]+)\)", (ROOT / "README.md").read_text().partition("## Read on\n")[2]))
    packaged = set((ROOT / "debian/halvek.docs").read_text().split())
    assert listed - packaged == {"CONTRIBUTING.md", "LICENSE"}
    assert packaged - listed == {"README.md"}
