// Era transitions: the era-current gates, the library-version check, staging
// of the new era, the switch, and the clean-up that always runs.
#include "tidewright/sync/manager/era_transition.hpp"

#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/era/era_current.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/rotation_plan.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manager/placement.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace tidewright::sync {

namespace {

namespace fs = std::filesystem;

constexpr const char* kInstallHint =
    "Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/tidewright-*.whl";

std::string text_of(const json::value& value) { return python_str(value); }

std::string sha_of(const json::object& entry) {
  const json::value* v = entry.if_contains("sha256");
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

std::string kind_of(const json::object& entry) {
  const json::value* v = entry.if_contains("kind");
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

// Copies `from` to `to` with its permission bits and access and
// modification times.
void copy_file_with_times(const std::string& from, const std::string& to) {
  std::error_code ec;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
  if (ec) throw OSError(ec.message(), ec.value(), from);
  struct stat st;
  if (::stat(from.c_str(), &st) != 0) throw_os_error(errno, from);
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  if (::utimensat(AT_FDCWD, to.c_str(), times, 0) != 0) throw_os_error(errno, to);
  if (::chmod(to.c_str(), st.st_mode & 07777) != 0) throw_os_error(errno, to);
}

// Written whole through a temporary file, so the lock file always holds a
// complete process id (a link planted at the name is replaced, never written
// through).
void write_pid_file(const std::string& path) { atomic_write(path, std::to_string(::getpid())); }

// Whether `pid` is a running process of this host: one that exists and is not
// a zombie waiting to be reaped (a killed holder whose parent has not yet
// collected it is gone for our purposes).
bool process_alive(pid_t pid) {
  if (pid <= 0) return false;
  if (::kill(pid, 0) != 0 && errno == ESRCH) return false;
  try {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t close = stat.rfind(')');
    if (close != std::string::npos && close + 2 < stat.size()) return stat[close + 2] != 'Z' && stat[close + 2] != 'X';
  } catch (const std::exception&) {
    // No /proc: the signal probe alone decides.
  }
  return true;
}

std::optional<pid_t> parse_pid(std::string_view text) {
  std::optional<std::int64_t> n = parse_consumer_count(text);  // a decimal integer, white space stripped
  if (!n || *n <= 0 || *n > std::numeric_limits<pid_t>::max()) return std::nullopt;
  return static_cast<pid_t>(*n);
}

// Removes the transition lock file unless another process has written its
// own id there meanwhile (it is waiting for the file lock we still hold and
// removes the file itself when done).
void remove_own_transition_lock(const std::string& path) {
  try {
    if (!path_exists(path)) return;
    std::string content;
    try {
      content = read_file(path);
    } catch (const OSError&) {
    }
    if (!content.empty() && content != std::to_string(::getpid())) return;
    remove_file(path);
  } catch (const std::exception& e) {
    log_debug("best-effort transition_lock cleanup failed for %s: %s", {json::value(path), json::value(e.what())});
  }
}

// A ConnectionError, native or raised by host code. Narrower than the
// network code: a timeout is not one.
bool is_connection_error(const std::exception& e) {
  if (const auto* raised = dynamic_cast<const HostError*>(&e)) return raised->is(HostError::kIsConnectionError);
  return dynamic_cast<const ConnectionError*>(&e) != nullptr;
}

std::optional<std::int64_t> compare_versions(const json::value& a, const json::value& b) {
  json::value r = host().compare_versions(a, b);
  std::optional<std::int64_t> n = to_int(r);
  if (!n) throw ValueError("_compare_versions returned " + python_repr(r));
  return n;
}

json::value current_library_version() {
  return host().current_version();
}

// Raises LibraryUpdateRequired when the running package is older than the
// era's min_library_version and an automatic update does not fix that.
void check_library_version(const json::object& era_config, std::int64_t new_era_number) {
  const json::value* configured = era_config.if_contains("min_library_version");
  const json::value min_version = configured ? *configured : json::value("0.0.0");
  try {
    if (*compare_versions(current_library_version(), min_version) >= 0) return;
  } catch (const std::exception& e) {
    log_warning("Invalid min_library_version from era config: %s", {json::value(e.what())});
    return;
  }
  const std::string required = "tidewright >= " + text_of(min_version) + " required for era " +
                               std::to_string(new_era_number);
  std::optional<std::string> failure;
  try {
    json::value outcome = host().auto_update();
    const json::object* fields = as_object(&outcome);
    const json::value* success = fields ? fields->if_contains("success") : nullptr;
    if (!success || !truthy(*success)) {
      const json::value* warning = fields ? fields->if_contains("warning") : nullptr;
      failure = warning ? text_of(*warning) : std::string("Could not auto-update to latest.");
    }
  } catch (const std::exception& e) {
    // A fatal error passes through (LibraryUpdateRequired, a stop request
    // or interrupt); any other failure of the update is the reason the
    // library stays too old.
    if (is_fatal(e)) throw;
    failure = e.what();
  }
  if (failure) {
    log_warning("Auto-update failed: %s", {json::value(*failure)});
    throw LibraryUpdateRequired(required + "; auto-update failed: " + *failure + ". " + kInstallHint);
  }
  // An update was installed: it counts only if the running version now meets
  // the minimum.
  bool sufficient = false;
  try {
    sufficient = *compare_versions(current_library_version(), min_version) >= 0;
  } catch (const std::exception& e) {
    log_warning("Invalid min_library_version from era config: %s", {json::value(e.what())});
    sufficient = true;
  }
  if (!sufficient) throw LibraryUpdateRequired(required + ". " + kInstallHint);
}

}  // namespace

bool EraTransition::in_progress() const {
  if (active_.load()) return true;
  const std::string& path = lock_path_;
  std::string content;
  try {
    content = read_file(path);
  } catch (const FileNotFoundError&) {
    return false;
  } catch (const std::exception&) {
    return true;  // there, but unreadable: not ours to judge
  }
  std::optional<pid_t> pid = parse_pid(content);
  if (pid && process_alive(*pid)) return true;
  // The writer is gone. The file is moved aside before it is removed, so that
  // a transition starting meanwhile (which rewrites the file whole, under a
  // new inode) never loses its own lock file to us.
  const std::string aside = path + "." + std::to_string(::getpid()) + ".stale";
  if (::rename(path.c_str(), aside.c_str()) != 0) return errno != ENOENT;
  std::string moved;
  try {
    moved = read_file(aside);
  } catch (const std::exception&) {
  }
  if (moved != content) {
    // Rewritten between the two reads: put the live lock back.
    if (::renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) ::unlink(aside.c_str());
    return true;
  }
  ::unlink(aside.c_str());
  log_warning("Taking over stale transition lock %s: process %s is not running",
              {json::value(path), json::value(pid ? std::to_string(*pid) : python_repr(std::string_view(content)))});
  return false;
}

std::string EraTransition::staging_path(std::int64_t era_number) const {
  return path_join(data_dir_, ".transition_era" + std::to_string(era_number) + ".tmp");
}

EraTransition::EraTransition(SyncManager& manager, std::string data_dir)
    : manager_(manager), data_dir_(std::move(data_dir)), lock_path_(path_join(data_dir_, ".transition_lock")) {}

void EraTransition::set_active(bool value) {
  {
    MutexLock lock(mu_);
    active_.store(value);
    owner_ = value ? std::this_thread::get_id() : std::thread::id();
  }
  changed_.notify_all();
}

void EraTransition::begin_attempt() {
  // The attempt before ends promptly on a stop request.
  MutexLock lock(mu_);
  while (busy_) changed_.wait(mu_);
  busy_ = true;
}

void EraTransition::end_attempt() {
  {
    MutexLock lock(mu_);
    busy_ = false;
  }
  changed_.notify_all();
}

EraTransition::EndWait EraTransition::wait_for_end(std::chrono::milliseconds timeout) {
  const std::thread::id self = std::this_thread::get_id();
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  EndWait outcome;
  MutexLock lock(mu_);
  outcome.on_transition_thread = active_.load() && owner_ == self;
  while (active_.load() && owner_ != self) {
    if (!changed_.wait_until(mu_, deadline) && active_.load() && owner_ != self) {
      outcome.ended = false;
      break;
    }
  }
  return outcome;
}

// --- gates ---------------------------------------------------------------------

std::pair<std::int64_t, json::object> EraTransition::fetch_active_era(bool allow_closing) {
  HttpResponse response = manager_.http_get(market_era_current_url(manager_.server_url(), manager_.market_id()));
  if (response.status != 200) throw EraError("Failed to confirm active era: HTTP " + std::to_string(response.status));
  json::object config;
  std::optional<std::int64_t> era_number;
  try {
    json::value normalized = normalize_era_current_response(parse_json(response.body));
    config = std::move(normalized.get_object());
    const json::value* number = config.if_contains("era_number");
    if (number) era_number = to_int(*number);
  } catch (const JsonParseError&) {
  }
  if (!era_number) throw EraError("Failed to parse active era response during transition");
  const json::value* state = config.if_contains("state");
  const bool accepted = state && state->is_string() &&
                        (state->get_string() == "active" || (allow_closing && state->get_string() == "closing"));
  if (!accepted) {
    throw EraError("Active era confirmation for era_number=" + std::to_string(*era_number) +
                   " returned state=" + python_repr(state ? *state : json::value(nullptr)));
  }
  return {*era_number, std::move(config)};
}

json::object EraTransition::confirm_active_era(std::int64_t expected_era_number, bool allow_closing) {
  auto [active, config] = fetch_active_era(allow_closing);
  if (active != expected_era_number) {
    throw EraError("Active era_number=" + std::to_string(active) +
                   " does not match requested transition era_number=" + std::to_string(expected_era_number));
  }
  return config;
}

std::optional<std::int64_t> EraTransition::check_superseded(std::int64_t expected_era_number, bool allow_closing) {
  std::int64_t active = fetch_active_era(allow_closing).first;
  if (active > expected_era_number) return active;
  if (active != expected_era_number) {
    throw EraError("Active era_number=" + std::to_string(active) +
                   " does not match requested transition era_number=" + std::to_string(expected_era_number));
  }
  return std::nullopt;
}

// --- the transition ---------------------------------------------------------------

// One attempt: what its steps hand on to each other.
struct EraTransition::Run {
  std::int64_t era = 0;
  std::string era_text;
  bool allow_closing = false;
  ManifestPtr old_manifest;
  std::string staging;
  ManifestSiblings siblings;
  std::string manifest_body;  // as fetched: its digest goes into the manifest metadata
  ManifestPtr manifest;
  RotationPlan rotation;
  ManifestEntries to_fetch;  // every file of the new era this host keeps
  ManifestEntries queued;    // those to download: not unchanged locally
  std::size_t completed = 0;  // files staged so far
  SyncResult result;
  // The paths the searches had before (set when rotation was active for the
  // old era), and the refresh to send them once the new era is in place.
  std::optional<std::set<std::string>> previous_active;
  std::optional<json::object> rotation_refresh;
  bool searches_killed = false;  // by this attempt or an earlier one of the same call
  bool cancelled_after_switch = false;
};

bool EraTransition::cancelled() const { return manager_.stop_requested() || sync_backoff_stop_requested(); }

// Between the steps of a transition: a stop request is not left to the next
// wait or transfer to notice (a fast one may finish without looking).
void EraTransition::end_if_cancelled() const {
  if (cancelled()) throw SyncBackoffCancelled("era transition cancelled by a stop request");
}

std::string EraTransition::cancelled_message(std::int64_t era, bool searches_killed) const {
  // The held manifest is replaced together with the switch, so it names the
  // era the data directory is in.
  ManifestPtr held = manager_.get_manifest();
  std::string message = "Era transition to era " + std::to_string(era) +
                        " cancelled by a stop request; the data directory holds " +
                        (held ? "era " + std::to_string(held->era_number_int()) : std::string("no era"));
  if (searches_killed) message += "; the searches stopped for it were not restarted";
  return message;
}

void EraTransition::run(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                        const SearchesFn& restart_searches_fn) {
  struct Call {
    std::atomic<int>& calls;
    explicit Call(std::atomic<int>& c) : calls(c) { calls.fetch_add(1); }
    ~Call() { calls.fetch_sub(1); }
  } call{calls_};
  std::int64_t era = new_era_number;
  bool searches_killed = false;
  while (true) {
    if (cancelled()) throw SyncBackoffCancelled(cancelled_message(era, searches_killed));
    std::optional<std::int64_t> superseding;
    {
      begin_attempt();
      struct EndAttempt {
        EraTransition& self;
        ~EndAttempt() { self.end_attempt(); }
      } end{*this};
      superseding = attempt(era, kill_searches_fn, restart_searches_fn, searches_killed);
    }
    if (!superseding) return;
    era = *superseding;  // a higher era appeared: start over for it
  }
}

std::optional<std::int64_t> EraTransition::attempt(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                                                   const SearchesFn& restart_searches_fn, bool& searches_killed) {
  // The sibling modules the transition needs are loaded before anything
  // changes: a missing or broken one fails it with the searches running and
  // the directory untouched.
  host().load_era_transition_modules();
  Run run;
  run.era = new_era_number;
  run.era_text = std::to_string(new_era_number);
  run.old_manifest = manager_.get_manifest();
  run.allow_closing = run.old_manifest && new_era_number > run.old_manifest->era_number_int();
  run.staging = staging_path(new_era_number);
  const std::string& lock_path = lock_path_;
  std::optional<DirectoryLock::Guard> directory;

  auto finish = [&](bool superseded, const std::optional<std::string>& closing_status) {
    if (closing_status) manager_.set_status_message(*closing_status);
    // Staging and temp files go while the file lock is still ours, so that
    // nothing of another process's transition or download is removed.
    std::error_code ec;
    if (is_directory(run.staging)) fs::remove_all(run.staging, ec);
    if (superseded) {
      try {
        remove_all_tmp_files(data_dir_, {run.old_manifest ? &run.old_manifest->files() : nullptr});
      } catch (const std::exception& e) {
        log_debug("Failed to clean superseded tmp files: %s", {json::value(e.what())});
      }
    }
    set_active(false);
    directory.reset();
    remove_own_transition_lock(lock_path);
  };

  set_active(true);
  std::optional<std::int64_t> superseding;
  try {
    try {
      write_pid_file(lock_path);
    } catch (const std::exception& e) {
      log_warning("Failed to write transition lock file: %s", {json::value(e.what())});
    }
    directory.emplace(manager_.directory_lock());
    manager_.set_status_message("Era transition to era " + run.era_text + " started");
    if (kill_searches_fn) {
      searches_killed = true;
      kill_searches_fn();
    }
    run.searches_killed = searches_killed;
    end_if_cancelled();
    prepare(run);
    end_if_cancelled();
    superseding = stage(run);
    if (!superseding) {
      end_if_cancelled();
      switch_to_new_era(run);
      complete(run, restart_searches_fn);
    }
  } catch (...) {
    // A stop request ends the attempt wherever it is; the error says which
    // era the directory is wholly in (taken before the lock is released).
    const bool stopped = cancelled();
    const std::string stopped_message = stopped ? cancelled_message(run.era, searches_killed) : "";
    std::string failure = "Era transition to era " + run.era_text + " failed";
    try {
      throw;
    } catch (const std::exception& e) {
      failure += std::string(": ") + e.what();
    } catch (...) {
    }
    finish(false, stopped ? stopped_message : failure);
    if (stopped) throw SyncBackoffCancelled(stopped_message);
    throw;
  }
  if (superseding) {
    finish(true, std::nullopt);
  } else {
    finish(false, "Era transition to era " + run.era_text + " complete");
  }
  return superseding;
}

// Library version, the new manifest and its era, the rotation selection and
// the disk space: everything decided before the staging directory exists.
void EraTransition::prepare(Run& run) {
  try {
    host().check_update();
  } catch (const std::exception& e) {
    // Only a lost connection is left behind: the version gate below decides.
    if (!is_connection_error(e)) throw;
    log_warning("Could not check local wheel cache for library update: %s", {json::value(e.what())});
  }
  check_library_version(confirm_active_era(run.era, run.allow_closing), run.era);

  HttpResponse fetched = manager_.http_get(manager_.server_url() + "/data/manifest");
  if (fetched.status != 200) {
    throw SyncError("Failed to fetch era " + run.era_text + " manifest: HTTP " + std::to_string(fetched.status));
  }
  run.manifest_body = std::move(fetched.body);
  run.siblings = host().manifest_siblings();
  run.manifest = Manifest::create(parse_manifest_json(run.manifest_body), run.siblings);
  log_rejected_manifest_entries(*run.manifest);
  std::optional<std::int64_t> manifest_era = to_int(run.manifest->era_number());
  if (!manifest_era) {
    throw EraError("Era transition manifest has invalid era_number=" + python_repr(run.manifest->era_number()));
  }
  if (*manifest_era != run.era) {
    throw EraError("Era transition manifest era_number=" + std::to_string(*manifest_era) +
                   " does not match active era_number=" + run.era_text);
  }

  // What the searches had before, while the state read at construction or
  // by the last sync still describes the old era.
  if (run.old_manifest) run.previous_active = manager_.rotation_coverage(*run.old_manifest).active;

  // The rotation selection for the new era (every file without rotation).
  const std::int64_t free_bytes = free_disk_bytes(data_dir_);
  run.rotation = manager_.plan_feature_rotation_for_sync(*run.manifest, free_bytes);
  for (const auto& path : run.rotation.active) {
    if (!run.manifest->files().contains(path)) {
      throw SyncError("Active rotation path is missing from transition manifest: " + path);
    }
  }
  for (const ManifestFiles::Entry entry : run.manifest->files()) {
    if (!run.rotation.covers(std::string(entry.path()))) continue;
    if (manifest_file_is_sync_excluded(entry, run.siblings)) continue;
    json::value info = entry.info();
    run.to_fetch.emplace_back(std::string(entry.path()),
                              info.is_object() ? std::move(info.get_object()) : json::object());
  }
  run.result.era_number = run.era;
  // Every file of the new era goes into staging, copied or downloaded, while
  // the old era stays in place: room for all of them is needed.
  require_disk_space(run.staging, download_jobs(*run.manifest, run.to_fetch), run.manifest->files(), free_bytes,
                     run.siblings);  // nothing staged yet
}

// The staging directory filled with the new era: unchanged files copied,
// the others downloaded, the era artifacts fetched and checked. The
// superseding era when a higher one appeared meanwhile.
std::optional<std::int64_t> EraTransition::stage(Run& run) {
  if (path_exists(run.staging)) {
    std::error_code ec;
    fs::remove_all(run.staging, ec);
    if (ec) throw OSError(ec.message(), ec.value(), run.staging);
  }
  make_dirs(run.staging);
  if (std::optional<std::int64_t> higher = check_superseded(run.era, run.allow_closing)) {
    return superseded_by(run, *higher);
  }
  copy_unchanged(run);
  if (std::optional<std::int64_t> higher = download_queued(run)) return higher;

  // Era artifacts, checked in staging.
  manager_.download_vocabulary(*run.manifest, run.staging);
  manager_.download_shuffle_seed(*run.manifest, run.staging);
  load_manifest_signals_index(run.staging, *run.manifest, data_dir_);
  validate_manifest_vocabulary_files(run.staging, *run.manifest);
  run.rotation_refresh = rotation_refresh_payload(run);
  return std::nullopt;
}

std::optional<std::int64_t> EraTransition::superseded_by(const Run& run, std::int64_t higher) {
  manager_.set_status_message("Era " + run.era_text + " superseded by era " + std::to_string(higher) +
                              "; restarting transition.");
  return higher;
}

// Unchanged files are recognised by their SHA-256, through the hash cache:
// it answers only for a file whose identity (size, times, inode) is the one
// hashed and whose times are older than that hashing, so a file rewritten
// since, even within the same clock tick, is hashed again.
void EraTransition::copy_unchanged(Run& run) {
  for (const auto& [path, entry] : run.to_fetch) {
    const std::string local = manifest_local_path(data_dir_, path);
    const std::string expected = sha_of(entry);
    bool unchanged = false;
    if (!expected.empty() && is_regular_file(local)) {
      if (manager_.hash_cache().cached_sha(path, local, expected)) {
        unchanged = true;
      } else {
        try {
          std::string actual = sha256_file(local);
          manager_.hash_cache().remember(path, local, actual);
          unchanged = actual == expected;
        } catch (const OSError&) {
        }
      }
    }
    if (unchanged) {
      const std::string staged = manifest_local_path(run.staging, path);
      make_dirs(path_dirname(staged));
      copy_file_with_times(local, staged);
      ++run.completed;
    } else {
      run.queued.emplace_back(path, entry);
    }
  }
}

std::optional<std::int64_t> EraTransition::download_queued(Run& run) {
  DownloadOptions options;
  options.target_data_dir = run.staging;
  options.backoff_surface = "era_transition";
  const std::size_t total = run.to_fetch.size();
  options.retry_status_callback = [this, &run, total](double wait_s) {
    manager_.set_status_message("Download interrupted, retrying in " + format_float(wait_s) + "s (" +
                                std::to_string(run.completed) + "/" + std::to_string(total) + " files complete)");
  };
  std::int64_t queued_bytes = 0;
  for (const auto& [path, entry] : run.queued) {
    if (auto size = run.siblings.manifest_file_size(entry)) queued_bytes += *size;
  }
  // The downloads wait, report and can be stopped as the era transition.
  ScopedBackoffContext surface(nullptr, json::object{{"surface", "era_transition"}});
  manager_.progress().start("era_transition", static_cast<std::int64_t>(run.queued.size()), queued_bytes);
  struct FinishProgress {
    ProgressFeed& feed;
    ~FinishProgress() { feed.finish(); }
  } finish_progress{manager_.progress()};
  for (auto& [path, entry] : run.queued) {
    end_if_cancelled();
    try {
      manager_.download_file(DownloadJob::for_manifest(*run.manifest, path, &entry), run.result, options);
    } catch (const SyncError& e) {
      // The service serving other bytes than the manifest promises means
      // it may have moved to a later era; anything else is a failure.
      if (e.kind() != ErrorKind::kIntegrityError && e.kind() != ErrorKind::kManifestSupersededError) throw;
      std::optional<std::int64_t> higher = check_superseded(run.era, run.allow_closing);
      if (!higher) throw;
      return superseded_by(run, *higher);
    }
    ++run.completed;
  }
  return std::nullopt;
}

// The switch: one atomic rename per staged file (refusing links planted in
// the data directory), then the seed and the new manifest. A stop request is
// not observed from here on until the manifest is written, so the directory
// is never left between two eras by it.
void EraTransition::switch_to_new_era(Run& run) {
  confirm_active_era(run.era, run.allow_closing);
  std::vector<std::string> relative_paths;
  relative_paths.reserve(run.to_fetch.size());
  for (const auto& item : run.to_fetch) relative_paths.push_back(item.first);
  const std::vector<std::string> final_paths = move_staged_files_into_place(run.staging, data_dir_, relative_paths);
  json::array updates;
  for (std::size_t i = 0; i < run.to_fetch.size(); ++i) {
    const auto& [path, entry] = run.to_fetch[i];
    const std::string sha = sha_of(entry);
    if (!sha.empty()) manager_.hash_cache().remember(path, final_paths[i], sha);
    updates.push_back(json::object{{"relative_path", path}, {"kind", kind_of(entry)}, {"sha256", sha}});
  }
  host().record_runtime_freshness_updates(updates);
  const std::string staging_root = real_path(run.staging);
  const std::string data_root = real_path(data_dir_);
  for (const std::string& name : {std::string(SHUFFLE_SEED_FILENAME), shuffle_seed_meta_path(SHUFFLE_SEED_FILENAME)}) {
    if (path_exists(path_join(run.staging, name))) move_into_place(staging_root, data_root, name, name);
  }
  // The new era's files reach stable storage before its manifest names them.
  sync_file_system(data_dir_);
  const std::string body_sha = sha256(run.manifest_body);
  write_manifest_json(data_dir_, *run.manifest, body_sha, body_sha);
  manager_.install_manifest(run.manifest);
}

void EraTransition::remove_files_only_the_old_era_had(const Run& run) {
  if (!run.old_manifest) return;
  for (const ManifestFiles::Entry entry : run.old_manifest->files()) {
    if (run.manifest->files().contains(entry.path())) continue;
    std::string local;
    try {
      local = manifest_local_path(data_dir_, entry.path());
    } catch (const ManifestError&) {
      continue;
    }
    if (::unlink(local.c_str()) != 0 && errno != ENOENT) {
      log_debug("Failed to remove file of the previous era %s: %s",
                {json::value(local), json::value(std::strerror(errno))});
    }
  }
}

// After the switch: the remaining gates, removal of what the old era alone
// had, notifications, the rotation refresh and the restart of searches. A
// stop request met at a gate now skips only the gates and the restart: the
// new era is in place, so everything local still completes.
void EraTransition::complete(Run& run, const SearchesFn& restart_searches_fn) {
  auto gate = [&] {
    if (!run.cancelled_after_switch && cancelled()) run.cancelled_after_switch = true;
    if (run.cancelled_after_switch) return;
    try {
      confirm_active_era(run.era, run.allow_closing);
    } catch (...) {
      if (!cancelled()) throw;
      run.cancelled_after_switch = true;
    }
  };
  // The new era is in place: what only the old era had goes before any gate
  // can fail, so that the directory holds one era's files either way.
  remove_files_only_the_old_era_had(run);
  gate();
  manager_.complete_rotation_promotion(*run.manifest, run.rotation, run.result);
  manager_.hash_cache().persist();
  if (!run.cancelled_after_switch) manager_.schedule_cleanup_old_eras(true);

  try {
    host().notify_era_change(run.era);
  } catch (const std::exception& e) {
    log_warning("Failed to notify auth about era change: %s", {json::value(e.what())});
  }
  host().track_era_transition(data_dir_, run.era,
                              run.old_manifest ? run.old_manifest->era_number() : json::value(nullptr));

  manager_.install_vocabularies(manager_.validated_vocabularies(*run.manifest));
  if (run.rotation_refresh) manager_.notify_era_callbacks(ROTATION_REFRESH_EVENT, run.era, *run.rotation_refresh);
  if (restart_searches_fn) gate();
  if (run.cancelled_after_switch) {
    throw SyncBackoffCancelled(cancelled_message(run.era, run.searches_killed));
  }
  if (restart_searches_fn) restart_searches_fn();
}

// What running searches learn of a rotation: the new era's active paths and
// how they differ from what the searches had. Only when rotation applies to
// the old era or the new one; without it every file is active on both sides
// and the restart says all there is to say.
std::optional<json::object> EraTransition::rotation_refresh_payload(const Run& run) const {
  if (!run.rotation.rotating && !run.previous_active) return std::nullopt;
  std::set<std::string> active;
  if (run.rotation.rotating) {
    active = run.rotation.active;
  } else {
    for (const auto& [path, entry] : run.to_fetch) active.insert(path);
  }
  std::set<std::string> previous;
  if (run.previous_active) {
    previous = *run.previous_active;
  } else if (run.old_manifest) {
    for (const ManifestFiles::Entry entry : run.old_manifest->files()) {
      if (!manifest_file_is_sync_excluded(entry, run.siblings)) previous.insert(std::string(entry.path()));
    }
  }
  json::array active_paths, added, removed;
  for (const auto& path : active) {
    active_paths.emplace_back(path);
    if (!previous.count(path)) added.emplace_back(path);
  }
  for (const auto& path : previous) {
    if (!active.count(path)) removed.emplace_back(path);
  }
  json::object payload;
  payload["era_number"] = run.era;
  payload["previous_era_number"] = run.old_manifest ? run.old_manifest->era_number() : json::value(nullptr);
  payload["active_relative_paths"] = std::move(active_paths);
  payload["added_relative_paths"] = std::move(added);
  payload["removed_relative_paths"] = std::move(removed);
  return payload;
}

}  // namespace tidewright::sync
