"""Which output pipes get an event, what is written into them, and what becomes of pipes that take nothing."""

import fcntl
import os
import re

import pytest
from testing.collector import bytes_ready
from testing.pipes import PIPE_FOLDER, block, post
from testing.settings import SERVER, timer
from testing.users import FIRST_UID
from testing.waiting import wait_until

PIPE_SIZE = 8192
TYPES_THAT_REACH = {
    "Timer": ["MyTimerPipe", "Timer.fifo", "all.halvek.any", "halvek.any.log"],
    "Alarm": ["Alarm.fifo", "all.halvek.any", "halvek.any.log"],
    # The whole path is searched, and it has "run" in it.
    "run": ["Alarm.fifo", "MyTimerPipe", "Timer.fifo", "all.halvek.any", "any", "halvek.any.log", "timer"],
}


@pytest.fixture
def full_pipe(output_pipe):
    """The first of two pipes for everything; it is full, and stays so until the test reads from it."""
    path = PIPE_FOLDER / "a.halvek.any"
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    assert fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, PIPE_SIZE) == PIPE_SIZE
    os.write(descriptor, b"x" * PIPE_SIZE)
    yield descriptor
    os.close(descriptor)


def read_block(descriptor: int) -> str:
    text = b""
    while not text.endswith(b"\n.\n"):
        wait_until(lambda: bytes_ready(descriptor), "a block, or more of it")
        text += os.read(descriptor, PIPE_SIZE)
    return text.decode()


def test_what_it_writes_it_reads_back_as_the_same_event(launch, clean_run):
    path = PIPE_FOLDER / "raw.halvek.any"
    os.mkfifo(path)
    descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    try:
        launch(SERVER)
        post(block("Door", bell="front, left", empty="", equation="a=b=c", spaced=" x "))
        written = read_block(descriptor)
        assert written.startswith("[Door]\n") and "\nequation=a=b=c\n" in written
        post(written)
        again = read_block(descriptor)
    finally:
        os.close(descriptor)
    stamps = re.compile(r"^(Timestamp|FormattedTime)=.*\n", re.MULTILINE)
    assert stamps.sub("", again) == stamps.sub("", written)


@pytest.mark.parametrize("event_type", TYPES_THAT_REACH)
def test_a_pipe_gets_the_types_that_are_part_of_its_name(launch, output_pipe, event_type):
    pipes = [output_pipe(name) for name in TYPES_THAT_REACH["run"]]
    daemon = launch(SERVER)
    post(block(event_type) + block("run", last="1"))
    for pipe in pipes:
        pipe.wait_for_event("run", properties={"last": "1"})
    reached = [pipe.path.name for pipe in pipes if len(pipe.items) == 2]
    assert reached == TYPES_THAT_REACH[event_type]
    assert daemon.log.matching(f"Debug halvek: ExternEventHandler::PerformAction: Got event of type: {event_type}$")


def test_a_timer_event_goes_to_its_own_pipe_and_to_the_one_for_all(launch, output_pipe):
    timer_pipe, any_pipe, alarm_pipe = (output_pipe(name) for name in ("Timer.fifo", "all.halvek.any", "Alarm.fifo"))
    launch(SERVER | timer(1, 1))
    for pipe in (timer_pipe, any_pipe):
        pipe.wait_for_event("Timer", count=2)
    post(block("Alarm"))
    alarm_pipe.wait_for_event("Alarm")
    assert not alarm_pipe.of_type("Timer") and not timer_pipe.of_type("Alarm")


def test_the_block_has_its_lines_in_the_order_of_their_keys(launch, output_pipe):
    output = PIPE_FOLDER / "Door.txt"  # an ordinary file is written to like a pipe
    output.touch()
    output_pipe("other.fifo")
    daemon = launch(SERVER)
    post("[Door]\nzone=a=b\nAngle=90\nlid=\n.\n")
    daemon.log.wait_for("ExternEventHandler: External Event fired!")
    assert re.fullmatch(
        rb"\[Door\]\nAngle=90\nFormattedTime=\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+00:00\nTimestamp=\d\d:\d\d:\d\d\n"
        rb"eventId=Door\neventType=Door\nlid=\nzone=a=b\n\.\n",
        output.read_bytes(),
    )


def test_a_timer_block_holds_its_type_and_the_stamps(launch, output_pipe):
    pipe = output_pipe()
    launch(timer(1, 3600))
    assert pipe.wait_for_event("Timer").properties.keys() == {"FormattedTime", "Timestamp", "eventType"}


def test_a_single_pipe_is_served_although_it_is_reported_as_none(launch, output_pipe):
    daemon, pipe = launch(SERVER), output_pipe()
    post(block("Door"))
    pipe.wait_for_event("Door")
    assert daemon.log.matching("Debug halvek: ExternEventHandler::PerformAction: No FIFO's to use for event$")


def test_with_two_pipes_none_is_reported_missing(launch, output_pipe):
    daemon, pipe, _ = launch(SERVER), output_pipe(), output_pipe("other")
    post(block("Door"))
    pipe.wait_for_event("Door")
    daemon.log.wait_for("Debug halvek: ExternEventHandler::PerformAction: Done firing to all FIFO's$")
    assert not daemon.log.matching("No FIFO's to use")


