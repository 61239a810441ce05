"""Runtime modules shipped through the data service.

Manifest kinds ending in :data:`RUNTIME_MODULE_KIND_SUFFIX` are compiled
runtime modules. This client loads only the kinds in
:data:`SUPPORTED_RUNTIME_MODULE_KINDS`; the sync engine skips the others.
After it has put a new vault module in place in the data directory, the sync
engine calls :func:`vault_module_updated`.
"""

from __future__ import annotations

import logging

__all__ = ["RUNTIME_MODULE_KIND_SUFFIX", "SUPPORTED_RUNTIME_MODULE_KINDS", "is_runtime_module_kind",
           "vault_module_updated"]

_log = logging.getLogger(__name__)

RUNTIME_MODULE_KIND_SUFFIX = "_module"

SUPPORTED_RUNTIME_MODULE_KINDS = frozenset({"vault_module"})


def is_runtime_module_kind(kind) -> bool:
    """True when ``kind`` is a runtime-module kind this client supports."""
    return isinstance(kind, str) and kind in SUPPORTED_RUNTIME_MODULE_KINDS


# The sync engine computes this natively while this default is installed.
is_runtime_module_kind.__tidewright_native__ = "is_runtime_module_kind"


def vault_module_updated(*, relative_path: str, local_path: str, sha256: str) -> None:
    """A new vault module file is in place at ``local_path`` (verified, ``sha256``).

    Called from the sync engine's threads, once per file put in place.
    The default only logs; an installation that reloads vault modules
    replaces it. An exception raised here fails the sync that downloaded the
    file (the file itself stays in place).
    """
    _log.debug("vault module updated: %s (%s)", relative_path, sha256)
