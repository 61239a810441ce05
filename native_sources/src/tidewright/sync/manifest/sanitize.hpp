// Manifest sanitisation: the entries of a server manifest that this client
// never downloads or keeps (agent-bundle declaration files, runtime modules
// it does not support, retired long-format found-PnL files), and the per-file
// predicates that make sync skip a file while leaving it in the manifest.
//
// Every manifest object goes through sanitize_manifest_data_for_sync before a
// Manifest is built from it, so the rest of the program never sees those
// entries. A manifest entry is a (path, file info) pair of the object's
// "files" map; the file-info keys read here are "kind" and "platform".
//
// Sanitising for sync also checks what the filters keep, because a hostile
// or broken manifest must not make the engine write where it should not:
//   - a path naming one of the engine's own files in the data directory, or
//     two paths reaching one local file (also a file that another path needs
//     as a directory, or another path's staging file), refuse the whole
//     manifest with ManifestError naming the entries, before anything is
//     written;
//   - an entry no download could be checked against (not an object, a
//     "sha256" that is not 64 hexadecimal digits, a "size_bytes" that is not
//     a whole non-negative number, a NaN or infinite number anywhere in it)
//     is refused alone: it leaves the manifest, and the caller is told why;
//   - a "sha256" written in capitals or with blanks around it is rewritten
//     stripped and lower-cased, so that every later comparison sees one text.
// Entries left as they are keep the values the decoder produced.
//
// Decisions are made without copying: plan_manifest_sanitization says what
// would be removed, and a copy is made only when something is. All functions
// are thread-safe; those taking ManifestSiblings call its functions once per
// file (they may call into the host).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

// Module names whose compiled runtime files are retired.
inline constexpr std::array<std::string_view, 2> RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES = {
    "backtester", "risk_model"};
// File-name endings of compiled runtime modules, in the order they are tried.
inline constexpr std::array<std::string_view, 2> RUNTIME_MODULE_EXTENSION_SUFFIXES = {".so", ".pyd"};

// --- predicates ---

// A path ending in ".pxd", or a "kind" of "vault_declaration" or
// "backtester_declaration" (either alone suffices).
bool is_agent_bundle_declaration_file(std::string_view path, const json::value& info);

// The file's kind (siblings.manifest_file_kind) ends with the runtime-module
// kind suffix but is not a runtime-module kind this client supports.
bool is_unsupported_runtime_module_file(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings);

// The module name of a compiled runtime file built for `platform` whose name
// is retired: the file name (backslashes read as "/") ending in
// "-<platform>.so" or "-<platform>.pyd", without that ending, when it is one
// of RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES. Files for other platforms are
// not recognised. The one-argument forms use current_platform().
std::optional<std::string> retired_unsupported_runtime_module_name_from_path(std::string_view path,
                                                                             std::string_view platform);
std::optional<std::string> retired_unsupported_runtime_module_name_from_path(std::string_view path);
bool is_retired_unsupported_runtime_module_path(std::string_view path, std::string_view platform);
bool is_retired_unsupported_runtime_module_path(std::string_view path);

// found_signals/<a>/<b>/<c>/pnl_long.arrow (or found_strategies, or
// pnl.long.arrow): exactly five segments once backslashes are read as "/"
// and "/" is stripped from both ends.
bool is_retired_found_pnl_long_file(std::string_view path);

// A supported runtime-module file whose non-empty "platform" differs from
// `platform` (current_platform() in the three-argument form).
bool rotation_file_is_platform_excluded(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings, std::string_view platform);
bool rotation_file_is_platform_excluded(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings);

// Sync skips (does not download or verify) the file: an unsupported runtime
// module, or platform-excluded as above.
bool manifest_file_is_sync_excluded(std::string_view path, const json::value& info,
                                    const ManifestSiblings& siblings, std::string_view platform);
bool manifest_file_is_sync_excluded(std::string_view path, const json::value& info,
                                    const ManifestSiblings& siblings);
// The same for an entry of a manifest's files table.
bool manifest_file_is_sync_excluded(const ManifestFiles::Entry& entry, const ManifestSiblings& siblings);

// --- the engine's own files ---

// What the engine keeps at the top of a data directory (and of an era being
// staged) for itself. A name that starts with one of these followed by "."
// is the engine's too: the temporary files of its atomic writes
// ("manifest.json.<pid>.<thread>.<ns>.tmp") and companions such as
// ".sync_flock.owner" and "shuffle_seed.enc.meta.json".
inline constexpr std::array<std::string_view, 11> ENGINE_OWNED_FILENAMES = {
    "manifest.json",       ".manifest_sync_metadata.json", ".sync_hash_cache.json", "sync-progress.json",
    ".sync_flock",         ".consumer_count",              ".transition_lock",      "shuffle_seed.enc",
    "rotation-settings.json", "feature-rotation-state.json", ".prefetched-features.json"};

// Whether a canonical manifest path (see safe_manifest_relative_path) lies on
// a file or directory of the engine: its first segment is one of
// ENGINE_OWNED_FILENAMES (or starts with one and "."), an era directory
// ("era_<digits>" or "era<digits>", which old-era clean-up deletes), or an
// era transition's staging directory (".transition_era..."). The era
// artifacts that are manifest entries by design ("functions.json",
// "named_universes/<u>/vocabulary.json", "_control/signals_index.<sha>.json")
// are not the engine's.
bool is_engine_owned_path(std::string_view canonical_path);

