"""The commands that drive the camera which is running: what each does, and every way in which it fails."""

import os
import re
import shutil
import signal
import subprocess
import time

import pytest
from policy_bus import OPERATOR, OWNER, SOMEBODY, PolicyBus
from testing.bus import PrivateBus
from testing.bus_client import DESTINATION, ERROR, ERROR_NAME, METHOD_CALL, REPLY_SERIAL, BusClient, BusError
from testing.camera import CAMERA, CAMERA_PROGRAM, LOCAL, REMOTE, TIME, service
from testing.processes import dies_with_us
from testing.waiting import PATIENCE, wait_until

pytest_plugins = ["camera_fixtures", "policy_fixtures"]
pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

ANSWER_TIME = 5.0  # seconds that a command waits for an answer
PROMPT = 4.0  # seconds by which a loaded machine or a sanitizer may be late

ALERT_USAGE = (
    "alert [--source SOURCE] [--class CLASS] [--type TYPE] [--rule NAME] [--description TEXT] [--rule-point X,Y]... "
    "[--box-point X,Y]... [--media-type TYPE] [--media-url URL]"
)
USAGES = {
    "alarm": "alarm INDEX on|off [--bank BANK]",
    "alert": ALERT_USAGE,
    "idle": "idle STATE",
    "recording": "recording A B (each on or off)",
    "fault": "fault PROVIDER KIND",
    "actions": "actions [--clear]",
}
EVERY_COMMAND = [
    ["alarm", "2", "on"],
    ["alert"],
    ["idle", "1"],
    ["recording", "on", "off"],
    ["fault", "RelayV3", "none"],
    ["actions"],
    ["actions", "--clear"],
]
every_command = pytest.mark.parametrize("words", EVERY_COMMAND, ids=" ".join)


def begin(bus: PrivateBus, *words: str, **options) -> subprocess.Popen:
    return subprocess.Popen(
        dies_with_us(CAMERA_PROGRAM, *words),
        env=os.environ | bus.environment,
        stdin=subprocess.DEVNULL,
        **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True} | options,
    )


def run(bus: PrivateBus, *words: str, **options) -> tuple[int, str, str]:
    """The command's exit status, output and complaints."""
    process = begin(bus, *words, **options)
    output, complaints = process.communicate(timeout=PATIENCE)
    return process.returncode, output, complaints


def refusal(text: str) -> tuple[int, str, str]:
    return 1, "", f"kelto-vcam: {text}\n"


DONE = (0, "", "")


# --- what each does


@pytest.mark.parametrize(
    ("words", "state"),
    [
        (["2", "on"], (LOCAL, 2, True)),
        (["0", "off"], (LOCAL, 0, False)),
        (["7", "on", "--bank", REMOTE], (REMOTE, 7, True)),
        (["--bank=Remote", "7", "off"], (REMOTE, 7, False)),
        (["1", "--bank", LOCAL, "on"], (LOCAL, 1, True)),
    ],
)
def test_alarm_sets_an_input(bus, camera, listener, words, state):
    assert run(bus, "alarm", *words) == DONE
    listener.wait_for_signal("com.kelto.AlarmV3", "StateChanged", *state)
    bank, index, active = state
    assert camera.told("alarm") == [f"alarm {bank}:{index} {'active' if active else 'inactive'}"]


def raised_alert(listener: BusClient) -> list:
    return listener.wait_for_signal("com.zentu.analytics", "AnalyticsAlert").arguments


def test_alert_raises_one_with_all_that_the_options_say(bus, camera, listener):
    options = {
        "source": "door camera",
        "class": "Person",
        "type": "LineCrossing",
        "rule": "Front%20gate",
        "description": "näher als 1 m",
        "media-type": "video",
        "media-url": "rtsp://camera/1",
    }
    words = [f"--{name}={value}" for name, value in options.items()]
    points = ["--rule-point", "0,0.5", "--box-point", "-1,2e-3", "--rule-point=1,1"]
    assert run(bus, "alert", *words, *points) == DONE
    *texts, media_type, media_url = options.values()
    assert raised_alert(listener) == [*texts, [(0.0, 0.5), (1.0, 1.0)], [(-1.0, 0.002)], media_type, media_url]
    assert camera.told("") == ["ready, a new picture every second in " + str(camera.snapshot), "analytics alert"]


@pytest.mark.parametrize(
    ("words", "class_name"), [([], ""), (["--class", "Person"], "Person"), (["--class=--x"], "--x"), (["--class="], "")]
)
def test_what_the_options_of_an_alert_do_not_say_is_empty(bus, camera, listener, words, class_name):
    assert run(bus, "alert", *words) == DONE
    assert raised_alert(listener) == ["", class_name, "", "", "", [], [], "", ""]


