"""Authentication hooks used by the sync engine.

The engine raises :class:`AuthError` when the data service refuses the bearer
token (HTTP 401), and calls :func:`notify_era_change` after it has switched
the local data directory to a new era, so that an application can refresh
era-scoped credentials. The default does nothing but log.
"""

from __future__ import annotations

import logging

__all__ = ["AuthError", "notify_era_change"]

_log = logging.getLogger(__name__)


class AuthError(Exception):
    """The data service rejected the credentials of a request."""


def notify_era_change(era_number: int) -> None:
    """Called after the data directory has moved to era ``era_number``.

    Replace this function to re-authenticate per era; the default only logs.
    """
    _log.debug("era changed to %s; no re-authentication configured", era_number)
