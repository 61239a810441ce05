"""Sync while the data service is away: restarted under a running download,
or not listening at all. Each ends with correct files, or with a typed error and the previous state
kept, and the next sync after the service is back completes."""

import os
import threading

import pytest

from sync_helpers import (BIG, BIG_BYTES, CHUNK, FEATURE, assert_in_step, body_bytes_served, range_starts,
                          request_budget, sequential_manager as manager, stop_when, tree, wait_for)
from tidewright.sync_backoff import SyncBackoffCancelled, SyncBackoffPolicy, backoff_context

BIG_URL_PATH = "/data/files/" + BIG


@pytest.fixture
def svc(dataservice_factory):
    return dataservice_factory(large_file_bytes=BIG_BYTES)


@pytest.fixture
def backoff_waits(monkeypatch):
    """Attempt indices the backoff policy was asked for, per thread; the waits are short."""
    asked = []

    def delay_seconds(cls, attempt_index):
        asked.append((threading.get_ident(), attempt_index))
        return 0.01

    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(delay_seconds))
    return asked


def budgeted_sync(svc, m):
    with request_budget(svc):
        return m.sync()


@pytest.mark.parametrize("broken_by", ["service restart", "manager stop"])
def test_a_stalled_download_broken_off_is_resumed_where_it_broke_off(svc, tmp_path, backoff_waits, in_background,
                                                                     broken_by):
    # The second chunk of the large file hangs after 1000 bytes.
    svc.add_fault(BIG_URL_PATH, "stall", skip=1, after_bytes=1000)
    m = manager(svc, tmp_path)
    running = in_background(budgeted_sync, svc, m)
    assert wait_for(lambda: any(r.fault == "stall" and r.bytes_sent == 1000 for r in svc.requests_for(BIG_URL_PATH)))
    if broken_by == "service restart":
        svc.restart()
        running.result(timeout=60)  # the same sync goes on
    else:
        m.start()  # its poll finds the sync running and leaves it alone
        m.stop()  # does not wait for the stalled transfer
        with pytest.raises(SyncBackoffCancelled):
            running.result(timeout=30)
        assert not m.is_alive() and m.get_manifest() is None
        assert os.path.getsize(tmp_path / (BIG + ".tmp")) == CHUNK + 1000
        budgeted_sync(svc, m)
    assert_in_step(svc, tmp_path)
    # The 1000 bytes received before are kept: nothing is sent twice.
    assert range_starts(svc, BIG)[:3] == [0, CHUNK, CHUNK + 1000]
    assert body_bytes_served(svc, BIG) == BIG_BYTES


@pytest.mark.parametrize("stopped_by", ["backoff context", "manager stop"])
def test_nothing_listening_is_retried_until_stopped_and_the_next_sync_completes(svc, tmp_path, backoff_waits,
                                                                                in_background, stopped_by):
    m = manager(svc, tmp_path)
    budgeted_sync(svc, m)
    before = tree(tmp_path)
    svc.stop()
    svc.set_version(touch=[FEATURE])

    if stopped_by == "backoff context":
        with backoff_context(stop_requested=stop_when(lambda: len(backoff_waits) >= 6)), pytest.raises(SyncBackoffCancelled):
            m.sync()
        assert [attempt for _, attempt in backoff_waits] == list(range(6))  # one retry loop, still going
    else:
        m.start()  # the poll thread meets the outage too
        running = in_background(m.sync)
        assert wait_for(lambda: len(backoff_waits) >= 6)
        m.stop()
        with pytest.raises(SyncBackoffCancelled):
            running.result(timeout=30)
        assert not m.is_alive()
    assert tree(tmp_path) == before
    assert m.get_manifest().version == 1

    svc.start()  # the same port
    budgeted_sync(svc, m)
    assert_in_step(svc, tmp_path)
    assert m.get_manifest().version == 2
