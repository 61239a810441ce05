"""The HTTP transport against real servers on 127.0.0.1: request building, the
retry loop with its reports, failures of the exchange, the curl program
transport, TLS verification and streaming downloads."""

import json
import os
import sys
import threading
import time
import urllib.request

import pytest

import tidewright
import tidewright.sync as sync
from raw_http_server import RawHttpServer, endless_body, respond, trickled_headers
from sync_helpers import stop_when
from tidewright.sync_backoff import SyncBackoffCancelled, SyncBackoffPolicy, backoff_context

TOKEN = "tok-123"
AGENT = f"tidewright-sync/{tidewright.__version__}"
MIB = 1 << 20


# -- a scripted server ---------------------------------------------------------


def raw(data):
    """Bytes as they are, then the connection closes."""
    return lambda ex: ex.send(data)


def short_body(announced, body):
    return raw(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (announced, body))


def hang(ex):
    """Accept the request and never answer."""
    ex.wait(30)


def dribble(ex):
    """Headers at once, then one byte every 50 ms."""
    ex.send(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n")
    for _ in range(100):
        ex.wait(0.05)
        ex.send(b"x")


@pytest.fixture
def server():
    with RawHttpServer() as srv:
        yield srv


@pytest.fixture
def fast_backoff(monkeypatch):
    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, attempt_index: 0.01))


def stop_after_retries(logged, count=1):
    """A stop test that turns true once `count` http_retry events were logged
    (or after a bound, so that a missing event fails the test)."""
    return stop_when(lambda: len(logged.of_type("http_retry")) >= count)


# -- building requests ---------------------------------------------------------


def test_requests_carry_token_agent_and_range(server):
    url = server.script(respond(200, b"ok"))
    for start, end in [(0, -1), (100, -1), (0, 99), (100, 50)]:
        assert sync._http_get(url, TOKEN, start, end)[0] == 200
    sync._http_get_public(url, 5, 9)

    sent = server.headers_for(url)
    assert [h.get("range") for h in sent] == [None, "bytes=100-", "bytes=0-99", "bytes=100-", "bytes=5-9"]
    assert all(h["user-agent"] == AGENT for h in sent)
    assert [h.get("authorization") for h in sent] == [f"Bearer {TOKEN}"] * 4 + [None]


def test_a_backoff_policy_error_reaches_the_caller_unchanged(server, monkeypatch):
    # (URLs the transport refuses: test_security.py)
    class Boom(Exception):
        pass

    def broken_delay(cls, attempt_index):
        raise Boom("backoff module broke")

    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(broken_delay))
    with pytest.raises(Boom, match="backoff module broke"):
        sync._http_get(server.script(respond(503)), TOKEN)


# -- the retry loop --------------------------------------------------------------


def test_server_refusing_retries_raises_after_the_first_attempt(server, logged):
    url = server.script(respond(503, json.dumps({"retryable": False, "error_code": "maintenance",
                                               "recovery": "wait", "reason": "upgrade"}).encode()))
    with pytest.raises(sync.SyncUnavailableError) as info:
        sync._http_get(url, TOKEN)
    err = info.value
    assert isinstance(err, ConnectionError)
    assert (err.attempts, err.statuses, err.failures, err.retryable) == (1, [503], [], False)
    assert (err.server_error_code, err.recovery, err.reason, err.typed_details) == ("maintenance", "wait", "upgrade", True)
    assert "retryable=False" in str(err)
    assert len(server.requests_for(url)) == 1
    assert logged.events == []


def test_broken_exchanges_are_retried_and_labelled_by_class(server, logged, fast_backoff):
    url = server.script(
        raw(b"HTTP/1.1 abc\r\n\r\n"),                          # malformed status line
        raw(b"SPEAK HTTP PLEASE\r\n\r\n"),                     # no status line at all
        short_body(100, b"only-part"),                         # closed before the announced length
        raw(b""),                                              # closed without any answer
        respond(502, b"<html>bad gateway</html>"),               # an error body that is not JSON
        respond(200, b"finally", [("X-Odd", "  padded  ")]),
    )
    status, headers, body = sync._http_get_public(url)
    assert (status, body, headers["X-Odd"]) == (200, b"finally", "padded")

    retries = logged.of_type("http_retry")
    assert [r["reason"] for r in retries] == [
        "BadStatusLine", "BadStatusLine", "IncompleteRead", "RemoteDisconnected", "http_502"]
    assert [r["count"] for r in retries] == [1, 2, 3, 4, 5]
    assert retries[0]["dependency"] == "network" and retries[-1]["error_code"] is None
    [recovered] = logged.of_type("sync_recovered_status")
    assert recovered["failures"] == ["BadStatusLine", "BadStatusLine", "IncompleteRead", "RemoteDisconnected"]
    assert recovered["statuses"] == [502]
    assert len(logged.of_type("sync_unavailable_status")) == 1


