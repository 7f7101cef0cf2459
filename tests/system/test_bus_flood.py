"""More from the bus than the daemon can take: everything is delivered or counted, and nobody else waits."""

import time

from daemon_on_bus import accounted_for, alarm, alert, beating, dropped, ids
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_PATH, ALERT_SIGNATURE, ScriptedService
from testing.bus_client import INTERFACE, MEMBER, PATH, SIGNAL, encode
from testing.camera import LOCAL
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

FLOOD = 10_000
QUEUE = 1024
NOTICEABLE = 1.5  # seconds
PATIENCE = 120.0  # seconds, for a sanitizer to see through ten thousand alerts


def alerts(count: int) -> bytes:
    """So many alerts as they go over the wire."""
    fields = {PATH: ALERT_PATH, INTERFACE: ALERT_INTERFACE, MEMBER: ALERT}
    return b"".join(
        encode(SIGNAL, number, fields, ALERT_SIGNATURE, *alert(str(number), rule_points=[(0.25, number)]))
        for number in range(1, count + 1)
    )


def wait_until_accounted_for(daemon, count: int) -> None:
    wait_until(lambda: accounted_for(daemon) == count, f"{count} alerts", PATIENCE)


def test_of_ten_thousand_alerts_each_is_delivered_or_counted(launch_on_bus, bus, output_pipe):
    daemon, pipe = launch_on_bus(SERVER | source(1, "Analytics")), output_pipe("Beat.fifo")
    client, data = bus.client(), alerts(FLOOD)
    with beating(pipe) as beat:
        started = time.monotonic()
        client.send_bytes(data)
        client.call_bus("GetId")
        sent = time.monotonic()
        wait_until_accounted_for(daemon, 2 * FLOOD)
        done = time.monotonic()
    delays = beat.delays()
    print(
        f"sent in {sent - started:.2f} s, through in {done - started:.2f} s, {dropped(daemon)} of {2 * FLOOD} dropped"
    )
    print(f"{len(delays)} posted events meanwhile, at most {max(delays) * 1e3:.1f} ms each")
    assert max(delays) < NOTICEABLE
    assert not daemon.log.matching(" Error ")


def test_a_source_that_is_held_up_keeps_the_newest_and_counts_the_rest_once(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("Beat.fifo")
    relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Mode=1)
    with ScriptedService(bus, "AlarmV3", "RelayV3") as service:
        daemon = launch_on_bus(SERVER | source(1, "Analytics") | alarm(2, 0) | relay)
        alarms = output_pipe("Alarm.fifo")
        client, data = bus.client(), alerts(FLOOD - 1)
        service.hold("RelayV3.SetConfiguration")
        service.emit_alert(*alert("the first"))
        service.wait_for_call("RelayV3.SetConfiguration")
        with beating(pipe) as beat:
            client.send_bytes(data)
            client.call_bus("GetId")
            service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
            alarms.wait_for_event("Alarm")
            assert len(service.calls) == 1
            service.release()
            wait_until_accounted_for(daemon, 2 * FLOOD)
            service.wait_for_call("RelayV3.Activate", 1 + QUEUE)
    delivered = len(daemon.log.matching("AnalyticsEventSource: Received AnalyticsAlert$"))
    assert delivered == 1 + QUEUE
    own = daemon.log.matching(f"Warning kelto.msgbus: {FLOOD - delivered} messages were dropped")
    assert len(own) == 1
    assert len(service.of("RelayV3.Activate")) == delivered
    assert max(beat.delays()) < NOTICEABLE
    assert not daemon.log.matching(" Error ")


def test_what_is_kept_of_a_flood_is_the_newest_in_its_order(launch_on_bus, bus, output_pipe):
    relay = handler(1, *ids(1), handler_type="Relay", BankName=LOCAL, Mode=1)
    with ScriptedService(bus, "AlarmV3", "RelayV3") as service:
        daemon = launch_on_bus(alarm(1, 0) | relay)
        service.hold("RelayV3.SetConfiguration")
        service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        service.wait_for_call("RelayV3.SetConfiguration")
        flood = QUEUE + 76
        for number in range(1, flood + 1):
            service.emit("AlarmV3.StateChanged", "number", number, True)
        service.emit("AlarmV3.StateChanged", LOCAL, 0, False)
        # The signals have been queued when a later one has come through another source.
        pipe = output_pipe("AnalyticsAlert.fifo")
        service.emit_alert(*alert("behind"))
        pipe.wait_for_event(ALERT)
        service.release()
        daemon.log.wait_for("for alarm Local:0 -> 0$")
    numbers = [line.rpartition("number:")[2] for line in daemon.log.matching("for alarm number:")]
    assert numbers == [f"{number} -> 1" for number in range(flood + 1 - (QUEUE - 1), flood + 1)]
    assert dropped(daemon) == flood + 1 - QUEUE
