// SyncManager: the one object per local data directory that keeps that
// directory in step with the data service.
//
// Instances are obtained through get_or_create(), which keeps one live
// instance per canonical data directory in a process-wide registry guarded by
// the class lock. Thread-safety: fields set by the constructor and never
// changed afterwards need no lock; the others say which mutex guards them.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/manager/progress.hpp"
#include "tidewright/sync/manager/results.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include "tidewright/sync/transport/http_client.hpp"

#include <atomic>
#include <condition_variable>
#include <set>
#include <thread>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {


// The three runtime knobs as given by the caller: empty means "not given"
// (keep what the instance holds, else the module default).
struct SyncKnobs {
  std::optional<json::value> sync_http_transport;
  std::optional<json::value> sync_http_chunk_bytes;
  std::optional<json::value> sync_max_concurrency;
};

struct SyncManagerArgs {
  std::string data_dir;
  std::string server_url;
  HostRef get_token;  // a callable returning the bearer token
  double poll_interval_s = SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
  HostRef runtime_freshness_guard;
  json::value market_id = std::int64_t{1};
  std::string market_id_repr = "1";  // the host's printed form of market_id
  SyncKnobs knobs;
};

class SyncManager : public std::enable_shared_from_this<SyncManager> {
 public:
  // Validates and loads; see the constructor steps in sync_manager.cpp.
  // Throws TypeError (token not callable), the URL validator's error,
  // FileNotFoundError "data_dir does not exist: <path>".
  explicit SyncManager(SyncManagerArgs args);
  ~SyncManager();
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;

  // --- registry ---
  static std::shared_ptr<SyncManager> get_or_create(SyncManagerArgs args);
  static void evict(const std::string& data_dir);
  // Live instances by canonical data directory (a snapshot).
  static std::map<std::string, std::shared_ptr<SyncManager>> instances();
  // Stops every live instance; used at interpreter exit.
  static void shutdown_all();

  // --- knobs ---
  void set_sync_runtime_knobs(const SyncKnobs& knobs);
  std::string sync_http_transport() const;
  std::int64_t sync_http_chunk_bytes() const;
  std::int64_t sync_max_concurrency() const;

  // --- accessors ---
  ManifestPtr get_manifest() const;
  std::optional<std::string> status() const;
  std::int64_t consumer_count() const;
  const std::string& data_dir() const { return data_dir_; }
  const std::string& server_url() const { return server_url_; }
  std::int64_t market_id() const { return market_id_; }
  double poll_interval() const { return poll_interval_; }
  HostRef get_token_fn() const;
  void set_get_token(HostRef fn);
  HostRef runtime_freshness_guard() const;
  void set_runtime_freshness_guard(HostRef guard);
  bool running() const { return running_.load(); }
  bool in_transition() const { return in_transition_.load(); }
  const std::string& consumer_count_path() const { return consumer_count_path_; }
  const std::string& flock_path() const { return flock_path_; }
  HashCache& hash_cache() { return hash_cache_; }
  // Progress of running downloads for the host (see progress.hpp).
  ProgressFeed& progress() { return progress_; }

  // Stops background work (threads, transfers); idempotent.
  void stop_internal();

  // A fresh bearer token from the token provider.
  std::string fetch_token() const;

  // --- HTTP (fresh token per authenticated request) ---
  HttpResponse http_get(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1);
  HttpResponse http_get_public(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1);

  // --- sync ---
  // Full sync: manifest, compare, download, verify, atomic write.
  SyncResult sync();
  SyncResult sync_with_manifest_refresh();
  // REQUIRES: sync_mu_ held (and the cross-process lock).
  SyncResult sync_impl();

