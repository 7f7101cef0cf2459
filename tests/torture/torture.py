"""Tortures the daemon, see scripts/torture."""

import argparse
import sys
import time
from pathlib import Path

from actions import EVERYTHING
from campaign import BAD, Campaign, table
from scene import Scene

SHORT, LONG = 3, 60  # failures of each call in each action, at most


def options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/torture", description=__doc__)
    parser.add_argument("--short", action="store_true", help="under two minutes")
    parser.add_argument("--only", default="", help="what contains this in its name")
    parser.add_argument("--without", default="", help="no failures of this call")
    parser.add_argument("--verbose", action="store_true", help="print what came of every failure")
    return parser.parse_args()


def torture(scene: Scene, chosen: argparse.Namespace) -> Campaign:
    campaign = Campaign(scene, SHORT if chosen.short else LONG, not chosen.short, chosen.without)
    parts = {action.name: lambda action=action: campaign.torture_running(action) for action in EVERYTHING}
    parts |= {"start": campaign.torture_starts, "reload": campaign.torture_reloads, "stop": campaign.torture_stops}
    for name, run in parts.items():
        if chosen.only in name:
            started, before = time.monotonic(), len(campaign.findings)
            run()
            print(f"{name}: {len(campaign.findings) - before} in {time.monotonic() - started:.1f} s", flush=True)
    return campaign


def main() -> int:
    chosen = options()
    with Scene(Path("/run/tests")) as scene:
        findings = torture(scene, chosen).findings
    if chosen.verbose:
        print(*findings, sep="\n\n")
    print(table(findings))
    return 1 if any(finding.outcome in BAD for finding in findings) else 0


if __name__ == "__main__":
    sys.exit(main())
