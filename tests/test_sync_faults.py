"""Sync through a misbehaving data service: transient statuses, refusals,
broken bodies and ranges, resumed downloads, and manifests that move on while
files download. Every scripted fault ends with correct files or a typed error."""

import hashlib
import io
import json
import logging
import os
import threading

import pytest

import tidewright.auth
import tidewright.sync as sync
from peak_rss import MEMORY_UNMEASURABLE, describe, measure
from raw_http_server import RawHttpServer, endless_body, respond, trickled_headers
from sync_helpers import (BIG, BIG_BYTES, CHUNK, FEATURE, assert_in_step, body_bytes_served, file_requests,
                          local_bytes, range_starts, request_budget, sequential_manager as manager, tmp_files,
                          tree)


BIG_URL_PATH = "/data/files/" + BIG


@pytest.fixture
def svc(dataservice_factory):
    return dataservice_factory(large_file_bytes=BIG_BYTES)


def synced(svc, data_dir, **knobs):
    m = manager(svc, data_dir, **knobs)
    with request_budget(svc):
        result = m.sync()
    assert_in_step(svc, data_dir)
    return m, result


def test_transient_statuses_in_a_burst_are_retried(svc, tmp_path):
    svc.script_statuses("/data/manifest/version", [502, 200])
    svc.script_statuses("/data/manifest", [503, 504, 200])
    svc.script_statuses(BIG_URL_PATH, [503, 502, 500, 429, 408, 425, 504, 200])
    svc.script_statuses("/data/files/" + FEATURE, [503])
    synced(svc, tmp_path)
    assert [r.status for r in file_requests(svc, BIG)][:8] == [503, 502, 500, 429, 408, 425, 504, 206]


# One request, then the sync ends: the service refused the token (401), or
# answered a transient status with a body that says not to retry (503).
@pytest.mark.parametrize("path, status", [
    *[(path, 401) for path in ("/data/manifest/version", "/data/manifest", BIG_URL_PATH, "/data/shuffle")],
    *[(path, 503) for path in ("/data/manifest", BIG_URL_PATH)],
])
def test_a_refusal_ends_the_sync_after_one_request(svc, tmp_path, path, status):
    svc.add_fault(path, "status", status=status, retryable=False, count=None)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises((tidewright.auth.AuthError, sync.SyncUnavailableError)) as info:
        m.sync()
    if status == 401:
        assert isinstance(info.value, tidewright.auth.AuthError) and "HTTP 401" in str(info.value)
    else:
        assert (info.value.retryable, info.value.statuses) == (False, [503])
    assert len(svc.requests_for(path)) == 1
    assert m.get_manifest() is None and not (tmp_path / "manifest.json").exists()
    if path == "/data/manifest":
        assert os.listdir(tmp_path) == []


def test_a_public_download_retries_a_transient_status_whatever_its_body_says(dataservice_factory, tmp_path):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES, public_files=True)
    svc.add_fault(BIG_URL_PATH, "status", status=503, retryable=False, count=2)
    synced(svc, tmp_path)
    assert [r.status for r in file_requests(svc, BIG)][:3] == [503, 503, 206]


# (fault, range starts asked for the large file, body bytes the service sent for it)
BODY_FAULTS = {
    # Resumed where the body broke off: no byte is sent twice.
    "truncated": (dict(kind="truncate", after_bytes=10_000),
                  [0, 10_000, 10_000 + CHUNK, 10_000 + 2 * CHUNK], BIG_BYTES),
    "reset": (dict(kind="reset", skip=1, after_bytes=0), [0, CHUNK, CHUNK, 2 * CHUNK, 3 * CHUNK], BIG_BYTES),
    # The digest fails at the end: fetched once more from byte 0.
    "corrupted": (dict(kind="corrupt", skip=2), [0, CHUNK, 2 * CHUNK, 3 * CHUNK] * 2, 2 * BIG_BYTES),
    # A 200 to a range is the whole file: it replaces the part received.
    "range-ignored": (dict(kind="ignore_range", skip=1), [0, CHUNK], CHUNK + BIG_BYTES),
    "empty-206": (dict(kind="empty_206", skip=1), [0, CHUNK, CHUNK, 2 * CHUNK, 3 * CHUNK], BIG_BYTES),
    # A Content-Range other than asked: the staging file is worth nothing, the file starts over.
    "wrong-content-range": (dict(kind="bad_content_range", skip=1),
                            [0, CHUNK, 0, CHUNK, 2 * CHUNK, 3 * CHUNK], BIG_BYTES + 2 * CHUNK),
    # 416 to a resumed range: the staging file starts over.
    "416": (dict(kind="status", status=416, skip=1), [0, CHUNK, 0, CHUNK, 2 * CHUNK, 3 * CHUNK], BIG_BYTES + CHUNK),
}


