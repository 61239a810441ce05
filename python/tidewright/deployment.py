"""Version and update hooks of the installed package.

The sync engine compares :data:`_CURRENT_VERSION` with an era's
``min_library_version`` before switching eras; when the package is too old
it tries :func:`auto_update` and otherwise raises
:class:`LibraryUpdateRequired`. Updated files are reported inside
:func:`runtime_freshness_guard`. The defaults never update anything: an
installation that can update itself replaces these functions.
"""

from __future__ import annotations

import contextlib
import logging
import threading
from typing import Any, Iterator

from tidewright import __version__

__all__ = [
    "LibraryUpdateRequired",
    "RuntimeFreshnessRecorder",
    "auto_update",
    "check_update",
    "runtime_freshness_guard",
]

_log = logging.getLogger(__name__)

_CURRENT_VERSION = __version__


class LibraryUpdateRequired(Exception):
    """The running package is older than the current era requires."""


def check_update() -> None:
    """Look for a newer local build of the package. The default has none to look at."""
    return None


def _parse_version(version) -> tuple[int, ...]:
    text = str(version).strip() if version is not None else ""
    parts = text.split(".")
    if not text or not all(p.isascii() and p.isdigit() for p in parts):
        raise ValueError(f"invalid version {version!r}: expected dotted numbers such as 1.2.3")
    return tuple(int(p) for p in parts)


def _compare_versions(a, b) -> int:
    """-1, 0 or 1 as version ``a`` is lower than, equal to or higher than ``b``.

    Versions are dotted non-negative integers; missing trailing parts count
    as 0 ("1.2" equals "1.2.0"). Anything else raises :class:`ValueError`.
    """
    left, right = _parse_version(a), _parse_version(b)
    width = max(len(left), len(right))
    left += (0,) * (width - len(left))
    right += (0,) * (width - len(right))
    return (left > right) - (left < right)


def auto_update() -> dict:
    """Try to update the package in place; the default cannot.

    Returns a mapping with ``success`` and, on failure, a ``warning`` text.
    """
    return {
        "success": False,
        "warning": "automatic update is not available in this installation",
    }


class RuntimeFreshnessRecorder:
    """Collects the files a sync has updated while a freshness guard is open. Thread-safe."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._updates: list[dict[str, Any]] = []  # guarded by _lock

    def record_sync_update(self, **fields: Any) -> None:
        """Note one updated file (``relative_path``, ``kind``, ``sha256``, ...)."""
        with self._lock:
            self._updates.append(dict(fields))
        _log.debug("sync updated %s", fields.get("relative_path", fields))

    @property
    def updates(self) -> list[dict[str, Any]]:
        with self._lock:
            return [dict(u) for u in self._updates]


@contextlib.contextmanager
def runtime_freshness_guard() -> Iterator[RuntimeFreshnessRecorder]:
    """Scope in which a sync reports updated files with ``record_sync_update``.

    An installation that reloads runtime modules when their files change
    replaces this; the default only records and logs.
    """
    yield RuntimeFreshnessRecorder()
