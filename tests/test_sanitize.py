"""Manifest sanitisation (Python face): results built from the caller's objects."""

import copy
from pathlib import PurePosixPath

import pytest
from hypothesis import given, strategies as st

from tidewright import sync


def entry(kind, **extra):
    return {"size_bytes": 1, "sha256": "0" * 64, "kind": kind, **extra}


def mixed_manifest():
    here = sync.CURRENT_PLATFORM
    return {
        "era_number": 4,
        "files": {
            "features/u/signal_is/f.arrow": entry("feature"),
            "vault/a.pxd": entry("vault"),
            f"vault/m-{here}.so": entry("vault_module", platform=here),
            "vault/old.so": entry("backtester_module"),
            "found_signals/p/1/signal_is/pnl_long.arrow": entry("found_pnl"),
            "found_signals/p/1/signal_is/pnl.arrow": entry("found_pnl"),
        },
        "artifacts": [
            {"relative_path": "vault/old.so", "kind": "backtester_module"},
            {"path": f"vault/m-{here}.so", "kind": "vault_module"},
            "not an artifact",
        ],
        "found_signals": {
            "p/1": {"files": ["found_signals/p/1/signal_is/pnl.arrow", "found_signals/p/1/signal_is/pnl_long.arrow"]},
            "p/2": {"files": ["found_signals/p/2/signal_is/pnl.arrow"]},
        },
    }


def test_platform_predicates(monkeypatch):
    # The module's platform tag is read at call time.
    monkeypatch.setattr(sync, "CURRENT_PLATFORM", "linux_x86_64")
    assert sync._retired_unsupported_runtime_module_name_from_path("backtester-linux_x86_64.so") == "backtester"
    assert sync._retired_unsupported_runtime_module_name_from_path("backtester-macos_arm64.so") is None
    assert sync._manifest_file_is_sync_excluded("m.so", {"kind": "vault_module", "platform": "macos_arm64"})
    assert not sync._rotation_file_is_platform_excluded("m.so", {"kind": "vault_module", "platform": ""})
    assert sync._is_agent_bundle_declaration_file("x.pxd", None)


def test_nothing_to_remove_returns_the_same_object():
    clean = {
        "files": {"features/u/signal_is/f.arrow": entry("feature")},
        "artifacts": [{"path": "x", "kind": "vault_module"}],
        "found_signals": {"p/1": {"files": ["found_signals/p/1/signal_is/pnl.arrow"]}},
    }
    for fn in (
        sync._drop_agent_bundle_declaration_files,
        sync._drop_unsupported_runtime_module_files,
        sync._drop_retired_found_pnl_long_files,
        sync._sanitize_manifest_data_for_sync,
    ):
        for data in (clean, {}, {"files": None}):
            assert fn(data) is data


def test_filters_return_shallow_copies_and_leave_the_input_alone():
    data = mixed_manifest()
    before = copy.deepcopy(data)

    out = sync._drop_agent_bundle_declaration_files(data)
    assert list(out["files"]) == [p for p in data["files"] if p != "vault/a.pxd"]
    assert out["files"]["vault/old.so"] is data["files"]["vault/old.so"]
    assert out["artifacts"] is data["artifacts"]

    out = sync._drop_unsupported_runtime_module_files(data)
    assert "vault/old.so" not in out["files"]
    assert out["artifacts"] == data["artifacts"][1:] and out["artifacts"][0] is data["artifacts"][1]

    out = sync._drop_retired_found_pnl_long_files(data)
    assert "found_signals/p/1/signal_is/pnl_long.arrow" not in out["files"]
    assert out["found_signals"]["p/1"]["files"] == ["found_signals/p/1/signal_is/pnl.arrow"]
    assert out["found_signals"]["p/2"] is data["found_signals"]["p/2"]

    out = sync._sanitize_manifest_data_for_sync(data)
    assert list(out) == list(data) and out["era_number"] == 4
    assert list(out["files"]) == ["features/u/signal_is/f.arrow", f"vault/m-{sync.CURRENT_PLATFORM}.so",
                                  "found_signals/p/1/signal_is/pnl.arrow"]
    assert out["artifacts"] == data["artifacts"][1:]
    assert sync._sanitize_manifest_data_for_sync(out) is out
    assert not sync._manifest_has_agent_bundle_declarations(out)
    assert not sync._manifest_has_retired_found_pnl_long_files(out)
    assert sync._manifest_has_agent_bundle_declarations(data)
    assert sync._manifest_has_retired_found_pnl_long_files(data)
    assert data == before


