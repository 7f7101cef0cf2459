"""The scripts that set everything up: what they install, what they say, what they count."""

import functools
import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", reason="it runs no program of ours, and so is the same in every build"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

ROOT = Path(__file__).resolve().parents[2]
PRIVATE_RUN = ROOT / "scripts/private-run"
ORDINARY_USER = ["unshare", "--user", "--map-user=1000", "--map-group=1000"]
CTEST = """<testsuite>
<testcase name="unit" status="{}"><system-out>{said}</system-out></testcase>
<testcase name="system.a" status="{}"/>
</testsuite>"""

USE_NETWORK = """
import socket
print(*(name for _, name in socket.if_nameindex()), end="")
for port in (21, 25):
    with socket.create_server(("127.0.0.1", port)) as server, socket.create_connection(server.getsockname(), 5):
        print("", port, end="")
"""


def run(*command: object, **options) -> subprocess.CompletedProcess:
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=60, **options)


@pytest.fixture
def commands(tmp_path):
    """A folder at the front of PATH where python3-pytest is missing and what would change the machine is recorded."""
    folder, record = tmp_path / "commands", tmp_path / "record"
    folder.mkdir()
    record.touch()
    bodies = {
        "dpkg-query": '[ "$4" = python3-pytest ] || echo -n installed',
        "apt-get": f'echo "apt-get $* [$DEBIAN_FRONTEND]" >>{record}',
        "cmake": f'echo "cmake $*" >>{record}',
    }
    for name, body in bodies.items():
        (folder / name).write_text(f"#!/bin/sh\n{body}\n")
        (folder / name).chmod(0o755)
    environment = {name: value for name, value in os.environ.items() if name != "HALVEK_DAEMON"}
    commands.environment = environment | {"PATH": f"{folder}:{environment['PATH']}"}
    commands.record = record
    return commands


@pytest.mark.parametrize("script", ["demo", "test", "build-packages"])
def test_an_ordinary_user_is_told_the_one_command_that_is_missing(commands, script):
    result = run(*ORDINARY_USER, ROOT / "scripts" / script, env=commands.environment)
    assert result.returncode == 1
    command = "sh -c 'apt-get update && apt-get install -y --no-install-recommends python3-pytest'"
    assert [line.strip() for line in result.stderr.splitlines() if "apt-get" in line] == [command]
    assert commands.record.read_text() == ""


def test_root_gets_what_is_missing_installed_and_is_asked_nothing(commands):
    result = run("bash", "-ec", f". {ROOT}/scripts/lib.sh; install_packages", env=commands.environment)
    assert result.returncode == 0, result.stderr
    update, install = commands.record.read_text().splitlines()
    assert update.startswith("apt-get ") and " update" in update and update.endswith("[noninteractive]")
    assert " install -y --no-install-recommends python3-pytest" in install and install.endswith("[noninteractive]")


@pytest.mark.parametrize("script", ["demo", "test", "build-packages"])
def test_a_script_that_is_asked_for_help_does_nothing_else(commands, script):
    result = run(ROOT / "scripts" / script, "--help", env=commands.environment)
    assert result.returncode == 0 and result.stdout.startswith(f"usage: scripts/{script}")
    assert commands.record.read_text() == ""


BUILD = """
cmake() { for step in $(seq 8); do echo "[$step/8] compiling"; done; echo "$1" >&2; return "$STATUS"; }
. "$1/scripts/lib.sh"
build_preset release halvek
"""


def build(tree: Path, status: int) -> subprocess.CompletedProcess:
    """With a compiler that takes eight steps."""
    (tree / "scripts").mkdir()
    shutil.copy(ROOT / "scripts/lib.sh", tree / "scripts")
    environment = os.environ | {"STATUS": str(status)}
    return run("bash", "-euo", "pipefail", "-c", BUILD, "bash", tree, env=environment)


def test_a_build_says_how_far_it_is_and_keeps_the_rest_in_a_file(tmp_path):
    result = build(tmp_path, status=0)
    assert result.returncode == 0 and result.stderr == ""
    first, *steps = result.stdout.splitlines()
    assert "build/release.log" in first
    assert steps == [f"  step {step} of 8" for step in (2, 4, 6, 8)]
    log = (tmp_path / "build/release.log").read_text()
    assert "[1/8] compiling\n" in log and "--build\n" in log


