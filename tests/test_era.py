"""The era-current endpoint, the era thread and era transitions against the data service."""

import importlib
import json
import logging
import os
import re
import signal
import subprocess
import sys
import textwrap

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import tidewright.sync as sync
from sync_helpers import assert_in_step, manager, request_budget, tree, wait_for

ERA_CURRENT = "/market/1/era/current"
SAME = b"identical in both eras"
HINT = "Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/tidewright-*.whl"


@pytest.fixture
def svc(dataservice_factory):
    """Era 1 with a file that era 2 keeps unchanged and one that era 2 drops."""
    return dataservice_factory(extra_files={"shared/same.bin": ("data", SAME), "old/only.bin": ("data", b"era 1")})


def synced(svc, data_dir, poll_interval_s=3600.0):
    m = sync.SyncManager.get_or_create(str(data_dir), svc.url, lambda: svc.token, poll_interval_s=poll_interval_s)
    assert m.sync().era_number == 1
    return m


def publish_next(svc, era=None, **fields):
    return svc.publish_era(era, extra_files={"shared/same.bin": ("data", SAME)}, **fields)


def leftovers(data_dir):
    """Transition and download debris in the data directory."""
    found = [n for n in os.listdir(data_dir) if n.startswith((".transition_", ".sync_flock"))]
    for root, _, files in os.walk(data_dir):
        found += [os.path.join(root, f) for f in files if f.endswith(".tmp")]
    return found


def assert_era_files(svc, data_dir, m, era):
    assert m.get_manifest().era_number == era
    assert json.loads((data_dir / "manifest.json").read_text())["era_number"] == era
    for path in svc.manifest(era)["files"]:
        assert (data_dir / path).read_bytes() == svc.file_bytes(era, path), path
    assert m.verify().valid


# -- the endpoint -----------------------------------------------------------------

@pytest.mark.parametrize("answer, config", [
    ({"era": None, "state": "closing"}, {"era_number": None, "state": "closing"}),
    ({"era": None}, {"era_number": None, "state": "between_eras"}),
    ({"era": "x"}, {"era_number": None, "state": "between_eras"}),
    ({"era": {"era_number": 7}, "state": "closing"}, {"era_number": 7, "state": "closing"}),
    ({"era": {"era_number": 7, "state": "active"}, "state": "closing"}, {"era_number": 7, "state": "active"}),
    ({"era": {"era_number": 7}, "state": None}, {"era_number": 7}),
    ([1, 2], {}),
    ("text", {}),
    ({"era_number": 3, "state": "active"}, {"era_number": 3, "state": "active"}),  # flat: taken as it is
])
def test_era_current_answers_normalise(answer, config):
    assert sync._normalize_era_current_response(answer) == config


def era_directory_id(name):
    """The era number of a directory name as the host's int() reads it."""
    rest = name[4:] if name.startswith("era_") else name[3:] if name.startswith("era") else ""
    if not rest.isdecimal():
        return None
    number = int(rest)
    return number if number < 2**63 else None


@settings(max_examples=100, deadline=None)
@given(st.sampled_from(["era_", "era", "er", ""]),
       st.text(st.characters(whitelist_categories=("Nd",)) | st.sampled_from("_ x\u00b2-"), max_size=21))
def test_era_directory_numbers_are_read_like_int(prefix, rest):
    assert sync._parse_era_directory_id(prefix + rest) == era_directory_id(prefix + rest)


# -- the era thread -------------------------------------------------------------------

def test_era_thread_lifecycle(svc, data_dir):
    m = sync.SyncManager(str(data_dir), svc.url, lambda: svc.token)  # no manifest yet

    def kill():
        pass

    thread = sync.EraThread(svc.url, lambda: svc.token, m, era_poll_interval_s=3600, kill_searches_fn=kill,
                            market_id="1")
    thread.stop()  # not started: nothing to do
    thread.start()
    with pytest.raises(sync.StateError):
        thread.start()
    assert thread.is_alive()
    assert wait_for(lambda: svc.requests_for(ERA_CURRENT))  # polls at once
    assert thread._last_known_era_number is None  # no manifest: no new-era transitions
    thread.stop()
    assert not thread.is_alive()
    m.sync()
    thread.start()  # a stopped thread starts again, now knowing the held era
    assert thread._last_known_era_number == 1
    thread.stop()


