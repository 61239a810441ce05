"""Host-side halves of the era transition's calls into sibling modules whose
protocol is Python's own (a context manager, objects passed along). The
engine calls them as functions of tidewright.sync, which takes them in when it
loads (see _sync_errors)."""


def _record_runtime_freshness_updates(updates):
    import importlib

    deployment = importlib.import_module("tidewright.deployment")
    with deployment.runtime_freshness_guard() as guard:
        for update in updates:
            guard.record_sync_update(**update)


def _load_era_transition_modules():
    import importlib

    deployment = importlib.import_module("tidewright.deployment")
    for name in ("_CURRENT_VERSION", "check_update", "_compare_versions", "auto_update"):
        getattr(deployment, name)
    importlib.import_module("tidewright.search_tracking").SearchTracker


def _track_era_transition(data_dir, new_era_number, previous_era_number):
    import importlib

    identity = importlib.import_module("tidewright.identity").resolve_identity_for_data_dir(data_dir)
    tracker = importlib.import_module("tidewright.search_tracking").SearchTracker(data_dir, identity=identity)
    try:
        tracker.handle_era_transition(new_era_number=new_era_number, previous_era_number=previous_era_number)
    finally:
        tracker.close()
