"""Following the engine's sync events to tell when a one-shot command should stop retrying."""

from __future__ import annotations

import logging
import time


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
