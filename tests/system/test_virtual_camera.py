"""What the virtual camera offers: the services of a camera, and what can be seen of them."""

import itertools
import time
import xml.etree.ElementTree as ElementTree

import pytest
from testing.bus_client import DESTINATION, INTERFACE, MEMBER, METHOD_CALL, NO_REPLY_EXPECTED, PATH, BusError, encode
from testing.camera import (
    ALERT,
    ATTEMPTS,
    INTERFACE_FILES,
    LATE,
    LOCAL,
    PROVIDERS,
    REMOTE,
    TIME,
    described,
    offsets,
    service,
    text_of,
)

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

TOURS = {"1": ["1", "2", "3"], "2": ["4", "5", "6", "7"], "3": ["8", "10", "9"]}


def idle_changes(client, after=0):
    return [message.arguments[0] for message in client.signals("com.kelto.MotionState", "IdleChanged", after)]


@pytest.mark.parametrize("name", INTERFACE_FILES)
def test_a_service_is_what_its_interface_file_says(camera, name):
    bus_name, path, interface = service(name)
    document = camera.client.call(bus_name, path, "org.freedesktop.DBus.Introspectable", "Introspect")[0]
    expected = described(INTERFACE_FILES[name].read_text(), interface)
    assert expected and described(document, interface) == expected
    own = {element.get("name") for element in ElementTree.fromstring(document).iter("interface")}
    assert {name for name in own if not name.startswith("org.freedesktop.DBus.")} == {interface}


def test_it_is_ready_once_it_owns_its_seven_names_and_has_a_picture(camera):
    owners = {camera.client.owner(service(name)[0]) for name in INTERFACE_FILES}
    assert len(owners) == 1 and None not in owners
    assert camera.snapshot.exists()
    assert camera.notifications.items == ["READY=1"]


@pytest.mark.parametrize("provider", ["AlarmV3", "RelayV3"])
def test_the_remote_bank_comes_first_and_the_local_one_is_the_cameras_own(camera, provider):
    assert camera.call(provider, "GetBankNames") == [[REMOTE, LOCAL]]
    assert camera.call(provider, "IsRemote", "s", REMOTE) == [True]
    assert camera.call(provider, "IsRemote", "s", LOCAL) == [False]


def test_every_setting_of_an_alarm_is_told_also_the_same_state_again(camera, listener):
    states = [(LOCAL, 2, True), (LOCAL, 2, True), (REMOTE, 7, False), (LOCAL, 2, False)]
    for bank, index, active in states:
        camera.set_alarm(bank, index, active)
    camera.client.wait_for_signal("com.kelto.AlarmV3", "StateChanged", count=len(states))
    signals = listener.signals("com.kelto.AlarmV3", "StateChanged")
    assert [tuple(message.arguments) for message in signals] == states
    assert {(message.path, message.sender) for message in signals} == {
        ("/com/kelto/AlarmV3", listener.owner("com.kelto.AlarmV3"))
    }
    assert camera.told("alarm") == [
        "alarm Local:2 active",
        "alarm Local:2 active",
        "alarm Remote:7 inactive",
        "alarm Local:2 inactive",
    ]


def test_a_relay_starts_with_one_pulse_of_half_a_second(camera):
    for bank, index in itertools.product((REMOTE, LOCAL), range(4)):
        answer = camera.call("RelayV3", "GetConfiguration", "si", bank, index)
        assert answer == [True, False, 3, 500, 500, 1]


def test_each_relay_keeps_the_configuration_that_it_was_given(camera):
    camera.configure_relay(LOCAL, 1, polarity=True, mode=2, on=0, off=70000, count=12)
    assert camera.call("RelayV3", "GetConfiguration", "si", LOCAL, 1) == [True, True, 2, 0, 70000, 12]
    assert camera.call("RelayV3", "GetConfiguration", "si", REMOTE, 1) == [True, False, 3, 500, 500, 1]
    assert camera.call("RelayV3", "GetConfiguration", "si", LOCAL, 0) == [True, False, 3, 500, 500, 1]


