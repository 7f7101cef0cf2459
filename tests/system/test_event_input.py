"""The text that other processes post on the event pipe, and the events that it becomes."""

import os
import time
from pathlib import Path

import pytest
from testing.pipes import block, post, unstamped
from testing.settings import SERVER, server
from testing.waiting import wait_until

LAST = ("Last", {"eventId": "Last"})


def event(event_type: str, event_id: str | None = None, **properties: str) -> tuple[str, dict[str, str]]:
    return event_type, properties | {"eventId": event_id or event_type}


@pytest.fixture
def any_pipe(launch, output_pipe):
    launch(SERVER)
    return output_pipe()


READINGS = {
    "a property": ("[Alarm]\nlevel=3\n.\n", [event("Alarm", level="3")]),
    "the region of a motion is its id": (
        "[MotionDetection]\nregion=2\n.\n",
        [event("MotionDetection", "2", region="2")],
    ),
    "a motion without a region": ("[MotionDetection]\n.\n", [event("MotionDetection")]),
    "the region of anything else is only a property": ("[Door]\nregion=2\n.\n", [event("Door", region="2")]),
    "two events in one write": ("[A]\nx=1\n.\n[B]\ny=2\n.\n", [event("A", x="1"), event("B", y="2")]),
    "a block without a header takes the last type": ("[A]\n.\nx=1\n.\n", [event("A"), event("A", x="1")]),
    "properties do not outlive their block": ("[A]\nx=1\n.\n.\n", [event("A", x="1"), event("A")]),
    "before any header nothing fires": ("x=1\n.\ny=2\n.\n", []),
    "a word without an equals sign ends the event": ("[A]\nx=1\nabc\ny=2\n.\n", [event("A", x="1"), event("A", y="2")]),
    "a digit without an equals sign ends it too": ("[A]\nx=1\n7\n", [event("A", x="1")]),
    "a line that begins with a blank is ignored": ("[A]\n x=1\n\tx=1\n.\n", [event("A")]),
    "a line that begins with a sign is ignored": ("[A]\n_x=1\n#x=1\n-x=1\n=x\n.\n", [event("A")]),
    "a line that begins with a byte above 127 is ignored": ("[A]\nä=1\n.\n", [event("A")]),
    "bytes above 127 stand inside a line": ("[Tür]\ngröße=é\n.\n", [event("Tür", größe="é")]),
    "a value holds equals signs and blanks": ("[A]\na=b=c \n.\n", [event("A", a="b=c ")]),
    "blanks around the key stay": ("[A]\na =b\n.\n", [event("A", **{"a ": "b"})]),
    "an empty value": ("[A]\na=\n.\n", [event("A", a="")]),
    "the last of a repeated key counts": ("[A]\nx=1\nx=2\n.\n", [event("A", x="2")]),
    "a carriage return stays in the value": ("[A]\nx=1\r\n.\n", [event("A", x="1\r")]),
    "a dot and a carriage return end nothing": ("[A]\nx=1\n.\r\ny=2\n.\n", [event("A", x="1", y="2")]),
    "two dots end nothing": ("[A]\n..\ny=2\n.\n", [event("A", y="2")]),
    "a zero byte stands inside a value": ("[A]\nx=1\0002\n.\n", [event("A", x="1\0002")]),
    "an empty header fires nothing": ("[A]\n.\n[]\nx=1\n.\ny=2\n.\n", [event("A")]),
    "a later header names the type after all": ("[]\nx=1\n[B]\n.\n", [event("B", x="1")]),
    "the last header of a block wins": ("[A]\n[B]\n.\n", [event("B")]),
    "properties before the header": ("x=1\n[A]\n.\n", [event("A", x="1")]),
    "text behind the header is ignored": ("[A] and more]\n.\n", [event("A")]),
    "a header without its end is ignored": ("[A]\n[B\n.\n", [event("A")]),
    "a posted id or type is replaced": ("[A]\neventId=7\neventType=B\n.\n", [event("A")]),
    "a posted stamp is replaced": ("[A]\nTimestamp=noon\nFormattedTime=noon\n.\n", [event("A")]),
}


@pytest.mark.parametrize("text, expected", READINGS.values(), ids=READINGS.keys())
def test_reading(any_pipe, text, expected):
    post(text + "[Last]\n.\n")
    any_pipe.wait_for_event("Last")
    assert unstamped(any_pipe.items) == expected + [LAST]


