"""What relay, preset and tour handlers ask of the camera's services, to the argument."""

import re
from pathlib import Path

import pytest
from daemon_on_bus import alarm, alert, ids
from scripted_service import ScriptedService
from testing.bus_client import BusError
from testing.camera import LOCAL, REMOTE
from testing.pipes import block, post
from testing.settings import SERVER, handler, source, timer
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]

ALERTS = "Applications/halvek/MsgBus"  # the source of alerts that is always there
SERVICES = ("RelayV3", "PresetsV2", "Tour")


def asked(service) -> list[tuple]:
    return [(call.method, *call.arguments) for call in service.calls]


@pytest.fixture
def services(bus):
    with ScriptedService(bus, "AlarmV3", *SERVICES) as scripted:
        yield scripted


def relay(number: int, *source_ids: str, bank: str = LOCAL, **keys: object) -> dict:
    named = {key.replace("_", "."): value for key, value in keys.items()}
    return handler(number, *source_ids, handler_type="Relay", BankName=bank, **named)


def test_an_alarm_pulses_a_relay_as_it_is_configured(launch_on_bus, camera):
    pulses = {"Polarity": "true", "OnInterval.msec": 30, "OffInterval.msec": 20, "PulseCount": 2}
    launch_on_bus(alarm(1, 3) | relay(1, *ids(1), Index=1, **pulses))
    camera.set_alarm(LOCAL, 3, True)
    camera.lines.wait_for("relay Local:1 on .*pulse 2 of 2$")
    assert [(action.method, action.arguments) for action in camera.actions()] == [
        ("RelayV3.SetConfiguration", "Local, 1, true, 3, 30, 20, 2"),
        ("RelayV3.Activate", "Local, 1, 3"),
    ]


def test_an_alarm_pulses_a_relay_as_the_service_has_it_configured(launch_on_bus, camera):
    camera.call("RelayV3", "SetConfiguration", "sibiiii", REMOTE, 2, False, 3, 10, 10, 3)
    camera.clear_actions()
    launch_on_bus(alarm(1, 3) | relay(1, *ids(1), bank=REMOTE, Index=2))
    camera.set_alarm(LOCAL, 3, True)
    camera.lines.wait_for("relay Remote:2 on .*pulse 3 of 3$")
    assert [(action.method, action.arguments) for action in camera.actions()] == [
        ("RelayV3.GetConfiguration", "Remote, 2"),
        ("RelayV3.Activate", "Remote, 2, 3"),
    ]


@pytest.mark.parametrize(
    ("keys", "configuration"),
    [
        ({"PulseCount": 4}, (False, 3, 500, 500, 4)),
        ({"PulseCount": 0}, (False, 3, 500, 500, 1)),
        ({"Polarity": "true"}, (True, 3, 500, 500, 1)),
        ({"Mode": 0}, (False, 0, 500, 500, 1)),
        ({"Mode": 4}, (False, 3, 500, 500, 1)),
        ({"Mode": -1}, (False, 3, 500, 500, 1)),
        ({"OnInterval_msec": 0, "OffInterval_msec": 7}, (False, 3, 0, 7, 1)),
        ({"OnInterval_msec": -1, "OffInterval_msec": -1}, (False, 3, 500, 500, 1)),
    ],
    ids=str,
)
def test_a_relay_handler_with_a_setting_of_its_own_writes_all_and_reads_none(
    launch_on_bus, services, keys, configuration
):
    daemon = launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1), Index=2, **keys))
    daemon.log.wait_for("Information halvek: Configured relay at index: 2$")
    post(block("Door"))
    services.wait_for_call("RelayV3.Activate")
    assert asked(services) == [
        ("RelayV3.SetConfiguration", LOCAL, 2, *configuration),
        ("RelayV3.Activate", LOCAL, 2, configuration[1]),
    ]


