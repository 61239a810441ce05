"""The in-memory Manifest."""

import re
import json

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import tidewright.sync as sync
from sync_helpers import FEATURE, manager


def test_defaults_and_required_era():
    m = sync.Manifest({"era_number": 0})
    assert (m.era_number, m.version, m.market_id, m.base_url, m.files, m.pnl_column_count) == (0, 0, None, None, {}, 0)
    assert (m.signals_index, m.functions, m.shuffle_key_generation, m.shuffle_key_source) == (None, None, None, None)
    assert (m.found_signals, m.found_strategies, m.useful_signals) == ({}, {}, {})
    for bad in ({}, {"era_number": None}):
        with pytest.raises(sync.ManifestError, match="^manifest.json missing required era_number$"):
            sync.Manifest(bad)
    with pytest.raises(sync.ManifestError):
        sync.Manifest.from_dict({"version": 3})


def test_values_are_kept_as_decoded_and_to_dict_is_a_fresh_copy():
    data = {"era_number": 7, "version": 3.0, "market_id": "2", "base_url": "https://cdn.example/data/files",
            "files": {"a.arrow": {"size_bytes": 1.0, "sha256": "0" * 64, "kind": "feature", "extra": [1, 2]}},
            "pnl_column_count": 4, "signals_index": "_control/x", "functions": "functions.json", "other": True}
    m = sync.Manifest.from_dict(data)
    assert (m.era_number, m.version, m.market_id, m.pnl_column_count) == (7, 3, "2", 4)
    assert type(m.version) is float  # an integral float is version 3, written as the server wrote it
    assert m.files == data["files"]
    assert m.to_dict() == data


DIGEST = "ab" * 32


@pytest.mark.parametrize("entry", [
    {"size_bytes": 5, "sha256": DIGEST, "kind": "feature"},
    {"kind": "feature", "sha256": DIGEST, "size_bytes": 5, "named_universe": "top50", "family": "px"},
    {"size_bytes": 3.0, "sha256": DIGEST, "kind": "feature"},
    {"size_bytes": 5, "sha256": DIGEST, "kind": "vault_module", "platform": "macos_arm64", "tags": [1, {"x": None}]},
    {"size_bytes": 5, "sha256": DIGEST, "kind": "f\u00e9ature \u2603", "note": "say \"hi\"\n"},
    {"sha256": DIGEST, "kind": "functions"},
    {"size_bytes": 5, "kind": "feature"},
])
def test_entries_of_any_form_come_back_exactly_from_manifest_json_and_the_python_face(entry, tmp_path):
    # An upper-case digest is rewritten on load, so the engine writes manifest.json again.
    files = {"features/a.arrow": {"size_bytes": 1, "sha256": DIGEST.upper(), "kind": "feature"},
             "features/\u00fcn\u00ef.arrow": entry,
             "features/c.arrow": {"size_bytes": 2, "sha256": DIGEST, "kind": "feature"}}
    (tmp_path / "manifest.json").write_text(json.dumps({"era_number": 1, "files": files, "version": 2}))
    expected = {"era_number": 1, "files": {**files, "features/a.arrow": {**files["features/a.arrow"], "sha256": DIGEST}},
                "version": 2}
    m = sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token="x")
    assert (tmp_path / "manifest.json").read_text() == json.dumps(expected)
    held = m.get_manifest()
    assert json.dumps(held.to_dict()) == json.dumps(expected) and held.to_dict() == expected
    assert json.dumps(held.files) == json.dumps(expected["files"])


@pytest.mark.parametrize("field, value", [
    ("era_number", float("nan")), ("era_number", "7"), ("era_number", True), ("era_number", -1),
    ("era_number", 2.5), ("version", float("nan")), ("version", float("inf")), ("version", None),
    ("version", "3"), ("version", -3), ("version", 2 ** 63),
])
def test_era_number_and_version_are_whole_numbers(field, value):
    data = {"era_number": 1, field: value}
    with pytest.raises(sync.ManifestError) as caught:
        sync.Manifest(data)
    assert str(caught.value) == f"Manifest {field} must be a non-negative integer: {value!r}"


