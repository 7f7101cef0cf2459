"""The recipes of examples/: their expectations hold, and each is played once on the virtual camera.

What is played is the recipe's own file, but for the few texts that `play` replaces: paths, addresses, a smaller limit,
and a rest of one second for one of thirty. The time of day comes from a clock that faketime puts into the daemon.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from datetime import datetime
from pathlib import Path

import pytest
from ctl import PROGRAM as CTL
from ctl import answer, environment
from memory_disk import memory_disk, used
from outbox import Outbox, make_private
from testing.bus import PrivateBus
from testing.camera import LOCAL, VirtualCamera
from testing.collector import Lines
from testing.daemon import Daemon
from testing.ftp_server import FtpServer
from testing.pipes import PIPE_FOLDER, block, bytes_ready_at, post
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, wait_until

pytest_plugins = ["mail_fixtures"]
pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="each program is tried there by its own tests")

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
RECIPES = sorted(EXAMPLES.glob("*.ini"))
MONDAY_NOON, MONDAY_NIGHT = datetime(2026, 11, 23, 12), datetime(2026, 11, 23, 23)


@pytest.mark.parametrize("recipe", RECIPES, ids=lambda path: path.stem)
def test_the_expectations_of_a_recipe_hold(recipe: Path):
    tests = recipe.with_suffix(".tests")
    expected = sum(line.startswith("at ") for line in tests.read_text().splitlines())
    told = answer("--settings", recipe, "--zone", "UTC", "explain", "--tests", tests)
    assert expected > 0 and re.search(r"^([1-9]\d*) expectations, 0 failed$", told, re.M), told


def test_every_recipe_says_first_what_it_does():
    for recipe in RECIPES:
        assert re.match(r"# [A-Z].*[.:,]", recipe.read_text()), recipe


# --- the page


PAGE = EXAMPLES.parent / "docs/cookbook.md"


def test_the_pictures_of_the_page_are_those_that_are_drawn_now():
    made = subprocess.run([EXAMPLES.parent / "scripts/make-cookbook", CTL], capture_output=True, check=True, timeout=60)
    assert made.stdout.decode() == PAGE.read_text()


def test_the_page_has_a_picture_of_every_recipe_and_names_every_file():
    text = PAGE.read_text()
    names = {path.name for path in EXAMPLES.iterdir() if path.is_file()} - {"demo.ini", "mosquitto-acl.conf"}
    table = text.partition("| task | files |")[2].partition("## ")[0]
    named = set(
        re.findall(r"`([\w.-]+)`", table.replace("halvek-archive.*", "halvek-archive.service`, `halvek-archive.socket"))
    )
    assert named == {name for name in names if not name.endswith(".tests")}
    assert sorted(re.findall(r"^```text (.+)$", text, re.M)) == [path.stem for path in RECIPES if path.stem != "demo"]


def test_the_links_of_the_pages_lead_somewhere():
    for page in (PAGE, PAGE.with_name("cannot.md")):
        titles = re.findall(r"^#+ (.*)$", page.read_text(), re.M)
        anchors = {"#" + re.sub(r"[^\w -]", "", title).lower().replace(" ", "-") for title in titles}
        for link in re.findall(r"\]\(([^)]+)\)", page.read_text()):
            assert link in anchors or (page.parent / link).is_file(), f"{page.name}: {link}"
        for named in re.findall(r"`((?:rules/)?[\w-]+\.(?:ini|py|sh|socket|conf))`", page.read_text()):
            assert (EXAMPLES / named).is_file() or named == "zz-camera.ini", f"{page.name}: {named}"


# --- playing


@pytest.fixture(scope="module")
def bus(tmp_path_factory: pytest.TempPathFactory) -> Iterator[PrivateBus]:
    with PrivateBus(tmp_path_factory.mktemp("bus")) as private_bus:
        yield private_bus


@pytest.fixture(scope="module")
def only_camera(bus: PrivateBus, tmp_path_factory: pytest.TempPathFactory) -> Iterator[VirtualCamera]:
    with VirtualCamera(bus, tmp_path_factory.mktemp("camera")) as virtual_camera:
        yield virtual_camera


@pytest.fixture
def camera(only_camera: VirtualCamera) -> VirtualCamera:
    only_camera.clear_actions()
    return only_camera


@pytest.fixture
def play(
    camera: VirtualCamera, bus: PrivateBus, launch: Callable[..., Daemon], tmp_path: Path
) -> Callable[..., Daemon]:
    elsewhere = {
        "/tmp/snapshot/img2.jpg": camera.snapshot,
        "/media/sd/time-lapse": tmp_path / "card",
        "/var/lib/halvek/panic": tmp_path / "saved",
        "ftp.example.com": "127.0.0.1",
        "LimitSize=500M": "LimitSize=64k",
        "DwellTime.sec=30": "DwellTime.sec=1",
    }

    def start(recipe: str, **variables: str) -> Daemon:
        text = (EXAMPLES / f"{recipe}.ini").read_text()
        for told, here in elsewhere.items():
            text = text.replace(told, str(here))
        programs = tmp_path / "programs"
        programs.mkdir(exist_ok=True)
        if not (programs / "ftpput").exists():
            (programs / "ftpput").symlink_to(shutil.which("busybox"))
        path = variables.pop("PATH", f"{programs}:{os.environ['PATH']}")
        return launch(text, environment=bus.environment | {"PATH": path} | variables)

    return start


@pytest.fixture
def ftp(tmp_path: Path) -> Iterator[FtpServer]:
    (tmp_path / "server").mkdir()
    with FtpServer(tmp_path / "server", password="secret") as server:
        yield server


def clock(moment: datetime) -> dict[str, str]:
    """Another time for the daemon, which goes on from there; its waits and the dates of files are left alone."""
    (library,) = Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1")
    own = {"FAKETIME_DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1", "TZ": "UTC"}
    return {"LD_PRELOAD": str(library), "FAKETIME": f"@{moment}"} | own


def orders(camera: VirtualCamera) -> list[tuple[str, str]]:
    """What the camera was told to do, less what it was only asked."""
    return [action[1:] for action in camera.actions() if not re.search(r"\.(Is|Get)", action.method)]


def wait_for_orders(camera: VirtualCamera, *wanted: tuple[str, str]) -> None:
    wait_until(lambda: len(orders(camera)) >= len(wanted), f"the camera is told {wanted}")
    assert orders(camera) == list(wanted)


def is_a_picture(content: bytes) -> bool:
    return content[:2] == b"\xff\xd8" and content[-2:] == b"\xff\xd9"


def test_at_night_the_door_turns_the_head_and_mails_the_picture(play, camera, sink, mail_environment):
    play("night-door", **mail_environment, **clock(MONDAY_NIGHT))
    camera.set_alarm(LOCAL, 2, True)
    (mail,) = sink.wait_for(1)
    assert mail.recipients == ["guard@example.com"]
    text, picture = mail.message.iter_parts()
    assert re.fullmatch(r"The door moved at 23:0\d\.\s*", text.get_content()) and is_a_picture(picture.get_content())
    assert orders(camera) == [("PresetsV2.GoTo", "3, 1, 400")]


def test_a_doorbell_pulses_its_relay_and_uploads_the_picture(play, camera, ftp):
    play("doorbell")
    post(block("Doorbell", button="front"))
    wait_until(lambda: ftp.received, "the picture arrives")
    (name,) = ftp.received
    assert re.fullmatch(r"/doorbell-\d{8}-\d{6}\.jpg", name) and is_a_picture(ftp.content(name))
    (setup, pulse) = orders(camera)
    assert setup[0] == "RelayV3.SetConfiguration" and pulse == ("RelayV3.Activate", "Local, 0, 3")


def test_a_time_lapse_stays_below_its_limit_on_a_card_that_has_a_file(play, tmp_path):
    """Without the file that the recipe wants in it, nothing is saved on a disk where an empty folder takes no room."""
    card = tmp_path / "card"
    card.mkdir()
    with memory_disk(card):
        daemon = play("time-lapse", **clock(MONDAY_NOON))
        daemon.log.wait_for("fired$")
        assert list(card.iterdir()) == []
        for day, (name, size) in enumerate([("keep", 5), ("old.jpg", 40_000), ("new.jpg", 20_000)]):
            (card / name).write_bytes(bytes(size))
            os.utime(card / name, (day * 86400,) * 2)
        daemon.reload()
        daemon.log.wait_for("Copy succeeded$")
        picture, kept = sorted(card.iterdir())
        assert re.fullmatch(r"20261123-1200\d\d\.jpg", picture.name) and is_a_picture(picture.read_bytes())
        assert kept.name == "new.jpg" and used(card) <= 64 * 1024
        assert daemon.stop() == 0


def test_motion_in_the_region_starts_the_tour(play, camera, output_pipe):
    pipe = output_pipe("test.halvek.any")
    play("motion-tour")
    for region in ("3", "2"):
        post(block("MotionDetection", region=region))
    pipe.wait_for_event("MotionDetection", count=2)
    wait_for_orders(camera, ("Tour.Start", "1, 900"))


def test_an_alert_is_mailed_with_all_that_it_says(play, camera, sink, mail_environment):
    play("alert-mail", **mail_environment)
    camera.raise_alert("gate", "Human", "LineCrossing", "Front%20gate", "", [(0.0, 0.5)], [], "video", "rtsp://x/1")
    (mail,) = sink.wait_for(1)
    text, data, picture = mail.message.iter_parts()
    told = dict(line.split(" = ", 1) for line in data.get_content().splitlines() if " = " in line)
    assert text.get_content().startswith("Analytics saw something at ") and is_a_picture(picture.get_content())
    assert (
        told.items() >= {"source": "gate", "class": "Human", "ruleName": "Front gate", "rulePoints": "(0,0.5)"}.items()
    )


def test_the_head_goes_home_from_wherever_it_rests_and_stays_there(play, camera):
    camera.go_to("7")
    camera.lines.wait_for("head comes to rest at preset 7", after=0)
    camera.clear_actions()
    daemon = play("home-position")
    wait_for_orders(camera, ("PresetsV2.GoTo", "1, 1, 900"))
    daemon.log.wait_for("ParkEventSource: fired$", count=2)
    assert len(orders(camera)) == 1


def test_the_gate_gets_two_pulses(play, camera):
    play("gate")
    before = len(camera.lines.items)
    post(block("OpenGate", by="porter"))
    camera.lines.wait_for("relay Local:1 off .*pulse 2 of 2", after=before)
    assert len([line for line in camera.lines.items[before:] if re.search("relay Local:1 on ", line)]) == 2


def test_four_handlers_act_in_their_order(play, camera, sink, mail_environment, tmp_path):
    (tmp_path / "saved").mkdir()
    (tmp_path / "saved/keep").write_text("kept\n")
    daemon = play("in-order", **mail_environment)
    camera.set_alarm(LOCAL, 4, True)
    (mail,) = sink.wait_for(1)
    assert mail.message["Subject"] == "Panic button"
    *_, siren, head = orders(camera)
    assert (siren, head) == (("RelayV3.Activate", "Local, 2, 1"), ("PresetsV2.GoTo", "5, 1, 400"))
    (picture,) = (tmp_path / "saved").glob("panic-*.jpg")
    assert is_a_picture(picture.read_bytes())
    saved, mailed = (daemon.log.wait_for(text) for text in ("Copy succeeded$", "Message size: "))
    assert saved < mailed
    camera.activate(LOCAL, 2, 0)


@pytest.fixture(scope="module")
def posting(tmp_path_factory: pytest.TempPathFactory) -> dict[str, list[str]]:
    program = tmp_path_factory.mktemp("posting") / "posting"
    subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", program, EXAMPLES / "posting.c"], check=True)
    return {
        "shell": ["/bin/sh", str(EXAMPLES / "posting.sh")],
        "C": [str(program)],
        "Python": [sys.executable, "-B", str(EXAMPLES / "posting.py")],
    }


def status_of(*words: str, **variables: str) -> int:
    return subprocess.run(words, env=os.environ | variables, stderr=subprocess.DEVNULL, timeout=PATIENCE).returncode


NO_EVENTS = [
    [""], ["A]"], ["A\nB"], ["A", "=x"], ["A", "_k=x"], ["A", "word"], ["A", "k=x\n.\n[Fire]"],
    ["A", "k=" + "x" * 4096],
]  # fmt: skip


def test_shell_c_and_python_post_the_same_event_and_refuse_the_same(play, camera, posting, output_pipe):
    pipe = output_pipe("test.halvek.any")
    play("posting")
    longest = "x" * (4096 - len("[Visitor]\nname=\n.\n"))
    for count, program in enumerate(posting.values(), 1):
        assert status_of(*program, "Visitor", "name=J. Smith = $HOME 'x'", "floor=2") == 0
        event = pipe.wait_for_event("Visitor", count=2 * count - 1)
        assert event.properties.items() >= {"name": "J. Smith = $HOME 'x'", "floor": "2"}.items()
        assert status_of(*program, "Visitor", f"name={longest}") == 0
        assert pipe.wait_for_event("Visitor", count=2 * count).properties["name"] == longest
        assert [status_of(*program, *words) for words in NO_EVENTS] == [2] * len(NO_EVENTS)
    assert [event.type for event in pipe.items] == ["Visitor"] * 6
    pulses = ("RelayV3.Activate", "Local, 3, 3")
    wait_until(lambda: orders(camera).count(pulses) == 6, "the chime pulses for each")


def test_without_a_daemon_they_say_that_it_is_not_there(posting, tmp_path):
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "file").touch()
    for program in posting.values():
        for name in ("file", "none"):
            assert status_of(*program, "Visitor", HALVEK_PIPE=str(tmp_path / name)) == 1
    # The shell's way takes five seconds to find out.
    for name in ("C", "Python"):
        assert status_of(*posting[name], "Visitor", HALVEK_PIPE=str(tmp_path / "pipe")) == 1


@pytest.fixture
def listen() -> Iterator[Callable[..., subprocess.Popen]]:
    started: list[subprocess.Popen] = []

    def start(program: str, *words: object, pipe: str, **options) -> subprocess.Popen:
        command = dies_with_us(sys.executable, "-B", str(EXAMPLES / program), *map(str, words))
        started.append(subprocess.Popen(command, **options))
        wait_until((PIPE_FOLDER / pipe).exists, f"{program} listens")
        return started[-1]

    yield start
    for process in started:
        process.kill()
        process.wait()


def test_a_listener_writes_each_event_as_a_line_of_json(play, camera, listen):
    listener = listen("json-lines.py", pipe="zz-json-lines.halvek.any", stdout=subprocess.PIPE)
    lines = Lines(os.dup(listener.stdout.fileno()), "json-lines.py")
    listener.stdout.close()
    play("json-lines")
    lines.wait_for('"type": "Timer"')
    camera.set_alarm(LOCAL, 5, True)
    event = json.loads(lines.items[lines.wait_for('"type": "Alarm"') - 1])
    assert datetime.fromisoformat(event["time"]).utcoffset().total_seconds() == 0
    assert event["properties"].items() >= {"alarmBank": LOCAL, "alarmIndex": "5", "alarmState": "1"}.items()
    wait_for_orders(
        camera, ("RelayV3.SetConfiguration", "Remote, 0, false, 1, 500, 500, 1"), ("RelayV3.Activate", "Remote, 0, 1")
    )
    listener.terminate()
    assert listener.wait(PATIENCE) == 0 and list(PIPE_FOLDER.iterdir()) == []
    lines.close()


def test_a_listener_whose_output_nobody_reads_and_that_control_z_is_typed_at_costs_the_daemon_nothing(play, listen):
    # A process group of its own, as a shell gives it one: no other stops at SIGTSTP where nobody has a terminal.
    options = {"stdout": subprocess.PIPE, "process_group": 0}
    listener = listen("json-lines.py", pipe="zz-json-lines.halvek.any", **options)
    daemon = play("json-lines")
    before = daemon.descriptors()
    listener.send_signal(signal.SIGTSTP)
    for number in range(1, 2001):  # twice what its pipe holds
        post(block("Flood", number=number, padding="x" * 1000))
        if number % 250 == 0:  # what it has not been given time for is not its fault
            daemon.log.wait_for("Received event: Flood$", count=number)
            wait_until(
                lambda: bytes_ready_at(PIPE_FOLDER / "zz-json-lines.halvek.any") == 0, "it reads all of its pipe"
            )
    post(block("End"))
    daemon.log.wait_for("Received event: End$")
    wait_until(lambda: daemon.descriptors() == before, "no descriptor is lost")
    listener.stdout.close()


class Manager:
    """What the service manager does for the archive: it makes the pipe, keeps it open and hands it over."""

    def __init__(self) -> None:
        pipe, link = Path("/run/halvek-archive.pipe"), PIPE_FOLDER / "00-archive.halvek.any"
        os.mkfifo(pipe)
        link.symlink_to(pipe)
        self.pipe = os.open(pipe, os.O_RDWR | os.O_NONBLOCK)

    def start(self, folder: Path) -> subprocess.Popen:
        command = f'export LISTEN_PID=$$; exec "{sys.executable}" -B "$0" "$1" 3<&{self.pipe}'
        words = ["bash", "-c", command, str(EXAMPLES / "archive.py"), str(folder / "%Y.events")]
        return subprocess.Popen(dies_with_us(*words), env=os.environ | {"LISTEN_FDS": "1"}, pass_fds=[self.pipe])


def archived(folder: Path) -> list[str]:
    text = "".join(path.read_text() for path in folder.glob("*.events"))
    return re.findall(r"^number=(\d+)$", text, re.M)


def test_the_archive_misses_nothing_while_its_listener_is_restarted_or_its_disk_is_full(play, camera, tmp_path):
    folder, manager = tmp_path / "archive", Manager()
    folder.mkdir()
    daemon = play("archive")
    numbers = iter(range(1, 10_000))
    posted: list[str] = []

    def receipts(count: int) -> None:
        for number in (next(numbers) for _ in range(count)):
            post(block("Receipt", number=number))
            posted.append(str(number))

    with memory_disk(folder, "size=64k"):
        receipts(20)
        listener = manager.start(folder)
        receipts(20)
        wait_until(lambda: archived(folder) == posted, "all are archived")
        listener.terminate()
        assert listener.wait(PATIENCE) == 0
        receipts(20)
        (folder / "filler").write_bytes(bytes(40 * 1024))
        listener = manager.start(folder)
        wait_until(lambda: archived(folder) == posted, "what came meanwhile is archived")
        receipts(300)
        daemon.log.wait_for("Received event: Receipt$", count=360)
        assert len(archived(folder)) < 360
        (folder / "filler").unlink()
        wait_until(lambda: archived(folder) == posted, "what waited in memory is archived")
        listener.send_signal(signal.SIGINT)
        assert listener.wait(PATIENCE) == 0
    assert ("RelayV3.Activate", "Remote, 1, 3") in orders(camera)
    os.close(manager.pipe)


def test_what_cameras_share_goes_from_one_to_the_other_and_what_is_its_own_stays(camera, bus, launch, tmp_path):
    one, other = tmp_path / "one", tmp_path / "other"
    for folder in (one, other):
        folder.mkdir()
    shutil.copy(EXAMPLES / "backup.ini", one)
    (one / "zz-camera.ini").write_text("[Events/Handler#backup/Preset]\nId=4\n")
    (other / "zz-camera.ini").write_text("[Events/Handler#backup/Preset]\nId=9\n")
    (other / "old.ini").write_text("[Applications/halvek/Server]\nType=Pipe\n")
    daemon = launch(None, store=other, environment=bus.environment)
    programs = tmp_path / "programs"
    programs.mkdir()
    (programs / "halvekctl").symlink_to(CTL)
    (programs / "systemctl").write_text(f"#!/bin/sh\nkill -HUP {daemon.pid}\n")
    (programs / "systemctl").chmod(0o755)

    def backup(verb: str, store: Path) -> int:
        variables = environment(PATH=f"{programs}:{os.environ['PATH']}", KELTO_SETTINGS=str(store))
        words = ["sh", EXAMPLES / "backup.sh", verb, tmp_path / "site.tar.gz"]
        return subprocess.run(words, env=variables, stdout=subprocess.DEVNULL, timeout=PATIENCE).returncode

    assert backup("save", one) == 0 and (tmp_path / "site.tar.gz").stat().st_mode & 0o077 == 0
    assert backup("restore", other) == 0
    camera.set_alarm(LOCAL, 6, True)
    wait_for_orders(camera, ("PresetsV2.GoTo", "9, 1, 400"))
    assert sorted(path.name for path in other.iterdir()) == ["backup.ini", "zz-camera.ini"]
    assert (tmp_path / "other.before/old.ini").exists()
    (one / "backup.ini").write_text("[Events/Handler#1]\nType=Nonsense\n")
    assert backup("save", one) == 0 and backup("restore", other) == 1
    assert (other / "backup.ini").read_text() == (EXAMPLES / "backup.ini").read_text()
    assert sorted(path.name for path in tmp_path.glob("other*")) == ["other", "other.before"]


def test_pictures_come_through_an_outage(play, camera, ftp, tmp_path, tmp_path_factory):
    make_private(tmp_path_factory.mktemp("machine"))
    outbox = Outbox(tmp_path)
    text = (EXAMPLES / "outage.conf").read_text()
    for told, here in {
        "ftps://ftp.example.com": "ftp://127.0.0.1\nAllowPlain=yes",
        "ftp.example.com": "127.0.0.1",
    }.items():
        text = text.replace(told, here)
    outbox.configure(text, ramp="secret")
    outbox.start()
    try:
        ftp.set_fault("refuse")
        play("outage", PATH=f"{outbox.programs}:{os.environ['PATH']}")
        for active in (True, False):
            camera.set_alarm(LOCAL, 7, active)
        outbox.wait_for(queued=2)
        ftp.set_fault("none")
        outbox.run("flush")
        wait_until(lambda: outbox.counts()["delivered"] == 2, "both are delivered")
        arrived = list(ftp.folder.iterdir())
        assert arrived and all(re.fullmatch(r"ramp-\d{8}-\d{6}\.jpg", path.name) for path in arrived)
        assert all(is_a_picture(path.read_bytes()) for path in arrived)
    finally:
        outbox.close()


def test_what_the_page_has_its_reader_type_can_be_typed(camera, bus, launch, tmp_path):
    """With all recipes side by side in one store, after the first steps with one of them."""
    store, programs = tmp_path / "store", tmp_path / "programs"
    for folder in (store, programs):
        folder.mkdir()
    shutil.copy(EXAMPLES.parent / "packaging/settings.ini", store / "halvek.ini")
    daemon = launch(None, store=store, environment=bus.environment)
    for name, words in {"sudo": 'exec "$@"', "systemctl": f"kill -HUP {daemon.pid}"}.items():
        (programs / name).write_text(f"#!/bin/sh\n{words}\n")
        (programs / name).chmod(0o755)
    for name, program in {"halvekctl": CTL, "kelto-vcam": os.environ["HALVEK_VCAM"]}.items():
        (programs / name).symlink_to(program)
    here = {
        "/usr/share/doc/halvek/examples": EXAMPLES,
        "/etc/kelto/settings": store,
        "-g halvek ": "",
        "/tmp/posting": tmp_path / "posting",
    }

    def type_in(text: str) -> None:
        for told, replacement in here.items():
            text = text.replace(told, str(replacement))
        variables = environment(PATH=f"{programs}:{os.environ['PATH']}", **bus.environment)
        done = subprocess.run(
            ["bash", "-exc", text], cwd=EXAMPLES, env=variables, capture_output=True, timeout=PATIENCE
        )
        assert done.returncode == 0, (text, done.stdout, done.stderr)

    see, take, *blocks = re.findall(r"^```sh\n(.*?)^```$", PAGE.read_text(), re.M | re.S)
    type_in(see)
    type_in(take)
    assert sorted(path.name for path in store.iterdir()) == ["halvek.ini", "night-door.ini"]
    for recipe in RECIPES:
        if recipe.stem != "demo":
            shutil.copy(recipe, store)
    type_in("halvekctl reload")
    for text in blocks:
        type_in(text)
    assert len(blocks) >= 9
