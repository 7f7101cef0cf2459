"""halvekctl try: whether one handler could act, and its action once if, and only if, that is asked for."""

import os
import re
import subprocess
from pathlib import Path

import pytest
from ctl import PROGRAM, answer, ctl, environment, json_answer, write_store
from testing.pipes import DEFAULT_INPUT
from testing.settings import SERVER, handler, source, timer
from testing.users import FIRST_UID

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it runs programs, and takes the daemon's rights")


@pytest.fixture
def place(tmp_path):
    """A folder for snapshots, a snapshot, and an ftpput that tells of its calls, all open to everybody."""
    for folder in (tmp_path, tmp_path.parent):
        folder.chmod(0o755)
    (tmp_path / "snapshot.jpg").write_bytes(b"jpeg" * 100)
    for name in ("bin", "saved", "calls"):
        (tmp_path / name).mkdir()
        (tmp_path / name).chmod(0o777)
    ftpput = tmp_path / "bin/ftpput"
    ftpput.write_text(f'#!/bin/sh\nid -u > {tmp_path}/calls/user\nprintf "%s\\n" "$@" > {tmp_path}/calls/ftpput\n')
    ftpput.chmod(0o755)
    return tmp_path


def settings(place: Path, **keys: object) -> dict:
    base = SERVER | timer(1, 3600) | source(2, "Door")
    base |= {"Video/Quickview": {"SnapshotPath": place / "snapshot.jpg"}}
    saved = {"Attachment": "true", "DestinationPath": place / "saved", "DestName": "x.jpg"} | keys
    base |= handler(1, "Events/Source#1", handler_type="Folder", **saved)
    base |= handler(
        2,
        "Events/Source#2",
        handler_type="Ftp",
        Attachment="true",
        Server="127.0.0.1",
        DestName="y.jpg",
        BasePath="/up",
        Username="u",
        Password="topsecret",
    )
    return base


def with_path(place: Path) -> dict[str, str]:
    return {"PATH": f"{place}/bin:{os.environ['PATH']}"}


def done_in(place: Path) -> list[str]:
    return sorted(path.name for name in ("saved", "calls") for path in (place / name).iterdir())


def test_without_act_it_says_what_is_there_and_does_nothing(place):
    store = write_store(place, settings(place))
    told = json_answer("--settings", store, "try", "Handler#2", variables=with_path(place))
    assert (told["group"], told["event"], told["verdict"], told["acted"]) == ("Events/Handler#2", "Door", "acts", False)
    assert {need["name"]: need["there"] for need in told["needs"]} == {"program": True, "host": True, "snapshot": True}
    text = answer("--settings", store, "try", "Events/Handler#1", variables=with_path(place))
    assert f"there    folder: {place}/saved" in text and "Nothing was done" in text and "no daemon runs" in text
    assert done_in(place) == []


@pytest.mark.parametrize(
    ("change", "name"),
    [
        (lambda place: (place / "snapshot.jpg").unlink(), "snapshot"),
        (lambda place: (place / "saved").rmdir(), "folder"),
    ],
    ids=["snapshot", "folder"],
)
def test_what_is_missing_is_told_and_is_1(place, change, name):
    store = write_store(place, settings(place))
    change(place)
    told = json_answer("--settings", store, "try", "Handler#1", status=1)
    assert [need["there"] for need in told["needs"] if need["name"] == name] == [False]


def test_a_program_that_is_missing_is_told(place):
    store = write_store(place, settings(place))
    told = json_answer("--settings", store, "try", "Handler#2", status=1, variables={"PATH": "/nowhere"})
    assert {"name": "program", "there": False, "text": "ftpput is not on the daemon's PATH"} in told["needs"]


