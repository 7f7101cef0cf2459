"""halvekctl schedule, against what Python makes of the same settings."""

import os
import random
from collections.abc import Iterator
from datetime import UTC, date, datetime, timedelta
from pathlib import Path
from zoneinfo import ZoneInfo

import pytest
from ctl import answer, ctl, json_answer, write_store
from testing.settings import Settings, handler, timer

ZONES = [
    "Africa/Casablanca",
    "Africa/Monrovia",
    "America/Caracas",
    "America/Havana",
    "America/New_York",
    "America/Santiago",
    "America/Sao_Paulo",
    "America/St_Johns",
    "Asia/Beirut",
    "Asia/Gaza",
    "Asia/Kathmandu",
    "Asia/Tehran",
    "Asia/Tokyo",
    "Australia/Lord_Howe",
    "Europe/Berlin",
    "Europe/Dublin",
    "Europe/London",
    "Pacific/Apia",
    "Pacific/Chatham",
    "UTC",
]
slow_there = pytest.mark.not_under("emulator", reason="a zone takes four seconds there, and others show its times")
EVERYWHERE = {"Asia/Kathmandu", "Australia/Lord_Howe", "Europe/Berlin", "Pacific/Apia", "UTC"}
EACH_ZONE = [name if name in EVERYWHERE else pytest.param(name, marks=slow_there) for name in ZONES]
# By hand: every minute of the years; else the days around each change of the clocks, and some others.
WHOLE = "HALVEK_TEST_WHOLE_YEARS" in os.environ
FILTERS = [
    {"EnabledTimes": "100-300"},
    {"EnabledTimes": "2200-2400,0-600", "EnabledDays": "MTWRF"},
    {"EnabledTimes": "0-1,159-201,1207-1208,2359-2400", "EnabledDays": "US"},
    {"EnabledDays": "UR"},
    {},
]
LETTERS = "MTWRFSU"


def is_open(local: datetime, keys: dict[str, str]) -> bool:
    """What the manual says, in other words than the daemon's."""
    if "EnabledDays" in keys and LETTERS[local.weekday()] not in keys["EnabledDays"]:
        return False
    if "EnabledTimes" not in keys:
        return True
    now = local.hour * 100 + local.minute
    ranges = [tuple(map(int, one.split("-"))) for one in keys["EnabledTimes"].split(",")]
    return any(low <= now < high for low, high in ranges)


def week_of(keys: dict[str, str]) -> list[bool]:
    """By weekday and minute of the day."""
    monday = datetime(2026, 11, 23)
    return [is_open(monday + timedelta(minutes=minute), keys) for minute in range(7 * 1440)]


WEEKS = [week_of(keys) for keys in FILTERS]


def filter_settings() -> Settings:
    settings = timer(1, 5)
    for number, keys in enumerate(FILTERS):
        settings |= handler(number, "Events/Source#1", **keys)
    return settings


def minutes_of(spans: list[dict]) -> set[int]:
    minutes: set[int] = set()
    for span in spans:
        begin, end = (datetime.fromisoformat(span[key]) for key in ("from", "to"))
        assert begin < end
        minutes.update(range(int(begin.timestamp()), int(end.timestamp()), 60))
    return minutes


def expected(begin: datetime, end: datetime, zone: ZoneInfo) -> list[set[int]]:
    found: list[set[int]] = [set() for _ in FILTERS]
    for stamp in range(int(begin.timestamp()), int(end.timestamp()), 60):
        local = datetime.fromtimestamp(stamp, zone)
        minute = local.weekday() * 1440 + local.hour * 60 + local.minute
        for minutes, week in zip(found, WEEKS, strict=True):
            if week[minute]:
                minutes.add(stamp)
    return found


def changes(year: int, zone: ZoneInfo) -> Iterator[date]:
    day = date(year, 1, 1)
    while day.year == year:
        begin, end = (datetime(*one.timetuple()[:3], tzinfo=zone) for one in (day, day + timedelta(1)))
        if begin.utcoffset() != end.utcoffset():
            yield day
        day += timedelta(1)


def spans_of_days(year: int, zone: ZoneInfo) -> list[tuple[date, int]]:
    if WHOLE:
        return [(date(year, 1, 1), 365)]
    return [(date(year, 2, 1), 1)] + [(day - timedelta(1), 3) for day in changes(year, zone)]


