"""The streams of the page of the virtual camera: what is told, in which order, and to how many."""

import os
import socket
import time
from itertools import pairwise

import pytest
from testing.bus_client import DESTINATION, INTERFACE, MEMBER, PATH, SIGNAL
from testing.camera import LOCAL, REMOTE, VirtualCamera
from testing.page import ADDRESS
from testing.pipes import PIPE_FOLDER, block
from testing.processes import resident_kib
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures", "page_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

RING = 1024
MOST_STREAMS = 32


def rises_by_one(ids):
    return all(later == earlier + 1 for earlier, later in pairwise(ids))


def flood(camera, count):
    for number in range(count):
        camera.set_alarm(LOCAL, 2, number % 2 == 0)


def test_a_stream_tells_what_the_camera_says_does_and_is_asked_to_do(page, camera):
    stream = page.stream()
    assert "text/event-stream" in stream.head and "no-store" in stream.head
    stream.wait_for_sent("state", camera=True)
    camera.configure_relay(LOCAL, 0, on=200, off=100, count=2)
    camera.activate(LOCAL, 0, 3)
    stream.wait_for_sent("said", text="relay Local:0 off (contact open), pulse 2 of 2")
    stream.wait_for_sent("action", method="RelayV3.Activate", arguments="Local, 0, 3")
    stream.wait_for_sent("picture")

    def lamp() -> list[bool]:
        states = [state.data for state in stream.named("state")]
        relays = [next(r for r in s["relays"] if (r["bank"], r["index"]) == (LOCAL, 0)) for s in states if s["relays"]]
        on = [relay["on"] for relay in relays]
        return [value for index, value in enumerate(on) if index == 0 or on[index - 1] != value]

    wait_until(lambda: lamp() == [False, True, False, True, False], "the lamp went on and off twice")
    assert rises_by_one(stream.ids())


