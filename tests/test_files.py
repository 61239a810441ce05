"""Hashing, atomic writes, the progress file and the manifest files."""

import hashlib
import importlib
import json
import logging
import os
import pathlib
import time
import types

import pytest

import tidewright.sync as sync


@pytest.fixture
def progress_module():
    return importlib.import_module("tidewright._sync_progress")


def temporaries(directory):
    return sorted(str(p) for p in pathlib.Path(directory).rglob("*.tmp"))


# --- hashing -----------------------------------------------------------------

def test_sha256_of_bytes_like_values_and_of_files_in_any_block_size(tmp_path):
    data = os.urandom(300_000)
    for value in (b"", data, bytearray(b"\x00" * 1000), memoryview(b"xyz" * 7)):
        assert sync._sha256(value) == hashlib.sha256(value).hexdigest()
    with pytest.raises(TypeError):
        sync._sha256("abc")  # text has no bytes to hash

    path = tmp_path / "data.bin"
    path.write_bytes(data)
    (tmp_path / "empty.bin").write_bytes(b"")
    for chunk in (0, 1, 4093, 65536, 300_000, 1 << 40):
        assert sync._sha256_file(str(path), chunk) == hashlib.sha256(data).hexdigest()
    assert sync._sha256_file(path) == hashlib.sha256(data).hexdigest()
    assert sync._sha256_file(tmp_path / "empty.bin") == sync._sha256(b"")
    with pytest.raises(FileNotFoundError) as info:
        sync._sha256_file(str(tmp_path / "missing"))
    assert info.value.filename == str(tmp_path / "missing")
    with pytest.raises(IsADirectoryError):
        sync._sha256_file(str(tmp_path))


# --- atomic writes -----------------------------------------------------------

def test_atomic_write_creates_parents_and_replaces(tmp_path):
    target = tmp_path / "a" / "b" / "state.json"
    sync._atomic_write(str(target), b"first")
    sync._atomic_write(target, bytearray(b"second"))
    assert target.read_bytes() == b"second"
    assert temporaries(tmp_path) == []


