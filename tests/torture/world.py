"""The world of a torture run: an origin, data directories, actors, and a proof of our own."""

import hashlib
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

sys.path.append(str(Path(__file__).parents[1] / "support"))
from origin_server import OriginServer  # noqa: E402

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


class Origin(OriginServer):
    def __init__(self, programs, work):
        super().__init__(programs.origin, Path(tempfile.mkdtemp(prefix="origin-", dir=work)), *RECIPE)


@dataclass
class Outcome:
    """How one actor ended."""

    status: int
    document: dict
    text: str
    counters: dict
    seconds: float

    @property
    def killed(self):
        return self.status == -signal.SIGKILL

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

    def environment(self, data, plan, log):
        environment = dict(os.environ, LD_PRELOAD=str(self.programs.interposer), TIDALCREST_TORTURE_ROOT=str(data),
                           TIDALCREST_TORTURE_COUNTERS=str(self._counters), TIDALCREST_TORTURE_PLAN=plan,
                           TIDALCREST_TORTURE_CONCURRENCY="1")
        return environment | ({"TIDALCREST_TORTURE_LOG": str(log)} if log else {})

    def act(self, operation, data, *arguments, plan="", log=None):
        """Runs one actor under a plan to its end, within a bound of time."""
        self._counters.unlink(missing_ok=True)
        started = time.monotonic()
        process = subprocess.Popen(self.command(operation, data, *arguments), stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, env=self.environment(data, plan, log))
        try:
            text, _ = process.communicate(timeout=WATCH_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Finding(f"{operation} under '{plan}' hung: no end within {WATCH_SECONDS} s")
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
    selector = data / "manifest.json"
    return sha256(selector.read_bytes()) if selector.exists() else None


def is_as_declared(member, declared):
    if member.is_symlink() or not member.is_file():
        return False
    content = member.read_bytes()
    return len(content) == declared["size_bytes"] and sha256(content) == declared["sha256"]


def wrong_members(data):
    """The members of the selected cohort that are not what its manifest declares; absent without a complete cohort."""
    chosen = selected(data)
    if chosen is None:
        return None
    manifest_bytes = (data / "manifest.json").read_bytes()
    root = data / COHORTS / chosen
    try:
        record = json.loads((root / ".cohort-complete.json").read_bytes())
        if (root / ".cohort-manifest.json").read_bytes() != manifest_bytes:
            return [".cohort-manifest.json"]
    except (FileNotFoundError, NotADirectoryError, ValueError):
        return None
    declared = record["artifact_identities"] | json.loads(manifest_bytes)["files"]
    return [path for path in record["active_relative_paths"] if not is_as_declared(root / path, declared[path])]


def cohort_roots(data):
    roots = data / COHORTS
    return sorted(name for name in os.listdir(roots) if name != ".distribution.lock") if roots.exists() else []


def leftovers(data):
    """What does not belong to a directory at rest: staging files and roots that are no complete generation."""
    found = [name for name in cohort_roots(data)
             if not (data / COHORTS / name / ".cohort-complete.json").exists() or name.startswith(".")]
    found += [str(path) for path in data.rglob("*.tmp") if not path.is_dir()]
    return found + [name for name in ("sync-progress.json", ".transition_lock") if (data / name).exists()]


def prove_settled(world, data, wanted):
    """That cohort, whole, and nothing left over at the latest once a sync had nothing else to do: that one sweeps."""
    if selected(data) == wanted and wrong_members(data) == []:
        if leftovers(data):
            world.must("sync", data)
        if not leftovers(data):
            return
    raise Finding(f"selected {selected(data)}, wrong {wrong_members(data)}, left {leftovers(data)} (kept in {data})")


def remove(directory):
    shutil.rmtree(directory, ignore_errors=True)
