"""The daemon built against an installed camera platform instead of the one in its own tree."""

import json
import os
import re
import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest
from testing import daemon as daemon_module
from testing.daemon import Daemon
from testing.pipes import OutputPipe, block, post, unstamped
from testing.settings import SERVER, handler, ini_text, source, timer

pytestmark = [
    pytest.mark.not_under("debug", "sanitizer", reason="it builds another daemon, as the release has it"),
    pytest.mark.not_under("emulator", reason="the other processor has no compiler"),
]

SOURCES = Path(__file__).resolve().parents[2]
BUILD = Path(daemon_module.PROGRAM).resolve().parents[1]
DAEMON_FOLDERS = ("app", "companions", "env", "event", "handler", "monitor", "source", "camera", "docs", "packaging")
SMALL_CAMERA = SOURCES / "tests/sdk"


def run(*command: object, **options) -> None:
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    assert result.returncode == 0, f"{command}:\n{result.stdout}{result.stderr}"


class Sdk:
    """The open platform's package in a folder of its own, and a tree without platform that is built against it."""

    def __init__(self, folder: Path) -> None:
        self.prefix, self.tree, self.build = folder / "prefix", folder / "tree", folder / "build"
        run("cmake", "--install", BUILD, "--component", "sdk", "--prefix", self.prefix)
        for name in DAEMON_FOLDERS:
            shutil.copytree(SOURCES / name, self.tree / name)
        shutil.copy(SOURCES / "CMakeLists.txt", self.tree)
        self.configure()

    def configure(self) -> None:
        # Without a build type nothing is optimised: how fast the compiler is counts more here than the program.
        options = ("-DHALVEK_PLATFORM=sdk", "-DHALVEK_STATIC_CXX=ON", "-DBUILD_TESTING=OFF", "-DHALVEK_WERROR=ON")
        places = ("-S", self.tree, "-B", self.build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "-G", "Ninja", *places, *options)

    def build_daemon(self, program: Path) -> Path:
        run("cmake", "--build", self.build, "--parallel", os.cpu_count(), "--target", "halvek")
        return Path(shutil.copy(self.build / "bin/halvek", program))

    def build_ctl(self) -> Path:
        run("cmake", "--build", self.build, "--parallel", os.cpu_count(), "--target", "halvekctl")
        return self.build / "bin/halvekctl"

    def headers(self) -> set[str]:
        folder = self.prefix / "include"
        return {str(path.relative_to(folder)) for path in folder.rglob("*.h")}

    def remove_headers(self, names: set[str]) -> None:
        for name in names:
            (self.prefix / "include" / name).unlink()

    def replace_library(self, file: Path) -> None:
        """The library named like the file then holds nothing but this file."""
        (archive,) = self.prefix.rglob(f"lib{file.stem}.a")
        compiled = file.with_suffix(".o").name
        run("c++", "-std=c++20", "-I", self.prefix / "include", "-c", file, "-o", self.build / compiled)
        archive.unlink()
        run("ar", "rcs", archive, self.build / compiled)


@pytest.fixture(scope="module")
def sdk(tmp_path_factory: pytest.TempPathFactory) -> Sdk:
    return Sdk(tmp_path_factory.mktemp("sdk"))


@pytest.fixture(scope="module")
def daemon_on_open_platform(sdk: Sdk) -> Path:
    return sdk.build_daemon(sdk.build / "halvek-open")


@pytest.fixture(scope="module")
def daemon_of_small_camera(sdk: Sdk, daemon_on_open_platform: Path) -> Path:
    """Made from what the book calls the smallest set: its headers, and next to nothing behind half of the libraries."""
    sdk.remove_headers(sdk.headers() - headers_in_the_book())
    shutil.copytree(SMALL_CAMERA / "include", sdk.prefix / "include", dirs_exist_ok=True)
    for file in SMALL_CAMERA.glob("*.cpp"):
        sdk.replace_library(file)
    return sdk.build_daemon(sdk.build / "halvek-small")


@pytest.fixture(scope="module")
def ctl_of_small_camera(sdk: Sdk, daemon_of_small_camera: Path) -> Path:
    return sdk.build_ctl()


def headers_in_the_book() -> set[str]:
    """Each stands at the beginning of a row of a table."""
    text = (SOURCES / "docs/porting.md").read_text()
    return set(re.findall(r"^\| `((?:kelto|vassa|util)/[\w/]+\.h)` \|", text, re.MULTILINE))


def headers_of_the_daemon() -> set[str]:
    """What its folders include of the platform."""
    files = (
        path for folder in DAEMON_FOLDERS for path in (SOURCES / folder).glob("*") if path.suffix in (".h", ".cpp")
    )
    pattern = re.compile(r'^#include "((?:kelto|vassa|util)/[\w/]+\.h)"', re.MULTILINE)
    return {header for path in files for header in pattern.findall(path.read_text())}


def libraries(program: Path) -> set[str]:
    headers = subprocess.run(["objdump", "-p", program], capture_output=True, text=True, check=True).stdout
    return set(re.findall(r"NEEDED +([^.\s]+)", headers))


