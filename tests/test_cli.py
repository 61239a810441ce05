"""The tidewright-sync command line against the reference data service.

Most cases call ``main(argv)`` in-process; Ctrl-C and the unreachable
service run the CLI as a subprocess, as a user would.
"""

import contextlib
import fcntl
import importlib.metadata
import io
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import _thread

import pytest
from raw_http_server import RawHttpServer
from sync_helpers import record_curl_runs, wait_for

from tidewright import cli

SECRET = "tok-Zq9XvB2mLw"  # distinctive, so that a leak anywhere is found


@pytest.fixture
def service(dataservice_factory):
    return dataservice_factory(token=SECRET, features=6, feature_bytes=4096)


@pytest.fixture(autouse=True)
def no_token_in_environment(monkeypatch):
    monkeypatch.delenv(cli.TOKEN_ENV, raising=False)


def run_cli(*argv, stderr=None):
    """``main(argv)`` in-process; returns (exit code, stdout text, stderr text)."""
    out, err = io.StringIO(), stderr if stderr is not None else io.StringIO()
    code = cli.main([str(a) for a in argv], stdout=out, stderr=err)
    return code, out.getvalue(), err.getvalue()


def run_json(*argv):
    code, out, err = run_cli(*argv, "--json")
    assert SECRET not in out + err
    lines = out.strip().splitlines()
    assert len(lines) == 1, out
    return code, json.loads(lines[0]), err


def closed_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def cli_process(*argv, **kwargs):
    return subprocess.Popen([sys.executable, "-m", "tidewright.cli", *map(str, argv)], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, **kwargs)


def status_line(text, label):
    """The value of one line of the human ``status`` output ("label   value")."""
    for line in text.splitlines():
        if line.startswith(label + " "):
            return line[len(label):].strip()
    raise AssertionError(f"no {label!r} line in {text!r}")


def flip_first_byte(path):
    data = bytearray(path.read_bytes())
    data[0] ^= 0xFF
    path.write_bytes(bytes(data))


def test_sync_verify_status_repair_round_trip(service, data_dir, tmp_path):
    token_file = tmp_path / "token"
    token_file.write_text(SECRET + "\n")
    common = ("--server", service.url, "--data-dir", data_dir, "--token-file", token_file, "-vv")
    manifest = service.manifest()
    # Retries and a repair, so that -vv has events to print (never the token).
    service.add_fault("/data/manifest", "status", status=503)
    service.add_fault("/data/files/*px000*", "corrupt")

    code, out, err = run_json("sync", *common, "--verify")
    assert code == 0, err
    assert out["ok"] and out["command"] == "sync"
    assert (out["era_number"], out["version"]) == (1, 1)
    assert out["files"] == len(manifest["files"])
    assert out["bytes"] == sum(e["size_bytes"] for e in manifest["files"].values())
    assert out["bytes_downloaded"] > 0 and out["files_downloaded"] > 0
    assert out["verify"] == {"valid": True, "corrupted_files": [], "missing_files": []}

    features = sorted(p for p, e in manifest["files"].items() if e["kind"] == "feature")
    flip_first_byte(data_dir / features[0])
    (data_dir / features[1]).unlink()
    code, out, err = run_json("verify", "--data-dir", data_dir)
    assert code == cli.EXIT_INTEGRITY
    assert out["error"]["corrupted_files"] == [features[0]] and out["error"]["missing_files"] == [features[1]]
    assert "repair" in err and len(err.strip().splitlines()) == 1

    code, out, err = run_json("repair", *common)
    assert code == 0, err
    assert sorted(out["repaired"]) == features[:2] and out["valid"]
    assert (data_dir / features[1]).read_bytes() == service.file_bytes(None, features[1])

    code, out, _ = run_json("sync", *common)
    assert code == 0 and out["bytes_downloaded"] == 0

    code, out, _ = run_json("repair", *common, "no/such/file.arrow")
    assert code == cli.EXIT_USAGE


