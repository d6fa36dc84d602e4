"""Rebuilds the directory as a power cut at any point could leave it, and opens it.

The interposer's log of one operation is played into a model of a disk. What was flushed is there after the cut; of
the rest every part may or may not be: bytes are kept, dropped or torn, names are kept or dropped.
"""

import random
from contextlib import closing
from pathlib import Path

from scenarios import EraTransition, FirstSync, Repair, Update
from world import Finding, prove_settled, remove, wrong_members

SEED = 20240611
VARIANTS = ["nothing that was not flushed", "names without bytes", "bytes without names", "any part", "any part, torn"]


class File:
    def __init__(self, content=b""):
        self.durable = bytes(content)
        self.content = bytearray(content)
        self.pending = []  # (offset, bytes), or (size, None) for a truncation, since the last flush

    def write(self, offset, data):
        self.pending.append((offset, data))
        apply_write(self.content, offset, data)

    def flush(self):
        self.durable = bytes(self.content)
        self.pending = []

    def after_cut(self, choose):
        content = bytearray(self.durable)
        for offset, data in self.pending:
            kept = choose(len(data or b""))
            if kept is not None:
                apply_write(content, offset, None if data is None else data[:kept])
        return bytes(content)


def apply_write(content, offset, data):
    if data is None:
        if len(content) > offset:
            del content[offset:]
        else:
            content.extend(b"\0" * (offset - len(content)))
        return
    if len(content) < offset:
        content.extend(b"\0" * (offset - len(content)))
    content[offset:offset + len(data)] = data


DIRECTORY = "directory"


class Disk:
    """Names are full paths below the root; a directory is a name of its own."""

    def __init__(self, root):
        self.root = str(root)
        self.names = {}  # path to File, or DIRECTORY
        self.by_inode = {}
        self.durable = {}
        self.changes = []  # ("add" | "drop" | "move", path, what or where to) of names, since they were flushed
        for path in sorted(Path(root).rglob("*")):
            if path.is_dir():
                self.names[str(path)] = DIRECTORY
            else:
                file = File(path.read_bytes())
                self.names[str(path)] = file
                self.by_inode[path.stat().st_ino] = file
        self.durable = dict(self.names)

    def _change(self, *change):
        apply_change(self.names, change)
        self.changes.append(change)

    def play(self, line):
        operation, *fields = line.rstrip("\n").split("\t")
        if operation == "create":
            file = File()
            self.by_inode[int(fields[1])] = file
            self._change("add", fields[0], file)
        elif operation == "write":
            self.by_inode[int(fields[0])].write(int(fields[1]), bytes.fromhex(fields[2]))
        elif operation == "truncate":
            self.by_inode[int(fields[0])].write(int(fields[1]), None)
        elif operation == "rename":
            self._change("move", *fields)  # one change: a journal keeps both halves of a rename or none
        elif operation == "link":
            self._change("add", fields[1], self.names[fields[0]])
        elif operation in ("unlink", "rmdir"):
            self._change("drop", fields[0], None)
        elif operation == "mkdir":
            self._change("add", fields[0], DIRECTORY)
        elif operation == "fsync":
            self._flush(fields[0], int(fields[1]))
        elif operation == "syncfs":
            self._flush_all()

    def _flush(self, path, inode):
        if inode in self.by_inode:
            self.by_inode[inode].flush()
            return
        if path not in self.names and path != self.root:
            return
        # A directory: the names in it, and what was done to them, are there to stay.
        for change in list(self.changes):
            if any(parent_of(name) == path for name in names_of(change)):
                apply_change(self.durable, change)
                self.changes.remove(change)

    def _flush_all(self):
        for what in self.names.values():
            if what is not DIRECTORY:
                what.flush()
        self.durable = dict(self.names)
        self.changes = []

    def after_cut(self, keeps_name, choose):
        names = dict(self.durable)
        for change in self.changes:
            if keeps_name(change):
                apply_change(names, change)
        result = {}
        for path, what in sorted(names.items()):
            parent = parent_of(path)
            if parent != self.root and result.get(parent, "missing") is not None:
                continue  # the directory did not make it
            result[path] = None if what is DIRECTORY else what.after_cut(choose)
        return result


def parent_of(path):
    return path.rpartition("/")[0]


def names_of(change):
    return (change[1], change[2]) if change[0] == "move" else (change[1],)