@pytest.mark.parametrize("body, logged", [
    (b"not json", "Era poll failed: "),
    (b"\xff\xfe", "Era poll failed: "),
    ({"state": "active"}, "Trigger era transition (new era) failed: "),
    ({"era_number": "two", "state": "active"}, "Trigger era transition (new era) failed: "),
    ({"era_number": 1.5, "state": "active"}, "Trigger era transition (new era) failed: "),
    ({"era": 2}, "Trigger era transition (new era) failed: "),
    ({"era_number": 1, "state": "paused"}, None),
    ([{"era_number": 2}], "Trigger era transition (new era) failed: "),
])
def test_strange_answers_leave_the_thread_running_and_nothing_switched(svc, data_dir, caplog, body, logged):
    m = synced(svc, data_dir)
    thread = sync.EraThread(svc.url, lambda: svc.token, m, era_poll_interval_s=0.05)
    caplog.set_level(logging.INFO, logger="tidewright.sync")
    thread.start()
    try:
        svc.clear_requests()
        svc.add_fault(ERA_CURRENT, "status", status=200, body=body, count=None)
        assert wait_for(lambda: len(svc.requests_for(ERA_CURRENT)) >= 3)
        assert thread.is_alive()
    finally:
        thread.stop()
    messages = [r.getMessage() for r in caplog.records if r.name == "tidewright.sync"]
    if logged:
        assert any(msg.startswith(logged) for msg in messages), messages
    else:
        assert not any("failed" in msg for msg in messages), messages
    assert thread._last_known_era_number == 1 and m.get_manifest().era_number == 1
    assert not svc.requests_for("/data/manifest") and leftovers(data_dir) == []


def test_closing_is_handled_once_and_a_cancelled_close_restarts_searches(svc, data_dir, caplog):
    m = synced(svc, data_dir)
    calls = []
    thread = sync.EraThread(svc.url, lambda: svc.token, m, kill_searches_fn=lambda: calls.append("kill"),
                            restart_searches_fn=lambda: calls.append("restart"))
    thread._last_known_era_number = 1
    caplog.set_level(logging.INFO, logger="tidewright.sync")

    svc.set_era_state(next_closing_at="2031-01-01T00:00:00Z")
    thread._poll_once()
    assert "Scheduled close announced at 2031-01-01T00:00:00Z. Continue normal operation." in caplog.messages
    assert calls == []

    svc.set_era_state("closing")
    thread._poll_once()
    thread._poll_once()  # a second "closing" starts nothing
    assert calls == ["kill"]
    assert "Trigger era transition (closing) failed: Active era confirmation for era_number=1 returned " \
           "state='closing'" in caplog.messages
    assert m.get_manifest().era_number == 1 and leftovers(data_dir) == [] and not m._in_transition
    # The gate takes a closing era only when asked to.
    assert m._fetch_active_era_for_transition(allow_closing=True)[0] == 1
    assert m._confirm_active_era("1", allow_closing=True)["state"] == "closing"

    svc.set_era_state("active", next_closing_at=None)
    thread._poll_once()
    assert calls == ["kill", "restart"] and not thread._in_closing
    assert "Era transition cancelled \u2014 resuming normal operation." in caplog.messages

    def failing_restart():
        raise RuntimeError("no searches to restart")

    other = sync.EraThread(svc.url, lambda: svc.token, m, restart_searches_fn=failing_restart)
    other._last_known_era_number = 1
    other._in_closing = True
    other._poll_once()
    assert not other._in_closing
    assert "Restart searches callback failed: no searches to restart" in caplog.messages


class StandInManager:
    """Something with the sync manager's interface that is not a SyncManager."""

    def __init__(self, era_number, how, fail=False):
        self.calls = []
        self.fail = fail
        manifest = None if era_number is None else sync.Manifest({"era_number": era_number})
        if how == "get_manifest":
            self.get_manifest = lambda: manifest
        else:
            self._manifest = manifest

    def trigger_era_transition(self, new_era_number, kill_searches_fn=None, restart_searches_fn=None):
        self.calls.append((new_era_number, kill_searches_fn, restart_searches_fn))
        if self.fail:
            raise RuntimeError("stand-in refuses")