def test_human_output_shows_summary_and_progress_moves_within_one_file(dataservice_factory, data_dir, monkeypatch):
    # One 1 MiB file served at 2 MiB/s: the download lasts at least half a
    # second, so the 0.2 s progress reports must show it part-way.
    svc = dataservice_factory(token=SECRET, features=0, found_signals=0, found_strategies=0, useful_signals=0,
                              large_file_bytes=1 << 20)
    svc.add_fault("/data/files/*large*", "slow", count=None, bytes_per_second=2 << 20)
    monkeypatch.setitem(sys.modules, "tqdm", None)  # the plain progress line, without tqdm

    class Terminal(io.StringIO):
        def isatty(self):
            return True

    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    code, out, err = run_cli("sync", "--server", svc.url, "--data-dir", data_dir, stderr=Terminal())
    assert code == 0, err
    assert "downloaded" in out and "MB/s" in out
    lines = [line.strip() for line in err.split("\r") if line.strip().startswith("download")]
    percents = [float(line.split()[1].rstrip("%")) for line in lines]
    assert any(0 < p < 100 for p in percents), lines
    assert percents[-1] == 100.0 and lines[-1].endswith("files 2/2")
    assert SECRET not in out + err


def test_refusals_get_their_exit_code_and_one_line(service, data_dir, tmp_path, monkeypatch):
    # (a token the service refuses: "all-401" below)
    url = service.url
    code, _, err = run_cli("sync", "--server", url, "--data-dir", data_dir)
    assert code == cli.EXIT_AUTH and "no token" in err

    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    missing = tmp_path / "missing"
    code, _, err = run_cli("sync", "--server", url, "--data-dir", missing)
    assert code == cli.EXIT_USAGE and "does not exist" in err and not missing.exists()
    a_file = tmp_path / "file"
    a_file.write_text("")
    assert run_cli("sync", "--server", url, "--data-dir", a_file)[0] == cli.EXIT_USAGE
    assert run_cli("sync", "--server", url, "--data-dir", data_dir, "--token", "x", "--token-file", a_file)[0] == \
        cli.EXIT_USAGE
    assert run_cli("sync", "--server", "http://example.com", "--data-dir", data_dir)[0] == cli.EXIT_USAGE

    code, _, err = run_cli("verify", "--data-dir", data_dir)
    assert code == cli.EXIT_ERA and "sync" in err


def test_unreachable_service_gives_up_with_exit_4(data_dir):
    url = f"http://127.0.0.1:{closed_port()}"
    proc = cli_process("sync", "--server", url, "--data-dir", data_dir, "--give-up-after", "0", "--json",
                       env={**os.environ, cli.TOKEN_ENV: SECRET})
    out, err = proc.communicate(timeout=120)
    assert proc.returncode == cli.EXIT_UNAVAILABLE, err
    assert json.loads(out)["error"]["kind"] == "unavailable"
    assert "cannot reach the data service" in err and "--server" in err
    assert SECRET not in out + err
    assert os.listdir(data_dir) == []


def test_a_new_era_on_the_service_is_refused_with_exit_7(service, data_dir, monkeypatch):
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    assert run_cli("sync", "--server", service.url, "--data-dir", data_dir)[0] == 0
    before = (data_dir / "manifest.json").read_bytes()
    service.publish_era()
    code, out, err = run_json("sync", "--server", service.url, "--data-dir", data_dir)
    assert code == cli.EXIT_ERA and out["error"]["kind"] == "era_manifest"
    assert "another era" in err and "watch" in err
    assert (data_dir / "manifest.json").read_bytes() == before
    assert run_json("verify", "--data-dir", data_dir)[0] == 0


@pytest.mark.parametrize("signum, expected, word", [(signal.SIGINT, cli.EXIT_INTERRUPTED, "interrupted"),
                                                     (signal.SIGTERM, cli.EXIT_TERMINATED, "terminated")])
