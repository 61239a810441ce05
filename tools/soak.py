"""Soak: `tidewright-sync watch` against the reference service for a long time.

The service publishes a new manifest version every few seconds (a few files
change, now and then a multi-chunk one), moves to a new era twice (at a fifth
and at two fifths of the run, so that the second half, where trends are
measured, is steady), and now and then scripts one fault of the kinds the
fault and outage tests use: bursts of transient statuses, refused requests,
truncated, reset and corrupted bodies, broken ranges, stalls, slow answers,
and the service going away for a few seconds.

Every few seconds the watch process's open descriptors, threads and resident
memory are sampled, and every file visible under its final name in the data
directory is checked against the manifests the service published (a file is
only ever replaced by a whole, verified one, so at any moment each must be
the file of one of them). Every few samples the directory's sync lock is
taken, as a second process of the engine would, and the committed state is
checked strictly: "manifest.json" is a manifest the service published and
every file it lists is that file, byte for byte, with no other data file
beside them.

The run fails when descriptors, threads or RSS keep growing (the
least-squares slope over the second half of the samples, times that half's
length, exceeds both a floor and three times the scatter around the fit),
when a visible file is not a published one, when the directory stays behind
the service for longer than --lag-bound seconds, when the watch exits early,
or when it does not release the directory on Ctrl-C.

    python tools/soak.py --seconds 600            # make soak SOAK_SECONDS=600

The watch runs in a child process (the `tidewright-sync` console entry point)
with a short no-progress timeout set through the module's private setter, so
that a stalled answer costs seconds rather than the default 30 s.
"""

from __future__ import annotations

import argparse
import collections
import dataclasses
import errno
import fcntl
import hashlib
import json
import math
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from tools.dataservice import DataService  # noqa: E402

KIB = 1024
MIB = 1024 * KIB
ERA_CURRENT = "/market/1/era/current"

# The engine's own files beside the data; staging files end in ".tmp" and an
# era switch stages under ".transition_era<N>.tmp/".
SIDE_FILES = frozenset({
    "manifest.json", ".manifest_sync_metadata.json", ".sync_hash_cache.json", "sync-progress.json",
    ".consumer_count", ".sync_flock", ".sync_flock.owner", ".transition_lock", "shuffle_seed.enc",
    "shuffle_seed.enc.meta.json", "feature-rotation-state.json", ".prefetched-features.json",
})

# Runs the console entry point as installed, whatever module holds it.
WATCH_CHILD = """
import signal, sys
signal.signal(signal.SIGINT, signal.default_int_handler)  # ignored when the soak runs in the background
from importlib.metadata import entry_points
import tidewright.sync as sync
sync._set_sync_http_timeout_seconds(float(sys.argv[1]))
(entry,) = [e for e in entry_points(group="console_scripts") if e.name == "tidewright-sync"]
sys.argv = ["tidewright-sync"] + sys.argv[2:]
entry.load()()
"""


# -- trend --------------------------------------------------------------------------

@dataclasses.dataclass
class Trend:
    """Least-squares line through the second half of a series of samples."""

    slope_per_minute: float
    rise: float        # slope times the length of the half
    scatter: float     # standard deviation of the residuals
    floor: float
    grows: bool


def trend(times: list[float], values: list[float], floor: float) -> Trend:
    """Whether ``values`` keep growing over the second half of the samples.

    Growth counts when the fitted rise over that half exceeds ``floor`` (what
    a working process may legitimately add, such as a worker pool coming up)
    and three times the scatter of the samples around the line (so a series
    that jumps about without a direction does not count).
    """
    half = len(times) // 2
    xs, ys = times[half:], values[half:]
    if len(xs) < 3 or xs[-1] <= xs[0]:
        return Trend(0.0, 0.0, 0.0, floor, False)
    n = len(xs)
    mx, my = sum(xs) / n, sum(ys) / n
    sxx = sum((x - mx) ** 2 for x in xs)
    slope = sum((x - mx) * (y - my) for x, y in zip(xs, ys)) / sxx
    scatter = math.sqrt(sum((y - (my + slope * (x - mx))) ** 2 for x, y in zip(xs, ys)) / n)
    rise = slope * (xs[-1] - xs[0])
    return Trend(slope * 60.0, rise, scatter, floor, rise > floor and rise > 3.0 * scatter)


