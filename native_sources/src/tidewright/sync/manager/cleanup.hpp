// Removal of orphan staging files and of old era directories. Lenient:
// failures are logged, never raised.
#pragma once

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest_files_table.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tidewright::sync {

// Deletes "<local path of file_path>.tmp"; a missing file is fine.
void remove_manifest_tmp_file(const std::string& data_dir, const std::string& file_path);

// What earlier scans for staging files found: the directories that held
// none, with their identity at the time and their subdirectories. Creating,
// removing or renaming an entry changes a directory's times, so a directory
// whose identity has not moved since is still free of staging files and is
// not listed again; only its subdirectories are visited. A directory changed
// during the scan that saw it (times not older than the scan's start) is not
// remembered. One per manager; scans through it are serialised.
class TmpScanMemo {
 public:
  struct Dir {
    StatKey identity;
    std::vector<std::string> subdirs;  // names
  };
  Mutex mu;
  std::unordered_map<std::string, Dir> clean_dirs GUARDED_BY(mu);  // by path
};

// Files of the manifests at hand, as "files" maps: a manifest file whose own
// name ends in ".tmp" is data, never a staging file to clean up.
using ManifestFilesList = std::vector<const ManifestFiles*>;

// Deletes every "*.tmp" file below `data_dir` except the staging files of
// `preserve_relative_paths` (resumable downloads of the current set) and the
// files that `manifest_files` list. With `memo`, directories unchanged since
// an earlier scan found them clean are not listed again.
void cleanup_sync_tmp_files(const std::string& data_dir, const std::vector<std::string>& preserve_relative_paths = {},
                            TmpScanMemo* memo = nullptr, const ManifestFilesList& manifest_files = {});

// Deletes every "*.tmp" file below `data_dir` but the files that
// `manifest_files` list (superseded transitions).
void remove_all_tmp_files(const std::string& data_dir, const ManifestFilesList& manifest_files = {});

// Total size of the regular files below `path` (0 when unreadable).
std::int64_t tree_size(const std::string& path);

// Deletes era directories other than `current_era`; with `everything` also
// "manifest.json", "shuffle_seed.enc" and every non-hidden directory.
// Returns the bytes freed.
std::int64_t cleanup_era_directories(const std::string& data_dir, std::optional<std::int64_t> current_era,
                                     bool everything);

}  // namespace tidewright::sync