@pytest.mark.parametrize("fault, starts, served", BODY_FAULTS.values(), ids=BODY_FAULTS.keys())
def test_broken_bodies_and_ranges_end_with_correct_files(svc, tmp_path, fault, starts, served):
    fault = dict(fault)
    svc.add_fault(BIG_URL_PATH, fault.pop("kind"), **fault)
    synced(svc, tmp_path)
    assert range_starts(svc, BIG) == starts
    assert body_bytes_served(svc, BIG) == served


# (fault, range starts asked for the large file)
OVERLONG_FAULTS = {
    # A 206 that goes on past its range, without end or by an announced
    # length: the range is written, the rest refused, and the next pass
    # resumes right after the range.
    "206-without-end": (dict(kind="overlong", skip=1), [0, CHUNK, 2 * CHUNK, 3 * CHUNK]),
    "206-announcing-more": (dict(kind="overlong", skip=1, after_bytes=5000), [0, CHUNK, 2 * CHUNK, 3 * CHUNK]),
    # A 200 that ignores the range and goes on past the file: the file is
    # complete at its size and checked as it is, nothing more is asked.
    "200-without-end": (dict(kind="overlong_whole", skip=1), [0, CHUNK]),
}


@pytest.mark.parametrize("fault, starts", OVERLONG_FAULTS.values(), ids=OVERLONG_FAULTS.keys())
def test_bodies_longer_than_asked_stop_at_the_expected_length(svc, tmp_path, fault, starts):
    fault = dict(fault)
    svc.add_fault(BIG_URL_PATH, fault.pop("kind"), **fault)
    synced(svc, tmp_path)
    assert range_starts(svc, BIG) == starts
    [hostile] = [r for r in file_requests(svc, BIG) if r.fault]
    assert hostile.bytes_sent < 64 << 20, "the client should hang up instead of reading on"


def test_a_206_without_content_range_is_taken_as_the_range_asked(svc, tmp_path):
    # As through a proxy that drops the header: no range is asked twice.
    svc.add_fault(BIG_URL_PATH, "headers", drop_headers=["Content-Range"], count=None)
    synced(svc, tmp_path)
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK]


def test_a_content_range_that_keeps_contradicting_the_request_ends_the_sync(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "bad_content_range", skip=1, count=None)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError) as info:
        m.sync()
    assert (info.value.file_path, info.value.status) == (BIG, 206)
    assert (f"asked for bytes 0-{CHUNK - 1}, the server answered Content-Range: bytes 1-{CHUNK - 1}/{BIG_BYTES}"
            in str(info.value))
    assert range_starts(svc, BIG) == [0, CHUNK, 0]  # started over once, then given up


@pytest.mark.parametrize("kind", ["reset", "bad_status_line"])
@pytest.mark.parametrize("path", ["/data/manifest/version", "/data/manifest", BIG_URL_PATH, "/data/shuffle"])
def test_resets_and_bad_status_lines_are_retried_like_timeouts(svc, tmp_path, path, kind):
    # A reset right after the headers, or an answer that is not HTTP: twice
    # in a row, then the service answers properly.
    svc.add_fault(path, kind, after_bytes=0, count=2)
    synced(svc, tmp_path)
    faults = [r.fault for r in svc.requests_for(path)]
    assert faults[:3] == [kind, kind, None] and faults.count(kind) == 2
    if path == BIG_URL_PATH:
        assert range_starts(svc, BIG) == [0, 0, 0, CHUNK, 2 * CHUNK, 3 * CHUNK]


def test_a_file_that_keeps_failing_its_checksum_ends_the_sync(svc, tmp_path, caplog):
    caplog.set_level(logging.WARNING, logger="tidewright.sync")
    svc.add_fault(BIG_URL_PATH, "corrupt", count=None)
    m = manager(svc, tmp_path)
    # Repaired a bounded number of times, each time from byte 0, and then an
    # IntegrityError rather than downloads until the budget cancels the sync.
    with request_budget(svc), pytest.raises(sync.IntegrityError, match=f"^Checksum failure for {BIG}: expected "):
        m.sync()
    rounds = sync._SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK] * (rounds + 1)
    [exhausted] = [r for r in caplog.records
                   if getattr(r, "tidewright_sync_event", {}).get("event_type") == "checksum_repair_exhausted"]
    assert exhausted.levelno == logging.WARNING and exhausted.tidewright_sync_event["file"] == BIG
    assert m.get_manifest() is None and not (tmp_path / BIG).exists()

    svc.clear_faults()
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)


