"""Feature rotation: settings, the selection a sync keeps on disk, state files and prefetch."""

import json
import logging
import os

import pytest

import tidewright.sync as sync
from tidewright import _artifact_rotation as rotation

URL = "http://127.0.0.1:9"
GIB = 1073741824
FEATURE_BYTES = 4096


# -- helpers ------------------------------------------------------------------

def make_manager(svc, data_dir):
    return sync.SyncManager(str(data_dir), svc.url, token=svc.token)


def write_settings(data_dir, **fields):
    (data_dir / "rotation-settings.json").write_text(json.dumps(fields))


def feature_paths(manifest):
    return sorted(p for p, info in manifest["files"].items() if info.get("kind") == "feature")


def mandatory_bytes(manifest):
    return sum(info["size_bytes"] for info in manifest["files"].values() if info.get("kind") != "feature")


def local_features(data_dir):
    root = data_dir / "features"
    if not root.exists():
        return {}
    return {p.relative_to(data_dir).as_posix(): p.stat().st_size for p in root.rglob("*.arrow")}


def directory_listing(data_dir):
    return sorted(p.relative_to(data_dir).as_posix() for p in data_dir.rglob("*"))


def features_of(paths):
    return sorted(p for p in paths if p.startswith("features/"))


def make_rotation_overdue(data_dir, hours):
    state = sync.load_feature_rotation_state(str(data_dir))
    sync.write_feature_rotation_state(str(data_dir), {**state, "rotated_at": state.rotated_at - hours * 3600 - 1})
    return state


@pytest.fixture
def svc(dataservice_factory):
    # Four families of three features (each member's companions are the two
    # others of its family) spread over two universes, listed as rotation
    # artifacts (the catalogue that settings are checked against).
    return dataservice_factory(features=12, family_size=3, feature_bytes=FEATURE_BYTES, with_artifacts=True)


@pytest.fixture
def data(data_dir):
    return data_dir


def budget_for(svc, n_features):
    return mandatory_bytes(svc.manifest()) + n_features * FEATURE_BYTES + FEATURE_BYTES // 2


# -- the pipeline ---------------------------------------------------------------

def test_budget_bounds_the_feature_bytes_a_fresh_sync_downloads(svc, data):
    budget = budget_for(svc, 4)
    write_settings(data, seed=11, feature_budget_bytes=budget)
    m = make_manager(svc, data)
    result = m.sync()

    on_disk = local_features(data)
    assert sum(on_disk.values()) <= budget
    assert len(on_disk) == 4 == result.features_downloaded
    assert sorted(on_disk) == features_of(result.active_relative_paths)
    assert sorted([*on_disk, *result.skipped_relative_paths]) == feature_paths(svc.manifest())
    assert result.rotation_seed == 11 and result.feature_budget_bytes == budget
    assert set(result.mandatory_relative_paths) == {p for p, i in svc.manifest()["files"].items()
                                                     if i["kind"] != "feature"}
    state = sync.load_feature_rotation_state(str(data))
    assert state.active_relative_paths == tuple(sorted(result.active_relative_paths))
    assert state.era_number == 1 and state.rotation_seed == 11
    assert m._active_rotation_state == state
    # The inactive feature files are not missing: verify and needs_sync
    # follow the active state.
    assert m.verify() == sync.VerifyResult()
    assert m.needs_sync() is False


