"""halvekctl check --here: what this machine and its camera say of settings that are right by themselves."""

import json
import os
import subprocess
from pathlib import Path

import pytest
from testing.camera import LOCAL
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER
from testing.settings import SERVER, Settings, handler, ini_text, source

pytest_plugins = ["camera_fixtures"]

CTL = os.environ["HALVEK_CTL"]
PATHS = "/usr/bin:/bin"


def check_here(store: Path, environment: dict[str, str] | None = None) -> list[dict]:
    surroundings = {"PATH": PATHS, "HOME": "/nonexistent"} | (environment or {})
    words = [CTL, "--format", "json", "check", "--here", store]
    answer = subprocess.run(words, capture_output=True, check=False, timeout=60, env=surroundings)
    assert answer.returncode in (0, 1), answer.stderr
    return json.loads(answer.stdout)["findings"]


def found(findings: list[dict]) -> list[str]:
    """The ids of what only the machine shows, less that nobody could be asked."""
    return sorted(f["id"] for f in findings if f["id"].startswith("HK5") and f["id"] != "HK5019")


@pytest.fixture
def store(tmp_path: Path):
    """Writes settings, with an alarm input and a snapshot; returns their file."""
    snapshot = tmp_path / "snapshot.jpg"
    snapshot.write_bytes(b"x" * 30_000)
    os.mkfifo(DEFAULT_INPUT)
    DEFAULT_INPUT.chmod(0o620)

    def write(*more: Settings, path: Path = snapshot) -> Path:
        settings = SERVER | source(1, "Alarm", BankName=LOCAL, Index=1) | {"Video/Quickview": {"SnapshotPath": path}}
        for groups in more:
            settings |= groups
        (tmp_path / "settings.ini").write_text(ini_text(settings))
        return tmp_path / "settings.ini"

    yield write
    DEFAULT_INPUT.unlink(missing_ok=True)


def one(handler_type: str, **keys: object) -> Settings:
    return handler(1, "Events/Source#1", handler_type=handler_type, **keys)


def folder(path: Path, **keys: object) -> Settings:
    return one("Folder", Attachment="true", DestName="%H%M%S.jpg", DestinationPath=path, **keys)


def ftp(**keys: object) -> Settings:
    words = {"Server": "s", "Username": "u", "Password": "p", "BasePath": "/", "DestName": "x.jpg"}
    return one("Ftp", Attachment="true", **(words | keys))


def test_a_machine_that_has_it_all_shows_nothing(store, tmp_path: Path, bus, camera) -> None:
    settings = store(folder(tmp_path, LimitSize="10M"))
    assert found(check_here(settings, bus.environment)) == []


def test_the_event_pipe_must_be_a_pipe_that_only_the_daemon_reads(store) -> None:
    settings = store()
    assert found(check_here(settings)) == []
    DEFAULT_INPUT.chmod(0o644)
    assert found(check_here(settings)) == ["HK5001"]
    DEFAULT_INPUT.unlink()
    assert [f["severity"] for f in check_here(settings) if f["id"] == "HK5001"] == ["note"]
    DEFAULT_INPUT.write_text("")
    assert [f["severity"] for f in check_here(settings) if f["id"] == "HK5001"] == ["error"]


def test_a_folder_must_be_there(store, tmp_path: Path) -> None:
    (finding,) = [f for f in check_here(store(folder(tmp_path / "nothing"))) if f["id"] == "HK5002"]
    assert finding["key"] == "DestinationPath"
    assert found(check_here(store(folder(tmp_path / "snapshot.jpg")))) == ["HK5002"]


def test_a_limit_must_hold_the_snapshot_twice(store, tmp_path: Path) -> None:
    assert found(check_here(store(folder(tmp_path, LimitSize="59k")))) == []
    assert found(check_here(store(folder(tmp_path, LimitSize="58k")))) == ["HK5005"]


def test_an_empty_folder_without_size_cannot_be_limited(store, tmp_path: Path) -> None:
    card = Path("/run/tests/card")
    card.mkdir()
    is_without_size = card.stat().st_blocks == 0
    assert found(check_here(store(folder(card, LimitSize="1M")))) == (["HK5012"] if is_without_size else [])
    (card / "file").write_text("x")
    assert found(check_here(store(folder(card, LimitSize="1M")))) == []


