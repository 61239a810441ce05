// Local integrity: matching files against the manifest through the hash
// cache, needs_sync, verify, repair, and old-era clean-up.
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

namespace tidewright::sync {

namespace {

bool is_vault_module(const json::value& info) {
  if (const json::object* obj = as_object(&info)) {
    if (const json::value* k = obj->if_contains("kind"); k && k->is_string()) return k->get_string() == "vault_module";
  }
  return false;
}

std::string expected_sha_of(const json::value& info) {
  if (const json::object* obj = as_object(&info)) {
    if (const json::value* v = obj->if_contains("sha256"); v && !v->is_null()) return python_str(*v);
  }
  return "";
}

std::int64_t expected_size_of(const json::value& info) {
  if (const json::object* obj = as_object(&info)) {
    if (const json::value* v = obj->if_contains("size_bytes")) return to_int(*v).value_or(-1);
  }
  return -1;
}

// The same, read off a table entry (a compact one without building it).
bool is_vault_module(const ManifestFiles::Entry& entry) {
  const json::value* info = entry.verbatim();
  return info ? is_vault_module(*info) : entry.kind() == "vault_module";
}

std::string expected_sha_of(const ManifestFiles::Entry& entry) {
  const json::value* info = entry.verbatim();
  return info ? expected_sha_of(*info) : entry.sha256();
}

std::int64_t expected_size_of(const ManifestFiles::Entry& entry) {
  const json::value* info = entry.verbatim();
  return info ? expected_size_of(*info) : entry.size_bytes().value_or(-1);
}

// first_local_mismatch's walk over a manifest: the files are split into
// ranges checked by a few threads at once, each stops at the first mismatch
// any of them found. Files whose size fits are looked up in the hash cache
// a block at a time, so that its lock is taken once per block.
class LocalMismatchScan {
 public:
  LocalMismatchScan(SyncManager& manager, const Manifest& manifest, const ManifestSiblings& siblings,
                    const SyncManager::FileFilter& skip, bool count_features)
      : manager_(manager),
        files_(manifest.files()),
        siblings_(siblings),
        skip_(skip),
        count_features_(count_features) {}

  // The first mismatching path; rethrows the first error a range met.
  std::optional<std::string> run() EXCLUDES(mu_) {
    const std::size_t threads = thread_count(files_.size());
    const std::size_t per_thread = (files_.size() + threads - 1) / threads;
    {
      std::vector<std::jthread> helpers;
      for (std::size_t t = 1; t < threads; ++t) {
        helpers.emplace_back([this, begin = t * per_thread, end = std::min(files_.size(), (t + 1) * per_thread)] {
          set_current_thread_name({"tw-sync-check", ""});
          check_range(begin, end);
        });
      }
      check_range(0, std::min(files_.size(), per_thread));
    }
    MutexLock lock(mu_);
    if (error_) std::rethrow_exception(error_);
    return mismatch_;
  }

  // The manifest's files of kind "feature"; complete only without a mismatch.
  std::int64_t features() const { return features_.load(); }

 private:
  // Files whose size fits and whose digest is to be looked up.
  struct Pending {
    std::string path;
    std::string local;
    StatKey identity;
    std::string expected_sha;
    std::int64_t expected_size;
  };
  static constexpr std::size_t kFilesPerThread = 16384;
  static constexpr std::size_t kMaxThreads = 4;
  static constexpr std::size_t kBlock = 256;

  // The work is one stat per file, mostly kernel time. More threads than
  // cores still pay: with a cold inode cache a stat waits for the disk and
  // the waits overlap, and on a busy machine the check gets its share of
  // the cores sooner.
  static std::size_t thread_count(std::size_t files) {
    const std::size_t wanted = (files + kFilesPerThread - 1) / kFilesPerThread;
    return std::max<std::size_t>(
        1, std::min({wanted, std::max<std::size_t>(kMaxThreads, std::thread::hardware_concurrency())}));
  }

  // Files sync does not keep locally are not checked.
  bool left_out(const std::string& path, const ManifestFiles::Entry& entry) const {
    return (skip_ && skip_(path, entry)) || vocabulary_named_universe_from_path(path) ||
           manifest_file_is_sync_excluded(entry, siblings_) || is_vault_module(entry);
  }

