"""The in-memory Manifest."""

import re

import pytest

import tidewright.sync as sync


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
    assert m.files is m.files  # converted once
    first = m.to_dict()
    assert first == data
    first["files"] = {}
    first["era_number"] = 9
    assert m.to_dict() == data and m.to_dict() is not m.to_dict()
    assert m.era_number == 7


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
