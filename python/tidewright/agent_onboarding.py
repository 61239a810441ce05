"""Hints for users and agents when something in their environment changed."""

from __future__ import annotations

import logging

__all__ = ["update_nudge"]

_log = logging.getLogger(__name__)


def update_nudge(event: str, **fields) -> None:
    """Tell the user about ``event`` (for example "era_change"); the default only logs."""
    _log.debug("update nudge %s: %s", event, fields)