def test_shrinking_budget_removes_inactive_features_and_lifting_it_restores_them(svc, data):
    # Without settings every file is downloaded and no rotation state is kept.
    m = make_manager(svc, data)
    result = m.sync()
    assert sorted(local_features(data)) == feature_paths(svc.manifest()) and result.features_downloaded == 12
    assert (result.active_relative_paths, result.skipped_relative_paths, result.mandatory_relative_paths) == ((), (), ())
    assert result.rotation_seed is None and result.feature_budget_bytes is None
    assert sync.load_feature_rotation_state(str(data)) is None

    budget = budget_for(svc, 2)
    write_settings(data, seed=5, feature_budget_bytes=budget)
    result = m.sync()  # same manifest version: decided locally, nothing downloaded
    assert result.features_downloaded == 0
    assert sum(local_features(data).values()) <= budget
    assert sorted(local_features(data)) == features_of(result.active_relative_paths)

    (data / "rotation-settings.json").unlink()
    result = m.sync()
    assert sorted(local_features(data)) == feature_paths(svc.manifest())
    assert result.features_downloaded == 10 and result.active_relative_paths == ()
    assert not (data / "feature-rotation-state.json").exists()
    assert m._active_rotation_state is None


def test_a_replaced_settings_loader_is_asked_even_without_a_settings_file(dataservice_factory, data, monkeypatch):
    from tidewright import _rotation_settings

    # Rotation artifacts of both universes; the manifest scopes rotation to one.
    svc = dataservice_factory(features=12, family_size=3, feature_bytes=FEATURE_BYTES, with_artifacts=True,
                              manifest_overrides={"rotation": {"scope": {"named_universe": "top50"}}})
    contexts = []

    def load(data_dir, *, catalog_context=None):
        contexts.append(catalog_context)
        return _rotation_settings.RotationSettings(seed=3, feature_budget_bytes=budget_for(svc, 2), source="test")

    monkeypatch.setattr(_rotation_settings, "load_rotation_settings", load)
    m = make_manager(svc, data)
    result = m.sync()
    # The catalogue the settings are checked against is that of the rotation
    # artifacts and the manifest's rotation scope.
    assert contexts and all(c == sync._rotation_catalog_context_from_manifest(svc.manifest()) for c in contexts)
    assert (contexts[0]["current_universes"], contexts[0]["named_universes"]) == (["top50"], ["top200", "top50"])
    top50 = [a for a in svc.manifest()["artifacts"] if a["named_universe"] == "top50"]
    assert contexts[0]["families"]["top50"] == {a["family"]: [a["subfamily"]] for a in top50}
    assert len(local_features(data)) < len(feature_paths(svc.manifest())) == 12
    assert result.rotation_seed == 3 and m.needs_sync() is False


def test_the_same_seed_gives_the_same_selection(svc, tmp_path):
    chosen = []
    for name, seed in (("a", 3), ("b", 3), ("c", 4)):
        data = tmp_path / name
        data.mkdir()
        write_settings(data, seed=seed, feature_budget_bytes=budget_for(svc, 3))
        chosen.append(features_of(make_manager(svc, data).sync().active_relative_paths))
    assert chosen[0] == chosen[1]
    assert chosen[0] != chosen[2]


def test_due_rotation_chooses_a_new_candidate_and_swaps_the_files(svc, data):
    write_settings(data, seed=21, feature_budget_bytes=budget_for(svc, 3), rotation_frequency="PT1H")
    m = make_manager(svc, data)
    first = m.sync()
    assert m.sync().active_relative_paths == first.active_relative_paths  # not due: carried forward
    assert m.needs_sync() is False

    before = make_rotation_overdue(data, hours=1)
    assert m.needs_sync() is True
    second = m.sync()
    after = sync.load_feature_rotation_state(str(data))
    assert after.rotation_seed == second.rotation_seed != before.rotation_seed
    assert after.rotated_at >= before.rotated_at
    assert features_of(second.active_relative_paths) != features_of(first.active_relative_paths)
    assert sorted(local_features(data)) == features_of(second.active_relative_paths)
    assert second.features_downloaded == len(set(features_of(second.active_relative_paths))
                                             - set(first.active_relative_paths))


def running_manager(svc, data_dir, request):
    m = make_manager(svc, data_dir)
    request.addfinalizer(m.stop)
    return m


def outside_the_selection(result):
    """A skipped feature none of whose family is active."""
    return next(p for p in result.skipped_relative_paths
                if not any(a.rsplit("__", 2)[0] == p.rsplit("__", 2)[0] for a in result.active_relative_paths))


