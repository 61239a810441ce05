"""Sync events as the host sees them: log records on "tidewright.sync", their
levels, coalescing, and the reports of outages and backoff waits."""

import json
import logging
import threading
import time
import uuid

import pytest

import tidewright.sync as sync
from tidewright.sync_backoff import backoff_context


@pytest.fixture
def label():
    """A file label of this test's own: coalescing counts last for the whole process."""
    return f"events/{uuid.uuid4().hex}.arrow"


def test_record_carries_sorted_json_and_the_event(logged, label):
    sync._log_sync_event("range_resume", label, 1, "partial_tmp", bytes_existing=42, zeta=[1, {"b": 2, "a": 1}],
                         alpha="\u00e9")
    [record] = logged.sync_records
    event = {"event_type": "range_resume", "file": label, "count": 1, "reason": "partial_tmp",
             "bytes_existing": 42, "zeta": [1, {"b": 2, "a": 1}], "alpha": "\u00e9"}
    assert (record.name, record.levelno, record.msg) == ("tidewright.sync", logging.INFO, "tidewright_sync_event %s")
    assert record.getMessage() == "tidewright_sync_event " + json.dumps(event, sort_keys=True)
    assert record.tidewright_sync_event == event

    sync._log_sync_event("checksum_repair", None, 2, None)
    assert logged.sync_records[-1].tidewright_sync_event == {"event_type": "checksum_repair", "file": "",
                                                             "count": 2, "reason": ""}


def test_identical_retries_are_coalesced_after_ten(logged, label):
    for attempt in range(11):
        sync._log_sync_event("http_retry", label, attempt + 1, "http_503", status=503, wait_seconds=0.5 * attempt)
    assert len(logged.sync_records) == 10
    assert [r.tidewright_sync_event["count"] for r in logged.sync_records] == list(range(1, 11))

    # A different status is a different key.
    sync._log_sync_event("http_retry", label, 12, "http_502", status=502)
    assert len(logged.sync_records) == 11


def test_warnings_and_errors_are_never_coalesced(logged, label):
    for attempt in range(12):
        sync._log_sync_event("sync_unavailable_status", label, attempt, "", error_code="UpstreamTimeout")
        sync._log_sync_event("sync_unavailable_status", label, attempt, "", retryable=False)
        sync._log_sync_event("range_resume_reset", label, attempt, "", next_action="REAUTHENTICATE")
    levels = [r.levelname for r in logged.sync_records]
    assert levels.count("ERROR") == 12
    assert levels.count("WARNING") == 24


def test_outage_and_backoff_reports(logged, label):
    url = f"http://127.0.0.1:1/data/files/{label}"
    sync._emit_sync_unavailable_status("sync_unavailable_status", url, [503, 503], ["URLError"],
                                       {"error_code": "busy", "retryable": True}, time.monotonic() - 3)
    with backoff_context(surface="search"):
        sync._emit_sync_backoff_wait("http_request", 0, "http_503", label, 0.5)
    sync._emit_sync_backoff_wait("file_download", 1, "partial_transfer", label, 1.25)

    outage, in_search, plain = (r.tidewright_sync_event for r in logged.sync_records)
    assert (outage["file"], outage["endpoint"], outage["statuses"], outage["failures"]) == (
        label, f"/data/files/{label}", [503, 503], ["URLError"])
    assert outage["error_code"] == "busy" and outage["elapsed_seconds"] >= 3
    assert (in_search["surface"], in_search["count"], in_search["wait_seconds"]) == ("search", 1, 0.5)
    assert (plain["surface"], plain["reason"], plain["attempt"]) == ("file_download", "partial_transfer", 1)


# -- events of syncs against the data service -------------------------------------

def events_for(logged, path, *types):
    return [e for e in logged.events if e["file"] == path and e["event_type"] in types]


