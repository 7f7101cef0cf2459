"""The verbs of halvekctl that are about the running service, as those who may call them."""

import contextlib
import json
import os
import pwd
import random
import re
import shutil
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from halvekctl import CLEAN, MISTAKEN
from machine import (
    EVENT_PIPE,
    SERVER,
    SETTINGS,
    SNAPSHOT,
    UNIT,
    Journal,
    camera_call,
    configure,
    main_pid,
    on_door,
    post,
    run,
    run_as,
    write_settings,
)
from testing.pipes import block, bytes_ready_at
from testing.settings import Settings, ini_text, timer
from testing.waiting import wait_until

PIPES = Path("/run/halvek")
RELOADS = int(os.environ["HALVEK_BOOT_RELOADS"])

pytestmark = pytest.mark.usefixtures("halvekctl")


@pytest.fixture(scope="module")
def users() -> Iterator[None]:
    """Somebody who may be a member of groups, and somebody who is in none."""
    names = [name for name in ("poster", "stranger") if name not in {entry.pw_name for entry in pwd.getpwall()}]
    for name in names:
        run("useradd", name)
    yield
    for name in names:
        run("userdel", name)


EVERYBODY = {"root": ("root", []), "daemon": ("halvek", []), "member": ("poster", ["halvek-listen", "halvek-post"])}
EVERYBODY["nobody"] = ("stranger", [])


def ctl_as(who: str, words: str) -> subprocess.CompletedProcess:
    user, groups = EVERYBODY[who]
    return run_as(user, *groups, command=f"timeout 40 halvekctl {words}")


def json_as(who: str, words: str, status: int = 0) -> dict:
    done = ctl_as(who, "--format json " + words)
    assert done.returncode == status, (who, words, done)
    return json.loads(done.stdout)


def test_status_tells_everybody_what_he_may_see_and_what_he_may_not(running: None, users: None):
    (PIPES / "test.halvek.any").unlink(missing_ok=True)
    everything = json_as("root", "status")
    assert (everything["pid"], everything["user"]) == (main_pid(), "halvek") and everything["not_shown"] == []
    assert everything["reloads_left"] > 900 and everything["last_verdict"]["taken"] is True
    assert everything["settings"] == "/etc/kelto/settings" and everything["path"].startswith("/usr/lib/halvek/bin:")
    assert (everything["event_pipe"]["mode"], everything["event_pipe"]["owner"]) == ("prw--w----", "halvek")
    own = json_as("daemon", "status")
    assert own["reloads_left"] == everything["reloads_left"] and own["event_pipe"]["bytes_waiting"] == 0
    member = json_as("member", "status")
    assert member["descriptors"] is None and member["output_pipes"] == []
    assert member["event_pipe"]["bytes_waiting"] == 0 and "reloads_left" in member["not_shown"]
    nobody = json_as("nobody", "status")
    assert nobody["pid"] == main_pid() and nobody["listening"] is True
    assert nobody["output_pipes"] is nobody["descriptors"] is nobody["reloads_left"] is None
    assert nobody["event_pipe"]["bytes_waiting"] is nobody["last_verdict"] is None
    assert re.search(r"reloads left: not shown to stranger, but to root and halvek", ctl_as("nobody", "status").stdout)


def test_post_and_watch_are_for_members(running: None, users: None):
    for who in ("root", "daemon", "member"):
        watched = f"timeout 30 halvekctl --format json watch --type Bell{who} --count 1"
        posting = f"for i in 1 2 3 4 5 6 7 8 9; do sleep 0.3; halvekctl post Bell{who} n=$i || exit; done"
        user, groups = EVERYBODY[who]
        command = f"({posting}) >/dev/null 2>&1 & {watched}; status=$?; kill $! 2>/dev/null; wait; exit $status"
        done = run_as(user, *groups, command=command)
        assert done.returncode == 0 and json.loads(done.stdout)["props"]["eventType"] == f"Bell{who}", done
    for verb in ("post Bell", "watch --count 1", "record /tmp/nothing-of-it"):
        refused = ctl_as("nobody", verb)
        assert (refused.returncode, refused.stdout) == (3, "") and "Permission denied" in refused.stderr
    assert list(PIPES.glob("zz-watch*")) == []