def test_a_daemon_built_against_the_installed_platform_starts_and_passes_an_event_on(
    daemon_on_open_platform: Path,
    monkeypatch: pytest.MonkeyPatch,
    launch: Callable[..., Daemon],
    output_pipe: Callable[..., OutputPipe],
) -> None:
    monkeypatch.setattr(daemon_module, "PROGRAM", str(daemon_on_open_platform))
    consumer = output_pipe()
    launch(SERVER)
    post(block("DoorBell", button="2"))
    assert unstamped([consumer.wait_for_event("DoorBell")]) == [("DoorBell", {"button": "2", "eventId": "DoorBell"})]


def test_a_daemon_with_the_cxx_library_in_it_needs_none_on_the_camera(daemon_on_open_platform: Path) -> None:
    assert {"libstdc++", "libgcc_s"}.isdisjoint(libraries(daemon_on_open_platform))
    assert {"libstdc++", "libgcc_s"} < libraries(Path(daemon_module.PROGRAM))


def test_the_smallest_set_runs_the_timer_the_pipes_and_a_relay(
    daemon_of_small_camera: Path,
    monkeypatch: pytest.MonkeyPatch,
    launch: Callable[..., Daemon],
    output_pipe: Callable[..., OutputPipe],
) -> None:
    monkeypatch.setattr(daemon_module, "PROGRAM", str(daemon_of_small_camera))
    consumer = output_pipe()
    relay = handler(1, "Events/Source#1", handler_type="Relay", Index=2)
    daemon = launch(SERVER | timer(1, 1) | relay)
    daemon.log.wait_for(r"board: relay 2 of Board: mode 1$")
    post(block("DoorBell", button="2"))
    consumer.wait_for_event("DoorBell")


def test_what_needs_a_service_that_the_small_camera_lacks_is_skipped(
    daemon_of_small_camera: Path, monkeypatch: pytest.MonkeyPatch, launch: Callable[..., Daemon]
) -> None:
    monkeypatch.setattr(daemon_module, "PROGRAM", str(daemon_of_small_camera))
    tour = handler(1, "Events/Source#2", handler_type="Tour", Id="1")
    daemon = launch(SERVER | source(1, "Alarm", Index=1) | timer(2, 1) | tour)
    assert daemon.log.matching("Error LoadSources: This camera has no alarm inputs$")
    assert daemon.log.matching("Error LoadHandlers: This camera has no tours$")
    assert len(daemon.log.matching("TimerEventSource started")) == 1


@pytest.mark.not_under("suite", reason="more is compiled for it than for all other tests together")
def test_halvekctl_tells_of_settings_that_are_no_files(ctl_of_small_camera: Path, tmp_path: Path) -> None:
    """By group and key: what such a camera's settings come from has no lines."""
    store = tmp_path / "settings.ini"
    groups = SERVER | timer(1, "60s") | handler(1, "Events/Source#1", handler_type="Relay", EnabledTimes="2200-600")
    store.write_text(ini_text(groups | {"Event/Source#2": {"Type": "Timer"}}))

    def tell(*words: str, status: int) -> str:
        told = subprocess.run([ctl_of_small_camera, "--settings", store, *words], capture_output=True, text=True)
        assert told.returncode == status, told
        assert "this camera hands its settings out: they have no files and no lines" in told.stderr
        return told.stdout

    answer = json.loads(tell("--format", "json", "check", status=1))
    found = {(f["id"], f["group"], f["key"], f["file"], f["line"], f["column"]) for f in answer["findings"]}
    assert ("HK4002", "Events/Handler#1", "EnabledTimes", None, None, None) in found
    assert ("HK2003", "Events/Source#1/Timer", "Interval.sec", None, None, None) in found
    assert ("HK1010", "Event/Source#2", "", None, None, None) in found
    text = tell("check", status=1)
    assert "[Events/Handler#1] EnabledTimes: error: 2200-600 never matches" in text
    shown = json.loads(tell("show", "--as", "json", status=0))
    assert [(edge["from"], edge["to"]) for edge in shown["edges"]] == [("Events/Source#1", "Events/Handler#1")]
    (row,) = json.loads(tell("--format", "json", "explain", "Timer", status=1))["rows"]
    assert (row["verdict"], row["file"], row["line"]) == ("out-of-time", None, None)


def test_the_book_lists_every_platform_header_that_the_daemon_includes() -> None:
    assert headers_of_the_daemon() <= headers_in_the_book()
    assert all((SOURCES / "platform" / header).is_file() for header in headers_in_the_book())


def test_halvekctl_includes_of_the_platform_what_the_book_lists() -> None:
    """But for the three files that another platform has its own of."""
    folder = SOURCES / "companions/ctl"
    replaced = {folder / name for name in ("CameraCheck.cpp", "Store.cpp", "model/RecordFile.cpp")}
    assert {path.name for path in (folder / "sdk").glob("*.cpp")} == {path.name for path in replaced}
    pattern = re.compile(r'^#include "((?:kelto|vassa|util)/[\w/]+\.h)"', re.MULTILINE)
    files = {path for path in folder.rglob("*") if path.suffix in (".h", ".cpp")} - replaced
    assert {header for path in files for header in pattern.findall(path.read_text())} <= headers_in_the_book()