@pytest.mark.parametrize("how", ["get_manifest", "_manifest"])
@pytest.mark.parametrize("fail", [False, True])
def test_an_era_thread_drives_any_object_with_the_managers_interface(svc, data_dir, how, fail):
    def kill():
        pass

    manager = StandInManager(1, how, fail)
    thread = sync.EraThread(svc.url, lambda: svc.token, manager, era_poll_interval_s=3600.0, kill_searches_fn=kill)
    thread.start()  # takes the held era from the stand-in
    thread.stop()
    assert thread._last_known_era_number == 1 and manager.calls == []
    publish_next(svc)
    thread._poll_once()
    assert manager.calls == [(2, kill, None)]
    assert thread._last_known_era_number == (1 if fail else 2)
    assert thread._last_transition_error == ("new era: stand-in refuses" if fail else None)


def test_an_era_thread_refuses_what_cannot_drive_a_transition(svc):
    for not_a_manager in (None, object(), "manager"):
        with pytest.raises(TypeError, match="^sync_manager must be a SyncManager or have its trigger_era_transition"):
            sync.EraThread(svc.url, lambda: svc.token, not_a_manager)


def test_acquired_manager_follows_a_new_era(svc, data_dir, caplog, monkeypatch):
    import tidewright.agent_onboarding

    nudges = []
    monkeypatch.setattr(tidewright.agent_onboarding, "update_nudge", lambda event, **kw: nudges.append((event, kw)))
    m = synced(svc, data_dir, poll_interval_s=0.2)
    events = []

    def broken(event_type, era_number):
        raise RuntimeError(f"callback broke on {event_type}")

    class Listener:
        def on_era(self, event_type, era_number):
            events.append(("listener", event_type, era_number))

    listener = Listener()
    m.register_era_callback(broken)
    m.register_era_callback(lambda event_type, era_number: events.append((event_type, era_number)))
    m.register_era_callback(listener.on_era)
    m.unregister_era_callback(listener.on_era)  # a new bound method object, equal to the registered one
    m.unregister_era_callback(print)  # not registered: silent
    assert len(m._era_callbacks) == 2
    m.acquire()
    publish_next(svc)
    assert wait_for(lambda: ("restart", 2) in events)
    assert events == [("kill", 1), ("restart", 2)]
    assert_era_files(svc, data_dir, m, 2)
    assert wait_for(lambda: nudges == [("era_change", {"new_era_number": 2, "previous_era_number": 1})])
    era_thread = m._era_thread
    assert wait_for(lambda: era_thread._last_known_era_number == 2) and not era_thread._transition_failed
    failures = [r for r in caplog.records if r.getMessage().startswith("Era callback failed")]
    assert [r.getMessage() for r in failures] == ["Era callback failed (kill): callback broke on kill",
                                                 "Era callback failed (restart): callback broke on restart"]
    assert all(r.exc_info and isinstance(r.exc_info[1], RuntimeError) for r in failures)
    m.release()
    assert not era_thread.is_alive() and leftovers(data_dir) == []


# -- transitions ----------------------------------------------------------------------------

