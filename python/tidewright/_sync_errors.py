"""The error classes of tidewright.sync.

Ordinary Python classes, so that they have the host's exception semantics
(several bases, keyword constructors, pickling). The extension module takes
every name of this module in when it loads and gives the classes and
functions its own name, so they are tidewright.sync.SyncError and so on,
and pickle as such.
"""
from __future__ import annotations  # annotations stay text: the stubs read them as written

import errno as _errno
import logging as _logging
import os as _os
import urllib.parse as _urlparse

_errors_logger = _logging.getLogger("tidewright.sync")


class SyncError(Exception):
    """Base sync error."""


class PermanentDownloadError(SyncError):
    """Raised when a file download response is not transient."""

    def __init__(self, message: str, *, file_path: str | None = None, status: int | None = None) -> None:
        super().__init__(message)
        self.file_path = file_path
        try:
            self.status = None if status is None else int(status)
        except (TypeError, ValueError):
            self.status = None


def _sync_endpoint_from_url(url):
    text = str(url or "")
    try:
        path = _urlparse.urlparse(text).path
        if path:
            return path
    except Exception:
        _errors_logger.debug("sync_endpoint_parse_failed", exc_info=True)
    return text or "<unknown>"


class SyncUnavailableError(SyncError, ConnectionError):
    """Raised when a retryable sync dependency remains unavailable."""

    def __init__(self, url: str | None, attempts: int, statuses: list[int] | None = None,
                 failures: list[str] | None = None, server_error_code: str | None = None,
                 dependency: str | None = None, retryable: bool | None = None, recovery: str | None = None,
                 reason: str | None = None, typed_details: bool | None = None) -> None:
        self.url = str(url or "") or "<unknown>"
        self.endpoint = _sync_endpoint_from_url(url)
        self.attempts = int(attempts)
        self.statuses = list(statuses or [])
        self.failures = list(failures or [])
        self.server_error_code = server_error_code
        self.dependency = dependency
        self.retryable = retryable
        self.recovery = recovery
        self.reason = reason
        if typed_details is None:
            typed_details = any(value is not None for value in (dependency, retryable, recovery))
        self.typed_details = bool(typed_details)
        super().__init__(self._build_message())

    def _build_message(self):
        parts = [f"Tidewright data sync unavailable after {self.attempts} attempt(s)."]
        parts.append(f"endpoint={self.endpoint}")
        parts.append(f"url={self.url}")
        if self.statuses:
            parts.append(f"statuses={self.statuses}")
        if self.failures:
            parts.append(f"failures={self.failures}")
        if self.server_error_code:
            parts.append(f"server_error={self.server_error_code}")
        if self.dependency:
            parts.append(f"dependency={self.dependency}")
        if self.retryable is not None:
            parts.append(f"retryable={bool(self.retryable)}")
        if self.recovery:
            parts.append(f"recovery={self.recovery}")
        if self.reason:
            parts.append(f"reason={self.reason}")
        return " ".join(parts)

    def __reduce__(self):
        return (type(self), (self.url, self.attempts, self.statuses, self.failures,
                             self.server_error_code, self.dependency, self.retryable,
                             self.recovery, self.reason, self.typed_details))


class ManifestSupersededError(SyncError):
    """Raised when a newer manifest generation supersedes active downloads."""


class DiskSpaceError(SyncError, OSError):
    """Raised when insufficient disk space for sync.

    Also an OSError whose errno is ENOSPC (strerror "No space left on
    device"), so that a handler for the operating-system error a full disk
    raises on a write catches it too. str() is the message alone.
    """

    def __init__(self, *args: str) -> None:
        super().__init__(*args)
        self.errno = _errno.ENOSPC
        self.strerror = _os.strerror(_errno.ENOSPC)

    def __str__(self) -> str:
        return Exception.__str__(self)


class IntegrityError(SyncError):
    """Raised when file checksum verification fails after retries."""


class EraError(SyncError):
    """Raised on era-related errors."""


class ManifestError(SyncError):
    """Raised on manifest parsing or validation errors."""


class StateError(Exception):
    """Raised when operation is invalid for current state."""


class FeatureRotationStateError(StateError):
    """Raised when persisted feature-rotation state is invalid."""


def _read_http_error_body(exc):
    read = getattr(exc, "read", None)
    if read is None:
        return b""
    try:
        return read()
    except Exception:
        return b""


def _sync_unavailable_has_typed_details(exc):
    return bool(getattr(exc, "typed_details", False))
