"""The snapshot on its way to a real FTP server, by the real ftpput, and what happens when that goes wrong."""

import os
import shutil
import signal
import time
from itertools import pairwise
from pathlib import Path
from statistics import median

import pytest
from daemon_on_bus import alarm
from scripted_service import ScriptedService
from testing.daemon import CONFIGURED
from testing.ftp_server import HOST, FtpServer
from testing.pipes import block, post
from testing.settings import SERVER, Settings, handler, timer
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

DOOR: Settings = {"Events/Source#1": {"Type": "Door"}}
STARTING = r"Debug halvek: \t FTPEventHandler::PerformAction Starting FTP command now$"
FINISHED = r"Debug halvek: \t FTPEventHandler::PerformAction Finished FTP command now$"
TROUBLE = " (Warning|Error) "
PASSWORD = "s3cret-of-the-server"


def ftp(number: int, source_id: str = "Events/Source#1", **keys: object) -> Settings:
    """A handler that uploads; a key that is None is left out."""
    defaults = {
        "Server": HOST,
        "Username": "camera",
        "Password": PASSWORD,
        "BasePath": "/",
        "DestName": "shot.jpg",
        "Attachment": "true",
    }
    own = {key: value for key, value in (defaults | keys).items() if value is not None}
    return handler(number, source_id, handler_type="Ftp") | {f"Events/Handler#{number}/Ftp": own}


@pytest.fixture
def snapshot(tmp_path):
    """Some hundred kilobytes of every byte there is, in a changing order."""
    path = tmp_path / "img2.jpg"
    path.write_bytes(os.urandom(300_000))
    return path


@pytest.fixture
def start(launch, tmp_path, snapshot):
    """Starts a daemon that finds ftpput, and the snapshot in its settings."""
    programs = tmp_path / "bin"
    programs.mkdir()
    (programs / "ftpput").symlink_to(shutil.which("busybox"))

    def start_with(settings: Settings, **options):
        options["environment"] = {"PATH": f"{programs}:{os.environ['PATH']}"} | options.pop("environment", {})
        return launch(SERVER | {"Video/Quickview": {"SnapshotPath": snapshot}} | settings, **options)

    return start_with


@pytest.fixture
def server(start, tmp_path):
    """Behind `start`, so that it ends before the daemon, and no upload keeps the daemon from its stop."""
    folder = tmp_path / "server"
    folder.mkdir()
    with FtpServer(folder, password=PASSWORD) as ftp_server:
        yield ftp_server


def ring(daemon) -> list[str]:
    """Has one event upload; returns what was logged from the command's start to its end."""
    before = len(daemon.log.items)
    post(block("Door"))
    first = daemon.log.wait_for(STARTING, after=before)
    return daemon.log.items[first - 1 : daemon.log.wait_for(FINISHED, after=before)]


def test_the_snapshot_arrives_byte_for_byte_under_its_expanded_name(start, server, snapshot):
    daemon = start(DOOR | ftp(1, DestName="door-%Y%m%d-%H%M%S-%%.jpg"))
    before = time.time()
    ring(daemon)
    wait_until(lambda: server.received, "a file arrives")
    stamp = time.mktime(time.strptime(server.received[0], "/door-%Y%m%d-%H%M%S-%%.jpg"))
    assert before - 1 < stamp < time.time() + 1
    assert server.content(server.received[0]) == snapshot.read_bytes()


def test_every_event_uploads_the_snapshot_of_its_moment(start, server, snapshot):
    daemon = start(DOOR | ftp(1))
    for count in range(1, 4):
        snapshot.write_bytes(os.urandom(count * 1000))
        ring(daemon)
        assert server.wait_for_file("/shot.jpg", count) == snapshot.read_bytes()
    assert len(server.received) == 3


def test_a_link_in_the_snapshots_place_is_followed_at_each_upload(start, server, snapshot):
    daemon = start(DOOR | ftp(1))
    for count, name in enumerate(("one", "two"), 1):
        snapshot.with_name(name).write_text(name)
        snapshot.unlink()
        snapshot.symlink_to(name)
        ring(daemon)
        assert server.wait_for_file("/shot.jpg", count) == name.encode()