def test_programs_must_be_on_the_path(store, tmp_path: Path) -> None:
    (tmp_path / "ftpput").write_text("#!/bin/sh\n")
    assert found(check_here(store(ftp()), {"PATH": str(tmp_path)})) == ["HK5003"]
    (tmp_path / "ftpput").chmod(0o755)
    assert found(check_here(store(ftp()), {"PATH": str(tmp_path)})) == []
    limited = check_here(store(folder(tmp_path, LimitSize="1M")), {"PATH": "/nonexistent"})
    assert found(limited) == ["HK5003"] * 5


def test_the_snapshot_must_be_there(store, tmp_path: Path) -> None:
    assert found(check_here(store(folder(tmp_path), path=tmp_path / "nothing.jpg"))) == ["HK5004"]
    os.mkfifo(tmp_path / "pipe.jpg")
    assert found(check_here(store(folder(tmp_path), path=tmp_path / "pipe.jpg"))) == ["HK5004"]


def test_a_large_snapshot_is_not_attached(store, tmp_path: Path) -> None:
    with (tmp_path / "large.jpg").open("wb") as large:
        large.truncate(16 * 1024 * 1024 + 1)
    (tmp_path / ".esmtprc").write_text("hostname=localhost:25\n")
    mail = one("Email", To="a@example.org", From="b@example.org", Attachment="true")
    environment = {"HOME": str(tmp_path)}
    assert [i for i in found(check_here(store(mail, path=tmp_path / "large.jpg"), environment)) if i != "HK5003"] == [
        "HK5014"
    ]


def test_the_folder_of_the_server_must_be_on_the_camera(store) -> None:
    (finding,) = [f for f in check_here(store(ftp(BasePath="/no/such/folder"))) if f["id"] == "HK5007"]
    assert finding["foretells"] == "\tNo destination path found, using default"


def test_output_pipes_want_a_reader_and_a_name_that_matches(store, output_pipe) -> None:
    settings = store()
    output_pipe("all.halvek.any")
    assert found(check_here(settings)) == []
    os.mkfifo(PIPE_FOLDER / "door.Alarm")
    assert found(check_here(settings)) == ["HK5008"]
    (PIPE_FOLDER / "door.Alarm").unlink()
    output_pipe("door.Doorbell")
    assert found(check_here(settings)) == ["HK5013"]
    (PIPE_FOLDER / "log.Alarm").write_text("")
    assert found(check_here(settings)) == ["HK5009", "HK5013"]


def relay(number: int, **keys: object) -> Settings:
    return handler(number, "Events/Source#1", handler_type="Relay", **keys)


def test_the_camera_must_have_what_the_settings_name(store, bus, camera) -> None:
    settings = store(
        relay(1, BankName=LOCAL, Index=0),
        relay(2, BankName=LOCAL, Index=99),
        relay(3, BankName="Lokal", Index=0),
        handler(4, "Events/Source#1", handler_type="Preset", Id="99"),
        handler(5, "Events/Source#1", handler_type="Preset", Id="3"),
        source(1, "Alarm", BankName="Locl", Index=1),
    )
    wrong = [(f["group"], f["key"], f["fix"]) for f in check_here(settings, bus.environment) if f["id"] == "HK5010"]
    assert sorted(wrong) == [
        ("Events/Handler#2", "Index", None),
        ("Events/Handler#3", "BankName", LOCAL),
        ("Events/Handler#4", "Id", None),
        ("Events/Source#1/Alarm", "BankName", LOCAL),
    ]
    assert [
        a for a in camera.actions() if a.method.split(".")[1] in ("Activate", "GoTo", "Start", "SetConfiguration")
    ] == []


def test_without_a_camera_it_says_that_nobody_could_be_asked(store) -> None:
    findings = check_here(store(relay(1, BankName=LOCAL, Index=0)), {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nothing"})
    assert {f["severity"] for f in findings if f["id"] == "HK5019"} == {"note"}
    assert found(findings) == []