  void check_range(std::size_t begin, std::size_t end) EXCLUDES(mu_) {
    // Counted here, where each entry is at hand anyway, rather than in
    // another pass over a large manifest.
    std::int64_t counted = 0;
    struct AddCount {
      std::atomic<std::int64_t>& total;
      std::int64_t& counted;
      ~AddCount() { total += counted; }
    } add_count{features_, counted};
    try {
      ManifestLocalPaths locals(manager_.data_dir());
      std::vector<Pending> block;
      for (std::size_t i = begin; i < end && !stop_.load(std::memory_order_relaxed); ++i) {
        const ManifestFiles::Entry entry = files_.at(i);
        std::string path(entry.path());
        if (count_features_ && manifest_entry_kind(siblings_, entry) == "feature") ++counted;
        if (left_out(path, entry)) continue;
        std::optional<StatKey> identity;
        std::string local = locals.resolve(path, &identity);
        std::string expected_sha = expected_sha_of(entry);
        std::int64_t expected_size = expected_size_of(entry);
        if (!identity || expected_sha.empty() || (expected_size >= 0 && identity->size != expected_size)) {
          // Links, missing files, size mismatches and entries without a digest.
          if (manager_.local_file_matches(path, local, expected_size, expected_sha, true, identity)) continue;
          return record_mismatch(std::move(path));
        }
        block.push_back({std::move(path), std::move(local), *identity, std::move(expected_sha), expected_size});
        if (block.size() == kBlock && !settle(block)) return;
      }
      if (!stop_.load() && !block.empty()) settle(block);
    } catch (...) {
      MutexLock lock(mu_);
      if (!error_) error_ = std::current_exception();
      stop_.store(true);
    }
  }

  // Checks a block through the hash cache, hashing the files it does not
  // know; false (the mismatch recorded) at the first file that differs.
  bool settle(std::vector<Pending>& block) EXCLUDES(mu_) {
    std::vector<HashCache::Query> queries;
    queries.reserve(block.size());
    for (const auto& p : block) queries.push_back({&p.path, p.identity, &p.expected_sha});
    std::vector<char> hits = manager_.hash_cache().cached_batch(queries);
    for (std::size_t j = 0; j < block.size(); ++j) {
      const Pending& p = block[j];
      if (!hits[j] && !manager_.local_file_matches(p.path, p.local, p.expected_size, p.expected_sha, false)) {
        record_mismatch(block[j].path);
        return false;
      }
    }
    block.clear();
    return true;
  }

  void record_mismatch(std::string path) EXCLUDES(mu_) {
    MutexLock lock(mu_);
    if (!mismatch_) mismatch_ = std::move(path);
    stop_.store(true);
  }

  SyncManager& manager_;
  const ManifestFiles& files_;
  const ManifestSiblings& siblings_;
  const SyncManager::FileFilter& skip_;
  const bool count_features_;
  std::atomic<bool> stop_{false};
  std::atomic<std::int64_t> features_{0};
  Mutex mu_;
  std::optional<std::string> mismatch_ GUARDED_BY(mu_);
  std::exception_ptr error_ GUARDED_BY(mu_);
};

}  // namespace

bool SyncManager::local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                              const json::value& file_info, bool cache_allowed,
                                              const std::optional<StatKey>& identity) {
  return local_file_matches(file_path, local_path, expected_size_of(file_info), expected_sha_of(file_info),
                            cache_allowed, identity);
}

bool SyncManager::local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                              const ManifestFiles::Entry& entry, bool cache_allowed) {
  return local_file_matches(file_path, local_path, expected_size_of(entry), expected_sha_of(entry), cache_allowed,
                            std::nullopt);
}

bool SyncManager::local_file_matches(const std::string& file_path, const std::string& local_path,
                                     std::int64_t expected_size, const std::string& expected_sha, bool cache_allowed,
                                     const std::optional<StatKey>& identity) {
  // One stat answers existence, size and the cache lookup.
  std::optional<StatKey> key = identity ? identity : try_stat_key(local_path);
  if (!key) return false;
  if (expected_size >= 0 && key->size != expected_size) return false;
  if (expected_sha.empty()) return true;
  if (cache_allowed && hash_cache_.cached_sha(file_path, *key, expected_sha)) return true;
  std::string actual;
  try {
    actual = sha256_file(local_path);
  } catch (const OSError&) {
    return false;
  }
  hash_cache_.remember(file_path, local_path, actual);
  return actual == expected_sha;
}

