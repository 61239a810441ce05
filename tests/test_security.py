"""Where the bearer token may go and where the engine may write.

The token is never logged (nor printed by the command line: every JSON run
of test_cli.py checks its output), never put on a command line, never sent in clear
text off the machine, and only to a peer whose certificate checks out; and
nothing a manifest or a planted link says makes the engine write outside the
data directory.
"""

import contextlib
import io
import logging
import os
import shutil
import socket
import threading

import pytest

import tidewright.auth
import tidewright.sync as sync
from tidewright import cli
from tidewright.sync_backoff import SyncBackoffCancelled, SyncBackoffPolicy, backoff_context

from raw_http_server import RawHttpServer
from sync_helpers import (BIG, BIG_BYTES, FEATURE, FOUND_PNL, assert_in_step, manager, record_curl_runs, request_budget,
                          stop_when)

SECRET = "tok-Kp7WqR3nZx"  # distinctive, so that a leak anywhere is found
VOCABULARY = "named_universes/top50/vocabulary.json"


# -- the token in logs, errors and CLI output ------------------------------------


def record_text(record):
    """All a handler could print of a record: message, arguments, extra
    attributes (sync events included) and the formatted exception."""
    parts = [record.getMessage(), repr(record.args), repr(vars(record))]
    if record.exc_info:
        parts.append(logging.Formatter().formatException(record.exc_info))
    return "\n".join(parts)


def error_text(exc):
    return "\n".join([str(exc), repr(exc), repr(exc.args), repr(vars(exc))])


def test_the_token_appears_in_no_log_record_and_no_error(dataservice_factory, tmp_path, logged):
    svc = dataservice_factory(token=SECRET, large_file_bytes=BIG_BYTES)
    svc.add_fault("/data/manifest/version", "status", status=503)
    svc.add_fault("/data/manifest", "reset", after_bytes=10)
    svc.add_fault("/data/files/" + FEATURE, "corrupt")
    svc.add_fault("/data/files/" + BIG, "truncate", after_bytes=1000)
    svc.add_fault("/data/files/" + FOUND_PNL, "status", status=404, count=None)
    svc.add_fault("/data/shuffle", "status", status=500)
    m = manager(svc, tmp_path)
    with request_budget(svc):
        m.sync()
    assert m.verify().valid

    errors = []
    for fault in ({"status": 401}, {"status": 503, "retryable": False, "reason": "maintenance"}):
        svc.clear_faults()
        svc.set_version(touch=[FEATURE])
        svc.add_fault("/data/files/" + FEATURE, "status", count=None, **fault)
        with request_budget(svc), pytest.raises((tidewright.auth.AuthError, sync.SyncError)) as info:
            m.sync()
        errors.append(info.value)
    assert isinstance(errors[0], tidewright.auth.AuthError)
    assert isinstance(errors[1], sync.SyncUnavailableError)
    # A wrong token is not the configured one, but it must not be echoed either.
    (tmp_path / "other").mkdir()
    wrong = sync.SyncManager(str(tmp_path / "other"), svc.url, token=SECRET + "-stale")
    with pytest.raises(tidewright.auth.AuthError) as info:
        wrong.sync()
    errors.append(info.value)

    assert {"http_retry", "checksum_repair"} <= {e["event_type"] for e in logged.events}
    assert len(logged.records) > 20
    for record in logged.records:
        assert SECRET not in record_text(record), record_text(record)
    for exc in errors:
        assert SECRET not in error_text(exc)
    assert SECRET not in repr(m.status())


# -- what a token may be ------------------------------------------------------------

UNUSABLE_TOKENS = {
    "crlf-header": SECRET + "\r\nX-Injected: 1",
    "second-line": SECRET + "\nsecond-line-of-the-file",
    "nul": SECRET + "\0tail",
    "c1-control": SECRET + "\x85",
    "tab": SECRET + "\t",
    "empty": "",
    "none": None,
    "int": 42,
    "bytes": SECRET.encode(),
    "surrogate": SECRET + "\udcff",
}


