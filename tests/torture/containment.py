"""Another process swaps members, directories and roots for links, sockets, FIFOs, directories and hard links to
outside files, while syncs, proofs and sweeps run. Nothing outside is read into a cohort, written or removed.

The data directory itself may be reached through a link, as its user likes: it is swapped for everything else."""

import os
import random
import shutil
import socket
import threading
import time
from contextlib import closing
from pathlib import Path

from crowd import cast
from world import COHORTS, Finding, Origin, World, remove, sha256, wrong_members

SEED = 11
CAST = ["write-loop", "write-loop", "verify-loop", "sweep-loop"]
MARK = b"from outside the data directory\n"


class Attacker(threading.Thread):
    def __init__(self, data, outside):
        super().__init__()
        self.data, self.outside = Path(data), Path(outside)
        self.randomness = random.Random(SEED)
        self.stopping = threading.Event()
        self.swaps = 0

    def run(self):
        while not self.stopping.is_set():
            try:
                victim = self.victim()
                if victim == self.data:
                    self.swap_data_directory()
                # Not through a link of our own making: the attack is on the data directory only.
                elif victim.parent.resolve().is_relative_to(self.data.resolve()):
                    self.swap(victim)
            except (OSError, IndexError):
                pass  # somebody else was faster
            time.sleep(0.002)

    def victim(self):
        choice = self.randomness.random()
        if choice < 0.01:
            return self.data
        if choice < 0.03:
            return self.data / COHORTS
        if choice < 0.08:
            return self.data / self.randomness.choice(["sync-progress.json", ".sync_hash_cache.json",
                                                       "feature-rotation-state.json", ".consumer_count"])
        roots = [path for path in (self.data / COHORTS).iterdir() if path.is_dir()]
        root = self.randomness.choice(roots)
        if choice < 0.12:
            return root
        inside = list(root.rglob("*"))
        target = self.randomness.choice(inside)
        # A name that a transfer is about to open.
        return target.with_name(target.name + ".tmp") if choice < 0.4 else target

    def swap(self, victim):
        aside = victim.with_name(victim.name + ".aside")
        was_there = os.path.lexists(victim)
        if was_there:
            os.rename(victim, aside)
        self.put(self.randomness.randrange(7), victim)
        # Roots come back, or nothing would ever get far; members sometimes do.
        if was_there and (victim.parent in (self.data, self.data / COHORTS) or self.randomness.random() < 0.5):
            time.sleep(self.randomness.choice([0, 0.001, 0.01]))
            take_away(victim)
            os.rename(aside, victim)
        else:
            take_away(aside)

    def swap_data_directory(self):
        aside = self.data.with_name(self.data.name + ".aside")
        os.rename(self.data, aside)
        try:
            self.put(self.randomness.choice([0, 2, 3, 4, 5, 6]), self.data)
            time.sleep(0.005)
        except FileExistsError:
            pass  # a sync has made itself a new one
        while aside.exists():
            try:
                take_away(self.data)
                os.rename(aside, self.data)
            except OSError:
                pass  # made again in between

    def put(self, kind, victim):
        [lambda: os.symlink(self.outside / "file", victim),
         lambda: os.symlink(self.outside / "directory", victim),
         lambda: os.link(self.outside / "linked", victim),
         lambda: os.mkfifo(victim),
         lambda: os.mkdir(victim),
         lambda: os.symlink("/dev/zero", victim),
         lambda: put_socket(victim)][kind]()
        self.swaps += 1


def put_socket(path):
    with socket.socket(socket.AF_UNIX) as listening:
        listening.bind(str(path))


def take_away(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path, ignore_errors=True)
    elif os.path.lexists(path):
        os.unlink(path)


def build_outside(outside):
    (outside / "directory" / "deeper").mkdir(parents=True)
    for name in ("file", "linked", "directory/member.tmp", "directory/deeper/file", "directory/manifest.json"):
        (outside / name).write_bytes(MARK * 50)


def picture(outside):
    return {str(path.relative_to(outside)): sha256(path.read_bytes()) for path in sorted(outside.rglob("*"))
            if path.is_file()}


def attack(world, data, outside, seconds):
    """Gives how many swaps there were, and the kinds of failures that the operations met."""
    attacker = Attacker(data, outside)
    attacker.start()
    try:
        with cast(world, CAST, data, seconds) as members:
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                time.sleep(0.7)
                world.origin.evolve("--change", "6")
            met = [text.partition(":")[0] for member in members for text in member.outcome()["failures"]]
        return attacker.swaps, sorted(set(met))
    finally:
        attacker.stopping.set()
        attacker.join()


def run(programs, work, options, tell):
    seconds = 5 if options.quick else min(options.seconds, 60)
    with closing(Origin(programs, work)) as origin:
        world = World(programs, work, origin)
        data = world.fresh_data()
        outside = Path(work) / "outside"
        build_outside(outside)
        before = picture(outside)
        world.must("sync", data)
        swaps, failures = attack(world, data, outside, seconds)
        now = picture(outside)
        changed = {name for name in before.keys() | now.keys() if before.get(name) != now.get(name)}
        if changed:
            raise Finding(f"something outside was changed: {sorted(changed)} (kept in {outside})")
        for path in list(data.rglob("*.aside")):
            take_away(path)
        settle(world, data)
        tell(f"containment: {swaps} swaps in {seconds} s, failures met: {failures}; files outside unchanged")
        if wrong_members(data) != []:
            raise Finding(f"at the end: wrong {wrong_members(data)} (kept in {data})")
        remove(data)
        return f"{swaps} swaps"


def settle(world, data):
    """Once the attacks are over, a sync brings everything in order again, at the latest after its second repair."""
    for name in ("sync-progress.json", ".sync_hash_cache.json", "feature-rotation-state.json", ".consumer_count"):
        take_away(data / name) if (data / name).is_symlink() or not (data / name).is_file() else None
    for _ in range(3):
        last = world.act("settle", data).document
        if last["sync"]["ok"] and last["after"]["ok"] and last["after"]["value"]["valid"]:
            return
    raise Finding(f"no sync brings the directory in order after the attacks: {last} (kept in {data})")
