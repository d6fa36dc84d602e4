"""What C++ calls in Python: under the GIL, on its own threads, and back into the manager."""

import enum
import logging
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import tidalcrest.sync as tc

TIMEOUT = 20


def wait_until(condition):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        assert time.monotonic() < deadline, "it did not come to pass"
        time.sleep(0.01)


def test_era_callbacks_are_found_by_equality(manager):
    heard = []

    class Listener:
        def hear(self, event_type, era_number):
            heard.append((event_type, era_number))

    listener = Listener()
    manager.register_era_callback(listener.hear)
    manager.register_era_callback(listener.hear)
    manager.unregister_era_callback(print)
    manager.unregister_era_callback(listener.hear)  # another bound method, equal to the registered ones
    manager._notify_era_callbacks("restart", 2)
    assert heard == [("restart", 2)]


def test_a_failing_callback_is_logged_with_its_traceback_and_stops_nobody(manager, caplog):
    heard = []

    def failing(event_type, era_number):
        manager.unregister_era_callback(failing)  # calls back into the list that is being told
        raise LookupError("own reasons")

    manager.register_era_callback(failing)
    manager.register_era_callback(lambda *event: heard.append(event))
    manager._notify_era_callbacks("kill", 4)
    manager._notify_era_callbacks("kill", 5)
    assert heard == [("kill", 4), ("kill", 5)]
    (record,) = [r for r in caplog.records if r.getMessage().startswith("Era callback failed (<function")]
    assert record.levelno == logging.WARNING and record.getMessage().endswith(": own reasons")
    assert record.exc_info[0] is LookupError and record.exc_info[2].tb_frame is not None


def test_freshness_guard_and_search_consumers(manager, origin):
    class Search:
        _universe = " u1 "

        def __init__(self):
            self.told = []

        def __eq__(self, other):
            return isinstance(other, Search)

        def refresh_rotation_scope(self, rotation_state, scoped_vocabulary):
            self.told.append((rotation_state, scoped_vocabulary))
            manager.unregister_rotation_search_consumer(self)

    search = Search()
    manager.register_rotation_search_consumer(search)
    manager.register_rotation_search_consumer(Search())  # an equal one is not added again
    manager.register_rotation_search_consumer(object())
    state = tc.RotationState(generation=1)
    manager.refresh_running_searches_for_rotation(state, {"u1": {"features": {}}, "u2": {"features": {}}})
    assert search.told == [(state, {"features": {}})]
    manager.refresh_running_searches_for_rotation(state, None)  # nobody listens any more
    stranger = Search()
    stranger._universe = "u3"
    manager.register_rotation_search_consumer(stranger)
    with pytest.raises(ValueError, match="requested unknown vocabulary universe: 'u3'"):
        manager.refresh_running_searches_for_rotation(state, {"u1": {"features": {}}})

    class Broken(Search):
        named_universe = property(lambda self: 1 / 0)

    manager.unregister_rotation_search_consumer(stranger)
    manager.register_rotation_search_consumer(Broken())
    with pytest.raises(ZeroDivisionError):
        manager.refresh_running_searches_for_rotation(state, {"u1": {"features": {}}})


def test_a_fresh_signals_index_is_told_to_the_guard(make_manager):
    class Guard:
        told = []

        def record_sync_update(self, **fields):
            self.told.append((fields["relative_path"], fields["kind"], fields["sha256"]))

    manager = make_manager(runtime_freshness_guard=Guard())
    manager._record_signals_index_update(
        {"relative_path": "signals_index.json", "sha256": "ab", "local_path": "/d/signals_index.json"})
    assert Guard.told == [("signals_index.json", "signals_index", "ab")]
    with pytest.raises(KeyError, match="sha256"):
        manager._record_signals_index_update({"relative_path": "signals_index.json"})


def test_a_call_back_under_the_locks_of_its_own_sync_is_told_so(make_manager):
    manager = make_manager(get_token=lambda: manager.active_cohort_data_dir())
    with pytest.raises(tc.StateError, match="would wait for itself"):
        manager.sync()