def test_try_acts_in_the_daemons_place_for_root_alone(running: None, users: None):
    folder = Path("/media/saved")
    folder.mkdir(parents=True, exist_ok=True)
    shutil.chown(folder, "halvek", "halvek")
    picture = SNAPSHOT.with_name("of-this-test.jpg")  # a camera that is on puts its own in the place of SNAPSHOT
    picture.parent.mkdir(exist_ok=True)
    picture.write_bytes(b"jpeg")
    picture.chmod(0o644)

    def saving(where: object) -> Settings:
        saves = ("Folder", {"Attachment": "true", "DestinationPath": where, "DestName": "x.jpg"})
        return on_door(saves) | {"Video/Quickview": {"SnapshotPath": picture}}

    configure(saving(folder))
    told = json_as("root", "try Handler#1")
    assert (told["verdict"], told["acted"]) == ("acts", False) and list(folder.iterdir()) == []
    assert json_as("root", "try Handler#1 --act")["went_well"] is True
    assert (folder / "x.jpg").owner() == "halvek" and (folder / "x.jpg").read_bytes() == b"jpeg"
    # /var is not writable for the service, whoever owns it.
    for where, status in (("/var/lib/halvek", 0), ("/var/tmp", 1)):
        write_settings(saving(where))
        assert json_as("root", "try Handler#1 --act", status)["went_well"] is (status == 0)
    for who in ("member", "nobody"):
        refused = ctl_as(who, "try Handler#1 --act")
        assert refused.returncode == 3 and refused.stdout == "", refused
    shutil.rmtree(folder)
    picture.unlink()


def test_record_hears_the_bus_and_root_asks_as_the_daemons_user(camera: None):
    camera_call("SetIdleState", "i", "0")
    file = Path("/root/inputs")
    with subprocess.Popen(["halvekctl", "record", "--bus", file], stderr=subprocess.PIPE, text=True) as recorder:
        complaints = []
        while "reading" not in (line := recorder.stderr.readline()):
            complaints.append(line)
        camera_call("SetAlarm", "sib", "Local", "2", "true")
        post("Door")
        # A second event tells that the first has been read; the alarm was said before both.
        watch = "(sleep 1; halvekctl post Door) & timeout 20 halvekctl watch --count 1"
        assert run_as("root", command=watch).returncode == 0
        recorder.send_signal(signal.SIGINT)
    lines = [json.loads(line) for line in file.read_text().splitlines()]
    file.unlink()
    assert [line for line in complaints if "head" in line] == []
    assert [line["kind"] for line in lines[:2]] == ["begin", "idle"] and lines[1]["state"] == 0
    assert sorted(line["kind"] for line in lines[2:-1]) == ["alarm", "posted", "posted"]


def test_replay_compares_what_was_recorded_under_the_services_settings_with_others(running: None, tmp_path: Path):
    file, other = tmp_path / "inputs", tmp_path / "other.ini"
    with subprocess.Popen(["halvekctl", "record", file], stderr=subprocess.PIPE, text=True) as recorder:
        assert "reading" in recorder.stderr.readline()
        # The pipe of who watches comes behind that of who records.
        watch = "(sleep 1; halvekctl post Door button=front) & timeout 20 halvekctl watch --type Door --count 1"
        watched = run_as("root", command=watch)
        recorder.send_signal(signal.SIGINT)
    assert watched.returncode == 0, watched
    other.write_text(ini_text(on_door(("Relay", {"BankName": "x"}))))
    told = json_as("root", f"replay {file} --new {other}", 1)
    assert told["old"] == str(SETTINGS.parent)
    (handler_told,) = told["handlers"]
    assert (handler_told["group"], handler_told["before"], handler_told["after"]) == ("Events/Handler#1", 0, 1)
    assert handler_told["inputs"][0]["props"] == {"button": "front"}


def descriptors_lost() -> list[str]:
    """The daemon keeps the descriptor of an output pipe open for ever when it could not write to it."""
    folder = f"/proc/{main_pid()}/fd"
    links = []
    for number in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):  # of an event that it was just handing on
            links.append(os.readlink(f"{folder}/{number}"))
    return [link for link in links if link.startswith(f"{PIPES}/")]


