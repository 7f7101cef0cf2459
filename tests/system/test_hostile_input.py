"""What a careless or hostile writer can do to the event pipe, and what it cannot."""

import fcntl
import os
import random
import subprocess
import time
from collections.abc import Callable, Iterator

import pytest
from testing.pipes import DEFAULT_INPUT, block, bytes_ready_at, post
from testing.settings import SERVER, server, timer
from testing.waiting import wait_until

MEBIBYTE = 1 << 20
PAGE = 4096
THREAD_DIED = "Error kelto.osa: .*EventServerSou"
SKIPPED = "Error halvek: EventServerSource: event of more than 60000 bytes skipped$"
DROPPED = "Warning halvek: EventServerSource: event dropped, its writer goes on at a stop$"


def post_at_leisure(data: bytes) -> None:
    """Writes more than the pipe holds, waiting for the daemon to make room."""
    descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY)
    try:
        view = memoryview(data)
        while view:
            view = view[os.write(descriptor, view) :]
    finally:
        os.close(descriptor)


def test_an_empty_line_ends_the_listening_and_a_reload_brings_it_back(launch, output_pipe):
    daemon, pipe = launch(SERVER | timer(1, 1)), output_pipe()
    post("[Door]\n\n.\n[Window]\nx=1\n.\n")
    daemon.log.wait_for(THREAD_DIED)
    ticks = len(pipe.of_type("Timer"))
    pipe.wait_for_event("Timer", after=len(pipe.items))
    assert len(pipe.of_type("Timer")) > ticks
    wait_until(lambda: "EventServerSour" not in daemon.thread_names(), "the thread is gone")
    daemon.reload()
    assert "EventServerSour" in daemon.thread_names()
    pipe.wait_for_event("Window", properties={"x": "1"})  # it had waited in the pipe
    post(block("Roof"))
    pipe.wait_for_event("Roof")
    assert not pipe.of_type("Door")


def test_an_event_pipe_that_cannot_be_opened_silences_only_the_server(launch, output_pipe, tmp_path):
    pipe = output_pipe()
    daemon = launch(server(tmp_path / "no such folder" / "halvek.pipe") | timer(1, 1))
    behind = daemon.log.wait_for(THREAD_DIED)
    assert "Unable to open FIFO for reading" in daemon.log.items[behind - 1]
    pipe.wait_for_event("Timer", count=2)
    daemon.write_settings(server(tmp_path / "halvek.pipe"))
    daemon.reload()
    post(block("Door"), tmp_path / "halvek.pipe")
    pipe.wait_for_event("Door")


@pytest.mark.parametrize("line", [b"x", b"[", b"#", b"long="], ids=["word", "header", "comment", "property"])
def test_an_endless_line_costs_nothing_that_comes_after_it(launch, line):
    daemon = launch(SERVER)
    # The line's end lies inside a page of the pipe: it arrives together with the byte before it.
    data = line + b"x" * (MEBIBYTE + PAGE // 2 - len(line)) + b"\n[Last]\nx=1\n.\n"
    post_at_leisure(data)
    daemon.log.wait_for("Received event: Last$")
    assert not daemon.log.matching(THREAD_DIED)


@pytest.fixture
def yes() -> Iterator[Callable[[str], None]]:
    """Writers that post the same line for ever, and are far ahead of the daemon."""
    writers = []

    def start(line: str) -> None:
        with DEFAULT_INPUT.open("wb") as pipe:
            fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, MEBIBYTE)
            writers.append(subprocess.Popen(["yes", line], stdout=pipe))
        wait_until(lambda: bytes_ready_at(DEFAULT_INPUT) >= MEBIBYTE / 2, "the writer is ahead")

    yield start
    for writer in writers:
        writer.kill()
        writer.wait()


@pytest.mark.parametrize("line", ["x=1", "[A]", "#", "x" * 100_000], ids=["property", "header", "comment", "long line"])
def test_a_reload_and_a_stop_get_through_while_an_event_never_ends(launch, yes, output_pipe, line):
    daemon, pipe = launch(SERVER | timer(1, 1)), output_pipe()
    yes(line)
    begin = time.monotonic()
    daemon.reload()
    pipe.wait_for_event("Timer", after=len(pipe.items))
    assert daemon.stop() == 0
    assert time.monotonic() - begin < 10
    # One for the reload and one for the stop, if the new thread has had the time to begin.
    assert 1 <= len(daemon.log.matching(DROPPED)) <= 2


