"""Values crossing the Python boundary: every binding's results convert to
Python types, and arguments that may be any object are accepted as such."""

import importlib
import inspect
import pickle
import re
import subprocess
import sys
import urllib.request

import pytest

import tidewright.sync as sync


def _bindings():
    """(name, signature text) of every native function, method and property of the module."""
    found = []

    def add(name, fn):
        for overload in getattr(fn, "__nb_signature__", ()):
            found.append((name, overload[0]))

    for name, value in vars(sync).items():
        add(name, value)
        if isinstance(value, type) and value.__module__ == sync.__name__:
            for attr, member in vars(value).items():
                if isinstance(member, property):
                    for accessor in (member.fget, member.fset):
                        add(f"{name}.{attr}", accessor)
                else:
                    add(f"{name}.{attr}", getattr(member, "__func__", member))
    return found


BINDINGS = _bindings()


def test_every_binding_names_only_python_types():
    # A value without a converter shows up as its C++ type in the signature,
    # and fails at run time ("Unable to convert function return value").
    unconverted = [(name, text) for name, text in BINDINGS if re.search(r"std::|tidewright::|basic_string", text)]
    assert unconverted == []
    assert len(BINDINGS) > 200


@pytest.fixture
def world(tmp_path):
    data_dir = tmp_path / "data"
    data_dir.mkdir()
    manifest = sync.Manifest({
        "era_number": 1, "version": 2, "market_id": 1, "shuffle_key_generation": "market-era-v1",
        "shuffle_key_source": "kms", "files": {
            "named_universes/top50/vocabulary.json": {"kind": "vocabulary", "size_bytes": 1, "sha256": "0" * 64},
            "features/top50/signal_is/f.arrow": {"kind": "feature", "size_bytes": 1, "sha256": "0" * 64}}})
    (data_dir / "blob").write_bytes(b"x")
    manager = sync.SyncManager(str(data_dir), "http://127.0.0.1:9", token="t")
    thread = sync.EraThread("http://127.0.0.1:9", lambda: "t", manager)
    return {"dir": str(data_dir), "manifest": manifest, "manager": manager, "thread": thread}


FOUND = "found_signals/p/x/signal_is/pnl.arrow"
URL = "https://data.example.org"

