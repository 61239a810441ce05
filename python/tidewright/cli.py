"""``tidewright-sync``: keep a local data directory in step with the data service.

Subcommands::

    sync     download what is missing or stale, verify it, and exit
    verify   check every local file against the manifest (size and SHA-256)
    repair   re-download corrupt or missing files (all found by verify, or the given ones)
    status   what the directory holds, and the progress of a sync running on it
    watch    keep the directory current until Ctrl-C (registers as a consumer)
    demo     serve a generated era on 127.0.0.1, sync it, verify it, summarise

The token is read from ``--token-file FILE`` or ``--token TOKEN``, else from
the environment variable ``TIDEWRIGHT_TOKEN`` (only the command line reads
it; the library reads no environment variable). It is never printed.

Every failure ends with one line on stderr that says what happened and what
to do, and an exit status per error class (see ``EXIT_CODES``). The engine
replaces files only atomically and keeps partial downloads for the next run,
so an error or Ctrl-C never loses data.
"""

from __future__ import annotations

import argparse
import contextlib
import errno
import json
import logging
import math
import os
import re
import signal
import stat
import sys
import tempfile
import threading
import time
from typing import Any, Callable, TextIO

__all__ = ["EXIT_CODES", "main", "console_main"]

PROG = "tidewright-sync"
TOKEN_ENV = "TIDEWRIGHT_TOKEN"

EXIT_OK = 0
EXIT_OTHER = 1
EXIT_USAGE = 2
EXIT_AUTH = 3
EXIT_UNAVAILABLE = 4
EXIT_INTEGRITY = 5
EXIT_DISK_SPACE = 6
EXIT_ERA = 7
EXIT_INTERRUPTED = 130
EXIT_STDOUT_CLOSED = 141  # as a program ended by SIGPIPE
EXIT_TERMINATED = 143

EXIT_CODES = {
    EXIT_OK: "ok",
    EXIT_OTHER: "other error",
    EXIT_USAGE: "usage: bad arguments, or a data directory that is missing, unreachable or not writable",
    EXIT_AUTH: "authentication: no token, an unusable one (a line break in it), or the service refused it",
    EXIT_UNAVAILABLE: "the data service is unreachable or unavailable",
    EXIT_INTEGRITY: "integrity: local files are corrupt or missing, or downloads kept failing verification or "
                    "ending short",
    EXIT_DISK_SPACE: "not enough disk space",
    EXIT_ERA: "era or manifest: no local manifest, another era, an inconsistent manifest, or a service that keeps "
              "answering wrongly (refused ranges, redirect loops)",
    EXIT_INTERRUPTED: "interrupted (Ctrl-C)",
    EXIT_STDOUT_CLOSED: "standard output was closed (e.g. piped into head); nothing else went wrong",
    EXIT_TERMINATED: "terminated (SIGTERM)",
}

_KIND_BY_CODE = {
    EXIT_OTHER: "other", EXIT_USAGE: "usage", EXIT_AUTH: "auth", EXIT_UNAVAILABLE: "unavailable",
    EXIT_INTEGRITY: "integrity", EXIT_DISK_SPACE: "disk_space", EXIT_ERA: "era_manifest",
    EXIT_INTERRUPTED: "interrupted", EXIT_STDOUT_CLOSED: "stdout_closed", EXIT_TERMINATED: "terminated",
}

# After a stop request the engine ends transfers and backoff waits within
# about a second; past this grace the process exits anyway (partial
# downloads stay as resumable staging files).
_STOP_GRACE_SECONDS = 3.0
# A one-shot command gives up on an unreachable service after this long
# (the engine itself retries forever).
_DEFAULT_GIVE_UP_SECONDS = 30.0
_SYNC_LOGGER = "tidewright.sync"


class CliError(Exception):
    """A failure the user can act on: one line of what happened, one hint, an exit code."""

    def __init__(self, code: int, message: str, hint: str = "", *, details: dict | None = None) -> None:
        super().__init__(message)
        self.code = code
        self.message = message
        self.hint = hint
        self.details = details or {}

    @property
    def kind(self) -> str:
        return _KIND_BY_CODE.get(self.code, "other")

    def line(self) -> str:
        return f"{self.message}; {self.hint}" if self.hint else self.message


class Interrupted(Exception):
    def __init__(self, code: int = EXIT_INTERRUPTED) -> None:
        super().__init__("interrupted")
        self.code = code


class _Terminate(BaseException):
    """Raised in the main thread by the SIGTERM handler of the console entry point."""


class StdoutClosed(Exception):
    """Standard output went away (a closed pipe): the command ends quietly."""


class UsageError(Exception):
    """A command line that argparse refused; ``parser`` is the (sub)parser that did."""

    def __init__(self, parser: argparse.ArgumentParser, message: str) -> None:
        super().__init__(message)
        self.parser = parser
        self.message = message


class _Parser(argparse.ArgumentParser):
    """Raises UsageError instead of printing and exiting, so that ``--json`` can report it."""

    def error(self, message: str):  # noqa: D102 - argparse hook
        raise UsageError(self, message)


# -- formatting ------------------------------------------------------------------

def human_bytes(n: float) -> str:
    """Decimal units, as download tools print them: 1.5 MB, 2.1 GB."""
    n = float(n)
    for unit in ("B", "kB", "MB", "GB", "TB"):
        if abs(n) < 1000 or unit == "TB":
            return f"{n:.0f} {unit}" if unit == "B" else f"{n:.1f} {unit}"
        n /= 1000.0
    return f"{n:.1f} TB"  # pragma: no cover - loop always returns


def human_seconds(s: float) -> str:
    if s < 60:
        return f"{s:.2f} s" if s < 10 else f"{s:.1f} s"
    m, sec = divmod(int(round(s)), 60)
    h, m = divmod(m, 60)
    return f"{h}:{m:02d}:{sec:02d}" if h else f"{m}:{sec:02d}"


def mb_per_s(nbytes: float, seconds: float) -> float:
    return nbytes / seconds / 1e6 if seconds > 0 else 0.0


def parse_size(text: str) -> int:
    """``67108864``, ``64M``, ``64MiB``, ``1G``: binary multiples; must be positive."""
    match = re.fullmatch(r"\s*(\d+)\s*([kKmMgG]?)(i?[bB])?\s*", text or "")
    if not match:
        raise argparse.ArgumentTypeError(f"not a size: {text!r} (examples: 67108864, 64M, 1G)")
    value = int(match.group(1)) * {"": 1, "k": 1 << 10, "m": 1 << 20, "g": 1 << 30}[match.group(2).lower()]
    if value <= 0:
        raise argparse.ArgumentTypeError("must be a positive number of bytes")
    return value


