"""Kill -9 in the middle of a sync, then check what is on disk and what it cost.

For each round the reference service serves an era of a few hundred files,
a few of them many download chunks long, with throttled bodies so that a
sync takes a few seconds. A child process syncs the data directory and is
killed with SIGKILL at a random moment, drawn uniformly from the time the
same sync takes without a kill (measured just before on a copy of the
directory, interpreter start-up included); every third round aims at the
last eighth of it, where the commit happens. Then:

  (a) every file under its final name is the file of a manifest the service
      published during the round (the previous version the directory held,
      or the new one), byte for byte; the side files of the engine parse,
      the hash cache vouches for no bytes a file does not have, and the
      manifest metadata describes the manifest.json it names;
  (b) a sync in a fresh process completes, verify() is clean and the
      directory is in step with the served manifest (no staging files);
  (c) the bytes fetched again: file bytes the service sent during the killed
      and the recovery sync, less what the directory lacked at the start
      (files missing or stale, minus usable staging prefixes), as a
      percentage of the era's size. Shown apart: the bytes the service had
      sent that the killed process never wrote down (in the sockets when it
      died); no client can keep those, the rest is what recovery fetched
      beyond what the directory still lacked.

The starting state cycles through: an empty directory; a directory synced to
an older manifest version (some files changed since, a large one among
them); the leftovers of an earlier killed sync; and such leftovers after the
service has published a new version that changes some of the partly
downloaded files.

    python bench/crash_sync.py --rounds 50 [--features 300] [--seed 1]

Prints one line per round and a summary; exits 1 when a round failed.
"""

from __future__ import annotations

import argparse
import dataclasses
import hashlib
import json
import os
import pathlib
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import tidewright.sync as sync  # noqa: E402
from tools.dataservice import DataService  # noqa: E402

KIB = 1024
MIB = 1024 * KIB
CHUNK = 64 * KIB
STATES = ("empty", "older", "leftovers", "stale-leftovers")

# Files the engine keeps beside the data (checked by what they hold, not
# against a manifest). Atomic-write temporaries end in ".tmp" like staging files.
SIDE_FILES = {
    "manifest.json", ".manifest_sync_metadata.json", ".sync_hash_cache.json", "sync-progress.json",
    ".consumer_count", ".sync_flock", ".sync_flock.owner", ".transition_lock", "shuffle_seed.enc",
    "shuffle_seed.enc.meta.json", "feature-rotation-state.json", ".prefetched-features.json",
}

CHILD = """
import json, sys
import tidewright.sync as sync
data_dir, url, token, chunk, verify = sys.argv[1:6]
manager = sync.SyncManager(data_dir, url, token=token, sync_http_chunk_bytes=int(chunk))
result = manager.sync()
out = {"era": result.era_number, "bytes_downloaded": result.bytes_downloaded}
if verify == "1":
    check = manager.verify()
    out.update(valid=check.valid, corrupted=list(check.corrupted_files), missing=list(check.missing_files))
print(json.dumps(out), flush=True)
"""


@dataclasses.dataclass
class Outcome:
    ok: bool
    line: str
    refetch_pct: float = 0.0      # all bytes fetched again
    after_kill_pct: float = 0.0   # less those in flight when the process died
    phase: str = ""


