"""Manifest loading at construction versus the host's json.loads.

Builds a manifest.json of N files (default 100,000) in a temporary data
directory, then times, best of several runs:
  * json.loads of the file's bytes (the host's own decoder), and
  * SyncManager construction, which reads, parses, sanitises and loads that
    manifest with the package's default sibling modules.
Prints both and their ratio (construction / json.loads; <= 1.0 is the goal).

    .venv/bin/python bench/bench_manifest_load.py [--files 100000] [--runs 5]
"""

import argparse
import hashlib
import json
import os
import tempfile
import time

import tidewright.sync as sync


def make_manifest(n_files):
    files = {}
    for i in range(n_files):
        path = f"features/u{i % 8}/signal_is/feature_{i:06d}.arrow"
        files[path] = {"size_bytes": 1_000_000 + i, "sha256": hashlib.sha256(path.encode()).hexdigest(),
                       "kind": "feature", "named_universe": f"u{i % 8}", "expression_type": "SIGNAL"}
    return {"era_number": 3, "version": 17, "market_id": 1, "files": files, "pnl_column_count": 4}


def best_of(runs, fn):
    best = float("inf")
    for _ in range(runs):
        start = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - start)
    return best


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=100_000)
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as data_dir:
        raw = json.dumps(make_manifest(args.files)).encode()
        with open(os.path.join(data_dir, "manifest.json"), "wb") as fh:
            fh.write(raw)
        t_loads = best_of(args.runs, lambda: json.loads(raw))

        def construct():
            manager = sync.SyncManager(data_dir, "http://127.0.0.1:9", token="t")
            assert len(manager.get_manifest().files) == args.files

        # len(files) converts the files map once; measure construction alone too.
        t_ctor = best_of(args.runs, lambda: sync.SyncManager(data_dir, "http://127.0.0.1:9", token="t"))
        t_ctor_files = best_of(args.runs, construct)
    print(f"manifest: {args.files} files, {len(raw) / 1e6:.1f} MB")
    print(f"json.loads                        {t_loads * 1000:8.1f} ms")
    print(f"SyncManager construction          {t_ctor * 1000:8.1f} ms   ratio {t_ctor / t_loads:.2f}")
    print(f"  ... plus manifest.files as dict {t_ctor_files * 1000:8.1f} ms   ratio {t_ctor_files / t_loads:.2f}")


if __name__ == "__main__":
    main()