@pytest.mark.parametrize("state", [0, 1, -1, 2**31 - 1, -(2**31)])
def test_idle_sets_the_idle_state(bus, camera, listener, state):
    assert run(bus, "idle", str(state)) == DONE
    listener.wait_for_signal("com.kelto.MotionState", "IdleChanged", state)
    assert camera.call("MotionState", "GetIdleState") == [state]


@pytest.mark.parametrize("a", ["on", "off"])
@pytest.mark.parametrize("b", ["on", "off"])
def test_recording_sets_the_first_two_numbers_of_the_summary(bus, camera, a, b):
    camera.set_recording(a != "on", b != "on")
    assert run(bus, "recording", a, b) == DONE
    assert camera.call("RecordingInformation", "GetSummary", "s", "me") == [int(a == "on"), int(b == "on"), 0, 0]


def test_fault_lets_a_provider_fail_and_work_again(bus, camera):
    assert run(bus, "fault", "AlarmV3", "error") == DONE
    with pytest.raises(BusError, match="AlarmV3 is set to fail"):
        camera.call("AlarmV3", "GetBankNames")
    assert run(bus, "fault", "AlarmV3", "none") == DONE
    assert camera.call("AlarmV3", "GetBankNames") == [[REMOTE, LOCAL]]


def seconds_of(line: str) -> float:
    hours, minutes, seconds = line.split()[0].split(":")
    return (int(hours) * 60 + int(minutes)) * 60 + float(seconds)


def test_actions_shows_what_the_services_were_asked_one_per_line_oldest_first(bus, camera):
    camera.activate(LOCAL, 0, 1)
    camera.go_to("7", 0.5)
    camera.call("MotionState", "GetIdleState")
    status, output, complaints = run(bus, "actions")
    lines = output.splitlines()
    assert (status, complaints) == (0, "")
    assert [re.sub(f"^{TIME} ", "", line) for line in lines] == [
        "RelayV3.Activate(Local, 0, 1)",
        "PresetsV2.GoTo(7, 0.5, 900)",
        "MotionState.GetIdleState()",
    ]
    # The camera's own line of the same moment; both are rounded, and midnight may come between.
    apart = seconds_of(lines[0]) - seconds_of(camera.lines.matching("relay Local:0 on")[0])
    assert (apart + 43200) % 86400 - 43200 == pytest.approx(0, abs=PROMPT)


def test_actions_with_clear_has_them_forgotten(bus, camera):
    camera.activate(LOCAL, 0, 1)
    assert run(bus, "actions", "--clear") == DONE
    assert run(bus, "actions") == DONE
    assert camera.actions() == []


def test_an_action_is_one_line_whatever_was_asked(bus, camera):
    with pytest.raises(BusError):
        camera.call("PresetsV2", "IsAt", "s", "1\n\x1b[2J\x7fé")
    status, output, _ = run(bus, "actions")
    assert (status, output[13:]) == (0, "PresetsV2.IsAt(1\\x0a\\x1b[2J\\x7fé)\n")


def test_the_commands_leave_picture_and_readiness_to_the_camera(bus, camera):
    for words in EVERY_COMMAND:
        assert run(bus, *words)[0] == 0
    assert camera.notifications.items == ["READY=1"]
    assert {path.name for path in camera.snapshot.parent.iterdir()} <= {"notify", "img2.jpg"} | {
        f".kelto-vcam-{camera.process.pid}"
    }


@pytest.mark.parametrize("words", [["alarm", "--help"], ["nonsense", "--help"], ["alert", "--class", "--help"]])
def test_help_is_shown_behind_a_command_too(bus, words):
    status, output, complaints = run(bus, *words)
    assert (status, complaints) == (0, "") and output.startswith("Usage: kelto-vcam COMMAND")


# --- words that make no sense