# -- the watched process ---------------------------------------------------------------

@dataclasses.dataclass
class Sample:
    t: float
    fds: int
    threads: int
    rss: int  # bytes


def sample_process(pid: int, t: float) -> Sample | None:
    try:
        fds = len(os.listdir(f"/proc/{pid}/fd"))
        threads = rss = 0
        with open(f"/proc/{pid}/status", encoding="ascii") as handle:
            for line in handle:
                if line.startswith("Threads:"):
                    threads = int(line.split()[1])
                elif line.startswith("VmRSS:"):
                    rss = int(line.split()[1]) * KIB
    except (OSError, ValueError):
        return None
    return Sample(t, fds, threads, rss)


def thread_names(pid: int) -> set[str]:
    names = set()
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/comm", encoding="utf-8", errors="replace") as handle:
                names.add(handle.read().strip())
    except OSError:
        pass
    return names


# -- the data directory ------------------------------------------------------------------

class DirectoryLock:
    """The engine's cross-process sync lock on ".sync_flock", taken the way a
    second process of the engine takes it: the name is locked, the locked file
    must still be the one at the name, and the name is removed before the lock
    is let go."""

    def __init__(self, data_dir: str, timeout: float) -> None:
        self.path = os.path.join(data_dir, ".sync_flock")
        self.timeout = timeout
        self.fd = -1

    def __enter__(self) -> bool:
        deadline = time.monotonic() + self.timeout
        while True:
            fd = os.open(self.path, os.O_RDWR | os.O_CREAT | os.O_APPEND | os.O_NOFOLLOW | os.O_CLOEXEC, 0o666)
            while True:
                try:
                    fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    break
                except OSError as exc:
                    if exc.errno not in (errno.EWOULDBLOCK, errno.EINTR):
                        os.close(fd)
                        raise
                if time.monotonic() > deadline:
                    os.close(fd)
                    return False
                time.sleep(0.02)
            held = os.fstat(fd)
            try:
                named = os.stat(self.path)
            except FileNotFoundError:
                named = None
            if named is not None and (named.st_dev, named.st_ino) == (held.st_dev, held.st_ino):
                self.fd = fd
                return True
            os.close(fd)  # the file we locked lost its name meanwhile

    def __exit__(self, *exc_info) -> None:
        if self.fd >= 0:
            try:
                os.unlink(self.path)
            except FileNotFoundError:
                pass
            fcntl.flock(self.fd, fcntl.LOCK_UN)
            os.close(self.fd)
            self.fd = -1


class Hashes:
    """SHA-256 of local files, remembered by size, times and inode."""

    def __init__(self) -> None:
        self._known: dict[str, tuple[tuple, str]] = {}

    def of(self, path: str) -> str | None:
        try:
            st = os.stat(path)
            key = (st.st_size, st.st_mtime_ns, st.st_ctime_ns, st.st_ino)
            known = self._known.get(path)
            if known is not None and known[0] == key:
                return known[1]
            digest = hashlib.sha256()
            with open(path, "rb") as handle:
                for block in iter(lambda: handle.read(MIB), b""):
                    digest.update(block)
        except FileNotFoundError:
            return None  # replaced or removed while we looked: the next check sees what is there
        self._known[path] = (key, digest.hexdigest())
        return digest.hexdigest()


def visible_data_files(data_dir: str) -> list[str]:
    """Manifest-relative paths of the files under their final names, side
    files, staging files and era directories left out."""
    found = []
    for root, dirs, names in os.walk(data_dir):
        rel_root = os.path.relpath(root, data_dir)
        if rel_root == ".":
            dirs[:] = [d for d in dirs if not d.endswith(".tmp") and not d.startswith("era_")]
        else:
            dirs[:] = [d for d in dirs if not d.endswith(".tmp")]
        for name in names:
            rel = name if rel_root == "." else f"{rel_root.replace(os.sep, '/')}/{name}"
            if name.endswith(".tmp") or rel in SIDE_FILES:
                continue
            found.append(rel)
    return found


