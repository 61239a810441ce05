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

This package holds the entry points (``main``, ``console_main``); its
modules each own one concern: ``arguments`` (the grammar), ``commands``
and ``status`` (what each subcommand does and prints), ``run`` (options,
token, manager and interruptible core calls), ``progress`` and ``outage``
(the engine's progress reports and sync events), ``errors`` and
``diagnosis`` (exit statuses and the words of a failure), ``console``
(output).
"""

from __future__ import annotations

import contextlib
import logging
import os
import signal
import sys
from typing import Any, TextIO

# What the command line's modules offer, under the names it has always had here.
from .arguments import UsageError, build_parser, give_up_seconds, parse_size, positive_int
from .commands import (cmd_demo, cmd_repair, cmd_sync, cmd_verify, cmd_watch, sync_summary, sync_summary_line,
                       verify_summary)
from .console import PROG, Console, StdoutClosed, human_bytes, human_seconds, json_safe, mb_per_s
from .diagnosis import diagnose_connection, probe_http
from .errors import (EXIT_AUTH, EXIT_CODES, EXIT_DISK_SPACE, EXIT_ERA, EXIT_INTEGRITY, EXIT_INTERRUPTED, EXIT_OK,
                     EXIT_OTHER, EXIT_STDOUT_CLOSED, EXIT_TERMINATED, EXIT_UNAVAILABLE, EXIT_USAGE, KIND_BY_CODE,
                     TOKEN_ENV, CliError, Interrupted, Terminate, cancelled, classify, gave_up_error)
from .outage import OutageWatch
from .progress import Progress
from .run import SYNC_LOGGER, Run
from .status import cmd_status, manifest_totals, read_status

__all__ = ["EXIT_CODES", "main", "console_main"]

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
    payload: dict[str, Any] = {"command": args.command}
    try:
        code = _run_command(run, payload)
    finally:
        run.close()
    if args.json and not console.out_closed:
        payload.setdefault("exit_code", code)
        try:
            console.json(payload)
        except StdoutClosed:
            code = EXIT_STDOUT_CLOSED
    return code


def _run_command(run: Run, payload: dict[str, Any]) -> int:
    """Run the command into ``payload``; a failure is told in one line on stderr. Returns the exit status."""
    console = run.console
    try:
        try:
            payload.update(COMMANDS[run.args.command](run) or {})
            payload["ok"] = True
        except (Interrupted, StdoutClosed):
            raise
        except (KeyboardInterrupt, Terminate) as exc:
            raise Interrupted.by(exc) from None
        except Exception as exc:  # noqa: BLE001 - every failure becomes one line and an exit status
            if cancelled(exc) and run.stop.is_set() and not run.outage.gave_up:
                raise Interrupted() from None
            raise classify(exc, run) from exc
    except StdoutClosed:
        # Whoever read our output has gone: end quietly, as a program
        # ended by SIGPIPE does. The work itself is unaffected.
        return EXIT_STDOUT_CLOSED
    except Interrupted as stop:
        if run.progress is not None:
            run.progress.close()
        payload.update(getattr(stop, "summary", {}))
        word = "terminated" if stop.code == EXIT_TERMINATED else "interrupted"
        payload.update(ok=False, exit_code=stop.code, error={"kind": KIND_BY_CODE[stop.code], "message": word})
        released = payload.get("released")
        console.error(f"{PROG}: {word}" + ("; data directory released" if released else
                                           "; partial downloads are kept and resume on the next sync"))
        return stop.code
    except CliError as err:
        if run.progress is not None:
            run.progress.close()
        payload.update(ok=False, exit_code=err.code,
                       error={"kind": err.kind, "message": err.message, "hint": err.hint, **err.details})
        console.error(f"{PROG}: {err.line()}")
        if err.__cause__ is not None:
            logging.getLogger(SYNC_LOGGER).debug("error detail", exc_info=err.__cause__)
        return err.code
    return EXIT_OK


def _usage_error(console: Console, err: UsageError, argv: list[str]) -> int:
    """argparse's two lines on stderr; with --json also the error object on stdout."""
    err.parser.print_usage(console.err)
    console.error(f"{err.parser.prog}: error: {err.message}")
    if "--json" in argv:
        command = next((a for a in argv if a in COMMANDS), None)
        hint = f"see {PROG} {command} --help" if command else f"see {PROG} --help"
        try:
            console.json({"command": command, "ok": False, "exit_code": EXIT_USAGE,
                          "error": {"kind": KIND_BY_CODE[EXIT_USAGE], "message": err.message, "hint": hint}})
        except StdoutClosed:
            return EXIT_STDOUT_CLOSED
    return EXIT_USAGE


def console_main() -> None:
    """Entry point of the ``tidewright-sync`` console script."""
    def terminate(signum, frame):  # noqa: ARG001 - signal handler signature
        raise Terminate()

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
