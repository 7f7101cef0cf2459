"""scripts/demo succeeds with the daemon, and fails with one that falls short of anything that it shows."""

import ctypes
import os
import signal
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from testing.collector import Lines
from testing.daemon import PROGRAM
from testing.tree import ROOT
from testing.waiting import wait_until

pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

STAND_IN = ROOT / "tests/fakes/demo_daemon.py"
TIME_LIMIT = 120  # seconds
AT_ONCE = 5
PR_SET_CHILD_SUBREAPER = 36
# Nobody in particular to the system: another user id, and no privilege at all.
ORDINARY_USER = ["unshare", "--user", "--map-user=1000", "--map-group=1000"]
USERS = pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])

SHOWN = (
    "pulse 3 of 3",
    "head sets off to preset 3 (speed 1, level 400)",
    "[Alarm]",
    "/run/halvek-demo/pictures now holds",
    "received from camera: /front-gate.jpg",
    "Subject: Alarm at the front gate",
    "Attached: snapshot.jpg, image/jpeg",
    "Each is, byte for byte, a picture that the camera made",
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
# What the stand-in does wrong, one fault per scene and per place that a picture goes to, and what the demo has to say
# about it.
FAULTS = {
    "is never ready": "READY=1",
    "takes an alarm for any event": "PresetsV2.GoTo(3, 1, 900) instead of",
    "never deletes the oldest": "not just the oldest is gone",
    "uploads half a picture": "the picture on the FTP server",
    "mails another event": "alarmState = 0",
    "takes a posted event for an alarm": "the camera was told PresetsV2.GoTo(5, 1, 400) instead of",
    "decodes no rule name": "all.halvek.any: [AnalyticsAlert]",
    "parks too early": "the head was parked after",
    "uses the wrong pipe": "Timer.fifo received",
    "doubles events": "MotionDetection was passed on 2 times instead of 1",
    "ignores the reload": "got: 'R'",
    "turns where the head is already": "PresetsV2.GoTo(3, 1, 400) instead of",
    "stops with an error": "the daemon ended with status 3",
}
# What else keeps the demo from its end, and what it has to say about it.
UNFIT = {
    "HALVEK_DAEMON=/bin/true": "READY=1",
    "HALVEK_DAEMON=/nowhere/halvek": "READY=1",
    "HALVEK_VCAM=/bin/true": "READY=1",
    "HALVEK_VCAM=/nowhere/kelto-vcam": "READY=1",
    "du does not work": "no new picture is in /run/halvek-demo/pictures",
    "xargs does not work": "no new picture is in /run/halvek-demo/pictures",
    "busybox does not work": "/front-gate.jpg arrives 1 times",
    "esmtp does not work": "1 mails; 0 came",
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
    files = [*Path("/run").iterdir(), *ROOT.glob("*/__pycache__"), *ROOT.glob("tests/*/__pycache__")]
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


@pytest.fixture(scope="module")
def stand_in_demos(tmp_path_factory):
    """The runs by fault, if any. Some run at once: they spend their time waiting."""
    home = tmp_path_factory.mktemp("home")
    with ThreadPoolExecutor(AT_ONCE) as pool:
        return {fault: pool.submit(demo, STAND_IN, [], home, FAULT=fault) for fault in ("", *FAULTS)}


@pytest.mark.not_under("sanitizer", reason="the daemon has no part in it")
def test_a_stand_in_without_a_fault_passes(stand_in_demos):
    """Those below fail for their fault and for nothing else."""
    result = stand_in_demos[""].result()
    assert result.returncode == 0, result.stderr


@pytest.mark.not_under("sanitizer", reason="the daemon has no part in it")
@pytest.mark.parametrize("fault", FAULTS)
def test_a_daemon_fails_that(stand_in_demos, fault):
    result = stand_in_demos[fault].result()
    assert result.returncode == 1
    assert "what should have happened did not" in result.stderr and FAULTS[fault] in result.stderr
    assert "really happened" not in result.stdout


@pytest.fixture(scope="module")
def unfit_demos(tmp_path_factory):
    """The runs with the daemon in a system that lacks something."""
    home = tmp_path_factory.mktemp("home")

    def unfit_demo(case: str) -> subprocess.CompletedProcess:
        name, _, value = case.partition("=")
        if value:
            return demo(PROGRAM, [], home, **{name: value})
        # Not in /run, of which the demo has one of its own.
        with tempfile.TemporaryDirectory() as folder:
            program = case.split()[0]
            Path(folder, program).symlink_to("/bin/false")
            return demo(PROGRAM, [], home, PATH=f"{folder}:{os.environ['PATH']}")

    with ThreadPoolExecutor(len(UNFIT)) as pool:
        return {case: pool.submit(unfit_demo, case) for case in UNFIT}


@pytest.mark.parametrize("case", UNFIT)
def test_a_system_fails_where(unfit_demos, case):
    result = unfit_demos[case].result()
    assert result.returncode == 1
    assert "what should have happened did not" in result.stderr and UNFIT[case] in result.stderr


def outbox_demo(home: Path, user: list[str], **environment: str) -> subprocess.CompletedProcess:
    own = {"HALVEK_DAEMON": PROGRAM, "HOME": str(home)}
    command = [*user, ROOT / "scripts/demo", "--outbox"]
    return subprocess.run(
        command, env=os.environ | own | environment, capture_output=True, text=True, timeout=TIME_LIMIT
    )


@pytest.mark.not_under("sanitizer", reason="the outbox is not built there")
@USERS
def test_a_picture_whose_server_is_down_arrives_when_it_is_back(tmp_path, user):
    result = outbox_demo(tmp_path, user)
    assert result.returncode == 0 and result.stderr == "", result.stderr
    for shown in ("wait      camera@127.0.0.1", "nothing is waiting", "All of this really happened"):
        assert shown in result.stdout


@pytest.mark.not_under("sanitizer", reason="the outbox is not built there")
@pytest.mark.parametrize(
    ("unfit", "said"), [("HALVEK_OUTBOX=/bin/true", "the outbox answers"), ("HALVEK_OUTBOX_SUBMIT=/bin/true", "waits")]
)
def test_an_outbox_fails_that_does_nothing(tmp_path, unfit, said):
    name, _, value = unfit.partition("=")
    result = outbox_demo(tmp_path, [], **{name: value})
    assert result.returncode == 1 and said in result.stderr
    assert "really happened" not in result.stdout


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
@pytest.mark.parametrize("moment", ["relay Local:0 on", "pictures now holds"])
def test_a_demo_that_is_interrupted_leaves_nothing_behind(tmp_path, number, moment):
    with subprocess.Popen(
        [ROOT / "scripts/demo"],
        env=os.environ | {"HALVEK_DAEMON": PROGRAM, "HOME": str(tmp_path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    ) as process:
        output = Lines(os.dup(process.stdout.fileno()), "demo")
        output.wait_for(moment)
        process.send_signal(number)
        assert process.wait(TIME_LIMIT) != 0
        output.close()


@pytest.mark.parametrize(("word", "status", "said"), [("--help", 0, "usage: scripts/demo"), ("fast", 1, "--help")])
def test_a_word_builds_nothing(tmp_path, word, status, said):
    environment = {name: value for name, value in os.environ.items() if name != "HALVEK_DAEMON"}
    result = subprocess.run([ROOT / "scripts/demo", word], env=environment, capture_output=True, text=True, timeout=10)
    assert result.returncode == status
    assert said in result.stdout + result.stderr and "Building" not in result.stdout