def test_any_source_may_upload(start, bus, server, snapshot):
    settings = timer(1, 3600) | alarm(2, 0) | {"Events/Source#3": {"Type": "Door"}}
    for number in (1, 2, 3):
        settings |= ftp(number, f"Events/Source#{number}", DestName=f"{number}.jpg")
    with ScriptedService(bus, "AlarmV3") as service:
        daemon = start(settings, environment=bus.environment)
        service.emit("AlarmV3.StateChanged", "Local", 0, True)
        post(block("Door"))
        for number in (1, 2, 3):
            assert server.wait_for_file(f"/{number}.jpg") == snapshot.read_bytes()
        assert daemon.stop() == 0
    assert sorted(server.received) == ["/1.jpg", "/2.jpg", "/3.jpg"]


def test_a_remote_folder_that_the_camera_does_not_have_is_replaced_by_the_root_as_it_is_meant(start, server):
    assert not Path("/upload").exists()
    (server.folder / "upload").mkdir()
    daemon = start(DOOR | ftp(1, BasePath="/upload"))
    assert daemon.log.matching(r"Warning halvek: \tNo destination path found, using default$")
    ring(daemon)
    server.wait_for_file("/shot.jpg")
    assert server.received == ["/shot.jpg"]


@pytest.mark.parametrize("base_path", ["/run/upload", "/run/upload/", "/run/link"])
def test_a_remote_folder_that_the_camera_has_too_is_taken_as_it_is_there(start, server, base_path, request):
    upload, link = Path("/run/upload"), Path("/run/link")
    request.addfinalizer(lambda: (link.unlink(), upload.rmdir()))
    upload.mkdir()
    link.symlink_to(upload)
    (server.folder / "run/upload").mkdir(parents=True)
    daemon = start(DOOR | ftp(1, BasePath=base_path))
    assert not daemon.log.matching("No destination path found")
    assert not [line for line in ring(daemon) if line.startswith("ftpput: ")]
    server.wait_for_file("/run/upload/shot.jpg")
    assert server.received == ["/run/upload/shot.jpg"]


def wrong_password(server: FtpServer, snapshot: Path) -> None:
    server.set_fault("password")


def unreachable(server: FtpServer, snapshot: Path) -> None:
    server.set_fault("refuse")


def no_snapshot(server: FtpServer, snapshot: Path) -> None:
    snapshot.rename(snapshot.with_suffix(".away"))


def no_such_folder(server: FtpServer, snapshot: Path) -> None:
    (server.folder / "sub").rename(server.folder / "away")


def repair(server: FtpServer, snapshot: Path) -> None:
    server.set_fault("none")
    for here, away in ((snapshot, snapshot.with_suffix(".away")), (server.folder / "sub", server.folder / "away")):
        if away.exists():
            away.rename(here)


FAILURES = {
    wrong_password: "unexpected server response to PASS: 530",
    unreachable: "can't connect to remote host .*: Connection refused",
    no_snapshot: "can't open '.*/img2.jpg': No such file or directory",
    no_such_folder: "unexpected server response to STOR: 550",
}


@pytest.mark.parametrize("fail, complaint", FAILURES.items(), ids=[failure.__name__ for failure in FAILURES])
def test_an_upload_that_fails_shows_only_in_what_ftpput_says_and_the_next_one_succeeds(
    start, server, snapshot, output_pipe, fail, complaint
):
    (server.folder / "sub").mkdir()
    daemon, pipe = start(DOOR | ftp(1, DestName="sub/shot.jpg")), output_pipe("Door.fifo")
    ready = len(daemon.log.items)
    fail(server, snapshot)
    first, said, last = ring(daemon)
    assert daemon.log.matching(f"^ftpput: {complaint}") == [said]
    pipe.wait_for_event("Door")
    assert server.received == []
    repair(server, snapshot)
    assert len(ring(daemon)) == 2
    assert server.wait_for_file("/sub/shot.jpg") == snapshot.read_bytes()
    assert not daemon.log.matching(TROUBLE, after=ready)


def test_without_ftpput_the_shell_complains_and_the_daemon_does_not(start, server, tmp_path):
    daemon = start(DOOR | ftp(1), prefix=["env", f"PATH={tmp_path}"])
    ready = len(daemon.log.items)
    _, said, _ = ring(daemon)
    assert said.endswith("ftpput: not found")
    assert not daemon.log.matching(TROUBLE, after=ready)


@pytest.mark.parametrize("key", ["Username", "Password", "DestName"])
def test_a_blank_splits_the_command_into_words_that_ftpput_refuses_as_it_is_meant(start, server, key):
    daemon = start(DOOR | ftp(1, **{key: "two words"}))
    ready = len(daemon.log.items)
    assert any(line.startswith("Usage: ftpput ") for line in ring(daemon))
    assert server.received == []
    assert not daemon.log.matching(TROUBLE, after=ready)


