// The sync pipeline: version probe and fast path, full manifest, the
// nothing-new and artifacts-only paths, the download set, disk space,
// parallel download and the commit.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <malloc.h>

#include <exception>
#include <mutex>
#include <optional>
#include <set>

namespace tidewright::sync {

namespace {

constexpr std::int64_t SUPERSEDE_RESTART_LIMIT = 3;

// The files a rotating plan leaves out of the local checks; none otherwise.
SyncManager::FileFilter uncovered_by(const RotationPlan& rotation) {
  if (!rotation.rotating) return {};
  return [&rotation](const std::string& path, const ManifestFiles::Entry&) { return !rotation.covers(path); };
}

std::optional<std::string> manifest_hash_from(const json::object& body) {
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    const json::value* v = body.if_contains(key);
    if (v && !v->is_null()) return python_str(*v);
  }
  return std::nullopt;
}

// Counts of distinct pool groups ("<dir>/<pool>/<id>") under `dir`, of the
// paths `path_of` reads off the items of `items`.
template <typename Items, typename PathOf>
std::int64_t distinct_groups(const Items& items, PathOf path_of, std::string_view dir, const EpochNames& epochs) {
  const std::string prefix = std::string(dir) + "/";
  std::set<std::string> groups;
  for (const auto& item : items) {
    std::optional<std::string> key = agent_signal_group_key(path_of(item), "", epochs);
    if (key && key->rfind(prefix, 0) == 0) groups.insert(std::move(*key));
  }
  return static_cast<std::int64_t>(groups.size());
}

std::string_view key_of(const ManifestFiles::Entry& entry) { return entry.path(); }
std::string_view path_of(const DownloadJob& job) { return job.path; }

std::int64_t count_features(const Manifest& manifest, const ManifestSiblings& siblings) {
  std::int64_t n = 0;
  for (const ManifestFiles::Entry entry : manifest.files()) {
    if (manifest_entry_kind(siblings, entry) == "feature") ++n;
  }
  return n;
}

void take_vocabulary_metadata(SyncResult& result, const json::object& vocabularies) {
  json::object meta = first_vocabulary_metadata(vocabularies);
  auto field = [&](const char* name) -> std::int64_t {
    const json::value* v = meta.if_contains(name);
    return v ? to_int(*v).value_or(0) : 0;
  };
  result.t_signal_is = field("t_signal_is");
  result.t_strategy_is = field("t_strategy_is");
  result.n_instruments = field("n_instruments");
}

// The manifest's body as it arrives: parsed and hashed piece by piece, so
// that the text is never held (a manifest of a million files is hundreds of
// megabytes of text on top of its values), and refused past
// SYNC_RESPONSE_MAX_BYTES, so that a body that never ends costs neither
// memory nor endless time.
class ManifestBodySink : public BodySink {
 public:
  explicit ManifestBodySink(std::string url) : url_(std::move(url)) {}

  void restart() override {
    parser_.reset();
    hasher_.reset();
    bytes_ = 0;
  }

  void write(std::string_view piece) override {
    bytes_ += static_cast<std::int64_t>(piece.size());
    if (bytes_ > SYNC_RESPONSE_MAX_BYTES) {
      throw ManifestError("Manifest response from " + url_ + " exceeds " + std::to_string(SYNC_RESPONSE_MAX_BYTES) +
                          " bytes, more than any manifest holds; not retried: the data service is misbehaving, "
                          "report it to its operator");
    }
    hasher_.update(piece);
    try {
      parser_.write(piece);
    } catch (const JsonParseError& e) {
      throw ManifestError(std::string("Invalid manifest JSON: ") + e.what());
    }
  }

  json::object finish() {
    json::value parsed;
    try {
      parsed = parser_.finish();
    } catch (const JsonParseError& e) {
      throw ManifestError(std::string("Invalid manifest JSON: ") + e.what());
    }
    if (!parsed.is_object()) throw ManifestError("Invalid manifest JSON: the manifest must be a JSON object");
    return std::move(parsed.get_object());
  }

  std::string body_sha256() const { return hasher_.hexdigest(); }