def test_a_stopped_sync_exits_promptly_and_the_next_one_resumes(dataservice_factory, data_dir, signum, expected,
                                                                 word):
    svc = dataservice_factory(token=SECRET, features=4, feature_bytes=256 * 1024)
    svc.add_fault("/data/files/features/*", "stall", count=None, after_bytes=100 * 1024)
    proc = cli_process("sync", "--server", svc.url, "--data-dir", data_dir, "--token", SECRET,
                       env={**os.environ, "PYTHONUNBUFFERED": "1"})
    assert wait_for(lambda: svc.requests_for("/data/files/features/*") or proc.poll() is not None), "no download"
    assert proc.poll() is None

    code, status, _ = run_json("status", "--data-dir", data_dir)
    assert code == 0 and status["sync_running"] is True
    assert status["sync"]["files_total"] >= 4 and status["sync"]["files_done"] < status["sync"]["files_total"]
    code, out, _ = run_cli("status", "--data-dir", data_dir)
    assert code == 0 and status_line(out, "sync").startswith("running: era 1 version 1, ")

    proc.send_signal(signum)
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == expected, err
    assert word in err and "Traceback" not in err and SECRET not in out + err
    assert not (data_dir / "manifest.json").exists()
    assert run_json("status", "--data-dir", data_dir)[1]["sync_running"] is False
    assert status_line(run_cli("status", "--data-dir", data_dir)[1], "sync").startswith(
        "interrupted (resumes on the next sync): era 1 version 1, ")

    svc.clear_faults()
    code, out, err = run_json("sync", "--server", svc.url, "--data-dir", data_dir, "--token", SECRET, "--verify")
    assert code == 0 and out["verify"]["valid"], err
    assert run_json("status", "--data-dir", data_dir)[1]["sync"] is None


class WatchedManager:
    """A real manager with acquire()/release() standing in for the engine's own."""

    def __init__(self, manager):
        self._manager = manager
        self.calls = []

    def __getattr__(self, name):
        return getattr(self._manager, name)

    def acquire(self):
        self.calls.append("acquire")

    def release(self):
        self.calls.append("release")


def test_watch_reports_new_versions_and_releases_on_ctrl_c(service, data_dir, monkeypatch):
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    made = []
    real_manager = cli.Run.manager

    def manager(self, **kwargs):
        made.append(WatchedManager(real_manager(self, **kwargs)))
        return made[-1]

    monkeypatch.setattr(cli.Run, "manager", manager)
    out = io.StringIO()

    failed = []

    def engine_and_user():
        # The engine's poll thread picks up a new version; then the user presses Ctrl-C
        # (also when a step failed: the watch must end either way).
        try:
            assert wait_for(lambda: made and made[0].calls == ["acquire"]), "no acquire"
            service.set_version(touch=[next(iter(service.manifest()["files"]))])
            made[0].sync()
            assert wait_for(lambda: "version 2" in out.getvalue()), "the new version was not reported"
        except BaseException as exc:  # noqa: BLE001 - re-raised in the test's thread
            failed.append(exc)
        finally:
            _thread.interrupt_main()

    helper = threading.Thread(target=engine_and_user, daemon=True)
    helper.start()
    code = cli.main(["watch", "--server", service.url, "--data-dir", str(data_dir)], stdout=out,
                    stderr=io.StringIO())
    helper.join()
    if failed:
        raise failed[0]
    assert code == cli.EXIT_INTERRUPTED
    assert made[0].calls == ["acquire", "release"]
    assert "watching" in out.getvalue() and "now at era 1 version 2" in out.getvalue()


def test_demo_syncs_verifies_and_summarises(tmp_path):
    target = tmp_path / "demo"
    code, out, err = run_json("demo", "--data-dir", target, "--features", "3", "--feature-bytes", "8K",
                              "--large-file-bytes", "64K")
    assert code == 0, err
    assert out["verify"]["valid"] and out["bytes_downloaded"] > 64 * 1024
    assert out["resync"]["bytes_downloaded"] == 0
    assert (target / "manifest.json").exists()


# -- hostile servers, odd command lines, closed outputs ----------------------------------------------------


@pytest.fixture
def one_feature(dataservice_factory):
    svc = dataservice_factory(token=SECRET, features=1, found_signals=0, found_strategies=0, useful_signals=0)
    return svc, next(p for p, e in svc.manifest()["files"].items() if e["kind"] == "feature")


PATHS = {"file": None, "manifest": "/data/manifest", "version": "/data/manifest/version", "all": "*"}


