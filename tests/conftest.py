"""Shared fixtures: the reference data service, started per test on 127.0.0.1."""

import concurrent.futures
import logging
import pathlib
import signal
import sys

import pytest

_REPO = pathlib.Path(__file__).resolve().parents[1]
if str(_REPO) not in sys.path:
    sys.path.insert(0, str(_REPO))  # for tools.dataservice; tidewright comes from the installed package

from tools.dataservice import DataService  # noqa: E402


@pytest.fixture
def dataservice_factory():
    """Start customised services: ``dataservice_factory(seed=2, features=16, tls=True)``.

    Keywords are those of :class:`DataService` (``root_dir`` included); every
    service started is stopped at teardown.
    """
    started = []

    def start(**kwargs):
        root_dir = kwargs.pop("root_dir", None)
        service = DataService(None if root_dir is None else str(root_dir), **kwargs)
        started.append(service)
        return service.start()

    yield start
    for service in reversed(started):
        service.stop()


@pytest.fixture
def data_dir(tmp_path):
    """An empty data directory, "data" below the test's temporary directory."""
    path = tmp_path / "data"
    path.mkdir()
    return path


@pytest.fixture
def dataservice(dataservice_factory):
    """A started service with one tiny era (market 1, era 1, token ``svc.token``)."""
    return dataservice_factory()


@pytest.fixture
def in_background():
    """Runs a callable on another thread (``in_background(fn, *args)`` is its
    future); the threads are not waited for at teardown."""
    pool = concurrent.futures.ThreadPoolExecutor(max_workers=2)
    yield pool.submit
    pool.shutdown(wait=False, cancel_futures=True)


def pytest_configure(config):
    config.addinivalue_line("markers", "real_backoff: keep the real backoff schedule (tests of backoff itself)")
    # A suite started from a background job (nohup, `cmd &`) inherits SIGINT
    # ignored: Ctrl-C would then reach neither this process nor the CLI
    # processes the tests interrupt. A Python handler here is reset to the
    # default in every child at exec, so both get Python's KeyboardInterrupt.
    signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture
def instant_backoff(monkeypatch):
    """Backoff waits of zero seconds (stop requests are still honoured)."""
    from tidewright.sync_backoff import SyncBackoffPolicy

    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, attempt_index: 0.0))


@pytest.fixture(autouse=True)
def zero_backoff_unless_marked(request, monkeypatch):
    """Every test waits zero seconds between retries unless marked ``real_backoff``."""
    if request.node.get_closest_marker("real_backoff") is None:
        request.getfixturevalue("instant_backoff")


@pytest.fixture(autouse=True)
def fresh_process_state():
    """Each test starts with the process-wide state of a new process: no
    coalesced sync events and the default timeouts."""
    import tidewright.sync as sync

    sync._reset_sync_event_coalescing()
    yield
    sync._set_sync_http_header_deadline_seconds(None)
    sync._set_sync_http_timeout_seconds(None)


@pytest.fixture(autouse=True)
def stopped_managers():
    """Every test ends with no registered manager running or registered."""
    yield
    import tidewright.sync as sync

    for manager in list(sync.SyncManager._instances.values()):
        manager._stop_internal()
    for key in list(sync.SyncManager._instances):
        sync.SyncManager._evict(key)


class _LogCollector(logging.Handler):
    """Every record (``records``); those carrying a sync event (``sync_records``)
    and their events as dicts with the record's ``_level`` (``events``)."""

    def __init__(self):
        super().__init__(level=logging.DEBUG)
        self.records, self.sync_records, self.events = [], [], []
        self._seen = set()  # ids of the records kept (alive, so unique)

    def emit(self, record):
        if id(record) in self._seen:  # reached through two loggers
            return
        self._seen.add(id(record))
        self.records.append(record)
        event = getattr(record, "tidewright_sync_event", None)
        if event is not None:
            self.sync_records.append(record)
            self.events.append(dict(event, _level=record.levelname))

    def of_type(self, event_type):
        return [e for e in self.events if e["event_type"] == event_type]


@pytest.fixture
def logged():
    """What every logger logs, at DEBUG, while the test runs (lists that grow as it does)."""
    loggers = [logging.getLogger()] + [logging.getLogger(name) for name in list(logging.root.manager.loggerDict)]
    levels = [(lg, lg.level) for lg in loggers]
    for lg in loggers:
        lg.setLevel(logging.DEBUG)
    collector = _LogCollector()
    # The CLI stops "tidewright.sync" propagating while it runs.
    targets = [logging.getLogger(), logging.getLogger("tidewright.sync")]
    for lg in targets:
        lg.addHandler(collector)
    yield collector
    for lg in targets:
        lg.removeHandler(collector)
    for lg, level in levels:
        lg.setLevel(level)
