"""One run of a command: its options, token and data directory, the manager, and core calls that Ctrl-C can stop.

Also where the engine's log records go while the command runs.
"""

from __future__ import annotations

import argparse
import logging
import os
import stat
import threading
from typing import Any, Callable

from .console import Console, isatty
from .errors import (EXIT_AUTH, EXIT_USAGE, TOKEN_ENV, CliError, Interrupted, Terminate, check_token_text,
                     unusable_data_dir)
from .outage import OutageWatch
from .progress import Progress

SYNC_LOGGER = "tidewright.sync"
# After a stop request the engine ends transfers and backoff waits within
# about a second; past this grace the process exits anyway (partial
# downloads stay as resumable staging files).
_STOP_GRACE_SECONDS = 3.0
# The service URL of a manager that never reaches the service.
LOCAL_ONLY_SERVER = "http://127.0.0.1"


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


def new_manager(data_dir: str, server: str, *, registered: bool = False, **options):
    """A SyncManager for ``data_dir`` (the process-wide one when ``registered``); bad settings are usage errors."""
    from tidewright import sync

    try:
        if registered:
            return sync.SyncManager.get_or_create(data_dir, server, **options)
        return sync.SyncManager(data_dir, server, **options)
    except FileNotFoundError:
        raise CliError(EXIT_USAGE, f"the data directory {data_dir} does not exist",
                       "create it or pass another --data-dir") from None
    except (ValueError, TypeError) as exc:
        raise CliError(EXIT_USAGE, f"invalid settings: {exc}", "check --server, --market and the transport options"
                       ) from None


def refuse_token() -> str:
    """The token callable of a manager that only works on the local directory."""
    raise CliError(EXIT_AUTH, "this command needs a token", f"pass --token-file FILE or set {TOKEN_ENV}")


class Run:
    """The state of one command: parsed options, console, stop event, outage watch and progress display."""

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
        logger = logging.getLogger(SYNC_LOGGER)
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
        logger = logging.getLogger(SYNC_LOGGER)
        for handler in (self._handler, self.outage):
            if handler is not None:
                logger.removeHandler(handler)
        if self._log_state is not None:
            logger.setLevel(self._log_state[0])
            logger.propagate = self._log_state[1]

    def say(self, text: str) -> None:
        """A line for people on stdout; with --json the one JSON object is all that goes there."""
        if not self.args.json:
            self.console.print(text)

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
            check_token_text(token, args.token_file if self.token_override is None else None)
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
            raise unusable_data_dir(path, exc) from None
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
            server = server or LOCAL_ONLY_SERVER
            provider = dict(get_token=refuse_token)
        args = self.args
        manager = new_manager(data_dir, server, registered=registered, **provider, market_id=args.market,
                              sync_http_transport=args.transport, sync_http_chunk_bytes=args.chunk_bytes,
                              sync_max_concurrency=args.concurrency)
        show = not args.quiet and not args.no_progress and (args.progress or isatty(self.console.err))
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
        except (KeyboardInterrupt, Terminate) as exc:
            self.stop.set()
            if not done.wait(_STOP_GRACE_SECONDS):
                self.worker_alive = True
            raise Interrupted.by(exc) from None
        if "error" in box:
            raise box["error"]
        return box.get("value")

    def wait(self, seconds: float) -> None:
        """Sleep in the main thread, interruptible by Ctrl-C."""
        try:
            self.stop.wait(seconds)
        except (KeyboardInterrupt, Terminate) as exc:
            self.stop.set()
            raise Interrupted.by(exc) from None
