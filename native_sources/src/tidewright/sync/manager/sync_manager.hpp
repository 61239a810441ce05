// SyncManager: the one object per local data directory that keeps that
// directory in step with the data service.
//
// Instances are obtained through get_or_create(), which keeps one live
// instance per canonical data directory in a process-wide registry guarded by
// the class lock. The manager is a facade: its state lives in components
// that own their own locks (HostHooks, HeldManifest, Consumers,
// SyncCoalescing, DirectoryLock, ...). Thread-safety: fields set by the
// constructor and never changed afterwards need no lock; the manager's own
// locks are sync_mu_ and lifecycle_mu_, and what they guard says so.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/background_work.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/consumers.hpp"
#include "tidewright/sync/manager/directory_lock.hpp"
#include "tidewright/sync/manager/era_callbacks.hpp"
#include "tidewright/sync/manager/era_transition.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/manager/held_manifest.hpp"
#include "tidewright/sync/manager/host_hooks.hpp"
#include "tidewright/sync/manager/manager_settings.hpp"
#include "tidewright/sync/manager/missing_found_pnl.hpp"
#include "tidewright/sync/manager/progress.hpp"
#include "tidewright/sync/manager/results.hpp"
#include "tidewright/sync/manager/rotation_plan.hpp"
#include "tidewright/sync/manager/rotation_sync.hpp"
#include "tidewright/sync/manager/sync_coalescing.hpp"
#include "tidewright/sync/manager/sync_threads.hpp"
#include "tidewright/sync/manager/transfer_engine.hpp"
#include "tidewright/sync/manager/vocabulary_memo.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include "tidewright/sync/transport/http_client.hpp"

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

struct ScrubbedSignalsIndex;

struct SyncManagerArgs {
  std::string data_dir;
  std::string server_url;
  HostRef get_token;  // a callable returning the bearer token
  // The token itself when the caller gave one instead of a callable
  // (get_token then answers it): used without calling the host.
  std::optional<std::string> token_text;
  double poll_interval_s = SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
  HostRef runtime_freshness_guard;
  json::value market_id = std::int64_t{1};
  std::string market_id_repr = "1";  // the host's printed form of market_id
  SyncKnobs knobs;
};

// The era-callback event that tells running searches their new active
// feature files after an era transition under feature rotation.
inline constexpr const char* ROTATION_REFRESH_EVENT = "rotation_refresh";

class SyncManager : public std::enable_shared_from_this<SyncManager>, public EraTransitionTarget {
 public:
  // Validates and loads; see the constructor steps in sync_manager.cpp.
  // Throws TypeError (token not callable), the URL validator's error,
  // FileNotFoundError "data_dir does not exist: <path>".
  explicit SyncManager(SyncManagerArgs args);
  ~SyncManager() override;
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;

  // --- registry ---
  static std::shared_ptr<SyncManager> get_or_create(SyncManagerArgs args);
  static void evict(const std::string& data_dir);
  // Live instances by canonical data directory (a snapshot).
  static std::map<std::string, std::shared_ptr<SyncManager>> instances();
  // Stops every live instance; used at interpreter exit.
  static void shutdown_all();
  // The class lock: guards the registry (see the lock order below).
  static Mutex& class_mutex();

  // --- knobs ---
  void set_sync_runtime_knobs(const SyncKnobs& knobs);
  std::string sync_http_transport() const;
  std::int64_t sync_http_chunk_bytes() const;
  std::int64_t sync_max_concurrency() const;

  // --- accessors ---
  ManifestPtr get_manifest() const;
  std::optional<std::string> status() const;
  std::int64_t consumer_count() const { return consumers_.count(); }
  const std::string& data_dir() const { return settings_.data_dir; }
  const std::string& server_url() const { return settings_.server_url; }
  std::int64_t market_id() const { return settings_.market_id; }
  double poll_interval() const { return settings_.poll_interval; }
  HostRef get_token_fn() const;
  void set_get_token(HostRef fn, std::optional<std::string> token_text = std::nullopt);
  HostRef runtime_freshness_guard() const;
  void set_runtime_freshness_guard(HostRef guard);

