"""What the virtual camera tells of itself: the lines that it prints as a signal, and its state in one answer."""

import itertools
import time

import pytest
from testing.camera import ALERT, CAMERA, LOCAL, PROVIDERS, REMOTE, TIME, service, text_of

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

INTERFACE = service(CAMERA)[2]
AT_REST = (0.0, 0.0, 0, 0, [])


def state(camera):
    return camera.call(CAMERA, "GetState")


def relay(camera, bank, index):
    """A relay's state less its name: on, polarity, mode, on and off interval, count, pulse, of pulses."""
    (found,) = (list(item[2:]) for item in state(camera)[0] if tuple(item[:2]) == (bank, index))
    return found


def said(client, after=0):
    return [message.arguments for message in client.signals(INTERFACE, "Said", after)]


def test_every_line_that_it_prints_is_a_signal_too_with_its_time(camera, listener):
    before, first = time.monotonic(), len(camera.lines.items)
    camera.set_alarm(LOCAL, 2, True)
    camera.configure_relay(LOCAL, 0, on=20, off=20, count=2)
    camera.activate(LOCAL, 0, 3)
    camera.raise_alert(*ALERT)
    camera.set_recording(True, False)
    camera.set_fault("Tour", "slow")
    camera.go_to("1")
    camera.lines.wait_for("pulse 2 of 2")
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", 0)
    camera.call("MotionState", "GetIdleState")
    after = time.monotonic()
    printed = [text_of(line) for line in camera.lines.items[first:]]
    assert [text for _, text in said(listener)] == printed and len(printed) > 8
    times = [moment / 1e6 for moment, _ in said(listener)]
    assert before <= times[0] and times == sorted(times) and times[-1] <= after
    (sender,) = {(message.path, message.sender) for message in listener.signals(INTERFACE, "Said")}
    assert sender == (service(CAMERA)[1], listener.owner(service(CAMERA)[0]))


def test_a_line_is_told_before_the_call_that_made_it_is_answered(camera, listener):
    camera.set_alarm(LOCAL, 2, True)
    assert [text for _, text in said(listener)] == ["alarm Local:2 active"]


def test_a_number_of_lines_at_a_time_are_told_one_by_one(camera, listener):
    for number in range(500):
        camera.set_idle_state(-(2**31) + number)
    assert len(said(listener)) == 500
    assert {text for _, text in said(listener)} == {f"idle state {-(2**31) + number}" for number in range(500)}
    assert len(camera.lines.matching(f"^{TIME} idle state -")) == 500


def test_a_camera_that_was_told_nothing_is_at_rest(camera):
    relays, head, recording, faults = state(camera)
    untouched = (False, False, 3, 500, 500, 1, 0, 0)
    names = itertools.product((REMOTE, LOCAL), range(4))
    assert [tuple(item) for item in relays] == [name + untouched for name in names]
    assert tuple(head) == AT_REST
    assert tuple(recording) == (False, False)
    assert [tuple(item) for item in faults] == [(name, "none") for name in PROVIDERS]


def test_a_relay_tells_its_configuration_and_the_pulse_under_way(camera):
    camera.configure_relay(LOCAL, 1, polarity=True, on=100, off=10_000, count=7)
    camera.activate(LOCAL, 1, 3)
    assert relay(camera, LOCAL, 1) == [True, True, 3, 100, 10_000, 7, 1, 7]
    camera.lines.wait_for("relay Local:1 off .*pulse 1 of 7")
    camera.configure_relay(LOCAL, 1, mode=2, on=1, off=2, count=3)
    # The pulses under way go on as they began.
    assert relay(camera, LOCAL, 1) == [False, False, 2, 1, 2, 3, 2, 7]
    camera.activate(LOCAL, 1, 1)
    assert relay(camera, LOCAL, 1) == [True, False, 2, 1, 2, 3, 0, 0]
    assert relay(camera, REMOTE, 1) == [False, False, 3, 500, 500, 1, 0, 0]


def test_a_relay_that_has_pulsed_pulses_no_more(camera):
    camera.configure_relay(LOCAL, 3, on=10, off=10, count=2)
    camera.activate(LOCAL, 3, 3)
    camera.lines.wait_for("relay Local:3 off .*pulse 2 of 2")
    assert relay(camera, LOCAL, 3)[0] is False and relay(camera, LOCAL, 3)[-2:] == [0, 0]


def test_the_head_tells_where_it_is_where_it_goes_and_how_long_that_takes(camera):
    camera.go_to("10", speed=0.1)
    position, target, remaining, idle, route = state(camera)[1]
    assert 0 <= position < 100 and target == 100 and idle == 1 and route == [10]
    assert 0 < remaining <= 10_300_000
    assert position == pytest.approx(100 * (1 - remaining / 10_300_000), abs=0.5)
    camera.set_idle_state(0)
    assert state(camera)[1][3] == 0


def test_a_head_on_tour_tells_the_presets_that_are_still_to_come(camera):
    camera.call("Tour", "Start", "si", "1", 400)
    _, target, _, idle, route = state(camera)[1]
    assert (target, idle, route) == (10, 1, [1, 2, 3])
    camera.lines.wait_for("stops over at preset 1")
    position, target, remaining, _, route = state(camera)[1]
    assert (position, target, remaining, route) == (10, 10, 0, [2, 3])
    camera.lines.wait_for("comes to rest at preset 3")
    assert tuple(state(camera)[1]) == (30, 30, 0, 0, [])


def test_recording_and_faults_are_those_that_were_set(camera):
    camera.set_recording(False, True)
    kinds = dict(zip(PROVIDERS, ("none", "error", "slow", "hang", "none", "error"), strict=True))
    for provider, kind in kinds.items():
        camera.set_fault(provider, kind)
    _, _, recording, faults = state(camera)
    assert tuple(recording) == (False, True) and dict(faults) == kinds


def test_its_state_is_told_whatever_its_providers_are_set_to_do_and_is_no_action(camera):
    for provider in PROVIDERS:
        camera.set_fault(provider, "hang")
    assert [kind for _, kind in state(camera)[3]] == ["hang"] * 6
    assert camera.actions() == []
