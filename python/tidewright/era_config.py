"""Era configuration vocabulary shared by the package."""

from __future__ import annotations

from enum import Enum

__all__ = ["EpochName"]


class EpochName(str, Enum):
    """The epochs of an era. Each value is also the path segment of its files
    (``features/<universe>/<epoch>/<name>.arrow``)."""

    SIGNAL_IS = "signal_is"
    STRATEGY_IS = "strategy_is"
    SIGNAL_OS = "signal_os"
