#include "tidewright/sync/manager/download_set.hpp"

#include "tidewright/sync/manager/staging_file.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cstdint>

namespace tidewright::sync {

std::int64_t require_disk_space(const std::string& data_dir, const DownloadSet& files, const ManifestFiles& entries,
                                std::int64_t free_bytes, const ManifestSiblings& siblings) {
  std::int64_t needed = 0;
  static const json::value kNoEntry = json::object();
  // Resolved a directory at a time, not a path at a time.
  std::optional<ManifestLocalPaths> locals;
  for (const auto& job : files) {
    std::optional<ManifestFiles::Entry> entry = entries.find(job.path);
    std::optional<std::int64_t> size = siblings.manifest_file_size(entry ? entry->info() : kNoEntry);
    if (!size) continue;
    DownloadJob sized = job;
    sized.size = size;
    std::int64_t staged = 0;
    try {
      if (!locals) locals.emplace(data_dir);
      LocalPresence presence = LocalPresence::unknown;
      const std::string local = locals->resolve(job.path, nullptr, &presence);
      // Nothing is staged in a directory that does not exist.
      if (presence != LocalPresence::directory_absent) staged = resumable_staged_bytes_at(local + ".tmp", sized);
    } catch (const ManifestError&) {
    }
    const std::int64_t remaining = *size - staged;
    // Saturates: sizes from a hostile manifest may add up past 64 bits.
    needed = remaining > INT64_MAX - needed ? INT64_MAX : needed + remaining;
  }
  if (needed > 0 && needed > free_bytes) {
    throw DiskSpaceError("Insufficient disk space: need " + std::to_string(needed) + " bytes, have " +
                         std::to_string(free_bytes) + " bytes available");
  }
  return needed;
}

std::vector<std::string> rejected_manifest_paths(const Manifest& manifest) {
  std::vector<std::string> paths;
  paths.reserve(manifest.rejected_entries().size());
  for (const auto& entry : manifest.rejected_entries()) paths.push_back(entry.path);
  return paths;
}

void log_rejected_manifest_entries(const Manifest& manifest) {
  for (const auto& entry : manifest.rejected_entries()) {
    log_sync_event("manifest_entry_rejected", entry.path, 1, entry.reason,
                   {{"error", entry.message}, {"recovery", "operator_fix_required"}});
  }
}

void write_download_progress(const std::string& data_dir, const Manifest& manifest, const DownloadSet& files,
                             const ManifestSiblings& siblings) {
  // The entries are read in the manifest, not copied.
  std::vector<SyncProgressFile> progress_files;
  progress_files.reserve(files.size());
  for (const auto& job : files) progress_files.push_back({job.path, nullptr, manifest.files().find(job.path)});
  write_sync_progress_json(data_dir, manifest.era_number_int() < 0 ? 0 : manifest.era_number_int(),
                           manifest.version_int() < 0 ? 0 : manifest.version_int(), progress_files, siblings);
}

}  // namespace tidewright::sync

namespace tidewright::sync {

DownloadSet download_jobs(const Manifest& manifest, const ManifestEntries& entries) {
  DownloadSet jobs;
  jobs.reserve(entries.size());
  for (const auto& [path, entry] : entries) jobs.push_back(DownloadJob::for_manifest(manifest, path, &entry));
  return jobs;
}

}  // namespace tidewright::sync