@pytest.mark.parametrize("token", UNUSABLE_TOKENS.values(), ids=UNUSABLE_TOKENS.keys())
def test_an_unusable_token_is_refused_before_any_request(dataservice_factory, tmp_path, token):
    svc = dataservice_factory(token=SECRET)
    calls = {
        "sync": lambda: sync.SyncManager(str(tmp_path), svc.url, lambda: token).sync(),
    }
    if isinstance(token, str):  # token= takes any value's str() (42 is "42"): only texts can be unusable
        calls["token argument"] = lambda: sync.SyncManager(str(tmp_path), svc.url, token=token).sync()
        if "\udcff" not in token:  # the binding takes UTF-8 text only
            calls["_http_get"] = lambda: sync._http_get(svc.url + "/data/manifest", token)
    for name, call in calls.items():
        with pytest.raises(tidewright.auth.AuthError, match="nothing was sent") as info:
            call()
        assert SECRET not in error_text(info.value), name
    sync.SyncManager(str(tmp_path), svc.url, lambda: token).needs_sync()  # answers without asking the service
    assert svc.requests == []
    assert not (tmp_path / "manifest.json").exists()


def test_the_era_thread_sends_no_request_with_an_unusable_token(dataservice_factory, tmp_path, logged):
    svc = dataservice_factory(token=SECRET)
    thread = sync.EraThread(svc.url, lambda: SECRET + "\nX-Injected: 1", manager(svc, tmp_path),
                            era_poll_interval_s=3600)
    thread._poll_once()
    assert svc.requests == []
    assert any("Era poll failed" in r.getMessage() for r in logged.records)
    for record in logged.records:
        assert SECRET not in record_text(record)


def test_a_token_provider_that_blocks_holds_up_neither_stop_nor_a_cancelled_sync(dataservice_factory, tmp_path):
    svc = dataservice_factory(token=SECRET)
    asked, answer = threading.Semaphore(0), threading.Event()

    def get_token():
        asked.release()
        answer.wait(120)
        return SECRET

    def in_thread(fn):
        outcome = {}

        def run():
            try:
                outcome["value"] = fn()
            except BaseException as exc:  # noqa: BLE001 - handed to the test
                outcome["error"] = exc

        worker = threading.Thread(target=run, daemon=True)
        worker.start()
        return worker, outcome

    try:
        m = sync.SyncManager.get_or_create(str(tmp_path), svc.url, get_token)
        m.acquire()  # the poll and era threads ask for a token and wait for it
        assert asked.acquire(timeout=60)
        stopper, _ = in_thread(m.release)
        stopper.join(30)  # a hang guard: the release takes a moment
        assert not stopper.is_alive(), "release() waited for the token provider"
        assert not m.is_alive()

        stop = threading.Event()

        def cancellable_sync():
            with backoff_context(stop_requested=stop.is_set):
                return sync.SyncManager(str(tmp_path), svc.url, get_token).sync()

        syncing, outcome = in_thread(cancellable_sync)
        assert asked.acquire(timeout=60)
        stop.set()
        syncing.join(30)
        assert not syncing.is_alive(), "sync() waited for the token provider after a stop request"
        assert isinstance(outcome.get("error"), SyncBackoffCancelled)
    finally:
        answer.set()
    assert svc.requests == []


# -- the token never on a command line --------------------------------------------

@pytest.mark.skipif(shutil.which("curl") is None, reason="needs the curl program")
def test_forced_curl_mode_runs_curl_only_for_public_requests(dataservice_factory, tmp_path, monkeypatch):
    svc = dataservice_factory(token=SECRET, tls=True, public_files=True)
    data = tmp_path / "data"
    data.mkdir()
    curl_runs = record_curl_runs(tmp_path, monkeypatch)
    monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
    monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)

    m = manager(svc, data, sync_http_transport="curl")
    # Failing curl runs never reach the service: count them too.
    with backoff_context(stop_requested=lambda: len(svc.requests) + len(curl_runs()) > 400):
        m.sync()
    assert_in_step(svc, data)

    cmdlines = curl_runs()
    assert cmdlines, "the public file downloads should have gone through curl"
    for line in cmdlines:
        assert SECRET not in line and "authorization" not in line.lower(), line
        assert "/data/files/" in line, line
    authorized = {r.path for r in svc.requests if r.has_authorization}
    assert {"/data/manifest/version", "/data/manifest", "/data/shuffle"} <= authorized
    assert not any(p.startswith("/data/files/") for p in authorized)


