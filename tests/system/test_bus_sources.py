"""What the camera says on the bus, and the events that come of it."""

import re
from pathlib import Path

import pytest
from daemon_on_bus import alarm, alert, ids
from scripted_service import ALERT, ALERT_INTERFACE, ALERT_SIGNATURE, ScriptedService
from testing.camera import LOCAL, REMOTE
from testing.pipes import unstamped
from testing.settings import handler, source, timer
from testing.times import record_time

pytest_plugins = ["camera_fixtures"]

BANK_QUERY = [("AlarmV3.GetBankNames", ""), ("AlarmV3.IsRemote", REMOTE), ("AlarmV3.IsRemote", LOCAL)]


def alarm_event(index: int, active: bool, bank: str = LOCAL) -> tuple[str, dict[str, str]]:
    return "Alarm", {"alarmIndex": str(index), "alarmBank": bank, "alarmState": "1" if active else "0"}


def test_an_alarm_input_fires_when_it_goes_active_and_when_it_goes_inactive(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(alarm(1, 2)), output_pipe("Alarm.fifo")
    for active in (True, False):
        camera.set_alarm(LOCAL, 2, active)
    pipe.wait_for_event("Alarm", count=2)
    assert unstamped(pipe.items) == [alarm_event(2, True), alarm_event(2, False)]
    position = 0
    for line in (
        "Information halvek: Configured alarm 2",
        "Information halvek: AlarmEventSource started",
        "Debug halvek: Received state change for alarm Local:2 -> 1",
        "Information halvek: firing",
        "Debug halvek: Received state change for alarm Local:2 -> 0",
        "Information halvek: firing",
    ):
        position = daemon.log.wait_for(f" {line}$", after=position)


def test_the_same_state_twice_fires_twice(launch_on_bus, camera, output_pipe):
    launch_on_bus(alarm(1, 0))
    pipe = output_pipe("Alarm.fifo")
    for _ in range(2):
        camera.set_alarm(LOCAL, 0, True)
    pipe.wait_for_event("Alarm", count=2)
    assert unstamped(pipe.items) == [alarm_event(0, True)] * 2


def test_only_the_input_of_its_bank_and_index_fires_an_alarm_source(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(alarm(1, 2)), output_pipe("Alarm.fifo")
    for bank, index in ((LOCAL, 3), (REMOTE, 2), (LOCAL, 0), (LOCAL, 2)):
        camera.set_alarm(bank, index, True)
    pipe.wait_for_event("Alarm")
    assert unstamped(pipe.items) == [alarm_event(2, True)]
    assert len(daemon.log.matching("Received state change for alarm ")) == 4
    assert len(daemon.log.matching("Information halvek: firing$")) == 1


def test_each_alarm_source_fires_for_its_own_input(launch_on_bus, camera, output_pipe):
    launch_on_bus(alarm(1, 2) | alarm(2, 5, BankName=REMOTE))
    pipe = output_pipe("Alarm.fifo")
    camera.set_alarm(LOCAL, 2, True)
    pipe.wait_for_event("Alarm")
    camera.set_alarm(REMOTE, 5, False)
    pipe.wait_for_event("Alarm", count=2)
    assert unstamped(pipe.items) == [alarm_event(2, True), alarm_event(5, False, REMOTE)]


def test_without_index_and_bank_the_first_input_of_the_first_bank_that_is_not_remote_is_taken(
    launch_on_bus, camera, output_pipe
):
    launch_on_bus(source(1, "Alarm"))
    pipe = output_pipe("Alarm.fifo")
    assert [(action.method, action.arguments) for action in camera.actions()] == BANK_QUERY
    camera.set_alarm(REMOTE, 0, True)
    camera.set_alarm(LOCAL, 0, True)
    pipe.wait_for_event("Alarm")
    assert unstamped(pipe.items) == [alarm_event(0, True)]


def test_a_bank_that_is_named_is_not_asked_for_even_if_its_name_is_empty(launch_on_bus, bus, output_pipe):
    with ScriptedService(bus, "AlarmV3") as service:
        launch_on_bus(alarm(1, 0, BankName="") | alarm(2, 1, BankName="Attic"))
        pipe = output_pipe("Alarm.fifo")
        for bank, index in (("", 1), (LOCAL, 0), ("", 0), ("Attic", 0), ("Attic", 1)):
            service.emit("AlarmV3.StateChanged", bank, index, True)
        pipe.wait_for_event("Alarm", count=2)
        assert sorted(unstamped(pipe.items), key=str) == [alarm_event(0, True, ""), alarm_event(1, True, "Attic")]
        assert service.calls == []


def test_the_banks_are_asked_in_the_order_of_the_service_until_one_is_not_remote(launch_on_bus, bus):
    with ScriptedService(bus, "AlarmV3", answers={"AlarmV3.GetBankNames": ("as", ["Roof", "Attic"])}) as service:
        launch_on_bus(source(1, "Alarm"))
        assert [(call.method, call.arguments) for call in service.calls] == [
            ("AlarmV3.GetBankNames", []),
            ("AlarmV3.IsRemote", ["Roof"]),
        ]


def test_without_a_bank_that_is_not_remote_only_the_empty_bank_name_fires(launch_on_bus, bus, output_pipe):
    with ScriptedService(bus, "AlarmV3", answers={"AlarmV3.IsRemote": ("b", True)}) as service:
        launch_on_bus(source(1, "Alarm"))
        pipe = output_pipe("Alarm.fifo")
        assert len(service.of("AlarmV3.IsRemote")) == 2
        for bank in (REMOTE, LOCAL, ""):
            service.emit("AlarmV3.StateChanged", bank, 0, True)
        pipe.wait_for_event("Alarm")
        assert unstamped(pipe.items) == [alarm_event(0, True, "")]


def test_a_head_that_comes_to_rest_sends_the_park_event_out(launch_on_bus, camera, output_pipe):
    camera.set_idle_state(1)
    daemon, pipe = launch_on_bus(source(1, "Park", DwellTime_sec=1)), output_pipe("Park.fifo")
    daemon.log.wait_for("Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 1$")
    camera.call("PresetsV2", "GoTo", "sdi", "2", 1.0, 900)
    at_rest = daemon.log.wait_for("Debug ParkEventSource: ParkEventSource::HandleIdleStateChange 0$")
    pipe.wait_for_event("Park")
    assert unstamped(pipe.items) == [("Park", {})]
    fired = daemon.log.wait_for("Debug ParkEventSource: fired$", after=at_rest)
    rest, park = (record_time(daemon.log.items[index - 1]) for index in (at_rest, fired))
    assert 0.99 <= park - rest < 5  # 1 to 2 s on an idle machine
    position = 0
    for line in (
        "\tPark DwellTime: 1",
        "ParkEventSource started",
    ):
        position = daemon.log.wait_for(f" Information ParkEventSource: {line}$", after=position)
    daemon.log.wait_for(" Debug ParkEventSource: fired$", after=position)


def test_a_head_at_rest_at_the_start_fires_once_and_again_only_after_it_has_moved(launch_on_bus, camera, output_pipe):
    pipe = output_pipe("Park.fifo")
    clock = output_pipe("Timer.fifo")
    launch_on_bus(source(1, "Park", DwellTime_sec=0) | timer(2, 1))
    pipe.wait_for_event("Park")
    clock.wait_for_event("Timer", after=len(clock.items), count=3)
    assert len(pipe.items) == 1
    camera.set_idle_state(1)
    camera.set_idle_state(0)
    pipe.wait_for_event("Park", count=2)


def test_a_head_that_moves_on_before_the_dwell_time_is_over_fires_nothing(launch_on_bus, camera, output_pipe):
    camera.set_idle_state(1)
    pipe, clock = output_pipe("Park.fifo"), output_pipe("Timer.fifo")
    daemon = launch_on_bus(source(1, "Park", DwellTime_sec=2) | timer(2, 1))
    for state in (0, 5):
        camera.set_idle_state(state)
        daemon.log.wait_for(f"HandleIdleStateChange {state}$")
    clock.wait_for_event("Timer", after=len(clock.items), count=4)
    assert pipe.items == []


def test_without_a_dwell_time_a_head_rests_for_ten_seconds(launch_on_bus, camera):
    daemon = launch_on_bus(source(1, "Park"))
    position = 0
    for line in (
        "Debug ParkEventSource: \tCan't find Park::DwellTime.sec, using default!",
        "Information ParkEventSource: \tPark DwellTime: 10",
    ):
        position = daemon.log.wait_for(f" {line}$", after=position)


def test_every_park_source_hears_of_the_head(launch_on_bus, camera, output_pipe):
    camera.set_idle_state(1)
    pipe = output_pipe("Park.fifo")
    launch_on_bus(source(1, "Park", DwellTime_sec=0) | source(2, "Park", DwellTime_sec=0))
    camera.set_idle_state(0)
    pipe.wait_for_event("Park", count=2)


def alert_event(**properties: str) -> tuple[str, dict[str, str]]:
    plain = {"source": "", "class": "Human", "analyticsType": "LineCrossing", "ruleName": "Gate"}
    plain |= {"ruleDescription": "", "rulePoints": "", "boxPoints": "", "mediaType": "video"}
    return ALERT, plain | {"mediaUrl": "rtsp://camera/1"} | properties


def test_without_any_setting_an_alert_fires_once_through_the_bus_source(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(""), output_pipe("AnalyticsAlert.fifo")
    for number in range(2):
        camera.raise_alert(*alert(str(number)))
    pipe.wait_for_event(ALERT, count=2)
    assert unstamped(pipe.items) == [alert_event(source="0"), alert_event(source="1")]
    assert len(daemon.log.matching(" Information MsgBusEventSource: MsgBusEventSource started$")) == 1
    assert len(daemon.log.matching(" Information MsgBusEventSource: Received AnalyticsAlert$")) == 2
    assert not daemon.log.matching("AnalyticsEventSource")


def test_with_both_sources_an_alert_fires_once_through_each(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(source(1, "Analytics")), output_pipe("AnalyticsAlert.fifo")
    camera.raise_alert(*alert("gate"))
    pipe.wait_for_event(ALERT, count=2)
    for line in (
        "Information MsgBusEventSource: Received AnalyticsAlert",
        "Information AnalyticsEventSource: Received AnalyticsAlert",
        "Information AnalyticsEventSource: send Analytics Event, for possible Handler",
    ):
        assert len(daemon.log.matching(f" {line}$")) == 1
    assert unstamped(pipe.items) == [alert_event(source="gate")] * 2


def test_an_alert_becomes_the_properties_of_its_event(launch_on_bus, camera, output_pipe):
    launch_on_bus("")
    pipe = output_pipe("AnalyticsAlert.fifo")
    points = [(0.5, 1.0), (0.333333333, 1234567.0), (-0.0001, 0.00001)]
    camera.raise_alert("a%20b", "c%20d", "e f", "Front%20gate", "100%25=all", points, [(0.0, 0.0)], "g%20h", "i%20j")
    pipe.wait_for_event(ALERT)
    expected = {"source": "a%20b", "class": "c%20d", "analyticsType": "e f"}
    expected |= {"ruleName": "Front gate", "ruleDescription": "100%=all", "mediaType": "g%20h", "mediaUrl": "i%20j"}
    expected |= {"rulePoints": "(0.5,1)|(0.333333,1.23457e+06)|(-0.0001,1e-05)", "boxPoints": "(0,0)"}
    assert unstamped(pipe.items) == [(ALERT, expected)]


@pytest.mark.parametrize("path", ["/", "/com/zentu/analytics", "/somewhere/else"])
def test_an_alert_counts_from_any_sender_and_path(launch_on_bus, bus, output_pipe, path):
    launch_on_bus("")
    pipe = output_pipe("AnalyticsAlert.fifo")
    bus.client().emit(path, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *alert(path))
    pipe.wait_for_event(ALERT, properties={"source": path})


def test_the_bus_sources_do_not_even_look_at_their_settings(launch_on_bus):
    daemon = launch_on_bus(source(1, "Analytics", Anything="at all"))
    assert not daemon.log.matching("Contents of Ini group")


@pytest.mark.not_under("emulator", reason="it has one of the libraries loaded itself")
def test_libsystemd_is_the_only_bus_library_that_a_daemon_at_work_has_loaded(launch_on_bus, camera, output_pipe):
    daemon, pipe = launch_on_bus(alarm(1, 0) | handler(1, *ids(1), handler_type="Relay")), output_pipe("Alarm.fifo")
    camera.set_alarm(LOCAL, 0, True)
    pipe.wait_for_event("Alarm")
    loaded = set(re.findall(r"/(lib[\w+-]+)\.so", Path(f"/proc/{daemon.pid}/maps").read_text()))
    assert {name for name in loaded if re.search("systemd|bus|glib|gio|elogind|varlink", name)} == {"libsystemd"}


def test_every_source_says_that_it_stops(launch_on_bus, camera):
    settings = alarm(1, 0) | source(2, "Park", DwellTime_sec=3600) | source(3, "Analytics")
    daemon = launch_on_bus(settings)
    assert daemon.stop() == 0
    for line, count in {
        "Information halvek: AlarmEventSource stopped": 1,
        "Debug ParkEventSource: ParkEventSource::Stop()": 2,
        "Information ParkEventSource: ParkEventSource stopped": 2,  # by the stop, and by the end of the source
        "Information MsgBusEventSource: MsgBusEventSource stopped": 1,
        "Information AnalyticsEventSource: AnalyticsEventSource stopped": 1,
    }.items():
        assert sum(item.endswith(f" {line}") for item in daemon.log.items) == count, line
    daemon.assert_orderly_end()