def test_prefetch_fetches_a_feature_with_its_companions_and_rotation_keeps_them(svc, data, request):
    write_settings(data, seed=2, feature_budget_bytes=budget_for(svc, 1), rotation_frequency="weekly")
    m = running_manager(svc, data, request)
    result = m.sync()
    m.start()
    target = outside_the_selection(result)
    _, universe, epoch, file_name = target.split("/")
    name = file_name[:-len(".arrow")]
    family = [p for p in feature_paths(svc.manifest()) if p.rsplit("__", 2)[0] == target.rsplit("__", 2)[0]]
    assert len(family) == 3

    fetched = m.request_feature_files_for_sync(
        [f" {name} "], expression_type="STRATEGY" if epoch == "strategy_is" else "SIGNAL", named_universe=universe)
    assert [f["relative_path"] for f in fetched] == [target] + sorted(set(family) - {target})
    assert {f["feature_name"] for f in fetched} == {name}
    for item in fetched:
        assert item["local_path"] == sync._manifest_local_path(str(data), item["relative_path"])
        assert os.path.getsize(item["local_path"]) == FEATURE_BYTES
    assert not (data / "sync-progress.json").exists()
    recorded = json.loads((data / ".prefetched-features.json").read_text())
    assert recorded == {"era_number": 1, "paths": sorted(family), "schema_version": 1}
    # Asking again downloads nothing and answers the same.
    requests = len(svc.requests)
    assert m.request_feature_files_for_sync([name], expression_type=epoch.split("_")[0].upper(),
                                            named_universe=f" {universe} ") == fetched
    assert len(svc.requests) == requests

    # The kept files use up the budget first: the next rotation keeps them
    # and nothing else.
    make_rotation_overdue(data, hours=7 * 24)
    rotated = m.sync()
    assert set(family) <= set(rotated.active_relative_paths)
    assert sorted(local_features(data)) == sorted(family)


def test_prefetch_across_a_new_manifest_version_delivers_the_new_files(svc, data, request):
    write_settings(data, seed=2, feature_budget_bytes=budget_for(svc, 1), rotation_frequency="weekly")
    m = running_manager(svc, data, request)
    target = outside_the_selection(m.sync())
    m.start()
    # The service moves on while the feature is being fetched: its bytes change under the download.
    svc.on_request("/data/files/" + target, lambda: svc.set_version(touch=[target]))
    name = target.rsplit("/", 1)[1][:-len(".arrow")]
    fetched = m.request_feature_files_for_sync([name], expression_type=target.split("/")[2].split("_")[0].upper(),
                                               named_universe=target.split("/")[1])
    assert target in [f["relative_path"] for f in fetched]
    assert m.get_manifest().version == 2
    assert (data / target).read_bytes() == svc.file_bytes(None, target)
    assert not (data / "sync-progress.json").exists()


def test_prefetch_without_a_manifest_and_of_an_unknown_feature(svc, data, request):
    # (refused before the threads run or during a transition: test_lifecycle.py)
    m = running_manager(svc, data, request)
    svc.add_fault("/data/manifest*", "status", status=404, count=None)  # the poll thread cannot sync either
    m.start()
    with pytest.raises(sync.StateError, match="run sync"):
        m.request_feature_files_for_sync(["px000__ret__lag0__v1"])
    svc.clear_faults()
    m.sync()
    assert m.request_feature_files_for_sync(["no_such_feature"]) == []


def test_prefetch_refuses_what_the_disk_cannot_hold(svc, data, request):
    # A feature bigger than any disk, outside the rotation's selection, so that syncs do not need it.
    path = next(p for p in feature_paths(svc.manifest()) if p.startswith("features/top50/signal_is/"))
    svc.set_version(entry_overrides={path: {"size_bytes": 2**62}})
    write_settings(data, seed=1, feature_budget_bytes=budget_for(svc, 0))
    m = running_manager(svc, data, request)
    m.sync()
    m.start()
    name = path.rsplit("/", 1)[1][:-len(".arrow")]
    with pytest.raises(sync.DiskSpaceError, match=r"^Insufficient disk space: need \d+ bytes, have \d+ bytes"):
        m.request_feature_files_for_sync([name], named_universe="top50")
    assert path not in local_features(data)