def test_a_command_of_more_than_255_characters_loses_the_local_file_first_as_it_is_meant(start, server, snapshot):
    around = f"ftpput -u camera -p {PASSWORD} {HOST} / {snapshot}"
    longest = "n" * (255 - len(around))
    over_by_one = "n" * (256 - len(around))
    without_local_file = "n" * (255 - len(around) + len(str(snapshot)))
    names = (longest, over_by_one, without_local_file)
    settings = DOOR
    for number, name in enumerate(names):
        settings = settings | ftp(number, DestName=name)
    daemon = start(settings)
    post(block("Door"))
    daemon.log.wait_for(FINISHED, count=len(names))
    cut = str(snapshot)[:-1]
    assert daemon.log.matching("^ftpput: ") == [
        f"ftpput: can't open '{cut}': No such file or directory",
        # The only name that is left is taken for the local file.
        f"ftpput: can't open '/{without_local_file}': No such file or directory",
    ]
    assert server.wait_for_file(f"/{longest}") == snapshot.read_bytes()
    assert server.received == [f"/{longest}"]


REFUSED = {
    "false": "FtpEventHandler: No file attachment wanted, what's the point then\\?$",
    None: "There is no key Attachment$",
    "maybe": "The value of key Attachment is neither true nor false: maybe$",
}


@pytest.mark.parametrize("attachment, reason", REFUSED.items(), ids=["unwanted", "absent", "unreadable"])
def test_a_handler_whose_attachment_is_refused_is_left_out_and_the_others_are_there(
    start, server, output_pipe, attachment, reason
):
    pipe = output_pipe("Door.fifo")
    settings = ftp(1, DestName="refused.jpg", Attachment=attachment) | ftp(2, DestName="kept.jpg") | handler(3, *DOOR)
    daemon = start(DOOR | settings)
    assert len(daemon.log.matching(f" Warning halvek: Error LoadHandlers: {reason}")) == 1
    post(block("Door"))
    server.wait_for_file("/kept.jpg")
    pipe.wait_for_event("Door", count=2)
    assert server.received == ["/kept.jpg"]


def test_without_a_snapshot_path_a_warning_and_an_error_tell_of_the_default(start, server):
    daemon = start(DOOR | ftp(1) | {"Video/Quickview": {"Other": 1}})
    default = "Debug halvek: \tThe file we are copying: /tmp/snapshot/img2.jpg"
    [warning] = daemon.log.matching(r"Warning halvek: \tFtpEventHandler: ")
    assert warning.endswith("There is no key SnapshotPath in settings group Video/Quickview")
    behind = daemon.log.wait_for(r"Error halvek: \tNo source file path found, using default$")
    assert daemon.log.items[behind].endswith(default)


def test_an_empty_snapshot_path_is_an_error_and_the_default(start, server):
    daemon = start(DOOR | ftp(1) | {"Video/Quickview": {"SnapshotPath": ""}})
    behind = daemon.log.wait_for(r"Error halvek: \tNo source file path found, using default$")
    assert daemon.log.items[behind].endswith("Debug halvek: \tThe file we are copying: /tmp/snapshot/img2.jpg")
    assert not daemon.log.matching(r"Warning halvek: \tFtpEventHandler: ")


def test_without_a_file_name_every_event_is_an_error_and_the_other_handlers_get_it(start, server, output_pipe):
    daemon, pipe = start(DOOR | ftp(1, DestName=None)), output_pipe("Door.fifo")
    for count in (1, 2):
        post(block("Door"))
        daemon.log.wait_for("Error halvek: FtpEventHandler: Illegal filename$", count=count)
        pipe.wait_for_event("Door", count=count)
    assert not daemon.log.matching(STARTING)


def test_the_password_is_logged_with_the_settings_as_it_is_meant_and_never_by_an_action(start, server, snapshot):
    daemon = start(DOOR | ftp(1), level="Trace")
    ready = len(daemon.log.items)
    assert daemon.log.matching(f"^    Password={PASSWORD}$")
    assert daemon.log.matching(rf"\*\* Password\t\t{PASSWORD}$")
    ring(daemon)
    for fail in FAILURES:
        if fail is not no_such_folder:
            fail(server, snapshot)
            ring(daemon)
            repair(server, snapshot)
    assert len(daemon.log.matching("FTP transaction info:$", after=ready)) == 4
    assert not daemon.log.matching(PASSWORD, after=ready)


