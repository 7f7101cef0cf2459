"""The package that has the service check its settings: told at a start, refused at a reload, gone without a trace."""

import contextlib
import json
import os
import pwd
import random
import re
import shutil
import signal
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from cookbook import Cookbook
from machine import (
    EVENT_PIPE,
    SERVER,
    SETTINGS,
    SNAPSHOT,
    UNIT,
    Consumer,
    Journal,
    camera_call,
    configure,
    is_active,
    main_pid,
    on_door,
    post,
    run,
    run_as,
    show,
    write_settings,
)
from test_page import PAGE_UNIT, SOCKET, ask
from testing.pipes import block, bytes_ready_at
from testing.settings import Settings, handler, ini_text, timer
from testing.waiting import wait_until

(PACKAGE,) = Path("/srv/companions").glob("halvekctl_*.deb")
NAME = "halvekctl"
NAME_OF_PAGE = PAGE_UNIT.removesuffix(".service")
FULL = re.MULTILINE | re.DOTALL
PIPES = Path("/run/halvek")
RELOADS = int(os.environ["HALVEK_BOOT_RELOADS"])
DROP_IN = "10-halvekctl.conf"
ARCHIVE, ARCHIVE_SOCKET = "halvek-archive.service", "halvek-archive.socket"
CLEAN: Settings = SERVER | timer(1, 1)
# The handler names a source that is not there. The timer's interval tells which settings are in force.
MISTAKEN: Settings = SERVER | timer(1, 3600) | handler(1, "Events/Source#7", handler_type="Relay")
# Its place is that of the missing group's name in the file that write_settings writes.
FINDING = re.compile(re.escape(str(SETTINGS)) + r":\d+:3: error: .*Events/Source#7.* \[HK3003\]")


@pytest.fixture(scope="module", autouse=True)
def package() -> Iterator[None]:
    run("dpkg", "--install", PACKAGE)
    yield
    run("dpkg", "--purge", NAME)


@pytest.fixture(scope="module")
def users() -> Iterator[None]:
    """Somebody who may be a member of groups, and somebody who is in none."""
    names = [name for name in ("poster", "stranger") if name not in {entry.pw_name for entry in pwd.getpwall()}]
    for name in names:
        run("useradd", name)
    yield
    for name in names:
        run("userdel", name)


@pytest.fixture
def running(service: None) -> None:
    """The service with settings that have no error, and a timer that can be heard."""
    configure(CLEAN)


def try_reload() -> subprocess.CompletedProcess:
    return subprocess.run(["systemctl", "reload", UNIT], capture_output=True, text=True, timeout=60)


def place_of(pattern: re.Pattern, lines: list[str]) -> int:
    places = [place for place, line in enumerate(lines) if pattern.fullmatch(line)]
    assert places, "\n".join(lines)
    return places[0]


def test_a_start_with_an_error_in_the_settings_tells_of_it_and_starts(running: None):
    write_settings(MISTAKEN)
    journal = Journal()
    run("systemctl", "restart", UNIT)
    assert is_active()
    journal.wait_for("Done starting sources")
    lines = journal.lines()
    assert place_of(FINDING, lines) < place_of(re.compile("Configuring..."), lines)


def test_a_reload_of_an_error_is_refused_and_the_daemon_keeps_its_settings(running: None, consumer: Consumer):
    pid = main_pid()
    write_settings(MISTAKEN)
    journal = Journal()
    refused = try_reload()
    assert refused.returncode != 0 and UNIT in refused.stderr
    assert (show("ActiveState"), show("ReloadResult")) == ("active", "exit-code")
    assert main_pid() == pid
    place_of(FINDING, journal.lines())
    # With the interval of the new settings this would take an hour.
    consumer.wait_for_event("Timer", after=len(consumer.items), count=2)
    assert journal.matching("Configuring...") == []


def test_a_reload_without_an_error_passes(running: None):
    pid = main_pid()
    configure(CLEAN | timer(2, 3600))
    assert show("ReloadResult") == "success"
    assert main_pid() == pid


def test_a_reload_goes_through_once_the_error_is_mended(running: None):
    write_settings(MISTAKEN)
    assert try_reload().returncode != 0
    configure(CLEAN)
    assert show("ReloadResult") == "success"


