"""The scenes of the demo, in their order."""

import contextlib
import os
import re
import shlex
import signal
import subprocess
import time
from pathlib import Path
from typing import NamedTuple

from demo.pictures import KIB, LIMIT, Destinations, PictureWatch
from demo.show import PATIENCE, heading, require, say
from testing.bus import PrivateBus
from testing.camera import CAMERA, VirtualCamera, service
from testing.daemon import DaemonProcess
from testing.pipes import Event, OutputPipe

INTERVAL = 2.0  # seconds, as in the settings
DWELL = 2.0
INPUT_PIPE = "/var/run/halvek.pipe"

ALARM = ("SetAlarm", "sib", "Local", "2")
GATE_ALARM = ("SetAlarm", "sib", "Local", "1")
ALERT = ("RaiseAlert", "sssssa(dd)a(dd)ss", "gate", "Person", "LineCrossing", "Front%20gate", "")
ALERT_SHAPES = ("2", "0.1", "0.9", "0.8", "0.9", "0", "", "")
# What the daemon asks for before it decides what to do.
QUERIES = {"GetBankNames", "IsRemote", "IsAt", "GetIdleState", "GetSummary"}


class Order(NamedTuple):
    """What the camera was told to do."""

    method: str
    arguments: str

    def __str__(self) -> str:
        return f"{self.method}({self.arguments})"


PULSE_RELAY = [
    Order("RelayV3.SetConfiguration", "Local, 0, false, 3, 200, 100, 3"),
    Order("RelayV3.Activate", "Local, 0, 3"),
]


def show(pipe: OutputPipe, event: Event) -> None:
    say(f"   {pipe.path.name} received:")
    for line in (f"[{event.type}]", *(f"{key}={value}" for key, value in event.properties.items()), "."):
        say(f"      {line}")


def go_to(preset: int, level: int) -> Order:
    return Order("PresetsV2.GoTo", f"{preset}, 1, {level}")


