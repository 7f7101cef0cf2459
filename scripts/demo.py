"""The play that scripts/demo shows, in a /run of its own: demo.py DAEMON SETTINGS"""

import signal
import subprocess
import sys
import time
from pathlib import Path

from daemon_process import DaemonProcess, Event, NotSeen, OutputPipe

INTERVAL = 2.0  # seconds, as in the settings
PATIENCE = 5.0
INPUT_PIPE = "/var/run/halvek.pipe"


def say(text: str = "") -> None:
    print(text, flush=True)


def heading(text: str) -> None:
    say(f"\n== {text}")


def require(condition: bool, what_is_wrong: str) -> None:
    if not condition:
        raise NotSeen(what_is_wrong)


def show(pipe: OutputPipe, event: Event) -> None:
    say(f"   {pipe.path.name} received:")
    for line in (f"[{event.type}]", *(f"{key}={value}" for key, value in event.properties.items()), "."):
        say(f"      {line}")


class Play:
    def __init__(self, daemon: DaemonProcess) -> None:
        self.daemon = daemon
        self.timer_pipe = OutputPipe("Timer.fifo")
        self.any_pipe = OutputPipe("all.halvek.any")
        self.posted: list[str] = []

    def run(self) -> None:
        self.start()
        self.tick()
        self.post("Doorbell", {"button": "front"}, event_id="Doorbell")
        self.post("MotionDetection", {"region": "2"}, event_id="2")
        self.reload()
        self.post("DoorClosed", {"door": "garage"}, event_id="DoorClosed")
        self.stop()
        self.check_whole()

    def start(self) -> None:
        heading("The daemon starts")
        self.daemon.wait_until_ready(PATIENCE)
        say("   It has read its settings, and its sources are listening: READY=1 to the service manager.")

    def tick(self) -> None:
        heading(f"A timer fires every {INTERVAL:.0f} s")
        for pipe in (self.timer_pipe, self.any_pipe):
            self.wait_for_event(pipe, "Timer", count=2)
        gap = self.any_pipe.time_of(1) - self.any_pipe.time_of(0)
        require(INTERVAL / 2 < gap < INTERVAL * 2, f"{gap:.1f} s between two ticks")
        show(self.timer_pipe, self.timer_pipe.items[0])
        say(f"   The next came {gap:.1f} s later. {self.any_pipe.path.name}, which gets everything, has them too.")

    def post(self, event_type: str, properties: dict[str, str], event_id: str) -> None:
        heading(f"Another process posts the event {event_type}")
        text = "".join(f"{key}={value}\\n" for key, value in properties.items())
        command = f"printf '[{event_type}]\\n{text}.\\n' > {INPUT_PIPE}"
        say(f"   $ {command}")
        require(Path(INPUT_PIPE).is_fifo(), f"{INPUT_PIPE} is no pipe")
        subprocess.run(["sh", "-c", command], check=True, timeout=PATIENCE)
        self.posted.append(event_type)
        expected = properties | {"eventType": event_type, "eventId": event_id}
        event = self.wait_for_event(self.any_pipe, event_type, properties=expected)
        show(self.any_pipe, event)

    def reload(self) -> None:
        heading("SIGHUP: the settings are read afresh")
        log_before, timer_before = len(self.daemon.log.items), len(self.timer_pipe.items)
        self.daemon.send(signal.SIGHUP)
        for step in (r"got: 'R' \(82\)", r"Configuring\.\.\.", "EventServerSource started"):
            log_before = self.daemon.log.wait_for(step, after=log_before, patience=PATIENCE)
        self.wait_for_event(self.timer_pipe, "Timer", after=timer_before)
        say("   All sources were stopped and built anew, and the timer ticks again.")

    def stop(self) -> None:
        heading("SIGTERM: an orderly stop")
        status = self.daemon.stop(patience=PATIENCE)
        require(status == 0, f"the daemon ended with status {status}")
        require(bool(self.daemon.log.matching("run complete")), "the daemon did not log the end of its run")
        say("   Sources stopped, threads joined, exit status 0.")

    def check_whole(self) -> None:
        """What only the whole run can show: nothing twice, nothing in the wrong pipe, one reload."""
        strangers = {event.type for event in self.timer_pipe.items} - {"Timer"}
        require(not strangers, f"{self.timer_pipe.path.name} received {strangers}, which it has not asked for")
        for event_type in self.posted:
            copies = len(self.any_pipe.of_type(event_type))
            require(copies == 1, f"{event_type} was posted once and passed on {copies} times")
        for text, times in ((r"got: 'R' \(82\)", 1), (r"Configuring\.\.\.", 2)):
            seen = len(self.daemon.log.matching(text))
            require(seen == times, f"the log has {seen} times '{text}' instead of {times}: not just one reload")

    def close(self) -> None:
        self.timer_pipe.close()
        self.any_pipe.close()

    @staticmethod
    def wait_for_event(pipe: OutputPipe, event_type: str, **options) -> Event:
        return pipe.wait_for_event(event_type, patience=PATIENCE, **options)


SUMMARY = f"""
== What you just saw
   halvek ties events to actions. Its sources here: a timer, and the pipe {INPUT_PIPE}, on which any
   process may post a few lines of text. Its action here: it passes each event on, as text with the time in it,
   to the named pipes in /var/run/halvek: to those that have the event's type in their name, and to those
   that have "halvek.any". SIGHUP rebuilt everything from the settings, SIGTERM stopped it.
   The settings are in examples/demo.ini."""


def main(program: str, settings: str) -> int:
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    folder = Path("/run/halvek-demo")
    folder.mkdir()
    begin = time.monotonic()
    daemon = DaemonProcess(program, Path(settings), folder, environment={"KELTO_LOG": "Information"})
    play = Play(daemon)
    try:
        play.run()
    except (NotSeen, subprocess.SubprocessError) as error:
        print(f"\ndemo: what should have happened did not: {error}", file=sys.stderr)
        print("demo: the daemon's log ends:", *daemon.log.items[-10:], sep="\n  ", file=sys.stderr)
        return 1
    finally:
        daemon.close()
        play.close()
    say(SUMMARY)
    say(f"\nAll of this really happened, in {time.monotonic() - begin:.0f} s, and nothing of it is left behind.")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