def test_modes_switch_a_relay_off_on_and_over_and_a_line_tells_each_change(camera):
    off, on, toggle = range(3)
    for mode in (off, on, on, toggle, toggle, off, off, toggle):
        camera.activate(LOCAL, 3, mode)
    switched_on, switched_off = "relay Local:3 on (contact closed)", "relay Local:3 off (contact open)"
    assert camera.told("relay") == [
        switched_on,
        switched_off,
        switched_on,
        switched_off,
        switched_on,
    ]


def test_polarity_turns_the_contact_round(camera):
    camera.configure_relay(LOCAL, 0, polarity=True)
    camera.activate(LOCAL, 0, 1)
    camera.configure_relay(LOCAL, 0, polarity=False)
    camera.configure_relay(LOCAL, 0, polarity=False)
    assert camera.told("relay") == [
        "relay Local:0 off (contact closed), polarity reversed",
        "relay Local:0 on (contact open)",
        "relay Local:0 on (contact closed), polarity reversed",
    ]


@pytest.mark.parametrize(("on", "off", "count"), [(300, 500, 1), (200, 100, 3), (20, 30, 10), (0, 0, 2)])
def test_a_relay_pulses_as_long_and_as_often_as_it_was_told(camera, on, off, count):
    expected = [
        f"relay Local:0 {state}, pulse {pulse} of {count}"
        for pulse in range(1, count + 1)
        for state in ("on (contact closed)", "off (contact open)")
    ]
    due = [pulse * (on + off) / 1000 + part for pulse in range(count) for part in (0, on / 1000)]
    camera.configure_relay(LOCAL, 0, on=on, off=off, count=count)

    def is_in_time() -> bool:
        before = len(camera.lines.items)
        camera.activate(LOCAL, 0, 3)
        camera.lines.wait_for(f"off .*pulse {count} of {count}", after=before)
        camera.let_pass(off + 200)
        lines = camera.lines.matching(f"^{TIME} relay Local", after=before)
        assert [text_of(line) for line in lines] == expected
        return all(-0.002 <= offset - on_time <= LATE for on_time, offset in zip(due, offsets(lines), strict=True))

    assert any(is_in_time() for _ in range(ATTEMPTS))


def test_pulses_of_several_relays_run_side_by_side(camera):
    relays = list(itertools.product((REMOTE, LOCAL), range(4)))
    for bank, index in relays:
        camera.configure_relay(bank, index, on=600, off=100, count=2)
    start = time.monotonic()
    for bank, index in relays:
        camera.activate(bank, index, 3)
    for bank, index in relays:
        camera.lines.wait_for(f"relay {bank}:{index} off .* pulse 2 of 2")
    assert 1.3 <= time.monotonic() - start < 2 * 1.3


def test_a_new_order_ends_the_pulses_under_way_and_a_new_configuration_does_not(camera):
    camera.configure_relay(LOCAL, 0, on=50, off=50, count=1000)
    camera.activate(LOCAL, 0, 3)
    camera.lines.wait_for("on .*pulse 2 of 1000")
    camera.configure_relay(LOCAL, 0, on=100, off=10, count=2)
    camera.lines.wait_for("on .*pulse 4 of 1000")
    camera.activate(LOCAL, 0, 0)
    before = len(camera.told("relay Local"))
    camera.let_pass(300)
    assert len(camera.told("relay Local")) == before
    camera.activate(LOCAL, 0, 3)
    camera.lines.wait_for("off .*pulse 2 of 2")
    assert camera.told("relay Local")[before:] == [
        "relay Local:0 on (contact closed), pulse 1 of 2",
        "relay Local:0 off (contact open), pulse 1 of 2",
        "relay Local:0 on (contact closed), pulse 2 of 2",
        "relay Local:0 off (contact open), pulse 2 of 2",
    ]


