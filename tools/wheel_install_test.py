#!/usr/bin/env python3
"""Install test of the repaired wheel: does it work where the checkout is not?

Run by `make wheel-test` (and CI) with the project's .venv interpreter:

    tools/wheel_install_test.py dist/tidewright-<version>-<tags>.whl

In a temporary directory outside the checkout it creates a fresh virtual
environment, installs the wheel with --no-index (the package has no
dependencies; the command line's progress bar falls back to a plain line
without tqdm) and, from there only (no PYTHONPATH, no user site, no
checkout or .venv on sys.path):

1. imports tidewright.sync and checks where it came from and its version;
2. runs ldd on the installed extension: every library must be vendored in
   the wheel or one the manylinux policy lets a wheel take from the system;
   nothing may resolve from the checkout or build tree, or not at all;
3. runs `tidewright-sync demo` into the temporary directory, then
   `tidewright-sync verify` on the result;
4. syncs over TLS from the bundled reference service (which makes its own
   CA): once with SSL_CERT_FILE, and, where a private mount namespace can be
   had (root), once with the system's bundle in a place other than the one
   the vendored libcurl was built with, and once with no bundle at all,
   which must fail;
5. runs mypy --strict (from the .venv) on the README's library example
   against the installed wheel, and checks that a wrong use is caught.

It prints the wheel's size and a summary; any failed check exits 1.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import zipfile

REPO = pathlib.Path(__file__).resolve().parents[1]

# Besides what the manylinux policy allows (see manylinux_system_libraries),
# the kernel's vDSO and the dynamic loader itself.
LOADER_AND_VDSO = re.compile(r"^(linux-vdso\.so\.\d+|linux-gate\.so\.\d+|ld-linux(-x86-64|-aarch64)?\.so\.\d+)$")

# Where the system CA bundle is moved for the TLS check: a path of the
# engine's fallback list that differs from libcurl's compiled-in default.
RELOCATED_CA_BUNDLE = "/etc/ssl/cert.pem"

failures: list[str] = []


def check(ok: bool, what: str) -> bool:
    print(f"  {'ok  ' if ok else 'FAIL'} {what}", flush=True)
    if not ok:
        failures.append(what)
    return ok


def run(cmd: list[str], env: dict[str, str], cwd: pathlib.Path, timeout: float = 600,
        check_rc: bool = True) -> subprocess.CompletedProcess[str]:
    result = subprocess.run(cmd, env=env, cwd=cwd, capture_output=True, text=True, timeout=timeout)
    if check_rc and result.returncode != 0:
        sys.stdout.write(result.stdout[-4000:])
        sys.stderr.write(result.stderr[-4000:])
        raise SystemExit(f"command failed ({result.returncode}): {' '.join(cmd)}")
    return result


def inside(path: str | pathlib.Path, root: pathlib.Path) -> bool:
    try:
        pathlib.Path(os.path.realpath(path)).relative_to(root.resolve())
        return True
    except ValueError:
        return False


def clean_environment(venv: pathlib.Path) -> dict[str, str]:
    """The caller's environment without anything that points Python, pip or TLS elsewhere."""
    env = {k: v for k, v in os.environ.items()
           if not k.startswith(("PYTHON", "PIP_", "VIRTUAL_ENV", "CONDA", "LD_", "SSL_CERT_", "CURL_CA_"))}
    path = [p for p in env.get("PATH", "").split(os.pathsep) if p and not inside(p, REPO)]
    env["PATH"] = os.pathsep.join([str(venv / "bin"), *path])
    env["PYTHONNOUSERSITE"] = "1"
    env["PIP_CONFIG_FILE"] = os.devnull  # the machine's index and wheel-directory settings do not apply
    env["PIP_DISABLE_PIP_VERSION_CHECK"] = "1"
    return env


def check_wheel_contents(wheel: pathlib.Path) -> None:
    names = zipfile.ZipFile(wheel).namelist()
    check(any(re.fullmatch(r"tidewright/sync\.cpython-[^/]+\.so", n) for n in names), "the wheel holds the extension")
    for name in ("tidewright/sync.pyi", "tidewright/py.typed", "tidewright/_version.py",
                 "tidewright/_sync_types.py", "tidewright/dataservice/server.py"):
        check(name in names, f"the wheel holds {name}")
    vendored = sorted(n.split("/", 1)[1] for n in names if n.startswith("tidewright.libs/") and not n.endswith("/"))
    print(f"  vendored: {', '.join(vendored) or '(none)'}")
    check(any(v.startswith("libcurl") for v in vendored), "libcurl is vendored")


