"""What reloads and floods cost in memory."""

import pytest
from daemon_on_bus import accounted_for, alarm, alert, connections, highest_resident_kib, ids
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE, ScriptedService
from testing.camera import LOCAL
from testing.settings import handler, source
from testing.tree import always_open
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="it has memory of its own"),
    pytest.mark.not_under("emulator", reason="its memory would be measured too"),
]

RELOADS = 1000
CONNECTIONS = 5  # the listener's, the main thread's, which asks for banks, and one of each source that drives the relay
THREADS = ["MsgBusDelivery"] * 5 + ["MsgBusListener", "ParkEventSource"]
SETTLED_AFTER = 50
ALLOWED_GROWTH = 512  # KiB
QUEUE = 4 * 1024  # KiB that a source keeps of what it has not come to yet, at most
SPARE = 8 * 1024  # KiB for the message at hand, for what has been read ahead and for the allocator


def test_a_thousand_reloads_leave_memory_threads_and_descriptors_flat(launch_on_bus, bus, camera, output_pipe):
    pipe, watcher = output_pipe("Alarm.fifo"), bus.client()
    sources = alarm(1, 0) | alarm(2, 1) | source(3, "Park", DwellTime_sec=0) | source(4, "Analytics")
    daemon = launch_on_bus(sources | handler(1, *ids(1, 2, 4), handler_type="Relay", Index=1))
    settled = 0

    def come_to_rest() -> None:
        wait_until(lambda: len(connections(watcher, daemon)) == CONNECTIONS, "each source has called the relay")
        wait_until(lambda: daemon.thread_names() == THREADS, f"{THREADS}, not {daemon.thread_names()}")
        daemon.wait_for_descriptors(always_open() + CONNECTIONS)

    for number in range(1, RELOADS + 1):
        daemon.reload()
        before = len(pipe.items)
        camera.raise_alert(*alert(str(number)))
        for index in (0, 1):
            camera.set_alarm(LOCAL, index, True)
        pipe.wait_for_event("Alarm", after=before, count=2)
        if number == SETTLED_AFTER:
            come_to_rest()
            settled = daemon.resident_kib()
    come_to_rest()
    growth = daemon.resident_kib() - settled
    print(f"resident: {settled} KiB after {SETTLED_AFTER} reloads, {growth} KiB more after {RELOADS}")
    assert growth <= ALLOWED_GROWTH


def flood_while_held(launch_on_bus, bus, count: int, arguments: tuple) -> int:
    """Alerts for a source that waits for its relay; returns by how many KiB the daemon grew at most."""
    with ScriptedService(bus, "RelayV3") as service:
        relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Mode=1)
        daemon = launch_on_bus(source(1, "Analytics") | relay)
        service.hold("RelayV3.SetConfiguration")
        service.emit_alert(*alert("the first"))
        service.wait_for_call("RelayV3.SetConfiguration")
        client, before = bus.client(), highest_resident_kib(daemon)
        for _ in range(count):
            client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *arguments)
        client.call_bus("GetId")
        service.release()
        wait_until(lambda: accounted_for(daemon) == 2 * (count + 1), "every alert, for both sources", 60)
        return highest_resident_kib(daemon) - before


def test_a_flood_of_small_alerts_stays_within_the_queues(launch_on_bus, bus):
    growth = flood_while_held(launch_on_bus, bus, 10_000, alert("small"))
    print(f"10,000 alerts: {growth} KiB at most")
    assert growth < 2 * QUEUE + SPARE


def test_a_flood_of_long_alerts_stays_within_the_queues(launch_on_bus, bus):
    growth = flood_while_held(launch_on_bus, bus, 1000, alert("x" * 100_000))
    print(f"1,000 alerts of 100,000 bytes: {growth} KiB at most")
    assert growth < 2 * QUEUE + SPARE


def test_a_flood_of_alerts_full_of_points_stays_within_the_queues(launch_on_bus, bus):
    growth = flood_while_held(launch_on_bus, bus, 300, alert("points", rule_points=[(0.25, 0.75)] * 4000))
    print(f"300 alerts of 4,000 points: {growth} KiB at most")
    assert growth < 2 * QUEUE + SPARE


def test_an_alert_of_200_000_points_is_not_even_taken_into_memory_whole(launch_on_bus, bus):
    growth = flood_while_held(launch_on_bus, bus, 4, alert("big", rule_points=[(0.25, 0.75)] * 200_000))
    print(f"alerts of 200,000 points: {growth} KiB at most")
    assert growth < 4 * 1024 + QUEUE + SPARE
