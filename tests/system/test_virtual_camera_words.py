"""The virtual camera's command line and its texts: whatever they show is tried here."""

import os
import re
import signal
import subprocess
from pathlib import Path

import pytest
from testing.bus_client import BusClient
from testing.camera import CAMERA, CAMERA_PROGRAM, INTERFACE_FILES, TIME, described, text_of
from testing.collector import Lines
from testing.processes import dies_with_us
from testing.tree import ROOT
from testing.waiting import NotSeen

pytestmark = pytest.mark.not_under("emulator", reason="what is tried here is never on a camera")

MAN_PAGE = ROOT / "docs/kelto-vcam.1"
COMMANDS = ["alarm", "alert", "idle", "recording", "fault", "actions"]


def run(*arguments: str) -> subprocess.CompletedProcess:
    return subprocess.run([CAMERA_PROGRAM, *arguments], capture_output=True, text=True, timeout=20)


def test_the_help_fits_one_screen_and_begins_with_every_command():
    lines = run("--help").stdout.splitlines()
    assert len(lines) < 24 and max(map(len, lines)) < 80
    assert [line.split()[0] for line in lines[4 : lines.index("Options:")] if not line.startswith("   ")] == COMMANDS


def test_help_and_version_go_to_standard_output():
    shown = run("--help")
    assert shown.returncode == 0 and shown.stderr == "" and shown.stdout.startswith("Usage: kelto-vcam")
    version = re.search(r"project\(halvek VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text()).group(1)
    assert (run("--version").returncode, run("--version").stdout) == (0, f"kelto-vcam {version}\n")


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        (["--frobnicate"], "unrecognized option '--frobnicate'"),
        (["-x"], "invalid option -- 'x'"),
        (["--snapshot"], "option '--snapshot' requires an argument"),
        (["--snapshot="], "The snapshot needs a file name"),
        (["--snapshot", "/tmp/"], "The snapshot needs a file name"),
        (["now"], 'There is nothing to be done with "now", only ' + ", ".join(COMMANDS)),
        ([""], 'There is nothing to be done with "", only ' + ", ".join(COMMANDS)),
        (["--snapshot", "/tmp/x.jpg", "alarm"], 'There is nothing to be done with "alarm"'),
    ],
)
def test_a_wrong_command_line_is_refused(arguments, text):
    refused = run(*arguments)
    assert refused.returncode == 1 and refused.stdout == ""
    assert text in refused.stderr and "Try --help" in refused.stderr


