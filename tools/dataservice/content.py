"""Deterministic era content for the reference data service.

Everything an era serves is derived from ``(seed, market_id, era_number)`` and
an :class:`EraLayout`: the feature and PnL files (pseudo-random bytes), the
per-universe vocabularies, the functions file, the content-addressed signals
index, the shuffle seed and the manifest that lists them.

Binary files are never held in memory. Their bytes are produced block by
block on demand (:class:`GeneratedContent`), so a multi-GiB file costs only
the time to hash it once; any byte range can be produced without producing
what comes before it.
"""

from __future__ import annotations

import copy
import dataclasses
import hashlib
import json
import os
from typing import Any, Iterator, Mapping

__all__ = [
    "BytesContent",
    "DiskContent",
    "Era",
    "EraLayout",
    "FileEntry",
    "GeneratedContent",
    "SHUFFLE_KEY_GENERATION",
    "SHUFFLE_SEED_BYTES",
]

SHUFFLE_KEY_GENERATION = "market-era-v1"
SHUFFLE_KEY_SOURCE = "dataservice"
SHUFFLE_SEED_BYTES = 60

GEN_BLOCK_BYTES = 64 * 1024
_POOL_BYTES = 1024 * 1024
_TAG_BYTES = 16
_pool: bytes | None = None


def _random_pool() -> bytes:
    # One fixed megabyte of pseudo-random bytes; blocks are slices of it at
    # per-block offsets behind a per-block tag, which is far cheaper than a
    # keystream and still makes every block of every file distinct.
    global _pool
    if _pool is None:
        _pool = hashlib.shake_256(b"tidewright-dataservice-pool-v1").digest(_POOL_BYTES)
    return _pool


class BytesContent:
    """A file held in memory (JSON artifacts, small extras)."""

    def __init__(self, data: bytes) -> None:
        self.data = bytes(data)
        self.size = len(self.data)
        self.sha256 = hashlib.sha256(self.data).hexdigest()

    def iter_range(self, start: int, stop: int, chunk: int = GEN_BLOCK_BYTES) -> Iterator[bytes]:
        view = memoryview(self.data)
        for pos in range(start, stop, chunk):
            yield bytes(view[pos:min(stop, pos + chunk)])

    def read(self) -> bytes:
        return self.data


class GeneratedContent:
    """Pseudo-random bytes of a given size, determined by ``key``; produced lazily.

    The SHA-256 is computed on first use (one pass over the content) unless
    it is passed in.
    """

    def __init__(self, key: str, size: int, sha256: str | None = None) -> None:
        if size < 0:
            raise ValueError("size must be non-negative")
        self.key = key.encode("utf-8")
        self.size = int(size)
        self._sha256 = sha256

    def block(self, index: int) -> bytes:
        """Block ``index`` (``GEN_BLOCK_BYTES`` long except the last)."""
        start = index * GEN_BLOCK_BYTES
        length = min(GEN_BLOCK_BYTES, self.size - start)
        if length <= 0:
            return b""
        digest = hashlib.blake2b(self.key + index.to_bytes(8, "little"), digest_size=24).digest()
        offset = int.from_bytes(digest[_TAG_BYTES:], "little") % (_POOL_BYTES - GEN_BLOCK_BYTES)
        data = digest[:_TAG_BYTES] + _random_pool()[offset:offset + GEN_BLOCK_BYTES - _TAG_BYTES]
        return data[:length]

    def iter_range(self, start: int, stop: int, chunk: int = GEN_BLOCK_BYTES) -> Iterator[bytes]:
        """The bytes ``[start, stop)`` in pieces of at most one block."""
        stop = min(stop, self.size)
        pos = start
        while pos < stop:
            index, skip = divmod(pos, GEN_BLOCK_BYTES)
            piece = self.block(index)[skip:skip + (stop - pos)]
            for sub in range(0, len(piece), chunk):
                yield piece[sub:sub + chunk]
            pos += len(piece)

    @property
    def sha256(self) -> str:
        if self._sha256 is None:
            digest = hashlib.sha256()
            for piece in self.iter_range(0, self.size):
                digest.update(piece)
            self._sha256 = digest.hexdigest()
        return self._sha256

    def read(self) -> bytes:
        return b"".join(self.iter_range(0, self.size))


