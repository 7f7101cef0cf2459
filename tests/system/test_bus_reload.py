"""Reloads and stops while the bus keeps the daemon busy."""

import os
import signal
import time

import pytest
from daemon_on_bus import CONFIGURING, alarm, alert, connections, ids, match_rules, rounds
from scripted_service import ALERT, ScriptedService
from testing.camera import LOCAL, VirtualCamera
from testing.settings import SERVER, handler, source, timer
from testing.tree import always_open
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

CALL_LIMIT = 5.0  # seconds
STOP_LIMIT = 10.0  # seconds
LATE = 4.0  # seconds that a loaded machine may be late; less than another call would take


def relay(number: int, *source_ids: str, **keys: object) -> dict:
    return handler(number, *source_ids, handler_type="Relay", **({"BankName": LOCAL, "Mode": 1} | keys))


EVERYTHING = (
    alarm(1, 0) | alarm(2, 1) | source(3, "Park", DwellTime_sec=0) | source(4, "Analytics") | relay(1, *ids(1, 2, 4))
)
CONNECTIONS = 2  # of the listener, and of the main thread, which asks for banks; those of other threads end with them
THREADS = ["MsgBusDelivery"] * 5 + ["MsgBusListener", "ParkEventSource"]


def wait_for_threads(daemon, names: list[str]) -> None:
    """A thread that has just been started has not its name yet."""
    wait_until(lambda: daemon.thread_names() == names, f"{names}, but there are {daemon.thread_names()}")