def fault(where, kind, **options):
    """Breaks every answer at ``where`` ("file": the one feature file); kind
    "redirect" sends each request back to its own URL."""
    def apply(svc, feature):
        path = PATHS[where] or "/data/files/" + feature
        if kind == "redirect":
            svc.add_fault(path, "status", status=302, set_headers={"Location": svc.url + path}, count=None)
        else:
            svc.add_fault(path, kind, **{"count": None, **options})
    return apply


def too_big(svc, feature):
    svc.set_version(entry_overrides={feature: {"size_bytes": 1 << 60}})


# (break the service, exit code, error kind, words on stderr, where the message
# points, fields of the JSON error)
FAILURES = {
    "disk-space": (too_big, cli.EXIT_DISK_SPACE, "disk_space", "disk space", None),
    # The service says not to retry: the engine gives up at once.
    "not-retryable": (fault("version", "status", status=503, retryable=False, reason="maintenance", count=1),
                      cli.EXIT_UNAVAILABLE, "unavailable", "reason=maintenance", None, {"statuses": [503]}),
    # Transient answers are retried until the give-up time.
    "version-503": (fault("version", "status", status=503), cli.EXIT_UNAVAILABLE, "unavailable",
                    "kept answering HTTP 503", None),
    "file-503": (fault("file", "status", status=503), cli.EXIT_UNAVAILABLE, "unavailable",
                 "kept answering HTTP 503", None),
    "corrupt-file": (fault("file", "corrupt"), cli.EXIT_INTEGRITY, "integrity", "verification", None),
    "range-refused": (fault("file", "status", status=416), cli.EXIT_ERA, "era_manifest", "HTTP 416", "file"),
    "wrong-content-range": (fault("file", "bad_content_range"), cli.EXIT_ERA, "era_manifest", "", "file"),
    "file-redirect-loop": (fault("file", "redirect"), cli.EXIT_ERA, "era_manifest", "redirect (HTTP 302", "file"),
    "manifest-redirect-loop": (fault("manifest", "redirect"), cli.EXIT_ERA, "era_manifest", "redirect (HTTP 302",
                               "manifest"),
    "all-401": (fault("all", "status", status=401), cli.EXIT_AUTH, "auth", "refused the token", None),
    "all-403": (fault("all", "status", status=403), cli.EXIT_AUTH, "auth", "HTTP 403", None),
}


@pytest.mark.parametrize("break_service, code, kind, words, named, details",
                         [case if len(case) == 6 else case + ({},) for case in FAILURES.values()], ids=FAILURES.keys())
def test_each_failure_gets_its_exit_code_and_one_line(one_feature, data_dir, monkeypatch, break_service, code, kind,
                                                      words, named, details):
    svc, feature = one_feature
    break_service(svc, feature)
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    code_, out, err = run_json("sync", "--server", svc.url, "--data-dir", data_dir, "--give-up-after", "0")
    assert (code_, out["error"]["kind"]) == (code, kind), err
    assert words in err and len(err.strip().splitlines()) == 1, err
    if named:  # a wrong answer names what was asked for
        assert (feature if named == "file" else "/data/manifest") in err
    assert "cannot reach" not in err
    assert not (data_dir / "manifest.json").exists() and not (data_dir / feature).exists()
    assert {key: out["error"][key] for key in details} == details


@pytest.mark.parametrize("extra_files, named", [
    ({"pa": ("misc", b"x"), "pa.tmp/b": ("misc", b"y")}, "pa.tmp"),
    ({"q/r": ("misc", b"x"), "q": ("misc", b"y")}, "q"),
    ({"n" * 253: ("misc", b"x")}, "n" * 253),
], ids=["staging-name-taken-by-a-directory", "file-and-directory-of-one-name", "name-too-long"])
def test_manifest_paths_the_directory_cannot_hold_are_a_manifest_problem(dataservice_factory, data_dir,
                                                                        monkeypatch, extra_files, named):
    svc = dataservice_factory(token=SECRET, features=1, extra_files=extra_files)
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    code, out, err = run_json("sync", "--server", svc.url, "--data-dir", data_dir)
    # Keys that collide are refused when the manifest is read; a name the file
    # system cannot hold is found when it is written. Both name the path.
    assert code == cli.EXIT_ERA, err
    assert named in err and (named in out["error"].get("path", "") or "paths collide" in err), err
    assert "Traceback" not in err and len(err.strip().splitlines()) == 1
    assert not (data_dir / "manifest.json").exists()