@pytest.mark.skipif(shutil.which("curl") is None, reason="needs the curl program")
def test_a_users_curlrc_does_not_change_the_curl_downloads(dataservice_factory, tmp_path, monkeypatch):
    svc = dataservice_factory(tls=True, public_files=True)
    home, data = tmp_path / "home", tmp_path / "data"
    home.mkdir()
    data.mkdir()
    # Every download of a curl that read this would go to a closed port.
    (home / ".curlrc").write_text('proxy = "http://127.0.0.1:1"\n')
    monkeypatch.setenv("HOME", str(home))
    monkeypatch.delenv("CURL_HOME", raising=False)
    monkeypatch.delenv("XDG_CONFIG_HOME", raising=False)
    monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
    monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)
    # Failing curl runs never reach the service: a correct run has no retry waits.
    waits = []
    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, i: waits.append(i) or 0.0))
    with backoff_context(stop_requested=lambda: len(svc.requests) > 400 or len(waits) > 20):
        manager(svc, data, sync_http_transport="curl").sync()
    assert_in_step(svc, data)
    assert any(r.path.startswith("/data/files/") and not r.has_authorization for r in svc.requests)


# -- never in clear text off the machine, never to an unverified peer -------------


class ConnectionTrap:
    """A loopback listener that counts the connections made to it. As the
    proxy of every scheme, it catches any request the engine would send
    off the machine before a name is even looked up."""

    def __init__(self):
        self.sock = socket.socket()
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(16)
        self.url = "http://127.0.0.1:%d" % self.sock.getsockname()[1]
        self.connections = 0
        self.heads = []  # the request head received on each connection
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            with conn:
                conn.settimeout(10)
                head = b""
                with contextlib.suppress(OSError):
                    while b"\r\n\r\n" not in head:
                        chunk = conn.recv(4096)
                        if not chunk:
                            break
                        head += chunk
                self.heads.append(head.decode("latin-1"))
                self.connections += 1

    def close(self):
        with contextlib.suppress(OSError):
            self.sock.shutdown(socket.SHUT_RDWR)
        self.sock.close()
        self._thread.join()


@pytest.fixture
def trap(monkeypatch):
    trap = ConnectionTrap()
    for name in ("http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"):
        monkeypatch.setenv(name, trap.url)
    for name in ("no_proxy", "NO_PROXY"):
        monkeypatch.setenv(name, "127.0.0.1,localhost")
    yield trap
    trap.close()


OFF_MACHINE = "http://example.invalid"


def test_the_trap_catches_a_request_that_would_leave_the_machine(trap):
    # The guard of the tests below: a public https request to a host off the
    # machine is allowed, and goes to the trap instead of the network.
    with backoff_context(stop_requested=stop_when(lambda: trap.connections > 0)), pytest.raises(SyncBackoffCancelled):
        sync._http_get_public("https://example.invalid/data/files/x", transport="urllib")
    assert trap.connections > 0


def test_plain_http_off_the_machine_is_refused_before_connecting(dataservice_factory, tmp_path, trap):
    svc = dataservice_factory(token=SECRET)
    refused = (ValueError, sync.ManifestError)
    for call in (lambda: sync._http_get(OFF_MACHINE + "/data/manifest", SECRET),
                 lambda: sync._http_get(OFF_MACHINE + "/data/manifest/version", SECRET),
                 lambda: sync._http_get_manifest_version(OFF_MACHINE + "/data/manifest/version", SECRET),
                 lambda: sync._http_get_public(OFF_MACHINE + "/data/files/a.arrow"),
                 lambda: sync._http_get_public(OFF_MACHINE + "/data/files/a.arrow", transport="curl"),
                 lambda: sync.SyncManager(str(tmp_path), OFF_MACHINE, token=SECRET),
                 lambda: sync.EraThread(OFF_MACHINE, lambda: SECRET, manager(svc, tmp_path))):
        with pytest.raises(refused, match="example.invalid"):
            call()

    # A manifest pointing its files (all of them, or one) off the machine.
    files = svc.manifest()["files"]
    for overrides in ({"base_url": OFF_MACHINE + "/data/files"},
                      {"files": {**files, FEATURE: {**files[FEATURE], "base_url": OFF_MACHINE + "/f"}}}):
        bad = dataservice_factory(token=SECRET, manifest_overrides=overrides)
        data = tmp_path / f"data{len(os.listdir(tmp_path))}"
        data.mkdir()
        with request_budget(bad), pytest.raises(sync.ManifestError, match="example.invalid"):
            manager(bad, data).sync()
        assert not (data / "manifest.json").exists()
    assert trap.connections == 0


