"""Consumers, background threads, cross-process locking and prompt stops."""

import json
import os
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import tidewright.sync as sync

FEATURE = "features/top50/signal_is/px000__ret__lag0__v1.arrow"
NOT_RUNNING = "Sync thread is not running. Call start() or acquire() first."


@pytest.fixture
def data_dir(tmp_path):
    path = tmp_path / "data"
    path.mkdir()
    return path


def manager_for(svc, data_dir, poll_interval_s=3600.0, url=None):
    return sync.SyncManager.get_or_create(str(data_dir), url or svc.url, lambda: svc.token,
                                          poll_interval_s=poll_interval_s)


def wait_for(predicate, timeout=20.0, interval=0.05):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(interval)
    return predicate()


def returns(fn, within=60.0):
    """Whether fn() returns before the watchdog gives up on it (a hang guard,
    not a measure of speed: the figures are in bench/)."""
    done = threading.Event()
    worker = threading.Thread(target=lambda: (fn(), done.set()), daemon=True)
    worker.start()
    return done.wait(within)


def test_consumers_start_the_threads_once_and_the_last_release_stops_and_evicts(dataservice, data_dir):
    m = manager_for(dataservice, data_dir)
    count_file = data_dir / ".consumer_count"
    m.acquire()
    era_thread = m._era_thread
    m.acquire()
    assert m.consumer_count() == 2 and count_file.read_text() == "2"
    assert m._era_thread is era_thread and era_thread.is_alive() and m.is_alive() and m._running
    assert era_thread._poll_interval == 3600.0 and era_thread._market_id == 1
    with pytest.raises(sync.StateError, match="^SyncManager already running$"):
        m.start()

    m.release()
    assert count_file.read_text() == "1" and m.is_alive()
    assert sync.SyncManager._instances == {str(data_dir.resolve()): m}
    m.release()
    assert count_file.read_text() == "0" and m.consumer_count() == 0
    assert not m.is_alive() and not m._running and m._era_thread is None and not era_thread.is_alive()
    assert sync.SyncManager._instances == {}
    m.release()  # nothing left to release
    assert count_file.read_text() == "0" and m.consumer_count() == 0

    # A later consumer gets a fresh instance that restores the count from disk.
    fresh = manager_for(dataservice, data_dir)
    assert fresh is not m and fresh.consumer_count() == 0
    fresh.start()
    assert fresh.is_alive() and fresh._era_thread is None  # the public start polls only
    fresh.stop()
    fresh.stop()
    assert not fresh.is_alive()


def test_request_for_sync_and_report_corruption_refuse_when_not_running(dataservice, data_dir):
    m = manager_for(dataservice, data_dir)
    m.sync()
    with pytest.raises(sync.StateError) as info:
        m.request_for_sync()
    assert str(info.value) == NOT_RUNNING
    with pytest.raises(sync.StateError) as info:
        m.report_corruption(FEATURE)
    assert str(info.value) == NOT_RUNNING

    m.start()
    with pytest.raises(ValueError, match="^File not in manifest: features/nope.arrow$"):
        m.report_corruption("features/nope.arrow")
    # Another process's transition marker is enough to refuse.
    (data_dir / ".transition_lock").write_text(str(os.getppid()))
    with pytest.raises(sync.StateError) as info:
        m.request_for_sync()
    assert str(info.value) == "Sync is in era transition mode \u2014 request_for_sync rejected"
    (data_dir / ".transition_lock").unlink()
    paths = m.request_for_sync()
    assert paths == m._get_found_file_paths() and paths
    kinds = {"found_signal_is_pnl", "found_strategy_is_epoch_pnl"}
    expected = {str(data_dir.resolve() / p) for p, e in m.get_manifest().files.items() if e["kind"] in kinds}
    assert set(paths) == expected
    mtimes = [os.stat(p).st_mtime_ns for p in paths]
    assert mtimes == sorted(mtimes, reverse=True)
    assert not (data_dir / ".sync_flock").exists()


