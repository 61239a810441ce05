// Era transitions: the era-current gates, the library-version check, staging
// of the new era, the switch, and the clean-up that always runs.
//
// The new era is assembled completely in ".transition_era<N>.tmp" (files
// that are unchanged are copied, the others downloaded) while the data
// directory still holds the old era; only then are the staged files renamed
// into place one by one and the new manifest written. A failure before the
// switch therefore leaves the old era's files and manifest untouched.
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/era/era_current.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/rotation_plan.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
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

void write_pid_file(const std::string& path) {
  const std::string text = std::to_string(::getpid());
  // A link planted at the name is refused (ELOOP), never written through.
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd.valid()) throw_os_error(errno, path);
  if (::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) throw_os_error(errno, path);
  if (fd.reset() != 0) throw_os_error(errno, path);
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

std::optional<std::int64_t> compare_versions(const json::value& a, const json::value& b) {
  json::value r = host().call_module_function("tidewright.deployment", "_compare_versions", json::array{a, b});
  std::optional<std::int64_t> n = to_int(r);
  if (!n) throw ValueError("_compare_versions returned " + python_repr(r));
  return n;
}

json::value current_library_version() {
  return host().call_module_function("tidewright.deployment", "_CURRENT_VERSION", json::array{});
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
    json::value outcome = host().call_module_function("tidewright.deployment", "auto_update", json::array{});
    const json::object* fields = as_object(&outcome);
    const json::value* success = fields ? fields->if_contains("success") : nullptr;
    if (!success || !truthy(*success)) {
      const json::value* warning = fields ? fields->if_contains("warning") : nullptr;
      failure = warning ? text_of(*warning) : std::string("Could not auto-update to latest.");
    }
  } catch (const LibraryUpdateRequired&) {
    throw;
  } catch (const HostError& e) {
    if (e.is(HostError::kIsLibraryUpdateRequired)) throw;
    failure = e.what();
  } catch (const std::exception& e) {
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

std::string SyncManager::transition_lock_path() const { return path_join(data_dir_, ".transition_lock"); }

std::string SyncManager::transition_staging_path(std::int64_t era_number) const {
  return path_join(data_dir_, ".transition_era" + std::to_string(era_number) + ".tmp");
}

std::optional<json::value> SyncManager::held_manifest_era_number() const {
  ManifestPtr manifest = get_manifest();
  if (!manifest) return std::nullopt;
  return manifest->era_number();
}

void SyncManager::set_in_transition(bool value) {
  {
    std::lock_guard<std::mutex> lock(transition_state_mu_);
    in_transition_.store(value);
    transition_owner_ = value ? std::this_thread::get_id() : std::thread::id();
  }
  transition_cv_.notify_all();
}

void SyncManager::set_status_message(std::string message) {
  std::lock_guard<std::mutex> lock(state_mu_);
  status_message_ = std::move(message);
}

// --- gates ---------------------------------------------------------------------

std::pair<std::int64_t, json::object> SyncManager::fetch_active_era_for_transition(bool allow_closing) {
  HttpResponse response = http_get(market_era_current_url(server_url_, market_id_));
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

json::object SyncManager::confirm_active_era(std::int64_t expected_era_number, bool allow_closing) {
  auto [active, config] = fetch_active_era_for_transition(allow_closing);
  if (active != expected_era_number) {
    throw EraError("Active era_number=" + std::to_string(active) +
                   " does not match requested transition era_number=" + std::to_string(expected_era_number));
  }
  return config;
}

std::optional<std::int64_t> SyncManager::check_transition_superseded(std::int64_t expected_era_number,
                                                                     bool allow_closing) {
  std::int64_t active = fetch_active_era_for_transition(allow_closing).first;
  if (active > expected_era_number) return active;
  if (active != expected_era_number) {
    throw EraError("Active era_number=" + std::to_string(active) +
                   " does not match requested transition era_number=" + std::to_string(expected_era_number));
  }
  return std::nullopt;
}

// --- the transition ---------------------------------------------------------------

void SyncManager::trigger_era_transition(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                                         const SearchesFn& restart_searches_fn) {
  std::int64_t era = new_era_number;
  while (true) {
    if (stop_requested()) throw SyncBackoffCancelled("stop requested; era transition not started");
    std::optional<std::int64_t> superseding;
    {
      std::lock_guard<std::mutex> lock(transition_mu_);
      superseding = run_transition_attempt(era, kill_searches_fn, restart_searches_fn);
    }
    if (!superseding) return;
    era = *superseding;  // a higher era appeared: start over for it
  }
}

std::optional<std::int64_t> SyncManager::run_transition_attempt(std::int64_t new_era_number,
                                                                const SearchesFn& kill_searches_fn,
                                                                const SearchesFn& restart_searches_fn) {
  const std::string era_text = std::to_string(new_era_number);
  current_library_version();  // the deployment module must load before anything changes
  const ManifestPtr old_manifest = get_manifest();
  const bool allow_closing = old_manifest && new_era_number > old_manifest->era_number_int();
  const std::string lock_path = transition_lock_path();
  const std::string staging = transition_staging_path(new_era_number);
  bool flock_held = false;

  auto finish = [&](bool superseded, const std::optional<std::string>& closing_status) {
    if (closing_status) set_status_message(*closing_status);
    // Staging and temp files go while the file lock is still ours, so that
    // nothing of another process's transition or download is removed.
    std::error_code ec;
    if (is_directory(staging)) fs::remove_all(staging, ec);
    if (superseded) {
      try {
        remove_all_tmp_files(data_dir_, {old_manifest ? &old_manifest->files() : nullptr});
      } catch (const std::exception& e) {
        log_debug("Failed to clean superseded tmp files: %s", {json::value(e.what())});
      }
    }
    set_in_transition(false);
    if (flock_held) release_flock();
    remove_own_transition_lock(lock_path);
  };

  set_in_transition(true);
  std::optional<std::int64_t> superseding;
  try {
    try {
      write_pid_file(lock_path);
    } catch (const std::exception& e) {
      log_warning("Failed to write transition lock file: %s", {json::value(e.what())});
    }
    acquire_flock();
    flock_held = true;
    set_status_message("Era transition to era " + era_text + " started");
    if (kill_searches_fn) kill_searches_fn();

    try {
      host().call_module_function("tidewright.deployment", "check_update", json::array{});
    } catch (const ConnectionError& e) {
      log_warning("Could not check local wheel cache for library update: %s", {json::value(e.what())});
    } catch (const HostError& e) {
      if (!e.is(HostError::kIsConnectionError)) throw;
      log_warning("Could not check local wheel cache for library update: %s", {json::value(e.what())});
    }

    check_library_version(confirm_active_era(new_era_number, allow_closing), new_era_number);

    // The new era's manifest.
    HttpResponse fetched = http_get(server_url_ + "/data/manifest");
    if (fetched.status != 200) {
      throw SyncError("Failed to fetch era " + era_text + " manifest: HTTP " + std::to_string(fetched.status));
    }
    const json::object parsed = parse_manifest_json(fetched.body);
    const ManifestSiblings siblings = host().manifest_siblings();
    ManifestPtr manifest = Manifest::create(parsed, siblings);
    log_rejected_manifest_entries(*manifest);
    std::optional<std::int64_t> manifest_era = to_int(manifest->era_number());
    if (!manifest_era) {
      throw EraError("Era transition manifest has invalid era_number=" + python_repr(manifest->era_number()));
    }
    if (*manifest_era != new_era_number) {
      throw EraError("Era transition manifest era_number=" + std::to_string(*manifest_era) +
                     " does not match active era_number=" + era_text);
    }

    // The rotation selection for the new era (every file without rotation).
    RotationPlan rotation = plan_feature_rotation_for_sync(*manifest, free_disk_bytes(data_dir_));
    for (const auto& path : rotation.active) {
      if (!manifest->files().contains(path)) {
        throw SyncError("Active rotation path is missing from transition manifest: " + path);
      }
    }

    std::vector<std::pair<std::string, json::object>> to_fetch;
    for (const auto& kv : manifest->files()) {
      if (!rotation.covers(std::string(kv.key()))) continue;
      if (manifest_file_is_sync_excluded(kv.key(), kv.value(), siblings)) continue;
      to_fetch.emplace_back(std::string(kv.key()), kv.value().is_object() ? kv.value().get_object() : json::object());
    }
    SyncResult result;
    result.era_number = new_era_number;
    const std::size_t total = to_fetch.size();
    std::size_t completed = 0;

    if (path_exists(staging)) {
      std::error_code ec;
      fs::remove_all(staging, ec);
      if (ec) throw OSError(ec.message(), ec.value(), staging);
    }
    make_dirs(staging);

    auto superseded_by = [&](std::int64_t higher) {
      set_status_message("Era " + era_text + " superseded by era " + std::to_string(higher) +
                         "; restarting transition.");
      return higher;
    };
    if (std::optional<std::int64_t> higher = check_transition_superseded(new_era_number, allow_closing)) {
      superseding = superseded_by(*higher);
    }

    if (!superseding) {
      // Unchanged files are copied into staging, the others queued.
      std::vector<std::pair<std::string, json::object>> queued;
      for (const auto& [path, entry] : to_fetch) {
        const std::string local = manifest_local_path(data_dir_, path);
        const std::string expected = sha_of(entry);
        bool unchanged = false;
        if (!expected.empty() && is_regular_file(local)) {
          if (hash_cache_.cached_sha(path, local, expected)) {
            unchanged = true;
          } else {
            try {
              std::string actual = sha256_file(local);
              hash_cache_.remember(path, local, actual);
              unchanged = actual == expected;
            } catch (const OSError&) {
            }
          }
        }
        if (unchanged) {
          const std::string staged = manifest_local_path(staging, path);
          make_dirs(path_dirname(staged));
          copy_file_with_times(local, staged);
          ++completed;
        } else {
          queued.emplace_back(path, entry);
        }
      }

      DownloadOptions options;
      options.target_data_dir = staging;
      options.backoff_surface = "era_transition";
      options.retry_status_callback = [&](double wait_s) {
        set_status_message("Download interrupted, retrying in " + format_float(wait_s) + "s (" +
                           std::to_string(completed) + "/" + std::to_string(total) + " files complete)");
      };
      std::int64_t queued_bytes = 0;
      for (const auto& [path, entry] : queued) {
        if (auto size = siblings.manifest_file_size(entry)) queued_bytes += *size;
      }
      progress_.start("era_transition", static_cast<std::int64_t>(queued.size()), queued_bytes);
      struct FinishProgress {
        ProgressFeed& feed;
        ~FinishProgress() { feed.finish(); }
      } finish_progress{progress_};
      for (auto& [path, entry] : queued) {
        json::object info = download_entry(*manifest, entry);
        try {
          download_file(path, info, result, options);
        } catch (const SyncError& e) {
          // The service serving other bytes than the manifest promises means
          // it may have moved to a later era; anything else is a failure.
          if (e.kind() != ErrorKind::kIntegrityError && e.kind() != ErrorKind::kManifestSupersededError) throw;
          std::optional<std::int64_t> higher = check_transition_superseded(new_era_number, allow_closing);
          if (!higher) throw;
          superseding = superseded_by(*higher);
          break;
        }
        ++completed;
      }
    }

    if (!superseding) {
      // Era artifacts, checked in staging.
      download_vocabulary(*manifest, staging);
      download_shuffle_seed(*manifest, staging);
      load_manifest_signals_index(staging, *manifest, data_dir_);
      validate_manifest_vocabulary_files(staging, *manifest);

      confirm_active_era(new_era_number, allow_closing);

      // The switch: one atomic rename per file. Every destination is checked
      // first, so that a link in the data directory refuses the switch as a
      // whole rather than half of it.
      std::vector<std::string> final_paths;
      final_paths.reserve(to_fetch.size());
      for (const auto& item : to_fetch) final_paths.push_back(manifest_local_write_path(data_dir_, item.first));
      json::array updates;
      for (std::size_t i = 0; i < to_fetch.size(); ++i) {
        const auto& [path, entry] = to_fetch[i];
        const std::string& final_path = final_paths[i];
        make_dirs(path_dirname(final_path));
        rename_file(manifest_local_path(staging, path), final_path);
        const std::string sha = sha_of(entry);
        if (!sha.empty()) hash_cache_.remember(path, final_path, sha);
        updates.push_back(json::object{{"relative_path", path}, {"kind", kind_of(entry)}, {"sha256", sha}});
      }
      host().call_module_function("tidewright.sync", "_record_runtime_freshness_updates", json::array{updates});
      const std::string staged_seed = path_join(staging, SHUFFLE_SEED_FILENAME);
      const std::string final_seed = path_join(data_dir_, SHUFFLE_SEED_FILENAME);
      for (const auto& [from, to] : {std::pair(staged_seed, final_seed),
                                     std::pair(shuffle_seed_meta_path(staged_seed), shuffle_seed_meta_path(final_seed))}) {
        if (path_exists(from)) rename_file(from, to);
      }

      const std::string body_sha = sha256(fetched.body);
      write_manifest_json(data_dir_, manifest->data(), body_sha, body_sha);
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        manifest_ = manifest;
      }
      confirm_active_era(new_era_number, allow_closing);
      if (old_manifest) {
        for (const auto& kv : old_manifest->files()) {
          if (manifest->files().contains(kv.key())) continue;
          std::string local;
          try {
            local = manifest_local_path(data_dir_, kv.key());
          } catch (const ManifestError&) {
            continue;
          }
          if (::unlink(local.c_str()) != 0 && errno != ENOENT) {
            log_debug("Failed to remove file of the previous era %s: %s",
                      {json::value(local), json::value(std::strerror(errno))});
          }
        }
      }
      complete_rotation_promotion(*manifest, rotation, result);
      hash_cache_.persist();
      schedule_cleanup_old_eras(true);

      try {
        host().call_module_function("tidewright.auth", "notify_era_change", json::array{new_era_number});
      } catch (const std::exception& e) {
        log_warning("Failed to notify auth about era change: %s", {json::value(e.what())});
      }
      host().call_module_function(
          "tidewright.sync", "_track_era_transition",
          json::array{json::value(data_dir_), json::value(new_era_number),
                      old_manifest ? old_manifest->era_number() : json::value(nullptr)});

      std::shared_ptr<const json::object> vocabularies = validated_vocabularies(*manifest);
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        vocabulary_ = std::move(vocabularies);
      }
      if (restart_searches_fn) {
        confirm_active_era(new_era_number, allow_closing);
        restart_searches_fn();
      }
    }
  } catch (const std::exception& e) {
    finish(false, "Era transition to era " + era_text + " failed: " + e.what());
    throw;
  } catch (...) {
    finish(false, "Era transition to era " + era_text + " failed");
    throw;
  }
  if (superseding) {
    finish(true, std::nullopt);
  } else {
    finish(false, "Era transition to era " + era_text + " complete");
  }
  return superseding;
}

}  // namespace tidewright::sync