def test_an_empty_file_of_the_administrator_switches_the_check_off(running: None):
    own = Path("/etc/systemd/system/halvek.service.d") / DROP_IN
    is_first = not own.parent.exists()
    own.parent.mkdir(exist_ok=True)
    own.touch()
    run("systemctl", "daemon-reload")
    try:
        configure(MISTAKEN)
    finally:
        own.unlink()
        if is_first:
            own.parent.rmdir()
        run("systemctl", "daemon-reload")


@pytest.fixture
def unread_pipe() -> Iterator[Path]:
    """Somebody has it open and does not read it. It stands behind the consumer's in byte order."""
    path = Path("/run/halvek/unread.halvek.any")
    os.mkfifo(path)
    path.chmod(0o660)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    yield path
    os.close(descriptor)
    path.unlink()
    # What it has cost is not given back by its end.
    run("systemctl", "restart", UNIT)


def use_up_descriptors(consumer: Consumer) -> None:
    """A thousand events a second, until nothing comes out any more."""
    quiet = CLEAN | {"Applications/halvek": {"LogLevel": "Error"}}
    write_settings({name: keys for name, keys in quiet.items() if "Source#" not in name})
    run("systemctl", "restart", UNIT)
    descriptors = Path(f"/proc/{main_pid()}/fd")

    def is_mute() -> bool:
        begin = time.monotonic()
        for _ in range(100):
            post("Flood", text="x" * 200)
        time.sleep(max(0.0, begin + 0.1 - time.monotonic()))
        return len(list(descriptors.iterdir())) >= 1022

    wait_until(is_mute, "the descriptors are used up", patience=60)


@pytest.fixture
def hurried_guard() -> Iterator[None]:
    """Asked every five seconds, and a start of the service that takes two: the package's minute was waited for once."""
    texts = {
        "halvekctl-guard.timer": "[Timer]\nOnActiveSec=\nOnUnitInactiveSec=\nOnActiveSec=5s\nOnUnitInactiveSec=5s\n",
        UNIT: "[Service]\nExecStartPre=/bin/sleep 2\n",
    }
    paths = [Path(f"/run/systemd/system/{unit}.d/hurried.conf") for unit in texts]
    for path, text in zip(paths, texts.values(), strict=True):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    run("systemctl", "daemon-reload")
    yield
    for path in paths:
        path.unlink()
        path.parent.rmdir()
    run("systemctl", "daemon-reload")


def test_a_daemon_that_an_unread_pipe_has_silenced_speaks_again_and_nothing_posted_meanwhile_is_lost(
    running: None, hurried_guard: None, consumer: Consumer, unread_pipe: Path
):
    run("systemctl", "is-active", "halvekctl-guard.timer")
    journal = Journal("halvekctl-guard.service")
    use_up_descriptors(consumer)
    pid, begin = main_pid(), time.monotonic()
    wait_until(lambda: main_pid() != pid, "the guard restarts it", patience=90)
    for number in range(500):  # fewer than the unread pipe leaves descriptors for
        post("Meanwhile", number=number)
    consumer.wait_for_event("Meanwhile", count=500)
    assert time.monotonic() - begin < 90
    numbers = [int(event.properties["number"]) for event in consumer.of_type("Meanwhile")]
    assert numbers == list(range(500))
    journal.wait_for("it is restarted")
    line = journal.matching("it is restarted")[0]
    assert re.search(rf"of 1024 descriptors .* lost to {unread_pipe}, which {os.getpid()} \(.*\) has open", line), line


# --- the verbs that are about the running daemon, as those who may call them


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
        run("halvekctl", "post", "Door", "button=front")
        wait_until(lambda: bytes_ready_at(EVENT_PIPE) == 0, "all is read")
        recorder.send_signal(signal.SIGINT)
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


# --- the page of the virtual camera, which asks it


def drop_in_of_the_man_page() -> str:
    text = Path("/srv/source/docs/kelto-vcam-page.1").read_text().replace("\\-", "-")
    (found,) = re.findall(
        f"^# systemctl edit {NAME_OF_PAGE}\n(.*?)^# systemctl try-restart {NAME_OF_PAGE}$", text, FULL
    )
    return found


