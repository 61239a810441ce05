"""What the command line writes: stdout and stderr with secrets redacted, strict JSON, and numbers for people.

Also the program's name and version as every message and ``--version`` give them.
"""

from __future__ import annotations

import errno
import json
import math
import os
import threading
from typing import Any, TextIO

PROG = "tidewright-sync"


def package_version() -> str:
    try:
        from tidewright import __version__
        return __version__
    except ImportError:  # pragma: no cover
        return "?"


class StdoutClosed(Exception):
    """Standard output went away (a closed pipe): the command ends quietly."""


class Console:
    """stdout/stderr writer that never lets a secret through.

    A closed stdout (``| head``, ``>&-``) raises StdoutClosed at the first
    write; later writes are dropped.
    """

    def __init__(self, out: TextIO | None, err: TextIO | None) -> None:
        self.out = out
        self.err = err if err is not None else open(os.devnull, "w")  # noqa: SIM115 - lives as long as the run
        self.out_closed = False
        self._secrets: list[str] = []
        self.lock = threading.Lock()

    def add_secret(self, secret: str | None) -> None:
        if secret and len(secret) >= 4 and secret not in self._secrets:
            self._secrets.append(secret)

    def redact(self, text: str) -> str:
        for secret in self._secrets:
            text = text.replace(secret, "***")
        return text

    def print(self, text: str = "") -> None:
        with self.lock:
            if self.out_closed:
                return
            try:
                if self.out is None:  # started with stdout closed (>&-)
                    raise BrokenPipeError(errno.EBADF, "standard output is closed")
                self.out.write(self.redact(text) + "\n")
                self.out.flush()
            except (BrokenPipeError, ValueError) as exc:  # ValueError: the stream was closed in-process
                self.out_closed = True
                raise StdoutClosed() from exc
            except OSError as exc:
                if exc.errno != errno.EPIPE:
                    raise
                self.out_closed = True
                raise StdoutClosed() from exc

    def error(self, text: str) -> None:
        with self.lock:
            self.err.write(self.redact(text) + "\n")
            self.err.flush()

    def json(self, obj: dict) -> None:
        self.print(json.dumps(json_safe(obj), sort_keys=True, default=str, allow_nan=False))


def json_safe(value: Any) -> Any:
    """``value`` with every NaN or infinity replaced by None: strict JSON for machines."""
    if isinstance(value, float):
        return value if math.isfinite(value) else None
    if isinstance(value, dict):
        return {key: json_safe(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [json_safe(item) for item in value]
    return value


def isatty(stream: TextIO) -> bool:
    try:
        return bool(stream.isatty())
    except (AttributeError, ValueError):
        return False


def human_bytes(n: float) -> str:
    """Decimal units, as download tools print them: 1.5 MB, 2.1 GB."""
    n = float(n)
    for unit in ("B", "kB", "MB", "GB", "TB"):
        if abs(n) < 1000 or unit == "TB":
            return f"{n:.0f} {unit}" if unit == "B" else f"{n:.1f} {unit}"
        n /= 1000.0
    return f"{n:.1f} TB"  # pragma: no cover - loop always returns


def human_seconds(s: float) -> str:
    if s < 60:
        return f"{s:.2f} s" if s < 10 else f"{s:.1f} s"
    m, sec = divmod(int(round(s)), 60)
    h, m = divmod(m, 60)
    return f"{h}:{m:02d}:{sec:02d}" if h else f"{m}:{sec:02d}"


def mb_per_s(nbytes: float, seconds: float) -> float:
    return nbytes / seconds / 1e6 if seconds > 0 else 0.0
