"""The in-memory Manifest."""

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

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
    data = {"era_number": "7", "version": 3, "market_id": 2, "base_url": "https://cdn.example/data/files",
            "files": {"a.arrow": {"size_bytes": 1, "sha256": "00", "kind": "feature", "extra": [1, 2]}},
            "pnl_column_count": 4, "signals_index": "_control/x", "functions": "functions.json", "other": True}
    m = sync.Manifest.from_dict(data)
    assert (m.era_number, m.version, m.market_id, m.pnl_column_count) == ("7", 3, 2, 4)
    assert m.files == data["files"]
    assert m.files is m.files  # converted once
    first = m.to_dict()
    assert first == data
    first["files"] = {}
    first["era_number"] = 9
    assert m.to_dict() == data and m.to_dict() is not m.to_dict()
    assert m.era_number == "7"


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


@settings(max_examples=300, deadline=None)
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
