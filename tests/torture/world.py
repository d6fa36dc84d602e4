"""The world of a torture run: an origin, data directories, actors, and a proof of our own."""

import hashlib
import json
import os
import shutil
import signal
import struct
import subprocess
import tempfile
import time
from pathlib import Path

KINDS = ["open", "write", "copy", "clone", "truncate", "rename", "link", "unlink", "mkdir", "sync", "flock", "send", "recv"]
COHORTS = ".tidalcrest-cohorts"
WATCH_SECONDS = 60  # no operation on a distribution this small takes longer

# About thirty files: features, found files, vocabulary, functions, signals index, references, a module.
RECIPE = ["--features", "8", "--feature-bytes", "512", "4096", "--found-signals", "4", "--found-strategies", "2",
          "--found-bytes", "256", "2048", "--vault-modules", "pricing", "--module-bytes", "2048", "4096",
          "--extras", "2", "--extra-bytes", "256", "2048"]


class Finding(Exception):
    """A promise that did not hold."""


class Programs:
    """Copies of what was built, so that a build may go on meanwhile."""

    def __init__(self, build, work):
        programs = Path(work) / "programs"
        programs.mkdir(exist_ok=True)
        for name in ("tools/tidalcrest-origin", "tests/torture/torture_actor", "tests/torture/tidalcrest_interposer.so"):
            shutil.copy2(Path(build) / name, programs)
        self.origin = programs / "tidalcrest-origin"
        self.actor = programs / "torture_actor"
        self.interposer = programs / "tidalcrest_interposer.so"


class Origin:
    """One distribution, served on loopback for as long as this object lives."""

    def __init__(self, programs, work, recipe=()):
        self.programs = programs
        self.tree = Path(tempfile.mkdtemp(prefix="origin-", dir=work)) / "tree"
        self._run("build", self.tree, *(recipe or RECIPE))
        ready = self.tree.parent / "ready.json"
        self._log = open(self.tree.parent / "log", "wb")
        self.process = subprocess.Popen(
            [self.programs.origin, "serve", self.tree, "--api-port", "0", "--data-port", "0", "--ready-file", ready],
            stdout=self._log, stderr=self._log)
        deadline = time.monotonic() + 20
        while not ready.exists() or not ready.stat().st_size:
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"the origin did not come up, see {self._log.name}")
            time.sleep(0.02)
        self.addresses = json.loads(ready.read_text())

    def evolve(self, *arguments):
        self._run("evolve", self.tree, *arguments)
        time.sleep(0.05)  # the server looks at the tree again for each request; its state file is in place now

    def _run(self, *arguments):
        subprocess.run([self.programs.origin, *map(str, arguments)], check=True, stdout=subprocess.DEVNULL)

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._log.close()


class Outcome:
    """How one actor ended."""

    def __init__(self, status, document, text, counters, seconds):
        self.status = status
        self.killed = status == -signal.SIGKILL
        self.document = document
        self.text = text
        self.counters = counters
        self.seconds = seconds

    @property
    def hits(self):
        return self.counters["hits"]


