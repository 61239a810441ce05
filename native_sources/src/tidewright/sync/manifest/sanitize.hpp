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
// Decisions are made without copying: plan_manifest_sanitization says what
// would be removed, and a copy is made only when something is. All functions
// are thread-safe; those taking ManifestSiblings call its functions once per
// file (they may call into the host).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"

#include <array>
#include <cstddef>
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

// --- planning removals ---

enum SanitizeFilter : unsigned {
  kDropAgentBundleDeclarations = 1u << 0,
  kDropUnsupportedRuntimeModules = 1u << 1,
  kDropRetiredFoundPnlLong = 1u << 2,
  kAllSanitizeFilters = kDropAgentBundleDeclarations | kDropUnsupportedRuntimeModules | kDropRetiredFoundPnlLong,
};

// What the selected filters remove from a manifest object. The views point
// into the object that was planned and are valid as long as it is.
struct SanitizePlan {
  // Keys of "files" to remove, in the map's order.
  std::vector<std::string_view> dropped_files;
  // Positions in the "artifacts" list to remove, ascending.
  std::vector<std::size_t> dropped_artifacts;
  // Retired long PnL paths to remove from every entry's "files" list in the
  // "found_signals" and "found_strategies" sections (also in dropped_files).
  std::vector<std::string_view> retired_found_paths;

  bool removes_anything() const { return !dropped_files.empty() || !dropped_artifacts.empty(); }
};

// Decides, without copying, what applying the selected filters in order
// (declarations, unsupported runtime modules, retired long PnL) removes. Only
// "files" (absent, null or not a map counts as empty) and "artifacts" are
// read. `siblings` is consulted only for kDropUnsupportedRuntimeModules.
SanitizePlan plan_manifest_sanitization(const json::object& data, const ManifestSiblings& siblings,
                                        unsigned filters);

// A shallow copy of `data` without what `plan` removes: "files" (set in the
// copy even when absent before) and "artifacts" keep their order; the found
// sections get the entries whose "files" lists held retired paths rewritten.
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

// The three filters in order. `changed`, when given, tells whether anything
// was removed. The const& form copies `data` when nothing is removed; the
// && form then hands it back without copying.
json::object sanitize_manifest_data_for_sync(const json::object& data, const ManifestSiblings& siblings,
                                             bool* changed = nullptr);
json::object sanitize_manifest_data_for_sync(json::object&& data, const ManifestSiblings& siblings,
                                             bool* changed = nullptr);

// --- checks on a raw manifest object ---

// Whether a stored manifest still holds entries that sanitising removes.
bool manifest_has_agent_bundle_declarations(const json::object& data);
bool manifest_has_retired_found_pnl_long_files(const json::object& data);

}  // namespace tidewright::sync
