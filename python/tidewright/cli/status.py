"""``status``: what a data directory holds and how a sync on it is going, as lines for people or as JSON.

Read from the directory's files only: no service asked, no lock taken for long.
"""

from __future__ import annotations

import fcntl
import json
import os
import time
from typing import Any

from .console import human_bytes
from .run import Run


def manifest_totals(manifest) -> tuple[int, int]:
    """Number of files a manifest lists and the sum of their sizes (entries without a usable size count 0 bytes)."""
    if manifest is None:
        return 0, 0
    files = manifest.files or {}
    total = 0
    for info in files.values():
        size = info.get("size_bytes") if isinstance(info, dict) else None
        if isinstance(size, int) and size >= 0:
            total += size
    return len(files), total


def read_status(data_dir: str) -> dict:
    """What a data directory holds, read from its files only (no service, no lock taken for long)."""
    def load(name: str):
        try:
            with open(os.path.join(data_dir, name), encoding="utf-8") as handle:
                return json.load(handle)
        except (OSError, ValueError):
            return None

    status: dict[str, Any] = {"data_dir": data_dir}
    manifest = load("manifest.json")
    if isinstance(manifest, dict):
        files = manifest.get("files") if isinstance(manifest.get("files"), dict) else {}
        sizes = [i.get("size_bytes") for i in files.values() if isinstance(i, dict)]
        status.update(era_number=manifest.get("era_number"), version=manifest.get("version"),
                      files=len(files), bytes=sum(s for s in sizes if isinstance(s, int) and s >= 0))
        try:
            status["synced_at"] = os.path.getmtime(os.path.join(data_dir, "manifest.json"))
        except OSError:
            status["synced_at"] = None
    else:
        status.update(era_number=None, version=None, files=0, bytes=0, synced_at=None)

    progress = load("sync-progress.json")
    status["sync"] = None
    if isinstance(progress, dict):
        status["sync"] = _progress_status(data_dir, progress)
    status["sync_running"] = _lock_held(os.path.join(data_dir, ".sync_flock"))

    count = 0
    try:
        with open(os.path.join(data_dir, ".consumer_count"), encoding="utf-8") as handle:
            count = int(handle.read().strip() or 0)
    except (OSError, ValueError):
        count = 0
    status["consumer_count"] = count
    status["in_transition"] = os.path.exists(os.path.join(data_dir, ".transition_lock"))
    return status


def _progress_status(data_dir: str, progress: dict) -> dict:
    files = progress.get("files") if isinstance(progress.get("files"), dict) else {}
    updated = progress.get("updated_at") if isinstance(progress.get("updated_at"), (int, float)) else 0
    done_files = 0
    done_bytes = 0
    for path, entry in files.items():
        size = entry.get("size_bytes") if isinstance(entry, dict) else None
        local = os.path.join(data_dir, *str(path).split("/"))
        try:
            st = os.stat(local)
            if isinstance(size, int) and st.st_size == size and st.st_mtime >= updated - 1:
                done_files += 1
                done_bytes += size
                continue
        except OSError:
            pass
        try:
            done_bytes += os.path.getsize(local + ".tmp")
        except OSError:
            pass
    total = progress.get("total_bytes") if isinstance(progress.get("total_bytes"), int) else 0
    return {"era_number": progress.get("era_number"), "version": progress.get("version"),
            "files_total": len(files), "files_done": done_files, "bytes_total": total,
            "bytes_done": min(done_bytes, total) if total else done_bytes,
            "total_bytes_known": bool(progress.get("total_bytes_known", True)), "updated_at": updated}


def _lock_held(path: str) -> bool:
    """Whether some process holds the directory's sync lock now."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    except OSError:
        return False
    try:
        fcntl.flock(fd, fcntl.LOCK_SH | fcntl.LOCK_NB)
    except OSError:
        return True
    else:
        fcntl.flock(fd, fcntl.LOCK_UN)
        return False
    finally:
        os.close(fd)


def status_lines(status: dict) -> list[str]:
    """The human-readable status: one "label   value" line per thing."""
    lines = [f"data directory  {status['data_dir']}"]
    if status["era_number"] is None:
        lines.append("manifest        none (never synced)")
    else:
        when = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(status["synced_at"])) if status["synced_at"] else "?"
        lines.append(f"manifest        era {status['era_number']}, version {status['version']}, "
                     f"{status['files']} files, {human_bytes(status['bytes'])} (written {when})")
    s = status["sync"]
    if s is None:
        lines.append("sync            running (no download yet)" if status["sync_running"] else "sync            idle")
    else:
        pct = 100.0 * s["bytes_done"] / s["bytes_total"] if s["bytes_total"] else 0.0
        state = "running" if status["sync_running"] else "interrupted (resumes on the next sync)"
        lines.append(f"sync            {state}: era {s['era_number']} version {s['version']}, "
                     f"{s['files_done']}/{s['files_total']} files, about {human_bytes(s['bytes_done'])} of "
                     f"{human_bytes(s['bytes_total'])} ({pct:.0f}%)")
    lines.append(f"consumers       {status['consumer_count']}")
    if status["in_transition"]:
        lines.append("era transition  in progress")
    return lines


def cmd_status(run: Run) -> dict:
    status = read_status(run.data_dir(writable=False))
    for line in status_lines(status):
        run.say(line)
    return status
