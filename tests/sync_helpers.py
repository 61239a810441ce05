"""Helpers shared by the sync tests: a manager on a data service, the state of
a data directory, and the service's request log read per file."""

import contextlib
import json
import os
import shutil
import sys
import time

import tidewright.sync as sync
from tidewright.sync_backoff import backoff_context

# The one large file of an era made with large_file_bytes (see EraLayout).
BIG = "features/top50/signal_is/large__blob__x__v1.arrow"
BIG_BYTES = 200_000
CHUNK = 64 * 1024
FEATURE = "features/top50/signal_is/px000__ret__lag0__v1.arrow"
FOUND_PNL = "found_signals/pool_a/sig0001/signal_is/pnl.arrow"
FOUND_PNL_KINDS = {"found_signal_is_pnl", "found_strategy_is_epoch_pnl"}


def manager(svc, data_dir, **knobs):
    knobs.setdefault("sync_http_chunk_bytes", CHUNK)
    return sync.SyncManager(str(data_dir), svc.url, token=svc.token, **knobs)


def sequential_manager(svc, data_dir, **knobs):
    """A manager that fetches a file in one stream and its ranges one after
    another, for tests that follow request by request (ranges fetched at once:
    test_parallel_ranges.py)."""
    knobs.setdefault("sync_max_concurrency", 1)
    return manager(svc, data_dir, **knobs)


@contextlib.contextmanager
def request_budget(svc, limit=400):
    """Cancels the sync's retry waits once the service has seen ``limit``
    requests, so a retry loop that never ends fails the test instead of
    hanging it."""
    with backoff_context(stop_requested=lambda: len(svc.requests) > limit):
        yield


def local_bytes(data_dir, path):
    with open(os.path.join(data_dir, *path.split("/")), "rb") as handle:
        return handle.read()


def tree(data_dir):
    """Every regular file below ``data_dir`` with its bytes, by relative path."""
    found = {}
    for root, _, names in os.walk(data_dir):
        for name in names:
            full = os.path.join(root, name)
            with open(full, "rb") as handle:
                found[os.path.relpath(full, data_dir).replace(os.sep, "/")] = handle.read()
    return found


def tmp_files(data_dir):
    return sorted(p for p in tree(data_dir) if p.endswith(".tmp"))


def assert_in_step(svc, data_dir, manifest_files=None):
    """The data directory holds the served manifest and every file of it, byte
    for byte, the era's shuffle seed, and no staging or progress files."""
    files = svc.manifest()["files"] if manifest_files is None else manifest_files
    for path in files:
        assert local_bytes(data_dir, path) == svc.file_bytes(None, path), path
    with open(os.path.join(data_dir, "manifest.json"), encoding="utf-8") as handle:
        assert json.load(handle)["files"] == files
    assert local_bytes(data_dir, "shuffle_seed.enc") == svc.shuffle_seed()
    assert tmp_files(data_dir) == []
    assert not os.path.exists(os.path.join(data_dir, "sync-progress.json"))


def file_requests(svc, path=None):
    return svc.requests_for("/data/files/" + (path or "*"))


def requested_paths(svc):
    return sorted({r.path[len("/data/files/"):] for r in file_requests(svc)})


def range_starts(svc, path):
    return [int(r.range.split("=")[1].split("-")[0]) for r in file_requests(svc, path)]


def body_bytes_served(svc, path):
    """Bytes of successful bodies sent for ``path`` (error bodies not counted)."""
    return sum(r.bytes_sent for r in file_requests(svc, path) if r.status in (200, 206))


def wait_for(predicate, timeout=60.0, interval=0.02, check=None):
    """Polls ``predicate`` until it answers true (True) or ``timeout`` seconds
    have passed (False). ``check``, when given, runs between polls and may
    fail the wait early by raising."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if check is not None:
            check()
        if time.monotonic() >= deadline:
            return bool(predicate())
        time.sleep(interval)
    return True


def stop_when(predicate, limit_seconds=60.0):
    """A backoff-context stop test: true once ``predicate`` is, or after
    ``limit_seconds``, so that a retry loop waiting for something that never
    comes fails the test instead of hanging it."""
    give_up_at = time.monotonic() + limit_seconds
    return lambda: bool(predicate()) or time.monotonic() > give_up_at


_CURL_WRAPPER = """#!{python}
# Records this process's own command line, then runs the real program.
import os, sys
with open("/proc/self/cmdline", "rb") as cmdline, open(os.path.join({log!r}, str(os.getpid())), "wb") as out:
    out.write(cmdline.read().replace(b"\\0", b" "))
os.execv({real!r}, [{real!r}] + sys.argv[1:])
"""


def record_curl_runs(tmp_path, monkeypatch):
    """Puts a ``curl`` first on PATH that records its command line and runs the
    real program; returns a function listing the command lines recorded."""
    bin_dir, log = tmp_path / "curl-bin", tmp_path / "curl-cmdlines"
    bin_dir.mkdir()
    log.mkdir()
    wrapper = bin_dir / "curl"
    wrapper.write_text(_CURL_WRAPPER.format(python=sys.executable, log=str(log), real=shutil.which("curl")))
    wrapper.chmod(0o755)
    monkeypatch.setenv("PATH", f"{bin_dir}{os.pathsep}{os.environ.get('PATH', '')}")
    return lambda: [entry.read_text() for entry in log.iterdir()]
