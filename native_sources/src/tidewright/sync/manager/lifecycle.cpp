// Consumer lifecycle and background threads: acquire/release, start/stop,
// the poll thread, request_for_sync, corruption reports, era callbacks and
// the stop of every manager at interpreter exit.
//
// Every thread started here holds a reference to its manager while it runs
// and observes stop_requested(), so stop_internal() can always join it and a
// manager is never destroyed under a running thread.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tidewright::sync {

namespace {

constexpr auto THREAD_JOIN_TIMEOUT = std::chrono::seconds(30);

constexpr auto TRANSITION_END_WAIT = std::chrono::seconds(30);

// Managers whose threads were started, so that interpreter exit also stops
// those that are not (or no longer) in the registry.
Mutex g_started_mu;
std::vector<std::weak_ptr<SyncManager>> g_started GUARDED_BY(g_started_mu);

void remember_started(const std::shared_ptr<SyncManager>& manager) {
  MutexLock lock(g_started_mu);
  std::erase_if(g_started, [&](const std::weak_ptr<SyncManager>& w) {
    auto p = w.lock();
    return !p || p == manager;
  });
  g_started.push_back(manager);
}

std::chrono::steady_clock::duration seconds_of(double seconds) {
  double bounded = std::clamp(seconds, 0.0, 1e8);
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(bounded));
}

std::int64_t mtime_ns_or_zero(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

// Newest first; the order of equal times is kept.
void sort_newest_first(std::vector<std::string>& paths) {
  std::vector<std::pair<std::int64_t, std::string>> keyed;
  keyed.reserve(paths.size());
  for (auto& p : paths) keyed.emplace_back(mtime_ns_or_zero(p), std::move(p));
  std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  paths.clear();
  for (auto& [t, p] : keyed) paths.push_back(std::move(p));
}

}  // namespace

// --- consumers ---------------------------------------------------------------

void SyncManager::acquire() {
  MutexLock lock(consumers_.mutex());
  consumers_.change(+1);
  if (!running_.load() && !consumers_.lifecycle_started()) {
    MutexLock lifecycle(lifecycle_mu_);
    start_internal();
    consumers_.set_lifecycle_started(true);
  }
}

void SyncManager::release() {
  // The registry lock keeps a concurrent get_or_create from handing out
  // this instance while it is being stopped.
  MutexLock class_lock(class_mutex());
  MutexLock lock(consumers_.mutex());
  if (consumers_.count() <= 0) return;
  if (consumers_.change(-1) == 0) {
    stop_internal();
    consumers_.set_lifecycle_started(false);
    // A transition still running (on this very thread, from a callback, or
    // one that outlived the wait) keeps the instance registered, so that no
    // second manager for the directory is made meanwhile; it leaves when the
    // last running transition returns. The flag is raised before the count
    // is read: a transition returning meanwhile sees the flag.
    evict_after_transition_.store(true);
    if (transition_.calls_running()) return;
    evict_after_transition_.store(false);
    evict_locked(this);
  }
}

void SyncManager::evict_if_released() {
  // Cheap without a pending eviction: a release() under way holds the class
  // lock while it waits for this transition to end.
  if (!evict_after_transition_.load()) return;
  std::shared_ptr<SyncManager> keep_alive = weak_from_this().lock();  // the registry may hold the last reference
  try {
    MutexLock class_lock(class_mutex());
    MutexLock lock(consumers_.mutex());
    if (!evict_after_transition_.load() || transition_.calls_running()) return;
    evict_after_transition_.store(false);
    if (consumers_.count() == 0 && !consumers_.lifecycle_started()) evict_locked(this);
  } catch (const std::exception& e) {
    log_warning("Failed to evict the released sync manager: %s", {json::value(e.what())});
  }
}

// --- threads -------------------------------------------------------------------

void SyncManager::start() {
  MutexLock lifecycle(lifecycle_mu_);
  if (running_.load()) throw StateError("SyncManager already running");
  start_sync_thread();
}

