"""The main job through the face, and what it hands out."""

import copy
import dataclasses
import json
import pickle
import re
import sys
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from conftest import ROOT

import tidalcrest.sync as tc


def test_readme_lines_do_the_main_job(origin, data_dir, capsys):
    readme = (ROOT / "README.md").read_text()
    block = re.search(r"^## From Python\n(?:(?!    ).*\n)*?((?:    .*\n|\n)+)", readme, re.M).group(1)
    code = "\n".join(line[4:] for line in block.splitlines())
    assert len([line for line in code.splitlines() if line.strip()]) <= 12
    exec(compile(code, "README.md", "exec"),
         {"data_dir": data_dir, "server_url": origin.url, "read_token": lambda: origin.token,
          "read_wallet_secret": lambda: origin.secret})
    assert "era 1" in capsys.readouterr().out
    tc.SyncManager._evict(data_dir)


def test_sync_publishes_and_records_are_plain(manager, data_dir):
    result = manager.sync()
    assert result.era_number == 1 and result.n_features > 0 and result.bytes_downloaded > 0
    assert all((Path(manager.active_cohort_data_dir()) / path).exists() for path in result.active_relative_paths)
    assert dataclasses.asdict(manager.sync())["bytes_downloaded"] == 0
    assert manager.verify() == tc.VerifyResult()
    damaged = next(path for path in result.active_relative_paths if path.startswith("features/"))
    (Path(manager.active_cohort_data_dir()) / damaged).write_bytes(b"rot")
    assert manager.verify().corrupted_files == [damaged]
    manager.repair([damaged])
    assert manager.verify().valid
    assert manager.needs_sync() is False
    assert manager.get_manifest() is manager.get_manifest()
    assert manager.data_dir == str(data_dir)

    snapshot = manager.active_cohort_snapshot()
    assert snapshot == manager.active_cohort_snapshot()
    assert json.loads(snapshot.manifest_bytes)["era_number"] == 1
    with pytest.raises(dataclasses.FrozenInstanceError):
        snapshot.root_dir = "elsewhere"


def test_pin_is_a_context_manager(manager):
    with pytest.raises(FileNotFoundError):  # nothing has been selected yet
        with manager.pin_active_cohort_snapshot():
            pass
    manager.sync()
    with manager.pin_active_cohort_snapshot() as snapshot:
        assert Path(snapshot.root_dir).is_dir()
    with pytest.raises(ZeroDivisionError):
        with manager.pin_active_cohort_snapshot():
            1 / 0
    manager.sync()  # every lock is free again


def test_registry_and_consumers(origin, data_dir, tmp_path):
    link = tmp_path / "link"
    link.symlink_to(data_dir)
    guard = object()
    manager = tc.SyncManager.get_or_create(data_dir, runtime_freshness_guard=guard, **origin.options())
    assert tc.SyncManager.get_or_create(str(link), **origin.options()) is manager
    assert manager.runtime_freshness_guard is guard
    manager.acquire()
    assert manager.consumer_count() == 1 and manager.is_alive()
    manager.release()
    assert not manager.is_alive()
    assert tc.SyncManager.get_or_create(data_dir, **origin.options()) is not manager
    tc.SyncManager._evict(data_dir)


def test_manifest_files_are_converted_when_asked_for(manager):
    manager.sync()
    files = manager.get_manifest().files
    plain = manager.get_manifest().to_dict()["files"]
    path = list(plain)[-1]
    assert files[path] == plain[path] and files[path] is files[path]
    assert len(files) == len(plain) and path in files and "nowhere" not in files
    assert dict.__len__(files) <= 2, "one look-up converted more than one entry"
    assert files.get("nowhere") is None and list(files) == list(plain)
    with pytest.raises(KeyError):
        files["nowhere"]
    assert files == plain and plain == files and list(files.items()) == list(plain.items())
    assert json.loads(json.dumps(tc.Manifest(manager.get_manifest().to_dict()).files)) == plain
    unread = tc.Manifest(manager.get_manifest().to_dict()).files
    assert pickle.loads(pickle.dumps(unread)) == copy.deepcopy(unread) == {**unread} == plain


def test_files_of_a_dict_may_be_odd():
    odd = tc.Manifest({"era_number": 1, "files": {"a": None, "b": 5}}).files
    assert next(iter(odd)) == "a" and odd["b"] == 5 and odd["a"] is None and 5 not in odd
    with pytest.raises(KeyError):
        odd[5]
    assert tc.Manifest({"era_number": 1}).files == {}


def test_threads_share_the_files_of_a_manifest():
    plain = {f"features/u1/signal_is/{i}.arrow": {"kind": "feature", "size_bytes": i} for i in range(300)}

    def each_is_there(files, start):
        start.wait()
        assert all(files[path] == entry and path in files for path, entry in plain.items())

    def all_are_there(files, start):
        start.wait()
        assert list(files.items()) == list(plain.items())

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)
    try:
        with ThreadPoolExecutor(6) as pool:
            for _ in range(40):
                files = tc.Manifest({"era_number": 1, "files": plain}).files
                start = threading.Barrier(6)
                for look in [pool.submit(look, files, start) for look in [each_is_there, all_are_there] * 3]:
                    look.result()
    finally:
        sys.setswitchinterval(interval)


def test_manifest_documents_come_back_as_they_went():
    document = {"era_number": 0, "version": 2**63, "files": {}, "z": True, "a": [1, 1.0, None, float("inf")],
                "text": "grün \ud800", "market_id": 1}
    manifest = tc.Manifest.from_dict(document)
    assert manifest.to_dict() == document and list(manifest.to_dict()) == list(document)
    assert manifest.to_dict()["z"] is True and type(manifest.to_dict()["a"][1]) is float
    assert (manifest.found_signals, manifest.functions, manifest.version) == (None, None, 2**63)
    manifest.found_signals = {"a": {}}
    with pytest.raises(tc.ManifestError, match="manifest membership state is incomplete"):
        manifest.to_dict()
    manifest.found_strategies = manifest.useful_signals = {}
    assert manifest.to_dict()["found_signal_count"] == 1
    with pytest.raises(tc.ManifestError, match="manifest.json missing required era_number"):
        tc.Manifest({})


def test_rotation_state_round_trip(data_dir):
    assert tc.load_feature_rotation_state(data_dir) is None
    state = tc.RotationState(active_relative_paths=("features/a.arrow",), generation=3, seed=7,
                             rng_state="counter-v1:7:1", reason="sync")
    assert tc.write_feature_rotation_state(data_dir, state) == tc.feature_rotation_state_path(data_dir)
    assert tc.load_feature_rotation_state(str(data_dir)) == state
    assert tc.feature_rotation_status_payload(data_dir, {"rotation_frequency": "weekly"})["generation"] == 3
