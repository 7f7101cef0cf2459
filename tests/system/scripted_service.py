"""Services of the camera that do on the bus exactly what a test tells them to."""

import threading
import time
from typing import Any, NamedTuple

from testing.bus import PrivateBus
from testing.bus_client import METHOD_CALL, BusClient, BusError, Message
from testing.camera import service
from testing.waiting import PATIENCE, NotSeen, wait_until

ANSWERS = {
    "AlarmV3.GetBankNames": ("as", ["Remote", "Local"]),
    "AlarmV3.IsRemote": ("b", False),
    "RelayV3.GetBankNames": ("as", ["Remote", "Local"]),
    "RelayV3.IsRemote": ("b", False),
    "RelayV3.GetConfiguration": ("bbiiii", True, False, 3, 500, 500, 1),
    "RelayV3.SetConfiguration": ("b", True),
    "RelayV3.Activate": ("b", True),
    "PresetsV2.IsAt": ("b", False),
    "PresetsV2.GoTo": ("",),
    "Tour.Start": ("",),
    "MotionState.GetIdleState": ("i", 1),
}
ALERT_PATH, ALERT_INTERFACE, ALERT = "/com/zentu/analytics", "com.zentu.analytics", "AnalyticsAlert"
ALERT_SIGNATURE = "sssssa(dd)a(dd)ss"
SIGNALS = {"AlarmV3.StateChanged": "sib", "MotionState.IdleChanged": "i"}


END = "End"


class Call(NamedTuple):
    time: float  # seconds on the clock of time.monotonic()
    method: str
    arguments: list


def is_call(message: Message) -> bool:
    return message.kind == METHOD_CALL


def method_of(call: Message) -> str:
    return call.interface.removeprefix("com.kelto.") + "." + call.member


class ScriptedService:
    """Owns the names of some providers and answers calls on a thread of its own; the test may use it from another."""

    def __init__(self, bus: PrivateBus, *providers: str, answers: dict[str, tuple | BusError] | None = None) -> None:
        """An answer is a signature and values, or an error; every method has one that is of some use."""
        self.answers: dict[str, tuple | BusError] = ANSWERS | (answers or {})
        self.calls: list[Call] = []
        self._held: list[Message] = []
        self._held_methods: tuple[str, ...] = ()
        self._lock = threading.Lock()
        self._names = [service(provider)[0] for provider in providers]
        self._client = BusClient(bus.socket)
        for name in self._names:
            self._client.own(name)
        self._thread = threading.Thread(target=self._serve, name="scripted service", daemon=True)
        self._thread.start()

    def emit(self, name: str, *arguments: Any) -> None:
        """Sends a signal such as "AlarmV3.StateChanged"."""
        self.emit_as(name, SIGNALS[name], *arguments)

    def emit_as(self, name: str, signature: str, *arguments: Any) -> None:
        """Sends a signal with arguments that need not be the right ones."""
        provider, signal = name.split(".")
        _, path, interface = service(provider)
        with self._lock:
            self._client.emit(path, interface, signal, signature, *arguments)

    def emit_alert(self, *arguments: Any) -> None:
        with self._lock:
            self._client.emit(ALERT_PATH, ALERT_INTERFACE, ALERT, ALERT_SIGNATURE, *arguments)

    def hold(self, *methods: str) -> None:
        """Calls of these methods are not answered until release()."""
        with self._lock:
            self._held_methods = methods

    def release(self) -> None:
        """Answers what is held, and what comes from now on."""
        with self._lock:
            self._held_methods = ()
            for call in self._held:
                self._answer(call)
            self._held.clear()

    def wait_for_call(self, method: str, count: int = 1, patience: float = PATIENCE) -> Call:
        """Waits for the count-th call of a method."""
        wait_until(lambda: len(self.of(method)) >= count, f"{count} calls of {method}", patience)
        return self.of(method)[count - 1]

    def of(self, method: str) -> list[Call]:
        return [call for call in self.calls if call.method == method]

    def close(self) -> None:
        """Leaves the bus; the names are free when this returns."""
        with self._lock:
            self._client.begin_call(self._client.unique_name, "/", "scripted.service", END)
        self._thread.join()
        for name in self._names:
            self._client.call_bus("ReleaseName", "s", name)
        self._client.close()

    def _serve(self) -> None:
        position = 0
        while True:
            try:
                position = self._client.wait(is_call, "a call", after=position)
            except NotSeen:
                continue
            call = self._client.items[position - 1]
            if call.member == END:
                return
            with self._lock:
                self._take(call)

    def _take(self, call: Message) -> None:
        method = method_of(call)
        self.calls.append(Call(time.monotonic(), method, call.arguments))
        if method in self._held_methods:
            self._held.append(call)
        else:
            self._answer(call)

    def _answer(self, call: Message) -> None:
        answer = self.answers[method_of(call)]
        if isinstance(answer, BusError):
            self._client.refuse(call, answer.name, answer.text)
        else:
            self._client.answer(call, *answer)

    def __enter__(self) -> "ScriptedService":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
