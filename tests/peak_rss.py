"""Peak memory of a piece of client code, measured in a child process.

The code runs in a fresh interpreter that has imported ``tidewright.sync``;
whatever it raises is reported, not propagated. The servers it talks to run
in the calling process, so their memory is not counted.
"""

import json
import os
import subprocess
import sys
import textwrap

# Under a sanitizer runtime (make asan, make tsan) or an instrumented Debug
# build (make coverage sets TW_INSTRUMENTED_BUILD) memory figures say nothing.
MEMORY_UNMEASURABLE = any(name in os.environ for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "TW_INSTRUMENTED_BUILD"))

_CHILD = """
import json, sys
import tidewright.sync as sync

def peak_mib():
    # VmHWM starts afresh with the program; ru_maxrss would carry the
    # parent's peak over the fork.
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    raise RuntimeError("no VmHWM in /proc/self/status")

outcome = {{"baseline_mib": peak_mib()}}
try:
{body}
except BaseException as exc:
    outcome.update(error=type(exc).__name__, message=str(exc))
outcome["peak_mib"] = peak_mib()
print(json.dumps(outcome))
"""


def measure(code, hang_guard=300.0):
    """Runs ``code`` (statements) in a child; returns a dict with
    ``baseline_mib`` (after the import), ``peak_mib`` and, when the code
    raised, ``error`` (the class name) and ``message``."""
    script = _CHILD.format(body=textwrap.indent(textwrap.dedent(code).strip() or "pass", "    "))
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=hang_guard)
    lines = done.stdout.strip().splitlines()
    if done.returncode != 0 or not lines:
        raise AssertionError(f"measured child failed ({done.returncode}): {done.stderr[-2000:]}")
    return json.loads(lines[-1])


def describe(outcome):
    """One line for assertion messages and reports."""
    what = f"{outcome['error']}: {outcome['message'][:200]}" if "error" in outcome else "no error"
    return f"peak {outcome['peak_mib']:.0f} MiB (baseline {outcome['baseline_mib']:.0f} MiB); {what}"
