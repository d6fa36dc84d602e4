#!/usr/bin/env python3
"""Prints which share of the lines of src/ has run: coverage.py BUILD_DIR [--minimum PERCENT] [--lines]"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def counted_lines(build_dir):
    """File -> {line: times run}; a line of a header or a template counts once, whoever ran it."""
    notes = sorted(str(path.resolve()) for path in pathlib.Path(build_dir).rglob("tidalcrest_sync.dir/**/*.gcda"))
    if not notes:
        raise SystemExit(f"{build_dir} holds no counts: build it with TIDALCREST_COVERAGE=ON and run the tests")
    output = subprocess.run(["gcov", "--json-format", "--stdout", *notes], check=True, capture_output=True,
                            text=True).stdout
    files = collections.defaultdict(collections.Counter)
    for report in map(json.loads, filter(None, output.splitlines())):
        for file in report["files"]:
            path = (pathlib.Path(report["current_working_directory"]) / file["file"]).resolve()
            if not path.is_relative_to(ROOT / "src"):
                continue
            lines = files[str(path.relative_to(ROOT))]
            for line in file["lines"]:
                lines[line["line_number"]] += line["count"]
    return files


def share(files):
    total = sum(len(lines) for lines in files)
    ran = sum(count > 0 for lines in files for count in lines.values())
    return 100.0 * ran / max(total, 1), ran, total


def ranges(numbers):
    """[3, 4, 5, 9] -> "3-5 9" """
    spans = []
    for number in sorted(numbers):
        if spans and number == spans[-1][1] + 1:
            spans[-1][1] = number
        else:
            spans.append([number, number])
    return " ".join(f"{first}-{last}" if last > first else str(first) for first, last in spans)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build_dir")
    parser.add_argument("--minimum", type=float, default=0, help="fail below this share of all lines")
    parser.add_argument("--lines", action="store_true", help="say which lines did not run")
    arguments = parser.parse_args()

    files = counted_lines(arguments.build_dir)
    rooms = collections.defaultdict(list)
    for path, lines in files.items():
        rooms[path.split("/")[1]].append(lines)
    for room in sorted(rooms):
        print("src/{:<12} {:5.1f} %  {:>5} of {:>5} lines".format(room, *share(rooms[room])))
    if arguments.lines:
        for path in sorted(files):
            missed = [number for number, count in files[path].items() if count == 0]
            if missed:
                print(f"{path}: {ranges(missed)}")
    percent, ran, total = share(files.values())
    print("src/{:<12} {:5.1f} %  {:>5} of {:>5} lines".format("", percent, ran, total))
    if percent < arguments.minimum:
        sys.exit(f"less than {arguments.minimum} % of the lines ran")


if __name__ == "__main__":
    main()
