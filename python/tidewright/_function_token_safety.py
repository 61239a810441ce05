"""Guards against retired public function tokens.

Early eras named functions by positional tokens ``f0``, ``f1``, ...; those ids
are retired and must not appear in vocabularies any more.
"""

from __future__ import annotations

import re

__all__ = ["is_retired_public_function_token_name"]

_RETIRED_TOKEN_RE = re.compile(r"f[0-9]+")


def is_retired_public_function_token_name(name) -> bool:
    """True when ``name`` is a retired token: ``f`` followed by ASCII digits only."""
    return isinstance(name, str) and _RETIRED_TOKEN_RE.fullmatch(name) is not None


# The sync engine computes this natively while this default is installed.
is_retired_public_function_token_name.__tidewright_native__ = "is_retired_public_function_token_name"
