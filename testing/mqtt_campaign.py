"""What scripts/mqtt-faults runs: numbered events through a broker that fails at random."""

import argparse
import collections
import json
import os
import random
import signal
import sys
import tempfile
import threading
import time
from pathlib import Path

from testing.fake_broker import PUBLISH, Client, FakeBroker, until_the_end
from testing.fleet import FleetBridge
from testing.unreliable_mosquitto import UnreliableMosquitto
from testing.waiting import NotSeen, wait_until

EVENTS_A_SECOND = 20
INPUTS = 4


class UnreliableBroker:
    """Remembers every event that reaches it, and fails at random moments: before an answer, behind it, or silently."""

    def __init__(self, seed: int, faults: float) -> None:
        """@param faults how likely one is with each packet"""
        self.ids: list[int] = []
        self.numbers: collections.Counter = collections.Counter()
        self.states: dict[str, str] = {}
        self.faults: collections.Counter = collections.Counter()
        self.is_reliable = False
        self._random = random.Random(seed)
        self._likely = faults
        self._lock = threading.Lock()
        self.broker = FakeBroker(self._serve)

    def _serve(self, client: Client) -> None:
        for received in until_the_end(client):
            fault = self._draw()
            if fault == "closes before":
                return
            if received.kind == PUBLISH:
                self._remember(*client.published(received))
            if fault == "closes behind":
                return
            if fault == "is slow":
                time.sleep(3)
            elif fault == "is silent":
                time.sleep(8)
                return
            client.answer(received)

    def _draw(self) -> str:
        with self._lock:
            if self.is_reliable or self._random.random() > self._likely:
                return ""
            fault = self._random.choice(["closes before", "closes behind", "is slow", "is silent"])
            self.faults[fault] += 1
            return fault

    def _remember(self, topic: str, payload: bytes) -> None:
        with self._lock:
            if "/event/" in topic:
                event = json.loads(payload)
                self.ids.append(int(event["id"].partition("-")[2]))
                self.numbers[int(event["props"]["number"])] += 1
            elif "/alarm/" in topic:
                self.states[topic.rpartition("/")[2]] = payload.decode()

    def step(self) -> None:
        """All that goes wrong here goes wrong with a packet."""

    def be_reliable(self) -> None:
        self.is_reliable = True

    def close(self) -> None:
        self.broker.close()


def run_backwards(ids: list[int]) -> int:
    """Events that came behind a younger one, but for repetitions of the one before."""
    return sum(earlier > later for earlier, later in zip(ids, ids[1:]))


def run(minutes: float, unreliable: UnreliableBroker | UnreliableMosquitto, seed: int, folder: Path) -> bool:
    text = f"[Mqtt]\nBroker=mqtt://127.0.0.1:{unreliable.broker.port}\nId=cam1\n"
    bridge = FleetBridge(os.environ["HALVEK_MQTT"], folder, "cam1", text)
    bridge.wait_until_ready()
    draw = random.Random(seed)
    states: dict[str, str] = {}
    begin = time.monotonic()
    while time.monotonic() < begin + minutes * 60:
        index, state = str(draw.randrange(INPUTS)), draw.choice(["0", "1"])
        states[index] = "ON" if state == "1" else "OFF"
        bridge.feed_alarm(index, state)
        unreliable.step()
        time.sleep(max(0.0, begin + bridge.fed / EVENTS_A_SECOND - time.monotonic()))
    unreliable.be_reliable()
    wait_until(lambda: bridge.settled(), "everything is sent or counted", patience=700)
    wait_until(lambda: unreliable.states == states, "the states are right", patience=60)
    told = bridge.status()["counters"]
    arrived, twice = len(unreliable.numbers), sum(unreliable.numbers.values()) - len(unreliable.numbers)
    dropped = bridge.fed - told["sent"]
    connects = len(unreliable.broker.connects)
    print(f"{minutes:g} minutes, seed {seed}; faults: {dict(unreliable.faults)}; {connects} connects")
    print(f"{bridge.fed:,} events fed, {arrived:,} arrived, {twice} of them again, {dropped} counted as dropped")
    backwards = run_backwards(unreliable.ids)
    print(f"{backwards} out of order; the states at the end are right")
    lost = bridge.fed - arrived - dropped
    used = sum(int((task / "schedstat").read_text().split()[0]) for task in bridge.tasks()) / 1e9
    print(f"{max(lost, 0)} lost; {used / (time.monotonic() - begin):.2%} of a processor")
    bridge.close()
    unreliable.close()
    return lost <= 0 and backwards == 0


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--faults", type=float, default=4, help="in a thousand packets")
    parser.add_argument("--mosquitto", action="store_true")
    options = parser.parse_args()
    # Whoever ends it finds its folder removed.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory() as name:
        folder, seed, faults = Path(name), options.seed, options.faults / 1000
        unreliable = UnreliableMosquitto(seed, faults, folder) if options.mosquitto else UnreliableBroker(seed, faults)
        try:
            return 0 if run(options.minutes, unreliable, seed, folder) else 1
        except NotSeen as error:
            print(f"mqtt-faults: {error}", file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())
