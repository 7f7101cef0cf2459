"""What takes the page of the virtual camera long, in a browser and without one."""

import os
import socket
import statistics
import time

from testing.camera import LOCAL
from testing.page import ADDRESS
from testing.processes import own_kib
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

MINUTES = float(os.environ.get("HALVEK_PAGE_MINUTES", "1"))
STEPS = 30  # in which it is looked how much is held
KEPT = 1024  # events, by the server
FLAT = 128  # kilobytes
SETTINGS = (
    SERVER
    | source(1, "Alarm", BankName=LOCAL, Index=2)
    | source(2, "Analytics")
    | handler(1, "Events/Source#1,Events/Source#2", handler_type="Relay", BankName=LOCAL, Index=0, Mode=3)
)


def flood(camera, count):
    for number in range(count):
        camera.set_alarm(LOCAL, 2, number % 2 == 0)


def test_a_browser_that_reads_a_byte_a_second_is_cut_off(page, camera):
    slow = socket.socket()
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    slow.connect((ADDRESS, page.port))
    slow.sendall(b"GET /stream HTTP/1.1\r\nHost: localhost\r\n\r\n")
    quick = page.stream()
    before = page.descriptors()

    def is_cut_off() -> bool:
        slow.recv(1)
        flood(camera, 200)
        return page.descriptors() < before

    wait_until(is_cut_off, "the slow stream is closed", patience=90)
    slow.close()
    after = len(quick.items)
    flood(camera, 1)
    quick.wait_for_sent("said", after=after, text="alarm Local:2 active")


def fill_memory(page, use) -> None:
    """Uses the page until the events that its server keeps have all been followed by as many others, twice."""
    first = int(page.state()["id"])
    wait_until(lambda: use(1) or int(page.state()["id"]) > first + 3 * KEPT, "the memory is full", patience=600)


def fill_memory_with_states(page, camera) -> None:
    """
    The most that its server can hold of this: states are the longest of what it keeps, of which there is one to each
    line of the camera at most, and as many browsers read them as it serves.
    """
    first, descriptors = int(page.state()["id"]), page.descriptors()
    streams = [page.stream(opened=False)]
    while streams[-1].wait_for_head() == 200:
        streams.append(page.stream(opened=False))
    stream = streams[0]

    def is_full() -> bool:
        after = len(stream.items)
        camera.set_alarm(LOCAL, 3, not after % 2)
        camera.set_alarm(LOCAL, 4, bool(after % 2))
        stream.wait_for_sent("state", after=after)
        return int(page.state()["id"]) > first + KEPT

    wait_until(is_full, "the memory is full of states", patience=600)
    for opened in streams:
        opened.close()
    # Those that have left are noticed when something is told.
    wait_until(lambda: flood(camera, 2) or page.descriptors() <= descriptors, "they have left")


def watch(use, look) -> list[dict[str, int]]:
    """What was seen at the beginning, at each of so many steps, and at the end."""
    series = [look()]
    begin = time.monotonic()
    print(f"0.0 min: {series[0]}", flush=True)
    for step in range(STEPS):
        while (rest := begin + MINUTES * 60 * (step + 1) / STEPS - time.monotonic()) > 0:
            use(min(rest, 60))
        series.append(look())
        print(f"{(time.monotonic() - begin) / 60:.1f} min: {series[-1]}", flush=True)
    return series


def growth(series: list[dict[str, int]], name: str) -> float:
    """How much more there is in the last third than in the first, at the median."""
    values = [seen[name] for seen in series]
    third = len(values) // 3
    return statistics.median(values[-third:]) - statistics.median(values[:third])


def test_memory_and_descriptors_stay_as_they_are(page, camera):
    """HALVEK_PAGE_MINUTES=60 makes it an hour: browsers come and go, and the camera is never at rest."""
    camera.configure_relay(LOCAL, 0, on=20, off=20, count=1_000_000)
    camera.activate(LOCAL, 0, 3)
    staying = page.stream()

    def be_used(seconds: float) -> None:
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            visitors = [page.stream() for _ in range(5)]
            flood(camera, 50)
            page.get("/picture")
            assert page.state()["camera"] is True
            for visitor in visitors:
                visitor.close()
            camera.let_pass(100)

    def look() -> dict[str, int]:
        return {"server": own_kib(page.process.pid), "descriptors": page.descriptors()}

    fill_memory(page, be_used)
    fill_memory_with_states(page, camera)
    series = watch(be_used, look)
    before, after = series[0], series[-1]
    assert after["server"] < before["server"] + 512 and growth(series, "server") < FLAT
    wait_until(lambda: page.descriptors() <= before["descriptors"], "the visitors are gone", patience=45)
    assert staying.named("state")


def measure(browser, page) -> dict[str, int]:
    """What server and page hold, the page without its garbage: kilobytes, nodes, listeners and descriptors."""
    for _ in range(3):
        browser.command("HeapProfiler.collectGarbage")
    held = browser.command("Memory.getDOMCounters")
    heap = browser.command("Runtime.getHeapUsage")["usedSize"] // 1024
    server = {"server": own_kib(page.process.pid), "descriptors": page.descriptors()}
    return server | {"heap": heap, "nodes": held["nodes"], "listeners": held["jsEventListeners"]}


def test_memory_of_browser_and_server_stay_as_they_are(browser, page, camera, monitor_of):
    """HALVEK_PAGE_MINUTES=60 makes it an hour of alarms, alerts, pulses and events, with the page in front."""
    monitor_of(SETTINGS)
    browser.command("HeapProfiler.enable")

    def be_used(seconds: float) -> None:
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            flood(camera, 10)
            assert page.post("/alert", {"class": "Person", "boxPoints": [[0.1, 0.2], [0.9, 0.8]]}).status == 204
            assert page.post("/post", {"type": "Bell", "props": {"button": "front"}}).status == 204
            camera.let_pass(500)

    # As long as the lists of the page grow.
    rows = "return ['events', 'actions', 'said'].map((name) => document.getElementById(name).childElementCount)"
    wait_until(lambda: be_used(5) or browser.run(rows) == [200, 200, 200], "the lists are full", patience=600)
    fill_memory(page, be_used)
    series = watch(be_used, lambda: measure(browser, page))
    first, held = series[0], series[-1]
    assert held["server"] < first["server"] + 512 and held["descriptors"] < first["descriptors"] + 5
    assert held["heap"] < first["heap"] + 512
    assert growth(series, "server") < FLAT and growth(series, "heap") < FLAT
    assert held["nodes"] < first["nodes"] + 500 and held["listeners"] <= first["listeners"] + 5
