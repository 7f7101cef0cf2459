"""What takes the page of the virtual camera long: no browser has a part in it."""

import os
import socket
import time

from testing.camera import LOCAL
from testing.page import ADDRESS
from testing.processes import resident_kib
from testing.waiting import wait_until

MINUTES = float(os.environ.get("HALVEK_PAGE_MINUTES", "1"))


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

    be_used(15)
    memory, descriptors = resident_kib(page.process.pid), page.descriptors()
    be_used(MINUTES * 60)
    wait_until(lambda: page.descriptors() <= descriptors, "the visitors are gone", patience=45)
    print(f"{memory} kB before, {resident_kib(page.process.pid)} kB after {MINUTES} minutes")
    assert resident_kib(page.process.pid) < memory + 512
    assert staying.named("state")