class Play:
    def __init__(
        self, bus: PrivateBus, camera: VirtualCamera, daemon: DaemonProcess, destinations: Destinations
    ) -> None:
        self.bus = bus
        self.daemon = daemon
        self.camera = camera
        self.destinations = destinations
        self.timer_pipe = OutputPipe("Timer.fifo")
        self.any_pipe = OutputPipe("all.halvek.any")
        self.camera_lines = 0  # shown so far
        self.before_alert = 0  # events that had been passed on by then
        self.copies: dict[str, int] = {}  # of each event type, when all is over

    def run(self) -> None:
        self.start()
        self.alarm()
        self.pictures()
        self.doorbell()
        self.alert()
        self.park()
        self.tick()
        self.post("MotionDetection", {"region": "2"}, event_id="2")
        self.reload()
        self.release_alarm()
        self.stop()
        self.check_whole()

    def start(self) -> None:
        heading("A camera without hardware, and the daemon")
        say("   On a bus of its own, kelto-vcam offers what a camera would: alarm inputs, relays, a moving head.")
        self.watch_camera("ready")
        self.daemon.wait_until_ready(PATIENCE)
        say("   The daemon has read its settings, and its sources are listening: READY=1 to the service manager.")

    def alarm(self) -> None:
        heading("An alarm input of the camera becomes active")
        say("   The settings want a relay to pulse three times, and the head to turn to preset 3.")
        self.drive_camera(*ALARM, "true")
        self.watch_camera("head comes to rest at preset 3", "idle state 0", r"relay Local:0 off .* pulse 3 of")
        say("   The head is told a level with each order: 400 for an alarm, 900 for any other event.")
        self.expect_orders(*PULSE_RELAY, go_to(preset=3, level=400))
        self.expect_event("Alarm", {"alarmBank": "Local", "alarmIndex": "2", "alarmState": "1"})

    def pictures(self) -> None:
        heading("Another alarm input, at the front gate, sends the camera's picture to three places")
        say(f"   The settings want it in a folder of at most {LIMIT // KIB} KiB, on an FTP server, and in a mail. Both")
        say("   servers run here, for this demo. In the folder are three files that stand for pictures of other days,")
        say("   and leave too little room for another.")
        self.destinations.require_nothing_yet()
        self.destinations.folder.show("so far")
        begin = time.time() - 1.0  # the clock that the daemon asks for the second may be a little behind
        with contextlib.closing(PictureWatch(self.camera.snapshot)) as made:
            self.drive_camera(*GATE_ALARM, "true")
            self.watch_camera("alarm Local:1 active")
            event = self.expect_event("Alarm", {"alarmBank": "Local", "alarmIndex": "1", "alarmState": "1"})
            self.destinations.show_arrivals(made, begin, event.properties)
        self.expect_orders()  # none

    def doorbell(self) -> None:
        self.camera.clear_actions(PATIENCE)
        self.post("Doorbell", {"button": "front"}, event_id="Doorbell")
        say("   For this one the settings want preset 5.")
        self.watch_camera("head comes to rest at preset 5", "idle state 0")
        self.expect_orders(go_to(preset=5, level=900))

    def alert(self) -> None:
        heading("Video analytics raises an alert: a person at the front gate")
        say("   The settings want a tour of three presets.")
        self.before_alert = len(self.any_pipe.items)
        self.drive_camera(*ALERT, *ALERT_SHAPES)
        self.watch_camera("head comes to rest at preset 3", "idle state 0")
        self.expect_orders(Order("Tour.Start", "1, 900"))
        wanted = {"source": "gate", "ruleName": "Front gate", "rulePoints": "(0.1,0.9)|(0.8,0.9)"}
        self.expect_event("AnalyticsAlert", wanted)

    def park(self) -> None:
        heading(f"The head has come to rest: after {DWELL:.0f} s at one place, it is parked")
        at_rest = self.camera.lines.time_of(self.camera_lines - 1)
        after, gap = self.before_alert, 0.0
        while gap <= 0.0:  # it may have been parked before the alert sent it off
            after = self.any_pipe.wait(lambda event: event.type == "Park", "[Park]", after=after, patience=PATIENCE)
            gap = self.any_pipe.time_of(after - 1) - at_rest
        require(gap > DWELL / 2, f"the head was parked after {gap:.1f} s of rest")
        show(self.any_pipe, self.any_pipe.items[after - 1])
        say(f"   That was {gap:.1f} s after it came to rest.")

    def tick(self) -> None:
        heading(f"Meanwhile, a timer fires every {INTERVAL:.0f} s")
        for pipe in (self.timer_pipe, self.any_pipe):
            self.wait_for_event(pipe, "Timer", count=2)
        self.check_timer_pipe()
        gap = self.timer_pipe.time_of(1) - self.timer_pipe.time_of(0)
        require(INTERVAL / 2 < gap < INTERVAL * 2, f"{gap:.1f} s between two ticks")
        show(self.timer_pipe, self.timer_pipe.items[0])
        say(f"   The next came {gap:.1f} s later. {self.any_pipe.path.name}, which gets everything, has them too.")

    def post(self, event_type: str, properties: dict[str, str], event_id: str) -> None:
        heading(f"Another process posts the event {event_type}")
        text = "".join(f"{key}={value}\\n" for key, value in properties.items())
        command = f"env printf '[{event_type}]\\n{text}.\\n' > {INPUT_PIPE}"
        say(f"   $ {command}")
        require(Path(INPUT_PIPE).is_fifo(), f"{INPUT_PIPE} is no pipe")
        subprocess.run(["sh", "-c", command], check=True, timeout=PATIENCE)
        self.expect_event(event_type, properties | {"eventType": event_type, "eventId": event_id})

    def reload(self) -> None:
        heading("SIGHUP: the settings are read afresh")
        log_before, timer_before = len(self.daemon.log.items), len(self.timer_pipe.items)
        self.daemon.send(signal.SIGHUP)
        for step in (r"got: 'R' \(82\)", r"Configuring\.\.\.", "TimerEventSource started"):
            log_before = self.daemon.log.wait_for(step, after=log_before, patience=PATIENCE)
        self.wait_for_event(self.timer_pipe, "Timer", after=timer_before)
        say("   All sources were stopped and built anew, and the timer ticks again.")

    def release_alarm(self) -> None:
        heading("The alarm input becomes inactive, which is an event too")
        self.drive_camera(*ALARM, "false")
        self.watch_camera(r"relay Local:0 on .* pulse 1 of 3")
        self.expect_event("Alarm", {"alarmIndex": "2", "alarmState": "0"})
        self.expect_orders(*PULSE_RELAY)
        say("   The relay pulses again. The head, which is at preset 3 already, is not told anything.")

    def stop(self) -> None:
        heading("SIGTERM: an orderly stop")
        status = self.daemon.stop(patience=PATIENCE)
        require(status == 0, f"the daemon ended with status {status}")
        require(bool(self.daemon.log.matching("run complete")), "the daemon did not log the end of its run")
        say("   Sources stopped, threads joined, exit status 0.")

    def check_whole(self) -> None:
        """What only the whole run can show: nothing twice, nothing in the wrong pipe, one reload."""
        self.check_timer_pipe()
        self.destinations.require_nothing_more()
        for event_type, expected in self.copies.items():
            copies = len(self.any_pipe.of_type(event_type))
            require(copies == expected, f"{event_type} was passed on {copies} times instead of {expected}")
        for text, times in ((r"got: 'R' \(82\)", 1), (r"Configuring\.\.\.", 2)):
            seen = len(self.daemon.log.matching(text))
            require(seen == times, f"the log has {seen} times '{text}' instead of {times}: not just one reload")

    def check_timer_pipe(self) -> None:
        strangers = {event.type for event in self.timer_pipe.items} - {"Timer"}
        require(not strangers, f"{self.timer_pipe.path.name} received {strangers}, which it has not asked for")

    def close(self) -> None:
        self.timer_pipe.close()
        self.any_pipe.close()

    def drive_camera(self, method: str, *arguments: str) -> None:
        """Shows and runs the command; only what the camera is told from here on counts."""
        self.camera.clear_actions(PATIENCE)
        say(f"   $ busctl call {' '.join(service(CAMERA))} \\\n       {shlex.join([method, *arguments])}")
        command = ["busctl", f"--timeout={PATIENCE}", "call", *service(CAMERA), method, *arguments]
        environment = os.environ | self.bus.environment
        result = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=2 * PATIENCE)
        require(result.returncode == 0, f"{method} of the virtual camera: {result.stderr.strip()}")

    def watch_camera(self, *patterns: str) -> None:
        """Shows what the camera says, as it says it, until each of the patterns was in it."""
        missing = list(patterns)
        while missing:
            what = f"'{missing[0]}'"
            self.camera_lines = self.camera.lines.wait(bool, what, after=self.camera_lines, patience=PATIENCE)
            line = self.camera.lines.items[self.camera_lines - 1]
            say(f"   kelto-vcam: {line}")
            missing = [pattern for pattern in missing if not re.search(pattern, line)]

    def expect_orders(self, *expected: Order) -> None:
        told = [Order(action.method, action.arguments) for action in self.camera.actions(patience=PATIENCE)]
        orders = [order for order in told if order.method.partition(".")[2] not in QUERIES]
        require(
            orders == list(expected),
            f"the camera was told {', '.join(map(str, orders))} instead of {', '.join(map(str, expected))}",
        )

    def expect_event(self, event_type: str, properties: dict[str, str]) -> Event:
        self.copies[event_type] = self.copies.get(event_type, 0) + 1
        event = self.wait_for_event(self.any_pipe, event_type, properties=properties)
        show(self.any_pipe, event)
        return event

    @staticmethod
    def wait_for_event(pipe: OutputPipe, event_type: str, **options) -> Event:
        return pipe.wait_for_event(event_type, patience=PATIENCE, **options)
