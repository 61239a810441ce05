"""Python-level types of :mod:`tidewright.sync`.

The result records that ``SyncManager.sync()``, ``repair()``, ``verify()``
and ``ensure_manifest_file_available()`` return, and the protocol of the
runtime freshness guard the engine reports updated files to. The extension
module imports this module when it loads and exposes the records under its
own name (``tidewright.sync.SyncResult``), which is where callers take them
from.
"""

from __future__ import annotations

import dataclasses
from typing import Any, Protocol

__all__ = ["RuntimeFreshnessGuard", "SyncResult", "VerifyResult"]


@dataclasses.dataclass
class SyncResult:
    """Result of a sync operation.

    ``bytes_downloaded`` counts the bytes fetched from the data service by
    this call: a download resumed from a staging file that an earlier run
    left counts only the rest of the file.
    """

    features_downloaded: int = 0
    useful_signals_downloaded: int = 0
    bytes_downloaded: int = 0
    era_number: int = 0
    t_signal_is: int = 0
    t_strategy_is: int = 0
    n_instruments: int = 0
    n_features: int = 0
    n_useful_signals: int = 0
    n_found_strategies: int = 0
    pnl_column_count: int = 0
    vocabulary_downloaded: bool = False
    shuffle_seed_downloaded: bool = False
    active_relative_paths: tuple[str, ...] = ()
    skipped_relative_paths: tuple[str, ...] = ()
    mandatory_relative_paths: tuple[str, ...] = ()
    found_pnl_paths_downloaded: tuple[str, ...] = ()
    # Manifest entries the engine refused one by one (a digest that is not
    # 64 hexadecimal digits, an unusable size_bytes, ...): not synced; the
    # "manifest_entry_rejected" events say why.
    rejected_files: tuple[str, ...] = ()
    rotation_seed: int | None = None
    feature_budget_bytes: int | None = None


@dataclasses.dataclass
class VerifyResult:
    """Result of a verify operation.

    ``has_manifest`` is False when the data directory held no manifest to
    verify against: nothing was checked, and ``valid`` is True only in the
    sense that nothing was found wrong. It takes no part in comparisons.
    """

    valid: bool = True
    corrupted_files: list[str] = dataclasses.field(default_factory=list)
    missing_files: list[str] = dataclasses.field(default_factory=list)
    has_manifest: bool = dataclasses.field(default=True, compare=False)


class RuntimeFreshnessGuard(Protocol):
    """What the engine needs of a ``runtime_freshness_guard``.

    A sync calls ``record_sync_update(relative_path=..., kind=..., ...)`` once
    per file it replaced (:class:`tidewright.deployment.RuntimeFreshnessRecorder`
    is one); the result is ignored.
    """

    def record_sync_update(self, **fields: Any) -> object: ...