def test_transition_stages_switches_and_cleans_up(svc, data_dir, monkeypatch):
    import tidewright.auth
    import tidewright.deployment
    import tidewright.search_tracking

    notified, recorded, tracked = [], [], []
    monkeypatch.setattr(tidewright.auth, "notify_era_change", notified.append)

    class Recorder:
        def record_sync_update(self, **fields):
            recorded.append(fields)

    class Guard:
        def __enter__(self):
            return Recorder()

        def __exit__(self, *exc):
            return False

    monkeypatch.setattr(tidewright.deployment, "runtime_freshness_guard", Guard)

    class Tracker(tidewright.search_tracking.SearchTracker):
        def handle_era_transition(self, **fields):
            tracked.append((self.identity["kind"], fields))

    monkeypatch.setattr(tidewright.search_tracking, "SearchTracker", Tracker)

    m = synced(svc, data_dir)
    os.utime(data_dir / "shared/same.bin", ns=(1_000_000_000, 2_000_000_000))
    for era in (1, 2):  # era directories a host keeps beside the data
        (data_dir / f"era_{era}").mkdir()
        (data_dir / f"era_{era}" / "notes.txt").write_text(f"era {era}")
    publish_next(svc)
    svc.clear_requests()
    calls = []

    def kill():
        calls.append(("kill", m._in_transition, (data_dir / ".transition_lock").read_text()))

    m.trigger_era_transition(2, kill_searches_fn=kill, restart_searches_fn=lambda: calls.append("restart"))
    assert calls == [("kill", True, str(os.getpid())), "restart"]
    assert_era_files(svc, data_dir, m, 2)
    assert not (data_dir / "old/only.bin").exists()
    assert (data_dir / "shared/same.bin").read_bytes() == SAME
    assert (data_dir / "shared/same.bin").stat().st_mtime_ns == 2_000_000_000  # copied with its times
    downloaded = {r.path for r in svc.requests_for("/data/files/*")}
    assert "/data/files/shared/same.bin" not in downloaded and "/data/files/" + next(
        p for p in svc.manifest(2)["files"] if p.startswith("features/")) in downloaded
    assert notified == [2]
    assert tracked == [("local", {"new_era_number": 2, "previous_era_number": 1})]
    assert {r["relative_path"] for r in recorded} == set(svc.manifest(2)["files"])
    assert m.status() == "Era transition to era 2 complete"
    assert not m._in_transition and leftovers(data_dir) == []
    # The previous era's directory goes in the background; the new era's stays.
    assert wait_for(lambda: not (data_dir / "era_1").exists())
    assert (data_dir / "era_2" / "notes.txt").read_text() == "era 2"


@pytest.mark.parametrize("keep_current", [True, False])
def test_cleanup_of_old_eras_frees_what_it_removes_and_nothing_else(svc, data_dir, tmp_path, keep_current):
    m = synced(svc, data_dir)
    for name, size in (("era_1", 10), ("era_2", 200), ("era7", 3000), ("era_x", 5), (".hidden", 7)):
        (data_dir / name / "sub").mkdir(parents=True)
        (data_dir / name / "sub" / "blob").write_bytes(b"x" * size)
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "keep.bin").write_bytes(b"not ours")
    (data_dir / "era_3").symlink_to(outside, target_is_directory=True)
    before = tree(data_dir)

    freed = m.cleanup_old_eras(keep_current=keep_current)

    after = tree(data_dir)
    removed = set(before) - set(after)
    assert freed == sum(len(before[p]) for p in removed)
    assert (outside / "keep.bin").read_bytes() == b"not ours" and (data_dir / "era_3").is_symlink()
    assert ".hidden/sub/blob" in after and ".sync_hash_cache.json" in after
    assert {"era_2/sub/blob", "era7/sub/blob"} <= removed
    if keep_current:
        # Only other eras' directories: the current era, the data and other directories stay.
        assert removed == {"era_2/sub/blob", "era7/sub/blob"}
        assert m.verify().valid
    else:
        # The era's data goes with every directory but the hidden ones: a later sync starts from nothing.
        assert {"era_1/sub/blob", "era_x/sub/blob", "manifest.json", "shuffle_seed.enc"} <= removed
        assert not [p for p in after if "/" in p and not p.startswith(".")]
        assert manager(svc, data_dir).sync().era_number == 1
        assert_in_step(svc, data_dir)


