"""Consumers, background threads, cross-process locking and prompt stops."""

import gc
import json
import logging
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import textwrap
import threading
import time
import weakref

import pytest

import tidewright.sync as sync
from sync_helpers import FOUND_PNL_KINDS, wait_for

FEATURE = "features/top50/signal_is/px000__ret__lag0__v1.arrow"
NOT_RUNNING = "Sync thread is not running. Call start() or acquire() first."


def manager_for(svc, data_dir, poll_interval_s=3600.0, url=None):
    return sync.SyncManager.get_or_create(str(data_dir), url or svc.url, lambda: svc.token,
                                          poll_interval_s=poll_interval_s)


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
    assert m._era_thread is era_thread and era_thread.is_alive() and m.is_alive()
    with pytest.raises(sync.StateError, match="^SyncManager already running$"):
        m.start()

    m.release()
    assert count_file.read_text() == "1" and m.is_alive()
    assert sync.SyncManager._instances == {str(data_dir.resolve()): m}
    m.release()
    assert count_file.read_text() == "0" and m.consumer_count() == 0
    assert not m.is_alive() and not era_thread.is_alive()
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


# What a consumer asks of the manager's threads: refused until they run, and
# (but for a corruption report) while another process's era transition holds
# the directory.
CONSUMER_CALLS = {
    "request_for_sync": lambda m: m.request_for_sync(),
    "request_feature_files_for_sync": lambda m: m.request_feature_files_for_sync(["px000__ret__lag0__v1"]),
    "report_corruption": lambda m: m.report_corruption(FEATURE),
}


@pytest.mark.parametrize("name", CONSUMER_CALLS)
def test_consumer_calls_refuse_until_the_threads_run_and_during_a_transition(dataservice, data_dir, name):
    call = CONSUMER_CALLS[name]
    m = manager_for(dataservice, data_dir)
    m.sync()
    with pytest.raises(sync.StateError) as info:
        call(m)
    assert str(info.value) == NOT_RUNNING

    m.start()
    if name != "report_corruption":
        (data_dir / ".transition_lock").write_text(str(os.getppid()))  # a live holder
        with pytest.raises(sync.StateError) as info:
            call(m)
        assert str(info.value) == f"Sync is in era transition mode \u2014 {name} rejected"
        (data_dir / ".transition_lock").unlink()
        call(m)
        assert not (data_dir / ".sync_flock").exists()  # the sync it ran is over
    else:
        with pytest.raises(ValueError, match="^File not in manifest: features/nope.arrow$"):
            m.report_corruption("features/nope.arrow")
        m.report_corruption(FEATURE)


def test_request_for_sync_answers_the_found_pnl_files_it_downloaded(dataservice, data_dir):
    svc = dataservice
    m = manager_for(svc, data_dir)
    m.start()
    found = sorted(p for p, e in svc.manifest()["files"].items() if e["kind"] in FOUND_PNL_KINDS)
    # The poll thread's first check may have brought them already; else this request does: all of them either way.
    assert sorted(m.request_for_sync()) == [str(data_dir.resolve() / p) for p in found] and len(found) >= 3

    # After a new version (the poll thread waits an hour now): exactly the ones it brought, newest first.
    svc.set_version(touch=found[:2])
    paths = m.request_for_sync()
    assert sorted(paths) == [str(data_dir.resolve() / p) for p in found[:2]]
    assert [os.stat(p).st_mtime_ns for p in paths] == sorted((os.stat(p).st_mtime_ns for p in paths), reverse=True)
    for path in found[:2]:
        assert (data_dir / path).read_bytes() == svc.file_bytes(None, path)


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


def test_a_caller_asked_to_stop_leaves_a_shared_sync_it_waits_for(dataservice, data_dir):
    from tidewright.sync_backoff import backoff_context

    svc = dataservice
    m = manager_for(svc, data_dir)
    m.start()
    svc.add_fault("/data/files/" + FEATURE, "stall", count=None)
    first = threading.Thread(target=lambda: pytest.raises(Exception, m.request_for_sync), daemon=True)
    first.start()
    assert wait_for(lambda: svc.requests_for("/data/files/" + FEATURE))  # the first sync is stuck downloading
    leave = threading.Event()
    returned = []

    def second():
        with backoff_context(surface="search", stop_requested=leave.is_set):
            returned.append(m.request_for_sync())

    waiter = threading.Thread(target=second, daemon=True)
    waiter.start()
    leave.set()
    waiter.join(10)
    assert returned == [[]] and first.is_alive()  # it went on with what is on disk; the sync still runs
    m.stop()
    first.join(30)
    assert not first.is_alive()


