"""A small fleet: what the demo shows, and the campaign of faults in short."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

pytestmark = pytest.mark.not_under("sanitizer", "emulator", reason="it is built without, and tried by hand there")

ROOT = Path(__file__).resolve().parents[2]
PROGRAMS = ("HALVEK_DAEMON", "HALVEK_VCAM", "HALVEK_MQTT")


def run_module(name: str, *words: str) -> str:
    environment = os.environ | {"PYTHONPATH": str(ROOT)}
    command = [sys.executable, "-B", "-m", name, *words]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def test_the_demo_of_a_fleet_shows_what_it_says():
    shown = run_module("demo.fleet", *(os.environ[name] for name in PROGRAMS), "3")
    assert "3 cameras are online" in shown and "All of this really happened" in shown


def test_every_event_arrives_or_is_counted_whatever_the_broker_does():
    shown = run_module("testing.mqtt_campaign", "--minutes", "0.1", "--seed", "3")
    assert "0 lost" in shown and "0 out of order" in shown