def test_transient_statuses_of_a_public_file_download(dataservice_factory, tmp_path, logged, label):
    # Without credentials the download itself waits and asks again (an
    # authenticated request retries inside the request: test_http_transport).
    svc = dataservice_factory(public_files=True, extra_files={label: ("data", b"x" * 1000)})
    svc.script_statuses("/data/files/" + label, [503, 502])
    m = sync.SyncManager(str(tmp_path), svc.url, token=svc.token)
    with backoff_context(stop_requested=lambda: len(svc.requests) > 200):
        m.sync()
    seen = events_for(logged, label, "sync_unavailable_status", "http_retry", "sync_backoff_wait",
                      "sync_recovered_status")
    assert [(e["event_type"], e["surface"], e["reason"]) for e in seen] == [
        ("sync_backoff_wait", "file_download", "SyncError")] * 2
    assert (tmp_path / label).read_bytes() == b"x" * 1000


def test_parallel_workers_wait_in_the_callers_backoff_context(dataservice_factory, tmp_path, logged, label):
    from tidewright.sync_backoff import current_context

    svc = dataservice_factory(extra_files={label: ("data", b"x" * 1000)})
    seen = []  # the backoff context of every token request, with its thread

    def token():
        seen.append((threading.get_ident(), dict(current_context())))
        return svc.token

    def stop_never():
        return False

    svc.script_statuses("/data/files/" + label, [503])
    m = sync.SyncManager(str(tmp_path), svc.url, token, sync_max_concurrency=4)
    with backoff_context(surface="search", stop_requested=stop_never):
        m.sync()
    # The token callable runs on a helper thread of the asking thread, in the
    # asking thread's context: every context is the caller's surface, and
    # the workers' carry a stop test of their own, which follows the caller's.
    assert seen and all(context["surface"] == "search" for _, context in seen)
    on_workers = [context for _, context in seen if context["stop_requested"] is not stop_never]
    assert on_workers and all(context["stop_requested"]() is False for context in on_workers)
    [wait] = events_for(logged, label, "sync_backoff_wait")
    assert wait["surface"] == "search"


def test_an_era_transition_downloads_in_a_backoff_context_of_its_own(dataservice_factory, tmp_path, logged, label):
    from tidewright.sync_backoff import current_context

    svc = dataservice_factory(extra_files={label: ("data", b"x" * 1000)})
    contexts = []

    def token():
        contexts.append(dict(current_context()))
        return svc.token

    m = sync.SyncManager(str(tmp_path), svc.url, token)
    m.sync()
    svc.publish_era(2, extra_files={label: ("data", b"y" * 1000)})
    svc.script_statuses("/data/files/" + label, [503])
    with backoff_context(surface="search"):
        m.trigger_era_transition(2)
    [wait] = events_for(logged, label, "sync_backoff_wait")
    assert wait["surface"] == "era_transition"
    assert {"surface": "era_transition"} in contexts  # the downloads' requests
    assert (tmp_path / label).read_bytes() == b"y" * 1000


def test_outages_of_two_services_are_two_outages(dataservice_factory, logged):
    from tidewright.sync_backoff import SyncBackoffCancelled

    services = [dataservice_factory(), dataservice_factory()]
    for svc in services:
        svc.add_fault("/data/manifest/version", "status", count=None)

    def fail(svc):
        before = len(svc.requests)  # one attempt, then the retry wait is cancelled
        with backoff_context(stop_requested=lambda: len(svc.requests) > before), pytest.raises(SyncBackoffCancelled):
            sync._http_get(svc.url + "/data/manifest/version", svc.token)

    # The first service's outage reports reach the coalescing limit; the
    # second service going down meanwhile is still reported.
    for _ in range(sync._SYNC_EVENT_COALESCE_LIMIT + 1):
        fail(services[0])
    fail(services[1])
    ports = [svc.url.rsplit(":", 1)[1] for svc in services]
    for event_type in ("sync_unavailable_status", "http_retry"):
        seen = logged.of_type(event_type)
        assert {e["host"] for e in seen} == {"127.0.0.1"}
        counts = [sum(str(e["port"]) == port for e in seen) for port in ports]
        assert counts == [sync._SYNC_EVENT_COALESCE_LIMIT, 1], event_type
