"""The default sibling modules: the behaviour the sync engine and hosts rely on."""

import threading

import pytest

from tidewright import (
    _artifact_rotation as rotation,
    _function_token_safety,
    _functions_vocabulary,
    _rotation_settings,
    _sync_progress,
    deployment,
    runtime_module_freshness,
)
from tidewright._transport_security import validate_bearer_transport_url
from tidewright.sync_backoff import SyncBackoffPolicy, backoff_context, current_context


@pytest.mark.parametrize(
    "url",
    [
        "  https://data.example.org/api ",
        "http://127.0.0.1:8080",
        "http://127.4.5.6/x",
        "http://[::1]:9000/",
        "http://LOCALHOST:1",
    ],
)
def test_bearer_url_accepted_and_stripped(url):
    assert validate_bearer_transport_url(url) == url.strip()


@pytest.mark.parametrize(
    "url, words",
    [
        ("", "empty"),
        ("   ", "empty"),
        (None, "empty"),
        ("data.example.org/api", "scheme and host"),
        ("https://", "scheme and host"),
        ("http://data.example.org", "non-loopback"),
        ("http://128.0.0.1", "non-loopback"),
        ("http://localhost.example.org", "non-loopback"),
        ("ftp://127.0.0.1/x", "https or http"),
        ("http://127.0.0.1:notaport/", "malformed"),
    ],
)
def test_bearer_url_refused(url, words):
    with pytest.raises(ValueError, match=words):
        validate_bearer_transport_url(url)


@pytest.mark.real_backoff
def test_backoff_schedule_doubles_within_jitter_and_caps():
    for attempt, base in [(0, 0.5), (1, 1.0), (3, 4.0), (5, 16.0)]:
        delays = [SyncBackoffPolicy.delay_seconds(attempt) for _ in range(200)]
        assert all(base * 0.8 <= d <= base * 1.2 for d in delays)
        assert len(set(delays)) > 1  # jittered
    for attempt in (6, 7, 1000, 10**9):
        assert 24.0 <= SyncBackoffPolicy.delay_seconds(attempt) <= 30.0
    assert 0.4 <= SyncBackoffPolicy.delay_seconds(-3) <= 0.6


def test_backoff_sleep_slices_and_cancellation():
    slices = []
    assert SyncBackoffPolicy.sleep(0.35, sleep=slices.append, stop_requested=lambda: False) is True
    assert pytest.approx(sum(slices)) == 0.35
    assert max(slices) <= 0.1 and len(slices) == 4

    asked = []
    slices.clear()

    def stop_on_third_ask():
        asked.append(1)
        return len(asked) >= 3

    assert SyncBackoffPolicy.sleep(30.0, sleep=slices.append, stop_requested=stop_on_third_ask) is False
    assert len(slices) == 2

    # Without an explicit stop callable the thread's backoff context is asked.
    with backoff_context(stop_requested=lambda: True):
        assert SyncBackoffPolicy.sleep(5.0, sleep=slices.append) is False


def test_backoff_context_layers_and_restores_per_thread():
    assert dict(current_context()) == {}
    stop = lambda: False  # noqa: E731
    seen_elsewhere = []
    with backoff_context(surface="search", stop_requested=stop):
        with backoff_context(surface="http_request") as inner:
            assert dict(inner) == {"surface": "http_request", "stop_requested": stop}
            t = threading.Thread(target=lambda: seen_elsewhere.append(dict(current_context())))
            t.start()
            t.join()
        assert current_context()["surface"] == "search"
        with pytest.raises(RuntimeError):
            with backoff_context(surface="x"):
                raise RuntimeError
        assert current_context()["surface"] == "search"
    assert dict(current_context()) == {}
    assert seen_elsewhere == [{}]


@pytest.mark.parametrize(
    "a, b, expected",
    [("0.0.3", "0.0.3", 0), ("0.0.3", "0.0.10", -1), ("1.2", "1.2.0", 0), ("2.0", "1.99.99", 1), (" 1.0 ", "1", 0)],
)
def test_compare_versions(a, b, expected):
    assert deployment._compare_versions(a, b) == expected
    assert deployment._compare_versions(b, a) == -expected


@pytest.mark.parametrize("bad", ["", "1..2", "1.2a", "v1.0", "1.0-rc1", None, "١.٢"])
def test_compare_versions_refuses_malformed(bad):
    with pytest.raises(ValueError):
        deployment._compare_versions(bad, "1.0")


def test_deployment_defaults():
    assert deployment.auto_update()["success"] is False
    with deployment.runtime_freshness_guard() as guard:
        guard.record_sync_update(relative_path="functions.json", kind="functions", sha256="ab")
    assert guard.updates == [{"relative_path": "functions.json", "kind": "functions", "sha256": "ab"}]