# -- bad input ------------------------------------------------------------------

@pytest.mark.parametrize(
    "text, error, words",
    [
        ("{not json", ValueError, "cannot read rotation settings"),
        ('{"feature_budget_gb": -1}', ValueError, "feature_budget_gb"),
        ('{"feature_budget_gb": "lots"}', ValueError, "feature_budget_gb"),
        ('{"named_universes": ["top50", "nope"], "feature_budget_gb": 1}', rotation.VocabularyScopeError,
         "named_universes: not in this era: nope"),
        ('{"feature_budget_bytes": 10}', rotation.MandatoryArtifactsTooLargeError, "mandatory artifacts need"),
        ('{"rotation_frequency": "daily"}', ValueError, "rotation_frequency"),
    ],
)
def test_bad_settings_fail_the_sync_and_leave_the_directory_alone(svc, data, text, error, words):
    settings = data / "rotation-settings.json"
    settings.write_text(text)
    before = directory_listing(data)
    with pytest.raises(error) as info:
        make_manager(svc, data).sync()
    assert type(info.value).__module__ != "tidewright.sync"  # the sibling's own error, unchanged
    assert str(settings) in str(info.value) and words in str(info.value)
    assert directory_listing(data) == before


# -- state files ----------------------------------------------------------------

def test_rotation_state_file_round_trip_and_errors(tmp_path, caplog):
    path = tmp_path / "feature-rotation-state.json"
    assert sync.feature_rotation_state_path(str(tmp_path)) == str(path)
    assert sync.load_feature_rotation_state(str(tmp_path)) is None

    state = rotation.FeatureRotationState(era_number=3, active_relative_paths=("b", "a"), rotated_at=5.5,
                                          rotation_seed=9, algorithm="seeded_shuffle", feature_budget_bytes=100)
    assert sync.write_feature_rotation_state(tmp_path, state) == str(path)
    text = path.read_text()
    assert text == json.dumps(json.loads(text), sort_keys=True, separators=(",", ":"))
    assert json.loads(text)["schema_version"] == 1
    assert sync.load_feature_rotation_state(tmp_path) == state

    path.write_text("{")
    with pytest.raises(sync.FeatureRotationStateError) as info:
        sync.load_feature_rotation_state(str(tmp_path))
    assert str(info.value).startswith(f"invalid feature rotation state at {path}: ")
    assert isinstance(info.value, sync.StateError)
    # A broken state never breaks construction: it is logged and ignored.
    with caplog.at_level(logging.WARNING, logger="tidewright.sync"):
        m = sync.SyncManager(str(tmp_path), URL, token="t")
    assert m._active_rotation_state is None
    assert "Failed to load feature rotation state" in caplog.text

    path.write_text(json.dumps({"schema_version": 2, "active_relative_paths": []}))
    with pytest.raises(sync.FeatureRotationStateError, match="schema_version"):
        sync.load_feature_rotation_state(str(tmp_path))
    with pytest.raises(sync.FeatureRotationStateError, match="active_relative_paths"):
        sync.write_feature_rotation_state(str(tmp_path), {"active_relative_paths": "a"})


def test_a_corrupt_state_fails_a_rotating_sync_without_touching_files(svc, data):
    m = make_manager(svc, data)
    m.sync()
    write_settings(data, feature_budget_bytes=budget_for(svc, 1))
    (data / "feature-rotation-state.json").write_text("[1,")
    before = directory_listing(data)
    with pytest.raises(sync.FeatureRotationStateError, match="^invalid feature rotation state at "):
        m.sync()
    assert directory_listing(data) == before