def test_blocking_calls_release_the_gil_and_threads_sync_side_by_side(make_manager, origin):
    manager = make_manager()
    turns = []
    done = threading.Event()

    def spin():
        while not done.is_set():
            turns.append(1)

    spinner = threading.Thread(target=spin)
    spinner.start()
    origin.fault("/data/manifest delay=0.4")
    manager.sync()
    turns_meanwhile = len(turns)
    done.set()
    spinner.join(TIMEOUT)
    assert turns_meanwhile > 1000, "no other thread ran while a call blocked"

    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda _: manager.sync(), range(4)))
    assert [result.era_number for result in results] == [1] * 4


def test_a_manager_that_runs_by_itself_calls_back(make_manager, origin):
    tokens = []
    manager = make_manager(poll_interval_s=0.05,
                           get_token=lambda: tokens.append(manager.status()) or origin.token)
    manager.sync()  # an era thread that starts without a manifest leaves the first era to the syncs
    manager.acquire()
    paths = manager.request_for_sync()
    assert len(paths) == 5 and manager.request_feature_files_for_sync([" "]) == []
    feature = next(path for path in manager.get_manifest().files if "/strategy_is/" in path)
    strategy = enum.Enum("Expression", {"STRATEGY": "strategy"}).STRATEGY
    fetched = manager.request_feature_files_for_sync([Path(feature).stem], strategy)
    assert fetched and all("/strategy_is/" in path for path in fetched)
    events = []
    manager.register_era_callback(lambda *event: events.append((event, manager.consumer_count())))
    origin.evolve("--next-era")
    wait_until(lambda: (("restart", 2), 1) in events)
    assert (("kill", 1), 1) in events and manager.get_manifest().era_number == 2
    manager.release()
    assert not manager.is_alive() and len(tokens) > 3


def test_era_thread(make_manager, origin):
    manager = make_manager()
    manager.sync()
    calls = []
    thread = tc.EraThread(server_url=origin.url, get_token=lambda: origin.token, sync_manager=manager,
                          era_poll_interval_s=0.05, kill_searches_fn=lambda: calls.append("kill"),
                          restart_searches_fn=lambda: calls.append("restart"))
    thread.start()
    with pytest.raises(tc.StateError, match="EraThread already started"):
        thread.start()
    assert thread.is_alive() and thread._last_known_era_number == 1
    origin.evolve("--next-era")
    wait_until(lambda: thread._last_known_era_number == 2)
    thread.stop()
    assert calls == ["kill", "restart"] and not thread.is_alive()
    assert (thread._transition_failed, thread._last_transition_error, thread._in_closing) == (False, None, False)


def test_events_reach_the_logger_as_they_are(make_manager, origin, caplog):
    caplog.set_level(logging.DEBUG, "tidalcrest.sync")
    origin.fault("features/* cut=1 count=1")
    make_manager().sync()
    events = [r for r in caplog.records if hasattr(r, "tidalcrest_sync_event")]
    assert events and all(r.name == "tidalcrest.sync" and r.levelno == logging.INFO for r in events)
    assert all(r.getMessage().startswith("tidalcrest_sync_event {") for r in events)
    assert {"range_resume", "http_retry", "sync_backoff_wait"} & {
        r.tidalcrest_sync_event["event_type"] for r in events}


def test_handlers_that_raise_harm_no_sync(make_manager, monkeypatch):
    class Broken(logging.Handler):
        def handle(self, record):
            raise RuntimeError("a handler's own trouble")

    reported = []
    monkeypatch.setattr("sys.unraisablehook", reported.append)
    logger = logging.getLogger("tidalcrest.sync")
    handler = Broken()
    logger.addHandler(handler)
    try:
        assert make_manager().sync().era_number == 1
    finally:
        logger.removeHandler(handler)
    assert reported and all("trouble" in str(report.exc_value) for report in reported)
