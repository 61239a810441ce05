"""The soak's judgements: a growing resource is told from noise, and the
directory checks catch a visible file that no published manifest vouches for."""

import os
import random

import tidewright.sync as sync
from tools.soak import DirectoryLock, Hashes, Published, check_committed, check_visible, trend


def test_trend_flags_steady_growth_but_not_noise_spikes_or_growth_under_the_floor():
    times = [2.0 * i for i in range(150)]
    rng = random.Random(5)
    leak = [40.0 + 0.05 * t + rng.uniform(-0.5, 0.5) for t in times]           # 7.5 over the second half
    assert trend(times, leak, floor=3.0).grows
    busy = [3 + (8 if i % 4 == 0 else 0) for i in range(150)]                  # a worker pool coming and going
    assert not trend(times, busy, floor=3.0).grows
    warm_up = [10 + min(i, 40) for i in range(150)]                            # grows, then levels off
    assert not trend(times, warm_up, floor=3.0).grows
    assert not trend(times, [9 + 0.01 * t for t in times], floor=3.0).grows   # 1.5: under the floor
    assert not trend(times[:4], leak[:4], floor=3.0).grows                     # too few samples to tell


def test_checks_catch_a_foreign_file_a_leftover_and_an_unpublished_manifest(dataservice, tmp_path):
    sync.SyncManager(str(tmp_path), dataservice.url, token=dataservice.token).sync()
    published, hashes = Published(), Hashes()
    published.record(dataservice)
    assert check_visible(str(tmp_path), published, hashes) == []
    assert check_committed(str(tmp_path), published, hashes) == []

    feature = next(p for p in dataservice.manifest()["files"] if p.startswith("features/"))
    path = tmp_path.joinpath(*feature.split("/"))
    path.write_bytes(b"not the published bytes")
    (tmp_path / "features" / "stray.arrow").write_bytes(b"x")
    (tmp_path / "features" / "partial.arrow.tmp").write_bytes(b"staging files are not visible")
    assert set(check_visible(str(tmp_path), published, hashes)) == {
        f"{feature} matches no published version of it", "features/stray.arrow is in no published manifest"}
    committed = check_committed(str(tmp_path), published, hashes)
    assert any(p.startswith(f"{feature} is not the file of era 1 version 1,") for p in committed)
    assert any(p.startswith("features/stray.arrow is left beside") for p in committed)

    # The service moves on and a sync of version 2 fails half-way: version 2's
    # file under version 1's manifest is allowed until a sync commits.
    dataservice.set_version(touch=[feature])
    published.record(dataservice)
    path.write_bytes(dataservice.file_bytes(None, feature))
    os.remove(tmp_path / "features" / "stray.arrow")
    assert check_visible(str(tmp_path), published, hashes) == []
    assert check_committed(str(tmp_path), published, hashes) == []
    assert published.lag((1, 2), 0.0) == 0.0 and published.lag((1, 1), published.states[1][2] + 7.0) == 7.0

    (tmp_path / "manifest.json").write_text('{"era_number": 1, "version": 9, "files": {}}')
    assert check_committed(str(tmp_path), published, hashes) == [
        "manifest.json (era 1 version 9) is no manifest the service published"]


def test_the_directory_lock_is_the_one_a_sync_takes(dataservice, tmp_path):
    with DirectoryLock(str(tmp_path), timeout=5.0) as held:
        assert held
        with DirectoryLock(str(tmp_path), timeout=0.0) as second:
            assert not second
    assert not (tmp_path / ".sync_flock").exists()   # the name goes before the lock, as the engine does it
    m = sync.SyncManager(str(tmp_path), dataservice.url, token=dataservice.token)
    m.sync()
    with DirectoryLock(str(tmp_path), timeout=5.0) as held:
        assert held and m.verify().valid
