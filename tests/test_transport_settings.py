"""Transport knob parsing and the download status policy."""

import importlib
from decimal import Decimal
from http import HTTPStatus

import pytest

import tidewright.sync as sync
from sync_helpers import FEATURE, manager

TRANSPORT_MESSAGE = "invalid sync_http_transport: expected auto, urllib, or curl"
CHUNK_MESSAGE = "invalid sync_http_chunk_bytes: expected a positive integer"
CONCURRENCY_MESSAGE = "invalid sync_max_concurrency: expected a positive integer"


@pytest.fixture
def auth_module():
    return importlib.import_module("tidewright.auth")


class _Text:
    def __init__(self, text):
        self.text = text

    def __str__(self):
        return self.text


@pytest.mark.parametrize(
    "raw, expected",
    [(None, "auto"), ("", "auto"), ("   ", "auto"), ("  CURL ", "curl"), ("urllib", "urllib"),
     ("Auto\n", "auto"), (_Text(" Curl "), "curl")],
)
def test_transport_knob_normalises_and_defaults(raw, expected):
    assert sync._sync_http_transport(raw) == expected


@pytest.mark.parametrize("raw", ["http2", "curl urllib", 1, True, _Text("h2")])
def test_transport_knob_rejects_unknown_transports(raw, tmp_path):
    with pytest.raises(ValueError) as excinfo:
        sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token="t", sync_http_transport=raw)
    assert str(excinfo.value) == TRANSPORT_MESSAGE


@pytest.mark.parametrize(
    "raw, chunk, concurrency",
    [(None, 67108864, 8), ("", 67108864, 8), ("  ", 67108864, 8), (_Text(" "), 67108864, 8),
     ("12", 12, 12), (" 12 ", 12, 12), (12.7, 12, 12), (Decimal("7"), 7, 7), (True, 1, 1),
     (2**40, 2**40, 2**40)],
)
def test_integer_knobs_convert_like_int(raw, chunk, concurrency):
    assert sync._sync_http_chunk_bytes(raw) == chunk
    assert sync._sync_max_concurrency(raw) == concurrency


@pytest.mark.parametrize("raw", ["0", "-5", "abc", "1.5", 0, -1, 0.5, [], {"a": 1}, object()])
def test_integer_knobs_reject_values_that_are_not_positive_integers(raw, tmp_path):
    for knob, message in (("sync_http_chunk_bytes", CHUNK_MESSAGE), ("sync_max_concurrency", CONCURRENCY_MESSAGE)):
        with pytest.raises(ValueError) as excinfo:
            sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token="t", **{knob: raw})
        assert str(excinfo.value) == message
        assert excinfo.value.__cause__ is None and excinfo.value.__context__ is None


def test_parallel_batches_are_unbounded():
    assert sync._sync_parallel_timeout_seconds(10000, 1) is None
    assert sync._sync_parallel_timeout_seconds(0, 0) is None
    assert sync._sync_parallel_timeout_description(None) == "unbounded"
    assert sync._sync_parallel_timeout_description(300.0) == "300.0s"
    assert sync._sync_parallel_timeout_description(5) == "5.0s"


@pytest.mark.parametrize(
    "status, retried",
    [(503, True), ("503", True), (" 429 ", True), (408, True), (504.0, True),
     (HTTPStatus.BAD_GATEWAY, True), (404, False), (416, False), (401, False), (501, False),
     (None, False), ("unavailable", False), (object(), False)],
)
def test_only_transient_statuses_are_retried(status, retried):
    assert sync._should_retry_http_status(status) is retried


def test_401_is_an_authentication_failure(auth_module):
    with pytest.raises(auth_module.AuthError) as excinfo:
        sync._raise_download_http_status("features/u/x.arrow", "401")
    assert str(excinfo.value) == "Authentication failed while downloading features/u/x.arrow: HTTP 401"