# A checksum mismatch asks the version endpoint whether the file moved on.
# A probe that fails or says nothing usable leaves the file to be repaired
# under the manifest in hand; a refused token ends the sync, and the corrupt
# staging bytes never reach the file's place.
USELESS_PROBES = {
    "404": dict(kind="status", status=404),
    "not-json": dict(kind="status", status=200, body=b"no json"),
    "not-an-object": dict(kind="status", status=200, body=[1]),
}


@pytest.mark.parametrize("fault", [*USELESS_PROBES.values(), dict(kind="bad_status_line"),
                                   dict(kind="reset", after_bytes=0)],
                         ids=[*USELESS_PROBES, "bad-status-line", "reset"])
def test_a_version_probe_that_tells_nothing_leaves_the_file_repaired(svc, tmp_path, fault):
    svc.add_fault(BIG_URL_PATH, "corrupt")
    svc.on_request(BIG_URL_PATH, lambda: svc.add_fault("/data/manifest/version", **fault))
    m, _ = synced(svc, tmp_path)
    assert fault["kind"] in [r.fault for r in svc.requests_for("/data/manifest/version")]
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK] * 2
    assert m.verify().valid


@pytest.mark.parametrize("fault", [*USELESS_PROBES.values(), dict(kind="status", status=200, body={"era_number": 1})],
                         ids=[*USELESS_PROBES, "no-version"])
def test_needs_sync_answers_yes_when_the_version_probe_tells_nothing(svc, tmp_path, fault):
    m, _ = synced(svc, tmp_path)
    assert not m.needs_sync()
    svc.add_fault("/data/manifest/version", **fault)
    with request_budget(svc):
        assert m.needs_sync()
    assert m.verify().valid  # asking changed nothing on disk


def test_a_version_probe_refusing_the_token_ends_the_sync(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "corrupt")
    svc.on_request(BIG_URL_PATH, lambda: svc.add_fault("/data/manifest/version", "status", status=401))
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(tidewright.auth.AuthError, match="probing manifest version: HTTP 401"):
        m.sync()
    assert m.get_manifest() is None and not (tmp_path / BIG).exists()
    synced(svc, tmp_path)


def interrupted_after_10_000_bytes(svc, data_dir):
    """A manager whose sync ended with 10,000 bytes of the large file staged."""
    svc.add_fault(BIG_URL_PATH, "truncate", after_bytes=10_000)
    svc.add_fault(BIG_URL_PATH, "status", status=400)  # permanent: ends this sync
    m = manager(svc, data_dir)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError):
        m.sync()
    assert os.path.getsize(data_dir / (BIG + ".tmp")) == 10_000
    return m


def test_partial_download_resumes_in_the_next_sync(svc, tmp_path):
    orphan = tmp_path / "features" / "top200" / "gone.arrow.tmp"
    orphan.parent.mkdir(parents=True)
    orphan.write_bytes(b"left by a file no manifest lists")
    m = interrupted_after_10_000_bytes(svc, tmp_path)

    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)
    assert range_starts(svc, BIG)[2] == 10_000
    assert body_bytes_served(svc, BIG) == BIG_BYTES
    assert not orphan.exists()


def test_partial_download_of_a_file_changed_since_starts_over(svc, tmp_path):
    m = interrupted_after_10_000_bytes(svc, tmp_path)
    svc.set_version(touch=[BIG])
    svc.clear_requests()

    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)
    # The old version's 10,000 bytes are dropped before a range is asked for,
    # not resumed and then refused by the digest.
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK]
    assert body_bytes_served(svc, BIG) == BIG_BYTES
    assert os.listxattr(tmp_path / BIG) == []


def test_partial_vocabulary_left_by_a_killed_sync_is_resumed_at_the_commit(svc, tmp_path):
    vocabulary = "named_universes/top50/vocabulary.json"
    body = svc.file_bytes(None, vocabulary)
    staging = tmp_path / (vocabulary + ".tmp")
    staging.parent.mkdir(parents=True)
    staging.write_bytes(body[:100])
    synced(svc, tmp_path)
    assert range_starts(svc, vocabulary) == [100]
    assert body_bytes_served(svc, vocabulary) == len(body) - 100

    # Kept through the download set, but removed when the vocabulary on disk
    # turns out to be current.
    staging.write_bytes(body[:100])
    svc.set_version(touch=[FEATURE])
    synced(svc, tmp_path)
    assert len(range_starts(svc, vocabulary)) == 1


# A staging file left beside the large file: resumed from its length, its
# bytes are then refused by the digest and the file starts over; one longer
# than the file cannot be a prefix of it and starts over at once.
@pytest.mark.parametrize("length, starts", [
    (5_000, [5_000, 5_000 + CHUNK, 5_000 + 2 * CHUNK, 0, CHUNK, 2 * CHUNK, 3 * CHUNK]),
    (BIG_BYTES + 10, [0, CHUNK, 2 * CHUNK, 3 * CHUNK]),
], ids=["shorter", "longer"])
def test_a_leftover_staging_file_that_is_not_a_prefix_is_replaced(svc, tmp_path, length, starts):
    staging = tmp_path / (BIG + ".tmp")
    staging.parent.mkdir(parents=True)
    staging.write_bytes(b"\0" * length)
    synced(svc, tmp_path)
    assert range_starts(svc, BIG) == starts


