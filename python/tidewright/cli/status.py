"""``status``: what a data directory holds and how a sync on it is going, as lines for people or as JSON.

The manifest and the consumer count come from the engine, through a manager
built on the directory that never reaches the service (it starts no thread
and takes no lock). What the engine keeps to itself is read here from the
directory's side files: the download still to do, whether another process
holds the sync lock, whether an era transition runs, and when the manifest
was written.
"""

from __future__ import annotations

import fcntl
import json
import os
import time
from typing import Any

from .console import human_bytes
from .run import LOCAL_ONLY_SERVER, Run, new_manager, refuse_token


def manifest_totals(manifest) -> tuple[int, int]:
    """Number of files a manifest lists and the sum of their sizes (entries without a usable size count 0 bytes)."""
    if manifest is None:
        return 0, 0
    # Counted by the engine when the files map was never built in Python (a
    # 100,000-file map would cost the process far more than the sync did).
    native = getattr(manifest, "_file_totals", None)
    totals = native() if callable(native) else None
    if totals is not None:
        return totals
    files = manifest.files or {}
    total = 0
    for info in files.values():
        size = info.get("size_bytes") if isinstance(info, dict) else None
        if isinstance(size, int) and size >= 0:
            total += size
    return len(files), total


def read_status(data_dir: str) -> dict:
    """What a data directory holds (no service asked, no lock taken)."""
    from tidewright import sync

    manager = new_manager(data_dir, LOCAL_ONLY_SERVER, get_token=refuse_token)
    status: dict[str, Any] = {"data_dir": data_dir}
    manifest = manager.get_manifest()
    if manifest is not None:
        nfiles, nbytes = manifest_totals(manifest)
        status.update(era_number=manifest.era_number, version=manifest.version, files=nfiles, bytes=nbytes,
                      synced_at=_modified_at(os.path.join(data_dir, "manifest.json")))
    else:
        status.update(era_number=None, version=None, files=0, bytes=0, synced_at=None)
    status["sync"] = _download_to_do(data_dir, sync._sync_progress_path(data_dir))
    # The engine's directory lock answers for its own process only; whether
    # another process holds ".sync_flock" is asked of the kernel here.
    status["sync_running"] = _lock_held(os.path.join(data_dir, ".sync_flock"))
    status["consumer_count"] = manager.consumer_count()
    # A manager knows of a transition only when it runs one itself; the
    # marker file tells of one run by any process.
    status["in_transition"] = os.path.exists(os.path.join(data_dir, ".transition_lock"))
    return status


def _modified_at(path: str) -> float | None:
    """When the manifest was written: the engine keeps no time of its last sync, the file system does."""
    try:
        return os.path.getmtime(path)
    except OSError:
        return None


def _download_to_do(data_dir: str, progress_path: str) -> dict | None:
    """How far the download of an unfinished sync got, or None when there is none.

    The engine writes its progress file for outside observers and has no
    reader for it: what it lists is compared here with the files and the
    staging files ("<path>.tmp") in the directory.
    """
    try:
        with open(progress_path, encoding="utf-8") as handle:
            progress = json.load(handle)
    except (OSError, ValueError):
        return None
    if not isinstance(progress, dict):
        return None
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
