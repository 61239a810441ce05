"""Durability order of a real sync and of an era switch, read from the system
calls of a child process under strace: the promoted files reach stable
storage before the manifest that vouches for them is written."""

import os
import re
import shutil
import subprocess
import sys
import textwrap

import pytest

TRACED = "rename,renameat,renameat2,syncfs,fsync,fdatasync,sync"

SYNC = """
    import sys
    import tidewright.sync as sync
    data_dir, url, token = sys.argv[1:]
    sync.SyncManager(data_dir, url, token=token).sync()
"""

TRANSITION = """
    import sys
    import tidewright.sync as sync
    data_dir, url, token = sys.argv[1:]
    m = sync.SyncManager.get_or_create(data_dir, url, lambda: token, poll_interval_s=3600.0)
    m.trigger_era_transition(2)
    assert m.get_manifest().era_number == 2
"""

_CALL = re.compile(r"^(?:\[pid\s+(\d+)\]\s+|(\d+)\s+)?(.*)$")
_AT = r'(?:(?:\d+<([^>]*)>|AT_FDCWD), )?'
_RENAME = re.compile(rf'rename(?:at2?)?\({_AT}"([^"]*)", {_AT}"([^"]*)"')
_SYNC = re.compile(r"^(syncfs|fsync|fdatasync)\((\d+)<([^>]*)>|^sync\(\)")


@pytest.fixture(scope="module")
def strace():
    path = shutil.which("strace")
    if path is None:
        pytest.skip("strace is not installed (make apt-deps installs it)")
    probe = subprocess.run([path, "-o", os.devnull, "true"], capture_output=True, text=True, timeout=60)
    if probe.returncode != 0:
        pytest.skip(f"strace cannot trace here: {probe.stderr.strip()}")
    return path


def traced_calls(strace, tmp_path, script, *args):
    """The completed renames ("rename", source, target) and sync calls
    ("sync", path or None) of a child process, in the order they returned."""
    out = tmp_path / "strace.out"
    child = subprocess.run([strace, "-f", "-qq", "-y", "-e", f"trace={TRACED}", "-o", str(out),
                            sys.executable, "-c", textwrap.dedent(script), *map(str, args)],
                           capture_output=True, text=True, timeout=300)
    assert child.returncode == 0, child.stderr
    calls, pending = [], {}
    for line in out.read_text().splitlines():
        match = _CALL.match(line)
        pid, text = match.group(1) or match.group(2), match.group(3)
        if text.endswith("<unfinished ...>"):
            pending[pid] = text
            continue
        if text.startswith("<..."):
            text = pending.pop(pid, "") + text
        if not re.search(r"= 0$", text):
            continue
        if rename := _RENAME.search(text):
            source = os.path.join(rename.group(1) or "", rename.group(2))
            calls.append(("rename", source, os.path.join(rename.group(3) or "", rename.group(4))))
        elif sync_call := _SYNC.search(text):
            calls.append(("sync", sync_call.group(3)))
    return calls


def assert_synced_before_manifest(calls, data_dir, data_files):
    data_dir = os.path.realpath(data_dir)
    targets = {os.path.join(data_dir, *p.split("/")) for p in data_files}
    promoted = [i for i, c in enumerate(calls) if c[0] == "rename" and os.path.realpath(c[2]) in targets]
    assert any("/features/" in calls[i][2] for i in promoted), "no feature file was renamed into place"
    manifest = os.path.join(data_dir, "manifest.json")
    commit = next(i for i, c in enumerate(calls)
                  if i > promoted[-1] and c[0] == "rename" and os.path.realpath(c[2]) == manifest)
    covering = [c for c in calls[promoted[-1] + 1:commit]
                if c[0] == "sync" and (c[1] is None or os.path.realpath(c[1]).startswith(data_dir))]
    assert covering, f"no sync call between the last data file rename and manifest.json: {calls[promoted[-1]:commit + 1]}"
    # Nothing vouches for a file before then: the hash cache is written after.
    cache = os.path.join(data_dir, ".sync_hash_cache.json")
    assert not [c for c in calls[:commit] if c[0] == "rename" and os.path.realpath(c[2]) == cache]


def test_sync_and_era_switch_flush_files_before_their_manifest(strace, dataservice_factory, tmp_path):
    svc = dataservice_factory(features=6)
    data_dir = tmp_path / "data"
    data_dir.mkdir()
    calls = traced_calls(strace, tmp_path, SYNC, data_dir, svc.url, svc.token)
    assert_synced_before_manifest(calls, data_dir, svc.manifest(1)["files"])

    svc.publish_era()
    calls = traced_calls(strace, tmp_path, TRANSITION, data_dir, svc.url, svc.token)
    assert_synced_before_manifest(calls, data_dir, svc.manifest(2)["files"])
    assert (data_dir / ".sync_hash_cache.json").exists()
