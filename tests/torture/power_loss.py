"""Takes the power from a camera at random instants, and looks what its outbox still has; see scripts/outbox-power-loss.

The spool is on ext4 on a loop device, whose file is in memory. What is in that file has reached the disk, what is in
the page cache above has not. An instant is a copy of the file during which the device has completed no write.
"""

import argparse
import itertools
import os
import random
import secrets
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import NamedTuple

from outbox import FLASH, Outbox, make_private
from testing.ftp_server import FtpServer
from testing.waiting import wait_until

SPOOL = FLASH.parent
IMAGE_BYTES = 8 * 1024 * 1024
PATIENT_COPIES = 3
BATCH = 25  # instants between two looks at what is left
OPTIONS = ("noatime", "noatime,data=writeback,noauto_da_alloc")
CONFIGURATION = "[Outbox]\nSpoolLimit=400K\nRamLimit=100K\nFlashBudget=4096M\nDurability={}\n"
SECTOR = 512


class Instant(NamedTuple):
    image: Path
    promised: set[str]  # numbers that must be there


class Disk:
    """An image, mounted as the spool."""

    def __init__(self, image: Path, options: str) -> None:
        self.image = image
        subprocess.run(["mount", "-n", "-o", f"loop,{options}", image, SPOOL], check=True)
        lines = [line.split() for line in Path("/proc/self/mountinfo").read_text().splitlines()]
        self.stat = Path(f"/sys/dev/block/{[line[2] for line in lines if line[4] == str(SPOOL)][-1]}/stat")

    @property
    def written(self) -> tuple[int, int]:
        """Writes and sectors that are done."""
        fields = self.stat.read_text().split()
        return int(fields[4]), int(fields[6])

    def copy(self, image: Path, writer: subprocess.Popen) -> None:
        """The disk as it is at one instant, if need be one at which the writer stands still between two calls."""
        for attempt in itertools.count():
            if attempt == PATIENT_COPIES:
                writer.send_signal(signal.SIGSTOP)
            before = self.written
            shutil.copyfile(self.image, image)
            if self.written == before:
                break
        writer.send_signal(signal.SIGCONT)

    def take_away(self) -> None:
        subprocess.run(["umount", "-n", SPOOL], check=True)


def make_image(path: Path) -> Path:
    with path.open("wb") as file:
        file.truncate(IMAGE_BYTES)
    subprocess.run(["mkfs.ext4", "-q", "-F", path], check=True)
    return path


class Camera:
    """Uploads without end to a server that comes and goes."""

    def __init__(self, folder: Path, durability: str) -> None:
        (folder / "server").mkdir(parents=True)
        self.ftp = FtpServer(folder / "server")
        self.ftp.set_fault("refuse")
        self.outbox = Outbox(folder)
        self.outbox.configure(CONFIGURATION.format(durability))
        self.durability = durability
        self.chance = random.Random()
        self.contents: dict[str, tuple[str, bytes]] = {}  # of numbers: names on the server
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self._work)

    def start(self) -> None:
        self.outbox.start()
        self.thread.start()

    def _work(self) -> None:
        while not self.ending.is_set():
            content = secrets.token_bytes(self.chance.choice([0, 100, 4000, 30_000, 60_000]))
            name = f"/{len(self.contents)}.jpg"
            try:
                number = self.outbox.put(content, name)
            except AssertionError:
                continue  # there is no room, while all that is there is being sent
            self.contents[number] = (name, content)
            if self.chance.random() < 0.1:
                self.ftp.set_fault(self.chance.choice(["none", "refuse"]))
                self.outbox.run("flush")

    def promised(self) -> set[str]:
        if self.durability == "early":
            return set(self.contents)
        items = self.outbox.answer("list")["items"]
        # What has failed goes there next, and it tells so when it is there.
        return {item["id"] for item in items if item["tier"] == "flash"}

    def waiting(self) -> set[str]:
        return {item["id"] for item in self.outbox.answer("list")["items"]}

    def close(self) -> None:
        self.ending.set()
        self.thread.join()
        self.outbox.stop(signal.SIGKILL)
        self.ftp.close()