# Every binding whose result is text (or text in a list), called once.
TEXT_CALLS = {
    "_agent_signal_group_key": lambda w: sync._agent_signal_group_key(FOUND, "found_signals/"),
    "_coerce_shuffle_key_generation": lambda w: sync._coerce_shuffle_key_generation(" market-era-v1 "),
    "_coerce_shuffle_key_source": lambda w: sync._coerce_shuffle_key_source("kms"),
    "_detect_platform": lambda w: sync._detect_platform(),
    "_feature_artifact_family_prefix": lambda w: sync._feature_artifact_family_prefix("px000__ret__lag0__v1"),
    "_feature_epoch_for_expression_type": lambda w: sync._feature_epoch_for_expression_type("signal"),
    "_feature_named_universe_from_path": lambda w: sync._feature_named_universe_from_path(
        "features/top50/signal_is/f.arrow"),
    "_find_curl_binary": lambda w: sync._find_curl_binary(),
    "_found_pnl_section_for_path": lambda w: sync._found_pnl_section_for_path(FOUND),
    "_manifest_data_signals_index_path": lambda w: sync._manifest_data_signals_index_path({}),
    "_manifest_feature_relative_path": lambda w: sync._manifest_feature_relative_path(w["manifest"], feature_name="f"),
    "_manifest_file_url": lambda w: sync._manifest_file_url(URL, "a/b.arrow"),
    "_manifest_local_path": lambda w: sync._manifest_local_path(w["dir"], "a/b.arrow"),
    "_manifest_signals_index_path": lambda w: sync._manifest_signals_index_path(w["manifest"]),
    "_manifest_sync_metadata_path": lambda w: sync._manifest_sync_metadata_path(w["dir"]),
    "_market_era_current_url": lambda w: sync._market_era_current_url(URL, 2),
    "_prefetched_features_state_path": lambda w: sync._prefetched_features_state_path(w["dir"]),
    "_request_host": lambda w: sync._request_host(urllib.request.Request(URL + "/a")),
    "_retired_function_names_in_vocabulary": lambda w: sync._retired_function_names_in_vocabulary(
        {"functions": {"f12": {}}}),
    "_retired_unsupported_runtime_module_name_from_path": lambda w: (
        sync._retired_unsupported_runtime_module_name_from_path("modules/x.so")),
    "_rotation_manifest_default_market": lambda w: sync._rotation_manifest_default_market({}),
    "_rotation_manifest_default_named_universe": lambda w: sync._rotation_manifest_default_named_universe({}),
    "_safe_manifest_relative_path": lambda w: sync._safe_manifest_relative_path("a//b.arrow"),
    "_sha256": lambda w: sync._sha256(b"x"),
    "_sha256_file": lambda w: sync._sha256_file(w["dir"] + "/blob"),
    "_shuffle_seed_generation_for_manifest": lambda w: sync._shuffle_seed_generation_for_manifest(w["manifest"]),
    "_shuffle_seed_meta_path": lambda w: sync._shuffle_seed_meta_path(w["dir"] + "/shuffle_seed.enc"),
    "_shuffle_seed_source_for_manifest": lambda w: sync._shuffle_seed_source_for_manifest(w["manifest"]),
    "_sync_event_file_from_url": lambda w: sync._sync_event_file_from_url(URL + "/data/files/a.arrow"),
    "_sync_event_level_name": lambda w: sync._sync_event_level_name({"event_type": "retry"}),
    "_sync_event_stable_coalesce_value": lambda w: sync._sync_event_stable_coalesce_value([1, "a"]),
    "_sync_http_transport": lambda w: sync._sync_http_transport(" CURL "),
    "_sync_parallel_timeout_description": lambda w: sync._sync_parallel_timeout_description(None),
    "_sync_progress_path": lambda w: sync._sync_progress_path(w["dir"]),
    "_validate_named_universe": lambda w: sync._validate_named_universe("top50"),
    "_vocabulary_manifest_paths": lambda w: sync._vocabulary_manifest_paths(w["manifest"]),
    "_vocabulary_named_universe_from_path": lambda w: sync._vocabulary_named_universe_from_path(
        "named_universes/top50/vocabulary.json"),
    "feature_rotation_state_path": lambda w: sync.feature_rotation_state_path(w["dir"]),
    "write_feature_rotation_state": lambda w: sync.write_feature_rotation_state(w["dir"], {
        "version": 1, "era_number": 1, "feature_budget_bytes": 1, "rotation_seed": 1,
        "active_relative_paths": [], "mandatory_relative_paths": [], "skipped_relative_paths": []}),
    "EraThread._server_url": lambda w: w["thread"]._server_url,
    "Manifest.__repr__": lambda w: repr(w["manifest"]),
    "Manifest.__str__": lambda w: str(w["manifest"]),
    "SyncManager.status": lambda w: w["manager"].status(),
    "SyncManager._status_message": lambda w: w["manager"]._status_message,
    "SyncManager._data_dir": lambda w: w["manager"]._data_dir,
    "SyncManager._server_url": lambda w: w["manager"]._server_url,
    "SyncManager._sync_http_transport": lambda w: w["manager"]._sync_http_transport,
    "SyncManager._consumer_count_path": lambda w: w["manager"]._consumer_count_path,
    "SyncManager._flock_path": lambda w: w["manager"]._flock_path,
    "SyncManager._hash_cache_path": lambda w: w["manager"]._hash_cache_path,
    "SyncManager._get_found_file_paths": lambda w: w["manager"]._get_found_file_paths(),
}
# Text results that need a running manager; called by the lifecycle tests.
TEXT_CALLED_ELSEWHERE = {"SyncManager.request_for_sync", "_error_code"}  # _error_code: test_errors.py


def test_the_text_call_table_covers_every_text_result():
    text_results = {name for name, text in BINDINGS
                    if re.search(r"-> (str|str \| None|list\[str\])$", text)}
    assert text_results - TEXT_CALLED_ELSEWHERE <= set(TEXT_CALLS)


@pytest.mark.parametrize("name", sorted(TEXT_CALLS))
def test_text_results_convert(world, name):
    result = TEXT_CALLS[name](world)
    items = result if isinstance(result, list) else [result]
    assert all(item is None or type(item) is str for item in items)