# The same for a file fetched in one request: a staging file that exists is
# never taken for a new, empty one.
@pytest.mark.parametrize("leftover, starts", [
    (lambda body: body[:7], [7]),
    (lambda body: b"\0" * 7, [7, 0]),
    (lambda body: body + b"\0" * 7, [0]),
], ids=["prefix", "other bytes", "longer"])
def test_a_leftover_staging_file_of_a_small_file(svc, tmp_path, leftover, starts):
    staging = tmp_path / (FEATURE + ".tmp")
    staging.parent.mkdir(parents=True)
    staging.write_bytes(leftover(svc.file_bytes(None, FEATURE)))
    synced(svc, tmp_path)
    assert range_starts(svc, FEATURE) == starts
    assert not staging.exists()


def test_file_without_size_in_the_manifest_ends_at_the_served_length(dataservice_factory, tmp_path):
    # 2 * CHUNK bytes: the chunk loop must not ask past the end for ever.
    svc = dataservice_factory(large_file_bytes=2 * CHUNK, entry_overrides={BIG: {"size_bytes": None}})
    m, result = synced(svc, tmp_path)
    assert len(local_bytes(tmp_path, BIG)) == 2 * CHUNK
    assert body_bytes_served(svc, BIG) == 2 * CHUNK
    assert not m.needs_sync()


def test_one_failing_worker_stops_the_queued_downloads(dataservice_factory, tmp_path):
    svc = dataservice_factory(features=64)
    svc.add_fault("/data/files/functions.json", "status", status=404, count=None)  # first in the download set
    m = manager(svc, tmp_path, sync_max_concurrency=2)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError, match="functions.json: HTTP 404"):
        m.sync()
    assert len(file_requests(svc)) < len(svc.manifest()["files"]) // 2


def _bump(svc, touch=(BIG,)):
    return lambda: svc.set_version(touch=list(touch))


def test_manifest_superseded_mid_download_restarts_with_the_new_manifest(svc, tmp_path):
    svc.on_request(BIG_URL_PATH, _bump(svc), after=2)  # the second chunk already has the new bytes
    m, _ = synced(svc, tmp_path)
    assert m.get_manifest().version == 2
    assert len(svc.requests_for("/data/manifest")) == 2


@pytest.mark.parametrize("published", ["before the sync", "during the download"])
def test_a_public_store_ahead_of_the_api_is_followed(dataservice_factory, tmp_path, published):
    # The API's manifest and version hints lag behind the immutable public
    # manifest: the newer public one is synced, also when it appears while a
    # file it changed is being downloaded (the API then says nothing moved).
    svc = dataservice_factory(large_file_bytes=BIG_BYTES, public_files="/public/files")
    svc.freeze_api()
    if published == "before the sync":
        svc.set_version(touch=[BIG])
    else:
        svc.on_request("/public/files/" + BIG, _bump(svc), after=2)
    m = manager(svc, tmp_path)
    with request_budget(svc):
        m.sync()
    assert m.get_manifest().version == 2
    assert_in_step(svc, tmp_path)
    svc.freeze_api(False)  # the API catches up: nothing left to do
    svc.clear_requests()
    m.sync()
    assert [r.path for r in svc.requests] == ["/data/manifest/version"]


def test_empty_206_after_the_manifest_moved_on_is_a_supersede(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "empty_206", skip=1)
    svc.on_request(BIG_URL_PATH, _bump(svc, touch=()), after=2)
    m, _ = synced(svc, tmp_path)
    assert m.get_manifest().version == 2
    assert range_starts(svc, BIG) == [0, CHUNK, 0, CHUNK, 2 * CHUNK, 3 * CHUNK]  # staged bytes dropped


def test_three_supersedes_end_the_sync(svc, tmp_path, caplog):
    caplog.set_level(logging.WARNING, logger="tidewright.sync")
    svc.on_request(BIG_URL_PATH, _bump(svc), after=1, count=1000)  # every request publishes a new version
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.ManifestSupersededError, match=f"while downloading {BIG}"):
        m.sync()
    assert [n for n in range(1, 5) if f"restarting download set ({n}/3)" in caplog.text] == [1, 2, 3]
    assert len(svc.requests_for("/data/manifest")) == 3
    assert m.get_manifest() is None and not (tmp_path / "manifest.json").exists()
    assert tmp_files(tmp_path) == [BIG + ".tmp"]


