"""Manifest paths, local files, feature lookups and data-file URLs (Python face)."""

import enum
import importlib
import os
import types
from pathlib import PurePosixPath

import pytest
from hypothesis import given, strategies as st

from tidewright import sync


def manifest(*paths):
    return types.SimpleNamespace(files={p: {"size_bytes": 1, "kind": "feature"} for p in paths})


def _reference_safe_path(raw):
    """The rule written with the host's own POSIX path type."""
    text = raw.strip()
    if not text or "\x00" in text:
        return None
    parsed = PurePosixPath(text.replace("\\", "/").strip())
    if parsed.is_absolute() or not parsed.parts or any(p in ("", ".", "..") for p in parsed.parts):
        return None
    return "/".join(parsed.parts)


@given(st.text(alphabet=["a", "é", ".", "/", "\\", " ", "\u3000", "\x00", "\t"], max_size=12))
def test_safe_path_agrees_with_posix_path_semantics(raw):
    expected = _reference_safe_path(raw)
    if expected is None:
        with pytest.raises(sync.ManifestError):
            sync._safe_manifest_relative_path(raw)
    else:
        assert sync._safe_manifest_relative_path(raw) == expected


def test_local_path_refuses_links_out_of_the_data_directory(tmp_path):
    data, outside = tmp_path / "data", tmp_path / "outside"
    data.mkdir()
    outside.mkdir()
    (data / "features").symlink_to(outside, target_is_directory=True)
    root = os.path.realpath(data)
    assert sync._manifest_local_path(data, "vault\\x.so") == f"{root}/vault/x.so"  # path-like data_dir
    with pytest.raises(sync.ManifestError) as caught:
        sync._manifest_local_path(str(data), "features/u/x.arrow")
    assert str(caught.value) == "Manifest file path escapes data directory: 'features/u/x.arrow'"


class ExpressionType(enum.Enum):
    SIGNAL = "SIGNAL"
    STRATEGY = "Strategy"


def test_feature_lookups():
    m = manifest(
        "features/eu/signal_is/fam__k__main__0.arrow",
        "features/eu/strategy_is/fam__k__main__0.arrow",
        "features/eu/signal_is/fam__k__b__1.arrow",
        "features/eu/signal_is/fam__k__a__1.arrow",
        "features/signal_is/plain.arrow",
    )
    assert sync._feature_epoch_for_expression_type(ExpressionType.STRATEGY) == "strategy_is"
    assert sync._feature_epoch_for_expression_type(None) == "signal_is"
    find = sync._manifest_feature_relative_path
    assert (
        find(m, feature_name="fam__k__main__0", expression_type=ExpressionType.STRATEGY, named_universe="eu")
        == "features/eu/strategy_is/fam__k__main__0.arrow"
    )
    assert find(m, feature_name="plain") == "features/signal_is/plain.arrow"
    assert find(m, feature_name="missing", named_universe="eu") is None
    with pytest.raises(TypeError):
        find(m, "plain")  # keyword-only
    assert sync._manifest_feature_prefetch_relative_paths(m, feature_name="fam__k__main__0", named_universe="eu") == (
        "features/eu/signal_is/fam__k__main__0.arrow",
        "features/eu/signal_is/fam__k__a__1.arrow",
        "features/eu/signal_is/fam__k__b__1.arrow",
    )
    assert sync._manifest_feature_prefetch_relative_paths(m, feature_name="missing") == ()
    assert sync._manifest_feature_companion_relative_paths(m, "../x.arrow") == ()
    assert sync._feature_artifact_family_prefix("fam__k__main") is None


def test_a_public_base_url_is_the_services_own_file_route():
    assert sync._manifest_file_url("http://127.0.0.1", "a", base_url="https://cdn.example/x//") == "https://cdn.example/x/a"
    assert sync._manifest_base_url_uses_public_download("http://h:1/", " https://h:1/data/files/ ") is True
    assert sync._manifest_base_url_uses_public_download("http://h:1", "http://h:1/mirror") is False


def test_transport_refusal_is_a_manifest_error_with_its_message(monkeypatch):
    security = importlib.import_module("tidewright._transport_security")
    with pytest.raises(ValueError) as refusal:
        security.validate_bearer_transport_url("http://data.example.com/data/files")
    with pytest.raises(sync.ManifestError) as caught:
        sync._manifest_file_url("http://data.example.com", "a")
    assert str(caught.value) == str(refusal.value)

    # Looked up at call time: a replaced validator is obeyed.
    seen = []
    monkeypatch.setattr(security, "validate_bearer_transport_url", lambda url: seen.append(url) or url)
    assert sync._manifest_file_url("http://data.example.com", "a") == "http://data.example.com/data/files/a"
    assert seen == ["http://data.example.com/data/files"]
