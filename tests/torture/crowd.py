"""Two to eight processes on one directory: writers, readers under pins, a verifier, a collector, kills at random."""

import fcntl
import json
import random
import subprocess
import time

from world import COHORTS, Finding, Origin, World, left_for_good, leftovers, remove, selected, wrong_members

SEED = 7
ROLES = ["write-loop", "read-loop", "collect-loop", "verify-loop", "write-loop", "read-loop", "write-loop", "read-loop"]
SIZES = (2, 5, 8)
# What a reader may meet when somebody else publishes or collects at the same moment; everything else is a finding.
EXPECTED = ("StateError", "ManifestSupersededError", "LocalCohortError", "FileNotFoundError")


class Member:
    """One actor that is started again when it was killed."""

    def __init__(self, world, operation, data, seconds):
        self.world, self.operation, self.data = world, operation, data
        self.end = time.monotonic() + seconds
        self.start()

    def start(self):
        left = max(0.5, self.end - time.monotonic())
        self.process = subprocess.Popen(self.world.command(self.operation, self.data, f"{left:.2f}"),
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def kill(self):
        self.process.kill()
        self.process.communicate()
        self.start()

    def outcome(self):
        try:
            text, _ = self.process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise Finding(f"{self.operation} hangs: deadlock or starvation")
        if self.process.returncode != 0:
            raise Finding(f"{self.operation} died with {self.process.returncode}: {text[-500:]}")
        return json.loads(text.decode().strip().splitlines()[-1])


def waiting_is_visible(world, data):
    """Who waits for the distribution lock says so."""
    with open(data / COHORTS / ".distribution.lock", "rb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        process = subprocess.Popen(world.command("sync", data), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                   env={"TIDALCREST_TORTURE_VERBOSE": "1"}, text=True)
        time.sleep(1)
        fcntl.flock(lock, fcntl.LOCK_UN)
    _, said = process.communicate(timeout=60)
    if "waiting for the" not in said or "distribution lock" not in said:
        raise Finding(f"a waiting process says nothing of it: {said[-500:]}")


def crowd(world, data, roles, seconds, randomness):
    """Gives how many of them were killed, how many versions came, and the rounds of those that lived to the end."""
    cast = []
    try:
        cast = [Member(world, role, data, seconds) for role in roles]
        end = time.monotonic() + seconds
        kills = versions = 0
        while time.monotonic() < end - 1:
            time.sleep(randomness.uniform(0.1, 0.5))
            randomness.choice(cast).kill()
            kills += 1
            if kills % 3 == 0:
                world.origin.evolve("--change", "4", "--add", "1")
                versions += 1
        rounds = {}
        for member in cast:
            outcome = member.outcome()
            if not outcome["ok"]:
                raise Finding(f"{member.operation}: {outcome['wrong']}")
            strange = [text for text in outcome["failures"] if not text.startswith(EXPECTED)]
            if strange:
                raise Finding(f"{member.operation}: {strange}")
            rounds[member.operation] = rounds.get(member.operation, 0) + outcome["rounds"]
        return kills, versions, rounds
    finally:
        for member in cast:
            if member.process.poll() is None:
                member.process.kill()
                member.process.wait()


def run(programs, work, options, tell):
    seconds = 2 if options.quick else options.seconds / len(SIZES)
    randomness = random.Random(SEED)
    origin = Origin(programs, work)
    try:
        world = World(programs, work, origin)
        data = world.fresh_data()
        world.must("sync", data)
        waiting_is_visible(world, data)
        all_kills = 0
        for size in SIZES:
            kills, versions, rounds = crowd(world, data, ROLES[:size], seconds, randomness)
            all_kills += kills
            world.must("sync", data)
            if wrong_members(data) != [] or left_for_good(world, data):
                raise Finding(f"at the end: wrong {wrong_members(data)}, left {leftovers(data)} (kept in {data})")
            if not world.must("read", data).document["value"]["valid"]:
                raise Finding(f"at the end the selected cohort {selected(data)} is not valid")
            tell(f"crowd: {size} processes, {seconds:.0f} s, {kills} kills, {versions} versions; rounds of those that "
                 f"lived to the end: {rounds}")
        remove(data)
        return f"{all_kills} kills among {SIZES[0]} to {SIZES[-1]} processes in {len(SIZES) * seconds:.0f} s"
    finally:
        origin.close()
