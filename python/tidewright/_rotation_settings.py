"""The user's feature-rotation settings for a data directory.

Rotation is opt-in: without a ``rotation-settings.json`` in the data
directory every feature file is downloaded (:data:`FULL_DOWNLOAD`). The file
is a JSON object::

    {
      "algorithm": "seeded_shuffle",     # planner algorithm name
      "seed": 7,                         # rotation seed (integer)
      "market": "crypto",
      "named_universes": ["top50"],      # or "named_universe": "top50"
      "family": null, "subfamily": null,
      "feature_budget_gb": 20,           # whole GiB (fractions truncated), null (no budget)
                                         # or "full_download" (rotation off)
      "rotation_frequency": "weekly"     # or "PT<hours>H"; absent: no scheduled rotation
    }

The budget bounds the bytes of the era's files that rotation manages:
mandatory artifacts (every file that is not a rotating feature file) and
prefetched feature files count first, selected feature files fill the rest.
``"feature_budget_bytes"`` gives an exact byte budget instead of
``feature_budget_gb`` (not both). ``"enabled": false`` turns rotation off
without deleting the file.

Every error names the file and the field: :class:`RotationSettingsError`
(a ``ValueError``) for a file that is not JSON or a field of the wrong type
or value, :class:`VocabularyScopeError` for a scope the era does not have.
"""

from __future__ import annotations

import dataclasses
import json
import os
import re
from collections.abc import Mapping

from tidewright._artifact_rotation import FULL_DOWNLOAD, ROTATION_ALGORITHMS, VocabularyScopeError, _RecordMapping

__all__ = [
    "DEFAULT_ROTATION_ALGORITHM",
    "ROTATION_SETTINGS_FILENAME",
    "RotationSettings",
    "RotationSettingsError",
    "load_rotation_settings",
    "rotation_settings_path",
]

ROTATION_SETTINGS_FILENAME = "rotation-settings.json"
DEFAULT_ROTATION_ALGORITHM = "seeded_shuffle"


class RotationSettingsError(ValueError):
    """The rotation settings file exists but cannot be used."""


@dataclasses.dataclass(frozen=True)
class RotationSettings(_RecordMapping):
    algorithm: str = DEFAULT_ROTATION_ALGORITHM
    seed: int = 0
    market: str | None = None
    named_universes: tuple[str, ...] = ()
    family: str | None = None
    subfamily: str | None = None
    feature_budget_gb: float | str | None = None
    rotation_frequency: str | None = None
    feature_budget_bytes: int | None = None
    source: str | None = None


def rotation_settings_path(data_dir) -> str:
    return os.path.join(os.fspath(data_dir), ROTATION_SETTINGS_FILENAME)


def _text_or_none(payload: Mapping, key: str, path: str) -> str | None:
    value = payload.get(key)
    if value is None:
        return None
    if not isinstance(value, str):
        raise RotationSettingsError(f"{path}: {key} must be a string, got {value!r}")
    return value.strip() or None


def _universes(payload: Mapping, path: str) -> tuple[str, ...]:
    value = payload.get("named_universes")
    if value is None:
        single = _text_or_none(payload, "named_universe", path)
        return (single,) if single else ()
    if not isinstance(value, list) or not all(isinstance(u, str) and u.strip() for u in value):
        raise RotationSettingsError(f"{path}: named_universes must be a list of non-empty strings")
    return tuple(dict.fromkeys(u.strip() for u in value))


def _budget(payload: Mapping, path: str):
    value = payload.get("feature_budget_gb")
    if value is None or value == FULL_DOWNLOAD:
        return value
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not value >= 0 or value == float("inf"):
        raise RotationSettingsError(f"{path}: feature_budget_gb must be a non-negative number, null or "
                                    f"{FULL_DOWNLOAD!r}, got {value!r}")
    return value


