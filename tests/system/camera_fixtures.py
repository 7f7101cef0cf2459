"""Fixtures of the tests that need a bus and a virtual camera on it; a test file names this as its plugin."""

import functools
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.bus import PrivateBus
from testing.bus_client import BusClient
from testing.camera import VirtualCamera
from testing.daemon import Daemon


@pytest.fixture
def bus(tmp_path: Path) -> Iterator[PrivateBus]:
    with PrivateBus(tmp_path) as private_bus:
        yield private_bus


@pytest.fixture
def camera(bus: PrivateBus, tmp_path: Path) -> Iterator[VirtualCamera]:
    """One that must end in good order, unless the test has ended it."""
    with VirtualCamera(bus, tmp_path / "camera") as virtual_camera:
        yield virtual_camera
        if virtual_camera.process.poll() is None:
            assert virtual_camera.stop() == 0
            assert virtual_camera.complaints.items == []


@pytest.fixture
def listener(camera: VirtualCamera) -> BusClient:
    """The camera's client, which hears of every signal too."""
    camera.client.listen("type='signal'")
    return camera.client


@pytest.fixture
def launch_on_bus(bus: PrivateBus, launch: Callable[..., Daemon]) -> Callable[..., Daemon]:
    """As launch; the daemon finds the bus."""
    return functools.partial(launch, environment=bus.environment)