def test_a_relay_handler_without_settings_of_its_own_reads_before_each_action(launch_on_bus, services):
    launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1)))
    expected = []
    # The read call's result stands for the polarity, so "false" is no failure; nothing of it is written back.
    for count, (result, polarity, mode) in enumerate([(True, False, 1), (False, True, 2), (False, False, 0)], start=1):
        services.answers["RelayV3.GetConfiguration"] = ("bbiiii", result, polarity, mode, 7, 8, 9)
        post(block("Door"))
        services.wait_for_call("RelayV3.Activate", count)
        expected += [("RelayV3.GetConfiguration", LOCAL, 0), ("RelayV3.Activate", LOCAL, 0, mode)]
    assert asked(services) == expected


def test_a_result_of_no_means_nothing_to_a_relay_handler_that_writes(launch_on_bus, services):
    services.answers |= {"RelayV3.SetConfiguration": ("b", False), "RelayV3.Activate": ("b", False)}
    daemon = launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1), Mode=1) | relay(2, *ids(1), Index=1, Mode=1))
    post(block("Door"))
    services.wait_for_call("RelayV3.Activate", 2)
    assert [call[0] for call in asked(services)] == ["RelayV3.SetConfiguration", "RelayV3.Activate"] * 2
    assert not daemon.log.matching(" Error ")


def test_a_relay_bank_that_is_not_named_is_the_first_that_is_not_remote(launch_on_bus, camera):
    launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type="Relay", Mode=1))
    post(block("Door"))
    camera.lines.wait_for("relay Local:0 on")
    assert [(action.method, action.arguments) for action in camera.actions()] == [
        ("RelayV3.GetBankNames", ""),
        ("RelayV3.IsRemote", REMOTE),
        ("RelayV3.IsRemote", LOCAL),
        ("RelayV3.SetConfiguration", "Local, 0, false, 1, 500, 500, 1"),
        ("RelayV3.Activate", "Local, 0, 1"),
    ]


def test_a_relay_bank_with_an_empty_name_is_not_asked_for(launch_on_bus, services):
    launch_on_bus(SERVER | source(1, "Door") | relay(1, *ids(1), bank="", Mode=1))
    post(block("Door"))
    services.wait_for_call("RelayV3.Activate")
    assert asked(services) == [
        ("RelayV3.SetConfiguration", "", 0, False, 1, 500, 500, 1),
        ("RelayV3.Activate", "", 0, 1),
    ]


def test_without_a_relay_bank_that_is_not_remote_the_bank_name_stays_empty(launch_on_bus, services):
    services.answers["RelayV3.IsRemote"] = ("b", True)
    launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type="Relay", Mode=1))
    post(block("Door"))
    services.wait_for_call("RelayV3.Activate")
    assert asked(services)[-1] == ("RelayV3.Activate", "", 0, 1)


def test_an_alarm_reaches_the_head_at_level_400_and_everything_else_at_900(launch_on_bus, services):
    sources = alarm(1, 0) | source(2, "Door") | source(3, "Analytics") | timer(4, 3600)
    actors = handler(1, *ids(1, 2, 3, 4), ALERTS, handler_type="Preset", Id="gate")
    actors |= handler(2, *ids(1, 2, 3, 4), ALERTS, handler_type="Tour", Id="night")
    launch_on_bus(SERVER | sources | actors)

    def levels(count: int) -> set[int]:
        services.wait_for_call("Tour.Start", count)
        services.wait_for_call("PresetsV2.GoTo", count)
        found = {tuple(call[:-1]): call[-1] for call in asked(services) if call[0] != "PresetsV2.IsAt"}
        assert found.keys() == {("PresetsV2.GoTo", "gate", 1.0), ("Tour.Start", "night")}
        services.calls.clear()
        return set(found.values())

    assert levels(1) == {900}  # the timer's first tick
    services.emit("AlarmV3.StateChanged", LOCAL, 0, True)
    assert levels(1) == {400}
    services.emit("AlarmV3.StateChanged", LOCAL, 0, False)
    assert levels(1) == {400}
    post(block("Door", priority=1))
    assert levels(1) == {900}
    services.emit_alert(*alert())
    assert levels(2) == {900}