def read_json(path: str):
    try:
        with open(path, encoding="utf-8") as handle:
            return json.load(handle)
    except (OSError, ValueError):
        return None


# -- the service's side ---------------------------------------------------------------

class Published:
    """Every manifest the service published, in order, with when."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.states: list[tuple[int, int, float]] = []       # (era, version, monotonic time)
        self.manifests: dict[tuple[int, int], dict] = {}
        self.shas: dict[str, set[str]] = collections.defaultdict(set)

    def record(self, svc: DataService) -> None:
        manifest = svc.manifest()
        key = (manifest["era_number"], manifest["version"])
        with self._lock:
            self.manifests[key] = manifest
            self.states.append((key[0], key[1], time.monotonic()))
            for rel, entry in manifest["files"].items():
                self.shas[rel].add(entry["sha256"])

    def latest(self) -> tuple[int, int]:
        with self._lock:
            return self.states[-1][:2]

    def lag(self, local: tuple[int, int] | None, now: float) -> float:
        """Seconds since the first state the directory has not reached was published."""
        with self._lock:
            keys = [s[:2] for s in self.states]
            if local is None or local not in keys:
                return now - self.states[0][2]
            index = len(keys) - 1 - keys[::-1].index(local)
            return 0.0 if index == len(keys) - 1 else now - self.states[index + 1][2]


# The faults of the fault and outage tests, as (name, weight). Each is
# scripted once (count=1 unless said) on a path a sync is about to ask for.
FAULTS = [
    ("5xx", 4), ("429", 2), ("408/425", 1), ("refused 503", 1), ("401", 1),
    ("truncate", 3), ("reset", 3), ("bad status line", 2), ("corrupt", 3),
    ("range ignored", 2), ("empty 206", 2), ("wrong content-range", 2), ("overlong 206", 1), ("416", 1),
    ("stall", 2), ("delay", 2), ("slow", 1), ("outage", 1),
]


class Director(threading.Thread):
    """Publishes versions and eras and scripts faults on a schedule."""

    def __init__(self, svc: DataService, published: Published, args, rng: random.Random, started: float) -> None:
        super().__init__(name="soak-director", daemon=True)
        self.svc, self.published, self.args, self.rng, self.started = svc, published, args, rng, started
        self.stop_event = threading.Event()
        self.faults: list[tuple[str, object]] = []   # (name, Fault or None for an outage)
        self.outages = 0
        self.errors: list[str] = []
        files = list(svc.manifest()["files"])
        self.small = [p for p in files if p.startswith(("features/", "found_", "useful_")) and "__blob__" not in p]
        self.big = [p for p in files if p.startswith("blobs/") or "__blob__" in p]
        self.era_at = [started + args.seconds * f for f in (0.2, 0.4)]

    def run(self) -> None:
        next_version = self.started + self.args.version_interval
        next_fault = self.started + self.args.fault_interval
        while not self.stop_event.wait(0.1):
            now = time.monotonic()
            try:
                if self.era_at and now >= self.era_at[0]:
                    self.era_at.pop(0)
                    self.svc.publish_era()
                    self.published.record(self.svc)
                    next_version = now + self.args.version_interval
                elif now >= next_version:
                    touch = self.rng.sample(self.small, min(len(self.small), self.rng.randint(1, 4)))
                    if self.big and self.rng.random() < 0.4:
                        touch.append(self.rng.choice(self.big))
                    self.svc.set_version(touch=touch)
                    self.published.record(self.svc)
                    next_version = now + self.args.version_interval * self.rng.uniform(0.7, 1.3)
                if now >= next_fault:
                    self.inject()
                    next_fault = now + self.args.fault_interval * self.rng.uniform(0.5, 1.5)
            except Exception as exc:  # noqa: BLE001 - the run reports it and fails
                self.errors.append(f"{type(exc).__name__}: {exc}")

    def pending(self) -> int:
        return sum(1 for _, f in self.faults if f is not None and not f.exhausted)

    def inject(self) -> None:
        if self.pending() >= 3:  # no sync has come by for them yet
            return
        names, weights = zip(*FAULTS)
        name = self.rng.choices(names, weights)[0]
        svc, rng = self.svc, self.rng
        anything = rng.choice(["/data/manifest/version", "/data/manifest", "/data/files/*", ERA_CURRENT])
        body = rng.choice(["/data/manifest", "/data/files/*"])
        big = "/data/files/blobs/*" if rng.random() < 0.7 else "/data/files/*"

        def add(pattern, kind, **kw):
            self.faults.append((name, svc.add_fault(pattern, kind, **kw)))

        if name == "outage":
            svc.stop()
            self.faults.append((name, None))
            self.outages += 1
            self.stop_event.wait(rng.uniform(1.0, 4.0))
            svc.start()
        elif name == "5xx":  # a burst
            for status in rng.sample([500, 502, 503, 504], rng.randint(2, 4)):
                add(anything, "status", status=status)
        elif name == "429":
            add(anything, "status", status=429, count=2)
        elif name == "408/425":
            add(anything, "status", status=rng.choice([408, 425]))
        elif name == "refused 503":  # not to be retried: the sync ends and the next poll tries again
            add(rng.choice(["/data/manifest", "/data/files/*"]), "status", status=503, retryable=False)
        elif name == "401":
            add(rng.choice(["/data/manifest", "/data/files/*"]), "status", status=401)
        elif name == "truncate":
            add(body, "truncate", after_bytes=rng.choice([0, 100, 10_000]))
        elif name == "reset":
            add(body, "reset", after_bytes=rng.choice([0, 1000]))
        elif name == "bad status line":
            add(anything, "bad_status_line")
        elif name == "corrupt":
            add("/data/files/*", "corrupt")
        elif name == "range ignored":
            add(big, "ignore_range", skip=1)
        elif name == "empty 206":
            add(big, "empty_206", skip=1)
        elif name == "wrong content-range":
            add(big, "bad_content_range", skip=1)
        elif name == "overlong 206":
            add(big, "overlong", skip=1, after_bytes=5000)
        elif name == "416":
            add(big, "status", status=416, skip=1)
        elif name == "stall":
            add(body, "stall", after_bytes=1000, seconds=3 * self.args.http_timeout)
        elif name == "delay":
            add(anything, "delay", seconds=rng.uniform(0.5, 3.0))
        elif name == "slow":
            add("/data/files/*", "slow", bytes_per_second=256 * KIB)

    def applied(self) -> collections.Counter:
        """Faulty answers given (and outages), by kind."""
        counts: collections.Counter = collections.Counter()
        for name, fault in self.faults:
            counts[name] += 1 if fault is None else fault.applied
        return counts


# -- checks of the directory -----------------------------------------------------------------

def check_visible(data_dir: str, published: Published, hashes: Hashes) -> list[str]:
    """Every file under its final name is the file of some published manifest."""
    problems = []
    for rel in visible_data_files(data_dir):
        known = published.shas.get(rel)
        sha = hashes.of(os.path.join(data_dir, *rel.split("/")))
        if sha is None:
            continue
        if not known:
            problems.append(f"{rel} is in no published manifest")
        elif sha not in known:
            problems.append(f"{rel} matches no published version of it")
    return problems


def check_committed(data_dir: str, published: Published, hashes: Hashes) -> list[str]:
    """Under the directory's lock: "manifest.json" is a published manifest,
    no data file lies beside those it lists, and when it is the service's
    latest, every file it lists is that manifest's file.

    Short of the latest, files may belong to a later version: a sync promotes
    each file once verified and writes the manifest last, so one that failed
    half-way (a refused request, say) leaves some files of the version it
    was fetching under a manifest that still names the one before. The next
    sync that commits puts them right, which the in-step check then sees.
    """
    manifest = read_json(os.path.join(data_dir, "manifest.json"))
    if manifest is None:
        return []  # nothing committed yet
    key = (manifest.get("era_number"), manifest.get("version"))
    expected = published.manifests.get(key)
    if expected is None or manifest.get("files") != expected["files"]:
        return [f"manifest.json (era {key[0]} version {key[1]}) is no manifest the service published"]
    problems = []
    listed = expected["files"]
    if key == published.latest():
        for rel, entry in listed.items():
            if hashes.of(os.path.join(data_dir, *rel.split("/"))) != entry["sha256"]:
                problems.append(f"{rel} is not the file of era {key[0]} version {key[1]}, which the directory "
                                f"holds and the service still serves")
    for rel in visible_data_files(data_dir):
        if rel not in listed:
            problems.append(f"{rel} is left beside era {key[0]} version {key[1]}, which does not list it")
    return problems


def local_state(data_dir: str) -> tuple[int, int] | None:
    manifest = read_json(os.path.join(data_dir, "manifest.json"))
    if not isinstance(manifest, dict):
        return None
    return manifest.get("era_number"), manifest.get("version")


def dump_stacks(pid: int, work: str) -> str:
    """The native stacks of every thread of ``pid`` into the work directory (with gdb, when installed)."""
    gdb = shutil.which("gdb")
    if gdb is None:
        return ""
    path = os.path.join(work, f"stacks-{pid}.txt")
    with open(path, "w", encoding="utf-8") as out:
        subprocess.run([gdb, "-p", str(pid), "-batch", "-ex", "thread apply all bt"], stdout=out,
                       stderr=subprocess.STDOUT, timeout=120)
    return f" (thread stacks in {path})"


# -- the run ---------------------------------------------------------------------------------------

def human_bytes(n: float) -> str:
    return f"{n / MIB:.1f} MiB"


def run(args) -> int:
    rng = random.Random(args.seed)
    work = args.work_dir or tempfile.mkdtemp(prefix="tidewright-soak-")
    data_dir = os.path.join(work, "data")
    shutil.rmtree(data_dir, ignore_errors=True)
    os.makedirs(data_dir)
    log_path = os.path.join(work, "watch.log")
    big = {f"blobs/big_{i}.bin": ("data", args.big_bytes + i * 4097) for i in range(2)}
    svc = DataService(seed=args.seed, features=args.features, feature_bytes=args.feature_bytes,
                      large_file_bytes=args.big_bytes, found_signals=4, useful_signals=2, extra_files=big)
    svc.start()
    published = Published()
    published.record(svc)
    era_files = len(svc.manifest()["files"])
    era_bytes = sum(e["size_bytes"] for e in svc.manifest()["files"].values())
    print(f"soak: {args.seconds:.0f} s; era of {era_files} files, {human_bytes(era_bytes)}; a version every "
          f"~{args.version_interval:g} s, a fault every ~{args.fault_interval:g} s; seed {args.seed}; "
          f"work directory {work}", flush=True)

    env = dict(os.environ, TIDEWRIGHT_TOKEN=svc.token)
    log = open(log_path, "w", encoding="utf-8")  # noqa: SIM115 - open for the whole run
    watch = subprocess.Popen(
        [sys.executable, "-c", WATCH_CHILD, str(args.http_timeout), "watch", "--server", svc.url,
         "--data-dir", data_dir, "--chunk-bytes", str(args.chunk_bytes), "--no-progress"],
        stdout=log, stderr=subprocess.STDOUT, env=env)

    failures: list[str] = []
    samples: list[Sample] = []
    hashes = Hashes()
    states_seen: set[tuple[int, int]] = set()
    max_lag = 0.0
    visible_checks = committed_checks = lock_busy = 0
    director = None
    started = time.monotonic()
    try:
        # The watch's first sync, without faults, and its poll thread started
        # (the figures at the start are those of a watch at work).
        deadline = started + args.lag_bound
        while local_state(data_dir) != published.latest() or "tw-sync-poll" not in thread_names(watch.pid):
            if watch.poll() is not None or time.monotonic() > deadline:
                raise SystemExit(f"the watch did not complete its first sync (see {log_path})")
            time.sleep(0.2)
        started = time.monotonic()
        director = Director(svc, published, args, rng, started)
        director.start()
        end = started + args.seconds
        next_sample = started
        tick = 0
        while time.monotonic() < end and not failures:
            time.sleep(max(0.0, next_sample - time.monotonic()))
            next_sample += args.sample_interval
            now = time.monotonic()
            if watch.poll() is not None:
                failures.append(f"the watch exited early with status {watch.returncode}")
                break
            sample = sample_process(watch.pid, now - started)
            if sample is not None:
                samples.append(sample)
            local = local_state(data_dir)
            if local is not None:
                states_seen.add(local)
            lag = published.lag(local, now)
            max_lag = max(max_lag, lag)
            if lag > args.lag_bound:
                failures.append(f"the directory stayed behind the service for {lag:.0f} s "
                                f"(at era {local[0] if local else None} version {local[1] if local else None}, "
                                f"the service at {published.latest()})")
            failures += check_visible(data_dir, published, hashes)
            visible_checks += 1
            tick += 1
            if tick % args.locked_check_every == 0:
                with DirectoryLock(data_dir, timeout=args.sample_interval * 2) as held:
                    if held:
                        failures += check_committed(data_dir, published, hashes)
                        committed_checks += 1
                    else:
                        lock_busy += 1
            if director.errors:
                failures += [f"the service's director failed: {e}" for e in director.errors]
        if director is not None:
            director.stop_event.set()
            director.join(30)
        svc.clear_faults()
        # In step with the last version within the bound, and clean.
        if not failures:
            deadline = time.monotonic() + args.lag_bound
            while local_state(data_dir) != published.latest() and time.monotonic() < deadline:
                if watch.poll() is not None:
                    failures.append(f"the watch exited early with status {watch.returncode}")
                    break
                time.sleep(0.5)
            final = local_state(data_dir)
            if final != published.latest():
                failures.append(f"the directory did not reach the last version {published.latest()} within "
                                f"{args.lag_bound:.0f} s of the last change (it holds {final})")
            else:
                states_seen.add(final)
            with DirectoryLock(data_dir, timeout=60.0) as held:
                if held:
                    failures += check_committed(data_dir, published, hashes)
                    committed_checks += 1
                else:
                    failures.append("the directory's lock could not be taken for the final check")
    finally:
        if director is not None:
            director.stop_event.set()
        if watch.poll() is None:
            watch.send_signal(signal.SIGINT)
            try:
                watch.wait(60)
            except subprocess.TimeoutExpired:
                failures.append("the watch did not stop within 60 s of Ctrl-C" + dump_stacks(watch.pid, work))
                watch.kill()
                watch.wait()
        log.close()
        svc.stop()

    with open(log_path, encoding="utf-8", errors="replace") as handle:
        watch_log = handle.read()
    if watch.returncode != 130 or "data directory released" not in watch_log:
        failures.append(f"the watch ended with status {watch.returncode} without releasing the directory")
    count = (read_json(os.path.join(data_dir, ".consumer_count")) if os.path.exists(
        os.path.join(data_dir, ".consumer_count")) else 0)
    if count not in (0, None):
        failures.append(f".consumer_count holds {count} after the watch released the directory")

    duration = samples[-1].t if samples else 0.0
    times = [s.t for s in samples]
    trends = {
        "descriptors": trend(times, [s.fds for s in samples], args.fd_floor),
        "threads": trend(times, [s.threads for s in samples], args.thread_floor),
        "RSS": trend(times, [s.rss / MIB for s in samples], args.rss_floor_mib),
    }
    for name, t in trends.items():
        if t.grows:
            failures.append(f"{name} keep growing: {t.rise:+.1f} over the second half "
                            f"(floor {t.floor:g}, scatter {t.scatter:.1f})")

    eras = sorted({e for e, _, _ in published.states})
    eras_followed = sorted({e for e, _ in states_seen})
    versions = len(published.states)
    faults = director.applied() if director is not None else collections.Counter()
    first, last = (samples[0], samples[-1]) if samples else (None, None)
    print("summary")
    print(f"  duration          {duration:.0f} s of sampling ({len(samples)} samples every "
          f"{args.sample_interval:g} s); watch log {log_path}")
    print(f"  versions          {len(states_seen)} of {versions} published states seen in the directory; "
          f"ended at {published.latest()}")
    print(f"  eras              followed {eras_followed} of {eras}")
    print(f"  largest lag       {max_lag:.1f} s (bound {args.lag_bound:g} s)")
    print(f"  checks            {visible_checks} of the visible files, {committed_checks} under the lock "
          f"({lock_busy} times the lock was busy)")
    print(f"  faults injected   {sum(faults.values())} faulty answers or outages: "
          + ", ".join(f"{n} {k}" for k, n in sorted(faults.items()) if n))
    if first is not None:
        print(f"  descriptors       {first.fds} -> {last.fds}")
        print(f"  threads           {first.threads} -> {last.threads}")
        print(f"  RSS               {human_bytes(first.rss)} -> {human_bytes(last.rss)} "
              f"(peak {human_bytes(max(s.rss for s in samples))})")
    for name, t in trends.items():
        unit = " MiB" if name == "RSS" else ""
        print(f"  trend {name:12s}{t.slope_per_minute:+.3f}{unit}/min over the second half, rise {t.rise:+.2f}{unit} "
              f"(floor {t.floor:g}, 3 x scatter {3 * t.scatter:.2f})")
    if args.json:
        with open(args.json, "w", encoding="utf-8") as handle:
            json.dump({"samples": [dataclasses.asdict(s) for s in samples], "failures": failures,
                       "faults": dict(faults), "states": published.states}, handle)
    if failures:
        print("verdict           FAIL")
        for line in failures[:20]:
            print(f"    {line}")
        print("  last lines of the watch log:")
        for line in watch_log.splitlines()[-15:]:
            print(f"    {line}")
        return 1
    print("verdict           ok")
    if not args.work_dir and not args.keep:
        shutil.rmtree(work, ignore_errors=True)
    return 0


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=600.0, help="length of the run (default 600)")
    parser.add_argument("--seed", type=int, default=None, help="random seed (printed; replays the schedule)")
    parser.add_argument("--version-interval", type=float, default=3.0, help="seconds between new versions")
    parser.add_argument("--fault-interval", type=float, default=4.0, help="seconds between scripted faults")
    parser.add_argument("--sample-interval", type=float, default=2.0)
    parser.add_argument("--locked-check-every", type=int, default=5, help="samples between checks under the lock")
    parser.add_argument("--lag-bound", type=float, default=60.0,
                        help="longest the directory may stay behind the service, in seconds")
    parser.add_argument("--http-timeout", type=float, default=5.0, help="the watch's no-progress timeout")
    parser.add_argument("--features", type=int, default=40)
    parser.add_argument("--feature-bytes", type=int, default=64 * KIB)
    parser.add_argument("--big-bytes", type=int, default=1 * MIB, help="size of the multi-chunk files")
    parser.add_argument("--chunk-bytes", type=int, default=256 * KIB)
    parser.add_argument("--fd-floor", type=float, default=3.0)
    parser.add_argument("--thread-floor", type=float, default=3.0)
    parser.add_argument("--rss-floor-mib", type=float, default=8.0)
    parser.add_argument("--work-dir", default=None, help="keep the data directory and the watch log here")
    parser.add_argument("--keep", action="store_true", help="keep the temporary work directory")
    parser.add_argument("--json", default=None, help="write the samples and the outcome to this file")
    args = parser.parse_args(argv)
    if args.seed is None:
        args.seed = random.randrange(1 << 30)
    return run(args)


if __name__ == "__main__":
    sys.exit(main())