def give_up_seconds(text: str) -> float:
    """A finite, non-negative number of seconds (``nan`` would never give up)."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number of seconds: {text!r}") from None
    if not math.isfinite(value) or value < 0:
        raise argparse.ArgumentTypeError(f"must be a finite number of seconds, 0 or more: {text!r}")
    return value


def positive_int(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not an integer: {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError("must be at least 1")
    return value


class Console:
    """stdout/stderr writer that never lets a secret through.

    A closed stdout (``| head``, ``>&-``) raises StdoutClosed at the first
    write; later writes are dropped.
    """

    def __init__(self, out: TextIO | None, err: TextIO | None) -> None:
        self.out = out
        self.err = err if err is not None else open(os.devnull, "w")  # noqa: SIM115 - lives as long as the run
        self.out_closed = False
        self._secrets: list[str] = []
        self.lock = threading.Lock()

    def add_secret(self, secret: str | None) -> None:
        if secret and len(secret) >= 4 and secret not in self._secrets:
            self._secrets.append(secret)

    def redact(self, text: str) -> str:
        for secret in self._secrets:
            text = text.replace(secret, "***")
        return text

    def print(self, text: str = "") -> None:
        with self.lock:
            if self.out_closed:
                return
            try:
                if self.out is None:  # started with stdout closed (>&-)
                    raise BrokenPipeError(errno.EBADF, "standard output is closed")
                self.out.write(self.redact(text) + "\n")
                self.out.flush()
            except (BrokenPipeError, ValueError) as exc:  # ValueError: the stream was closed in-process
                self.out_closed = True
                raise StdoutClosed() from exc
            except OSError as exc:
                if exc.errno != errno.EPIPE:
                    raise
                self.out_closed = True
                raise StdoutClosed() from exc

    def error(self, text: str) -> None:
        with self.lock:
            self.err.write(self.redact(text) + "\n")
            self.err.flush()

    def json(self, obj: dict) -> None:
        self.print(json.dumps(json_safe(obj), sort_keys=True, default=str, allow_nan=False))


def json_safe(value: Any) -> Any:
    """``value`` with every NaN or infinity replaced by None: strict JSON for machines."""
    if isinstance(value, float):
        return value if math.isfinite(value) else None
    if isinstance(value, dict):
        return {key: json_safe(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [json_safe(item) for item in value]
    return value


class _LogStream:
    """stderr for log records: through the progress display while one is shown."""

    def __init__(self, run: "Run") -> None:
        self._run = run

    def write(self, text: str) -> None:
        progress = self._run.progress
        if progress is not None and progress.show:
            progress.write_above(text)
        else:
            self._run.console.err.write(text)

    def flush(self) -> None:
        self._run.console.err.flush()


class _NoSyncEvents(logging.Filter):
    """Keeps the engine's structured events (raw JSON) off the default output."""

    def filter(self, record: logging.LogRecord) -> bool:
        return not hasattr(record, "tidewright_sync_event")


class _RedactingFormatter(logging.Formatter):
    def __init__(self, console: Console) -> None:
        super().__init__("%(levelname)s %(name)s: %(message)s")
        self._console = console

    def format(self, record: logging.LogRecord) -> str:
        return self._console.redact(super().format(record))


# -- progress ----------------------------------------------------------------------

class Progress:
    """Receives the engine's progress reports (from core threads) and shows them.

    A tqdm bar on stderr when tqdm is installed, otherwise a plain line
    (rewritten in place on a terminal, printed every few seconds elsewhere).
    The last report is kept for the summary even when nothing is shown.
    """

    _PLAIN_LINE_INTERVAL_SECONDS = 5.0

    def __init__(self, stream: TextIO, *, show: bool, use_tqdm: bool = True,
                 on_report: Callable[[dict, dict | None], None] | None = None) -> None:
        self.stream = stream
        self.show = show
        self.on_report = on_report
        self._lock = threading.Lock()
        self._bar = None
        self._plain_open = False
        self._last_plain = 0.0
        self._samples: list[tuple[float, int]] = []
        self.last: dict | None = None
        self.files_downloaded = 0
        self._tqdm = None
        if show and use_tqdm:
            try:
                from tqdm import tqdm  # optional dependency (extra "cli")
                self._tqdm = tqdm
            except ImportError:
                self._tqdm = None
        self._tty = bool(getattr(stream, "isatty", lambda: False)())

    def __call__(self, report: dict) -> None:
        try:
            with self._lock:
                self._update(dict(report))
        except Exception:  # a display problem must never end a sync
            logging.getLogger(__name__).debug("progress display failed", exc_info=True)

    def _update(self, r: dict) -> None:
        if not r.get("phase"):
            return  # bytes outside a download batch (single-file repairs): no totals to show
        running = self.last is not None and not self.last.get("done")
        starting = not running or r.get("phase") != self.last.get("phase")
        if self.on_report is not None:
            self.on_report(r, self.last if running else None)
        self.last = r
        if r.get("done") and running:
            self.files_downloaded += int(r.get("files_done") or 0)
        if not self.show or (r.get("done") and not running):
            return
        if starting and not r.get("done"):
            self._open(r)
        if self._bar is not None:
            bar = self._bar
            bar.total = max(int(r.get("bytes_total") or 0), 1)
            delta = int(r.get("bytes_done") or 0) - bar.n
            bar.set_postfix_str(f"files {r.get('files_done', 0)}/{r.get('files_total', 0)}", refresh=False)
            bar.update(delta)
            if r.get("done"):
                bar.close()
                self._bar = None
            return
        self._plain(r)

    def _open(self, r: dict) -> None:
        self._samples.clear()
        if self._tqdm is not None:
            self._bar = self._tqdm(total=max(int(r.get("bytes_total") or 0), 1), unit="B", unit_scale=True,
                                   unit_divisor=1000, desc=str(r.get("phase") or "sync"), file=self.stream,
                                   dynamic_ncols=True, leave=True, smoothing=0.3, mininterval=0.2)

    def _plain(self, r: dict) -> None:
        now = time.monotonic()
        done_bytes = int(r.get("bytes_done") or 0)
        total = int(r.get("bytes_total") or 0)
        self._samples.append((now, done_bytes))
        while len(self._samples) > 2 and now - self._samples[0][0] > 3.0:
            self._samples.pop(0)
        t0, b0 = self._samples[0]
        rate = (done_bytes - b0) / (now - t0) if now > t0 else 0.0
        if rate <= 0 and r.get("elapsed_seconds"):
            rate = done_bytes / max(float(r["elapsed_seconds"]), 1e-9)
        eta = human_seconds((total - done_bytes) / rate) if rate > 0 and total >= done_bytes else "?"
        pct = 100.0 * done_bytes / total if total else 100.0
        line = (f"{r.get('phase') or 'sync'} {pct:5.1f}%  {human_bytes(done_bytes)} / {human_bytes(total)}  "
                f"{human_bytes(rate)}/s  ETA {eta}  files {r.get('files_done', 0)}/{r.get('files_total', 0)}")
        if self._tty:
            self.stream.write("\r" + line.ljust(79))
            self._plain_open = True
            if r.get("done"):
                self.stream.write("\n")
                self._plain_open = False
            self.stream.flush()
        elif r.get("done") or now - self._last_plain >= self._PLAIN_LINE_INTERVAL_SECONDS:
            self._last_plain = now
            self.stream.write(line + "\n")
            self.stream.flush()

    def write_above(self, text: str) -> None:
        """A log line, printed above the bar (or the plain line) instead of through it."""
        with self._lock:
            if self._bar is not None:
                self._bar.clear()
                self.stream.write(text)
                self._bar.refresh()
            elif self._plain_open:
                self.stream.write("\r" + " " * 79 + "\r" + text)
            else:
                self.stream.write(text)
            self.stream.flush()

    def close(self) -> None:
        with self._lock:
            if self._bar is not None:
                self._bar.close()
                self._bar = None
            if self._plain_open:
                self.stream.write("\n")
                self.stream.flush()
                self._plain_open = False


# -- watching the engine's sync events -------------------------------------------------

