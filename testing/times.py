"""When things happened."""

import re
import time
from itertools import pairwise


def record_time(line: str) -> float:
    """The local time of a log record, in seconds; only differences mean something."""
    stamp, millis = re.match(r"([-\dT:]{19})\.(\d{3}) ", line).groups()
    return time.mktime(time.strptime(stamp, "%Y-%m-%dT%H:%M:%S")) + int(millis) / 1000


def assert_paced(ticks: list[float], seconds: float) -> None:
    """One tick a period: a busy machine may be late with one, so it is the quickest that must not be too slow."""
    gaps = [later - earlier for earlier, later in pairwise(ticks)]
    assert 0.5 * seconds < min(gaps) < 1.5 * seconds, gaps
