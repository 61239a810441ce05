"""Exit statuses, and the one line a failure ends with: what happened and what to do.

Errors of the engine are told apart by their code (``tidewright.sync._error_code``)
and their fields, never by their message text. ``CliError``, ``Interrupted``
(and the console's ``StdoutClosed``) carry an outcome up to ``main()``.
"""

from __future__ import annotations

import errno
import os
from typing import TYPE_CHECKING

from .console import human_seconds
from .diagnosis import diagnose_connection, probe_http, probe_url

if TYPE_CHECKING:
    from .run import Run

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

KIND_BY_CODE = {
    EXIT_OTHER: "other", EXIT_USAGE: "usage", EXIT_AUTH: "auth", EXIT_UNAVAILABLE: "unavailable",
    EXIT_INTEGRITY: "integrity", EXIT_DISK_SPACE: "disk_space", EXIT_ERA: "era_manifest",
    EXIT_INTERRUPTED: "interrupted", EXIT_STDOUT_CLOSED: "stdout_closed", EXIT_TERMINATED: "terminated",
}


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
        return KIND_BY_CODE.get(self.code, "other")

    def line(self) -> str:
        return f"{self.message}; {self.hint}" if self.hint else self.message


class Terminate(BaseException):
    """Raised in the main thread by the SIGTERM handler of the console entry point."""


class Interrupted(Exception):
    """Ctrl-C (exit 130) or SIGTERM (exit 143): the command stops, partial downloads stay."""

    def __init__(self, code: int = EXIT_INTERRUPTED) -> None:
        super().__init__("interrupted")
        self.code = code

    @classmethod
    def by(cls, signal_exc: BaseException) -> "Interrupted":
        """The interruption that a KeyboardInterrupt or a Terminate in the main thread stands for."""
        return cls(EXIT_TERMINATED if isinstance(signal_exc, Terminate) else EXIT_INTERRUPTED)


def unusable_data_dir(path: str, exc: OSError) -> CliError:
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


def check_token_text(token: str, token_file: str | None) -> None:
    """A token with a line break or another control character is refused here, not sent (it is never printed)."""
    if any(ord(c) < 0x20 or 0x7F <= ord(c) <= 0x9F for c in token):
        where = f"the token file {token_file}" if token_file else "the token"
        raise CliError(EXIT_AUTH, f"{where} holds more than the token: a line break or another control character",
                       "put only the token in it, on one line" if token_file else "pass the token alone, on one line")


# What each code of the engine means on the command line. A few codes are
# refined by the error's fields (an HTTP status, an errno) in classify().
_EXIT_BY_ERROR_CODE = {
    "auth": EXIT_AUTH, "unavailable": EXIT_UNAVAILABLE, "disk_space": EXIT_DISK_SPACE,
    "integrity": EXIT_INTEGRITY, "era": EXIT_ERA, "superseded": EXIT_ERA, "manifest": EXIT_ERA,
    "permanent_download": EXIT_ERA, "sync": EXIT_ERA,
}


_KEPT = "partial downloads are kept and resume on the next sync"
_OPERATOR = "retry later; if it persists, tell the data service operator"


def classify(exc: BaseException, run: Run) -> CliError:
    """Map an error of the engine (or its sibling modules) to a CliError, by its code and fields."""
    from tidewright import sync

    if isinstance(exc, CliError):
        return exc
    code = sync._error_code(exc)
    args = run.args
    where = getattr(args, "data_dir", None) or "the data directory"
    server = getattr(args, "server", None) or "the data service"
    if code == "cancelled" and run.outage.gave_up:
        return gave_up_error(run, server, _KEPT)
    if code in _EXIT_BY_ERROR_CODE:
        return _engine_error(code, exc, where, server)
    if isinstance(exc, OSError):
        return _os_error(exc, where)
    if code == "update_required":
        return CliError(EXIT_OTHER, f"this tidewright version is too old for the data service: {exc}",
                        "upgrade the tidewright package")
    return CliError(EXIT_OTHER, f"{type(exc).__name__}: {exc}", "run again with -v for details")


def _engine_error(code: str, exc: BaseException, where: str, server: str) -> CliError:
    """An error of the engine's own family, by its code (one of ``_EXIT_BY_ERROR_CODE``)."""
    exit_code = _EXIT_BY_ERROR_CODE[code]
    text = str(exc)
    if code == "auth":
        return CliError(exit_code, f"the data service refused the token ({text})",
                        f"check the token given by --token-file or {TOKEN_ENV}, or get a new one")
    if code == "permanent_download" and exc.status in (401, 403):
        return CliError(EXIT_AUTH, f"the data service refused access (HTTP {exc.status}): {text}",
                        "check the token and its permissions, or get a new one")
    if code == "unavailable":
        return _unavailable_error(exc, exit_code)
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
        return CliError(exit_code, f"the manifest could not be used: {text}", f"{_OPERATOR}; nothing was written")
    if code == "permanent_download":
        return _permanent_download_error(exc, server, _OPERATOR)
    # "sync": what is left of the family: answers of the service that
    # contradict its manifest or the request (an artifact that does not
    # validate, a range answered for other bytes).
    return CliError(exit_code, f"the data service's answers could not be used: {text}", f"{_OPERATOR}; {_KEPT}")