  // --- integrity ---
  // `identity`: the file's identity when the caller has just taken it
  // (saves the stat).
  bool local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                   const json::value& file_info, bool cache_allowed = true,
                                   const std::optional<StatKey>& identity = std::nullopt);
  // The first file of `manifest` kept locally by sync (not a vocabulary,
  // not sync-excluded, not a vault module) whose local copy does not match
  // its entry, hash cache allowed; nothing when all match. Large manifests
  // are checked by a few threads at once (a no-op sync is one stat per
  // file). A path's ManifestError propagates.
  std::optional<std::string> first_local_mismatch(const Manifest& manifest, const ManifestSiblings& siblings);
  bool local_manifest_files_complete(Manifest& manifest);
  bool needs_sync();
  VerifyResult verify();
  SyncResult repair(const std::vector<std::string>& files);
  SyncResult ensure_manifest_file_available(const std::string& file_path, const json::value& file_info);
  std::int64_t cleanup_old_eras(bool keep_current = true);
  void schedule_cleanup_old_eras(bool keep_current = true);

  // --- downloads ---
  struct DownloadOptions {
    std::optional<std::string> target_data_dir;
    std::string backoff_surface = "file_download";
    bool retry_partial_transfer = true;
    bool retry_checksum_mismatch = true;
    std::function<void(double)> retry_status_callback;
  };
  void download_file(const std::string& file_path, const json::object& file_info, SyncResult& result,
                     const DownloadOptions& options);
  void download_file(const std::string& file_path, const json::object& file_info, SyncResult& result) {
    download_file(file_path, file_info, result, DownloadOptions{});
  }
  void download_files_parallel(const std::vector<std::pair<std::string, json::object>>& files, SyncResult& result);
  bool download_manifest_superseded(const json::object& file_info);
  // The immutable public manifest under the manifest's base URL, with its
  // body, when it is newer than `manifest_data`.
  std::optional<std::pair<json::object, std::string>> newer_public_manifest(const json::object& manifest_data);

  // --- era artifacts ---
  bool download_vocabulary(Manifest& server_manifest, const std::optional<std::string>& target_data_dir = {});
  bool download_signals_index(Manifest& server_manifest, SyncResult& result,
                              const std::optional<std::string>& target_data_dir = {});
  bool download_shuffle_seed(const Manifest& server_manifest, const std::optional<std::string>& target_data_dir = {});
  std::optional<json::object> vocabulary() const;
  // validate_manifest_vocabulary_files, remembered while the vocabulary
  // files, the functions file and their manifest entries stay the same (the
  // files by identity, as the hash cache does).
  std::shared_ptr<const json::object> validated_vocabularies(const Manifest& manifest);
  // Fetches one vocabulary from its URL, validates it and writes it; true
  // when a file was written.
  bool download_validated_vocabulary_repair(const std::string& file_path, const json::object& file_info,
                                            SyncResult& result);
  // Corrects a stale manifest entry of a validated vocabulary body.
  void repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path,
                                        std::string_view body, const std::optional<std::string>& reason,
                                        bool allow_sha_mismatch);

  // --- cross-process lock on ".sync_flock" (re-entrant per thread) ---
  void acquire_flock();
  void release_flock();
  // A stop request for this manager (set by stop_internal).
  bool stop_requested() const { return stop_requested_.load(); }

 private:
  void load_consumer_count();
  void load_local_manifest();

  const std::string data_dir_;
  const std::string server_url_;
  const std::int64_t market_id_;
  const double poll_interval_;

  mutable std::mutex state_mu_;
  HostRef get_token_;                          // guarded by state_mu_
  HostRef runtime_freshness_guard_;            // guarded by state_mu_
  std::string sync_http_transport_;            // guarded by state_mu_
  std::int64_t sync_http_chunk_bytes_ = 0;     // guarded by state_mu_
  std::int64_t sync_max_concurrency_ = 0;      // guarded by state_mu_
  ManifestPtr manifest_;                       // guarded by state_mu_
  std::optional<std::string> status_message_;  // guarded by state_mu_

  std::atomic<bool> running_{false};
  std::atomic<bool> in_transition_{false};

  HashCache hash_cache_;
  ProgressFeed progress_;
  const std::string consumer_count_path_;
  mutable std::mutex consumer_mu_;
  std::int64_t consumer_count_ = 0;  // guarded by consumer_mu_ (read under state_mu_ too)
  const std::string flock_path_;

  // In-process sync serialisation ("_sync_lock").
  std::mutex sync_mu_;

  // Cross-process lock state ("_flock_lock" + the descriptor).
  std::recursive_mutex flock_mu_;
  int flock_fd_ = -1;     // guarded by flock_mu_
  int flock_depth_ = 0;   // guarded by flock_mu_

  std::atomic<bool> stop_requested_{false};

  // Missing found PnL files excluded from the current manifest version.
  std::set<std::string> missing_found_pnl_paths_;                      // guarded by sync_mu_
  std::optional<std::int64_t> missing_found_pnl_manifest_version_;     // guarded by sync_mu_

  // The validated vocabulary set; shared, never changed once built.
  std::shared_ptr<const json::object> vocabulary_;  // guarded by state_mu_

  std::mutex vocabulary_validation_mu_;
  std::string vocabulary_validation_key_;                           // guarded by vocabulary_validation_mu_
  std::shared_ptr<const json::object> vocabulary_validation_result_;  // guarded by vocabulary_validation_mu_

  std::mutex cleanup_mu_;
  std::shared_ptr<std::atomic<bool>> cleanup_running_;  // guarded by cleanup_mu_

  friend class SyncPipeline;
};

}  // namespace tidewright::sync
