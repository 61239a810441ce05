"""A file larger than one range, fetched as several ranges at once: faults in
one range leave the others alone, a server that ignores ranges still gets its
file across, a checksum still covers every byte, a stop ends every range, and
a kill leaves ranges in flight beyond the prefix to be resumed, not fetched
again."""

import os
import signal
import subprocess
import sys
import textwrap

import pytest

import tidewright.sync as sync
from sync_helpers import (BIG, BIG_BYTES, CHUNK, assert_in_step, body_bytes_served, file_requests, local_bytes,
                          manager, range_starts, request_budget, tmp_files, wait_for)
from tidewright.sync_backoff import SyncBackoffCancelled

BIG_URL_PATH = "/data/files/" + BIG
WORKERS = 4
BOUNDARIES = list(range(0, BIG_BYTES, CHUNK))  # BIG is four ranges of CHUNK


@pytest.fixture
def svc(dataservice_factory):
    return dataservice_factory(large_file_bytes=BIG_BYTES)


def parallel_manager(svc, data_dir, **knobs):
    knobs.setdefault("sync_max_concurrency", WORKERS)
    return manager(svc, data_dir, **knobs)


def synced(svc, data_dir, **knobs):
    m = parallel_manager(svc, data_dir, **knobs)
    with request_budget(svc):
        result = m.sync()
    assert_in_step(svc, data_dir)
    return m, result


def range_length(record):
    first, last = (int(n) for n in record.range.split("=")[1].split("-"))
    return min(last, BIG_BYTES - 1) - first + 1


def faulted_range(svc, kind):
    [record] = [r for r in file_requests(svc, BIG) if r.fault == kind]
    return int(record.range.split("=")[1].split("-")[0]), record.bytes_sent


@pytest.mark.parametrize("fault", [
    dict(kind="truncate", after_bytes=1000),
    dict(kind="reset", after_bytes=2_000),  # within the shortest range (the last)
    dict(kind="status", status=503),
])
# Public files are fetched without the retries of authenticated requests: the
# range's own loop retries them.
@pytest.mark.parametrize("public_files", [False, True], ids=["authenticated", "public"])
def test_a_range_failing_mid_file_is_retried_alone(dataservice_factory, tmp_path, fault, public_files):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES, public_files=public_files)
    svc.add_fault(BIG_URL_PATH, skip=2, **fault)
    _, result = synced(svc, tmp_path)
    start, sent = faulted_range(svc, fault["kind"])
    starts = range_starts(svc, BIG)
    # The other ranges are asked for once; the failed one goes on from what
    # arrived of it (a reset may take some of what was sent with it).
    assert sorted(s for s in starts if s in BOUNDARIES and s != start) == [b for b in BOUNDARIES if b != start]
    retry = [s for s in starts if start <= s < start + CHUNK][1:]
    assert retry and start <= retry[0] <= start + sent
    assert body_bytes_served(svc, BIG) <= BIG_BYTES + sent
    assert result.bytes_downloaded >= BIG_BYTES


@pytest.mark.parametrize("count", [1, None], ids=["once", "always"])
def test_a_server_that_answers_200_to_a_range_still_delivers_the_file(svc, tmp_path, count):
    svc.add_fault(BIG_URL_PATH, "ignore_range", skip=1, count=count)
    synced(svc, tmp_path)
    answers = [r.status for r in file_requests(svc, BIG)]
    assert 200 in answers
    if count is None:
        # The file then comes in one stream: its last request is a whole body.
        assert answers[-1] == 200 and file_requests(svc, BIG)[-1].bytes_sent == BIG_BYTES


def test_a_checksum_mismatch_on_a_parallel_fetched_file_fetches_it_again(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "corrupt", skip=2)
    synced(svc, tmp_path)
    assert local_bytes(tmp_path, BIG) == svc.file_bytes(None, BIG)
    assert body_bytes_served(svc, BIG) == 2 * BIG_BYTES


def test_a_file_that_keeps_failing_its_checksum_is_never_promoted(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "corrupt", count=None, offset=CHUNK + 7)
    m = parallel_manager(svc, tmp_path)
    with request_budget(svc), pytest.raises(sync.IntegrityError, match=f"^Checksum failure for {BIG}"):
        m.sync()
    assert not os.path.exists(tmp_path / BIG)


def test_a_stop_during_parallel_ranges_ends_them_and_the_next_sync_keeps_their_bytes(svc, tmp_path, in_background):
    svc.add_fault(BIG_URL_PATH, "slow", count=None, bytes_per_second=20_000)
    m = parallel_manager(svc, tmp_path)
    running = in_background(lambda: m.sync())
    assert wait_for(lambda: sum(1 for r in file_requests(svc, BIG) if r.bytes_sent > 0) >= 2)
    m.start()  # its poll finds the sync running and leaves it alone
    m.stop()
    with pytest.raises(SyncBackoffCancelled):
        running.result(timeout=30)
    # Ranges were cut short together: one stream has one open request at most.
    assert sum(1 for r in file_requests(svc, BIG) if 0 < r.bytes_sent < range_length(r)) >= 2
    first = body_bytes_served(svc, BIG)
    svc.clear_faults()
    m2 = parallel_manager(svc, tmp_path)
    with request_budget(svc):
        m2.sync()
    assert_in_step(svc, tmp_path)
    # Ranges stopped half-way resume where they stood.
    assert any(s not in BOUNDARIES for s in range_starts(svc, BIG))
    assert body_bytes_served(svc, BIG) - first < BIG_BYTES


KILLED_SYNC = textwrap.dedent("""
    import sys
    import tidewright.sync as sync
    data_dir, url, token, chunk, workers = sys.argv[1:6]
    sync.SyncManager(data_dir, url, token=token, sync_http_chunk_bytes=int(chunk),
                     sync_max_concurrency=int(workers)).sync()
""")


def test_kill_with_ranges_in_flight_beyond_the_prefix_loses_only_what_was_in_the_sockets(svc, tmp_path):
    svc.add_fault(BIG_URL_PATH, "slow", count=None, bytes_per_second=20_000)
    child = subprocess.Popen([sys.executable, "-c", KILLED_SYNC, str(tmp_path), svc.url, svc.token, str(CHUNK),
                              str(WORKERS)])
    try:
        # Ranges beyond the first have bytes on their way.
        assert wait_for(lambda: sum(1 for r in file_requests(svc, BIG)
                                    if r.bytes_sent > 0 and r.range and not r.range.startswith("bytes=0-")) >= 2)
        assert wait_for(lambda: sum(r.bytes_sent for r in file_requests(svc, BIG)) > BIG_BYTES // 4)
    finally:
        child.send_signal(signal.SIGKILL)
        child.wait()
    assert tmp_files(tmp_path) == [BIG + ".tmp"]
    sent_before = body_bytes_served(svc, BIG)
    requests_before = len(file_requests(svc, BIG))
    svc.clear_faults()
    synced(svc, tmp_path)
    resumed = [r for r in file_requests(svc, BIG)[requests_before:]]
    assert any(int(r.range.split("=")[1].split("-")[0]) not in BOUNDARIES for r in resumed)
    # Fetched again: only what was still in the sockets when the child died
    # (a slow child leaves more there). Keeping the prefix alone would fetch
    # again what three of the four ranges had received.
    refetched = body_bytes_served(svc, BIG) - BIG_BYTES
    assert refetched < sent_before // 2
