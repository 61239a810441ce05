"""Cold sync of tidewright.sync against peer downloaders, all from nginx on 127.0.0.1.

Generates an era with the reference data service's content generator
(default 2 GiB: one 1 GiB file and 64 files of 16 MiB, plus the era's small
JSON and PnL files), serves it with nginx in two shapes:

- the bearer-authenticated API layout that ``SyncManager`` syncs from
  (``/data/manifest/version``, ``/data/manifest``, ``/data/files/...``,
  ``/data/shuffle``, ``/market/<id>/era/current``);
- a public download location (``/public/files/...``) for the peers;

and measures, in one run, each into an empty directory on the same disk:

- tidewright.sync: ``tidewright-sync sync`` (every byte checked against the
  manifest's SHA-256 before the file becomes visible);
- aria2c ``-j8`` with a ``checksum=sha-256=...`` per file;
- hf_transfer (8 files at a time, 8 ranged connections per file) followed by
  a hashlib SHA-256 check of each file;
- the machine's limits: single-core SHA-256 (hashlib) and ``curl -o /dev/null``
  of the large file over loopback;
- a no-op resync of the synced directory;
- peak RSS of each process.

It prints a table with the ratios (peer time / tidewright time) and writes
``bench/out/peers.json`` (``peers-tiny.json`` with ``--tiny-files``).
Missing tools are installed first: nginx and aria2
with apt-get, hf-transfer with pip into the running interpreter's
environment (skipped, with a note, when the package index does not have it).

    .venv/bin/python bench/bench_peers.py [--size-gib 2] [--repeat 1] [--keep]
    .venv/bin/python bench/bench_peers.py --tiny-files 100000 [--tiny-bytes 256]

With ``--tiny-files`` the era is that many tiny files instead (hf_transfer is
left out: it is a large-file tool); the report then gives files per second,
CPU per file, the CPU nginx spent serving the sync, and the peak RSS of the
sync and of a no-op process over that era. Every run ends with the engine's
targets checked against the limits measured in the same run.

Never part of the test suite.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import hashlib
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import textwrap
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUT = os.path.join(REPO, "bench", "out")
TOKEN = "bench-token-7c1f"  # local nginx only
MiB = 1 << 20
GiB = 1 << 30

TARGETS = {"aria2c": 1.5, "hf_transfer": 1.2}

NGINX_CONF = """\
worker_processes 2;
daemon off;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log warn;
events {{ worker_connections 512; }}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 100000;
    keepalive_timeout 60;
    default_type application/octet-stream;
    client_body_temp_path {prefix}/client_body;
    proxy_temp_path {prefix}/proxy;
    fastcgi_temp_path {prefix}/fastcgi;
    uwsgi_temp_path {prefix}/uwsgi;
    scgi_temp_path {prefix}/scgi;
    server {{
        listen 127.0.0.1:{port};
        add_header X-Era-Number {era} always;
        error_page 401 = @unauthorized;
        location @unauthorized {{
            default_type application/json;
            return 401 '{{"error_code":"unauthorized","dependency":"auth","retryable":false,"recovery":"refresh_token","reason":"invalid bearer token"}}';
        }}
        location /data/files/ {{
            if ($http_authorization != "Bearer {token}") {{ return 401; }}
            alias {era_dir}/;
        }}
        location = /data/manifest {{
            if ($http_authorization != "Bearer {token}") {{ return 401; }}
            default_type application/json;
            alias {era_dir}/manifest.json;
        }}
        location = /data/manifest/version {{
            if ($http_authorization != "Bearer {token}") {{ return 401; }}
            default_type application/json;
            alias {api}/version.json;
        }}
        location = /data/shuffle {{
            if ($http_authorization != "Bearer {token}") {{ return 401; }}
            add_header X-Era-Number {era} always;
            add_header X-Tidewright-Shuffle-Key-Generation {shuffle_generation} always;
            add_header X-Tidewright-Shuffle-Key-Source {shuffle_source} always;
            alias {api}/shuffle.bin;
        }}
        location = /market/{market}/era/current {{
            if ($http_authorization != "Bearer {token}") {{ return 401; }}
            default_type application/json;
            alias {api}/era_current.json;
        }}
        location /public/files/ {{
            alias {era_dir}/;
        }}
    }}
}}
"""

NOOP_CALL = textwrap.dedent("""\
    import sys, time
    import tidewright.sync as sync
    manager = sync.SyncManager(sys.argv[1], sys.argv[2], token=sys.argv[3])
    started = time.perf_counter()
    manager.sync()
    print(time.perf_counter() - started)
    """)

HF_DRIVER = textwrap.dedent("""\
    import concurrent.futures, hashlib, json, os, sys
    import hf_transfer

    job = json.load(open(sys.argv[1]))
    dest = sys.argv[2]

    def fetch(item):
        path = os.path.join(dest, *item["path"].split("/"))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        hf_transfer.download(url=job["base"] + item["path"], filename=path, max_files=8,
                             chunk_size=10 * 1024 * 1024)
        digest = hashlib.sha256()
        with open(path, "rb") as handle:
            for block in iter(lambda: handle.read(8 << 20), b""):
                digest.update(block)
        if digest.hexdigest() != item["sha256"]:
            raise SystemExit("sha-256 mismatch: " + item["path"])

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        list(pool.map(fetch, job["files"]))
    """)


# -- set-up ------------------------------------------------------------------------

def say(text: str) -> None:
    print(text, flush=True)


def _sudo() -> list[str]:
    return [] if os.geteuid() == 0 else ["sudo"]


def ensure_apt(binary: str, package: str) -> str | None:
    found = shutil.which(binary) or (f"/usr/sbin/{binary}" if os.access(f"/usr/sbin/{binary}", os.X_OK) else None)
    if found:
        return found
    say(f"installing {package} (apt-get) ...")
    env = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
    try:
        subprocess.run(_sudo() + ["apt-get", "update", "-qq"], check=True, env=env, stdout=subprocess.DEVNULL)
        subprocess.run(_sudo() + ["apt-get", "install", "-y", "-qq", package], check=True, env=env,
                       stdout=subprocess.DEVNULL)
    except (OSError, subprocess.CalledProcessError) as exc:
        say(f"  could not install {package}: {exc}")
        return None
    return shutil.which(binary) or (f"/usr/sbin/{binary}" if os.access(f"/usr/sbin/{binary}", os.X_OK) else None)


def ensure_hf_transfer() -> tuple[bool, str]:
    try:
        import hf_transfer  # noqa: F401
        return True, ""
    except ImportError:
        pass
    pip = [sys.executable, "-m", "pip"]
    probe = subprocess.run(pip + ["index", "versions", "hf-transfer"], capture_output=True, text=True)
    if probe.returncode != 0 or "hf-transfer" not in probe.stdout:
        return False, "hf-transfer is not available from the package index here"
    say("installing hf-transfer (pip) ...")
    if subprocess.run(pip + ["install", "-q", "--disable-pip-version-check", "hf-transfer"]).returncode != 0:
        return False, "pip install hf-transfer failed"
    return True, ""


def generate_era(root: str, size_bytes: int, tiny_files: int = 0, tiny_bytes: int = 0) -> dict:
    """Materialise the era under ``root`` with the data service's generator; returns paths and manifest.

    The era is ``size_bytes`` in one large file and 64 features, or, with
    ``tiny_files``, that many features of ``tiny_bytes`` each and no large file."""
    sys.path.insert(0, REPO)
    from tools.dataservice import DataService

    if tiny_files:
        large, features, feature_bytes = 0, tiny_files, tiny_bytes
    else:
        large = size_bytes // 2
        features, feature_bytes = 64, max(1, (size_bytes - large) // 64)
    svc = DataService(root, seed=7, features=features, feature_bytes=feature_bytes, large_file_bytes=large,
                      token=TOKEN)
    era = svc.era()
    era_dir = os.path.join(root, f"market_{svc.market_id}", f"era_{era.era_number}")
    api = os.path.join(root, "api")
    os.makedirs(api, exist_ok=True)
    body = svc.manifest_bytes()
    with open(os.path.join(era_dir, "manifest.json"), "wb") as handle:
        handle.write(body)
    manifest = json.loads(body)
    with open(os.path.join(api, "version.json"), "w") as handle:
        json.dump({"version": era.version, "era_number": era.era_number,
                   "manifest_sha256": hashlib.sha256(body).hexdigest()}, handle)
    with open(os.path.join(api, "shuffle.bin"), "wb") as handle:
        handle.write(svc.shuffle_seed())
    with open(os.path.join(api, "era_current.json"), "w") as handle:
        json.dump(svc.era_current_body(), handle)
    return {"era_dir": era_dir, "api": api, "manifest": manifest, "era": era.era_number, "market": svc.market_id,
            "large": large, "feature_bytes": feature_bytes, "features": features}


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_nginx(nginx: str, era: dict, prefix: str) -> tuple[subprocess.Popen, str]:
    port = free_port()
    for sub in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"):
        os.makedirs(os.path.join(prefix, sub), exist_ok=True)
    manifest = era["manifest"]
    conf = os.path.join(prefix, "nginx.conf")
    with open(conf, "w") as handle:
        handle.write(NGINX_CONF.format(
            prefix=prefix, port=port, token=TOKEN, era=era["era"], market=era["market"], era_dir=era["era_dir"],
            api=era["api"], shuffle_generation=manifest.get("shuffle_key_generation", ""),
            shuffle_source=manifest.get("shuffle_key_source", "")))
    proc = subprocess.Popen([nginx, "-c", conf, "-p", prefix], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    deadline = time.monotonic() + 15
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise SystemExit(f"nginx did not start: {proc.stderr.read().decode(errors='replace')}")
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return proc, f"http://127.0.0.1:{port}"
        except OSError:
            time.sleep(0.05)
    proc.kill()
    raise SystemExit("nginx did not start listening")


# -- measuring ---------------------------------------------------------------------------

class Measured:
    def __init__(self, seconds: float, cpu_seconds: float, rss_kib: int, out: str, err: str) -> None:
        self.seconds = seconds
        self.cpu_seconds = cpu_seconds
        self.rss_kib = rss_kib
        self.out = out
        self.err = err


def measure(cmd: list[str], *, env: dict | None = None) -> Measured:
    """Wall time, CPU time (user + system, its threads and children) and peak RSS of one process.

    The peak is the child's own VmHWM, sampled from /proc until it exits:
    the rusage figure of wait4 also counts the forking parent's pages
    (the high-water mark survives exec), which would swamp small tools.
    """
    with tempfile.TemporaryFile("w+") as out, tempfile.TemporaryFile("w+") as err:
        started = time.perf_counter()
        proc = subprocess.Popen(cmd, stdout=out, stderr=err, env=env)
        status_path = f"/proc/{proc.pid}/status"
        peak = 0
        while True:
            try:
                with open(status_path) as handle:
                    for line in handle:
                        if line.startswith("VmHWM:"):
                            peak = max(peak, int(line.split()[1]))
                            break
            except OSError:
                pass
            # WNOWAIT: only look; wait4 below reaps it.
            if os.waitid(os.P_PID, proc.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None:
                break
            time.sleep(0.01)
        _, status, usage = os.wait4(proc.pid, 0)
        seconds = time.perf_counter() - started
        proc.returncode = os.waitstatus_to_exitcode(status)
        out.seek(0)
        err.seek(0)
        result = Measured(seconds, usage.ru_utime + usage.ru_stime, peak, out.read(), err.read())
    if proc.returncode != 0:
        raise RuntimeError(f"{cmd[0]} failed ({proc.returncode}): {result.err.strip()[-2000:]}")
    return result


def process_tree_cpu_seconds(pid: int) -> float:
    """User + system CPU seconds of a process and its live children (nginx and its workers)."""
    ticks = os.sysconf("SC_CLK_TCK")
    pids = [pid]
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children") as handle:
                pids += [int(p) for p in handle.read().split()]
    except OSError:
        pass
    total = 0
    for p in pids:
        try:
            with open(f"/proc/{p}/stat") as handle:
                fields = handle.read().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
        except (OSError, IndexError, ValueError):
            pass
    return total / ticks


def fresh_dir(path: str) -> str:
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path)
    subprocess.run(["sync"])  # write back the previous run's files before timing the next
    return path


def check_tree(dest: str, manifest: dict) -> None:
    """Every manifest file present with its size (the tools verified the hashes themselves)."""
    for path, entry in manifest["files"].items():
        local = os.path.join(dest, *path.split("/"))
        if os.path.getsize(local) != entry["size_bytes"]:
            raise RuntimeError(f"{local}: wrong size")


def best(runs: list[Measured]) -> Measured:
    return min(runs, key=lambda m: m.seconds)


def sha256_core_speed() -> float:
    block = os.urandom(256 * MiB)
    digest = hashlib.sha256()
    started = time.perf_counter()
    digest.update(block)
    return len(block) / (time.perf_counter() - started) / 1e6


# -- main --------------------------------------------------------------------------------

def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--size-gib", type=float, default=2.0, help="era size in GiB (default 2)")
    parser.add_argument("--repeat", type=int, default=1, help="runs per tool; the fastest counts")
    parser.add_argument("--concurrency", type=int, default=None, help="tidewright-sync --concurrency")
    parser.add_argument("--chunk-bytes", default=None, help="tidewright-sync --chunk-bytes")
    parser.add_argument("--work-dir", default=OUT, help="where the era and the download targets go")
    parser.add_argument("--skip", action="append", default=[], choices=("aria2c", "hf_transfer"),
                        help="leave a peer out")
    parser.add_argument("--keep", action="store_true", help="keep the downloaded trees")
    parser.add_argument("--tiny-files", type=int, default=0,
                        help="instead of the large era: this many tiny files (e.g. 100000)")
    parser.add_argument("--tiny-bytes", type=int, default=256, help="size of each tiny file (default 256)")
    args = parser.parse_args()
    if args.tiny_files:
        args.skip = sorted(set(args.skip) | {"hf_transfer"})  # one process per file set; not a small-file tool

    nginx = ensure_apt("nginx", "nginx-light")
    if nginx is None:
        return 1
    aria2c = None if "aria2c" in args.skip else ensure_apt("aria2c", "aria2")
    notes = []
    if aria2c is None and "aria2c" not in args.skip:
        notes.append("aria2c: could not be installed; skipped")
    have_hf = False
    if "hf_transfer" not in args.skip:
        have_hf, why = ensure_hf_transfer()
        if not have_hf:
            notes.append(f"hf_transfer: {why}; skipped")
    cli = os.path.join(os.path.dirname(sys.executable), "tidewright-sync")
    if not os.access(cli, os.X_OK):
        raise SystemExit("tidewright-sync not found next to this interpreter: run make install first")

    work = os.path.abspath(args.work_dir)
    size = int(args.size_gib * GiB)
    shape = f"{args.tiny_files} files of {args.tiny_bytes} bytes" if args.tiny_files else f"{args.size_gib:g} GiB"
    say(f"generating the era ({shape}) under {os.path.relpath(work, REPO)}/era ...")
    era_root = os.path.join(work, f"era-tiny-{args.tiny_files}-{args.tiny_bytes}" if args.tiny_files else "era")
    era = generate_era(era_root, size, args.tiny_files, args.tiny_bytes)
    manifest = era["manifest"]
    files = manifest["files"]
    total = sum(e["size_bytes"] for e in files.values())
    prefix = tempfile.mkdtemp(prefix="bench-nginx-")
    server, url = start_nginx(nginx, era, prefix)
    dest = os.path.join(work, "dest")
    token_file = os.path.join(prefix, "token")
    with open(token_file, "w") as handle:
        handle.write(TOKEN)
    results: dict[str, dict] = {}
    try:
        say(f"nginx on {url}; {len(files)} files, {total / 1e9:.2f} GB")

        # limits
        sha_mb_s = sha256_core_speed()
        curl_mb_s = 0.0
        if era["large"]:
            curl = measure(["curl", "-sS", "-o", "/dev/null",
                            url + "/public/files/" + next(p for p in files if "large__blob" in p)])
            curl_mb_s = era["large"] / curl.seconds / 1e6

        # tidewright.sync
        tw_cmd = [cli, "sync", "--server", url, "--data-dir", dest, "--token-file", token_file, "--json",
                  "--no-progress", "-q"]
        if args.concurrency:
            tw_cmd += ["--concurrency", str(args.concurrency)]
        if args.chunk_bytes:
            tw_cmd += ["--chunk-bytes", str(args.chunk_bytes)]
        runs = []
        for _ in range(args.repeat):
            fresh_dir(dest)
            served_before = process_tree_cpu_seconds(server.pid)
            m = measure(tw_cmd)
            m.server_cpu_seconds = process_tree_cpu_seconds(server.pid) - served_before
            if not json.loads(m.out).get("ok"):
                raise RuntimeError(f"tidewright-sync failed: {m.out}")
            runs.append(m)
        tw = best(runs)
        check_tree(dest, manifest)
        results["tidewright"] = {"seconds": tw.seconds, "cpu_seconds": tw.cpu_seconds, "rss_kib": tw.rss_kib,
                                 "server_cpu_seconds": tw.server_cpu_seconds}
        noop = best([measure(tw_cmd) for _ in range(max(args.repeat, 3))])
        # The sync() call alone (the process above includes start-up and the manifest load).
        noop_call = measure([sys.executable, "-c", NOOP_CALL, dest, url, TOKEN])
        results["noop_sync_call_seconds"] = float(noop_call.out.strip() or "nan")
        results["noop"] = {"seconds": noop.seconds, "cpu_seconds": noop.cpu_seconds, "rss_kib": noop.rss_kib}
        say(f"  tidewright.sync cold sync: {tw.seconds:.2f} s")

        # aria2c
        if aria2c:
            listing = os.path.join(prefix, "aria2.txt")
            with open(listing, "w") as handle:
                for path, entry in files.items():
                    handle.write(f"{url}/public/files/{path}\n  out={path}\n  checksum=sha-256={entry['sha256']}\n")
            runs = []
            for _ in range(args.repeat):
                fresh_dir(dest)
                runs.append(measure([aria2c, "-j8", "-i", listing, "-d", dest, "--file-allocation=none",
                                     "--console-log-level=warn", "--summary-interval=0", "--download-result=hide",
                                     "--allow-overwrite=true", "--auto-file-renaming=false"]))
            check_tree(dest, manifest)
            m = best(runs)
            results["aria2c"] = {"seconds": m.seconds, "cpu_seconds": m.cpu_seconds, "rss_kib": m.rss_kib}
            say(f"  aria2c -j8: {m.seconds:.2f} s")

        # hf_transfer
        if have_hf:
            job = os.path.join(prefix, "hf.json")
            with open(job, "w") as handle:
                json.dump({"base": url + "/public/files/",
                           "files": [{"path": p, "sha256": e["sha256"]} for p, e in files.items()]}, handle)
            driver = os.path.join(prefix, "hf_driver.py")
            with open(driver, "w") as handle:
                handle.write(HF_DRIVER)
            runs = []
            for _ in range(args.repeat):
                fresh_dir(dest)
                runs.append(measure([sys.executable, driver, job, dest]))
            check_tree(dest, manifest)
            m = best(runs)
            results["hf_transfer"] = {"seconds": m.seconds, "cpu_seconds": m.cpu_seconds, "rss_kib": m.rss_kib}
            say(f"  hf_transfer + hashlib: {m.seconds:.2f} s")
    finally:
        server.terminate()
        server.wait(10)
        shutil.rmtree(prefix, ignore_errors=True)
        if not args.keep:
            shutil.rmtree(dest, ignore_errors=True)

    report(results, total, len(files), era, sha_mb_s, curl_mb_s, notes)
    os.makedirs(OUT, exist_ok=True)
    with open(os.path.join(OUT, "peers-tiny.json" if args.tiny_files else "peers.json"), "w") as handle:
        json.dump({"bytes": total, "files": len(files), "results": results, "sha256_core_mb_s": sha_mb_s,
                   "curl_loopback_mb_s": curl_mb_s, "notes": notes, "cpus": os.cpu_count()}, handle, indent=2)
    return 0


def report(results: dict, total: int, nfiles: int, era: dict, sha_mb_s: float, curl_mb_s: float,
           notes: list[str]) -> None:
    tw = results["tidewright"]["seconds"]
    say("")
    if era["large"]:
        say(f"cold sync of {total / GiB:.2f} GiB in {nfiles} files (1 x {era['large'] / MiB:.0f} MiB, "
            f"64 x {era['feature_bytes'] / MiB:.1f} MiB, small files), nginx on 127.0.0.1, {os.cpu_count()} cores")
    else:
        say(f"cold sync of {nfiles} files ({era['features']} x {era['feature_bytes']} bytes, small files), "
            f"nginx on 127.0.0.1, {os.cpu_count()} cores")
    say(f"{'':34}{'seconds':>9}{'MB/s':>9}{'files/s':>9}{'CPU s':>8}{'peak RSS':>11}{'ratio':>8}  target")
    rows = [("tidewright.sync cold sync", "tidewright", None),
            ("aria2c -j8 + sha-256 per file", "aria2c", TARGETS["aria2c"]),
            ("hf_transfer + hashlib verify", "hf_transfer", TARGETS["hf_transfer"])]
    for label, key, target in rows:
        if key not in results:
            continue
        r = results[key]
        ratio = r["seconds"] / tw
        verdict = "" if target is None else f">= {target:.1f}  {'met' if ratio >= target else 'MISSED'}"
        say(f"{label:34}{r['seconds']:9.2f}{total / r['seconds'] / 1e6:9.0f}{nfiles / r['seconds']:9.0f}"
            f"{r['cpu_seconds']:8.2f}{r['rss_kib'] / 1024:7.0f} MiB{ratio:8.2f}  {verdict}")
    r = results["noop"]
    say(f"{'no-op resync (tidewright-sync)':34}{r['seconds']:9.3f}{'':18}{r['cpu_seconds']:8.2f}"
        f"{r['rss_kib'] / 1024:7.0f} MiB   sync() call {results['noop_sync_call_seconds']:.3f} s (<= 0.3 s)")
    t = results["tidewright"]
    say(f"limits: SHA-256 on one core (hashlib) {sha_mb_s:.0f} MB/s"
        + (f"; curl -o /dev/null over loopback {curl_mb_s:.0f} MB/s" if curl_mb_s else "")
        + f"; nginx spent {t['server_cpu_seconds']:.2f} CPU s serving the tidewright sync")
    say("ratio = peer seconds / tidewright seconds (higher: tidewright faster); CPU s = user + system time")

    # The engine's own targets, against the limits of this run.
    checks = []
    if era["large"]:
        throughput = total / tw / 1e6
        checks += [(f"throughput {throughput:.0f} MB/s = {throughput / curl_mb_s:.2f} x one curl stream",
                    throughput >= 0.5 * curl_mb_s, ">= 0.5 x"),
                   (f"CPU {t['cpu_seconds']:.2f} s", t["cpu_seconds"] <= 2.4 * total / (2 * GiB), "<= 2.4 s per 2 GiB"),
                   (f"peak RSS {t['rss_kib'] / 1024:.0f} MiB", t["rss_kib"] <= 64 * 1024, "<= 64 MiB")]
    else:
        per_file_us = t["cpu_seconds"] / nfiles * 1e6
        checks += [(f"{nfiles / tw:.0f} files/s", nfiles / tw >= 10_000, ">= 10000 files/s"),
                   (f"CPU {per_file_us:.0f} us per file", per_file_us <= 100, "<= 100 us"),
                   (f"peak RSS {t['rss_kib'] / 1024:.0f} MiB", t["rss_kib"] <= 160 * 1024, "<= 160 MiB"),
                   (f"no-op process peak RSS {r['rss_kib'] / 1024:.0f} MiB", r["rss_kib"] <= 100 * 1024,
                    "<= 100 MiB")]
    for text, ok, target in checks:
        say(f"target: {text:58} {target:20} {'met' if ok else 'MISSED'}")
    load = os.getloadavg()[0]
    if load > (os.cpu_count() or 1) / 2:
        say(f"note: load average {load:.1f} on {os.cpu_count()} cores during the run: other work shared the CPUs")
    for note in notes:
        say(f"note: {note}")


if __name__ == "__main__":
    sys.exit(main())