# -- slow, stalled and half-working services ---------------------------------------------


def test_slow_and_late_answers_within_the_timeouts_are_waited_for(svc, tmp_path):
    svc.add_fault("/data/manifest", "delay", seconds=0.3)
    svc.add_fault(BIG_URL_PATH, "slow", bytes_per_second=512 * 1024, count=None)
    synced(svc, tmp_path)
    assert len(svc.requests_for("/data/manifest")) == 1
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK]


def test_a_body_that_stalls_past_the_no_progress_timeout_is_resumed(svc, tmp_path):
    # The service sends 1000 bytes of the second chunk and then nothing: the
    # transfer ends after the no-progress timeout (1 s here) and resumes
    # after them.
    sync._set_sync_http_timeout_seconds(1.0)
    svc.add_fault(BIG_URL_PATH, "stall", skip=1, after_bytes=1000)
    synced(svc, tmp_path)
    resumed = CHUNK + 1000
    assert range_starts(svc, BIG) == [0, CHUNK] + list(range(resumed, BIG_BYTES, CHUNK))
    assert body_bytes_served(svc, BIG) == BIG_BYTES


@pytest.mark.parametrize("kind", ["truncate", "reset"])
def test_a_broken_manifest_body_is_fetched_again(svc, tmp_path, kind):
    svc.add_fault("/data/manifest", kind, after_bytes=100)
    synced(svc, tmp_path)
    assert [r.bytes_sent for r in svc.requests_for("/data/manifest")][0] == 100
    assert len(svc.requests_for("/data/manifest")) == 2


def test_a_version_probe_that_keeps_failing_falls_back_to_the_full_manifest(svc, tmp_path):
    m, _ = synced(svc, tmp_path)
    svc.add_fault("/data/manifest/version", "status", status=501, count=None)  # not transient: not retried
    svc.clear_requests()
    synced(svc, tmp_path)
    assert [r.path for r in svc.requests] == ["/data/manifest/version", "/data/manifest"]

    svc.set_version(touch=[FEATURE])
    svc.clear_requests()
    m, _ = synced(svc, tmp_path)
    assert m.get_manifest().version == 2
    assert [r.path for r in file_requests(svc)] == ["/data/files/" + FEATURE]


class _Keyring:
    """A token source that fails once ``lock()`` was called."""

    def __init__(self, token):
        self.token, self.locked = token, False

    def lock(self):
        self.locked = True

    def __call__(self):
        if self.locked:
            raise PermissionError("keyring locked")
        return self.token


def publish(svc, *touched):
    svc.set_version(touch=list(touched))


def _entry(size=4):
    return {"size_bytes": size, "sha256": "0" * 64, "kind": "feature"}


# A new version is published and something of it fails to arrive or to
# validate, or the service or the token source refuses the sync.
FAILED_SYNCS = {
    "file-404": (lambda svc, keyring: (publish(svc, FEATURE, BIG),
                                       svc.add_fault("/data/files/" + FEATURE, "status", status=404, count=None)),
                 sync.PermanentDownloadError, f"Download failed for {FEATURE}: HTTP 404"),
    "file-401": (lambda svc, keyring: (publish(svc, BIG),
                                       svc.add_fault(BIG_URL_PATH, "status", status=401, count=None)),
                 tidewright.auth.AuthError, f"Authentication failed while downloading {BIG}: HTTP 401"),
    "version-401": (lambda svc, keyring: svc.add_fault("/data/manifest/version", "status", status=401),
                    tidewright.auth.AuthError, "Authentication failed: HTTP 401"),
    "token-source-fails": (lambda svc, keyring: (publish(svc, BIG), svc.on_request("/data/manifest", keyring.lock)),
                           PermissionError, "keyring locked"),
    "manifest-refused": (lambda svc, keyring: (publish(svc), svc.add_fault("/data/manifest", "status", status=503,
                                                                            retryable=False)),
                         sync.SyncUnavailableError, "retryable=False"),
    "manifest-not-json": (lambda svc, keyring: (publish(svc, BIG), svc.add_fault("/data/manifest", "status",
                                                                                  status=200, body="<html>")),
                          sync.ManifestError, "Invalid manifest JSON: "),
    "hostile-entry": (lambda svc, keyring: svc.set_version(entry_overrides={"../escape.arrow": _entry()}),
                      sync.ManifestError, "unsafe segments"),
    "disk-space": (lambda svc, keyring: svc.set_version(entry_overrides={FEATURE: {"size_bytes": 2 ** 60}}),
                   sync.DiskSpaceError, "Insufficient disk space: need "),
    # The era's side files: files already fetched stay, found by their digest later.
    "functions-404": (lambda svc, keyring: (publish(svc, BIG, "functions.json"),
                                            svc.add_fault("/data/files/functions.json", "status", status=404,
                                                          count=None)),
                      sync.PermanentDownloadError, "Download failed for functions.json: HTTP 404"),
    "seed-404": (lambda svc, keyring: (publish(svc, BIG), svc.add_fault("/data/shuffle", "status", status=404,
                                                                         count=None)),
                 sync.SyncError, "Failed to download shuffle seed: HTTP 404"),
    "seed-of-another-era": (lambda svc, keyring: (publish(svc, BIG), svc.add_fault(
        "/data/shuffle", "headers", count=None, set_headers={"X-Era-Number": "7"})),
        sync.EraError, "shuffle_seed.enc response era_number=7 does not match manifest era_number=1"),
    "seed-retired-generation": (lambda svc, keyring: (publish(svc, BIG), svc.add_fault(
        "/data/shuffle", "headers", count=None, set_headers={"X-Tidewright-Shuffle-Key-Generation": "legacy-era-only-v1"})),
        sync.SyncError, "retired shuffle_key_generation 'legacy-era-only-v1' is not supported"),
}