class OutageWatch(logging.Handler):
    """Follows the engine's sync events to learn when retrying has stopped helping.

    The engine retries without limit both a service it cannot reach
    (network failures, transient statuses: an *outage*) and downloads that
    the service keeps answering unusably (a refused range, a body that ends
    short, a Content-Range for other bytes: a *fault*). A one-shot command
    asks it to stop (through the backoff context) once either has lasted
    ``give_up_seconds``, then reports what the engine last saw. Arriving
    bytes end an outage; a completed file ends a fault.
    """

    _OUTAGE_EVENTS = frozenset({"sync_unavailable_status", "http_retry"})
    # Failure classes of an exchange that did not complete: network trouble.
    _NETWORK_FAILURES = frozenset({"URLError", "RemoteDisconnected", "ConnectionResetError", "IncompleteRead",
                                   "BadStatusLine", "TimeoutError", "ConnectionError", "SyncUnavailableError"})
    _NOT_FAILURES = frozenset({"sha256_mismatch"})  # ends by itself after a few repairs (IntegrityError)

    def __init__(self, give_up_seconds: float | None) -> None:
        super().__init__(logging.DEBUG)
        self.give_up_seconds = give_up_seconds
        self.outage_since: float | None = None
        self.last_outage: dict = {}
        self.fault_since: float | None = None
        self.last_fault: dict = {}
        self._refused_ranges: dict[str, dict] = {}  # file -> the last "range_resume_reset" for HTTP 416
        self.gave_up: str | None = None  # "outage" or "fault" once given up

    def emit(self, record: logging.LogRecord) -> None:
        event = getattr(record, "tidewright_sync_event", None)
        if not isinstance(event, dict):
            return
        kind, reason = event.get("event_type"), event.get("reason")
        if kind == "range_resume_reset" and reason == "http_416":
            self._refused_ranges[str(event.get("file"))] = event
        elif kind == "sync_recovered_status":
            self.outage_since = None
        elif kind in self._OUTAGE_EVENTS or (kind == "sync_backoff_wait" and reason not in self._NOT_FAILURES):
            now = time.monotonic()
            # The request loop retries only network failures and transient
            # statuses ("http_503"); a download also retries what it got wrong.
            outage = (kind != "sync_backoff_wait" or reason in self._NETWORK_FAILURES
                      or str(reason).startswith("http_"))
            if outage:
                self.outage_since = self.outage_since or now
                if kind != "sync_backoff_wait":
                    self.last_outage.update({k: event.get(k) for k in (
                        "endpoint", "file", "status", "error_code", "failures", "reason", "dependency", "recovery")
                        if event.get(k) not in (None, "", [])})
                else:
                    self.last_outage.update(file=event.get("file"), reason=reason)
            else:
                self.fault_since = self.fault_since or now
                self.last_fault = {"file": event.get("file"), "reason": reason}
                refused = self._refused_ranges.get(str(event.get("file")))
                if refused is not None:
                    self.last_fault.update(status=416, expected_size=refused.get("expected_size"),
                                           range_start=refused.get("range_start"))

    def progress(self, report: dict, previous: dict | None) -> None:
        """A progress report of the engine: arriving bytes end an outage, a finished file a fault."""
        previous = previous or {}
        if int(report.get("bytes_done") or 0) > int(previous.get("bytes_done") or 0):
            self.outage_since = None
        if int(report.get("files_done") or 0) > int(previous.get("files_done") or 0):
            self.fault_since = None
            self._refused_ranges.clear()

    def should_give_up(self) -> bool:
        if self.gave_up or self.give_up_seconds is None:
            return bool(self.gave_up)
        now = time.monotonic()
        if self.outage_since is not None and now - self.outage_since >= self.give_up_seconds:
            self.gave_up = "outage"
        elif self.fault_since is not None and now - self.fault_since >= self.give_up_seconds:
            self.gave_up = "fault"
        return bool(self.gave_up)


# -- the run: options, manager, interruptible calls ---------------------------------------