def check_import(python: pathlib.Path, env: dict[str, str], cwd: pathlib.Path, site: pathlib.Path,
                 version: str) -> pathlib.Path:
    probe = ("import json, sys, tidewright, tidewright.sync as s; "
             "print(json.dumps({'file': s.__file__, 'package': tidewright.__file__, 'path': sys.path, "
             "'version': tidewright.__version__, 'agent': s._SYNC_USER_AGENT}))")
    seen = json.loads(run([str(python), "-I", "-c", probe], env, cwd).stdout)
    check(inside(seen["file"], site) and inside(seen["package"], site),
          f"tidewright.sync imports from the fresh environment ({seen['file']})")
    leaks = [p for p in seen["path"] if p and inside(p, REPO)]
    check(not leaks, f"no checkout or .venv path on sys.path {leaks or ''}")
    check(seen["version"] == version and seen["agent"] == f"tidewright-sync/{version}",
          f"version {seen['version']}, user agent {seen['agent']} (the wheel's version is {version})")
    return pathlib.Path(seen["file"])


def manylinux_system_libraries(wheel: pathlib.Path) -> set[str]:
    """The libraries the wheel's manylinux tag lets it take from the system.

    Read from auditwheel's own policy file, the one that granted the tag.
    """
    import importlib.resources

    tags = {t for t in wheel.stem.split("-")[-1].split(".") if t.startswith("manylinux")}
    policies = json.loads((importlib.resources.files("auditwheel.policy") / "manylinux-policy.json").read_text())
    allowed: set[str] | None = None
    for policy in policies:
        names = {f"{policy['name']}_{arch}" for arch in ("x86_64", "aarch64", "i686")}
        names |= {f"{alias}_{arch}" for alias in policy["aliases"] for arch in ("x86_64", "aarch64", "i686")}
        if names & tags:
            libs = set(policy["lib_whitelist"])
            allowed = libs if allowed is None else allowed & libs
    if allowed is None:
        raise SystemExit(f"{wheel.name} carries no manylinux tag auditwheel knows: was it repaired?")
    return allowed


def check_linkage(extension: pathlib.Path, env: dict[str, str], cwd: pathlib.Path, site: pathlib.Path,
                  allowed: set[str]) -> None:
    vendored_dir = site / "tidewright.libs"
    out = run(["ldd", str(extension)], env, cwd).stdout
    problems, vendored, system = [], [], []
    for line in out.splitlines():
        line = line.strip()
        m = re.match(r"^(\S+)(?: => (.*?))?(?: \(0x[0-9a-f]+\))?$", line)
        if not m:
            problems.append(f"unparsed ldd line: {line}")
            continue
        name, target = m.group(1), (m.group(2) or "").strip()
        if target == "not found":
            problems.append(f"{name} is not found")
        elif target and inside(target, REPO):
            problems.append(f"{name} resolves from the checkout: {target}")
        elif target and inside(target, vendored_dir):
            vendored.append(name)
        elif LOADER_AND_VDSO.match(os.path.basename(name)) or name in allowed:
            system.append(name)
        else:
            problems.append(f"{name} => {target or '?'} is neither vendored nor allowed by the manylinux policy")
    print(f"  ldd: {len(vendored)} vendored, system: {', '.join(sorted(system))}")
    for problem in problems:
        print(f"       {problem}")
    check(not problems, "every library of the extension is vendored or a manylinux system library")
    check(bool(vendored), "the extension loads its vendored libraries")


def check_demo(tool: pathlib.Path, env: dict[str, str], work: pathlib.Path) -> None:
    data = work / "demo"
    started = time.monotonic()
    demo = run([str(tool), "demo", "--data-dir", str(data), "--large-file-bytes", "32M", "--no-progress"], env, work,
               check_rc=False)
    print("  " + "\n  ".join(demo.stdout.strip().splitlines()[-8:]))
    check(demo.returncode == 0, f"tidewright-sync demo (exit {demo.returncode}, {time.monotonic() - started:.1f} s)")
    verify = run([str(tool), "verify", "--data-dir", str(data), "--json"], env, work, check_rc=False)
    try:
        answer = json.loads(verify.stdout)
    except ValueError:
        answer = {}
    check(verify.returncode == 0 and answer.get("valid") is True and answer.get("files", 0) > 0,
          f"tidewright-sync verify on the demo's directory (exit {verify.returncode}): "
          f"{answer.get('files')} files, valid={answer.get('valid')}")


