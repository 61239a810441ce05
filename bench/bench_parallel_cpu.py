"""Parallel download of 64 files of 16 MiB with 8 workers: wall time, throughput, CPU use.

The era is written to disk by the data service (its manifest, version and
shuffle seed stay with the service) and its files are served by nginx from
there: the manifest's base_url names nginx, so every file is a public ranged
GET to a server that costs little CPU. The sync runs in a child process;
its CPU use is (user + sys) / wall from the child's resource usage, where 2.0
means both cores busy. nginx's CPU is read from /proc and shown beside it.
With --server dataservice the files come from the Python service instead
(then the service, not the client, is what the machine spends its time on).

    .venv/bin/python bench/bench_parallel_cpu.py [--files 64] [--file-mib 16] [--workers 8] [--repeat 3]

Needs nginx (Debian package nginx-light or nginx) unless --server dataservice.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import resource
import shutil
import socket
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parents[1]
MIB = 1024 * 1024

NGINX_CONF = """\
worker_processes 2;
daemon off;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log warn;
events {{ worker_connections 256; }}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 100000;
    client_body_temp_path {prefix}/client_body;
    proxy_temp_path {prefix}/proxy;
    fastcgi_temp_path {prefix}/fastcgi;
    uwsgi_temp_path {prefix}/uwsgi;
    scgi_temp_path {prefix}/scgi;
    default_type application/octet-stream;
    server {{
        listen 127.0.0.1:{port};
        root {root};
    }}
}}
"""


def child(url: str, token: str, data_dir: str, workers: int) -> None:
    import tidewright.sync as sync

    manager = sync.SyncManager(data_dir, url, token=token, sync_max_concurrency=workers)
    before = resource.getrusage(resource.RUSAGE_SELF)
    started = time.perf_counter()
    result = manager.sync()
    wall = time.perf_counter() - started
    after = resource.getrusage(resource.RUSAGE_SELF)
    print(json.dumps({"wall": wall, "user": after.ru_utime - before.ru_utime, "sys": after.ru_stime - before.ru_stime,
                      "bytes": result.bytes_downloaded}))


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def find_nginx() -> str:
    for candidate in (shutil.which("nginx"), "/usr/sbin/nginx"):
        if candidate and os.access(candidate, os.X_OK):
            return candidate
    sys.exit("nginx not found: install the Debian package nginx-light (or nginx), or use --server dataservice")


def wait_for_port(port: int, process: subprocess.Popen, timeout: float = 10.0) -> None:
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError(f"nginx exited with status {process.returncode}")
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nginx did not start listening")


def tree_cpu_seconds(pid: int) -> float:
    """user + sys of a process and its reaped children so far, plus its live children."""
    ticks = os.sysconf("SC_CLK_TCK")
    total = 0.0
    pids = [pid]
    try:
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as handle:
            pids += [int(p) for p in handle.read().split()]
    except OSError:
        pass
    for p in pids:
        try:
            with open(f"/proc/{p}/stat", encoding="ascii") as handle:
                fields = handle.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        total += sum(int(v) for v in fields[11:15]) / ticks  # utime stime cutime cstime
    return total


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=64)
    parser.add_argument("--file-mib", type=int, default=16)
    parser.add_argument("--workers", type=int, default=8)
    parser.add_argument("--repeat", type=int, default=3, help="syncs into fresh directories; each is shown")
    parser.add_argument("--server", choices=("nginx", "dataservice"), default="nginx")
    parser.add_argument("--child", nargs=3, metavar=("URL", "TOKEN", "DATA_DIR"), help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.child:
        child(*args.child, args.workers)
        return 0

    sys.path.insert(0, str(REPO))
    from tools.dataservice import DataService

    prefix = tempfile.mkdtemp(prefix="bench-parallel-cpu-")
    os.chmod(prefix, 0o755)  # nginx workers may run as another user
    nginx = None
    service = None
    try:
        layout = dict(features=args.files, feature_bytes=args.file_mib * MIB)
        if args.server == "nginx":
            port = free_port()
            base_url = f"http://127.0.0.1:{port}"
            root = os.path.join(prefix, "era")
            service = DataService(root, manifest_overrides={"base_url": base_url}, **layout).start()
            era_dir = os.path.join(root, "market_1", "era_1")
            for directory, _, names in os.walk(root):
                os.chmod(directory, 0o755)
                for name in names:
                    os.chmod(os.path.join(directory, name), 0o644)
            conf = os.path.join(prefix, "nginx.conf")
            with open(conf, "w", encoding="ascii") as handle:
                handle.write(NGINX_CONF.format(prefix=prefix, port=port, root=era_dir))
            nginx = subprocess.Popen([find_nginx(), "-p", prefix, "-c", conf], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
            wait_for_port(port, nginx)
        else:
            service = DataService(**layout).start()

        print(f"{args.files} files x {args.file_mib} MiB, {args.workers} workers, files served by {args.server}")
        for run in range(args.repeat):
            data_dir = os.path.join(prefix, f"data{run}")
            os.mkdir(data_dir)
            server_cpu = tree_cpu_seconds(nginx.pid) if nginx else 0.0
            out = subprocess.run([sys.executable, __file__, "--workers", str(args.workers), "--child", service.url,
                                  service.token, data_dir], check=True, capture_output=True, text=True)
            server_cpu = (tree_cpu_seconds(nginx.pid) if nginx else 0.0) - server_cpu
            f = json.loads(out.stdout.strip().splitlines()[-1])
            cpu = f["user"] + f["sys"]
            rate = f["bytes"] / MIB / f["wall"]
            line = (f"run {run + 1}: {f['wall']:.2f} s, {rate:.0f} MiB/s; client CPU {cpu:.2f} s "
                    f"(user {f['user']:.2f}, sys {f['sys']:.2f}) = {cpu / f['wall']:.2f} cores")
            if nginx:
                line += f"; nginx {server_cpu / f['wall']:.2f} cores"
            print(line)
            shutil.rmtree(data_dir, ignore_errors=True)
    finally:
        if service is not None:
            service.stop()
        if nginx is not None:
            nginx.terminate()
            try:
                nginx.wait(10)
            except subprocess.TimeoutExpired:
                nginx.kill()
                nginx.wait()
        shutil.rmtree(prefix, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