def test_an_event_without_an_end_is_told_once_and_delays_no_other_source(launch, yes, output_pipe):
    daemon, pipe = launch(SERVER | timer(1, 1), level="Information"), output_pipe()
    yes("x=1")
    daemon.log.wait_for(SKIPPED)
    pipe.wait_for_event("Timer", count=3)
    assert len(daemon.log.matching(SKIPPED)) == 1
    assert [event.type for event in pipe.items if event.type != "Timer"] == []


def test_events_that_no_pipe_could_take_cost_no_descriptor(launch, output_pipe):
    daemon, pipe = launch(SERVER, level="Information"), output_pipe()
    before = daemon.descriptors()
    for _ in range(5):
        post_at_leisure(b"[Big]\n" + b"".join(b"%06d=%s\n" % (key, b"v" * 992) for key in range(200)) + b".\n")
    post(block("Last"))
    pipe.wait_for_event("Last")
    # The pipe that the last event went to is closed again a moment later.
    wait_until(lambda: daemon.descriptors() == before, "no descriptor is left")
    assert len(daemon.log.matching(SKIPPED)) >= 5
    assert not daemon.log.matching("FIFO write failed")


@pytest.mark.parametrize(
    "text",
    [
        b"[Big]\nvalue=" + b"v" * 59_994 + b"\n.\n",
        b"[" + b"T" * 21_816 + b"]\n.\n",
        b"[MotionDetection]\nregion=" + b"2" * 32_000 + b"\n.\n",
        b"[Big]\n" + b"".join(b"%04x=\n" % key for key in range(10_800)) + b".\n",
    ],
    ids=["value", "type", "region", "keys"],
)
def test_the_largest_event_fits_into_an_empty_output_pipe(launch, output_pipe, text):
    daemon, pipe = launch(SERVER, level="Debug"), output_pipe()
    descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY | os.O_NONBLOCK)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, 2 * len(text))
    assert os.write(descriptor, text) == len(text)
    os.close(descriptor)
    wait_until(lambda: pipe.items, "the event")
    assert not daemon.log.matching(" Error ")


def test_garbage_loses_no_event_between_it(launch, output_pipe):
    daemon, pipe = launch(SERVER), output_pipe()
    generator = random.Random(20261121)
    letters = bytes(byte for byte in range(256) if byte != ord("\n"))
    for number in range(50):
        lines = [bytes(generator.choices(letters, k=generator.randint(1, 200))) for _ in range(15)]
        # One write of at most a page is never torn apart.
        post(b"\n".join(lines) + b"\n" + block("Door", number=number).encode())
        pipe.wait_for_event("Door", properties={"number": str(number)})
    numbers = [event.properties["number"] for event in pipe.items if "number" in event.properties]
    assert numbers == [str(number) for number in range(50)]
    assert not daemon.log.matching(THREAD_DIED)


def test_truncated_blocks_lose_nothing_of_the_whole_ones(launch, output_pipe):
    launch(SERVER)
    pipe = output_pipe()
    whole = block("Door", number=1)
    for end in range(1, len(whole) - len("\n")):
        seen = len(pipe.items)
        post(whole[:end].rstrip("\n") + "\n" + block("Whole", end=end))
        pipe.wait_for_event("Whole", properties={"end": str(end)}, after=seen)
    assert len(pipe.of_type("Whole")) == len(whole) - 2


def test_many_writers_of_whole_events_lose_and_double_none(launch, output_pipe):
    daemon, pipe = launch(SERVER, level="Warning"), output_pipe()
    writers = [os.open(DEFAULT_INPUT, os.O_WRONLY) for _ in range(5)]
    for number in range(500):
        text = block("Door", writer=number % 5, number=number).encode()
        assert os.write(writers[number % 5], text) == len(text)
        if number % 50 == 49:  # the reader of the output keeps up
            pipe.wait_for_event("Door", properties={"number": str(number)})
    for writer in writers:
        os.close(writer)
    assert [event.properties["number"] for event in pipe.items] == [str(number) for number in range(500)]
    assert daemon.stop() == 0
