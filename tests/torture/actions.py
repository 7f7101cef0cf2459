"""What the daemon is asked to do while a call of it fails, and how to tell whether it has done it."""

import time
from collections import Counter
from collections.abc import Callable

from scene import EVENT_PIPE_THREAD, PICTURE, Scene

OFTEN = 0.003  # seconds
SOON = 0.1  # seconds; what comes over the bus is there before, mostly
LATER = 3.0  # seconds
QUICK = 0.3  # seconds; for what cannot come, as far as is known
REPEAT = 0.5  # seconds
FOREVER_AWAY = 12.0  # seconds: a bus that was lost is found again within 10

POINTS = [(0.25, 0.5)] * 20

# What can be lost; the book says so in these words.
BLOCK = "the block for the output pipes"
ACTION = "the action"
EVENT = "the event"
CUT = "the event comes out in pieces"
TWICE = "it is done twice"
PART = "a part of the event"


def wait_for(condition: Callable[[], object], patience: float) -> bool:
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(OFTEN)
    return True


class Action:
    """One thing that the daemon does. A trigger's token tells it from every other one."""

    name = ""
    thread = ""  # the one whose calls fail

    def prepare(self, scene: Scene) -> None:
        """Before each trigger."""

    def trigger(self, scene: Scene) -> object:
        raise NotImplementedError

    def lost(self, scene: Scene, token: object) -> set[str]:
        """What of it has not come about by now; settled actions only."""
        raise NotImplementedError

    def settle(self, scene: Scene, token: object) -> bool:
        """Waits until nothing more comes of it; false if the daemon does not get that far."""
        raise NotImplementedError

    def has_ended(self, scene: Scene) -> bool:
        """Whether its thread is not there any more."""
        return bool(self.thread) and self.thread not in scene.daemon.thread_names()


class Posting(Action):
    """An event on the event pipe, with no handler but the one that forwards it."""

    name = "posted events"
    thread = EVENT_PIPE_THREAD
    kind = "Plain"

    def __init__(self) -> None:
        self._from = 0

    def trigger(self, scene: Scene) -> int:
        self._from = len(scene.pipe.items)
        return scene.post(self.kind)

    def lost(self, scene: Scene, token: object) -> set[str]:
        came = scene.events("number", token, self._from)
        pieces = [event for event in scene.pipe.items[self._from :] if event.type == self.kind]
        whole = [event for event in pieces if event.properties.get("text") == "x" * 100]
        if came == 1 and len(whole) == len(pieces) == 1:
            return set()
        return {TWICE} if len(whole) > 1 else {CUT} if pieces else {BLOCK}

    def settle(self, scene: Scene, token: object) -> bool:
        return scene.wait_for_mark()


class Handling(Posting):
    """An event of the type that a handler listens to."""

    def lost(self, scene: Scene, token: object) -> set[str]:
        lost = super().lost(scene, token)
        # Each piece is an event, with what belongs to it.
        return lost if CUT in lost else lost | self.not_done(scene, token)

    def not_done(self, scene: Scene, token: object) -> set[str]:
        times = self.times_done(scene, token)
        return set() if times == 1 else {TWICE} if times > 1 else {ACTION}

    def times_done(self, scene: Scene, token: object) -> int:
        raise NotImplementedError


class Ordering(Handling):
    """What ends in an order to the camera."""

    order = ""
    arguments = ""

    def prepare(self, scene: Scene) -> None:
        scene.camera.clear_actions()

    def times_done(self, scene: Scene, token: object) -> int:
        # The order has been sent, even if no reply is waited for.
        wait_for(lambda: self._count(scene), QUICK)
        return self._count(scene)

    def _count(self, scene: Scene) -> int:
        return sum(action.arguments.startswith(self.arguments) for action in scene.camera.actions(self.order))


class Relay(Ordering):
    name, kind, order = "the relay", "Relay", "RelayV3.Activate"


class Preset(Ordering):
    name, kind, order, arguments = "the preset", "Preset", "PresetsV2.GoTo", "5"

    def prepare(self, scene: Scene) -> None:
        scene.camera.go_to("1")
        super().prepare(scene)