class Run:
    def __init__(self, args: argparse.Namespace, console: Console) -> None:
        self.args = args
        self.console = console
        self.stop = threading.Event()
        self.outage = OutageWatch(getattr(args, "give_up_after", None))
        self.progress: Progress | None = None
        self.worker_alive = False  # a core call still running after a forced stop
        self.token_override: str | None = None  # the demo's own service token
        self._log_state: tuple | None = None
        self._handler: logging.Handler | None = None

    # logging of the "tidewright.sync" logger, restored by close()
    def setup_logging(self) -> None:
        logger = logging.getLogger(_SYNC_LOGGER)
        self._log_state = (logger.level, logger.propagate)
        verbosity = self.args.verbose - self.args.quiet
        out_level = {-1: logging.ERROR, 0: logging.WARNING, 1: logging.INFO}.get(
            max(-1, min(verbosity, 2)), logging.DEBUG)
        # Events are only produced when the logger is enabled for them, and
        # the outage watch needs the info-level ones.
        logger.setLevel(min(out_level, logging.INFO))
        logger.propagate = False
        handler = logging.StreamHandler(_LogStream(self))
        handler.setLevel(out_level if verbosity >= -1 else logging.CRITICAL)
        if verbosity <= 0:
            handler.addFilter(_NoSyncEvents())  # the failure is told once, in words, at the end
        handler.setFormatter(_RedactingFormatter(self.console))
        logger.addHandler(handler)
        logger.addHandler(self.outage)
        self._handler = handler

    def close(self) -> None:
        if self.progress is not None:
            self.progress.close()
        logger = logging.getLogger(_SYNC_LOGGER)
        for handler in (self._handler, self.outage):
            if handler is not None:
                logger.removeHandler(handler)
        if self._log_state is not None:
            logger.setLevel(self._log_state[0])
            logger.propagate = self._log_state[1]

    def stop_requested(self) -> bool:
        return self.stop.is_set() or self.outage.should_give_up()

    # token ------------------------------------------------------------------
    def token(self, required: bool = True) -> str | None:
        args = self.args
        if args.token_file and args.token:
            raise CliError(EXIT_USAGE, "both --token and --token-file given", "pass only one of them")
        token = self.token_override
        if token is None and args.token_file:
            try:
                with open(args.token_file, encoding="utf-8") as handle:
                    token = handle.read().strip()
            except OSError as exc:
                raise CliError(EXIT_USAGE, f"cannot read the token file {args.token_file} ({exc.strerror})",
                               "check the path given to --token-file") from None
            if not token:
                raise CliError(EXIT_AUTH, f"the token file {args.token_file} is empty",
                               "put the data service token in it")
        elif token is None and args.token:
            token = args.token.strip()
        elif token is None:
            token = os.environ.get(TOKEN_ENV, "").strip()
        if token:
            self.console.add_secret(token)
            _check_token_text(token, args.token_file if self.token_override is None else None)
        elif required:
            raise CliError(EXIT_AUTH, "no token given",
                           f"pass --token-file FILE or set {TOKEN_ENV} (or --token TOKEN)")
        return token or None

    # manager ----------------------------------------------------------------
    def data_dir(self, *, writable: bool) -> str:
        path = self.args.data_dir
        if not path:
            raise CliError(EXIT_USAGE, "no data directory given", "pass --data-dir DIR")
        try:
            mode = os.stat(path).st_mode
        except OSError as exc:
            raise _unusable_data_dir(path, exc) from None
        if not stat.S_ISDIR(mode):
            raise CliError(EXIT_USAGE, f"{path} is not a directory", "pass a directory to --data-dir")
        if writable and not os.access(path, os.W_OK | os.X_OK):
            raise CliError(EXIT_USAGE, f"the data directory {path} is not writable",
                           "fix its permissions or pass another --data-dir")
        if not writable and not os.access(path, os.R_OK | os.X_OK):
            raise CliError(EXIT_USAGE, f"the data directory {path} is not readable",
                           "fix its permissions or pass another --data-dir")
        return path

    def server(self, required: bool = True) -> str | None:
        server = (self.args.server or "").strip()
        if not server and required:
            raise CliError(EXIT_USAGE, "no data service URL given", "pass --server URL")
        return server or None

    def manager(self, *, needs_server: bool = True, registered: bool = False):
        from tidewright import sync

        data_dir = self.data_dir(writable=needs_server)
        server = self.server(required=needs_server)
        if needs_server:
            token = self.token()
            # Given as text (where the constructor takes it), the token is
            # answered natively: no interpreter call per request.
            provider: dict = dict(get_token=lambda: token) if registered else dict(token=token)
        else:
            # Local operations (verify) never reach the service; a URL is
            # still needed to build a manager.
            server = server or "http://127.0.0.1"

            def get_token() -> str:
                raise CliError(EXIT_AUTH, "this command needs a token", f"pass --token-file FILE or set {TOKEN_ENV}")
            provider = dict(get_token=get_token)
        args = self.args
        knobs = dict(market_id=args.market, sync_http_transport=args.transport,
                     sync_http_chunk_bytes=args.chunk_bytes, sync_max_concurrency=args.concurrency)
        try:
            if registered:
                manager = sync.SyncManager.get_or_create(data_dir, server, **provider, **knobs)
            else:
                manager = sync.SyncManager(data_dir, server, **provider, **knobs)
        except FileNotFoundError:
            raise CliError(EXIT_USAGE, f"the data directory {data_dir} does not exist",
                           "create it or pass another --data-dir") from None
        except (ValueError, TypeError) as exc:
            raise CliError(EXIT_USAGE, f"invalid settings: {exc}", "check --server, --market and the transport options"
                           ) from None
        show = not args.quiet and not args.no_progress and (args.progress or _isatty(self.console.err))
        self.progress = Progress(self.console.err, show=show, on_report=self.outage.progress)
        manager.set_progress_callback(self.progress)
        return manager

    def call(self, fn: Callable[[], Any]) -> Any:
        """Run a core call on a worker thread so that Ctrl-C is seen at once.

        The call runs under a backoff context whose stop test is this run's
        stop event (set on Ctrl-C) or the outage watch; the engine then
        cancels transfers and backoff waits and the call ends with
        SyncBackoffCancelled.
        """
        from tidewright.sync_backoff import backoff_context

        box: dict[str, Any] = {}
        done = threading.Event()

        def target() -> None:
            try:
                with backoff_context(surface="cli", stop_requested=self.stop_requested):
                    box["value"] = fn()
            except BaseException as exc:  # noqa: BLE001 - handed to the main thread
                box["error"] = exc
            finally:
                done.set()

        worker = threading.Thread(target=target, name="tidewright-sync-cli", daemon=True)
        worker.start()
        try:
            while not done.wait(0.2):
                pass
        except (KeyboardInterrupt, _Terminate) as exc:
            self.stop.set()
            if not done.wait(_STOP_GRACE_SECONDS):
                self.worker_alive = True
            raise Interrupted(EXIT_TERMINATED if isinstance(exc, _Terminate) else EXIT_INTERRUPTED) from None
        if "error" in box:
            raise box["error"]
        return box.get("value")

    def wait(self, seconds: float) -> None:
        """Sleep in the main thread, interruptible by Ctrl-C."""
        try:
            self.stop.wait(seconds)
        except (KeyboardInterrupt, _Terminate) as exc:
            self.stop.set()
            raise Interrupted(EXIT_TERMINATED if isinstance(exc, _Terminate) else EXIT_INTERRUPTED) from None


def _unusable_data_dir(path: str, exc: OSError) -> CliError:
    """Why ``path`` cannot be reached, from the error of stat()ing it."""
    if exc.errno == errno.ENOENT:
        return CliError(EXIT_USAGE, f"the data directory {path} does not exist",
                        f"create it (mkdir -p {path}) or pass another --data-dir")
    if exc.errno == errno.EACCES:
        return CliError(EXIT_USAGE, f"the data directory {path} cannot be reached: permission denied on a directory "
                        "above it", "let this user search its parent directories (chmod +x) or pass another --data-dir")
    if exc.errno == errno.ENOTDIR:
        return CliError(EXIT_USAGE, f"the data directory {path} cannot exist: a part of its path is a file, not a "
                        "directory", "pass a directory to --data-dir")
    return CliError(EXIT_USAGE, f"the data directory {path} cannot be used ({exc.strerror})",
                    "pass another --data-dir")


def _check_token_text(token: str, token_file: str | None) -> None:
    """A token with a line break or another control character is refused here, not sent (it is never printed)."""
    if any(ord(c) < 0x20 or 0x7F <= ord(c) <= 0x9F for c in token):
        where = f"the token file {token_file}" if token_file else "the token"
        raise CliError(EXIT_AUTH, f"{where} holds more than the token: a line break or another control character",
                       "put only the token in it, on one line" if token_file else "pass the token alone, on one line")


def _isatty(stream: TextIO) -> bool:
    try:
        return bool(stream.isatty())
    except (AttributeError, ValueError):
        return False


# -- what went wrong, and what to do ------------------------------------------------------

# What each code of the engine means on the command line. A few codes are
# refined by the error's fields (an HTTP status, an errno) in classify().
_EXIT_BY_ERROR_CODE = {
    "auth": EXIT_AUTH, "unavailable": EXIT_UNAVAILABLE, "disk_space": EXIT_DISK_SPACE,
    "integrity": EXIT_INTEGRITY, "era": EXIT_ERA, "superseded": EXIT_ERA, "manifest": EXIT_ERA,
    "permanent_download": EXIT_ERA, "sync": EXIT_ERA,
}