void SyncManager::start_sync_thread() {
  std::shared_ptr<SyncManager> self = weak_from_this().lock();
  if (!self) throw StateError("SyncManager threads need a manager owned by a shared_ptr");
  const std::uint64_t generation = threads_.begin_run();
  stop_requested_.store(false);
  running_.store(true);
  threads_.adopt_poll_thread(std::make_shared<OwnedThread>(ThreadName{"tw-sync-poll", ""},
                                                           [self, generation] { self->poll_loop(generation); }));
  remember_started(self);
}

void SyncManager::start_internal() {
  start_sync_thread();
  if (threads_.era_thread()) return;
  std::weak_ptr<SyncManager> weak = weak_from_this();
  auto notify = [weak](const char* event_type) {
    return [weak, event_type] {
      auto self = weak.lock();
      if (!self) return;
      ManifestPtr manifest = self->get_manifest();
      self->notify_era_callbacks(event_type, manifest ? manifest->era_number_int() : 0);
    };
  };
  EraThreadOptions options;
  options.server_url = settings_.server_url;
  options.get_token = [weak] {
    auto self = weak.lock();
    if (!self) throw StateError("the sync manager is gone");
    return self->fetch_token();
  };
  options.sync_manager = shared_from_this();
  options.era_poll_interval_s = settings_.poll_interval;
  options.kill_searches_fn = SearchesFn::native(notify("kill"));
  options.restart_searches_fn = SearchesFn::native(notify("restart"));
  options.market_id = settings_.market_id;
  options.market_id_repr = std::to_string(settings_.market_id);
  auto era_thread = std::make_shared<EraThread>(std::move(options));
  try {
    era_thread->start();
  } catch (const StateError& e) {
    json::object fields;
    fields["sub_service"] = "sync";
    fields["component"] = "state";
    fields["metadata"] = json::object{{"reason", "era_thread_start_state"}, {"source_function", "_start_internal"}};
    log_sync_event("library_surface", "", 1, e.what(), fields);
  }
  threads_.set_era_thread(std::move(era_thread));
}

void SyncManager::stop() {
  if (running_.load()) stop_internal();
}

void SyncManager::request_stop() {
  stop_requested_.store(true);
  threads_.request_stop();
}

