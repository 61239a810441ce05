#include "tidewright/sync/manager/download_set.hpp"

#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cstdint>

namespace tidewright::sync {

json::object download_entry(const Manifest& manifest, const json::value& info) {
  json::object entry = info.is_object() ? info.get_object() : json::object();
  if (auto base = manifest.base_url_text()) {
    entry["_manifest_base_url"] = *base;
  } else {
    entry["_manifest_base_url"] = nullptr;
  }
  entry["_manifest_version"] = manifest.version_int();
  entry["_manifest_era_number"] = manifest.era_number_int();
  return entry;
}

std::int64_t require_disk_space(const std::string& data_dir, const DownloadSet& files, std::int64_t free_bytes,
                                const ManifestSiblings& siblings) {
  std::int64_t needed = 0;
  for (const auto& [path, entry] : files) {
    std::optional<std::int64_t> size = siblings.manifest_file_size(entry);
    if (!size) continue;
    const std::int64_t remaining = *size - resumable_staged_bytes(data_dir, path, entry, size);
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
  json::object progress_files;
  for (const auto& [path, entry] : files) progress_files[path] = entry;
  write_sync_progress_json(data_dir, manifest.era_number_int() < 0 ? 0 : manifest.era_number_int(),
                           manifest.version_int() < 0 ? 0 : manifest.version_int(), progress_files, siblings);
}

}  // namespace tidewright::sync
