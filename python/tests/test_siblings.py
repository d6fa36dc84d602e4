"""Siblings of the SDK in the table of loaded modules take the place of the built-in ones."""

import sys
import types

import pytest

import tidalcrest.sync as tc


class Policy:
    """Waits that take no time; each is cut short or not."""

    def __init__(self, goes_on=True):
        self.goes_on, self.waits = goes_on, []

    def delay_seconds(self, attempt_index):
        self.waits.append(attempt_index)
        return 0.0

    def sleep(self, wait_seconds, sleep, stop_requested):
        return self.goes_on and not stop_requested()


def put(monkeypatch, name, **names):
    module = types.ModuleType(name)
    vars(module).update(names)
    monkeypatch.setitem(sys.modules, name, module)
    return module


def test_built_in_modules_are_importable_and_stay_in_place(manager):
    from tidalcrest.deployment import _CURRENT_VERSION, _compare_versions, check_update
    from tidalcrest.distribution import sync_backoff
    assert _compare_versions(_CURRENT_VERSION, "0.0.1") > 0 and check_update(_CURRENT_VERSION) is None
    assert 0 < sync_backoff.SyncBackoffPolicy().delay_seconds(0) <= 1
    assert sync_backoff.current_context() == {}
    with sync_backoff.backoff_context(surface="worker", stop_requested=lambda: True):
        assert sync_backoff.current_context()["surface"] == "worker"
        assert sync_backoff.current_context()["stop_requested"]() is True
        assert sync_backoff.SyncBackoffPolicy().sleep(5.0, stop_requested=lambda: True) is False
        with pytest.raises(sync_backoff.SyncBackoffCancelled):
            manager.sync()
    assert manager.sync().era_number == 1


def test_a_changed_attribute_counts(manager, origin, monkeypatch):
    from tidalcrest.distribution import sync_backoff
    policy = Policy()
    monkeypatch.setattr(sync_backoff, "SyncBackoffPolicy", lambda: policy)
    origin.fault("/data/manifest status=503 count=2")
    assert manager.sync().era_number == 1
    assert {0, 1} <= set(policy.waits)


def test_a_whole_backoff_module_and_its_own_exception(manager, origin, monkeypatch):
    class Cancelled(Exception):
        pass

    put(monkeypatch, "tidalcrest.distribution.sync_backoff", SyncBackoffPolicy=lambda: Policy(goes_on=False),
        SyncBackoffCancelled=Cancelled, backoff_context=None, current_context=dict,
        sync_backoff_event_fields=lambda **fields: {"event_type": "sync_backoff_wait", **fields})
    origin.fault("/data/manifest status=503 count=1")
    with pytest.raises(Cancelled):
        manager.sync()
    assert isinstance(manager.get_manifest(), type(None))


def test_auth_brings_its_own_class(make_manager, monkeypatch):
    class AuthError(Exception):
        pass

    put(monkeypatch, "tidalcrest.auth", AuthError=AuthError)
    with pytest.raises(AuthError):
        make_manager(get_token=lambda: "wrong").sync()


def test_a_transition_speaks_to_the_hosts_modules(manager, origin, monkeypatch):
    told = []

    class Tracker:
        def __init__(self, data_dir, identity=None):
            told.append(("open", data_dir, identity))

        def handle_era_transition(self, new_era_number, previous_era_number):
            told.append(("era", new_era_number, previous_era_number))

        def close(self):
            told.append("close")

    put(monkeypatch, "tidalcrest.auth", notify_era_change=lambda era: told.append(("auth", era)))
    put(monkeypatch, "tidalcrest.auth_onboarding.identity", resolve_identity_for_data_dir=lambda path: "agent")
    put(monkeypatch, "tidalcrest.search_tracking", SearchTracker=Tracker)
    put(monkeypatch, "tidalcrest.deployment", _CURRENT_VERSION="9.9", check_update=lambda version: told.append(version),
        _compare_versions=lambda first, second: -1 if second > first else 1, auto_update=None)
    manager.sync()
    origin.evolve("--next-era")
    manager.trigger_era_transition(2, lambda: told.append("kill"), lambda: told.append("restart"))
    assert told == ["kill", "9.9", ("auth", 2), ("open", manager.data_dir, "agent"), ("era", 2, 1), "close", "restart"]


def test_reasons_and_vocabularies(make_manager, origin, monkeypatch):
    merged = []

    def merge(functions, vocabulary, named_universe, expected_era_number):
        merged.append((named_universe, expected_era_number))
        return {**vocabulary, "by": "host"}

    put(monkeypatch, "tidalcrest.functions.vocabulary", merge_functions_vocabulary=merge)
    manager = make_manager()
    manager.sync()
    assert ("u1", 1) in merged and manager.vocabulary["u1"]["by"] == "host"

    put(monkeypatch, "tidalcrest.catalog.reason_descriptions",
        describe_reason=lambda reason_class, **details: {"rendered": "please reauthenticate"})
    put(monkeypatch, "tidalcrest.security.transport", validate_bearer_transport_url=lambda url: told.append(url))
    told = []
    origin.fault('/data/manifest/version status=503 count=all body={"retryable":false}')
    with pytest.raises(tc.SyncUnavailableError):
        manager.sync()
    assert any(url.startswith(origin.url) for url in told)
