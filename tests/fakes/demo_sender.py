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


class Sender:
    def __init__(self, fault: str) -> None:
        self.fault = fault

    def send(self, properties: dict[str, str]) -> None:
        self._save()
        self._upload()
        with smtplib.SMTP(HOST) as server:
            server.send_message(self._message(properties), SENDER, [RECIPIENT])

    def _save(self) -> None:
        if self.fault != "never deletes the oldest":
            (PICTURES / min(os.listdir(PICTURES))).unlink()
        hidden = PICTURES / ".new"
        hidden.write_bytes(SNAPSHOT.read_bytes())
        hidden.rename(PICTURES / time.strftime("%Y-%m-%d_%H-%M-%S.jpg"))

    def _upload(self) -> None:
        picture = SNAPSHOT.read_bytes()
        if self.fault == "uploads half a picture":
            picture = picture[: len(picture) // 2]
        with ftplib.FTP(HOST, "camera", "secret") as server:
            server.storbinary("STOR /front-gate.jpg", io.BytesIO(picture))

    def _message(self, properties: dict[str, str]) -> EmailMessage:
        message = EmailMessage()
        message["From"] = f"Front gate <{SENDER}>"
        message["To"] = f"Guard <{RECIPIENT}>"
        message["Subject"] = "Alarm at the front gate"
        message["Date"] = formatdate(time.time())
        message.set_content(time.strftime("Alarm at the front gate at %H:%M."))
        state = {"alarmState": "0"} if self.fault == "mails another event" else {}
        message.add_attachment("".join(f"{key} = {value}\n" for key, value in (properties | state).items()))
        message.add_attachment(SNAPSHOT.read_bytes(), "image", "jpeg", filename=SNAPSHOT.name)
        return message
