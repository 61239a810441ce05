"""The reference data service: a real HTTP(S) server for tests, demos and benchmarks.

It serves one market's eras, generated deterministically (see ``content``):

    GET /data/manifest/version      {"version", "era_number", "manifest_sha256"}
    GET /data/manifest              the manifest bytes
    GET /data/files/<path>          a manifest file; "Range: bytes=a-b" / "bytes=a-" / "bytes=-n"
    GET /data/shuffle               the 60-byte shuffle seed with its key headers
    GET /market/<id>/era/current    the era-current answer (flat or wrapped shape)

Every request but the public file path needs "Authorization: Bearer <token>".
Failures answer with a JSON object carrying "error_code", "dependency",
"retryable", "recovery" and "reason".

Tests script misbehaviour per path (:meth:`DataService.add_fault`), change
the published data (:meth:`DataService.set_version`,
:meth:`DataService.publish_era`, also from inside a request with
:meth:`DataService.on_request`) and read the request log
(:attr:`DataService.requests`)::

    with DataService(seed=3) as svc:
        svc.add_fault("/data/manifest", "status", status=503, count=2)
        ...  # a client at svc.url with svc.token
"""

from __future__ import annotations

import argparse
import dataclasses
import fnmatch
import json
import logging
import os
import re
import shutil
import socket
import socketserver
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, Callable, Iterable
from urllib.parse import unquote, urlsplit

from .content import SHUFFLE_KEY_GENERATION, SHUFFLE_KEY_SOURCE, BytesContent, DiskStore, Era, EraLayout

__all__ = ["DataService", "Fault", "RequestRecord", "error_body", "main"]

_log = logging.getLogger("tidewright.dataservice")

_SEND_CHUNK = 256 * 1024
_IDLE_TIMEOUT_SECONDS = 30.0
_HANDSHAKE_TIMEOUT_SECONDS = 10.0
_MAX_LOGGED_REQUESTS = 100_000
_SERVED_ERA = object()  # the era-current answer names the era being served

_ERROR_DEFAULTS = {
    400: ("bad_request", "dataservice", False, "fix_request"),
    401: ("unauthorized", "auth", False, "refresh_token"),
    403: ("forbidden", "auth", False, "check_permissions"),
    404: ("not_found", "storage", False, "resync_manifest"),
    405: ("method_not_allowed", "dataservice", False, "fix_request"),
    408: ("request_timeout", "network", True, "retry_with_backoff"),
    416: ("range_not_satisfiable", "storage", False, "resync_manifest"),
    425: ("too_early", "dataservice", True, "retry_with_backoff"),
    429: ("rate_limited", "dataservice", True, "retry_with_backoff"),
    500: ("internal_error", "dataservice", True, "retry_with_backoff"),
    502: ("bad_gateway", "storage", True, "retry_with_backoff"),
    503: ("service_unavailable", "storage", True, "retry_with_backoff"),
    504: ("gateway_timeout", "storage", True, "retry_with_backoff"),
}


def error_body(status: int, *, error_code=None, dependency=None, retryable=None, recovery=None, reason=None) -> bytes:
    """The JSON error object the service sends with ``status``; unset keys get per-status defaults."""
    code, dep, retry, recover = _ERROR_DEFAULTS.get(
        status, (f"http_{status}", "dataservice", status >= 500, "retry_with_backoff" if status >= 500 else "none"))
    body = {
        "error_code": code if error_code is None else error_code,
        "dependency": dep if dependency is None else dependency,
        "retryable": retry if retryable is None else retryable,
        "recovery": recover if recovery is None else recovery,
        "reason": (reason if reason is not None else f"HTTP {status}"),
    }
    return json.dumps(body).encode("utf-8")


# -- faults -------------------------------------------------------------------

FAULT_KINDS = frozenset({
    "pass",               # serve normally (a step in a status sequence)
    "status",             # answer `status` with `body` (default: JSON error body)
    "ignore_range",       # answer 200 with the whole file despite a Range
    "truncate",           # announce the full length, send `after_bytes`, close
    "reset",              # send `after_bytes`, then reset the connection (RST)
    "bad_status_line",    # answer a line that is not an HTTP status line, then close
    "corrupt",            # flip the byte at file offset `offset` (default: the first byte sent)
    "empty_206",          # 206 with the requested Content-Range but no body
    "bad_content_range",  # 206 whose Content-Range names another range than requested
    "slow",               # send at `bytes_per_second`
    "stall",              # send headers and `after_bytes` (None: nothing at all), then hang until stopped
    "delay",              # wait `seconds` before answering
    "headers",            # answer normally with `set_headers` added/replaced and `drop_headers` removed
    "overlong",           # the body, then `after_bytes` more (None: without end); the length announced counts them
    "overlong_whole",     # 200 with the whole file despite a Range, then as "overlong"
})

# An endless body ends when the client leaves, the service stops, or after this much.
_OVERLONG_LIMIT = 8 << 30