@pytest.mark.parametrize("break_sync, error, message", FAILED_SYNCS.values(), ids=FAILED_SYNCS.keys())
def test_a_failed_sync_leaves_the_previous_state_and_the_next_one_completes(svc, tmp_path, break_sync, error,
                                                                             message):
    keyring = _Keyring(svc.token)
    m = sync.SyncManager(str(tmp_path), svc.url, keyring, sync_http_chunk_bytes=CHUNK)
    with request_budget(svc):
        m.sync()
    before = tree(tmp_path)
    break_sync(svc, keyring)
    with request_budget(svc), pytest.raises(error) as info:
        m.sync()
    assert message in str(info.value)
    # The committed manifest stays; only the large file (fetched before the
    # side files), staging files and the progress report may have changed.
    after = tree(tmp_path)
    assert {p: b for p, b in after.items() if p in before and p != BIG} == {p: b for p, b in before.items()
                                                                            if p != BIG}
    assert all(p.endswith(".tmp") or p == "sync-progress.json" for p in set(after) - set(before))
    verified = m.verify()
    assert m.get_manifest().version == 1 and verified.missing_files == [] and set(verified.corrupted_files) <= {BIG}
    assert sync.SyncManager(str(tmp_path), svc.url, token=svc.token).get_manifest().version == 1

    svc.clear_faults()
    keyring.locked = False
    svc.set_version(manifest_overrides={}, entry_overrides={})
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)


# -- hostile services: memory and time stay bounded ------------------------------------

MIB = 1 << 20
needs_plain_memory = pytest.mark.skipif(MEMORY_UNMEASURABLE,
                                        reason="peak RSS means nothing under a sanitizer or coverage build")


def streamed_manifest(entries, era=1):
    """A manifest of ``entries`` feature files, written as it is generated
    (the server never holds it), ended by the close."""
    def action(ex):
        ex.head(200, [("Content-Type", "application/json"), ("Connection", "close")])
        ex.send(b'{"version": 1, "era_number": %d, "market_id": 1, "files": {' % era)
        for first in range(0, entries, 1000):
            ex.send(",".join(
                f'"features/top50/signal_is/f{i:07d}__ret__lag0__v1.arrow": '
                f'{{"size_bytes": {1000 + i}, "sha256": "{i:064x}", "kind": "feature"}}'
                for i in range(first, min(first + 1000, entries))).encode() + (b"," if first + 1000 < entries else b""))
        ex.send(b"}}")
    return action


def sync_in_child(server_url, data_dir):
    return measure(f"""
        m = sync.SyncManager({str(data_dir)!r}, {server_url!r}, token="t")
        m.sync()
    """)


# path -> answer, then what the sync raises and how often each path is asked
ENDLESS = {
    # The probe is given up at 1 MiB and the sync goes on to the manifest.
    "version-probe": ({"/data/manifest/version": endless_body(prefix=b'{"version": 1, "x": "', filler=b"x" * 65536),
                       "/data/manifest": respond(404, b"{}")},
                      "PermanentDownloadError", "Failed to fetch manifest: HTTP 404"),
    # A manifest whose text never ends: given up at 256 MiB, not retried.
    "manifest": ({"/data/manifest/version": respond(404, b"{}"),
                  "/data/manifest": endless_body(prefix=b'{"version": 1, "era_number": 1, "files": {')},
                 "ManifestError", f"exceeds {256 * MIB} bytes"),
}