 private:
  std::string url_;
  JsonStreamParser parser_;
  Sha256 hasher_;
  std::int64_t bytes_ = 0;
};

struct FetchedManifest {
  std::int64_t status = 0;
  json::object data;        // of a 200
  std::string body_sha256;  // of a 200's body
};

// GET of the manifest with the request retries, its body streamed into the
// parser.
FetchedManifest fetch_manifest(const std::string& url, const std::string& token) {
  ManifestBodySink sink(url);
  DownloadResult answer =
      request_to_sink_with_sync_retries(make_sync_request(url, token), sink, sync_http_timeout_seconds());
  FetchedManifest fetched;
  fetched.status = answer.status;
  if (answer.status == 200) {
    fetched.data = sink.finish();
    fetched.body_sha256 = sink.body_sha256();
  }
  return fetched;
}

// "a, b, c and 97 more": a long list in a log line.
std::string listed_briefly(const std::set<std::string>& paths) {
  constexpr std::size_t kShown = 10;
  std::string text;
  std::size_t shown = 0;
  for (const auto& path : paths) {
    if (shown == kShown) break;
    if (shown++ > 0) text += ", ";
    text += path;
  }
  if (paths.size() > kShown) text += " and " + std::to_string(paths.size() - kShown) + " more";
  return text;
}

}  // namespace

SyncResult SyncManager::sync() {
  MutexLock lock(sync_mu_);
  DirectoryLock::Guard directory(directory_lock_);
  return sync_with_manifest_refresh();
}

SyncResult SyncManager::sync_with_manifest_refresh() {
  std::int64_t restarts = 0;
  while (true) {
    try {
      return sync_impl();
    } catch (const ManifestSupersededError& e) {
      ++restarts;
      log_warning("Manifest changed during sync; refreshing manifest and restarting download set (%d/%d): %s",
                  {json::value(restarts), json::value(SUPERSEDE_RESTART_LIMIT), json::value(e.what())});
      if (restarts >= SUPERSEDE_RESTART_LIMIT) throw;
    }
  }
}

SyncResult SyncManager::sync_impl() {
  // Found PnL files that storage no longer has are left out a pass at a
  // time: a pass sets aside every one it meets, and the next pass fetches
  // the manifest once more without them all. The loop keeps one pass's state
  // alive at a time (a restart per file, nested, held a manifest per level).
  SyncResult earlier;
  while (true) {
    std::optional<SyncResult> result = sync_pass(earlier);
    if (!result) continue;
    // Files finished by earlier passes are found by hash and not counted
    // again: they belong to this sync's totals.
    result->bytes_downloaded += earlier.bytes_downloaded;
    result->features_downloaded += earlier.features_downloaded;
    std::set<std::string> seen(result->found_pnl_paths_downloaded.begin(), result->found_pnl_paths_downloaded.end());
    for (const auto& path : earlier.found_pnl_paths_downloaded) {
      if (seen.insert(path).second) result->found_pnl_paths_downloaded.push_back(path);
    }
    return std::move(*result);
  }
}

// One pass of the pipeline as named steps, each handing the next what it
// found: the version probe, the fast path, the full manifest, the
// nothing-new path, the download set, the download, and the commit that
// every exit with a result goes through. Runs under the sync lock and the
// cross-process lock, on the manager's private state.
class SyncPipeline {
 public:
  // `missing`: the manager's memo of missing found PnL files, handed over
  // by the caller that holds the sync lock.
  SyncPipeline(SyncManager& manager, SyncResult& earlier, MissingFoundPnl& missing)
      : m_(manager), earlier_(earlier), missing_(missing), siblings_(host().manifest_siblings()) {}

  std::optional<SyncResult> run() {
    remove_sync_progress_json(m_.settings_.data_dir);  // a clean start
    const VersionProbe probe = probe_version();
    const ManifestPtr local = m_.get_manifest();
    if (std::optional<SyncResult> result = fast_path(probe, local)) return result;
    ServerManifest server = fetch_server_manifest(local);
    if (std::optional<SyncResult> result = nothing_new(server, local)) return result;
    DownloadPlan plan = plan_download_set(server, local);
    if (!download(server, plan)) return std::nullopt;
    return commit_downloads(server, plan);
  }

