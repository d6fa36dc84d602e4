"""Exceptions of both languages, on their way through the other."""

import pickle
from pathlib import Path

import pytest

import tidalcrest.sync as tc


def test_bases_and_attributes():
    error = tc.SyncUnavailableError("", 3, retryable=False)
    assert isinstance(error, tc.SyncError) and isinstance(error, ConnectionError)
    assert (error.url, error.typed_details) == ("<unknown>", True)
    assert "after 3 attempt(s)." in str(error) and str(error).endswith("retryable=False")
    assert tc.SyncUnavailableError("u", 1, reason="r", server_error_code="c").typed_details is False
    assert tc.PermanentDownloadError("m", status="none").status is None
    assert issubclass(tc.FeatureRotationStateError, tc.StateError) and not issubclass(tc.StateError, tc.SyncError)
    for failure in (error, tc.PermanentDownloadError("m", file_path="p", status=404)):
        again = pickle.loads(pickle.dumps(failure))
        assert type(again) is type(failure) and vars(again) == vars(failure) and str(again) == str(failure)


def test_construction_failures(origin, data_dir):
    def construct(directory=data_dir, **changes):
        return tc.SyncManager(directory, **origin.options(**changes))

    for error, message, call in (
            (TypeError, "get_token must be callable, got NoneType", lambda: tc.SyncManager(data_dir, origin.url)),
            (TypeError, "get_token must be callable, got int", lambda: construct(get_token=5)),
            (ValueError, "data_dir is not a safe directory", lambda: construct("a\0b")),
            (ValueError, "market_id must be a positive integer, got <object", lambda: construct(market_id=object())),
            (ValueError, "invalid sync_max_concurrency: expected a positive integer",
             lambda: construct(sync_max_concurrency=2**80)),
            (TypeError, "server_url", lambda: construct(server_url=b"http://127.0.0.1")),
            (TypeError, "poll_interval_s", lambda: construct(poll_interval_s="5")),
            (TypeError, "get_wallet_secret", lambda: construct(get_wallet_secret=b"x")),
            (TypeError, "data_dir must be str or os.PathLike, not bytes", lambda: construct(bytes(data_dir)))):
        with pytest.raises(error, match=message):
            call()


def test_wrong_arguments_are_named(manager):
    for name, call in {
            "corrupted_files": lambda: manager.repair("features/a"),
            "file_path": lambda: manager.report_corruption(b"a"),
            "file_info": lambda: manager.ensure_manifest_file_available("a", {1, 2}),
            "callback": lambda: manager.register_era_callback(5),
            "feature_names": lambda: manager.request_feature_files_for_sync(5),
            "keep": lambda: manager.collect_generations("two"),
            "era_number": lambda: manager._notify_era_callbacks("kill", 2.5),
            "manifest": lambda: manager.refresh_running_searches_for_rotation(tc.RotationState(), None, {}),
            "kill_searches_fn": lambda: manager.trigger_era_transition(1, 5),
            "sync_manager": lambda: tc.EraThread("http://127.0.0.1", lambda: "t", object()),
            "data": lambda: tc.Manifest([1]),
            "state": lambda: tc.write_feature_rotation_state("/nowhere", 5)}.items():
        with pytest.raises(TypeError, match=name):
            call()
    circle = {}
    circle["files"] = circle
    with pytest.raises(RecursionError):
        tc.Manifest(circle)


class OwnError(Exception):
    pass


@pytest.mark.parametrize("error", [OwnError("mine"), tc.EraError("era"), KeyboardInterrupt(), SystemExit(3)],
                         ids=lambda error: type(error).__name__)
def test_a_callbacks_exception_comes_out_as_the_same_object(make_manager, error):
    def get_token():
        raise error

    with pytest.raises(type(error)) as raised:
        make_manager(get_token=get_token).sync()
    assert raised.value is error
    assert any(entry.name == "get_token" for entry in raised.traceback)


def test_a_callbacks_exception_is_caught_where_the_contract_catches(make_manager):
    make_manager().sync()

    def secret():
        raise ValueError("no secret today")

    report = make_manager(get_wallet_secret=secret).verify()
    assert len(report.corrupted_files) == 2 and not report.valid


def test_causes_are_chained(data_dir):
    Path(tc.feature_rotation_state_path(data_dir)).write_text("{")
    with pytest.raises(tc.FeatureRotationStateError, match="invalid feature rotation state") as raised:
        tc.load_feature_rotation_state(data_dir)
    assert isinstance(raised.value.__cause__, ValueError)


def test_server_failures_keep_their_classes(origin, make_manager):
    from tidalcrest.auth import AuthError
    with pytest.raises(AuthError):
        make_manager(get_token=lambda: "wrong").sync()
    origin.fault('/data/manifest* status=503 count=all body={"error_code":"gone","retryable":false,"dependency":"db"}')
    with pytest.raises(ConnectionError) as raised:
        make_manager().sync()
    assert isinstance(raised.value, tc.SyncUnavailableError)
    assert raised.value.retryable is False and raised.value.dependency == "db" and raised.value.statuses == [503]
