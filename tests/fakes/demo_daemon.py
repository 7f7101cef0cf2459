#!/usr/bin/python3
"""A stand-in for the daemon that behaves just well enough for the demo, or goes wrong in one way.

The environment variable FAULT names what goes wrong; without one it is a good daemon.
"""

import os
import select
import signal
import socket
import sys
import time

FAULT = os.environ.get("FAULT", "")
INPUT_PIPE = "/var/run/halvek.pipe"
OUTPUT_FOLDER = "/var/run/halvek"
INTERVAL = 0.5 if FAULT == "ticks too fast" else 2.0


def log(text: str) -> None:
    print(f"2026-11-21T03:40:00.123 Information halvek: {text}", file=sys.stderr, flush=True)


def configure() -> None:
    log("Configuring...")
    log("EventServerSource started")


def notify_ready() -> None:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service_manager:
        service_manager.sendto(b"READY=1", os.environ["NOTIFY_SOCKET"])


def pass_on(event_type: str, properties: dict[str, str]) -> None:
    lines = [f"[{event_type}]", *(f"{key}={value}" for key, value in sorted(properties.items())), ".", ""]
    for name in sorted(os.listdir(OUTPUT_FOLDER)):
        meant = event_type in name or "halvek.any" in name
        if meant or (FAULT == "uses the wrong pipe" and event_type != "Timer"):
            with open(f"{OUTPUT_FOLDER}/{name}", "w") as pipe:
                pipe.write("\n".join(lines))


def receive(text: str) -> None:
    for block in text.split(".\n")[:-1]:
        header, *lines = block.splitlines()
        event_type = header[1:-1]
        properties = dict(line.split("=", 1) for line in lines)
        properties["eventId"] = properties.get("region", event_type)
        properties["eventType"] = event_type
        if FAULT == "drops posted events":
            continue
        for _ in range(2 if FAULT == "doubles events" else 1):
            pass_on(event_type, properties)


def handle(number: int) -> None:
    if number == signal.SIGHUP and FAULT != "ignores the reload":
        log("got: 'R' (82)")
        for _ in range(2 if FAULT == "reloads twice" else 1):
            configure()
    if number == signal.SIGTERM and FAULT != "does not stop":
        log("run complete")
        sys.exit(3 if FAULT == "stops with an error" else 0)


def main() -> None:
    if FAULT == "ends at once":
        sys.exit(1)
    signals, woken = os.pipe()
    os.set_blocking(woken, False)
    signal.set_wakeup_fd(woken)
    for number in (signal.SIGHUP, signal.SIGTERM):
        signal.signal(number, lambda *_: None)
    os.mkfifo(INPUT_PIPE)
    posted = os.open(INPUT_PIPE, os.O_RDWR | os.O_NONBLOCK)
    configure()
    if FAULT != "is never ready":
        notify_ready()
    next_tick = time.monotonic()
    while True:
        readable, _, _ = select.select([signals, posted], [], [], max(0.0, next_tick - time.monotonic()))
        if signals in readable:
            handle(os.read(signals, 1)[0])
        if posted in readable:
            receive(os.read(posted, 4096).decode())
        if time.monotonic() >= next_tick:
            next_tick += INTERVAL
            if FAULT != "drops timer events":
                pass_on("Timer", {"eventType": "Timer"})


main()