def prefetch_manifest(era):
    return sync.Manifest({
        "era_number": era,
        "files": {
            "features/u/signal_is/a__b__c__d.arrow": {"kind": "feature", "size_bytes": 1},
            "features/u/signal_is/a__b__c__e.arrow": {"kind": "feature", "size_bytes": 1},
            "functions.json": {"kind": "functions", "size_bytes": 1},
        },
    })


def test_prefetched_set_is_kept_per_era(tmp_path):
    m = sync.SyncManager(str(tmp_path), URL, token="t")
    era8, era9 = prefetch_manifest(8), prefetch_manifest(9)
    a, e = "features/u/signal_is/a__b__c__d.arrow", "features/u/signal_is/a__b__c__e.arrow"
    state_file = tmp_path / ".prefetched-features.json"

    m._remember_prefetched_feature_relative_paths(era8, ["functions.json", "features/missing.arrow"])
    assert not state_file.exists() and m._prefetched_feature_relative_paths == set()

    m._remember_prefetched_feature_relative_paths(era8, [f" {a} ", a])
    assert json.loads(state_file.read_text()) == {"era_number": 8, "paths": [a], "schema_version": 1}
    assert m._prefetched_feature_keep_paths(era8) == (a,)
    assert m._read_prefetched_feature_relative_paths(era9) == set()  # written for another era

    # Another process recorded a path for era 9: the era change loads it
    # before new paths are added.
    m._write_prefetched_feature_relative_paths(9, [e])
    m._remember_prefetched_feature_relative_paths(era9, [a])
    assert m._prefetched_feature_era_number == 9
    assert m._prefetched_feature_keep_paths(era9) == (a, e)

    for payload in ({"schema_version": 2, "era_number": 9, "paths": [a]}, {"schema_version": 1, "era_number": 9},
                    [a], "{"):
        state_file.write_text(payload if isinstance(payload, str) else json.dumps(payload))
        assert m._read_prefetched_feature_relative_paths(era9) == set()
    assert sync._manifest_prefetched_feature_paths(era9, [e, "functions.json", a, e]) == (a, e)
    assert sync._manifest_era_number_or_none(None) is None
    assert sync._manifest_era_number_or_none(era9) == 9


# -- catalogue and settings -----------------------------------------------------

def test_legacy_scope_and_artifact_rows():
    data = {
        "era_number": 1, "market_id": 1, "named_universes": ["top50", "top200", "top10"],
        "files": {
            "features/top50/signal_is/a.arrow": {"kind": "feature", "size_bytes": 4},
            "features/signal_is/b.arrow": {"kind": "feature", "size_bytes": 5},
            "features/top10/signal_is/c.arrow": {"kind": "feature", "size_bytes": 7, "family": "other"},
            "functions.json": {"kind": "functions", "size_bytes": 6},
        },
        "artifacts": [
            {"path": "features/signal_is/b.arrow", "family": "fam", "named_universe": "top200"},
            {"relative_path": "features/top50/signal_is/a.arrow", "market": "equities"},
            "not an artifact",
        ],
    }
    assert sync._feature_named_universe_from_path("features\\top50\\x.arrow") == "top50"
    for path in ("features/../x.arrow", "features/ /x.arrow", "pnl/top50/x.arrow", "features"):
        assert sync._feature_named_universe_from_path(path) is None
    assert sync._rotation_file_info_with_legacy_scope("functions.json", {"kind": "functions"}, data) == {
        "kind": "functions"}

    rows = sync._rotation_artifact_rows(data)
    assert [r["relative_path"] for r in rows] == ["features/signal_is/b.arrow", "features/top50/signal_is/a.arrow"]
    # The universe comes from the artifact or, failing that, from the path;
    # the size from the manifest's entry.
    assert [(r["named_universe"], r["market"], r["artifact_kind"], r["size_bytes"]) for r in rows] == [
        ("top200", "crypto", "feature", 5), ("top50", "equities", "feature", 4)]
    assert [a["rotating"] for a in sync._rotation_manifest_artifacts(sync.Manifest(data))] == [True, True]

    # The catalogue is that of the rotation artifacts: a universe only the
    # manifest's list or a file outside the artifacts names is not in it.
    context = sync._rotation_catalog_context_from_manifest(data)
    assert context == {"current_market": "crypto", "current_universes": ["top200", "top50"],
                       "named_universes": ["top200", "top50"], "families": {"top200": {"fam": []}, "top50": {}}}
    scoped = {**data, "rotation": {"scope": {"named_universes": ["top50", " "], "market": "equities"}}}
    context = sync._rotation_catalog_context_from_manifest(scoped)
    assert (context["current_market"], context["current_universes"]) == ("equities", ["top50"])
    assert context["named_universes"] == ["top200", "top50"]
    assert sync._rotation_catalog_context_from_manifest({**data, "artifacts": []})["named_universes"] == []