def test_a_corruption_report_is_repaired_by_a_background_thread(dataservice, data_dir):
    # (the poll thread following new versions: the next test)
    svc = dataservice
    m = manager_for(svc, data_dir)
    m.sync()
    m.start()
    other = "features/top200/signal_is/px001__ret__lag0__v1.arrow"
    (data_dir / other).write_bytes(b"garbage")
    svc.clear_requests()
    m.report_corruption(other)
    assert wait_for(lambda: m.verify().valid)
    assert len(svc.requests_for("/data/files/" + other)) == 1
    m.stop()
    assert not (data_dir / ".sync_flock").exists()


@pytest.mark.parametrize("break_service, error", [
    (lambda svc: svc.add_fault("/data/manifest", "status", status=404, count=None), "HTTP 404"),
    (lambda svc: svc.set_version(manifest_overrides={"era_number": 2}), "Era mismatch"),
    (lambda svc: svc.set_version(entry_overrides={"../outside.bin": {"size_bytes": 4, "sha256": "0" * 64}}),
     "outside.bin"),
], ids=["manifest refused", "another era's manifest", "hostile manifest"])
def test_the_poll_thread_survives_failed_syncs_and_catches_up_afterwards(dataservice, data_dir, caplog, break_service,
                                                                         error):
    svc = dataservice
    m = manager_for(svc, data_dir, poll_interval_s=0.05)
    m.sync()
    svc.set_version(touch=[FEATURE])
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        break_service(svc)
        m.start()
        assert wait_for(lambda: sum(error in r.getMessage() for r in caplog.records) >= 2), caplog.text
    assert m.is_alive() and m.get_manifest().version == 1
    assert json.loads((data_dir / "manifest.json").read_text())["version"] == 1
    assert not (data_dir.parent / "outside.bin").exists()

    svc.clear_faults()
    version = svc.set_version(manifest_overrides={}, entry_overrides={})
    assert wait_for(lambda: m.get_manifest().version == version)
    assert (data_dir / FEATURE).read_bytes() == svc.file_bytes(None, FEATURE)
    assert m.verify().valid


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


def kernel_thread_name(native_id=None):
    try:
        with open(f"/proc/self/task/{native_id or threading.get_native_id()}/comm", encoding="utf-8") as handle:
            return handle.read().strip()
    except FileNotFoundError:
        return ""  # a short-lived thread (a token helper) that ended meanwhile


def test_engine_threads_are_named_for_the_kernel_and_for_the_host(dataservice, data_dir, caplog):
    svc = dataservice
    seen = {}  # host name -> kernel name, recorded on the engine's threads
    lock = threading.Lock()

    def record():
        with lock:
            seen.setdefault(threading.current_thread().name, kernel_thread_name())

    def token():
        record()
        return svc.token

    class Record(logging.Handler):
        def emit(self, record_):
            if record_.getMessage().startswith("Old era cleanup completed"):
                record()

    m = sync.SyncManager.get_or_create(str(data_dir), svc.url, token, poll_interval_s=3600.0,
                                       sync_max_concurrency=2)
    m.sync()  # two download workers
    m.acquire()  # the poll thread and the era thread poll at once
    assert {"tw-sync-poll", "tw-sync-era"} <= {kernel_thread_name(t) for t in os.listdir("/proc/self/task")}
    caplog.set_level(logging.INFO, logger="tidewright.sync")
    logger = logging.getLogger("tidewright.sync")
    handler = Record()
    logger.addHandler(handler)
    try:
        m._schedule_cleanup_old_eras()
        assert wait_for(lambda: {"tw-sync-poll", "tw-sync-era", "tidewright-sync-cleanup"} <= set(seen))
    finally:
        logger.removeHandler(handler)
        m.release()
    workers = {name for name in seen if name.startswith("tw-sync_")}
    assert workers and workers <= {"tw-sync_0", "tw-sync_1"}
    # (the token of the sync called here is asked on a helper of the main thread)
    assert {name: kernel for name, kernel in seen.items() if name.startswith(("tw-", "tidewright-"))} == {
        **{name: name for name in workers}, "tw-sync-poll": "tw-sync-poll", "tw-sync-era": "tw-sync-era",
        "tidewright-sync-cleanup": "tw-sync-cleanup"}


