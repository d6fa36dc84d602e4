#!/usr/bin/env python3
"""Tortures the product and tells what held: ./dev torture [slice...]"""

import argparse
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

import containment
import crowd
import fail_sweep
import file_systems
import kill_sweep
import power_cut
from world import Finding, Programs

SLICES = {"kill": kill_sweep, "fail": fail_sweep, "power": power_cut, "crowd": crowd,
          "containment": containment, "files": file_systems}


def work_directory(given):
    # Memory, where there is some: the sweeps want ten thousands of small files made and flushed.
    parent = given or ("/dev/shm" if Path("/dev/shm").is_dir() else None)
    return tempfile.mkdtemp(prefix="tidalcrest-torture-", dir=parent)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("slices", nargs="*", metavar="SLICE", help=", ".join(SLICES))
    parser.add_argument("--build", default=Path(__file__).parents[2] / "build/release", help="build directory")
    parser.add_argument("--work", help="directory to work in (default: memory)")
    parser.add_argument("--quick", action="store_true", help="a short slice of fixed choice")
    parser.add_argument("--seconds", type=float, default=180, help="how long the races run (default: %(default)s)")
    parser.add_argument("--thorough", action="store_true", help="every error at every call: hours")
    arguments = parser.parse_args()
    unknown = [name for name in arguments.slices if name not in SLICES]
    if unknown:
        parser.error(f"no slice {', '.join(unknown)}; there are {', '.join(SLICES)}")
    work = work_directory(arguments.work)
    findings = []
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that what was started is ended, too

    def tell(line):
        print(line, flush=True)

    for name in arguments.slices or SLICES:
        started = time.monotonic()
        try:
            figures = SLICES[name].run(Programs(arguments.build, work), work, arguments, tell)
            tell(f"{name}: held ({figures}; {time.monotonic() - started:.0f} s)")
        except Finding as finding:
            findings.append(finding)
            tell(f"{name}: FINDING: {finding}")
    if findings:
        return 1
    shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
