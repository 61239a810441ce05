"""Sync through a misbehaving data service: transient statuses, refusals,
broken bodies and ranges, resumed downloads, and manifests that move on while
files download. Every scripted fault ends with correct files or a typed error."""

import logging
import os

import pytest

import tidewright.auth
import tidewright.sync as sync
from sync_helpers import (BIG, BIG_BYTES, CHUNK, FEATURE, assert_in_step, body_bytes_served, file_requests,
                          local_bytes, manager, range_starts, request_budget, tmp_files, tree)

pytestmark = pytest.mark.usefixtures("instant_backoff")

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


@pytest.mark.parametrize("path", ["/data/manifest", BIG_URL_PATH])
def test_a_refused_retry_ends_the_sync_with_sync_unavailable(svc, tmp_path, path):
    svc.add_fault(path, "status", status=503, retryable=False, count=None)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.SyncUnavailableError) as info:
        m.sync()
    assert info.value.retryable is False and info.value.statuses == [503]
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
    "wrong-content-range": (dict(kind="bad_content_range", skip=1),
                            [0, CHUNK, CHUNK, 2 * CHUNK, 3 * CHUNK], BIG_BYTES + CHUNK),
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


def test_partial_download_resumes_in_the_next_sync(svc, tmp_path):
    orphan = tmp_path / "features" / "top200" / "gone.arrow.tmp"
    orphan.parent.mkdir(parents=True)
    orphan.write_bytes(b"left by a file no manifest lists")
    svc.add_fault(BIG_URL_PATH, "truncate", after_bytes=10_000)
    svc.add_fault(BIG_URL_PATH, "status", status=400)  # permanent: ends this sync
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError):
        m.sync()
    assert os.path.getsize(tmp_path / (BIG + ".tmp")) == 10_000

    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)
    assert range_starts(svc, BIG)[2] == 10_000
    assert body_bytes_served(svc, BIG) == BIG_BYTES
    assert not orphan.exists()


def test_partial_download_of_a_file_changed_since_starts_over(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "truncate", after_bytes=10_000)
    svc.add_fault(BIG_URL_PATH, "status", status=400)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError):
        m.sync()
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


def test_leftover_staging_file_that_is_not_a_prefix_is_replaced(svc, tmp_path):
    staging = tmp_path / (BIG + ".tmp")
    staging.parent.mkdir(parents=True)
    staging.write_bytes(b"\0" * 5_000)
    synced(svc, tmp_path)
    # Resumed from its length; the digest then fails and the file starts over.
    assert range_starts(svc, BIG) == [5_000, 5_000 + CHUNK, 5_000 + 2 * CHUNK, 0, CHUNK, 2 * CHUNK, 3 * CHUNK]


def test_file_without_size_in_the_manifest_ends_at_the_served_length(dataservice_factory, tmp_path):
    # 2 * CHUNK bytes: the chunk loop must not ask past the end for ever.
    svc = dataservice_factory(large_file_bytes=2 * CHUNK, entry_overrides={BIG: {"size_bytes": None}})
    m, result = synced(svc, tmp_path)
    assert len(local_bytes(tmp_path, BIG)) == 2 * CHUNK
    assert body_bytes_served(svc, BIG) == 2 * CHUNK
    assert not m.needs_sync()


@pytest.mark.parametrize("path", ["/data/manifest/version", "/data/manifest", BIG_URL_PATH, "/data/shuffle"])
def test_401_is_an_auth_error(svc, tmp_path, path):
    svc.add_fault(path, "status", status=401, count=None)
    m = manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(tidewright.auth.AuthError, match="HTTP 401"):
        m.sync()
    assert len(svc.requests_for(path)) == 1
    assert m.get_manifest() is None and not (tmp_path / "manifest.json").exists()


def test_one_failing_worker_stops_the_queued_downloads(dataservice_factory, tmp_path):
    svc = dataservice_factory(features=64)
    svc.add_fault("/data/files/functions.json", "status", status=404, count=None)  # first in the download set
    m = manager(svc, tmp_path, sync_max_concurrency=2)
    with request_budget(svc), pytest.raises(sync.PermanentDownloadError, match="functions.json: HTTP 404"):
        m.sync()
    assert len(file_requests(svc)) < len(svc.manifest()["files"]) // 2


def _bump(svc, touch=(BIG,)):
    return lambda: svc.set_version(touch=list(touch))


def test_manifest_superseded_mid_download_restarts_with_the_new_manifest(svc, tmp_path, caplog):
    caplog.set_level(logging.WARNING, logger="tidewright.sync")
    svc.on_request(BIG_URL_PATH, _bump(svc), after=2)  # the second chunk already has the new bytes
    m, _ = synced(svc, tmp_path)
    assert m.get_manifest().version == 2
    assert "restarting download set (1/3)" in caplog.text
    assert len(svc.requests_for("/data/manifest")) == 2


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
    svc.add_fault("/data/manifest", "delay", seconds=1.0)
    svc.add_fault(BIG_URL_PATH, "slow", bytes_per_second=256 * 1024, count=None)
    synced(svc, tmp_path)
    assert len(svc.requests_for("/data/manifest")) == 1
    assert range_starts(svc, BIG) == [0, CHUNK, 2 * CHUNK, 3 * CHUNK]


def test_a_body_that_stalls_past_the_no_progress_timeout_is_resumed(svc, tmp_path):
    # The service sends 1000 bytes of the second chunk and then nothing: the
    # transfer ends after the no-progress timeout and resumes after them.
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


# A new version of BIG is published; its download is then refused. The error
# names the cause and the data directory is the one of version 1.
MID_SYNC_FAILURES = {
    "file-401": (lambda svc, keyring: svc.add_fault(BIG_URL_PATH, "status", status=401, count=None),
                 tidewright.auth.AuthError, f"Authentication failed while downloading {BIG}: HTTP 401"),
    "token-source-fails": (lambda svc, keyring: svc.on_request("/data/manifest", keyring.lock),
                           PermissionError, "keyring locked"),
    "manifest-not-json": (lambda svc, keyring: svc.add_fault("/data/manifest", "status", status=200, body="<html>"),
                          sync.ManifestError, "Invalid manifest JSON: "),
}


@pytest.mark.parametrize("break_sync, error, message", MID_SYNC_FAILURES.values(), ids=MID_SYNC_FAILURES.keys())
def test_a_sync_refused_half_way_leaves_the_previous_state(svc, tmp_path, break_sync, error, message):
    keyring = _Keyring(svc.token)
    m = sync.SyncManager(str(tmp_path), svc.url, keyring, sync_http_chunk_bytes=CHUNK)
    with request_budget(svc):
        m.sync()
    before = tree(tmp_path)
    svc.set_version(touch=[BIG])
    break_sync(svc, keyring)
    with request_budget(svc), pytest.raises(error) as info:
        m.sync()
    assert str(info.value).startswith(message)
    # Only the staging file and the progress report of the failed run are new.
    after = tree(tmp_path)
    assert {p: b for p, b in after.items() if p in before} == before
    assert set(after) - set(before) <= {BIG + ".tmp", "sync-progress.json"}
    assert m.get_manifest().version == 1 and m.verify().valid

    svc.clear_faults()
    keyring.locked = False
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, tmp_path)
    assert m.get_manifest().version == 2