 private:
  // What the version endpoint said; a failed probe leaves the defaults.
  struct VersionProbe {
    std::int64_t version = -1;
    std::optional<std::int64_t> era;
    std::optional<std::string> hash;
  };
  // The full manifest as this pass will hold it, and what is planned on it.
  struct ServerManifest {
    ManifestPtr manifest;
    std::string body_sha;  // of the bytes kept, for the side file
    std::int64_t free_bytes = 0;
    RotationPlan rotation;
  };
  // The files to fetch and what the commit reports of them.
  struct DownloadPlan {
    SyncResult result;
    DownloadSet jobs;
    std::vector<std::string> vocabulary_paths;
    std::int64_t needed_bytes = 0;
  };
  // What a commit puts in place.
  struct Commit {
    ManifestPtr manifest;
    // The manifest the rotation is promoted for: `manifest` when empty.
    ManifestPtr promoted_for;
    const RotationPlan* rotation = nullptr;
    SyncResult result;
    // Written to disk (after a flush of what it vouches for) when set; the
    // held manifest is then replaced whatever it is.
    std::optional<std::string> body_sha;
    // Without a write: the held manifest this one replaces, unless another
    // has replaced it meanwhile.
    ManifestPtr replaces;
    // Validated already; validated after the write when empty.
    std::shared_ptr<const json::object> vocabularies;
    std::optional<std::int64_t> n_features;  // counted already
    bool clear_progress = false;
    // The manifests whose files an orphan staging file scan spares; no
    // scan when empty.
    std::vector<const ManifestFiles*> tmp_scan_files;
  };

  VersionProbe probe_version() {
    VersionProbe probe;
    try {
      HttpResponse answer = m_.http_get(m_.settings_.server_url + "/data/manifest/version");
      if (answer.status == 401) throw AuthError("Authentication failed: HTTP 401");
      if (answer.status == 200) {
        try {
          json::value parsed = parse_json(answer.body);
          if (!parsed.is_object()) throw ValueError("manifest version response is not a JSON object");
          const json::object& body = parsed.get_object();
          const json::value* version = body.if_contains("version");
          std::optional<std::int64_t> v = version ? to_int(*version) : std::nullopt;
          if (!v) throw ValueError("manifest version response has no integer version");
          probe.version = *v;
          if (const json::value* era = body.if_contains("era_number"); era && !era->is_null()) probe.era = to_int(*era);
          probe.hash = manifest_hash_from(body);
        } catch (const std::exception& e) {
          log_debug("Manifest version response was not parseable: %s", {json::value(e.what())});
        }
      }
    } catch (const std::exception& e) {
      // A stop, a refused token or a service the backoff gave up on ends the
      // sync; any other failure of the probe leaves it to the full manifest.
      const ErrorCode code = error_code(e);
      if (code == ErrorCode::kCancelled || code == ErrorCode::kAuth || code == ErrorCode::kUnavailable) throw;
      log_warning("Manifest version check failed: %s", {json::value(e.what())});
    }
    return probe;
  }

  // Version-matched: one request in all, when the held manifest and the
  // local files still agree with it.
  std::optional<SyncResult> fast_path(const VersionProbe& probe, const ManifestPtr& local) {
    if (!local || manifest_has_agent_bundle_declarations(local->files()) ||
        manifest_has_retired_found_pnl_long_files(local->files()) || probe.version != local->version_int()) {
      return std::nullopt;
    }
    const std::int64_t local_version = local->version_int();
    const std::int64_t local_era = local->era_number_int();
    if (probe.hash && !manifest_hash_hint_matches_local_state(m_.settings_.data_dir, local_version, local_era, probe.hash)) {
      log_info("Manifest version matched but manifest hash changed; fetching full manifest");
      return std::nullopt;
    }
    try {
      if (probe.era && *probe.era != local_era) {
        throw EraError("Era mismatch: local era_number=" + std::to_string(local_era) +
                       ", server era_number=" + std::to_string(*probe.era));
      }
      RotationPlan rotation = m_.plan_feature_rotation_for_sync(*local, free_disk_bytes(m_.settings_.data_dir));
      std::shared_ptr<const json::object> vocabularies = m_.validated_vocabularies(*local);
      validate_shuffle_seed_file(path_join(m_.settings_.data_dir, SHUFFLE_SEED_FILENAME), seed_expectations(*local));
      std::int64_t n_features = 0;
      if (m_.first_local_mismatch(*local, siblings_, uncovered_by(rotation), &n_features)) {
        throw SyncError("Manifest version matched but local data files need repair");
      }
      Commit commit;
      commit.manifest = m_.with_local_signals_index(local);
      commit.replaces = local;
      commit.promoted_for = local;
      commit.rotation = &rotation;
      commit.result = result_for(*local);
      commit.vocabularies = std::move(vocabularies);
      commit.n_features = n_features;
      commit.tmp_scan_files = {&local->files()};
      return this->commit(std::move(commit));
    } catch (const std::exception& e) {
      // The sync family's verdicts on the local copy send the pass on to
      // the full manifest; an unavailable service and the rest end it.
      if (error_code(e) == ErrorCode::kUnavailable || !dynamic_cast<const SyncError*>(&e)) throw;
      log_warning("Manifest version matched but local metadata needs repair: %s", {json::value(e.what())});
    }
    return std::nullopt;
  }

