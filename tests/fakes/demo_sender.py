"""Where the stand-in for the daemon sends the camera's picture to, and how that goes wrong."""

import ftplib
import io
import os
import smtplib
import time
from email.message import EmailMessage
from email.utils import formatdate
from pathlib import Path

SNAPSHOT = Path("/run/halvek-demo/snapshot.jpg")
PICTURES = Path("/run/halvek-demo/pictures")
HOST = "127.0.0.1"
SENDER, RECIPIENT = "camera@example.com", "guard@example.com"
YESTERDAY = 86400  # seconds ago


class Sender:
    def __init__(self, fault: str) -> None:
        self.fault = fault

    def send(self, properties: dict[str, str]) -> None:
        self._save()
        self._upload()
        self._mail(properties)
        if self.fault == "mails twice":
            self._mail(properties)

    def _picture(self, action: str) -> bytes:
        """As the action takes it."""
        picture = SNAPSHOT.read_bytes()
        if self.fault == f"{action} half a picture":
            return picture[: len(picture) // 2]
        return bytes(len(picture)) if self.fault == f"{action} another file" else picture

    def _save(self) -> None:
        if self.fault == "saves no snapshot":
            return
        self._make_room()
        name = time.strftime("%Y%m%d.jpg" if self.fault == "saves under another name" else "%Y-%m-%d_%H-%M-%S.jpg")
        hidden = PICTURES / ".new"
        hidden.write_bytes(self._picture("saves"))
        if self.fault == "leaves a file behind":
            (PICTURES / ".left").touch()
        hidden.rename(PICTURES / name)

    def _make_room(self) -> None:
        names = sorted(os.listdir(PICTURES))
        gone = {
            "never deletes the oldest": [],
            "deletes the newest": names[-1:],
            "deletes more than it must": names[:2],
            "deletes everything": names,
        }
        for name in gone.get(self.fault, names[:1]):
            (PICTURES / name).unlink()

    def _upload(self) -> None:
        if self.fault == "uploads nothing":
            return
        name = "gate.jpg" if self.fault == "uploads under another name" else "front-gate.jpg"
        with ftplib.FTP(HOST, "camera", "secret") as server:
            for _ in range(2 if self.fault == "uploads twice" else 1):
                server.storbinary(f"STOR /{name}", io.BytesIO(self._picture("uploads")))

    def _mail(self, properties: dict[str, str]) -> None:
        if self.fault == "mails nothing":
            return
        recipient = "thief@example.com" if self.fault == "mails to somebody else" else RECIPIENT
        with smtplib.SMTP(HOST) as server:
            server.send_message(self._message(properties), SENDER, [recipient])

    def _message(self, properties: dict[str, str]) -> EmailMessage:
        message = EmailMessage()
        message["From"] = f"{'Back' if self.fault == 'mails from elsewhere' else 'Front'} gate <{SENDER}>"
        message["To"] = f"Guard <{RECIPIENT}>"
        message["Subject"] = "All is well" if self.fault == "mails another subject" else "Alarm at the front gate"
        message["Date"] = formatdate(time.time() - (YESTERDAY if self.fault == "mails yesterday's date" else 0))
        plain = self.fault == "mails no time"
        text = "Alarm at the front gate at %H:%M."
        message.set_content(text if plain else time.strftime(text))
        if self.fault != "mails no event":
            state = {"alarmState": "0"} if self.fault == "mails another event" else {}
            message.add_attachment("".join(f"{key} = {value}\n" for key, value in (properties | state).items()))
        if self.fault != "mails without the picture":
            message.add_attachment(self._picture("mails"), "image", "jpeg", filename=SNAPSHOT.name)
        return message