@pytest.fixture
def let_page() -> Iterator[Callable[[], None]]:
    """Does what the man page of the page shows."""
    path = Path(f"/etc/systemd/system/{PAGE_UNIT}.d/override.conf")

    def let() -> None:
        path.parent.mkdir()
        path.write_text(drop_in_of_the_man_page())
        run("systemctl", "daemon-reload")
        run("systemctl", "try-restart", NAME_OF_PAGE)

    run("systemctl", "start", SOCKET)
    yield let
    run("systemctl", "stop", SOCKET, PAGE_UNIT)
    shutil.rmtree(path.parent, ignore_errors=True)
    run("systemctl", "daemon-reload")


def test_the_page_shows_the_wiring_once_its_drop_in_lets_it_read_the_settings(camera: None, let_page):
    configure(on_door(("Preset", {"Id": 7})))
    told = json.loads(ask("/wiring"))
    assert told["drawing"] == "" and "Permission denied" in told["problem"], told
    let_page()
    told = json.loads(ask("/wiring"))
    assert told["problem"] == "" and "preset 7" in told["drawing"], told
    wait_until(lambda: json.loads(ask("/state"))["eventPipe"]["open"], "the page listens")
    post("Door")
    wait_until(lambda: json.loads(ask("/explain"))["seq"] == 1, "the event")
    told = json.loads(ask("/explain"))
    assert [(row["group"], row["acts"]) for row in told["rows"]] == [("Events/Handler#1", True)], told


# --- the cookbook


def archived() -> list[str]:
    text = "".join(path.read_text() for path in Path("/var/lib/halvek-archive").glob("*.events"))
    return re.findall(r"^number=(\d+)$", text, re.M)


def test_the_cookbooks_archive_misses_nothing_while_it_and_the_daemon_are_restarted(
    cookbook: Cookbook, consumer: Consumer
):
    cookbook.take("archive")
    cookbook.type_in("A listener that must miss nothing", but="cat")
    wait_until(lambda: archived() == ["1"], "the first receipt is archived")
    assert "number=1\n" in cookbook.type_in("A listener that must miss nothing", containing="cat")
    numbers = [str(number) for number in range(1, 102)]
    run("systemctl", "stop", ARCHIVE)
    for number in numbers[1:51]:
        post("Receipt", number=number)
    # What is still in the event pipe would go with the daemon.
    consumer.wait_for_event("Receipt", properties={"number": "51"})
    run("systemctl", "restart", UNIT)
    for number in numbers[51:]:
        post("Receipt", number=number)
    run("systemctl", "start", ARCHIVE)
    wait_until(lambda: archived() == numbers, "all receipts are archived")
    run("systemctl", "disable", "--now", ARCHIVE, ARCHIVE_SOCKET)
    assert not Path("/run/halvek/00-archive.halvek.any").is_symlink() and is_active()


def test_what_the_cookbook_saves_comes_back_and_what_is_the_cameras_own_stays(cookbook: Cookbook):
    cookbook.take("backup")
    cookbook.type_in("Settings for another camera", containing="save")
    cookbook.close()
    own = SETTINGS.with_name("zz-camera.ini")
    own.write_text("[Events/Handler#backup/Preset]\nId=9\n")
    cookbook.type_in("Settings for another camera", containing="restore")
    run("kelto-vcam", "alarm", "6", "on")
    wait_until(lambda: "9, 1, 400" in camera_call("GetActions"), "the head goes to this camera's own preset")
    own.unlink()


def test_a_purge_leaves_nothing_behind_and_a_reload_of_the_error_goes_through(running: None):
    files = [Path(line) for line in run("dpkg", "-L", NAME).splitlines() if Path(line).is_file()]
    assert DROP_IN in {path.name for path in files} and DROP_IN in show("DropInPaths")
    write_settings(MISTAKEN)
    assert try_reload().returncode != 0
    pid = main_pid()
    run("dpkg", "--purge", NAME)
    assert [path for path in files if path.exists()] == []
    assert run("find", "/etc", "/usr", "/var", "/run", "-xdev", "-name", f"*{NAME}*") == ""
    assert DROP_IN not in show("DropInPaths") and NAME not in show("ExecReload") + show("ExecStartPre")
    configure(MISTAKEN)
    assert main_pid() == pid
