"""Share of the durability flush in a cold sync and an era switch, on a 2 GiB era and on a 100k-file era.

Before the records that vouch for promoted files are written (manifest.json
and its metadata at the commit of a sync or an era switch, the hash cache,
the shuffle seed's metadata), the engine flushes the data directory's file
system (syncfs). On loopback nearly every downloaded byte is still in the
page cache, dirty, when the sync commits (the kernel starts writing back
only past its dirty thresholds or after about 30 s), so the flush writes
most of the era to disk then: its cost is the disk's. The report names the
disk and the file system it ran on.

Method: a child process makes a manager over an empty directory and runs
one cold sync(), then, once the service has moved to a new era of the same
shape, one era switch (trigger_era_transition). The engine counts its
flushes and the time spent inside them (the private
tidewright.sync._sync_flush_totals(), a steady clock around each syncfs);
the share is that time over the wall time of the same sync() or switch.
Before the run the machine's dirty pages are written back (sync(1)), so the
flushes meet only this run's data and whatever else the machine wrote
meanwhile (on a shared machine the latter counts too: syncfs flushes the
whole file system).

The reference data service (tools/dataservice) serves the eras from memory
on 127.0.0.1; it is not what limits a cold sync here (a single 1 GiB file
dominates the 2 GiB era, the cost per request the 100k-file era).

    .venv/bin/python bench/bench_durability.py [--size-gib 2] [--files 100000] [--file-bytes 4096] [--repeat 1]

--size-gib 0 or --files 0 leaves that era out; --no-switch skips the era
switches. Never part of the test suite.
"""

from __future__ import annotations

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, REPO)

from tools.dataservice import DataService  # noqa: E402

MiB = 1 << 20
GiB = 1 << 30
TARGET_SHARE = 0.05

# One cold sync, then (after a line on stdin: the service has moved on) one
# era switch; a JSON line after each.
CHILD = """
import json, sys, time
import tidewright.sync as sync
data_dir, url, token, switch = sys.argv[1:5]
manager = sync.SyncManager.get_or_create(data_dir, url, lambda: token, poll_interval_s=3600.0)

def timed(label, call):
    calls0, flush0 = sync._sync_flush_totals()
    started = time.perf_counter()
    call()
    seconds = time.perf_counter() - started
    calls, flush = sync._sync_flush_totals()
    print(json.dumps({"what": label, "seconds": seconds, "flush_calls": calls - calls0,
                      "flush_seconds": flush - flush0}), flush=True)

timed("cold sync", manager.sync)
if switch == "1":
    sys.stdin.readline()
    era = manager.get_manifest().era_number + 1
    timed("era switch", lambda: manager.trigger_era_transition(era))
    assert manager.get_manifest().era_number == era
"""


def say(text: str) -> None:
    print(text, flush=True)


def disk_of(path: str) -> str:
    """The file system and block device that hold ``path``, as the kernel describes them."""
    best = ("", "?", "?")
    with open("/proc/mounts", encoding="utf-8") as handle:
        for line in handle:
            device, mount, fstype = line.split()[:3]
            if path == mount or path.startswith(mount.rstrip("/") + "/"):
                if len(mount) >= len(best[0]):
                    best = (mount, device, fstype)
    mount, device, fstype = best
    name = os.path.basename(os.path.realpath(device))
    block = f"/sys/class/block/{name}"
    if os.path.exists(os.path.join(block, "partition")):
        block = os.path.dirname(os.path.realpath(block))
    facts = []
    for label, rel in (("model", "device/model"), ("rotational", "queue/rotational"),
                       ("write cache", "queue/write_cache")):
        try:
            with open(os.path.join(block, rel), encoding="utf-8") as handle:
                facts.append(f"{label} {handle.read().strip()}")
        except OSError:
            pass
    size = ""
    try:
        with open(os.path.join(block, "size"), encoding="utf-8") as handle:
            size = f", {int(handle.read()) * 512 / GiB:.0f} GiB"
    except (OSError, ValueError):
        pass
    return f"{fstype} on {device} ({os.path.basename(block)}{size}; {', '.join(facts) or 'no details'})"


def dirty_mib() -> float:
    with open("/proc/meminfo", encoding="ascii") as handle:
        for line in handle:
            if line.startswith("Dirty:"):
                return int(line.split()[1]) / 1024
    return 0.0


