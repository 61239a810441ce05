"""Era artifacts read from a data directory or a response: vocabularies, the
functions file, the signals index, found PnL membership and the shuffle seed."""

import hashlib
import json
import os

import pytest

import tidewright.sync as sync

ERA = 3
VOCAB = "named_universes/top50/vocabulary.json"
FOUND = "found_signals/pool/s1/signal_is/pnl.arrow"
STRATEGY = "found_strategies/pool/t1/strategy_is/pnl.arrow"


def sha(data):
    return hashlib.sha256(data).hexdigest()


def vocabulary(universe="top50", **changes):
    value = {"era_number": ERA, "named_universe": universe, "features": [],
             "metadata": {"named_universe": universe, "built": "x"}, "functions": [{"name": "add"}]}
    value.update(changes)
    return {k: v for k, v in value.items() if v is not None}


def write(data_dir, path, data):
    target = os.path.join(data_dir, *path.split("/"))
    os.makedirs(os.path.dirname(target), exist_ok=True)
    with open(target, "wb") as handle:
        handle.write(data)
    return {"size_bytes": len(data), "sha256": sha(data)}


# -- vocabularies -------------------------------------------------------------------

@pytest.mark.parametrize("value, error, message", [
    ([], sync.SyncError, "^vocabulary.json must contain a JSON object$"),
    (vocabulary(metadata=None, features=None, era_number=None), sync.SyncError,
     r"^vocabulary.json missing required keys: \['era_number', 'features', 'metadata'\]$"),
    (vocabulary(era_number=4), sync.EraError, "^vocabulary.json era_number=4 does not match manifest era_number=3$"),
    (vocabulary(metadata=[]), sync.SyncError, "^vocabulary.json metadata must be an object$"),
    (vocabulary(named_universe="a/b"), sync.SyncError, "single safe path segment: 'a/b'$"),
    (vocabulary(universe="top100"), sync.SyncError, "^vocabulary.json named_universe does not match manifest path"),
    (vocabulary(metadata={"named_universe": "x"}), sync.SyncError, "^vocabulary.json metadata.named_universe does not"),
    (vocabulary(rotations={"r": [{"name": f"f{i}"} for i in range(7)]}), sync.SyncError,
     r"^vocabulary.json contains retired function token ids f0, f1, f2, f3, f4 \(\+2 more\); regenerate"),
], ids=["not-object", "missing-keys", "era", "metadata", "unsafe-name", "universe", "metadata-universe", "retired"])
def test_a_vocabulary_that_breaks_a_rule_is_refused(value, error, message):
    with pytest.raises(error, match=message):
        sync._validate_vocabulary_data(value, ERA, "top50")
    with pytest.raises(error, match=message):
        sync._validate_vocabulary_bytes(json.dumps(value).encode(), ERA, named_universe="top50")


def test_a_valid_vocabulary_is_returned_as_a_copy_from_any_byte_container(tmp_path):
    value = vocabulary(rotations={"f1x": {"name": "lag"}})  # keys that look retired are not entry names
    assert sync._validate_vocabulary_data(value, ERA, "top50") == value
    sync._validate_vocabulary_data(value, ERA)["metadata"]["built"] = "changed"
    assert value["metadata"]["built"] == "x"
    text = json.dumps(value)
    for data in (text.encode(), bytearray(text.encode()), memoryview(text.encode()), text):
        assert sync._validate_vocabulary_bytes(data, ERA) == value
    with pytest.raises(TypeError):
        sync._validate_vocabulary_bytes(12, ERA)
    with pytest.raises(sync.SyncError, match="^vocabulary.json is not valid JSON: "):
        sync._validate_vocabulary_bytes(b"\xff{", ERA)
    with pytest.raises(sync.SyncError, match="^vocabulary.json is missing$"):
        sync._validate_vocabulary_file(tmp_path / "absent.json", ERA)
    write(str(tmp_path), "v.json", text.encode())
    assert sync._validate_vocabulary_file(tmp_path / "v.json", ERA, "top50") == value
    with pytest.raises(ValueError, match="invalid era number"):
        sync._validate_vocabulary_data(value, "three")