def test_an_empty_region_is_an_id_that_nobody_listens_to(launch, output_pipe):
    daemon, pipe = launch(SERVER), output_pipe()
    post(block("MotionDetection", region=""))
    assert pipe.wait_for_event("MotionDetection").properties["eventId"] == ""
    daemon.log.wait_for("EventServerSource: Event has eventID of: $")


def test_an_unfinished_header_is_noted(launch):
    daemon = launch(SERVER)
    post("[B\n[A]\n.\n")
    daemon.log.wait_for(r"Debug halvek: \tFind didn't find a \]$")
    daemon.log.wait_for("Debug halvek: \tEvent type: A$")
    daemon.log.wait_for("Information halvek: EventServerSource: Received event: A$")


def test_the_stamps_are_local_time_with_the_day_before_the_month(launch, output_pipe):
    launch(SERVER, environment={"TZ": "Asia/Kathmandu"})
    pipe = output_pipe()
    before = time.time()
    post(block("Door"))
    properties = pipe.wait_for_event("Door").properties
    kathmandu = [time.gmtime(when + 20700) for when in range(int(before), int(time.time()) + 1)]
    assert properties["FormattedTime"] in [time.strftime("%Y-%d-%mT%H:%M:%S+00:00", when) for when in kathmandu]
    assert properties["Timestamp"] in [time.strftime("%H:%M:%S", when) for when in kathmandu]


def test_the_end_of_the_data_ends_an_event_and_the_rest_is_another(any_pipe):
    post("[A]\nx=1\n")
    any_pipe.wait_for_event("A", properties={"x": "1"})
    post("y=2\n")
    any_pipe.wait_for_event("A", properties={"y": "2"})
    assert unstamped(any_pipe.items) == [event("A", x="1"), event("A", y="2")]


def test_a_line_that_is_cut_is_taken_as_it_stands_and_its_rest_belongs_to_another_event(any_pipe):
    post("[A]\nvalue=abc")
    any_pipe.wait_for_event("A", properties={"value": "abc"})
    post("def=1\n.\n")
    any_pipe.wait_for_event("A", properties={"def": "1"})
    assert unstamped(any_pipe.items) == [event("A", value="abc"), event("A", **{"def": "1"})]


def test_a_header_that_is_cut_changes_no_type(any_pipe):
    post("[A]\n.\n[B")
    any_pipe.wait_for_event("A", count=2)
    post("]\nx=1\n.\n")
    any_pipe.wait_for_event("A", properties={"x": "1"})
    assert unstamped(any_pipe.items) == [event("A"), event("A"), event("A", x="1")]


def test_the_pipe_has_the_odd_mode_that_it_is_made_with(launch):
    daemon = launch(SERVER, prefix=["sh", "-c", 'umask 0; exec "$@"', "sh"])
    path = daemon.settings_file.parent / "own.pipe"
    daemon.write_settings(server(path))
    daemon.reload()
    assert path.is_fifo()
    assert path.stat().st_mode & 0o7777 == 666  # 666 as a decimal number


def test_a_pipe_that_is_there_already_is_used_and_outlives_the_daemon(launch, output_pipe, tmp_path):
    path = tmp_path / "given.pipe"
    os.mkfifo(path, 0o600)
    daemon, pipe = launch(server(path)), output_pipe()
    post(block("Door"), path)
    pipe.wait_for_event("Door")
    assert daemon.stop() == 0
    assert path.is_fifo() and path.stat().st_mode & 0o7777 == 0o600


def test_a_pipe_that_was_made_anew_is_not_read_until_a_reload(launch, output_pipe, tmp_path):
    path = tmp_path / "given.pipe"
    os.mkfifo(path, 0o600)
    daemon, pipe = launch(server(path)), output_pipe()
    post(block("Door"), path)
    pipe.wait_for_event("Door")
    path.unlink()
    os.mkfifo(path, 0o600)
    with pytest.raises(OSError, match="No such device or address"):  # nobody reads it
        post(block("Window"), path)
    daemon.reload()
    wait_until(lambda: str(path) in open_paths(daemon.pid), "the new pipe is open")
    post(block("Window"), path)
    pipe.wait_for_event("Window")


def open_paths(pid: int) -> list[str]:
    return [os.readlink(link) for link in Path(f"/proc/{pid}/fd").iterdir()]
