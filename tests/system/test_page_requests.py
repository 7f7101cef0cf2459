"""The page of the virtual camera: whom it answers, and that nobody else reaches the camera."""

import contextlib
import http.client
import json
import re
import socket
import time

import pytest
from testing.page import ADDRESS, ORDERS, nothing_reached
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
