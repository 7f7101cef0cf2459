"""The page of the virtual camera: what it answers to whom, and that nobody else reaches the camera."""

import contextlib
import http.client
import json
import os
import re
import socket
import time

import pytest
from testing.camera import ALERT, LOCAL, REMOTE
from testing.page import ADDRESS
from testing.pipes import DEFAULT_INPUT, OutputPipe
from testing.settings import SERVER
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures", "page_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

MOST_CONNECTIONS = 128
ASSETS = {
    "/": "text/html; charset=utf-8",
    "/page.js": "text/javascript; charset=utf-8",
    "/page.css": "text/css; charset=utf-8",
    "/icon.svg": "image/svg+xml",
}
ORDERS = {
    "/alarm": {"bank": LOCAL, "index": 2, "active": True},
    "/head": {"preset": "3"},
    "/recording": {"a": True, "b": False},
    "/alert": {"class": "Human"},
    "/fault": {"provider": "Tour", "kind": "slow"},
    "/post": {"type": "Doorbell", "props": {"button": "front"}},
}
POLICY = (
    "default-src 'none'; img-src 'self'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "frame-ancestors 'none'"
)
FOREIGN_HOSTS = (
    "evil.example",
    "evil.example:8077",
    "localhost.evil.example",
    "evil-localhost",
    "127.0.0.1.evil.example",
    "localhost.",
    "localhost:80:80",
    "localhost:port",
    "[::1",
    "[::2]",
    "127.0.0.2",
    "0.0.0.0",
    "user@localhost",
    "localhost\tevil",
    "",
    None,
)
FOREIGN_ORIGINS = (
    "http://evil.example",
    "https://{host}",
    "http://{host}.evil.example",
    "http://localhost:1",
    "http://127.0.0.1",
    "http://{host}/",
    "{host}",
    "null",
    "file://",
)


def nothing_reached(camera, listener) -> bool:
    """Whether the camera was told nothing at all, and told nobody anything."""
    camera.call("MotionState", "GetIdleState")
    methods = {action.method for action in camera.actions()}
    signals = [m for m in listener.items if m.interface.startswith(("com.kelto", "com.zentu"))]
    return methods <= {"MotionState.GetIdleState"} and signals == []


@pytest.mark.parametrize("path", ASSETS)
def test_the_files_of_the_page_are_kept_by_a_browser_and_asked_for_again(page, path):
    answer = page.get(path)
    assert (answer.status, answer.headers["Content-Type"]) == (200, ASSETS[path])
    assert answer.headers["Cache-Control"] == "no-cache" and answer.body
    tag = answer.headers["ETag"]
    assert re.fullmatch(r'"[0-9a-f]{16}"', tag)
    for named in (tag, f"W/{tag}", f'"other", {tag}', "*"):
        again = page.get(path, If_None_Match=named)
        assert (again.status, again.body, again.headers["ETag"]) == (304, b"", tag)
    assert page.get(path, If_None_Match='"other"').status == 200


@pytest.mark.parametrize("path", [*ASSETS, "/state", "/picture", "/nothing", "/alarm"])
def test_every_answer_keeps_other_pages_out(page, path):
    headers = page.get(path).headers
    assert headers["Content-Security-Policy"] == POLICY
    assert headers["X-Content-Type-Options"] == "nosniff"
    assert not [name for name in headers if name.lower().startswith("access-control")]


def test_the_page_names_nothing_from_elsewhere(page):
    for path in ASSETS:
        text = page.get(path).text.replace("http://www.w3.org/2000/svg", "")
        assert not re.search(r"(https?:)?//[a-z]|data:|javascript:|<script>|<style| on[a-z]+=|style=", text), path


def test_every_start_has_a_token_of_its_own(page, start_page):
    other = start_page("--events", "/var/run/halvek/zz-other.halvek.any")
    assert re.fullmatch("[0-9a-f]{32}", page.token) and page.token != other.token
    assert page.get("/").headers["ETag"] != other.get("/").headers["ETag"]


def test_a_head_request_gets_the_head_only(page):
    for path in ("/", "/state", "/picture"):
        answer = page.ask("HEAD", path)
        assert (answer.status, answer.body) == (200, b"") and int(answer.headers["Content-Length"]) > 0