class World:
    """Runs actors against one origin and proves what they leave."""

    def __init__(self, programs, work, origin):
        self.programs = programs
        self.work = Path(work)
        self.origin = origin
        self._counters = self.work / f"counters-{os.getpid()}"

    def command(self, operation, data, *arguments):
        at = self.origin.addresses
        return [str(part) for part in (self.programs.actor, operation, data, at["server_url"], at["token_file"],
                                       at["wallet_secret_file"], *arguments)]

    def environment(self, data, plan="", log=None, concurrency=1, extra=None):
        environment = dict(os.environ, LD_PRELOAD=str(self.programs.interposer), TIDALCREST_TORTURE_ROOT=str(data),
                           TIDALCREST_TORTURE_COUNTERS=str(self._counters), TIDALCREST_TORTURE_PLAN=plan,
                           TIDALCREST_TORTURE_CONCURRENCY=str(concurrency))
        if log:
            environment["TIDALCREST_TORTURE_LOG"] = str(log)
        environment.update(extra or {})
        return environment

    def act(self, operation, data, *arguments, plan="", log=None, concurrency=1, watch=WATCH_SECONDS, extra=None):
        """Runs one actor under a plan to its end, within a bound of time."""
        self._counters.unlink(missing_ok=True)
        started = time.monotonic()
        process = subprocess.Popen(self.command(operation, data, *arguments), stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT,
                                   env=self.environment(data, plan, log, concurrency, extra))
        try:
            text, _ = process.communicate(timeout=watch)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Finding(f"{operation} under '{plan}' hung: no end within {watch} s")
        seconds = time.monotonic() - started
        text = text.decode(errors="replace")
        document = None
        if process.returncode == 0:
            document = json.loads(text.strip().splitlines()[-1])
        elif process.returncode != -signal.SIGKILL:
            raise Finding(f"{operation} under '{plan}' died with {process.returncode}: {text[-500:]}")
        return Outcome(process.returncode, document, text, self._read_counters(), seconds)

    def _read_counters(self):
        try:
            raw = self._counters.read_bytes()
        except FileNotFoundError:
            raw = b""
        if len(raw) < 8 * (3 + len(KINDS)):
            raise RuntimeError("the interposer was not loaded")
        numbers = struct.unpack(f"{3 + len(KINDS)}Q", raw[: 8 * (3 + len(KINDS))])
        return {"calls": numbers[0], "hits": numbers[1], "received": numbers[2], **dict(zip(KINDS, numbers[3:]))}

    def fresh_data(self, template=None):
        data = Path(tempfile.mkdtemp(prefix="data-", dir=self.work))
        if template:
            shutil.copytree(template, data, symlinks=True, dirs_exist_ok=True)
        return data

    def must(self, operation, data, *arguments):
        outcome = self.act(operation, data, *arguments)
        if not outcome.document or not outcome.document["ok"]:
            raise Finding(f"{operation} failed without any fault: {outcome.text[-500:]}")
        return outcome


# --- A proof that shares no code with the product ---


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def selected(data):
    """Digest of the selector, absent when there is none."""
    try:
        return sha256((Path(data) / "manifest.json").read_bytes())
    except FileNotFoundError:
        return None


def wrong_members(data):
    """The members of the selected cohort that are not what its manifest declares; absent without a complete cohort."""
    data = Path(data)
    try:
        manifest_bytes = (data / "manifest.json").read_bytes()
    except FileNotFoundError:
        return None
    root = data / COHORTS / sha256(manifest_bytes)
    try:
        record = json.loads((root / ".cohort-complete.json").read_bytes())
        if (root / ".cohort-manifest.json").read_bytes() != manifest_bytes:
            return [".cohort-manifest.json"]
    except (FileNotFoundError, NotADirectoryError, ValueError):
        return None
    files = json.loads(manifest_bytes)["files"]
    wrong = []
    for path in record["active_relative_paths"]:
        declared = files.get(path) or record["artifact_identities"][path]
        member = root / path
        if member.is_symlink() or not member.is_file():
            wrong.append(path)
            continue
        content = member.read_bytes()
        if len(content) != declared["size_bytes"] or sha256(content) != declared["sha256"]:
            wrong.append(path)
    return wrong


def cohort_roots(data):
    try:
        return sorted(name for name in os.listdir(Path(data) / COHORTS) if name != ".distribution.lock")
    except FileNotFoundError:
        return []


def leftovers(data):
    """What does not belong to a directory at rest: staging files and roots that are no complete generation."""
    found = [name for name in cohort_roots(data)
             if not (Path(data) / COHORTS / name / ".cohort-complete.json").exists() or name.startswith(".")]
    for directory, _, names in os.walk(data):
        found += [os.path.join(directory, name) for name in names if name.endswith(".tmp")]
    if (Path(data) / "sync-progress.json").exists():
        found.append("sync-progress.json")
    if (Path(data) / ".transition_lock").exists():
        found.append(".transition_lock")
    return found


def left_for_good(world, data):
    """What is still left over once a sync had nothing else to do: that one sweeps."""
    if leftovers(data):
        world.must("sync", data)
    return leftovers(data)


def remove(directory):
    shutil.rmtree(directory, ignore_errors=True)
