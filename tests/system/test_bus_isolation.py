"""A service that is slow or does not answer delays nobody but the source whose event it serves."""

import time

import pytest
from daemon_on_bus import alarm, alert, beating, ids
from scripted_service import ScriptedService
from testing.camera import LOCAL
from testing.settings import SERVER, handler, source
from testing.times import LATE

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.alone(reason="who waits for whom is seen by how long it takes")

SLOW, LIMIT = 3.0, 5.0  # seconds: the virtual camera's slow answer, and what a caller waits for at most
NOTICEABLE = 1.5  # seconds; half of what a slow service takes, fifteen times the beat
TIMED_OUT = r"org\.freedesktop\.DBus\.Error\.(NoReply|Timeout): "


def relay(number: int, *source_ids: str, **keys: object) -> dict:
    return handler(number, *source_ids, handler_type="Relay", **({"BankName": LOCAL} | keys))


def test_posted_events_keep_their_pace_while_a_relay_service_is_slow(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(SERVER | alarm(1, 0) | relay(1, *ids(1), Mode=1)), output_pipe("Beat.fifo")
    alarms = output_pipe("Alarm.fifo")
    camera.set_fault("RelayV3", "slow")
    started = time.monotonic()
    with beating(pipe) as beat:
        camera.set_alarm(LOCAL, 0, True)
        alarms.wait_for_event("Alarm")
    assert alarms.time_of(0) - started > 2 * SLOW - 0.1  # a write and an activation
    delays = beat.delays()
    print(f"{len(delays)} events in {2 * SLOW} s, at most {max(delays) * 1e3:.1f} ms each")
    assert len(delays) > 30
    assert max(delays) < NOTICEABLE
    assert not daemon.log.matching(" Error ")


def test_an_alarm_source_whose_relay_does_not_answer_delays_no_other_source(launch_on_bus, bus, output_pipe):
    with ScriptedService(bus, "AlarmV3", "RelayV3", "MotionState") as service:
        pipe = output_pipe("all.halvek.any")
        sources = alarm(1, 0) | alarm(2, 1) | source(3, "Analytics") | source(4, "Park", DwellTime_sec=0)
        launch_on_bus(SERVER | sources | relay(1, *ids(1), Mode=1))
        service.hold("RelayV3.SetConfiguration")
        service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        service.wait_for_call("RelayV3.SetConfiguration")
        for number in range(1, 11):
            service.emit("AlarmV3.StateChanged", LOCAL, 1, number % 2 == 0)
            service.emit_alert(*alert(str(number)))
            pipe.wait_for_event("Alarm", properties={"alarmIndex": "1"}, count=number, patience=4)
            pipe.wait_for_event("AnalyticsAlert", properties={"source": str(number)}, count=2, patience=4)
        service.emit("MotionState.IdleChanged", 0)
        pipe.wait_for_event("Park", patience=4)
        assert all(event.properties.get("alarmIndex") != "0" for event in pipe.items)
        service.release()
        pipe.wait_for_event("Alarm", properties={"alarmIndex": "0"})
        service.wait_for_call("RelayV3.Activate")
        assert len(service.calls) == 3  # the idle state at the start, and the two of the relay


def test_two_sources_that_call_the_same_slow_service_wait_for_it_side_by_side(launch_on_bus, camera, output_pipe):
    pipe = output_pipe("Alarm.fifo")
    launch_on_bus(alarm(1, 0) | alarm(2, 1) | relay(1, *ids(1), Index=0) | relay(2, *ids(2), Index=1))
    camera.set_fault("RelayV3", "slow")
    started = time.monotonic()
    for index in (0, 1):
        camera.set_alarm(LOCAL, index, True)
    pipe.wait_for_event("Alarm", count=2)
    assert 2 * SLOW - 0.1 < pipe.time_of(1) - started < 2 * SLOW + LATE
    assert len(camera.actions("RelayV3.Activate")) == 2


def test_a_source_takes_its_events_one_after_the_other(launch_on_bus, bus, output_pipe):
    with ScriptedService(bus, "AlarmV3", "RelayV3") as service:
        pipe = output_pipe("Alarm.fifo")
        launch_on_bus(alarm(1, 0) | relay(1, *ids(1), Mode=1))
        service.hold("RelayV3.Activate")
        for active in (True, False, True):
            service.emit("AlarmV3.StateChanged", LOCAL, 0, active)
        service.wait_for_call("RelayV3.Activate")
        assert len(service.calls) == 2 and pipe.items == []
        service.release()
        pipe.wait_for_event("Alarm", count=3)
        assert [event.properties["alarmState"] for event in pipe.items] == ["1", "0", "1"]
        assert [call.method for call in service.calls] == ["RelayV3.SetConfiguration", "RelayV3.Activate"] * 3


HUNG = [
    ("RelayV3", "Relay", {"BankName": LOCAL}, ""),
    ("PresetsV2", "Preset", {"Id": 2}, "PresetEventHandler: Error: "),
    ("Tour", "Tour", {"Id": 2}, ""),
]


def test_a_hung_service_costs_its_caller_five_seconds_and_one_error_a_call(launch_on_bus, camera, output_pipe):
    pipe = output_pipe("Alarm.fifo")
    settings = {}
    for number, (provider, handler_type, keys, _) in enumerate(HUNG):
        camera.set_fault(provider, "hang")
        settings |= alarm(number, number) | handler(number, *ids(number), handler_type=handler_type, **keys)
    daemon = launch_on_bus(settings)
    ready, started = len(daemon.log.items), time.monotonic()
    for number in range(len(HUNG)):
        camera.set_alarm(LOCAL, number, True)
        camera.set_alarm(LOCAL, number, False)
    pipe.wait_for_event("Alarm", count=2 * len(HUNG))
    before = {prefix: started for *_, prefix in HUNG}
    for count in (1, 2):
        for *_, prefix in HUNG:
            lines = 2 * count if prefix == "" else count
            behind = daemon.log.wait_for(f" Error halvek: {prefix}{TIMED_OUT}", after=ready, count=lines)
            failed = daemon.log.time_of(behind - 1)
            assert failed - started > count * LIMIT - 0.1 and failed - before[prefix] < LIMIT + LATE
            before[prefix] = failed
    assert len(daemon.log.matching(" (Warning|Error) ", after=ready)) == 2 * len(HUNG)
    assert len(camera.actions()) == 2 * len(HUNG)  # what has failed is not followed by the next step


AT_CONFIGURATION = [
    ("AlarmV3", source(1, "Alarm"), rf" Warning halvek: \tError LoadSources: {TIMED_OUT}"),
    (
        "RelayV3",
        source(1, "Analytics") | handler(1, *ids(1), handler_type="Relay"),
        rf" Warning halvek: Error LoadHandlers: {TIMED_OUT}",
    ),
    ("MotionState", source(1, "Park"), r" Warning ParkEventSource: Failed when querying current idle state\.$"),
]


def test_a_hung_service_costs_a_configuration_five_seconds_and_one_warning(launch_on_bus, camera):
    daemons, started = [], time.monotonic()
    for provider, settings, warning in AT_CONFIGURATION:
        camera.set_fault(provider, "hang")
        daemons.append((launch_on_bus(SERVER | settings, ready=False), warning))
    for daemon, warning in daemons:
        daemon.wait_until_ready()
        assert -0.1 < time.monotonic() - started - LIMIT < LATE
        assert len(daemon.log.matching(" (Warning|Error) ")) == 1
        assert daemon.log.matching(warning)
    assert len(camera.actions()) == len(AT_CONFIGURATION)


@pytest.mark.parametrize(("provider", "settings", "warning"), AT_CONFIGURATION, ids=lambda value: str(value)[:9])
def test_what_a_service_refused_at_configuration_is_there_again_after_a_reload(
    launch_on_bus, camera, provider, settings, warning
):
    camera.set_fault(provider, "error")
    failed = f"com.kelto.Error.Fault: {provider} is set to fail$"
    daemon = launch_on_bus(SERVER | settings)
    assert len(daemon.log.matching(" (Warning|Error) ")) == 1
    assert daemon.log.matching(warning.replace(TIMED_OUT, failed))
    camera.set_fault(provider, "none")
    failed_at = len(daemon.log.items)
    daemon.reload()
    assert len(daemon.log.matching(" (Warning|Error) ")) == 1
    settled = {"AlarmV3": "Configured alarm 0", "RelayV3": "Configured relay at index: 0"}
    daemon.log.wait_for(f"{settled.get(provider, 'HandleIdleStateChange 0')}$", after=failed_at)