@pytest.mark.parametrize("host", ["localhost", "LOCALHOST:8077", "127.0.0.1", "[::1]", "[::1]:8077", "localhost:1"])
def test_the_machines_own_names_are_ours(page, host):
    assert page.get("/state", Host=host).status == 200


def test_a_name_that_was_given_is_ours_too(camera, start_page):
    page = start_page("--host", "desk.example", "--host", "192.0.2.1")
    for host in ("desk.example", "DESK.example:8077", "192.0.2.1:80", "localhost"):
        assert page.get("/", Host=host).status == 200
    assert page.get("/", Host="other.example").status == 421


@pytest.mark.parametrize("host", FOREIGN_HOSTS)
def test_a_foreign_host_gets_nothing_and_reaches_nothing(page, camera, listener, host):
    for path in (*ASSETS, "/state", "/picture", "/stream", "/nothing"):
        answer = page.ask("GET", path, headers={"Host": host})
        assert answer.status == 421 and page.token not in answer.text
    for path, body in ORDERS.items():
        assert page.post(path, body, Host=host).status == 421
    assert nothing_reached(camera, listener)


def test_two_hosts_are_none(page):
    with socket.create_connection((ADDRESS, page.port), 10) as connection:
        connection.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\nHost: evil.example\r\nConnection: close\r\n\r\n")
        assert connection.recv(4096).split()[1] in (b"421", b"400")


@pytest.mark.parametrize("origin", FOREIGN_ORIGINS)
def test_another_pages_orders_reach_nothing(page, camera, listener, origin):
    foreign = origin.format(host=f"{ADDRESS}:{page.port}")
    for path, body in ORDERS.items():
        assert page.post(path, body, Origin=foreign).status == 403
    for path in ("/", "/state", "/stream"):
        assert page.get(path, Origin=foreign).status == 403
    assert nothing_reached(camera, listener)


@pytest.mark.parametrize("token", [None, "", "0" * 32, "{token}0", "{cut}", "{upper}"])
def test_an_order_without_the_token_reaches_nothing(page, camera, listener, token):
    known = {"token": page.token, "cut": page.token[:-1], "upper": page.token.upper() + "A"}
    wrong = token and token.format(**known)
    for path, body in ORDERS.items():
        assert page.post(path, body, X_Halvek_Token=wrong).status == 403
    assert nothing_reached(camera, listener)


def test_an_order_without_an_origin_is_taken(page):
    assert page.post("/alarm", ORDERS["/alarm"], Origin=None).status == 204


@pytest.mark.parametrize("method", ["GET", "HEAD", "PUT", "DELETE", "OPTIONS", "PATCH", "BREW"])
@pytest.mark.parametrize("path", ORDERS)
def test_an_order_by_another_method_is_refused(page, camera, listener, method, path):
    answer = page.ask(method, path, headers={"X-Halvek-Token": page.token})
    assert (answer.status, answer.headers["Allow"]) == (405, "POST")
    assert nothing_reached(camera, listener)


@pytest.mark.parametrize("path", [*ASSETS, "/state", "/picture", "/stream"])
def test_what_is_there_to_be_read_takes_no_order(page, path):
    answer = page.post(path, {})
    assert answer.status == 405 and answer.headers["Allow"].startswith("GET")


@pytest.mark.parametrize("path", ["/nothing", "/page.js/", "//", "/../etc/passwd", "/STATE", "/favicon.ico"])
def test_what_is_not_there_is_not_found(page, path):
    assert page.get(path).status == 404 and page.post(path, {}).status == 404


@pytest.mark.parametrize("kind", [None, "", "text/plain", "application/jsonp", "application/x-www-form-urlencoded"])
def test_only_json_is_taken(page, camera, listener, kind):
    assert page.post("/alarm", ORDERS["/alarm"], Content_Type=kind).status == 415
    assert nothing_reached(camera, listener)


@pytest.mark.parametrize("kind", ["application/json; charset=utf-8", "Application/JSON", "application/json ;x=y"])
def test_json_is_json_however_it_is_written(page, kind):
    assert page.post("/alarm", ORDERS["/alarm"], Content_Type=kind).status == 204


