"""Manifest sanitisation (Python face): results built from the caller's objects."""

import copy
import importlib


from tidewright import sync



def entry(kind, **extra):
    return {"size_bytes": 1, "sha256": "0" * 64, "kind": kind, **extra}


def mixed_manifest():
    here = sync.CURRENT_PLATFORM
    return {
        "era_number": 4,
        "files": {
            "features/u/signal_is/f.arrow": entry("feature"),
            "vault/a.pxd": entry("vault"),
            f"vault/m-{here}.so": entry("vault_module", platform=here),
            "vault/old.so": entry("backtester_module"),
            "found_signals/p/1/signal_is/pnl_long.arrow": entry("found_pnl"),
            "found_signals/p/1/signal_is/pnl.arrow": entry("found_pnl"),
        },
        "artifacts": [
            {"relative_path": "vault/old.so", "kind": "backtester_module"},
            {"path": f"vault/m-{here}.so", "kind": "vault_module"},
        ],
        "found_signals": {
            "p/1": {"files": ["found_signals/p/1/signal_is/pnl.arrow", "found_signals/p/1/signal_is/pnl_long.arrow"]},
            "p/2": {"files": ["found_signals/p/2/signal_is/pnl.arrow"]},
        },
    }


def test_constants_and_platform_predicates(monkeypatch):
    assert sync._RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES == {"backtester", "risk_model"}
    assert sync._RUNTIME_MODULE_EXTENSION_SUFFIXES == (".so", ".pyd")
    # The module's platform tag is read at call time.
    monkeypatch.setattr(sync, "CURRENT_PLATFORM", "linux_x86_64")
    assert sync._retired_unsupported_runtime_module_name_from_path("backtester-linux_x86_64.so") == "backtester"
    assert sync._retired_unsupported_runtime_module_name_from_path("backtester-macos_arm64.so") is None
    assert sync._manifest_file_is_sync_excluded("m.so", {"kind": "vault_module", "platform": "macos_arm64"})
    assert not sync._rotation_file_is_platform_excluded("m.so", {"kind": "vault_module", "platform": ""})
    assert sync._is_agent_bundle_declaration_file("x.pxd", None)


def test_sibling_kind_is_looked_up_at_call_time(monkeypatch):
    rotation = importlib.import_module("tidewright._artifact_rotation")
    calls = []

    def kind_from_path(path, info):
        calls.append(path)
        return "risk_module" if path.endswith(".so") else "feature"

    monkeypatch.setattr(rotation, "manifest_file_kind", kind_from_path)
    assert sync._is_unsupported_runtime_module_file("x.so", {})
    out = sync._drop_unsupported_runtime_module_files({"files": {"a.so": {}, "b.arrow": {}}})
    assert list(out["files"]) == ["b.arrow"]
    assert calls == ["x.so", "a.so", "b.arrow"]


def test_nothing_to_remove_returns_the_same_object():
    clean = {
        "files": {"features/u/signal_is/f.arrow": entry("feature")},
        "artifacts": [{"path": "x", "kind": "vault_module"}],
        "found_signals": {"p/1": {"files": ["found_signals/p/1/signal_is/pnl.arrow"]}},
    }
    for fn in (
        sync._drop_agent_bundle_declaration_files,
        sync._drop_unsupported_runtime_module_files,
        sync._drop_retired_found_pnl_long_files,
        sync._sanitize_manifest_data_for_sync,
    ):
        for data in (clean, {}, {"files": None}):
            assert fn(data) is data


def test_filters_return_shallow_copies_and_leave_the_input_alone():
    data = mixed_manifest()
    before = copy.deepcopy(data)

    out = sync._drop_agent_bundle_declaration_files(data)
    assert list(out["files"]) == [p for p in data["files"] if p != "vault/a.pxd"]
    assert out["files"]["vault/old.so"] is data["files"]["vault/old.so"]
    assert out["artifacts"] is data["artifacts"]

    out = sync._drop_unsupported_runtime_module_files(data)
    assert "vault/old.so" not in out["files"]
    assert out["artifacts"] == data["artifacts"][1:] and out["artifacts"][0] is data["artifacts"][1]

    out = sync._drop_retired_found_pnl_long_files(data)
    assert "found_signals/p/1/signal_is/pnl_long.arrow" not in out["files"]
    assert out["found_signals"]["p/1"]["files"] == ["found_signals/p/1/signal_is/pnl.arrow"]
    assert out["found_signals"]["p/2"] is data["found_signals"]["p/2"]

    out = sync._sanitize_manifest_data_for_sync(data)
    assert list(out) == list(data) and out["era_number"] == 4
    assert len(out["files"]) == 3 and len(out["artifacts"]) == 1
    assert sync._sanitize_manifest_data_for_sync(out) is out
    assert not sync._manifest_has_agent_bundle_declarations(out)
    assert not sync._manifest_has_retired_found_pnl_long_files(out)
    assert sync._manifest_has_agent_bundle_declarations(data)
    assert sync._manifest_has_retired_found_pnl_long_files(data)
    assert data == before