@pytest.mark.parametrize("field, value", [("pnl_column_count", float("nan")), ("market_id", float("-inf")),
                                          ("found_signals", {"p/1": {"score": float("nan")}})])
def test_no_other_field_holds_nan_or_infinity(field, value, tmp_path):
    data = {"era_number": 1, field: value}
    message = f"Manifest field {field!r} holds a number that is not finite (NaN or Infinity)"
    with pytest.raises(sync.ManifestError, match=re.escape(message)):
        sync.Manifest(data)
    with pytest.raises(sync.ManifestError, match="^manifest.json not written: "):
        sync._write_manifest_json(str(tmp_path), data)
    assert list(tmp_path.iterdir()) == []


def test_construction_sanitises_the_object():
    data = {"era_number": 1, "files": {
        "bundle/decl.pxd": {"kind": "vault"},
        "bundle/x.txt": {"kind": "vault_declaration"},
        "modules/other-linux_x86_64.so": {"kind": "mystery_module"},
        "found_signals/a/b/c/pnl_long.arrow": {"kind": "x"},
        "features/u/signal_is/f.arrow": {"kind": "feature"},
    }}
    m = sync.Manifest(data)
    assert list(m.files) == ["features/u/signal_is/f.arrow"]
    assert list(m.to_dict()["files"]) == ["features/u/signal_is/f.arrow"]
    assert len(data["files"]) == 5  # the caller's object is untouched


def test_sibling_modules_are_looked_up_at_call_time(monkeypatch):
    import tidewright._artifact_rotation as rotation

    data = {"era_number": 1, "files": {"a.bin": {"kind": "blob"}, "b.bin": {"kind": "blob"}}}
    assert list(sync.Manifest(data).files) == ["a.bin", "b.bin"]
    seen = []

    def kind(path, info):
        seen.append(path)
        return "mystery_module" if path == "a.bin" else str(info.get("kind", ""))

    monkeypatch.setattr(rotation, "manifest_file_kind", kind)
    assert list(sync.Manifest(data).files) == ["b.bin"]  # an unsupported runtime module is dropped
    assert sorted(set(seen)) == ["a.bin", "b.bin"]


def test_which_runtime_modules_are_supported_is_the_sibling_modules_answer(monkeypatch):
    import tidewright.runtime_module_freshness as freshness

    data = {"era_number": 1, "files": {"a.so": {"kind": "risk_module"}, "b.so": {"kind": "vault_module"}}}
    assert list(sync.Manifest(data).files) == ["b.so"]
    monkeypatch.setattr(freshness, "is_runtime_module_kind", lambda kind: kind == "risk_module")
    assert list(sync.Manifest(data).files) == ["a.so"]


@pytest.mark.parametrize("body", [
    b"\xff", b'{"found_signals": {"a": "\xff"}}', b'{"x": "\xe2\x82', b"{}\xe2", b'{"x": "\xed\xa0\x80"}',
    b'{"x": "\xc0\xaf"}', b'{"x": "\xf4\x90\x80\x80"}', b'{"x": "\xf0\x9f\x98', b"\x80{}",
])
def test_signals_index_bytes_are_decoded_before_they_are_parsed(body):
    with pytest.raises(UnicodeDecodeError) as decoding:
        body.decode("utf-8")
    with pytest.raises(sync.ManifestError) as info:
        sync._validate_signals_index_bytes(body, sync.Manifest({"era_number": 1}))
    assert str(info.value) == f"Invalid signals_index.json UTF-8: {decoding.value}"


@settings(max_examples=100, deadline=None)
@given(st.binary(max_size=12).map(lambda tail: b'{"x": "' + tail + b'"}'))
def test_signals_index_text_is_refused_exactly_where_the_host_cannot_decode_it(body):
    try:
        body.decode("utf-8")
    except UnicodeDecodeError as exc:
        expected = f"Invalid signals_index.json UTF-8: {exc}"
    else:
        expected = None
    try:
        sync._validate_signals_index_bytes(body, sync.Manifest({"era_number": 1}))
    except sync.ManifestError as exc:
        assert expected is None or str(exc) == expected
        assert expected is not None or str(exc).startswith("Invalid signals_index.json JSON: ")
    else:
        assert expected is None


