"""Fixtures of the tests of the virtual camera's page; a test file names this and camera_fixtures as its plugins."""

from collections.abc import Callable, Iterator

import pytest
from testing.bus import PrivateBus
from testing.camera import VirtualCamera
from testing.page import VcamPage, page_on


@pytest.fixture
def start_page(bus: PrivateBus, tmp_path) -> Iterator[Callable[..., VcamPage]]:
    """Starts pages; each must end in good order, unless the test has ended it."""
    pages: list[VcamPage] = []

    def start(*options: str, **settings) -> VcamPage:
        snapshot = settings.pop("snapshot", tmp_path / "camera" / "img2.jpg")
        pages.append(page_on(bus, snapshot, *options, **settings))
        return pages[-1]

    yield start
    try:
        for page in pages:
            if page.process.poll() is None:
                assert page.stop() == 0
                assert page.complaints.items == []
    finally:
        for page in pages:
            page.close()


@pytest.fixture
def page(camera: VirtualCamera, start_page) -> VcamPage:
    """The page of the camera."""
    return start_page()