def test_universe_names_and_retired_entry_names():
    assert sync._validate_named_universe("  top50 ") == "top50"
    for bad in ("a/b", "..", ".", "", "  ", "a\\b", "a\0b"):
        with pytest.raises(sync.SyncError):
            sync._validate_named_universe(bad)
    nested = {"name": "outer", "inner": [{"name": "f12"}, ({"name": "f3"},), {"f9": {"name": "g"}, "name": 5}]}
    assert list(sync._iter_vocabulary_entry_names(nested)) == ["outer", "f12", "f3", "g"]
    # Only the function sections are searched, and each name is reported once, sorted.
    assert sync._retired_function_names_in_vocabulary(
        {"features": [{"name": "f1"}], "functions": [{"name": "f12"}, {"name": "f3"}], "reductions": {"f3": {}}}
    ) == ["f12", "f3"]
    assert sync._retired_function_names_in_vocabulary([{"name": "f1"}]) == []
    sync._validate_no_retired_function_tokens({"functions": [{"name": "fx1"}]})


def test_the_retired_token_rule_is_the_sibling_modules_at_call_time(monkeypatch):
    import tidewright._function_token_safety as tokens

    monkeypatch.setattr(tokens, "is_retired_public_function_token_name", lambda name: name.startswith("old_"))
    assert sync._retired_function_names_in_vocabulary({"functions": [{"name": "old_add"}, {"name": "f1"}]}) == [
        "old_add"]

    def broken(name):
        raise KeyError(name)

    monkeypatch.setattr(tokens, "is_retired_public_function_token_name", broken)
    with pytest.raises(KeyError, match="add"):  # the rule's own error reaches the caller unchanged
        sync._validate_vocabulary_data(vocabulary(), ERA)


def era_files(data_dir, functions_era=ERA, universes=("top50", "top100")):
    """Writes functions.json and one vocabulary per universe; returns the manifest data."""
    functions = json.dumps({"era_number": functions_era, "functions": [{"name": "mul"}]}).encode()
    files = {"functions.json": {"kind": "functions", **write(data_dir, "functions.json", functions)}}
    for universe in universes:
        path = f"named_universes/{universe}/vocabulary.json"
        files[path] = {"kind": "vocabulary", **write(data_dir, path, json.dumps(vocabulary(universe)).encode())}
    return {"era_number": ERA, "functions": "functions.json", "files": files}


def test_the_vocabularies_of_a_manifest_are_merged_with_its_functions_file(tmp_path):
    data = era_files(str(tmp_path))
    manifest = sync.Manifest(data)
    assert sync._vocabulary_manifest_paths(manifest) == [
        "named_universes/top100/vocabulary.json", "named_universes/top50/vocabulary.json"]
    merged = sync._validate_manifest_vocabulary_files(str(tmp_path), manifest)
    assert sorted(merged) == ["top100", "top50"]
    assert [f["name"] for f in merged["top50"]["functions"]] == ["add", "mul"]
    assert sync._first_vocabulary_metadata(merged)["named_universe"] in ("top50", "top100")
    assert sync._first_vocabulary_metadata({}) == {}
    del data["files"][VOCAB], data["files"]["named_universes/top100/vocabulary.json"]
    with pytest.raises(sync.SyncError, match="^manifest is missing per-universe vocabulary.json entries$"):
        sync._validate_manifest_vocabulary_files(str(tmp_path), sync.Manifest(data))


A, B = {"name": "a", "v": 1}, {"name": "b"}