def test_statuses_and_failures_keep_the_last_twenty(server, logged, fast_backoff):
    url = server.script(*([respond(503)] * 25 + [raw(b"")] * 22 + [respond(200, b"x")]))
    assert sync._http_get(url, TOKEN)[0] == 200
    [recovered] = logged.of_type("sync_recovered_status")
    assert recovered["statuses"] == [503] * 20
    assert recovered["failures"] == ["RemoteDisconnected"] * 20

    values = [1, 2, 3]
    assert sync._append_limited(values, 4, limit=3) is None
    assert values == [2, 3, 4]
    sync._append_limited(values, 5, 0)
    assert values == []


def test_body_read_has_a_total_deadline(server, logged):
    url = server.script(dribble)
    request = urllib.request.Request(url)
    with backoff_context(stop_requested=stop_after_retries(logged)):
        with pytest.raises(SyncBackoffCancelled):
            sync._request_with_sync_retries(request, 0.5)
    [retry] = logged.of_type("http_retry")
    assert retry["reason"] == "TimeoutError"
    assert logged.of_type("sync_unavailable_status")[0]["_level"] == "ERROR"  # a timeout outage


def test_silent_server_is_abandoned_promptly_on_stop(server, logged, fast_backoff):
    url = server.script(respond(503), hang)
    stop_at = []

    def stop_requested():
        if len(server.requests_for(url)) >= 2 and not stop_at:
            stop_at.append(time.monotonic() + 0.2)  # let the second attempt hang for a while
        return bool(stop_at) and time.monotonic() >= stop_at[0]

    outcome = []

    def get():
        with backoff_context(stop_requested=stop_requested):
            try:
                sync._http_get(url, TOKEN)
            except SyncBackoffCancelled as exc:
                outcome.append(exc)

    # The hanging attempt would otherwise last until the transport's
    # no-progress timeout (30 s): the watchdog only tells the two apart.
    worker = threading.Thread(target=get, daemon=True)
    worker.start()
    worker.join(20)
    assert not worker.is_alive() and len(outcome) == 1
    assert len(logged.of_type("http_retry")) == 1
    assert len(server.requests_for(url)) == 2


def test_stop_cuts_a_backoff_wait_short(server, monkeypatch):
    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, attempt_index: 30.0))
    deadline = time.monotonic() + 0.3
    with backoff_context(stop_requested=lambda: time.monotonic() > deadline):
        assert not sync._sync_backoff_stop_requested()
        with pytest.raises(SyncBackoffCancelled):
            sync._http_get(server.script(respond(500)), TOKEN)
    assert time.monotonic() - deadline < 15.0  # far below the 30 s wait, whatever the load


def test_native_backoff_waits_follow_the_python_policy_and_end_on_a_stop(monkeypatch):
    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, attempt_index: 0.01 * attempt_index))
    assert [sync._backoff_delay_seconds(i) for i in range(3)] == [0.0, 0.01, 0.02]
    sync._sleep_for_sync_backoff(0.01)
    assert not sync._sync_backoff_stop_requested()
    with backoff_context(stop_requested=lambda: True):
        assert sync._sync_backoff_stop_requested()
        with pytest.raises(SyncBackoffCancelled):
            sync._sleep_for_sync_backoff(30.0)


# -- the curl program ------------------------------------------------------------

FAKE_CURL = r"""#!{python}
import json, os, sys
with open({log!r}, "a") as f:
    f.write(json.dumps(sys.argv) + "\n")
with open({answer!r}) as f:
    answer = json.load(f)
args = sys.argv[1:]
with open(args[args.index("-D") + 1], "w", encoding="latin-1") as f:
    f.write(answer["headers"])
with open(args[args.index("-o") + 1], "wb") as f:
    f.write(answer["body"].encode())
sys.stdout.write(answer["stdout"])
sys.stderr.write(answer["stderr"])
sys.exit(answer["exit"])
"""

