"""Obtaining a SyncManager: validation, registry, knobs and local state."""

import json
import logging
import os
import re

import pytest

import tidewright.sync as sync

URL = "http://127.0.0.1:9"


@pytest.fixture(autouse=True)
def empty_registry():
    for key in list(sync.SyncManager._instances):
        sync.SyncManager._evict(key)
    yield
    for key in list(sync.SyncManager._instances):
        sync.SyncManager._evict(key)


def token():
    return "tok"


def test_registry_returns_one_instance_per_canonical_directory(tmp_path, monkeypatch):
    data = tmp_path / "data"
    data.mkdir()
    (tmp_path / "link").symlink_to(data)
    monkeypatch.chdir(tmp_path)
    first = sync.SyncManager.get_or_create("data", URL, token)
    assert sync.SyncManager.get_or_create(str(tmp_path / "link"), URL, token) is first
    assert first._data_dir == os.path.realpath(data)
    assert list(sync.SyncManager._instances) == [os.path.realpath(data)]

    def newer():
        return "new"

    assert sync.SyncManager.get_or_create(str(data), URL, newer, poll_interval_s=99)._get_token is newer
    assert first._poll_interval == 5.0

    key = os.path.realpath(data)
    with pytest.raises(ValueError) as info:
        sync.SyncManager.get_or_create(str(data), "http://127.0.0.1:10", token)
    assert str(info.value) == (f"SyncManager for '{key}' already exists with server_url='{URL}', "
                               f"cannot reuse with server_url='http://127.0.0.1:10'")
    with pytest.raises(ValueError) as info:
        sync.SyncManager.get_or_create(str(data), URL, token, market_id="3")
    assert str(info.value) == (f"SyncManager for '{key}' already exists with market_id=1, "
                               f"cannot reuse with market_id=3")

    sync.SyncManager._evict(str(tmp_path / "link"))
    assert sync.SyncManager._instances == {}
    sync.SyncManager._evict(str(data))  # absent: no error
    assert sync.SyncManager.get_or_create(str(data), URL, token) is not first


def test_constructor_validation_order_and_messages(tmp_path):
    with pytest.raises(TypeError, match=r"^get_token must be callable, got <class 'NoneType'>$"):
        sync.SyncManager(str(tmp_path / "missing"), URL)
    with pytest.raises(ValueError):
        sync.SyncManager(str(tmp_path), "http://example.com", get_token=token)
    with pytest.raises(FileNotFoundError, match="^data_dir does not exist: " + str(tmp_path / "missing") + "$"):
        sync.SyncManager(str(tmp_path / "missing"), URL, get_token=token)
    m = sync.SyncManager(str(tmp_path), URL, token=12345, market_id="2")
    assert m._get_token() == "12345" and m._market_id == 2
    assert sync.SyncManager._instances == {}  # direct construction does not register
    for bad in (0, -1, "abc", None):
        with pytest.raises(ValueError) as info:
            sync.SyncManager(str(tmp_path), URL, get_token=token, market_id=bad)
        assert str(info.value) == f"market_id must be a positive integer, got {bad!r}"
        with pytest.raises(ValueError, match=f"^market_id must be a positive integer, got {re.escape(repr(bad))}$"):
            sync._market_era_current_url(URL, bad)
    assert sync._coerce_agent_market_id(" 7 ") == 7


def test_knobs_parse_validate_and_persist_across_resets(tmp_path):
    m = sync.SyncManager(str(tmp_path), URL, get_token=token, sync_http_transport=" CURL ",
                         sync_http_chunk_bytes="1048576", sync_max_concurrency=3)
    assert (m._sync_http_transport, m._sync_http_chunk_bytes, m._sync_max_concurrency) == ("curl", 1048576, 3)
    m._set_sync_runtime_knobs(sync_max_concurrency="  ")
    assert (m._sync_http_transport, m._sync_http_chunk_bytes, m._sync_max_concurrency) == ("curl", 1048576, 8)
    d = sync.SyncManager(str(tmp_path), URL, get_token=token)
    assert (d._sync_http_transport, d._sync_http_chunk_bytes, d._sync_max_concurrency) == ("auto", 67108864, 8)


