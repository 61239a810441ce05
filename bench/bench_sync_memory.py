"""Peak memory of a sync of a 2 GiB era, against the same process idle.

The data service runs in this process and generates the era's bytes lazily
(one 1 GiB feature file and 64 files of 16 MiB by default; nothing is held in
memory). The sync runs in a child process, which reports its peak resident
set (VmHWM) once the module is imported and a manager built, and again after
the sync; the difference is what the sync itself needed.

    .venv/bin/python bench/bench_sync_memory.py [--large-mib 1024] [--files 64] [--file-mib 16]
    .venv/bin/python bench/bench_sync_memory.py --large-mib 0 --files 100000 --file-bytes 256
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[1]
MIB = 1024 * 1024


def status_kib(field: str) -> int:
    with open("/proc/self/status", encoding="ascii") as handle:
        for line in handle:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise RuntimeError(f"{field} not in /proc/self/status")


def child(url: str, token: str, data_dir: str, workers: int) -> None:
    import tidewright.sync as sync

    manager = sync.SyncManager(data_dir, url, token=token, sync_max_concurrency=workers)
    idle = status_kib("VmHWM")
    started, cpu = time.perf_counter(), time.process_time()
    result = manager.sync()
    elapsed, cpu = time.perf_counter() - started, time.process_time() - cpu
    print(json.dumps({"idle_hwm_kib": idle, "sync_hwm_kib": status_kib("VmHWM"), "seconds": elapsed,
                      "cpu_seconds": cpu, "bytes": result.bytes_downloaded,
                      "files": len(manager.get_manifest().files)}))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--large-mib", type=int, default=1024)
    parser.add_argument("--files", type=int, default=64)
    parser.add_argument("--file-mib", type=int, default=16)
    parser.add_argument("--file-bytes", type=int, help="size of each feature file in bytes (overrides --file-mib)")
    parser.add_argument("--workers", type=int, default=8)
    parser.add_argument("--child", nargs=3, metavar=("URL", "TOKEN", "DATA_DIR"), help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.child:
        child(*args.child, args.workers)
        return 0

    sys.path.insert(0, str(REPO))
    from tools.dataservice import DataService

    file_bytes = args.file_bytes if args.file_bytes is not None else args.file_mib * MIB
    print(f"era: 1 x {args.large_mib} MiB + {args.files} x {file_bytes} bytes, {args.workers} workers")
    started = time.perf_counter()
    service = DataService(features=args.files, feature_bytes=file_bytes,
                          large_file_bytes=args.large_mib * MIB).start()
    print(f"data service ready in {time.perf_counter() - started:.1f} s "
          f"(its process: VmRSS {status_kib('VmRSS') / 1024:.0f} MiB)")
    data_dir = tempfile.mkdtemp(prefix="bench-sync-memory-")
    try:
        out = subprocess.run([sys.executable, __file__, "--workers", str(args.workers), "--child", service.url,
                              service.token, data_dir], check=True, capture_output=True, text=True)
        figures = json.loads(out.stdout.strip().splitlines()[-1])
    finally:
        service.stop()
        shutil.rmtree(data_dir, ignore_errors=True)

    idle, peak = figures["idle_hwm_kib"] / 1024, figures["sync_hwm_kib"] / 1024
    size = max(figures["bytes"], 1) / MIB
    print(f"synced {size:.0f} MiB in {figures['seconds']:.1f} s ({size / figures['seconds']:.0f} MiB/s)")
    print(f"{figures['files']} files: {figures['files'] / figures['seconds']:.0f} files/s, "
          f"CPU (all threads) {figures['cpu_seconds']:.1f} s = "
          f"{figures['cpu_seconds'] / figures['files'] * 1e6:.0f} us per file")
    print(f"peak RSS idle (module imported, manager built): {idle:.1f} MiB")
    print(f"peak RSS after the sync:                        {peak:.1f} MiB")
    print(f"added by the sync:                              {peak - idle:.1f} MiB "
          f"({(peak - idle) / size * 100:.2f} % of the bytes synced)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
