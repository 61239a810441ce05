"""Tracking of searches across era transitions.

After it has switched a data directory to a new era the sync engine makes a
:class:`SearchTracker`, calls :meth:`SearchTracker.handle_era_transition` and
closes it. The default tracker keeps nothing and only logs.
"""

from __future__ import annotations

import logging
import os
from typing import Any

__all__ = ["SearchTracker"]

_log = logging.getLogger(__name__)


class SearchTracker:
    """Per-data-directory search bookkeeping. Not thread-safe; use one per thread."""

    def __init__(self, data_dir, identity: Any = None) -> None:
        self.data_dir = os.fspath(data_dir)
        self.identity = identity
        self.last_transition: dict[str, Any] | None = None
        self.closed = False

    def handle_era_transition(self, **fields: Any) -> None:
        """Note that the directory moved eras (``new_era_number``, ``previous_era_number``)."""
        if self.closed:
            raise ValueError("SearchTracker is closed")
        self.last_transition = dict(fields)
        _log.debug("era transition in %s: %s", self.data_dir, fields)

    def close(self) -> None:
        """Release the tracker; closing twice is harmless."""
        self.closed = True

    def __enter__(self) -> "SearchTracker":
        return self

    def __exit__(self, *exc_info) -> None:
        self.close()