@pytest.mark.parametrize("argv", [
    ["sync", "--no-such-option"],
    ["no-such-command"],
    ["sync", "--give-up-after", "nan"],
    ["sync", "--give-up-after", "-5"],
    ["sync", "--give-up-after", "inf"],
    ["sync", "--concurrency", "0"],
    ["sync", "--market", "0"],
    ["sync", "--market", "abc"],
    ["sync", "--chunk-bytes", "0"],
    ["sync", "--chunk-bytes", "lots"],
    ["sync", "--transport", "ftp"],
])
def test_usage_errors_are_reported_as_json_too(argv, data_dir):
    code, out, err = run_json(*argv, "--data-dir", data_dir)
    assert code == cli.EXIT_USAGE
    assert out["ok"] is False and out["exit_code"] == cli.EXIT_USAGE and out["error"]["kind"] == "usage"
    assert out["error"]["message"] in err and "usage:" in err


def test_a_data_directory_behind_an_unsearchable_parent_is_not_called_missing(tmp_path, monkeypatch):
    # As root the kernel lets every search through; the answer a user gets is made here.
    hidden = tmp_path / "locked" / "data"
    real_stat = os.stat

    def stat(path, *args, **kwargs):
        if os.fspath(path) == str(hidden):
            raise PermissionError(13, "Permission denied", str(hidden))
        return real_stat(path, *args, **kwargs)

    monkeypatch.setattr(cli.os, "stat", stat)
    code, out, err = run_json("verify", "--data-dir", hidden)
    assert code == cli.EXIT_USAGE
    assert "permission denied" in err and "does not exist" not in err


@pytest.mark.parametrize("argv", [["status"], ["status", "--json"]], ids=["human", "json"])
@pytest.mark.parametrize("closed", ["pipe", "descriptor"])
def test_a_closed_stdout_ends_the_command_quietly(data_dir, argv, closed):
    read_end, write_end = os.pipe()
    os.close(read_end)  # whoever was to read has gone, as with "| head -0"
    try:
        proc = subprocess.Popen([sys.executable, "-m", "tidewright.cli", *argv, "--data-dir", str(data_dir)],
                                stdout=write_end, stderr=subprocess.PIPE, text=True,
                                preexec_fn=(lambda: os.close(1)) if closed == "descriptor" else None)
    finally:
        os.close(write_end)
    _, err = proc.communicate(timeout=120)
    assert proc.returncode == cli.EXIT_STDOUT_CLOSED and err == ""


def test_at_default_verbosity_a_failure_is_one_line_of_words(dataservice_factory, data_dir, monkeypatch):
    svc = dataservice_factory(token=SECRET)
    # The outage report is a warning-level sync event when the service asks for an operator.
    svc.add_fault("/data/manifest/version", "status", status=503, count=None, recovery="operator_fix_required")
    monkeypatch.setenv(cli.TOKEN_ENV, SECRET)
    for verbosity, events_shown in (([], False), (["-v"], True)):
        code, _, err = run_cli("sync", "--server", svc.url, "--data-dir", data_dir, "--give-up-after", "0",
                               *verbosity)
        assert code == cli.EXIT_UNAVAILABLE and err.strip().splitlines()[-1].startswith("tidewright-sync: ")
        assert ("tidewright_sync_event" in err) == events_shown, err
        assert len(err.strip().splitlines()) == 1 or events_shown


@pytest.mark.parametrize("content", [SECRET + "\nsecond-line\n", SECRET + "\r\n" + SECRET + "\n", SECRET + "\0\n"])
def test_a_token_file_with_more_than_the_token_is_refused_before_any_request(service, data_dir, tmp_path, content):
    token_file = tmp_path / "token"
    token_file.write_text(content)
    code, out, err = run_json("sync", "--server", service.url, "--data-dir", data_dir, "--token-file", token_file)
    assert code == cli.EXIT_AUTH and out["error"]["kind"] == "auth"
    assert str(token_file) in err and "one line" in err
    assert service.requests == []


