"""Somebody on the bus who wants to silence the daemon, by what anybody may send, and no packaged policy."""

import functools
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager, suppress

import pytest
from daemon_on_bus import alert, connections, dropped, given_up, highest_resident_kib, ids
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE
from testing.bus_client import (
    DESTINATION,
    INTERFACE,
    MEMBER,
    METHOD_CALL,
    NO_REPLY_EXPECTED,
    PATH,
    SIGNAL,
    BusClient,
    BusError,
    encode,
)
from testing.camera import LOCAL
from testing.pipes import block, post
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="it has memory of its own"),
    pytest.mark.not_under("emulator", reason="who attacks is not emulated, and so many times faster than on a camera"),
]

MANY = 1_100  # as many as a process may have descriptors, and some
NOTICEABLE = 1.5  # seconds
CALL_LIMIT = 5.0
EVENTS = 5
AT_REST = 60_000  # messages before the first event
BETWEEN_EVENTS = 5_000
SPARE = 2 * 1024  # KiB


def test_alerts_larger_than_a_pipe_cost_no_descriptor_and_silence_nobody(launch_on_bus, bus, output_pipe):
    pipe, client = output_pipe("AnalyticsAlert.fifo"), bus.client()
    daemon = launch_on_bus(SERVER | source(1, "Analytics"))
    before = daemon.descriptors()
    for _ in range(MANY):
        client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert("x" * 100_000))
    client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert("good"))
    pipe.wait_for_event(ALERT, properties={"source": "good"}, count=2)
    # The daemon still has the folder open when its event has come out.
    wait_until(lambda: daemon.descriptors() == before, "as many descriptors as before")
    assert not daemon.log.matching(" Error ")
    assert daemon.stop() == 0
    assert sum(given_up(daemon)) + dropped(daemon) == 2 * MANY
    assert len(given_up(daemon)) < 20


def unasked(destination: str, count: int) -> bytes:
    """Signals and calls, addressed to one connection."""
    names = {PATH: "/x", INTERFACE: "com.example.Flood", MEMBER: "Flood", DESTINATION: destination}
    text = "x" * 1000
    pair = b"".join(encode(kind, 1, names, "s", text, flags=NO_REPLY_EXPECTED) for kind in (SIGNAL, METHOD_CALL))
    return pair * (count // 2)


@contextmanager
def flooded(client: BusClient, daemon, listener: set[str]) -> Iterator[list[int]]:
    """Sends all that goes to the daemon's connections but one; gives the number of messages sent so far."""
    sent, done = [0], threading.Event()
    prepare = functools.cache(unasked)

    def flood() -> None:
        while not done.is_set():
            with suppress(BusError):  # one that is gone when it is asked for its process
                for name in set(connections(client, daemon)) - listener:
                    client.send_bytes(prepare(name, 1000))
                    sent[0] += 1000

    thread = threading.Thread(target=flood, name="flood")
    thread.start()
    try:
        yield sent
    finally:
        done.set()
        thread.join()


def switch_relay(camera) -> float:
    """Posts an event that switches a relay; returns how long that took, in seconds."""
    camera.clear_actions()
    posted = time.monotonic()
    post(block("Door"))
    wait_until(lambda: camera.actions("RelayV3.Activate"), "the relay", 40)
    return camera.actions("RelayV3.Activate")[0].time - posted


def test_what_is_sent_to_the_connections_for_calls_delays_no_call_and_takes_no_memory(launch_on_bus, bus, camera):
    relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Mode=1)
    daemon, client = launch_on_bus(SERVER | source(1, "Door") | relay), bus.client()
    listener = set(connections(client, daemon))
    switch_relay(camera)
    before, delays = highest_resident_kib(daemon), []
    with flooded(client, daemon, listener) as sent:
        for number in range(EVENTS):
            wait_until(lambda: sent[0] >= AT_REST + number * BETWEEN_EVENTS, "more messages", 60)
            delays.append(switch_relay(camera))
    growth = highest_resident_kib(daemon) - before
    print(f"{sent[0]} messages; relays after {max(delays) * 1e3:.0f} ms at most, {growth} KiB more")
    assert sorted(delays)[EVENTS // 2] < NOTICEABLE  # a loaded machine may be late with some
    assert max(delays) < CALL_LIMIT
    assert growth < SPARE
    assert not daemon.log.matching(" Error |Warning kelto.msgbus")


def test_what_is_sent_while_a_call_waits_takes_no_memory_and_the_reply_is_found(launch_on_bus, bus, camera):
    relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Mode=1)
    daemon, client = launch_on_bus(SERVER | source(1, "Door") | relay), bus.client()
    listener = set(connections(client, daemon))
    switch_relay(camera)
    before = highest_resident_kib(daemon)
    camera.set_fault("RelayV3", "slow")
    with flooded(client, daemon, listener) as sent:
        switch_relay(camera)
    daemon.log.wait_for("Done firing to all FIFO's$", count=2)
    growth = highest_resident_kib(daemon) - before
    print(f"{sent[0]} messages, {growth} KiB more")
    assert growth < SPARE
    assert not daemon.log.matching(" Error |Warning kelto.msgbus")
