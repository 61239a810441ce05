"""Runtime modules shipped through the data service.

Manifest kinds ending in :data:`RUNTIME_MODULE_KIND_SUFFIX` are compiled
runtime modules. This client loads only the kinds in
:data:`SUPPORTED_RUNTIME_MODULE_KINDS`; the sync engine skips the others.
"""

from __future__ import annotations

__all__ = ["RUNTIME_MODULE_KIND_SUFFIX", "SUPPORTED_RUNTIME_MODULE_KINDS", "is_runtime_module_kind"]

RUNTIME_MODULE_KIND_SUFFIX = "_module"

SUPPORTED_RUNTIME_MODULE_KINDS = frozenset({"vault_module"})


def is_runtime_module_kind(kind) -> bool:
    """True when ``kind`` is a runtime-module kind this client supports."""
    return isinstance(kind, str) and kind in SUPPORTED_RUNTIME_MODULE_KINDS


# The sync engine computes this natively while this default is installed.
is_runtime_module_kind.__tidewright_native__ = "is_runtime_module_kind"