# Curl as a hostile server makes it look: a head never finished, or a body
# that never ends (each bounded, should the client not stop it).
HOSTILE_CURL = r"""#!{python}
import json, os, sys, time
with open({answer!r}) as f:
    answer = json.load(f)
args = sys.argv[1:]
with open(args[args.index("-D") + 1], "w", encoding="latin-1") as head:
    if answer["mode"] == "trickle":
        head.write("HTTP/1.1 200 OK\r\n")
        for n in range(600):
            head.write("X-Trickle-%d: .\r\n" % n)
            head.flush()
            time.sleep(0.1)
        sys.exit(28)
    head.write("HTTP/1.1 200 OK\r\n\r\n")
try:
    with open(args[args.index("-o") + 1], "wb") as body:
        for _ in range(1 << 16):
            body.write(b"x" * 65536)
except OSError:
    sys.exit(23)
sys.stdout.write("200")
"""


class FakeCurl:
    def __init__(self, directory):
        self.dir = directory
        self.log = directory / "argv.log"
        self.answer_file = directory / "answer.json"
        self.path = directory / "curl"
        self._script = FAKE_CURL.format(python=sys.executable, log=str(self.log), answer=str(self.answer_file))
        self.answer(200, "hello")
        self.path.chmod(0o755)

    def answer(self, status, body="", headers="", exit_code=0, stderr=""):
        dump = headers or f"HTTP/1.1 {status} X\r\nContent-Length: {len(body)}\r\n\r\n"
        self.path.write_text(self._script)
        self.answer_file.write_text(json.dumps({"headers": dump, "body": body, "stdout": f"{status:03d}",
                                         "stderr": stderr, "exit": exit_code}))

    def misbehave(self, mode):
        """"trickle": header lines without end; "endless": a body without end."""
        self.path.write_text(HOSTILE_CURL.format(python=sys.executable, answer=str(self.answer_file)))
        self.answer_file.write_text(json.dumps({"mode": mode}))

    def calls(self):
        if not self.log.exists():
            return []
        return [json.loads(line) for line in self.log.read_text().splitlines()]


@pytest.fixture
def fake_curl(tmp_path, monkeypatch):
    directory = tmp_path / "bin"
    directory.mkdir()
    monkeypatch.setenv("PATH", f"{directory}{os.pathsep}{os.environ.get('PATH', '')}")
    return FakeCurl(directory)


DATA_URL = "https://data.tidewright.io/data/files/features/a.arrow"


def test_curl_runs_with_the_exact_command_line_and_cleans_up(fake_curl):
    fake_curl.answer(206, "0123456789", headers=(
        "HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nX-Hop: 1\r\n\r\n"
        "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-9/100\r\nX-Era-Number: 4\r\n\r\n"))
    status, headers, body = sync._http_get_public(DATA_URL, 0, 9)
    assert (status, body) == (206, b"0123456789")
    assert headers == {"Content-Range": "bytes 0-9/100", "X-Era-Number": "4"}

    [argv] = fake_curl.calls()
    headers_path, body_path = argv[18], argv[20]
    assert argv == [
        str(fake_curl.path), "-q", "-4", "-sS", "-L", "--proto-redir", "=https", "--connect-timeout", "5", "--speed-limit", "1024",
        "--speed-time", "30", "--retry", "4", "--retry-delay", "0", "-D", headers_path, "-o", body_path,
        "-w", "%{http_code}", "-H", "Range: bytes=0-9", "-A", AGENT, DATA_URL]
    temp_dir = os.path.dirname(headers_path)
    assert os.path.basename(temp_dir).startswith("tidewright-curl-")
    assert os.path.basename(headers_path) == "headers.txt"
    assert body_path.startswith("/dev/fd/")  # the body streams through a pipe, never through a file
    assert not os.path.exists(temp_dir)