def test_a_reload_in_the_middle_of_a_delivery_waits_for_it_and_loses_nothing_of_it(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("all.halvek.any")
    with ScriptedService(bus, "AlarmV3", "RelayV3", "MotionState") as service:
        daemon = launch_on_bus(EVERYTHING)
        for number in range(1, 201):
            seen, calls = len(pipe.items), len(service.calls)
            configured = len(daemon.log.items)
            service.hold("RelayV3.SetConfiguration")
            service.emit("AlarmV3.StateChanged", LOCAL, number % 2, True)
            service.emit_alert(*alert(str(number)))
            wait_until(lambda: len(service.calls) == calls + 2, "two sources are in a call")
            pipe.wait_for_event(ALERT, after=seen, properties={"source": str(number)})  # the third source calls nobody
            daemon.send(signal.SIGHUP)
            reloading = daemon.log.wait_for(CONFIGURING, after=configured)
            assert not daemon.log.matching("Current INI", after=reloading)
            service.release()
            daemon.log.wait_for("Done starting sources$", after=reloading)
            pipe.wait_for_event("Alarm", after=seen, properties={"alarmIndex": str(number % 2)})
            pipe.wait_for_event(ALERT, after=seen, properties={"source": str(number)}, count=2)
            wait_for_threads(daemon, THREADS)
            daemon.wait_for_descriptors(always_open() + CONNECTIONS)
        assert len(pipe.of_type("Alarm")) == 200 and len(pipe.of_type(ALERT)) == 400
        assert not daemon.log.matching(" Error ")
        assert daemon.stop() == 0
    daemon.assert_orderly_end()


def test_what_waits_behind_a_slow_service_is_counted_when_a_reload_drops_it(launch_on_bus, bus):
    waiting = 7
    with ScriptedService(bus, "AlarmV3", "RelayV3") as service:
        daemon = launch_on_bus(alarm(1, 0) | relay(1, *ids(1)))
        service.hold("RelayV3.SetConfiguration")
        service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        service.wait_for_call("RelayV3.SetConfiguration")
        for _ in range(waiting):
            service.emit("AlarmV3.StateChanged", LOCAL, 0, False)
        service.emit_alert(*alert())
        daemon.log.wait_for("Received AnalyticsAlert$")  # so the others have been queued
        reloading = len(daemon.log.items)
        daemon.send(signal.SIGHUP)
        daemon.log.wait_for(CONFIGURING, after=reloading)
        daemon.log.wait_for(f"Warning kelto.msgbus: {waiting} messages were dropped, their subscription has ended$")
        service.release()
        daemon.log.wait_for("Done starting sources$", after=reloading)
        assert daemon.stop() == 0
    assert len(daemon.log.matching(" (Warning|Error) kelto.msgbus: ")) == 1


def test_a_reload_with_an_event_pipe_costs_its_one_descriptor_and_no_more(launch_on_bus, camera, output_pipe):
    pipe = output_pipe("Alarm.fifo")
    daemon = launch_on_bus(SERVER | EVERYTHING)
    daemon.log.wait_for("Dropping to run state$")
    at_rest = always_open() + CONNECTIONS + 1  # the event pipe
    daemon.wait_for_descriptors(at_rest)
    for number in range(1, 21):
        daemon.reload()
        daemon.wait_for_descriptors(at_rest + number)
        for index in (0, 1):
            camera.set_alarm(LOCAL, index, True)
        pipe.wait_for_event("Alarm", count=2 * number)


def test_reloads_at_any_moment_of_a_stream_of_signals(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("Alarm.fifo")
    with ScriptedService(bus, "AlarmV3", "RelayV3", "MotionState") as service:
        daemon = launch_on_bus(EVERYTHING)
        for _ in range(rounds(100)):
            before = len(daemon.log.items)
            daemon.send(signal.SIGHUP)
            while not daemon.log.matching("Done starting sources$", after=before):
                service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
                service.emit("MotionState.IdleChanged", 1)
                service.emit_alert(*alert())
        seen = len(pipe.items)
        service.emit("AlarmV3.StateChanged", LOCAL, 1, True)
        pipe.wait_for_event("Alarm", properties={"alarmIndex": "1"}, after=seen)
        wait_for_threads(daemon, THREADS)
        assert daemon.stop() == 0
    daemon.assert_orderly_end()


def test_fifty_hangups_among_signals_then_a_stop_within_ten_seconds(launch_on_bus, camera):
    settings = SERVER | EVERYTHING | timer(5, 1) | handler(2, *ids(1, 3), handler_type="Preset", Id=3)
    daemon = launch_on_bus(settings | handler(3, *ids(2, 4), handler_type="Tour", Id=1))
    for number in range(50):
        camera.set_alarm(LOCAL, number % 2, True)
        camera.raise_alert(*alert())
        os.kill(daemon.pid, signal.SIGHUP)
    stopping = time.monotonic()
    assert daemon.stop(patience=STOP_LIMIT) == 0
    print(f"stopped {time.monotonic() - stopping:.2f} s after fifty hangups")
    daemon.assert_orderly_end()
    for name, stops in {"AlarmEventSource": 1, "MsgBusEventSource": 1, "ParkEventSource": 2}.items():
        started = len(daemon.log.matching(f"{name}: {name} started$|halvek: {name} started$"))
        assert len(daemon.log.matching(f" {name} stopped$")) == stops * started
    assert daemon.log.matching("halvek: run complete$")


def held_up(service, alarms: int, alerts: int) -> None:
    """The sources of these signals wait for the relay service when this returns."""
    service.hold("RelayV3.SetConfiguration")
    for _ in range(alarms):
        service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
    for _ in range(alerts):
        service.emit_alert(*alert())
    wait_until(lambda: len(service.calls) == min(alarms, 1) + min(alerts, 1), "the sources are in a call")


@pytest.mark.parametrize(("alarms", "alerts"), [(3, 0), (1, 1)], ids=["one source with more to come", "two sources"])
def test_a_stop_while_calls_hang_takes_no_longer_than_a_call(launch_on_bus, bus, alarms, alerts):
    with ScriptedService(bus, "AlarmV3", "RelayV3") as service:
        settings = SERVER | alarm(1, 0) | source(2, "Analytics") | timer(3, 3600)
        daemon = launch_on_bus(settings | relay(1, *ids(1, 2)))
        held_up(service, alarms, alerts)
        calls, called = len(service.calls), time.monotonic()
        assert daemon.stop() == 0
        took = time.monotonic() - called
        assert len(service.calls) == calls
    assert CALL_LIMIT - LATE < took < CALL_LIMIT + LATE
    assert len(daemon.log.matching(" Error ")) == calls
    daemon.assert_orderly_end()


def test_a_stop_while_the_configuration_asks_a_service_that_hangs_is_orderly(launch_on_bus, camera):
    daemon = launch_on_bus(source(1, "Alarm") | timer(2, 3600))
    camera.set_fault("AlarmV3", "hang")
    asked = len(camera.actions())
    daemon.send(signal.SIGHUP)
    wait_until(lambda: len(camera.actions()) > asked, "the reload asks for the banks")
    assert daemon.stop(patience=CALL_LIMIT + STOP_LIMIT) == 0
    daemon.assert_orderly_end()


def test_an_alarm_that_is_set_as_soon_as_the_daemon_is_ready_is_never_lost(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("all.halvek.any")
    with ScriptedService(bus, "AlarmV3", "MotionState") as service:
        for number in range(1, rounds(100) + 1):
            daemon = launch_on_bus(alarm(1, number) | source(2, "Park", DwellTime_sec=3600), ready=False)
            daemon.notifications.wait_for("READY=1")
            service.emit("AlarmV3.StateChanged", LOCAL, number, True)
            service.emit("MotionState.IdleChanged", 5)
            service.emit_alert(*alert(str(number)))
            pipe.wait_for_event("Alarm", properties={"alarmIndex": str(number)}, patience=5)
            pipe.wait_for_event(ALERT, properties={"source": str(number)}, patience=5)
            daemon.log.wait_for("HandleIdleStateChange 5$", patience=5)
            assert daemon.stop() == 0


def test_an_alarm_that_is_set_as_soon_as_a_reload_is_done_is_never_lost(launch_on_bus, bus, output_pipe):
    pipe = output_pipe("Alarm.fifo")
    with ScriptedService(bus, "AlarmV3") as service:
        daemon = launch_on_bus(alarm(1, 0) | alarm(2, 0))
        for number in range(1, rounds(100) + 1):
            daemon.write_settings(alarm(1, number) | alarm(2, number))
            daemon.reload()
            service.emit("AlarmV3.StateChanged", LOCAL, number, True)
            pipe.wait_for_event("Alarm", properties={"alarmIndex": str(number)}, count=2, patience=5)
        assert len(pipe.items) == 2 * rounds(100)


def wanted(rules: list[str], member: str) -> int:
    return sum(f"member='{member}'" in rule for rule in rules)


def test_sources_of_a_kind_share_one_subscription_on_the_bus_and_a_reload_keeps_it_at_one(launch_on_bus, bus, camera):
    parks = source(1, "Park", DwellTime_sec=3600) | source(2, "Park", DwellTime_sec=3600)
    alarms = alarm(3, 0) | alarm(4, 1) | alarm(5, 2)
    daemon = launch_on_bus(parks | alarms | source(6, "Analytics"))
    watcher = bus.client()
    for _ in range(4):
        rules = match_rules(watcher, daemon)
        assert {name: wanted(rules, name) for name in ("IdleChanged", "StateChanged", ALERT)} == {
            "IdleChanged": 1,
            "StateChanged": 1,
            ALERT: 1,
        }
        before = len(daemon.log.items)
        camera.set_idle_state(1)
        daemon.log.wait_for("HandleIdleStateChange 1$", after=before, count=2)
        camera.set_idle_state(0)
        daemon.reload()
    assert len(camera.actions("MotionState.GetIdleState")) == 2 * 5


def test_what_is_no_longer_listened_to_is_no_longer_sent(launch_on_bus, bus):
    daemon = launch_on_bus(source(1, "Park", DwellTime_sec=3600) | alarm(2, 0))
    watcher = bus.client()
    daemon.write_settings(alarm(2, 0))
    daemon.reload()
    wait_until(lambda: wanted(match_rules(watcher, daemon), "IdleChanged") == 0, "no match for the head")
    assert wanted(match_rules(watcher, daemon), "StateChanged") == 1
    daemon.write_settings("")
    daemon.reload()
    wait_until(lambda: wanted(match_rules(watcher, daemon), "StateChanged") == 0, "no match for alarms")
    assert wanted(match_rules(watcher, daemon), ALERT) == 1
    wait_for_threads(daemon, ["MsgBusDelivery", "MsgBusListener"])


def test_a_thread_takes_its_connection_to_the_bus_along(launch_on_bus, bus, output_pipe, tmp_path):
    pipe = output_pipe("Alarm.fifo")
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        daemon = launch_on_bus(alarm(1, 0) | alarm(2, 1) | relay(1, *ids(1, 2)))
        watcher = bus.client()
        idle = len(connections(watcher, daemon))
        for number in range(1, 4):
            for index in (0, 1):
                camera.set_alarm(LOCAL, index, True)
            pipe.wait_for_event("Alarm", count=2 * number)
            assert len(connections(watcher, daemon)) == idle + 2
            daemon.reload()
            wait_until(lambda: len(connections(watcher, daemon)) == idle, "the callers' connections are closed")
