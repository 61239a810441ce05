"""The reference data service does what the sync tests rely on and cannot
see for themselves: a sync test served a wrong era, token check or digest
fails on its own, but one whose scripted fault never happened may pass all
the same."""

import hashlib
import http.client
import json
import threading
import time
import urllib.error
import urllib.request

import pytest
from sync_helpers import wait_for


FEATURE = "features/top50/signal_is/px000__ret__lag0__v1.arrow"
ERROR_KEYS = {"error_code", "dependency", "retryable", "recovery", "reason"}


def get(svc, path, headers=None, *, timeout=10):
    """(status, headers, body) of a GET; HTTP errors are returned, not raised."""
    all_headers = dict(svc.auth_headers)
    all_headers.update(headers or {})
    request = urllib.request.Request(svc.url + path, headers=all_headers)
    try:
        with urllib.request.urlopen(request, timeout=timeout) as resp:
            return resp.status, resp.headers, resp.read()
    except urllib.error.HTTPError as exc:
        with exc:
            return exc.code, exc.headers, exc.read()


def raw_get(svc, path, headers=None, timeout=10):
    """An http.client response (for faults that break the body)."""
    conn = http.client.HTTPConnection("127.0.0.1", int(svc.url.rsplit(":", 1)[1]), timeout=timeout)
    conn.request("GET", path, headers={**svc.auth_headers, **(headers or {})})
    return conn, conn.getresponse()


@pytest.mark.parametrize(
    "range_header, status, content_range, piece",
    [
        (None, 200, None, slice(0, 2048)),
        ("bytes=0-9", 206, "bytes 0-9/2048", slice(0, 10)),
        ("bytes=100-", 206, "bytes 100-2047/2048", slice(100, 2048)),
        ("bytes=2048-", 416, "bytes */2048", None),
    ],
    ids=["whole", "closed", "open", "unsatisfiable"],
)
def test_ranges(dataservice, range_header, status, content_range, piece):
    full = dataservice.file_bytes(None, FEATURE)
    got_status, headers, body = get(dataservice, "/data/files/" + FEATURE,
                                    {"Range": range_header} if range_header else None)
    assert (got_status, headers.get("Content-Range")) == (status, content_range)
    if status == 416:
        assert set(json.loads(body)) == ERROR_KEYS
    else:
        assert body == full[piece] and int(headers["Content-Length"]) == len(body)


def test_status_sequences_and_error_bodies(dataservice):
    dataservice.script_statuses("/data/manifest", [503, 503, 200, 429])
    dataservice.add_fault("/data/manifest/version", "status", status=503, retryable=False, reason="maintenance")
    seen = [get(dataservice, "/data/manifest")[0] for _ in range(5)]
    assert seen == [503, 503, 200, 429, 200]
    status, _, body = get(dataservice, "/data/manifest/version")
    assert status == 503
    assert json.loads(body) == {"error_code": "service_unavailable", "dependency": "storage", "retryable": False,
                                "recovery": "retry_with_backoff", "reason": "maintenance"}
    assert get(dataservice, "/data/manifest/version")[0] == 200
    assert [r.status for r in dataservice.requests_for("/data/manifest")] == seen

    # skip/count and glob patterns: only the 2nd and 3rd file requests fail.
    dataservice.add_fault("/data/files/features/*", "status", status=500, skip=1, count=2)
    assert [get(dataservice, "/data/files/" + FEATURE)[0] for _ in range(4)] == [200, 500, 500, 200]
    dataservice.add_fault("/data/shuffle", "status", status=200, body=b"x" * 59)
    assert get(dataservice, "/data/shuffle")[2] == b"x" * 59