@pytest.fixture(scope="module")
def man_page() -> str:
    """The page as a reader sees it on a wide terminal, and sees to it that it is well formed."""
    shown = subprocess.run(
        ["groff", "-mandoc", "-ww", "-rLL=120n", "-Tutf8", "-P-cbou", str(MAN_PAGE)],
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (shown.returncode, shown.stderr) == (0, "")
    return shown.stdout


def test_the_man_page_names_every_option_method_error_and_tour(man_page):
    for option in re.findall(r"--[a-z]+", run("--help").stdout.split("On a bus")[0]):
        assert option in man_page
    for name in COMMANDS:
        assert f"\n     kelto-vcam {name} " in man_page and f"\n     {name} " in man_page
    for method in described(INTERFACE_FILES[CAMERA].read_text(), "com.kelto.VirtualCamera"):
        assert method.split()[1] in man_page
    sources = "".join(path.read_text() for path in (ROOT / "camera").rglob("*.cpp"))
    errors = set(re.findall(r'Refusal\("(\w+)"', sources)) | {"Fault"}
    assert len(errors) == 8 and not [name for name in errors if f"com.kelto.Error.{name}" not in man_page]


def test_the_man_page_says_of_the_unit_what_its_package_does(man_page):
    text = " ".join(man_page.split("\nTHE SERVICE\n")[1].split("\nENVIRONMENT\n")[0].split())
    unit = (ROOT / "packaging/kelto-vcam.service").read_text()
    user, writable = (re.search(f"^{key}=(.*)$", unit, re.M)[1] for key in ("User", "ReadWritePaths"))
    assert f"It runs as the user {user} in a sandbox" in text and f"nothing to write to but {writable}." in text
    assert "ProtectHome=yes" in unit and "PrivateNetwork=yes" in unit and "Type=notify" in unit
    assert f"\nd /tmp/snapshot 0755 {user} " in (ROOT / "packaging/kelto-vcam.tmpfiles").read_text()
    (policy,) = re.findall(r"The bus policy (\S+)", text)
    assert policy.removeprefix("/") in (ROOT / "debian/kelto-vcam.install").read_text().splitlines()
    assert "dh_installsystemd -pkelto-vcam --no-enable" in (ROOT / "debian/rules").read_text()


def blocks(text: str) -> list[list[str]]:
    """The indented blocks that begin with a command, or with a line of the camera."""
    found = [block.splitlines() for block in re.split(r"\n\s*\n", text.strip())]
    stripped = [[line.strip() for line in block] for block in found]
    return [block for block in stripped if block[0].startswith("$ ") or re.match(TIME, block[0])]


def masked(text: str) -> str:
    return re.sub(r"\d{7,}", "TIME", re.sub(TIME, "TIME", text))


class Terminal:
    """A shell that is typed into line by line."""

    def __init__(self, name: str, environment: dict[str, str]) -> None:
        self.shell = subprocess.Popen(
            dies_with_us("bash"),
            env=environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        self.output = Lines(os.dup(self.shell.stdout.fileno()), name)
        self.shell.stdout.close()

    def type(self, line: str) -> None:
        self.shell.stdin.write(line.encode() + b"\n")
        self.shell.stdin.flush()

    def run(self, line: str) -> list[str]:
        """Types a command and returns what it prints."""
        before = len(self.output.items)
        self.type(line)
        self.type("echo =done=")
        end = self.output.wait_for("^=done=$", after=before)
        return self.output.items[before : end - 1]

    def close(self) -> None:
        self.shell.stdin.close()
        try:
            self.shell.wait(20)
        finally:
            self.shell.kill()
            self.output.close()


@pytest.fixture
def desk(tmp_path):
    """Two terminals in which kelto-vcam is installed, in a home folder and a /tmp of their own."""
    program = tmp_path / "bin" / "kelto-vcam"
    program.parent.mkdir()
    camera = f'[ $# -gt 0 ] || set -- --snapshot "{tmp_path}/img2.jpg"'
    program.write_text(f'#!/bin/sh\n{camera}\nexec {CAMERA_PROGRAM} "$@"\n')
    program.chmod(0o755)
    inherited = {name: value for name, value in os.environ.items() if not name.startswith("DBUS_")}
    environment = inherited | {"HOME": str(tmp_path), "PATH": f"{program.parent}:{os.environ['PATH']}", "LC_ALL": "C"}
    terminals = [Terminal(name, environment) for name in ("first terminal", "second terminal")]
    yield terminals
    for terminal in reversed(terminals):
        end_bus(tmp_path / "kelto-bus")  # the camera, which may still run in the first, ends with it
        terminal.close()


def end_bus(path: Path) -> None:
    """Ends a bus that has gone into the background; usually the example has ended it before."""
    try:
        client = BusClient(path)
    except (OSError, NotSeen):
        return
    try:
        os.kill(client.call_bus("GetConnectionUnixProcessID", "s", "org.freedesktop.DBus")[0], signal.SIGTERM)
    except (OSError, NotSeen):
        pass  # it was ending already
    finally:
        client.close()


def start_as_told(first: Terminal, commands: list[str]) -> None:
    *preparation, start = commands
    for command in preparation:
        first.run(command)
    first.type(start)
    first.output.wait_for("ready, a new picture every second in ")


def end_as_told(first: Terminal, second: Terminal) -> None:
    """Control-C, then what both texts say."""
    answer = second.run("busctl status com.kelto.VirtualCamera | sed -n s/^PID=//p")
    os.kill(int(answer[0]), signal.SIGINT)
    assert first.run("echo ended $?")[-1] == "ended 0"
    assert first.run("kill $BUS") == []


def test_the_examples_of_the_man_page_do_what_it_says(man_page, desk):
    first, second = desk
    examples = man_page.split("EXAMPLES")[1].split("THE CAMERA")[0]
    setting_up, *talking, ending = [block for block in blocks(examples) if block[0].startswith("$ ")]
    start_as_told(first, [line[2:] for line in setting_up if line.startswith("$ ")])
    assert setting_up[-1].endswith(" ready, a new picture every second in /tmp/snapshot/img2.jpg")
    for block in talking:
        for command, expected in [
            (lines[0], lines[1:]) for lines in (text.splitlines() for text in "\n".join(block)[2:].split("\n$ "))
        ]:
            assert masked("\n".join(second.run(command))) == masked("\n".join(expected)), command
    (shown,) = [block for block in blocks(examples) if re.match(TIME, block[0])]
    position = 0
    for line in shown:
        position = first.output.wait_for(f"^{TIME} {re.escape(text_of(line))}$", after=position)
    end_as_told(first, second)
    assert ending == ["$ kill $BUS"]


def test_the_examples_of_the_help_work(desk):
    first, second = desk
    commands = re.findall(r"^  \$ (.*)$", run("--help").stdout, re.M)
    start = commands.index("kelto-vcam")
    start_as_told(first, [re.sub("^dbus-daemon .*", r"BUS=$(\g<0>)", command) for command in commands[: start + 1]])
    for command in commands[start + 1 :]:
        assert second.run(command + "; echo status $?") == ["status 0"]
    first.output.wait_for(f"^{TIME} alarm Local:2 active$")
    end_as_told(first, second)