def test_without_the_folder_nothing_goes_out_and_nothing_breaks(launch):
    PIPE_FOLDER.rmdir()
    daemon = launch(SERVER)
    post(block("Door"))
    daemon.log.wait_for("Done firing to all FIFO's")
    assert not daemon.log.matching(" Error ")


def test_events_wait_in_a_pipe_that_nobody_reads(launch):
    path = PIPE_FOLDER / "all.halvek.any"
    os.mkfifo(path)
    keeper = os.open(path, os.O_RDWR | os.O_NONBLOCK)  # a pipe that nobody has open forgets
    daemon = launch(SERVER)
    post(block("Door") + block("Window"))
    daemon.log.wait_for("External Event fired!", count=2)
    text = os.read(keeper, 4096)
    os.close(keeper)
    assert text.index(b"[Door]\n") < text.index(b"[Window]\n")


def test_a_full_pipe_is_an_error_and_costs_the_later_pipes_the_event(launch, full_pipe, output_pipe):
    daemon, later = launch(SERVER), output_pipe("b.halvek.any")
    post(block("Door", number=1))
    daemon.log.wait_for("Error halvek: FIFO Write failed$")
    os.read(full_pipe, PIPE_SIZE)
    post(block("Door", number=2))
    later.wait_for_event("Door", properties={"number": "2"})
    assert len(later.items) == 1
    assert b"number=2" in os.read(full_pipe, PIPE_SIZE)


def test_a_pipe_with_room_for_a_part_gets_the_part_and_the_later_pipes_nothing(launch, full_pipe, output_pipe):
    daemon, later = launch(SERVER), output_pipe("b.halvek.any")
    os.read(full_pipe, PIPE_SIZE // 2)
    post(block("Door", text="y" * (PIPE_SIZE // 2)))
    daemon.log.wait_for(rf"Error halvek: FIFO write failed to write all data, wrote: {PIPE_SIZE // 2} of 4\d\d\d$")
    os.read(full_pipe, PIPE_SIZE)
    post(block("Last"))
    later.wait_for_event("Last")
    assert len(later.items) == 1


@pytest.mark.parametrize("kind", ["folder", "dangling link"])
def test_an_entry_that_cannot_be_opened_is_an_error_and_costs_the_later_pipes_the_event(launch, output_pipe, kind):
    entry = PIPE_FOLDER / "Door"
    entry.mkdir() if kind == "folder" else entry.symlink_to("nowhere")
    daemon, pipe = launch(SERVER), output_pipe()
    post(block("Door") + block("Window"))
    daemon.log.wait_for(r"Error halvek: FIFO open\(\) failed$")
    pipe.wait_for_event("Window")
    assert [event.type for event in pipe.items] == ["Window"]


# The other user may read and write what is root's, so that only the link's owner decides.
OTHER_USER = ("setpriv", f"--reuid={FIRST_UID}", "--inh-caps=+dac_override", "--ambient-caps=+dac_override", "--")


@pytest.mark.parametrize(
    "prefix",
    [
        pytest.param((), id="the daemon's own user"),
        pytest.param(
            OTHER_USER,
            id="root",
            marks=pytest.mark.not_under("one user", reason="root is the daemon's own user there"),
        ),
    ],
)
def test_a_link_is_followed_if_its_owner_is(launch, output_pipe, tmp_path, prefix):
    os.mkfifo(tmp_path / "elsewhere")
    (PIPE_FOLDER / "a.halvek.any").symlink_to(tmp_path / "elsewhere")
    descriptor = os.open(tmp_path / "elsewhere", os.O_RDWR | os.O_NONBLOCK)
    try:
        daemon, pipe = launch(SERVER, prefix=prefix), output_pipe()
        post(block("Door"))
        pipe.wait_for_event("Door")
        assert read_block(descriptor).startswith("[Door]\n")
    finally:
        os.close(descriptor)
    assert not daemon.log.matching(" Error ")


# Where there is only one user, everything is the daemon's own.
@pytest.mark.not_under("one user", reason="a link of somebody else takes somebody else")
@pytest.mark.parametrize("target", ["/run/halvek.pipe", "{folder}/halvek.pid"])
def test_a_link_of_another_user_is_an_entry_that_cannot_be_opened(launch, output_pipe, tmp_path, target):
    own_file = tmp_path / "halvek.pid"
    own_file.write_text("what the daemon's user keeps")
    link = PIPE_FOLDER / "a.halvek.any"
    link.symlink_to(target.format(folder=tmp_path))
    os.lchown(link, FIRST_UID, FIRST_UID)
    daemon, pipe = launch(SERVER), output_pipe()
    for number in range(3):
        post(block("Door", number=number))
    daemon.log.wait_for(r"Error halvek: FIFO open\(\) failed$", count=3)
    link.unlink()
    post(block("Last"))
    pipe.wait_for_event("Last")
    assert [event.type for event in pipe.items] == ["Last"]
    assert len(daemon.log.matching("Received event: ")) == 4
    assert own_file.read_text() == "what the daemon's user keeps"