# Only the faults whose effect a sync test cannot see for itself: a truncated,
# corrupted, range-ignoring or empty answer shows in the ranges the engine asks
# for next (test_sync_faults.py); a reset, an answer that is not HTTP or a
# dropped header may not.
def test_resets_non_http_answers_and_header_changes(dataservice):
    path = "/data/files/" + FEATURE
    dataservice.add_fault(path, "reset", after_bytes=100)
    conn, resp = raw_get(dataservice, path)
    time.sleep(0.2)  # let the RST arrive before the body is read
    with pytest.raises(ConnectionResetError):
        resp.read()
    conn.close()

    dataservice.add_fault(path, "bad_status_line")
    with pytest.raises(http.client.BadStatusLine):
        raw_get(dataservice, path)

    dataservice.add_fault(path, "headers", drop_headers=["Content-Range"], set_headers={"X-Era-Number": "7"})
    status, headers, body = get(dataservice, path, {"Range": "bytes=10-19"})
    assert (status, headers.get("Content-Range"), headers["X-Era-Number"]) == (206, None, "7")
    assert body == dataservice.file_bytes(None, FEATURE)[10:20]


def test_a_stall_with_seconds_ends_by_closing_the_connection(dataservice):
    # A bounded stall lets a long run script many without stopping the service.
    path = "/data/files/" + FEATURE
    dataservice.add_fault("/data/manifest", "stall", seconds=0.2)
    dataservice.add_fault(path, "stall", after_bytes=10, seconds=0.2)
    with pytest.raises(http.client.RemoteDisconnected):  # not even a status line
        raw_get(dataservice, "/data/manifest", timeout=30)
    conn, resp = raw_get(dataservice, path, timeout=30)
    with pytest.raises(http.client.IncompleteRead) as info:
        resp.read()
    assert len(info.value.partial) == 10
    assert get(dataservice, path)[2] == dataservice.file_bytes(None, FEATURE)


def test_restart_breaks_open_answers_and_serves_again_on_the_same_port(dataservice_factory):
    svc = dataservice_factory()
    url, path = svc.url, "/data/files/" + FEATURE
    svc.add_fault(path, "stall", after_bytes=10)
    svc.add_fault("/data/manifest", "status", status=503, skip=1)
    outcomes = []

    def client():
        try:
            outcomes.append(len(raw_get(svc, path, timeout=30)[1].read()))
        except (OSError, http.client.HTTPException) as exc:
            outcomes.append(type(exc).__name__)

    thread = threading.Thread(target=client)
    thread.start()
    assert wait_for(lambda: any(r.bytes_sent == 10 for r in svc.requests_for(path)))
    svc.restart()
    thread.join(10)
    assert not thread.is_alive() and outcomes == ["IncompleteRead"]
    assert svc.url == url
    assert get(svc, path)[2] == svc.file_bytes(None, FEATURE)
    # Faults and the request log outlive the restart.
    assert [get(svc, "/data/manifest")[0] for _ in range(2)] == [200, 503]
    assert len(svc.requests_for(path)) == 2


def test_new_versions_and_eras(dataservice):
    before = dataservice.manifest()
    old_sha = get_version_sha(dataservice)
    other = "features/top200/signal_is/px001__ret__lag0__v1.arrow"
    assert dataservice.set_version(touch=[FEATURE]) == 2
    after = dataservice.manifest()
    assert after["version"] == 2 and get_version_sha(dataservice) != old_sha
    assert after["files"][FEATURE]["sha256"] != before["files"][FEATURE]["sha256"]
    assert after["files"][other] == before["files"][other]
    assert hashlib.sha256(get(dataservice, "/data/files/" + FEATURE)[2]).hexdigest() == after["files"][FEATURE][
        "sha256"]

    gone = "found_signals/pool_a/sig0099/signal_is/pnl.arrow"
    dataservice.set_version(entry_overrides={gone: {"size_bytes": 3, "sha256": "0" * 64, "kind": "found_signal_is_pnl"}})
    assert get(dataservice, "/data/files/" + gone)[0] == 404  # listed, not stored

    # A new era published in the middle of a download: the third file request already sees era 2.
    dataservice.on_request("/data/files/*", dataservice.publish_era, after=3)
    eras = [get(dataservice, "/data/files/" + FEATURE)[1]["X-Era-Number"] for _ in range(4)]
    assert eras == ["1", "1", "2", "2"]
    assert dataservice.current_era == 2 and dataservice.manifest()["era_number"] == 2
    assert json.loads(get(dataservice, "/market/1/era/current")[2])["era_number"] == 2


def get_version_sha(svc):
    return json.loads(get(svc, "/data/manifest/version")[2])["manifest_sha256"]