# -- the manifest as a Python object -------------------------------------------------

def test_attributes_are_the_manifests_own_objects_and_to_dict_a_fresh_top_level():
    data = {"era_number": 1, "files": {"a.arrow": {"kind": "feature", "size_bytes": 1, "sha256": "00"}},
            "signals_index": {"path": "x"}}
    m = sync.Manifest(data)
    files = m.files
    assert files is m.files is m._data["files"] and m.signals_index is m._data["signals_index"]
    first, second = m.to_dict(), m.to_dict()
    assert first is not second and first["files"] is files  # a fresh top level, the nested maps shared
    files["b.arrow"] = {"kind": "feature"}
    assert "b.arrow" in m.to_dict()["files"]

    for name in ("found_signals", "found_strategies", "useful_signals"):
        held = getattr(m, name)
        held["pool/x"] = {"id": 1}
        assert getattr(m, name) is held and getattr(m, name) == {"pool/x": {"id": 1}}

    m.era_number, m.version, m.files = 7, 3, {}
    assert (m.era_number, m.version, m.files) == (7, 3, {})
    assert (repr(m), str(m)) == ("<Manifest era_number=7 version=3 files=0>",) * 2
    assert m.to_dict()["era_number"] == 1  # the object itself is only changed through its maps
    del m.version
    with pytest.raises(AttributeError, match="has no attribute 'version'"):
        m.version


INDEX = {"era_number": 1, "found_signals": {"p/s1": {"pnl": "found_signals/p/s1/signal_is/pnl.arrow"}},
         "useful_signals": {"p/u1": {}}}


@pytest.mark.parametrize("apply", [
    lambda m: sync._apply_manifest_signals_index(m, INDEX),
    lambda m: sync._validate_signals_index_bytes(json.dumps(INDEX).encode(), m),
])
def test_applying_a_signals_index_sets_the_membership_maps(apply):
    m = sync.Manifest({"era_number": 1})
    earlier = m.found_signals
    earlier["stale"] = {}
    apply(m)
    assert (m.found_signals, m.found_strategies, m.useful_signals) == (INDEX["found_signals"], {}, {"p/u1": {}})
    assert m.found_signals is m.found_signals and m.found_signals is not earlier
    with pytest.raises(sync.EraError):
        sync._apply_manifest_signals_index(m, {"era_number": 2, "found_signals": {}})
    assert m.found_signals == INDEX["found_signals"]  # a refused index changes nothing


def test_a_managers_manifest_is_one_object_and_the_engine_keeps_its_own_copy(dataservice, tmp_path):
    m = manager(dataservice, tmp_path)
    m.sync()
    held = m.get_manifest()
    assert m.get_manifest() is held and m._manifest is held
    held.found_signals["mine"] = {}
    held.version = "mine"
    assert m.get_manifest().found_signals["mine"] == {} and m.get_manifest().version == "mine"

    # What Python does to the object does not reach the engine's copy.
    held.files.clear()
    (tmp_path / FEATURE).write_bytes(b"damaged")
    assert m.verify().corrupted_files == [FEATURE]
    m.repair([FEATURE])
    assert m.verify().valid

    dataservice.set_version(touch=[FEATURE])
    m.sync()
    fresh = m.get_manifest()
    assert fresh is not held and fresh.version == 2 and FEATURE in fresh.files


def test_file_totals_count_on_the_engine_copy_until_the_files_map_is_built():
    from tidewright.cli.status import manifest_totals

    digest = "ab" * 32
    m = sync.Manifest({"era_number": 1, "version": 1, "files": {
        "features/a.arrow": {"sha256": digest, "size_bytes": 5, "kind": "feature"},
        "features/b.arrow": {"sha256": digest, "size_bytes": 0, "kind": "feature"},
        "functions.json": {"sha256": digest, "kind": "functions"},  # no size: counts 0 bytes
    }})
    assert m._file_totals() == manifest_totals(m) == (3, 5)
    m.files["features/a.arrow"]["size_bytes"] = 9  # a change made in Python is what the summary shows
    assert m._file_totals() is None and manifest_totals(m) == (3, 9)