def _budget_bytes(payload: Mapping, path: str) -> int | None:
    value = payload.get("feature_budget_bytes")
    if value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, int) or value < 0:
        raise RotationSettingsError(f"{path}: feature_budget_bytes must be a non-negative integer, got {value!r}")
    if payload.get("feature_budget_gb") is not None:
        raise RotationSettingsError(f"{path}: feature_budget_bytes and feature_budget_gb cannot both be set")
    return value


_HOURS = re.compile(r"PT([0-9]+)H")


def _frequency(payload: Mapping, path: str) -> str | None:
    value = _text_or_none(payload, "rotation_frequency", path)
    if value is None or value == "weekly":
        return value
    match = _HOURS.fullmatch(value)
    if match is None or int(match.group(1)) <= 0:
        raise RotationSettingsError(f"{path}: rotation_frequency must be 'weekly' or 'PT<hours>H' with a "
                                    f"positive number of hours, got {value!r}")
    return value


def _algorithm(payload: Mapping, path: str) -> str:
    value = _text_or_none(payload, "algorithm", path) or DEFAULT_ROTATION_ALGORITHM
    if value not in ROTATION_ALGORITHMS:
        raise RotationSettingsError(f"{path}: algorithm must be one of {', '.join(sorted(ROTATION_ALGORITHMS))}, "
                                    f"got {value!r}")
    return value


def _check_scope(settings: RotationSettings, catalog_context: Mapping, path: str) -> None:
    known = catalog_context.get("named_universes")
    if known:
        unknown = [u for u in settings.named_universes if u not in known]
        if unknown:
            raise VocabularyScopeError(f"{path}: named_universes: not in this era: {', '.join(sorted(unknown))} "
                                       f"(the era has {', '.join(sorted(known))})")
    market = catalog_context.get("current_market")
    if settings.market and market and settings.market != market:
        raise VocabularyScopeError(f"{path}: market: {settings.market!r} is not this era's market {market!r}")


def load_rotation_settings(data_dir, *, catalog_context=None):
    """The rotation settings of ``data_dir``, or :data:`FULL_DOWNLOAD` when rotation is not configured.

    ``catalog_context`` (from the era's manifest: ``current_market``,
    ``named_universes``, ...) is used to refuse a scope the era does not have
    (:class:`VocabularyScopeError`). A file that is not valid JSON or has
    fields of the wrong type raises :class:`RotationSettingsError`. A
    ``feature_budget_gb`` of :data:`FULL_DOWNLOAD` also turns rotation off.
    """
    path = rotation_settings_path(data_dir)
    try:
        with open(path, encoding="utf-8") as handle:
            payload = json.load(handle)
    except FileNotFoundError:
        return FULL_DOWNLOAD
    except (OSError, ValueError) as exc:
        raise RotationSettingsError(f"{path}: cannot read rotation settings: {exc}") from exc
    if not isinstance(payload, Mapping):
        raise RotationSettingsError(f"{path}: rotation settings must be a JSON object")
    enabled = payload.get("enabled", True)
    if not isinstance(enabled, bool):
        raise RotationSettingsError(f"{path}: enabled must be true or false, got {enabled!r}")
    if not enabled or payload.get("feature_budget_gb") == FULL_DOWNLOAD:
        return FULL_DOWNLOAD
    seed = payload.get("seed", 0)
    if isinstance(seed, bool) or not isinstance(seed, int):
        raise RotationSettingsError(f"{path}: seed must be an integer, got {seed!r}")
    settings = RotationSettings(
        algorithm=_algorithm(payload, path),
        seed=seed,
        market=_text_or_none(payload, "market", path),
        named_universes=_universes(payload, path),
        family=_text_or_none(payload, "family", path),
        subfamily=_text_or_none(payload, "subfamily", path),
        feature_budget_gb=_budget(payload, path),
        rotation_frequency=_frequency(payload, path),
        feature_budget_bytes=_budget_bytes(payload, path),
        source=path,
    )
    if isinstance(catalog_context, Mapping):
        _check_scope(settings, catalog_context, path)
    return settings


# The sync core answers "no settings file, rotation off" itself while this
# loader is the one installed; a replacement is always called.
load_rotation_settings.__tidewright_native__ = "load_rotation_settings"