@pytest.mark.parametrize("functions, own, universe, era", [
    ({"functions": [{"name": "a", "v": 2}, B, {"name": "b", "v": 3}, {"k": 1}, "s"]}, [A, {"x": 1}, 7], "u", 3),
    ({"functions": {"b": {"k": 1}, "a": {}, "c": {"name": "other"}, "d": 5}}, [A], "u", 3),
    ({"functions": {"b": {"k": 1}, "a": {}}, "era_number": 3.0}, {"a": {}, "z": []}, "u", 3),
    ({"functions": [B, {"k": 1}, A], "era_number": True}, {"z": {}}, None, 1),
    ({"functions": [B, {"k": 1}]}, None, "u", 3),
    ({"functions": {"b": {}}}, "absent", "u", 3),
    (None, [A], "u", 3), ({"era_number": 3}, [A], "u", 3), ({"functions": None}, "absent", None, None),
    ({"functions": [B], "era_number": 2}, [A], "u", 3), ({"functions": [B], "era_number": "3"}, [A], "u", 3),
    ({"functions": [B], "era_number": [3]}, [A], None, 3), ({"functions": [B]}, [A], "other", 3),
    ({"functions": "s"}, [A], "u", 3), ({"functions": 1.5}, [A], "u", 3), ({"functions": [B]}, 5, "u", 3),
    ({"functions": [B]}, True, "u", 3), ([B], [A], "u", 3),
])
def test_the_engine_merges_a_functions_file_as_the_sibling_modules_default_does(functions, own, universe, era):
    from tidewright._functions_vocabulary import merge_functions_vocabulary

    vocabularies = [{"named_universe": "u", "metadata": {}, "functions": own}, {"named_universe": None}, [A],
                    {"named_universe": 5}]
    if own == "absent":
        del vocabularies[0]["functions"]
    for value in vocabularies:
        outcomes = []
        for merge in (merge_functions_vocabulary, sync._native_merge_functions_vocabulary):
            try:
                outcomes.append(json.dumps(merge(functions=functions, vocabulary=value, named_universe=universe,
                                                 expected_era_number=era)))
            except ValueError as e:
                outcomes.append(repr(e))
        assert outcomes[0] == outcomes[1]


def test_the_merge_is_the_sibling_modules_unless_the_marked_default(tmp_path, monkeypatch):
    import tidewright._functions_vocabulary as module

    manifest = sync.Manifest(era_files(str(tmp_path)))
    own, calls = module.merge_functions_vocabulary, []

    def replaced(**kwargs):
        calls.append(kwargs["named_universe"])
        return {"replaced": own(**kwargs)["functions"]}

    monkeypatch.setattr(module, "merge_functions_vocabulary", replaced)
    assert sync._validate_manifest_vocabulary_files(str(tmp_path), manifest)["top50"] == {
        "replaced": [{"name": "add"}, {"name": "mul"}]}
    assert sorted(calls) == ["top100", "top50"]
    replaced.__tidewright_native__ = "merge_functions_vocabulary"
    assert sync._validate_manifest_vocabulary_files(str(tmp_path), manifest)["top50"]["functions"] == [
        {"name": "add"}, {"name": "mul"}]
    assert len(calls) == 2


def functions_change(key, value=None):
    def change(data):
        if key == "functions":
            data[key] = value
        elif value is None:
            del data["files"]["functions.json"][key]
        else:
            data["files"]["functions.json"][key] = value
    return change


@pytest.mark.parametrize("change, error, message", [
    (functions_change("functions", "other.json"), sync.SyncError, "^manifest is missing functions.json pointer$"),
    (functions_change("kind", "feature"), sync.SyncError, r"^manifest files\[\"functions.json\"\].kind must be"),
    (functions_change("size_bytes", 1), sync.IntegrityError, "^functions.json size_bytes mismatch$"),
    (functions_change("sha256"), sync.SyncError, r"\.sha256 is required$"),
    (functions_change("sha256", "0" * 64), sync.IntegrityError, "^functions.json sha256 mismatch$"),
    (lambda data: data["files"].pop("functions.json"), sync.SyncError, r"^manifest files\[\"functions.json\"\] must"),
    (lambda data: None, sync.EraError, "^functions.json era_number=2 does not match manifest era_number=3$"),
], ids=["pointer", "kind", "size", "no-sha", "sha", "no-entry", "era"])
def test_a_functions_file_that_does_not_match_its_manifest_is_refused(tmp_path, change, error, message):
    data = era_files(str(tmp_path), functions_era=2)
    data["files"]["functions.json"]["sha256"] = data["files"]["functions.json"]["sha256"].upper() + " "
    change(data)
    with pytest.raises(error, match=message):
        sync._validate_functions_file(str(tmp_path), sync.Manifest(data))


