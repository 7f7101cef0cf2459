"""The bus and the camera's services go away and come back; the daemon stays."""

import signal
import time

import pytest
from daemon_on_bus import CONFIGURING, FOUND, LOSS, alarm, alert, ids, rounds
from scripted_service import ScriptedService
from testing.camera import LOCAL, VirtualCamera
from testing.pipes import block, post
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

BACK_WITHIN = 10.0  # seconds from the bus's return to the first alarm
STOP_LIMIT = 10.0  # seconds
AWAY = r"org\.freedesktop\.DBus\.Error\.(ServiceUnknown|NameHasNoOwner): "
NO_BUS = "Cannot open the message bus: "


def relay(number: int, *source_ids: str, **keys: object) -> dict:
    return handler(number, *source_ids, handler_type="Relay", **({"BankName": LOCAL, "Mode": 2} | keys))


def set_alarms_until(condition, camera, *, index: int = 0, patience: float) -> None:
    """Sets an alarm again and again, as somebody would who waits for the daemon to notice."""

    def attempt() -> bool:
        if condition():
            return True
        camera.set_alarm(LOCAL, index, True)
        return False

    wait_until(attempt, "alarms flow", patience)


def at_rest(daemon) -> tuple[list[str], int]:
    return daemon.thread_names(), daemon.descriptors()


def relays_of(camera, index: int) -> list[str]:
    arguments = [action.arguments for action in camera.actions("RelayV3.Activate")]
    return [text for text in arguments if text.startswith(f"Local, {index},")]


def run_every_relay(camera, pipe) -> None:
    """Every thread that calls has a connection to this bus when this returns."""
    for index in (0, 1):
        seen, activations = len(pipe.items), len(relays_of(camera, index))
        camera.set_alarm(LOCAL, index, True)
        pipe.wait_for_event("Alarm", properties={"alarmIndex": str(index)}, after=seen)
        wait_until(lambda: len(relays_of(camera, index)) > activations, f"relay {index}")
    activations = len(relays_of(camera, 2))
    post(block("Door"))
    wait_until(lambda: len(relays_of(camera, 2)) > activations, "the relay of the posted event")


def let_flow(camera) -> None:
    """Alarms and alerts are under way when this returns."""
    for number in range(100):
        camera.begin_call("VirtualCamera", "SetAlarm", "sib", LOCAL, number % 2, True)
        camera.begin_call("VirtualCamera", "RaiseAlert", "sssssa(dd)a(dd)ss", *alert(str(number)))


def test_alarms_and_relays_outlive_a_bus_that_is_killed_again_and_again(launch_on_bus, bus, output_pipe, tmp_path):
    pipe = output_pipe("Alarm.fifo")
    sources = alarm(1, 0) | alarm(2, 1) | source(3, "Door") | source(4, "Park", DwellTime_sec=3600)
    relays = relay(1, *ids(1), Index=0) | relay(2, *ids(2), Index=1) | relay(3, *ids(3), Index=2)
    kills, slowest = rounds(20), 0.0
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        daemon = launch_on_bus(SERVER | sources | source(5, "Analytics") | relays)
        run_every_relay(camera, pipe)
        daemon.log.wait_for("Done firing to all FIFO's$", count=3)
        wait_until(lambda: daemon.thread_names().count("MsgBusDelivery") == 5, "every thread has its name")
        before = at_rest(daemon)
        let_flow(camera)
        bus.kill()
    for number in range(1, kills + 1):
        bus.start()
        returned = time.monotonic()
        with VirtualCamera(bus, tmp_path / f"camera{number}") as camera:
            post(block("Door"))  # the thread behind it has a connection that died while it was idle
            wait_until(lambda: relays_of(camera, 2), "the first relay call after the bus's return")
            assert relays_of(camera, 2) == ["Local, 2, 2"]
            seen = len(pipe.items)
            set_alarms_until(lambda: len(pipe.items) > seen, camera, patience=BACK_WITHIN)
            slowest = max(slowest, time.monotonic() - returned)
            run_every_relay(camera, pipe)
            if number < kills:
                let_flow(camera)
                bus.kill()
            else:
                wait_until(lambda: at_rest(daemon) == before, f"{before}, not {at_rest(daemon)}")
    print(f"alarms flow {slowest:.2f} s after the bus's return at most")
    assert slowest < BACK_WITHIN
    assert len(daemon.log.matching(LOSS)) == kills
    assert len(daemon.log.matching(FOUND)) == kills + 1
    assert len(daemon.log.matching(CONFIGURING)) == 1