def test_a_stop_from_the_poll_thread_itself(dataservice, data_dir):
    svc = dataservice
    seen = {}
    stopped = threading.Event()

    def token():
        if threading.current_thread().name == "tw-sync-poll" and not stopped.is_set():
            m.stop()  # from a callback of the poll thread's own poll
            seen.update(alive=m.is_alive(), running=m._running, thread=threading.get_native_id())
            stopped.set()
        return svc.token

    m = sync.SyncManager.get_or_create(str(data_dir), svc.url, token, poll_interval_s=3600.0)
    m.start()
    assert stopped.wait(60)
    assert (seen["alive"], seen["running"]) == (False, False)  # the thread is no longer the manager's
    assert wait_for(lambda: not os.path.exists(f"/proc/self/task/{seen['thread']}"))  # it ends after its poll
    m.start()
    assert m.is_alive()
    m.stop()
    assert not m.is_alive()


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


README = pathlib.Path(__file__).resolve().parents[1] / "README.md"


def readme_library_example(data_dir, url):
    """The library example of the README, against a local service, logging to stdout."""
    section = README.read_text(encoding="utf-8").split("## Using the library", 1)[1]
    example = section.split("```python\n", 1)[1].split("```", 1)[0]
    for placeholder, value in [('"tidewright-data"', repr(str(data_dir))), ('"https://data.example.com"', repr(url)),
                               ("logging.basicConfig(level=logging.INFO)",
                                "logging.basicConfig(level=logging.INFO, stream=sys.stdout)"),
                               ('Path("~/.tidewright-token").expanduser().read_text().strip()', "sys.argv[1]")]:
        assert placeholder in example
        example = example.replace(placeholder, value)
    return "import sys\n" + example


# Each ends with the manager held in a module global, referred to by the
# callables the engine holds.
EXIT_CHILDREN = {
    "README example": readme_library_example,
    "callbacks after release": lambda data_dir, url: textwrap.dedent(f"""
        import sys
        import tidewright.sync as sync

        manager = sync.SyncManager.get_or_create({str(data_dir)!r}, {url!r}, lambda: sys.argv[1])
        manager.acquire()

        def on_era(event_type, era_number):
            manager.status()

        manager.register_era_callback(on_era)
        manager.set_progress_callback(lambda progress: manager.status())
        manager.runtime_freshness_guard = manager
        manager.release()
    """),
    "still acquired": lambda data_dir, url: textwrap.dedent(f"""
        import sys
        import tidewright.sync as sync

        manager = sync.SyncManager.get_or_create({str(data_dir)!r}, {url!r}, lambda: sys.argv[1])
        manager.sync()
        manager.acquire()
        manager.register_era_callback(lambda event_type, era_number: manager.status())
        held = manager.get_manifest()
        unregistered = sync.SyncManager({str(data_dir)!r}, {url!r}, token="t")
    """),
    "era thread of a stand-in manager": lambda data_dir, url: textwrap.dedent(f"""
        import sys
        import tidewright.sync as sync

        class Manager:
            def trigger_era_transition(self, **fields):
                pass

        manager = Manager()
        manager.thread = sync.EraThread({url!r}, lambda: sys.argv[1], manager, era_poll_interval_s=3600.0)
        manager.thread.start()
    """),
}


@pytest.mark.parametrize("child", sorted(EXIT_CHILDREN))
def test_an_interpreter_exits_cleanly_with_managers_in_module_globals(dataservice, data_dir, child):
    script = EXIT_CHILDREN[child](data_dir, dataservice.url)
    run = subprocess.run([sys.executable, "-c", script, dataservice.token], capture_output=True, text=True,
                         timeout=120)
    assert (run.returncode, run.stderr) == (0, "")


def holds(kind, manager):
    """A callable that refers to `manager`, handed to the engine as `kind`."""
    def callback(*args):
        return manager

    if kind == "token callable":
        manager._get_token = callback
    elif kind == "progress callback":
        manager.set_progress_callback(callback)
    elif kind == "era callback":
        manager.register_era_callback(callback)
    else:
        manager.runtime_freshness_guard = callback
    return weakref.ref(callback)


KINDS = ["token callable", "progress callback", "era callback", "freshness guard"]


