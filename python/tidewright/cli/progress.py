"""The progress display: the engine's progress reports as a tqdm bar or a plain line on stderr."""

from __future__ import annotations

import logging
import threading
import time
from typing import Callable, TextIO

from .console import human_bytes, human_seconds, isatty


class Progress:
    """Receives the engine's progress reports (from core threads) and shows them.

    A tqdm bar on stderr when tqdm is installed, otherwise a plain line
    (rewritten in place on a terminal, printed every few seconds elsewhere).
    The last report is kept for the summary even when nothing is shown.
    """

    _PLAIN_LINE_INTERVAL_SECONDS = 5.0

    def __init__(self, stream: TextIO, *, show: bool, use_tqdm: bool = True,
                 on_report: Callable[[dict, dict | None], None] | None = None) -> None:
        self.stream = stream
        self.show = show
        self.on_report = on_report
        self._lock = threading.Lock()
        self._bar = None
        self._plain_open = False
        self._last_plain = 0.0
        self._samples: list[tuple[float, int]] = []
        self.last: dict | None = None
        self.files_downloaded = 0
        self._tqdm = None
        if show and use_tqdm:
            try:
                from tqdm import tqdm  # optional dependency (extra "cli")
                self._tqdm = tqdm
            except ImportError:
                self._tqdm = None
        self._tty = isatty(stream)

    def __call__(self, report: dict) -> None:
        try:
            with self._lock:
                self._update(dict(report))
        except Exception:  # a display problem must never end a sync
            logging.getLogger(__name__).debug("progress display failed", exc_info=True)

    def _update(self, r: dict) -> None:
        if not r.get("phase"):
            return  # bytes outside a download batch (single-file repairs): no totals to show
        running = self.last is not None and not self.last.get("done")
        starting = not running or r.get("phase") != self.last.get("phase")
        if self.on_report is not None:
            self.on_report(r, self.last if running else None)
        self.last = r
        if r.get("done") and running:
            self.files_downloaded += int(r.get("files_done") or 0)
        if not self.show or (r.get("done") and not running):
            return
        if starting and not r.get("done"):
            self._open(r)
        if self._bar is not None:
            bar = self._bar
            bar.total = max(int(r.get("bytes_total") or 0), 1)
            delta = int(r.get("bytes_done") or 0) - bar.n
            bar.set_postfix_str(f"files {r.get('files_done', 0)}/{r.get('files_total', 0)}", refresh=False)
            bar.update(delta)
            if r.get("done"):
                bar.close()
                self._bar = None
            return
        self._plain(r)

    def _open(self, r: dict) -> None:
        self._samples.clear()
        if self._tqdm is not None:
            self._bar = self._tqdm(total=max(int(r.get("bytes_total") or 0), 1), unit="B", unit_scale=True,
                                   unit_divisor=1000, desc=str(r.get("phase") or "sync"), file=self.stream,
                                   dynamic_ncols=True, leave=True, smoothing=0.3, mininterval=0.2)

    def _plain(self, r: dict) -> None:
        now = time.monotonic()
        done_bytes = int(r.get("bytes_done") or 0)
        total = int(r.get("bytes_total") or 0)
        self._samples.append((now, done_bytes))
        while len(self._samples) > 2 and now - self._samples[0][0] > 3.0:
            self._samples.pop(0)
        t0, b0 = self._samples[0]
        rate = (done_bytes - b0) / (now - t0) if now > t0 else 0.0
        if rate <= 0 and r.get("elapsed_seconds"):
            rate = done_bytes / max(float(r["elapsed_seconds"]), 1e-9)
        eta = human_seconds((total - done_bytes) / rate) if rate > 0 and total >= done_bytes else "?"
        pct = 100.0 * done_bytes / total if total else 100.0
        line = (f"{r.get('phase') or 'sync'} {pct:5.1f}%  {human_bytes(done_bytes)} / {human_bytes(total)}  "
                f"{human_bytes(rate)}/s  ETA {eta}  files {r.get('files_done', 0)}/{r.get('files_total', 0)}")
        if self._tty:
            self.stream.write("\r" + line.ljust(79))
            self._plain_open = True
            if r.get("done"):
                self.stream.write("\n")
                self._plain_open = False
            self.stream.flush()
        elif r.get("done") or now - self._last_plain >= self._PLAIN_LINE_INTERVAL_SECONDS:
            self._last_plain = now
            self.stream.write(line + "\n")
            self.stream.flush()

    def write_above(self, text: str) -> None:
        """A log line, printed above the bar (or the plain line) instead of through it."""
        with self._lock:
            if self._bar is not None:
                self._bar.clear()
                self.stream.write(text)
                self._bar.refresh()
            elif self._plain_open:
                self.stream.write("\r" + " " * 79 + "\r" + text)
            else:
                self.stream.write(text)
            self.stream.flush()

    def close(self) -> None:
        with self._lock:
            if self._bar is not None:
                self._bar.close()
                self._bar = None
            if self._plain_open:
                self.stream.write("\n")
                self.stream.flush()
                self._plain_open = False