def test_without_a_bus_there_is_one_warning_however_often_it_is_reloaded(launch_on_bus, bus, output_pipe, tmp_path):
    bus.stop()
    pipe = output_pipe("Alarm.fifo")
    daemon = launch_on_bus(SERVER | alarm(1, 0) | source(2, "Analytics") | relay(1, *ids(1)))
    for _ in range(5):
        daemon.reload()
    assert len(daemon.log.matching(" (Warning|Error) ")) == 1
    assert len(daemon.log.matching(LOSS)) == 1
    bus.start()
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        set_alarms_until(lambda: pipe.items, camera, patience=BACK_WITHIN)
        assert relays_of(camera, 0)
        assert len(daemon.log.matching(" (Warning|Error) ")) == 1
        bus.kill()
    daemon.log.wait_for(LOSS, count=2)
    daemon.reload()
    assert len(daemon.log.matching(LOSS)) == 2


def test_without_a_bus_what_has_to_be_asked_is_left_out_until_a_reload_finds_one(launch_on_bus, bus, tmp_path):
    bus.stop()
    daemon = launch_on_bus(SERVER | source(1, "Alarm") | source(2, "Park") | handler(1, *ids(2), handler_type="Relay"))
    for warning in (
        rf"Warning halvek: \tError LoadSources: {NO_BUS}",
        r"Warning ParkEventSource: Failed when querying current idle state\.$",
        rf"Warning halvek: Error LoadHandlers: {NO_BUS}",
    ):
        assert len(daemon.log.matching(warning)) == 1
    assert len(daemon.log.matching(" (Warning|Error) ")) == 4  # and the one of the loss
    bus.start()
    with VirtualCamera(bus, tmp_path / "camera"):
        reloading = len(daemon.log.items)
        daemon.reload()
        for line in ("Configured alarm 0", "HandleIdleStateChange 0", "Configured relay at index: 0"):
            daemon.log.wait_for(f"{line}$", after=reloading)


def test_an_action_without_a_bus_fails_at_once_with_one_error(launch_on_bus, bus, output_pipe):
    bus.stop()
    pipe = output_pipe("Door.fifo")
    daemon = launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1)))
    for count in range(1, 4):
        post(block("Door"))
        daemon.log.wait_for(f" Error halvek: {NO_BUS}", count=count, patience=4)
    pipe.wait_for_event("Door", count=3)
    assert len(daemon.log.matching(" Error ")) == 3


def test_a_bus_that_stands_still_holds_up_neither_the_start_nor_posted_events(
    launch_on_bus, bus, output_pipe, tmp_path
):
    pipe = output_pipe("all.halvek.any")
    with VirtualCamera(bus, tmp_path / "camera") as camera:
        bus.send(signal.SIGSTOP)
        try:
            daemon = launch_on_bus(SERVER | alarm(1, 0) | source(2, "Door"))
            post(block("Door"))
            pipe.wait_for_event("Door", patience=4)
        finally:
            bus.send(signal.SIGCONT)
        set_alarms_until(lambda: pipe.of_type("Alarm"), camera, patience=BACK_WITHIN)
        assert len(daemon.log.matching(CONFIGURING)) == 1


