"""Adds up the results of the presets: test_summary.py BUILD_FOLDER PRESET...

A system test is one test to ctest and many to pytest, which leaves a file of its own; that one counts.
"""

import sys
import xml.etree.ElementTree as ElementTree
from collections import Counter
from pathlib import Path

PASSED, FAILED, SKIPPED = OUTCOMES = ("passed", "failed", "skipped")


def pytest_outcomes(file: Path) -> Counter[str]:
    outcomes = {}
    for case in ElementTree.parse(file).iter("testcase"):
        children = {child.tag for child in case}
        outcome = FAILED if children & {"failure", "error"} else SKIPPED if "skipped" in children else PASSED
        name = case.get("classname"), case.get("name")
        # A test whose clean-up fails as well stands there twice.
        outcomes[name] = FAILED if FAILED in (outcome, outcomes.get(name)) else outcome
    return Counter(outcomes.values())


def preset_outcomes(results: Path) -> Counter[str]:
    total: Counter[str] = Counter()
    if not (results / "ctest.xml").exists():
        return total
    for case in ElementTree.parse(results / "ctest.xml").iter("testcase"):
        own = {"run": PASSED, "fail": FAILED}.get(case.get("status"), SKIPPED)
        file = results / f"{case.get('name')}.xml"
        outcomes = pytest_outcomes(file) if file.exists() else Counter()
        if not outcomes or (own == FAILED and not outcomes[FAILED]):
            outcomes[own] += 1
        total += outcomes
    return total


def in_words(outcomes: Counter[str]) -> str:
    return ", ".join(f"{outcomes[outcome]} {outcome}" for outcome in OUTCOMES)


def main(build_folder: str, *presets: str) -> int:
    by_preset = {preset: preset_outcomes(Path(build_folder) / preset / "test-results") for preset in presets}
    print()
    for preset, outcomes in by_preset.items():
        print(f"{preset}: {in_words(outcomes) if outcomes else 'no test ran'}")
    total = sum(by_preset.values(), Counter())
    print(in_words(total))
    return 0 if all(by_preset.values()) and not total[FAILED] else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
