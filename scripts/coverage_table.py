"""Prints the coverage of each folder: coverage_table.py SUMMARY, which is a JSON summary of gcovr's."""

import json
import sys
from collections import Counter
from pathlib import Path


def folder_of(name: str) -> str:
    """One row a room; the platform has several."""
    return str(Path(name).parent)


def share(counts: Counter[str], kind: str) -> str:
    total, covered = counts[f"{kind}_total"], counts[f"{kind}_covered"]
    return f"{covered:6} of {total:6} {100 * covered / total if total else 100:6.1f} %"


def main(summary: Path) -> None:
    folders: dict[str, Counter[str]] = {}
    for file in json.loads(summary.read_text(encoding="utf-8"))["files"]:
        counts = Counter({key: value for key, value in file.items() if key.endswith(("_total", "_covered"))})
        folders.setdefault(folder_of(file["filename"]), Counter()).update(counts)
    print(f"{'folder':<28} {'lines':>25} {'branches':>25}")
    for name, counts in [*sorted(folders.items()), ("all", sum(folders.values(), Counter()))]:
        print(f"{name:<28} {share(counts, 'line')} {share(counts, 'branch')}")


if __name__ == "__main__":
    main(Path(sys.argv[1]))