@pytest.mark.parametrize("scheme, transport", [
    ("http", "urllib"), ("https", "urllib"),
    pytest.param("https", "curl", marks=pytest.mark.skipif(shutil.which("curl") is None, reason="needs curl")),
])
def test_a_redirect_to_clear_text_off_the_machine_is_not_followed(dataservice_factory, trap, monkeypatch, scheme,
                                                                   transport):
    svc = dataservice_factory(token=SECRET, tls=scheme == "https", public_files=True)
    if scheme == "https":
        monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
        monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)
    path = "/data/files/" + FEATURE
    svc.add_fault(path, "status", status=302, count=None, set_headers={"Location": OFF_MACHINE + path})
    with backoff_context(stop_requested=stop_when(lambda: trap.connections > 0)):
        if transport == "urllib":  # with the token
            status, headers, _ = sync._http_get(svc.url + path, SECRET)
        else:
            status, headers, _ = sync._http_get_public(svc.url + path, transport="curl")
    # The redirect is the answer, and the token stayed on the machine.
    assert (status, headers.get("Location")) == (302, OFF_MACHINE + path)
    assert trap.connections == 0


def test_a_redirect_disguised_by_a_status_line_inside_its_head_is_not_followed(trap):
    # libcurl reads a 302 whose Location it follows; the bogus line must
    # not make the client take the head for a 200 and skip the check.
    head = b"HTTP/1.1 302 Found\r\nHTTP/1.1 200 OK: x\r\nLocation: " + OFF_MACHINE.encode() + b"/x\r\n"
    with RawHttpServer() as srv:
        url = srv.route("/data/manifest", lambda ex: ex.send(head + b"Content-Length: 0\r\nConnection: close\r\n\r\n"))
        with backoff_context(stop_requested=stop_when(lambda: trap.connections > 0)):
            assert sync._http_get(url, SECRET)[0] == 302
    assert trap.connections == 0


def test_a_proxy_from_the_environment_never_carries_a_request_to_this_machine(dataservice_factory, trap,
                                                                              monkeypatch):
    svc = dataservice_factory(token=SECRET)
    for name in ("no_proxy", "NO_PROXY"):
        monkeypatch.delenv(name)  # the proxy variables name the trap, for every host
    with backoff_context(stop_requested=stop_when(lambda: trap.connections > 0)):
        assert sync._http_get(svc.url + "/data/manifest", SECRET)[0] == 200
    assert trap.connections == 0 and [r.path for r in svc.requests] == ["/data/manifest"]


def test_an_untrusted_certificate_fails_at_once_sends_nothing_and_says_what_to_trust(dataservice_factory, tmp_path,
                                                                                     monkeypatch):
    svc = dataservice_factory(token=SECRET, tls=True, public_files=True)
    for name in ("SSL_CERT_FILE", "SSL_CERT_DIR", "CURL_CA_BUNDLE"):
        monkeypatch.delenv(name, raising=False)
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    # A retry waits first, and the first wait ends the call: a failure taken
    # for an outage ends with SyncBackoffCancelled instead.
    waits = []
    monkeypatch.setattr(SyncBackoffPolicy, "delay_seconds", classmethod(lambda cls, i: waits.append(i) or 0.0))
    data = tmp_path / "data"
    data.mkdir()
    calls = {"in-process client": lambda: manager(svc, data).sync()}
    if shutil.which("curl"):
        calls["curl program"] = lambda: sync._http_get_public(svc.url + "/data/files/" + FEATURE, transport="curl")
    for name, call in calls.items():
        with backoff_context(stop_requested=lambda: bool(waits)), pytest.raises(sync.SyncUnavailableError) as info:
            call()
        error = info.value
        assert (error.dependency, error.retryable, error.attempts) == ("tls", False, 1), name
        assert "127.0.0.1" in str(error) and "certificate" in error.reason, name
    assert waits == []
    assert svc.requests == []  # the handshake failed before a request (and its token) was sent
    assert os.listdir(data) == []

    out, err = io.StringIO(), io.StringIO()
    argv = ["sync", "--server", svc.url, "--data-dir", str(data), "--transport", "curl", "--no-progress"]
    assert cli.main(argv, stdout=out, stderr=err) == cli.EXIT_UNAVAILABLE
    assert waits == [] and "127.0.0.1" in err.getvalue() and "SSL_CERT_FILE" in err.getvalue()

    monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
    monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)
    assert cli.main(argv, stdout=out, stderr=err) == cli.EXIT_OK, err.getvalue()
    assert_in_step(svc, data)


# -- nothing written outside the data directory -----------------------------------


