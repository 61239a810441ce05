"""The subcommands ``sync``, ``verify``, ``repair``, ``watch`` and ``demo``, and the summaries they print.

(``status`` has a module of its own.)
"""

from __future__ import annotations

import logging
import os
import sys
import tempfile
import threading
import time

from .console import PROG, human_bytes, human_seconds, mb_per_s
from .errors import (EXIT_INTEGRITY, EXIT_OTHER, EXIT_USAGE, CliError, Interrupted, Terminate, no_manifest,
                     verify_problem)
from .progress import Progress
from .run import SYNC_LOGGER, Run
from .status import manifest_totals


def sync_summary(manager, result, seconds: float, progress: Progress | None) -> dict:
    manifest = manager.get_manifest()
    nfiles, nbytes = manifest_totals(manifest)
    downloaded = int(result.bytes_downloaded or 0)
    return {
        "era_number": manifest.era_number if manifest is not None else result.era_number,
        "version": manifest.version if manifest is not None else None,
        "files": nfiles,
        "bytes": nbytes,
        "files_downloaded": progress.files_downloaded if progress is not None else None,
        "bytes_downloaded": downloaded,
        "seconds": round(seconds, 3),
        "mb_per_s": round(mb_per_s(downloaded, seconds), 1),
        "features_downloaded": result.features_downloaded,
        "vocabulary_downloaded": result.vocabulary_downloaded,
        "shuffle_seed_downloaded": result.shuffle_seed_downloaded,
    }


def sync_summary_line(s: dict) -> str:
    head = f"era {s['era_number']} version {s['version']}: {s['files']} files, {human_bytes(s['bytes'])}"
    if s["bytes_downloaded"]:
        return (f"{head}; downloaded {s['files_downloaded']} files, {human_bytes(s['bytes_downloaded'])} "
                f"in {human_seconds(s['seconds'])} ({s['mb_per_s']:.1f} MB/s)")
    return f"{head}; already up to date ({human_seconds(s['seconds'])})"


def verify_summary(result) -> dict:
    return {"valid": bool(result.valid), "corrupted_files": list(result.corrupted_files),
            "missing_files": list(result.missing_files)}


def _timed(run: Run, fn) -> tuple:
    """``run.call(fn)`` and the seconds it took."""
    started = time.monotonic()
    result = run.call(fn)
    return result, time.monotonic() - started


def _verified(run: Run, manager) -> dict:
    """The verify summary of the whole directory; corrupt or missing files end the command (exit 5)."""
    v = verify_summary(run.call(manager.verify))
    if not v["valid"]:
        raise verify_problem(v)
    return v


def cmd_sync(run: Run) -> dict:
    manager = run.manager()
    result, seconds = _timed(run, manager.sync)
    summary = sync_summary(manager, result, seconds, run.progress)
    run.say(f"synced {run.args.data_dir}: " + sync_summary_line(summary))
    if run.args.verify:
        summary["verify"] = _verified(run, manager)
        run.say(f"verified {summary['files']} files: all match the manifest")
    return summary


def cmd_verify(run: Run) -> dict:
    manager = run.manager(needs_server=False)
    result, seconds = _timed(run, manager.verify)
    if not result.has_manifest:
        raise no_manifest(run.args.data_dir)
    v = verify_summary(result)
    nfiles, nbytes = manifest_totals(manager.get_manifest())
    summary = {**v, "files": nfiles, "bytes": nbytes, "seconds": round(seconds, 3)}
    if not v["valid"]:
        raise verify_problem(v)
    run.say(f"verified {nfiles} files ({human_bytes(nbytes)}) in {human_seconds(summary['seconds'])}: "
            "all match the manifest")
    return summary


def cmd_repair(run: Run) -> dict:
    manager = run.manager()
    if manager.get_manifest() is None:
        raise no_manifest(run.args.data_dir)
    files = manager.get_manifest().files
    paths = list(dict.fromkeys(run.args.paths))
    unknown = [p for p in paths if p not in files]
    if unknown:
        raise CliError(EXIT_USAGE, f"not in the manifest: {', '.join(unknown[:3])}",
                       "give manifest-relative paths as 'verify' prints them")
    if not paths:
        v = verify_summary(run.call(manager.verify))
        paths = v["corrupted_files"] + v["missing_files"]
    result, seconds = _timed(run, lambda: manager.repair(paths) if paths else None)
    after = verify_summary(run.call(manager.verify))
    still = [p for p in paths if p in after["corrupted_files"] or p in after["missing_files"]]
    summary = {"repaired": [p for p in paths if p not in still], "still_invalid": still,
               "bytes_downloaded": int(result.bytes_downloaded) if result is not None else 0,
               "seconds": round(seconds, 3), "valid": after["valid"]}
    if still:
        raise CliError(EXIT_INTEGRITY, f"{len(still)} files could not be repaired ({', '.join(still[:3])})",
                       "retry; if it persists, report it to the data service operator", details=summary)
    if paths:
        run.say(f"repaired {len(paths)} files ({human_bytes(summary['bytes_downloaded'])} in {human_seconds(seconds)})")
    else:
        run.say("nothing to repair: all files match the manifest")
    return summary


