"""halvek-rules against a plain model of what rules mean, with random rules and random events.

HALVEK_RULES_STREAMS says how many streams of events are tried; 20,000 take some minutes.
"""

import os
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from rules_model import Event, Rule, posts_of, script_of
from testing.rules import posts

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it runs hundreds of programs")

STREAMS = int(os.environ.get("HALVEK_RULES_STREAMS", "150"))
TYPES = ["A", "B"]  # few, so that much happens
KEYS = ["x", "y"]
VALUES = ["1", "2", "10", "-1.5", "", "ab", "a b", "1e1"]
CONDITIONS = ["1", "1|2", "<2", ">1|ab", "~a*", "~?", "~[!a]*", "", "!1", "!1|2", "!~a*", "!<2", "!"]

milliseconds = st.sampled_from([500, 1000, 2000])
types = st.sampled_from(TYPES)
keys = st.sampled_from(KEYS)
conditions = st.just({}) | st.just({}) | st.dictionaries(keys, st.sampled_from(CONDITIONS), max_size=1)


@st.composite
def a_rule(draw, number: int) -> Rule:
    kind = draw(st.sampled_from(["each", "count", "then", "unless"]))
    return Rule(
        name=f"r{number}",
        when=draw(types),
        where=draw(conditions),
        post=draw(st.sampled_from([*TYPES, "C"])),
        set=draw(st.dictionaries(keys, st.sampled_from(["1", "${x}", "<${y}>${x}", "${rule}"]), max_size=2)),
        kind=kind,
        second=draw(types) if kind in ("then", "unless") else "",
        second_where=draw(conditions) if kind in ("then", "unless") else {},
        count=draw(st.integers(1, 4)),
        span=draw(milliseconds | st.just(0)),
        hold_off=draw(st.just(0) | milliseconds),
        same=tuple(draw(st.just([]) | st.lists(keys, unique=True, max_size=2))),
    )


@st.composite
def some_rules(draw) -> list[Rule]:
    return [draw(a_rule(number)) for number in range(draw(st.integers(1, 4)))]


events = st.builds(Event, types, st.dictionaries(keys, st.sampled_from(VALUES), max_size=2))
steps = st.lists(st.tuples(st.sampled_from([0, 1, 500, 500, 1000, 1000, 2000]), events | st.none()), max_size=30)


@settings(
    max_examples=STREAMS,
    deadline=None,
    database=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow],
)
@given(some_rules(), steps)
def test_what_comes_out_is_what_the_model_says(tmp_path: Path, rules: list[Rule], stream: list):
    text = "".join(rule.text() for rule in rules)
    came = [(post["at_ms"], post["type"], post["props"]) for post in posts(tmp_path, text, script_of(stream))]
    assert came == posts_of(rules, stream)
