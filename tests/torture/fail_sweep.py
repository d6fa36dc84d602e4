"""Lets every call that changes the disk or carries data fail, once and for ever.

Every call meets one of the errors that fit it; with --thorough, every one of them.
"""

from contextlib import closing

from scenarios import ALL
from world import Finding, prove_settled, remove, selected, wrong_members

# What can happen to a call of each kind.
ERRORS = {
    "open": ["EMFILE", "EIO", "ENOSPC", "EINTR"],
    "write": ["ENOSPC", "EDQUOT", "EIO", "EINTR", "SHORT"],
    "copy": ["ENOSPC", "EDQUOT", "EIO", "EINTR", "SHORT"],
    "clone": ["ENOSPC", "EIO"],
    "truncate": ["EIO", "EINTR", "ENOSPC"],
    "rename": ["EIO", "ENOSPC", "EDQUOT"],
    "link": ["EIO", "ENOSPC"],
    "unlink": ["EIO", "EROFS"],
    "mkdir": ["EIO", "ENOSPC", "EDQUOT"],
    "sync": ["EIO", "ENOSPC"],
    "flock": ["EINTR", "EIO"],
    "send": ["EIO", "SHORT", "EINTR"],
    "recv": ["EIO", "ECONNRESET", "SHORT", "EINTR"],
}
NETWORK = {"send", "recv"}
# A call that is interrupted every time never gets anywhere: only once makes sense.
ONLY_ONCE = {"EINTR"}
# The error kinds of the contracts of sync, repair, collection and transition.
CONTRACT = {"SyncError", "OSError", "FileNotFoundError", "DiskSpaceError", "IntegrityError", "ManifestError",
            "SyncUnavailableError", "LocalCohortError", "FeatureRotationStateError", "ShuffleSeedStateError", "EraError"}
# Within these bounds nothing loops: a run fetches the distribution once, and resumes.
RECEIVED_FACTOR = 3
SECONDS = 20


def check(scenario, data, outcome, kind, bound):
    document = outcome.document
    if outcome.killed or document is None:
        raise Finding("the process died")
    if not document["ok"]:
        still_trying = document["error"] == "SyncBackoffCancelled"
        if still_trying and kind not in NETWORK:
            raise Finding(f"a failure of the disk is repeated for ever: waited {document['waited']:.0f} s")
        unsafe = document["message"].startswith("data_dir is not a safe directory")  # construction's own text
        if not still_trying and not unsafe and document["error"] not in CONTRACT:
            raise Finding(f"ends with {document['error']}: {document['message']}")
    if outcome.seconds > SECONDS:
        raise Finding(f"took {outcome.seconds:.0f} s")
    if kind not in NETWORK and outcome.counters["received"] > bound:
        raise Finding(f"received {outcome.counters['received']} bytes, more than {bound}: fetched again and again")
    for leak in ("leaked_descriptors", "leaked_threads"):
        if document[leak] > 0:
            raise Finding(f"{leak}: {document[leak]} ({document})")
    if not document["lock_free"]:
        raise Finding("the distribution lock is still held")
    if selected(data) not in scenario.allowed:
        raise Finding(f"selected {selected(data)}, neither the old cohort nor the new one")
    wrong = wrong_members(data)
    if scenario.healthy_before and wrong:
        raise Finding(f"members of the selected cohort are wrong: {wrong}")
    if scenario.healthy_before and selected(data) is not None and wrong is None:
        raise Finding("the selected cohort is not complete")


def recovers(scenario, data):
    if scenario.operation[0] != "sync":
        scenario.finish(data)
    scenario.world.must("sync", data)
    prove_settled(scenario.world, data, scenario.new)


def one(scenario, plan, kind, bound):
    """Gives whether the plan came to pass."""
    data = scenario.fresh()
    try:
        outcome = scenario.run(data, plan=plan)
        check(scenario, data, outcome, kind, bound)
        recovers(scenario, data)
    except Finding as finding:
        raise Finding(f"{scenario.name}, {plan}: {finding} (kept in {data})") from finding
    remove(data)
    return outcome.hits > 0


def plans(calls, quick, thorough):
    """Kind and plan of every fail point."""
    for kind, errors in ERRORS.items():
        for position, error in enumerate(errors[:2] if quick else errors):
            step = max(1, calls[kind] // 2) if quick else 1 if thorough else len(errors)
            for how_long in ("once",) if error in ONLY_ONCE else ("once", "on"):
                for number in range(1 if quick or thorough else 1 + position, calls[kind] + 1, step):
                    yield kind, f"fail {kind} {number} {error} {how_long}"


def run(programs, work, options, tell):
    total = 0
    findings = []
    for maker in ALL[1:2] if options.quick else ALL:
        with closing(maker(programs, work)) as scenario:
            calls = scenario.count_calls()
            bound = RECEIVED_FACTOR * max(calls["received"], 1 << 18)
            points = 0
            for kind, plan in plans(calls, options.quick, options.thorough):
                try:
                    points += one(scenario, plan, kind, bound)
                except Finding as finding:
                    tell(f"  {finding}")
                    findings.append(finding)
            tell(f"fail sweep, {scenario.name}: {points} fail points")
            total += points
    if findings:
        raise Finding(f"{len(findings)} of them, the first: {findings[0]}")
    return f"{total} fail points"
