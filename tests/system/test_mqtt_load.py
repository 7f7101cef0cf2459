"""What halvek-mqtt costs the daemon when it is killed under load, and when its broker says nothing: no descriptor.

HALVEK_TEST_KILLS says how often it is killed; see flooding.py for a rate that must be reached.
"""

import os
import statistics
import time

import pytest
from flooding import QUIET, Descriptors, Load
from testing import fake_broker
from testing.bridge import status
from testing.fake_broker import FakeBroker
from testing.settings import SERVER
from testing.waiting import wait_until

pytestmark = [
    pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there"),
    pytest.mark.alone("it posts as fast as the daemon reads"),
]
pytest_plugins = ["mqtt_fixtures"]

PAIRS = int(os.environ.get("HALVEK_TEST_PAIRS", "1"))
KILLS = int(os.environ.get("HALVEK_TEST_KILLS", "5"))


@pytest.fixture
def daemon(launch):
    return launch(SERVER, **QUIET)


def test_killed_under_load_it_costs_the_daemon_no_descriptor(daemon, output_pipe, broker, start_bridge):
    before = Descriptors(daemon)
    with Load(output_pipe("Beat")) as load:
        for _ in range(KILLS):
            bridge = start_bridge()
            wait_until(lambda: status()["counters"]["received"] > 5000, "it is under load")
            bridge.process.kill()
            bridge.wait_for_exit()
        start_bridge()
        wait_until(lambda: status()["counters"]["received"] > 5000, "the last one is under load")
    load.delays()
    load.assert_kept_up()
    before.assert_none_lost()


def loaded(beat, seconds: float = 3) -> Load:
    with Load(beat) as load:
        began = time.monotonic()
        wait_until(lambda: time.monotonic() > began + seconds, "a while of it")
    return load


def test_a_silent_broker_and_a_flood_cost_the_daemon_nothing(daemon, output_pipe, start_bridge):
    """In pairs, one after the other: the machine is not the same all the time."""
    beat = output_pipe("Beat")
    silent = FakeBroker(fake_broker.say_nothing)
    before = Descriptors(daemon)
    medians: dict[str, list[float]] = {"without": [], "with": []}
    for _ in range(PAIRS):
        for name, found in medians.items():
            bridge = start_bridge(Broker=f"mqtt://127.0.0.1:{silent.port}") if name == "with" else None
            load = loaded(beat)
            delays = load.delays()
            found.append(statistics.median(delays))
            print(f"{name}: {load.rate():,.0f} events/s, {found[-1] * 1e3:.2f} ms, {max(delays) * 1e3:.1f} ms most")
            if bridge is not None:
                wait_until(lambda: status()["counters"]["received"] == load.posted, "every event has been read")
                counted = status()
                assert counted["counters"]["dropped_full"] == load.posted - counted["queued"]
                assert bridge.stop() == 0
    silent.close()
    before.assert_none_lost()
    without, beside = (statistics.median(found) for found in medians.values())
    print(f"median of {PAIRS} pairs: {without * 1e3:.2f} ms without the bridge, {beside * 1e3:.2f} ms with it")
    assert beside < 5 * without + 0.05