@pytest.mark.parametrize("era_change, fault, error, message", [
    (dict(era_number=3), None, sync.EraError, "Active era_number=3 does not match requested transition era_number=2"),
    (dict(era_number=1), None, sync.EraError, "Active era_number=1 does not match requested transition era_number=2"),
    (dict(state="between_eras"), None, sync.EraError,
     "Active era confirmation for era_number=2 returned state='between_eras'"),
    ({}, (ERA_CURRENT, dict(status=404)), sync.EraError, "Failed to confirm active era: HTTP 404"),
    ({}, (ERA_CURRENT, dict(status=200, body="<html>")), sync.EraError,
     "Failed to parse active era response during transition"),
    ({}, (ERA_CURRENT, dict(status=200, body={"era_number": None, "state": "active"})), sync.EraError,
     "Failed to parse active era response during transition"),
    # The new era's manifest and side files.
    ({}, ("/data/manifest", dict(status=404)), sync.SyncError, "Failed to fetch era 2 manifest: HTTP 404"),
    ({}, ("/data/manifest", dict(status=200, body="<html>")), sync.ManifestError, "Invalid manifest JSON: "),
    (dict(manifest_overrides={"era_number": 3}), None, sync.EraError,
     "Era transition manifest era_number=3 does not match active era_number=2"),
    (dict(manifest_overrides={"era_number": "two"}), None, sync.ManifestError,
     "Manifest era_number must be a non-negative integer: 'two'"),
    ({}, ("/data/files/functions.json", dict(status=404)), sync.PermanentDownloadError,
     "Download failed for functions.json: HTTP 404"),
    ({}, ("/data/shuffle", dict(status=404)), sync.SyncError, "Failed to download shuffle seed: HTTP 404"),
])
def test_gates_refuse_and_leave_the_old_era(svc, data_dir, era_change, fault, error, message):
    m = synced(svc, data_dir)
    overrides = {k: v for k, v in era_change.items() if k == "manifest_overrides"}
    publish_next(svc, **overrides)
    svc.set_era_state(**{k: v for k, v in era_change.items() if k not in overrides})
    if fault:
        svc.add_fault(fault[0], "status", count=None, **fault[1])
    calls = []
    with request_budget(svc), pytest.raises(error) as info:
        m.trigger_era_transition(2, kill_searches_fn=lambda: calls.append("kill"),
                                 restart_searches_fn=lambda: calls.append("restart"))
    assert str(info.value).startswith(message)
    if message.startswith(("Active era", "Failed to confirm", "Failed to parse active")):
        with pytest.raises(error, match="^" + re.escape(message)):  # the gate alone says the same
            m._confirm_active_era(2)
    assert calls == ["kill"]
    assert m.get_manifest().era_number == 1
    assert json.loads((data_dir / "manifest.json").read_text())["era_number"] == 1
    assert (data_dir / "old/only.bin").read_bytes() == b"era 1"
    assert not m._in_transition and leftovers(data_dir) == []
    assert m.status() == "Era transition to era 2 failed: " + str(info.value)


@pytest.mark.parametrize("auto_update, message", [
    (None, "tidewright >= 99.1 required for era 2; auto-update failed: "
           "automatic update is not available in this installation. " + HINT),
    (lambda: {"success": False}, "tidewright >= 99.1 required for era 2; auto-update failed: "
                                 "Could not auto-update to latest.. " + HINT),
    (lambda: 1 / 0, "tidewright >= 99.1 required for era 2; auto-update failed: division by zero. " + HINT),
    (lambda: {"success": True}, "tidewright >= 99.1 required for era 2. " + HINT),
])
def test_an_old_library_refuses_the_era(svc, data_dir, monkeypatch, caplog, auto_update, message):
    import tidewright.deployment

    if auto_update is not None:
        monkeypatch.setattr(tidewright.deployment, "auto_update", auto_update)
    m = synced(svc, data_dir)
    publish_next(svc)
    svc.set_era_state(min_library_version="99.1")
    svc.clear_requests()
    with pytest.raises(tidewright.deployment.LibraryUpdateRequired) as info:
        m.trigger_era_transition(2)
    assert str(info.value) == message
    assert m.get_manifest().era_number == 1 and leftovers(data_dir) == []
    assert not svc.requests_for("/data/manifest")  # refused before the new manifest is fetched

    svc.set_era_state(min_library_version="not-a-version")
    m.trigger_era_transition(2)  # an unreadable minimum does not block the era
    assert "Invalid min_library_version from era config: " in "\n".join(caplog.messages)
    assert_era_files(svc, data_dir, m, 2)


def test_an_interrupt_during_the_auto_update_ends_the_transition_as_an_interrupt(svc, data_dir, monkeypatch):
    import tidewright.deployment

    def interrupted():
        raise KeyboardInterrupt

    monkeypatch.setattr(tidewright.deployment, "auto_update", interrupted)
    m = synced(svc, data_dir)
    publish_next(svc)
    svc.set_era_state(min_library_version="99.1")
    with pytest.raises(KeyboardInterrupt):
        m.trigger_era_transition(2)
    assert m.get_manifest().era_number == 1 and leftovers(data_dir) == []


