"""Shows that no picture is lost while its server is down: python3 -m demo.outbox DAEMON CAMERA OUTBOX FRONT_END"""

import contextlib
import os
import re
import subprocess
import sys
from pathlib import Path

from demo.pictures import PictureWatch
from demo.show import PATIENCE, heading, perform, require, say
from demo.stage import Stage
from testing.daemon import DaemonProcess
from testing.ftp_server import HOST, FtpServer
from testing.waiting import wait_until

SPOOL = Path("/var/spool/halvek-outbox")
RUN = Path("/run/halvek-outbox")
NAME = "front-gate.jpg"
BANK, INDEX = "Local", 1
SETTINGS = f"""\
[Events/Source#1]
Type=Alarm

[Events/Source#1/Alarm]
BankName=Local
Index=1

[Video/Quickview]
SnapshotPath=/run/halvek-demo/snapshot.jpg

[Events/Handler#1]
Type=Ftp

[Events/Handler#1/SourceIds]
0=Events/Source#1

[Events/Handler#1/Ftp]
Attachment=true
Server={HOST}
Username=camera
Password=secret
BasePath=/
DestName={NAME}
"""


class Scene:
    def __init__(self, programs: tuple[str, str, str, str], cleanup: contextlib.ExitStack) -> None:
        daemon_program, camera_program, self.outbox_program, front_end = programs
        stage = Stage(camera_program, cleanup)
        self.camera, self.snapshot, folder = stage.camera, stage.snapshot, stage.folder
        self.programs = folder / "bin"
        self.programs.mkdir()
        (self.programs / "ftpput").symlink_to(front_end)
        self.server_folder = folder / "server"
        self.server_folder.mkdir()
        self.log = cleanup.enter_context((folder / "outbox.log").open("wb"))
        self.start_outbox(cleanup)
        settings = folder / "settings.ini"
        settings.write_text(SETTINGS)
        environment = stage.bus.environment | {"PATH": f"{self.programs}:{os.environ['PATH']}"}
        daemon = DaemonProcess(daemon_program, settings, folder, environment=environment)
        self.daemon = cleanup.enter_context(contextlib.closing(daemon))
        self.daemon.wait_until_ready(PATIENCE)

    def start_outbox(self, cleanup: contextlib.ExitStack) -> None:
        RUN.mkdir()
        subprocess.run(["mount", "-n", "-t", "tmpfs", "tmpfs", SPOOL.parent], check=True)
        SPOOL.mkdir()
        outbox = subprocess.Popen([self.outbox_program, "serve"], stderr=self.log)
        cleanup.callback(outbox.wait)
        cleanup.callback(outbox.kill)
        wait_until(self.answers, "the outbox answers", PATIENCE)

    def answers(self) -> bool:
        return "delivered" in self.ask("status").stdout

    def ask(self, *words: str) -> subprocess.CompletedProcess:
        return subprocess.run([self.outbox_program, *words], capture_output=True, text=True, timeout=PATIENCE)

    def show_list(self) -> str:
        say("   $ halvek-outbox list")
        text = self.ask("list").stdout
        say("".join(f"      {line}\n" for line in text.splitlines()).rstrip())
        return text

    def run(self) -> None:
        heading("A camera, the daemon, and in front of its ftpput the outbox")
        say("   The settings want a picture on an FTP server when somebody is at the front gate. There is none yet.")
        heading("The alarm comes, and the server is down")
        with contextlib.closing(PictureWatch(self.snapshot)) as made:
            self.lose_server_and_find_it(made)

    def lose_server_and_find_it(self, made: PictureWatch) -> None:
        self.camera.set_alarm(BANK, INDEX, True)
        wait_until(lambda: re.search(r" wait .*" + NAME, self.ask("list").stdout), "the picture waits", PATIENCE)
        self.show_list()
        say("   The daemon went on within milliseconds. A first try has failed, so the picture is on flash now, where")
        say("   it survives a power cut, and it is tried again, later each time.")
        heading("The server is back")
        with FtpServer(self.server_folder) as server:
            say("   $ halvek-outbox flush")
            require(self.ask("flush").returncode == 0, "the outbox does not try again")
            arrived = self.server_folder / NAME
            wait_until(arrived.exists, f"{NAME} arrives", PATIENCE)
            made.require_one_of_its_own(server.content(f"/{NAME}"), "on the FTP server")
            wait_until(lambda: self.ask("list").stdout == "nothing is waiting\n", "nothing waits", PATIENCE)
        self.show_list()
        say(
            f"   {NAME} arrived, byte for byte the picture of the alarm. Without a word from us it would have come some"
        )
        say("   seconds later.")


def main(*programs: str) -> int:
    status = perform(lambda cleanup: Scene(programs, cleanup).run())
    if status == 0:
        say("\nAll of this really happened, and nothing of it is left behind.")
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
