"""scripts/demo succeeds with the daemon, and fails with one that falls short of anything that it shows."""

import ctypes
import os
import signal
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from daemon_process import Lines
from harness import PROGRAM, wait_until

ROOT = Path(__file__).resolve().parents[2]
STAND_IN = ROOT / "tests/fakes/demo_daemon.py"
TIME_LIMIT = 60  # seconds
AT_ONCE = 10
PR_SET_CHILD_SUBREAPER = 36
# Nobody in particular to the system: another user id, and no privilege at all.
ORDINARY_USER = ["unshare", "--user", "--map-user=1000", "--map-group=1000"]
USERS = pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])

SHOWN = (
    "pulse 3 of 3",
    "head sets off to preset 3 (speed 1, level 400)",
    "[Alarm]",
    "[Doorbell]",
    "head sets off to preset 5 (speed 1, level 900)",
    "head sets off on tour 1 (level 900)",
    "[AnalyticsAlert]",
    "[Park]",
    "[Timer]",
    "SIGHUP",
    "SIGTERM",
    "What you just saw",
    "All of this really happened",
)
# What the stand-in does wrong, and what the demo has to say about it.
FAULTS = {
    "ends at once": "READY=1",
    "is never ready": "READY=1",
    "does nothing": "head comes to rest at preset 3",
    "drops Alarm": "all.halvek.any: [Alarm]",
    "drops Doorbell": "all.halvek.any: [Doorbell]",
    "drops AnalyticsAlert": "all.halvek.any: [AnalyticsAlert]",
    "drops Park": "all.halvek.any: [Park]",
    "drops Timer": "Timer.fifo: [Timer]",
    "drops MotionDetection": "all.halvek.any: [MotionDetection]",
    "never calls RelayV3.SetConfiguration": "pulse 3 of",
    "never calls RelayV3.Activate": "pulse 3 of",
    "never calls PresetsV2.GoTo": "head comes to rest at preset 3",
    "never calls Tour.Start": "head comes to rest at preset 3",
    "pulses a relay of another bank": "relay Local:0",
    "pulses too often": "the camera was told RelayV3.SetConfiguration(Local, 0, false, 3, 200, 100, 4)",
    "takes an alarm for any event": "PresetsV2.GoTo(3, 1, 900) instead of",
    "takes a posted event for an alarm": "the camera was told PresetsV2.GoTo(5, 1, 400) instead of",
    "takes an alert for an alarm": "the camera was told Tour.Start(1, 400) instead of",
    "decodes no rule name": "all.halvek.any: [AnalyticsAlert]",
    "turns where the head is already": "PresetsV2.GoTo(3, 1, 400) instead of",
    "is deaf to the release of an alarm": "relay Local:0 on",
    "parks too early": "the head was parked after",
    "ticks too fast": "s between two ticks",
    "doubles events": "Doorbell was passed on 2 times instead of 1",
    "uses the wrong pipe": "Timer.fifo received",
    "ignores the reload": "got: 'R'",
    "reloads twice": "not just one reload",
    "does not stop": "the daemon is still running",
    "stops with an error": "the daemon ended with status 3",
}


def no_process_is_left() -> bool:
    """Reaps what has ended. Whatever the demo leaves running becomes a child of ours."""
    try:
        while os.waitpid(-1, os.WNOHANG) != (0, 0):
            pass
    except ChildProcessError:
        return True
    return False


def traces() -> list[str]:
    """What a demo could leave behind in the file system, in the mounts and in the checkout."""
    mounts = Path("/proc/self/mountinfo").read_text().splitlines()
    files = [*Path("/run").iterdir(), *ROOT.glob("*/__pycache__")]
    return mounts + sorted(str(path) for path in files)


@pytest.fixture(autouse=True)
def nothing_left_behind(tmp_path):
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
    before = traces()
    yield
    wait_until(no_process_is_left, "all processes of the demo have ended")
    assert traces() == before


def demo(daemon: Path | str, user: list[str], home: Path, **environment: str) -> subprocess.CompletedProcess:
    own = {"HALVEK_DAEMON": str(daemon), "HOME": str(home)}
    return subprocess.run(
        [*user, ROOT / "scripts/demo"],
        env=os.environ | own | environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=TIME_LIMIT,
    )


@USERS
def test_the_daemon_passes(tmp_path, user):
    result = demo(PROGRAM, user, tmp_path)
    assert result.returncode == 0, result.stderr
    for shown in SHOWN:
        assert shown in result.stdout
    assert result.stderr == ""
    assert not list(tmp_path.iterdir())


@USERS
def test_a_stand_in_without_a_fault_passes(tmp_path, user):
    """Those below fail for their fault and for nothing else."""
    result = demo(STAND_IN, user, tmp_path)
    assert result.returncode == 0, result.stderr


@pytest.fixture(scope="module")
def faulty_demos(tmp_path_factory):
    """The results by fault and user. Many run at once: they spend their time waiting."""
    home = tmp_path_factory.mktemp("home")
    cases = [(fault, tuple(user)) for fault in FAULTS for user in ([], ORDINARY_USER)]
    with ThreadPoolExecutor(AT_ONCE) as pool:
        results = pool.map(lambda case: demo(STAND_IN, list(case[1]), home, FAULT=case[0]), cases)
        return dict(zip(cases, results))


@USERS
@pytest.mark.parametrize("fault", FAULTS)
def test_a_daemon_fails_that(faulty_demos, user, fault):
    result = faulty_demos[fault, tuple(user)]
    assert result.returncode == 1
    assert "what should have happened did not" in result.stderr and FAULTS[fault] in result.stderr
    assert "really happened" not in result.stdout


@pytest.mark.parametrize("daemon", ["/bin/true", "/nowhere/halvek"])
def test_what_is_no_daemon_fails(tmp_path, daemon):
    assert demo(daemon, [], tmp_path).returncode == 1


@pytest.mark.parametrize("camera", ["/bin/true", "/nowhere/kelto-vcam"])
def test_what_is_no_camera_fails(tmp_path, camera):
    result = demo(PROGRAM, [], tmp_path, HALVEK_VCAM=camera)
    assert result.returncode == 1 and "what should have happened did not" in result.stderr


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
def test_a_demo_that_is_interrupted_leaves_nothing_behind(tmp_path, number):
    with subprocess.Popen(
        [ROOT / "scripts/demo"],
        env=os.environ | {"HALVEK_DAEMON": PROGRAM, "HOME": str(tmp_path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    ) as process:
        output = Lines(os.dup(process.stdout.fileno()), "demo")
        output.wait_for("relay Local:0 on")
        process.send_signal(number)
        assert process.wait(TIME_LIMIT) != 0
        output.close()