# Arguments that may be any object, None included: each answers as the
# function's contract says rather than with the binding's argument TypeError.
NONE_CALLS = [
    ("manager URL", lambda w: sync.SyncManager(w["dir"], None, token="t"), ValueError, "empty"),
    ("registry URL", lambda w: sync.SyncManager.get_or_create(w["dir"], None, lambda: "t"), ValueError, "empty"),
    ("era thread URL", lambda w: sync.EraThread(None, lambda: "t", w["manager"]), ValueError, "empty"),
    ("signals index", lambda w: sync._apply_manifest_signals_index(w["manifest"], None),
     sync.ManifestError, "^signals_index.json must contain a JSON object$"),
    ("corruption report", lambda w: w["manager"].report_corruption(None),
     sync.StateError, "^Sync thread is not running"),
    ("parallel timeout", lambda w: sync._sync_parallel_timeout_seconds(None, None), None, None),
    ("hash hint", lambda w: sync._manifest_hash_hint_matches_local_state(None, None, None, None), False, None),
    ("knob", lambda w: sync._sync_max_concurrency(None), 8, None),
    ("status", lambda w: sync._should_retry_http_status(None), False, None),
    ("error body", lambda w: sync._parse_sync_error_body(None), {}, None),
    ("endpoint", lambda w: sync._sync_endpoint_from_url(None), "<unknown>", None),
    ("era answer", lambda w: sync._normalize_era_current_response(None), {}, None),
    ("transition error", lambda w: (w["thread"]._mark_transition_failed("closing", None),
                                    w["thread"]._last_transition_error)[1], "closing: None", None),
]


@pytest.mark.parametrize("call, expected, message", [c[1:] for c in NONE_CALLS], ids=[c[0] for c in NONE_CALLS])
def test_none_is_an_ordinary_argument(world, call, expected, message):
    if isinstance(expected, type) and issubclass(expected, Exception):
        with pytest.raises(expected, match=message):
            call(world)
    else:
        assert call(world) == expected


def test_optional_attributes_take_none(world):
    m = world["manager"]
    m.runtime_freshness_guard = object()
    m.runtime_freshness_guard = None
    assert m.runtime_freshness_guard is None


# -- the Python parts of the module --------------------------------------------------

PARTS = ["tidewright._sync_errors", "tidewright._sync_era_views", "tidewright._sync_transition",
         "tidewright._sync_tuning"]


@pytest.mark.parametrize("part", PARTS)
def test_python_parts_are_the_module_own(part):
    # Classes and helpers written in Python are tidewright.sync's: found there,
    # named after it (stubs, reprs, tracebacks) and pickled as its own.
    defined = {name: value for name, value in vars(importlib.import_module(part)).items()
               if inspect.isclass(value) or inspect.isfunction(value)}
    assert defined
    for name, value in defined.items():
        assert getattr(sync, name) is value and value.__module__ == sync.__name__, name
        assert pickle.loads(pickle.dumps(value)) is value, name
        methods = [m for m in vars(value).values() if inspect.isfunction(m)] if inspect.isclass(value) else []
        assert all(m.__module__ == sync.__name__ for m in methods), name


# -- the GIL -------------------------------------------------------------------------


# The token callable blocks the engine's request until the main thread, which
# polls for it, lets it go: that needs sync() to run without the GIL and the
# engine to take it for the call. Were the GIL held, the process would hang,
# so the scenario runs in a child that is killed after a generous bound.
_GIL_CHILD = """
import sys, threading, time
import tidewright.sync as sync

url, token, data_dir = sys.argv[1:]
asked, released, results, progress = [], threading.Event(), [], []

def get_token():
    asked.append(True)
    released.wait()
    return token

manager = sync.SyncManager(data_dir, url, get_token=get_token)
manager.set_progress_callback(lambda report: progress.append(report["phase"]))
worker = threading.Thread(target=lambda: results.append(manager.sync()))
worker.start()
while not asked:
    time.sleep(0.01)
released.set()
worker.join()
print(type(results[0]) is sync.SyncResult, results[0].bytes_downloaded, len(progress))
"""


def test_a_running_sync_lets_python_threads_and_callbacks_run(dataservice, tmp_path):
    argv = [sys.executable, "-c", _GIL_CHILD, dataservice.url, dataservice.token, str(tmp_path)]
    try:
        done = subprocess.run(argv, capture_output=True, text=True, timeout=300)
    except subprocess.TimeoutExpired:
        pytest.fail("sync() never let the main thread or the token callable run: the GIL is held")
    assert done.returncode == 0, done.stderr[-2000:]
    is_result, downloaded, reports = done.stdout.split()
    assert is_result == "True" and int(downloaded) > 0
    assert int(reports) > 0  # the progress callback too gets the GIL from the engine