  ServerManifest fetch_server_manifest(const ManifestPtr& local) {
    FetchedManifest fetched;
    {
      ScopedSyncStopPredicate stop([this] { return m_.stop_requested(); });
      fetched = fetch_manifest(m_.settings_.server_url + "/data/manifest", m_.fetch_token());
    }
    if (fetched.status == 401) throw AuthError("Authentication failed: HTTP " + std::to_string(fetched.status));
    if (fetched.status != 200) {
      // A SyncError that carries the status (a 403 is a refusal, a 404 a
      // wrong address): callers classify by the field, not by the message.
      throw PermanentDownloadError("Failed to fetch manifest: HTTP " + std::to_string(fetched.status), std::nullopt,
                                   fetched.status);
    }
    if (const json::value* files = fetched.data.if_contains("files");
        files && !files->is_object() && !files->is_null()) {
      throw ManifestError("Invalid manifest JSON: \"files\" must be a JSON object");
    }
    // Moved, not copied, from here on: one set of the manifest's values at a time.
    std::vector<RejectedManifestEntry> rejected;
    json::object server_data = sanitize_manifest_data_for_sync(std::move(fetched.data), siblings_, nullptr, &rejected);
    ServerManifest server;
    server.body_sha = std::move(fetched.body_sha256);
    if (auto newer = m_.newer_public_manifest(server_data)) {
      server_data = sanitize_manifest_data_for_sync(std::move(newer->first), siblings_, nullptr, &rejected);
      server.body_sha = sha256(newer->second);
    }
    // The side file records the hash of the bytes kept, not the probe's
    // hint: it says which manifest is on disk, and the hint may name another
    // one (the API's when the public manifest was newer, or an older one the
    // server has moved on from since the probe).

    std::int64_t fetched_version =
        to_int(server_data.contains("version") ? server_data.at("version") : json::value(0)).value_or(-1);
    if (missing_.manifest_version != fetched_version) {
      missing_.paths.clear();
      missing_.manifest_version.reset();
    }
    if (!missing_.paths.empty()) {
      server_data = drop_missing_found_pnl_paths(
          server_data, std::vector<std::string>(missing_.paths.begin(), missing_.paths.end()));
    }
    server.manifest = Manifest::from_sanitized(std::move(server_data), std::move(rejected));
    log_rejected_manifest_entries(*server.manifest);
    if (local && server.manifest->era_number_int() != local->era_number_int()) {
      throw EraError("Era mismatch: local era_number=" + std::to_string(local->era_number_int()) +
                     ", server era_number=" + std::to_string(server.manifest->era_number_int()));
    }
    server.free_bytes = free_disk_bytes(m_.settings_.data_dir);
    server.rotation = m_.plan_feature_rotation_for_sync(*server.manifest, server.free_bytes);
    return server;
  }

