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
  return [&rotation](const std::string& path, const json::value&) { return !rotation.covers(path); };
}

std::string kind_of(const json::value& info) {
  if (const json::object* obj = as_object(&info)) {
    if (const json::value* k = obj->if_contains("kind"); k && k->is_string()) return std::string(k->get_string());
  }
  return "";
}

std::optional<std::string> manifest_hash_from(const json::object& body) {
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    const json::value* v = body.if_contains(key);
    if (v && !v->is_null()) return python_str(*v);
  }
  return std::nullopt;
}

// Counts of distinct pool groups ("<dir>/<pool>/<id>") under `dir`.
template <typename Paths>
std::int64_t distinct_groups(const Paths& paths, std::string_view dir, const EpochNames& epochs) {
  std::set<std::string> groups;
  for (const auto& path : paths) {
    std::optional<std::string> key = agent_signal_group_key(path, "", epochs);
    if (key && key->rfind(std::string(dir) + "/", 0) == 0) groups.insert(*key);
  }
  return static_cast<std::int64_t>(groups.size());
}

std::int64_t count_features(const Manifest& manifest, const ManifestSiblings& siblings) {
  std::int64_t n = 0;
  for (const auto& kv : manifest.files()) {
    if (siblings.manifest_file_kind(kv.key(), kv.value()) == "feature") ++n;
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

std::vector<std::string> keys_of(const json::object& files) {
  std::vector<std::string> out;
  out.reserve(files.size());
  for (const auto& kv : files) out.emplace_back(kv.key());
  return out;
}

}  // namespace

SyncResult SyncManager::sync() {
  std::lock_guard<std::mutex> lock(sync_mu_);
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

std::optional<SyncResult> SyncManager::sync_pass(SyncResult& earlier) {
  ManifestSiblings siblings = host().manifest_siblings();

  // Clean start.
  remove_sync_progress_json(data_dir_);

  // Version probe.
  std::int64_t server_version = -1;
  std::optional<std::int64_t> server_era;
  std::optional<std::string> server_hash;
  try {
    HttpResponse probe = http_get(server_url_ + "/data/manifest/version");
    if (probe.status == 401) throw AuthError("Authentication failed: HTTP 401");
    if (probe.status == 200) {
      try {
        json::value parsed = parse_json(probe.body);
        if (!parsed.is_object()) throw ValueError("manifest version response is not a JSON object");
        const json::object& body = parsed.get_object();
        const json::value* version = body.if_contains("version");
        std::optional<std::int64_t> v = version ? to_int(*version) : std::nullopt;
        if (!v) throw ValueError("manifest version response has no integer version");
        server_version = *v;
        if (const json::value* era = body.if_contains("era_number"); era && !era->is_null()) server_era = to_int(*era);
        server_hash = manifest_hash_from(body);
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

  ManifestPtr local = get_manifest();
  std::int64_t local_version = local ? local->version_int() : -1;
  std::int64_t local_era = local ? local->era_number_int() : -1;

  // Version-matched fast path: one request in all.
  if (local && !manifest_has_agent_bundle_declarations(local->data()) &&
      !manifest_has_retired_found_pnl_long_files(local->data()) && server_version == local_version) {
    bool hint_ok = !server_hash || manifest_hash_hint_matches_local_state(data_dir_, local_version, local_era, server_hash);
    if (!hint_ok) {
      log_info("Manifest version matched but manifest hash changed; fetching full manifest");
    } else {
      try {
        if (server_era && *server_era != local_era) {
          throw EraError("Era mismatch: local era_number=" + std::to_string(local_era) +
                         ", server era_number=" + std::to_string(*server_era));
        }
        RotationPlan rotation = plan_feature_rotation_for_sync(*local, free_disk_bytes(data_dir_));
        std::shared_ptr<const json::object> vocabularies = validated_vocabularies(*local);
        ShuffleSeedExpectations expect{local_era,
                                       manifest_positive_int(*local, "market_id").value_or(market_id_),
                                       manifest_positive_int(*local, "version"),
                                       shuffle_seed_generation_for_manifest(*local)};
        validate_shuffle_seed_file(path_join(data_dir_, SHUFFLE_SEED_FILENAME), expect);
        std::int64_t n_features = 0;
        if (first_local_mismatch(*local, siblings, uncovered_by(rotation), &n_features)) {
          throw SyncError("Manifest version matched but local data files need repair");
        }
        replace_held_manifest(local, with_local_signals_index(local));
        SyncResult result;
        result.era_number = local_era;
        result.pnl_column_count = to_int(local->pnl_column_count()).value_or(0);
        result.n_features = n_features;
        result.rejected_files = rejected_manifest_paths(*local);
        take_vocabulary_metadata(result, *vocabularies);
        {
          std::lock_guard<std::mutex> lock(state_mu_);
          vocabulary_ = vocabularies;
        }
        complete_rotation_promotion(*local, rotation, result);
        cleanup_sync_tmp_files(data_dir_, {}, &tmp_scan_memo_, {&local->files()});
        return result;
      } catch (const SyncUnavailableError&) {
        throw;
      } catch (const SyncError& e) {
        log_warning("Manifest version matched but local metadata needs repair: %s", {json::value(e.what())});
      }
    }
  }

  // Full manifest.
  FetchedManifest fetched;
  {
    ScopedSyncStopPredicate stop([this] { return stop_requested(); });
    fetched = fetch_manifest(server_url_ + "/data/manifest", fetch_token());
  }
  if (fetched.status == 401) throw AuthError("Authentication failed: HTTP " + std::to_string(fetched.status));
  if (fetched.status != 200) {
    // A SyncError that carries the status (a 403 is a refusal, a 404 a wrong
    // address): callers classify by the field, not by the message.
    throw PermanentDownloadError("Failed to fetch manifest: HTTP " + std::to_string(fetched.status), std::nullopt,
                                 fetched.status);
  }
  if (const json::value* files = fetched.data.if_contains("files"); files && !files->is_object() && !files->is_null()) {
    throw ManifestError("Invalid manifest JSON: \"files\" must be a JSON object");
  }
  // Moved, not copied, from here on: one set of the manifest's values at a time.
  std::vector<RejectedManifestEntry> rejected;
  json::object server_data = sanitize_manifest_data_for_sync(std::move(fetched.data), siblings, nullptr, &rejected);
  std::string body_sha = std::move(fetched.body_sha256);
  if (auto newer = newer_public_manifest(server_data)) {
    server_data = sanitize_manifest_data_for_sync(std::move(newer->first), siblings, nullptr, &rejected);
    body_sha = sha256(newer->second);
  }
  // The side file records the hash of the bytes kept, not the probe's hint:
  // it says which manifest is on disk, and the hint may name another one
  // (the API's when the public manifest was newer, or an older one the
  // server has moved on from since the probe).

  std::int64_t fetched_version = to_int(server_data.contains("version") ? server_data.at("version") : json::value(0)).value_or(-1);
  if (missing_found_pnl_manifest_version_ != fetched_version) {
    missing_found_pnl_paths_.clear();
    missing_found_pnl_manifest_version_.reset();
  }
  if (!missing_found_pnl_paths_.empty()) {
    server_data = drop_missing_found_pnl_paths(
        server_data, std::vector<std::string>(missing_found_pnl_paths_.begin(), missing_found_pnl_paths_.end()));
  }
  ManifestPtr server = Manifest::from_sanitized(std::move(server_data), std::move(rejected));
  log_rejected_manifest_entries(*server);
  if (local && server->era_number_int() != local_era) {
    throw EraError("Era mismatch: local era_number=" + std::to_string(local_era) +
                   ", server era_number=" + std::to_string(server->era_number_int()));
  }
  std::int64_t free_bytes = free_disk_bytes(data_dir_);
  RotationPlan rotation = plan_feature_rotation_for_sync(*server, free_bytes);

  // Found PnL files that storage no longer has leave the manifest and the
  // signals index, which gets a new content address. The index as the
  // server published it must be on disk: the scrub rewrites that file.
  auto exclude_missing_found_pnl = [this](ManifestPtr& manifest) {
    if (missing_found_pnl_paths_.empty()) return;
    std::vector<std::string> missing(missing_found_pnl_paths_.begin(), missing_found_pnl_paths_.end());
    json::object data = drop_missing_found_pnl_paths(manifest->data(), missing);
    if (auto update = scrub_missing_found_pnl_paths_from_signals_index(data_dir_, data, missing)) {
      record_scrubbed_signals_index_update(*update);
    }
    manifest = Manifest::from_sanitized(std::move(data), manifest->rejected_entries());
  };

  // Nothing new: the local manifest is current; check the files and the
  // era artifacts.
  std::optional<std::string> signals_index_path = manifest_signals_index_path(*server);
  if (local && local_version >= server->version_int() && local_era == server->era_number_int()) {
    bool vocabulary_due = false;
    bool seed_due = false;
    bool files_ok = true;
    try {
      validated_vocabularies(*server);
    } catch (const SyncError&) {
      vocabulary_due = true;
    }
    try {
      ShuffleSeedExpectations expect{server->era_number_int(),
                                     manifest_positive_int(*server, "market_id").value_or(market_id_),
                                     manifest_positive_int(*server, "version"),
                                     shuffle_seed_generation_for_manifest(*server)};
      validate_shuffle_seed_file(path_join(data_dir_, SHUFFLE_SEED_FILENAME), expect);
    } catch (const SyncError&) {
      seed_due = true;
    }
    if (first_local_mismatch(*server, siblings, uncovered_by(rotation))) {
      log_warning("Manifest version matched but local data files need repair");
      files_ok = false;
    }
    if (files_ok) {
      SyncResult result;
      result.era_number = server->era_number_int();
      result.pnl_column_count = to_int(server->pnl_column_count()).value_or(0);
      result.rejected_files = rejected_manifest_paths(*server);
      if (vocabulary_due) result.vocabulary_downloaded = download_vocabulary(*server);
      if (seed_due) result.shuffle_seed_downloaded = download_shuffle_seed(*server);
      if (vocabulary_due || seed_due) download_signals_index(*server, result);
      exclude_missing_found_pnl(server);
      std::shared_ptr<const json::object> vocabularies = validated_vocabularies(*server);
      load_manifest_signals_index(data_dir_, *server);
      sync_file_system(data_dir_);  // what the manifest vouches for is durable first
      write_manifest_json(data_dir_, server->data(), body_sha, body_sha);
      hash_cache_.persist();
      take_vocabulary_metadata(result, *vocabularies);
      result.n_features = count_features(*server, siblings);
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        vocabulary_ = std::move(vocabularies);
        manifest_ = server;
      }
      complete_rotation_promotion(*server, rotation, result);
      cleanup_sync_tmp_files(data_dir_, {}, &tmp_scan_memo_, {&server->files(), &local->files()});
      return result;
    }
  }

  // The download set.
  SyncResult result;
  result.era_number = server->era_number_int();
  result.pnl_column_count = to_int(server->pnl_column_count()).value_or(0);
  result.rejected_files = rejected_manifest_paths(*server);
  DownloadSet to_download;
  std::vector<std::string> to_download_paths;
  bool same_era_local = local && local_era == server->era_number_int();
  ManifestLocalPaths locals(data_dir_);
  for (const auto& kv : server->files()) {
    std::string path(kv.key());
    if (!rotation.covers(path)) continue;
    if (vocabulary_named_universe_from_path(path)) continue;
    if (signals_index_path && path == *signals_index_path) continue;
    if (manifest_file_is_sync_excluded(path, kv.value(), siblings)) continue;
    std::string local_path = locals.resolve(path);
    std::string kind = kind_of(kv.value());
    const json::value* local_info = same_era_local ? local->files().if_contains(path) : nullptr;
    bool exists = path_exists(local_path);
    if (local_info && *local_info == kv.value() && exists && kind != "vault_module") {
      if (local_file_matches_manifest(path, local_path, kv.value(), true)) continue;
      log_info("Manifest-tracked local file failed integrity check; re-downloading: %s", {json::value(path)});
    } else if (exists && kind != "vault_module") {
      const json::object* info = as_object(&kv.value());
      const json::value* sha_value = info ? info->if_contains("sha256") : nullptr;
      std::string expected = sha_value && sha_value->is_string() ? std::string(sha_value->get_string()) : "";
      if (!expected.empty()) {
        std::optional<std::string> actual = hash_cache_.cached_sha(path, local_path, expected);
        if (!actual) {
          try {
            std::string digest = sha256_file(local_path);
            hash_cache_.remember(path, local_path, digest);
            actual = digest;
          } catch (const OSError&) {
          }
        }
        if (actual && *actual == expected &&
            local_file_matches_manifest(path, local_path, kv.value(), true)) {
          continue;
        }
      }
    }
    to_download_paths.push_back(path);
    to_download.push_back(DownloadJob::for_manifest(*server, path, kv.value()));
  }

  // Space. The vocabularies are downloaded at the commit, through the same
  // staging files: a partial one left by an interrupted sync is resumed there.
  std::vector<std::string> resumable = to_download_paths;
  const std::vector<std::string> vocabulary_paths = vocabulary_manifest_paths(server->files());
  resumable.insert(resumable.end(), vocabulary_paths.begin(), vocabulary_paths.end());
  cleanup_sync_tmp_files(data_dir_, resumable, &tmp_scan_memo_,
                         {&server->files(), local ? &local->files() : nullptr});
  const std::int64_t needed = require_disk_space(data_dir_, to_download, server->files(), free_bytes, siblings);

  // Download.
  if (!to_download.empty()) {
    write_download_progress(data_dir_, *server, to_download, siblings);
    progress_.start("download", static_cast<std::int64_t>(to_download.size()), needed);
    struct FinishProgress {
      ProgressFeed& feed;
      ~FinishProgress() { feed.finish(); }
    } finish_progress{progress_};
    // A found PnL file that storage no longer has is set aside while the
    // other downloads go on, so one pass meets all of them.
    std::mutex missing_mu;
    std::set<std::string> missing;  // guarded by missing_mu
    auto set_aside_missing_found_pnl = [&](const std::string&, const std::exception_ptr& error) {
      try {
        std::rethrow_exception(error);
      } catch (const PermanentDownloadError& e) {
        std::optional<std::string> path = missing_found_pnl_download_path(e, server->files());
        if (!path) return false;
        std::lock_guard<std::mutex> lock(missing_mu);
        missing.insert(*path);
        return true;
      } catch (...) {
        return false;
      }
    };
    download_files_parallel(to_download, result, set_aside_missing_found_pnl);
    if (!missing.empty()) {
      for (const auto& path : missing) {
        missing_found_pnl_paths_.insert(path);
        remove_manifest_tmp_file(data_dir_, path);
      }
      missing_found_pnl_manifest_version_ = server->version_int();
      remove_sync_progress_json(data_dir_);
      log_warning(
          "Manifest signal PnL artifact is missing from storage; excluding stale membership entry and retrying sync: %s",
          {json::value(listed_briefly(missing))});
      earlier.bytes_downloaded += result.bytes_downloaded;
      earlier.features_downloaded += result.features_downloaded;
      for (auto& path : result.found_pnl_paths_downloaded) earlier.found_pnl_paths_downloaded.push_back(std::move(path));
      return std::nullopt;
    }
  }

  // Commit.
  if (HostRef guard = runtime_freshness_guard()) {
    for (const auto& job : to_download) {
      json::object kwargs;
      kwargs["relative_path"] = job.path;
      const json::value* entry = server->files().if_contains(job.path);
      kwargs["kind"] = entry ? kind_of(*entry) : std::string();
      const json::value* sha = entry && entry->is_object() ? entry->get_object().if_contains("sha256") : nullptr;
      kwargs["sha256"] = sha && sha->is_string() ? *sha : json::value("");
      host().call_method(guard, "record_sync_update", {}, kwargs);
    }
  }
  download_signals_index(*server, result);
  exclude_missing_found_pnl(server);
  load_manifest_signals_index(data_dir_, *server);
  result.useful_signals_downloaded = distinct_groups(to_download_paths, "useful_signals", siblings.epochs);
  bool vocabulary_due = false;
  try {
    validated_vocabularies(*server);
  } catch (const SyncError&) {
    vocabulary_due = true;
  }
  if (vocabulary_due) result.vocabulary_downloaded = download_vocabulary(*server);
  for (const auto& path : vocabulary_paths) remove_manifest_tmp_file(data_dir_, path);  // not needed after all
  result.shuffle_seed_downloaded = download_shuffle_seed(*server);
  // One flush for everything promoted by this sync, before the manifest that
  // vouches for it.
  sync_file_system(data_dir_);
  write_manifest_json(data_dir_, server->data(), body_sha, body_sha);
  hash_cache_.persist();
  remove_sync_progress_json(data_dir_);
  std::shared_ptr<const json::object> vocabularies = validated_vocabularies(*server);
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    manifest_ = server;
    vocabulary_ = vocabularies;
  }
  take_vocabulary_metadata(result, *vocabularies);
  complete_rotation_promotion(*server, rotation, result);
  result.n_features = count_features(*server, siblings);
  std::vector<std::string> all_paths = keys_of(server->files());
  result.n_useful_signals = distinct_groups(all_paths, "useful_signals", siblings.epochs);
  result.n_found_strategies = distinct_groups(all_paths, "found_strategies", siblings.epochs);
  return result;
}

}  // namespace tidewright::sync
