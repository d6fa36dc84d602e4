"""Small file systems that run full, a read-only mount, a directory without permission, one without exclusion."""

import os
import shutil
import subprocess
import tempfile
from contextlib import closing, contextmanager
from pathlib import Path

from world import Finding, Origin, World, remove, selected, wrong_members

LOCAL_FULL = ("DiskSpaceError", "MandatoryArtifactsTooLargeError", "SyncError", "OSError")


@contextmanager
def mounted(work, kind, size_kib):
    """A small file system of its own; root only."""
    place = Path(tempfile.mkdtemp(prefix="mount-", dir=work))
    if kind == "tmpfs":
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size_kib}k,mode=755", "tmpfs", place], check=True)
    else:
        image = Path(work) / "image.ext4"
        with open(image, "wb") as file:
            file.truncate(max(size_kib, 512) * 1024)
        subprocess.run(["mkfs.ext4", "-q", "-F", "-O", "^has_journal", image], check=True)
        subprocess.run(["mount", "-o", "loop", image, place], check=True)
    try:
        yield place
    finally:
        subprocess.run(["umount", place], check=True)


def prove_local(outcome, what, kinds=LOCAL_FULL, says=""):
    """The operation ended with a failure that says why, at once."""
    if outcome["ok"]:
        raise Finding(f"{what}: succeeded")
    if outcome["error"] not in kinds or says not in outcome["message"]:
        raise Finding(f"{what}: ends with {outcome['error']}: {outcome['message']}")
    if outcome["waited"] > 1:
        raise Finding(f"{what}: waited {outcome['waited']} s as if the network had failed")


def prove_whole(data, what):
    if wrong_members(data) != []:
        raise Finding(f"{what}: wrong members {wrong_members(data)}")


def fill(world, place, kind, what):
    """A first sync and an update where room is short: the old cohort stays whole. Gives whether room was missed."""
    data = place / "data"
    data.mkdir()
    outcome = world.act("sync", data).document
    if outcome["ok"]:
        old = selected(data)
        world.origin.evolve("--change", "12", "--add", "6")
        outcome = world.act("sync", data).document
        if not outcome["ok"] and selected(data) != old:
            raise Finding(f"{what}: the old cohort is no longer selected")
        prove_whole(data, what)
    if outcome["ok"]:
        return False
    prove_local(outcome, what)
    if kind == "tmpfs":
        subprocess.run(["mount", "-o", "remount,size=4m", place], check=True)
        world.must("sync", data)
        prove_whole(data, f"{what}, after room was made")
    return True


def full_disk(programs, work, kind, tell):
    """Every size from far too small to just enough."""
    failures = 0
    with closing(Origin(programs, work)) as origin:
        for size_kib in (40, 64, 96, 128, 160, 192, 224, 256) if kind == "tmpfs" else (96, 160, 224):
            with mounted(work, kind, size_kib) as place:
                failures += fill(World(programs, work, origin), place, kind, f"{kind} of {size_kib} KiB")
    tell(f"file systems: {kind} that runs full: {failures} local failures, every cohort whole")
    return failures


def read_only(world, work, tell):
    with mounted(work, "tmpfs", 4096) as place:
        data = place / "data"
        data.mkdir()
        world.must("sync", data)
        subprocess.run(["mount", "-o", "remount,ro", place], check=True)
        outcome = world.act("sync", data).document
        prove_local(outcome, "read-only mount", ("OSError", "SyncError", "ValueError"), "ead-only")
    tell("file systems: a read-only mount is named")


def no_permission(world, work, tell):
    """As somebody else than root, whom no permission stops."""
    data = world.fresh_data()
    world.must("sync", data)
    data.chmod(0o500)
    (data / ".tidalcrest-cohorts").chmod(0o500)
    outcome = world.act("sync", data, plan="fail open 1 EACCES on").document
    if outcome["ok"] or "ermission" not in outcome["message"] and "safe directory" not in outcome["message"]:
        raise Finding(f"a directory without permission: {outcome}")
    remove(data)
    tell("file systems: missing permission is named")


def no_exclusion(world, work, tell):
    data = world.fresh_data()
    outcome = world.act("sync", data, plan="grant-all-locks").document
    if outcome["ok"] or "grants one lock twice" not in outcome["message"]:
        raise Finding(f"a file system whose locks exclude nobody is not noticed: {outcome}")
    if selected(data) is not None:
        raise Finding("published without exclusion")
    remove(data)
    tell("file systems: one without exclusion is named before anything is written")


def run(programs, work, options, tell):
    with closing(Origin(programs, work)) as origin:
        world = World(programs, work, origin)
        no_permission(world, work, tell)
        no_exclusion(world, work, tell)
        if os.geteuid() != 0 or not can_mount(work):
            tell("file systems: mounts left out: they need root")
            return "without mounts"
        read_only(world, work, tell)
    failures = full_disk(programs, work, "tmpfs", tell)
    if not options.quick and shutil.which("mkfs.ext4"):
        failures += full_disk(programs, work, "ext4", tell)
    return f"{failures} full disks"


def can_mount(work):
    try:
        with mounted(work, "tmpfs", 64):
            return True
    except (OSError, subprocess.CalledProcessError):
        return False