def apply_change(names, change):
    action, path, what = change
    if action == "add":
        names[path] = what
    elif action == "drop":
        names.pop(path, None)
    else:
        for name in [name for name in names if name == path or name.startswith(path + "/")]:
            names[what + name[len(path):]] = names.pop(name)


def choices(variant, randomness):
    """Which names survive, and how much of each pending write does: absent when it is lost."""
    def torn(size):
        fate = randomness.random()
        return None if fate < 0.3 else randomness.randrange(size + 1) if fate < 0.6 else size

    all_names, no_names = (lambda change: True), (lambda change: False)
    return {
        "nothing that was not flushed": (no_names, lambda size: None),
        "names without bytes": (all_names, lambda size: None),
        "bytes without names": (no_names, lambda size: size),
        "any part": (lambda change: randomness.random() < 0.5, lambda size: size if randomness.random() < 0.5 else None),
        "any part, torn": (all_names, torn),
    }[variant]


def materialise(scenario, root, state):
    data = scenario.world.fresh_data()
    for path, content in state.items():
        place = data / path[len(root) + 1:]
        if content is None:
            place.mkdir(exist_ok=True)
        else:
            place.write_bytes(content)
    return data


def check(scenario, data):
    """Old or new where one was there before, else also nothing at all; then a sync completes. Gives what was read."""
    before = scenario.world.must("read", data).document["value"]
    wrong = wrong_members(data)
    reads = before["selected"] if before["valid"] else None
    if reads is not None and (wrong != [] or reads not in scenario.allowed):
        raise Finding(f"a cohort reads wrong: {reads}, wrong members {wrong}")
    if scenario.healthy_before and scenario.old is not None and reads is None:
        raise Finding(f"the cohort that was published before is gone: {before}, wrong members {wrong}")
    scenario.finish(data)
    scenario.world.must("sync", data)
    after = scenario.world.must("read", data).document["value"]
    if not after["valid"]:
        raise Finding(f"after the sync: {after}")
    prove_settled(scenario.world, data, scenario.new)
    return "none" if reads is None else "old" if reads == scenario.old else "new"


def agree(disk, data):
    """The model itself: at the end it holds what the directory holds."""
    modelled = {path: None if what is DIRECTORY else bytes(what.content) for path, what in disk.names.items()}
    real = {str(path): None if path.is_dir() else path.read_bytes() for path in data.rglob("*")}
    if modelled != real:
        differing = sorted(path for path in modelled.keys() | real.keys()
                           if path not in modelled or path not in real or modelled[path] != real[path])
        raise Finding(f"the model of the disk went wrong at {differing[:5]}")


def cuts(scenario, work, step, tell):
    data = scenario.fresh()
    disk = Disk(data)
    log = Path(work) / "changes.log"
    log.unlink(missing_ok=True)
    outcome = scenario.run(data, log=log)
    if not outcome.document["ok"]:
        raise Finding(f"{scenario.name}: {outcome.text}")
    root = str(data)
    lines = log.read_text().splitlines()
    randomness = random.Random(SEED)
    reached = {"none": 0, "old": 0, "new": 0}
    states = set()
    for number, line in enumerate(lines, 1):
        disk.play(line)
        if number % step and number < len(lines):
            continue
        for variant in VARIANTS:
            state = disk.after_cut(*choices(variant, randomness))
            key = hash(tuple(sorted((path, content) for path, content in state.items() if content is not None)))
            if key in states:
                continue
            states.add(key)
            left = materialise(scenario, root, state)
            try:
                reached[check(scenario, left)] += 1
            except Finding as finding:
                raise Finding(f"{scenario.name}, cut after change {number} ({line[:120]}), {variant}: {finding} "
                              f"(sync went on in {left})") from finding
            remove(left)
    agree(disk, data)
    remove(data)
    tell(f"power cut, {scenario.name}: {len(lines)} changes, {len(states)} states; a reader then saw "
         + ", ".join(f"{what} {count} times" for what, count in reached.items()))
    return len(states)


def run(programs, work, options, tell):
    states = 0
    for maker in (FirstSync, Update) if options.quick else (FirstSync, Update, Repair, EraTransition):
        with closing(maker(programs, work)) as scenario:
            states += cuts(scenario, work, 60 if options.quick else 1, tell)
    return f"{states} states after a cut"
