"""The log: its form, and where its level comes from."""

import struct
import time
from datetime import datetime

import pytest
from testing.pipes import block, post
from testing.settings import SERVER, Settings, timer

RECORD = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} (Trace|Debug|Information|Warning|Error) [A-Za-z.]+: "
ANY_LEVEL = {"KELTO_LOG": ""}


def with_level(level: str) -> Settings:
    return SERVER | {"Applications/halvek": {"LogLevel": level}}


def test_every_record_has_the_time_the_level_and_the_name(launch):
    daemon = launch("", level="Trace")
    daemon.log.wait_for("Dropping to run state$")
    assert daemon.log.items == daemon.log.matching(f"{RECORD}|^    ")


def test_nothing_but_records_and_the_settings_stands_on_standard_error(launch):
    daemon = launch("")
    assert daemon.stop() == 0
    assert daemon.log.items == daemon.log.matching(RECORD)


def test_the_level_comes_from_the_settings_and_follows_a_reload(launch):
    daemon = launch(with_level("Warning"), environment=ANY_LEVEL)
    assert not daemon.log.matching(" (Trace|Debug|Information) ")
    assert daemon.log.matching(" Warning ")
    daemon.write_settings(with_level("Trace"))
    daemon.send(1)
    daemon.log.wait_for("Debug halvek: Done starting sources")
    post(block("Door"))
    daemon.log.wait_for(r"Trace halvek: Got line: \[Door\]$")


def test_without_a_setting_the_level_is_information(launch):
    daemon = launch(SERVER, environment=ANY_LEVEL)
    daemon.log.wait_for("Information halvek: Dropping to run state$")
    assert not daemon.log.matching(" (Trace|Debug) ")


def test_the_environment_wins_over_the_settings(launch):
    daemon = launch(with_level("Trace"), level="Error")
    post(block("Door"))
    assert daemon.stop() == 0
    assert not daemon.log.items


def test_the_level_of_one_logger_can_be_set_alone(launch):
    settings = with_level("Error")
    settings["Applications/halvek"]["LogLevel.halvek"] = "Debug"
    daemon = launch(settings | timer(1, 3600), environment=ANY_LEVEL)
    daemon.log.wait_for("Debug halvek: TICK: 3600 sec$")


def test_no_value_of_the_settings_begins_a_record_or_steers_a_terminal(launch):
    settings = SERVER | {"Events/Source#1": {"Type": "Door", "Text": "\x1b[2Jwiped\rover\x7f grün\tgreen"}}
    daemon = launch(settings)
    assert daemon.log.matching(r"^    Text=\\x1b\[2Jwiped\\x0dover\\x7f grün\tgreen$")
    assert daemon.stop() == 0
    assert [line for line in daemon.log.items if any(ord(c) < 32 and c != "\t" or ord(c) == 127 for c in line)] == []


def zone_file(hours: int) -> bytes:
    """A zone without changes, in the form of tzfile(5)."""
    return (
        b"TZif" + bytes(16) + struct.pack(">6L", 0, 0, 0, 0, 1, 4) + struct.pack(">lBB", hours * 3600, 0, 0) + b"ZZZ\0"
    )


def hours_east(record: str) -> int:
    local = datetime.fromisoformat(record[:23])
    return round((local - datetime(1970, 1, 1)).total_seconds() / 3600 - time.time() / 3600)


@pytest.mark.parametrize("readable", [True, False])
def test_a_new_time_zone_shows_in_the_records_of_a_reload(launch, tmp_path, monkeypatch, readable):
    zones = tmp_path / "etc"
    zones.mkdir()
    (zones / "localtime").write_bytes(zone_file(2))
    monkeypatch.delenv("TZ", raising=False)
    mount = ("unshare", "-m", "sh", "-c", 'mount -n --bind "$0" /etc && exec "$@"', str(zones))
    daemon = launch(SERVER, prefix=mount)
    assert hours_east(daemon.log.items[-1]) == 2
    (zones / "new").write_bytes(zone_file(-7))
    (zones / "new").rename(zones / "localtime")
    if not readable:
        daemon.settings_file.unlink()
    daemon.reload(until="Done starting sources" if readable else "Error reloading")
    assert hours_east(daemon.log.items[-1]) == -7
