"""Tortures the daemon: one of its calls fails after the other, it is short of something, and neighbours attack it."""

import argparse
import pickle
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from xml.sax.saxutils import quoteattr

from actions import EVERYTHING
from attack import ATTACKS, Measured, run_best
from book import PAGE, Row, differences, page, read, rows, unexplained
from campaign import BAD, Campaign, Finding, table
from scene import SANITIZED, Scene
from starve import Starving

FOLDER = Path("/run/tests")
PRIVATE_RUN = Path(__file__).resolve().parents[2] / "scripts/private-run"
AT_ONCE = 6
SHARES = {"starting": 6, "reloading": 6, "short of something": 2, "the mail": 2}
SHORT, LONG = 1 if SANITIZED else 3, 10_000  # failures of each call in each action, at most
SHORT_ATTACK, LONG_ATTACK = 5.0, 10.0  # seconds


def options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/torture", description=__doc__)
    parser.add_argument("--short", action="store_true", help="under two minutes")
    parser.add_argument("--most", type=int, help="failures of each call in each action, at most")
    parser.add_argument("--attack", type=float, metavar="SECONDS", help="how long each attack lasts")
    parser.add_argument("--only", default="", help="what contains this in its name")
    parser.add_argument("--without", default="", metavar="CALL", help="no failures of this call")
    parser.add_argument("--book", action="store_true", help="write docs/faults.md instead of comparing with it")
    parser.add_argument("--results", type=Path, metavar="FILE", help="write what scripts/test counts")
    parser.add_argument("--work", nargs=3, help=argparse.SUPPRESS)
    parser.add_argument("--verbose", action="store_true", help="print what came of every failure")
    return parser.parse_args()


def parts(campaign: Campaign) -> dict[str, Callable[[], None]]:
    running = {action.name: lambda action=action: campaign.torture_running(action) for action in EVERYTHING}
    return running | {
        "starting": campaign.torture_starts,
        "reloading": campaign.torture_reloads,
        "stopping": campaign.torture_stops,
        "short of something": lambda: Starving(campaign).run(),
    }


def work(chosen: argparse.Namespace) -> None:
    """A share of one part, in a process of its own."""
    name, share, shares = chosen.work
    most = chosen.most or (SHORT if chosen.short else LONG)
    started = time.monotonic()
    with Scene(FOLDER) as scene:
        campaign = Campaign(scene, most, not chosen.short, chosen.without, (int(share), int(shares)))
        parts(campaign)[name]()
    chosen.results.write_bytes(pickle.dumps(campaign.findings))
    took = f"{time.monotonic() - started:.1f} s"
    print(f"{name} {int(share) + 1}/{shares}: {len(campaign.findings)} in {took}", flush=True)


def torture(chosen: argparse.Namespace) -> list[Finding]:
    """Several at once: most of the time is waiting."""
    shares = [
        (name, share, count)
        for name in parts(Campaign.__new__(Campaign))
        if chosen.only in name
        for count in [SHARES.get(name, 1)]
        for share in range(count)
    ]
    with tempfile.TemporaryDirectory() as folder, ThreadPoolExecutor(AT_ONCE) as pool:

        def run(number: int) -> list[Finding]:
            file = Path(folder) / str(number)
            own = ["--work", *map(str, shares[number]), "--results", str(file)]
            command = [str(PRIVATE_RUN), "--net", sys.executable, "-B", __file__, *sys.argv[1:], *own]
            done = subprocess.run(command, check=False)
            if done.returncode != 0:
                raise SystemExit(f"the torture of {shares[number]} came to no end")
            return pickle.loads(file.read_bytes())

        # The longest ones first.
        order = sorted(range(len(shares)), key=lambda number: -shares[number][2])
        return [finding for findings in pool.map(run, order) for finding in findings]


def attack(chosen: argparse.Namespace) -> list[Measured]:
    """The last one is all of them at once."""
    seconds = chosen.attack or (SHORT_ATTACK if chosen.short else LONG_ATTACK)
    attacks = ATTACKS[-1:] if chosen.short else ATTACKS
    return [run_best(attack, FOLDER, seconds) for attack in attacks if chosen.only in attack.name]


def write_results(file: Path, found: list[Row], bad: list[str]) -> None:
    """As ctest does; see scripts/test_summary.py."""
    cases = [f'<testcase name={quoteattr(f"{row.step}: {row.call}")} status="run"/>' for row in found]
    cases += [
        f'<testcase name="torture.{i}" status="fail"><system-out>{quoteattr(text)[1:-1]}</system-out></testcase>'
        for i, text in enumerate(bad)
    ]
    file.write_text("<testsuite>\n" + "\n".join(cases) + "\n</testsuite>\n")


def main() -> int:
    chosen = options()
    if chosen.work:
        work(chosen)
        return 0
    findings = torture(chosen)
    FOLDER.mkdir()
    measured = attack(chosen)
    if chosen.verbose:
        print(*findings, sep="\n\n")
    print(table(findings))
    found = rows(findings)
    bad = [str(finding) for finding in findings if finding.outcome in BAD] + unexplained(found)
    bad += [str(one) for one in measured if one.faults]
    if chosen.book:
        PAGE.write_text(page(found))
    elif not SANITIZED:  # which has other allocations
        whole = not (chosen.short or chosen.only or chosen.without)
        bad += differences(found, read(PAGE.read_text()), whole)
    if chosen.results:
        write_results(chosen.results, found, bad)
    print(*bad, sep="\n")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