// Whether a JSON value holds NaN or an infinity anywhere inside it.
bool holds_non_finite_number(const json::value& value);

// --- planning removals ---

enum SanitizeFilter : unsigned {
  kDropAgentBundleDeclarations = 1u << 0,
  kDropUnsupportedRuntimeModules = 1u << 1,
  kDropRetiredFoundPnlLong = 1u << 2,
  // The checks described at the top, on the entries the filters keep.
  kCheckKeptEntries = 1u << 3,
  kAllSanitizeFilters =
      kDropAgentBundleDeclarations | kDropUnsupportedRuntimeModules | kDropRetiredFoundPnlLong | kCheckKeptEntries,
};

// A manifest entry refused on its own, and why.
struct RejectedManifestEntry {
  std::string path;     // the key as the manifest wrote it
  std::string reason;   // "invalid_entry", "non_finite_number", "invalid_size_bytes" or "invalid_sha256"
  std::string message;  // the error text, naming the entry
};

// What the selected filters change in a manifest object. The views point
// into the object that was planned and are valid as long as it is.
struct SanitizePlan {
  // Keys of "files" to remove, in the map's order (the rejected ones too).
  std::vector<std::string_view> dropped_files;
  // Positions in the "artifacts" list to remove, ascending.
  std::vector<std::size_t> dropped_artifacts;
  // Retired long PnL paths to remove from every entry's "files" list in the
  // "found_signals" and "found_strategies" sections (also in dropped_files).
  std::vector<std::string_view> retired_found_paths;
  // Entries refused by kCheckKeptEntries, in the map's order.
  std::vector<RejectedManifestEntry> rejected;
  // Kept entries whose "sha256" is rewritten: key and canonical digest, in
  // the map's order.
  std::vector<std::pair<std::string_view, std::string>> sha256_rewrites;

  bool removes_anything() const { return !dropped_files.empty() || !dropped_artifacts.empty(); }
  bool changes_anything() const { return removes_anything() || !sha256_rewrites.empty(); }
};

// Decides, without copying, what applying the selected filters in order
// (declarations, unsupported runtime modules, retired long PnL, then the
// checks of what they keep) changes. Only "files" (absent, null or not a map
// counts as empty) and "artifacts" are read. `siblings` is consulted only
// for kDropUnsupportedRuntimeModules. With kCheckKeptEntries, throws
// ManifestError for a path of the engine's own files or for colliding paths:
//   "Manifest file path names a file the sync engine keeps for itself: <repr>"
//   "Manifest file paths name the same local file: <repr> and <repr>"
//   "Manifest file paths collide: <repr> is a file but <repr> needs it as a directory"
//   "Manifest file paths collide: <repr> is the staging file of <repr>"
// Paths that are not safe (safe_manifest_relative_path refuses them) are not
// checked here; every use of such a path refuses it.
SanitizePlan plan_manifest_sanitization(const json::object& data, const ManifestSiblings& siblings,
                                        unsigned filters);

// A shallow copy of `data` with what `plan` changes: "files" (set in the
// copy even when absent before) and "artifacts" keep their order, rewritten
// digests replace the entries' "sha256"; the found sections get the entries
// whose "files" lists held retired paths rewritten.
json::object apply_sanitize_plan(const json::object& data, const SanitizePlan& plan);

// --- filters ---

// Each returns nullopt when it removes nothing (the caller keeps the object
// it has), else the filtered copy; the input is never modified.
std::optional<json::object> drop_agent_bundle_declaration_files(const json::object& data);
// Also drops the "artifacts" (maps) whose "relative_path", else "path", names
// an unsupported runtime module, with the artifact itself as file info.
std::optional<json::object> drop_unsupported_runtime_module_files(const json::object& data,
                                                                  const ManifestSiblings& siblings);
// Also strips the retired paths from the found sections' "files" lists.
std::optional<json::object> drop_retired_found_pnl_long_files(const json::object& data);

// The three filters in order, then the checks of what they keep (the
// ManifestErrors of plan_manifest_sanitization pass through). `changed`,
// when given, tells whether anything was removed or rewritten; `rejected`,
// when given, receives the entries refused on their own. The const& form
// copies `data` when nothing changes; the && form then hands it back without
// copying. A sanitised object sanitises to itself.
json::object sanitize_manifest_data_for_sync(const json::object& data, const ManifestSiblings& siblings,
                                             bool* changed = nullptr,
                                             std::vector<RejectedManifestEntry>* rejected = nullptr);
json::object sanitize_manifest_data_for_sync(json::object&& data, const ManifestSiblings& siblings,
                                             bool* changed = nullptr,
                                             std::vector<RejectedManifestEntry>* rejected = nullptr);

// --- checks on a raw manifest object ---

// Whether a stored manifest still holds entries that sanitising removes.
bool manifest_has_agent_bundle_declarations(const json::object& data);
bool manifest_has_retired_found_pnl_long_files(const json::object& data);
// The same for a manifest's files table.
bool manifest_has_agent_bundle_declarations(const ManifestFiles& files);
bool manifest_has_retired_found_pnl_long_files(const ManifestFiles& files);

}  // namespace tidewright::sync