  // --- host objects held by the manager ---
  // The host's view of the held manifest: the host keeps its object for a
  // manifest here, so that it stays the same object (with its caller's
  // changes) while the manager holds that manifest. Empty when the view
  // stored is that of another manifest.
  HostRef manifest_view(const ManifestPtr& manifest) const;
  // Stores `view` as the view of `manifest`.
  void set_manifest_view(ManifestPtr manifest, HostRef view);
  // The host objects the manager holds (token callable, freshness guard,
  // progress callback, era callbacks, manifest view), for the host's
  // garbage collector; never waits: false when one of their locks is busy.
  bool try_collect_host_refs(std::vector<const void*>& out) const;
  // Lets go of every one of them (at interpreter exit, or when the host's
  // collector breaks a cycle through the manager). They are released after
  // the locks, as releasing one may wait for the host.
  void drop_host_refs();
  bool running() const { return running_.load(); }
  bool in_transition() const { return transition_.active(); }
  const std::string& consumer_count_path() const { return consumers_.count_path(); }
  const std::string& flock_path() const { return directory_lock_.path(); }
  HashCache& hash_cache() { return hash_cache_; }
  // Progress of running downloads for the host (see progress.hpp).
  ProgressFeed& progress() { return progress_; }

  // Stops background work and blocks until it has ended: the poll thread,
  // the era thread, repair threads and running transfers (which observe
  // stop_requested()); a running sync or transition ends first. Idempotent.
  void stop_internal();

  // A fresh, checked bearer token from the token provider (see
  // fetch_bearer_token: AuthError for anything unusable, and a provider that
  // blocks does not hold up stop()).
  std::string fetch_token() const;

  // --- HTTP (fresh token per authenticated request) ---
  HttpResponse http_get(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1);
  HttpResponse http_get_public(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1);

  // --- sync ---
  // Full sync: manifest, compare, download, verify, atomic write.
  SyncResult sync();
  // The sync itself, restarted after a superseded manifest. REQUIRES:
  // sync_mu_ held (and the cross-process lock).
  SyncResult sync_with_manifest_refresh() REQUIRES(sync_mu_);
  SyncResult sync_impl() REQUIRES(sync_mu_);

