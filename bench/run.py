#!/usr/bin/env python3
"""Whole-process times of a sync, beside other tools that fetch the same files and prove them.

Every tool is followed, where it does not do so itself, by a digest of all files (`openssl dgst -sha256` in two
processes) and one `sync -f`. The tools run in turn, round by round; medians and ratios of one run are what counts.
"""

import argparse
import contextlib
import json
import os
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
ORIGIN = ROOT / "build/release/tools/tidalcrest-origin"
CLIENT = ROOT / "build/release/cli/tidalcrest-sync"
MIB = 1 << 20

COLD = {
    "small": ("10,000 files of 4 to 64 KiB", ["--features", "5000", "--feature-bytes", "4096", "65536"]),
    "mixed": ("200 files around 4 MiB", ["--features", "100", "--feature-bytes", str(3 * MIB), str(5 * MIB)]),
    "large": ("6 files of 384 MiB", ["--features", "1", "--extras", "6", "--extra-bytes", str(384 * MIB)]),
}
NOTHING_NEW = {"10k": ("10,000 members", "5000"), "100k": ("100,000 members", "50000")}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(command, **kwargs):
    """Wall seconds, CPU seconds and peak memory in MiB of a command and what it started."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    started = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **kwargs)
    output = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    wall = time.monotonic() - started
    if process.returncode != 0:
        sys.exit(f"{command[0]} ended with {process.returncode}:\n{output.decode(errors='replace')[-2000:]}")
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return {"wall": wall, "cpu": cpu, "mib": usage.ru_maxrss / 1024}


class Distribution:
    """A built tree, its data origin served by nginx and its API by the origin tool."""

    def __init__(self, work, name, recipe):
        self.tree = work / name
        self.work = work
        self.port = free_port()
        flags = ["--found-signals", "2", "--found-strategies", "1", "--data-base-url", f"http://127.0.0.1:{self.port}"]
        subprocess.run([ORIGIN, "build", self.tree, *flags, *recipe], check=True, stdout=subprocess.DEVNULL)
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        self._start_nginx()
        ready = self.work / "ready.json"
        ready.unlink(missing_ok=True)
        server = subprocess.Popen(
            [ORIGIN, "serve", self.tree, "--api-port", "0", "--data-base-url", f"http://127.0.0.1:{self.port}",
             "--ready-file", ready], stdout=subprocess.DEVNULL)
        self.stack.callback(lambda: (server.send_signal(signal.SIGTERM), server.wait()))
        for _ in range(200):
            if ready.exists():
                break
            time.sleep(0.05)
        self.ready = json.loads(ready.read_text())
        return self

    def __exit__(self, *failure):
        self.stack.close()
        shutil.rmtree(self.tree, ignore_errors=True)

    def _start_nginx(self):
        prefix = self.work / "nginx"
        prefix.mkdir(exist_ok=True)
        config = prefix / "nginx.conf"
        config.write_text(f"""
            daemon off; worker_processes 2; pid {prefix}/pid; error_log {prefix}/error.log;
            user root;
            events {{ worker_connections 512; }}
            http {{ access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000;
                    server {{ listen 127.0.0.1:{self.port}; root {self.tree}; }} }}""")
        server = subprocess.Popen(["nginx", "-p", prefix, "-c", config], stderr=subprocess.DEVNULL)
        self.stack.callback(lambda: (server.send_signal(signal.SIGTERM), server.wait()))
        for _ in range(100):
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 0.2):
                return
            time.sleep(0.05)

    def evolve(self, *flags):
        subprocess.run([ORIGIN, "evolve", self.tree, *flags], check=True, stdout=subprocess.DEVNULL)

    def manifest(self):
        token = Path(self.ready["token_file"]).read_text().strip()
        request = urllib.request.Request(self.ready["server_url"] + "/data/manifest",
                                         headers={"Authorization": "Bearer " + token})
        with urllib.request.urlopen(request) as answer:
            return json.load(answer)

    def sync(self, data, *flags):
        return [CLIENT, "sync", "--json", "--data-dir", data, "--server-url", self.ready["server_url"],
                "--token-file", self.ready["token_file"], "--wallet-secret-file", self.ready["wallet_secret_file"],
                *flags]


def proof(directory):
    return (f"find {directory} -type f -print0 | xargs -0 -n 64 -P 2 openssl dgst -sha256 >{directory}.digests"
            f" && sync -f {directory}")


def aria2c(distribution, directory):
    manifest = distribution.manifest()
    listing = directory.with_suffix(".aria2")
    with listing.open("w") as out:
        for path, entry in manifest["files"].items():
            out.write(f"{manifest['base_url']}/{path}\n out={path}\n checksum=sha-256={entry['sha256']}\n")
    return ["sh", "-c", f"aria2c -q -j8 -x1 --file-allocation=none -d {directory} -i {listing} && sync -f {directory}"]


def curl_parallel(distribution, directory):
    manifest = distribution.manifest()
    listing = directory.with_suffix(".curl")
    with listing.open("w") as out:
        for path in manifest["files"]:
            out.write(f'url="{manifest["base_url"]}/{path}"\noutput="{directory}/{path}"\n')
    return ["sh", "-c", f"curl -sS --parallel --parallel-max 8 --create-dirs -K {listing} && {proof(directory)}"]


def show(title, measured, first="tidalcrest-sync"):
    print(f"\n{title}")
    print(f"  {'':24}{'wall s':>9}{'cpu s':>9}{'peak MiB':>10}{'wall ratio':>12}")
    own = statistics.median(r["wall"] for r in measured[first])
    for name, rounds in measured.items():
        medians = {key: statistics.median(r[key] for r in rounds) for key in ("wall", "cpu", "mib")}
        ratio = f"{own / medians['wall']:.2f}" if name != first else ""
        print(f"  {name:24}{medians['wall']:9.2f}{medians['cpu']:9.2f}{medians['mib']:10.1f}{ratio:>12}")
    sys.stdout.flush()


def cold(work, name, rounds):
    title, recipe = COLD[name]
    peers = {tool: make for tool, make in {"aria2c": aria2c, "curl": curl_parallel}.items() if shutil.which(tool)}
    measured = {"tidalcrest-sync": [], **{f"{peer} + proof": [] for peer in peers}}
    with Distribution(work, name, recipe) as distribution:
        for number in range(rounds):
            data = work / f"data{number}"
            data.mkdir()
            measured["tidalcrest-sync"].append(run(distribution.sync(data)))
            for peer, make in peers.items():
                target = work / f"{peer}{number}"
                target.mkdir()
                measured[f"{peer} + proof"].append(run(make(distribution, target)))
                shutil.rmtree(target)
            shutil.rmtree(data)
    show(f"cold, {title}", measured)


def nothing_new(work, name, rounds):
    title, features = NOTHING_NEW[name]
    data = work / "data"
    data.mkdir()
    recipe = ["--features", features, "--feature-bytes", "64", "128"]
    measured = {"tidalcrest-sync": [], "find -printf + one GET": []}
    with Distribution(work, name, recipe) as distribution:
        run(distribution.sync(data))
        run(distribution.sync(data))
        walk = (f"find {data}/.tidalcrest-cohorts -printf '%p %s %T@ %i\\n' >/dev/null && "
                f"curl -sS -o /dev/null -H \"Authorization: Bearer $(cat {distribution.ready['token_file']})\" "
                f"{distribution.ready['server_url']}/data/manifest/version")
        for _ in range(rounds):
            measured["tidalcrest-sync"].append(run(distribution.sync(data)))
            measured["find -printf + one GET"].append(run(["sh", "-c", walk]))
    shutil.rmtree(data)
    show(f"nothing new, {title}", measured)


def changed(work, rounds):
    title, recipe = COLD["small"]
    data = work / "data"
    data.mkdir()
    measured = {"tidalcrest-sync": []}
    with Distribution(work, "changed", recipe) as distribution:
        run(distribution.sync(data))
        previous = distribution.tree / "releases" / distribution.manifest()["base_url"].rsplit("/", 1)[1]
        copy = work / "copy0"
        if shutil.which("rsync"):
            measured["rsync --copy-dest + proof"] = []
            shutil.copytree(previous, copy)
        for number in range(1, rounds + 1):
            distribution.evolve("--change", "1%")
            measured["tidalcrest-sync"].append(run(distribution.sync(data)))
            if copy.exists():
                release = distribution.tree / "releases" / distribution.manifest()["base_url"].rsplit("/", 1)[1]
                target = work / f"copy{number}"
                command = f"rsync -r --times --copy-dest={copy} {release}/ {target}/ && {proof(target)}"
                measured["rsync --copy-dest + proof"].append(run(["sh", "-c", command]))
                shutil.rmtree(copy)
                copy = target
        shutil.rmtree(copy, ignore_errors=True)
    shutil.rmtree(data)
    show(f"1 in 100 changed, {title}", measured)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    names = [f"cold-{name}" for name in COLD] + [f"nothing-{name}" for name in NOTHING_NEW] + ["changed"]
    parser.add_argument("workload", nargs="*", help="one of " + ", ".join(names) + "; all without any")
    parser.add_argument("--rounds", type=int, default=3)
    arguments = parser.parse_args()
    for name in arguments.workload:
        if name not in names:
            parser.error(f"no workload {name}")
    print(f"{os.cpu_count()} cores; medians of {arguments.rounds} rounds; a ratio below 1 means faster than that tool")
    scratch = ROOT / "build"
    for name in arguments.workload or names:
        kind, _, rest = name.partition("-")
        with tempfile.TemporaryDirectory(dir=scratch, prefix="bench-") as work:
            if kind == "cold":
                cold(Path(work), rest, arguments.rounds)
            elif kind == "nothing":
                nothing_new(Path(work), rest, arguments.rounds)
            else:
                changed(Path(work), arguments.rounds)


if __name__ == "__main__":
    main()
