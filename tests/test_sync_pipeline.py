"""The sync pipeline against the reference data service: cold and no-op syncs
and a new manifest version, verify and repair, found files missing from storage and
what needs_sync sees."""

import hashlib
import json
import logging
import os

import pytest

import tidewright.sync as sync
from sync_helpers import (BIG, BIG_BYTES, FEATURE, FOUND_PNL, FOUND_PNL_KINDS, assert_in_step, body_bytes_served,
                          file_requests, local_bytes, manager, request_budget, requested_paths, tmp_files)


@pytest.mark.parametrize("concurrency, public_files", [(1, False), (4, True)])
def test_cold_sync_brings_every_file_and_a_second_sync_makes_one_request(dataservice_factory, tmp_path, concurrency,
                                                                         public_files):
    svc = dataservice_factory(public_files=public_files)
    data = tmp_path / "data"
    data.mkdir()
    m = manager(svc, data, sync_http_chunk_bytes=1024, sync_max_concurrency=concurrency)
    assert m.needs_sync()

    result = m.sync()

    assert_in_step(svc, data)
    files = svc.manifest()["files"]
    features = [p for p, e in files.items() if e["kind"] == "feature"]
    assert (result.era_number, result.features_downloaded, result.n_features) == (1, len(features), len(features))
    vocabularies = [p for p in files if p.startswith("named_universes/")]
    assert result.bytes_downloaded == sum(e["size_bytes"] for p, e in files.items() if p not in vocabularies)
    assert sorted(result.found_pnl_paths_downloaded) == sorted(
        p for p, e in files.items() if e["kind"] in FOUND_PNL_KINDS)
    assert (result.useful_signals_downloaded, result.n_useful_signals, result.n_found_strategies) == (1, 1, 1)
    assert (result.t_signal_is, result.t_strategy_is, result.n_instruments, result.pnl_column_count) == (
        1001, 501, 50, 4)
    assert result.vocabulary_downloaded and result.shuffle_seed_downloaded
    assert m.get_manifest().version == 1
    ranged = [r for r in file_requests(svc) if r.range]
    assert ranged and all(r.range.endswith(f"-{int(r.range[6:].split('-')[0]) + 1023}") for r in ranged)
    assert all(r.has_authorization != public_files for r in file_requests(svc))

    # Current: the version probe alone, in this manager and in a fresh one
    # that starts from what the first left on disk.
    for current in (m, manager(svc, data)):
        svc.clear_requests()
        again = current.sync()
        assert [r.path for r in svc.requests] == ["/data/manifest/version"]
        assert (again.era_number, again.bytes_downloaded, again.n_features) == (1, 0, len(features))
        assert not current.needs_sync()

    # A new version: the changed file alone.
    old = local_bytes(data, FEATURE)
    svc.set_version(touch=[FEATURE])
    assert m.needs_sync()
    svc.clear_requests()
    result = m.sync()
    assert requested_paths(svc) == [FEATURE] and local_bytes(data, FEATURE) != old
    assert (result.features_downloaded, result.bytes_downloaded) == (1, len(old))
    assert_in_step(svc, data)
    assert m.get_manifest().version == 2 and not m.needs_sync()


def test_verify_finds_missing_and_corrupted_files_and_repair_restores_them(dataservice_factory, tmp_path):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES)
    m = manager(svc, tmp_path)
    assert m.verify() == sync.VerifyResult(valid=True, corrupted_files=[], missing_files=[], has_manifest=False)
    m.sync()
    assert m.verify() == sync.VerifyResult(valid=True, corrupted_files=[], missing_files=[], has_manifest=True)

    flipped = "features/top200/signal_is/px001__ret__lag0__v1.arrow"
    os.remove(tmp_path / FEATURE)
    data = bytearray(local_bytes(tmp_path, flipped))
    data[100] ^= 0x01  # same size: only the digest tells
    (tmp_path / flipped).write_bytes(bytes(data))
    with open(tmp_path / BIG, "r+b") as handle:
        handle.truncate(BIG_BYTES - 1)

    assert m.needs_sync()
    report = m.verify()
    assert not report.valid
    assert report.missing_files == [FEATURE]
    assert sorted(report.corrupted_files) == sorted([flipped, BIG])

    svc.clear_requests()
    result = m.repair(report.missing_files + report.corrupted_files)
    assert requested_paths(svc) == sorted([FEATURE, flipped, BIG])
    assert result.bytes_downloaded == 2 * 2048 + BIG_BYTES
    assert m.verify().valid
    assert_in_step(svc, tmp_path)
    assert not m.needs_sync()
    svc.clear_requests()
    m.sync()
    assert [r.path for r in svc.requests] == ["/data/manifest/version"]


