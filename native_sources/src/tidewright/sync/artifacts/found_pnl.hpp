// Found and useful PnL files referenced by the signals index memberships:
// their classification by path and kind, the kind check, and keeping
// manifest, membership and signals index consistent when storage no longer
// has some found PnL files.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest_files_table.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

inline constexpr const char* FOUND_SIGNAL_PNL_KIND = "found_signal_is_pnl";
inline constexpr const char* FOUND_STRATEGY_EPOCH_PNL_KIND = "found_strategy_is_epoch_pnl";
inline constexpr const char* USEFUL_SIGNAL_OS_PNL_KIND = "useful_signal_os_pnl";
inline constexpr const char* USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND = "useful_signal_strategy_is_pnl";

bool is_found_pnl_file_kind(std::string_view kind);  // one of the two found kinds

// The membership section of a PnL path, or empty.
std::optional<std::string> found_pnl_section_for_path(std::string_view path);
bool is_manifest_found_pnl_file(std::string_view file_path, const json::value& file_info);
std::set<std::string> membership_referenced_files(const json::value& section);
std::set<std::string> normalize_found_pnl_paths(const std::vector<std::string>& paths);
// Removes `paths` from every entry's "files" of the section (in place).
void drop_found_pnl_paths_from_membership(json::value& section, const std::set<std::string>& paths);
// Removes the paths from "files" and from the three sections of the object.
json::object drop_missing_found_pnl_paths(const json::object& manifest_data, const std::vector<std::string>& missing);

struct ScrubbedSignalsIndex {
  std::string old_relative_path;
  std::string new_relative_path;
  std::string local_path;
  std::string sha256;
};
// Rewrites the local signals index without the paths under its new content
// address and points `manifest_data` at it; empty when there was nothing to do.
std::optional<ScrubbedSignalsIndex> scrub_missing_found_pnl_paths_from_signals_index(
    const std::string& data_dir, json::object& manifest_data, const std::vector<std::string>& missing);

// The path of a found PnL file that storage no longer has (a permanent 404
// on a found PnL file of the right kind), or empty.
std::optional<std::string> missing_found_pnl_download_path(const PermanentDownloadError& error,
                                                           const json::object& files);
std::optional<std::string> missing_found_pnl_download_path(const PermanentDownloadError& error,
                                                           const ManifestFiles& files);

// ManifestError when a membership-referenced found PnL file has the wrong kind.
// `sections` holds "found_signals" and "found_strategies".
void validate_membership_referenced_found_pnl_kinds(const json::object& sections, const json::object& files);
void validate_membership_referenced_found_pnl_kinds(const json::object& sections, const ManifestFiles& files);

}  // namespace tidewright::sync
