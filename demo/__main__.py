"""Runs the demo in a /run of its own: python3 -m demo DAEMON CAMERA SETTINGS"""

import contextlib
import subprocess
import sys
import time
from pathlib import Path

from demo.pictures import Destinations
from demo.play import INPUT_PIPE, Play
from demo.show import perform, say
from demo.stage import Stage
from testing.bus_client import BusError
from testing.daemon import DaemonProcess
from testing.waiting import NotSeen

SUMMARY = f"""
== What you just saw
   halvek ties events to actions. Its sources here: alarm inputs of the camera, alerts of its video analytics,
   its head at rest, a timer, and the pipe {INPUT_PIPE}, on which any process may post a few lines of text.
   Its actions here: it pulses a relay, turns the head to a preset, starts a tour, saves the camera's picture in a
   folder that it keeps below a limit, uploads it to an FTP server, mails it, and passes every event on, as text
   with the time in it, to the named pipes in /var/run/halvek: to those that have the event's type in their name,
   and to those that have "halvek.any". SIGHUP rebuilt everything from the settings, SIGTERM stopped it.
   The settings are in examples/demo.ini. The camera was build/release/bin/kelto-vcam: try it yourself, --help
   tells how."""


def play_all(program: str, stage: Stage, settings: str, cleanup: contextlib.ExitStack) -> None:
    destinations = cleanup.enter_context(contextlib.closing(Destinations(stage.folder)))
    environment = stage.bus.environment | destinations.environment | {"KELTO_LOG": "Information"}
    daemon = cleanup.enter_context(
        contextlib.closing(DaemonProcess(program, Path(settings), stage.folder, environment=environment))
    )
    play = cleanup.enter_context(contextlib.closing(Play(stage.bus, stage.camera, daemon, destinations)))
    try:
        play.run()
    except (NotSeen, BusError, OSError, subprocess.SubprocessError) as error:
        ends = ["The daemon's log ends:", *daemon.log.items[-10:], *stage.camera.complaints.items]
        raise NotSeen("\n  ".join([str(error), *ends])) from error


def main(program: str, camera_program: str, settings: str) -> int:
    begin = time.monotonic()
    status = perform(lambda cleanup: play_all(program, Stage(camera_program, cleanup), settings, cleanup))
    if status == 0:
        say(SUMMARY)
        say(f"\nAll of this really happened, in {time.monotonic() - begin:.0f} s, and nothing of it is left behind.")
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