@pytest.mark.parametrize("kind", KINDS)
def test_the_collector_frees_an_unregistered_manager_and_leaves_a_registered_one_alone(data_dir, kind):
    held = holds(kind, sync.SyncManager(str(data_dir), "http://127.0.0.1:9", token="t"))
    gc.collect()
    assert held() is None  # the cycle manager -> callable -> manager was found and broken

    held = holds(kind, sync.SyncManager.get_or_create(str(data_dir), "http://127.0.0.1:9", lambda: "t"))
    gc.collect()
    assert held() is not None  # the registry still serves it, with everything it holds
    again = sync.SyncManager.get_or_create(str(data_dir), "http://127.0.0.1:9", held() if kind == "token callable"
                                           else (lambda: "t"))
    assert held() is not None and (kind != "era callback" or again._era_callbacks == [held()])


def test_the_collector_sees_what_an_era_thread_holds(data_dir):
    class Manager:
        def trigger_era_transition(self, **fields):
            pass

    manager = Manager()
    manager.thread = sync.EraThread("http://127.0.0.1:9", lambda: manager.thread._server_url, manager)
    held = weakref.ref(manager)
    del manager
    gc.collect()
    assert held() is None


SYNC_CHILD = """
    import json, sys
    import tidewright.sync as sync
    m = sync.SyncManager.get_or_create(sys.argv[1], sys.argv[2], lambda: sys.argv[3])
    result = m.sync()
    verified = m.verify()
    print(json.dumps({"era": result.era_number, "valid": verified.valid,
                      "bad": verified.corrupted_files + verified.missing_files}))
"""


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


@pytest.fixture(scope="session")
def flock_that_excludes_nothing(tmp_path_factory):
    """Environment for children on a file system whose flock() grants every
    lock (some network file systems): a preloaded flock that always succeeds."""
    compiler = shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        pytest.skip("needs a C compiler")
    build = tmp_path_factory.mktemp("flock-shim")
    (build / "shim.c").write_text("#include <sys/file.h>\nint flock(int fd, int operation) { return 0; }\n")
    subprocess.run([compiler, "-shared", "-fPIC", "-o", str(build / "shim.so"), str(build / "shim.c")], check=True)
    preload = [p for p in (os.environ.get("LD_PRELOAD"), str(build / "shim.so")) if p]  # sanitizer runtimes first
    return {**os.environ, "LD_PRELOAD": ":".join(preload)}


@pytest.mark.parametrize("round_", range(2))
@pytest.mark.parametrize("flock", ["excluding", "excluding nothing"])
def test_lock_holder_waiter_and_newcomer_never_overlap(request, tmp_path, data_dir, flock, round_):
    signals = tmp_path / "signals"
    signals.mkdir()
    env = request.getfixturevalue("flock_that_excludes_nothing") if flock == "excluding nothing" else None

    def spawn(role, hold):
        return subprocess.Popen([sys.executable, "-c", textwrap.dedent(LOCK_CHILD), str(data_dir), role, str(hold)],
                                stderr=subprocess.PIPE, text=True, env=env)

    holder, waiter, newcomer = spawn("holder", 0.6), spawn("waiter", 0.2), spawn("newcomer", 0.2)
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
    assert not (data_dir / ".sync_flock").exists() and not (data_dir / ".sync_flock.owner").exists()


def dead_pid():
    child = subprocess.Popen([sys.executable, "-c", ""])
    child.wait()
    return child.pid


@pytest.mark.parametrize("owner, waits", [
    (lambda: f"{dead_pid()} {socket.gethostname()}\n", False),
    (lambda: f"garbled {socket.gethostname()}\n", False),
    (lambda: f"{os.getpid()} {socket.gethostname()}\n", True),
    (lambda: f"{dead_pid()} another-host.example\n", True),
], ids=["process gone", "garbled", "process running", "another host"])
def test_where_flock_excludes_nothing_a_lock_owner_file_serialises_syncs(dataservice, data_dir,
                                                                          flock_that_excludes_nothing, owner, waits):
    # An owner file left by a process of this host that no longer runs is
    # taken over; one whose owner may still run is waited for.
    svc = dataservice
    owner_file = data_dir / ".sync_flock.owner"
    owner_file.write_text(owner())
    child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(SYNC_CHILD), str(data_dir), svc.url, svc.token],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=flock_that_excludes_nothing)
    if waits:
        # The child has found that locks do not exclude and waits for the owner file.
        assert any("File locks do not exclude other processes" in line for line in iter(child.stderr.readline, ""))
        assert child.poll() is None and svc.requests == []
        owner_file.unlink()
    out, err = child.communicate(timeout=120)
    assert child.returncode == 0, err
    assert json.loads(out) == {"era": 1, "valid": True, "bad": []}
    assert not owner_file.exists() and not (data_dir / ".sync_flock").exists()