def test_the_lamp_follows_the_order_at_once(page, camera):
    stream = page.stream()
    stream.wait_for_sent("state", camera=True)
    delays = []
    for mode in (1, 0) * 10:
        after, begin = len(stream.items), time.monotonic()
        camera.activate(LOCAL, 0, mode)

        def switched() -> bool:
            states = [sent.data for sent in stream.items[after:] if sent.name == "state"]
            return any(r["on"] == bool(mode) for s in states for r in s["relays"] if r["index"] == 0)

        stream.wait_for_sent("state", after=after)
        wait_until(switched, "the lamp")
        delays.append(time.monotonic() - begin)
    assert sorted(delays)[len(delays) // 2] < 0.1


def test_a_browser_that_comes_back_misses_nothing(page, camera):
    first = page.stream()
    flood(camera, 10)
    first.wait_for_sent("said", text="alarm Local:2 inactive")
    seen = first.ids()
    first.close()
    flood(camera, 100)
    second = page.stream(Last_Event_ID=str(seen[-1]))
    flood(camera, 1)
    wait_until(lambda: len([s for s in second.items if s.name == "said"]) >= 101, "what was missed")
    assert rises_by_one(seen + second.ids()) and second.named("reset") == []


def test_a_cursor_can_be_given_with_the_address(page, camera):
    before = int(page.state()["id"])
    flood(camera, 3)
    stream = page.stream(f"/stream?after={before}")
    wait_until(lambda: len(stream.named("said")) == 3, "what came since the state")
    assert stream.ids()[0] == before + 1


@pytest.mark.parametrize("cursor", ["0", "1", "-1", "x", "99999999999999999999999", "9007199254740991", "1 2", "\xe4"])
def test_a_cursor_that_is_wrong_gets_a_reset_first(page, camera, cursor):
    flood(camera, 3)
    stream = page.stream(Last_Event_ID=cursor)
    stream.wait_for_sent("reset")
    flood(camera, 1)
    stream.wait_for_sent("said", text="alarm Local:2 active")
    first, *_ = stream.items
    assert (first.name, first.data) == ("reset", {"missed": 0}) and rises_by_one(stream.ids())
    assert first.id >= 0 and len(stream.named("reset")) == 1


def test_a_cursor_that_is_too_old_gets_a_reset_first(page, camera):
    old = int(page.state()["id"])
    flood(camera, RING + 10)
    # Once the page has heard all of it.
    assert int(page.state()["id"]) > old + RING
    stream = page.stream(Last_Event_ID=str(old))
    stream.wait_for_sent("reset")
    assert stream.items[0].name == "reset"
    newest = stream.items[0].id
    assert stream.items[0].data == {"missed": newest - old}
    in_reach = page.stream(Last_Event_ID=str(newest - 500))
    in_reach.wait_for_sent("said")
    assert in_reach.items[0].id == newest - 499


def test_the_ids_of_another_life_are_too_old(page, camera, start_page):
    flood(camera, 3)
    last = page.state()["id"]
    assert page.stop() == 0
    again = start_page()
    stream = again.stream(Last_Event_ID=last)
    stream.wait_for_sent("reset")
    assert stream.items[0].name == "reset" and stream.items[0].id > int(last)


def test_a_new_browser_is_told_how_things_stand(page, camera):
    first = page.stream()
    first.wait_for_sent("state", camera=True)
    second = page.stream()
    second.wait_for_sent("state", camera=True)
    assert second.named("reset") == []


def test_the_thirty_third_stream_is_refused_and_one_that_ends_makes_room(page, camera):
    streams = [page.stream() for _ in range(MOST_STREAMS)]
    refused = page.stream(opened=False)
    assert refused.wait_for_head() == 503
    # Whatever else is asked for is answered all the same.
    assert page.state()["camera"] is True
    assert page.post("/alarm", {"bank": LOCAL, "index": 2, "active": True}).status == 204
    for stream in streams:
        stream.wait_for_sent("said", text="alarm Local:2 active")
    streams[0].close()
    # One that has left is noticed when it is told something.
    wait_until(lambda: flood(camera, 1) or page.stream(opened=False).wait_for_head() == 200, "room for a stream")


def test_a_stream_without_anything_to_tell_tells_that_it_is_there_and_those_that_were_left_are_noticed(start_page):
    page = start_page()
    before = page.descriptors()
    stream = page.stream()
    for left in [page.stream() for _ in range(5)]:
        left.close()
    begin = time.monotonic()
    stream.wait(lambda sent: sent.name == "", "a comment", patience=30)
    assert time.monotonic() - begin < 15
    # The third comes later than a connection on which nothing is sent would be cut.
    stream.wait(lambda sent: sent.name == "", "three comments", count=3, patience=60)
    wait_until(lambda: page.descriptors() == before + 1, "the streams are closed", patience=45)


def test_the_camera_goes_and_comes_back_and_the_page_lives(page, camera, bus, tmp_path):
    stream = page.stream()
    stream.wait_for_sent("state", camera=True)
    assert page.post("/alarm", {"bank": REMOTE, "index": 1, "active": True}).status == 204
    camera.process.kill()
    camera.process.wait()
    after = stream.wait(lambda sent: sent.name == "state" and sent.data["camera"] is False, "the camera is away")
    answer = page.post("/alarm", {"bank": LOCAL, "index": 1, "active": True})
    assert answer.status == 502 and "away" in answer.text
    with VirtualCamera(bus, tmp_path / "again") as again:
        stream.wait_for_sent("state", after=after, camera=True)
        wait_until(lambda: page.state()["camera"] is True, "the camera is back")
        # What the new camera has not told is not so.
        assert [alarm for alarm in page.state()["alarms"] if alarm["active"]] == []
        assert page.post("/alarm", {"bank": LOCAL, "index": 1, "active": True}).status == 204
        stream.wait_for_sent("said", after=after, text="alarm Local:1 active")
        assert again.stop() == 0
    assert rises_by_one(stream.ids())


def test_the_bus_goes_and_comes_back_and_the_page_lives(page, camera, bus, tmp_path):
    stream = page.stream()
    stream.wait_for_sent("state", camera=True)
    bus.kill()
    stream.wait_for_sent("state", camera=False)
    assert page.post("/alarm", {"bank": LOCAL, "index": 1, "active": True}).status == 502
    camera.wait_for_exit()
    bus.start()
    with VirtualCamera(bus, tmp_path / "again") as again:
        wait_until(lambda: page.state()["camera"] is True, "the camera is back", patience=20)
        assert page.post("/alarm", {"bank": LOCAL, "index": 1, "active": True}).status == 204
        assert again.stop() == 0


def test_a_page_finds_a_bus_that_comes_later(bus, start_page, tmp_path):
    bus.stop()
    page = start_page()
    assert page.state()["camera"] is False
    bus.start()
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        wait_until(lambda: page.state()["camera"] is True, "the camera", patience=20)
        assert camera.stop() == 0


def test_what_anybody_else_says_on_the_bus_is_not_the_cameras(page, camera, bus):
    forger = bus.client()
    target = forger.call_bus("ListNames")[0]
    stream = page.stream()
    stream.wait_for_sent("state", camera=True)
    for name in [name for name in target if name.startswith(":")]:
        fields = {PATH: "/com/kelto/VirtualCamera", INTERFACE: "com.kelto.VirtualCamera", MEMBER: "Said"}
        forger.send(SIGNAL, fields | {DESTINATION: name}, "ts", 1, "forged")
        alarm = {PATH: "/com/kelto/AlarmV3", INTERFACE: "com.kelto.AlarmV3", MEMBER: "StateChanged"}
        forger.send(SIGNAL, alarm | {DESTINATION: name}, "sib", LOCAL, 5, True)
    forger.call_bus("GetId")
    flood(camera, 1)
    stream.wait_for_sent("said", text="alarm Local:2 active")
    assert [sent.data["text"] for sent in stream.named("said")] == ["alarm Local:2 active"]
    assert [alarm["index"] for alarm in page.state()["alarms"] if alarm["active"]] == [2]


def test_actions_are_told_once_each_also_when_they_were_cleared_between(page, camera):
    camera.call("MotionState", "GetIdleState")
    stream = page.stream()
    stream.wait_for_sent("action", method="MotionState.GetIdleState")
    for number in range(5):
        camera.call("RecordingInformation", "GetSummary", "s", f"client {number}")
        camera.clear_actions() if number == 2 else None
    camera.call("RecordingInformation", "GetSummary", "s", "last")
    stream.wait_for_sent("action", arguments="last")
    told = [sent.data["arguments"] for sent in stream.named("action")]
    assert len(told) == len(set(told)) and told[-1] == "last"


def test_of_many_actions_the_last_are_told_and_the_others_counted(page, camera):
    page.state()
    for _ in range(500):
        camera.call("MotionState", "GetIdleState")
    # Nobody looks until now.
    stream = page.stream()
    first = stream.wait_for_sent("action").data
    assert (first["method"], first["leftOut"]) == ("MotionState.GetIdleState", 300)
    camera.call("RecordingInformation", "GetSummary", "s", "last")
    stream.wait_for_sent("action", arguments="last")
    assert len(stream.named("action")) == 201
    assert [sent for sent in stream.named("action")[1:] if "leftOut" in sent.data] == []
    assert len(page.state()["actions"]) == 100


def test_the_pipe_of_events_is_read_made_large_and_removed(page):
    pipe = PIPE_FOLDER / "zz-page.halvek.any"
    assert pipe.is_fifo()
    stream = page.stream()
    writer = os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
    for number in range(3000):
        os.write(writer, block("Bell", number=number).encode())
    os.close(writer)
    # The ring is shorter than that; what this browser has not read in time it is told to be missing.
    wait_until(lambda: page.state()["events"][-1]["props"] == {"number": "2999"}, "the last event")
    missed = sum(sent.data["missed"] for sent in stream.named("reset"))
    assert len(stream.named("event")) + missed >= 3000 - RING
    assert page.stop() == 0 and not pipe.exists()


def test_hostile_blocks_are_told_as_text(page):
    stream = page.stream()
    writer = os.open(PIPE_FOLDER / "zz-page.halvek.any", os.O_WRONLY | os.O_NONBLOCK)
    os.write(writer, b'[<script>]\na=\xff\x01"\\\nb=</script>\n\n[Second]\nc=1\n.\n')
    first = stream.wait_for_sent("event", type="<script>").data
    assert first["props"] == {"a": '\ufffd\x01"\\', "b": "</script>"}
    assert first["lossy"] is True and first["unfinished"] is True
    assert stream.wait_for_sent("event", type="Second").data["props"] == {"c": "1"}
    os.close(writer)


def test_nothing_is_asked_of_the_camera_while_nobody_looks(page, camera):
    page.stream().close()
    wait_until(lambda: flood(camera, 1) or True, "a line")
    time_used = page.processor_seconds()
    camera.let_pass(2000)
    assert page.processor_seconds() - time_used < 0.2


def test_a_thousand_alarms_a_second_leave_the_page_quick_and_its_memory_as_it_was(page, camera):
    stream = page.stream()
    camera.flood(LOCAL, 2, 2000, 1000)
    settled = resident_kib(page.process.pid)
    print(f"{camera.flood(LOCAL, 2, 4000, 1000):.0f} alarms a second")
    begin = time.monotonic()
    assert page.state()["camera"] is True
    assert time.monotonic() - begin < 2
    assert resident_kib(page.process.pid) < settled + 1024
    missed = sum(sent.data["missed"] for sent in stream.named("reset"))
    assert len(stream.named("said")) + missed <= 7000 and stream.named("said")


def test_a_stop_ends_streams_and_waiting_requests(page, camera):
    stream = page.stream()
    camera.set_fault("Tour", "hang")
    with socket.create_connection((ADDRESS, page.port), 10) as waiting:
        body = b'{"tour": "1"}'
        waiting.sendall(
            f"POST /head HTTP/1.1\r\nHost: localhost\r\nX-Halvek-Token: {page.token}\r\nContent-Type: "
            f"application/json\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body
        )
        wait_until(lambda: camera.actions("Tour.Start"), "the tour")
        assert page.stop() == 0 and page.complaints.items == []
    stream.wait_for_end()
