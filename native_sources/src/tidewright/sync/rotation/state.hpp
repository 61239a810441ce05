// Rotation state files in the data directory.
//
// "feature-rotation-state.json" is the persisted rotation state: the payload
// of the rotation module's rotation_state_payload (sorted keys, compact
// separators), whose fields the core sees as plain data ("era_number",
// "active_relative_paths", "rotated_at", "rotation_seed", ...).
// ".prefetched-features.json" lists the feature files consumers asked for
// ahead of rotation, per era: {"era_number", "paths", "schema_version"}
// (sorted keys, default separators). Both are written atomically; the last
// writer wins across processes.
//
// All functions are thread-safe; those that validate state payloads call
// the rotation module through the Host.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

inline constexpr std::string_view FEATURE_ROTATION_STATE_FILENAME = "feature-rotation-state.json";
inline constexpr std::int64_t FEATURE_ROTATION_STATE_VERSION = 1;
inline constexpr std::string_view PREFETCHED_FEATURES_FILENAME = ".prefetched-features.json";
inline constexpr std::int64_t PREFETCHED_FEATURES_VERSION = 1;

std::string feature_rotation_state_path(const std::string& data_dir);
std::string prefetched_features_state_path(const std::string& data_dir);

// The state's fields as plain data, or nullopt when no state file exists.
// Throws FeatureRotationStateError "invalid feature rotation state at
// <path>: <error>" when the file is not UTF-8 JSON, and with the rotation
// module's message when rotation_state_from_payload refuses the payload.
std::optional<json::object> load_feature_rotation_state(const std::string& data_dir);

// Writes `state` (a mapping of the state's fields) through the rotation
// module's rotation_state_payload; returns the path written. A refused state
// throws FeatureRotationStateError with the module's message; write errors
// propagate as OSError.
std::string write_feature_rotation_state(const std::string& data_dir, const json::value& state);

// The state as the rotation module's state object (for the host), from its
// fields; an empty reference for nullopt.
HostRef feature_rotation_state_object(const std::optional<json::object>& state);

// The manifest's era_number as an integer, or nullopt (no manifest, missing
// or non-numeric era).
std::optional<std::int64_t> manifest_era_number_or_none(const Manifest* manifest);

// The given paths (stripped) that are feature files of the manifest, without
// duplicates, sorted.
std::vector<std::string> manifest_prefetched_feature_paths(const Manifest& manifest,
                                                           const std::vector<std::string>& paths,
                                                           const ManifestSiblings& siblings);

// The prefetched paths recorded for the manifest's era that are still its
// feature files. A missing, unreadable or foreign (other schema or era) file
// gives an empty set; never throws for a bad file.
std::set<std::string> read_prefetched_feature_relative_paths(const std::string& data_dir, const Manifest& manifest,
                                                             const ManifestSiblings& siblings);
// The same for the file's text (never throws).
std::set<std::string> parse_prefetched_features_text(std::string_view text, const Manifest& manifest,
                                                     const ManifestSiblings& siblings);
// The text written for `relative_paths` of `era_number`.
std::string prefetched_features_text(std::optional<std::int64_t> era_number,
                                     const std::set<std::string>& relative_paths);

// Replaces the prefetched file with `relative_paths` for `era_number`.
void write_prefetched_feature_relative_paths(const std::string& data_dir, std::optional<std::int64_t> era_number,
                                             const std::set<std::string>& relative_paths);

}  // namespace tidewright::sync
