// Per-universe vocabularies ("named_universes/<universe>/vocabulary.json"):
// the file format, its validation, universe names, the ban on retired
// function tokens, and loading every vocabulary of a manifest.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

// Top-level keys every vocabulary must have (besides "era_number").
inline const std::vector<std::string> REQUIRED_VOCABULARY_KEYS = {"named_universe", "features", "metadata"};

// The universe name: the value's text form, stripped. Throws SyncError
// "named_universe is required" / "named_universe must be a single safe path
// segment: <repr>".
std::string validate_named_universe(const json::value& named_universe);

// Every entry name found walking `value` (maps: their "name" when text, then
// their values; lists: their items), in walk order.
std::vector<std::string> vocabulary_entry_names(const json::value& value);

// Distinct retired function token names of the vocabulary's sections, sorted.
std::vector<std::string> retired_function_names_in_vocabulary(const json::object& vocabulary,
                                                              const ManifestSiblings& siblings);
// Throws SyncError naming up to five retired names.
void validate_no_retired_function_tokens(const json::object& vocabulary, const ManifestSiblings& siblings);

// A validated copy of the vocabulary (the caller's object is never changed).
json::object validate_vocabulary_data(const json::value& vocabulary, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings);
// The same for a vocabulary the caller gives up: validated in place and
// returned without a copy.
json::object validate_vocabulary_data(json::value&& vocabulary, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings);
json::object validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_number,
                                       const std::optional<std::string>& named_universe,
                                       const ManifestSiblings& siblings);
json::object validate_vocabulary_file(const std::string& path, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings);

// The universe named by a vocabulary path, or empty for other paths.
std::optional<std::string> vocabulary_named_universe_from_path(std::string_view file_path);
// The manifest's vocabulary paths, sorted.
std::vector<std::string> vocabulary_manifest_paths(const json::object& files);
std::vector<std::string> vocabulary_manifest_paths(const ManifestFiles& files);

// Validates every vocabulary of the manifest in `data_dir` and merges each
// with the era's functions file; universe -> merged vocabulary.
// Throws SyncError "manifest is missing per-universe vocabulary.json entries".
json::object validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest);

// The "metadata" of the first vocabulary of the set, or an empty map.
json::object first_vocabulary_metadata(const json::object& vocabularies);

// True when `value` equals the integer `expected` as the host compares
// numbers (1 == 1.0 == True); text never equals a number.
bool json_equals_int(const json::value& value, std::int64_t expected);

}  // namespace tidewright::sync