def test_consumer_count_is_read_leniently(tmp_path, caplog):
    (tmp_path / ".consumer_count").write_text(" 3\n")
    assert sync.SyncManager(str(tmp_path), URL, get_token=token).consumer_count() == 3
    (tmp_path / ".consumer_count").write_text("three")
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        assert sync.SyncManager(str(tmp_path), URL, get_token=token).consumer_count() == 0
    assert any(r.getMessage().startswith("Failed to read consumer count: ") for r in caplog.records)


def test_local_manifest_loading(tmp_path, caplog):
    (tmp_path / "manifest.json").write_text("{not json")
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        m = sync.SyncManager(str(tmp_path), URL, get_token=token)
    assert m.get_manifest() is None and m.status() is None
    assert any(r.getMessage().startswith("Failed to load manifest from disk: ") for r in caplog.records)

    clean = {"era_number": 4, "version": 2, "files": {"features/u/signal_is/a.arrow": {"kind": "feature"}}}
    dirty = {"era_number": 4, "version": 2, "files": dict(clean["files"], **{"x.pxd": {"kind": ""}})}
    (tmp_path / "manifest.json").write_text(json.dumps(dirty))
    m = sync.SyncManager(str(tmp_path), URL, get_token=token)
    assert m.get_manifest().era_number == 4 and list(m.get_manifest().files) == list(clean["files"])
    assert m.get_manifest() is m.get_manifest()
    assert json.loads((tmp_path / "manifest.json").read_text()) == clean  # rewritten after sanitising
    assert not (tmp_path / ".manifest_sync_metadata.json").exists()

    (tmp_path / "manifest.json").write_text(json.dumps({"version": 1}))
    assert sync.SyncManager(str(tmp_path), URL, get_token=token).get_manifest() is None


def _index_path(data_dir):
    return data_dir / json.loads((data_dir / "manifest.json").read_text())["signals_index"]


def _membership(manifest):
    return manifest.found_signals, manifest.found_strategies, manifest.useful_signals


# (damage done to a synced directory, the warning the constructor logs)
DAMAGE = {
    "intact": (lambda d: None, None),
    "index-missing": (lambda d: os.remove(_index_path(d)),
                      "Failed to load manifest from disk: signals_index.json missing from local sync: "),
    "vocabulary-broken": (lambda d: (d / "named_universes" / "top50" / "vocabulary.json").write_text("{not json"),
                          "Failed to load vocabulary from disk: vocabulary.json is not valid JSON: "),
}


@pytest.mark.parametrize("damage, warning", DAMAGE.values(), ids=DAMAGE.keys())
def test_a_manager_over_a_synced_directory_has_membership_and_vocabularies_at_once(dataservice, tmp_path, caplog,
                                                                                    damage, warning):
    sync.SyncManager(str(tmp_path), dataservice.url, token=dataservice.token).sync()
    index = json.loads(_index_path(tmp_path).read_text())
    served = (index["found_signals"], index["found_strategies"], index["useful_signals"])
    assert all(served)
    damage(tmp_path)
    dataservice.clear_requests()

    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        m = sync.SyncManager.get_or_create(str(tmp_path), dataservice.url, lambda: dataservice.token)

    assert dataservice.requests == []  # everything from disk
    assert [r.getMessage().startswith(warning) for r in caplog.records] == ([True] if warning else [])
    assert _membership(m.get_manifest()) == (({}, {}, {}) if "index" in str(warning) else served)
    assert (None if "vocabulary" in str(warning) else ["top200", "top50"]) == (
        None if m._vocabulary is None else sorted(m._vocabulary))

    # What could not be loaded comes back with the next sync.
    m.sync()
    assert _membership(m.get_manifest()) == served and sorted(m._vocabulary) == ["top200", "top50"]

