#!/usr/bin/python3
"""What the Python face adds to a no-change poll and to a sync with nothing new, beside the same calls from C++; and what
one look into a manifest of 100,000 files costs. The two sides run in turn."""

import statistics
import subprocess
import sys
import tempfile
import time
import timeit
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "build/release/python"), str(ROOT / "python/tests")]

import tidalcrest.sync as tc  # noqa: E402
from conftest import Origin  # noqa: E402

ROUNDS, TURNS = 200, 5


def of_python(origin, data_dir):
    manager = tc.SyncManager(data_dir, **origin.options())
    manager.sync()
    for name, call in (("poll", manager.needs_sync), ("sync", manager.sync)):
        for _ in range(ROUNDS):
            started = time.perf_counter()
            call()
            yield name, (time.perf_counter() - started) * 1e6


def of_cpp(origin, data_dir):
    program = ROOT / "build/release/bench/face_bench"
    out = subprocess.run([program, data_dir, origin.url, origin.token, origin.secret.hex(), str(ROUNDS)], check=True,
                         capture_output=True, text=True).stdout
    for line in out.splitlines():
        name, microseconds = line.split()
        yield name, float(microseconds)


def show_calls():
    measured = {}
    with tempfile.TemporaryDirectory(dir=ROOT / "build") as work:
        origin = Origin(Path(work), "--features", "20")
        try:
            data_dir = Path(work) / "data"
            data_dir.mkdir()
            for _ in range(TURNS):
                for side, run in (("C++", of_cpp), ("Python", of_python)):
                    for name, microseconds in run(origin, data_dir):
                        measured.setdefault((name, side), []).append(microseconds)
        finally:
            origin.close()
    for name in ("poll", "sync"):
        cpp, python = (statistics.median(measured[name, side]) for side in ("C++", "Python"))
        print(f"{name}: C++ {cpp:.0f} us, Python {python:.0f} us, {100 * (python / cpp - 1):+.1f} %")


def show_bare_calls():
    """A call that finds nothing to do, and one that calls back once: what the face itself takes."""
    with tempfile.TemporaryDirectory() as data_dir:
        manager = tc.SyncManager(data_dir, "http://127.0.0.1:1", lambda: "token")
        manager.register_era_callback(lambda event_type, era_number: None)
        for name, call in (("a call", lambda: manager.add_active_feature_paths([])),
                           ("a call with a callback", lambda: manager._notify_era_callbacks("kill", 1))):
            print(f"{name}: {min(timeit.repeat(call, number=2000, repeat=7)) / 2000 * 1e6:.1f} us")


def show_manifest():
    tc.Manifest({"era_number": 1}).files  # loads what is loaded once
    entry = {"kind": "feature", "sha256": "0" * 64, "size_bytes": 1, "named_universe": "u1"}
    manifest = tc.Manifest({"era_number": 1, "files": {f"features/u1/{n}.arrow": entry for n in range(100_000)}})
    started = time.perf_counter()
    manifest.files["features/u1/99999.arrow"]
    one = time.perf_counter() - started
    started = time.perf_counter()
    len(manifest.files.items())
    print(f"manifest of 100,000 files: one entry {one * 1e6:.0f} us,"
          f" all of them {(time.perf_counter() - started) * 1e3:.0f} ms")


if __name__ == "__main__":
    show_calls()
    show_bare_calls()
    show_manifest()