@pytest.mark.parametrize(
    ("words", "text"),
    [
        ("alarm", "INDEX is missing"),
        ("alarm 2", "The state is missing"),
        ("alarm two on", 'INDEX is "two", which is no whole number of 32 bits'),
        ("alarm 2x on", 'INDEX is "2x", which is no whole number of 32 bits'),
        ("alarm 2147483648 on", 'INDEX is "2147483648", which is no whole number of 32 bits'),
        ("alarm 2 true", 'The state is "true", which is neither "on" nor "off"'),
        ("alarm 2 on off", 'There is nothing to be done with "off"'),
        ("alarm 2 on -x", 'There is nothing to be done with "-x"'),
        ("alarm --bnak Local 2 on", 'There is no option "--bnak"'),
        ("alarm 2 on --", 'There is no option "--"'),
        ("alarm 2 on --bank", "--bank needs a value"),
        ("alarm --bank --bank 2 on", "--bank needs a value"),
        ("alarm 2 on --bank Local --bank=Local", "--bank is there more than once"),
        ("alert Person", 'There is nothing to be done with "Person"'),
        ("alert --colour red", 'There is no option "--colour"'),
        ("alert --class --source x", "--class needs a value"),
        ("alert --rule-point 1", '--rule-point is "1", which is not two numbers as in "0.5,1"'),
        ("alert --rule-point 1,2,3", '--rule-point is "1,2,3", which is not two numbers as in "0.5,1"'),
        ("alert --box-point ,2", '--box-point is ",2", which is not two numbers as in "0.5,1"'),
        ("alert --box-point 1,2m", '--box-point is "1,2m", which is not two numbers as in "0.5,1"'),
        ("alert --box-point 1,nan", '--box-point is "1,nan", which is not two numbers as in "0.5,1"'),
        ("alert --box-point 1,1e999", '--box-point is "1,1e999", which is not two numbers as in "0.5,1"'),
        ("idle", "STATE is missing"),
        ("idle rest", 'STATE is "rest", which is no whole number of 32 bits'),
        ("idle 1 2", 'There is nothing to be done with "2"'),
        ("idle --state 1", 'There is no option "--state"'),
        ("recording", "A is missing"),
        ("recording on", "B is missing"),
        ("recording 1 0", 'A is "1", which is neither "on" nor "off"'),
        ("recording on ON", 'B is "ON", which is neither "on" nor "off"'),
        ("recording on off on", 'There is nothing to be done with "on"'),
        ("fault", "PROVIDER is missing"),
        ("fault RelayV3", "KIND is missing"),
        ("fault RelayV3 slow now", 'There is nothing to be done with "now"'),
        ("actions all", 'There is nothing to be done with "all"'),
        ("actions --clear=yes", 'There is no option "--clear=yes"'),
    ],
)
def test_words_that_make_no_sense_are_told_with_what_is_allowed_and_do_nothing(bus, camera, listener, words, text):
    name = words.split()[0]
    before = len(listener.items)
    assert run(bus, *words.split()) == refusal(f"{text}. Usage: kelto-vcam {USAGES[name]}")
    assert camera.told("(?!ready)") == [] and camera.actions() == []
    assert not [message for message in listener.items[before:] if message.path.startswith(("/com/kelto", "/com/zentu"))]


def test_a_word_that_makes_no_sense_is_told_on_one_line(bus):
    assert run(bus, "idle", "1\n2") == refusal(
        'STATE is "1\\x0a2", which is no whole number of 32 bits. Usage: kelto-vcam idle STATE'
    )
    assert (
        run(bus, "a\nb")[2].splitlines()[0].startswith('kelto-vcam: There is nothing to be done with "a\\x0ab", only')
    )


def test_text_that_the_bus_does_not_take_is_refused(bus, camera):
    status, output, complaints = run(bus, "alert", "--class", b"\xff")
    assert (status, output) == (1, "")
    assert complaints == "kelto-vcam: Cannot send what was typed (text has to be UTF-8): Invalid argument\n"
    assert camera.told("analytics") == []


# --- a camera that refuses, is not there or does not answer


@pytest.mark.parametrize(
    ("words", "text"),
    [
        ("alarm 8 on", 'Bank "Local" has no alarm input 8, only 0 to 7'),
        ("alarm -1 on --bank Remote", 'Bank "Remote" has no alarm input -1, only 0 to 7'),
        ("alarm 2 on --bank Attic", 'There is no bank "Attic", only "Remote" and "Local"'),
        ("alarm 2 on --bank=", 'There is no bank "", only "Remote" and "Local"'),
        (
            "fault Relay error",
            'There is no provider "Relay", only AlarmV3, RelayV3, PresetsV2, Tour, MotionState, RecordingInformation',
        ),
        ("fault RelayV3 slower", 'There is no fault "slower", only "none", "error", "slow" and "hang"'),
    ],
)
def test_what_the_camera_refuses_is_told_in_its_own_words(bus, camera, words, text):
    assert run(bus, *words.split()) == refusal(text)


@every_command
def test_without_a_camera_every_command_says_so(bus, words):
    assert run(bus, *words) == refusal("There is no camera on this bus: is kelto-vcam running?")


@every_command
def test_without_a_bus_every_command_says_so(bus, words):
    bus.stop()
    bus.socket.unlink(missing_ok=True)
    assert run(bus, *words) == refusal("Cannot open the system bus: No such file or directory")