def test_the_diagnosis_probe_is_bounded_by_its_timeout_however_slowly_the_head_trickles():
    lines = []

    def trickle(exchange):
        exchange.send(b"HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\n")
        while True:  # each line well within a read timeout, the head never complete
            exchange.wait(0.3)
            exchange.send(b"X-Trickle: .\r\n")
            lines.append(exchange.path)

    with RawHttpServer() as srv:
        srv.route("/slow", trickle)
        srv.route("/redirect", lambda ex: ex.head(302, [("Location", "/elsewhere"), ("Connection", "close")]))
        assert cli.probe_http(srv.url("/redirect"), timeout=5) == {"status": 302, "location": "/elsewhere"}
        assert cli.probe_http(srv.url("/slow"), timeout=1) is None
    # The probe left long before a limit on the number of header lines could end it.
    assert len(lines) < 50


# -- options a user sets on the command line --------------------------------------------------------------


def test_version_names_the_installed_package():
    script = os.path.join(os.path.dirname(sys.executable), "tidewright-sync")
    proc = subprocess.run([script, "--version"], capture_output=True, text=True, timeout=120)
    assert proc.returncode == 0 and proc.stderr == ""
    assert proc.stdout == f"tidewright-sync {importlib.metadata.version('tidewright')}\n"


# state -> lines of the human output (label: start of the value)
STATUS_LINES = {
    "never synced": {"manifest": "none (never synced)", "sync": "idle", "consumers": "0"},
    "sync starting elsewhere": {"manifest": "none (never synced)", "sync": "running (no download yet)"},
    "synced": {"manifest": "era 1, version 1, {files} files, ", "sync": "idle", "consumers": "0"},
    "in use during a transition": {"sync": "idle", "consumers": "2", "era transition": "in progress"},
}


@pytest.mark.parametrize("state, lines", STATUS_LINES.items(), ids=STATUS_LINES.keys())
def test_status_tells_what_the_directory_holds(service, data_dir, state, lines):
    manifest = service.manifest()
    synced = state in ("synced", "in use during a transition")
    if synced:
        assert run_cli("sync", "--server", service.url, "--data-dir", data_dir, "--token", SECRET)[0] == 0
    if state == "in use during a transition":
        (data_dir / ".consumer_count").write_text("2")
        (data_dir / ".transition_lock").write_text(str(os.getpid()))
    with contextlib.ExitStack() as held:
        if state == "sync starting elsewhere":
            # A sync that holds the directory's lock and has not started downloading yet.
            fd = os.open(data_dir / ".sync_flock", os.O_RDWR | os.O_CREAT)
            held.callback(os.close, fd)
            fcntl.flock(fd, fcntl.LOCK_EX)
        # status asks neither the service nor for a token: a --server it cannot use is no matter.
        code, status, err = run_json("status", "--data-dir", data_dir, "--server", "not a url")
        human_code, human, human_err = run_cli("status", "--data-dir", data_dir)
    assert (code, err, human_code, human_err) == (0, "", 0, "")
    assert (status["era_number"], status["version"]) == ((1, 1) if synced else (None, None))
    assert status["files"] == (len(manifest["files"]) if synced else 0)
    assert status["bytes"] == (sum(e["size_bytes"] for e in manifest["files"].values()) if synced else 0)
    assert (status["synced_at"] is not None) == synced
    assert status["sync"] is None
    assert status["sync_running"] == (state == "sync starting elsewhere")
    assert status["consumer_count"] == (2 if state == "in use during a transition" else 0)
    assert status["in_transition"] == (state == "in use during a transition")
    assert status_line(human, "data directory") == str(data_dir)
    for label, value in lines.items():
        assert status_line(human, label).startswith(value.format(files=len(manifest["files"]))), human
    assert ("era transition" in human) == ("era transition" in lines)


def refuse_constant(constant):
    raise ValueError(f"not JSON: {constant}")


@pytest.mark.parametrize("text", ['{"era_number": NaN, "version": Infinity, "files": {}}',
                                  '{"era_number": -3, "version": 1, "files": {}}'], ids=["nan", "negative-era"])
