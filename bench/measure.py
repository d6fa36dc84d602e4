"""Runs commands in turn and compares what they cost."""

import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

TIME_LIMIT = 900  # seconds for one command


def run(command):
    """Wall seconds, CPU seconds and peak memory in MiB of a command and what it waited for."""
    # `time` starts the command: the peak of a child of this process would begin with what this process holds.
    with tempfile.NamedTemporaryFile("r") as peak:
        measured = run_timed(["time", "-q", "-f", "%M", "-o", peak.name, *command])
        return {**measured, "mib": int(peak.read()) / 1024}


def run_timed(command):
    started = time.monotonic()
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True) as process:
        alarm = signal.signal(signal.SIGALRM, lambda *_: os.killpg(process.pid, signal.SIGKILL))
        signal.alarm(TIME_LIMIT)
        output = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        signal.alarm(0)
        signal.signal(signal.SIGALRM, alarm)
        process.returncode = os.waitstatus_to_exitcode(status)
    wall = time.monotonic() - started
    if process.returncode != 0:
        text = output.decode(errors="replace")[-2000:]
        sys.exit(f"{' '.join(map(str, command))[:300]} ended with {process.returncode}:\n{text}")
    return {"wall": wall, "cpu": usage.ru_utime + usage.ru_stime}


class Comparison:
    """Several tools on one job, round by round; every round begins with another of them."""

    def __init__(self, title, jobs):
        self.title = title
        self.jobs = jobs  # name -> function of the round's number, giving what `run` gives
        self.rounds = {name: [] for name in jobs}

    def measure(self, count):
        names = list(self.jobs)
        for number in range(count):
            at = number % len(names)
            for name in names[at:] + names[:at]:
                self.rounds[name].append(self.jobs[name](number))
        return self

    def median(self, name, key):
        return statistics.median(one[key] for one in self.rounds[name])

    def show(self):
        own = next(iter(self.jobs))
        print(f"\n{self.title}")
        print(f"  {'':34}{'wall s':>9}{'cpu s':>9}{'peak MiB':>10}{'wall ratio':>12}{'cpu ratio':>11}")
        for name in self.jobs:
            wall, cpu, mib = (self.median(name, key) for key in ("wall", "cpu", "mib"))
            ratios = ""
            if name != own:
                ratios = f"{self.median(own, 'wall') / wall:12.2f}{self.median(own, 'cpu') / max(cpu, 1e-6):11.2f}"
            print(f"  {name:34}{wall:9.3f}{cpu:9.3f}{mib:10.1f}{ratios}")
        sys.stdout.flush()