def test_concurrent_requests_for_sync_share_one_sync(dataservice, data_dir):
    svc = dataservice
    m = manager_for(svc, data_dir)
    m.sync()
    m.start()
    assert wait_for(lambda: svc.requests_for("/data/manifest/version"))  # the poll thread's first check
    time.sleep(0.3)
    svc.set_version(touch=[FEATURE])
    svc.add_fault("/data/files/" + FEATURE, "delay", seconds=1.5)
    svc.clear_requests()

    results = {}

    def request(name):
        results[name] = m.request_for_sync()

    first = threading.Thread(target=request, args=("first",))
    first.start()
    assert wait_for(lambda: svc.requests_for("/data/files/" + FEATURE))  # the first sync is downloading
    second = threading.Thread(target=request, args=("second",))
    second.start()
    first.join(30)
    second.join(30)
    assert results["first"] == results["second"] == m._get_found_file_paths()
    assert len(svc.requests_for("/data/manifest")) == 1
    assert len(svc.requests_for("/data/files/" + FEATURE)) == 1
    assert (data_dir / FEATURE).read_bytes() == svc.file_bytes(None, FEATURE)


def test_background_work_keeps_the_directory_current(dataservice, data_dir):
    svc = dataservice
    m = manager_for(svc, data_dir, poll_interval_s=0.2)
    m.sync()
    m.start()
    # The poll thread follows a new manifest version.
    svc.set_version(touch=[FEATURE])
    new_bytes = svc.file_bytes(None, FEATURE)
    assert wait_for(lambda: (data_dir / FEATURE).read_bytes() == new_bytes)
    assert wait_for(lambda: m.get_manifest().version == 2)
    # A corruption report is repaired by a background thread.
    other = "features/top200/signal_is/px001__ret__lag0__v1.arrow"
    (data_dir / other).write_bytes(b"garbage")
    svc.clear_requests()
    m.report_corruption(other)
    assert wait_for(lambda: m.verify().valid)
    assert len(svc.requests_for("/data/files/" + other)) == 1
    m.stop()
    assert not (data_dir / ".sync_flock").exists()


def test_membership_is_read_from_python_threads_while_syncs_run(dataservice, data_dir):
    # Also run under `make tsan`: a manifest once handed out is never changed
    # by the no-op syncs, the poll thread's checks or a commit.
    svc = dataservice
    m = manager_for(svc, data_dir, poll_interval_s=0.01)
    m.sync()
    manifest = m.get_manifest()
    expected = (manifest.found_signals, manifest.found_strategies, manifest.useful_signals)
    assert all(expected)
    stop = threading.Event()
    reads = []

    def read():
        seen = []
        while not stop.is_set():
            current = m.get_manifest()
            seen.append((current.found_signals, current.found_strategies, current.useful_signals) == expected)
        reads.append(seen)

    readers = [threading.Thread(target=read) for _ in range(2)]
    m.start()  # the poll thread asks needs_sync() again and again
    for reader in readers:
        reader.start()
    try:
        for round_ in range(10):
            if round_ == 5:
                svc.set_version(touch=[FEATURE])  # one of the syncs commits a new manifest
            m.sync()
            assert not m.needs_sync()
    finally:
        stop.set()
        for reader in readers:
            reader.join()
        m.stop()
    assert len(reads) == 2 and all(seen and all(seen) for seen in reads)
    assert m.get_manifest().version == 2


@pytest.mark.parametrize("outage", ["stalled transfer", "server down"])
@pytest.mark.parametrize("how", ["release", "stop"])
def test_stopping_is_prompt_during_an_outage(dataservice, data_dir, outage, how):
    svc = dataservice
    url = svc.url
    if outage == "stalled transfer":
        svc.add_fault("/data/files/*", "stall", count=None, after_bytes=100)
    else:
        url = "http://127.0.0.1:9"  # nothing listens there
    m = manager_for(svc, data_dir, poll_interval_s=0.2, url=url)
    if how == "release":
        m.acquire()
    else:
        m.start()
    if outage == "stalled transfer":
        assert wait_for(lambda: svc.requests_for("/data/files/*"))
    else:
        time.sleep(1.0)  # into the retries
    assert returns(m.release if how == "release" else m.stop)
    assert not m.is_alive() and not m._in_transition
    assert not (data_dir / ".sync_flock").exists()


