"""The page of the virtual camera: started by the first browser, without a network, and in nobody's way."""

import json
import os
import re
import urllib.error
import urllib.request
from collections.abc import Iterator
from pathlib import Path

import pytest
from machine import (
    CAMERA_UNIT,
    UNIT,
    Consumer,
    configure,
    is_active,
    main_pid,
    on_door,
    processes_of,
    run,
    run_as,
    show,
)
from testing.waiting import wait_until

SOCKET, PAGE_UNIT, USER = "kelto-vcam-page.socket", "kelto-vcam-page.service", "kelto-vcam-page"
PIPE = Path("/run/halvek/zz-page.halvek.any")
ADDRESS = "http://localhost:8077"


def ask(path: str, body: object = None, **headers: str) -> bytes:
    data = None if body is None else json.dumps(body).encode()
    fields = {name.replace("_", "-"): value for name, value in headers.items()}
    request = urllib.request.Request(ADDRESS + path, data, {"Content-Type": "application/json"} | fields)
    with urllib.request.urlopen(request, timeout=30) as answer:
        return answer.read()


def state() -> dict:
    return json.loads(ask("/state"))


@pytest.fixture
def page(camera: None) -> Iterator[None]:
    """The socket, and nothing that has been asked for yet."""
    run("systemctl", "start", SOCKET)
    yield
    run("systemctl", "stop", SOCKET, PAGE_UNIT)


def order(path: str, body: dict) -> None:
    token = re.search(rb'name="halvek-token" content="([0-9a-f]+)"', ask("/"))[1].decode()
    ask(path, body, X_Halvek_Token=token)


def test_it_is_neither_enabled_nor_started_by_its_package():
    assert not is_active(SOCKET) and not is_active(PAGE_UNIT)
    assert show("UnitFileState", SOCKET) == "disabled"


def test_the_first_browser_starts_it_without_a_network(page: None):
    assert not is_active(PAGE_UNIT)
    assert state()["camera"] is True
    assert is_active(PAGE_UNIT) and show("PrivateNetwork", PAGE_UNIT) == "yes"
    pid = main_pid_of_page()
    assert os.readlink(f"/proc/{pid}/ns/net") != os.readlink("/proc/1/ns/net")
    # One process, which stays.
    assert len(processes_of(USER)) == 1


def main_pid_of_page() -> int:
    return int(show("MainPID", PAGE_UNIT))


def test_what_is_done_on_the_page_is_done_by_camera_and_monitor(page: None):
    configure(on_door(("Relay", {"BankName": "Local", "Index": 1, "PulseCount": 1})))
    consumer = Consumer()
    order("/alarm", {"bank": "Local", "index": 2, "active": True})
    order("/head", {"preset": "3"})
    order("/alert", {"class": "Person"})
    order("/post", {"type": "Door", "props": {"number": "1"}})
    consumer.wait_for_event("Door", properties={"number": "1"})
    consumer.close()

    def is_shown() -> bool:
        shown = state()
        said = [line["text"] for line in shown["said"]]
        types = {event["type"] for event in shown["events"]}
        return "relay Local:1 on (contact closed), pulse 1 of 1" in said and {"Door", "AnalyticsAlert"} <= types

    wait_until(is_shown, "the relay's pulse and the events on the page")
    assert ask("/picture").startswith(b"\xff\xd8")
    assert {event["clock"] for event in state()["events"]} <= {"synced", "unsynced"}


def test_an_order_without_the_token_is_refused(page: None):
    with pytest.raises(urllib.error.HTTPError) as refused:
        ask("/alarm", {"bank": "Local", "index": 2, "active": True})
    assert refused.value.code == 403


def test_its_pipe_goes_with_it_also_when_it_is_killed(page: None):
    state()
    found = PIPE.stat()
    assert PIPE.is_fifo() and found.st_mode & 0o007 == 0
    run("systemctl", "kill", "--signal=KILL", PAGE_UNIT)
    wait_until(lambda: is_active(PAGE_UNIT) and state()["eventPipe"]["open"], "the page is back")
    assert PIPE.stat().st_ino != found.st_ino
    run("systemctl", "stop", SOCKET, PAGE_UNIT)
    assert not PIPE.exists()


def test_the_monitor_does_not_need_it(page: None):
    state()
    pid = main_pid()
    run("systemctl", "stop", SOCKET, PAGE_UNIT)
    assert is_active(UNIT) and is_active(CAMERA_UNIT) and main_pid() == pid


def test_on_the_bus_it_may_do_what_it_needs_and_no_more(page: None):
    def call(service: str, method: str, *arguments: str) -> str:
        name = f"com.kelto.{service}"
        words = " ".join(("busctl", "call", name, f"/com/kelto/{service}", name, method, *arguments))
        return run_as(USER, command=words).stderr

    assert call("VirtualCamera", "GetState") == ""
    assert call("PresetsV2", "IsAt", "s", "1") == ""
    assert "denied" in call("RelayV3", "Activate", "sii", "Local", "0", "1")
    assert "denied" in run_as("nobody", command="busctl call com.kelto.VirtualCamera / x.y Z").stderr
