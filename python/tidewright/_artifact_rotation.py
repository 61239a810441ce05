"""Feature rotation: the vocabulary shared by the sync engine and its planner.

Feature rotation keeps only a budgeted subset of an era's feature files on
disk. This module holds the pieces the sync engine exchanges with the
planner: the kind of a manifest file, the artifact descriptors built from
manifest rows, the settings and scope of a rotation, the persisted rotation
state and its payload, and the errors. The planner itself
(:func:`plan_rotation`) is not part of the default package.

The records are dataclasses that also read as mappings (``record["field"]``),
so they cross into the native engine as plain JSON-like data.
"""

from __future__ import annotations

import dataclasses
import math
from collections.abc import Mapping
from typing import Any

__all__ = [
    "FEATURE_ARTIFACT_KINDS",
    "FULL_DOWNLOAD",
    "ActiveRotationStateError",
    "ArtifactRotationError",
    "ArtifactRotationSettings",
    "FeatureRotationState",
    "MandatoryArtifactsTooLargeError",
    "RotationStatePayloadError",
    "SelectionScope",
    "VocabularyScopeError",
    "artifact_descriptor_from_manifest_file",
    "manifest_file_kind",
    "plan_rotation",
    "rotation_state_from_payload",
    "rotation_state_payload",
]

#: Manifest kinds whose files take part in rotation.
FEATURE_ARTIFACT_KINDS = frozenset({"feature"})

#: Marker for "no rotation: download every feature file". Used as the
#: settings loader's answer and as a feature budget.
FULL_DOWNLOAD = "full_download"


class ArtifactRotationError(Exception):
    """Base class of the rotation errors."""


class RotationStatePayloadError(ArtifactRotationError, ValueError):
    """A persisted rotation state has the wrong schema or malformed fields."""


class MandatoryArtifactsTooLargeError(ArtifactRotationError):
    """The artifacts that must always be present do not fit the byte budget."""


class ActiveRotationStateError(ArtifactRotationError):
    """The rotation state is in use and cannot be changed now."""


class VocabularyScopeError(ArtifactRotationError, ValueError):
    """A configured rotation scope names universes or markets the era does not have."""


def manifest_file_kind(path, info) -> str:
    """The kind of a manifest file: the text of ``info["kind"]``, "" when absent.

    ``path`` is accepted for replacements that derive kinds from paths; the
    default reads the entry only.
    """
    if not isinstance(info, Mapping):
        return ""
    kind = info.get("kind")
    if kind is None:
        return ""
    return kind if isinstance(kind, str) else str(kind)


# The sync engine computes this natively while this default is installed.
manifest_file_kind.__tidewright_native__ = "manifest_file_kind"


class _RecordMapping(Mapping):
    """Read access to a dataclass's fields as a mapping."""

    def __getitem__(self, key: str) -> Any:
        if key not in self._field_names():
            raise KeyError(key)
        return getattr(self, key)

    def __iter__(self):
        return iter(self._field_names())

    def __len__(self) -> int:
        return len(self._field_names())

    @classmethod
    def _field_names(cls) -> tuple[str, ...]:
        return tuple(f.name for f in dataclasses.fields(cls))


def _optional_text(value) -> str | None:
    if value is None:
        return None
    text = str(value).strip()
    return text or None


@dataclasses.dataclass(frozen=True)
class SelectionScope(_RecordMapping):
    """Which feature artifacts a rotation may choose from; None/empty means any."""

    market: str | None = None
    named_universes: tuple[str, ...] = ()
    family: str | None = None
    subfamily: str | None = None

    def __post_init__(self) -> None:
        universes = self.named_universes
        if isinstance(universes, str):
            universes = (universes,)
        object.__setattr__(self, "named_universes", tuple(str(u).strip() for u in (universes or ()) if str(u).strip()))
        for name in ("market", "family", "subfamily"):
            object.__setattr__(self, name, _optional_text(getattr(self, name)))


@dataclasses.dataclass(frozen=True)
class ArtifactRotationSettings(_RecordMapping):
    """Inputs of one rotation plan.

    ``feature_budget_bytes`` is a byte count, None (no budget) or
    :data:`FULL_DOWNLOAD`. ``scope`` may be given as a mapping with the
    fields of :class:`SelectionScope`.
    """

    artifact_kind: str = "feature"
    algorithm: str | None = None
    rotation_seed: int | None = None
    scope: SelectionScope = dataclasses.field(default_factory=SelectionScope)
    feature_budget_bytes: int | str | None = None
    free_disk_bytes: int | None = None

    def __post_init__(self) -> None:
        scope = self.scope
        if scope is None:
            scope = SelectionScope()
        elif not isinstance(scope, SelectionScope):
            if not isinstance(scope, Mapping):
                raise TypeError(f"scope must be a SelectionScope or a mapping, got {type(scope).__name__}")
            scope = SelectionScope(**{k: scope[k] for k in SelectionScope._field_names() if k in scope})
        object.__setattr__(self, "scope", scope)