def test_interpreter_exit_with_an_acquired_manager(dataservice, data_dir, tmp_path):
    svc = dataservice
    svc.add_fault("/data/files/*", "stall", count=None, after_bytes=100)
    go = tmp_path / "exit-now"
    child = subprocess.Popen([sys.executable, "-c", textwrap.dedent("""
        import os, sys, time
        import tidewright.sync as sync
        m = sync.SyncManager.get_or_create(sys.argv[1], sys.argv[2], lambda: sys.argv[3], poll_interval_s=0.2)
        m.acquire()
        while not os.path.exists(sys.argv[4]):
            time.sleep(0.02)
    """), str(data_dir), svc.url, svc.token, str(go)], stderr=subprocess.PIPE, text=True)
    try:
        assert wait_for(lambda: any(r.fault == "stall" for r in svc.requests_for("/data/files/*")))
    finally:
        go.touch()  # the interpreter now exits with the manager acquired and a transfer stalled
        _, err = child.communicate(timeout=60)
    assert child.returncode == 0, err


SYNC_CHILD = """
    import json, sys
    import tidewright.sync as sync
    m = sync.SyncManager.get_or_create(sys.argv[1], sys.argv[2], lambda: sys.argv[3])
    result = m.sync()
    verified = m.verify()
    print(json.dumps({"era": result.era_number, "valid": verified.valid,
                      "bad": verified.corrupted_files + verified.missing_files}))
"""


@pytest.mark.parametrize("processes", [2, 4])
def test_processes_syncing_one_directory(dataservice_factory, data_dir, processes):
    svc = dataservice_factory(features=24, feature_bytes=64 * 1024)
    children = [subprocess.Popen([sys.executable, "-c", textwrap.dedent(SYNC_CHILD), str(data_dir), svc.url,
                                  svc.token], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                for _ in range(processes)]
    for child in children:
        out, err = child.communicate(timeout=120)
        assert child.returncode == 0, err
        assert json.loads(out) == {"era": 1, "valid": True, "bad": []}
    for path in svc.manifest()["files"]:
        assert (data_dir / path).read_bytes() == svc.file_bytes(None, path)
    assert not (data_dir / ".sync_flock").exists()


LOCK_CHILD = """
    import os, sys, time
    import tidewright.sync as sync
    data_dir, role, hold = sys.argv[1], sys.argv[2], float(sys.argv[3])
    signals = os.path.join(data_dir, "..", "signals")
    def wait(name):
        while not os.path.exists(os.path.join(signals, name)):
            time.sleep(0.002)
    def mark(name):
        open(os.path.join(signals, name), "w").close()
    m = sync.SyncManager(data_dir, "http://127.0.0.1:9", lambda: "t")
    wait("go-" + role)
    m._acquire_flock()
    try:
        fd = os.open(os.path.join(signals, "inside"), os.O_CREAT | os.O_EXCL | os.O_WRONLY)  # fails on overlap
        mark("in-" + role)
        time.sleep(hold)
        os.close(fd)
        os.unlink(os.path.join(signals, "inside"))
    finally:
        m._release_flock()
    mark("out-" + role)
"""


@pytest.mark.parametrize("round_", range(3))
def test_lock_holder_waiter_and_newcomer_never_overlap(tmp_path, data_dir, round_):
    signals = tmp_path / "signals"
    signals.mkdir()

    def spawn(role, hold):
        return subprocess.Popen([sys.executable, "-c", textwrap.dedent(LOCK_CHILD), str(data_dir), role, str(hold)],
                                stderr=subprocess.PIPE, text=True)

    holder, waiter, newcomer = spawn("holder", 1.0), spawn("waiter", 0.3), spawn("newcomer", 0.3)
    (signals / "go-holder").touch()
    assert wait_for(lambda: (signals / "in-holder").exists())
    (signals / "go-waiter").touch()  # blocks on the holder's lock file
    time.sleep(0.3)
    # The newcomer arrives the moment the holder has released (and removed)
    # the lock file, while the waiter still holds a descriptor of the old one.
    assert wait_for(lambda: (signals / "out-holder").exists())
    (signals / "go-newcomer").touch()
    for child in (holder, waiter, newcomer):
        _, err = child.communicate(timeout=60)
        assert child.returncode == 0, err
    assert {p.name for p in signals.iterdir()} >= {"out-holder", "out-waiter", "out-newcomer"}
    assert not (data_dir / ".sync_flock").exists()