def test_a_build_that_fails_shows_the_end_of_what_it_said(tmp_path):
    result = build(tmp_path, status=1)
    assert result.returncode == 1
    assert "--preset\n" in result.stderr and "cannot build the preset release" in result.stderr


PROGRAMS = {
    # What is built ahead takes until the tests have seen it begin; it never ends by itself if they are to be left.
    "cmake": """case $* in
        *--build*tsan*) echo "building ahead $$" >>"$RECORD"; [ -z "$FOR_EVER" ] || exec sleep 1000 ;;
    esac""",
    "ctest": """case $* in
        *asan*) until [ "$(grep -c ahead "$RECORD")" = "${AHEAD-1}" ]; do sleep 0.01; done
            [ -z "$FOR_EVER" ] || kill $PPID ;;
    esac
    for word; do case $word in *.xml) echo '<testsuite><testcase name="a" status="run"/></testsuite>' >$word; esac; done
    echo tested >>"$RECORD" """,
    "dpkg-query": "echo -n installed",
}


@pytest.fixture
def two_presets(tmp_path):
    """Builds and tests asan and tsan in a tree of its own, with a compiler and tests that only say when they ran."""
    (tmp_path / "scripts").mkdir()
    for name in ("lib.sh", "test", "test_summary.py"):
        shutil.copy(ROOT / "scripts" / name, tmp_path / "scripts")
    (tmp_path / "debian").mkdir()
    shutil.copy(ROOT / "debian/control", tmp_path / "debian")
    for name in ("asan", "tsan"):
        (tmp_path / "build" / name).mkdir(parents=True)
    (tmp_path / "bin").mkdir()
    for name, body in PROGRAMS.items():
        (tmp_path / "bin" / name).write_text(f"#!/bin/sh\n{body}\n")
        (tmp_path / "bin" / name).chmod(0o755)
    record = tmp_path / "record"
    record.touch()

    def test_both(*before: str, **variables: str) -> tuple[int, list[str], str]:
        paths = {"PATH": f"{tmp_path}/bin:{os.environ['PATH']}", "RECORD": str(record)}
        words = ["--preset", *before, "asan", "tsan"]
        result = run(tmp_path / "scripts/test", *words, env=os.environ | paths | variables)
        return result.returncode, record.read_text().splitlines(), result.stdout

    return test_both


def test_the_next_preset_is_built_beside_the_tests_of_a_sanitizer(two_presets):
    status, (first, *others), _ = two_presets(FOR_EVER="")
    assert status == 0
    assert first.startswith("building ahead") and others[0] == "tested" and others[-1] == "tested"


def test_tests_that_are_ended_leave_no_build_behind(two_presets):
    status, (first, *_), _ = two_presets(FOR_EVER="1")
    assert status == -signal.SIGTERM
    build = Path("/proc", first.split()[-1])
    wait_until(lambda: not build.exists(), "the end of the build")


FAULTS = """#!/bin/sh
[ -z "$FOR_EVER" ] || { echo "ahead of the faults $$" >>"$RECORD"; exec sleep 1000; }
until [ "$(grep -c tested "$RECORD")" = 2 ]; do sleep 0.01; done
echo "3 lost"
exit "$STATUS"
"""


@pytest.fixture
def with_faults(tmp_path, two_presets):
    """Likewise, beside faults that end behind the tests of both, if they end at all."""
    script = tmp_path / "scripts/mqtt-faults"
    script.write_text(FAULTS)
    script.chmod(0o755)
    return functools.partial(two_presets, "faults")


def test_faults_run_beside_the_tests_that_follow_and_are_waited_for(with_faults):
    status, _, said = with_faults(FOR_EVER="", STATUS="0")
    assert status == 0
    assert "faults: 1 passed, 0 failed, 0 skipped" in said.splitlines() and "3 lost" not in said


def test_faults_that_bring_a_mistake_fail_and_what_they_said_is_shown(with_faults):
    status, _, said = with_faults(FOR_EVER="", STATUS="1")
    assert status == 1
    assert "faults: faults failed:\n    3 lost\n" in said and "faults: 0 passed, 1 failed, 0 skipped" in said