def test_the_head_starts_at_rest_at_no_preset(camera):
    assert camera.call("MotionState", "GetIdleState") == [0]
    assert not any(camera.is_at(str(preset)) for preset in range(1, 11))


def test_the_head_moves_to_a_preset_and_comes_to_rest_there(camera, listener):
    camera.go_to("7", level=400)
    assert not camera.is_at("7") and camera.call("MotionState", "GetIdleState") == [1]
    rest = listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    assert rest.path == "/com/kelto/MotionState"
    assert idle_changes(listener) == [1, 0]
    assert [camera.is_at(str(preset)) for preset in range(1, 11)] == [preset == 7 for preset in range(1, 11)]
    assert camera.call("MotionState", "GetIdleState") == [0]
    lines = camera.lines.matching(f"^{TIME} (head|idle)")
    assert [text_of(line) for line in lines] == [
        "head sets off to preset 7 (speed 1, level 400)",
        "idle state 1",
        "head comes to rest at preset 7",
        "idle state 0",
    ]


@pytest.mark.parametrize(("preset", "speed", "takes"), [("2", 1.0, 0.4), ("2", 0.1, 1.3), ("10", 1.0, 1.2)])
def test_a_move_takes_the_longer_the_farther_and_the_slower_it_is(camera, preset, speed, takes):
    def is_in_time() -> bool:
        for destination, pace in (("1", 1.0), (preset, speed)):
            before = len(camera.lines.items)
            camera.go_to(destination, pace)
            camera.lines.wait_for(f"rest at preset {destination}", after=before)
        took = offsets(camera.lines.matching(f"^{TIME} head", after=before))[-1]
        return takes - 0.002 <= took <= takes + LATE

    assert any(is_in_time() for _ in range(ATTEMPTS))


def test_a_head_that_is_sent_elsewhere_under_way_rests_only_there(camera, listener):
    camera.go_to("10")
    camera.go_to("2")
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    assert idle_changes(listener) == [1, 0]
    assert camera.is_at("2") and not camera.is_at("10")
    assert len(camera.lines.matching("comes to rest")) == 1


def test_a_head_that_is_sent_to_where_it_rests_does_not_move(camera, listener):
    camera.go_to("1")
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    camera.go_to("1", level=123)
    assert camera.is_at("1") and camera.call("MotionState", "GetIdleState") == [0]
    assert idle_changes(listener) == [1, 0]
    assert text_of(camera.lines.items[-1]) == "head stays at preset 1 (level 123)"


@pytest.mark.parametrize("tour", TOURS)
def test_a_tour_visits_its_presets_and_rests_at_the_last(camera, listener, tour):
    *stops, last = TOURS[tour]
    assert camera.call("Tour", "Start", "si", tour, 400) == []
    position = 0
    for stop in stops:
        position = camera.lines.wait_for(f"head stops over at preset {stop}$", after=position)
        assert not camera.is_at(stop) and camera.call("MotionState", "GetIdleState") == [1]
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    assert idle_changes(listener) == [1, 0] and camera.is_at(last)
    lines = camera.told("head")
    assert lines[0] == f"head sets off on tour {tour} (level 400)"
    assert lines[1:] == [f"head stops over at preset {stop}" for stop in stops] + [
        f"head comes to rest at preset {last}"
    ]


def test_a_preset_takes_the_place_of_a_tour(camera, listener):
    camera.call("Tour", "Start", "si", "2", 900)
    camera.lines.wait_for("stops over at preset 4")
    camera.go_to("9")
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    assert idle_changes(listener) == [1, 0] and camera.is_at("9")


def test_an_idle_state_that_is_set_is_told_every_time(camera, listener):
    states = [0, 5, 5, -1, 0, 0]
    for state in states:
        camera.set_idle_state(state)
        assert camera.call("MotionState", "GetIdleState") == [state]
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", count=len(states))
    assert idle_changes(listener) == states