@dataclasses.dataclass
class Fault:
    """One scripted misbehaviour for requests whose path matches ``pattern`` (glob).

    It lets ``skip`` matching requests through, then applies to ``count``
    requests (None: all further ones). Faults of overlapping patterns apply
    in the order they were added; a request gets at most one.
    """

    pattern: str
    kind: str
    count: int | None = 1
    skip: int = 0
    status: int = 503
    body: Any = None
    error_fields: dict = dataclasses.field(default_factory=dict)
    after_bytes: int | None = None
    offset: int | None = None
    bytes_per_second: int = 65536
    seconds: float = 0.0
    set_headers: dict = dataclasses.field(default_factory=dict)
    drop_headers: tuple = ()
    applied: int = 0

    def matches(self, path: str) -> bool:
        return path == self.pattern or fnmatch.fnmatchcase(path, self.pattern)

    @property
    def exhausted(self) -> bool:
        return self.count is not None and self.applied >= self.count


@dataclasses.dataclass
class _Hook:
    pattern: str
    action: Callable[[], Any]
    after: int
    count: int
    seen: int = 0
    fired: int = 0


@dataclasses.dataclass
class RequestRecord:
    """One request as the service saw it. ``status`` and ``bytes_sent`` are
    filled in once the answer has been sent (None/0 before)."""

    method: str
    path: str
    query: str
    headers: dict             # lower-case names; the Authorization value is not kept
    range: str | None
    has_authorization: bool
    authorized: bool | None = None
    status: int | None = None
    bytes_sent: int = 0
    fault: str | None = None
    era_number: int | None = None
    time: float = dataclasses.field(default_factory=time.time)


@dataclasses.dataclass
class _Response:
    status: int
    headers: list
    content: Any = None          # object with size and iter_range(start, stop)
    start: int = 0
    stop: int = 0
    content_length: int | None = None  # announced length when it differs from stop - start
    close: bool = False


# -- the service --------------------------------------------------------------

