"""Several processes syncing one data directory through new manifest versions
while another process verifies it in a loop."""

import concurrent.futures
import json
import os
import subprocess
import sys
import textwrap
import time

import tidewright.sync as sync
from sync_helpers import FEATURE, assert_in_step, manager, wait_for

ROUNDS = 3
SYNCERS = 4

SYNC_CHILD = """
    import os, sys, time
    import tidewright.sync as sync
    data_dir, url, token, signals, name, rounds = sys.argv[1:7]
    m = sync.SyncManager(data_dir, url, lambda: token, sync_max_concurrency=2)

    def wait(flag):
        deadline = time.monotonic() + 120
        while not os.path.exists(os.path.join(signals, flag)):
            if time.monotonic() > deadline:
                sys.exit("no " + flag + " after 120 s")
            time.sleep(0.01)

    for round_ in range(int(rounds)):
        wait("round-%d" % round_)
        m.sync()
        open(os.path.join(signals, "%s-done-%d" % (name, round_)), "w").close()
"""

# Verifies the directory against its manifest.json again and again. A result
# counts only when manifest.json did not change while it was taken: a
# manifest read just before another process committed a newer one is stale,
# not a verdict on the files.
VERIFY_CHILD = """
    import json, os, sys
    import tidewright.sync as sync
    data_dir, url, token, signals = sys.argv[1:5]
    manifest_path = os.path.join(data_dir, "manifest.json")

    def manifest_bytes():
        try:
            with open(manifest_path, "rb") as handle:
                return handle.read()
        except FileNotFoundError:
            return None

    counted = stale = 0
    bad = []
    while not os.path.exists(os.path.join(signals, "stop")):
        before = manifest_bytes()
        result = sync.SyncManager(data_dir, url, lambda: token).verify()
        if manifest_bytes() != before:
            stale += 1
            continue
        counted += before is not None
        if not result.valid:
            bad.append({"version": json.loads(before)["version"], "corrupted": result.corrupted_files,
                        "missing": result.missing_files})
    print(json.dumps({"counted": counted, "stale": stale, "bad": bad[:5], "bad_count": len(bad)}))
"""


def spawn(script, *args):
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(script), *map(str, args)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def children_alive(children, what):
    """A ``check`` for wait_for: fails the wait when a child already failed."""
    def check():
        for child in children:
            assert child.poll() in (None, 0), f"a child failed while waiting for {what}: {child.communicate()}"
    return check


def test_processes_syncing_new_versions_while_another_verifies(dataservice_factory, tmp_path):
    svc = dataservice_factory(features=12, feature_bytes=128 * 1024)
    features = sorted(p for p in svc.manifest()["files"] if p.startswith("features/"))
    # Slow file answers keep each sync's downloads (and its promoted files
    # ahead of manifest.json) around for a while.
    svc.add_fault("/data/files/*", "delay", seconds=0.05, count=None)
    data_dir, signals = tmp_path / "data", tmp_path / "signals"
    data_dir.mkdir()
    signals.mkdir()

    verifier = spawn(VERIFY_CHILD, data_dir, svc.url, svc.token, signals)
    syncers = [spawn(SYNC_CHILD, data_dir, svc.url, svc.token, signals, f"p{i}", ROUNDS) for i in range(SYNCERS)]
    children = [verifier, *syncers]
    try:
        for round_ in range(ROUNDS):
            if round_ == 1:
                svc.set_version(touch=features[:6])
            elif round_ == 2:
                svc.set_version(touch=features[3:9])
                # and one more while the first sync of the round downloads
                svc.on_request("/data/files/*", lambda: svc.set_version(touch=features[6:]), after=2)
            (signals / f"round-{round_}").touch()
            assert wait_for(lambda: all((signals / f"p{i}-done-{round_}").exists() for i in range(SYNCERS)),
                            timeout=120, check=children_alive(children, f"round {round_}")), f"round {round_} not done"
        (signals / "stop").touch()
        outputs = [child.communicate(timeout=120) for child in children]
    finally:
        for child in children:
            if child.poll() is None:
                child.kill()
                child.communicate()

    for child, (_, err) in zip(children, outputs):
        assert child.returncode == 0, err
    verified = json.loads(outputs[0][0])
    assert verified["bad_count"] == 0, verified
    assert verified["counted"] > 0, verified
    assert svc.era().version == 4
    assert_in_step(svc, data_dir)
    assert sync.SyncManager(str(data_dir), svc.url, lambda: svc.token).verify().valid


def descriptors_open_on(path):
    """How many descriptors of this process have ``path`` open."""
    count = 0
    for fd in os.listdir("/proc/self/fd"):
        try:
            count += os.readlink(f"/proc/self/fd/{fd}") == str(path)
        except OSError:
            pass  # closed meanwhile
    return count


def test_verify_looks_again_at_suspect_files_once_a_running_sync_is_done(dataservice, tmp_path):
    svc = dataservice
    m = manager(svc, tmp_path)
    m.sync()
    local = tmp_path / FEATURE
    good = local.read_bytes()
    lock_file = os.path.realpath(tmp_path / ".sync_flock")
    other_process = manager(svc, tmp_path)  # another lock holder, as a second process would be
    pool = concurrent.futures.ThreadPoolExecutor(max_workers=1)
    other_process._acquire_flock()
    try:
        # A sync under way has promoted a file ahead of the manifest that lists it.
        local.write_bytes(b"\0" * len(good))
        verifying = pool.submit(m.verify)
        # verify has seen that file and waits for the lock (a second descriptor on it) ...
        assert wait_for(lambda: descriptors_open_on(lock_file) == 2 or verifying.done(), timeout=120), "verify not waiting"
        assert not verifying.done()
        local.write_bytes(good)  # ... and the sync ends
    finally:
        other_process._release_flock()
    result = verifying.result(timeout=30)
    assert (result.valid, result.corrupted_files) == (True, [])

    local.write_bytes(b"\0" * len(good))  # with no sync under way the damage stands
    result = pool.submit(m.verify).result(timeout=30)
    assert (result.valid, result.corrupted_files) == (False, [FEATURE])
    pool.shutdown()
