"""The page of the virtual camera: what its orders do, and what it says of the camera."""

import os
import re
import socket

import pytest
from testing.camera import ALERT, LOCAL, REMOTE
from testing.page import ADDRESS, ORDERS, nothing_reached
from testing.pipes import DEFAULT_INPUT, OutputPipe
from testing.settings import SERVER
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures", "page_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]


def test_a_refusal_is_told_in_the_cameras_own_words(page):
    refusals = {
        'Bank "Local" has no alarm input 8, only 0 to 7': ("/alarm", {"bank": LOCAL, "index": 8, "active": True}),
        'There is no bank "ä\n", only "Remote" and "Local"': ("/alarm", {"bank": "ä\n", "index": 0, "active": True}),
        'There is no preset "11", only "1" to "10"': ("/head", {"preset": "11"}),
        'There is no tour "", only "1" to "3"': ("/head", {"tour": ""}),
        'There is no fault "x", only "none", "error", "slow" and "hang"': (
            "/fault",
            {"provider": "Tour", "kind": "x"},
        ),
    }
    for text, (path, body) in refusals.items():
        answer = page.post(path, body)
        assert (answer.status, answer.text) == (400, text)
        assert answer.headers["Content-Type"].startswith("text/plain")


def test_a_provider_that_is_set_to_fail_refuses_the_order(page):
    assert page.post("/fault", {"provider": "PresetsV2", "kind": "error"}).status == 204
    answer = page.post("/head", {"preset": "3"})
    assert (answer.status, answer.text) == (400, "PresetsV2 is set to fail")


def test_a_provider_that_hangs_holds_up_nobody_else(page, camera):
    camera.set_fault("Tour", "hang")
    with socket.create_connection((ADDRESS, page.port), 20) as hanging:
        body = b'{"tour": "1"}'
        head = (
            f"POST /head HTTP/1.1\r\nHost: localhost\r\nX-Halvek-Token: {page.token}\r\n"
            f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n"
        )
        hanging.sendall(head.encode() + body)
        wait_until(lambda: camera.actions("Tour.Start"), "the tour")
        assert page.post("/alarm", ORDERS["/alarm"]).status == 204
        assert page.state()["camera"] is True
        assert hanging.recv(4096).split()[1] == b"502"


def test_an_alarm_is_what_was_asked_for(page, camera, listener):
    for bank, index, active in ((LOCAL, 2, True), (REMOTE, 7, True), (LOCAL, 2, False)):
        assert page.post("/alarm", {"bank": bank, "index": index, "active": active}).status == 204
        # The answer comes behind the camera's own.
        assert listener.signals("com.kelto.AlarmV3", "StateChanged")[-1].arguments == [bank, index, active]
    found = {(alarm["bank"], alarm["index"]) for alarm in page.state()["alarms"] if alarm["active"]}
    assert found == {(REMOTE, 7)}


def test_the_head_goes_where_it_is_sent(page, camera):
    assert page.post("/head", {"preset": "3"}).status == 204
    assert page.post("/head", {"preset": 4}).status == 204
    assert page.post("/head", {"tour": "2"}).status == 204
    found = [(action.method, action.arguments) for action in camera.actions()]
    assert found == [("PresetsV2.GoTo", "3, 1, 900"), ("PresetsV2.GoTo", "4, 1, 900"), ("Tour.Start", "2, 900")]
    assert page.post("/head", {"preset": "1", "tour": "1"}).status == 400


def test_recording_and_faults_are_set(page):
    assert page.post("/recording", {"a": False, "b": True}).status == 204
    assert page.post("/fault", {"provider": "RelayV3", "kind": "hang"}).status == 204
    state = page.state()
    assert state["recording"] == {"a": False, "b": True}
    assert state["faults"]["RelayV3"] == "hang" and state["faults"]["Tour"] == "none"


def test_an_alert_goes_out_field_by_field(page, listener):
    names = ("source", "class", "analyticsType", "ruleName", "ruleDescription", "rulePoints", "boxPoints")
    fields = dict(zip((*names, "mediaType", "mediaUrl"), ALERT, strict=True))
    assert page.post("/alert", fields).status == 204
    assert listener.wait_for_signal("com.zentu.analytics", "AnalyticsAlert").arguments == list(ALERT)
    hostile = {"ruleName": "<script>alert(1)</script>\n\x01", "boxPoints": [[1e300, -1], [0, 0.5]]}
    assert page.post("/alert", hostile).status == 204
    expected = ["", "", "", hostile["ruleName"], "", [], [(1e300, -1.0), (0.0, 0.5)], "", ""]
    listener.wait_for_signal("com.zentu.analytics", "AnalyticsAlert", *expected)


@pytest.mark.parametrize("points", [1, "x", [1], [[1]], [[1, 2, 3]], [["0", 1]], [[None, 1]], {"0": [1, 2]}])
def test_points_that_are_none_are_refused(page, camera, listener, points):
    assert page.post("/alert", {"boxPoints": points}).status == 400
    assert nothing_reached(camera, listener)


@pytest.fixture
def event_pipe():
    os.mkfifo(DEFAULT_INPUT)
    reader = os.open(DEFAULT_INPUT, os.O_RDWR | os.O_NONBLOCK)
    yield reader
    os.close(reader)


def test_an_event_is_posted_as_one_block(page, event_pipe):
    assert page.post("/post", ORDERS["/post"]).status == 204
    assert page.post("/post", {"type": "Bell"}).status == 204
    assert os.read(event_pipe, 4096) == b"[Doorbell]\nbutton=front\n.\n[Bell]\n.\n"