def years_of(name: str) -> list[int]:
    """2011 has the day that Apia left out."""
    return [2026, 2011] if WHOLE or name == "Pacific/Apia" else [2026]


@pytest.mark.parametrize("name", EACH_ZONE)
def test_every_minute_is_as_zoneinfo_has_it(name: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    zone = ZoneInfo(name)
    for year in years_of(name):
        for first, days in spans_of_days(year, zone):
            told = json_answer(
                "--settings", store, "--zone", name, "schedule", "--from", first, "--days", days, "--next", 0
            )
            begin, end = (datetime.fromisoformat(told[key]) for key in ("from", "to"))
            assert begin.astimezone(zone).date() == first and begin.astimezone(zone).time().hour in (0, 1)
            assert end.astimezone(zone).date() == first + timedelta(days)
            found = [minutes_of(one["open"]) for one in told["handlers"]]
            assert found == expected(begin, end, zone), (first, days)


@pytest.mark.parametrize("name", EACH_ZONE)
def test_the_days_when_clocks_change_are_those_of_zoneinfo(name: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    zone = ZoneInfo(name)
    told = json_answer("--settings", store, "--zone", name, "schedule", "--from", "2026-05-01", "--days", 1)
    days = list(changes(2026, zone))
    for number, one in enumerate(told["handlers"]):
        assert [date.fromisoformat(change["day"]) for change in one["dst"]] == days
        for change in one["dst"]:
            begin, end = (datetime.fromisoformat(change[key]) for key in ("from", "to"))
            assert minutes_of(change["open"]) == expected(begin, end, zone)[number]


@pytest.mark.parametrize("name", ["UTC", "Europe/Berlin", "America/New_York", "Africa/Monrovia"])
def test_before_the_clock_is_set_it_is_the_first_day_of_1970(name: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    zone = ZoneInfo(name)
    told = json_answer("--settings", store, "--zone", name, "schedule", "--from", "2026-05-01", "--days", 1)
    begin = datetime(1970, 1, 1, tzinfo=zone)
    wanted = expected(begin, begin + timedelta(1), zone)
    assert [minutes_of(one["before_clock_is_set"]) for one in told["handlers"]] == wanted


def test_the_next_openings_are_as_many_as_are_wanted_and_begin_where_it_was_closed(tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    zone = ZoneInfo("Europe/Berlin")
    told = json_answer(
        "--settings", store, "--zone", zone.key, "schedule", "--from", "2026-10-20", "--next", 9, "--days", 1
    )
    for one, keys in zip(told["handlers"], FILTERS, strict=True):
        assert len(one["next"]) == (9 if keys else 0)
        for span in one["next"]:
            begin, end = (datetime.fromisoformat(span[key]) for key in ("from", "to"))
            assert begin.utcoffset() == begin.astimezone(zone).utcoffset()
            for at, wanted in ((begin, True), (end, False), (begin - timedelta(minutes=1), False)):
                assert is_open(at.astimezone(UTC).astimezone(zone), keys) == wanted, (keys, span)


def random_times(dice: random.Random) -> str:
    """Ranges as careless people write them, and some that are none."""
    numbers = [dice.choice((0, 1, 30, 59, 60, 75, 100, 559, 600, 1260, 1299, 1330, 2359, 2400, 2500, 99999))]
    pieces = []
    for _ in range(dice.randint(1, 4)):
        low, high = sorted(dice.choice((dice.randint(0, 2459), *numbers)) for _ in range(2))
        pieces.append(
            dice.choice((f"{low}-{high}",) * 5 + (f"{high}-{low}", f"00{low}-0{high}", f"{low}", "", f"{low}-x"))
        )
    return ",".join(pieces)


def lets_through(minute: int, times: str) -> bool:
    """What the manual says, unreadable ranges included."""
    now = minute // 60 * 100 + minute % 60
    for piece in times.split(","):
        bounds = piece.split("-")
        if len(bounds) != 2 or not all(bound.isdigit() and int(bound) < 1 << 31 for bound in bounds):
            return True
        if int(bounds[0]) <= now < int(bounds[1]):
            return True
    return False


def test_ranges_of_any_kind_are_asked_at_all_that_matters(tmp_path: Path) -> None:
    dice = random.Random(1)
    texts = [random_times(dice) for _ in range(300)]
    settings = timer(1, 5)
    for number, text in enumerate(texts):
        settings |= handler(number, "Events/Source#1", EnabledTimes=text)
    store = write_store(tmp_path, settings)
    told = json_answer(
        "--settings", store, "--zone", "UTC", "schedule", "--from", "2026-11-23", "--days", 2, "--next", 0
    )
    begin = int(datetime(2026, 11, 23, tzinfo=UTC).timestamp())
    by_group = {one["group"]: one for one in told["handlers"]}
    for number, text in enumerate(texts):
        one = by_group[f"Events/Handler#{number}"]
        day = {minute for minute in range(1440) if lets_through(minute, text)}
        wanted = {begin + (day_number * 1440 + minute) * 60 for day_number in range(2) for minute in day}
        assert minutes_of(one["open"]) == wanted, text


def test_a_handler_that_never_opens_has_no_openings(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="2200-600")
    store = write_store(tmp_path, settings)
    [one] = json_answer("--settings", store, "schedule", "Handler#1")["handlers"]
    assert (one["open"], one["next"], one["before_clock_is_set"]) == ([], [], [])
    assert "never opens" in answer("--settings", store, "schedule")


def test_a_range_that_cannot_be_read_opens_from_there_on_and_is_told(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="800-1200,noon")
    settings |= handler(2, "Events/Source#1", EnabledTimes="800-1200")
    told = json_answer("--settings", write_store(tmp_path, settings), "--zone", "UTC", "schedule", "--days", 1)
    assert [one["unreadable_range"] for one in told["handlers"]] == [True, False]
    assert [len(minutes_of(one["open"])) for one in told["handlers"]] == [1440, 240]


@pytest.mark.parametrize("name", ["Handler#2", "Events/Handler#2"])
def test_a_handler_may_be_called_either_way(name: str, tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    told = json_answer("--settings", store, "schedule", name)
    assert [one["group"] for one in told["handlers"]] == ["Events/Handler#2"]


def strips(text: str) -> list[str]:
    return [word for line in text.splitlines() for word in line.split() if len(word) == 48 and set(word) <= set("#.+")]


def test_a_strip_has_a_character_for_each_half_hour(tmp_path: Path) -> None:
    settings = timer(1, 5) | handler(1, "Events/Source#1", EnabledTimes="100-230,1215-1220", EnabledDays="MTWRF")
    store = write_store(tmp_path, settings)
    words = ["--settings", store, "--zone", "Europe/Berlin", "schedule", "--from", "2026-11-20", "--days", 3]
    weekday = ".." + "###" + "." * 19 + "+" + "." * 23
    assert strips(answer(*words, "--next", 0)) == [weekday, "." * 48, "." * 48, weekday]


def test_every_line_of_a_day_names_zone_and_offset(tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    text = answer("--settings", store, "--zone", "Europe/Dublin", "schedule", "--from", "2026-03-27", "--dst")
    lines = [line for line in text.splitlines() if strips(line) or "opens 2" in line or " opens " in line]
    assert len(lines) > 5 * (7 + 2 + 1)
    for line in lines:
        assert "Europe/Dublin" in line or "never closes" in line
        assert "+00:00" in line or "+01:00" in line or "never closes" in line
    assert "Sun 2026-03-29 +00:00>+01:00" in text


def test_a_day_that_the_clocks_left_out_is_told(tmp_path: Path) -> None:
    store = write_store(tmp_path, filter_settings())
    text = answer("--settings", store, "--zone", "Pacific/Apia", "schedule", "--from", "2011-12-29", "Handler#0")
    assert "Fri 2011-12-30" in text and "leave this day out" in text


@pytest.mark.parametrize(
    "words",
    [
        ["Handler#99"],
        ["--from", "tomorrow"],
        ["--from", "2026-02-29"],
        ["--days", "0"],
        ["--days", "367"],
        ["--days", "seven"],
        ["--next", "-1"],
        ["--format", "json", "--svg"],
    ],
)
def test_a_wrong_command_line_is_2(words: list[str], tmp_path: Path) -> None:
    done = ctl("--settings", write_store(tmp_path, filter_settings()), "schedule", *words)
    assert (done.returncode, done.stdout) == (2, b""), done
