"""A real SMTP server that keeps what it gets."""

import asyncio
import socket
import ssl
import threading
from email import message_from_bytes, policy
from email.message import EmailMessage
from typing import NamedTuple

from aiosmtpd.smtp import SMTP, AuthResult, Envelope, LoginPassword, Session
from testing.waiting import PATIENCE, NotSeen

HOST = "127.0.0.1"


class Mail(NamedTuple):
    """A mail as it came over the wire: the envelope, and the bytes with their wire's line ends."""

    sender: str
    recipients: list[str]
    data: bytes

    @property
    def message(self) -> EmailMessage:
        return message_from_bytes(self.data, policy=policy.default)


class MailSink:
    """Takes every mail for anybody, from the construction until close(), or in a with statement.

    It listens on 127.0.0.1, at the given port or at a free one; `port` says which. With a context it talks TLS from the
    beginning, or from STARTTLS on, which it wants then. With an account it takes mails from that one only.
    """

    def __init__(
        self,
        port: int = 0,
        *,
        tls: ssl.SSLContext | None = None,
        starttls: bool = False,
        account: tuple[str, str] | None = None,
    ) -> None:
        self._starttls = tls if starttls else None
        self._account = account
        self._mails: list[Mail] = []
        self._changed = threading.Condition()
        self._loop = asyncio.new_event_loop()
        listening = socket.create_server((HOST, port))
        self.port: int = listening.getsockname()[1]
        server = self._loop.create_server(self._make_protocol, sock=listening, ssl=None if starttls else tls)
        self._server = self._loop.run_until_complete(server)
        self._thread = threading.Thread(target=self._loop.run_forever, name="mail sink", daemon=True)
        self._thread.start()

    def __enter__(self) -> "MailSink":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    @property
    def mails(self) -> list[Mail]:
        """All mails so far."""
        with self._changed:
            return list(self._mails)

    def wait_for(self, count: int, patience: float = PATIENCE) -> list[Mail]:
        """Waits until so many mails have come in all, and returns them all."""
        with self._changed:
            if not self._changed.wait_for(lambda: len(self._mails) >= count, patience):
                raise NotSeen(f"not in {patience} s: {count} mails; {len(self._mails)} came")
            return list(self._mails)

    def close(self) -> None:
        """Ends the server and its connections; a second time does nothing."""
        if self._loop.is_closed():
            return
        self._loop.call_soon_threadsafe(self._server.close)
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        self._loop.run_until_complete(self._end_connections())
        self._loop.close()

    async def handle_DATA(self, _server: SMTP, _session: Session, envelope: Envelope) -> str:
        """Called by the server, which knows it by this name."""
        with self._changed:
            self._mails.append(Mail(envelope.mail_from, list(envelope.rcpt_tos), envelope.original_content))
            self._changed.notify_all()
        return "250 OK"

    def _make_protocol(self) -> SMTP:
        return SMTP(
            self,
            data_size_limit=None,
            hostname="localhost",
            loop=self._loop,
            tls_context=self._starttls,
            require_starttls=self._starttls is not None,
            authenticator=self._authenticate,
            auth_required=self._account is not None,
            auth_require_tls=self._starttls is not None,
        )

    def _authenticate(
        self, _server: SMTP, _session: Session, _envelope: Envelope, _way: str, data: object
    ) -> AuthResult:
        is_right = isinstance(data, LoginPassword) and self._account == (data.login.decode(), data.password.decode())
        return AuthResult(success=is_right, handled=False)

    async def _end_connections(self) -> None:
        tasks = asyncio.all_tasks() - {asyncio.current_task()}
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