class DiskContent:
    """A file materialised on disk (when the service has a root directory)."""

    def __init__(self, path: str, size: int, sha256: str) -> None:
        self.path = path
        self.size = size
        self.sha256 = sha256

    def iter_range(self, start: int, stop: int, chunk: int = GEN_BLOCK_BYTES) -> Iterator[bytes]:
        with open(self.path, "rb") as handle:
            handle.seek(start)
            remaining = stop - start
            while remaining > 0:
                data = handle.read(min(chunk, remaining))
                if not data:
                    return
                remaining -= len(data)
                yield data

    def read(self) -> bytes:
        with open(self.path, "rb") as handle:
            return handle.read()


@dataclasses.dataclass
class EraLayout:
    """Shape and sizes of a generated era.

    ``features`` scoped feature files (``features/<universe>/<epoch>/<name>.arrow``)
    are spread over ``universes`` in families of ``family_size`` files that
    share a directory and a name prefix; ``unscoped_features`` more go to
    ``features/<epoch>/``. ``large_file_bytes`` adds one big feature file.
    ``extra_files`` maps a path to ``(kind, bytes)`` (or ``(kind, size)`` for
    generated bytes); ``entry_overrides`` (path -> fields) and
    ``manifest_overrides`` patch the manifest, a value of None removing the
    key; an override for a path the era does not have lists a file that the
    service answers with 404.
    """

    universes: tuple[str, ...] = ("top50", "top200")
    features: int = 8
    feature_bytes: int = 2048
    family_size: int = 2
    unscoped_features: int = 0
    large_file_bytes: int = 0
    found_signals: int = 2
    found_strategies: int = 1
    useful_signals: int = 1
    pnl_bytes: int = 512
    pools: tuple[str, ...] = ("pool_a",)
    n_instruments: int = 50
    pnl_column_count: int = 4
    with_artifacts: bool = False
    extra_files: dict = dataclasses.field(default_factory=dict)
    entry_overrides: dict = dataclasses.field(default_factory=dict)
    manifest_overrides: dict = dataclasses.field(default_factory=dict)

    def replace(self, **changes: Any) -> "EraLayout":
        unknown = set(changes) - {f.name for f in dataclasses.fields(self)}
        if unknown:
            raise TypeError(f"unknown era layout fields: {', '.join(sorted(unknown))}")
        return dataclasses.replace(self, **changes)


@dataclasses.dataclass
class FileEntry:
    """One manifest file: its content, kind and extra manifest fields."""

    content: Any
    kind: str
    fields: dict = dataclasses.field(default_factory=dict)

    def manifest_entry(self) -> dict:
        entry = {"size_bytes": self.content.size, "sha256": self.content.sha256, "kind": self.kind}
        entry.update(self.fields)
        return entry


_FUNCTIONS = (
    {"name": "ts_mean", "arity": 2, "family": "time_series"},
    {"name": "ts_rank", "arity": 2, "family": "time_series"},
    {"name": "rank", "arity": 1, "family": "cross_section"},
    {"name": "zscore", "arity": 1, "family": "cross_section"},
)


def _json_bytes(value: Any) -> bytes:
    return json.dumps(value, sort_keys=True, separators=(",", ":")).encode("utf-8")


