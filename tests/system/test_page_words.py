"""The page of the virtual camera: how it is started, by whom, and what its man page says."""

import os
import re
import socket
import subprocess
from pathlib import Path

import pytest
from testing.page import ADDRESS, PAGE_PROGRAM, VcamPage
from testing.pipes import PIPE_FOLDER
from testing.waiting import PATIENCE, wait_until

pytest_plugins = ["camera_fixtures", "page_fixtures"]
pytestmark = [
    pytest.mark.not_under("sanitizer", reason="no camera runs it, and a build of it takes long"),
    pytest.mark.not_under("emulator", reason="what is tried here is never on a camera"),
]

ROOT = Path(__file__).resolve().parents[2]
NOWHERE = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"}


def run(*words: str) -> subprocess.CompletedProcess:
    return subprocess.run([PAGE_PROGRAM, *words], capture_output=True, text=True, timeout=PATIENCE, env=NOWHERE)


@pytest.fixture(scope="module")
def man_page() -> str:
    command = ["groff", "-mandoc", "-Tascii", "-P-c", "-P-b", "-P-u", str(ROOT / "docs/kelto-vcam-page.1")]
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=True).stdout


def test_the_man_page_names_every_option_and_every_request(man_page):
    options = set(re.findall(r"--[a-z]+", run("--help").stdout))
    assert options == set(re.findall(r"--[a-z]+", man_page)) - {"--json"} and "--events" in options
    gate = (ROOT / "companions/page/Gate.cpp").read_text()
    paths = re.findall(r'\{"(/[a-z.]*)", "', gate)
    assert len(paths) == 15 and all(re.search(rf"(GET|POST|,) {re.escape(path)}\b|/ ,", man_page) for path in paths)


def test_help_and_version_are_told_on_standard_output():
    for word, said in (("--help", "Usage: kelto-vcam-page"), ("--version", "kelto-vcam-page ")):
        done = run(word)
        assert (done.returncode, done.stderr) == (0, "") and done.stdout.startswith(said)
    assert len(run("--help").stdout.splitlines()) <= 50


@pytest.mark.parametrize(
    "words",
    [
        ("--port",),
        ("--port", "x"),
        ("--port", "65536"),
        ("--port", "-1"),
        ("--port", ""),
        ("--port", "80 "),
        ("--bind", ""),
        ("--host", ""),
        ("--events", "relative"),
        ("--events", "/run/halvek/"),
        ("--events", "/run/halvek/.halvek.any"),
        ("--snapshot", ""),
        ("--settings", ""),
        ("--halvekctl", ""),
        ("--nothing",),
        ("page",),
    ],
)
def test_a_wrong_command_line_is_status_2_and_does_nothing(words):
    done = run(*words)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr
    assert list(PIPE_FOLDER.iterdir()) == []


def test_what_keeps_it_from_starting_is_status_3():
    with socket.create_server((ADDRESS, 0)) as taken:
        port = str(taken.getsockname()[1])
        for words, said in (
            (("--port", port), "Address already in use"),
            (("--bind", "somewhere"), "no address"),
            (("--bind", "192.0.2.1"), "Cannot assign"),
        ):
            done = run(*words)
            assert (done.returncode, done.stdout) == (3, "") and said in done.stderr


def test_an_address_that_others_reach_is_told_as_a_risk(tmp_path):
    with VcamPage(NOWHERE, tmp_path / "none", "--bind", "0.0.0.0") as page:
        assert page.get("/").status == 200
        page.complaints.wait_for("everybody who reaches this address")
        assert page.stop() == 0
    with VcamPage(NOWHERE, tmp_path / "none", "--bind", "::1") as page:
        assert page.url.startswith("http://[::1]:")
        assert page.stop() == 0 and page.complaints.items == []


def test_the_service_manager_is_told_and_its_socket_is_taken(tmp_path):
    notified = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    notified.bind(str(tmp_path / "notify"))
    notified.settimeout(PATIENCE)
    with socket.create_server((ADDRESS, 0)) as given:
        port = given.getsockname()[1]
        script = f'exec 3<&{given.fileno()}; LISTEN_FDS=1 LISTEN_PID=$$ exec "$0" --bind 192.0.2.1 --port 1'
        process = subprocess.Popen(
            ["bash", "-c", script, PAGE_PROGRAM],
            env=os.environ | NOWHERE | {"NOTIFY_SOCKET": str(tmp_path / "notify")},
            pass_fds=[given.fileno()],
            stdout=subprocess.PIPE,
            text=True,
        )
        try:
            assert notified.recv(100) == b"READY=1"
            assert process.stdout.readline() == f"http://127.0.0.1:{port}/\n"
            with socket.create_connection((ADDRESS, port), PATIENCE) as browser:
                browser.sendall(b"GET / HTTP/1.0\r\nHost: localhost\r\n\r\n")
                assert browser.recv(15) == b"HTTP/1.1 200 OK"
        finally:
            process.terminate()
            assert process.wait(PATIENCE) == 0
            process.stdout.close()
            notified.close()


def test_without_the_monitors_folder_it_says_so_and_makes_its_pipe_later(start_page, camera):
    PIPE_FOLDER.rmdir()
    page = start_page()
    page.complaints.wait_for("no events are shown: .*zz-page")
    state = page.state()
    assert state["eventPipe"]["open"] is False and state["eventPipe"]["problem"]
    PIPE_FOLDER.mkdir()
    page.stream()
    wait_until(lambda: page.state()["eventPipe"]["open"], "the pipe")
    assert [path.name for path in PIPE_FOLDER.iterdir()] == ["zz-page.halvek.any"]
    assert page.stop() == 0


def test_a_pipe_that_was_left_behind_is_read_and_replaced(start_page, camera):
    pipe = PIPE_FOLDER / "zz-page.halvek.any"
    os.mkfifo(pipe)
    holder = os.open(pipe, os.O_RDWR | os.O_NONBLOCK)
    os.write(holder, b"[Whole]\na=1\n.\n[Torn]\nb=")
    inode = pipe.stat().st_ino
    page = start_page()
    (event,) = page.state()["events"]
    assert (event["type"], event["stale"]) == ("Whole", True)
    assert pipe.stat().st_ino != inode
    os.close(holder)


def test_the_pipe_has_the_name_that_it_was_given(start_page, camera):
    start_page("--events", f"{PIPE_FOLDER}/zz-mine.halvek.any")
    assert [path.name for path in PIPE_FOLDER.iterdir()] == ["zz-mine.halvek.any"]