def test_the_schedule_is_told_and_act_acts_all_the_same(place):
    store = write_store(place, settings(place, EnabledTimes="1000-1100"))
    words = ["--settings", store, "--zone", "UTC", "try", "Handler#1"]
    assert json_answer(*words, "--at", "2026-11-23T10:30")["verdict"] == "acts"
    assert json_answer(*words, "--at", "2026-11-23T12:00", status=1)["verdict"] == "out-of-time"
    assert done_in(place) == []
    told = json_answer(*words, "--at", "2026-11-23T12:00", "--act")
    assert (told["verdict"], told["acted"], told["went_well"]) == ("out-of-time", True, True)
    assert done_in(place) == ["x.jpg"] and (place / "saved/x.jpg").read_bytes() == b"jpeg" * 100


def test_an_action_that_fails_is_1_with_its_records(place):
    store = write_store(place, settings(place))
    (place / "bin/ftpput").write_text("#!/bin/sh\nexit 1\n")
    (place / "snapshot.jpg").unlink()
    done = ctl("--settings", store, "try", "Handler#1", "--act", variables=with_path(place))
    assert done.returncode == 1 and b"Failed in " in done.stdout
    assert re.search(rb"^  \S+ (Warning|Error) ", done.stdout, re.MULTILINE), done.stdout
    assert b"topsecret" not in done.stdout + done.stderr


@pytest.mark.not_under("one user", reason="the daemon is somebody else")
def test_root_acts_as_the_daemons_user_with_the_daemons_path(place, launch):
    user = ["setpriv", f"--reuid={FIRST_UID}", f"--regid={FIRST_UID}", "--clear-groups", "--"]
    os.mkfifo(DEFAULT_INPUT, 0o620)
    os.chown(DEFAULT_INPUT, FIRST_UID, FIRST_UID)
    options = {"prefix": user, "environment": with_path(place), "level": "Information", "ready": False}
    daemon = launch(settings(place), **options)
    daemon.log.wait_for("Dropping to run state")
    told = json_answer("try", "Handler#2", "--act")
    assert told["acted"] and told["went_well"]
    assert told["surroundings"] == f"those of daemon {daemon.pid}, but for its system calls and networks"
    assert (place / "calls/user").read_text() == f"{FIRST_UID}\n"
    json_answer("try", "Handler#1", "--act")
    status = (place / "saved/x.jpg").stat()
    assert (status.st_uid, status.st_gid) == (FIRST_UID, FIRST_UID)
    (place / "saved/x.jpg").unlink()
    (place / "saved").chmod(0o755)
    assert json_answer("try", "Handler#1", "--act", status=1)["went_well"] is False
    assert not (place / "saved/x.jpg").exists()


def test_the_event_may_be_given_with_its_properties(place):
    store = write_store(place, settings(place))
    told = json_answer("--settings", store, "try", "Handler#2", "button=front", "--event", "Bell", status=1)
    assert (told["event"], told["verdict"]) == ("Bell", "other-type")


@pytest.mark.parametrize("words", [[], ["Handler#9"], ["Handler#1", "x"], ["Handler#1", "--at", "soon"]], ids=str)
def test_a_wrong_command_line_is_2_and_does_nothing(place, words):
    store = write_store(place, settings(place))
    assert ctl("--settings", store, "try", *words, "--act").returncode == 2
    assert done_in(place) == []


def test_nothing_is_done_where_the_answer_cannot_be_given(place):
    words = ["--settings", write_store(place, settings(place)), "try", "Handler#1", "--act"]
    assert ctl(*words, stdout=None, preexec_fn=lambda: os.close(1)).returncode == 3
    assert done_in(place) == []


def test_without_act_it_writes_nothing_and_runs_nothing(place):
    store = write_store(place, settings(place))
    trace = place / "trace"
    calls = "write,execve,unlink,rename,mknodat,mkdir,openat,clone,clone3,vfork"
    command = ["strace", "-f", "-y", "-o", trace, "-e", f"trace={calls}", PROGRAM, "--settings", store, "try"]
    subprocess.run([*command, "Handler#2"], env=environment(**with_path(place)), timeout=60, capture_output=True)
    lines = trace.read_text().splitlines()
    assert sum("execve(" in line for line in lines) == 1
    assert not [line for line in lines if re.search(r"O_CREAT|O_TRUNC|(unlink|rename|mknodat|mkdir)\(", line)]
    assert done_in(place) == []