// Not checked by the analysis: it cannot follow a lock taken in a polling
// loop; the declaration says what the caller gets.
bool SyncManager::enter_stop(bool on_poll_thread) NO_THREAD_SAFETY_ANALYSIS {
  // Stopped from a poll thread itself (a callback of its poll), the sync
  // that holds the sync lock is this thread's own: there is nothing to wait
  // for, and a stop running elsewhere waits for that sync, so waiting for
  // the lifecycle lock could never end. The poll is then asked to end and
  // the stop in progress does the rest; a start holds the lock only briefly.
  if (!on_poll_thread) {
    lifecycle_mu_.lock();
    return true;
  }
  while (!lifecycle_mu_.try_lock()) {
    if (stopping_.load()) {
      request_stop();
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void SyncManager::stop_era_thread() {
  std::shared_ptr<EraThread> era_thread = threads_.take_era_thread();
  if (!era_thread) return;
  try {
    era_thread->stop();
  } catch (const std::exception& e) {
    log_warning("Failed to stop era thread: %s", {json::value(e.what())});
  }
}

bool SyncManager::wait_for_transition_end() {
  // A transition ends promptly once stopped; one running on this very
  // thread (a callback stopping its own manager) cannot be waited for.
  const EraTransition::EndWait transition_end =
      transition_.wait_for_end(std::chrono::duration_cast<std::chrono::milliseconds>(TRANSITION_END_WAIT));
  if (!transition_end.ended) log_warning("Era transition still running while stopping the sync manager");
  return transition_end.on_transition_thread;
}

void SyncManager::stop_poll_thread(bool on_poll_thread, bool on_transition_thread) {
  std::shared_ptr<OwnedThread> poll_thread = threads_.take_poll_thread();
  auto join_and_mark_stopped = [&] {
    if (poll_thread && !on_poll_thread && !poll_thread->join_for(THREAD_JOIN_TIMEOUT)) {
      log_warning("Sync poll thread did not stop within %s seconds", {json::value(30)});
    }
    if (poll_thread && poll_thread->running()) threads_.keep_stray(std::move(poll_thread));
    running_.store(false);
    consumers_.set_lifecycle_started(false);
  };
  // A transition thread holds the file lock, which a sync takes after the
  // sync lock: waiting for the sync lock here would invert that order (a
  // sync waiting for the file lock ends on the stop request anyway).
  if (on_poll_thread || on_transition_thread) {
    join_and_mark_stopped();
    return;
  }
  MutexLock sync_lock(sync_mu_);
  join_and_mark_stopped();
}

void SyncManager::stop_internal() {
  // Everything below observes the stop request: the poll wait, transfers
  // and backoff waits, the file-lock wait, the era thread's requests.
  const bool on_poll_thread = threads_.on_poll_thread();
  if (!enter_stop(on_poll_thread)) return;
  MutexLock lifecycle(lifecycle_mu_, MutexLock::adopt);
  stopping_.store(true);
  struct Stopped {
    std::atomic<bool>& flag;
    ~Stopped() { flag.store(false); }
  } stopped{stopping_};
  request_stop();
  stop_era_thread();
  const bool on_transition_thread = wait_for_transition_end();
  stop_poll_thread(on_poll_thread, on_transition_thread);
  workers_.join_all(THREAD_JOIN_TIMEOUT);
  // Foreground calls made from now on run normally again.
  stop_requested_.store(false);
}

bool SyncManager::is_alive() const { return threads_.poll_alive(); }

std::shared_ptr<EraThread> SyncManager::era_thread() const { return threads_.era_thread(); }

void SyncManager::poll_loop(std::uint64_t generation) {
  try {
    while (true) {
      if (!in_transition()) {
        try {
          poll_once();
        } catch (const std::exception& e) {
          log_warning("Poll loop iteration failed: %s", {json::value(e.what())});
        }
      }
      if (threads_.wait_for_stop(generation, seconds_of(settings_.poll_interval))) break;
    }
  } catch (const std::exception& e) {
    log_warning("Sync poll thread stopped by an unexpected error: %s", {json::value(e.what())});
  } catch (...) {
    log_warning("Sync poll thread stopped by an unexpected error: %s", {json::value("unknown error")});
  }
}

void SyncManager::poll_once() {
  if (in_transition()) return;
  if (std::vector<std::string> files = workers_.take_repair_queue(); !files.empty()) repair(files);
  if (!sync_mu_.try_lock()) return;  // a foreground sync is running
  MutexLock sync_lock(sync_mu_, MutexLock::adopt);
  try {
    if (!in_transition() && needs_sync() && !in_transition()) {
      DirectoryLock::Guard directory(directory_lock_);
      sync_with_manifest_refresh();
    }
  } catch (const std::exception& e) {
    if (stop_requested()) {
      log_debug("Poll once failed: %s", {json::value(e.what())});
    } else {
      log_warning("Poll once failed: %s", {json::value(e.what())});
    }
  }
}

// --- requests from other processes ------------------------------------------

std::vector<std::string> SyncManager::request_for_sync() {
  if (transition_in_progress()) {
    throw StateError("Sync is in era transition mode \u2014 request_for_sync rejected");
  }
  if (!running_.load()) throw StateError("Sync thread is not running. Call start() or acquire() first.");

  SyncResult result;
  const bool ran = coalescing_.run_or_join([&] {
    MutexLock sync_lock(sync_mu_);
    DirectoryLock::Guard directory(directory_lock_);
    result = sync_with_manifest_refresh();
  });
  if (!ran) return get_found_file_paths();  // shared the sync under way

  if (!result.found_pnl_paths_downloaded.empty()) {
    std::vector<std::string> paths;
    for (const auto& relative : result.found_pnl_paths_downloaded) {
      try {
        paths.push_back(manifest_local_path(settings_.data_dir, relative));
      } catch (const ManifestError&) {
      }
    }
    sort_newest_first(paths);
    return paths;
  }
  return get_found_file_paths();
}

std::vector<std::string> SyncManager::get_found_file_paths() {
  ManifestPtr manifest = get_manifest();
  if (!manifest) return {};
  json::object sections;
  sections["found_signals"] = manifest->found_signals;
  sections["found_strategies"] = manifest->found_strategies;
  validate_membership_referenced_found_pnl_kinds(sections, manifest->files());
  ManifestSiblings siblings = host().manifest_siblings();
  std::vector<std::string> paths;
  for (const ManifestFiles::Entry entry : manifest->files()) {
    if (!is_found_pnl_file_kind(manifest_entry_kind(siblings, entry))) continue;
    std::string local;
    try {
      local = manifest_local_path(settings_.data_dir, entry.path());
    } catch (const ManifestError&) {
      continue;
    }
    if (path_exists(local)) paths.push_back(std::move(local));
  }
  sort_newest_first(paths);
  return paths;
}

void SyncManager::report_corruption(const std::string& file_path) {
  static const char* kNotRunning = "Sync thread is not running. Call start() or acquire() first.";
  if (!running_.load()) throw StateError(kNotRunning);
  if (ManifestPtr manifest = get_manifest(); manifest && !manifest->files().contains(file_path)) {
    throw ValueError("File not in manifest: " + file_path);
  }
  std::shared_ptr<SyncManager> self = shared_from_this();
  // Checked again under the workers' lock: stop_internal() collects the
  // repair threads under it after clearing running_.
  if (!workers_.queue_repair(file_path, [this] { return running_.load(); },
                             [self] { self->process_repair_queue(); })) {
    throw StateError(kNotRunning);
  }
}

void SyncManager::process_repair_queue() {
  try {
    if (std::vector<std::string> files = workers_.take_repair_queue(); !files.empty()) repair(files);
  } catch (const std::exception& e) {
    log_warning("Background repair failed: %s", {json::value(e.what())});
  } catch (...) {
    log_warning("Background repair failed: %s", {json::value("unknown error")});
  }
}

// --- era callbacks -------------------------------------------------------------

void SyncManager::register_era_callback(HostRef callback) { era_callbacks_.add(std::move(callback)); }

void SyncManager::unregister_era_callback(const HostRef& callback) { era_callbacks_.remove(callback); }

std::vector<HostRef> SyncManager::era_callbacks() const { return era_callbacks_.list(); }

void SyncManager::notify_era_callbacks(const std::string& event_type, std::int64_t era_number) {
  era_callbacks_.notify(event_type, era_number);
}

void SyncManager::notify_era_callbacks(const std::string& event_type, std::int64_t era_number,
                                       const json::object& payload) {
  era_callbacks_.notify(event_type, era_number, payload);
}

// --- interpreter exit -------------------------------------------------------------

void SyncManager::shutdown_all() {
  std::vector<std::shared_ptr<SyncManager>> managers;
  for (auto& [key, manager] : instances()) managers.push_back(manager);
  {
    MutexLock lock(g_started_mu);
    for (auto& w : g_started) {
      auto p = w.lock();
      if (p && std::find(managers.begin(), managers.end(), p) == managers.end()) managers.push_back(std::move(p));
    }
    g_started.clear();
  }
  // Stop all transfers at once, then wait for each manager in turn.
  for (auto& m : managers) m->shut_down_.store(true);
  for (auto& m : managers) {
    try {
      m->stop_internal();
    } catch (const std::exception& e) {
      log_warning("Failed to stop sync manager for %s: %s", {json::value(m->data_dir()), json::value(e.what())});
    }
  }
  EraThread::stop_all();
}

}  // namespace tidewright::sync
