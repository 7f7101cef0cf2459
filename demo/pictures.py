"""The demo's pictures: what the camera makes, the three places that they are sent to, and what has come there."""

import os
import shutil
import threading
import time
from pathlib import Path

from demo.mail import AlarmMail, moments
from demo.show import PATIENCE, require, say
from testing.ftp_server import FtpServer
from testing.mail_sink import MailSink

KIB = 1024
DAY = 86400  # seconds
FTP_PORT, MAIL_PORT = 21, 25
OLDER_DAYS = (3, 2, 1)  # ago
OLDER_SIZE = 16 * KIB
MOMENT = 0.05  # seconds

# As in the settings.
LIMIT = 52 * KIB
NAME_PATTERN = "%Y-%m-%d_%H-%M-%S.jpg"
USER, PASSWORD = "camera", "secret"
UPLOADED = "/front-gate.jpg"


class PictureWatch:
    """Every picture that the camera makes: a thread looks often enough to see each, as it makes one a second."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._seen: dict[bytes, float] = {}  # and when each was made
        self._last: tuple[int, int] = (0, 0)
        self._ending = threading.Event()
        self._lock = threading.Lock()
        self._look()
        self._thread = threading.Thread(target=self._watch, name="picture watch", daemon=True)
        self._thread.start()

    def require_one_of_its_own(self, picture: bytes, where: str) -> None:
        self._look()  # it may have come here before the thread has looked
        require(picture in self._seen, f"the picture {where}, of {len(picture)} bytes, is none of the camera's")

    def time_of(self, picture: bytes) -> str:
        return time.strftime("%H:%M:%S", time.localtime(self._seen[picture]))

    def close(self) -> None:
        self._ending.set()
        self._thread.join()

    def _watch(self) -> None:
        while not self._ending.wait(MOMENT):
            self._look()

    def _look(self) -> None:
        with self._lock, self._path.open("rb") as file:
            status = os.fstat(file.fileno())
            if self._last != (status.st_ino, status.st_mtime_ns):
                self._seen.setdefault(file.read(), status.st_mtime)
                self._last = (status.st_ino, status.st_mtime_ns)


class PictureFolder:
    """A folder of limited size; files of other days are there already."""

    def __init__(self, path: Path) -> None:
        self.path = path
        path.mkdir()
        for days in OLDER_DAYS:
            taken = time.time() - days * DAY
            file = path / time.strftime(NAME_PATTERN, time.localtime(taken))
            file.write_bytes(bytes(OLDER_SIZE))
            os.utime(file, (taken, taken))
        self.older = self.names()

    def names(self) -> list[str]:
        """All names, hidden ones too, in the order of the days."""
        return sorted(os.listdir(self.path))

    def used(self) -> int:
        """The bytes that the files take on the disk, as du counts them."""
        return sum((self.path / name).stat().st_blocks * 512 for name in self.names())

    def show(self, when: str) -> None:
        say(f"   {self.path} {when} holds:")
        for name in self.names():
            say(f"      {(self.path / name).stat().st_size:6} bytes  {name}")
        say(f"      which takes {self.used() // KIB} KiB of the {LIMIT // KIB} KiB that are allowed.")

    def wait_for_picture(self, begin: float) -> bytes:
        deadline = time.monotonic() + PATIENCE
        while not (new := moments(NAME_PATTERN, begin).intersection(self.names())):
            require(time.monotonic() < deadline, f"no new picture is in {self.path}, but {self.names()}")
            time.sleep(MOMENT)
        require(len(new) == 1, f"more than one new picture is in {self.path}: {sorted(new)}")
        return (self.path / new.pop()).read_bytes()

    def require_only_the_oldest_is_gone(self) -> None:
        names = self.names()
        require(names[:-1] == self.older[1:], f"of {self.older} not just the oldest is gone: {names}")
        require(self.used() <= LIMIT, f"{self.path} takes {self.used()} bytes, more than {LIMIT}")


class Destinations:
    """The folder, an FTP server, a mail server, and what the daemon needs to send something there."""

    def __init__(self, folder: Path) -> None:
        self.folder = PictureFolder(folder / "pictures")
        programs, home, served = folder / "programs", folder / "home", folder / "served"
        for made in (programs, home, served):
            made.mkdir()
        busybox = shutil.which("busybox")
        require(busybox is not None, "there is no busybox, which has the program that uploads")
        (programs / "ftpput").symlink_to(busybox)
        configuration = home / ".esmtprc"
        configuration.write_text(f"hostname=127.0.0.1:{MAIL_PORT}\n")
        configuration.chmod(0o600)
        self.environment = {"PATH": f"{programs}:{os.environ['PATH']}", "HOME": str(home)}
        self.ftp_server = FtpServer(served, USER, PASSWORD, FTP_PORT)
        self.mail_server = MailSink(MAIL_PORT)

    def close(self) -> None:
        self.mail_server.close()
        self.ftp_server.close()

    def require_nothing_yet(self) -> None:
        names = self.folder.names()
        require(names == self.folder.older, f"{self.folder.path} holds {names} before the alarm")
        self.require_arrivals(0)

    def require_nothing_more(self) -> None:
        self.folder.require_only_the_oldest_is_gone()
        self.require_arrivals(1)

    def require_arrivals(self, count: int) -> None:
        uploads, mails = len(self.ftp_server.received), len(self.mail_server.mails)
        require(uploads == count, f"{uploads} uploads came instead of {count}")
        require(mails == count, f"{mails} mails came instead of {count}")

    def show_arrivals(self, camera: PictureWatch, begin: float, event: dict[str, str]) -> None:
        saved = self._show_saved(begin)
        camera.require_one_of_its_own(saved, "in the folder")
        uploaded = self._show_uploaded()
        camera.require_one_of_its_own(uploaded, "on the FTP server")
        mailed = self._show_mailed(begin, event)
        camera.require_one_of_its_own(mailed, "in the mail")
        self.require_nothing_more()
        say("   Each is, byte for byte, a picture that the camera made:")
        times = map(camera.time_of, (saved, uploaded, mailed))
        say("   the one in the folder at {}, the one on the server at {}, the one in the mail at {}.".format(*times))

    def _show_saved(self, begin: float) -> bytes:
        picture = self.folder.wait_for_picture(begin)
        self.folder.show("now")
        self.folder.require_only_the_oldest_is_gone()
        return picture

    def _show_uploaded(self) -> bytes:
        picture = self.ftp_server.wait_for_file(UPLOADED, patience=PATIENCE)
        say(f"   The FTP server at port {FTP_PORT} received from {USER}: {UPLOADED}, {len(picture)} bytes.")
        return picture

    def _show_mailed(self, begin: float, event: dict[str, str]) -> bytes:
        mail, *_ = self.mail_server.wait_for(1, patience=PATIENCE)
        say(f"   The mail server at port {MAIL_PORT} received, for {', '.join(mail.recipients)}:")
        return AlarmMail(mail).show_and_check(begin, event)
