"""The command line's grammar: subcommands, options, their value types, and the usage errors argparse raises."""

from __future__ import annotations

import argparse
import math
import re

from .console import PROG, package_version
from .errors import EXIT_CODES, EXIT_ERA, EXIT_INTEGRITY, EXIT_UNAVAILABLE, TOKEN_ENV

# A one-shot command gives up on an unreachable service after this long
# (the engine itself retries forever).
DEFAULT_GIVE_UP_SECONDS = 30.0


class UsageError(Exception):
    """A command line that argparse refused; ``parser`` is the (sub)parser that did."""

    def __init__(self, parser: argparse.ArgumentParser, message: str) -> None:
        super().__init__(message)
        self.parser = parser
        self.message = message


class _Parser(argparse.ArgumentParser):
    """Raises UsageError instead of printing and exiting, so that ``--json`` can report it."""

    def error(self, message: str):  # noqa: D102 - argparse hook
        raise UsageError(self, message)


def parse_size(text: str) -> int:
    """``67108864``, ``64M``, ``64MiB``, ``1G``: binary multiples; must be positive."""
    match = re.fullmatch(r"\s*(\d+)\s*([kKmMgG]?)(i?[bB])?\s*", text or "")
    if not match:
        raise argparse.ArgumentTypeError(f"not a size: {text!r} (examples: 67108864, 64M, 1G)")
    value = int(match.group(1)) * {"": 1, "k": 1 << 10, "m": 1 << 20, "g": 1 << 30}[match.group(2).lower()]
    if value <= 0:
        raise argparse.ArgumentTypeError("must be a positive number of bytes")
    return value


def give_up_seconds(text: str) -> float:
    """A finite, non-negative number of seconds (``nan`` would never give up)."""
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number of seconds: {text!r}") from None
    if not math.isfinite(value) or value < 0:
        raise argparse.ArgumentTypeError(f"must be a finite number of seconds, 0 or more: {text!r}")
    return value


def positive_int(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not an integer: {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError("must be at least 1")
    return value


def _common_options() -> argparse.ArgumentParser:
    """The options every subcommand takes."""
    common = _Parser(add_help=False)
    g = common.add_argument_group("data service and directory")
    g.add_argument("--server", metavar="URL", help="base URL of the data service (https, or http on loopback)")
    g.add_argument("--data-dir", metavar="DIR", help="the local data directory (must exist)")
    g.add_argument("--market", metavar="ID", type=positive_int, default=1, help="market id (default 1)")
    t = common.add_argument_group("token (never printed)")
    t.add_argument("--token-file", metavar="FILE", help="read the bearer token from FILE (preferred)")
    t.add_argument("--token", metavar="TOKEN",
                   help=f"the bearer token itself (visible to other users in the process list; "
                        f"prefer --token-file or {TOKEN_ENV})")
    k = common.add_argument_group("transport")
    k.add_argument("--transport", choices=("auto", "urllib", "curl"), default=None,
                   help="HTTP transport for public file downloads (default auto)")
    k.add_argument("--chunk-bytes", metavar="N", type=parse_size, default=None,
                   help="size of one ranged request, e.g. 64M (default 64 MiB)")
    k.add_argument("--concurrency", metavar="N", type=positive_int, default=None,
                   help="parallel download workers (default 8)")
    k.add_argument("--give-up-after", metavar="SECONDS", type=give_up_seconds, default=DEFAULT_GIVE_UP_SECONDS,
                   help=f"stop retrying when the service stays unreachable (exit {EXIT_UNAVAILABLE}) or keeps "
                        f"answering a download unusably (exit {EXIT_ERA} or {EXIT_INTEGRITY}) this long "
                        f"(default {DEFAULT_GIVE_UP_SECONDS:.0f}; 'watch' retries forever once started)")
    o = common.add_argument_group("output")
    o.add_argument("-v", "--verbose", action="count", default=0, help="more log output (-vv: debug)")
    o.add_argument("-q", "--quiet", action="count", default=0, help="errors only, no progress bar")
    o.add_argument("--json", action="store_true", help="print one JSON object on stdout")
    o.add_argument("--progress", action="store_true", help="show progress even when stderr is not a terminal")
    o.add_argument("--no-progress", action="store_true", help="never show progress")
    return common


def build_parser() -> argparse.ArgumentParser:
    common = _common_options()
    codes = "\n".join(f"  {code:>3}  {text}" for code, text in EXIT_CODES.items())
    parser = _Parser(
        prog=PROG, formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Keep a local Tidewright data directory in step with the data service.",
        epilog=f"exit status:\n{codes}")
    parser.add_argument("--version", action="version", version=f"{PROG} {package_version()}")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)

    p = sub.add_parser("sync", parents=[common], help="download what is missing or stale, then exit")
    p.add_argument("--verify", action="store_true", help="verify every file after the sync")
    sub.add_parser("verify", parents=[common], help="check local files against the manifest (no service needed)")
    p = sub.add_parser("repair", parents=[common], help="re-download corrupt or missing files")
    p.add_argument("paths", nargs="*", metavar="PATH", help="manifest-relative paths (default: all that verify finds)")
    sub.add_parser("status", parents=[common], help="what the data directory holds; progress of a running sync")
    sub.add_parser("watch", parents=[common], help="keep the directory current until Ctrl-C")
    p = sub.add_parser("demo", parents=[common], help="sync a generated era from a local reference service")
    p.add_argument("--seed", type=int, default=1, help="content seed of the generated era")
    p.add_argument("--features", type=int, default=16, help="number of feature files")
    p.add_argument("--feature-bytes", type=parse_size, default=1 << 20, help="size of one feature file (default 1M)")
    p.add_argument("--large-file-bytes", type=lambda s: 0 if s.strip() == "0" else parse_size(s), default=128 << 20,
                   help="size of one extra large file (default 128M; 0 for none)")
    return parser
