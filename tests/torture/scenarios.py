"""The operations that are tortured: what lies on disk before, what runs, and what may be selected after."""

from world import Finding, Origin, World, cohort_roots, remove, selected


class Scenario:
    """`template` is the directory before the operation; `allowed` holds the digests that may be selected after it."""

    name = ""
    operation = ()
    healthy_before = True  # whether the cohort before the operation proves itself

    def __init__(self, programs, work):
        self.origin = Origin(programs, work)
        self.world = World(programs, work, self.origin)
        self.template = self.world.fresh_data()
        self.prepare()
        self.old = selected(self.template)
        self.new = self._selected_after()

    def prepare(self):
        pass

    def _selected_after(self):
        data = self.fresh()
        self.world.must(self.operation[0], data, *self.operation[1:])
        after = selected(data)
        remove(data)
        return after

    @property
    def allowed(self):
        return {self.old, self.new}

    def fresh(self):
        return self.world.fresh_data(self.template)

    def run(self, data, **how):
        return self.world.act(self.operation[0], data, *self.operation[1:], **how)

    def count_calls(self):
        """The calls of one operation that nothing disturbs."""
        data = self.fresh()
        counters = self.run(data).counters
        remove(data)
        return counters

    def finish(self, data):
        """What a second run of the operation must reach, also from what a crash has left."""
        self.world.must(self.operation[0], data, *self.operation[1:])

    def close(self):
        self.origin.close()


class FirstSync(Scenario):
    name = "first sync"
    operation = ("sync",)


class Update(Scenario):
    name = "update"
    operation = ("sync",)

    def prepare(self):
        self.world.must("sync", self.template)
        self.origin.evolve("--change", "8", "--add", "3", "--remove", "2")


class Repair(Scenario):
    name = "repair"
    healthy_before = False

    def prepare(self):
        self.world.must("sync", self.template)
        (root,) = cohort_roots(self.template)
        features = sorted((self.template / ".tidalcrest-cohorts" / root).rglob("features/**/*.arrow"))
        if len(features) < 3:
            raise Finding("the repair scenario found no features to damage")
        base = self.template / ".tidalcrest-cohorts" / root
        damaged, missing = features[0], features[1]
        damaged.write_bytes(b"\0" + damaged.read_bytes()[1:])
        missing.unlink()
        self.operation = ("repair", *(str(path.relative_to(base)) for path in features[:3]))


class Collection(Scenario):
    name = "collection"
    operation = ("collect", "1")

    def prepare(self):
        for _ in range(3):
            self.world.must("sync", self.template)
            self.origin.evolve("--change", "4")
        self.world.must("sync", self.template)

    def finish(self, data):
        super().finish(data)
        if len(cohort_roots(data)) != 1:
            raise Finding(f"after a collection: {cohort_roots(data)}")


class EraTransition(Scenario):
    name = "era transition"
    operation = ("transition", "2")

    def prepare(self):
        self.world.must("sync", self.template)
        self.origin.evolve("--next-era", "--change", "6")


ALL = [FirstSync, Update, Repair, Collection, EraTransition]