def flood(kilobytes: int) -> None:
    text = block("Flood", text="x" * 200).encode() * 16
    with EVENT_PIPE.open("wb", buffering=0) as pipe:
        for _ in range(kilobytes * 1024 // len(text)):
            assert pipe.write(text) == len(text)
    wait_until(lambda: bytes_ready_at(EVENT_PIPE) == 0, "all is read")


@pytest.fixture
def quiet(service: None) -> None:
    """The service with a journal that takes whatever is posted."""
    write_settings(SERVER | {"Applications/halvek": {"LogLevel": "Error"}})
    run("systemctl", "restart", UNIT)


def test_listeners_that_are_stopped_or_killed_cost_the_service_no_descriptor(quiet: None, tmp_path: Path):
    output = tmp_path / "events"
    started = []
    for words in (["watch"], ["watch"], ["record", tmp_path / "stopped"], ["record", tmp_path / "killed"]):
        with output.open("ab") as file:
            started.append(subprocess.Popen(["halvekctl", *words], stdout=file, stderr=subprocess.PIPE))
        assert b"reading" in started[-1].stderr.readline()
    for number, process in enumerate(started):
        process.send_signal(signal.SIGKILL if number % 2 else signal.SIGSTOP)
    flood(kilobytes=2048)  # more than a pipe holds
    wait_until(lambda: descriptors_lost() == [], "none is lost")
    for process in started:
        process.kill()
        process.wait()
        process.stderr.close()
    wait_until(lambda: list(PIPES.glob("zz-*")) == [], "the pipes are gone")


def test_a_listener_held_still_costs_nothing_until_its_pipe_is_full_which_status_shows(quiet: None):
    """Its reader of the pipe included, as in a frozen control group, which not every kernel has."""
    run("systemd-run", "--unit=listener", "halvekctl", "watch")
    wait_until(lambda: len(list(PIPES.glob("zz-watch.*"))) == 1, "it listens")
    (path,) = PIPES.glob("zz-watch.*")
    run("systemctl", "kill", "--signal=STOP", "listener")
    flood(kilobytes=512)
    wait_until(lambda: descriptors_lost() == [] and bytes_ready_at(path) > 300_000, "all of it waits")
    flood(kilobytes=1024)
    wait_until(lambda: descriptors_lost() != [], "the pipe is full")
    (pipe,) = [one for one in json_as("root", "status")["output_pipes"] if one["path"] == str(path)]
    assert pipe["full"] is True and [reader["comm"] for reader in pipe["readers"]] == ["halvekctl-pipe"]
    run("systemctl", "kill", "--signal=CONT", "listener")
    wait_until(lambda: bytes_ready_at(path) == 0, "it goes on")
    run("systemctl", "stop", "listener")
    assert not path.exists()
    run("systemctl", "restart", UNIT)


def test_without_a_daemon_its_defaults_are_those_of_the_unit(running: None):
    drop_in = Path(f"/etc/systemd/system/{UNIT}.d/zone.conf")
    drop_in.parent.mkdir(exist_ok=True)
    drop_in.write_text("[Service]\nEnvironment=TZ=Asia/Tokyo\n")
    run("systemctl", "daemon-reload")
    run("systemctl", "restart", UNIT)
    beside = ctl_as("root", "schedule").stderr.splitlines()[0]
    pid = main_pid()
    run("systemctl", "stop", UNIT)
    without = ctl_as("root", "schedule").stderr.splitlines()[0]
    drop_in.unlink()
    run("systemctl", "daemon-reload")
    run("systemctl", "start", UNIT)
    assert f"zone Asia/Tokyo (daemon {pid})" in beside and without == beside.replace(f"daemon {pid}", "unit")


@pytest.mark.parametrize("level", ["Information", "Warning"])
def test_reload_judges_as_the_daemon_does_with_the_real_journal_under_traffic(running: None, users: None, level: str):
    chance = random.Random(level)
    quiet: Settings = {"Applications/halvek": {"LogLevel": level}}
    good = [quiet | SERVER, quiet | SERVER | timer(1, 3600), quiet | SERVER | timer(2, 3600)]
    write_settings(good[0])
    run("systemctl", "restart", UNIT)
    traffic = subprocess.Popen(["sh", "-c", "while :; do halvekctl post Traffic text=xxxxxxxxxxxxx; sleep 0.05; done"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)  # fmt: skip
    try:
        for _ in range(RELOADS):
            settings = chance.choice([*good, quiet | MISTAKEN, None])
            force = chance.random() < 0.7
            if settings is None:
                SETTINGS.write_text("[Events/Source#1]\nnonsense\n")
            else:
                write_settings(settings)
            journal = Journal()
            is_refused = settings is None or ("Events/Handler#1" in settings and not force)
            told = json_as("root", "reload" + " --force" * force, int(is_refused))
            assert told["refused_by"] == ((("daemon" if force else "check")) if is_refused else None)
            assert told["records_hidden"] is False
            assert (journal.matching("Error reloading") != []) == (told["refused_by"] == "daemon")
            if told["taken"] and "Events/Handler#1" in settings:
                assert any(record["text"].startswith("Error LoadHandlers") for record in told["records"])
    finally:
        traffic.kill()
        traffic.wait()
        configure(CLEAN)
    refused = ctl_as("nobody", "reload")
    assert refused.returncode == 3 and refused.stdout == "", refused
