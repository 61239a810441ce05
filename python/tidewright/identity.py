"""Who is working on a data directory.

:func:`resolve_identity_for_data_dir` is called after an era transition so
that search tracking can be attributed. The default identity is local to the
machine and derived from the directory's canonical path.
"""

from __future__ import annotations

import hashlib
import os

__all__ = ["resolve_identity_for_data_dir"]


def resolve_identity_for_data_dir(data_dir) -> dict:
    """A JSON-ready identity for ``data_dir``: ``{"kind", "identity_id", "data_dir"}``."""
    canonical = os.path.realpath(os.path.abspath(os.path.expanduser(os.fspath(data_dir))))
    digest = hashlib.sha256(canonical.encode("utf-8", "surrogateescape")).hexdigest()[:16]
    return {"kind": "local", "identity_id": f"local-{digest}", "data_dir": canonical}
