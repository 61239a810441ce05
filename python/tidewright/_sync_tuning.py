"""The tuning functions of tidewright.sync and the module class that notices
a host replacing one.

The functions are marked as the native defaults (as the sibling modules'
defaults are) and call the native values; _SyncModule, which the extension
makes its module's class, tells the engine when a host assigns a module
attribute of one of these names (monkeypatching does). The engine then asks
the replacement, and otherwise never calls into Python for these values.
Taken in by tidewright.sync when it loads (see _sync_errors).
"""

import types as _types

# The native tuning values (a namespace of functions), set by the extension
# module before it takes these names in.
_native_tuning = None


def _sync_http_timeout_seconds():
    """Per-request timeout of ordinary GETs, in seconds."""
    return _native_tuning.sync_http_timeout_seconds()


def _sync_manifest_version_http_timeout_seconds():
    """Timeout of the lightweight manifest-version poll, in seconds."""
    return _native_tuning.sync_manifest_version_http_timeout_seconds()


def _sync_http_response_read_bytes():
    """Size of one read from a response body, in bytes."""
    return _native_tuning.sync_http_response_read_bytes()


def _sync_http_transport(raw=None):
    """The transport knob: "auto", "urllib" or "curl"; absent or blank gives the default."""
    return _native_tuning.sync_http_transport(raw)


def _sync_http_chunk_bytes(raw=None):
    """The ranged-request size knob: a positive integer; absent or blank gives the default."""
    return _native_tuning.sync_http_chunk_bytes(raw)


def _sync_max_concurrency(raw=None):
    """The download worker count knob: a positive integer; absent or blank gives the default."""
    return _native_tuning.sync_max_concurrency(raw)


_TUNING_FUNCTIONS = frozenset({
    "_sync_http_timeout_seconds", "_sync_manifest_version_http_timeout_seconds", "_sync_http_response_read_bytes",
    "_sync_http_transport", "_sync_http_chunk_bytes", "_sync_max_concurrency",
})
for _name in _TUNING_FUNCTIONS:
    globals()[_name].__tidewright_native__ = _name
del _name


class _SyncModule(_types.ModuleType):
    """The sync module. The engine reads its tuning from the module's tuning
    functions; one replaced by assigning the module attribute (monkeypatching
    does) is what the engine calls from then on, until the module's own is
    put back."""

    def __setattr__(self, name, value):
        super().__setattr__(name, value)
        if name in _TUNING_FUNCTIONS:
            _native_tuning.note_tuning_function(name, value)

    def __delattr__(self, name):
        super().__delattr__(name)
        if name in _TUNING_FUNCTIONS:
            _native_tuning.note_tuning_function(name, None)