class Tour(Ordering):
    name, kind, order = "the tour", "Tour", "Tour.Start"


class Folder(Handling):
    name, kind = "the saved snapshot", "Folder"

    def prepare(self, scene: Scene) -> None:
        scene.lay_out_card()

    def not_done(self, scene: Scene, token: object) -> set[str]:
        files = scene.files_on_card()
        lost = set() if files.get("new.jpg") == PICTURE else {"half a snapshot" if "new.jpg" in files else ACTION}
        if "kept.jpg" not in files:
            lost.add("a file that was to stay")
        return lost | {"a file is left behind" for name in files if name.startswith(".")}


class Ftp(Handling):
    name, kind = "the upload", "Ftp"

    def prepare(self, scene: Scene) -> None:
        self._before = len(scene.ftp.received)

    def times_done(self, scene: Scene, token: object) -> int:
        if wait_for(lambda: len(scene.ftp.received) > self._before, 0.1):
            assert scene.ftp.content("/up.jpg") == PICTURE
        return len(scene.ftp.received) - self._before


class Email(Handling):
    name, kind = "the mail", "Email"

    def prepare(self, scene: Scene) -> None:
        self._before = len(scene.sink.mails)

    def not_done(self, scene: Scene, token: object) -> set[str]:
        mails = scene.sink.mails[self._before :]
        if len(mails) != 1:
            return {TWICE} if mails else {ACTION}
        contents = [part.get_content() for part in mails[0].message.iter_parts()]
        texts = [content for content in contents if isinstance(content, str)]
        lost = set() if PICTURE in contents else {"the attachment"}
        if len(texts) != 2 or not texts[0].startswith("Alarm") or f"number = {token}" not in texts[1].splitlines():
            lost.add("a part of the mail")
        return lost


class Signalled(Action):
    """What comes over the bus or by the clock. A fault may cost the connection, so it is asked for until it comes."""

    sources: tuple[str, ...] = ()  # the classes of those that it takes

    def __init__(self) -> None:
        self._given_up: object = None

    def can_come(self, scene: Scene) -> bool:
        """Whether its sources have started and have not ended."""
        return scene.started_sources().issuperset(self.sources) and not self.has_ended(scene)

    def settle(self, scene: Scene, token: object) -> bool:
        if self._comes(scene, token):
            return True
        self._given_up = token
        deadline = time.monotonic() + FOREVER_AWAY
        while scene.is_alive() and time.monotonic() < deadline and not self.has_ended(scene):
            self.prepare(scene)
            if wait_for(lambda new=self.trigger(scene): not self.missing(scene, new), REPEAT):
                return True
        return False

    def lost(self, scene: Scene, token: object) -> set[str]:
        return {EVENT} if token == self._given_up else self.missing(scene, token)

    def missing(self, scene: Scene, token: object) -> set[str]:
        raise NotImplementedError

    def _comes(self, scene: Scene, token: object) -> bool:
        """Whether it comes. Where nothing is told of trouble, a busy machine is given time."""
        return wait_for(lambda: not self.missing(scene, token), SOON) or (
            not scene.told(scene.armed_at) and wait_for(lambda: not self.missing(scene, token), LATER)
        )


class Alarm(Signalled):
    name, thread, sources = "alarms", "MsgBusDelivery", ("AlarmEventSource",)

    def trigger(self, scene: Scene) -> tuple[int, str]:
        scene.alarm_state = not scene.alarm_state
        after = len(scene.pipe.items)
        scene.camera.set_alarm("Local", 1, scene.alarm_state)
        return after, "1" if scene.alarm_state else "0"

    def missing(self, scene: Scene, token: tuple[int, str]) -> set[str]:
        after, state = token
        times = scene.events("alarmState", state, after)
        return set() if times == 1 else {TWICE} if times > 1 else {EVENT}


class AlarmHeard(Alarm):
    name, thread = "alarms on the bus", "MsgBusListener"