def test_a_missing_or_unparsable_functions_file_is_refused(tmp_path):
    data = era_files(str(tmp_path))
    assert sync._validate_functions_file(str(tmp_path), sync.Manifest(data))["functions"] == [{"name": "mul"}]
    data["files"]["functions.json"].update(write(str(tmp_path), "functions.json", b"[1]"))
    with pytest.raises(sync.SyncError, match="^functions.json must contain a JSON object$"):
        sync._validate_functions_file(str(tmp_path), sync.Manifest(data))
    os.remove(tmp_path / "functions.json")
    with pytest.raises(sync.SyncError, match="^functions.json is missing: "):
        sync._validate_functions_file(str(tmp_path), sync.Manifest(data))


# -- the signals index ------------------------------------------------------------------

def index_manifest(index, era=ERA, **entry):
    body = json.dumps(index, sort_keys=True).encode()
    path = f"_control/signals_index.{sha(body)}.json"
    files = {path: {"kind": "signals_index", "sha256": sha(body), "size_bytes": len(body), **entry},
             FOUND: {"kind": "found_signal_is_pnl"}, STRATEGY: {"kind": "found_strategy_is_epoch_pnl"}}
    return {"era_number": era, "signals_index": path, "files": files}, path, body


INDEX = {"era_number": ERA, "found_signals": {"s1": {"files": [FOUND, "other/a.arrow"]}},
         "found_strategies": {"t1": {"files": [STRATEGY]}}}


# A Manifest leaves out a files entry with an empty sha256 or a size that is
# not a count, so the pointer then names no entry.
DROPPED = "must be present in files"


@pytest.mark.parametrize("change, message", [
    (lambda d, p: d.update(signals_index="signals_index.json"), "legacy signals_index.json sidecar is not supported"),
    (lambda d, p: d.update(signals_index=p.upper()), "must reference _control/signals_index.<sha256>.json"),
    (lambda d, p: d["files"].pop(p), "must be present in files"),
    (lambda d, p: d["files"][p].update(relative_path="_control/x.json"), "relative_path mismatch"),
    (lambda d, p: d["files"][p].update(kind="feature"), "file kind must be signals_index"),
    (lambda d, p: d["files"][p].update(sha256=""), "file sha256 is required"),
    (lambda d, p: d["files"][p].update(sha256="0" * 64), "path digest must match sha256"),
    (lambda d, p: d["files"][p].pop("size_bytes"), "file size_bytes is required"),
    (lambda d, p: d["files"][p].update(size_bytes=-1), "file size_bytes must be non-negative"),
])
def test_a_signals_index_pointer_that_breaks_a_rule_is_refused(change, message):
    data, path, _ = index_manifest(INDEX)
    data["files"][path]["sha256"] = " " + data["files"][path]["sha256"].upper()
    assert sync._manifest_signals_index_path(sync.Manifest(data)) == path
    assert sync._manifest_data_signals_index_path(data) == path
    change(data, path)
    with pytest.raises(sync.ManifestError, match=message):
        sync._manifest_data_signals_index_path(data)
    with pytest.raises(sync.ManifestError, match=f"{message}|{DROPPED}" if "sha256 is" in message or "size" in message
                       else message):
        sync._manifest_signals_index_path(sync.Manifest(data))


def test_an_index_fills_the_membership_of_a_manifest_only_when_it_is_valid(tmp_path):
    data, path, body = index_manifest(INDEX)
    manifest = sync.Manifest(data)
    for bad, error, message in [(b"\xff", sync.ManifestError, "^Invalid signals_index.json UTF-8: "),
                                (b"{", sync.ManifestError, "^Invalid signals_index.json JSON: "),
                                (b'{"era_number": "x"}', sync.EraError, "invalid era_number='x'"),
                                (b'{"era_number": 4}', sync.EraError, "era_number=4 does not match"),
                                (b'{"useful_signals": []}', sync.ManifestError, "useful_signals must be a JSON")]:
        with pytest.raises(error, match=message):
            sync._validate_signals_index_bytes(bad, manifest)
    assert manifest.found_signals == {}  # a refused index leaves the manifest as it was
    assert sync._validate_signals_index_bytes(body, manifest)["found_strategies"] == INDEX["found_strategies"]
    assert (manifest.found_signals, manifest.useful_signals) == (INDEX["found_signals"], {})

    fallback, local = tmp_path / "previous", tmp_path / "data"
    loaded = sync.Manifest(data)
    with pytest.raises(sync.SyncError, match="^signals_index.json missing from local sync: "):
        sync._load_manifest_signals_index(str(local), loaded, str(fallback))
    write(str(fallback), path, body)
    assert sync._load_manifest_signals_index(str(local), loaded, fallback_data_dir=str(fallback))
    assert loaded.found_strategies == INDEX["found_strategies"]
    assert not sync._load_manifest_signals_index(str(local), sync.Manifest({"era_number": ERA}))