def test_scoped_settings_for_the_artifacts_of_a_manifest():
    data = {"era_number": 1, "market_id": 1, "files": {"features/top50/signal_is/a.arrow": {"kind": "feature"}},
            "artifacts": [{"relative_path": "features/top50/signal_is/a.arrow"}]}
    # The descriptors carry the scope the legacy rule filled in.
    assert sync._rotation_artifacts_require_scoped_settings(sync._rotation_manifest_artifacts(sync.Manifest(data)))
    data["artifacts"][0]["mandatory"] = True
    assert not sync._rotation_artifacts_require_scoped_settings(sync._rotation_manifest_artifacts(sync.Manifest(data)))


@pytest.mark.parametrize(
    "frequency, seconds",
    [("weekly", 604800), (" PT6H ", 21600), ("PT0H", None), ("daily", None), ("PTxH", None), ("PT1.5H", None),
     (None, None)],
)
def test_rotation_frequency(frequency, seconds):
    assert sync._rotation_frequency_seconds({"rotation_frequency": frequency}) == seconds


def test_budget_in_bytes():
    budget = sync._rotation_feature_budget_bytes
    assert budget({"feature_budget_gb": 2}) == 2 * GIB
    assert budget({"feature_budget_gb": 1.5}) == GIB
    assert budget({"feature_budget_gb": None}) is None
    assert budget({"feature_budget_gb": rotation.FULL_DOWNLOAD}) == rotation.FULL_DOWNLOAD
    assert budget({"feature_budget_gb": None, "feature_budget_bytes": 123}) == 123
    with pytest.raises(ValueError, match="feature_budget_gb"):
        budget({"feature_budget_gb": "lots"})


def test_settings_for_a_manifest(svc, data):
    m = make_manager(svc, data)
    manifest = sync.Manifest(svc.manifest())
    assert m._feature_rotation_settings_for_manifest(manifest, free_disk_bytes=10) is None
    write_settings(data, seed=4, named_universe="top200", feature_budget_gb=2, algorithm="seeded_shuffle")
    settings = m._feature_rotation_settings_for_manifest(manifest, free_disk_bytes=10)
    assert settings == rotation.ArtifactRotationSettings(
        artifact_kind="feature", algorithm="seeded_shuffle", rotation_seed=4,
        scope=rotation.SelectionScope(named_universes=("top200",)), feature_budget_bytes=2 * GIB,
        free_disk_bytes=10, source=str(data / "rotation-settings.json"))
    write_settings(data, feature_budget_gb=rotation.FULL_DOWNLOAD)
    assert m._feature_rotation_settings_for_manifest(manifest, free_disk_bytes=10) is None


def test_existing_paths_stay_inside_the_data_directory(tmp_path):
    (tmp_path / "features").mkdir()
    (tmp_path / "features" / "x.arrow").write_bytes(b"x")
    assert sync._existing_rotation_paths(tmp_path, ["nope", "features/x.arrow", "../escape"]) == ("features/x.arrow",)


# -- the planner ----------------------------------------------------------------

