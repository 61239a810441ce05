// The era's content-addressed signals index
// ("_control/signals_index.<sha256>.json"): the manifest pointer rules, the
// validation of its bytes, and applying its membership sections to a
// manifest.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {

inline constexpr const char* LEGACY_SIGNALS_INDEX_RELATIVE_PATH = "signals_index.json";
inline constexpr const char* SIGNALS_INDEX_VERSIONED_RE = R"(^_control/signals_index\.([0-9a-f]{64})\.json$)";
inline constexpr const char* SIGNALS_INDEX_SECTIONS[] = {"found_signals", "found_strategies", "useful_signals"};

// The checked signals-index path named by a manifest object's
// "signals_index" and "files", or empty when it names none (null, "", or
// another value the host reads as false). Throws
// ManifestError for every broken pointer.
std::optional<std::string> manifest_signals_index_path(const json::value& signals_index, const json::object& files);
std::optional<std::string> manifest_signals_index_path(const json::value& signals_index, const ManifestFiles& files);
std::optional<std::string> manifest_signals_index_path(const Manifest& manifest);

// The digest in a versioned index path, or empty when the path is not one.
std::optional<std::string> signals_index_path_digest(std::string_view path);

// The three membership sections of a signals index.
struct SignalsIndexMembership {
  json::object found_signals;
  json::object found_strategies;
  json::object useful_signals;

  bool operator==(const SignalsIndexMembership&) const = default;
  // What `manifest` holds now.
  static SignalsIndexMembership of(const Manifest& manifest);
  // Sets the sections of a manifest that no other thread can see yet.
  void apply_to(Manifest& manifest) &&;
};

// Checks a parsed index against the manifest's era and returns its sections;
// `manifest` is not changed. ManifestError / EraError as for applying.
SignalsIndexMembership signals_index_membership(const json::value& index, const Manifest& manifest);

// Validates index bytes and applies them to `manifest`. The bytes are decoded
// as UTF-8 before anything else: ManifestError "Invalid signals_index.json
// UTF-8: <why>" when they are not, "Invalid signals_index.json JSON: ..." when
// the text is not JSON; EraError for an era mismatch.
json::object validate_signals_index_bytes(std::string_view data, Manifest& manifest);
// Applies a parsed index to `manifest` (its three sections).
json::object apply_manifest_signals_index(const json::value& index, Manifest& manifest);

// Reads and checks the manifest's index from `data_dir` (or
// `fallback_data_dir`) without touching `manifest`; empty when the manifest
// names none. Throws SyncError "signals_index.json missing from local sync:
// <path>" when absent, ManifestError / EraError for a bad index.
std::optional<SignalsIndexMembership> read_manifest_signals_index(
    const std::string& data_dir, const Manifest& manifest,
    const std::optional<std::string>& fallback_data_dir = std::nullopt);
// The same, applied to `manifest`; false when the manifest names none. Only
// for a manifest no other thread can see yet: a published manifest is never
// changed (build a new one instead).
bool load_manifest_signals_index(const std::string& data_dir, Manifest& manifest,
                                 const std::optional<std::string>& fallback_data_dir = std::nullopt);

}  // namespace tidewright::sync