def cmd_watch(run: Run) -> dict:
    manager = run.manager(registered=True)
    result = run.call(manager.sync)
    summary = sync_summary(manager, result, 0.0, run.progress)
    say = run.say
    say(f"watching {run.args.data_dir}: era {summary['era_number']} version {summary['version']}, "
        f"{summary['files']} files; Ctrl-C to stop")
    # From here on the engine's own threads keep the directory current and
    # retry outages without limit.
    run.outage.give_up_seconds = None
    manager.acquire()
    changes = 0
    seen = (summary["era_number"], summary["version"])
    released = False
    try:
        while True:
            run.wait(1.0)
            manifest = manager.get_manifest()
            now = (manifest.era_number, manifest.version) if manifest is not None else (None, None)
            if now != seen:
                changes += 1
                seen = now
                nfiles, nbytes = manifest_totals(manifest)
                say(f"{time.strftime('%H:%M:%S')} now at era {now[0]} version {now[1]}: "
                    f"{nfiles} files, {human_bytes(nbytes)}")
    except Interrupted as stop:
        say("stopping: releasing the data directory")
        _release(run, manager)
        released = True
        summary.update(era_number=seen[0], version=seen[1], changes=changes, released=True)
        stop.summary = summary
        raise
    finally:
        if not released:  # a closed stdout, or an error while watching
            _release(run, manager)


def _release(run: Run, manager) -> None:
    """release() may wait for a running sync to finish; a second Ctrl-C abandons the wait."""
    done = threading.Event()

    def target() -> None:
        try:
            manager.release()
        except Exception:  # noqa: BLE001 - nothing more to do at the end of watch
            logging.getLogger(SYNC_LOGGER).warning("release failed", exc_info=True)
        finally:
            done.set()

    threading.Thread(target=target, name="tidewright-sync-release", daemon=True).start()
    try:
        while not done.wait(0.2):
            pass
    except (KeyboardInterrupt, Terminate):
        run.worker_alive = True


def cmd_demo(run: Run) -> dict:
    service_cls = _load_dataservice()
    args = run.args
    if args.data_dir:
        os.makedirs(args.data_dir, exist_ok=True)
    else:
        args.data_dir = tempfile.mkdtemp(prefix="tidewright-demo-")
    import secrets

    token = secrets.token_urlsafe(24)
    service = service_cls(seed=args.seed, features=args.features, feature_bytes=args.feature_bytes,
                          large_file_bytes=args.large_file_bytes, token=token, host="127.0.0.1")
    era = service.era()
    nfiles = len(era.files)
    nbytes = sum(e.content.size for e in era.files.values())
    run.say(f"starting the reference data service on 127.0.0.1 (era {era.era_number}: {nfiles} files, "
            f"{human_bytes(nbytes)}) ...")
    run.call(service.start)
    try:
        args.server = service.url
        run.token_override = token
        run.say(f"serving at {service.url}; syncing into {args.data_dir}")
        return _demo_sync_verify_resync(run)
    finally:
        service.stop()


def _demo_sync_verify_resync(run: Run) -> dict:
    """A cold sync, a verify and a no-op resync against the demo's service, each told, then the summary."""
    say = run.say
    manager = run.manager()
    result, seconds = _timed(run, manager.sync)
    summary = sync_summary(manager, result, seconds, run.progress)
    say("sync:    " + sync_summary_line(summary))
    started = time.monotonic()
    v = summary["verify"] = _verified(run, manager)
    verify_seconds = time.monotonic() - started
    say(f"verify:  {summary['files']} files match the manifest (size and SHA-256, "
        f"{human_seconds(verify_seconds)})")
    again, resync_seconds = _timed(run, manager.sync)
    summary["resync"] = {"bytes_downloaded": int(again.bytes_downloaded), "seconds": round(resync_seconds, 3)}
    say(f"resync:  {human_bytes(again.bytes_downloaded)} downloaded, {human_seconds(resync_seconds)} "
        "(nothing changed on the service)")
    data_dir = summary["data_dir"] = run.args.data_dir
    say("")
    say("summary")
    say(f"  data directory   {data_dir}")
    say(f"  era / version    {summary['era_number']} / {summary['version']}")
    say(f"  files            {summary['files']} ({human_bytes(summary['bytes'])})")
    say(f"  cold sync        {human_bytes(summary['bytes_downloaded'])} in {human_seconds(summary['seconds'])}"
        f" = {summary['mb_per_s']:.1f} MB/s")
    say(f"  verify           {'all files valid' if v['valid'] else 'problems found'}")
    say(f"  no-op resync     {human_seconds(resync_seconds)}")
    say(f"try: {_invoked_as()} status --data-dir {data_dir}")
    return summary


def _invoked_as() -> str:
    """The command as the user typed it (".venv/bin/tidewright-sync" from a checkout)."""
    argv0 = sys.argv[0] if sys.argv else ""
    if os.path.basename(argv0) == PROG and os.sep in argv0:
        rel = os.path.relpath(argv0)
        return rel if not rel.startswith("..") else argv0
    return PROG


def _load_dataservice():
    """The reference data service: bundled with the package, or from a source checkout."""
    try:
        from tidewright.dataservice import DataService
        return DataService
    except ImportError:
        pass
    package = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))  # .../tidewright
    for root in (os.getcwd(), os.path.dirname(os.path.dirname(package))):
        if os.path.isfile(os.path.join(root, "tools", "dataservice", "server.py")):
            if root not in sys.path:
                sys.path.insert(0, root)
            from tools.dataservice import DataService
            return DataService
    raise CliError(EXIT_OTHER, "the reference data service is not installed with this package",
                   "run the demo from a source checkout (make demo)")