def test_tests_that_are_ended_leave_no_faults_behind(with_faults):
    status, lines, _ = with_faults(FOR_EVER="1", AHEAD="2")
    assert status == -signal.SIGTERM
    (faults,) = (Path("/proc", line.split()[-1]) for line in lines if "faults" in line)
    wait_until(lambda: not faults.exists(), "the end of the faults")


def required_packages(*kind: str) -> subprocess.CompletedProcess:
    """Prints them, and as an error those that are not installed."""
    commands = 'required_packages "$@"; missing_packages "$@" >&2'
    return run("bash", "-ec", f". {ROOT}/scripts/lib.sh; {commands}", "bash", *kind)


def test_every_package_that_is_needed_to_build_and_test_is_installed():
    result = required_packages()
    packages = result.stdout.split()
    assert {"cmake", "g++", "ninja-build", "libsystemd-dev", "libgtest-dev", "python3-pytest"} <= set(packages)
    assert {"debhelper", "build-essential", "lintian"} <= set(packages)
    assert result.stderr == ""


def test_the_cross_compiler_and_the_emulator_are_only_needed_for_armhf():
    everywhere, for_armhf = (set(required_packages(*kind).stdout.split()) for kind in ((), ("armhf",)))
    assert for_armhf - everywhere == {"g++-arm-linux-gnueabihf", "qemu-user"}
    assert everywhere < for_armhf


def test_the_test_script_refuses_what_it_does_not_know(commands):
    result = run(ROOT / "scripts/test", "--everything", env=commands.environment)
    assert result.returncode == 1 and "usage: " in result.stderr
    assert commands.record.read_text() == ""


def summary(folder: Path, *presets: str) -> subprocess.CompletedProcess:
    return run(sys.executable, "-B", ROOT / "scripts/test_summary.py", folder, *presets)


def write_results(
    folder: Path, preset: str, statuses: tuple[str, str], pytest_cases: str | None, said: str = ""
) -> None:
    results = folder / preset / "test-results"
    results.mkdir(parents=True)
    (results / "ctest.xml").write_text(CTEST.format(*statuses, said=said))
    if pytest_cases is not None:
        (results / "system.a.xml").write_text(f"<testsuites><testsuite>{pytest_cases}</testsuite></testsuites>")


SUMMARIES = {
    "all pass": (("run", "run"), '<testcase name="x"/><testcase name="y"/>', "3 passed, 0 failed, 0 skipped", 0),
    "a unit test fails": (("fail", "run"), '<testcase name="x"/>', "1 passed, 1 failed, 0 skipped", 1),
    "a system test fails": (
        ("run", "fail"),
        '<testcase name="x"><failure/></testcase>',
        "1 passed, 1 failed, 0 skipped",
        1,
    ),
    "a clean-up fails": (
        ("run", "fail"),
        '<testcase name="x"/><testcase name="x"><error/></testcase>',
        "1 passed, 1 failed, 0 skipped",
        1,
    ),
    "a preset leaves out all of a file": (("run", "run"), "", "1 passed, 0 failed, 0 skipped", 0),
    "pytest is cut short": (("run", "fail"), None, "1 passed, 1 failed, 0 skipped", 1),
    "pytest fails after its tests": (("run", "fail"), '<testcase name="x"/>', "2 passed, 1 failed, 0 skipped", 1),
    "a test is skipped": (
        ("notrun", "run"),
        '<testcase name="x"><skipped/></testcase>',
        "0 passed, 0 failed, 2 skipped",
        0,
    ),
}


@pytest.mark.parametrize("statuses, cases, line, status", SUMMARIES.values(), ids=SUMMARIES.keys())
def test_the_summary_when(tmp_path, statuses, cases, line, status):
    write_results(tmp_path, "release", statuses, cases)
    result = summary(tmp_path, "release")
    assert result.stdout.splitlines()[-2:] == [f"release: {line}", line]
    assert result.returncode == status


def test_the_summary_adds_up_the_presets(tmp_path):
    write_results(tmp_path, "release", ("run", "run"), '<testcase name="x"/>')
    write_results(tmp_path, "tsan", ("run", "fail"), '<testcase name="x"><failure/></testcase>')
    result = summary(tmp_path, "release", "tsan")
    assert result.stdout.splitlines()[-1] == "3 passed, 1 failed, 0 skipped"
    assert result.returncode == 1