def test_the_head_moves_with_the_camera(launch_on_bus, camera):
    actors = handler(1, *ids(1), handler_type="Preset", Id=7) | handler(2, ALERTS, handler_type="Tour", Id=2)
    launch_on_bus(alarm(1, 0) | actors)
    camera.set_alarm(LOCAL, 0, True)
    camera.lines.wait_for(r"head sets off to preset 7 \(speed 1, level 400\)$")
    camera.lines.wait_for("head comes to rest at preset 7$")
    camera.raise_alert(*alert())
    camera.lines.wait_for(r"head sets off on tour 2 \(level 900\)$")
    assert [(action.method, action.arguments) for action in camera.actions()] == [
        ("PresetsV2.IsAt", "7"),
        ("PresetsV2.GoTo", "7, 1, 400"),
        ("Tour.Start", "2, 900"),
    ]


def test_a_head_that_is_at_the_preset_is_not_moved(launch_on_bus, services, output_pipe):
    pipe = output_pipe("Door.fifo")
    services.answers["PresetsV2.IsAt"] = ("b", True)
    daemon = launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type="Preset", Id="gate"))
    for count in (1, 2):
        post(block("Door"))
        services.wait_for_call("PresetsV2.IsAt", count)
    pipe.wait_for_event("Door", count=2)
    services.answers["PresetsV2.IsAt"] = ("b", False)
    post(block("Door"))
    services.wait_for_call("PresetsV2.GoTo")
    assert asked(services) == [("PresetsV2.IsAt", "gate")] * 3 + [("PresetsV2.GoTo", "gate", 1.0, 900)]
    assert len(daemon.log.matching("Debug halvek: PresetEventHandler::PerformAction$")) == 3
    assert not daemon.log.matching(" Error ")


def blocked_signals(daemon) -> dict[str, int]:
    """What each of the daemon's threads blocks, bit N - 1 for signal N, by the threads' names."""
    masks: dict[str, int] = {}
    for status in Path(f"/proc/{daemon.pid}/task").glob("*/status"):
        fields = dict(re.findall(r"^(\w+):\s*(.*)$", status.read_text(), re.MULTILINE))
        masks[fields["Name"]] = masks.get(fields["Name"], 0) | int(fields["SigBlk"], 16)
    del masks["halvek"]  # a sanitizer's own thread goes by the name of the main one
    return masks


def test_no_thread_goes_on_blocking_signals_after_a_call(launch_on_bus, bus):
    """The commands that handlers start would inherit that."""
    sources = alarm(1, 0) | source(2, "Park", DwellTime_sec=0) | timer(3, 3600) | source(4, "Door")
    with ScriptedService(bus, "AlarmV3", "RelayV3", "MotionState") as service:
        daemon = launch_on_bus(SERVER | sources | relay(1, *ids(1, 2, 3, 4), Mode=1))
        service.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        service.emit("MotionState.IdleChanged", 0)
        post(block("Door"))
        service.wait_for_call("RelayV3.Activate", 4)  # the timer's first tick is one of them
        wait_until(lambda: not any(blocked_signals(daemon).values()), f"not {blocked_signals(daemon)}")
    callers = {"EventServerSource", "MsgBusDelivery", "ParkEventSource", "TimerEventSource"}
    assert {name[:15] for name in callers} <= blocked_signals(daemon).keys()


@pytest.mark.parametrize("handler_type", ["Preset", "Tour"])
def test_preset_and_tour_handlers_say_the_same_when_they_are_configured(launch_on_bus, handler_type):
    daemon = launch_on_bus(timer(1, 3600) | handler(1, *ids(1), handler_type=handler_type, Id=3))
    daemon.log.wait_for('Information halvek: Configured preset to: "3"$')


FAILING = [
    ("Relay", "RelayV3", {"Index": 0, "BankName": LOCAL}, ""),
    ("Relay", "RelayV3", {"Index": 0, "BankName": LOCAL, "Mode": 1}, ""),
    ("Preset", "PresetsV2", {"Id": 2}, "PresetEventHandler: Error: "),
    ("Tour", "Tour", {"Id": 1}, ""),
]