@pytest.mark.parametrize(
    "event",
    [
        {"type": ""},
        {"type": "a]b"},
        {"type": "a\nb"},
        {"type": 1},
        {"type": "A", "props": {"": "x"}},
        {"type": "A", "props": {"-k": "x"}},
        {"type": "A", "props": {"k=l": "x"}},
        {"type": "A", "props": {"k": "x\n.\n[Fire]"}},
        {"type": "A", "props": {"k": 1}},
        {"type": "A", "props": ["k"]},
        {"type": "A", "props": {"k": "x\0"}},
        {"props": {"k": "x"}},
    ],
)
def test_an_event_that_would_be_read_as_another_is_refused(page, event_pipe, event):
    answer = page.post("/post", event)
    assert answer.status == 400 and answer.text
    with pytest.raises(BlockingIOError):
        os.read(event_pipe, 1)


def test_without_a_monitor_an_event_is_not_posted(page):
    assert page.post("/post", ORDERS["/post"]).status == 502
    os.mkfifo(DEFAULT_INPUT)
    answer = page.post("/post", ORDERS["/post"])
    assert answer.status == 502 and "/halvek.pipe" in answer.text


def test_an_event_goes_to_the_pipe_that_was_named(camera, start_page, tmp_path):
    own = tmp_path / "events"
    os.mkfifo(own)
    reader = os.open(own, os.O_RDWR | os.O_NONBLOCK)
    page = start_page("--events", str(own))
    assert page.post("/post", {"type": "Bell"}).status == 204
    assert os.read(reader, 100) == b"[Bell]\n.\n"
    os.close(reader)


def test_the_daemon_gets_what_the_page_posts_and_the_page_what_the_daemon_passes_on(camera, page, launch_on_bus):
    stream = page.stream()
    launch_on_bus(SERVER)
    other = OutputPipe("all.halvek.any")
    hostile = {"type": "Bell", "props": {"name": "<script>alert(1)</script>", "a": ""}}
    assert page.post("/post", hostile).status == 204
    sent = stream.wait_for_sent("event", type="Bell").data
    assert sent["props"].items() >= hostile["props"].items()
    assert other.wait_for_event("Bell").properties == sent["props"]
    assert sent["seq"] == 1 and sent["stale"] is False and sent["clock"] in ("synced", "unsynced")
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", sent["time"])
    assert page.state()["events"] == [sent]
    other.close()


def test_the_picture_is_the_cameras_latest(page, camera):
    first = page.get("/picture")
    assert (first.status, first.headers["Content-Type"]) == (200, "image/jpeg")
    assert first.body.startswith(b"\xff\xd8") and first.body.endswith(b"\xff\xd9")
    tag = first.headers["ETag"]
    wait_until(lambda: page.get("/picture", If_None_Match=tag).status == 200, "a new picture")
    assert page.get("/picture").headers["ETag"] != tag


def test_a_picture_that_the_browser_has_is_not_sent_again(bus, start_page, tmp_path):
    file = tmp_path / "picture.jpg"
    file.write_bytes(b"\xff\xd8\xff\xd9")
    page = start_page(snapshot=file)
    tag = page.get("/picture").headers["ETag"]
    again = page.get("/picture", If_None_Match=tag)
    assert (again.status, again.body) == (304, b"")
    # Another of the same size, in the same nanosecond, as the camera replaces them.
    other = tmp_path / "other.jpg"
    other.write_bytes(b"\xff\xd8\x00\xff\xd9")
    stamp = file.stat().st_mtime_ns
    os.utime(other, ns=(stamp, stamp))
    other.rename(file)
    assert page.get("/picture", If_None_Match=tag).body == b"\xff\xd8\x00\xff\xd9"


def test_where_there_is_no_picture_it_says_so(start_page, tmp_path):
    page = start_page(snapshot=tmp_path / "none.jpg")
    kinds = {"folder": os.mkdir, "pipe": os.mkfifo, "empty": lambda path: path.touch()}
    for make in (None, *kinds.values()):
        if make:
            make(tmp_path / "none.jpg")
        answer = page.get("/picture")
        assert answer.status == 503 and "no picture" in answer.text
        if make:
            (tmp_path / "none.jpg").rename(tmp_path / "gone")
            (tmp_path / "gone").rmdir() if make is os.mkdir else (tmp_path / "gone").unlink()


def test_state_is_what_the_camera_is_at_that_moment(page, camera):
    camera.configure_relay(LOCAL, 1, on=60_000, off=100, count=3)
    camera.activate(LOCAL, 1, 3)
    camera.set_fault("AlarmV3", "slow")
    state = page.state()
    relay = next(item for item in state["relays"] if (item["bank"], item["index"]) == (LOCAL, 1))
    assert relay == {"bank": LOCAL, "index": 1, "on": True, "polarity": False, "mode": 3, "onMs": 60_000} | {
        "offMs": 100,
        "pulseCount": 3,
        "pulse": 1,
        "pulses": 3,
    }
    assert state["format"] == 1 and state["faults"]["AlarmV3"] == "slow"
    assert [action["method"] for action in state["actions"]] == ["RelayV3.SetConfiguration", "RelayV3.Activate"]
    assert state["said"][0]["text"] == "relay Local:1 on (contact closed), pulse 1 of 3"
    assert len(state["alarms"]) == 16 and len(state["relays"]) == 8
    assert [preset["id"] for preset in state["presets"]] == [str(number) for number in range(1, 11)]


def test_without_a_camera_orders_are_502_and_the_page_is_there(start_page, bus, tmp_path):
    page = start_page()
    for path, body in ORDERS.items():
        assert page.post(path, body).status == 502
    assert page.get("/").status == 200
    assert page.state()["camera"] is False