def test_status_and_verify_agree_on_a_manifest_the_engine_cannot_use(data_dir, text):
    (data_dir / "manifest.json").write_text(text)
    code, out, _ = run_cli("status", "--data-dir", data_dir, "--json")
    status = json.loads(out, parse_constant=refuse_constant)  # strict JSON, whatever the file holds
    assert code == 0 and (status["era_number"], status["version"]) == (None, None)
    code, out, err = run_cli("status", "--data-dir", data_dir)
    assert code == 0 and status_line(out, "manifest") == "none (never synced)"
    assert "manifest" in err  # the engine's warning says why
    code, out, err = run_json("verify", "--data-dir", data_dir)
    assert code == cli.EXIT_ERA and "holds no manifest" in out["error"]["message"]


@pytest.mark.parametrize("transport", ["urllib", "curl"])
def test_transport_and_chunk_size_are_the_ones_asked_for(dataservice_factory, data_dir, tmp_path, monkeypatch,
                                                         transport):
    # With "curl" the curl program fetches the public files (over https only).
    svc = dataservice_factory(token=SECRET, features=2, large_file_bytes=48 * 1024, tls=True, public_files=True)
    monkeypatch.setenv("SSL_CERT_FILE", svc.ca_file)
    monkeypatch.setenv("CURL_CA_BUNDLE", svc.ca_file)
    curl_runs = record_curl_runs(tmp_path, monkeypatch)
    code, out, err = run_json("sync", "--server", svc.url, "--data-dir", data_dir, "--token", SECRET,
                              "--transport", transport, "--chunk-bytes", "16K", "--verify")
    assert code == 0 and out["verify"]["valid"], err
    big = [r for r in svc.requests_for("/data/files/*") if "large" in r.path]
    assert sorted(r.range for r in big) == ["bytes=0-16383", "bytes=16384-32767", "bytes=32768-49151"]
    assert len([line for line in curl_runs() if "large" in line]) == (3 if transport == "curl" else 0)


def test_market_is_the_one_the_shuffle_seed_is_kept_for(dataservice_factory, data_dir):
    # A manifest without its market: the seed is recorded for the market the user names.
    svc = dataservice_factory(token=SECRET, market_id=3, manifest_overrides={"market_id": None})
    seed_meta = data_dir / "shuffle_seed.enc.meta.json"
    common = ("--server", svc.url, "--data-dir", data_dir, "--token", SECRET)
    assert run_json("sync", *common, "--market", "3")[0] == 0
    assert json.loads(seed_meta.read_text())["market_id"] == 3
    seed_requests = len(svc.requests_for("/data/shuffle"))
    assert run_json("sync", *common, "--market", "3")[0] == 0
    assert len(svc.requests_for("/data/shuffle")) == seed_requests
    # Another market's seed is not this one's: fetched again and recorded anew.
    code, _, err = run_cli("sync", *common)
    assert code == 0 and "market_id=3 does not match manifest market_id=1" in err
    assert json.loads(seed_meta.read_text())["market_id"] == 1
    assert len(svc.requests_for("/data/shuffle")) == seed_requests + 1


@pytest.mark.parametrize("flags, progress_shown, warnings_shown", [
    ((), False, True),
    (("--progress",), True, True),
    (("-q",), False, False),
    (("-q", "--progress"), False, False),
])
def test_quiet_and_progress_decide_what_reaches_stderr(service, data_dir, flags, progress_shown, warnings_shown):
    # stderr is not a terminal here: progress only when asked for, never with -q.
    common = ("--server", service.url, "--data-dir", data_dir, "--token", SECRET)
    assert run_cli("sync", *common)[0] == 0
    feature = sorted(p for p, e in service.manifest()["files"].items() if e["kind"] == "feature")[0]
    flip_first_byte(data_dir / feature)  # repaired by the next sync, with a warning
    code, out, err = run_cli("sync", *common, *flags)
    assert code == 0 and "downloaded 1 files" in out
    assert ("download:" in err) == progress_shown, err
    assert ("WARNING" in err) == warnings_shown, err
    assert (data_dir / feature).read_bytes() == service.file_bytes(None, feature)
    if "-q" in flags:
        assert err == ""
