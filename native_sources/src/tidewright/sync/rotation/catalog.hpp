// Rotation catalogue and settings: what the package's rotation planner is
// given for one era. A manifest becomes rotation artifact rows (file info
// completed with its scope), artifact descriptors and a catalogue context
// (the markets, universes and families that exist); the user's settings
// become a byte budget and a rotation period.
//
// The planner and the settings loader live in the host package
// (tidewright._artifact_rotation, tidewright._rotation_settings); the
// functions here that call them go through the Host. All functions are
// thread-safe and touch neither the network nor the data directory, except
// existing_rotation_paths (which stats local files).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/transport/settings.hpp"  // FEATURE_ROTATION_BYTES_PER_GB

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

inline constexpr std::string_view ROTATION_SETTINGS_FILENAME = "rotation-settings.json";

// The universe segment of "features/<universe>/..." (backslashes read as
// "/"), stripped; nullopt when the path is not under "features" or the
// segment is empty, "." or "..".
std::optional<std::string> feature_named_universe_from_path(std::string_view file_path);

// The manifest object's "named_universe" (stripped, non-empty), else its only
// "named_universes" entry (stripped), else nullopt.
std::optional<std::string> rotation_manifest_default_named_universe(const json::object& manifest_data);

// The manifest object's "market" (stripped, non-empty), else "crypto" when
// "market_id" converts to the integer 1, else nullopt.
std::optional<std::string> rotation_manifest_default_market(const json::object& manifest_data);

// For a feature file (its kind, by siblings.manifest_file_kind, is one of
// the feature artifact kinds): a copy of `file_info` with "artifact_kind"
// ("feature"), "named_universe" (from the path, else the manifest's default)
// and "market" (the manifest's default) filled in where missing. Any other
// file's info is returned unchanged.
json::value rotation_file_info_with_legacy_scope(std::string_view file_path, const json::value& file_info,
                                                 const json::object& manifest_data, const ManifestSiblings& siblings);

// One row per entry of the manifest's "artifacts" list (entries that are not
// maps, or name no "relative_path"/"path", are skipped): the file info that
// "files" holds for the path, overlaid with the entry's keys, through the
// legacy-scope rule, with "relative_path" set. In artifact order.
json::array rotation_artifact_rows(const json::object& manifest_data, const ManifestSiblings& siblings);

// The artifact rows minus sync-excluded files, in row order.
json::array rotation_artifact_rows_for_sync(const json::object& manifest_data, const ManifestSiblings& siblings);

// rotation_artifact_rows_for_sync, each row turned into a descriptor by the
// rotation module's artifact_descriptor_from_manifest_file. In row order.
json::array rotation_manifest_artifacts(const json::object& manifest_data, const ManifestSiblings& siblings);

// Whether some artifact (a descriptor or a row) rotates and is scoped: its
// "artifact_kind" (else "kind") is a feature kind, its "mandatory" flag is
// not set, and it names a "market" or a "named_universe". Rotation settings
// for such artifacts must say which market and universes they choose from.
bool rotation_artifacts_require_scoped_settings(const json::array& artifacts, const ManifestSiblings& siblings);

// Rows of every manifest file the planner must know about: the artifact rows
// that are not sync-excluded, then every other file of "files" that is not
// sync-excluded (through the legacy-scope rule, "relative_path" set), in
// manifest order. Computed without calling the host.
json::array rotation_planning_rows(const json::object& manifest_data, const ManifestSiblings& siblings);

// The rotation module's descriptor of each row (one host call per row).
json::array rotation_descriptors(const json::array& rows, const ManifestSiblings& siblings);

// {"current_market", "current_universes", "named_universes", "families"}
// from the manifest's "rotation" -> "scope" section and the rotation
// artifacts' (descriptors' or rows') "named_universe", "market", "family",
// "subfamily": the scope's market, else the first artifact market; the
// scope's universes, else every artifact universe; the artifact universes;
// and for each of them {family: [subfamilies, sorted]}. Universe lists are
// sorted. Files that are not rotation artifacts, and the manifest's own
// "named_universes", do not count: without artifacts the context names no
// universe, and the settings loader has nothing to check a scope against.
json::object rotation_catalog_context(const json::object& manifest_data, const json::array& artifacts);

// The byte budget of a settings object's fields: null for no budget, the
// FULL_DOWNLOAD marker text unchanged, else an exact "feature_budget_bytes"
// when one is set, else the integer part of "feature_budget_gb" times
// FEATURE_ROTATION_BYTES_PER_GB (1.5 gives exactly 1 GiB). Throws ValueError
// for a value that is not a number.
json::value rotation_feature_budget_bytes(const json::value& feature_budget_gb, const json::value& feature_budget_bytes,
                                          std::string_view full_download_marker);

// "weekly" -> 604800; "PT<n>H" with n a positive integer -> n hours in
// seconds; anything else (absent included) -> nullopt.
std::optional<std::int64_t> rotation_frequency_seconds(const json::value& rotation_frequency);

// The paths, in the given order, whose local file exists (invalid paths are
// left out).
std::vector<std::string> existing_rotation_paths(const std::string& data_dir,
                                                 const std::vector<std::string>& relative_paths);

}  // namespace tidewright::sync