def start_child(data_dir: str, svc: DataService, verify: bool) -> subprocess.Popen:
    return subprocess.Popen(
        [sys.executable, "-c", CHILD, data_dir, svc.url, svc.token, str(CHUNK), "1" if verify else "0"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def make_service(args, seed: int) -> DataService:
    big = {f"blobs/big_{i}.bin": ("data", args.big_bytes + i * CHUNK // 3) for i in range(args.big_files)}
    svc = DataService(seed=seed, features=args.features, feature_bytes=args.feature_bytes,
                      large_file_bytes=args.big_bytes, found_signals=6, useful_signals=3, extra_files=big)
    return svc.start()


def throttle(svc: DataService, args) -> None:
    svc.add_fault("/data/files/*", "slow", count=None, bytes_per_second=args.bytes_per_second)


def local_path(data_dir: str, rel: str) -> str:
    return os.path.join(data_dir, *rel.split("/"))


def file_sha(path: str) -> str:
    digest = hashlib.sha256()
    with open(path, "rb") as handle:
        for block in iter(lambda: handle.read(MIB), b""):
            digest.update(block)
    return digest.hexdigest()


def usable_staged_bytes(staged: bytes, data: bytes) -> int:
    """Bytes of a staging file that a sync keeps: a prefix of the file, or,
    for a file fetched in ranges at once, the bytes its range table (after
    the file's last byte) records as written."""
    size = len(data)
    if len(staged) > size and staged[size:size + 8] == b"TWRANGE1":
        range_bytes, count = struct.unpack_from("<qq", staged, size + 16)
        slots = (size + 96 + 7) // 8 * 8
        kept = 0
        for i in range(count):
            start = i * range_bytes
            (written,) = struct.unpack_from("<Q", staged, slots + 8 * i)
            if start <= written <= size and staged[start:written] == data[start:written]:
                kept += written - start
        return kept
    if len(staged) <= size and data[:len(staged)] == staged:
        return len(staged)
    return 0


def lacking_bytes(svc: DataService, data_dir: str) -> dict[str, int]:
    """What the directory lacks for the served manifest, per file: missing or
    stale files, less the part of a staging file that is a prefix of the file."""
    lacking = {}
    for rel, entry in svc.manifest()["files"].items():
        path = local_path(data_dir, rel)
        if os.path.isfile(path) and file_sha(path) == entry["sha256"]:
            continue
        size = entry["size_bytes"]
        staged = b""
        if os.path.isfile(path + ".tmp"):
            with open(path + ".tmp", "rb") as handle:
                staged = handle.read()
        lacking[rel] = size - usable_staged_bytes(staged, svc.file_bytes(None, rel))
    return lacking


def file_bytes_served(svc: DataService, since: int = 0) -> dict[str, int]:
    """Body bytes sent per file, for the requests from number ``since`` on."""
    served: dict[str, int] = {}
    for r in svc.requests[since:]:
        if r.path.startswith("/data/files/") and r.status in (200, 206):
            rel = r.path[len("/data/files/"):]
            served[rel] = served.get(rel, 0) + r.bytes_sent
    return served


def timed_sync(svc: DataService, data_dir: str, timeout: float) -> float:
    """Seconds a sync of a copy of ``data_dir`` takes in a child, start-up
    included; the copy and its requests are forgotten afterwards."""
    copy = data_dir + "-dry"
    shutil.copytree(data_dir, copy, symlinks=True)
    try:
        started = time.monotonic()
        child = start_child(copy, svc, verify=False)
        _, err = child.communicate(timeout=timeout)
        if child.returncode != 0:
            raise SystemExit(f"a sync without a kill failed: {err.strip()}")
        return time.monotonic() - started
    finally:
        shutil.rmtree(copy, ignore_errors=True)
        svc.clear_requests()


def run_killed(svc: DataService, data_dir: str, kill_at: float) -> tuple[bool, float]:
    """Runs a sync in a child and kills it ``kill_at`` seconds after the
    start; returns whether it was killed (not finished first) and when."""
    started = time.monotonic()
    child = start_child(data_dir, svc, verify=False)
    try:
        child.wait(timeout=kill_at)
        finished = True
    except subprocess.TimeoutExpired:
        child.send_signal(signal.SIGKILL)
        child.wait()
        finished = False
    child.communicate()
    return not finished, time.monotonic() - started


def kill_phase(svc: DataService, data_dir: str, killed: bool) -> str:
    if not killed:
        return "finished"
    try:
        with open(os.path.join(data_dir, "manifest.json"), encoding="utf-8") as handle:
            if json.load(handle)["files"] == svc.manifest()["files"]:
                return "committed"
    except (OSError, ValueError, KeyError):
        pass
    if os.path.exists(os.path.join(data_dir, "sync-progress.json")):
        return "downloading"
    staged = any(n.endswith(".tmp") for _, _, names in os.walk(data_dir) for n in names)
    return "downloading" if staged else "before download"


# -- (a) the directory after the kill -------------------------------------------

def stat_key(path: str) -> tuple[int, int, int, int]:
    st = os.stat(path)
    return st.st_size, st.st_mtime_ns, st.st_ctime_ns, st.st_ino


def check_side_file(data_dir: str, name: str, published: list[dict], seeds: set[bytes]) -> str | None:
    path = os.path.join(data_dir, name)
    with open(path, "rb") as handle:
        raw = handle.read()
    if name in (".sync_flock", ".sync_flock.owner"):
        return None
    if name == ".transition_lock":
        return ".transition_lock left behind by a sync"
    if name == "shuffle_seed.enc":
        return None if raw in seeds else "shuffle_seed.enc is no seed the service published"
    if name == ".consumer_count":
        return None if raw.strip().isdigit() else f".consumer_count holds {raw!r}"
    try:
        value = json.loads(raw.decode("utf-8"))
    except (UnicodeDecodeError, ValueError) as exc:
        return f"{name} does not parse: {exc}"
    if not isinstance(value, dict):
        return f"{name} is not a JSON object"
    if name == "manifest.json":
        if not any(value.get("files") == m["files"] and value.get("version") == m["version"] for m in published):
            return "manifest.json is no manifest the service published"
    elif name == ".manifest_sync_metadata.json":
        manifest_path = os.path.join(data_dir, "manifest.json")
        if os.path.exists(manifest_path) and value.get("local_manifest_sha256") == file_sha(manifest_path):
            with open(manifest_path, encoding="utf-8") as handle:
                local = json.load(handle)
            if (value.get("version"), value.get("era_number")) != (local.get("version"), local.get("era_number")):
                return "the manifest metadata names manifest.json but describes another version"
    elif name == ".sync_hash_cache.json":
        written_at = os.stat(path).st_mtime_ns
        for rel, entry in (value.get("files") or {}).items():
            target = local_path(data_dir, rel)
            if not isinstance(entry, dict) or not os.path.isfile(target):
                continue
            key = stat_key(target)
            stored = (entry.get("size_bytes"), entry.get("mtime_ns"), entry.get("ctime_ns"), entry.get("inode"))
            trusted = stored == key and key[1] < written_at and key[2] < written_at
            if trusted and entry.get("sha256") != file_sha(target):
                return f"the hash cache vouches for bytes {rel} does not have"
    elif name == "sync-progress.json":
        if value.get("phase") != "syncing" or not isinstance(value.get("files"), dict):
            return "sync-progress.json is not a progress record"
    return None


def check_directory(data_dir: str, published: list[dict], seeds: set[bytes]) -> list[str]:
    """Every file under its final name belongs to a published manifest."""
    problems = []
    entries: dict[str, set[str]] = {}
    for manifest in published:
        for rel, entry in manifest["files"].items():
            entries.setdefault(rel, set()).add(entry["sha256"])
    for root, _, names in os.walk(data_dir):
        for name in names:
            full = os.path.join(root, name)
            rel = os.path.relpath(full, data_dir).replace(os.sep, "/")
            if name.endswith(".tmp"):
                continue
            if rel in entries:
                if file_sha(full) not in entries[rel]:
                    problems.append(f"{rel} matches no published manifest")
            elif rel in SIDE_FILES:
                problem = check_side_file(data_dir, rel, published, seeds)
                if problem:
                    problems.append(problem)
            else:
                problems.append(f"unexpected file {rel}")
    return problems


# -- (b) recovery ----------------------------------------------------------------

def recover(svc: DataService, data_dir: str, timeout: float) -> tuple[list[str], float]:
    started = time.monotonic()
    child = start_child(data_dir, svc, verify=True)
    try:
        out, err = child.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        child.kill()
        child.communicate()
        return [f"the recovery sync did not finish within {timeout:.0f} s"], timeout
    took = time.monotonic() - started
    if child.returncode != 0:
        return [f"the recovery sync failed: {err.strip().splitlines()[-1:] or child.returncode}"], took
    report = json.loads(out.strip().splitlines()[-1])
    problems = []
    if not report["valid"]:
        problems.append(f"verify() after recovery: corrupted {report['corrupted'][:3]}, "
                        f"missing {report['missing'][:3]}")
    manifest = svc.manifest()
    for rel, entry in manifest["files"].items():
        path = local_path(data_dir, rel)
        if not os.path.isfile(path) or file_sha(path) != entry["sha256"]:
            problems.append(f"{rel} is not the served file after recovery")
            break
    with open(os.path.join(data_dir, "manifest.json"), encoding="utf-8") as handle:
        if json.load(handle)["files"] != manifest["files"]:
            problems.append("manifest.json is not the served manifest after recovery")
    left = [os.path.join(r, n) for r, _, names in os.walk(data_dir) for n in names if n.endswith(".tmp")]
    if left:
        problems.append(f"{len(left)} staging/temp files left after recovery, e.g. {left[0]}")
    if os.path.exists(os.path.join(data_dir, "sync-progress.json")):
        problems.append("sync-progress.json left after recovery")
    return problems, took


# -- one round -------------------------------------------------------------------

def touch_some(svc: DataService, rng: random.Random, data_dir: str, prefer_staged: bool) -> int:
    """Publishes a new manifest version changing about a tenth of the files:
    the staged ones first when ``prefer_staged``, a large one otherwise."""
    files = list(svc.manifest()["files"])
    data_files = [p for p in files if p.startswith(("features/", "blobs/", "found_", "useful_"))]
    touch = set(rng.sample(data_files, max(1, len(data_files) // 10)))
    staged = [p for p in data_files if os.path.exists(local_path(data_dir, p) + ".tmp")]
    if prefer_staged and staged:
        touch |= set(rng.sample(staged, max(1, (len(staged) + 1) // 2)))
    else:
        touch.add(rng.choice([p for p in data_files if p.startswith("blobs/")]))
    return svc.set_version(touch=sorted(touch))


def one_round(index: int, state: str, args, rng: random.Random, full_sync: float, work: str) -> Outcome:
    data_dir = os.path.join(work, f"round{index}")
    os.mkdir(data_dir)
    svc = make_service(args, seed=index + 1)
    try:
        published = [svc.manifest()]
        seeds = {svc.shuffle_seed()}
        if state == "older":
            sync.SyncManager(data_dir, svc.url, token=svc.token, sync_http_chunk_bytes=CHUNK).sync()
            touch_some(svc, rng, data_dir, prefer_staged=False)
        elif state in ("leftovers", "stale-leftovers"):
            throttle(svc, args)
            run_killed(svc, data_dir, rng.uniform(0.2, 1.0) * full_sync)
            svc.clear_faults()
            if state == "stale-leftovers":
                touch_some(svc, rng, data_dir, prefer_staged=True)
        published.append(svc.manifest())
        era_bytes = sum(e["size_bytes"] for e in svc.manifest()["files"].values())
        throttle(svc, args)
        expected = timed_sync(svc, data_dir, args.recovery_timeout)
        needed = sum(lacking_bytes(svc, data_dir).values())

        aim_commit = index % 3 == 2
        kill_at = rng.uniform(0.88, 1.0) * expected if aim_commit else rng.uniform(0.0, 1.0) * expected
        killed, _ = run_killed(svc, data_dir, kill_at)
        phase = kill_phase(svc, data_dir, killed)
        problems = check_directory(data_dir, published, seeds)
        # Bytes the service sent that the killed process never wrote down:
        # they were in the sockets (or the process) when it died.
        lacking = lacking_bytes(svc, data_dir)
        in_flight = sum(file_bytes_served(svc).values()) - (needed - sum(lacking.values()))

        first_recovery_request = len(svc.requests)
        recovery_problems, recovery_took = recover(svc, data_dir, args.recovery_timeout)
        problems += recovery_problems
        served = sum(file_bytes_served(svc).values())
        refetch = served - needed
        again = {rel: n - lacking.get(rel, 0) for rel, n in file_bytes_served(svc, first_recovery_request).items()
                 if n > lacking.get(rel, 0)}
        line = (f"{state:15s} kill at {kill_at:4.2f} s of {expected:4.2f} ({phase:15s}) "
                f"needed {needed / MIB:5.2f} MiB, served {served / MIB:5.2f} MiB, refetch "
                f"{refetch / KIB:6.1f} KiB = {100.0 * refetch / era_bytes:5.2f} % "
                f"(in flight at the kill {in_flight / KIB:5.1f} KiB); recovery {recovery_took:4.2f} s")
        if again:
            line += "\n    fetched again by the recovery: " + ", ".join(
                f"{rel} ({n} B)" for rel, n in sorted(again.items(), key=lambda kv: -kv[1])[:4])
        if problems:
            line += "\n    " + "\n    ".join(problems[:8])
        return Outcome(not problems, line, 100.0 * refetch / era_bytes,
                       100.0 * (refetch - in_flight) / era_bytes, phase)
    finally:
        svc.stop()


def calibrate(args, work: str) -> float:
    """Seconds a whole sync into an empty directory takes."""
    data_dir = os.path.join(work, "calibration")
    os.mkdir(data_dir)
    svc = make_service(args, seed=10_000)
    try:
        throttle(svc, args)
        took = timed_sync(svc, data_dir, args.recovery_timeout)
        era_bytes = sum(e["size_bytes"] for e in svc.manifest()["files"].values())
        print(f"era: {len(svc.manifest()['files'])} files, {era_bytes / MIB:.2f} MiB; "
              f"a whole sync takes {took:.2f} s", flush=True)
        return took
    finally:
        svc.stop()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=8)
    parser.add_argument("--features", type=int, default=300, help="small feature files of the era")
    parser.add_argument("--feature-bytes", type=int, default=12 * KIB)
    parser.add_argument("--big-files", type=int, default=4, help="multi-chunk files besides the large feature")
    parser.add_argument("--big-bytes", type=int, default=1 * MIB)
    parser.add_argument("--bytes-per-second", type=int, default=768 * KIB, help="throttle of each response body")
    parser.add_argument("--recovery-timeout", type=float, default=120.0)
    parser.add_argument("--seed", type=int, default=None, help="random seed (printed; replays a run)")
    args = parser.parse_args()
    seed = args.seed if args.seed is not None else random.randrange(1 << 30)
    rng = random.Random(seed)
    print(f"seed {seed}", flush=True)

    outcomes: list[Outcome] = []
    with tempfile.TemporaryDirectory(prefix="crash-sync-") as work:
        full_sync = calibrate(args, work)
        for index in range(args.rounds):
            state = STATES[index % len(STATES)]
            outcome = one_round(index, state, args, rng, full_sync, work)
            outcomes.append(outcome)
            print(f"round {index + 1:3d}: {'ok  ' if outcome.ok else 'FAIL'} {outcome.line}", flush=True)

    passed = sum(o.ok for o in outcomes)
    phases: dict[str, int] = {}
    for o in outcomes:
        phases[o.phase] = phases.get(o.phase, 0) + 1

    def figures(values: list[float]) -> str:
        return f"worst {max(values, default=0.0):.2f} %, mean {sum(values) / max(1, len(values)):.2f} %"

    print(f"{passed}/{len(outcomes)} rounds ok; refetch {figures([o.refetch_pct for o in outcomes])} of the era; "
          f"without the bytes in flight at the kill {figures([o.after_kill_pct for o in outcomes])}; killed: "
          + ", ".join(f"{n} {p}" for p, n in sorted(phases.items())))
    return 0 if passed == len(outcomes) else 1


if __name__ == "__main__":
    sys.exit(main())
