"""What rules mean, written down once more as plainly as can be, to compare halvek-rules with."""

import fnmatch
import re
from collections import defaultdict, deque
from dataclasses import dataclass, field

NUMBER = re.compile(r"[+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?")


@dataclass
class Event:
    type: str
    props: dict[str, str]


@dataclass
class Rule:
    name: str
    when: str
    where: dict[str, str]
    post: str
    set: dict[str, str]
    kind: str = "each"
    second: str = ""
    second_where: dict[str, str] = field(default_factory=dict)
    count: int = 0
    span: int = 0  # all times are milliseconds
    hold_off: int = 0
    same: tuple[str, ...] = ()

    def text(self) -> str:
        lines = [f"[Rule {self.name}]", f"When={self.when}", f"Post={self.post}"]
        lines += [f"Where.{key}={value}" for key, value in self.where.items()]
        lines += [f"Set.{key}={value}" for key, value in self.set.items()]
        if self.kind == "count":
            lines += [f"Count={self.count}", f"Within.sec={self.span / 1000}"]
        if self.kind == "then":
            lines += [f"Then={self.second}", f"Within.sec={self.span / 1000}"]
        if self.kind == "unless":
            lines += [f"Unless={self.second}", f"After.sec={self.span / 1000}"]
        lines += [f"{self.kind.title()}.Where.{key}={value}" for key, value in self.second_where.items()]
        lines += [f"HoldOff.sec={self.hold_off / 1000}"] if self.hold_off else []
        lines += [f"Same={','.join(self.same)}"] if self.same else []
        return "\n".join(lines) + "\n"


def is_one_of(condition: str, value: str) -> bool:
    if condition[:1] in ("<", ">"):
        if not NUMBER.fullmatch(value):
            return False
        number, limit = float(value), float(condition[1:])
        return number < limit if condition[0] == "<" else number > limit
    if condition[:1] == "~":
        return fnmatch.fnmatchcase(value, condition[1:])
    return value == condition


def holds(condition: str, value: str | None) -> bool:
    if condition.startswith("!"):
        return not holds(condition[1:], value)
    return value is not None and any(is_one_of(part, value) for part in condition.split("|"))


def is_meant(event: Event, wanted_type: str, where: dict[str, str]) -> bool:
    return event.type == wanted_type and all(holds(value, event.props.get(key)) for key, value in where.items())


def chain_of(event: Event) -> list[str]:
    return [name for name in event.props.get("ruleChain", "").split(",") if name]


class Model:
    def __init__(self, rules: list[Rule]) -> None:
        self.rules = rules
        self.now = 0
        self.posts: list[tuple[int, str, dict[str, str]]] = []
        self.opened: dict[tuple, tuple[int, Event]] = {}
        self.order: list[tuple] = []  # of the open ones, as they were opened
        self.counted: dict[tuple, list[int]] = defaultdict(list)
        self.posted_at: dict[tuple, int] = {}
        self.held: dict[tuple, int] = defaultdict(int)
        self.waiting: deque[Event] = deque()

    def step(self, delay: int, event: Event | None) -> None:
        target = self.now + delay
        while (due := self.first_due()) and due[0] < target:
            self.now = due[0]
            self.fire_all_due()
        self.now = target
        if event is not None:
            self.waiting.append(event)
        self.take_waiting()
        self.fire_all_due()

    def fire_all_due(self) -> None:
        """What comes of it comes back behind all of it."""
        while (due := self.first_due()) and due[0] <= self.now:
            self.fire_unless(due[2])
        self.take_waiting()

    def first_due(self) -> tuple[int, int, tuple] | None:
        due = [
            (at + self.rules[key[0]].span, self.order.index(key), key)
            for key, (at, _) in self.opened.items()
            if self.rules[key[0]].kind == "unless"
        ]
        return min(due, default=None)

    def fire_unless(self, key: tuple) -> None:
        _, first = self.opened.pop(key)
        self.fire(key, [first])

    def take_waiting(self) -> None:
        while self.waiting:
            event = self.waiting.popleft()
            event.props.setdefault("eventType", event.type)
            for number, rule in enumerate(self.rules):
                self.take(number, rule, event)

    def take(self, number: int, rule: Rule, event: Event) -> None:
        key = (number, *(event.props.get(name) for name in rule.same))
        is_behind = rule.name in chain_of(event)
        is_first = is_meant(event, rule.when, rule.where) and not is_behind
        is_second = rule.kind in ("then", "unless") and is_meant(event, rule.second, rule.second_where)
        if rule.kind == "each" and is_first:
            self.fire(key, [event])
        if rule.kind == "count" and is_first:
            self.counted[key] = [at for at in self.counted[key] if self.now - at <= rule.span] + [self.now]
            if len(self.counted[key]) >= rule.count:
                self.counted[key] = []
                self.fire(key, [event])
        if rule.kind == "then":
            in_time = key in self.opened and self.now - self.opened[key][0] <= rule.span
            if is_second and in_time and not is_behind:
                _, first = self.opened.pop(key)
                self.fire(key, [event, first])
            elif is_first:
                self.open(key, event)
        if rule.kind == "unless":
            if is_second:
                self.opened.pop(key, None)
            if is_first and key not in self.opened:
                self.open(key, event)

    def open(self, key: tuple, event: Event) -> None:
        self.opened[key] = (self.now, event)
        self.order = [other for other in self.order if other != key] + [key]

    def fire(self, key: tuple, events: list[Event]) -> None:
        rule = self.rules[key[0]]
        if rule.hold_off and key in self.posted_at and self.now - self.posted_at[key] < rule.hold_off:
            self.held[key] += 1
            return
        self.posted_at[key] = self.now

        def value(found: re.Match) -> str:
            return next((event.props[found[1]] for event in events if found[1] in event.props), "")

        props = {name: re.sub(r"\$\{(\w+)\}", value, text) for name, text in rule.set.items()}
        names = [name for event in reversed(events) for name in chain_of(event)] + [rule.name]
        props |= {"rule": rule.name, "ruleChain": ",".join(dict.fromkeys(names))}
        if held := self.held.pop(key, 0):
            props["suppressed"] = str(held)
        self.posts.append((self.now, rule.post, props))
        self.waiting.append(Event(rule.post, dict(props)))


def script_of(steps: list[tuple[int, Event | None]]) -> str:
    lines = []
    for delay, event in steps:
        words = [f'{key}="{value}"' for key, value in event.props.items()] if event else []
        lines.append(" ".join([f"+{delay / 1000}", *([event.type] if event else []), *words]))
    return "\n".join(lines) + "\n"


def posts_of(rules: list[Rule], steps: list[tuple[int, Event | None]]) -> list[tuple[int, str, dict[str, str]]]:
    model = Model(rules)
    for delay, event in steps:
        model.step(delay, Event(event.type, dict(event.props)) if event else None)
    return model.posts
