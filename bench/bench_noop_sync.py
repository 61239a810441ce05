"""A version-matched no-op sync() and needs_sync() over an era of 100,000 files.

The local data directory is built directly on disk rather than downloaded:
every file of the era as served, "manifest.json" through _write_manifest_json
with the server's manifest hash, the shuffle seed with its metadata, and the
hash cache from one verify-style pass. A fresh child process then builds a
manager on that directory and times sync() and needs_sync(), each of which
must make the version probe alone (the first sync() of the process also
validates the vocabularies, which later calls remember). Target: at most
0.3 s each. The CPU time of the calls is shown too: on a shared machine the
wall time also measures the neighbours.

    .venv/bin/python bench/bench_noop_sync.py [--files 100000] [--repeat 5]
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[1]
TARGET_SECONDS = 0.3


def child(url: str, token: str, data_dir: str, repeat: int) -> None:
    import tidewright.sync as sync

    started = time.perf_counter()
    manager = sync.SyncManager(data_dir, url, token=token)
    load = time.perf_counter() - started
    figures = {"load": load, "sync": [], "needs_sync": [], "sync_cpu": [], "needs_sync_cpu": []}
    for _ in range(repeat):
        started, cpu = time.perf_counter(), time.process_time()
        result = manager.sync()
        figures["sync"].append(time.perf_counter() - started)
        figures["sync_cpu"].append(time.process_time() - cpu)
        assert result.bytes_downloaded == 0
        started, cpu = time.perf_counter(), time.process_time()
        assert not manager.needs_sync()
        figures["needs_sync"].append(time.perf_counter() - started)
        figures["needs_sync_cpu"].append(time.process_time() - cpu)
    print(json.dumps(figures))


def build_local_state(service, data_dir: str) -> int:
    import tidewright.sync as sync

    manifest = service.manifest()
    for path in manifest["files"]:
        target = os.path.join(data_dir, *path.split("/"))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as handle:
            handle.write(service.file_bytes(None, path))
    served_sha = service.era().manifest_sha256(service.base_url)
    sync._write_manifest_json(data_dir, manifest, server_manifest_sha256=served_sha,
                              server_manifest_body_sha256=served_sha)
    manager = sync.SyncManager(data_dir, service.url, token=service.token)
    manager._download_shuffle_seed(manager.get_manifest())
    for path, info in manifest["files"].items():
        assert manager._local_file_matches_manifest(path, os.path.join(data_dir, *path.split("/")), info,
                                                    cache_allowed=False)
    manager._persist_hash_cache()
    return len(manifest["files"])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=100_000, help="feature files in the era")
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--data-dir", help="build the local state here and keep it; reused when already built")
    parser.add_argument("--child", nargs=3, metavar=("URL", "TOKEN", "DATA_DIR"), help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.child:
        child(*args.child, args.repeat)
        return 0

    sys.path.insert(0, str(REPO))
    from tools.dataservice import DataService

    service = DataService(features=args.files, feature_bytes=64).start()
    data_dir = args.data_dir or tempfile.mkdtemp(prefix="bench-noop-sync-")
    try:
        if os.path.exists(os.path.join(data_dir, ".sync_hash_cache.json")):
            print(f"local state: reusing {data_dir}")
        else:
            os.makedirs(data_dir, exist_ok=True)
            started = time.perf_counter()
            count = build_local_state(service, data_dir)
            print(f"local state: {count} manifest files built in {time.perf_counter() - started:.1f} s")
        service.clear_requests()
        out = subprocess.run([sys.executable, __file__, "--repeat", str(args.repeat), "--child", service.url,
                              service.token, data_dir], check=True, capture_output=True, text=True)
        figures = json.loads(out.stdout.strip().splitlines()[-1])
        paths = sorted({r.path for r in service.requests})
    finally:
        service.stop()
        if not args.data_dir:
            shutil.rmtree(data_dir, ignore_errors=True)

    assert paths == ["/data/manifest/version"], paths
    print(f"manager construction (manifest and hash cache load): {figures['load']:.3f} s")
    for name in ("sync", "needs_sync"):
        times = figures[name]
        verdict = "ok" if statistics.median(times) <= TARGET_SECONDS else "MISSED"
        print(f"{name + '()':13s} median {statistics.median(times):.3f} s, best {min(times):.3f} s, "
              f"worst {max(times):.3f} s over {len(times)} runs (target {TARGET_SECONDS} s: {verdict}); "
              f"CPU (all threads) median {statistics.median(figures[name + '_cpu']):.3f} s")
    print("requests made by the timed calls: the version probe only")
    return 0


if __name__ == "__main__":
    sys.exit(main())
