"""Small file systems that run full, a read-only mount, a directory without permission, one without exclusion."""

import contextlib
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

from world import Finding, Origin, World, remove, selected, wrong_members

LOCAL_FULL = ("DiskSpaceError", "MandatoryArtifactsTooLargeError", "SyncError", "OSError")


@contextlib.contextmanager
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


def failing(world, data, what, kinds=LOCAL_FULL, says=()):
    outcome = world.act("sync", data).document
    if outcome["ok"]:
        raise Finding(f"{what}: succeeded")
    if outcome["error"] not in kinds:
        raise Finding(f"{what}: ends with {outcome['error']}: {outcome['message']}")
    if says and not any(part in outcome["message"] for part in says):
        raise Finding(f"{what}: the failure does not say why: {outcome['message']}")
    if outcome["waited"] > 1:
        raise Finding(f"{what}: waited {outcome['waited']} s as if the network had failed")
    return outcome


def full_disk(programs, work, kind, tell):
    """Every size from far too small to just enough: a clear local failure, the old cohort whole, room mends it."""
    origin = Origin(programs, work)
    failures = 0
    try:
        world = World(programs, work, origin)
        for size_kib in (40, 64, 96, 128, 160, 192, 224, 256) if kind == "tmpfs" else (96, 160, 224):
            with mounted(work, kind, size_kib) as place:
                data = place / "data"
                data.mkdir()
                outcome = world.act("sync", data).document
                if outcome["ok"]:
                    old = selected(data)
                    origin.evolve("--change", "12", "--add", "6")
                    outcome = world.act("sync", data).document
                    if not outcome["ok"] and selected(data) != old:
                        raise Finding(f"{kind} of {size_kib} KiB: the old cohort is no longer selected")
                    if wrong_members(data) != []:
                        raise Finding(f"{kind} of {size_kib} KiB: wrong members {wrong_members(data)}")
                if not outcome["ok"]:
                    failures += 1
                    if outcome["error"] not in LOCAL_FULL:
                        raise Finding(f"{kind} of {size_kib} KiB: {outcome['error']}: {outcome['message']}")
                    if outcome["waited"] > 1:
                        raise Finding(f"{kind} of {size_kib} KiB: a full disk is repeated: {outcome}")
                    if kind == "tmpfs":
                        subprocess.run(["mount", "-o", "remount,size=4m", place], check=True)
                        world.must("sync", data)
                        if wrong_members(data) != []:
                            raise Finding(f"{kind} of {size_kib} KiB: wrong after room was made")
        tell(f"file systems: {kind} that runs full: {failures} local failures, every cohort whole")
        return failures
    finally:
        origin.close()


def read_only(world, work, tell):
    with mounted(work, "tmpfs", 4096) as place:
        data = place / "data"
        data.mkdir()
        world.must("sync", data)
        subprocess.run(["mount", "-o", "remount,ro", place], check=True)
        failing(world, data, "read-only mount", kinds=("OSError", "SyncError", "ValueError"), says=("ead-only",))
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
    origin = Origin(programs, work)
    try:
        world = World(programs, work, origin)
        no_permission(world, work, tell)
        no_exclusion(world, work, tell)
        if os.geteuid() != 0 or not can_mount(work):
            tell("file systems: mounts left out: they need root")
            return "without mounts"
        read_only(world, work, tell)
    finally:
        origin.close()
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
