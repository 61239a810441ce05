"""Ranged download throughput of the in-process client against the curl program.

Serves a generated file (1 GiB by default) from nginx on 127.0.0.1, then
downloads it in 64 MiB ranges through the client's download-to-path entry
(the path file downloads take) and, in the same run, in one request with
``curl -o /dev/null``. Both write to /dev/null, so the figures compare the
HTTP paths, not the disks. Prints MB/s for both and their ratio.

    .venv/bin/python bench/bench_http_range.py [--size-mib 1024] [--chunk-mib 64] [--repeat 3]

Needs nginx (Debian package nginx or nginx-light) and curl; nginx runs from a
configuration written into a temporary directory and is stopped at the end.
"""

from __future__ import annotations

import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

import tidewright.sync as sync

NGINX_CONF = """\
worker_processes 1;
daemon off;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log warn;
events {{ worker_connections 64; }}
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
    types {{ application/octet-stream bin; }}
    server {{
        listen 127.0.0.1:{port};
        root {prefix}/www;
    }}
}}
"""


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def find_nginx() -> str:
    for candidate in (shutil.which("nginx"), "/usr/sbin/nginx"):
        if candidate and os.access(candidate, os.X_OK):
            return candidate
    sys.exit("nginx not found: install the Debian package nginx-light (or nginx)")


def write_file(path: str, size: int) -> None:
    block = os.urandom(1 << 20)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            n = min(left, len(block))
            f.write(block[:n])
            left -= n


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


def ours(url: str, size: int, chunk: int) -> float:
    started = time.perf_counter()
    for start in range(0, size, chunk):
        end = min(start + chunk, size) - 1
        request = urllib.request.Request(url, headers={"Range": f"bytes={start}-{end}",
                                                      "User-Agent": sync._SYNC_USER_AGENT})
        status, headers = sync._download_request_to_path(request, os.devnull, 30.0, "urllib")
        if status != 206 or headers.get("Content-Range") != f"bytes {start}-{end}/{size}":
            raise RuntimeError(f"unexpected answer to range {start}-{end}: {status} {headers}")
    return time.perf_counter() - started


def curl(url: str) -> float:
    started = time.perf_counter()
    subprocess.run(["curl", "-s", "-o", os.devnull, url], check=True)
    return time.perf_counter() - started


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size-mib", type=int, default=1024)
    parser.add_argument("--chunk-mib", type=int, default=64)
    parser.add_argument("--repeat", type=int, default=3, help="runs of each; the best one counts")
    args = parser.parse_args()
    size = args.size_mib << 20
    chunk = args.chunk_mib << 20

    prefix = tempfile.mkdtemp(prefix="bench-http-range-")
    nginx = None
    try:
        os.chmod(prefix, 0o755)  # nginx workers may run as another user
        www = os.path.join(prefix, "www")
        os.mkdir(www)
        os.chmod(www, 0o755)
        data = os.path.join(www, "data.bin")
        write_file(data, size)
        os.chmod(data, 0o644)
        port = free_port()
        conf = os.path.join(prefix, "nginx.conf")
        with open(conf, "w") as f:
            f.write(NGINX_CONF.format(prefix=prefix, port=port))
        nginx = subprocess.Popen([find_nginx(), "-p", prefix, "-c", conf], stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        wait_for_port(port, nginx)
        url = f"http://127.0.0.1:{port}/data.bin"

        curl(url)  # warm the page cache and nginx
        ours_best = curl_best = float("inf")
        for _ in range(args.repeat):
            ours_best = min(ours_best, ours(url, size, chunk))
            curl_best = min(curl_best, curl(url))
        ours_rate = size / ours_best / 1e6
        curl_rate = size / curl_best / 1e6
        print(f"file {args.size_mib} MiB, ranges of {args.chunk_mib} MiB, best of {args.repeat}")
        print(f"tidewright.sync download-to-path: {ours_rate:8.1f} MB/s ({ours_best:.2f} s)")
        print(f"curl -o /dev/null:                {curl_rate:8.1f} MB/s ({curl_best:.2f} s)")
        print(f"ratio: {ours_rate / curl_rate:.2f}")
    finally:
        if nginx is not None:
            nginx.terminate()
            try:
                nginx.wait(10)
            except subprocess.TimeoutExpired:
                nginx.kill()
                nginx.wait()
        shutil.rmtree(prefix, ignore_errors=True)


if __name__ == "__main__":
    main()