def classify(exc: BaseException, run: Run) -> CliError:
    """Map an error of the engine (or its sibling modules) to a CliError, by its code and fields."""
    from tidewright import sync

    if isinstance(exc, CliError):
        return exc
    code = sync._error_code(exc)
    exit_code = _EXIT_BY_ERROR_CODE.get(code, EXIT_OTHER)
    args = run.args
    where = getattr(args, "data_dir", None) or "the data directory"
    server = getattr(args, "server", None) or "the data service"
    text = str(exc)
    kept = "partial downloads are kept and resume on the next sync"
    operator = "retry later; if it persists, tell the data service operator"

    if code == "cancelled" and run.outage.gave_up:
        return gave_up_error(run, server, kept)
    if code == "auth":
        return CliError(exit_code, f"the data service refused the token ({text})",
                        f"check the token given by --token-file or {TOKEN_ENV}, or get a new one")
    if code == "permanent_download" and exc.status in (401, 403):
        return CliError(EXIT_AUTH, f"the data service refused access (HTTP {exc.status}): {text}",
                        "check the token and its permissions, or get a new one")
    if code == "unavailable" and exc.dependency == "tls":
        # Not an outage: it fails at once, and again until the trust is configured.
        return CliError(exit_code, f"cannot connect securely to the data service: {exc.reason}",
                        "set SSL_CERT_FILE to a CA bundle that trusts the service's certificate (for a private CA, "
                        "its CA certificate in PEM), or check --server; nothing was sent",
                        details={"endpoint": exc.endpoint, "failures": exc.failures})
    if code == "unavailable":
        parts = [f"server_error={exc.server_error_code}" if exc.server_error_code else "",
                 f"reason={exc.reason}" if exc.reason else ""]
        extra = " ".join(p for p in parts if p)
        hint = "retry later" + (f" (the service advises: {exc.recovery})" if exc.recovery else "")
        return CliError(exit_code, f"the data service is unavailable at {exc.endpoint}"
                        + (f" ({extra})" if extra else ""), f"{hint}; {kept}",
                        details={"endpoint": exc.endpoint, "statuses": exc.statuses, "failures": exc.failures})
    if code == "disk_space":
        return CliError(exit_code, f"not enough disk space in {where}: {text}",
                        "free some space or pass another --data-dir; nothing was replaced")
    if code == "integrity":
        return CliError(exit_code, f"downloaded data kept failing verification: {text}",
                        "retry; if it persists, report it to the data service operator")
    if code == "era":
        return CliError(exit_code, f"{where} holds another era than the data service: {text}",
                        "sync into a new --data-dir, or keep this one current with 'watch'")
    if code == "superseded":
        return CliError(exit_code, f"the manifest could not be used: {text}", "retry in a moment")
    if code == "manifest":
        return CliError(exit_code, f"the manifest could not be used: {text}", f"{operator}; nothing was written")
    if code == "permanent_download":
        return _permanent_download_error(exc, server, operator)
    if code == "sync":
        # What is left of the family: answers of the service that contradict
        # its manifest or the request (an artifact that does not validate, a
        # range answered for other bytes).
        return CliError(exit_code, f"the data service's answers could not be used: {text}", f"{operator}; {kept}")
    if isinstance(exc, OSError) and exc.errno in (errno.EISDIR, errno.ENOTDIR, errno.ENAMETOOLONG):
        return _path_conflict(exc, where)
    if isinstance(exc, PermissionError):
        return CliError(EXIT_USAGE, f"permission denied: {exc.filename or text}",
                        "fix the permissions of the data directory or pass another --data-dir")
    if isinstance(exc, OSError):
        return CliError(exit_code, f"{exc.strerror or text}" + (f": {exc.filename}" if exc.filename else ""),
                        "check the data directory")
    if code == "update_required":
        return CliError(exit_code, f"this tidewright version is too old for the data service: {text}",
                        "upgrade the tidewright package")
    return CliError(exit_code, f"{type(exc).__name__}: {text}", "run again with -v for details")


def _cancelled(exc: BaseException) -> bool:
    from tidewright import sync

    return sync._error_code(exc) == "cancelled"


def _permanent_download_error(exc: BaseException, server: str, operator: str) -> CliError:
    """An answer no retry changes: for the manifest (no file path) or for a listed file."""
    text = str(exc)
    if exc.file_path is None and (exc.status is None or exc.status < 300):
        # An answer refused for its size: the words say which and why.
        return CliError(EXIT_ERA, f"the data service's answer could not be used: {text}", operator)
    if exc.file_path is None:
        status = f"HTTP {exc.status}" if exc.status is not None else text
        return CliError(EXIT_ERA, f"{server} did not serve a manifest ({status})",
                        "check that --server is the data service's base URL and --market is right",
                        details={"status": exc.status})
    return CliError(EXIT_ERA, f"the data service could not serve a listed file: {text}",
                    "retry in a moment (the manifest may be changing)",
                    details={"file": exc.file_path, "status": exc.status})


def _path_conflict(exc: OSError, where: str) -> CliError:
    """A manifest path the data directory cannot hold (a file where a directory must be, or a name too long)."""
    name = exc.filename or ""
    if name and where and os.path.isabs(name):
        try:
            relative = os.path.relpath(name, os.path.abspath(where))
            name = relative if not relative.startswith("..") else name
        except ValueError:
            pass
    why = ("a name too long for this file system" if exc.errno == errno.ENAMETOOLONG
           else "a file and a directory of the same name")
    return CliError(EXIT_ERA, f"the manifest lists a path that cannot be stored in {where}: {name} "
                    f"({exc.strerror}: {why})",
                    "if what is in the way in the data directory is not the service's, move it away and sync again; "
                    "otherwise tell the data service operator (nothing was replaced)",
                    details={"path": name, "errno": exc.errno})


_TRANSIENT_STATUSES = frozenset({408, 425, 429, 500, 502, 503, 504})


def gave_up_error(run: Run, server: str, kept: str) -> CliError:
    """What the engine kept retrying when the command gave up, checked with one request of our own."""
    watch = run.outage
    after = f"gave up after {human_seconds(watch.give_up_seconds or 0)} of retries"
    kept = f" ({kept})" if run.progress is not None and run.progress.last is not None else ""
    hint_network = f"check --server and the network, then retry{kept}"
    operator = f"retry later; if it persists, tell the data service operator{kept}"
    if watch.gave_up == "fault":
        seen = dict(watch.last_fault)
        name = seen.get("file") or "a file"
        if seen.get("reason") == "partial_transfer":
            return CliError(EXIT_INTEGRITY, f"downloads of {name} kept ending before the size the manifest lists; "
                            f"{after}", operator, details=seen)
        if seen.get("status") == 416:
            size = seen.get("expected_size")
            listed = f" (listed at {size} bytes)" if isinstance(size, int) and size >= 0 else ""
            return CliError(EXIT_ERA, f"the data service at {server} kept refusing byte ranges of {name}{listed} "
                            f"with HTTP 416; {after}", operator, details=seen)
        seen["probe"] = probe = probe_http(_probe_url(server, name), range_header="bytes=0-0")
        status = probe.get("status") if probe else None
        if status in (401, 403):
            status = None  # the probe carries no token: this says nothing about the engine's requests
        if status in _TRANSIENT_STATUSES:
            return CliError(EXIT_UNAVAILABLE, f"the data service at {server} kept answering HTTP {status} for {name}; "
                            f"{after}", hint_network, details=seen)
        redirect = _redirect_error(probe, server, name, after, operator, seen)
        if redirect is not None:
            return redirect
        if status == 206 and not str(probe.get("content-range", "")).startswith("bytes 0-"):
            return CliError(EXIT_ERA, f"the data service at {server} answers range requests for {name} with bytes "
                            f"other than asked for (Content-Range: {probe.get('content-range') or 'none'}); {after}",
                            operator, details=seen)
        return CliError(EXIT_ERA, f"downloading {name} from {server} kept failing: the service answers, but not "
                        f"with the file's bytes" + (f" (HTTP {status})" if status else "") + f"; {after}",
                        operator, details=seen)

    seen = dict(watch.last_outage)
    if seen.get("status"):
        what = f"HTTP {seen['status']}" + (f" {seen['error_code']}" if seen.get("error_code") else "")
        return CliError(EXIT_UNAVAILABLE, f"the data service at {server} kept answering {what}; {after}",
                        hint_network, details=seen)
    seen["diagnosis"] = diagnose_connection(server)
    if seen["diagnosis"].startswith("it accepts connections"):
        # Connected, yet every exchange failed: see what the service answers.
        seen["probe"] = probe = probe_http(_probe_url(server, seen.get("endpoint") or seen.get("file") or ""))
        redirect = _redirect_error(probe, server, seen.get("endpoint") or seen.get("file") or "/", after, operator,
                                   seen)
        if redirect is not None:
            return redirect
    return CliError(EXIT_UNAVAILABLE, f"cannot reach the data service at {server} ({seen['diagnosis']}); {after}",
                    hint_network, details=seen)