@pytest.mark.parametrize("connected", [True, False], ids=["connected", "not yet connected"])
def test_a_stop_while_the_bus_stands_still_is_orderly(launch_on_bus, bus, connected):
    if not connected:
        bus.send(signal.SIGSTOP)
    daemon = launch_on_bus(SERVER | alarm(1, 0))
    bus.send(signal.SIGSTOP)
    try:
        assert daemon.stop(patience=STOP_LIMIT) == 0
    finally:
        bus.send(signal.SIGCONT)
    daemon.assert_orderly_end()


ACTIONS = [
    ("RelayV3", "RelayV3.Activate", {"handler_type": "Relay", "BankName": LOCAL, "Mode": 1}),
    ("PresetsV2", "PresetsV2.GoTo", {"handler_type": "Preset", "Id": "gate"}),
    ("Tour", "Tour.Start", {"handler_type": "Tour", "Id": "night"}),
]


@pytest.mark.parametrize(("provider", "method", "keys"), ACTIONS, ids=str)
def test_a_service_that_acts_is_found_whenever_it_is_there(launch_on_bus, bus, provider, method, keys):
    daemon = launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), **keys))
    for life in range(1, 4):
        post(block("Door"))
        daemon.log.wait_for(f" Error halvek: .*{AWAY}", count=life)
        with ScriptedService(bus, provider) as service:
            for count in (1, 2):
                post(block("Door"))
                service.wait_for_call(method, count)
    assert len(daemon.log.matching(" Error ")) == 3


def test_a_service_that_goes_in_the_middle_of_a_call_costs_that_call(launch_on_bus, bus):
    daemon = launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1)))
    with ScriptedService(bus, "RelayV3") as service:
        service.hold("RelayV3.SetConfiguration")
        post(block("Door"))
        service.wait_for_call("RelayV3.SetConfiguration")
    daemon.log.wait_for(r" Error halvek: org\.freedesktop\.DBus\.Error\.NoReply: ", patience=4)
    with ScriptedService(bus, "RelayV3") as service:
        post(block("Door"))
        service.wait_for_call("RelayV3.Activate")
        assert len(service.calls) == 2  # the call that failed is not repeated


SIGNALS = [
    ("AlarmV3.StateChanged", (LOCAL, 0, True), alarm(1, 0), "Alarm"),
    ("MotionState.IdleChanged", (0,), source(1, "Park", DwellTime_sec=0), "Park"),
]


@pytest.mark.parametrize(("name", "arguments", "settings", "event_type"), SIGNALS, ids=str)
def test_a_service_that_reports_is_heard_whoever_it_is_this_time(
    launch_on_bus, bus, output_pipe, name, arguments, settings, event_type
):
    pipe = output_pipe(f"{event_type}.fifo")
    launch_on_bus(settings)
    for life in range(1, 4):
        with ScriptedService(bus, name.split(".")[0]) as service:
            service.emit(name, *arguments)
            pipe.wait_for_event(event_type, count=life)
    assert len(pipe.items) == 3


def test_the_camera_is_stopped_and_started_under_the_daemon(launch_on_bus, bus, output_pipe, tmp_path):
    pipe = output_pipe("all.halvek.any")
    sources = alarm(1, 0) | source(2, "Park", DwellTime_sec=0)
    actors = relay(1, *ids(1)) | handler(2, *ids(1), handler_type="Tour", Id=2)
    daemon = launch_on_bus(sources | actors)
    assert len(daemon.log.matching(" (Warning|Error) ")) == 2  # no event server, and nobody to ask for the idle state
    for life in range(1, 4):
        with VirtualCamera(bus, tmp_path / f"camera{life}") as camera:
            camera.set_alarm(LOCAL, 0, True)
            camera.lines.wait_for("head sets off on tour 2")
            assert relays_of(camera, 0)
            camera.set_idle_state(0)
            pipe.wait_for_event("Park", count=life)
            assert camera.stop() == 0
    assert len(daemon.log.matching(" (Warning|Error) ")) == 2
