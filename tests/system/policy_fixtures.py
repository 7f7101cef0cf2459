"""The fixture of the tests that need a bus with the installed policies; a test file names this as its plugin."""

from collections.abc import Callable, Iterator

import pytest
from policy_bus import POLICIES, USUAL, PolicyBus


@pytest.fixture
def start_bus() -> Iterator[Callable[..., PolicyBus]]:
    buses: list[PolicyBus] = []

    def start(*roles: str, defaults: str = USUAL, policies: tuple[str, ...] = tuple(POLICIES)) -> PolicyBus:
        buses.append(PolicyBus(roles, defaults, policies))
        return buses[-1]

    yield start
    for bus in buses:
        bus.close()