def test_atomic_write_of_a_bare_name_creates_no_directory(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    sync._atomic_write("name.json", b"{}")
    assert [p.name for p in tmp_path.iterdir()] == ["name.json"]


def test_atomic_write_failures_leave_nothing_behind(tmp_path):
    occupied = tmp_path / "occupied"
    (occupied / "child").mkdir(parents=True)
    with pytest.raises(OSError):
        sync._atomic_write(str(occupied), b"data")
    assert (occupied / "child").is_dir()

    (tmp_path / "plain").write_bytes(b"keep")
    with pytest.raises(NotADirectoryError):
        sync._atomic_write(str(tmp_path / "plain" / "x.json"), b"data")
    assert (tmp_path / "plain").read_bytes() == b"keep"

    with pytest.raises(TypeError):
        sync._atomic_write(str(tmp_path / "text.json"), "not bytes")
    assert not (tmp_path / "text.json").exists()
    assert temporaries(tmp_path) == []


# --- progress file -----------------------------------------------------------

def test_progress_file_summarises_the_download_set(tmp_path, progress_module):
    files = {
        "features/u/e/x.arrow": {"size_bytes": 10, "kind": "feature", "platform": "linux"},
        "functions.json": {"kind": "functions"},
        "m/vault.bin": {"size_bytes": 5, "kind": None, "platform": 7},
    }
    manifest = types.SimpleNamespace(era_number=None, version="7")
    before = time.time()
    sync._write_sync_progress_json(str(tmp_path), manifest, files)

    path = sync._sync_progress_path(str(tmp_path))
    assert path == os.path.join(str(tmp_path), "sync-progress.json")
    text = pathlib.Path(path).read_text(encoding="utf-8")
    progress = json.loads(text)
    assert text == json.dumps(progress, sort_keys=True)
    assert before - 1 <= progress.pop("updated_at") <= time.time() + 1
    assert progress == {
        "phase": "syncing",
        "era_number": 0,
        "version": 7,
        "total_bytes": 15,
        "total_bytes_known": False,
        "unknown_size_files": ["functions.json"],
        "files": {
            "features/u/e/x.arrow": {"kind": "feature", "platform": "linux", "size_bytes": 10},
            "functions.json": {"kind": "functions", "platform": ""},
            "m/vault.bin": {"kind": "", "platform": "7", "size_bytes": 5},
        },
    }


def test_progress_file_asks_the_current_size_function(tmp_path, progress_module, monkeypatch):
    seen = []

    def manifest_file_size(entry):
        seen.append(entry["sha256"])
        return None if entry["sha256"] == "bb" else 100

    monkeypatch.setattr(progress_module, "manifest_file_size", manifest_file_size)
    files = {"a": {"sha256": "aa"}, "b": {"sha256": "bb"}, "c": {"sha256": "cc"}}
    sync._write_sync_progress_json(tmp_path, object(), files)
    progress = json.loads(pathlib.Path(sync._sync_progress_path(tmp_path)).read_text())
    assert seen == ["aa", "bb", "cc"]
    assert (progress["era_number"], progress["version"]) == (0, 0)
    assert (progress["total_bytes"], progress["unknown_size_files"]) == (200, ["b"])

    class Broken(Exception):
        pass

    def failing(entry):
        raise Broken("size lookup failed")

    monkeypatch.setattr(progress_module, "manifest_file_size", failing)
    with pytest.raises(Broken, match="size lookup failed"):
        sync._write_sync_progress_json(tmp_path, object(), files)


def test_removing_the_progress_file_never_raises(tmp_path, progress_module, caplog):
    sync._write_sync_progress_json(str(tmp_path), types.SimpleNamespace(era_number=2, version=1), {})
    sync._remove_sync_progress_json(str(tmp_path))
    assert not os.path.exists(sync._sync_progress_path(str(tmp_path)))
    sync._remove_sync_progress_json(str(tmp_path))

    path = sync._sync_progress_path(str(tmp_path))
    os.mkdir(path)
    with caplog.at_level(logging.DEBUG, logger="tidewright.sync"):
        sync._remove_sync_progress_json(str(tmp_path))
    [record] = [r for r in caplog.records if r.name == "tidewright.sync"]
    assert path in record.getMessage()


# --- manifest files ----------------------------------------------------------

MANIFEST = {
    "era_number": 4,
    "version": 2,
    "files": {
        "z.arrow": {"size_bytes": 1, "sha256": "ab", "kind": "feature"},
        "a.arrow": {"size_bytes": 2.5, "kind": "feature", "named_universe": "caf\u00e9 \U0001f600"},
    },
    "base_url": None,
    "pnl_column_count": 10**15,
    "flags": [True, False],
}


def read_metadata(data_dir):
    return json.loads(pathlib.Path(sync._manifest_sync_metadata_path(data_dir)).read_text(encoding="utf-8"))


def test_manifest_json_is_the_default_encoding(tmp_path):
    sync._write_manifest_json(str(tmp_path), MANIFEST)
    assert (tmp_path / "manifest.json").read_bytes() == json.dumps(MANIFEST).encode("utf-8")
    assert not os.path.exists(sync._manifest_sync_metadata_path(str(tmp_path)))


def test_side_file_records_the_server_hashes_and_the_bytes_written(tmp_path):
    data_dir = str(tmp_path)
    before = time.time()
    sync._write_manifest_json(data_dir, MANIFEST, server_manifest_body_sha256="bodyhash")
    path = sync._manifest_sync_metadata_path(data_dir)
    assert path == os.path.join(data_dir, ".manifest_sync_metadata.json")
    text = pathlib.Path(path).read_text(encoding="utf-8")
    metadata = json.loads(text)
    assert text == json.dumps(metadata, sort_keys=True)
    assert isinstance(metadata["updated_at"], float) and metadata.pop("updated_at") >= before - 1
    assert metadata == {
        "version": 2,
        "era_number": 4,
        "server_manifest_sha256": "",
        "server_manifest_body_sha256": "bodyhash",
        "local_manifest_sha256": hashlib.sha256((tmp_path / "manifest.json").read_bytes()).hexdigest(),
    }
    loaded = sync._load_manifest_sync_metadata(data_dir)
    assert loaded.pop("updated_at") > 0 and loaded == metadata

    # Falsy server hashes leave the side file as it is.
    sync._write_manifest_json(data_dir, {"era_number": 5}, server_manifest_sha256="", server_manifest_body_sha256=0)
    assert pathlib.Path(path).read_text(encoding="utf-8") == text

    # Hashes are recorded in their text form; missing values as null.
    sync._write_manifest_sync_metadata(data_dir, {"era_number": 5}, server_manifest_sha256=123)
    metadata = read_metadata(data_dir)
    assert (metadata["version"], metadata["server_manifest_sha256"]) == (None, "123")

    with pytest.raises(TypeError):
        sync._write_manifest_json(data_dir, MANIFEST, "positional-hash")


@pytest.mark.parametrize("content", [None, "[1, 2]", "not json", "\"text\"", b"\xff\xfe{}"])
def test_bad_side_files_load_as_a_new_empty_dict(tmp_path, content):
    path = pathlib.Path(sync._manifest_sync_metadata_path(str(tmp_path)))
    if isinstance(content, str):
        path.write_text(content, encoding="utf-8")
    elif content is not None:
        path.write_bytes(content)
    first = sync._load_manifest_sync_metadata(str(tmp_path))
    assert first == {}
    first["x"] = 1
    assert sync._load_manifest_sync_metadata(str(tmp_path)) == {}


def test_hint_matches_only_the_manifest_the_side_file_was_written_for(tmp_path):
    data_dir = str(tmp_path)
    manifest_path = tmp_path / "manifest.json"
    sync._write_manifest_sync_metadata(data_dir, MANIFEST, server_manifest_sha256="raw")
    assert not os.path.exists(sync._manifest_sync_metadata_path(data_dir))  # no manifest.json to vouch for
    sync._write_manifest_json(data_dir, MANIFEST, server_manifest_sha256="raw", server_manifest_body_sha256="body")
    assert sync._manifest_hash_hint_matches_local_state(data_dir, 2, 4, "raw") is True
    assert sync._manifest_hash_hint_matches_local_state(data_dir, "2", 4.0, "body") is True
    for version, era, hint in ((2, 4, "other"), (3, 4, "raw"), (2, 5, "raw"), (2, 4, "")):
        assert sync._manifest_hash_hint_matches_local_state(data_dir, version, era, hint) is False
    # Without a hint there is nothing to compare; the local values are not even looked at.
    assert sync._manifest_hash_hint_matches_local_state(data_dir, None, None, None) is False

    original = manifest_path.read_bytes()
    manifest_path.write_bytes(original.replace(b'"version": 2', b'"version":  2'))
    assert sync._manifest_hash_hint_matches_local_state(data_dir, 2, 4, "raw") is False
    manifest_path.write_bytes(original)

    side_file = pathlib.Path(sync._manifest_sync_metadata_path(data_dir))
    recorded = json.loads(side_file.read_text())
    for broken in ([recorded], {**recorded, "version": "x"}, {**recorded, "era_number": None}):
        side_file.write_text(json.dumps(broken))
        assert sync._manifest_hash_hint_matches_local_state(data_dir, 2, 4, "raw") is False, broken

    # Recorded numbers are read the way int() reads them.
    side_file.write_text(json.dumps({**recorded, "version": " 2 ", "era_number": 4.0}))
    assert sync._manifest_hash_hint_matches_local_state(data_dir, 2, 4, "raw") is True
    manifest_path.unlink()
    assert sync._manifest_hash_hint_matches_local_state(data_dir, 2, 4, "raw") is False
