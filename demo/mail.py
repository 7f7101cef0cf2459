"""The mail of the demo's alarm, as it came over the wire."""

import time
from email.message import EmailMessage

from demo.show import require, say
from testing.mail_sink import Mail

# As in the settings.
RECIPIENT = "guard@example.com"
HEADERS = {
    "From": "Front gate <camera@example.com>",
    "To": f"Guard <{RECIPIENT}>",
    "Subject": "Alarm at the front gate",
}
BODY_PATTERN = "Alarm at the front gate at %H:%M."

PARTS = ["text/plain", "text/plain", "image/jpeg"]
PICTURE_NAME = "snapshot.jpg"


def moments(pattern: str, begin: float) -> set[str]:
    """What the pattern of strftime says at some second from the beginning until now."""
    return {time.strftime(pattern, time.localtime(second)) for second in range(int(begin), int(time.time()) + 1)}


def text_of(part: EmailMessage) -> str:
    return part.get_content().replace("\r\n", "\n").strip()


class AlarmMail:
    def __init__(self, mail: Mail) -> None:
        self.recipients = mail.recipients
        self.message = mail.message
        self.parts = list(self.message.iter_parts())

    def show_and_check(self, begin: float, event: dict[str, str]) -> bytes:
        """Returns the picture in it."""
        self._show()
        self._check_head(begin)
        types = [part.get_content_type() for part in self.parts]
        require(types == PARTS, f"the mail consists of {types} instead of {PARTS}")
        body, properties, picture = self.parts
        require(text_of(body) in moments(BODY_PATTERN, begin), f"the mail says '{text_of(body)}'")
        wanted = "\n".join(f"{key} = {value}" for key, value in event.items())
        require(text_of(properties) == wanted, f"the mail says '{text_of(properties)}' of the event, not '{wanted}'")
        name = picture.get_filename()
        require(name == PICTURE_NAME, f"the picture in the mail is called {name} instead of {PICTURE_NAME}")
        return picture.get_content()

    def _show(self) -> None:
        for name in (*HEADERS, "Date"):
            say(f"      {name}: {self.message[name]}")
        for part in self.parts:
            say()
            if part.get_content_type() == "text/plain":
                say("\n".join(f"      {line}" for line in text_of(part).split("\n")))
            else:
                size = len(part.get_content())
                say(f"      Attached: {part.get_filename()}, {part.get_content_type()}, {size} bytes")
        say()

    def _check_head(self, begin: float) -> None:
        require(self.recipients == [RECIPIENT], f"the mail is for {self.recipients} instead of {RECIPIENT}")
        for name, value in HEADERS.items():
            require(self.message[name] == value, f"{name} of the mail is '{self.message[name]}' instead of '{value}'")
        date = self.message["Date"]
        sent = date.datetime.timestamp() if date and date.datetime else 0.0
        require(int(begin) <= sent <= time.time(), f"the mail is dated '{date}'")