@pytest.mark.parametrize("module, broken", [
    ("tidewright.search_tracking", None),           # cannot be imported
    ("tidewright.search_tracking", "SearchTracker"),  # imported, without what the transition uses
    ("tidewright.deployment", None),
])
def test_a_missing_sibling_module_fails_the_transition_before_anything_changes(svc, data_dir, monkeypatch, module,
                                                                              broken):
    m = synced(svc, data_dir)
    publish_next(svc)
    if broken:
        monkeypatch.delattr(importlib.import_module(module), broken)
    else:
        monkeypatch.setitem(sys.modules, module, None)
    svc.clear_requests()
    calls = []
    with pytest.raises((ImportError, AttributeError)):
        m.trigger_era_transition(2, kill_searches_fn=lambda: calls.append("kill"))
    assert calls == [] and svc.requests == []  # searches untouched, nothing asked of the service
    assert m.get_manifest().era_number == 1 and (data_dir / "old/only.bin").read_bytes() == b"era 1"
    assert not m._in_transition and leftovers(data_dir) == []


def test_a_file_rewritten_in_place_is_recognised_by_its_digest(svc, data_dir):
    # Rewritten in place with its size and times kept: only its digest (or a
    # cache entry that the rewrite invalidated) tells that it changed.
    m = synced(svc, data_dir)
    same = data_dir / "shared/same.bin"
    times = same.stat()
    same.write_bytes(b"X" * len(SAME))
    os.utime(same, ns=(times.st_atime_ns, times.st_mtime_ns))
    publish_next(svc)
    m.trigger_era_transition(2)
    assert svc.requests_for("/data/files/shared/same.bin")
    assert_era_files(svc, data_dir, m, 2)


# A stop request cancels a running transition: the era thread's, when the
# last consumer releases the manager. Wherever that happens, the directory is
# wholly in one era and the error names it.
@pytest.mark.parametrize("stalled, holds", [
    ("/data/files/*", 1),  # while the new era downloads
    (ERA_CURRENT, 2),      # at the check after the switch
])
def test_release_cancels_a_running_transition_and_the_error_names_the_era(svc, data_dir, stalled, holds):
    m = synced(svc, data_dir)
    events = []
    m.register_era_callback(lambda event_type, era_number: events.append((event_type, era_number)))
    publish_next(svc)
    # The era thread polls once (era 2 is new), then the gates of its
    # transition: the fifth answer is the check after the switch.
    svc.add_fault(stalled, "stall", **(dict(skip=4) if stalled == ERA_CURRENT else dict(after_bytes=10)))
    m.acquire()
    era_thread = m._era_thread
    assert wait_for(lambda: any(r.fault == "stall" for r in svc.requests_for(stalled)))
    m.release()
    assert not era_thread.is_alive() and not m._in_transition
    assert os.path.realpath(data_dir) not in sync.SyncManager._instances
    message = (f"Era transition to era 2 cancelled by a stop request; the data directory holds era {holds}; "
               "the searches stopped for it were not restarted")
    assert era_thread._last_transition_error == "new era: " + message
    assert events == [("kill", 1)]
    assert leftovers(data_dir) == []
    again = sync.SyncManager(str(data_dir), svc.url, lambda: svc.token)
    assert_era_files(svc, data_dir, again, holds)
    assert (data_dir / "old/only.bin").exists() == (holds == 1)


def test_a_manager_released_from_inside_its_transition_leaves_the_registry_when_the_transition_ends(svc,
                                                                                                   data_dir):
    m = synced(svc, data_dir)
    registered = []

    def release_on_kill(event_type, era_number):
        if event_type == "kill":
            m.release()
            registered.append(sync.SyncManager._instances.get(os.path.realpath(data_dir)) is m)

    m.register_era_callback(release_on_kill)
    publish_next(svc)
    m.acquire()
    era_thread = m._era_thread
    assert wait_for(lambda: era_thread._transition_failed)
    assert registered == [True]  # kept while the transition ran on
    assert wait_for(lambda: os.path.realpath(data_dir) not in sync.SyncManager._instances)
    assert era_thread._last_transition_error.startswith("new era: Era transition to era 2 cancelled by a stop "
                                                        "request; the data directory holds era 1")
    assert m.get_manifest().era_number == 1 and leftovers(data_dir) == []
    m.unregister_era_callback(release_on_kill)  # it holds the manager


