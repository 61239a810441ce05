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
import hashlib
import math
import time
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
    "ROTATION_ALGORITHMS",
    "RotationSelection",
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

#: The selection algorithms :func:`plan_rotation` knows.
ROTATION_ALGORITHMS = frozenset({"seeded_shuffle"})


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
    fields of :class:`SelectionScope`. ``source`` names where the settings
    came from (the settings file) in error messages.
    """

    artifact_kind: str = "feature"
    algorithm: str | None = None
    rotation_seed: int | None = None
    scope: SelectionScope = dataclasses.field(default_factory=SelectionScope)
    feature_budget_bytes: int | str | None = None
    free_disk_bytes: int | None = None
    source: str | None = None

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
    is kept sorted and without duplicates. ``rotation_seed`` is the seed of
    the current candidate, ``settings_seed`` the configured seed its chain
    of candidates started from.
    """

    era_number: int | None = None
    active_relative_paths: tuple[str, ...] = ()
    rotated_at: float | None = None
    rotation_seed: int | None = None
    algorithm: str | None = None
    feature_budget_bytes: int | None = None
    artifact_kind: str = "feature"
    settings_seed: int | None = None

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
    settings_seed = fields.get("settings_seed")
    if settings_seed is not None and not _is_int(settings_seed):
        raise bad("settings_seed", "an integer or null")
    return FeatureRotationState(
        era_number=era,
        active_relative_paths=tuple(paths),
        rotated_at=None if rotated_at is None else float(rotated_at),
        rotation_seed=seed,
        algorithm=algorithm,
        feature_budget_bytes=budget,
        artifact_kind=artifact_kind,
        settings_seed=settings_seed,
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


@dataclasses.dataclass(frozen=True)
class RotationSelection(_RecordMapping):
    """The answer of :func:`plan_rotation`.

    ``active_relative_paths`` lists every path that must be present locally
    (mandatory artifacts, kept files and the chosen feature files), sorted;
    ``skipped_relative_paths`` the rotating feature files left out. ``state``
    is the candidate state to persist once the active files are in place;
    ``rotated`` says whether it is a new candidate rather than the previous
    state carried forward.
    """

    active_relative_paths: tuple[str, ...]
    mandatory_artifacts: tuple[dict, ...]
    eligible_artifacts: tuple[dict, ...]
    skipped_relative_paths: tuple[str, ...]
    seed: int
    feature_budget_bytes: int | None
    rotated: bool
    state: FeatureRotationState


_SEED_MASK = (1 << 63) - 1
# A due rotation tries this many successive candidates for one that differs
# from the previous selection before settling for an unchanged one.
_CANDIDATE_ATTEMPTS = 8


def _next_seed(settings_seed: int, previous_seed: int) -> int:
    digest = hashlib.sha256(f"tidewright-rotation:{settings_seed}:{previous_seed}".encode()).digest()
    return int.from_bytes(digest[:8], "big") & _SEED_MASK


def _shuffle_key(seed: int, relative_path: str) -> bytes:
    return hashlib.sha256(f"{seed}:{relative_path}".encode("utf-8")).digest()


def _in_scope(artifact: Mapping, scope: SelectionScope) -> bool:
    if scope.market and artifact.get("market") and artifact["market"] != scope.market:
        return False
    if scope.named_universes and artifact.get("named_universe") not in scope.named_universes:
        return False
    if scope.family and artifact.get("family") != scope.family:
        return False
    if scope.subfamily and artifact.get("subfamily") != scope.subfamily:
        return False
    return True


def _size(artifact: Mapping) -> int:
    size = artifact.get("size_bytes")
    return size if _is_int(size) and size > 0 else 0


def _state_of(value) -> FeatureRotationState | None:
    if value is None or isinstance(value, FeatureRotationState):
        return value
    if not isinstance(value, Mapping):
        raise RotationStatePayloadError(f"previous rotation state must be a mapping, got {type(value).__name__}")
    return _state_from_fields(value, "")


def plan_rotation(artifacts, settings, *, previous_state=None, now=None, force_new_candidate=False,
                  keep_relative_paths=(), era_number=None) -> RotationSelection:
    """Choose the feature files to keep on disk for one era.

    ``artifacts`` are descriptors (:func:`artifact_descriptor_from_manifest_file`);
    ``settings`` an :class:`ArtifactRotationSettings` (or a mapping of its
    fields). ``previous_state`` (the persisted state of this era, if any) is
    carried forward unless ``force_new_candidate`` is true (a rotation is due)
    or it no longer matches the settings or the budget; a forced candidate
    derives its seed from the previous one and prefers a selection that
    differs from it. ``keep_relative_paths`` (prefetched feature files) are
    always active. ``now`` (seconds since the epoch) stamps a new candidate.

    Raises :class:`MandatoryArtifactsTooLargeError` when the mandatory
    artifacts alone exceed an integer byte budget.
    """
    if not isinstance(settings, ArtifactRotationSettings):
        if not isinstance(settings, Mapping):
            raise TypeError(f"settings must be ArtifactRotationSettings or a mapping, got {type(settings).__name__}")
        settings = ArtifactRotationSettings(**{k: settings[k] for k in ArtifactRotationSettings._field_names()
                                               if k in settings})
    where = f"{settings.source}: " if settings.source else ""
    algorithm = settings.algorithm or "seeded_shuffle"
    if algorithm not in ROTATION_ALGORITHMS:
        raise ValueError(f"{where}algorithm: unknown rotation algorithm {algorithm!r}; "
                         f"expected one of {', '.join(sorted(ROTATION_ALGORITHMS))}")
    settings_seed = settings.rotation_seed if _is_int(settings.rotation_seed) else 0
    budget = settings.feature_budget_bytes
    if budget == FULL_DOWNLOAD or budget is None:
        budget = None
    elif not _is_int(budget) or budget < 0:
        raise ValueError(f"{where}feature budget must be a non-negative byte count, got {budget!r}")
    previous = _state_of(previous_state)
    # Kept to the microsecond: at most 16 significant digits read back
    # exactly in every JSON reader the state file meets.
    stamp = round(time.time() if now is None else float(now), 6)

    by_path: dict[str, dict] = {}
    for artifact in artifacts:
        entry = dict(artifact)
        by_path.setdefault(str(entry.get("relative_path")), entry)
    keep = {str(p).strip() for p in keep_relative_paths or ()} & set(by_path)
    mandatory = [a for a in by_path.values() if not a.get("rotating")]
    rotating = [a for a in by_path.values() if a.get("rotating")]
    kept = [a for a in rotating if a["relative_path"] in keep]
    eligible = [a for a in rotating if a["relative_path"] not in keep and _in_scope(a, settings.scope)]

    mandatory_bytes = sum(_size(a) for a in mandatory)
    if budget is not None and mandatory_bytes > budget:
        raise MandatoryArtifactsTooLargeError(
            f"{where}feature budget: the mandatory artifacts need {mandatory_bytes} bytes, more than the "
            f"budget of {budget} bytes; raise feature_budget_gb (or feature_budget_bytes)")
    room = None if budget is None else max(0, budget - mandatory_bytes - sum(_size(a) for a in kept))

    def select(seed: int) -> list[str]:
        chosen = []
        left = room
        for artifact in sorted(eligible, key=lambda a: _shuffle_key(seed, a["relative_path"])):
            size = _size(artifact)
            if left is None or size <= left:
                chosen.append(artifact["relative_path"])
                if left is not None:
                    left -= size
        return sorted(chosen)

    eligible_paths = {a["relative_path"] for a in eligible}
    compatible = (previous is not None and previous.era_number == era_number and previous.algorithm == algorithm
                  and previous.feature_budget_bytes == budget and previous.settings_seed == settings_seed
                  and _is_int(previous.rotation_seed))
    carried = None
    if compatible:
        carried = sorted(p for p in previous.active_relative_paths if p in eligible_paths)
        if room is not None and sum(_size(by_path[p]) for p in carried) > room:
            carried = None  # the budget no longer holds (mandatory files grew): choose again
    if compatible and carried is not None and not force_new_candidate:
        seed, chosen, rotated_at, rotated = previous.rotation_seed, carried, previous.rotated_at, False
    elif compatible and force_new_candidate:
        seed = previous.rotation_seed
        for _ in range(_CANDIDATE_ATTEMPTS):
            seed = _next_seed(settings_seed, seed)
            chosen = select(seed)
            if chosen != carried:
                break
        rotated_at, rotated = stamp, True
    else:
        seed = previous.rotation_seed if compatible else settings_seed
        chosen, rotated_at, rotated = select(seed), stamp, True

    active = sorted({a["relative_path"] for a in mandatory} | keep | set(chosen))
    active_set = set(active)
    state = FeatureRotationState(
        era_number=era_number, active_relative_paths=tuple(active), rotated_at=rotated_at, rotation_seed=seed,
        algorithm=algorithm, feature_budget_bytes=budget, artifact_kind=settings.artifact_kind or "feature",
        settings_seed=settings_seed)
    return RotationSelection(
        active_relative_paths=tuple(active),
        mandatory_artifacts=tuple(mandatory),
        eligible_artifacts=tuple(eligible),
        skipped_relative_paths=tuple(sorted(a["relative_path"] for a in rotating
                                            if a["relative_path"] not in active_set)),
        seed=seed,
        feature_budget_bytes=budget,
        rotated=rotated,
        state=state,
    )
