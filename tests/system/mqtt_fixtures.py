"""Fixtures of the tests of halvek-mqtt; a test file names this as its plugin."""

import shutil
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from testing.bridge import Bridge, configuration
from testing.broker import OPEN, Broker, Subscriber


@pytest.fixture
def start_broker(tmp_path: Path) -> Iterator[Callable[..., Broker]]:
    brokers: list[Broker] = []

    def start(text: str = OPEN, **options) -> Broker:
        folder = tmp_path / f"broker{len(brokers)}"
        folder.mkdir()
        brokers.append(Broker(folder, text, **options))
        return brokers[-1]

    yield start
    for broker in brokers:
        broker.close()


@pytest.fixture
def broker(start_broker: Callable[..., Broker]) -> Broker:
    return start_broker()


@pytest.fixture
def subscriber(broker: Broker) -> Iterator[Subscriber]:
    """Hears everything, from before the bridge is started."""
    heard = Subscriber()
    broker.log.wait_for("Sending SUBACK")
    yield heard
    heard.close()


@pytest.fixture
def start_bridge(tmp_path: Path, clean_run: None) -> Iterator[Callable[..., Bridge]]:
    """Starts bridges; one that is still running at the end must stop in good order."""
    bridges: list[Bridge] = []

    def start(*, ready: bool = True, text: str | None = None, options: dict | None = None, **keys) -> Bridge:
        folder = tmp_path / f"bridge{len(bridges)}"
        bridges.append(Bridge(folder, configuration(**keys) if text is None else text, **(options or {})))
        if ready:
            bridges[-1].wait_until_ready()
        return bridges[-1]

    yield start
    try:
        running = [bridge for bridge in bridges if bridge.process.poll() is None]
        # All at once: each may wait for a broker that says nothing.
        for bridge in running:
            bridge.process.terminate()
        for bridge in running:
            assert bridge.wait_for_exit() == 0
    finally:
        for bridge in bridges:
            bridge.close()
        shutil.rmtree("/run/halvek-mqtt", ignore_errors=True)