  // --- integrity ---
  // `identity`: the file's identity when the caller has just taken it
  // (saves the stat).
  bool local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                   const json::value& file_info, bool cache_allowed = true,
                                   const std::optional<StatKey>& identity = std::nullopt);
  bool local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                   const ManifestFiles::Entry& entry, bool cache_allowed = true);
  // The check itself, for an entry's expected size (-1: any) and digest
  // (empty: any).
  bool local_file_matches(const std::string& file_path, const std::string& local_path, std::int64_t expected_size,
                          const std::string& expected_sha, bool cache_allowed = true,
                          const std::optional<StatKey>& identity = std::nullopt);
  // The first file of `manifest` kept locally by sync (not a vocabulary,
  // not sync-excluded, not a vault module) whose local copy does not match
  // its entry, hash cache allowed; nothing when all match. Large manifests
  // are checked by a few threads at once (a no-op sync is one stat per
  // file). A path's ManifestError propagates.
  // `skip(path, entry)` leaves files out (those a rotation does not keep);
  // an empty one keeps every file. With `feature_count`, also counts the
  // manifest's files of kind "feature" on the way (every file, skipped or
  // not; the count is complete only when nothing mismatches).
  using FileFilter = std::function<bool(const std::string&, const ManifestFiles::Entry&)>;
  std::optional<std::string> first_local_mismatch(const Manifest& manifest, const ManifestSiblings& siblings,
                                                  const FileFilter& skip = {},
                                                  std::int64_t* feature_count = nullptr);
  bool local_manifest_files_complete(const Manifest& manifest);
  bool needs_sync();
  // Hashes every file of the held manifest (never the hash cache). Files that
  // look missing or corrupted are checked again under the cross-process lock,
  // so a sync running in another process is waited for rather than reported.
  VerifyResult verify();
  SyncResult repair(const std::vector<std::string>& files);
  SyncResult ensure_manifest_file_available(const std::string& file_path, const json::value& file_info);
  std::int64_t cleanup_old_eras(bool keep_current = true);
  void schedule_cleanup_old_eras(bool keep_current = true);

  // --- downloads (the transfer engine, transfer_engine.hpp) ---
  using DownloadOptions = tidewright::sync::DownloadOptions;
  using DownloadFailureFilter = tidewright::sync::DownloadFailureFilter;
  TransferEngine& transfer() { return transfer_; }
  void download_file(const DownloadJob& job, SyncResult& result, const DownloadOptions& options = {}) {
    transfer_.download(job, result, options);
  }
  void download_files_parallel(const std::vector<DownloadJob>& files, SyncResult& result,
                               const DownloadFailureFilter& set_aside = {}) {
    transfer_.download_batch(files, result, set_aside);
  }
  bool download_manifest_superseded(const DownloadJob& job) { return transfer_.manifest_superseded(job); }
  // The immutable public manifest under the manifest's base URL, with its
  // body, when it is newer than `manifest_data`.
  std::optional<std::pair<json::object, std::string>> newer_public_manifest(const json::object& manifest_data) {
    return transfer_.newer_public_manifest(manifest_data);
  }

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

  // --- feature rotation and prefetched feature files ---
  // The work is RotationSync's (rotation_sync.hpp); these are the manager's
  // names for it.
  RotationSync& rotation() { return rotation_; }
  std::optional<json::object> feature_rotation_settings_for_manifest(const Manifest& manifest,
                                                                     std::int64_t free_disk_bytes) {
    return rotation_.settings_for_manifest(manifest, free_disk_bytes);
  }
  RotationPlan plan_feature_rotation_for_sync(const Manifest& manifest, std::int64_t free_disk_bytes) {
    return rotation_.plan(manifest, free_disk_bytes);
  }
  void complete_rotation_promotion(const Manifest& manifest, const RotationPlan& plan, SyncResult& result) {
    rotation_.complete_promotion(manifest, plan, result);
  }
  bool feature_rotation_needs_sync(const Manifest& manifest) { return rotation_.needs_sync(manifest); }
  RotationCoverage rotation_coverage(const Manifest& manifest) const { return rotation_.coverage(manifest); }
  std::optional<json::object> active_rotation_state() const { return rotation_.active_state(); }
  std::set<std::string> read_prefetched_feature_relative_paths(const Manifest& manifest) {
    return rotation_.read_prefetched(manifest);
  }
  void write_prefetched_feature_relative_paths(std::optional<std::int64_t> era_number,
                                               const std::set<std::string>& relative_paths) {
    rotation_.write_prefetched(era_number, relative_paths);
  }
  void remember_prefetched_feature_relative_paths(const Manifest& manifest,
                                                  const std::vector<std::string>& relative_paths) {
    rotation_.remember_prefetched(manifest, relative_paths);
  }
  std::vector<std::string> prefetched_feature_keep_paths(const Manifest& manifest) {
    return rotation_.prefetched_keep_paths(manifest);
  }
  std::optional<std::int64_t> prefetched_feature_era_number() const { return rotation_.prefetched_era_number(); }
  std::set<std::string> prefetched_feature_relative_paths() const { return rotation_.prefetched_paths(); }

  // --- feature prefetch (prefetch.cpp) ---
  // One feature file (or companion) now present locally.
  struct PrefetchedFeatureFile {
    std::string feature_name;
    std::string relative_path;
    std::string local_path;
  };
  // Ensure manifest feature arrow files exist locally for parent dispatch.
  // Throws StateError during an era transition or when the sync thread is
  // not running; serialised with sync() by the sync lock and the
  // cross-process lock; restarts after a superseded manifest (three
  // attempts in all).
  std::vector<PrefetchedFeatureFile> request_feature_files_for_sync(const std::vector<std::string>& feature_names,
                                                                    const std::string& expression_type,
                                                                    const std::optional<std::string>& named_universe);
  // The work itself, on the current manifest. REQUIRES: sync_mu_ held (and
  // the cross-process lock).
  std::vector<PrefetchedFeatureFile> request_feature_files_for_sync_impl(
      const std::vector<std::string>& feature_names, const std::string& expression_type,
      const std::optional<std::string>& named_universe) REQUIRES(sync_mu_);

  // --- cross-process lock on ".sync_flock" (re-entrant per thread) ---
  // The engine holds it with a DirectoryLock::Guard; these paired calls are
  // for the host's tests of cross-process exclusion.
  void acquire_flock() { directory_lock_.acquire(); }
  void release_flock() { directory_lock_.release(); }
  DirectoryLock& directory_lock() { return directory_lock_; }
  // A stop request for this manager (set by stop_internal).
  bool stop_requested() const { return stop_requested_.load() || shut_down_.load(); }

 private:
  // What the transfer engine needs of this manager.
  TransferEngine::Context transfer_context();
  void load_local_manifest();
  void load_local_vocabulary();
  // `manifest` with the membership of the signals index on disk: `manifest`
  // itself when it already holds it, else a new manifest. A manifest that
  // was handed out may be read by host threads at any time, so it is never
  // changed. Throws as read_manifest_signals_index.
  ManifestPtr with_local_signals_index(const ManifestPtr& manifest);
  // A signals index rewritten without the found PnL files storage no longer
  // has: recorded as a sync event, told to the freshness guard and kept in
  // the hash cache like a downloaded file.
  void record_scrubbed_signals_index_update(const ScrubbedSignalsIndex& update);
  // One pass of the pipeline. Nothing when found PnL files that storage no
  // longer has were met: they are remembered as missing, what the pass
  // downloaded is added to `earlier`, and the caller runs another pass.
  // REQUIRES: sync_mu_ held (and the cross-process lock).
  std::optional<SyncResult> sync_pass(SyncResult& earlier) REQUIRES(sync_mu_);
  // repair()'s full sync after a superseded manifest, under the directory
  // lock repair() holds but without sync_mu_ (see integrity.cpp).
  SyncResult resync_under_directory_lock();

  const ManagerSettings settings_;
  HostHooks hooks_;     // token provider, freshness guard, runtime knobs
  HeldManifest held_;   // the held manifest, status, vocabularies, host view

  std::atomic<bool> running_{false};

  HashCache hash_cache_;
  ProgressFeed progress_;
  TransferEngine transfer_;  // after what its context points at
  Consumers consumers_;
  DirectoryLock directory_lock_;  // the cross-process lock on ".sync_flock"

  // In-process sync serialisation ("_sync_lock").
  Mutex sync_mu_;

  std::atomic<bool> stop_requested_{false};

  // Missing found PnL files excluded from the current manifest version.
  MissingFoundPnl missing_found_pnl_ GUARDED_BY(sync_mu_);

  TmpScanMemo tmp_scan_memo_;  // the pipeline's scans for orphan staging files
  VocabularyMemo vocabulary_memo_;  // what validated_vocabularies() found last

  // ==========================================================================
  // Consumer lifecycle, background threads, era callbacks and era
  // transitions (lifecycle.cpp, era_transition.cpp).
  //
  // Lock order: the class registry lock, the consumers' lock
  // (Consumers::mutex()), lifecycle_mu_, an era transition's attempt
  // (EraTransition), sync_mu_, the directory lock. The locks inside
  // HostHooks, HeldManifest, SyncCoalescing, SyncThreads, BackgroundWork,
  // EraTransition, RotationSync and EraCallbacks are leaves.
  // No thread this class starts ever waits for the registry lock, the
  // consumers' lock or lifecycle_mu_, so stop_internal() may join them while
  // holding those.
  // ==========================================================================
 public:
  // Registers a consumer (".consumer_count" rewritten); the first starts the
  // poll thread and the era thread.
  void acquire();
  // Deregisters a consumer; the last stops the threads and leaves the
  // registry. Nothing happens at a count of 0.
  void release();
  // Starts the poll thread only. StateError "SyncManager already running".
  void start();
  // stop_internal() when running.
  void stop();
  // The poll thread of the current run exists and has not ended. A poll
  // thread that stop() could not wait for (it did not end within the wait,
  // or stop() ran on it) is no longer the manager's: it ends by itself after
  // its current poll, and is_alive() is false from the stop on.
  bool is_alive() const;
  // One poll cycle: process queued repairs, then sync when the server has
  // moved on (skipped when another sync runs or a transition is under way).
  void poll_once();
  // Cross-process sync trigger: syncs (callers arriving meanwhile share that
  // sync) and returns local found-PnL paths, newest first. StateError during
  // a transition (also another process's) or when not running.
  std::vector<std::string> request_for_sync();
  // Local paths of the manifest's found-PnL files present on disk, newest
  // first; empty without a manifest.
  std::vector<std::string> get_found_file_paths();
  // Queues `file_path` for repair on a background thread. StateError when
  // not running; ValueError "File not in manifest: <path>".
  void report_corruption(const std::string& file_path);

  // Era callbacks: host callables called as callback(event_type, era_number)
  // (the list is EraCallbacks', era_callbacks.hpp).
  void register_era_callback(HostRef callback);
  // Removes the first registration of the same host object; silent when
  // there is none.
  void unregister_era_callback(const HostRef& callback);
  std::vector<HostRef> era_callbacks() const;
  // Calls every callback (on a copy of the list, outside the lock); a
  // callback's error is logged and the others still run.
  void notify_era_callbacks(const std::string& event_type, std::int64_t era_number);
  // The same with a payload, for the callbacks that take a third argument:
  // callback(event_type, era_number, payload). The others are not called.
  void notify_era_callbacks(const std::string& event_type, std::int64_t era_number, const json::object& payload);

  // Era transitions: the work is EraTransition's (era_transition.hpp);
  // these are the manager's names for it.
  EraTransition& transition() { return transition_; }
  std::pair<std::int64_t, json::object> fetch_active_era_for_transition(bool allow_closing = false) {
    return transition_.fetch_active_era(allow_closing);
  }
  json::object confirm_active_era(std::int64_t expected_era_number, bool allow_closing = false) {
    return transition_.confirm_active_era(expected_era_number, allow_closing);
  }
  std::optional<std::int64_t> check_transition_superseded(std::int64_t expected_era_number,
                                                          bool allow_closing = false) {
    return transition_.check_superseded(expected_era_number, allow_closing);
  }

  // EraTransitionTarget: EraTransition::run, after which an instance that
  // release() left registered for the transition leaves the registry.
  std::optional<json::value> held_manifest_era_number() const override;
  void trigger_era_transition(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                              const SearchesFn& restart_searches_fn) override;

  std::shared_ptr<EraThread> era_thread() const;
  bool consumer_lifecycle_started() const { return consumers_.lifecycle_started(); }
  std::string transition_lock_path() const { return transition_.lock_path(); }
  // This process is in transition or another live process holds
  // ".transition_lock" (see EraTransition::in_progress).
  bool transition_in_progress() const { return transition_.in_progress(); }
  std::string transition_staging_path(std::int64_t era_number) const { return transition_.staging_path(era_number); }

 private:
  void start_sync_thread() REQUIRES(lifecycle_mu_);
  void start_internal() REQUIRES(lifecycle_mu_);
  void poll_loop(std::uint64_t generation);
  // The steps of stop_internal().
  // Raises the stop request every wait observes and sets the stop event.
  void request_stop();
  // Takes lifecycle_mu_ (true); false when called on a poll thread while
  // another stop is under way (the stop request is then raised and that
  // stop does the rest).
  bool enter_stop(bool on_poll_thread) TRY_ACQUIRE(true, lifecycle_mu_);
  void stop_era_thread() REQUIRES(lifecycle_mu_);
  // Waits for a running transition; true when called on its thread.
  bool wait_for_transition_end() REQUIRES(lifecycle_mu_);
  void stop_poll_thread(bool on_poll_thread, bool on_transition_thread) REQUIRES(lifecycle_mu_);
  void process_repair_queue();
  // What EraTransition changes of the manager.
  void set_status_message(std::string message);
  // The new era's manifest, written to disk, becomes the held one.
  void install_manifest(ManifestPtr manifest);
  void install_vocabularies(std::shared_ptr<const json::object> vocabularies);
  // Evicts the instance when release() left it registered for a running
  // transition and no consumer has come back since.
  void evict_if_released();

  // Registry access for release(), which evicts under the class lock.
  static void evict_locked(const SyncManager* manager) REQUIRES(class_mutex());

  Mutex lifecycle_mu_;  // serialises starting and stopping the threads
  SyncThreads threads_;      // the poll thread, its stop event and the era thread
  std::atomic<bool> stopping_{false};  // a stop holds lifecycle_mu_
  std::atomic<bool> shut_down_{false};  // set at interpreter exit; never cleared

  BackgroundWork workers_;  // repairs of reported files and the old-era cleanup

  // The sync that request_for_sync callers arriving meanwhile wait for.
  SyncCoalescing coalescing_{[this] { return stop_requested(); }};

  EraCallbacks era_callbacks_;

  // release() found a transition running and left the instance registered.
  std::atomic<bool> evict_after_transition_{false};  // written under class_mutex()
  EraTransition transition_;

  // Feature rotation: the persisted state and the prefetched set per era.
  RotationSync rotation_;

  friend class SyncPipeline;
  friend class EraTransition;
  // Tests take the file lock as a sync does, under the sync lock.
  friend struct SyncManagerTestAccess;
};

}  // namespace tidewright::sync
