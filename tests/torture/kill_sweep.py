"""Kills an operation at every call that changes the disk or carries data, and looks at what is left."""

from contextlib import closing

from scenarios import ALL
from world import Finding, leftovers, prove_settled, remove, selected, wrong_members

GROWTH_ROUNDS = 40


def check_reader(scenario, chosen, wrong, before):
    """What a reader in a new process sees is the old cohort or the new one, and what our own proof says of it."""
    if chosen not in scenario.allowed:
        raise Finding(f"selected {chosen}, neither the old cohort nor the new one")
    if not before["ok"]:
        raise Finding(f"no reader comes up: {before}")
    if scenario.healthy_before and chosen is not None and wrong != []:
        raise Finding(f"the selected cohort is not whole: {wrong}")
    seen = before["value"]
    if seen["valid"] and seen["selected"] is not None and wrong != []:
        raise Finding(f"a reader takes for whole what is not: {wrong}")
    if wrong == [] and seen["selected"] != chosen:
        raise Finding(f"a reader does not see the whole cohort that is selected: {before}")


def settle(scenario, data):
    """Reader, second run, reader; nothing is left over."""
    chosen, wrong = selected(data), wrong_members(data)
    if scenario.operation[0] != "sync":
        check_reader(scenario, chosen, wrong, scenario.world.must("read", data).document)
        scenario.finish(data)
        chosen, wrong = selected(data), wrong_members(data)
    outcome = scenario.world.act("settle", data).document
    check_reader(scenario, chosen, wrong, outcome["before"])
    if not outcome["sync"]["ok"] or not outcome["after"]["ok"] or not outcome["after"]["value"]["valid"]:
        raise Finding(f"no second sync completes: {outcome}")
    prove_settled(scenario.world, data, scenario.new)


def kill_points(scenario, step, kind):
    """Kills at call 1, 1 + step, ... until the operation ends before its turn."""
    number = 1
    kills = 0
    while True:
        data = scenario.fresh()
        plan = f"{kind} {number}"
        outcome = scenario.run(data, plan=plan)
        try:
            settle(scenario, data)
        except Finding as finding:
            raise Finding(f"{scenario.name}, {plan}: {finding} (kept in {data})") from finding
        remove(data)
        if not outcome.killed:
            return kills
        kills += 1
        number += step


def growth(scenario, calls):
    """Kill after kill without a sync in between that completes: what lies about settles at some level."""
    data = scenario.fresh()
    counts = []
    for round_number in range(GROWTH_ROUNDS):
        # At moments all over the operation first, then at one and the same again and again.
        moment = calls // 2 if round_number >= 8 else 1 + (round_number * 2 + 1) * calls // 18
        scenario.run(data, plan=f"kill-before any {moment}")
        counts.append(len(leftovers(data)))
    # The moment of the kill varies a little with the threads, and what lies about with it; growth raises the least of it.
    if min(counts[-8:]) > min(counts[8:16]):
        raise Finding(f"{scenario.name}: leftovers grow from round to round: {counts} (kept in {data})")
    settle(scenario, data)
    remove(data)
    return counts


def run(programs, work, options, tell):
    kills = torn = 0
    for maker in ALL[:2] if options.quick else ALL:
        with closing(maker(programs, work)) as scenario:
            calls = scenario.count_calls()["calls"]
            at = kill_points(scenario, max(1, calls // 12) if options.quick else 1, "kill-before any")
            # Half of a write reaches the file, then the process ends.
            halves = kill_points(scenario, 20 if options.quick else 1, "kill-torn write")
            lying = growth(scenario, calls)
            tell(f"kill sweep, {scenario.name}: {calls} calls, {at} kills and {halves} torn writes, all whole; "
                 f"leftovers over {len(lying)} kills in a row: at most {max(lying)}")
            kills, torn = kills + at, torn + halves
    return f"{kills} kill points, {torn} torn writes"