def descriptors(sizes):
    rows = [("functions.json", {"kind": "functions", "size_bytes": 10})]
    rows += [(f"features/u/signal_is/f{i}.arrow", {"kind": "feature", "size_bytes": s}) for i, s in enumerate(sizes)]
    return [rotation.artifact_descriptor_from_manifest_file(p, {**info, "relative_path": p}) for p, info in rows]


def test_planner_keeps_mandatory_and_prefetched_files_first(tmp_path):
    artifacts = descriptors([5] * 6)
    settings = rotation.ArtifactRotationSettings(rotation_seed=1, feature_budget_bytes=22, source="s.json")
    keep = ("features/u/signal_is/f0.arrow", "features/u/signal_is/f1.arrow", "features/u/signal_is/f2.arrow")
    selection = rotation.plan_rotation(artifacts, settings, now=100.0, era_number=1, keep_relative_paths=keep)
    # 10 mandatory + 15 kept already exceed 22: the kept files stay, nothing else fits.
    assert selection.active_relative_paths == ("features/u/signal_is/f0.arrow", "features/u/signal_is/f1.arrow",
                                               "features/u/signal_is/f2.arrow", "functions.json")
    assert selection.state.rotated_at == 100.0 and selection.rotated

    carried = rotation.plan_rotation(artifacts, settings, previous_state=selection.state, now=200.0, era_number=1,
                                     keep_relative_paths=keep)
    assert carried.state == selection.state and not carried.rotated
    # A rotation time survives the state file unchanged.
    stamped = rotation.plan_rotation(artifacts, settings, now=1795332643.1100597, era_number=1)
    sync.write_feature_rotation_state(tmp_path, stamped.state)
    assert sync.load_feature_rotation_state(tmp_path) == stamped.state
    with pytest.raises(rotation.MandatoryArtifactsTooLargeError, match="^s.json: .*need 10 bytes.* 9 bytes"):
        rotation.plan_rotation(artifacts, {**settings, "feature_budget_bytes": 9})


def test_an_era_transition_stages_only_the_selection_and_promotes_it(svc, data, caplog):
    budget = budget_for(svc, 4)
    write_settings(data, seed=5, feature_budget_bytes=budget)
    m = make_manager(svc, data)
    m.sync()
    before = sync.load_feature_rotation_state(str(data)).active_relative_paths
    svc.publish_era(2, features=15, family_size=3, feature_bytes=FEATURE_BYTES)
    calls = []

    def searches(event_type, era_number, payload=None):
        calls.append((event_type, era_number, payload))

    def two_arguments(event_type, era_number):
        calls.append(("two arguments", event_type))

    m.register_era_callback(searches)
    m.register_era_callback(two_arguments)
    m.trigger_era_transition(2, kill_searches_fn=lambda: calls.append("kill"),
                             restart_searches_fn=lambda: calls.append("restart"))

    # Running searches learn their new active set before they restart; a
    # callback that takes no payload is not asked.
    state = sync.load_feature_rotation_state(str(data))
    assert calls == ["kill", ("rotation_refresh", 2, {
        "era_number": 2, "previous_era_number": 1,
        "active_relative_paths": list(state.active_relative_paths),
        "added_relative_paths": sorted(set(state.active_relative_paths) - set(before)),
        "removed_relative_paths": sorted(set(before) - set(state.active_relative_paths))}), "restart"]
    assert calls[1][2]["added_relative_paths"] and calls[1][2]["removed_relative_paths"]
    assert not [r for r in caplog.records if r.getMessage().startswith("Era callback failed")]

    assert m.get_manifest().era_number == 2
    on_disk = local_features(data)
    assert 0 < len(on_disk) <= 4 and sum(on_disk.values()) <= budget
    state = sync.load_feature_rotation_state(str(data))
    assert state.era_number == 2
    assert features_of(state.active_relative_paths) == sorted(on_disk)
    assert m.verify() == sync.VerifyResult()
    assert not list(data.glob(".transition_era*")) and not (data / ".transition_lock").exists()
