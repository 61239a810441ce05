"""A small HTTP/1.1 server for the tests whose answers are written byte by
byte: bodies that never end or are longer than they announce, header lines
trickled one at a time. The reference data service answers like a correct
server that is sometimes broken; this one answers like a hostile one.

Every answer is a function ``action(exchange)`` registered for a path; it
writes whatever it likes through ``exchange.send`` and ``exchange.wait``.
One request per connection (the server always closes). The server listens
on 127.0.0.1 only, serves a bounded number of requests, and stops by itself
after ``lifetime`` seconds; every loop of an action ends when the server
stops or the client goes away.

    with RawHttpServer() as srv:
        url = srv.route("/data/manifest", endless_body())
"""

import socket
import threading
import time
import uuid
from urllib.parse import urlsplit

_HEAD_LIMIT = 64 * 1024
_FILLER = b" " * 65536


class ClientGone(Exception):
    """The client closed the connection, or the server is stopping."""


class Exchange:
    """One request and the means to answer it."""

    def __init__(self, server, sock, method, path, headers):
        self.server = server
        self.method = method
        self.path = path
        self.headers = headers  # lower-case names
        self.sent = 0  # bytes written after the head
        self._sock = sock

    def send(self, data):
        """Writes all of ``data``; raises ClientGone when the client left or the server stops."""
        view = memoryview(data)
        while view:
            if self.server.stopping.is_set():
                raise ClientGone()
            try:
                n = self._sock.send(view)
            except socket.timeout:
                continue  # the client reads slowly (or not at all): ask again
            except OSError as exc:
                raise ClientGone() from exc
            view = view[n:]
            self.sent += n

    def head(self, status, headers=(), reason="X"):
        lines = [f"HTTP/1.1 {status} {reason}"] + [f"{name}: {value}" for name, value in headers]
        self.send(("\r\n".join(lines) + "\r\n\r\n").encode("latin-1"))
        self.sent = 0

    def wait(self, seconds):
        """Sleeps; raises ClientGone when the server stops meanwhile."""
        if self.server.stopping.wait(seconds):
            raise ClientGone()


class RawHttpServer:
    def __init__(self, lifetime=60.0, max_requests=500):
        self.lifetime = lifetime
        self.max_requests = max_requests
        self.stopping = threading.Event()
        self.requests = []  # (method, path, headers) in arrival order
        self._routes = {}
        self._lock = threading.Lock()
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(0.2)
        self._threads = []
        self._acceptor = threading.Thread(target=self._accept, name="raw-http-accept", daemon=True)

    # -- set-up ---------------------------------------------------------------
    def route(self, path, *actions):
        """Answers ``path`` with ``actions`` in turn, the last one repeating; returns its URL."""
        with self._lock:
            self._routes[path] = list(actions)
        return self.url(path)

    def script(self, *actions):
        """A fresh file path answered by ``actions`` as ``route`` does; returns its URL."""
        return self.route(f"/data/files/{uuid.uuid4().hex}.bin", *actions)

    def url(self, path=""):
        return f"http://127.0.0.1:{self._listener.getsockname()[1]}{path}"

    def requests_for(self, path):
        """Requests for ``path`` (or a URL of it) as (method, path, headers)."""
        path = urlsplit(path).path
        with self._lock:
            return [r for r in self.requests if r[1] == path]

    def headers_for(self, path):
        return [headers for _, _, headers in self.requests_for(path)]

    def start(self):
        self._started = time.monotonic()
        self._acceptor.start()
        return self

    def stop(self):
        self.stopping.set()
        self._acceptor.join(5)
        for thread in list(self._threads):
            thread.join(5)
        self._listener.close()

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc_info):
        self.stop()

    # -- serving --------------------------------------------------------------
    def _accept(self):
        while not self.stopping.is_set():
            if time.monotonic() - self._started > self.lifetime:
                self.stopping.set()  # stops by itself, whatever the test does
                break
            try:
                sock, _ = self._listener.accept()
            except socket.timeout:
                continue
            except OSError:
                break
            with self._lock:
                if len(self.requests) >= self.max_requests:
                    sock.close()
                    continue
            thread = threading.Thread(target=self._serve, args=(sock,), name="raw-http-conn", daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, sock):
        with sock:
            sock.settimeout(0.5)
            try:
                head = self._read_head(sock)
            except ClientGone:
                return
            request_line, *header_lines = head.decode("latin-1").split("\r\n")
            method, target, _ = (request_line.split(" ") + ["", "", ""])[:3]
            headers = {}
            for line in header_lines:
                name, sep, value = line.partition(":")
                if sep:
                    headers[name.strip().lower()] = value.strip()
            path = urlsplit(target).path
            with self._lock:
                self.requests.append((method, path, headers))
                actions = self._routes.get(path)
                action = (actions.pop(0) if len(actions) > 1 else actions[0]) if actions else respond(404, b"unrouted")
            exchange = Exchange(self, sock, method, path, headers)
            try:
                action(exchange)
            except ClientGone:
                pass
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def _read_head(self, sock):
        data = b""
        while b"\r\n\r\n" not in data:
            if self.stopping.is_set() or len(data) > _HEAD_LIMIT:
                raise ClientGone()
            try:
                piece = sock.recv(4096)
            except socket.timeout:
                continue
            except OSError as exc:
                raise ClientGone() from exc
            if not piece:
                raise ClientGone()
            data += piece
        return data.split(b"\r\n\r\n", 1)[0]


# -- answers ---------------------------------------------------------------------


def respond(status, body=b"", headers=()):
    """A plain answer."""
    def action(ex):
        ex.head(status, list(headers) + [("Content-Length", len(body)), ("Connection", "close")])
        ex.send(body)
    return action


def endless_body(status=200, prefix=b"", filler=_FILLER, headers=(), content_length=None, limit=8 << 30):
    """``prefix``, then ``filler`` again and again until the client leaves
    (or ``limit`` bytes, or the server stops). Without ``content_length``
    the body is delimited by the close, as an endless stream would be."""
    def action(ex):
        extra = [("Content-Length", content_length)] if content_length is not None else []
        ex.head(status, list(headers) + extra + [("Connection", "close")])
        ex.send(prefix)
        while ex.sent < limit:
            ex.send(filler)
    return action


def trickled_headers(every=0.2, status=200):
    """The status line, then one header line every ``every`` seconds, never
    reaching the end of the head."""
    def action(ex):
        ex.send(f"HTTP/1.1 {status} OK\r\n".encode())
        n = 0
        while True:
            ex.wait(every)
            n += 1
            ex.send(f"X-Trickle-{n}: {'.' * 16}\r\n".encode())
    return action