def test_the_summary_names_what_failed_and_what_it_said(tmp_path):
    write_results(
        tmp_path,
        "release",
        ("fail", "fail"),
        '<testcase classname="test_a" name="x"><failure message="assert 1 == 2&#10; +  where 1 = f()"/></testcase>'
        '<testcase classname="test_a" name="y"/>',
        said="".join(f"line {number}\n" for number in range(100)),
    )
    lines = summary(tmp_path, "release").stdout.splitlines()
    unit, system = lines.index("release: unit failed:"), lines.index("release: test_a.x failed:")
    assert lines[unit + 20 : unit + 22] == ["    line 99", ""]
    assert lines[system + 1 : system + 4] == ["    assert 1 == 2", "     +  where 1 = f()", ""]
    assert not any("test_a.y" in line for line in lines)
    assert lines[-1] == "1 passed, 2 failed, 0 skipped"


@pytest.mark.parametrize("ctest", [None, "<testsuite/>"])
def test_a_preset_that_ran_no_test_is_a_failure(tmp_path, ctest):
    write_results(tmp_path, "release", ("run", "run"), '<testcase name="x"/>')
    if ctest:
        (tmp_path / "asan/test-results").mkdir(parents=True)
        (tmp_path / "asan/test-results/ctest.xml").write_text(ctest)
    result = summary(tmp_path, "release", "asan")
    assert "asan: no test ran" in result.stdout and result.returncode == 1


@pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])
def test_a_private_run_holds_the_pipe_folder_and_nothing_else(user, tmp_path):
    result = run(*user, PRIVATE_RUN, "sh", "-c", "ls /run; ls -A /var/run/halvek; stat -c %a /run /run/halvek")
    assert result.stdout.split() == ["halvek", "755", "755"]
    assert tmp_path.exists()  # ours, in the /run outside, is another


@pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])
def test_a_private_network_has_the_loopback_alone_and_every_port_free(user):
    result = run(*user, PRIVATE_RUN, "--net", "/usr/bin/python3", "-c", USE_NETWORK)
    assert (result.stdout, result.stderr) == ("lo 21 25", "")


@pytest.mark.parametrize("user", [[], ORDINARY_USER], ids=["root", "ordinary user"])
def test_with_processes_of_its_own_it_sees_none_of_others_and_leaves_none(user):
    command = "sleep 1000 & for one in /proc/[0-9]*/comm; do cat $one; done; exit 7"
    result = run(*user, PRIVATE_RUN, "--pid", "sh", "-c", command)
    assert sorted(set(result.stdout.split()) - {"cat"}) == ["sh", "sleep"] and result.returncode == 7


def test_a_private_run_hands_through_streams_arguments_and_status():
    result = run(PRIVATE_RUN, "sh", "-c", 'cat; printf "<%s>" "$@" >&2; exit 7', "sh", "a b", "", "*", input="in")
    assert (result.stdout, result.stderr, result.returncode) == ("in", "<a b><><*>", 7)


def test_a_private_run_is_the_command_itself_to_signals():
    with subprocess.Popen([PRIVATE_RUN, "sh", "-c", "echo $$; exec cat"], stdin=-1, stdout=-1) as process:
        assert int(process.stdout.readline()) == process.pid
        process.send_signal(signal.SIGTERM)
        assert process.wait(10) == -signal.SIGTERM


def test_a_private_run_without_a_command_says_how_it_is_used():
    result = run(PRIVATE_RUN)
    assert result.returncode == 125 and "usage" in result.stderr


@pytest.mark.parametrize(
    ("network", "missing"), [([], "no mount namespace"), (["--net"], "no network and mount namespace")]
)
def test_a_private_run_says_so_if_the_system_forbids_it(tmp_path, network, missing):
    (tmp_path / "unshare").write_text("#!/bin/sh\nexit 1\n")
    (tmp_path / "unshare").chmod(0o755)
    result = run(PRIVATE_RUN, *network, "true", env=os.environ | {"PATH": f"{tmp_path}:{os.environ['PATH']}"})
    assert result.returncode == 125 and missing in result.stderr and "user namespaces" in result.stderr