  // Found PnL files that storage no longer has leave the manifest and the
  // signals index, which gets a new content address. The index as the
  // server published it must be on disk: the scrub rewrites that file.
  void exclude_missing_found_pnl(ManifestPtr& manifest) {
    if (missing_.paths.empty()) return;
    std::vector<std::string> missing(missing_.paths.begin(), missing_.paths.end());
    json::object data = drop_missing_found_pnl_paths(manifest->to_dict(), missing);
    if (auto update = scrub_missing_found_pnl_paths_from_signals_index(m_.settings_.data_dir, data, missing)) {
      m_.record_scrubbed_signals_index_update(*update);
    }
    manifest = Manifest::from_sanitized(std::move(data), manifest->rejected_entries());
  }

  // The local manifest is current: the files and the era artifacts are
  // checked, and fetched again only where they fail.
  std::optional<SyncResult> nothing_new(ServerManifest& server, const ManifestPtr& local) {
    const Manifest& manifest = *server.manifest;
    if (!local || local->version_int() < manifest.version_int() ||
        local->era_number_int() != manifest.era_number_int()) {
      return std::nullopt;
    }
    bool vocabulary_due = false;
    bool seed_due = false;
    try {
      m_.validated_vocabularies(manifest);
    } catch (const SyncError&) {
      vocabulary_due = true;
    }
    try {
      validate_shuffle_seed_file(path_join(m_.settings_.data_dir, SHUFFLE_SEED_FILENAME), seed_expectations(manifest));
    } catch (const SyncError&) {
      seed_due = true;
    }
    if (m_.first_local_mismatch(manifest, siblings_, uncovered_by(server.rotation))) {
      log_warning("Manifest version matched but local data files need repair");
      return std::nullopt;
    }
    Commit commit;
    commit.result = result_for(manifest);
    if (vocabulary_due) commit.result.vocabulary_downloaded = m_.download_vocabulary(*server.manifest);
    if (seed_due) commit.result.shuffle_seed_downloaded = m_.download_shuffle_seed(*server.manifest);
    if (vocabulary_due || seed_due) m_.download_signals_index(*server.manifest, commit.result);
    exclude_missing_found_pnl(server.manifest);
    commit.vocabularies = m_.validated_vocabularies(*server.manifest);
    load_manifest_signals_index(m_.settings_.data_dir, *server.manifest);
    commit.manifest = server.manifest;
    commit.body_sha = server.body_sha;
    commit.rotation = &server.rotation;
    commit.tmp_scan_files = {&server.manifest->files(), &local->files()};
    return this->commit(std::move(commit));
  }

  DownloadPlan plan_download_set(const ServerManifest& server, const ManifestPtr& local) {
    const Manifest& manifest = *server.manifest;
    DownloadPlan plan;
    plan.result = result_for(manifest);
    const std::optional<std::string> signals_index_path = manifest_signals_index_path(manifest);
    const bool same_era_local = local && local->era_number_int() == manifest.era_number_int();
    ManifestLocalPaths locals(m_.settings_.data_dir);
    for (const ManifestFiles::Entry entry : manifest.files()) {
      std::string path(entry.path());
      if (!server.rotation.covers(path)) continue;
      if (vocabulary_named_universe_from_path(path)) continue;
      if (signals_index_path && path == *signals_index_path) continue;
      if (manifest_file_is_sync_excluded(entry, siblings_)) continue;
      LocalPresence presence = LocalPresence::unknown;
      std::string local_path = locals.resolve(path, nullptr, &presence);
      std::optional<ManifestFiles::Entry> local_info;
      if (same_era_local) local_info = local->files().find(path);
      if (presence == LocalPresence::unknown && local_copy_is_current(path, local_path, entry, local_info)) {
        continue;
      }
      plan.jobs.push_back(DownloadJob::for_manifest(manifest, entry));
    }

    // Space. The vocabularies are downloaded at the commit, through the same
    // staging files: a partial one left by an interrupted sync is resumed there.
    plan.vocabulary_paths = vocabulary_manifest_paths(manifest.files());
    {
      std::vector<std::string> resumable;
      resumable.reserve(plan.jobs.size() + plan.vocabulary_paths.size());
      for (const auto& job : plan.jobs) resumable.push_back(job.path);
      resumable.insert(resumable.end(), plan.vocabulary_paths.begin(), plan.vocabulary_paths.end());
      cleanup_sync_tmp_files(m_.settings_.data_dir, resumable, &m_.tmp_scan_memo_,
                             {&manifest.files(), local ? &local->files() : nullptr});
    }
    plan.needed_bytes = require_disk_space(m_.settings_.data_dir, plan.jobs, manifest.files(), server.free_bytes, siblings_);
    return plan;
  }

