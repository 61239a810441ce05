"""The installed package as its users meet it: one version everywhere, the
result records, the ``python -m tidewright`` alias, and type stubs of
tidewright.sync that agree with the module and name real types.
"""

import ast
import dataclasses
import importlib.metadata
import inspect
import pathlib
import os
import pickle
import re
import subprocess
import sys
import typing

import pytest

import tidewright
from tidewright import _sync_types, deployment, sync

STUB = pathlib.Path(sync.__file__).with_name("sync.pyi")
# Sanitiser builds (make asan, make tsan) generate no stubs: the stub
# generator would have to load the instrumented module without its runtime.
needs_stub = pytest.mark.skipif(not STUB.exists() and any(v in os.environ
                                                          for v in ("ASAN_OPTIONS", "TSAN_OPTIONS")),
                                reason="a sanitiser build has no stubs")


def test_one_version_reported_everywhere():
    # (on the wire: the User-Agent in test_http_transport; the command line's --version: test_cli)
    assert tidewright.__version__ == importlib.metadata.version("tidewright") == deployment._CURRENT_VERSION


def test_python_m_tidewright_is_the_command_line(tmp_path):
    run = subprocess.run([sys.executable, "-m", "tidewright", "verify", "--data-dir", str(tmp_path / "absent")],
                         capture_output=True, text=True, timeout=60)
    assert run.returncode == 2 and "data directory" in run.stderr.lower()


def test_result_records_are_the_package_dataclasses(tmp_path):
    assert sync.SyncResult is _sync_types.SyncResult and sync.VerifyResult is _sync_types.VerifyResult
    hints = typing.get_type_hints(sync.SyncResult)
    assert hints["active_relative_paths"] == tuple[str, ...] and hints["rotation_seed"] == int | None
    first, second = sync.VerifyResult(), sync.VerifyResult()
    first.missing_files.append("a")
    assert second.missing_files == []  # a fresh list per record
    result = sync.SyncResult(bytes_downloaded=3, active_relative_paths=("a",))
    assert pickle.loads(pickle.dumps(result)) == result

    m = sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token="t")
    verified = m.verify()  # no manifest yet: nothing to check
    assert type(verified) is sync.VerifyResult and dataclasses.asdict(verified) == {
        "valid": True, "corrupted_files": [], "missing_files": [], "has_manifest": False}


def test_a_plain_token_is_read_once_as_text(tmp_path):
    class Token:
        reads = 0

        def __str__(self):
            Token.reads += 1
            return "tok"

    m = sync.SyncManager(str(tmp_path), "http://127.0.0.1:9", token=Token())
    assert [m._get_token(), m._get_token()] == ["tok", "tok"] and Token.reads == 1


# -- the stubs ---------------------------------------------------------------------


def stub_tree():
    return ast.parse(STUB.read_text(encoding="utf-8"), filename=str(STUB))


def stub_functions():
    """(qualified name, runtime object, stub node) of every function the stub declares."""
    for node in stub_tree().body:
        if isinstance(node, ast.FunctionDef):
            yield node.name, getattr(sync, node.name), node
        elif isinstance(node, ast.ClassDef):
            cls = getattr(sync, node.name)
            for item in node.body:
                decorators = [ast.unparse(d) for d in getattr(item, "decorator_list", [])]
                if isinstance(item, ast.FunctionDef) and decorators in ([], ["staticmethod"]):
                    yield f"{node.name}.{item.name}", getattr(cls, item.name), item


def parameters(node):
    """[(kind, name, default)] of a parsed ``def``; default is the literal or ``...`` when there is none."""
    args = node.args
    positional = args.posonlyargs + args.args
    defaults = [...] * (len(positional) - len(args.defaults)) + [ast.literal_eval(d) for d in args.defaults]
    out = [("positional", a.arg, d) for a, d in zip(positional, defaults)]
    out += [("keyword", a.arg, ... if d is None else ast.literal_eval(d))
            for a, d in zip(args.kwonlyargs, args.kw_defaults)]
    return out


def runtime_parameters(fn):
    signatures = getattr(fn, "__nb_signature__", None)
    if signatures is None:
        text = f"def f{inspect.signature(fn)}"
    else:
        (text, _doc, defaults), = signatures  # no overloads in this module
        text = re.sub(r"\\(\d+)", lambda m: repr(defaults[int(m.group(1))]), text)
    return parameters(ast.parse(text + ": ...").body[0])


@needs_stub
def test_stub_signatures_agree_with_the_module():
    seen = set()
    for name, runtime, node in stub_functions():
        seen.add(name)
        assert parameters(node) == runtime_parameters(runtime), name
    # The public API the callers use is all there (hand-written constructors included).
    assert {"SyncManager.__init__", "SyncManager.get_or_create", "SyncManager.sync", "SyncManager.verify",
            "SyncManager.repair", "SyncManager.set_progress_callback", "SyncManager.register_era_callback",
            "EraThread.__init__", "Manifest.__init__", "Manifest.from_dict", "load_feature_rotation_state",
            "SyncUnavailableError.__init__", "PermanentDownloadError.__init__"} <= seen


@needs_stub
def test_stubs_name_real_types():
    untyped = []
    for node in ast.walk(stub_tree()):
        annotations = []
        if isinstance(node, ast.FunctionDef):
            if node.name in ("__reduce__",):
                continue
            arguments = node.args.posonlyargs + node.args.args + node.args.kwonlyargs
            annotations = [(f"{node.name}({a.arg})", a.annotation) for a in arguments if a.arg != "self"]
            annotations.append((f"{node.name} ->", node.returns))
        elif isinstance(node, ast.AnnAssign):
            annotations = [(ast.unparse(node.target), node.annotation)]
        for where, annotation in annotations:
            if annotation is None or (isinstance(annotation, ast.Constant) and annotation.value is not None):
                untyped.append(f"{where}: {ast.dump(annotation) if annotation else 'missing'}")
                continue
            for inner in ast.walk(annotation):
                if isinstance(inner, ast.Name) and inner.id == "object" and not returned_by_callable(annotation, inner):
                    untyped.append(f"{where}: {ast.unparse(annotation)}")
    assert untyped == []


def returned_by_callable(annotation, name):
    """True when ``name`` is the result type of a Callable[[...], object] inside ``annotation``."""
    for node in ast.walk(annotation):
        if (isinstance(node, ast.Subscript) and isinstance(node.value, ast.Name) and node.value.id == "Callable"
                and isinstance(node.slice, ast.Tuple) and node.slice.elts[-1] is name):
            return True
    return False


@needs_stub
@pytest.mark.parametrize("cls", ["SyncResult", "VerifyResult"])
def test_stub_takes_the_records_from_the_package(cls):
    imports = [n for n in stub_tree().body if isinstance(n, ast.ImportFrom) and n.module == "tidewright._sync_types"]
    assert any(alias.name == cls and alias.asname == cls for n in imports for alias in n.names)  # a re-export
