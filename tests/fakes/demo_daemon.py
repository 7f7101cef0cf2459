#!/usr/bin/python3 -B
"""A stand-in for the daemon that behaves just well enough for the demo, or goes wrong in one way.

The environment variable FAULT names what goes wrong; without one it is a good daemon.
"""

import os
import select
import signal
import socket
import sys
import threading
import time

from demo_sender import Sender
from testing.bus_client import SIGNAL, BusClient, Message

FAULT = os.environ.get("FAULT", "")
INPUT_PIPE = "/var/run/halvek.pipe"
OUTPUT_FOLDER = "/var/run/halvek"
INTERVAL = 2.0
DWELL = 0.2 if FAULT == "parks too early" else 2.0
FOREVER = 1e6  # seconds


def log(text: str) -> None:
    print(f"2026-11-21T03:40:00.123 Information halvek: {text}", file=sys.stderr, flush=True)


def configure() -> None:
    log("Configuring...")
    log("TimerEventSource started")


def notify_ready() -> None:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service_manager:
        service_manager.sendto(b"READY=1", os.environ["NOTIFY_SOCKET"])


def completed(event_type: str, properties: dict[str, str]) -> dict[str, str]:
    return dict(sorted((properties | {"eventType": event_type}).items()))


def pass_on(event_type: str, properties: dict[str, str]) -> None:
    properties = completed(event_type, properties)
    lines = [f"[{event_type}]", *(f"{key}={value}" for key, value in properties.items()), ".", ""]
    for name in sorted(os.listdir(OUTPUT_FOLDER)):
        meant = event_type in name or "halvek.any" in name
        if meant or (FAULT == "uses the wrong pipe" and event_type != "Timer"):
            with open(f"{OUTPUT_FOLDER}/{name}", "w") as pipe:
                pipe.write("\n".join(lines))


class Camera:
    """The camera's services, for one thread."""

    def __init__(self) -> None:
        self.bus = BusClient(os.environ["DBUS_SYSTEM_BUS_ADDRESS"].removeprefix("unix:path="))

    def call(self, provider: str, method: str, signature: str, *arguments: object) -> list:
        return self.bus.call(
            f"com.kelto.{provider}", f"/com/kelto/{provider}", f"com.kelto.{provider}", method, signature, *arguments
        )

    def pulse_relay(self) -> None:
        self.call("RelayV3", "SetConfiguration", "sibiiii", "Local", 0, False, 3, 200, 100, 3)
        self.call("RelayV3", "Activate", "sii", "Local", 0, 3)

    def turn(self, preset: str, level: int) -> None:
        if not self.call("PresetsV2", "IsAt", "s", preset)[0] or FAULT == "turns where the head is already":
            self.call("PresetsV2", "GoTo", "sdi", preset, 1.0, level)

    def start_tour(self) -> None:
        self.call("Tour", "Start", "si", "1", 900)


class Listener:
    """What comes from the camera, on a thread of its own."""

    def __init__(self) -> None:
        self.camera = Camera()
        self.parking = threading.Timer(0, lambda: None)
        self.camera.bus.listen("type='signal',sender='com.kelto.AlarmV3'")
        self.camera.bus.listen("type='signal',interface='com.zentu.analytics'")
        threading.Thread(target=self.run, daemon=True).start()

    def run(self) -> None:
        handlers = {
            "StateChanged": self.on_alarm,
            "AnalyticsAlert": self.on_alert,
            "IdleChanged": self.on_idle_change,
        }
        position = 0
        while True:
            position = self.camera.bus.wait(
                lambda item: item.kind == SIGNAL and item.member in handlers, "", after=position, patience=FOREVER
            )
            message: Message = self.camera.bus.items[position - 1]
            handlers[message.member](*message.arguments)

    def on_alarm(self, bank: str, index: int, active: bool) -> None:
        properties = {"alarmBank": bank, "alarmIndex": str(index), "alarmState": str(int(active))}
        if index == 2:
            self.camera.pulse_relay()
            self.camera.turn("3", 900 if FAULT == "takes an alarm for any event" else 400)
        if index == 1:
            Sender(FAULT).send(completed("Alarm", properties))
        pass_on("Alarm", properties)

    def on_alert(self, *fields: object) -> None:
        self.camera.start_tour()
        points = "|".join(f"({x:g},{y:g})" for x, y in fields[5])
        name = fields[3] if FAULT == "decodes no rule name" else fields[3].replace("%20", " ")
        pass_on("AnalyticsAlert", {"source": fields[0], "ruleName": name, "rulePoints": points})

    def on_idle_change(self, state: int) -> None:
        self.parking.cancel()
        if state == 0:
            self.parking = threading.Timer(DWELL, pass_on, ("Park", {}))
            self.parking.daemon = True
            self.parking.start()


def receive(text: str, camera: Camera) -> None:
    for block in text.split(".\n")[:-1]:
        header, *lines = block.splitlines()
        event_type = header[1:-1]
        properties = dict(line.split("=", 1) for line in lines)
        properties["eventId"] = properties.get("region", event_type)
        if event_type == "Doorbell":
            camera.turn("5", 400 if FAULT == "takes a posted event for an alarm" else 900)
        doubled = FAULT == "doubles events" and event_type == "MotionDetection"
        for _ in range(2 if doubled else 1):
            pass_on(event_type, properties)


def handle(number: int) -> None:
    if number == signal.SIGHUP and FAULT != "ignores the reload":
        log("got: 'R' (82)")
        configure()
    if number == signal.SIGTERM:
        log("run complete")
        sys.exit(3 if FAULT == "stops with an error" else 0)


def main() -> None:
    signals, woken = os.pipe()
    os.set_blocking(woken, False)
    signal.set_wakeup_fd(woken)
    for number in (signal.SIGHUP, signal.SIGTERM):
        signal.signal(number, lambda *_: None)
    os.mkfifo(INPUT_PIPE)
    posted = os.open(INPUT_PIPE, os.O_RDWR | os.O_NONBLOCK)
    configure()
    camera = Camera()
    Listener()
    if FAULT != "is never ready":
        notify_ready()
    next_tick = time.monotonic()
    while True:
        readable, _, _ = select.select([signals, posted], [], [], max(0.0, next_tick - time.monotonic()))
        if signals in readable:
            handle(os.read(signals, 1)[0])
        if posted in readable:
            receive(os.read(posted, 4096).decode(), camera)
        if time.monotonic() >= next_tick:
            next_tick += INTERVAL
            pass_on("Timer", {})


main()