@pytest.mark.parametrize(("a", "b"), itertools.product((False, True), repeat=2))
def test_the_summary_says_what_is_being_recorded(camera, a, b):
    assert camera.call("RecordingInformation", "GetSummary", "s", "client") == [0, 0, 0, 0]
    camera.set_recording(a, b)
    assert camera.call("RecordingInformation", "GetSummary", "s", "client") == [int(a), int(b), 0, 0]
    assert text_of(camera.lines.items[-1]) == f"recording {'on' if a or b else 'off'} ({a:d}, {b:d})"


@pytest.mark.parametrize(
    "alert",
    [ALERT, ("",) * 5 + ([], []) + ("",) * 2, ("ä",) * 5 + ([(1e300, -0.1)] * 1000,) * 2 + ("ü",) * 2],
    ids=["usual", "empty", "large"],
)
def test_an_alert_goes_out_as_it_came_in(camera, listener, alert):
    camera.raise_alert(*alert)
    message = listener.wait_for_signal("com.zentu.analytics", "AnalyticsAlert")
    assert message.signature == "sssssa(dd)a(dd)ss"
    assert message.arguments == list(alert)
    assert len(camera.lines.matching("analytics alert")) == 1


def test_actions_are_the_calls_of_the_six_providers_with_time_and_arguments(camera):
    calls = [
        ("AlarmV3", "GetBankNames", ""),
        ("AlarmV3", "IsRemote", "s", "Local"),
        ("RelayV3", "GetBankNames", ""),
        ("RelayV3", "IsRemote", "s", "Remote"),
        ("RelayV3", "GetConfiguration", "si", "Local", 1),
        ("RelayV3", "SetConfiguration", "sibiiii", "Local", 1, True, 3, 20, 30, 4),
        ("RelayV3", "Activate", "sii", "Local", 1, 0),
        ("PresetsV2", "GoTo", "sdi", "3", 0.25, 900),
        ("PresetsV2", "IsAt", "s", "3"),
        ("Tour", "Start", "si", "1", 400),
        ("MotionState", "GetIdleState", ""),
        ("RecordingInformation", "GetSummary", "s", "me, myself"),
    ]
    assert {name for name, *_ in calls} == set(PROVIDERS)
    before = time.monotonic()
    for call in calls:
        camera.call(*call)
    camera.set_alarm(LOCAL, 0, True)  # asked of no provider
    after = time.monotonic()
    actions = camera.actions()
    assert [action.method for action in actions] == [f"{call[0]}.{call[1]}" for call in calls]
    assert [action.arguments for action in actions] == [
        "",
        "Local",
        "",
        "Remote",
        "Local, 1",
        "Local, 1, true, 3, 20, 30, 4",
        "Local, 1, 0",
        "3, 0.25, 900",
        "3",
        "1, 400",
        "",
        "me, myself",
    ]
    times = [action.time for action in actions]
    assert before <= times[0] and times == sorted(times) and times[-1] <= after


def test_calls_that_fail_are_actions_too_and_cleared_actions_are_gone(camera):
    with pytest.raises(BusError):
        camera.call("Tour", "Start", "si", "9", 400)
    assert [action[1:] for action in camera.actions()] == [("Tour.Start", "9, 400")]
    camera.clear_actions()
    assert camera.actions() == []


def test_the_last_hundred_thousand_actions_are_remembered(camera):
    camera.call("RecordingInformation", "GetSummary", "s", "the first")
    bus_name, path, interface = service("MotionState")
    fields = {PATH: path, INTERFACE: interface, MEMBER: "GetIdleState", DESTINATION: bus_name}
    camera.client.send_bytes(encode(METHOD_CALL, 1 << 20, fields, flags=NO_REPLY_EXPECTED) * 99_999)
    assert camera.actions(patience=300)[0].arguments == "the first"
    camera.call("MotionState", "GetIdleState")
    actions = camera.actions()
    assert len(actions) == 100_000 and {action.method for action in actions} == {"MotionState.GetIdleState"}
