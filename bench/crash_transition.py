"""Kill -9 in the middle of era transitions.

For each round: a data directory is synced to era 1; era 2 is published with
one file download stalling (a different file each round, so the process dies
at a different point of the staging); a child process runs
``trigger_era_transition(2)`` and is killed with SIGKILL while it is stalled.
Then the data directory must still hold era 1 exactly (manifest bytes,
verified files, the file era 2 drops), and a transition in this process must
complete, verify era 2 and leave neither staging directory, transition lock,
sync lock nor temp files behind.

    python bench/crash_transition.py --rounds 10 --features 32

Prints one line per round and a summary; exits 1 when a round failed.
"""

from __future__ import annotations

import argparse
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

import tidewright.sync as sync  # noqa: E402
from tools.dataservice import DataService  # noqa: E402

SAME = b"unchanged between the eras"
CHILD = """
import sys
import tidewright.sync as sync
m = sync.SyncManager(sys.argv[1], sys.argv[2], lambda: sys.argv[3])
m.trigger_era_transition(2)
"""


def wait_for(predicate, timeout=60.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(0.02)
    return False


def leftovers(data_dir: str) -> list[str]:
    found = [n for n in os.listdir(data_dir) if n.startswith((".transition_", ".sync_flock"))]
    for root, _, files in os.walk(data_dir):
        found += [os.path.join(root, f) for f in files if f.endswith(".tmp")]
    return found


def one_round(index: int, features: int, work: str) -> tuple[bool, str]:
    extra = {"shared/same.bin": ("data", SAME), "old/only.bin": ("data", b"era 1 only")}
    with DataService(features=features, feature_bytes=256 * 1024, extra_files=extra) as svc:
        data_dir = os.path.join(work, f"round{index}")
        os.mkdir(data_dir)
        manager = sync.SyncManager(data_dir, svc.url, lambda: svc.token)
        manager.sync()
        manifest_before = pathlib.Path(data_dir, "manifest.json").read_bytes()
        svc.publish_era(2, extra_files={"shared/same.bin": ("data", SAME)})
        svc.add_fault("/data/files/*", "stall", count=None, skip=index, after_bytes=4096)

        child = subprocess.Popen([sys.executable, "-c", CHILD, data_dir, svc.url, svc.token],
                                 stderr=subprocess.DEVNULL)
        stalled = wait_for(lambda: any(r.fault == "stall" for r in svc.requests_for("/data/files/*")))
        staged = sum(len(files) for _, _, files in os.walk(os.path.join(data_dir, ".transition_era2.tmp")))
        child.send_signal(signal.SIGKILL)
        child.wait()
        svc.clear_faults()
        if not stalled:
            return False, "the child never reached the stalled download"

        after_kill = sync.SyncManager(data_dir, svc.url, lambda: svc.token)
        problems = []
        if pathlib.Path(data_dir, "manifest.json").read_bytes() != manifest_before:
            problems.append("manifest.json changed")
        if after_kill.get_manifest().era_number != 1 or not after_kill.verify().valid:
            problems.append("era 1 files do not verify")
        if not os.path.exists(os.path.join(data_dir, "old/only.bin")):
            problems.append("a file of era 1 is gone")

        started = time.monotonic()
        after_kill.trigger_era_transition(2)
        took = time.monotonic() - started
        if after_kill.get_manifest().era_number != 2 or not after_kill.verify().valid:
            problems.append("the next transition did not verify era 2")
        if os.path.exists(os.path.join(data_dir, "old/only.bin")):
            problems.append("the dropped file survived the next transition")
        left = leftovers(data_dir)
        if left:
            problems.append(f"left behind: {left}")
        detail = f"killed with {staged} files staged; next transition {took:.2f} s"
        return not problems, detail + ("" if not problems else "; " + "; ".join(problems))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=8)
    parser.add_argument("--features", type=int, default=24)
    args = parser.parse_args()
    passed = 0
    with tempfile.TemporaryDirectory(prefix="crash-transition-") as work:
        for index in range(args.rounds):
            ok, detail = one_round(index, args.features, work)
            passed += ok
            print(f"round {index + 1}: {'ok  ' if ok else 'FAIL'} {detail}", flush=True)
    print(f"{passed}/{args.rounds} rounds: era 1 intact after kill -9, next transition complete and clean")
    return 0 if passed == args.rounds else 1


if __name__ == "__main__":
    sys.exit(main())
