"""What a careless or hostile writer can do to the event pipe, and what it cannot."""

import fcntl
import os
import random

import pytest
from harness import DEFAULT_INPUT, SERVER, block, post, server, timer, wait_until

MEBIBYTE = 1 << 20
PAGE = 4096
THREAD_DIED = "Error kelto.osa: .*EventServerSou"


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


def test_a_property_of_a_mebibyte_that_arrives_in_one_piece_is_one_event(launch, output_pipe):
    folder = output_pipe("small.fifo").path.parent
    output = folder / "Big.txt"  # an ordinary file has room for it
    output.touch()
    daemon = launch(SERVER)
    value = b"v" * (MEBIBYTE - 2 * PAGE)
    descriptor = os.open(DEFAULT_INPUT, os.O_WRONLY | os.O_NONBLOCK)
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, MEBIBYTE)
    text = b"[Big]\nvalue=" + value + b"\n.\n"
    assert os.write(descriptor, text) == len(text)
    os.close(descriptor)
    daemon.log.wait_for("ExternEventHandler: External Event fired!")
    assert b"\nvalue=" + value + b"\n" in output.read_bytes()
    assert len(daemon.log.matching("Received event: Big$")) == 1


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