def test_ensure_manifest_file_available_fetches_one_file(dataservice_factory, tmp_path):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES)
    m = manager(svc, tmp_path)
    m.sync()
    os.remove(tmp_path / BIG)
    svc.clear_requests()
    result = m.ensure_manifest_file_available(BIG, m.get_manifest().files[BIG])
    assert result.bytes_downloaded == BIG_BYTES and requested_paths(svc) == [BIG]
    assert_in_step(svc, tmp_path)
    # An entry this host does not sync (another platform's module) is not fetched.
    svc.clear_requests()
    other = {"kind": "vault_module", "platform": "no_such_platform", "size_bytes": 4, "sha256": "0" * 64}
    assert m.ensure_manifest_file_available("runtime/other.so", other).bytes_downloaded == 0
    assert svc.requests == [] and not (tmp_path / "runtime/other.so").exists()


VOCABULARY = "named_universes/top50/vocabulary.json"


@pytest.mark.parametrize("damage, reported_as", [
    (lambda path: path.write_bytes(path.read_bytes() + b" "), "corrupted_files"),
    (lambda path: path.write_bytes(b"{not json"), "corrupted_files"),
    (lambda path: path.unlink(), "missing_files"),
], ids=["longer", "not JSON", "deleted"])
def test_repair_restores_a_damaged_vocabulary(dataservice, tmp_path, damage, reported_as):
    svc = dataservice
    m = manager(svc, tmp_path)
    m.sync()
    damage(tmp_path / VOCABULARY)
    assert getattr(m.verify(), reported_as) == [VOCABULARY]
    svc.clear_requests()
    assert m.repair([VOCABULARY]).bytes_downloaded == svc.manifest()["files"][VOCABULARY]["size_bytes"]
    assert requested_paths(svc) == [VOCABULARY]
    assert m.verify().valid
    assert_in_step(svc, tmp_path)


def test_repair_never_installs_a_vocabulary_that_does_not_validate(dataservice, tmp_path):
    svc = dataservice
    m = manager(svc, tmp_path)
    m.sync()
    damaged = local_bytes(tmp_path, VOCABULARY) + b" "
    (tmp_path / VOCABULARY).write_bytes(damaged)
    svc.add_fault("/data/files/" + VOCABULARY, "corrupt", count=None, offset=300)
    with request_budget(svc), pytest.raises(sync.SyncError, match="^vocabulary.json is not valid JSON"):
        m.repair([VOCABULARY])
    assert local_bytes(tmp_path, VOCABULARY) == damaged and tmp_files(tmp_path) == []
    svc.clear_faults()
    m.repair([VOCABULARY])
    assert m.verify().valid


@pytest.mark.parametrize("served, outcome", [
    (None, "kept with the hash of its bytes"),
    (b'{"not": "a vocabulary"}', "refused"),
])
def test_a_vocabulary_whose_manifest_hash_is_stale(dataservice_factory, tmp_path, caplog, served, outcome):
    # The service lists a hash that its vocabulary bytes do not have: bytes
    # that validate as this era's vocabulary are kept and the local manifest
    # records their real hash; anything else fails the sync.
    extra = {} if served is None else {"extra_files": {VOCABULARY: ("vocabulary", served)}}
    svc = dataservice_factory(entry_overrides={VOCABULARY: {"sha256": "0" * 64}}, **extra)
    m = manager(svc, tmp_path)
    if outcome == "refused":
        with request_budget(svc), pytest.raises(sync.SyncError, match="^vocabulary.json missing required keys"):
            m.sync()
        assert not (tmp_path / VOCABULARY).exists() and not (tmp_path / "manifest.json").exists()
        return
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"), request_budget(svc):
        m.sync()
    served = svc.file_bytes(None, VOCABULARY)
    assert local_bytes(tmp_path, VOCABULARY) == served
    recorded = json.loads((tmp_path / "manifest.json").read_text())["files"][VOCABULARY]
    assert recorded["sha256"] == hashlib.sha256(served).hexdigest()
    assert m.verify().valid and any(VOCABULARY in r.getMessage() for r in caplog.records if r.levelname == "WARNING")
    svc.clear_requests()
    m.sync()
    assert [r.path for r in svc.requests] == ["/data/manifest/version"]


