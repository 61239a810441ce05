"""Helpers for sync progress accounting."""

from __future__ import annotations

from collections.abc import Mapping

__all__ = ["manifest_file_size"]

_INT64_MAX = 2**63 - 1


def manifest_file_size(entry) -> int | None:
    """The ``size_bytes`` of a manifest file entry, or None when it has no usable size.

    Only a non-negative integer (not a bool, not a float, at most 2**63 - 1)
    counts as a size.
    """
    if not isinstance(entry, Mapping):
        return None
    size = entry.get("size_bytes")
    if isinstance(size, bool) or not isinstance(size, int):
        return None
    if size < 0 or size > _INT64_MAX:
        return None
    return int(size)


# The sync engine computes this natively while this default is installed.
manifest_file_size.__tidewright_native__ = "manifest_file_size"
