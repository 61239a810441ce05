// Removal of orphan staging files and of old era directories. Lenient:
// failures are logged, never raised.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

// Deletes "<local path of file_path>.tmp"; a missing file is fine.
void remove_manifest_tmp_file(const std::string& data_dir, const std::string& file_path);

// Deletes every "*.tmp" file below `data_dir` except the staging files of
// `preserve_relative_paths` (resumable downloads of the current set).
void cleanup_sync_tmp_files(const std::string& data_dir, const std::vector<std::string>& preserve_relative_paths = {});

// Deletes every "*.tmp" file below `data_dir` (superseded transitions).
void remove_all_tmp_files(const std::string& data_dir);

// Total size of the regular files below `path` (0 when unreadable).
std::int64_t tree_size(const std::string& path);

// Deletes era directories other than `current_era`; with `everything` also
// "manifest.json", "shuffle_seed.enc" and every non-hidden directory.
// Returns the bytes freed.
std::int64_t cleanup_era_directories(const std::string& data_dir, std::optional<std::int64_t> current_era,
                                     bool everything);

}  // namespace tidewright::sync