def take_instants(folder: Path, durability: str, options: str, count: int) -> tuple[list[Instant], Camera]:
    camera = Camera(folder, durability)
    disk = Disk(make_image(folder / "image"), options)
    (SPOOL / "lost+found").rmdir()
    camera.start()
    instants = []
    for number in range(count):
        time.sleep(camera.chance.uniform(0, 0.1))
        promised = set() if durability == "ram" else camera.promised()
        image = folder / f"instant-{number}"
        disk.copy(image, camera.outbox.process)
        instants.append(Instant(image, promised & camera.waiting()))
    camera.close()
    disk.take_away()
    return instants, camera


def faults_of(instant: Instant, camera: Camera, folder: Path, options: str) -> list[str]:
    """What the outbox has lost of its promise, after the power is back."""
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "server").mkdir(parents=True)
    outbox = Outbox(folder)
    disk = Disk(instant.image, options)
    faults = []
    with FtpServer(folder / "server") as ftp:
        there = {path.name for path in FLASH.iterdir()} if FLASH.exists() else set()
        faults += [f"{number} was promised and is not there" for number in instant.promised - there]
        if camera.durability == "ram" and there:
            faults.append(f"there are {len(there)} items on flash")
        outbox.start()
        wait_until(lambda: outbox.counts()["queued"] == 0, "all is delivered", patience=120)
        counts = outbox.counts()
        if counts["delivered"] != len(there):
            faults.append(f"{len(there)} were there: {counts}")
        for number in there:
            name, content = camera.contents.get(number, ("", b""))
            path = ftp.folder / name.removeprefix("/")
            # The last one may not have been told to anybody yet.
            if name and (not path.is_file() or path.read_bytes() != content):
                faults.append(f"{number} has not arrived as it was")
        faults += [f"damaged: {path.name}" for path in (SPOOL / "bad").iterdir()]
        outbox.stop(signal.SIGKILL)
    disk.take_away()
    return faults


def measure_flash(folder: Path, has_network: bool) -> tuple[int, int]:
    """Bytes that 100 pictures of 30 kB write, and those of the pictures."""
    (folder / "server").mkdir(parents=True)
    outbox = Outbox(folder)
    disk = Disk(make_image(folder / "image"), "noatime")
    with FtpServer(folder / "server") as ftp:
        (SPOOL / "lost+found").rmdir()
        outbox.start()
        outbox.put(b"the first one", "/first.jpg")
        outbox.wait_for(delivered=1)
        subprocess.run(["sync"], check=True)
        before = disk.written[1]
        if not has_network:
            ftp.set_fault("refuse")
        for number in range(100):
            outbox.put(secrets.token_bytes(30_000), f"/{number}.jpg")
            if has_network:
                outbox.wait_for(queued=0)
        ftp.set_fault("none")
        outbox.run("flush")
        outbox.wait_for(patience=120, delivered=101, queued=0)
        subprocess.run(["sync"], check=True)
        written = disk.written[1] - before
        outbox.stop()
    disk.take_away()
    return written * SECTOR, 100 * 30_000


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--instants", type=int, default=500)
    parser.add_argument("folder", type=Path)
    arguments = parser.parse_args()
    make_private(arguments.folder)
    faults = 0
    for has_network in (True, False):
        written, payload = measure_flash(arguments.folder / f"flash-{has_network}", has_network)
        print(
            f"flash, {'good' if has_network else 'no'} network: {written} bytes for {payload}: {written / payload:.2f}"
        )
        faults += written > (0 if has_network else 1.9 * payload)
    taken = {"early": 0, "late": 0, "ram": 0}
    promised = dict.fromkeys(taken, 0)
    batch = 0
    while sum(taken.values()) < arguments.instants:
        durability, options = list(taken)[batch % 3], OPTIONS[batch // 3 % 2]
        folder = arguments.folder / f"batch-{batch}"
        count = min(BATCH, -(-arguments.instants // 3))
        instants, camera = take_instants(folder, durability, options, count)
        for instant in instants:
            found = faults_of(instant, camera, folder / "after", options)
            faults += len(found)
            for fault in found:
                print(f"{durability}, {options}: {fault}", flush=True)
            taken[durability] += 1
            promised[durability] += len(instant.promised)
        shutil.rmtree(folder)
        batch += 1
        print(f"after {sum(taken.values())} instants: {faults} faults", flush=True)
    for durability, count in taken.items():
        print(f"{durability}: {count} instants, {promised[durability]} items promised")
    print(f"{faults} faults")
    return faults != 0


if __name__ == "__main__":
    if os.geteuid() != 0:
        sys.exit("power_loss: this takes root")
    sys.exit(main())