class Alert(Signalled):
    """Two sources take it, each with a thread of its own."""

    name, thread = "alerts", "MsgBusDelivery"
    sources = ("AnalyticsEventSource", "MsgBusEventSource")

    def trigger(self, scene: Scene) -> int:
        number = scene.next_number()
        scene.camera.raise_alert(f"c{number}", "Human", "Line", "Gate", "", POINTS, [], "video", "rtsp://x/1")
        return number

    def missing(self, scene: Scene, token: object) -> set[str]:
        recent = scene.pipe.items[max(0, len(scene.pipe.items) - 50) :]
        came = [event for event in recent if event.properties.get("source") == f"c{token}"]
        if any(event.properties["rulePoints"] != "|".join(["(0.25,0.5)"] * len(POINTS)) for event in came):
            return {PART}
        return set() if len(came) == 2 else {TWICE} if len(came) > 2 else {EVENT}


class AlertHeard(Alert):
    name, thread = "alerts on the bus", "MsgBusListener"


class Tick(Signalled):
    name, thread, sources = "the timer", "TimerEventSourc", ("TimerEventSource",)

    def trigger(self, scene: Scene) -> int:
        after = len(scene.pipe.of_type("Timer"))
        scene.faults.let_pass(3600)
        return after

    def missing(self, scene: Scene, token: int) -> set[str]:
        times = len(scene.pipe.of_type("Timer")) - token
        return set() if times == 1 else {TWICE} if times > 1 else {EVENT}


class Park(Signalled):
    name, thread, sources = "the head's rest", "ParkEventSource", ("ParkEventSource",)

    def trigger(self, scene: Scene) -> int:
        after = len(scene.pipe.of_type("Park"))
        scene.camera.set_idle_state(1)
        scene.camera.set_idle_state(0)
        wait_for(lambda: False, 0.02)
        scene.faults.let_pass(1.01)
        wait_for(lambda: False, 0.02)
        scene.faults.let_pass(1.01)
        return after

    def missing(self, scene: Scene, token: int) -> set[str]:
        return set() if len(scene.pipe.of_type("Park")) > token else {EVENT}


HANDLINGS: tuple[Posting, ...] = (Posting(), Relay(), Preset(), Tour(), Folder(), Ftp(), Email())
SIGNALLED: tuple[Signalled, ...] = (Alarm(), AlarmHeard(), Alert(), AlertHeard(), Tick(), Park())
EVERYTHING: tuple[Action, ...] = HANDLINGS + SIGNALLED
THREADS = tuple(dict.fromkeys(action.thread for action in EVERYTHING))


def probe(scene: Scene, patience: float) -> set[str]:
    """Has everything done once, and names what was not.

    An event that is posted behind the others tells when all of them are through. What comes over the bus or by the
    clock is asked for again until it comes, as long as the patience lasts; but only if its sources have started.
    """
    if not scene.wait_for_mark():
        return {"posted events"}
    scene.camera.clear_actions()
    for action in HANDLINGS:
        action.prepare(scene)
    try:
        posted = [(action, action.trigger(scene)) for action in HANDLINGS]
    except OSError:  # it has ended since
        return {"posted events"}
    waiting = {action: action.trigger(scene) for action in (Alarm(), Alert())}
    scene.wait_for_mark()
    # By the clock, which no call of a service is to see jump.
    waiting |= {action: action.trigger(scene) for action in (Tick(), Park())}
    lost = {
        action.name for action, token in posted if not wait_for(lambda a=action, t=token: not a.lost(scene, t), SOON)
    }
    return lost | {action.name for action in still_missing(scene, waiting, patience)}


def still_missing(scene: Scene, waiting: dict[Signalled, object], patience: float) -> dict[Signalled, object]:
    started = time.monotonic()
    again = started + REPEAT
    limits = {action: patience if action.can_come(scene) else QUICK for action in waiting}
    while True:
        waiting = {action: token for action, token in waiting.items() if action.missing(scene, token)}
        now = time.monotonic()
        if not scene.is_alive() or all(now > started + limits[action] for action in waiting):
            return waiting
        if now > again:
            waiting = {action: action.trigger(scene) for action in waiting}
            again = now + REPEAT
        time.sleep(OFTEN)


def threads(scene: Scene) -> Counter[str]:
    return Counter(scene.daemon.thread_names())