@needs_plain_memory
@pytest.mark.parametrize("routes, error, message", ENDLESS.values(), ids=ENDLESS.keys())
def test_endless_answers_end_at_their_cap_in_bounded_memory(tmp_path, routes, error, message):
    with RawHttpServer(lifetime=240) as srv:
        for path, answer in routes.items():
            srv.route(path, answer)
        outcome = sync_in_child(srv.url(), tmp_path)
        assert (outcome.get("error"), message in outcome.get("message", "")) == (error, True), describe(outcome)
        assert outcome["peak_mib"] < 200, describe(outcome)
        assert [len(srv.requests_for(path)) for path in routes] == [1, 1]


@needs_plain_memory
def test_a_manifest_of_200k_files_is_read_without_copies_of_its_text(tmp_path):
    # A local manifest of another era stops the sync right after the
    # server's manifest is built: what is measured is fetching and parsing
    # it (38 MB of text; read whole, then parsed and copied, it took 230 MiB).
    (tmp_path / "manifest.json").write_text(json.dumps({"version": 1, "era_number": 2, "market_id": 1, "files": {}}))
    with RawHttpServer(lifetime=240) as srv:
        srv.route("/data/manifest/version", respond(404, b"{}"))
        srv.route("/data/manifest", streamed_manifest(200_000))
        outcome = sync_in_child(srv.url(), tmp_path)
    assert outcome.get("error") == "EraError" and "server era_number=1" in outcome["message"], describe(outcome)
    assert outcome["peak_mib"] < 175, describe(outcome)


def test_a_head_trickled_forever_is_an_outage_the_command_line_gives_up_on(tmp_path):
    from tidewright import cli

    sync._set_sync_http_header_deadline_seconds(0.5)
    outcome = {}
    try:
        with RawHttpServer() as srv:
            # Quick lines: the command's diagnosis probe gives up on a head
            # after 100 header lines.
            for path in ("/data/manifest/version", "/data/manifest"):
                srv.route(path, trickled_headers(every=0.01))
            out, err = io.StringIO(), io.StringIO()
            argv = ["sync", "--server", srv.url(), "--data-dir", str(tmp_path), "--token", "t", "--give-up-after", "1"]
            runner = threading.Thread(target=lambda: outcome.update(code=cli.main(argv, stdout=out, stderr=err)),
                                      daemon=True)
            runner.start()
            runner.join(60)  # a hang guard far above the second it takes
            assert not runner.is_alive(), "the command kept waiting for a head that never ends"
    finally:
        sync._set_sync_http_header_deadline_seconds(None)
    assert outcome["code"] == cli.EXIT_UNAVAILABLE, err.getvalue()
    assert "gave up" in err.getvalue()


# -- crafted manifests ---------------------------------------------------------------------


def _sha(data):
    return hashlib.sha256(data).hexdigest()


# (era layout, error) for manifests that must be refused before anything is
# written (every path and collision rule: test_sanitize.py)
CRAFTED_MANIFESTS = {
    "rotation-settings": (dict(extra_files={"rotation-settings.json": ("config", b'{"budget_gb": 0}')}),
                          "names a file the sync engine keeps for itself: 'rotation-settings.json'"),
    "same-file": (dict(extra_files={"y/z.arrow": ("feature", b"one")},
                       entry_overrides={"y/./z.arrow": {"size_bytes": 3, "sha256": _sha(b"two"), "kind": "feature"}}),
                  "name the same local file: 'y/z.arrow' and 'y/./z.arrow'"),
    "version-nan": (dict(manifest_overrides={"version": float("nan")}),
                    "Manifest version must be a non-negative integer: nan"),
    "parent": (dict(entry_overrides={"../outside/evil.arrow": _entry()}), "contains unsafe segments"),
    "nested-parent": (dict(entry_overrides={"features/../../outside/evil.arrow": _entry()}),
                      "contains unsafe segments"),
    "absolute": (lambda outside: dict(entry_overrides={str(outside / "evil.arrow"): _entry()}), "must be relative"),
    "list-files": (dict(manifest_overrides={"files": [FEATURE]}), '"files" must be a JSON object'),
    "text-files": (dict(manifest_overrides={"files": "features"}), '"files" must be a JSON object'),
}


@pytest.mark.parametrize("layout, message", CRAFTED_MANIFESTS.values(), ids=CRAFTED_MANIFESTS.keys())
def test_a_crafted_manifest_is_refused_before_anything_is_written(dataservice_factory, tmp_path, layout, message):
    data = tmp_path / "data"
    data.mkdir()
    svc = dataservice_factory(**(layout(tmp_path / "outside") if callable(layout) else layout))
    (data / "rotation-settings.json").write_bytes(b'{"mine": true}')
    m = manager(svc, data)
    with request_budget(svc), pytest.raises(sync.ManifestError) as info:
        m.sync()
    assert message in str(info.value)
    assert file_requests(svc) == [] and svc.requests_for("/data/shuffle") == []
    assert tree(tmp_path) == {"data/rotation-settings.json": b'{"mine": true}'}
    assert m.get_manifest() is None