# -- found PnL membership ------------------------------------------------------------------

@pytest.mark.parametrize("path, section", [
    (FOUND, "found_signals"), ("found_signals/a/strategy_is/pnl.arrow", None), (STRATEGY, "found_strategies"),
    ("useful_signals/x/strategy_is/pnl.arrow", "useful_signals"), ("useful_signals/x/signal_os/pnl.arrow",
                                                                   "useful_signals"), ("features/a.arrow", None),
])
def test_found_pnl_files_are_classified_by_path_and_kind(path, section):
    assert sync._found_pnl_section_for_path(path) == section
    kinds = {None: [], "found_signals": ["found_signal_is_pnl"], "found_strategies": ["found_strategy_is_epoch_pnl"],
             "useful_signals": ["useful_signal_os_pnl", "useful_signal_strategy_is_pnl"]}[section]
    for kind in ("found_signal_is_pnl", "found_strategy_is_epoch_pnl", "useful_signal_os_pnl", "feature"):
        assert sync._is_manifest_found_pnl_file(path, {"kind": kind}) == (kind in kinds)
    assert sync._normalize_found_pnl_paths([path, "../" + path]) == ({path} if section else set())


def test_missing_found_pnl_files_leave_manifest_membership_and_index_together(tmp_path):
    data, old_path, body = index_manifest(INDEX)
    data.update(INDEX)
    assert sync._membership_referenced_files(INDEX["found_signals"]) == {FOUND, "other/a.arrow"}
    sync._validate_membership_referenced_found_pnl_kinds(data)
    dropped = sync._drop_missing_found_pnl_paths(data, [FOUND, "/etc/passwd"])
    assert FOUND not in dropped["files"] and dropped["found_signals"]["s1"]["files"] == ["other/a.arrow"]
    assert FOUND in data["files"]  # the caller's data is not changed

    assert sync._scrub_missing_found_pnl_paths_from_signals_index(str(tmp_path), data, [FOUND]) is None  # no file
    write(str(tmp_path), old_path, body)
    update = sync._scrub_missing_found_pnl_paths_from_signals_index(str(tmp_path), data, [FOUND])
    new_path = update["new_relative_path"]
    assert (update["old_relative_path"], data["signals_index"]) == (old_path, new_path)
    assert old_path not in data["files"] and data["files"][new_path]["kind"] == "signals_index"
    with open(update["local_path"], "rb") as handle:
        rewritten = handle.read()
    assert sha(rewritten) == update["sha256"] == data["files"][new_path]["sha256"] and update["sha256"] in new_path
    assert json.loads(rewritten)["found_signals"]["s1"]["files"] == ["other/a.arrow"]
    assert sync._manifest_data_signals_index_path(data) == new_path

    data["files"][STRATEGY]["kind"] = "feature"
    with pytest.raises(sync.ManifestError, match=f"found PnL file {STRATEGY} in found_strategies has missing"):
        sync._validate_membership_referenced_found_pnl_kinds(data)


# -- the shuffle seed ---------------------------------------------------------------------