def test_curl_is_chosen_only_for_public_https_requests(fake_curl, server):
    def request(url, **headers):
        return urllib.request.Request(url, headers=headers)

    other = "https://example.org/data/files/a.bin"
    assert sync._should_use_curl_transport(request(DATA_URL))
    assert sync._should_use_curl_transport(request("https://eu.data.tidewright.io/x"), "auto")
    assert not sync._should_use_curl_transport(request("https://notdata.tidewright.io/x"))
    assert not sync._should_use_curl_transport(request(other))
    assert sync._should_use_curl_transport(request(other), " CURL ")
    assert not sync._should_use_curl_transport(request(DATA_URL), "urllib")
    assert not sync._should_use_curl_transport(request("http://data.tidewright.io/x"), "curl")
    assert not sync._should_use_curl_transport(request(DATA_URL, Authorization="Bearer secret"), "curl")
    assert not sync._should_use_curl_transport(request(DATA_URL, authorization="Bearer secret"), "curl")
    with pytest.raises(ValueError, match="invalid sync_http_transport"):
        sync._should_use_curl_transport(request(DATA_URL), "http2")
    assert (sync._request_host(request("https://User@Data.Tidewright.IO:8443/x")), sync._request_host("nohost")) == (
        "data.tidewright.io", "")

    # In "curl" mode a request with a token still goes in-process (here, to
    # a plain-HTTP loopback server that the curl rule refuses anyway).
    url = server.script(respond(200, b"direct"))
    bearer = request(url, Authorization="Bearer secret", **{"User-Agent": AGENT})
    assert sync._request_with_sync_retries(bearer, 5.0, "curl")[2] == b"direct"
    assert fake_curl.calls() == []

    fake_curl.path.unlink()
    assert sync._find_curl_binary() != str(fake_curl.path)


def test_curl_statuses_and_failures_look_like_the_in_process_client(fake_curl, logged, fast_backoff):
    fake_curl.answer(404, '{"error_code": "missing"}', exit_code=22)
    status, _, body = sync._http_get_public(DATA_URL)
    assert (status, body) == (404, b'{"error_code": "missing"}')

    fake_curl.answer(0, stderr="curl: (7) Failed to connect to data.tidewright.io port 443", exit_code=7)
    with backoff_context(stop_requested=stop_after_retries(logged)):
        with pytest.raises(SyncBackoffCancelled):
            sync._http_get_public(DATA_URL)
    [outage] = logged.of_type("sync_unavailable_status")
    assert outage["failures"] == ["URLError"]
    assert logged.of_type("http_retry")[0]["reason"] == "URLError"


def test_curl_download_streams_a_successful_body_into_the_file(fake_curl, tmp_path):
    target = tmp_path / "out.bin"
    # A header value that looks like a status line must not be taken for one.
    fake_curl.answer(206, "0123456789", headers=(
        "HTTP/1.1 206 Partial Content\r\nVia: HTTP/1.1 proxy\r\nContent-Range: bytes 0-9/10\r\n\r\n"))
    status, headers = sync._download_request_to_path(urllib.request.Request(DATA_URL), str(target), 5.0)
    assert (status, headers["Via"], target.read_bytes()) == (206, "HTTP/1.1 proxy", b"0123456789")

    fake_curl.answer(404, "gone", exit_code=22)
    missing = tmp_path / "missing.bin"
    assert sync._download_request_to_path(urllib.request.Request(DATA_URL), str(missing), 5.0)[0] == 404
    assert not missing.exists()


# -- TLS -------------------------------------------------------------------------


def test_tls_peers_are_verified_against_the_configured_bundle(dataservice_factory, monkeypatch):
    # An untrusted peer: test_security.py.
    svc = dataservice_factory(tls=True)
    url = svc.url + "/data/manifest/version"
    monkeypatch.delenv("CURL_CA_BUNDLE", raising=False)
    monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
    status, _, body = sync._http_get(url, svc.token)
    assert status == 200 and "version" in json.loads(body)

    monkeypatch.delenv("SSL_CERT_FILE")
    monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)
    assert sync._http_get(url, svc.token)[0] == 200


# -- hostile servers: memory and time stay bounded --------------------------------


@pytest.fixture
def header_deadline():
    """Sets the transport's header deadline (seconds) for the test."""
    yield sync._set_sync_http_header_deadline_seconds
    sync._set_sync_http_header_deadline_seconds(None)


SMALL_ANSWERS = ["/data/manifest/version", "/data/manifest/version/", "/market/7/era/current"]

# answer for a path whose bound is `cap` -> whether the client takes it
BODY_SIZES = {
    "exactly-the-cap": (lambda cap: respond(200, b"x" * cap), True),
    "one-byte-more": (lambda cap: respond(200, b"x" * (cap + 1)), False),
    "endless": (lambda cap: endless_body(filler=b"x" * 65536), False),
    "announced-too-long": (lambda cap: endless_body(content_length=100 * cap), False),
}


