"""Side files and locks of a process killed with SIGKILL in the middle of its work."""

import logging
import os
import signal
import subprocess
import sys
import textwrap
import time

import pytest

import tidewright.sync as sync

REJECTED = "Sync is in era transition mode \u2014 request_for_sync rejected"


def spawn(script, *args):
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(script), *map(str, args)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def wait_until(predicate, child, what, timeout=120.0):
    deadline = time.monotonic() + timeout
    while not predicate():
        assert child.poll() is None, f"the child ended before {what}: {child.communicate()}"
        assert time.monotonic() < deadline, f"no {what} after {timeout} s"
        time.sleep(0.02)


def kill(child):
    child.send_signal(signal.SIGKILL)
    child.communicate(timeout=60)
    assert child.returncode == -signal.SIGKILL


# A transition that stops for good while it holds the lock: its search-killing
# callback signals the parent and sleeps until the process is killed.
TRANSITION_HOLDER = """
    import os, sys, time
    import tidewright.sync as sync
    data_dir, url, token, ready = sys.argv[1:]
    m = sync.SyncManager.get_or_create(data_dir, url, lambda: token, poll_interval_s=3600.0)
    def hold():
        open(ready, "w").close()
        while True:
            time.sleep(1)
    m.trigger_era_transition(2, kill_searches_fn=hold)
"""


def test_transition_lock_of_a_killed_process_is_taken_over(dataservice, data_dir, tmp_path, caplog):
    m = sync.SyncManager.get_or_create(str(data_dir), dataservice.url, lambda: dataservice.token,
                                       poll_interval_s=3600.0)
    m.sync()
    dataservice.publish_era(activate=False)  # the service stays on era 1 for the parent
    ready = tmp_path / "ready"
    child = spawn(TRANSITION_HOLDER, data_dir, dataservice.url, dataservice.token, ready)
    try:
        wait_until(ready.exists, child, "transition lock")
        lock = data_dir / ".transition_lock"
        assert lock.read_text() == str(child.pid)
        m.start()
        # While the holder lives, its lock stands.
        with pytest.raises(sync.StateError) as info:
            m.request_for_sync()
        assert str(info.value) == REJECTED
    finally:
        kill(child)
    assert lock.exists()
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        paths = m.request_for_sync()
    assert paths and not lock.exists()
    warnings = [r.getMessage() for r in caplog.records if "transition lock" in r.getMessage()]
    assert len(warnings) == 1 and str(lock) in warnings[0] and str(child.pid) in warnings[0]
    assert not [n for n in os.listdir(data_dir) if n.startswith(".transition_lock")]
    # The directory is still the old era's, whole.
    assert m.get_manifest().era_number == 1 and m.verify().valid


@pytest.mark.parametrize("content", ["", "not a pid", "-3"])
def test_a_lock_file_without_a_process_id_does_not_block_forever(dataservice, data_dir, content, caplog):
    m = sync.SyncManager.get_or_create(str(data_dir), dataservice.url, lambda: dataservice.token,
                                       poll_interval_s=3600.0)
    m.start()
    (data_dir / ".transition_lock").write_text(content)
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        assert m.request_for_sync() is not None
    assert not (data_dir / ".transition_lock").exists()
    assert any("transition lock" in r.getMessage() for r in caplog.records)


# Registers consumers as fast as it can; every registration rewrites the count.
CONSUMER_CHURN = """
    import sys
    import tidewright.sync as sync
    data_dir, url, token, ready = sys.argv[1:]
    m = sync.SyncManager.get_or_create(data_dir, url, lambda: token, poll_interval_s=3600.0)
    m.acquire()
    open(ready, "w").close()
    while True:
        m.acquire()
"""


def test_consumer_count_is_never_seen_empty_or_partial(dataservice, data_dir, tmp_path):
    ready = tmp_path / "ready"
    count_file = data_dir / ".consumer_count"
    child = spawn(CONSUMER_CHURN, data_dir, dataservice.url, dataservice.token, ready)
    seen = []
    try:
        wait_until(ready.exists, child, "the first consumer")
        for _ in range(20000):
            seen.append(count_file.read_text())
    finally:
        kill(child)
    bad = [text for text in seen if not text.isdigit()]
    assert not bad, f"{len(bad)} of {len(seen)} reads saw {sorted(set(bad))[:3]}"
    assert [int(t) for t in seen] == sorted(int(t) for t in seen)
    # What the killed process left is a whole count that a new manager restores,
    # and its temporary file (if the kill came mid-write) goes; a live writer's stays.
    final = int(count_file.read_text())
    assert final >= int(seen[-1])
    killed_writer = data_dir / f".consumer_count.{child.pid}.1.1.tmp"
    live_writer = data_dir / f".consumer_count.{os.getppid()}.1.1.tmp"
    killed_writer.write_text("7")
    live_writer.write_text("7")
    assert sync.SyncManager(str(data_dir), dataservice.url, token=dataservice.token).consumer_count() == final
    assert [n for n in os.listdir(data_dir) if n.startswith(".consumer_count.")] == [live_writer.name]