  // A local file is kept when the held manifest lists it unchanged and it
  // still matches, or when its digest is the one the server lists.
  bool local_copy_is_current(const std::string& path, const std::string& local_path,
                             const ManifestFiles::Entry& entry, const std::optional<ManifestFiles::Entry>& local_info) {
    const std::string kind(entry.kind());
    const bool exists = path_exists(local_path);
    if (local_info && local_info->same_info(entry) && exists && kind != "vault_module") {
      if (m_.local_file_matches_manifest(path, local_path, entry, true)) return true;
      log_info("Manifest-tracked local file failed integrity check; re-downloading: %s", {json::value(path)});
      return false;
    }
    if (!exists || kind == "vault_module") return false;
    const std::string expected = entry.sha256();
    if (expected.empty()) return false;
    std::optional<std::string> actual = m_.hash_cache_.cached_sha(path, local_path, expected);
    if (!actual) {
      try {
        std::string digest = sha256_file(local_path);
        m_.hash_cache_.remember(path, local_path, digest);
        actual = digest;
      } catch (const OSError&) {
      }
    }
    return actual && *actual == expected && m_.local_file_matches_manifest(path, local_path, entry, true);
  }

  // False when found PnL files that storage no longer has were met: they
  // are remembered as missing, what this pass downloaded is added to the
  // earlier passes', and the caller runs another pass.
  bool download(const ServerManifest& server, DownloadPlan& plan) {
    if (plan.jobs.empty()) return true;
    write_download_progress(m_.settings_.data_dir, *server.manifest, plan.jobs, siblings_);
    m_.progress_.start("download", static_cast<std::int64_t>(plan.jobs.size()), plan.needed_bytes);
    struct FinishProgress {
      ProgressFeed& feed;
      ~FinishProgress() { feed.finish(); }
    } finish_progress{m_.progress_};
    // A found PnL file that storage no longer has is set aside while the
    // other downloads go on, so one pass meets all of them.
    Mutex missing_mu;
    std::set<std::string> missing;  // guarded by missing_mu while the downloads run
    const ManifestFiles& files = server.manifest->files();
    auto set_aside_missing_found_pnl = [&](const std::string&, const std::exception_ptr& error) {
      try {
        std::rethrow_exception(error);
      } catch (const PermanentDownloadError& e) {
        std::optional<std::string> path = missing_found_pnl_download_path(e, files);
        if (!path) return false;
        MutexLock lock(missing_mu);
        missing.insert(*path);
        return true;
      } catch (...) {
        return false;
      }
    };
    m_.download_files_parallel(plan.jobs, plan.result, set_aside_missing_found_pnl);
    if (missing.empty()) return true;
    for (const auto& path : missing) {
      missing_.paths.insert(path);
      remove_manifest_tmp_file(m_.settings_.data_dir, path);
    }
    missing_.manifest_version = server.manifest->version_int();
    remove_sync_progress_json(m_.settings_.data_dir);
    log_warning(
        "Manifest signal PnL artifact is missing from storage; excluding stale membership entry and retrying sync: %s",
        {json::value(listed_briefly(missing))});
    earlier_.bytes_downloaded += plan.result.bytes_downloaded;
    earlier_.features_downloaded += plan.result.features_downloaded;
    for (auto& path : plan.result.found_pnl_paths_downloaded) earlier_.found_pnl_paths_downloaded.push_back(std::move(path));
    return false;
  }