@pytest.mark.parametrize(("handler_type", "provider", "keys", "prefix"), FAILING, ids=str)
def test_a_service_that_fails_costs_one_line_and_the_next_event_tries_again(
    launch_on_bus, camera, handler_type, provider, keys, prefix
):
    daemon = launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type=handler_type, **keys))
    started = len(daemon.log.items)
    camera.set_fault(provider, "error")
    for count in (1, 2):
        post(block("Door"))
        failure = f" Error halvek: {prefix}com.kelto.Error.Fault: {provider} is set to fail$"
        daemon.log.wait_for(failure, after=started, count=count)
    camera.set_fault(provider, "none")
    post(block("Door"))
    camera.lines.wait_for("relay Local:0 on" if handler_type == "Relay" else "head sets off")
    assert len(daemon.log.matching(" (Error|Warning) ", after=started)) == 2


@pytest.mark.parametrize(("handler_type", "provider", "keys", "prefix"), FAILING, ids=str)
def test_an_error_without_a_text_is_known_by_its_name(launch_on_bus, services, handler_type, provider, keys, prefix):
    methods = [method for method in services.answers if method.startswith(provider)]
    services.answers |= {method: BusError("org.example.Broken", "") for method in methods}
    daemon = launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type=handler_type, **keys))
    post(block("Door"))
    daemon.log.wait_for(f"Error halvek: {prefix}org.example.Broken: ?$")


@pytest.mark.parametrize(("handler_type", "_", "keys", "prefix"), FAILING[:1] + FAILING[2:3], ids=str)
def test_a_reply_that_is_not_what_it_should_be_is_a_failure(launch_on_bus, services, handler_type, _, keys, prefix):
    services.answers |= {"RelayV3.GetConfiguration": ("s", "what?"), "PresetsV2.IsAt": ("",)}
    daemon = launch_on_bus(SERVER | source(1, "Door") | handler(1, *ids(1), handler_type=handler_type, **keys))
    post(block("Door"))
    daemon.log.wait_for(f"Error halvek: {prefix}Cannot read a reply: ")
    assert len(asked(services)) == 1


UNCONFIGURED = [
    ("Relay", {"Index": -1, "BankName": LOCAL}),
    ("Preset", {"Id": ""}),
    ("Tour", {"Id": ""}),
    ("Tour", {}),
]


@pytest.mark.parametrize(("handler_type", "keys"), UNCONFIGURED, ids=str)
def test_an_unconfigured_handler_ends_the_park_source_for_good(launch_on_bus, camera, output_pipe, handler_type, keys):
    clock, pipe = output_pipe("Timer.fifo"), output_pipe("Park.fifo")
    camera.set_idle_state(1)
    park = source(1, "Park", DwellTime_sec=0)
    daemon = launch_on_bus(park | timer(2, 1) | handler(1, *ids(1), handler_type=handler_type, **keys))
    assert "ParkEventSource" in daemon.thread_names()
    camera.set_idle_state(0)
    failed = daemon.log.wait_for("Error ParkEventSource: EventHandler: not configured$")
    daemon.log.wait_for("Debug ParkEventSource: DONE$", after=failed)
    for state in (1, 0):
        camera.set_idle_state(state)
    daemon.log.wait_for("ParkEventSource::HandleIdleStateChange 0$", after=failed)
    clock.wait_for_event("Timer", after=len(clock.items), count=2)
    assert len(daemon.log.matching("not configured")) == 1
    assert "ParkEventSource" not in daemon.thread_names()
    assert pipe.items == []  # what came behind the handler in the source's list got nothing either


@pytest.mark.parametrize(("handler_type", "keys"), UNCONFIGURED, ids=str)
def test_an_unconfigured_handler_costs_a_delivery_from_the_bus_one_line_and_the_next_one_comes(
    launch_on_bus, services, output_pipe, handler_type, keys
):
    pipe = output_pipe("all.halvek.any")
    unconfigured = handler(1, *ids(1, 2), ALERTS, handler_type=handler_type, **keys)
    daemon = launch_on_bus(alarm(1, 0) | source(2, "Analytics") | unconfigured)
    for count in range(1, 4):
        services.emit("AlarmV3.StateChanged", LOCAL, 0, True)
        services.emit_alert(*alert())
        daemon.log.wait_for("Error kelto.msgbus: EventHandler: not configured$", count=3 * count)
    assert len(daemon.log.matching(" Error ")) == 9
    assert services.calls == [] and pipe.items == []