def test_artifact_responses_carry_their_era_in_a_header_of_any_case():
    assert sync._header_value({"x-era-number": "3"}, "X-Era-Number") == "3"
    assert sync._header_value([("X-ERA-NUMBER", "3")], "x-era-number") == "3"
    assert sync._header_value({}, "X-Era-Number") is None
    sync._validate_response_era_header({"x-era-NUMBER": "3"}, ERA, "shuffle_seed.enc")
    for headers, error, message in [({}, sync.SyncError, "^shuffle_seed.enc response is missing X-Era-Number$"),
                                    ({"X-Era-Number": "x"}, sync.EraError, "invalid X-Era-Number=x$"),
                                    ({"X-Era-Number": "4"}, sync.EraError, "era_number=4 does not match")]:
        with pytest.raises(error, match=message):
            sync._validate_response_era_header(headers, ERA, "shuffle_seed.enc")


SEED_META = {"market_id": 2, "manifest_version": 5, "shuffle_key_generation": "market-era-v1",
             "shuffle_key_source": "kms"}
EXPECT = {"expected_market_id": 2, "expected_manifest_version": 5, "expected_shuffle_key_generation": "market-era-v1"}


@pytest.mark.parametrize("meta, message", [
    (None, "era metadata is missing$"),
    ("[]", "era metadata is invalid$"),
    ({"era_number": "x"}, "invalid era_number"),
    ({"era_number": 4}, "era_number=4 does not match manifest era_number=3$"),
    ({"market_id": 0}, "market metadata is missing or invalid$"),
    ({"market_id": 7}, "market_id=7 does not match manifest market_id=2$"),
    ({"manifest_version": None}, "manifest_version metadata is missing or invalid$"),
    ({"manifest_version": 4}, "manifest_version=4 does not match manifest version=5$"),
    ({"shuffle_key_generation": "legacy-era-only-v1"}, "shuffle_key_generation is invalid$"),
])
def test_a_seed_whose_metadata_does_not_match_the_manifest_is_refused(tmp_path, meta, message):
    seed = str(tmp_path / "shuffle_seed.enc")
    write(str(tmp_path), "shuffle_seed.enc", bytes(60))
    sync._write_shuffle_seed_metadata(seed, ERA, **SEED_META)
    sync._validate_shuffle_seed_file(seed, ERA, **EXPECT)
    with open(sync._shuffle_seed_meta_path(seed), encoding="utf-8") as handle:
        recorded = json.load(handle)
    if meta is None:
        os.remove(sync._shuffle_seed_meta_path(seed))
    else:
        write(str(tmp_path), "shuffle_seed.enc.meta.json",
              (meta if isinstance(meta, str) else json.dumps({**recorded, **meta})).encode())
    with pytest.raises((sync.SyncError, sync.EraError), match=message):
        sync._validate_shuffle_seed_file(seed, ERA, **EXPECT)


def test_seed_size_and_key_values(tmp_path):
    seed = str(tmp_path / "shuffle_seed.enc")
    with pytest.raises(sync.SyncError, match="^shuffle_seed.enc is missing$"):
        sync._validate_shuffle_seed_file(seed)
    for size in (59, 61):
        write(str(tmp_path), "shuffle_seed.enc", bytes(size))
        with pytest.raises(sync.SyncError, match=f"expected 60 bytes, got {size}$"):
            sync._validate_shuffle_seed_file(seed, ERA)
        with pytest.raises(sync.SyncError, match=f"got {size}$"):
            sync._validate_shuffle_seed_bytes(bytearray(size))
    with pytest.raises(sync.SyncError, match="^retired shuffle_key_generation 'legacy-era-only-v1' is not supported"):
        sync._coerce_shuffle_key_generation(" legacy-era-only-v1")
    with pytest.raises(sync.SyncError, match="^unknown shuffle_key_generation 'v2'$"):
        sync._write_shuffle_seed_metadata(seed, ERA, shuffle_key_generation="v2")
    with pytest.raises(sync.SyncError, match="^shuffle_key_source must be a single-line string$"):
        sync._coerce_shuffle_key_source("a\nb")
    manifest = sync.Manifest({"era_number": ERA, "market_id": 2, "version": 5, "shuffle_key_source": " kms "})
    assert (sync._shuffle_seed_market_id_for_manifest(manifest), sync._shuffle_seed_manifest_version(manifest),
            sync._shuffle_seed_source_for_manifest(manifest)) == (2, 5, "kms")
    assert sync._manifest_positive_int(sync.Manifest({"era_number": ERA, "market_id": -2}), "market_id") is None


