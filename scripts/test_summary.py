"""Adds up the results of the presets: test_summary.py BUILD_FOLDER PRESET...

A system test is one test to ctest and many to pytest, which leaves a file of its own; that one counts. What failed has
long scrolled by, so it is named again with what it said; the counts come last.
"""

import sys
import textwrap
import xml.etree.ElementTree as ElementTree
from collections import Counter
from pathlib import Path
from typing import NamedTuple

PASSED, FAILED, SKIPPED = OUTCOMES = ("passed", "failed", "skipped")
MOST_LINES = 20  # of what a failed test said


class Result(NamedTuple):
    outcome: str
    said: str = ""


Results = dict[str, Result]


def pytest_results(file: Path) -> Results:
    results: Results = {}
    for case in ElementTree.parse(file).iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        children = {child.tag: child for child in case}
        fault = children.get("failure", children.get("error"))
        # A test whose clean-up fails as well stands there twice.
        if fault is not None:
            lines = fault.get("message", "").splitlines()
            results[name] = Result(FAILED, "\n".join(lines[:MOST_LINES]))
        elif name not in results:
            results[name] = Result(SKIPPED if "skipped" in children else PASSED)
    return results


def preset_results(folder: Path) -> Results:
    results: Results = {}
    if not (folder / "ctest.xml").exists():
        return results
    for case in ElementTree.parse(folder / "ctest.xml").iter("testcase"):
        name = str(case.get("name"))
        outcome = {"run": PASSED, "fail": FAILED}.get(str(case.get("status")), SKIPPED)
        file = folder / f"{name}.xml"
        parts = pytest_results(file) if file.exists() else {}
        results |= parts
        # Of a file without parts all has been left out of this preset, if it has not failed.
        if not file.exists() or (outcome == FAILED and FAILED not in outcomes(parts)):
            lines = case.findtext("system-out", "").splitlines()
            results[name] = Result(outcome, "\n".join(lines[-MOST_LINES:]))
    return results


def outcomes(results: Results) -> Counter[str]:
    return Counter(result.outcome for result in results.values())


def in_words(counts: Counter[str]) -> str:
    return ", ".join(f"{counts[outcome]} {outcome}" for outcome in OUTCOMES)


def main(build_folder: str, *presets: str) -> int:
    by_preset = {preset: preset_results(Path(build_folder) / preset / "test-results") for preset in presets}
    for preset, results in by_preset.items():
        for name, result in results.items():
            if result.outcome == FAILED:
                print(f"\n{preset}: {name} failed:\n{textwrap.indent(result.said, '    ')}")
    print()
    for preset, results in by_preset.items():
        print(f"{preset}: {in_words(outcomes(results)) if results else 'no test ran'}")
    total = sum((outcomes(results) for results in by_preset.values()), Counter())
    print(in_words(total))
    return 0 if all(by_preset.values()) and not total[FAILED] else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