def test_transient_statuses_raise_a_retryable_sync_error():
    with pytest.raises(sync.SyncError) as excinfo:
        sync._raise_download_http_status("a/b.arrow", HTTPStatus.SERVICE_UNAVAILABLE)
    assert type(excinfo.value) is sync.SyncError
    assert str(excinfo.value) == "Download failed for a/b.arrow: HTTP 503"


@pytest.mark.parametrize("status, shown, field", [(404, "404", 404), ("416", "416", 416), ("x", "-1", None),
                                                  (None, "-1", None)])
def test_other_statuses_are_permanent_for_the_file(status, shown, field):
    with pytest.raises(sync.PermanentDownloadError) as excinfo:
        sync._raise_download_http_status("a/b.parquet", status)
    assert str(excinfo.value) == f"Download failed for a/b.parquet: HTTP {shown}"
    assert excinfo.value.file_path == "a/b.parquet"
    assert excinfo.value.status == field


# -- the tuning functions as the host's point of control ---------------------------

TIMEOUTS_AND_READS = ["_sync_http_timeout_seconds", "_sync_manifest_version_http_timeout_seconds",
                      "_sync_http_response_read_bytes"]


@pytest.mark.parametrize("name", TIMEOUTS_AND_READS)
def test_a_replaced_tuning_function_is_what_the_engine_asks(dataservice, tmp_path, monkeypatch, name):
    own = getattr(sync, name)
    calls = []

    def replacement():
        calls.append(name)
        return own()

    monkeypatch.setattr(sync, name, replacement)
    m = manager(dataservice, tmp_path)
    m.sync()
    assert calls
    monkeypatch.undo()  # the module's own again: the engine stops asking
    asked = len(calls)
    dataservice.set_version(touch=[FEATURE])
    m.sync()
    assert len(calls) == asked


@pytest.mark.parametrize("name", TIMEOUTS_AND_READS)
def test_a_function_marked_as_the_native_default_is_answered_natively(dataservice, tmp_path, monkeypatch, name):
    own = getattr(sync, name)
    calls = []

    def marked():
        calls.append(name)
        return own()

    marked.__tidewright_native__ = name
    monkeypatch.setattr(sync, name, marked)
    manager(dataservice, tmp_path).sync()
    assert calls == []


@pytest.mark.parametrize("name, answer, attribute", [
    ("_sync_http_transport", "urllib", "_sync_http_transport"),
    ("_sync_http_chunk_bytes", 4096, "_sync_http_chunk_bytes"),
    ("_sync_max_concurrency", 3, "_sync_max_concurrency"),
])
def test_replaced_knob_resolvers_decide_the_managers_knobs(tmp_path, monkeypatch, name, answer, attribute):
    given = []
    monkeypatch.setattr(sync, name, lambda raw=None: given.append(raw) or answer)
    m = sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token="t", **{name[1:]: " 7 "})
    assert getattr(m, attribute) == answer and given == [" 7 "]


@pytest.mark.parametrize("name, answer, error, message", [
    ("_sync_http_timeout_seconds", "soon", TypeError,
     r"^_sync_http_timeout_seconds\(\) must return a number, got 'soon'$"),
    ("_sync_http_timeout_seconds", True, TypeError, "must return a number, got True"),
    ("_sync_http_response_read_bytes", 0, ValueError, "must return a positive integer"),
])
def test_a_replacement_that_answers_nonsense_fails_the_sync(dataservice, tmp_path, monkeypatch, name, answer, error,
                                                            message):
    monkeypatch.setattr(sync, name, lambda: answer)
    with pytest.raises(error, match=message):
        manager(dataservice, tmp_path).sync()


def test_a_replacements_own_error_reaches_the_caller_unchanged(dataservice, tmp_path, monkeypatch):
    class Refused(Exception):
        pass

    def refuse(raw=None):
        raise Refused("no concurrency today")

    monkeypatch.setattr(sync, "_sync_max_concurrency", refuse)
    with pytest.raises(Refused, match="^no concurrency today$"):
        manager(dataservice, tmp_path)