  // The downloaded files told to the freshness guard, the era artifacts
  // fetched, then the commit.
  SyncResult commit_downloads(ServerManifest& server, DownloadPlan& plan) {
    SyncResult& result = plan.result;
    result.useful_signals_downloaded = distinct_groups(plan.jobs, path_of, "useful_signals", siblings_.epochs);
    if (HostRef guard = m_.runtime_freshness_guard()) {
      for (const auto& job : plan.jobs) {
        json::object kwargs;
        kwargs["relative_path"] = job.path;
        std::optional<ManifestFiles::Entry> entry = server.manifest->files().find(job.path);
        kwargs["kind"] = entry ? std::string(entry->kind()) : std::string();
        kwargs["sha256"] = entry ? entry->sha256() : std::string();
        host().call_method(guard, "record_sync_update", {}, kwargs);
      }
    }
    // The jobs are done with: their memory goes back before the era
    // artifacts are read and the manifest is written, and so does what the
    // workers' allocator arenas kept of the download's buffers (free pages
    // they would otherwise hold on to until the process ends).
    DownloadSet().swap(plan.jobs);
    malloc_trim(0);
    m_.download_signals_index(*server.manifest, result);
    exclude_missing_found_pnl(server.manifest);
    Manifest& manifest = *server.manifest;
    load_manifest_signals_index(m_.settings_.data_dir, manifest);
    bool vocabulary_due = false;
    try {
      m_.validated_vocabularies(manifest);
    } catch (const SyncError&) {
      vocabulary_due = true;
    }
    if (vocabulary_due) result.vocabulary_downloaded = m_.download_vocabulary(manifest);
    for (const auto& path : plan.vocabulary_paths) remove_manifest_tmp_file(m_.settings_.data_dir, path);  // not needed after all
    result.shuffle_seed_downloaded = m_.download_shuffle_seed(manifest);
    result.n_useful_signals = distinct_groups(manifest.files(), key_of, "useful_signals", siblings_.epochs);
    result.n_found_strategies = distinct_groups(manifest.files(), key_of, "found_strategies", siblings_.epochs);
    Commit commit;
    commit.manifest = server.manifest;
    commit.body_sha = server.body_sha;
    commit.rotation = &server.rotation;
    commit.result = std::move(result);
    commit.clear_progress = true;
    return this->commit(std::move(commit));
  }

  // Every exit with a result ends here: the manifest written after one
  // flush of everything it vouches for, then held with its vocabularies,
  // the rotation promoted, and what is left of staging files cleaned.
  SyncResult commit(Commit c) {
    if (c.body_sha) {
      sync_file_system(m_.settings_.data_dir);  // what the manifest vouches for is durable first
      write_manifest_json(m_.settings_.data_dir, *c.manifest, *c.body_sha, *c.body_sha);
      m_.hash_cache_.persist();
    }
    if (c.clear_progress) remove_sync_progress_json(m_.settings_.data_dir);
    std::shared_ptr<const json::object> vocabularies =
        c.vocabularies ? std::move(c.vocabularies) : m_.validated_vocabularies(*c.manifest);
    m_.held_.commit(c.replaces, c.manifest, vocabularies);
    SyncResult result = std::move(c.result);
    take_vocabulary_metadata(result, *vocabularies);
    result.n_features = c.n_features ? *c.n_features : count_features(*c.manifest, siblings_);
    m_.complete_rotation_promotion(c.promoted_for ? *c.promoted_for : *c.manifest, *c.rotation, result);
    if (!c.tmp_scan_files.empty()) {
      cleanup_sync_tmp_files(m_.settings_.data_dir, {}, &m_.tmp_scan_memo_, c.tmp_scan_files);
    }
    return result;
  }

  SyncResult result_for(const Manifest& manifest) const {
    SyncResult result;
    result.era_number = manifest.era_number_int();
    result.pnl_column_count = to_int(manifest.pnl_column_count()).value_or(0);
    result.rejected_files = rejected_manifest_paths(manifest);
    return result;
  }

  ShuffleSeedExpectations seed_expectations(const Manifest& manifest) const {
    return ShuffleSeedExpectations{manifest.era_number_int(),
                                   manifest_positive_int(manifest, "market_id").value_or(m_.settings_.market_id),
                                   manifest_positive_int(manifest, "version"),
                                   shuffle_seed_generation_for_manifest(manifest)};
  }

  SyncManager& m_;
  SyncResult& earlier_;
  MissingFoundPnl& missing_;
  const ManifestSiblings siblings_;
};

std::optional<SyncResult> SyncManager::sync_pass(SyncResult& earlier) {
  return SyncPipeline(*this, earlier, missing_found_pnl_).run();
}

}  // namespace tidewright::sync
