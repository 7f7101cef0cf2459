"""What scripts/simulate-fleet runs: a broker is killed under a fleet of cameras and comes back."""

import argparse
import collections
import contextlib
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

from testing.broker import MOSQUITTO, PORT, answers
from testing.collector import Lines
from testing.fleet import FleetBridge
from testing.processes import dies_with_us
from testing.waiting import NotSeen, wait_until

EVENTS_A_SECOND = 10  # of each camera
ALL_BACK_WITHIN = 90  # seconds
MOST_CONNECTS_A_SECOND = 20
# Of the broker's own bounds only the one on what waits for a slow subscriber is in the way.
CONFIGURATION = f"""listener {PORT} 127.0.0.1
allow_anonymous true
log_type notice
log_type subscribe
user root
max_queued_messages 0
"""
WATCHER = "watcher"
CONNECTED = r"New client connected from .* as cam\d+ "


class QuietBroker:
    """A broker that says who connects, and nothing else."""

    def __init__(self, folder: Path) -> None:
        self._file = folder / "mosquitto.conf"
        self._file.write_text(CONFIGURATION)
        self.process: subprocess.Popen | None = None
        self.log: Lines | None = None

    def start(self) -> None:
        command = dies_with_us(MOSQUITTO, "-c", str(self._file))
        self.process = subprocess.Popen(command, stderr=subprocess.PIPE)
        self.log = Lines(os.dup(self.process.stderr.fileno()), "broker")
        wait_until(lambda: answers(PORT), "the broker answers")

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def connects(self) -> list[float]:
        """When each bridge connected, in seconds of the monotonic clock."""
        return [self.log.time_of(i) for i, line in enumerate(self.log.items) if re.search(CONNECTED, line)]


class Events(Lines):
    """Hears every event of every camera, and remembers who sent which."""

    def __init__(self) -> None:
        self.numbers: dict[str, collections.Counter] = collections.defaultdict(collections.Counter)
        self.out_of_order = 0
        self._last: dict[str, int] = collections.defaultdict(int)
        words = ["-p", str(PORT), "-i", WATCHER, "-c", "-q", "1", "-t", "halvek/+/event/#"]
        self._process = subprocess.Popen(
            dies_with_us("mosquitto_sub", *words), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL
        )
        super().__init__(os.dup(self._process.stdout.fileno()), "subscriber")

    def take(self, descriptor: int) -> list[str]:
        for line in super().take(descriptor):
            event = json.loads(line)["props"]
            camera, number = event["camera"], int(event["number"])
            self.numbers[camera][number] += 1
            self.out_of_order += number < self._last[camera]
            self._last[camera] = max(number, self._last[camera])
        return []


def busiest_second(times: list[float]) -> int:
    """The most in any second, wherever it begins."""
    return max((sum(begin <= other < begin + 1 for other in times) for begin in times), default=0)


def feed_for(bridges: list[FleetBridge], seconds: float) -> None:
    begin = time.monotonic()
    rounds = 0
    while time.monotonic() < begin + seconds:
        for place, bridge in enumerate(bridges):
            bridge.feed()
            if place % 20 == 0:
                time.sleep(max(0.0, begin + (rounds + place / len(bridges)) / EVENTS_A_SECOND - time.monotonic()))
        rounds += 1


@contextlib.contextmanager
def fleet(count: int, folder: Path) -> Iterator[list[FleetBridge]]:
    bridges = []
    try:
        for number in range(count):
            name = f"cam{number}"
            text = f"[Mqtt]\nBroker=mqtt://127.0.0.1:{PORT}\nId={name}\n"
            bridges.append(FleetBridge(os.environ["HALVEK_MQTT"], folder, name, text))
        for bridge in bridges:
            bridge.wait_until_ready()
        yield bridges
    finally:
        for bridge in bridges:
            bridge.close()


def all_sent(bridges: list[FleetBridge]) -> bool:
    return all(bridge.settled() for bridge in bridges)


def unseen(bridges: list[FleetBridge], events: Events) -> int:
    """How many events have not come out at the subscriber."""
    return sum(bridge.fed - len(events.numbers[bridge.name]) for bridge in bridges)


def resident_mib(bridges: list[FleetBridge]) -> float:
    pages = [int(Path(f"/proc/{bridge.process.pid}/statm").read_text().split()[1]) for bridge in bridges]
    return sum(pages) / len(pages) * os.sysconf("SC_PAGE_SIZE") / 2**20


def simulate(count: int, seconds: int, folder: Path) -> bool:
    broker = QuietBroker(folder)
    broker.start()
    events = Events()
    with fleet(count, folder) as bridges:
        wait_until(lambda: len(broker.connects()) >= count, "all have connected", patience=ALL_BACK_WITHIN)
        print(f"{count} processes of halvek-mqtt, {resident_mib(bridges):.1f} MiB of memory each")
        feed_for(bridges, seconds)
        wait_until(lambda: all_sent(bridges), "all is sent", patience=60)
        fed = sum(bridge.fed for bridge in bridges)
        print(f"{fed:,} events in {seconds} s, all acknowledged by the broker")
        wait_until(lambda: unseen(bridges, events) == 0, "the subscriber has seen all", patience=60)
        broker.kill()
        feed_for(bridges, 1)
        # The subscriber is there first: a broker that is killed forgets who has subscribed.
        for bridge in bridges:
            bridge.process.send_signal(signal.SIGSTOP)
        broker.start()
        broker.log.wait_for(f"{WATCHER} 1 halvek")
        for bridge in bridges:
            bridge.process.send_signal(signal.SIGCONT)
        began = time.monotonic()
        feed_for(bridges, 30)
        wait_until(lambda: len(broker.connects()) >= count, "all are back", patience=ALL_BACK_WITHIN)
        connects = broker.connects()
        last, most = max(connects) - began, busiest_second(connects)
        print(
            f"the broker is killed and started: all are back after {last:.1f} s, {most} connects in the busiest second"
        )
        wait_until(lambda: all_sent(bridges), "all is sent", patience=60)
        fed = sum(bridge.fed for bridge in bridges)
        counted = collections.Counter()
        for bridge in bridges:
            counted.update(bridge.status()["counters"])
        dropped = fed - counted["sent"]
        print(f"{fed:,} events fed, {counted['received']:,} received, {counted['sent']:,} sent, {dropped} dropped")
        with contextlib.suppress(NotSeen):
            wait_until(lambda: unseen(bridges, events) == dropped, "the subscriber has seen all")
        missing = unseen(bridges, events) - dropped
        twice = sum(sum(numbers.values()) - len(numbers) for numbers in events.numbers.values())
        print(f"the subscriber lacks {missing} of those sent, has {twice} twice, {events.out_of_order} out of order")
        return (
            missing == 0 and last <= ALL_BACK_WITHIN and most <= MOST_CONNECTS_A_SECOND and counted["received"] == fed
        )


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--cameras", type=int, default=200)
    parser.add_argument("--seconds", type=int, default=60)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        try:
            return 0 if simulate(options.cameras, options.seconds, Path(folder)) else 1
        except NotSeen as error:
            print(f"simulate-fleet: {error}", file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())
