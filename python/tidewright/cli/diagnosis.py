"""Asking the data service once ourselves, to name the cause when the engine's retries have not helped.

One TCP connection attempt, or one GET without credentials that does not
follow redirects and reads nothing beyond the headers.
"""

from __future__ import annotations

import time
from typing import Any

from .console import PROG, package_version


def probe_url(server: str, name: str) -> str:
    """The URL of an endpoint ("/data/manifest") or a manifest file ("features/...") as events name them."""
    from urllib.parse import quote

    base = server.rstrip("/")
    if name.startswith("/"):
        return base + name
    return base + "/data/files/" + quote(name)


_PROBE_HEAD_LIMIT = 64 * 1024  # bytes
_PROBE_HEAD_LINES = 100  # header lines, as the standard library's client allows


def probe_http(url: str, *, range_header: str | None = None, timeout: float = 5.0) -> dict | None:
    """One GET of ``url`` without credentials and without following redirects.

    The status of the answer with its Location and Content-Range headers,
    or None when there is none. Only the service given by --server is asked, and nothing
    of the answer is read beyond its headers. ``timeout`` bounds the whole
    exchange, so a server trickling header lines cannot stretch it.
    """
    from urllib.parse import urlsplit

    deadline = time.monotonic() + timeout

    def left() -> float:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise TimeoutError("diagnosis probe timed out")
        return remaining

    try:
        parts = urlsplit(url)
        request = _probe_request(parts, range_header)
        if request is None:
            return None
        return _parse_head(_exchange(parts, request, left))
    except (OSError, ValueError, UnicodeError):
        return None


def _probe_request(parts, range_header: str | None) -> bytes | None:
    """The request's bytes, or None for a URL that is not plain http(s) or would not make a clean request."""
    if parts.scheme not in ("http", "https") or not parts.hostname:
        return None
    authority = parts.netloc.rpartition("@")[2]
    target = (parts.path or "/") + (f"?{parts.query}" if parts.query else "")
    if any(c.isspace() or not c.isprintable() for c in target + authority):
        return None  # would split the request line or inject a header
    lines = [f"GET {target} HTTP/1.1", f"Host: {authority}",
             f"User-Agent: {PROG}/{package_version()} (diagnosis)", "Accept-Encoding: identity",
             "Connection: close"] + ([f"Range: {range_header}"] if range_header else [])
    return ("\r\n".join(lines) + "\r\n\r\n").encode("ascii")


def _exchange(parts, request: bytes, left) -> bytes:
    """Send ``request`` and read the answer's head, each step bounded by what ``left()`` allows."""
    import socket
    import ssl

    host, port = parts.hostname, parts.port or (443 if parts.scheme == "https" else 80)
    with socket.create_connection((host, port), timeout=left()) as raw:
        sock = raw
        if parts.scheme == "https":
            raw.settimeout(left())  # bounds the handshake as a whole
            sock = ssl.create_default_context().wrap_socket(raw, server_hostname=host)
        with sock:
            sock.settimeout(left())
            sock.sendall(request)
            head = b""
            while (b"\r\n\r\n" not in head and len(head) < _PROBE_HEAD_LIMIT
                   and head.count(b"\n") <= _PROBE_HEAD_LINES):
                sock.settimeout(left())
                piece = sock.recv(4096)
                if not piece:
                    break
                head += piece
    return head


def _parse_head(head: bytes) -> dict | None:
    """The status with the Location and Content-Range headers, or None for a head that is not HTTP."""
    if b"\r\n\r\n" not in head:
        return None
    status_line, *header_lines = head.split(b"\r\n\r\n", 1)[0].decode("latin-1").split("\r\n")
    version, _, rest = status_line.partition(" ")
    code = rest.split(" ", 1)[0]
    if not version.startswith("HTTP/") or not (len(code) == 3 and code.isdigit()):
        return None
    answer: dict[str, Any] = {"status": int(code)}
    for line in header_lines:
        name, sep, value = line.partition(":")
        if sep and name.strip().lower() in ("location", "content-range"):
            answer[name.strip().lower()] = value.strip()
    return answer


def diagnose_connection(url: str) -> str:
    """Why a URL cannot be reached, in a few words (one TCP connection attempt)."""
    import socket
    from urllib.parse import urlsplit

    try:
        parts = urlsplit(url)
        host = parts.hostname or ""
        port = parts.port or (443 if parts.scheme == "https" else 80)
    except ValueError:
        return "malformed URL"
    try:
        socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
    except socket.gaierror:
        return f"cannot resolve the host name {host}"
    try:
        with socket.create_connection((host, port), timeout=5):
            pass
    except ConnectionRefusedError:
        return f"connection refused: nothing listens on {host}:{port}"
    except (TimeoutError, socket.timeout):
        return f"no answer from {host}:{port}"
    except OSError as exc:
        return exc.strerror or type(exc).__name__
    if parts.scheme == "https":
        return "it accepts connections but requests fail: is its certificate trusted? (SSL_CERT_FILE)"
    return "it accepts connections but requests fail"
