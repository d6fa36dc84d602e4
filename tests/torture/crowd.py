"""Two to eight processes on one directory: writers, readers under pins, a verifier, a collector, kills at random."""

import json
import random
import subprocess
import time
from collections import Counter
from contextlib import closing, contextmanager

from world import Finding, Origin, World, prove_settled, remove, selected

SEED = 7
ROLES = ["write-loop", "read-loop", "collect-loop", "verify-loop", "write-loop", "read-loop", "write-loop", "read-loop"]
SIZES = (2, 5, 8)
# What a reader may meet when somebody else publishes or collects at the same moment; everything else is a finding.
EXPECTED = ("StateError", "ManifestSupersededError", "LocalCohortError", "FileNotFoundError")


class Member:
    """One actor that is started again when it was killed."""

    def __init__(self, world, operation, data, seconds):
        self.world, self.operation, self.data = world, operation, data
        self.until = time.monotonic() + seconds
        self.start()

    def start(self):
        left = max(0.5, self.until - time.monotonic())
        self.process = subprocess.Popen(self.world.command(self.operation, self.data, f"{left:.2f}"),
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def end(self):
        if self.process.returncode is None:
            self.process.kill()
            self.process.communicate()

    def kill(self):
        self.end()
        self.start()

    def outcome(self):
        try:
            text, _ = self.process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            raise Finding(f"{self.operation} hangs: deadlock or starvation")
        if self.process.returncode != 0:
            raise Finding(f"{self.operation} died with {self.process.returncode}: {text[-500:]}")
        outcome = json.loads(text.decode().strip().splitlines()[-1])
        if not outcome["ok"]:
            raise Finding(f"{self.operation}: {outcome['wrong']}")
        return outcome


@contextmanager
def cast(world, operations, data, seconds):
    """One member for each of them; none outlives the block."""
    members = []
    try:
        for operation in operations:
            members.append(Member(world, operation, data, seconds))
        yield members
    finally:
        for member in members:
            member.end()


def crowd(world, data, roles, seconds, randomness):
    """Gives how many of them were killed, how many versions came, and the rounds of those that lived to the end."""
    with cast(world, roles, data, seconds) as members:
        end = time.monotonic() + seconds
        kills = versions = 0
        while time.monotonic() < end - 1:
            time.sleep(randomness.uniform(0.1, 0.5))
            randomness.choice(members).kill()
            kills += 1
            if kills % 3 == 0:
                world.origin.evolve("--change", "4", "--add", "1")
                versions += 1
        rounds = Counter()
        for member in members:
            outcome = member.outcome()
            strange = [text for text in outcome["failures"] if not text.startswith(EXPECTED)]
            if strange:
                raise Finding(f"{member.operation}: {strange}")
            rounds[member.operation] += outcome["rounds"]
        return kills, versions, dict(rounds)


def run(programs, work, options, tell):
    sizes, seconds = ((5,), 6) if options.quick else (SIZES, options.seconds / len(SIZES))
    randomness = random.Random(SEED)
    all_kills = 0
    with closing(Origin(programs, work)) as origin:
        world = World(programs, work, origin)
        data = world.fresh_data()
        world.must("sync", data)
        for size in sizes:
            kills, versions, rounds = crowd(world, data, ROLES[:size], seconds, randomness)
            all_kills += kills
            world.must("sync", data)
            prove_settled(world, data, selected(data))
            if not world.must("read", data).document["value"]["valid"]:
                raise Finding(f"at the end the selected cohort {selected(data)} is not valid")
            tell(f"crowd: {size} processes, {seconds:.0f} s, {kills} kills, {versions} versions; rounds of those that "
                 f"lived to the end: {rounds}")
        remove(data)
    return f"{all_kills} kills among {sizes[0]} to {sizes[-1]} processes in {len(sizes) * seconds:.0f} s"