# Era 3 is published while the transition to era 2 runs. Before the files are
# staged or while they are, the attempt is superseded and starts over for era
# 3; a gate that finds era 3 instead of era 2 refuses. Whatever the moment, the
# directory is wholly in one era afterwards, and a transition to era 3 ends it.
GATE_MISMATCH = "Active era_number=3 does not match requested transition era_number=2"


@pytest.mark.parametrize("published_at, after, ends_in, error", [
    (ERA_CURRENT, 1, 1, GATE_MISMATCH),     # the first gate
    (ERA_CURRENT, 2, 3, None),              # the supersede check before staging
    ("/data/files/*", 1, 3, None),          # the first download gets era 3's bytes
    ("/data/files/*", 3, 3, None),
    # the era artifacts, staged after the files
    ("/data/shuffle", 1, 1, "shuffle_seed.enc response era_number=3 does not match manifest era_number=2"),
    (ERA_CURRENT, 3, 1, GATE_MISMATCH),     # the gate before the switch
    (ERA_CURRENT, 4, 2, GATE_MISMATCH),     # the check after the switch
    (ERA_CURRENT, 5, 2, GATE_MISMATCH),     # the check before searches restart
])
def test_a_later_era_published_during_a_transition(svc, data_dir, published_at, after, ends_in, error):
    m = synced(svc, data_dir)
    publish_next(svc)
    svc.on_request(published_at, lambda: publish_next(svc, 3), after=after)
    calls = []
    try:
        m.trigger_era_transition(2, kill_searches_fn=lambda: calls.append("kill"),
                                 restart_searches_fn=lambda: calls.append("restart"))
        raised = None
    except Exception as exc:  # noqa: BLE001 - the type is checked below
        raised = exc
    if error is None:
        assert raised is None and calls == ["kill", "kill", "restart"]
        assert not (data_dir / "old/only.bin").exists()
    else:
        assert isinstance(raised, sync.EraError) and str(raised) == error
        assert calls == ["kill"]
    assert_era_files(svc, data_dir, m, ends_in)
    assert (data_dir / "old/only.bin").exists() == (ends_in == 1)  # one era's files, also when a check failed
    assert sync.SyncManager(str(data_dir), svc.url, lambda: svc.token).verify().valid
    assert not m._in_transition and leftovers(data_dir) == []

    if ends_in != 3:
        m.trigger_era_transition(3)
        assert_era_files(svc, data_dir, m, 3)
        assert leftovers(data_dir) == []


CRASH_CHILD = """
    import sys
    import tidewright.sync as sync
    m = sync.SyncManager(sys.argv[1], sys.argv[2], lambda: sys.argv[3])
    m.trigger_era_transition(2)
"""


def test_a_killed_transition_leaves_the_old_era_and_the_next_one_completes(svc, data_dir):
    m = synced(svc, data_dir)
    old_manifest = (data_dir / "manifest.json").read_bytes()
    publish_next(svc)
    svc.add_fault("/data/files/*", "stall", count=None, skip=2, after_bytes=10)
    child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(CRASH_CHILD), str(data_dir), svc.url, svc.token],
                             stderr=subprocess.PIPE)
    try:
        assert wait_for(lambda: len([r for r in svc.requests_for("/data/files/*") if r.fault == "stall"]) >= 1)
        assert (data_dir / ".transition_era2.tmp").is_dir() and (data_dir / ".transition_lock").exists()
    finally:
        child.send_signal(signal.SIGKILL)
        child.wait(30)
    svc.clear_faults()
    assert (data_dir / "manifest.json").read_bytes() == old_manifest
    again = sync.SyncManager(str(data_dir), svc.url, lambda: svc.token)
    assert again.get_manifest().era_number == 1 and again.verify().valid
    assert (data_dir / "old/only.bin").read_bytes() == b"era 1"

    again.trigger_era_transition(2)
    assert_era_files(svc, data_dir, again, 2)
    assert leftovers(data_dir) == []