@pytest.mark.parametrize("answer, taken", BODY_SIZES.values(), ids=BODY_SIZES.keys())
@pytest.mark.parametrize("path", SMALL_ANSWERS)
def test_small_answers_are_refused_past_their_cap_and_never_retried(server, logged, path, answer, taken):
    url = server.route(path, answer(MIB))
    if taken:
        status, _, body = sync._http_get(url, TOKEN)
        assert (status, len(body)) == (200, MIB)
        return
    with pytest.raises(sync.PermanentDownloadError) as info:
        sync._http_get(url, TOKEN)
    assert url in str(info.value) and str(MIB) in str(info.value), str(info.value)
    assert (info.value.status, info.value.file_path) == (200, None)
    assert len(server.requests_for(path)) == 1
    assert logged.of_type("http_retry") == []


def test_bodies_in_memory_have_a_generous_cap_and_error_bodies_a_small_one(server):
    # A manifest of 200k files is about 30 MB: far below the cap.
    big = server.route("/data/manifest", respond(200, b" " * (40 * MIB)))
    assert len(sync._http_get(big, TOKEN)[2]) == 40 * MIB
    # An endless error body: the status is the answer, a MiB of its body is kept.
    missing = server.route("/data/files/gone.bin", endless_body(status=404, filler=b"e" * 65536))
    status, _, body = sync._http_get(missing, TOKEN)
    assert (status, len(body)) == (404, MIB)


def test_endless_body_through_curl_is_refused_at_its_cap(fake_curl, logged):
    fake_curl.misbehave("endless")
    url = "https://data.tidewright.io/data/manifest/version"
    with pytest.raises(sync.PermanentDownloadError, match=f"exceeds {MIB} bytes"):
        sync._http_get_public(url)
    assert logged.of_type("http_retry") == []


def _trickle_in_process(server, fake_curl, tmp_path):
    url = server.route("/data/files/a.bin", trickled_headers(every=0.1))
    return (lambda: sync._http_get_public(url),
            lambda: sync._download_request_to_path(urllib.request.Request(url), str(tmp_path / "out"), 30.0))


def _trickle_through_curl(server, fake_curl, tmp_path):
    fake_curl.misbehave("trickle")
    return (lambda: sync._http_get_public(DATA_URL),
            lambda: sync._download_request_to_path(urllib.request.Request(DATA_URL), str(tmp_path / "out"), 30.0,
                                                    "curl"))


@pytest.mark.parametrize("setup", [_trickle_in_process, _trickle_through_curl], ids=["in-process", "curl"])
def test_a_head_trickled_line_by_line_ends_at_the_header_deadline(server, fake_curl, tmp_path, logged,
                                                                  fast_backoff, header_deadline, setup):
    # A header line every 0.1 s is progress for the 30 s no-progress
    # timeout; only the deadline on the whole head ends the request.
    header_deadline(0.5)
    get, download = setup(server, fake_curl, tmp_path)
    with backoff_context(stop_requested=stop_after_retries(logged, 2)):
        with pytest.raises(SyncBackoffCancelled):
            get()
    assert [e["reason"] for e in logged.of_type("http_retry")] == ["TimeoutError"] * 2
    assert logged.of_type("sync_unavailable_status")[0]["failures"] == ["TimeoutError"]  # an outage

    with pytest.raises(ConnectionError, match="response headers not complete within 0.5 s"):
        download()
    assert not (tmp_path / "out").exists()


# -- streaming downloads -----------------------------------------------------------


def test_error_body_helpers():
    assert sync._parse_sync_error_body(b'{"retryable": false}') == {"retryable": False}
    for body in (b"", b"[1, 2]", b"\xff", b"<html>", None):
        assert sync._parse_sync_error_body(body) == {}
    err = sync._sync_unavailable_from("https://h/data/manifest", 3, [503], ["URLError"], {"error": "maintenance"})
    assert isinstance(err, sync.SyncUnavailableError)
    assert (err.server_error_code, err.typed_details, err.endpoint, err.statuses) == (
        "maintenance", False, "/data/manifest", [503])
    assert sync._sync_unavailable_from("", 1, None, None, {"error_code": "x"}).typed_details is True