def _redirect_error(probe: dict | None, server: str, name: str, after: str, hint: str, seen: dict) -> CliError | None:
    if not probe or not 300 <= int(probe.get("status") or 0) < 400:
        return None
    location = probe.get("location") or "nowhere"
    return CliError(EXIT_ERA, f"the data service at {server} answers requests for {name} with a redirect "
                    f"(HTTP {probe['status']} to {location}) that never leads to the data; {after}",
                    "check that --server is the service's own address (https or http as it expects); " + hint,
                    details=seen)


def _probe_url(server: str, name: str) -> str:
    """The URL of an endpoint ("/data/manifest") or a manifest file ("features/...") as events name them."""
    from urllib.parse import quote

    base = server.rstrip("/")
    if name.startswith("/"):
        return base + name
    return base + "/data/files/" + quote(name)


_PROBE_HEAD_LIMIT = 64 * 1024  # bytes
_PROBE_HEAD_LINES = 100  # header lines, as the standard library's client allows


def probe_http(url: str, *, range_header: str | None = None, timeout: float = 5.0) -> dict | None:
    """One GET of ``url`` without credentials and without following redirects.

    The status of the answer with its Location and Content-Range headers,
    or None when there is none. Only the service given by --server is asked, and nothing
    of the answer is read beyond its headers. ``timeout`` bounds the whole
    exchange, so a server trickling header lines cannot stretch it.
    """
    import socket
    import ssl
    from urllib.parse import urlsplit

    deadline = time.monotonic() + timeout

    def left() -> float:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise TimeoutError("diagnosis probe timed out")
        return remaining

    try:
        parts = urlsplit(url)
        host, port = parts.hostname, parts.port or (443 if parts.scheme == "https" else 80)
        if parts.scheme not in ("http", "https") or not host:
            return None
        authority = parts.netloc.rpartition("@")[2]
        target = (parts.path or "/") + (f"?{parts.query}" if parts.query else "")
        if any(c.isspace() or not c.isprintable() for c in target + authority):
            return None  # would split the request line or inject a header
        lines = [f"GET {target} HTTP/1.1", f"Host: {authority}",
                 f"User-Agent: {PROG}/{_package_version()} (diagnosis)", "Accept-Encoding: identity",
                 "Connection: close"] + ([f"Range: {range_header}"] if range_header else [])
        request = ("\r\n".join(lines) + "\r\n\r\n").encode("ascii")
        with socket.create_connection((host, port), timeout=left()) as raw:
            sock = raw
            if parts.scheme == "https":
                raw.settimeout(left())  # bounds the handshake as a whole
                sock = ssl.create_default_context().wrap_socket(raw, server_hostname=host)
            with sock:
                sock.settimeout(left())
                sock.sendall(request)
                head = b""
                while (b"\r\n\r\n" not in head and len(head) < _PROBE_HEAD_LIMIT
                       and head.count(b"\n") <= _PROBE_HEAD_LINES):
                    sock.settimeout(left())
                    piece = sock.recv(4096)
                    if not piece:
                        break
                    head += piece
        if b"\r\n\r\n" not in head:
            return None
        status_line, *header_lines = head.split(b"\r\n\r\n", 1)[0].decode("latin-1").split("\r\n")
        version, _, rest = status_line.partition(" ")
        code = rest.split(" ", 1)[0]
        if not version.startswith("HTTP/") or not (len(code) == 3 and code.isdigit()):
            return None
        answer: dict[str, Any] = {"status": int(code)}
        for line in header_lines:
            name, sep, value = line.partition(":")
            if sep and name.strip().lower() in ("location", "content-range"):
                answer[name.strip().lower()] = value.strip()
        return answer
    except (OSError, ValueError, UnicodeError):
        return None


def diagnose_connection(url: str) -> str:
    """Why a URL cannot be reached, in a few words (one TCP connection attempt)."""
    import socket
    from urllib.parse import urlsplit

    try:
        parts = urlsplit(url)
        host = parts.hostname or ""
        port = parts.port or (443 if parts.scheme == "https" else 80)
    except ValueError:
        return "malformed URL"
    try:
        socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
    except socket.gaierror:
        return f"cannot resolve the host name {host}"
    try:
        with socket.create_connection((host, port), timeout=5):
            pass
    except ConnectionRefusedError:
        return f"connection refused: nothing listens on {host}:{port}"
    except (TimeoutError, socket.timeout):
        return f"no answer from {host}:{port}"
    except OSError as exc:
        return exc.strerror or type(exc).__name__
    if parts.scheme == "https":
        return "it accepts connections but requests fail: is its certificate trusted? (SSL_CERT_FILE)"
    return "it accepts connections but requests fail"


# -- summaries -------------------------------------------------------------------------------

def manifest_totals(manifest) -> tuple[int, int]:
    if manifest is None:
        return 0, 0
    files = manifest.files or {}
    total = 0
    for info in files.values():
        size = info.get("size_bytes") if isinstance(info, dict) else None
        if isinstance(size, int) and size >= 0:
            total += size
    return len(files), total


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


def _no_manifest(data_dir: str) -> CliError:
    return CliError(EXIT_ERA, f"{data_dir} holds no manifest (nothing was synced into it yet)",
                    "run 'tidewright-sync sync' first")


def _require_manifest(manager, data_dir: str) -> None:
    if manager.get_manifest() is None:
        raise _no_manifest(data_dir)


def _verify_problem(v: dict) -> CliError:
    bad, missing = v["corrupted_files"], v["missing_files"]
    listed = (bad + missing)[:3]
    more = f" and {len(bad) + len(missing) - len(listed)} more" if len(bad) + len(missing) > len(listed) else ""
    return CliError(EXIT_INTEGRITY, f"{len(bad)} corrupt and {len(missing)} missing files ({', '.join(listed)}{more})",
                    "run 'tidewright-sync repair' to download them again", details=v)


# -- subcommands --------------------------------------------------------------------------------

def cmd_sync(run: Run) -> dict:
    manager = run.manager()
    started = time.monotonic()
    result = run.call(manager.sync)
    seconds = time.monotonic() - started
    summary = sync_summary(manager, result, seconds, run.progress)
    if not run.args.json:
        run.console.print(f"synced {run.args.data_dir}: " + sync_summary_line(summary))
    if run.args.verify:
        v = verify_summary(run.call(manager.verify))
        summary["verify"] = v
        if not v["valid"]:
            raise _verify_problem(v)
        if not run.args.json:
            run.console.print(f"verified {summary['files']} files: all match the manifest")
    return summary


def cmd_verify(run: Run) -> dict:
    manager = run.manager(needs_server=False)
    started = time.monotonic()
    result = run.call(manager.verify)
    if not result.has_manifest:
        raise _no_manifest(run.args.data_dir)
    v = verify_summary(result)
    nfiles, nbytes = manifest_totals(manager.get_manifest())
    summary = {**v, "files": nfiles, "bytes": nbytes, "seconds": round(time.monotonic() - started, 3)}
    if not v["valid"]:
        raise _verify_problem(v)
    if not run.args.json:
        run.console.print(f"verified {nfiles} files ({human_bytes(nbytes)}) in {human_seconds(summary['seconds'])}: "
                          "all match the manifest")
    return summary