def test_native_marked_defaults_agree_with_their_contract():
    kind = rotation.manifest_file_kind
    assert (kind("a", {"kind": "feature"}), kind("a", {}), kind("a", {"kind": None}), kind("a", None)) == (
        "feature", "", "", "")
    assert kind("a", {"kind": 3}) == "3"

    size = _sync_progress.manifest_file_size
    assert [size({"size_bytes": v}) for v in (0, 7, -1, True, 1.0, "7", 2**63)] == [0, 7, None, None, None, None, None]
    assert size(None) is None and size({}) is None

    assert runtime_module_freshness.is_runtime_module_kind("vault_module")
    assert not runtime_module_freshness.is_runtime_module_kind("backtester_module")

    retired = _function_token_safety.is_retired_public_function_token_name
    assert [retired(n) for n in ("f0", "f123", "f", "F1", "f1a", "f1\n", "xf1", "f١", 5)] == [
        True, True, False, False, False, False, False, False, False]


@pytest.mark.parametrize(
    "change, words",
    [
        ({"schema_version": True}, "schema_version"),  # (version 2 and a path list as text: test_rotation.py)
        ({"era_number": "4"}, "era_number"),
        ({"rotated_at": "yesterday"}, "rotated_at"),
        ({"feature_budget_bytes": -1}, "feature_budget_bytes"),
    ],
)
def test_rotation_state_from_bad_payload(change, words):
    payload = {"schema_version": 1, "era_number": 4, "active_relative_paths": []}
    payload.update(change)
    with pytest.raises(rotation.RotationStatePayloadError, match=words) as info:
        rotation.rotation_state_from_payload(payload, source="state.json", schema_version=1)
    assert "state.json" in str(info.value)
    assert isinstance(info.value, ValueError)


def test_rotation_state_payload_refuses_non_state():
    with pytest.raises(rotation.RotationStatePayloadError):
        rotation.rotation_state_payload(["not", "a", "state"], schema_version=1)
    with pytest.raises(rotation.RotationStatePayloadError):
        rotation.rotation_state_from_payload([], source="s", schema_version=1)


def test_rotation_settings_file(tmp_path):
    assert _rotation_settings.load_rotation_settings(tmp_path) is rotation.FULL_DOWNLOAD
    settings_file = tmp_path / "rotation-settings.json"
    settings_file.write_text('{"seed": 3, "named_universe": "top50", "feature_budget_gb": 1.5}')
    settings = _rotation_settings.load_rotation_settings(tmp_path, catalog_context={"named_universes": {"top50": {}}})
    assert (settings.seed, settings.named_universes, settings.feature_budget_gb) == (3, ("top50",), 1.5)
    # (settings that are not JSON or name another universe: test_rotation.py)


def test_artifact_descriptor_and_settings_read_as_mappings():
    row = {"kind": "feature", "size_bytes": 10, "sha256": "ab", "named_universe": " top50 "}
    desc = rotation.artifact_descriptor_from_manifest_file("features/top50/signal_is/x.arrow", row,
                                                          feature_kinds=rotation.FEATURE_ARTIFACT_KINDS)
    assert desc["artifact_kind"] == "feature" and desc["rotating"] and desc["named_universe"] == "top50"
    assert not rotation.artifact_descriptor_from_manifest_file("functions.json", {"kind": "functions"})["rotating"]

    settings = rotation.ArtifactRotationSettings(scope={"market": "crypto", "named_universes": ["a"]},
                                                 feature_budget_bytes=rotation.FULL_DOWNLOAD)
    assert settings.scope == rotation.SelectionScope(market="crypto", named_universes=("a",))
    assert dict(settings["scope"])["named_universes"] == ("a",)
    empty = rotation.plan_rotation((), settings)
    assert empty.active_relative_paths == () == empty.state.active_relative_paths


def test_merge_functions_vocabulary():
    vocabulary = {"era_number": 3, "named_universe": "u", "functions": [{"name": "ts_mean", "arity": 1}]}
    functions = {"era_number": 3, "functions": [{"name": "ts_mean", "arity": 2}, {"name": "rank"}]}
    merged = _functions_vocabulary.merge_functions_vocabulary(
        functions=functions, vocabulary=vocabulary, named_universe="u", expected_era_number=3)
    assert merged["functions"] == [{"name": "ts_mean", "arity": 1}, {"name": "rank"}]
    assert vocabulary["functions"] == [{"name": "ts_mean", "arity": 1}]  # caller's object untouched

    keyed = _functions_vocabulary.merge_functions_vocabulary(
        functions={"functions": {"rank": {"arity": 1}}}, vocabulary={"functions": {"zscore": {}}},
        named_universe=None, expected_era_number=None)
    assert keyed["functions"] == {"zscore": {}, "rank": {"arity": 1}}

    with pytest.raises(ValueError, match="era_number"):
        _functions_vocabulary.merge_functions_vocabulary(
            functions={"era_number": 2}, vocabulary=vocabulary, named_universe="u", expected_era_number=3)