class TlsService:
    """The wheel's own reference data service over HTTPS, in a child process."""

    def __init__(self, python: pathlib.Path, env: dict[str, str], cwd: pathlib.Path) -> None:
        self.process = subprocess.Popen(
            [str(python), "-I", "-m", "tidewright.dataservice", "--tls", "--port", "0", "--features", "4",
             "--feature-bytes", "65536", "--token", "wheel-test-token"],
            env=env, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.fields: dict[str, str] = {}
        assert self.process.stdout is not None
        while "era" not in self.fields:
            line = self.process.stdout.readline()
            if not line:
                self.process.kill()
                raise SystemExit("the reference data service did not start")
            key, _, value = line.partition(": ")
            self.fields[key] = value.strip()
        self.url, self.ca_file = self.fields["url"], self.fields["ca_file"]

    def stop(self) -> None:
        # Ctrl-C lets the service stop cleanly and remove its certificates.
        self.process.send_signal(signal.SIGINT)
        try:
            self.process.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def can_make_mount_namespace() -> bool:
    if shutil.which("unshare") is None or os.geteuid() != 0:
        return False
    probe = subprocess.run(["unshare", "--mount", "--propagation", "private", "true"], capture_output=True)
    return probe.returncode == 0


def sync_over_tls(tool: pathlib.Path, env: dict[str, str], work: pathlib.Path, service: TlsService, name: str,
                  ca_bundle_at: str | None = None, relocate: bool = False) -> subprocess.CompletedProcess[str]:
    data = work / name
    data.mkdir()
    command = [str(tool), "sync", "--server", service.url, "--data-dir", str(data), "--token", "wheel-test-token",
               "--give-up-after", "3", "--no-progress"]
    if relocate:
        # A private mount namespace in which /etc/ssl (libcurl's compiled-in
        # bundle and directory) and /etc/pki are empty, as on a system that
        # keeps its bundle elsewhere; ca_bundle_at, when given, is that place.
        setup = "mount -t tmpfs tmpfs /etc/ssl && { [ ! -d /etc/pki ] || mount -t tmpfs tmpfs /etc/pki; }"
        if ca_bundle_at:
            setup += f' && cp "$0" {ca_bundle_at}'
        command = ["unshare", "--mount", "--propagation", "private", "sh", "-c", f'{setup} && shift && exec "$@"',
                   service.ca_file, "--", *command]
    return run(command, env, work, timeout=300, check_rc=False)


def check_tls(python: pathlib.Path, tool: pathlib.Path, env: dict[str, str], work: pathlib.Path) -> None:
    service = TlsService(python, env, work)
    try:
        with_env = dict(env, SSL_CERT_FILE=service.ca_file)
        synced = sync_over_tls(tool, with_env, work, service, "tls-env")
        check(synced.returncode == 0, f"sync over TLS with SSL_CERT_FILE (exit {synced.returncode})"
              + (f": {synced.stderr.strip()}" if synced.returncode else ""))
        if not can_make_mount_namespace():
            print("  skip the relocated-bundle checks: no private mount namespace here (needs root and unshare)")
            return
        moved = sync_over_tls(tool, env, work, service, "tls-moved", ca_bundle_at=RELOCATED_CA_BUNDLE, relocate=True)
        check(moved.returncode == 0, f"sync over TLS with the system bundle only at {RELOCATED_CA_BUNDLE} "
              f"(exit {moved.returncode})" + (f": {moved.stderr.strip()}" if moved.returncode else ""))
        none = sync_over_tls(tool, env, work, service, "tls-none", relocate=True)
        check(none.returncode == 4, f"without any trusted bundle the sync fails as unreachable (exit {none.returncode})")
    finally:
        service.stop()


README_EXAMPLE_MISUSE = '''
from tidewright.sync import SyncManager

manager = SyncManager.get_or_create("d", "https://data.example.com", get_token=lambda: 1)
count: str = manager.sync().bytes_downloaded
'''


def readme_library_example() -> str:
    text = (REPO / "README.md").read_text(encoding="utf-8")
    section = text.split("\n## Using the library\n", 1)[1].split("\n## ", 1)[0]
    match = re.search(r"```python\n(.*?)```", section, re.S)
    if not match:
        raise SystemExit("README.md: no python example under 'Using the library'")
    return match.group(1)


def check_typing(python: pathlib.Path, env: dict[str, str], work: pathlib.Path) -> None:
    if subprocess.run([sys.executable, "-m", "mypy", "--version"], capture_output=True).returncode != 0:
        check(False, "mypy is installed in the environment running this test (make wheel-deps)")
        return
    mypy_env = dict(env, MYPY_CACHE_DIR=str(work / ".mypy_cache"))
    mypy_env.pop("PIP_CONFIG_FILE", None)
    example, misuse = work / "readme_example.py", work / "misuse.py"
    example.write_text(readme_library_example(), encoding="utf-8")
    misuse.write_text(README_EXAMPLE_MISUSE, encoding="utf-8")
    mypy = [sys.executable, "-m", "mypy", "--strict", "--no-incremental", "--python-executable", str(python)]
    good = run([*mypy, example.name], mypy_env, work, check_rc=False)
    check(good.returncode == 0, "mypy --strict passes on the README's library example against the installed wheel"
          + ("" if good.returncode == 0 else ":\n" + good.stdout))
    bad = run([*mypy, misuse.name], mypy_env, work, check_rc=False)
    lines = {int(m.group(1)) for m in re.finditer(rf"^{misuse.name}:(\d+): error:", bad.stdout, re.M)}
    check(bad.returncode == 1 and lines == {4, 5},
          f"mypy catches a wrong token callable (line 4) and a wrong field type (line 5): errors on lines {sorted(lines)}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("wheel", type=pathlib.Path)
    parser.add_argument("--keep", action="store_true", help="keep the temporary directory")
    args = parser.parse_args()
    wheel = args.wheel.resolve()
    version = wheel.name.split("-")[1]
    size = wheel.stat().st_size
    print(f"wheel {wheel.name}: {size / 1e6:.1f} MB ({size} bytes)")

    work = pathlib.Path(tempfile.mkdtemp(prefix="tidewright-wheel-test-"))
    if inside(work, REPO):
        raise SystemExit(f"the temporary directory {work} is inside the checkout")
    try:
        venv = work / "venv"
        subprocess.run([sys.executable, "-m", "venv", str(venv)], check=True, cwd=work)
        env = clean_environment(venv)
        python, tool = venv / "bin" / "python", venv / "bin" / "tidewright-sync"
        run([str(python), "-m", "pip", "install", "-q", "--no-index", "--no-cache-dir", str(wheel)], env, work)
        site = pathlib.Path(run([str(python), "-I", "-c", "import sysconfig; print(sysconfig.get_path('purelib'))"],
                                env, work).stdout.strip())
        print(f"installed into {venv}")

        print("contents")
        check_wheel_contents(wheel)
        print("import")
        extension = check_import(python, env, work, site, version)
        print("linkage")
        check_linkage(extension, env, work, site, manylinux_system_libraries(wheel))
        print("command line")
        cli = run([str(tool), "--version"], env, work, check_rc=False)
        check(cli.stdout.strip() == f"tidewright-sync {version}", f"tidewright-sync --version: {cli.stdout.strip()}")
        alias = run([str(python), "-m", "tidewright", "--version"], env, work, check_rc=False)
        check(alias.stdout == cli.stdout, "python -m tidewright is the same command line")
        check_demo(tool, env, work)
        print("TLS")
        check_tls(python, tool, env, work)
        print("typing")
        check_typing(python, env, work)
    finally:
        if args.keep:
            print(f"kept {work}")
        else:
            shutil.rmtree(work, ignore_errors=True)

    print(f"wheel {wheel.name}: {size / 1e6:.1f} MB")
    if failures:
        print(f"wheel install test: {len(failures)} check(s) failed:")
        for failure in failures:
            print(f"  - {failure}")
        return 1
    print("wheel install test: all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
