"""When things happened."""

import os
import re
import time
from itertools import pairwise

# Only the release build runs the tests with the marker "alone" by themselves; HALVEK_BUILD names the others. In
# seconds, of which a machine may stand still for one, or, with tests beside this one and slow programs, for four.
LATE = 4.0 if os.environ.get("HALVEK_BUILD") else 1.5


def record_time(line: str) -> float:
    """The local time of a log record, in seconds; only differences mean something."""
    stamp, millis = re.match(r"([-\dT:]{19})\.(\d{3}) ", line).groups()
    return time.mktime(time.strptime(stamp, "%Y-%m-%dT%H:%M:%S")) + int(millis) / 1000


def assert_paced(ticks: list[float], seconds: float) -> None:
    """One tick a period: a busy machine may be late with one, so it is the quickest that must not be too slow."""
    gaps = [later - earlier for earlier, later in pairwise(ticks)]
    assert 0.5 * seconds < min(gaps) < 1.5 * seconds, gaps