# -- what sanitising for sync refuses ---------------------------------------------------

DIGEST = "ab" * 32
INDEX = f"_control/signals_index.{DIGEST}.json"


def files_manifest(*paths, **entries):
    files = {p: entry("feature") for p in paths}
    files.update(entries)
    return {"era_number": 1, "files": files}


@pytest.mark.parametrize("path", [
    ".sync_flock", ".sync_flock.owner", "manifest.json", "manifest.json.4242.7.99.tmp", ".sync_hash_cache.json",
    "sync-progress.json", ".manifest_sync_metadata.json", "rotation-settings.json", "shuffle_seed.enc",
    "shuffle_seed.enc.meta.json", ".consumer_count", ".transition_lock", "feature-rotation-state.json",
    ".prefetched-features.json", ".transition_era3.tmp/features/f.arrow", "era_2/features/f.arrow", "era7",
    # spelled so that only the path rule maps them onto the engine's file
    " manifest.json", "./.sync_flock", "era_2\\x.arrow", "rotation-settings.json/",
])
def test_a_path_on_the_engines_own_files_refuses_the_manifest(path):
    data = files_manifest("features/u/signal_is/f.arrow", **{path: entry("config")})
    expected = "Manifest file path names a file the sync engine keeps for itself: " + repr(path)
    for build in (sync._sanitize_manifest_data_for_sync, sync.Manifest):
        with pytest.raises(sync.ManifestError) as caught:
            build(data)
        assert str(caught.value) == expected


def test_era_artifacts_and_look_alike_names_are_ordinary_entries():
    paths = ["functions.json", "named_universes/u/vocabulary.json", INDEX, "features/manifest.json",
             "era_x/f.arrow", "eras/f.arrow", "manifest.jsonl", "my.sync_flock", "era_2.arrow"]
    data = files_manifest(*paths)
    assert sync._sanitize_manifest_data_for_sync(data) is data


COLLIDING = {
    "dot-segment": ("y/z.arrow", "y/./z.arrow", "name the same local file: 'y/z.arrow' and 'y/./z.arrow'"),
    "double-slash": ("a/b", "a//b", "name the same local file: 'a/b' and 'a//b'"),
    "leading-space": ("a/b", " a/b", "name the same local file: 'a/b' and ' a/b'"),
    "backslash": ("a\\b", "a/b", "name the same local file: 'a\\\\b' and 'a/b'"),
    "file-and-directory": ("pa", "pa/b", "collide: 'pa' is a file but 'pa/b' needs it as a directory"),
    "directory-first": ("pa/b/c", "pa/b", "collide: 'pa/b' is a file but 'pa/b/c' needs it as a directory"),
    "staging-name": ("u.arrow", "u.arrow.tmp", "collide: 'u.arrow.tmp' is the staging file of 'u.arrow'"),
    "under-staging-name": ("u.arrow", "u.arrow.tmp/x",
                           "collide: 'u.arrow.tmp/x' needs the staging file of 'u.arrow' as a directory"),
}


@pytest.mark.parametrize("first, second, message", COLLIDING.values(), ids=COLLIDING.keys())
def test_paths_reaching_one_local_file_refuse_the_manifest(first, second, message):
    data = {"era_number": 1, "files": {first: entry("feature"), second: dict(entry("feature"), sha256="cd" * 32)}}
    with pytest.raises(sync.ManifestError) as caught:
        sync._sanitize_manifest_data_for_sync(data)
    assert str(caught.value) == "Manifest file paths " + message