def cmd_repair(run: Run) -> dict:
    manager = run.manager()
    _require_manifest(manager, run.args.data_dir)
    files = manager.get_manifest().files
    paths = list(dict.fromkeys(run.args.paths))
    unknown = [p for p in paths if p not in files]
    if unknown:
        raise CliError(EXIT_USAGE, f"not in the manifest: {', '.join(unknown[:3])}",
                       "give manifest-relative paths as 'verify' prints them")
    if not paths:
        v = verify_summary(run.call(manager.verify))
        paths = v["corrupted_files"] + v["missing_files"]
    started = time.monotonic()
    result = run.call(lambda: manager.repair(paths)) if paths else None
    seconds = time.monotonic() - started
    after = verify_summary(run.call(manager.verify))
    still = [p for p in paths if p in after["corrupted_files"] or p in after["missing_files"]]
    summary = {"repaired": [p for p in paths if p not in still], "still_invalid": still,
               "bytes_downloaded": int(result.bytes_downloaded) if result is not None else 0,
               "seconds": round(seconds, 3), "valid": after["valid"]}
    if still:
        raise CliError(EXIT_INTEGRITY, f"{len(still)} files could not be repaired ({', '.join(still[:3])})",
                       "retry; if it persists, report it to the data service operator", details=summary)
    if not run.args.json:
        if paths:
            run.console.print(f"repaired {len(paths)} files ({human_bytes(summary['bytes_downloaded'])} "
                              f"in {human_seconds(seconds)})")
        else:
            run.console.print("nothing to repair: all files match the manifest")
    return summary


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
    import fcntl

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


def cmd_status(run: Run) -> dict:
    status = read_status(run.data_dir(writable=False))
    if run.args.json:
        return status
    p = run.console.print
    p(f"data directory  {status['data_dir']}")
    if status["era_number"] is None:
        p("manifest        none (never synced)")
    else:
        when = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(status["synced_at"])) if status["synced_at"] else "?"
        p(f"manifest        era {status['era_number']}, version {status['version']}, {status['files']} files, "
          f"{human_bytes(status['bytes'])} (written {when})")
    s = status["sync"]
    if s is None:
        p("sync            running (no download yet)" if status["sync_running"] else "sync            idle")
    else:
        pct = 100.0 * s["bytes_done"] / s["bytes_total"] if s["bytes_total"] else 0.0
        state = "running" if status["sync_running"] else "interrupted (resumes on the next sync)"
        p(f"sync            {state}: era {s['era_number']} version {s['version']}, "
          f"{s['files_done']}/{s['files_total']} files, about {human_bytes(s['bytes_done'])} of "
          f"{human_bytes(s['bytes_total'])} ({pct:.0f}%)")
    p(f"consumers       {status['consumer_count']}")
    if status["in_transition"]:
        p("era transition  in progress")
    return status


def cmd_watch(run: Run) -> dict:
    manager = run.manager(registered=True)
    result = run.call(manager.sync)
    summary = sync_summary(manager, result, 0.0, run.progress)
    say = (lambda text: None) if run.args.json else run.console.print
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
            logging.getLogger(_SYNC_LOGGER).warning("release failed", exc_info=True)
        finally:
            done.set()

    threading.Thread(target=target, name="tidewright-sync-release", daemon=True).start()
    try:
        while not done.wait(0.2):
            pass
    except (KeyboardInterrupt, _Terminate):
        run.worker_alive = True


def cmd_demo(run: Run) -> dict:
    service_cls = _load_dataservice()
    args = run.args
    if args.data_dir:
        os.makedirs(args.data_dir, exist_ok=True)
    else:
        args.data_dir = tempfile.mkdtemp(prefix="tidewright-demo-")
    say = (lambda text: None) if args.json else run.console.print
    import secrets

    token = secrets.token_urlsafe(24)
    service = service_cls(seed=args.seed, features=args.features, feature_bytes=args.feature_bytes,
                          large_file_bytes=args.large_file_bytes, token=token, host="127.0.0.1")
    era = service.era()
    nfiles = len(era.files)
    nbytes = sum(e.content.size for e in era.files.values())
    say(f"starting the reference data service on 127.0.0.1 (era {era.era_number}: {nfiles} files, "
        f"{human_bytes(nbytes)}) ...")
    run.call(service.start)
    try:
        args.server = service.url
        run.token_override = token
        say(f"serving at {service.url}; syncing into {args.data_dir}")
        manager = run.manager()
        started = time.monotonic()
        result = run.call(manager.sync)
        seconds = time.monotonic() - started
        summary = sync_summary(manager, result, seconds, run.progress)
        say("sync:    " + sync_summary_line(summary))
        started = time.monotonic()
        v = verify_summary(run.call(manager.verify))
        verify_seconds = time.monotonic() - started
        summary["verify"] = v
        if not v["valid"]:
            raise _verify_problem(v)
        say(f"verify:  {summary['files']} files match the manifest (size and SHA-256, "
            f"{human_seconds(verify_seconds)})")
        started = time.monotonic()
        again = run.call(manager.sync)
        resync_seconds = time.monotonic() - started
        summary["resync"] = {"bytes_downloaded": int(again.bytes_downloaded), "seconds": round(resync_seconds, 3)}
        say(f"resync:  {human_bytes(again.bytes_downloaded)} downloaded, {human_seconds(resync_seconds)} "
            "(nothing changed on the service)")
        summary["data_dir"] = args.data_dir
        say("")
        say("summary")
        say(f"  data directory   {args.data_dir}")
        say(f"  era / version    {summary['era_number']} / {summary['version']}")
        say(f"  files            {summary['files']} ({human_bytes(summary['bytes'])})")
        say(f"  cold sync        {human_bytes(summary['bytes_downloaded'])} in {human_seconds(summary['seconds'])}"
            f" = {summary['mb_per_s']:.1f} MB/s")
        say(f"  verify           {'all files valid' if v['valid'] else 'problems found'}")
        say(f"  no-op resync     {human_seconds(resync_seconds)}")
        say(f"try: {_invoked_as()} status --data-dir {args.data_dir}")
        return summary
    finally:
        service.stop()


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
    here = os.path.dirname(os.path.abspath(__file__))
    for root in (os.getcwd(), os.path.dirname(os.path.dirname(here))):
        if os.path.isfile(os.path.join(root, "tools", "dataservice", "server.py")):
            if root not in sys.path:
                sys.path.insert(0, root)
            from tools.dataservice import DataService
            return DataService
    raise CliError(EXIT_OTHER, "the reference data service is not installed with this package",
                   "run the demo from a source checkout (make demo)")


# -- argument parsing --------------------------------------------------------------------------

