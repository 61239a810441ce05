"""Sync into a file system that is too small for the era, or that fills up
after the disk space check passed. Runs on a small tmpfs mounted by the test,
so it needs root."""

import errno
import json
import os
import subprocess

import pytest

import tidewright.sync as sync
from sync_helpers import BIG, assert_in_step, file_requests, local_bytes, manager, range_starts, request_budget, tmp_files
from tidewright.sync_backoff import SyncBackoffCancelled, backoff_context

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="mounting a tmpfs needs root")

MIB = 1024 * 1024
SHARED_BIG = b"b" * (1200 * 1024)  # more than half the disk of an era


class SmallDisk:
    def __init__(self, mount):
        self.mount = mount
        self.data_dir = mount / "data"
        self.ballast = mount / "ballast"

    def resize(self, size):
        subprocess.run(["mount", "-o", f"remount,size={size}", str(self.mount)], check=True, capture_output=True,
                       timeout=30)

    def fill(self):
        """Takes every free block of the file system."""
        block = b"\0" * (64 * 1024)
        with open(self.ballast, "ab", buffering=0) as handle:
            while True:
                try:
                    handle.write(block)
                except OSError as exc:
                    if exc.errno != errno.ENOSPC:
                        raise
                    break
        for size in (4096, 512, 1):  # tmpfs fills whole pages; take the tail too
            try:
                with open(self.ballast, "ab", buffering=0) as handle:
                    while True:
                        handle.write(b"\0" * size)
            except OSError as exc:
                if exc.errno != errno.ENOSPC:
                    raise


@pytest.fixture
def small_disk(tmp_path):
    mount = tmp_path / "small"
    mount.mkdir()
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "tmpfs", str(mount)], capture_output=True,
                             text=True, timeout=30)
    if mounted.returncode != 0:
        pytest.skip("cannot mount a tmpfs here: " + mounted.stderr.strip())
    try:
        disk = SmallDisk(mount)
        disk.data_dir.mkdir()
        yield disk
    finally:
        if subprocess.run(["umount", str(mount)], capture_output=True, timeout=30).returncode != 0:
            subprocess.run(["umount", "-l", str(mount)], capture_output=True, timeout=30)


def assert_no_wrong_file_under_a_final_name(svc, data_dir):
    for path in svc.manifest()["files"]:
        if (data_dir / path).exists():
            assert local_bytes(data_dir, path) == svc.file_bytes(None, path), path
    assert not (data_dir / "manifest.json").exists()


def test_an_era_larger_than_the_disk_fails_before_any_download_and_completes_once_there_is_room(
        dataservice_factory, small_disk):
    svc = dataservice_factory(features=8, feature_bytes=512 * 1024)
    m = manager(svc, small_disk.data_dir)
    with request_budget(svc), pytest.raises(sync.DiskSpaceError, match="^Insufficient disk space: need "):
        m.sync()
    assert file_requests(svc) == []
    assert os.listdir(small_disk.data_dir) == []

    small_disk.resize("64m")
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, small_disk.data_dir)
    assert m.verify().valid


def test_a_disk_that_fills_during_the_downloads_is_a_disk_space_error_and_the_next_sync_resumes(
        dataservice_factory, small_disk):
    svc = dataservice_factory(features=4, feature_bytes=256 * 1024)  # fits: the check passes
    # Someone else takes the free space while the second feature file downloads.
    svc.on_request("/data/files/features/*", small_disk.fill, after=2)
    m = manager(svc, small_disk.data_dir, sync_max_concurrency=1)
    with request_budget(svc), pytest.raises(sync.DiskSpaceError,
                                            match="^Insufficient disk space while writing ") as info:
        m.sync()
    assert isinstance(info.value, OSError) and info.value.errno == errno.ENOSPC  # what a full disk raises
    assert_no_wrong_file_under_a_final_name(svc, small_disk.data_dir)
    assert m.get_manifest() is None
    assert tmp_files(small_disk.data_dir) != []  # the partial download stays to be resumed

    small_disk.ballast.unlink()
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, small_disk.data_dir)