class Era:
    """The files and manifest of one era of one market.

    ``revisions`` counts how often a path was changed by a new manifest
    version; a changed path gets new bytes. Instances are treated as
    immutable once built: a new version is a new :class:`Era`
    (:meth:`with_changes`).
    """

    def __init__(
        self,
        *,
        seed: int,
        market_id: int,
        era_number: int,
        layout: EraLayout,
        version: int = 1,
        revisions: Mapping[str, int] | None = None,
        store: "DiskStore | None" = None,
        _reuse: Mapping[str, FileEntry] | None = None,
    ) -> None:
        self.seed = seed
        self.market_id = market_id
        self.era_number = era_number
        self.layout = layout
        self.version = version
        self.revisions = dict(revisions or {})
        self._store = store
        self._reuse = dict(_reuse or {})
        self.files: dict[str, FileEntry] = {}
        self.signals_index_path = ""
        self._build()
        self._manifest_cache: dict[str | None, tuple[dict, bytes, str]] = {}

    # -- building -------------------------------------------------------

    def _key(self, path: str) -> str:
        return f"{self.seed}:{self.market_id}:{self.era_number}:{path}:{self.revisions.get(path, 0)}"

    def _generated(self, path: str, size: int) -> Any:
        key = self._key(path)
        old = self._reuse.get(path)
        if old is not None and getattr(old.content, "key", None) == key.encode() and old.content.size == size:
            return old.content
        content = GeneratedContent(key, size)
        if self._store is not None:
            return self._store.materialise(self, path, content)
        return content

    def _json(self, path: str, value: dict) -> BytesContent:
        revision = self.revisions.get(path, 0)
        if revision:
            value = {**value, "revision": revision}
        content = BytesContent(_json_bytes(value))
        if self._store is not None:
            self._store.write_bytes(self, path, content.data)
        return content

    def _add(self, path: str, content: Any, kind: str, **fields: Any) -> None:
        self.files[path] = FileEntry(content, kind, fields)

    def _feature_groups(self):
        """(path, universe, epoch, name, family) for every scoped feature file."""
        lay = self.layout
        epochs = ("signal_is", "strategy_is")
        size = max(1, lay.family_size)
        for i in range(lay.features):
            group, member = divmod(i, size)
            universe = lay.universes[group % len(lay.universes)]
            epoch = epochs[(group // len(lay.universes)) % 2]
            family = f"px{group:03d}"
            name = f"{family}__ret__lag{member}__v1"
            yield f"features/{universe}/{epoch}/{name}.arrow", universe, epoch, name, family

    def _build(self) -> None:
        lay = self.layout
        if not lay.universes:
            raise ValueError("an era needs at least one universe")
        features: list[tuple[str, dict]] = []
        per_universe: dict[str, list[dict]] = {u: [] for u in lay.universes}
        for path, universe, epoch, name, family in self._feature_groups():
            fields = {"named_universe": universe, "epoch": epoch,
                      "expression_type": "STRATEGY" if epoch == "strategy_is" else "SIGNAL",
                      "family": family, "subfamily": "ret"}
            features.append((path, fields))
            per_universe[universe].append({"name": name, "epoch": epoch, "relative_path": path})
        if lay.large_file_bytes:
            universe = lay.universes[0]
            path = f"features/{universe}/signal_is/large__blob__x__v1.arrow"
            features.append((path, {"named_universe": universe, "epoch": "signal_is", "expression_type": "SIGNAL",
                                    "family": "large", "subfamily": "blob"}))
            per_universe[universe].append({"name": "large__blob__x__v1", "epoch": "signal_is",
                                           "relative_path": path})
        for i in range(lay.unscoped_features):
            name = f"u{i:03d}__ret__lag0__v1"
            features.append((f"features/signal_is/{name}.arrow", {"epoch": "signal_is", "expression_type": "SIGNAL"}))

        functions = {"era_number": self.era_number, "functions": [dict(f) for f in _FUNCTIONS]}
        self._add("functions.json", self._json("functions.json", functions), "functions")

        pnl: list[tuple[str, str]] = []
        sections: dict[str, dict] = {"found_signals": {}, "found_strategies": {}, "useful_signals": {}}
        for section, count, ident, layout_files in (
            ("found_signals", lay.found_signals, "sig", (("signal_is", "found_signal_is_pnl"),)),
            ("found_strategies", lay.found_strategies, "strat", (("strategy_is", "found_strategy_is_epoch_pnl"),)),
            ("useful_signals", lay.useful_signals, "useful",
             (("signal_os", "useful_signal_os_pnl"), ("strategy_is", "useful_signal_strategy_is_pnl"))),
        ):
            for i in range(count):
                pool = lay.pools[i % len(lay.pools)]
                entry_id = f"{ident}{i:04d}"
                paths = []
                for epoch, kind in layout_files:
                    path = f"{section}/{pool}/{entry_id}/{epoch}/pnl.arrow"
                    pnl.append((path, kind))
                    paths.append(path)
                sections[section][f"{pool}/{entry_id}"] = {"pool": pool, "id": entry_id, "files": paths}
        index = {"era_number": self.era_number, **sections}
        index_content = BytesContent(_json_bytes(
            {**index, "revision": self.revisions["signals_index"]} if self.revisions.get("signals_index") else index))
        self.signals_index_path = f"_control/signals_index.{index_content.sha256}.json"
        if self._store is not None:
            self._store.write_bytes(self, self.signals_index_path, index_content.data)
        self._add(self.signals_index_path, index_content, "signals_index", relative_path=self.signals_index_path)

        for universe in lay.universes:
            path = f"named_universes/{universe}/vocabulary.json"
            vocabulary = {
                "era_number": self.era_number,
                "named_universe": universe,
                "features": per_universe[universe],
                "metadata": {"named_universe": universe, "t_signal_is": 1000 + self.era_number,
                             "t_strategy_is": 500 + self.era_number, "n_instruments": lay.n_instruments},
                "rotations": [{"name": "identity"}, {"name": "demean"}],
                "filtrations": [{"name": "liquid_only"}],
                "reductions": [{"name": "mean"}, {"name": "median"}],
                "aggregations": [{"name": "sum"}],
                "functions": [{"name": "ts_mean", "arity": 2, "family": "time_series"}],
            }
            self._add(path, self._json(path, vocabulary), "vocabulary", named_universe=universe)

        for path, fields in features:
            size = lay.large_file_bytes if "/large__blob__" in path else lay.feature_bytes
            self._add(path, self._generated(path, size), "feature", **fields)
        for path, kind in pnl:
            self._add(path, self._generated(path, lay.pnl_bytes), kind)
        for path, (kind, data) in lay.extra_files.items():
            content = self._generated(path, data) if isinstance(data, int) else BytesContent(data)
            if self._store is not None and isinstance(content, BytesContent):
                self._store.write_bytes(self, path, content.data)
            self._add(path, content, kind)
        if self._store is not None:
            self._store.flush(self)

    # -- manifest ---------------------------------------------------------

    def manifest(self, base_url: str | None = None) -> dict:
        """The manifest object (a fresh copy)."""
        return copy.deepcopy(self._manifest(base_url)[0])

    def manifest_bytes(self, base_url: str | None = None) -> bytes:
        """The manifest exactly as served; its SHA-256 is the version probe's ``manifest_sha256``."""
        return self._manifest(base_url)[1]

    def manifest_sha256(self, base_url: str | None = None) -> str:
        return self._manifest(base_url)[2]

    def _manifest(self, base_url: str | None) -> tuple[dict, bytes, str]:
        cached = self._manifest_cache.get(base_url)
        if cached is not None:
            return cached
        lay = self.layout
        files = {path: entry.manifest_entry() for path, entry in self.files.items()}
        for path, override in lay.entry_overrides.items():
            item = files.setdefault(path, {})  # a listed file the service does not have
            for key, value in override.items():
                if value is None:
                    item.pop(key, None)
                else:
                    item[key] = value
        manifest: dict[str, Any] = {
            "era_number": self.era_number,
            "version": self.version,
            "market_id": self.market_id,
            "shuffle_key_generation": SHUFFLE_KEY_GENERATION,
            "shuffle_key_source": SHUFFLE_KEY_SOURCE,
            "pnl_column_count": lay.pnl_column_count,
            "named_universes": list(lay.universes),
            "functions": "functions.json",
            "signals_index": self.signals_index_path,
        }
        if base_url:
            manifest["base_url"] = base_url
        if lay.with_artifacts:
            manifest["artifacts"] = [
                {"relative_path": path, "artifact_kind": "feature", "mandatory": False,
                 **{k: e.fields[k] for k in ("named_universe", "family", "subfamily") if k in e.fields}}
                for path, e in self.files.items() if e.kind == "feature"
            ]
        manifest["files"] = files
        for key, value in lay.manifest_overrides.items():
            if value is None:
                manifest.pop(key, None)
            else:
                manifest[key] = value
        body = json.dumps(manifest).encode("utf-8")
        cached = (manifest, body, hashlib.sha256(body).hexdigest())
        self._manifest_cache[base_url] = cached
        return cached

    def shuffle_seed(self) -> bytes:
        """The era's 60-byte enciphered shuffle seed (opaque bytes)."""
        material = f"shuffle:{self.seed}:{self.market_id}:{self.era_number}:{SHUFFLE_KEY_GENERATION}"
        return hashlib.shake_256(material.encode()).digest(SHUFFLE_SEED_BYTES)

    # -- new versions -----------------------------------------------------

    def with_changes(self, *, version: int, touch=(), layout: EraLayout | None = None) -> "Era":
        """The next manifest version: ``touch``ed paths get new bytes, ``layout`` replaces the shape.

        Touching the current signals index path re-addresses the index.
        """
        revisions = dict(self.revisions)
        for path in touch:
            key = "signals_index" if path == self.signals_index_path else path
            revisions[key] = revisions.get(key, 0) + 1
        return Era(seed=self.seed, market_id=self.market_id, era_number=self.era_number,
                   layout=layout or self.layout, version=version, revisions=revisions,
                   store=self._store, _reuse=self.files)


class DiskStore:
    """Writes era files under ``root/market_<id>/era_<n>/`` and serves them from there.

    Digests of generated files are remembered in ``.dataservice-digests.json``
    beside them, so restarting a service over the same root does not hash
    large files again.
    """

    _DIGESTS = ".dataservice-digests.json"

    def __init__(self, root: str) -> None:
        self.root = os.path.abspath(root)
        self._digest_cache: dict[str, dict] = {}  # era dir -> {path: {key, size, sha256}}
        self._dirty: set[str] = set()

    def era_dir(self, era: Era) -> str:
        return os.path.join(self.root, f"market_{era.market_id}", f"era_{era.era_number}")

    def _target(self, era: Era, path: str) -> str:
        return os.path.join(self.era_dir(era), *path.split("/"))

    def _digests(self, era: Era) -> dict:
        era_dir = self.era_dir(era)
        if era_dir not in self._digest_cache:
            try:
                with open(os.path.join(era_dir, self._DIGESTS), encoding="utf-8") as handle:
                    data = json.load(handle)
            except (OSError, ValueError):
                data = {}
            self._digest_cache[era_dir] = data if isinstance(data, dict) else {}
        return self._digest_cache[era_dir]

    def flush(self, era: Era) -> None:
        """Persist the digests learnt while building ``era``."""
        era_dir = self.era_dir(era)
        if era_dir not in self._dirty:
            return
        path = os.path.join(era_dir, self._DIGESTS)
        os.makedirs(era_dir, exist_ok=True)
        with open(path + ".tmp", "w", encoding="utf-8") as handle:
            json.dump(self._digest_cache[era_dir], handle, sort_keys=True)
        os.replace(path + ".tmp", path)
        self._dirty.discard(era_dir)

    def write_bytes(self, era: Era, path: str, data: bytes) -> None:
        target = self._target(era, path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target + ".tmp", "wb") as handle:
            handle.write(data)
        os.replace(target + ".tmp", target)

    def materialise(self, era: Era, path: str, content: GeneratedContent) -> DiskContent:
        target = self._target(era, path)
        key = content.key.decode()
        digests = self._digests(era)
        known = digests.get(path)
        if (isinstance(known, dict) and known.get("key") == key and known.get("size") == content.size
                and os.path.isfile(target) and os.path.getsize(target) == content.size):
            return DiskContent(target, content.size, known["sha256"])
        os.makedirs(os.path.dirname(target), exist_ok=True)
        digest = hashlib.sha256()
        with open(target + ".tmp", "wb") as handle:
            for piece in content.iter_range(0, content.size, chunk=1024 * 1024):
                digest.update(piece)
                handle.write(piece)
        os.replace(target + ".tmp", target)
        digests[path] = {"key": key, "size": content.size, "sha256": digest.hexdigest()}
        self._dirty.add(self.era_dir(era))
        return DiskContent(target, content.size, digests[path]["sha256"])

    def write_manifest(self, era: Era, body: bytes) -> None:
        self.write_bytes(era, "manifest.json", body)
