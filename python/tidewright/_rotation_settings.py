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
      "feature_budget_gb": 20,           # number, null (no budget) or "full_download"
      "rotation_frequency": "weekly"     # or "PT<hours>H"
    }

``"enabled": false`` turns rotation off without deleting the file.
"""

from __future__ import annotations

import dataclasses
import json
import os
from collections.abc import Mapping

from tidewright._artifact_rotation import FULL_DOWNLOAD, VocabularyScopeError, _RecordMapping

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
    if isinstance(value, bool) or not isinstance(value, (int, float)) or value < 0:
        raise RotationSettingsError(f"{path}: feature_budget_gb must be a non-negative number, null or "
                                    f"{FULL_DOWNLOAD!r}, got {value!r}")
    return value


def _check_scope(settings: RotationSettings, catalog_context: Mapping, path: str) -> None:
    known = catalog_context.get("named_universes")
    if known:
        unknown = [u for u in settings.named_universes if u not in known]
        if unknown:
            raise VocabularyScopeError(f"{path}: named universes not in this era: {', '.join(sorted(unknown))}")
    market = catalog_context.get("current_market")
    if settings.market and market and settings.market != market:
        raise VocabularyScopeError(f"{path}: market {settings.market!r} is not this era's market {market!r}")


def load_rotation_settings(data_dir, *, catalog_context=None):
    """The rotation settings of ``data_dir``, or :data:`FULL_DOWNLOAD` when rotation is not configured.

    ``catalog_context`` (from the era's manifest: ``current_market``,
    ``named_universes``, ...) is used to refuse a scope the era does not have
    (:class:`VocabularyScopeError`). A file that is not valid JSON or has
    fields of the wrong type raises :class:`RotationSettingsError`.
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
    if payload.get("enabled", True) is False:
        return FULL_DOWNLOAD
    seed = payload.get("seed", 0)
    if isinstance(seed, bool) or not isinstance(seed, int):
        raise RotationSettingsError(f"{path}: seed must be an integer, got {seed!r}")
    settings = RotationSettings(
        algorithm=_text_or_none(payload, "algorithm", path) or DEFAULT_ROTATION_ALGORITHM,
        seed=seed,
        market=_text_or_none(payload, "market", path),
        named_universes=_universes(payload, path),
        family=_text_or_none(payload, "family", path),
        subfamily=_text_or_none(payload, "subfamily", path),
        feature_budget_gb=_budget(payload, path),
        rotation_frequency=_text_or_none(payload, "rotation_frequency", path),
    )
    if isinstance(catalog_context, Mapping):
        _check_scope(settings, catalog_context, path)
    return settings