class DataService:
    """A running data service for one market. Thread-safe.

    ``root_dir``: None keeps everything in memory (binary files generated on
    the fly); a directory makes the service write its eras there
    (``market_<id>/era_<n>/...`` with ``manifest.json``) and serve from disk.
    ``eras`` eras are generated, numbered from ``first_era``; the last is
    current. Layout keywords (``features``, ``feature_bytes``,
    ``large_file_bytes``, ``universes``, ... see :class:`EraLayout`) shape
    every era. ``token=None`` turns authentication off. ``public_files``
    publishes a ``base_url`` in the manifest and serves files there without
    a token: True uses the server's own ``/data/files``; a path such as
    ``"/public/files"`` adds that as a second, public file route.
    """

    def __init__(
        self,
        root_dir: str | None = None,
        *,
        seed: int = 1,
        eras: int = 1,
        first_era: int = 1,
        market_id: int = 1,
        token: str | None = "test-token",
        tls: bool = False,
        era_shape: str = "flat",
        public_files: bool | str = False,
        host: str = "127.0.0.1",
        port: int = 0,
        layout: EraLayout | None = None,
        **layout_fields: Any,
    ) -> None:
        if eras < 1:
            raise ValueError("eras must be at least 1")
        if era_shape not in ("flat", "wrapped"):
            raise ValueError("era_shape must be 'flat' or 'wrapped'")
        self.seed = seed
        self.market_id = market_id
        self.token = token
        self.tls = tls
        self.host = host
        self._port = port
        self._public_path = None
        if public_files:
            self._public_path = "/data/files" if public_files is True else "/" + str(public_files).strip("/")
        self._layout = (layout or EraLayout()).replace(**layout_fields)
        self._store = DiskStore(root_dir) if root_dir is not None else None
        self._lock = threading.RLock()
        self._eras: dict[int, Era] = {}                 # guarded by _lock
        self._current: int = first_era + eras - 1       # guarded by _lock
        self._era_state = {"state": "active", "next_closing_at": None, "min_library_version": "0.0.0",
                           "shape": era_shape}  # guarded by _lock
        self._announced_era: Any = _SERVED_ERA          # guarded by _lock
        self._api_era: Era | None = None                # guarded by _lock; see freeze_api
        self._faults: list[Fault] = []                  # guarded by _lock
        self._hooks: list[_Hook] = []                   # guarded by _lock
        self._requests: list[RequestRecord] = []        # guarded by _lock
        for number in range(first_era, first_era + eras):
            self._eras[number] = self._make_era(number, 1, self._layout)
        self._stop_event = threading.Event()
        self._httpd: _Server | None = None
        self._thread: threading.Thread | None = None
        self._tls_dir: str | None = None
        self.ca_file: str | None = None
        self.cert_file: str | None = None
        self.key_file: str | None = None
        self.url: str | None = None

    # -- lifecycle ------------------------------------------------------------

    def start(self) -> "DataService":
        """Listen on ``host`` (port 0: an ephemeral port) and serve in a background thread.

        A stopped service may be started again: it listens on the port it had
        before and serves the same data; with TLS it makes a new certificate.
        """
        if self._httpd is not None:
            raise RuntimeError("DataService already started")
        self._stop_event.clear()
        context = None
        if self.tls:
            context = self._make_tls_context()
        self._httpd = _Server((self.host, self._port), _Handler, self, context)
        port = self._httpd.server_address[1]
        self._port = port  # a later start() listens here again
        scheme = "https" if self.tls else "http"
        host = f"[{self.host}]" if ":" in self.host else self.host
        self.url = f"{scheme}://{host}:{port}"
        with self._lock:
            for era in self._eras.values():  # hashes every file once, before the first request
                body = era.manifest_bytes(self.base_url)
                if self._store is not None:
                    self._store.write_manifest(era, body)
        self._thread = threading.Thread(target=self._httpd.serve_forever, kwargs={"poll_interval": 0.05},
                                        name="dataservice", daemon=True)
        self._thread.start()
        return self

    def stop(self) -> None:
        """Stop serving: stalled and slow answers end, open connections are closed. Idempotent."""
        self._shut_down()
        if self._tls_dir is not None:
            shutil.rmtree(self._tls_dir, ignore_errors=True)
            self._tls_dir = None

    def restart(self) -> "DataService":
        """Stop and serve again at once, on the same port and with the same
        certificate: what a client sees of a service restarted under it.
        Open connections break and stalled answers end; the published data,
        the scripted faults, the hooks and the request log are kept."""
        if self._httpd is None:
            raise RuntimeError("DataService is not running")
        self._shut_down()
        return self.start()

    def _shut_down(self) -> None:
        self._stop_event.set()
        httpd, self._httpd = self._httpd, None
        if httpd is not None:
            httpd.shutdown()
            httpd.close_connections()
            httpd.server_close()
            httpd.join_handlers(timeout=5.0)
        if self._thread is not None:
            self._thread.join(timeout=5.0)
            self._thread = None

    def __enter__(self) -> "DataService":
        return self.start()

    def __exit__(self, *exc_info) -> None:
        self.stop()

    @property
    def base_url(self) -> str | None:
        """The manifest's ``base_url`` (None unless files are public)."""
        if self._public_path is None or self.url is None:
            return None
        return self.url + self._public_path

    @property
    def auth_headers(self) -> dict:
        return {"Authorization": f"Bearer {self.token}"} if self.token is not None else {}

    # -- published data -------------------------------------------------------

    def _make_era(self, number: int, version: int, layout: EraLayout) -> Era:
        return Era(seed=self.seed, market_id=self.market_id, era_number=number, layout=layout,
                   version=version, store=self._store)

    @property
    def current_era(self) -> int:
        with self._lock:
            return self._current

    def era(self, era_number: int | None = None) -> Era:
        with self._lock:
            number = self._current if era_number is None else era_number
            if number not in self._eras:
                raise KeyError(f"no era {number}")
            return self._eras[number]

    def manifest(self, era: int | None = None) -> dict:
        """The manifest of ``era`` (default: the current one) as served, as a dict."""
        return self.era(era).manifest(self.base_url)

    def manifest_bytes(self, era: int | None = None) -> bytes:
        return self.era(era).manifest_bytes(self.base_url)

    def file_bytes(self, era: int | None, path: str) -> bytes:
        """The bytes of manifest file ``path`` of ``era`` (None: the current era)."""
        return self.era(era).files[path].content.read()

    def shuffle_seed(self, era: int | None = None) -> bytes:
        return self.era(era).shuffle_seed()

    def set_version(self, version: int | None = None, *, touch: Iterable[str] = (), era: int | None = None,
                    **layout_fields: Any) -> int:
        """Publish a new manifest version of ``era`` (default: current); returns it.

        ``touch`` lists paths whose bytes change; layout keywords change the
        era's shape (for example ``extra_files`` or ``entry_overrides``).
        """
        with self._lock:
            old = self.era(era)
            new_version = old.version + 1 if version is None else int(version)
            layout = old.layout.replace(**layout_fields) if layout_fields else old.layout
            new = old.with_changes(version=new_version, touch=tuple(touch), layout=layout)
            body = new.manifest_bytes(self.base_url)
            if self._store is not None:
                self._store.write_manifest(new, body)
            self._eras[old.era_number] = new
            return new_version

    def publish_era(self, era_number: int | None = None, *, activate: bool = True, version: int = 1,
                    **layout_fields: Any) -> int:
        """Generate a new era (default number: one past the highest) and, with
        ``activate``, make it current for the data paths and the era-current
        answer (which becomes "active" with no close scheduled). Returns its number."""
        with self._lock:
            number = max(self._eras) + 1 if era_number is None else int(era_number)
            layout = self._layout.replace(**layout_fields) if layout_fields else self._layout
            era = self._make_era(number, version, layout)
            body = era.manifest_bytes(self.base_url)
            if self._store is not None:
                self._store.write_manifest(era, body)
            self._eras[number] = era
            if activate:
                self.activate_era(number)
            return number

    def freeze_api(self, frozen: bool = True) -> None:
        """With ``frozen``, "/data/manifest/version" and "/data/manifest" keep
        answering with the era as it is now while later versions are published
        only on the public file route, whose "manifest.json" is the newest
        manifest: an API lagging behind the public store. ``frozen=False``
        lets the API catch up."""
        with self._lock:
            self._api_era = self._eras[self._current] if frozen else None

    def activate_era(self, era_number: int) -> None:
        """Serve ``era_number`` (already generated) from now on and announce it as active."""
        with self._lock:
            self.era(era_number)
            self._current = era_number
            self._era_state.update(state="active", next_closing_at=None)
            self._announced_era = _SERVED_ERA

    def set_era_state(self, state: str | None = None, *, next_closing_at: Any = ...,
                      min_library_version: str | None = None, era_number: Any = ...,
                      shape: str | None = None) -> None:
        """Change the era-current answer without changing the data served.

        ``era_number`` overrides the announced number (None announces no
        era); ``next_closing_at=None`` withdraws a scheduled close.
        """
        with self._lock:
            if state is not None:
                self._era_state["state"] = state
            if next_closing_at is not ...:
                self._era_state["next_closing_at"] = next_closing_at
            if min_library_version is not None:
                self._era_state["min_library_version"] = min_library_version
            if era_number is not ...:
                self._announced_era = None if era_number is None else int(era_number)
            if shape is not None:
                if shape not in ("flat", "wrapped"):
                    raise ValueError("shape must be 'flat' or 'wrapped'")
                self._era_state["shape"] = shape

    def era_current_body(self) -> dict:
        """The era-current answer as it would be served now."""
        with self._lock:
            st = dict(self._era_state)
            number = self._current if self._announced_era is _SERVED_ERA else self._announced_era
        era = {"era_number": number, "market_id": self.market_id, "min_library_version": st["min_library_version"]}
        if st["next_closing_at"] is not None:
            era["next_closing_at"] = st["next_closing_at"]
        if st["shape"] == "wrapped":
            return {"era": era if number is not None else None, "state": st["state"]}
        return {**era, "state": st["state"]}

    # -- scripting --------------------------------------------------------------

    def add_fault(self, pattern: str, kind: str, *, count: int | None = 1, skip: int = 0, status: int = 503,
                  body: Any = None, after_bytes: int | None = None, offset: int | None = None,
                  bytes_per_second: int = 65536, seconds: float = 0.0, set_headers: dict | None = None,
                  drop_headers: Iterable[str] = (), **error_fields: Any) -> Fault:
        """Script a fault (see ``FAULT_KINDS``) for request paths matching ``pattern``.

        For "status", ``body`` may be bytes, text or a JSON-ready object;
        without it a JSON error body is sent, whose keys can be set with
        ``error_code=``, ``dependency=``, ``retryable=``, ``recovery=``, ``reason=``.
        """
        if kind not in FAULT_KINDS:
            raise ValueError(f"unknown fault kind {kind!r}; known: {', '.join(sorted(FAULT_KINDS))}")
        unknown = set(error_fields) - {"error_code", "dependency", "retryable", "recovery", "reason"}
        if unknown:
            raise TypeError(f"unknown fault options: {', '.join(sorted(unknown))}")
        fault = Fault(pattern=pattern, kind=kind, count=count, skip=skip, status=status, body=body,
                      error_fields=error_fields, after_bytes=after_bytes, offset=offset,
                      bytes_per_second=max(1, int(bytes_per_second)), seconds=seconds,
                      set_headers=dict(set_headers or {}), drop_headers=tuple(h.lower() for h in drop_headers))
        with self._lock:
            self._faults.append(fault)
        return fault

    def script_statuses(self, pattern: str, statuses: Iterable[int], **error_fields: Any) -> None:
        """Answer the next requests for ``pattern`` with ``statuses`` in turn; 200 means "serve normally"."""
        for status in statuses:
            if status == 200:
                self.add_fault(pattern, "pass")
            else:
                self.add_fault(pattern, "status", status=status, **error_fields)

    def clear_faults(self) -> None:
        with self._lock:
            self._faults.clear()
            self._hooks.clear()

    def on_request(self, pattern: str, action: Callable[[], Any], *, after: int = 1, count: int = 1) -> None:
        """Run ``action()`` just before the ``after``-th request matching ``pattern`` is
        answered (and before the ``count - 1`` following ones), e.g.
        ``svc.on_request("/data/files/*", svc.publish_era, after=3)``."""
        with self._lock:
            self._hooks.append(_Hook(pattern, action, max(1, after), max(1, count)))

    @property
    def requests(self) -> list[RequestRecord]:
        """A copy of the request log, oldest first."""
        with self._lock:
            return list(self._requests)

    def requests_for(self, pattern: str) -> list[RequestRecord]:
        return [r for r in self.requests if r.path == pattern or fnmatch.fnmatchcase(r.path, pattern)]

    def clear_requests(self) -> None:
        with self._lock:
            self._requests.clear()

    # -- TLS --------------------------------------------------------------------

    def _make_tls_context(self) -> ssl.SSLContext:
        if self._tls_dir is None:  # a restart keeps the certificate
            self._tls_dir = tempfile.mkdtemp(prefix="dataservice-tls-")
            self.ca_file, self.cert_file, self.key_file = make_test_certificates(self._tls_dir, self.host)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.cert_file, self.key_file)
        return context

    def client_ssl_context(self) -> ssl.SSLContext:
        """An SSL context for clients that trusts this service's certificate."""
        if not self.ca_file:
            raise RuntimeError("the service does not use TLS")
        return ssl.create_default_context(cafile=self.ca_file)

    # -- request handling -----------------------------------------------------------

    def _handle(self, handler: "_Handler") -> None:
        if self._stop_event.is_set():
            handler.close_connection = True
            return
        parts = urlsplit(handler.path)
        path = unquote(parts.path)
        headers = {k.lower(): v for k, v in handler.headers.items() if k.lower() != "authorization"}
        record = RequestRecord(
            method=handler.command, path=path, query=parts.query, headers=headers,
            range=handler.headers.get("Range"), has_authorization="Authorization" in handler.headers)
        with self._lock:
            self._requests.append(record)
            if len(self._requests) > _MAX_LOGGED_REQUESTS:
                del self._requests[: len(self._requests) - _MAX_LOGGED_REQUESTS]
            actions = self._due_hooks(path)
        for action in actions:
            try:
                action()
            except Exception:  # a failing hook must not take the request down
                _log.exception("request hook failed for %s", path)
        fault = self._take_fault(path)
        record.fault = fault.kind if fault else None
        if fault is not None and fault.kind == "stall" and fault.after_bytes is None:
            self._stop_event.wait()
            handler.close_connection = True
            return
        if fault is not None and fault.kind == "bad_status_line":
            record.status = 0
            handler.close_connection = True
            try:
                handler.wfile.write(b"SPEAK HTTP PLEASE\r\n\r\n")
            except (ConnectionError, ssl.SSLError, OSError):
                pass
            return
        if fault is not None and fault.kind == "delay":
            if self._stop_event.wait(fault.seconds):
                handler.close_connection = True
                return
        response = self._route(handler, record, path)
        if fault is not None:
            response = self._apply_fault(fault, response, record)
        self._send(handler, response, fault, record)

    def _due_hooks(self, path: str) -> list:
        # REQUIRES: _lock held
        due = []
        for hook in self._hooks:
            if hook.fired >= hook.count or not (path == hook.pattern or fnmatch.fnmatchcase(path, hook.pattern)):
                continue
            hook.seen += 1
            if hook.seen >= hook.after:
                hook.fired += 1
                due.append(hook.action)
        return due

    def _take_fault(self, path: str) -> Fault | None:
        with self._lock:
            for fault in self._faults:
                if fault.exhausted or not fault.matches(path):
                    continue
                if fault.skip > 0:
                    fault.skip -= 1
                    return None
                fault.applied += 1
                return None if fault.kind == "pass" else fault
        return None

    def _error(self, status: int, reason: str, extra_headers: list | None = None, **fields: Any) -> _Response:
        body = BytesContent(error_body(status, reason=reason, **fields))
        headers = [("Content-Type", "application/json")] + (extra_headers or [])
        return _Response(status, headers, body, 0, body.size)

    def _json(self, value: Any, era: Era | None = None) -> _Response:
        body = BytesContent(json.dumps(value).encode("utf-8"))
        return self._bytes(body, "application/json", era)

    def _bytes(self, content: Any, content_type: str, era: Era | None, extra: list | None = None) -> _Response:
        headers = [("Content-Type", content_type)]
        if era is not None:
            headers.append(("X-Era-Number", str(era.era_number)))
        return _Response(200, headers + (extra or []), content, 0, content.size)

    def _check_auth(self, handler: "_Handler", record: RequestRecord) -> _Response | None:
        if self.token is None:
            return None
        value = handler.headers.get("Authorization")
        if value is None:
            record.authorized = False
            return self._error(401, "missing bearer token", [("WWW-Authenticate", "Bearer")])
        scheme, _, credential = value.partition(" ")
        if scheme.lower() != "bearer" or credential.strip() != self.token:
            record.authorized = False
            return self._error(401, "invalid bearer token", [("WWW-Authenticate", "Bearer")])
        record.authorized = True
        return None

    def _route(self, handler: "_Handler", record: RequestRecord, path: str) -> _Response:
        if handler.command != "GET":
            refused = self._error(405, f"{handler.command} is not supported", [("Allow", "GET")])
            refused.close = True
            return refused
        public = self._public_path is not None and path.startswith(self._public_path + "/")
        if not public:
            refused = self._check_auth(handler, record)
            if refused is not None:
                return refused
        with self._lock:
            era = self._eras[self._current]
            api_era = self._api_era or era
        record.era_number = era.era_number
        if public:
            relative = path[len(self._public_path) + 1:]
            if relative == "manifest.json":
                return self._bytes(BytesContent(era.manifest_bytes(self.base_url)), "application/json", era)
            return self._file(handler, era, relative)
        if path.startswith("/data/files/"):
            return self._file(handler, era, path[len("/data/files/"):])
        if path.rstrip("/") == "/data/manifest/version":
            return self._json({"version": api_era.version, "era_number": api_era.era_number,
                               "manifest_sha256": api_era.manifest_sha256(self.base_url)}, api_era)
        if path.rstrip("/") == "/data/manifest":
            return self._bytes(BytesContent(api_era.manifest_bytes(self.base_url)), "application/json", api_era)
        if path.rstrip("/") == "/data/shuffle":
            manifest = era.manifest(None)
            return self._bytes(BytesContent(era.shuffle_seed()), "application/octet-stream", era, [
                ("X-Tidewright-Shuffle-Key-Generation", str(manifest.get("shuffle_key_generation",
                                                                          SHUFFLE_KEY_GENERATION))),
                ("X-Tidewright-Shuffle-Key-Source", str(manifest.get("shuffle_key_source", SHUFFLE_KEY_SOURCE))),
            ])
        match = re.fullmatch(r"/market/([^/]+)/era/current/?", path)
        if match:
            if match.group(1) != str(self.market_id):
                return self._error(404, f"unknown market {match.group(1)}", error_code="unknown_market",
                                   dependency="dataservice")
            return self._json(self.era_current_body())
        return self._error(404, f"no such path: {path}")

    def _file(self, handler: "_Handler", era: Era, relative: str) -> _Response:
        entry = era.files.get(relative)
        if entry is None:
            return self._error(404, f"file not in era {era.era_number}: {relative}")
        content = entry.content
        size = content.size
        headers = [("Content-Type", "application/octet-stream"), ("Accept-Ranges", "bytes"),
                   ("X-Era-Number", str(era.era_number))]
        requested = parse_range(handler.headers.get("Range"), size)
        if requested is None:
            return _Response(200, headers, content, 0, size)
        if requested == "unsatisfiable":
            return self._error(416, f"range not satisfiable for {size} bytes",
                               [("Content-Range", f"bytes */{size}")])
        start, stop = requested
        headers.append(("Content-Range", f"bytes {start}-{stop - 1}/{size}"))
        return _Response(206, headers, content, start, stop)

    def _apply_fault(self, fault: Fault, response: _Response, record: RequestRecord) -> _Response:
        kind = fault.kind
        if kind == "status":
            body = fault.body
            if body is None:
                data = error_body(fault.status, **{"reason": "scripted fault", **fault.error_fields})
                content_type = "application/json"
            elif isinstance(body, (bytes, bytearray)):
                data, content_type = bytes(body), "application/octet-stream"
            elif isinstance(body, str):
                data, content_type = body.encode("utf-8"), "text/plain; charset=utf-8"
            else:
                data, content_type = json.dumps(body).encode("utf-8"), "application/json"
            content = BytesContent(data)
            headers = [("Content-Type", content_type)]
            headers += [h for h in response.headers if h[0].lower() == "x-era-number"]
            headers += list(fault.set_headers.items())
            return _Response(fault.status, headers, content, 0, content.size)
        if response.content is None or response.status >= 300:
            return response  # the remaining faults only shape successful bodies
        if kind in ("ignore_range", "overlong_whole") and response.status == 206:
            headers = [h for h in response.headers if h[0].lower() != "content-range"]
            return dataclasses.replace(response, status=200, headers=headers, start=0, stop=response.content.size)
        if kind == "empty_206":
            if not any(h[0].lower() == "content-range" for h in response.headers):
                size = response.content.size
                response.headers.append(("Content-Range", f"bytes 0-{max(0, size - 1)}/{size}"))
            return dataclasses.replace(response, status=206, stop=response.start, content_length=0)
        if kind == "bad_content_range":
            size = response.content.size
            start, stop = response.start, response.stop
            wrong = (start + 1, stop) if stop - start > 1 else (0, min(size, 2))
            headers = [h for h in response.headers if h[0].lower() != "content-range"]
            headers.append(("Content-Range", f"bytes {wrong[0]}-{wrong[1] - 1}/{size}"))
            return dataclasses.replace(response, status=206, headers=headers)
        if kind == "headers":
            drop = set(fault.drop_headers) | {k.lower() for k in fault.set_headers}
            headers = [h for h in response.headers if h[0].lower() not in drop]
            headers += list(fault.set_headers.items())
            return dataclasses.replace(response, headers=headers)
        return response

    def _send(self, handler: "_Handler", response: _Response, fault: Fault | None, record: RequestRecord) -> None:
        body_length = response.stop - response.start if response.content is not None else 0
        announced = body_length if response.content_length is None else response.content_length
        kind = fault.kind if fault is not None else None
        limit = None
        if kind in ("truncate", "reset", "stall"):
            limit = fault.after_bytes if fault.after_bytes is not None else body_length // 2
            limit = max(0, min(limit, body_length))
        overlong = kind in ("overlong", "overlong_whole") and response.content is not None and response.status < 300
        if overlong:
            announced = None if fault.after_bytes is None else body_length + fault.after_bytes
        record.status = response.status
        try:
            handler.send_response(response.status)
            for name, value in response.headers:
                handler.send_header(name, value)
            if announced is not None:
                handler.send_header("Content-Length", str(announced))
            if response.close or limit is not None or announced is None:
                handler.send_header("Connection", "close")
                handler.close_connection = True
            handler.end_headers()
            if announced == 0 or response.content is None:
                return
            pos = response.start
            stop = response.start + (body_length if limit is None else limit)
            corrupt_at = None
            if kind == "corrupt":
                corrupt_at = fault.offset if fault.offset is not None else response.start
            chunk = _SEND_CHUNK
            if kind == "slow":
                chunk = max(1, min(_SEND_CHUNK, fault.bytes_per_second // 10))
            for piece in response.content.iter_range(pos, stop, chunk):
                if self._stop_event.is_set():
                    handler.close_connection = True
                    return
                if corrupt_at is not None and pos <= corrupt_at < pos + len(piece):
                    mutable = bytearray(piece)
                    mutable[corrupt_at - pos] ^= 0xFF
                    piece = bytes(mutable)
                handler.wfile.write(piece)
                pos += len(piece)
                record.bytes_sent += len(piece)
                if kind == "slow" and self._stop_event.wait(len(piece) / fault.bytes_per_second):
                    handler.close_connection = True
                    return
            if overlong:
                extra = _OVERLONG_LIMIT if fault.after_bytes is None else fault.after_bytes
                filler = b"\0" * _SEND_CHUNK
                while extra > 0 and not self._stop_event.is_set():
                    piece = filler[:extra]
                    handler.wfile.write(piece)
                    extra -= len(piece)
                    record.bytes_sent += len(piece)
        except (ConnectionError, ssl.SSLError, OSError):
            handler.close_connection = True
            return
        if kind == "reset":
            _reset_connection(handler)
        elif kind == "stall":
            self._stop_event.wait()


def _reset_connection(handler: "_Handler") -> None:
    """Close with RST instead of FIN, so the client sees a connection reset."""
    handler.close_connection = True
    sock = handler.connection
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()  # also for TLS: closing never sends a close_notify
    except OSError:
        pass


def parse_range(value: str | None, size: int):
    """``(start, stop)`` of a single-range "bytes=" header, "unsatisfiable", or None when
    there is no usable Range (absent, malformed or multi-range: the whole file is served)."""
    if value is None:
        return None
    match = re.fullmatch(r"\s*bytes\s*=\s*(\d*)\s*-\s*(\d*)\s*", value)
    if not match or (match.group(1) == "" and match.group(2) == ""):
        return None
    first, last = match.group(1), match.group(2)
    if first == "":
        suffix = int(last)
        if suffix == 0 or size == 0:
            return "unsatisfiable"
        return max(0, size - suffix), size
    start = int(first)
    if last != "" and int(last) < start:
        return None
    if start >= size:
        return "unsatisfiable"
    end = size - 1 if last == "" else min(int(last), size - 1)
    return start, end + 1


# -- HTTP plumbing --------------------------------------------------------------

class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # Headers and body go out in separate writes; with Nagle's algorithm the
    # body waits for the client's delayed ACK of the headers (about 40 ms on a
    # reused connection), which made every sequential request cost that much.
    disable_nagle_algorithm = True
    server_version = "tidewright-dataservice/1"
    timeout = _IDLE_TIMEOUT_SECONDS

    def do_GET(self) -> None:  # noqa: N802 - http.server naming
        self.server.service._handle(self)

    do_HEAD = do_POST = do_PUT = do_DELETE = do_PATCH = do_OPTIONS = do_GET

    def log_message(self, format: str, *args: Any) -> None:  # noqa: A002 - http.server signature
        _log.debug("%s %s", self.address_string(), format % args)


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 128

    def __init__(self, address, handler, service: DataService, ssl_context: ssl.SSLContext | None) -> None:
        self.service = service
        self._ssl_context = ssl_context
        self._open_lock = threading.Lock()
        self._open: dict[Any, threading.Thread] = {}  # guarded by _open_lock
        super().__init__(address, handler)

    def process_request_thread(self, request, client_address) -> None:
        conn = request
        try:
            if self._ssl_context is not None:
                request.settimeout(_HANDSHAKE_TIMEOUT_SECONDS)
                conn = self._ssl_context.wrap_socket(request, server_side=True, do_handshake_on_connect=False)
                with self._open_lock:
                    self._open[conn] = threading.current_thread()
                conn.do_handshake()
            else:
                with self._open_lock:
                    self._open[conn] = threading.current_thread()
            if not self.service._stop_event.is_set():
                self.finish_request(conn, client_address)
        except (OSError, ssl.SSLError):
            pass  # handshake failures, resets, connections closed by stop()
        except Exception:
            self.handle_error(conn, client_address)
        finally:
            with self._open_lock:
                self._open.pop(conn, None)
            self.shutdown_request(conn)

    def handle_error(self, request, client_address) -> None:
        _log.exception("error while serving %s", client_address)

    def close_connections(self) -> None:
        with self._open_lock:
            conns = list(self._open)
        for conn in conns:
            try:
                conn.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def join_handlers(self, timeout: float) -> None:
        deadline = time.monotonic() + timeout
        with self._open_lock:
            threads = [t for t in self._open.values() if t is not threading.current_thread()]
        for thread in threads:
            thread.join(max(0.0, deadline - time.monotonic()))

    def server_bind(self) -> None:
        # HTTPServer.server_bind asks DNS for the host's name; not needed here.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = str(self.server_address[0]), self.server_address[1]


def make_test_certificates(directory: str, host: str = "127.0.0.1") -> tuple[str, str, str]:
    """A throw-away CA and a server certificate for ``host``/localhost, made with the
    ``openssl`` program. Returns ``(ca_file, cert_file, key_file)``."""
    def run(*args: str) -> None:
        subprocess.run(["openssl", *args], check=True, capture_output=True, timeout=60)

    ca_key, ca_cert = os.path.join(directory, "ca.key"), os.path.join(directory, "ca.pem")
    key, csr, cert = (os.path.join(directory, n) for n in ("server.key", "server.csr", "server.pem"))
    ext = os.path.join(directory, "server.ext")
    curve = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    run("req", "-x509", *curve, "-keyout", ca_key, "-out", ca_cert, "-days", "2",
        "-subj", "/CN=dataservice test CA",
        "-addext", "basicConstraints=critical,CA:TRUE",
        "-addext", "keyUsage=critical,keyCertSign,cRLSign")
    run("req", "-new", *curve, "-keyout", key, "-out", csr, "-subj", f"/CN={host}")
    san = f"IP:{host}" if re.fullmatch(r"[0-9.]+|[0-9a-fA-F:]+", host) else f"DNS:{host}"
    with open(ext, "w", encoding="ascii") as handle:
        handle.write("basicConstraints=critical,CA:FALSE\n"
                     "keyUsage=critical,digitalSignature,keyEncipherment\n"
                     "extendedKeyUsage=serverAuth\n"
                     f"subjectAltName={san},DNS:localhost,IP:127.0.0.1\n"
                     "authorityKeyIdentifier=keyid\n"
                     "subjectKeyIdentifier=hash\n")
    run("x509", "-req", "-in", csr, "-CA", ca_cert, "-CAkey", ca_key, "-CAcreateserial",
        "-out", cert, "-days", "2", "-extfile", ext)
    return ca_cert, cert, key


# -- command line -----------------------------------------------------------------

def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python -m tools.dataservice",
                                     description="Serve generated eras of one market until interrupted.")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=8765)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--eras", type=int, default=1)
    parser.add_argument("--market-id", type=int, default=1)
    parser.add_argument("--token", default="demo-token", help="bearer token to require ('' disables auth)")
    parser.add_argument("--features", type=int, default=16)
    parser.add_argument("--feature-bytes", type=int, default=1024 * 1024)
    parser.add_argument("--large-file-bytes", type=int, default=0)
    parser.add_argument("--root", default=None, help="write the eras here and serve them from disk")
    parser.add_argument("--era-shape", choices=("flat", "wrapped"), default="flat")
    parser.add_argument("--public-files", action="store_true", help="serve /data/files without a token")
    parser.add_argument("--tls", action="store_true", help="HTTPS with a generated certificate")
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args(argv)
    logging.basicConfig(level=logging.DEBUG if args.verbose else logging.INFO, format="%(message)s")
    service = DataService(
        args.root, seed=args.seed, eras=args.eras, market_id=args.market_id, token=args.token or None,
        tls=args.tls, era_shape=args.era_shape, public_files=args.public_files, host=args.host, port=args.port,
        features=args.features, feature_bytes=args.feature_bytes, large_file_bytes=args.large_file_bytes)
    service.start()
    try:  # Ctrl-C may come as soon as the address is out
        print(f"url: {service.url}")
        print(f"token: {service.token or '(none)'}")
        if service.ca_file:
            print(f"ca_file: {service.ca_file}")
        print(f"era: {service.current_era}  files: {len(service.era().files)}", flush=True)
        while True:
            time.sleep(3600)
    except KeyboardInterrupt:
        pass
    finally:
        service.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
