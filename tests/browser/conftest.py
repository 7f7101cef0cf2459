"""Fixtures of the tests in a browser: one browser for all of them, a camera and a page for each."""

import os
import shutil
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.browser import Browser
from testing.bus import PrivateBus
from testing.camera import VirtualCamera
from testing.daemon import Daemon
from testing.page import VcamPage
from testing.pipes import DEFAULT_INPUT, PIPE_FOLDER

pytest_plugins = ["camera_fixtures", "page_fixtures"]


@pytest.fixture(scope="session")
def chromium(tmp_path_factory) -> Iterator[Browser]:
    with Browser(tmp_path_factory.mktemp("browser")) as browser:
        yield browser


@pytest.fixture
def page(camera: VirtualCamera, start_page: Callable[..., VcamPage]) -> VcamPage:
    """The page of the camera, with halvekctl at its side."""
    return start_page("--halvekctl", os.environ["HALVEK_CTL"])


@pytest.fixture
def browser(chromium: Browser, page: VcamPage) -> Iterator[Browser]:
    """The browser with the page open; its console has to stay empty."""
    chromium.complaints()
    chromium.resize(1400, 1000)
    chromium.open(page.url)
    yield chromium
    assert chromium.complaints() == []
    chromium.open("about:blank")


@pytest.fixture(autouse=True)
def clean_run() -> Iterator[None]:
    PIPE_FOLDER.mkdir(exist_ok=True)
    yield
    shutil.rmtree(PIPE_FOLDER, ignore_errors=True)
    DEFAULT_INPUT.unlink(missing_ok=True)


@pytest.fixture
def launch(tmp_path: Path, clean_run: None) -> Iterator[Callable[..., Daemon]]:
    """Starts daemons; each must stop in good order."""
    daemons: list[Daemon] = []

    def start(settings, **options) -> Daemon:
        folder = tmp_path / f"daemon{len(daemons)}"
        folder.mkdir()
        daemons.append(Daemon(folder, settings, **options))
        daemons[-1].wait_until_ready()
        return daemons[-1]

    yield start
    for daemon in daemons:
        assert daemon.stop() == 0
        daemon.close()


@pytest.fixture
def monitor_of(bus: PrivateBus, launch: Callable[..., Daemon]) -> Callable[..., Daemon]:
    return lambda settings: launch(settings, environment=bus.environment)