def _unavailable_error(exc: BaseException, exit_code: int) -> CliError:
    if exc.dependency == "tls":
        # Not an outage: it fails at once, and again until the trust is configured.
        return CliError(exit_code, f"cannot connect securely to the data service: {exc.reason}",
                        "set SSL_CERT_FILE to a CA bundle that trusts the service's certificate (for a private CA, "
                        "its CA certificate in PEM), or check --server; nothing was sent",
                        details={"endpoint": exc.endpoint, "failures": exc.failures})
    parts = [f"server_error={exc.server_error_code}" if exc.server_error_code else "",
             f"reason={exc.reason}" if exc.reason else ""]
    extra = " ".join(p for p in parts if p)
    hint = "retry later" + (f" (the service advises: {exc.recovery})" if exc.recovery else "")
    return CliError(exit_code, f"the data service is unavailable at {exc.endpoint}"
                    + (f" ({extra})" if extra else ""), f"{hint}; {_KEPT}",
                    details={"endpoint": exc.endpoint, "statuses": exc.statuses, "failures": exc.failures})


def _os_error(exc: OSError, where: str) -> CliError:
    """A file-system error outside the engine's family: a path conflict, permissions, or another OS error."""
    if exc.errno in (errno.EISDIR, errno.ENOTDIR, errno.ENAMETOOLONG):
        return _path_conflict(exc, where)
    text = str(exc)
    if isinstance(exc, PermissionError):
        return CliError(EXIT_USAGE, f"permission denied: {exc.filename or text}",
                        "fix the permissions of the data directory or pass another --data-dir")
    return CliError(EXIT_OTHER, f"{exc.strerror or text}" + (f": {exc.filename}" if exc.filename else ""),
                    "check the data directory")


def cancelled(exc: BaseException) -> bool:
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


def gave_up_error(run: Run, server: str, kept: str = _KEPT) -> CliError:
    """What the engine kept retrying when the command gave up, checked with one request of our own."""
    watch = run.outage
    after = f"gave up after {human_seconds(watch.give_up_seconds or 0)} of retries"
    kept = f" ({kept})" if run.progress is not None and run.progress.last is not None else ""
    hint_network = f"check --server and the network, then retry{kept}"
    operator = f"retry later; if it persists, tell the data service operator{kept}"
    if watch.gave_up == "fault":
        return _fault_error(dict(watch.last_fault), server, after, hint_network, operator)
    seen = dict(watch.last_outage)
    if seen.get("status"):
        what = f"HTTP {seen['status']}" + (f" {seen['error_code']}" if seen.get("error_code") else "")
        return CliError(EXIT_UNAVAILABLE, f"the data service at {server} kept answering {what}; {after}",
                        hint_network, details=seen)
    seen["diagnosis"] = diagnose_connection(server)
    if seen["diagnosis"].startswith("it accepts connections"):
        # Connected, yet every exchange failed: see what the service answers.
        seen["probe"] = probe = probe_http(probe_url(server, seen.get("endpoint") or seen.get("file") or ""))
        redirect = _redirect_error(probe, server, seen.get("endpoint") or seen.get("file") or "/", after, operator,
                                   seen)
        if redirect is not None:
            return redirect
    return CliError(EXIT_UNAVAILABLE, f"cannot reach the data service at {server} ({seen['diagnosis']}); {after}",
                    hint_network, details=seen)


def _fault_error(seen: dict, server: str, after: str, hint_network: str, operator: str) -> CliError:
    """A download the service kept answering unusably: what the events tell, else what one probe of ours sees."""
    name = seen.get("file") or "a file"
    if seen.get("reason") == "partial_transfer":
        return CliError(EXIT_INTEGRITY, f"downloads of {name} kept ending before the size the manifest lists; "
                        f"{after}", operator, details=seen)
    if seen.get("status") == 416:
        size = seen.get("expected_size")
        listed = f" (listed at {size} bytes)" if isinstance(size, int) and size >= 0 else ""
        return CliError(EXIT_ERA, f"the data service at {server} kept refusing byte ranges of {name}{listed} "
                        f"with HTTP 416; {after}", operator, details=seen)
    seen["probe"] = probe = probe_http(probe_url(server, name), range_header="bytes=0-0")
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


def _redirect_error(probe: dict | None, server: str, name: str, after: str, hint: str, seen: dict) -> CliError | None:
    if not probe or not 300 <= int(probe.get("status") or 0) < 400:
        return None
    location = probe.get("location") or "nowhere"
    return CliError(EXIT_ERA, f"the data service at {server} answers requests for {name} with a redirect "
                    f"(HTTP {probe['status']} to {location}) that never leads to the data; {after}",
                    "check that --server is the service's own address (https or http as it expects); " + hint,
                    details=seen)


def no_manifest(data_dir: str) -> CliError:
    return CliError(EXIT_ERA, f"{data_dir} holds no manifest (nothing was synced into it yet)",
                    "run 'tidewright-sync sync' first")


def verify_problem(v: dict) -> CliError:
    bad, missing = v["corrupted_files"], v["missing_files"]
    listed = (bad + missing)[:3]
    more = f" and {len(bad) + len(missing) - len(listed)} more" if len(bad) + len(missing) > len(listed) else ""
    return CliError(EXIT_INTEGRITY, f"{len(bad)} corrupt and {len(missing)} missing files ({', '.join(listed)}{more})",
                    "run 'tidewright-sync repair' to download them again", details=v)