def _edit_seed_meta(**fields):
    def edit(data_dir):
        path = data_dir / "shuffle_seed.enc.meta.json"
        path.write_text(json.dumps({**json.loads(path.read_text()), **fields}))
    return edit


# One damage of each part (every rule the seed and its metadata are checked
# by: test_artifacts.py).
@pytest.mark.parametrize("damage", [
    lambda d: (d / "shuffle_seed.enc").write_bytes((d / "shuffle_seed.enc").read_bytes()[:59]),
    lambda d: (d / "shuffle_seed.enc.meta.json").unlink(),
    _edit_seed_meta(market_id=9),
], ids=["59 bytes", "no metadata", "another market"])
def test_a_shuffle_seed_that_is_not_this_eras_is_fetched_again(dataservice, tmp_path, damage):
    svc = dataservice
    m = manager(svc, tmp_path)
    m.sync()
    damage(tmp_path)
    assert m.needs_sync()
    svc.clear_requests()
    assert m.sync().shuffle_seed_downloaded
    assert len(svc.requests_for("/data/shuffle")) == 1 and file_requests(svc) == []
    assert_in_step(svc, tmp_path)
    assert not m.needs_sync()


def test_a_resumed_download_counts_only_the_bytes_this_sync_fetched(dataservice_factory, tmp_path):
    svc = dataservice_factory(features=1, large_file_bytes=BIG_BYTES)
    staged = svc.file_bytes(None, BIG)[:BIG_BYTES // 2 + 7]  # left by an interrupted sync
    (tmp_path / BIG).parent.mkdir(parents=True)
    (tmp_path / (BIG + ".tmp")).write_bytes(staged)
    files = svc.manifest()["files"]

    result = manager(svc, tmp_path).sync()

    assert_in_step(svc, tmp_path)
    assert body_bytes_served(svc, BIG) == BIG_BYTES - len(staged)
    vocabularies = [p for p in files if p.startswith("named_universes/")]
    everything = sum(e["size_bytes"] for p, e in files.items() if p not in vocabularies)
    assert result.bytes_downloaded == everything - len(staged)


def test_found_pnl_missing_from_storage_is_excluded_until_the_manifest_changes(dataservice, tmp_path, caplog):
    from tidewright.deployment import RuntimeFreshnessRecorder

    dataservice.add_fault("/data/files/" + FOUND_PNL, "status", status=404, count=None)
    guard = RuntimeFreshnessRecorder()
    m = manager(dataservice, tmp_path, runtime_freshness_guard=guard)
    caplog.set_level(logging.INFO, logger="tidewright.sync")

    with request_budget(dataservice):
        result = m.sync()

    assert "excluding stale membership entry and retrying sync: " + FOUND_PNL in caplog.text
    served = dataservice.manifest()["files"]
    kept = {p: e for p, e in served.items() if p != FOUND_PNL and not p.startswith("_control/")}
    local = json.loads(local_bytes(tmp_path, "manifest.json"))
    assert FOUND_PNL not in local["files"] and FOUND_PNL not in m.get_manifest().files
    for path in kept:
        assert local_bytes(tmp_path, path) == dataservice.file_bytes(None, path), path
    index = json.loads(local_bytes(tmp_path, local["signals_index"]))
    assert FOUND_PNL not in json.dumps(index) and "sig0000" in json.dumps(index)
    assert FOUND_PNL not in json.dumps(m.get_manifest().found_signals)

    # The rewritten index is recorded, told to the freshness guard and known
    # to the hash cache like a downloaded file.
    new_index = local["signals_index"]
    digest = hashlib.sha256(local_bytes(tmp_path, new_index)).hexdigest()
    [update] = [r.tidewright_sync_event for r in caplog.records
                if getattr(r, "tidewright_sync_event", {}).get("event_type") == "scrubbed_signals_index_update"]
    assert (update["old_relative_path"], update["new_relative_path"], update["sha256"]) == (
        dataservice.manifest()["signals_index"], new_index, digest)
    assert {"relative_path": new_index, "kind": "signals_index", "sha256": digest} in guard.updates
    cache = json.loads(local_bytes(tmp_path, ".sync_hash_cache.json"))
    assert cache["files"][new_index]["sha256"] == digest
    assert sorted(result.found_pnl_paths_downloaded) == sorted(
        p for p, e in kept.items() if e["kind"] in FOUND_PNL_KINDS)
    assert m.verify().valid and tmp_files(tmp_path) == []

    dataservice.clear_requests()
    m.sync()
    assert [r.path for r in dataservice.requests] == ["/data/manifest/version"]

    # A new manifest version forgets the exclusion: the file is asked for again.
    dataservice.clear_faults()
    dataservice.set_version()
    result = m.sync()
    assert FOUND_PNL in result.found_pnl_paths_downloaded
    assert_in_step(dataservice, tmp_path)


def test_many_found_pnl_files_missing_from_storage_cost_one_more_manifest_fetch(dataservice_factory, tmp_path,
                                                                                  caplog):
    # Storage lost 400 of the 401 found PnL files. One pass meets them all;
    # the next fetches the manifest once more without them.
    svc = dataservice_factory(features=2, found_signals=400, found_strategies=1, pnl_bytes=16)
    svc.add_fault("/data/files/found_signals/*", "status", status=404, count=None)
    files = svc.manifest()["files"]
    lost = {p for p in files if p.startswith("found_signals/")}
    caplog.set_level(logging.WARNING, logger="tidewright.sync")

    with request_budget(svc, limit=5000):
        result = manager(svc, tmp_path, sync_max_concurrency=4).sync()

    assert len(svc.requests_for("/data/manifest")) == 2
    assert len(file_requests(svc)) < 2 * len(files)  # each lost file was asked for once
    assert len([r for r in caplog.records if "excluding stale membership entry" in r.getMessage()]) == 1
    local = json.loads(local_bytes(tmp_path, "manifest.json"))
    index = local_bytes(tmp_path, local["signals_index"]).decode()
    assert lost.isdisjoint(local["files"]) and not any(path in index for path in lost)
    assert result.found_pnl_paths_downloaded == ("found_strategies/pool_a/strat0000/strategy_is/pnl.arrow",)
    assert result.features_downloaded == 2
    assert tmp_files(tmp_path) == []


def test_orphan_staging_files_are_removed_by_later_no_op_syncs(dataservice, tmp_path):
    m = manager(dataservice, tmp_path)
    m.sync()
    for _ in range(3):  # scans that find the directories clean (and remember them so)
        m.sync()
    feature_dir = os.path.dirname(FEATURE)
    for relative in (FEATURE + ".tmp", "features/x.tmp", "new/deeper/y.tmp"):
        os.makedirs(tmp_path / os.path.dirname(relative), exist_ok=True)
        (tmp_path / relative).write_bytes(b"left by a killed process")
        m.sync()
        assert tmp_files(tmp_path) == [], relative
    # A staging file written into a directory without changing its entries'
    # set (an existing one rewritten) is not an orphan created since: only
    # new names matter, and a rename onto an existing name is one.
    (tmp_path / feature_dir / "z").write_bytes(b"z")
    os.replace(tmp_path / feature_dir / "z", tmp_path / (FEATURE + ".tmp"))
    m.sync()
    assert tmp_files(tmp_path) == [] and m.verify().valid
    # A resumable download of the current manifest is kept when it is named.
    for relative in (FEATURE + ".tmp", "features/x.tmp"):
        (tmp_path / relative).write_bytes(b"partial")
    sync._cleanup_sync_tmp_files(str(tmp_path), [FEATURE])
    assert tmp_files(tmp_path) == [FEATURE + ".tmp"]
    sync._remove_manifest_tmp_file(str(tmp_path), FEATURE)
    assert tmp_files(tmp_path) == []


def test_needs_sync_sees_local_changes_behind_unchanged_names(dataservice, tmp_path):
    data, outside = tmp_path / "data", tmp_path / "outside"
    data.mkdir()
    outside.mkdir()
    m = manager(dataservice, data)
    m.sync()
    assert not m.needs_sync()

    # Same bytes, new modification time: hashed again and still current.
    os.utime(data / FEATURE, ns=(1, 1))
    assert not m.needs_sync()

    # A vocabulary edited in place (its manifest entry is not what decides).
    vocabulary = data / "named_universes" / "top50" / "vocabulary.json"
    text = vocabulary.read_text(encoding="utf-8")
    vocabulary.write_text(text.replace('"era_number":1', '"era_number":7'), encoding="utf-8")
    assert m.needs_sync()
    vocabulary.write_text(text, encoding="utf-8")
    assert not m.needs_sync()

    # A data file swapped for a link to an identical file outside.
    (outside / "copy.arrow").write_bytes(local_bytes(data, FEATURE))
    os.remove(data / FEATURE)
    (data / FEATURE).symlink_to(outside / "copy.arrow")
    assert m.needs_sync()
    with pytest.raises(sync.ManifestError, match="escapes data directory"):
        m.sync()

    # manifest.json edited by hand: the server's hash hint no longer names it.
    os.remove(data / FEATURE)
    m.sync()
    manifest = data / "manifest.json"
    manifest.write_bytes(manifest.read_bytes() + b" ")
    assert m.needs_sync()


# The version probe's hash hint: as served (the SHA-256 of the manifest body),
# absent, or naming some other manifest.
HINTS = {"served": None, "absent": {}, "other": {"manifest_sha256": "0" * 64}}


@pytest.mark.parametrize("hint", HINTS.values(), ids=HINTS.keys())
def test_needs_sync_and_sync_agree_on_the_hash_hint(dataservice, tmp_path, hint):
    if hint is not None:
        dataservice.add_fault("/data/manifest/version", "status", status=200, count=None,
                              body={"version": 1, "era_number": 1, **hint})
    m = manager(dataservice, tmp_path)
    m.sync()
    # The side file names the manifest on disk, whatever the probe said.
    body_sha = hashlib.sha256(dataservice.manifest_bytes()).hexdigest()
    side = json.loads(local_bytes(tmp_path, ".manifest_sync_metadata.json"))
    assert (side["server_manifest_sha256"], side["server_manifest_body_sha256"]) == (body_sha, body_sha)

    # Without a hint the version is trusted, as the served hint is; a hint
    # naming another manifest makes both fetch the manifest again.
    trusted = hint != HINTS["other"]
    dataservice.clear_requests()
    assert m.needs_sync() is not trusted
    m.sync()
    assert [r.path for r in dataservice.requests] == (
        ["/data/manifest/version"] * 2 if trusted else ["/data/manifest/version"] * 2 + ["/data/manifest"])

    # Local damage is seen by both, hint or not.
    os.remove(tmp_path / FEATURE)
    assert m.needs_sync()
    m.sync()
    assert_in_step(dataservice, tmp_path)
    assert m.needs_sync() is not trusted


VAULT = "runtime/vault_alpha.so"


def test_vault_modules_are_announced_once_in_place(dataservice_factory, tmp_path, monkeypatch):
    import tidewright.runtime_module_freshness as freshness

    svc = dataservice_factory(extra_files={VAULT: ("vault_module", 4096)})
    announced = []

    def vault_module_updated(*, relative_path, local_path, sha256):
        with open(local_path, "rb") as handle:  # already in place and verified
            announced.append((relative_path, local_path, hashlib.sha256(handle.read()).hexdigest() == sha256))

    monkeypatch.setattr(freshness, "vault_module_updated", vault_module_updated)
    m = manager(svc, tmp_path)
    m.sync()
    local = os.path.join(str(tmp_path), *VAULT.split("/"))
    assert announced == [(VAULT, local, True)]
    assert svc.manifest()["files"][VAULT]["sha256"] == hashlib.sha256(local_bytes(tmp_path, VAULT)).hexdigest()

    m.repair([VAULT])
    assert announced == [(VAULT, local, True)] * 2

    def refuse(**fields):
        raise RuntimeError("cannot reload " + fields["relative_path"])

    monkeypatch.setattr(freshness, "vault_module_updated", refuse)
    svc.set_version(touch=[VAULT])
    with pytest.raises(RuntimeError, match="^cannot reload " + VAULT):
        m.sync()
    assert m.get_manifest().version == 1
