// Feature prefetch: a consumer about to dispatch work on some features has
// their manifest files (and runtime companions) downloaded now, outside the
// rotation schedule; the files are remembered so that rotation keeps them.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/settings.hpp"

namespace tidewright::sync {

std::vector<SyncManager::PrefetchedFeatureFile> SyncManager::request_feature_files_for_sync(
    const std::vector<std::string>& feature_names, const std::string& expression_type,
    const std::optional<std::string>& named_universe) {
  std::vector<std::string> names;
  for (const auto& name : feature_names) names.push_back(strip_ws(name));
  std::optional<std::string> universe;
  if (named_universe) universe = strip_ws(*named_universe);

  if (transition_in_progress()) {
    throw StateError("Sync is in era transition mode \u2014 request_feature_files_for_sync rejected");
  }
  if (!running()) throw StateError("Sync thread is not running. Call start() or acquire() first.");

  // A request that arrives while request_for_sync runs lets that sync finish
  // first (for at most SyncCoalescing::WAIT; a timeout is not an error).
  coalescing_.wait_for_running();

  MutexLock lock(sync_mu_);
  DirectoryLock::Guard directory(directory_lock_);
  std::int64_t restarts = 0;
  while (true) {
    try {
      return request_feature_files_for_sync_impl(names, expression_type, universe);
    } catch (const ManifestSupersededError& e) {
      ++restarts;
      log_warning(
          "Manifest changed during feature prefetch; refreshing manifest and restarting feature download set "
          "(%d/%d): %s",
          {json::value(restarts), json::value(SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT), json::value(e.what())});
      if (restarts >= SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT) throw;
      sync_with_manifest_refresh();
    }
  }
}

std::vector<SyncManager::PrefetchedFeatureFile> SyncManager::request_feature_files_for_sync_impl(
    const std::vector<std::string>& feature_names, const std::string& expression_type,
    const std::optional<std::string>& named_universe) {
  ManifestPtr manifest = get_manifest();
  if (!manifest) throw StateError("No local manifest: run sync() before request_feature_files_for_sync");
  ManifestSiblings siblings = host().manifest_siblings();
  const ManifestFiles& files = manifest->files();
  std::optional<std::string_view> universe;
  if (named_universe) universe = *named_universe;

  // Each path once, under the first feature that asked for it.
  std::vector<std::pair<std::string, std::string>> wanted;  // (feature name, relative path)
  std::set<std::string> seen;
  for (const auto& given : feature_names) {
    std::string name = strip_ws(given);
    if (name.empty()) continue;
    for (auto& path : manifest_feature_prefetch_relative_paths(files, name, expression_type, universe, siblings.epochs)) {
      std::optional<ManifestFiles::Entry> info = files.find(path);
      if (!info || manifest_file_is_sync_excluded(*info, siblings)) continue;
      if (seen.insert(path).second) wanted.emplace_back(name, std::move(path));
    }
  }

  DownloadSet to_download;
  for (const auto& [name, path] : wanted) {
    const ManifestFiles::Entry info = *files.find(path);
    if (local_file_matches_manifest(path, manifest_local_path(settings_.data_dir, path), info, true)) continue;
    to_download.push_back(DownloadJob::for_manifest(*manifest, info));
  }

  const std::int64_t needed = require_disk_space(settings_.data_dir, to_download, manifest->files(), free_disk_bytes(settings_.data_dir), siblings);

  if (!to_download.empty()) {
    write_download_progress(settings_.data_dir, *manifest, to_download, siblings);
    progress_.start("prefetch", static_cast<std::int64_t>(to_download.size()), needed);
    struct FinishProgress {
      SyncManager* self;
      ~FinishProgress() {
        self->progress_.finish();
        remove_sync_progress_json(self->settings_.data_dir);
      }
    } finish_progress{this};
    SyncResult downloads;
    download_files_parallel(to_download, downloads);
  }
  hash_cache_.persist();

  std::vector<PrefetchedFeatureFile> present;
  std::vector<std::string> present_paths;
  for (const auto& [name, path] : wanted) {
    std::string local = manifest_local_path(settings_.data_dir, path);
    if (!path_exists(local)) continue;
    present.push_back({name, path, local});
    present_paths.push_back(path);
  }
  remember_prefetched_feature_relative_paths(*manifest, present_paths);
  if (!to_download.empty()) {
    log_info("Feature prefetch downloaded %d file(s) for %d feature(s)",
             {json::value(static_cast<std::int64_t>(to_download.size())),
              json::value(static_cast<std::int64_t>(feature_names.size()))});
  }
  return present;
}

}  // namespace tidewright::sync
