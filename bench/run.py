#!/usr/bin/env python3
"""Whole-process times of a sync, beside other tools that fetch the same files and prove them.

Every tool is followed, where it does not do so itself, by a digest of all files (`openssl dgst -sha256` in two
processes) and one `sync -f`. The tools run in turn, round by round; medians and ratios of one run are what counts.
"""

import argparse
import contextlib
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import peers
from distribution import CLIENT, ROOT, Distribution, accepts, free_port, wait_until
from measure import Comparison, run

KIB = 1 << 10
MIB = 1 << 20
MANY_FILES = 1_000


class Size:
    """How large the workloads are: those that the numbers are published for, or a tenth for a quick look."""

    def __init__(self, small):
        part = 10 if small else 1
        self.small_files = 10_000 // part
        self.mixed_files = 200 // part
        self.large_bytes = 384 * MIB // part
        self.nothing_new = (1_000, 10_000) if small else (1_000, 10_000, 100_000)

    # The origin makes two files for each feature.
    def small(self):
        return (f"{self.small_files:,} files of 4 to 64 KiB", self.small_files * 34 * KIB,
                ["--features", str(self.small_files // 2), "--feature-bytes", "4096", "65536"])

    def mixed(self):
        return (f"{self.mixed_files:,} files around 4 MiB", self.mixed_files * 4 * MIB,
                ["--features", str(self.mixed_files // 2), "--feature-bytes", str(3 * MIB), str(5 * MIB)])

    def large(self):
        return (f"6 files of {self.large_bytes / MIB:.0f} MiB", 6 * self.large_bytes,
                ["--features", "1", "--extras", "6", "--extra-bytes", str(self.large_bytes)])

    def members(self, count):
        return f"{count:,} members", count * 8 * KIB, ["--features", str(count // 2), "--feature-bytes", "64", "128"]


def require_space(directory, needed):
    free = shutil.disk_usage(directory).free
    if free < needed:
        raise SystemExit(f"{directory}: {needed / MIB:.0f} MiB are needed, {free / MIB:.0f} MiB are free")


def fresh(directory):
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()
    return directory


def listed_files(manifest):
    return [(path, f"{manifest['base_url']}/{path}", entry) for path, entry in manifest["files"].items()]


def take_memory(directory, count):
    """Writes and removes one file of so many bytes. A virtual machine is given a page when it first writes to it, and
    loses it some seconds after it is free: whoever filled the page cache next would pay for it, in processor time.
    In pieces of the size that clients write: the kernel takes memory for larger ones from elsewhere."""
    block = bytes(64 << 10)
    scratch_file = directory / "memory"
    with scratch_file.open("wb", buffering=0) as file:
        for _ in range(count // len(block)):
            file.write(block)
    scratch_file.unlink()


def measured_in(directory, command, keep=None):
    """The cost of a command that fills `directory`, which is gone afterwards, or in `keep` until all is measured:
    for minutes ext4 looks past every file that was deleted before it makes a new one, and the next tool would pay."""
    try:
        return run(command)
    finally:
        if keep is None:
            shutil.rmtree(directory)
        else:
            directory.rename(keep / str(len(os.listdir(keep))))


def cold(work, workload, rounds):
    title, total, recipe = workload
    with Distribution(work, recipe) as distribution:
        files = listed_files(distribution.manifest())
        keep = fresh(work / "done") if len(files) >= MANY_FILES else None

        def peer_job(make):
            def job(_):
                target = fresh(work / "peer")
                take_memory(work, total)
                return measured_in(target, make(files, target), keep)
            return job

        def own_job(_):
            data = fresh(work / "data")
            take_memory(work, total)
            return measured_in(data, distribution.sync(data), keep)

        jobs = {"tidalcrest-sync": own_job}
        jobs.update((name, peer_job(make)) for name, make in peers.installed(peers.COLD).items())
        if keep:
            require_space(work, rounds * len(jobs) * total)
        Comparison(f"cold, {title}", jobs).measure(rounds).show()


def nothing_new(work, workload, rounds):
    title, _, recipe = workload
    data = fresh(work / "data")
    with Distribution(work, recipe) as distribution:
        run(distribution.sync(data))
        root, = [entry for entry in (data / ".tidalcrest-cohorts").iterdir() if (entry / ".cohort-complete.json").exists()]
        subprocess.run(["sh", "-c", f"cd {root} && git init -q . && git add -A . && git -c user.name=b -c user.email=b@b "
                        "commit -q -m b >/dev/null"], check=True, env={**os.environ, "GIT_DIR": str(work / "git"),
                                                                       "GIT_WORK_TREE": str(root)})
        walk = (f"find {root} -printf '%p %s %T@ %i\\n' >/dev/null && curl -sS -o /dev/null -z '2020-01-01' "
                f"-H \"Authorization: Bearer $(cat {distribution.ready['token_file']})\" "
                f"{distribution.ready['server_url']}/data/manifest/version")
        index = f"GIT_DIR={work}/git GIT_WORK_TREE={root} git diff-files --quiet"
        run(distribution.sync(data))
        comparison = Comparison(f"nothing new, {title}", {
            "tidalcrest-sync": lambda _: run(distribution.sync(data)),
            "find -printf + conditional GET": lambda _: run(["sh", "-c", walk]),
            "git diff-files": lambda _: run(["sh", "-c", index]),
        }).measure(3 * rounds)
        comparison.show()
        paths = work / "paths"
        paths.write_text("".join(path + "\n" for path in distribution.manifest()["files"]))
        stat = subprocess.run([ROOT / "build/release/bench/stat_members", root, paths], check=True, capture_output=True)
    return comparison.median("tidalcrest-sync", "wall"), float(stat.stdout)


def nothing_new_by_count(parent, size, rounds, at_the_end):
    seconds = {}
    for count in size.nothing_new:
        work = at_the_end.enter_context(scratch(parent, size.members(count)))
        seconds[count], stat_ns = nothing_new(Path(work), size.members(count), rounds)
    (least, first), (most, last) = min(seconds.items()), max(seconds.items())
    per_member = (last - first) / (most - least) * 1e9
    print(f"\nnothing new, each further member: {per_member:.0f} ns; one fstatat: {stat_ns:.0f} ns; "
          f"ratio {per_member / stat_ns:.1f}")


def start_rsync_daemon(distribution):
    port = free_port()
    config = distribution.work / "rsyncd.conf"
    config.write_text(f"use chroot = no\n[tree]\npath = {distribution.tree}\nread only = yes\n")
    distribution.start(["rsync", "--daemon", "--no-detach", f"--port={port}", "--address=127.0.0.1", f"--config={config}"])
    wait_until(lambda: accepts(port), "rsync")
    return f"rsync://127.0.0.1:{port}/tree"


class Changed:
    """Rounds of a new version with 1 in 100 members changed; every tool keeps its own copy of the version before."""

    def __init__(self, work, distribution):
        self.work = work
        self.distribution = distribution
        self.before = distribution.manifest()
        self.after = None
        self.data = fresh(work / "data")
        run(distribution.sync(self.data))
        self.copies = {}
        self.rsync_url = start_rsync_daemon(distribution) if shutil.which("rsync") else None

    def next_version(self):
        if self.after is not None:
            self.before = self.after
        self.distribution.evolve("--change", "1%")
        self.after = self.distribution.manifest()

    def own(self, _):
        return run(self.distribution.sync(self.data))

    def updated(self, name, command_for):
        previous = self.copies.get(name)
        if previous is None:
            previous = self.work / f"{name}-0"
            shutil.copytree(self.distribution.release(self.before), previous)
        target = self.work / f"{name}-{self.after['version']}"
        measured = run(command_for(previous, target))
        self.copies[name] = target  # the one before stays: see `measured_in`
        return measured

    def rsync(self, option):
        release = self.distribution.release(self.after).relative_to(self.distribution.tree)
        return lambda previous, target: peers.shell(
            f"rsync -rt {option}={previous} {self.rsync_url}/{release}/ {target}/; {peers.proof(target)}")

    def copy_and_curl(self, previous, target):
        changed = [file for file in listed_files(self.after) if self.before["files"].get(file[0]) != file[2]]
        urls = peers.listing(target, ".curl", peers.curl_lines(changed, target))
        return peers.shell(f"cp -a {previous} {target}; curl -sS --create-dirs -K {urls}; {peers.proof(target)}")

    def jobs(self):
        jobs = {"tidalcrest-sync": self.own}
        if self.rsync_url:
            for option in ("--copy-dest", "--link-dest"):
                jobs[f"rsync {option} + proof"] = lambda _, o=option: self.updated(o.strip("-"), self.rsync(o))
        jobs["cp -a, curl + proof"] = lambda _: self.updated("cp", self.copy_and_curl)
        return jobs


def changed(work, workload, rounds):
    title, _, recipe = workload
    with Distribution(work, recipe) as distribution:
        state = Changed(work, distribution)
        comparison = Comparison(f"1 in 100 changed, {title}", state.jobs())
        for number in range(rounds):
            state.next_version()
            for name, job in comparison.jobs.items():
                comparison.rounds[name].append(job(number))
        comparison.show()


def bytes_below(directory):
    return sum(file.stat().st_blocks * 512 for file in directory.rglob("*") if file.is_file())


def killed_at_half(command, directory, total):
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while process.poll() is None and bytes_below(directory) < total / 2:
        time.sleep(0.005)
    process.send_signal(signal.SIGKILL)
    if process.wait() == 0:
        raise SystemExit("the sync ended before half of it was there")


def resume(work, workload, rounds):
    title, total, recipe = workload
    with Distribution(work, recipe) as distribution:
        def resumed(_):
            data = fresh(work / "data")
            take_memory(work, total)
            killed_at_half(distribution.sync(data), data, total)
            subprocess.run(["sync", "-f", data], check=True)
            return measured_in(data, distribution.sync(data))

        def from_nothing(_):
            data = fresh(work / "data")
            take_memory(work, total)
            return measured_in(data, distribution.sync(data))

        Comparison(f"resume at half, {title}", {"resumed": resumed, "cold run": from_nothing}).measure(rounds).show()


def scratch(parent, workload):
    require_space(parent, 5 * workload[1] + 64 * MIB)  # the tree, two releases, and what the tools write
    return tempfile.TemporaryDirectory(dir=parent, prefix="bench-")


def workloads(size):
    return {
        "cold-small": (cold, size.small()),
        "cold-mixed": (cold, size.mixed()),
        "cold-large": (cold, size.large()),
        "changed": (changed, size.small()),
        "resume": (resume, size.large()),
    }


OF_MANY_FILES = {"cold-small", "changed"}  # removed when all is measured: see `measured_in`


def main():
    names = [*workloads(Size(False)), "nothing-new"]
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__)
    parser.add_argument("workload", nargs="*", help="one of " + ", ".join(names) + "; all without any")
    parser.add_argument("--small", action="store_true", help="a tenth of the size, for a quick look")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--work-dir", type=Path, default=ROOT / "build", help="where the files are written")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))  # the servers are ended and the files removed
    if unknown := set(arguments.workload) - set(names):
        parser.error(f"no workload {', '.join(sorted(unknown))}")
    size = Size(arguments.small)
    print(f"{CLIENT.name} on {os.cpu_count()} cores, load {os.getloadavg()[0]:.1f}; medians of {arguments.rounds} rounds; "
          "a ratio below 1 means less than that tool")
    with contextlib.ExitStack() as at_the_end:
        for name in arguments.workload or names:
            measure_workload(name, size, arguments, at_the_end)


def measure_workload(name, size, arguments, at_the_end):
    if name == "nothing-new":
        nothing_new_by_count(arguments.work_dir, size, arguments.rounds, at_the_end)
        return
    measure, workload = workloads(size)[name]
    with contextlib.ExitStack() as at_once:
        stack = at_the_end if name in OF_MANY_FILES else at_once
        measure(Path(stack.enter_context(scratch(arguments.work_dir, workload))), workload, arguments.rounds)


if __name__ == "__main__":
    main()