def artifact_descriptor_from_manifest_file(path, row, *, feature_kinds=FEATURE_ARTIFACT_KINDS) -> dict:
    """Describe one manifest file for the rotation planner.

    ``row`` is the manifest's file info for ``path``, possibly completed with
    scope fields. Returns a new dict with ``relative_path``, ``kind``,
    ``artifact_kind``, ``size_bytes``, ``sha256``, ``named_universe``,
    ``market``, ``family``, ``subfamily``, ``mandatory`` and ``rotating``
    (whether the file is a feature artifact that rotation may leave out).
    Mandatory artifacts are always kept.
    """
    info = row if isinstance(row, Mapping) else {}
    relative_path = str(info.get("relative_path") or path)
    kind = manifest_file_kind(relative_path, info)
    artifact_kind = _optional_text(info.get("artifact_kind"))
    is_feature = kind in feature_kinds or artifact_kind in feature_kinds
    if is_feature and artifact_kind is None:
        artifact_kind = kind or "feature"
    size = info.get("size_bytes")
    if isinstance(size, bool) or not isinstance(size, int) or size < 0:
        size = None
    mandatory = bool(info.get("mandatory", not is_feature))
    return {
        "relative_path": relative_path,
        "kind": kind,
        "artifact_kind": artifact_kind or kind,
        "size_bytes": size,
        "sha256": _optional_text(info.get("sha256")),
        "named_universe": _optional_text(info.get("named_universe")),
        "market": _optional_text(info.get("market")),
        "family": _optional_text(info.get("family")),
        "subfamily": _optional_text(info.get("subfamily")),
        "mandatory": mandatory,
        "rotating": is_feature and not mandatory,
    }


@dataclasses.dataclass(frozen=True)
class FeatureRotationState(_RecordMapping):
    """What the last rotation chose, persisted across processes.

    ``rotated_at`` is seconds since the Unix epoch; ``active_relative_paths``
    is kept sorted and without duplicates.
    """

    era_number: int | None = None
    active_relative_paths: tuple[str, ...] = ()
    rotated_at: float | None = None
    rotation_seed: int | None = None
    algorithm: str | None = None
    feature_budget_bytes: int | None = None
    artifact_kind: str = "feature"

    def __post_init__(self) -> None:
        paths = self.active_relative_paths
        if isinstance(paths, str):
            paths = (paths,)
        object.__setattr__(self, "active_relative_paths", tuple(sorted({str(p) for p in paths or ()})))


_STATE_FIELDS = tuple(f.name for f in dataclasses.fields(FeatureRotationState))


def _is_int(value) -> bool:
    return isinstance(value, int) and not isinstance(value, bool)


def _check_schema_version(schema_version) -> int:
    if not _is_int(schema_version) or schema_version < 1:
        raise RotationStatePayloadError(f"rotation state schema_version must be a positive integer, got {schema_version!r}")
    return schema_version


def _state_from_fields(fields: Mapping, where: str) -> FeatureRotationState:
    def bad(name: str, expected: str) -> RotationStatePayloadError:
        return RotationStatePayloadError(f"rotation state{where}: {name} must be {expected}, got {fields.get(name)!r}")

    era = fields.get("era_number")
    if era is not None and not _is_int(era):
        raise bad("era_number", "an integer or null")
    paths = fields.get("active_relative_paths", ())
    if not isinstance(paths, (list, tuple)) or not all(isinstance(p, str) and p for p in paths):
        raise bad("active_relative_paths", "a list of non-empty strings")
    rotated_at = fields.get("rotated_at")
    if rotated_at is not None and (isinstance(rotated_at, bool) or not isinstance(rotated_at, (int, float))
                                   or not math.isfinite(rotated_at)):
        raise bad("rotated_at", "a number or null")
    seed = fields.get("rotation_seed")
    if seed is not None and not _is_int(seed):
        raise bad("rotation_seed", "an integer or null")
    algorithm = fields.get("algorithm")
    if algorithm is not None and not isinstance(algorithm, str):
        raise bad("algorithm", "a string or null")
    budget = fields.get("feature_budget_bytes")
    if budget is not None and (not _is_int(budget) or budget < 0):
        raise bad("feature_budget_bytes", "a non-negative integer or null")
    artifact_kind = fields.get("artifact_kind", "feature")
    if not isinstance(artifact_kind, str) or not artifact_kind:
        raise bad("artifact_kind", "a non-empty string")
    return FeatureRotationState(
        era_number=era,
        active_relative_paths=tuple(paths),
        rotated_at=None if rotated_at is None else float(rotated_at),
        rotation_seed=seed,
        algorithm=algorithm,
        feature_budget_bytes=budget,
        artifact_kind=artifact_kind,
    )


def rotation_state_payload(state, *, schema_version: int) -> dict:
    """The JSON object persisted for ``state`` (a :class:`FeatureRotationState` or a mapping of its fields)."""
    version = _check_schema_version(schema_version)
    if not isinstance(state, Mapping):
        raise RotationStatePayloadError(f"rotation state must be a FeatureRotationState, got {type(state).__name__}")
    if not isinstance(state, FeatureRotationState):
        state = _state_from_fields(state, "")
    payload = {name: state[name] for name in _STATE_FIELDS}
    payload["active_relative_paths"] = list(state.active_relative_paths)
    payload["schema_version"] = version
    return payload


def rotation_state_from_payload(payload, *, source, schema_version: int) -> FeatureRotationState:
    """Rebuild a state from its persisted payload; ``source`` names it in error messages.

    Raises :class:`RotationStatePayloadError` when the payload is not an
    object, carries another schema version, or has malformed fields.
    """
    version = _check_schema_version(schema_version)
    where = f" at {source}" if source else ""
    if not isinstance(payload, Mapping):
        raise RotationStatePayloadError(f"rotation state{where} must be a JSON object, got {type(payload).__name__}")
    found = payload.get("schema_version")
    if not _is_int(found) or found != version:
        raise RotationStatePayloadError(
            f"rotation state{where} has unsupported schema_version {found!r}; expected {version}"
        )
    return _state_from_fields(payload, where)


def plan_rotation(artifacts, settings, *, previous_state=None, now=None):
    """Choose the active feature set. No planner ships with the default package."""
    raise NotImplementedError("feature rotation planning is not available in this installation")