# -- the manager's downloads of artifacts ---------------------------------------------------

def test_the_manager_fetches_artifacts_once_and_again_only_when_the_local_copy_is_bad(dataservice, tmp_path, caplog):
    svc, target = dataservice, tmp_path / "next"
    target.mkdir()
    m = sync.SyncManager(str(tmp_path), svc.url, token=svc.token)
    server = sync.Manifest(svc.manifest())
    result = sync.SyncResult()
    fetch = {"vocabulary": lambda: m._download_vocabulary(server, str(target)),
             "index": lambda: m._download_signals_index(server, str(target), result),
             "seed": lambda: m._download_shuffle_seed(server, target_data_dir=str(target))}
    assert {name: call() for name, call in fetch.items()} == dict.fromkeys(fetch, True)
    index_path = server.signals_index
    for path in [VOCAB, index_path]:
        with open(os.path.join(target, *path.split("/")), "rb") as handle:
            assert handle.read() == svc.file_bytes(None, path), path
    assert result.bytes_downloaded == server.files[index_path]["size_bytes"]
    assert server.found_signals == json.loads(svc.file_bytes(None, index_path))["found_signals"]
    sync._validate_shuffle_seed_file(str(target / "shuffle_seed.enc"), 1, expected_market_id=1,
                                     expected_manifest_version=1, expected_shuffle_key_generation="market-era-v1")
    served = len(svc.requests)
    assert {name: call() for name, call in fetch.items()} == dict.fromkeys(fetch, False)
    assert len(svc.requests) == served

    write(str(target), VOCAB, b"{}")
    seed_meta = str(target / "shuffle_seed.enc.meta.json")
    with open(seed_meta, encoding="utf-8") as handle:
        write(str(target), "shuffle_seed.enc.meta.json",
              json.dumps({**json.load(handle), "shuffle_key_generation": "legacy-era-only-v1"}).encode())
    assert (fetch["vocabulary"](), fetch["seed"]()) == (True, True)
    assert "Local vocabulary" in caplog.text and "Local shuffle seed failed validation" in caplog.text
    sync._validate_vocabulary_file(target / VOCAB, 1, "top50")

    without = sync.Manifest({**svc.manifest(), "files": {}})
    with pytest.raises(sync.SyncError, match="^manifest is missing per-universe vocabulary.json entries$"):
        m._download_vocabulary(without, str(target))
    assert not m._download_signals_index(sync.Manifest({"era_number": 1}))


def test_single_and_parallel_downloads_check_each_file_against_its_entry(dataservice, tmp_path):
    svc = dataservice
    m = sync.SyncManager(str(tmp_path), svc.url, token=svc.token)
    path = "features/top50/signal_is/px000__ret__lag0__v1.arrow"
    info = svc.manifest()["files"][path]
    local = str(tmp_path / path)
    with pytest.raises(sync.IntegrityError):
        m._download_file(path, {**info, "sha256": "0" * 64}, sync.SyncResult(), retry_checksum_mismatch=False)
    assert not os.path.exists(local) and not m._local_file_matches_manifest(path, local, info)
    result = sync.SyncResult()
    m._download_file(path, info, result)  # completes from the staging file the refused attempt kept
    assert (tmp_path / path).read_bytes() == svc.file_bytes(None, path) and result.features_downloaded == 1
    assert m._local_file_matches_manifest(path, local, info, cache_allowed=False)
    status, headers, body = m._http_get(f"{svc.url}/data/files/{path}", 0, 9)
    assert (status, body) == (206, svc.file_bytes(None, path)[:10])
    assert m._http_get_public(f"{svc.url}/data/files/{path}")[0] == 401  # sent without the token
    others = {p: i for p, i in svc.manifest()["files"].items() if p.startswith("features/top200/")}
    m._download_files_parallel(others, result)
    assert result.bytes_downloaded == sum(i["size_bytes"] for i in others.values())
    assert result.features_downloaded == 1 + len(others)
    assert all((tmp_path / p).read_bytes() == svc.file_bytes(None, p) for p in others)