std::optional<std::string> SyncManager::first_local_mismatch(const Manifest& manifest, const ManifestSiblings& siblings,
                                                             const FileFilter& skip, std::int64_t* feature_count) {
  LocalMismatchScan scan(*this, manifest, siblings, skip, feature_count != nullptr);
  std::optional<std::string> mismatch = scan.run();
  if (feature_count) *feature_count = scan.features();
  return mismatch;
}

bool SyncManager::local_manifest_files_complete(const Manifest& manifest) {
  ManifestSiblings siblings = host().manifest_siblings();
  try {
    ShuffleSeedExpectations expect{manifest.era_number_int(),
                                   manifest_positive_int(manifest, "market_id").value_or(settings_.market_id),
                                   manifest_positive_int(manifest, "version"),
                                   shuffle_seed_generation_for_manifest(manifest)};
    validate_shuffle_seed_file(path_join(settings_.data_dir, SHUFFLE_SEED_FILENAME), expect);
    validated_vocabularies(manifest);
  } catch (const SyncError&) {
    return false;
  }
  RotationCoverage rotation = rotation_coverage(manifest);
  if (rotation.active) {
    for (const auto& path : *rotation.active) {
      if (!manifest.files().contains(path)) return false;
    }
  }
  try {
    FileFilter leaves_out;
    if (rotation.active) {
      leaves_out = [&](const std::string& path, const ManifestFiles::Entry& entry) {
        return rotation.leaves_out(path, entry, siblings);
      };
    }
    if (first_local_mismatch(manifest, siblings, leaves_out)) return false;
  } catch (const ManifestError&) {
    return false;
  }
  try {
    read_manifest_signals_index(settings_.data_dir, manifest);  // checked, not applied: the manifest may be the held one
  } catch (const SyncError&) {
    return false;
  }
  return true;
}

bool SyncManager::needs_sync() {
  HttpResponse probe;
  try {
    probe = http_get(settings_.server_url + "/data/manifest/version");
  } catch (const std::exception& e) {
    // A stop, or a service the backoff gave up on, ends the probe; any other
    // failure means the sync is to find out.
    const ErrorCode code = error_code(e);
    if (code == ErrorCode::kCancelled || code == ErrorCode::kUnavailable) throw;
    return true;
  }
  if (probe.status != 200) return true;
  ManifestPtr manifest = get_manifest();
  json::object body;
  try {
    json::value parsed = parse_json(probe.body);
    if (!parsed.is_object()) return true;
    body = std::move(parsed.get_object());
  } catch (const JsonParseError&) {
    return true;
  }
  if (!manifest) return true;
  const json::value* version = body.if_contains("version");
  std::optional<std::int64_t> server_version = version ? to_int(*version) : std::nullopt;
  if (!server_version || *server_version != manifest->version_int()) return true;
  std::optional<std::string> hint;
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    const json::value* v = body.if_contains(key);
    if (v && !v->is_null()) {
      hint = python_str(*v);
      break;
    }
  }
  if (!to_int(manifest->era_number())) return true;
  if (hint && !manifest_hash_hint_matches_local_state(settings_.data_dir, manifest->version_int(), manifest->era_number_int(), hint)) {
    return true;
  }
  if (feature_rotation_needs_sync(*manifest)) return true;
  return !local_manifest_files_complete(*manifest);
}

VerifyResult SyncManager::verify() {
  VerifyResult result;
  ManifestPtr manifest = get_manifest();
  if (!manifest) {
    result.has_manifest = false;  // nothing to check: valid, and it says why
    return result;
  }
  ManifestSiblings siblings = host().manifest_siblings();
  RotationCoverage rotation = rotation_coverage(*manifest);
  if (rotation.active) {
    for (const auto& path : *rotation.active) {
      if (!manifest->files().contains(path)) {
        result.missing_files.push_back(path);
        result.valid = false;
      }
    }
  }
  enum class FileState { kIntact, kMissing, kCorrupted };
  ManifestLocalPaths locals(settings_.data_dir);
  auto check = [&](const std::string& path, const ManifestFiles::Entry& info) {
    std::string local;
    try {
      local = locals.resolve(path);
    } catch (const ManifestError&) {
      return FileState::kCorrupted;
    }
    if (!path_exists(local)) return FileState::kMissing;
    std::int64_t expected_size = expected_size_of(info);
    std::int64_t actual_size = -1;
    try {
      actual_size = file_size(local);
    } catch (const OSError&) {
      return FileState::kMissing;
    }
    if (expected_size >= 0 && actual_size != expected_size) return FileState::kCorrupted;
    std::string expected_sha = expected_sha_of(info);
    if (expected_sha.empty()) return FileState::kIntact;
    try {
      return sha256_file(local) == expected_sha ? FileState::kIntact : FileState::kCorrupted;
    } catch (const OSError&) {
      return FileState::kCorrupted;
    }
  };

  std::vector<std::pair<std::string, FileState>> suspects;
  for (const ManifestFiles::Entry entry : manifest->files()) {
    std::string path(entry.path());
    if (rotation.leaves_out(path, entry, siblings)) continue;
    if (manifest_file_is_sync_excluded(entry, siblings)) continue;
    FileState state = check(path, entry);
    if (state != FileState::kIntact) suspects.emplace_back(std::move(path), state);
  }
  if (!suspects.empty()) {
    // A sync of another process promotes each file as soon as it is verified
    // and writes manifest.json last: what looked wrong may be a newer file
    // of a sync under way. Look again while no sync can run.
    DirectoryLock::Guard directory(directory_lock_);
    for (auto& [path, state] : suspects) state = check(path, *manifest->files().find(path));
  }
  for (const auto& [path, state] : suspects) {
    if (state == FileState::kIntact) continue;
    (state == FileState::kMissing ? result.missing_files : result.corrupted_files).push_back(path);
    result.valid = false;
  }
  return result;
}