def test_a_refused_entry_cannot_collide():
    # The file "pa" is never written: "pa/b" may have the directory.
    data = files_manifest("pa/b", pa=dict(entry("feature"), sha256="not a digest"))
    assert list(sync._sanitize_manifest_data_for_sync(data)["files"]) == ["pa/b"]


def _reference_local(key):
    """The local path a key reaches, written with the host's own POSIX path type."""
    parsed = PurePosixPath(key.strip().replace("\\", "/").strip())
    if not parsed.parts or parsed.is_absolute() or ".." in parsed.parts:
        return None
    return parsed


_KEY = st.lists(st.sampled_from(["a", "b", "/", ".", " ", "\\", ".tmp"]), min_size=1, max_size=8).map("".join)


@given(st.lists(_KEY, max_size=6))
def test_accepted_paths_never_share_a_local_file(keys):
    data = {"era_number": 1, "files": {k: entry("feature") for k in keys}}
    try:
        out = sync._sanitize_manifest_data_for_sync(data)
    except sync.ManifestError:
        return
    local = [p for p in map(_reference_local, out["files"]) if p is not None]
    files = set(local)
    assert len(files) == len(local)  # one key per file
    for path in local:
        assert not any(parent in files for parent in path.parents)  # no file is another's directory
        staging = PurePosixPath(str(path) + ".tmp")
        assert not any(other == staging or staging in other.parents for other in local)
    assert sync._sanitize_manifest_data_for_sync(out) is out


def test_digests_are_compared_as_one_text():
    padded = " " + DIGEST.upper() + "\n"
    data = files_manifest("a.arrow", **{"b.arrow": dict(entry("feature"), sha256=padded)})
    out = sync._sanitize_manifest_data_for_sync(data)
    assert out["files"]["b.arrow"] == dict(entry("feature"), sha256=DIGEST)
    assert out["files"]["a.arrow"] is data["files"]["a.arrow"]
    assert data["files"]["b.arrow"]["sha256"] == padded  # the caller's entry is left alone
    assert sync._sanitize_manifest_data_for_sync(out) is out
    assert sync.Manifest(data).files["b.arrow"]["sha256"] == DIGEST


@pytest.mark.parametrize("field, value", [
    ("sha256", "00"), ("sha256", ""), ("sha256", "g" * 64), ("sha256", "a" * 65), ("sha256", 123),
    ("sha256", ["a" * 64]), ("size_bytes", -1), ("size_bytes", 1.5), ("size_bytes", "12"), ("size_bytes", True),
    ("size_bytes", 2 ** 64), ("size_bytes", float("nan")), ("extra", [1, float("inf")]),
])
def test_an_entry_that_cannot_be_synced_is_left_out_alone(field, value):
    data = files_manifest("a.arrow", **{"b.arrow": dict(entry("feature"), **{field: value})})
    out = sync._sanitize_manifest_data_for_sync(data)
    assert list(out["files"]) == ["a.arrow"]
    assert sync._sanitize_manifest_data_for_sync(out) is out
    assert list(sync.Manifest(data).files) == ["a.arrow"]


@pytest.mark.parametrize("info", [
    dict(entry("feature"), size_bytes=123.0), dict(entry("feature"), size_bytes=None),
    {"kind": "feature"}, dict(entry("feature"), sha256=None), dict(entry("feature"), size_bytes=0),
])
def test_entries_of_unknown_size_or_digest_are_kept_as_written(info):
    data = files_manifest(**{"b.arrow": info})
    assert sync._sanitize_manifest_data_for_sync(data) is data
    assert sync.Manifest(data).files == {"b.arrow": info}


def test_an_entry_that_is_not_an_object_is_left_out():
    data = files_manifest("a.arrow", **{"b.arrow": ["not", "a", "map"]})
    assert list(sync._sanitize_manifest_data_for_sync(data)["files"]) == ["a.arrow"]