def test_a_disk_that_is_full_when_the_sync_commits_keeps_the_previous_manifest(dataservice_factory, small_disk):
    svc = dataservice_factory(features=4, feature_bytes=256 * 1024)
    m = manager(svc, small_disk.data_dir)
    with request_budget(svc):
        m.sync()
    committed = local_bytes(small_disk.data_dir, "manifest.json")
    svc.set_version(touch=[p for p in svc.manifest()["files"] if p.startswith("features/")][:1])
    # Every file is in place when the shuffle seed is fetched at the commit.
    svc.on_request("/data/shuffle", small_disk.fill)
    with request_budget(svc), pytest.raises(sync.DiskSpaceError,
                                            match="^Insufficient disk space while writing ") as info:
        m.sync()
    assert info.value.errno == errno.ENOSPC
    assert local_bytes(small_disk.data_dir, "manifest.json") == committed
    assert m.get_manifest().version == 1
    assert json.loads(committed)["version"] == 1

    small_disk.ballast.unlink()
    with request_budget(svc):
        m.sync()
    assert_in_step(svc, small_disk.data_dir)
    assert m.get_manifest().version == 2


def test_an_interrupted_download_resumes_where_the_disk_holds_only_what_is_left_to_fetch(
        dataservice_factory, small_disk):
    small_disk.resize("4m")
    svc = dataservice_factory(features=1, large_file_bytes=3 * MIB)
    staging = small_disk.data_dir / (BIG + ".tmp")
    svc.add_fault("/data/files/" + BIG, "stall", after_bytes=2 * MIB + 12345)
    m = manager(svc, small_disk.data_dir, sync_http_chunk_bytes=16 * MIB)
    stalled = lambda: staging.exists() and staging.stat().st_size >= 2 * MIB + 12345  # noqa: E731
    with backoff_context(stop_requested=stalled), pytest.raises(SyncBackoffCancelled):
        m.sync()
    staged = staging.stat().st_size

    # Room for the rest of the file and the small ones, not for the whole file.
    stat = os.statvfs(small_disk.mount)
    room = 3 * MIB - staged + 256 * 1024
    with open(small_disk.ballast, "wb") as handle:
        handle.truncate(0)
        handle.write(b"\0" * (stat.f_bavail * stat.f_frsize - room))
    svc.clear_requests()
    with request_budget(svc):
        result = m.sync()
    assert_in_step(svc, small_disk.data_dir)
    assert range_starts(svc, BIG) == [staged]
    assert result.bytes_downloaded < 3 * MIB - staged + 256 * 1024


# The new era is staged beside the old one: its downloads and the unchanged
# files copied into staging must both fit.
@pytest.mark.parametrize("era_2", [
    dict(features=8, feature_bytes=512 * 1024),             # too much to download
    dict(extra_files={"shared/big.bin": ("data", SHARED_BIG)}),    # unchanged, but copied into staging
], ids=["downloads", "copies"])
def test_an_era_transition_that_cannot_be_staged_fails_before_staging(dataservice_factory, small_disk, era_2):
    svc = dataservice_factory(extra_files={"shared/big.bin": ("data", SHARED_BIG)})
    m = manager(svc, small_disk.data_dir)
    with request_budget(svc):
        m.sync()
    svc.publish_era(2, **era_2)
    svc.clear_requests()
    calls = []
    with request_budget(svc), pytest.raises(sync.DiskSpaceError, match="^Insufficient disk space: need "):
        m.trigger_era_transition(2, kill_searches_fn=lambda: calls.append("kill"),
                                 restart_searches_fn=lambda: calls.append("restart"))
    assert file_requests(svc) == [] and not svc.requests_for("/data/shuffle")
    assert calls == ["kill"]
    assert sorted(p.name for p in small_disk.data_dir.iterdir() if p.name.startswith(".transition")) == []
    assert m.get_manifest().era_number == 1 and m.verify().valid
    assert tmp_files(small_disk.data_dir) == []

    small_disk.resize("64m")
    with request_budget(svc):
        m.trigger_era_transition(2)
    assert_in_step(svc, small_disk.data_dir)