def snapshot(directory):
    """Everything below ``directory``: links with their targets, files with their bytes."""
    found = {}
    for root, dirs, names in os.walk(directory):
        for name in dirs + names:
            full = os.path.join(root, name)
            rel = os.path.relpath(full, directory)
            if os.path.islink(full):
                found[rel] = ("link", os.readlink(full))
            elif os.path.isfile(full):
                with open(full, "rb") as handle:
                    found[rel] = ("file", handle.read())
            else:
                found[rel] = ("dir",)
    return found


@pytest.fixture
def outside(tmp_path):
    """A sibling of the data directory, with files the tests aim links at."""
    path = tmp_path / "outside"
    (path / "sub").mkdir(parents=True)
    (path / "short").write_bytes(b"outside, short")
    (path / "long").write_bytes(b"L" * (BIG_BYTES * 2))
    (path / "sub" / "keep").write_bytes(b"keep me")
    return path


def test_links_planted_at_staging_names_are_replaced_not_followed(dataservice_factory, tmp_path, outside):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES)
    data = tmp_path / "data"
    before = snapshot(outside)
    planted = {FEATURE: outside / "short", BIG: outside / "long", VOCABULARY: outside / "sub" / "keep",
               "functions.json": outside / "missing"}
    for path, target in planted.items():
        staging = data / (path + ".tmp")
        staging.parent.mkdir(parents=True, exist_ok=True)
        staging.symlink_to(target)
    (data / FOUND_PNL).parent.mkdir(parents=True)
    os.mkfifo(data / (FOUND_PNL + ".tmp"))  # reading it would block forever

    m = manager(svc, data)
    with request_budget(svc):
        m.sync()
    assert snapshot(outside) == before
    assert_in_step(svc, data)
    for path in planted:
        assert not os.path.islink(data / path)


def test_a_directory_swapped_for_a_link_during_a_download_is_not_followed(dataservice_factory, tmp_path, outside):
    svc = dataservice_factory(large_file_bytes=BIG_BYTES)
    data = tmp_path / "data"
    data.mkdir()
    before = snapshot(outside)
    big_dir = data / os.path.dirname(BIG)

    def swap():
        # The first chunk is on its way; the next attempt opens the staging
        # file again and finally renames it.
        big_dir.rename(data / "parked")
        big_dir.symlink_to(outside / "sub", target_is_directory=True)

    svc.on_request("/data/files/" + BIG, swap)
    svc.add_fault("/data/files/" + BIG, "reset", after_bytes=1000)
    m = manager(svc, data, sync_max_concurrency=1)
    with request_budget(svc), contextlib.suppress(sync.ManifestError):
        m.sync()
    assert snapshot(outside) == before


def test_verify_reports_files_reached_through_an_outside_link_as_corrupted(dataservice, tmp_path, outside):
    data = tmp_path / "data"
    data.mkdir()
    m = manager(dataservice, data)
    with request_budget(dataservice):
        m.sync()
    # The universe directory moved out and linked back: same bytes, outside.
    universe = data / "features" / "top50"
    shutil.move(universe, outside / "top50")
    universe.symlink_to(outside / "top50", target_is_directory=True)
    linked = sorted(p for p in dataservice.manifest()["files"] if p.startswith("features/top50/"))
    result = m.verify()  # reported, not raised
    assert (result.valid, result.missing_files) == (False, [])
    assert sorted(result.corrupted_files) == linked


@pytest.mark.parametrize("name", [".consumer_count", ".sync_flock", ".transition_lock", ".transition_era2.tmp",
                                  "manifest.json", ".manifest_sync_metadata.json", "sync-progress.json",
                                  ".sync_hash_cache.json", "shuffle_seed.enc", "functions.json"])
def test_side_files_planted_as_links_leave_the_outside_alone(dataservice_factory, tmp_path, outside, name):
    svc = dataservice_factory()
    data = tmp_path / "data"
    data.mkdir()
    # A dangling link too: creating the file it names is a write outside.
    target = {".transition_era2.tmp": outside / "sub", ".sync_flock": outside / "created"}.get(name, outside / "short")
    (data / name).symlink_to(target)
    before = snapshot(outside)

    m = manager(svc, data)
    with request_budget(svc), contextlib.suppress(OSError, sync.SyncError):
        m.acquire()
        m.sync()
        svc.publish_era(2)
        m.trigger_era_transition(2)
    with contextlib.suppress(OSError, sync.SyncError):
        m.release()
    assert snapshot(outside) == before
