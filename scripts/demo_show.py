"""How the demo speaks, and how it insists."""

from daemon_process import NotSeen

PATIENCE = 5.0  # seconds


def say(text: str = "") -> None:
    print(text, flush=True)


def heading(text: str) -> None:
    say(f"\n== {text}")


def require(condition: bool, what_is_wrong: str) -> None:
    if not condition:
        raise NotSeen(what_is_wrong)