def build_parser() -> argparse.ArgumentParser:
    common = _Parser(add_help=False)
    g = common.add_argument_group("data service and directory")
    g.add_argument("--server", metavar="URL", help="base URL of the data service (https, or http on loopback)")
    g.add_argument("--data-dir", metavar="DIR", help="the local data directory (must exist)")
    g.add_argument("--market", metavar="ID", type=positive_int, default=1, help="market id (default 1)")
    t = common.add_argument_group("token (never printed)")
    t.add_argument("--token-file", metavar="FILE", help="read the bearer token from FILE (preferred)")
    t.add_argument("--token", metavar="TOKEN",
                   help=f"the bearer token itself (visible to other users in the process list; "
                        f"prefer --token-file or {TOKEN_ENV})")
    k = common.add_argument_group("transport")
    k.add_argument("--transport", choices=("auto", "urllib", "curl"), default=None,
                   help="HTTP transport for public file downloads (default auto)")
    k.add_argument("--chunk-bytes", metavar="N", type=parse_size, default=None,
                   help="size of one ranged request, e.g. 64M (default 64 MiB)")
    k.add_argument("--concurrency", metavar="N", type=positive_int, default=None,
                   help="parallel download workers (default 8)")
    k.add_argument("--give-up-after", metavar="SECONDS", type=give_up_seconds, default=_DEFAULT_GIVE_UP_SECONDS,
                   help=f"stop retrying when the service stays unreachable (exit {EXIT_UNAVAILABLE}) or keeps "
                        f"answering a download unusably (exit {EXIT_ERA} or {EXIT_INTEGRITY}) this long "
                        f"(default {_DEFAULT_GIVE_UP_SECONDS:.0f}; 'watch' retries forever once started)")
    o = common.add_argument_group("output")
    o.add_argument("-v", "--verbose", action="count", default=0, help="more log output (-vv: debug)")
    o.add_argument("-q", "--quiet", action="count", default=0, help="errors only, no progress bar")
    o.add_argument("--json", action="store_true", help="print one JSON object on stdout")
    o.add_argument("--progress", action="store_true", help="show progress even when stderr is not a terminal")
    o.add_argument("--no-progress", action="store_true", help="never show progress")

    codes = "\n".join(f"  {code:>3}  {text}" for code, text in EXIT_CODES.items())
    parser = _Parser(
        prog=PROG, formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Keep a local Tidewright data directory in step with the data service.",
        epilog=f"exit status:\n{codes}")
    parser.add_argument("--version", action="version", version=f"{PROG} {_package_version()}")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)

    p = sub.add_parser("sync", parents=[common], help="download what is missing or stale, then exit")
    p.add_argument("--verify", action="store_true", help="verify every file after the sync")
    sub.add_parser("verify", parents=[common], help="check local files against the manifest (no service needed)")
    p = sub.add_parser("repair", parents=[common], help="re-download corrupt or missing files")
    p.add_argument("paths", nargs="*", metavar="PATH", help="manifest-relative paths (default: all that verify finds)")
    sub.add_parser("status", parents=[common], help="what the data directory holds; progress of a running sync")
    sub.add_parser("watch", parents=[common], help="keep the directory current until Ctrl-C")
    p = sub.add_parser("demo", parents=[common], help="sync a generated era from a local reference service")
    p.add_argument("--seed", type=int, default=1, help="content seed of the generated era")
    p.add_argument("--features", type=int, default=16, help="number of feature files")
    p.add_argument("--feature-bytes", type=parse_size, default=1 << 20, help="size of one feature file (default 1M)")
    p.add_argument("--large-file-bytes", type=lambda s: 0 if s.strip() == "0" else parse_size(s), default=128 << 20,
                   help="size of one extra large file (default 128M; 0 for none)")
    return parser


def _package_version() -> str:
    try:
        from tidewright import __version__
        return __version__
    except ImportError:  # pragma: no cover
        return "?"


COMMANDS = {"sync": cmd_sync, "verify": cmd_verify, "repair": cmd_repair, "status": cmd_status,
            "watch": cmd_watch, "demo": cmd_demo}


def main(argv: list[str] | None = None, *, stdout: TextIO | None = None, stderr: TextIO | None = None) -> int:
    """Run the command line; returns the exit status (see ``EXIT_CODES``)."""
    argv = list(sys.argv[1:] if argv is None else argv)
    console = Console(stdout or sys.stdout, stderr or sys.stderr)
    parser = build_parser()
    try:
        with contextlib.redirect_stderr(console.err), contextlib.redirect_stdout(console.out):
            args = parser.parse_args(argv)
    except SystemExit as exit_:  # --help, --version
        return int(exit_.code or 0) if isinstance(exit_.code, int) else EXIT_USAGE
    except UsageError as err:
        return _usage_error(console, err, argv)
    run = Run(args, console)
    main.last_run = run  # for the console entry point: is a core call still running?
    run.setup_logging()
    code = EXIT_OK
    payload: dict[str, Any] = {"command": args.command}
    try:
        try:
            payload.update(COMMANDS[args.command](run) or {})
            payload["ok"] = True
        except (Interrupted, StdoutClosed):
            raise
        except (KeyboardInterrupt, _Terminate) as exc:
            raise Interrupted(EXIT_TERMINATED if isinstance(exc, _Terminate) else EXIT_INTERRUPTED) from None
        except Exception as exc:  # noqa: BLE001 - every failure becomes one line and an exit status
            if _cancelled(exc) and run.stop.is_set() and not run.outage.gave_up:
                raise Interrupted() from None
            raise classify(exc, run) from exc
    except StdoutClosed:
        # Whoever read our output has gone: end quietly, as a program
        # ended by SIGPIPE does. The work itself is unaffected.
        code = EXIT_STDOUT_CLOSED
    except Interrupted as stop:
        if run.progress is not None:
            run.progress.close()
        code = stop.code
        payload.update(getattr(stop, "summary", {}))
        word = "terminated" if code == EXIT_TERMINATED else "interrupted"
        payload.update(ok=False, exit_code=code, error={"kind": _KIND_BY_CODE[code], "message": word})
        released = payload.get("released")
        console.error(f"{PROG}: {word}" + ("; data directory released" if released else
                                           "; partial downloads are kept and resume on the next sync"))
    except CliError as err:
        if run.progress is not None:
            run.progress.close()
        code = err.code
        payload.update(ok=False, exit_code=code,
                       error={"kind": err.kind, "message": err.message, "hint": err.hint, **err.details})
        console.error(f"{PROG}: {err.line()}")
        if err.__cause__ is not None:
            logging.getLogger(_SYNC_LOGGER).debug("error detail", exc_info=err.__cause__)
    finally:
        run.close()
    if args.json and not console.out_closed:
        payload.setdefault("exit_code", code)
        try:
            console.json(payload)
        except StdoutClosed:
            code = EXIT_STDOUT_CLOSED
    return code


def _usage_error(console: Console, err: UsageError, argv: list[str]) -> int:
    """argparse's two lines on stderr; with --json also the error object on stdout."""
    err.parser.print_usage(console.err)
    console.error(f"{err.parser.prog}: error: {err.message}")
    if "--json" in argv:
        command = next((a for a in argv if a in COMMANDS), None)
        hint = f"see {PROG} {command} --help" if command else f"see {PROG} --help"
        try:
            console.json({"command": command, "ok": False, "exit_code": EXIT_USAGE,
                          "error": {"kind": _KIND_BY_CODE[EXIT_USAGE], "message": err.message, "hint": hint}})
        except StdoutClosed:
            return EXIT_STDOUT_CLOSED
    return EXIT_USAGE


def console_main() -> None:
    """Entry point of the ``tidewright-sync`` console script."""
    def terminate(signum, frame):  # noqa: ARG001 - signal handler signature
        raise _Terminate()

    try:
        signal.signal(signal.SIGTERM, terminate)
    except ValueError:  # not the main thread
        pass
    code = main()
    if code == EXIT_STDOUT_CLOSED:
        # What is still buffered for the closed stdout must not make the
        # interpreter complain on its way out.
        with contextlib.suppress(OSError, ValueError, AttributeError):
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    run = getattr(main, "last_run", None)
    if run is not None and run.worker_alive:
        # A core call did not end within the grace period; leave without
        # waiting for it (the kernel drops the directory lock, staging files
        # stay for the next run).
        with contextlib.suppress(OSError, ValueError, AttributeError):
            sys.stdout.flush()
            sys.stderr.flush()
        os._exit(code)
    sys.exit(code)


if __name__ == "__main__":
    console_main()