@pytest.mark.parametrize("override", [
    lambda digest: {"sha256": f" {digest.upper()}\n"},  # compared stripped and lower-cased everywhere
    lambda digest: {"size_bytes": 2048.0},               # an integral float is the size
], ids=["digest-in-capitals", "size-as-float"])
def test_an_entry_written_differently_is_one_file_for_every_check(svc, tmp_path, override):
    digest = svc.manifest()["files"][FEATURE]["sha256"]
    svc.set_version(entry_overrides={FEATURE: override(digest)})
    m = manager(svc, tmp_path)
    with request_budget(svc):
        result = m.sync()
    assert local_bytes(tmp_path, FEATURE) == svc.file_bytes(None, FEATURE) and result.rejected_files == ()
    assert m.verify().valid and not m.needs_sync()

    svc.clear_requests()
    with request_budget(svc):
        sync.SyncManager(str(tmp_path), svc.url, token=svc.token).sync()  # a new process: the files on disk are current
    assert file_requests(svc) == []

    (tmp_path / FEATURE).write_bytes(b"\0" * 2048)
    assert m.verify().corrupted_files == [FEATURE]
    with request_budget(svc):
        m.repair([FEATURE])
    assert m.verify().valid and local_bytes(tmp_path, FEATURE) == svc.file_bytes(None, FEATURE)


# One entry of each reason (every form an entry is refused in: test_sanitize.py).
@pytest.mark.parametrize("entry, reason", [
    (lambda e: dict(e, sha256="not-a-digest"), "invalid_sha256"),
    (lambda e: dict(e, size_bytes=2047.5), "invalid_size_bytes"),
    (lambda e: [2048], "invalid_entry"),
], ids=["sha256", "size", "entry"])
def test_an_entry_that_cannot_be_synced_is_refused_alone(svc, tmp_path, caplog, entry, reason):
    caplog.set_level(logging.INFO, logger="tidewright.sync")
    files = svc.manifest()["files"]
    files[FEATURE] = entry(files[FEATURE])
    svc.set_version(manifest_overrides={"files": files})
    others = {p: e for p, e in svc.manifest()["files"].items() if p != FEATURE}
    m = manager(svc, tmp_path)
    with request_budget(svc):
        result = m.sync()
    assert result.rejected_files == (FEATURE,)
    assert_in_step(svc, tmp_path, manifest_files=others)
    assert not (tmp_path / FEATURE).exists() and file_requests(svc, FEATURE) == []
    [record] = [r for r in caplog.records
                if getattr(r, "tidewright_sync_event", {}).get("event_type") == "manifest_entry_rejected"]
    assert record.levelno == logging.WARNING
    assert record.tidewright_sync_event["reason"] == reason and record.tidewright_sync_event["file"] == FEATURE
    assert repr(FEATURE) in record.tidewright_sync_event["error"]
    assert m.verify().valid and not m.needs_sync()
    with request_budget(svc):
        assert m.sync().rejected_files == (FEATURE,)


def test_a_manifest_file_named_like_a_staging_file_is_kept(dataservice_factory, tmp_path):
    note = "notes/readme.tmp"
    svc = dataservice_factory(extra_files={note: ("note", b"data, not a staging file")})
    m = manager(svc, tmp_path)
    for publish in (lambda: None, lambda: None, lambda: svc.set_version(touch=[FEATURE])):
        publish()
        with request_budget(svc):
            m.sync()  # the second runs the no-op clean-up, the third the one before a download
        assert local_bytes(tmp_path, note) == b"data, not a staging file"
    assert not m.needs_sync() and m.verify().valid


def test_an_empty_signals_index_pointer_means_no_index(svc, tmp_path):
    svc.set_version(manifest_overrides={"signals_index": ""})
    m, _ = synced(svc, tmp_path)
    assert m.get_manifest().found_signals == {}


def test_two_keys_reaching_one_file_through_a_link_are_not_both_written(dataservice_factory, tmp_path):
    # In manifest order "y/z.arrow" comes first; written through the link,
    # "x/z.arrow" would then replace its bytes.
    svc = dataservice_factory(extra_files={"y/z.arrow": ("feature", b"y" * 200), "x/z.arrow": ("feature", b"x" * 100)})
    (tmp_path / "y").mkdir()
    (tmp_path / "x").symlink_to("y", target_is_directory=True)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.ManifestError) as info:
        m.sync()
    assert str(info.value).startswith("Manifest file path passes through a link inside the data directory: 'x/z.arrow'")
    assert local_bytes(tmp_path, "y/z.arrow") == b"y" * 200
    assert file_requests(svc, "x/z.arrow") == [] and os.path.islink(tmp_path / "x")