def run_child(svc: DataService, dest: str, switch: bool) -> list[dict]:
    shutil.rmtree(dest, ignore_errors=True)
    os.makedirs(dest)
    subprocess.run(["sync"], check=True)
    dirty = dirty_mib()
    child = subprocess.Popen([sys.executable, "-c", CHILD, dest, svc.url, svc.token, "1" if switch else "0"],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    results = []
    try:
        for line in child.stdout:
            results.append({**json.loads(line), "dirty_before_mib": dirty})
            if switch and len(results) == 1:
                svc.publish_era()  # the same shape, other bytes: every file changes
                subprocess.run(["sync"], check=True)
                dirty = dirty_mib()
                child.stdin.write("go\n")
                child.stdin.flush()
    finally:
        child.stdin.close()
        child.wait()
    if child.returncode != 0 or len(results) != (2 if switch else 1):
        raise SystemExit(f"the measuring child failed ({child.returncode})")
    return results


def measure_era(label: str, make_service, work: str, repeat: int, switch: bool) -> list[dict]:
    dest = os.path.join(work, "dest")
    runs: dict[str, list[dict]] = {}
    for i in range(repeat):
        with make_service() as svc:
            if i == 0:
                manifest = svc.manifest()
                nbytes = sum(e["size_bytes"] for e in manifest["files"].values())
                nfiles = len(manifest["files"])
                say(f"{label}: {nfiles} files, {nbytes / GiB:.2f} GiB")
            for r in run_child(svc, dest, switch):
                runs.setdefault(r["what"], []).append(r)
                say(f"  {r['what']:10} run {i + 1}: {r['seconds']:.2f} s, of which {r['flush_seconds']:.3f} s in "
                    f"{r['flush_calls']} flushes; dirty before it {r['dirty_before_mib']:.0f} MiB")
    shutil.rmtree(dest, ignore_errors=True)
    rows = []
    for what, rs in runs.items():
        seconds = statistics.median(r["seconds"] for r in rs)
        flush = statistics.median(r["flush_seconds"] for r in rs)
        rows.append({"label": f"{label}, {what}", "files": nfiles, "bytes": nbytes, "seconds": seconds,
                     "flush_seconds": flush, "share": statistics.median(r["flush_seconds"] / r["seconds"] for r in rs),
                     "runs": rs})
    return rows


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size-gib", type=float, default=2.0, help="size of the large era (0: leave it out)")
    parser.add_argument("--files", type=int, default=100_000, help="files of the many-file era (0: leave it out)")
    parser.add_argument("--file-bytes", type=int, default=4096, help="size of each file of the many-file era")
    parser.add_argument("--repeat", type=int, default=1, help="runs of each; medians are reported")
    parser.add_argument("--no-switch", action="store_true", help="cold syncs only, no era switch")
    parser.add_argument("--work-dir", default=os.path.join(REPO, "bench", "out", "durability"),
                        help="where the data directories go (the disk under test)")
    args = parser.parse_args()

    os.makedirs(args.work_dir, exist_ok=True)
    work = tempfile.mkdtemp(prefix="durability-", dir=args.work_dir)
    say(f"data directories on {disk_of(os.path.realpath(work))}")
    switch = not args.no_switch
    size = int(args.size_gib * GiB)
    results = []
    try:
        if size > 0:
            results += measure_era(f"{args.size_gib:g} GiB era", lambda: DataService(
                seed=7, features=64, feature_bytes=size // 2 // 64, large_file_bytes=size // 2),
                work, args.repeat, switch)
        if args.files > 0:
            say(f"generating the {args.files}-file era ...")
            results += measure_era(f"{args.files}-file era", lambda: DataService(
                seed=8, features=args.files, feature_bytes=args.file_bytes, family_size=50, found_signals=0,
                found_strategies=0, useful_signals=0), work, args.repeat, switch)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    say("")
    say(f"{'':36}{'files':>8}{'GiB':>7}{'seconds':>9}{'flush s':>9}{'share':>8}  target")
    for r in results:
        verdict = "met" if r["share"] < TARGET_SHARE else "MISSED"
        say(f"{r['label']:36}{r['files']:8d}{r['bytes'] / GiB:7.2f}{r['seconds']:9.2f}{r['flush_seconds']:9.2f}"
            f"{100 * r['share']:7.1f}%  < {100 * TARGET_SHARE:.0f} % {verdict}")
    say("share = time inside the engine's flushes / wall time of the same sync() or era switch (medians)")
    load = os.getloadavg()[0]
    if load > (os.cpu_count() or 1):
        say(f"note: load average {load:.1f} on {os.cpu_count()} cores: other work shared the machine and its disk")
    out = os.path.join(REPO, "bench", "out")
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "durability.json"), "w", encoding="utf-8") as handle:
        json.dump({"disk": disk_of(os.path.realpath(args.work_dir)), "results": results}, handle, indent=2)
    return 0


if __name__ == "__main__":
    sys.exit(main())