SyncResult SyncManager::repair(const std::vector<std::string>& files) {
  DirectoryLock::Guard directory(directory_lock_);
  SyncResult result;
  ManifestPtr manifest = get_manifest();
  if (!manifest) return result;
  result.era_number = manifest->era_number_int();
  ManifestSiblings siblings = host().manifest_siblings();
  try {
    for (const auto& path : files) {
      std::optional<ManifestFiles::Entry> listed = manifest->files().find(path);
      if (!listed || manifest_file_is_sync_excluded(*listed, siblings)) continue;
      json::value info = listed->info();
      json::object entry = info.is_object() ? std::move(info.get_object()) : json::object();
      entry["_manifest_version"] = manifest->version_int();
      entry["_manifest_era_number"] = manifest->era_number_int();
      if (vocabulary_named_universe_from_path(path) && download_validated_vocabulary_repair(path, entry, result)) {
        continue;
      }
      download_file(DownloadJob::from_entry(path, entry), result);
    }
    hash_cache_.persist();
    return result;
  } catch (const ManifestSupersededError& e) {
    log_warning("Manifest changed during repair; refreshing manifest and running full sync: %s",
                {json::value(e.what())});
    return resync_under_directory_lock();
  }
}

// Not checked by the analysis, which sees sync_mu_ missing: the directory
// lock held here excludes every other sync of this process as well (it is
// exclusive between threads), and taking sync_mu_ after it would invert the
// lock order.
SyncResult SyncManager::resync_under_directory_lock() NO_THREAD_SAFETY_ANALYSIS {
  return sync_with_manifest_refresh();
}

SyncResult SyncManager::ensure_manifest_file_available(const std::string& file_path, const json::value& file_info) {
  SyncResult result;
  ManifestSiblings siblings = host().manifest_siblings();
  if (manifest_file_is_sync_excluded(file_path, file_info, siblings)) return result;
  download_file(DownloadJob::from_entry(file_path, file_info.is_object() ? file_info.get_object() : json::object()),
                result);
  return result;
}

std::int64_t SyncManager::cleanup_old_eras(bool keep_current) {
  std::optional<std::int64_t> current;
  if (keep_current) {
    if (ManifestPtr manifest = get_manifest()) current = to_int(manifest->era_number());
  }
  return cleanup_era_directories(settings_.data_dir, current, !keep_current);
}

void SyncManager::schedule_cleanup_old_eras(bool keep_current) {
  std::shared_ptr<SyncManager> self = weak_from_this().lock();
  if (!self) return;
  // Owned by the manager (stop_internal joins it); it holds the manager
  // while it runs.
  workers_.start_cleanup(ThreadName{"tidewright-sync-cleanup", "tw-sync-cleanup"}, [self, keep_current] {
    try {
      std::int64_t freed = self->cleanup_old_eras(keep_current);
      log_info("Old era cleanup completed: freed %s bytes", {json::value(freed)});
    } catch (const std::exception& e) {
      log_warning("Background old-era cleanup failed: %s", {json::value(e.what())}, true);
    } catch (...) {
      log_warning("Background old-era cleanup failed: %s", {json::value("unknown error")}, true);
    }
  });
}

}  // namespace tidewright::sync
