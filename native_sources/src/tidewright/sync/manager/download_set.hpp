// A set of manifest files about to be downloaded, and what every download
// batch does before it starts: prepare the entries, check the disk space,
// and publish the progress file.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/transfer_engine.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tidewright::sync {

// The files of one manifest to download, typed for the transfer engine.
using DownloadSet = std::vector<DownloadJob>;
// Manifest entries by path (copies), for callers that keep entries.
using ManifestEntries = std::vector<std::pair<std::string, json::object>>;

// The bytes the set still needs on disk in `data_dir`: the size of every
// file less what its staging file already holds when the download will
// resume from it (the staged bytes are on disk already). Throws
// DiskSpaceError "Insufficient disk space: need N bytes, have F bytes
// available" when they exceed `free_bytes`.
// The sizes come from the manifest entries in `entries` (by path), through
// the host's manifest_file_size.
std::int64_t require_disk_space(const std::string& data_dir, const DownloadSet& files, const ManifestFiles& entries,
                                std::int64_t free_bytes, const ManifestSiblings& siblings);

// The paths of the entries the manifest's sanitising refused (a SyncResult's
// rejected_files).
std::vector<std::string> rejected_manifest_paths(const Manifest& manifest);

// One warning-level sync event "manifest_entry_rejected" per refused entry
// (reason: why, "error": the message naming the entry, "recovery":
// "operator_fix_required"): the file is not synced until the service's
// manifest is fixed; the rest of the sync goes on.
void log_rejected_manifest_entries(const Manifest& manifest);

// Writes "sync-progress.json" for the set.
void write_download_progress(const std::string& data_dir, const Manifest& manifest, const DownloadSet& files,
                             const ManifestSiblings& siblings);

// The download set of manifest entries given by path.
DownloadSet download_jobs(const Manifest& manifest, const ManifestEntries& entries);

}  // namespace tidewright::sync
