"""Read-only views of an EraThread's native worker and stop request, giving
the host the thread-like and event-like reading of them. Taken in by
tidewright.sync when it loads (see _sync_errors)."""


class _EraWorkerView:
    """The native worker thread of an EraThread (read-only view)."""

    daemon = True

    def __init__(self, owner):
        self._owner = owner

    def is_alive(self):
        return self._owner.is_alive()


class _EraStopView:
    """The stop request of an EraThread (read-only view)."""

    def __init__(self, owner):
        self._owner = owner

    def is_set(self):
        return self._owner._stop_requested