def test_4096_bytes_are_taken_and_one_more_is_not(page, camera, listener):
    body = json.dumps(ORDERS["/alarm"]).encode()
    for size in (4097, 5000, 100_000, 900_000):
        assert page.post("/alarm", body.ljust(size)).status == 413
    assert nothing_reached(camera, listener)
    assert page.post("/alarm", body.ljust(4096)).status == 204


@pytest.mark.parametrize(
    "body",
    [b"", b"{", b"[]", b"1", b"null", b'"text"', b"{}", b'{"bank": "Local"}', b'\xff{"bank":"Local"}', b"[" * 4000]
    + [
        json.dumps(ORDERS["/alarm"] | change).encode()
        for change in (
            {"index": "2"},
            {"index": 2.5},
            {"index": 2**31},
            {"index": -(2**31) - 1},
            {"index": 2**70},
            {"index": True},
            {"index": None},
            {"active": 1},
            {"active": "true"},
            {"bank": 1},
            {"bank": "Lo\0cal"},
            {"banks": "Local"},
        )
    ],
)
def test_a_body_that_says_nothing_that_could_be_done_reaches_nothing(page, camera, listener, body):
    answer = page.post("/alarm", body)
    assert answer.status == 400 and answer.text
    assert nothing_reached(camera, listener)


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


HEAD = b"POST /alarm HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"


@pytest.mark.parametrize(
    "sent",
    [
        b"\0" * 1000,
        b"GET\r\n\r\n",
        b"GET / HTTP/9.9\r\n\r\n",
        b"GET /" + b"x" * 100_000 + b" HTTP/1.1\r\nHost: localhost\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"X: y\r\n" * 20_000 + b"\r\n",
        b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"y" * 100_000 + b"\r\n\r\n",
        HEAD + b"Content-Length: -1\r\n\r\n{}",
        HEAD + b"Content-Length: 99999999999999999999\r\n\r\n{}",
        HEAD + b"Content-Length: 2\r\nContent-Length: 0\r\n\r\n{}",
        HEAD + b"Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\n{}",
        HEAD + b"Transfer-Encoding: chunked\r\n\r\n-2\r\n{}\r\n0\r\n\r\n",
    ],
    ids=range(11),
)
def test_what_is_no_request_reaches_nothing(page, camera, listener, sent):
    with socket.create_connection((ADDRESS, page.port), 2) as connection:
        # It may be closed before all is read, or the server waits for the rest for as long as for any other.
        with contextlib.suppress(ConnectionError, TimeoutError):
            connection.sendall(sent)
            answer = connection.recv(4096)
            assert answer == b"" or answer.split()[1][:1] in (b"4", b"5"), answer
    assert page.state()["camera"] is True
    assert nothing_reached(camera, listener)


def test_a_body_in_chunks_is_taken_as_any_other(page, camera):
    def status_of(*chunks: bytes) -> bytes:
        own = f"X-Halvek-Token: {page.token}\r\nTransfer-Encoding: chunked\r\n\r\n".encode()
        body = b"".join(b"%x\r\n%s\r\n" % (len(chunk), chunk) for chunk in (*chunks, b""))
        with socket.create_connection((ADDRESS, page.port), 10) as connection:
            connection.sendall(HEAD + own + body)
            return connection.recv(4096).split()[1]

    order = json.dumps(ORDERS["/alarm"]).encode()
    assert status_of(*(bytes([byte]) for byte in order)) == b"204"
    camera.lines.wait_for("alarm Local:2 active")
    assert status_of(order, b" " * 4096) == b"413"


def test_those_who_never_end_their_request_keep_others_out_for_half_a_minute_at_most(page):
    held = [socket.create_connection((ADDRESS, page.port), 10) for _ in range(MOST_CONNECTIONS)]
    for connection in held:
        connection.sendall(b"GET / HTTP/1.1\r\n")

    def is_answered() -> bool:
        with contextlib.suppress(OSError, http.client.HTTPException):
            return page.get("/").status == 200
        return False

    begin = time.monotonic()
    wait_until(is_answered, "the page answers again", patience=60)
    assert time.monotonic() - begin < 45
    for connection in held:
        connection.close()


def test_foreign_requests_take_no_memory(page):
    page.get("/state")
    before = page.descriptors()
    for _ in range(50):
        page.ask("GET", "/" + "x" * 8000)
        page.post("/alarm", b"x" * 100_000)
    wait_until(lambda: page.descriptors() <= before, "the connections are closed")