def test_a_camera_that_stands_still_is_waited_for_for_five_seconds(bus, camera):
    camera.process.send_signal(signal.SIGSTOP)
    begin_time = time.monotonic()
    assert run(bus, "alarm", "2", "on") == refusal("The camera does not answer")
    camera.process.send_signal(signal.SIGCONT)
    assert ANSWER_TIME <= time.monotonic() - begin_time < ANSWER_TIME + PROMPT


def test_a_bus_that_stands_still_is_waited_for_for_five_seconds(bus):
    bus.send(signal.SIGSTOP)
    begin_time = time.monotonic()
    assert run(bus, "alarm", "2", "on") == refusal("The system bus does not answer")
    bus.send(signal.SIGCONT)
    assert ANSWER_TIME <= time.monotonic() - begin_time < ANSWER_TIME + PROMPT


def fake_camera(bus: PrivateBus) -> BusClient:
    client = bus.client()
    client.own(service(CAMERA)[0])
    return client


def received_call(camera: BusClient, method: str):
    return camera.items[camera.wait(lambda item: item.kind == METHOD_CALL and item.member == method, method) - 1]


def finish(process: subprocess.Popen) -> tuple[int, str, str]:
    output, complaints = process.communicate(timeout=PATIENCE)
    return process.returncode, output, complaints


def test_a_camera_that_ends_instead_of_answering_does_not_answer(bus):
    camera = BusClient(bus.socket)
    camera.own(service(CAMERA)[0])
    command = begin(bus, "idle", "1")
    received_call(camera, "SetIdleState")
    camera.close()
    assert finish(command) == refusal("The camera does not answer")


def test_a_bus_that_ends_before_the_answer_is_told(bus):
    camera = fake_camera(bus)
    command = begin(bus, "idle", "1")
    received_call(camera, "SetIdleState")
    bus.kill()
    assert finish(command) == refusal("The bus has gone away")


def test_a_refusal_is_one_line_whatever_it_says(bus):
    camera = fake_camera(bus)
    command = begin(bus, "idle", "1")
    camera.refuse(received_call(camera, "SetIdleState"), "com.kelto.Error.Odd", "not\nnow\x1b")
    assert finish(command) == refusal("not\\x0anow\\x1b")


def test_a_refusal_without_a_text_is_told_by_its_name(bus):
    camera = fake_camera(bus)
    command = begin(bus, "idle", "1")
    call = received_call(camera, "SetIdleState")
    camera.send(ERROR, {DESTINATION: call.sender, REPLY_SERIAL: call.serial, ERROR_NAME: "com.kelto.Error.Odd"})
    assert finish(command) == refusal("com.kelto.Error.Odd")


def test_actions_that_are_none_are_not_shown(bus):
    camera = fake_camera(bus)
    command = begin(bus, "actions")
    camera.answer(received_call(camera, "GetActions"), "s", "none")
    status, output, complaints = finish(command)
    assert (status, output) == (1, "") and complaints.startswith("kelto-vcam: Cannot read the camera's answer: ")


def test_actions_that_cannot_be_printed_are_a_failure(bus, camera):
    camera.activate(LOCAL, 0, 1)
    with open("/dev/full", "w") as full:
        status, _, complaints = run(bus, "actions", stdout=full)
    assert (status, complaints) == (1, "kelto-vcam: Cannot print the actions: No space left on device\n")


# --- who may


def begin_as(bus: PolicyBus, role: str, *words: str) -> subprocess.Popen:
    """The program is copied: the other users cannot look into the folder of the build."""
    program = bus.folder / "kelto-vcam"
    shutil.copy(CAMERA_PROGRAM, program)
    return subprocess.Popen(
        [program, *words],
        env=os.environ | {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={bus.folder / 'bus'}"},
        user=bus.uids[role],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


@every_command
def test_the_installed_policy_lets_root_drive_the_camera(start_bus, words):
    bus = start_bus(OPERATOR, OWNER)
    camera = bus.camera()
    command = begin_as(bus, OPERATOR, *words)
    wait_until(lambda: any(item.kind == METHOD_CALL for item in camera.items) or command.poll() is not None, "a call")
    call = next(item for item in camera.items if item.kind == METHOD_CALL)
    camera.answer(call, *(["a(tss)", []] if call.member == "GetActions" else []))
    assert finish(command) == DONE


@pytest.mark.not_under("coverage", reason="somebody else cannot write down what the program ran through")
@every_command
def test_the_installed_policy_lets_nobody_else_drive_it(start_bus, words):
    bus = start_bus(SOMEBODY, OWNER)
    camera = bus.camera()
    assert finish(begin_as(bus, SOMEBODY, *words)) == refusal(
        "The bus does not let you drive the camera: where it is installed, only root may"
    )
    assert not [item for item in camera.items if item.kind == METHOD_CALL]
