"""Merging the era's function catalogue into each universe's vocabulary.

An era publishes one ``functions.json`` shared by all universes and one
``vocabulary.json`` per universe. Searches read the merged vocabulary: the
universe's own entries plus the catalogue's. Both files hold their entries
under ``"functions"``, either as a list of objects with a ``"name"`` or as an
object keyed by name.
"""

from __future__ import annotations

import copy
from collections.abc import Mapping

__all__ = ["merge_functions_vocabulary"]


def _pairs(section, what: str) -> list:
    """(name or None, entry) for each entry of a list- or object-shaped section."""
    if isinstance(section, list):
        return [(_entry_name(entry), entry) for entry in section]
    if isinstance(section, Mapping):
        return [(str(name), entry) for name, entry in section.items()]
    raise ValueError(f"{what} functions must be a list or an object, got {type(section).__name__}")


def _entry_name(entry):
    name = entry.get("name") if isinstance(entry, Mapping) else None
    return name if isinstance(name, str) else None


def _as_list_entry(name, entry):
    if name is not None and isinstance(entry, Mapping) and "name" not in entry:
        return {"name": name, **entry}
    return entry


def merge_functions_vocabulary(*, functions, vocabulary, named_universe=None, expected_era_number=None) -> dict:
    """A copy of ``vocabulary`` whose ``"functions"`` also holds the entries of ``functions``.

    An entry the vocabulary already names is kept as the vocabulary has it
    (a universe may specialise a catalogue function); catalogue entries are
    appended after the vocabulary's own, in catalogue order. The section
    keeps the vocabulary's shape (list or object); without a section of its
    own the catalogue's shape is used (in an object-shaped section, entries
    without a name cannot be keyed and are left out). Neither argument is
    modified.

    Raises :class:`ValueError` when the two disagree about the era or the
    vocabulary belongs to another universe than ``named_universe``.
    """
    if not isinstance(vocabulary, Mapping):
        raise ValueError("vocabulary must be a JSON object")
    merged = copy.deepcopy(dict(vocabulary))
    if named_universe is not None and merged.get("named_universe") not in (None, named_universe):
        raise ValueError(
            f"vocabulary named_universe {merged.get('named_universe')!r} does not match {named_universe!r}"
        )
    if functions is None:
        return merged
    if not isinstance(functions, Mapping):
        raise ValueError("functions.json must be a JSON object")
    era = functions.get("era_number")
    if expected_era_number is not None and era is not None and era != expected_era_number:
        raise ValueError(f"functions.json era_number={era} does not match era_number={expected_era_number}")
    catalogue = functions.get("functions")
    if catalogue is None:
        return merged
    catalogue_pairs = _pairs(catalogue, "functions.json")
    own = merged.get("functions")
    own_pairs = [] if own is None else _pairs(own, "vocabulary.json")
    known = {name for name, _ in own_pairs if name is not None}
    added = []
    for name, entry in catalogue_pairs:
        if name is not None:
            if name in known:
                continue
            known.add(name)
        added.append((name, copy.deepcopy(entry)))
    shape = own if own is not None else catalogue
    if isinstance(shape, Mapping):
        merged["functions"] = {name: entry for name, entry in own_pairs + added if name is not None}
    else:
        merged["functions"] = [_as_list_entry(name, entry) for name, entry in own_pairs + added]
    return merged


# The sync engine merges natively while this default is installed.
merge_functions_vocabulary.__tidewright_native__ = "merge_functions_vocabulary"