# The event that hangs, by its source's number.
HANGS = {"Timer": 1, "Alarm": 2, "Door": 3}
THREE_SOURCES: Settings = timer(1, 1) | alarm(2, 0) | {"Events/Source#3": {"Type": "Door"}}


@pytest.fixture
def hang(start, bus, server, output_pipe):
    """Starts a daemon with a timer, an alarm and a posted event, and has the upload of one of them hang."""
    services = []

    def start_and_hang(hanging: str):
        server.set_fault("hang")
        hang.service = ScriptedService(bus, "AlarmV3")
        services.append(hang.service)
        hang.pipe = output_pipe()
        daemon = start(THREE_SOURCES | ftp(1, f"Events/Source#{HANGS[hanging]}"), environment=bus.environment)
        trigger(hanging, 0)
        server.wait_for_hung_connection()
        return daemon

    def trigger(event_type: str, number: int) -> None:
        if event_type == "Alarm":
            hang.service.emit("AlarmV3.StateChanged", "Local", 0, number % 2 == 0)
        elif event_type == "Door":
            post(block("Door", number=number))

    hang = start_and_hang
    hang.trigger = trigger
    yield hang
    for service in services:
        service.close()


@pytest.mark.parametrize("hanging", HANGS)
def test_an_upload_that_hangs_delays_only_its_own_source(hang, server, hanging):
    daemon = hang(hanging)
    others = sorted(HANGS.keys() - {hanging})
    hang.trigger(hanging, 1)
    for number in range(1, 6):
        for event_type in others:
            hang.trigger(event_type, number)
            hang.pipe.wait_for_event(event_type, count=number, patience=4)
    if "Timer" in others:
        ticks = [hang.pipe.time_of(i) for i, event in enumerate(hang.pipe.items) if event.type == "Timer"]
        assert median(later - earlier for earlier, later in pairwise(ticks)) < 1.5
    # What listens to all of the event server's events gets a posted one before the handlers of its type.
    passed_on = 1 if hanging == "Door" else 0
    assert len(hang.pipe.of_type(hanging)) == passed_on
    server.set_fault("none")
    server.wait_for_file("/shot.jpg")
    hang.pipe.wait_for_event(hanging, count=2)
    assert daemon.log.matching("^ftpput: ") == ["ftpput: unexpected server response: EOF"]


@pytest.mark.parametrize("hanging", HANGS)
def test_a_stop_waits_for_an_upload_that_hangs_and_is_orderly_then(hang, server, hanging):
    daemon = hang(hanging)
    daemon.send(signal.SIGTERM)
    behind = daemon.log.wait_for("got: 'S'")
    if hanging == "Timer":  # until the stop has got to the timer, it ticks again behind an upload
        daemon.log.wait_for(r"TimerEventSource::Stop\(\)$", after=behind)
        wait_until(daemon.is_asleep, "a daemon that waits for its timer")
    assert daemon.process.poll() is None and not daemon.log.matching(FINISHED)
    server.set_fault("refuse")
    assert daemon.wait_for_exit() == 0
    assert len(daemon.log.matching(FINISHED)) == 1
    daemon.assert_orderly_end()


@pytest.mark.parametrize("hanging", HANGS)
def test_a_reload_waits_for_an_upload_that_hangs_and_goes_through_then(hang, server, hanging):
    daemon = hang(hanging)
    daemon.send(signal.SIGHUP)
    behind = daemon.log.wait_for("got: 'R'")
    assert not daemon.log.matching("Done starting sources$", after=behind)
    server.set_fault("none")
    daemon.log.wait_for(CONFIGURED, after=behind)
    hang.trigger(hanging, 1)
    server.wait_for_file("/shot.jpg")


def test_an_interrupt_from_the_keyboard_is_lost_while_an_upload_runs_as_it_is_meant(hang, server):
    daemon = hang("Door")
    daemon.process.send_signal(signal.SIGINT)
    server.set_fault("none")
    daemon.log.wait_for(FINISHED)
    post(block("Door"))
    daemon.log.wait_for(FINISHED, count=2)
    assert server.received == ["/shot.jpg"]
    assert not daemon.log.matching("signal caught: 2$")
    assert daemon.stop(signal.SIGINT) == 0
    daemon.assert_orderly_end()
