"""What the virtual camera refuses, and the faults that it can be set to."""

import time

import pytest
from testing.bus_client import BusClient, BusError
from testing.camera import CAMERA, LOCAL, PROVIDERS, REMOTE, service, text_of
from testing.waiting import wait_until

pytest_plugins = ["camera_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

PROMPT = 2.0  # seconds within which an answer counts as immediate on a loaded machine

NO_BANK = ("UnknownBank", 'There is no bank "Attic", only "Remote" and "Local"')
NO_SPEED = ("InvalidValue", "The speed is not between 0.01 and 1")
RELAY = ("RelayV3", "SetConfiguration", "sibiiii")


@pytest.mark.parametrize(
    ("call", "error"),
    [
        (("AlarmV3", "IsRemote", "s", "Attic"), NO_BANK),
        (("RelayV3", "IsRemote", "s", "Attic"), NO_BANK),
        (("RelayV3", "GetConfiguration", "si", "Attic", 0), NO_BANK),
        (("RelayV3", "Activate", "sii", "Attic", 0, 1), NO_BANK),
        ((*RELAY, "Attic", 0, False, 3, 1, 1, 1), NO_BANK),
        ((CAMERA, "SetAlarm", "sib", "Attic", 0, True), NO_BANK),
        (("RelayV3", "IsRemote", "s", ""), ("UnknownBank", 'There is no bank "", only "Remote" and "Local"')),
        (
            ("RelayV3", "Activate", "sii", "Local", 4, 1),
            ("UnknownIndex", 'Bank "Local" has no relay 4, only 0 to 3'),
        ),
        (
            ("RelayV3", "GetConfiguration", "si", "Remote", -1),
            ("UnknownIndex", 'Bank "Remote" has no relay -1, only 0 to 3'),
        ),
        (
            (CAMERA, "SetAlarm", "sib", "Local", 8, True),
            ("UnknownIndex", 'Bank "Local" has no alarm input 8, only 0 to 7'),
        ),
        (
            ("RelayV3", "Activate", "sii", "Local", 0, 4),
            ("InvalidValue", "Mode is 4, which is none of 0 off, 1 on, 2 toggle and 3 pulse"),
        ),
        (
            (*RELAY, "Local", 0, False, -1, 1, 1, 1),
            ("InvalidValue", "Mode is -1, which is none of 0 off, 1 on, 2 toggle and 3 pulse"),
        ),
        (
            (*RELAY, "Local", 0, False, 3, -1, 1, 1),
            ("InvalidValue", "The on interval is -1, which is less than 0"),
        ),
        (
            (*RELAY, "Local", 0, False, 3, 1, -1, 1),
            ("InvalidValue", "The off interval is -1, which is less than 0"),
        ),
        ((*RELAY, "Local", 0, False, 3, 1, 1, 0), ("InvalidValue", "The pulse count is 0, which is less than 1")),
        (
            ("PresetsV2", "GoTo", "sdi", "11", 1.0, 900),
            ("UnknownPreset", 'There is no preset "11", only "1" to "10"'),
        ),
        (("PresetsV2", "IsAt", "s", "01"), ("UnknownPreset", 'There is no preset "01", only "1" to "10"')),
        (("PresetsV2", "GoTo", "sdi", "1", 0.0, 900), NO_SPEED),
        (("PresetsV2", "GoTo", "sdi", "1", 1.1, 900), NO_SPEED),
        (("PresetsV2", "GoTo", "sdi", "1", float("nan"), 900), NO_SPEED),
        (("Tour", "Start", "si", "4", 400), ("UnknownTour", 'There is no tour "4", only "1" to "3"')),
        (
            (CAMERA, "SetFault", "ss", "Relay", "error"),
            (
                "UnknownProvider",
                'There is no provider "Relay", only AlarmV3, RelayV3, PresetsV2, Tour, MotionState, '
                "RecordingInformation",
            ),
        ),
        (
            (CAMERA, "SetFault", "ss", "RelayV3", "slower"),
            ("UnknownFault", 'There is no fault "slower", only "none", "error", "slow" and "hang"'),
        ),
    ],
)
def test_what_cannot_be_done_is_an_error_that_says_why_and_changes_nothing(camera, listener, call, error):
    with pytest.raises(BusError) as caught:
        camera.call(*call)
    assert (caught.value.name, caught.value.text) == (f"com.kelto.Error.{error[0]}", error[1])
    assert camera.call("RelayV3", "GetConfiguration", "si", LOCAL, 0) == [True, False, 3, 500, 500, 1]
    assert [text_of(line)[:5] for line in camera.lines.items] == ["ready"]
    assert not [message for message in listener.items if message.path.startswith("/com/kelto/")]


HARMLESS = {
    "AlarmV3": ("AlarmV3", "GetBankNames"),
    "RelayV3": ("RelayV3", "Activate", "sii", LOCAL, 0, 1),
    "PresetsV2": ("PresetsV2", "GoTo", "sdi", "1", 1.0, 900),
    "Tour": ("Tour", "Start", "si", "1", 400),
    "MotionState": ("MotionState", "GetIdleState"),
    "RecordingInformation": ("RecordingInformation", "GetSummary", "s", "me"),
}


@pytest.mark.parametrize("provider", PROVIDERS)
def test_a_provider_set_to_fail_fails_until_it_is_set_right_and_the_others_work(camera, provider):
    camera.set_fault(provider, "error")
    for other, call in HARMLESS.items():
        if other != provider:
            camera.call(*call)
    with pytest.raises(BusError) as caught:
        camera.call(*HARMLESS[provider])
    assert (caught.value.name, caught.value.text) == ("com.kelto.Error.Fault", f"{provider} is set to fail")
    camera.set_fault(provider, "none")
    camera.call(*HARMLESS[provider])


def test_a_failing_provider_does_nothing_of_what_it_is_asked(camera):
    camera.set_fault("RelayV3", "error")
    with pytest.raises(BusError):
        camera.activate(LOCAL, 0, 1)
    assert not camera.told("relay")
    assert [action.method for action in camera.actions()] == ["RelayV3.Activate"]


def test_a_slow_provider_does_what_it_is_asked_three_seconds_later_in_order_and_keeps_nobody_else_waiting(camera):
    camera.set_fault("RelayV3", "slow")
    begin = time.monotonic()
    slow = [camera.begin_call("RelayV3", "Activate", "sii", LOCAL, index, 1) for index in range(4)]
    for other, call in HARMLESS.items():
        if other != "RelayV3":
            camera.call(*call)
    camera.set_fault("RelayV3", "none")
    camera.activate(REMOTE, 0, 1)  # comes after the fault, so it overtakes
    assert time.monotonic() - begin < PROMPT
    assert not any(camera.client.is_answered(serial) for serial in slow)
    assert len(camera.actions("RelayV3.Activate")) == 5
    for serial in slow:
        assert camera.client.finish_call(serial) == [True]
    assert 3.0 <= time.monotonic() - begin <= 3.0 + PROMPT
    order = ("Remote:0", "Local:0", "Local:1", "Local:2", "Local:3")
    assert camera.told("relay") == [f"relay {relay} on (contact closed)" for relay in order]


def test_a_slow_call_that_cannot_be_carried_out_is_refused_late(camera):
    camera.set_fault("Tour", "slow")
    begin = time.monotonic()
    with pytest.raises(BusError, match="UnknownTour"):
        camera.call("Tour", "Start", "si", "9", 400)
    assert 3.0 <= time.monotonic() - begin <= 3.0 + PROMPT


def test_providers_that_hang_answer_after_thirty_seconds_and_keep_nobody_else_waiting(camera):
    for provider in PROVIDERS:
        camera.set_fault(provider, "hang")
    begin = time.monotonic()
    hanging = [camera.begin_call(*call) for call in HARMLESS.values()]
    for provider in PROVIDERS:
        camera.set_fault(provider, "none")
    for call in HARMLESS.values():
        camera.call(*call)
    assert time.monotonic() - begin < PROMPT
    assert not any(camera.client.is_answered(serial) for serial in hanging)
    camera.client.finish_call(hanging[0], patience=40)
    assert time.monotonic() - begin >= 30.0
    for serial in hanging[1:]:
        camera.client.finish_call(serial)
    assert time.monotonic() - begin <= 30.0 + PROMPT


def test_the_late_answer_to_a_caller_that_has_gone_harms_nobody(camera, bus):
    camera.set_fault("RelayV3", "slow")
    caller = BusClient(bus.socket)
    caller.begin_call(*service("RelayV3"), "Activate", "sii", LOCAL, 0, 1)
    wait_until(camera.actions, "the call arrives")
    caller.close()
    camera.lines.wait_for("relay Local:0 on")
    camera.set_fault("RelayV3", "none")
    camera.activate(LOCAL, 0, 0)
