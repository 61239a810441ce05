"""Backoff schedule and cancellable waits for the sync engine's retry loops.

The engine retries transient failures without an attempt limit. Between
attempts it asks :meth:`SyncBackoffPolicy.delay_seconds` how long to wait and
waits with :meth:`SyncBackoffPolicy.sleep`, which gives up early when a stop
is requested.

A stop request reaches the engine through the *backoff context*: a per-thread
mapping that callers layer with :func:`backoff_context`. The engine reads
``current_context()["stop_requested"]`` (a callable) on the thread that
waits; other fields, such as ``surface``, describe the wait in events::

    with backoff_context(surface="search", stop_requested=stop_event.is_set):
        manager.sync()
"""

from __future__ import annotations

import contextlib
import math
import random
import threading
import time
from types import MappingProxyType
from typing import Any, Callable, Iterator, Mapping

__all__ = [
    "SyncBackoffCancelled",
    "SyncBackoffPolicy",
    "backoff_context",
    "current_context",
]


class SyncBackoffCancelled(Exception):
    """A backoff wait was cut short because a stop was requested."""


class SyncBackoffPolicy:
    """Exponential backoff with jitter; use the class itself, no instances needed.

    The base delay is ``INITIAL_DELAY_SECONDS * 2 ** attempt_index``, capped
    at ``MAX_DELAY_SECONDS``; a random factor in ``1 ± JITTER_FRACTION`` is
    applied so that many clients do not retry in step. The result never
    exceeds the cap.
    """

    INITIAL_DELAY_SECONDS = 0.5
    MAX_DELAY_SECONDS = 30.0
    JITTER_FRACTION = 0.2
    SLEEP_SLICE_SECONDS = 0.1

    _random = random.Random()

    @classmethod
    def delay_seconds(cls, attempt_index: int) -> float:
        """Seconds to wait before retry number ``attempt_index`` (0 for the first retry)."""
        try:
            index = max(0, int(attempt_index))
        except (TypeError, ValueError):
            index = 0
        # 2**64 is far past the cap; bounding the exponent avoids huge ints.
        base = min(cls.MAX_DELAY_SECONDS, cls.INITIAL_DELAY_SECONDS * (2.0 ** min(index, 64)))
        jitter = cls._random.uniform(-cls.JITTER_FRACTION, cls.JITTER_FRACTION)
        return min(cls.MAX_DELAY_SECONDS, max(0.0, base * (1.0 + jitter)))

    @classmethod
    def sleep(
        cls,
        wait_seconds: float,
        *,
        sleep: Callable[[float], Any] = time.sleep,
        stop_requested: Callable[[], Any] | None = None,
    ) -> bool:
        """Wait ``wait_seconds`` in slices of at most ``SLEEP_SLICE_SECONDS``.

        ``stop_requested`` is asked before every slice (and once more at the
        end); the wait returns False as soon as it answers true, True when
        the whole time has passed. Without ``stop_requested`` the calling
        thread's backoff context supplies one, if it has any. The time is
        accounted by the slices asked of ``sleep``, so a fake ``sleep`` in
        tests does not make the wait spin.
        """
        if stop_requested is None:
            stop_requested = current_context().get("stop_requested")
        try:
            remaining = float(wait_seconds)
        except (TypeError, ValueError):
            remaining = 0.0
        if math.isnan(remaining) or remaining < 0:
            remaining = 0.0
        while True:
            if stop_requested is not None and stop_requested():
                return False
            if remaining <= 1e-9:  # float leftovers of the slicing
                return True
            step = min(cls.SLEEP_SLICE_SECONDS, remaining)
            sleep(step)
            remaining -= step


_local = threading.local()
_EMPTY: Mapping[str, Any] = MappingProxyType({})


def current_context() -> Mapping[str, Any]:
    """The calling thread's backoff context: a read-only mapping, empty when none is set."""
    stack = getattr(_local, "stack", None)
    return stack[-1] if stack else _EMPTY


@contextlib.contextmanager
def backoff_context(**fields: Any) -> Iterator[Mapping[str, Any]]:
    """Layer ``fields`` on the calling thread's backoff context for the ``with`` body.

    Fields of enclosing contexts stay visible unless overridden; the previous
    context is restored on exit, also when the body raises. Yields the new
    context.
    """
    stack = getattr(_local, "stack", None)
    if stack is None:
        stack = _local.stack = []
    layered = MappingProxyType({**current_context(), **fields})
    stack.append(layered)
    try:
        yield layered
    finally:
        stack.pop()
