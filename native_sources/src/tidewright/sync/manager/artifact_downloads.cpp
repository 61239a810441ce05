// Downloading the era artifacts: vocabularies (with repair of stale manifest
// entries), the signals index and the shuffle seed.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/functions_file.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <cctype>

namespace tidewright::sync {

namespace {

std::string lower_stripped(const json::value* v) {
  if (!v || v->is_null()) return "";
  std::string s = strip_ws(python_str(*v));
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::optional<std::string> text_field(const json::object& entry, const char* key) {
  const json::value* v = entry.if_contains(key);
  if (v && v->is_string() && !v->get_string().empty()) return std::string(v->get_string());
  return std::nullopt;
}

}  // namespace

std::optional<json::object> SyncManager::vocabulary() const {
  std::shared_ptr<const json::object> vocabularies = held_.vocabularies();
  if (!vocabularies) return std::nullopt;
  return *vocabularies;
}

std::shared_ptr<const json::object> SyncManager::validated_vocabularies(const Manifest& manifest) {
  // The key names everything the validation reads: the era, the pointers
  // and entries of the manifest, and the identity of each local file. A
  // file that cannot be found makes no key; the validation then reports it.
  std::string key = std::to_string(manifest.era_number_int()) + "\n" + dump_json(manifest.functions());
  std::vector<std::string> paths = vocabulary_manifest_paths(manifest.files());
  paths.emplace_back(FUNCTIONS_FILENAME);
  bool cacheable = true;
  for (const auto& path : paths) {
    std::optional<ManifestFiles::Entry> entry = manifest.files().find(path);
    std::optional<StatKey> identity;
    try {
      identity = try_stat_key(manifest_local_path(settings_.data_dir, path));
    } catch (const ManifestError&) {
    }
    if (!identity) {
      cacheable = false;
      break;
    }
    key += "\n" + path + "\n" + (entry ? dump_json(entry->info()) : std::string("-")) + "\n" +
           std::to_string(identity->size) + " " + std::to_string(identity->mtime_ns) + " " +
           std::to_string(identity->ctime_ns) + " " + std::to_string(identity->inode);
  }
  if (cacheable) {
    if (std::shared_ptr<const json::object> remembered = vocabulary_memo_.find(key)) return remembered;
  }
  auto vocabularies = std::make_shared<const json::object>(validate_manifest_vocabulary_files(settings_.data_dir, manifest));
  if (cacheable) vocabulary_memo_.remember(std::move(key), vocabularies);
  return vocabularies;
}

void SyncManager::repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path,
                                                   std::string_view body, const std::optional<std::string>& reason,
                                                   bool allow_sha_mismatch) {
  std::string actual_sha = sha256(body);
  auto actual_size = static_cast<std::int64_t>(body.size());
  ManifestFiles& files = server_manifest.mutable_files();
  std::optional<ManifestFiles::Entry> listed = files.find(file_path);
  json::value slot = listed ? listed->info() : json::value(json::object());
  if (!slot.is_object()) slot = json::object();
  json::object& entry = slot.get_object();
  const json::value* expected_sha = entry.if_contains("sha256");
  const json::value* expected_size = entry.if_contains("size_bytes");
  bool sha_equal = expected_sha && expected_sha->is_string() && expected_sha->get_string() == actual_sha;
  bool size_equal = expected_size && to_int(*expected_size) == actual_size;
  if (sha_equal && size_equal) return;
  if (!allow_sha_mismatch) throw IntegrityError("Refusing to repair vocabulary manifest hash for " + file_path);
  const json::value shown_sha = expected_sha ? *expected_sha : json::value(nullptr);
  const json::value shown_size = expected_size ? *expected_size : json::value(nullptr);
  entry["sha256"] = actual_sha;
  entry["size_bytes"] = actual_size;
  files.set(file_path, std::move(slot));
  log_warning("Manifest vocabulary metadata repaired for %s: expected sha=%s size=%s, actual sha=%s size=%s; %s",
              {json::value(file_path), shown_sha, shown_size, json::value(actual_sha), json::value(actual_size),
               json::value(reason.value_or("validated vocabulary bytes"))});
}

bool SyncManager::download_vocabulary(Manifest& server_manifest, const std::optional<std::string>& target_data_dir) {
  const std::string target = target_data_dir.value_or(settings_.data_dir);
  ManifestSiblings siblings = host().manifest_siblings();
  std::vector<std::string> paths = vocabulary_manifest_paths(server_manifest.files());
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  std::int64_t era = server_manifest.era_number_int();
  ManifestPtr held = get_manifest();
  bool downloaded = false;
  json::object validated;
  for (const auto& path : paths) {
    std::string universe = *vocabulary_named_universe_from_path(path);
    std::string local = manifest_local_path(target, path);
    json::object entry;
    if (std::optional<ManifestFiles::Entry> listed = server_manifest.files().find(path)) {
      json::value info = listed->info();
      if (info.is_object()) entry = std::move(info.get_object());
    }
    if (!entry.contains("base_url")) {
      std::optional<std::string> base = held ? held->base_url_text() : server_manifest.base_url_text();
      entry["base_url"] = base ? json::value(*base) : json::value(nullptr);
    }
    entry["_manifest_version"] = server_manifest.version_int();
    entry["_manifest_era_number"] = era;
    if (path_exists(local)) {
      try {
        std::string body = read_file(local);
        validated[universe] = validate_vocabulary_bytes(body, era, universe, siblings);
        repair_vocabulary_manifest_entry(server_manifest, path, body, std::nullopt, false);
        continue;
      } catch (const SyncError& e) {
        log_warning("Local vocabulary %s failed validation; re-downloading: %s",
                    {json::value(path), json::value(e.what())});
      } catch (const OSError& e) {
        log_warning("Local vocabulary %s failed validation; re-downloading: %s",
                    {json::value(path), json::value(e.what())});
      }
    }
    SyncResult scratch;
    DownloadOptions options;
    options.target_data_dir = target;
    options.retry_partial_transfer = false;
    options.retry_checksum_mismatch = false;
    try {
      download_file(DownloadJob::from_entry(path, entry), scratch, options);
    } catch (const IntegrityError&) {
      std::string tmp = local + ".tmp";
      if (!path_exists(tmp)) throw;
      try {
        std::string body = read_file(tmp);
        validate_vocabulary_bytes(body, era, universe, siblings);
        repair_vocabulary_manifest_entry(server_manifest, path, body, "validated vocabulary bytes after checksum failure",
                                         true);
        rename_file(tmp, local);
      } catch (const SyncError&) {
        remove_manifest_tmp_file(target, path);
        throw;
      }
    }
    if (!path_exists(local)) throw SyncError("Failed to download vocabulary: " + path + " was not written");
    try {
      std::string body = read_file(local);
      validated[universe] = validate_vocabulary_bytes(body, era, universe, siblings);
      repair_vocabulary_manifest_entry(server_manifest, path, body, std::nullopt, true);
    } catch (...) {
      try {
        remove_file(local);
      } catch (const std::exception&) {
      }
      throw;
    }
    downloaded = true;
  }
  held_.set_vocabularies(std::make_shared<const json::object>(std::move(validated)));
  return downloaded;
}

bool SyncManager::download_validated_vocabulary_repair(const std::string& file_path, const json::object& file_info,
                                                       SyncResult& result) {
  ManifestPtr held = get_manifest();
  std::optional<std::string> base = text_field(file_info, "_manifest_base_url");
  if (!base) base = text_field(file_info, "base_url");
  if (!base && held) base = held->base_url_text();
  std::string url = manifest_file_url(settings_.server_url, file_path, base);
  HttpResponse response = manifest_base_url_uses_public_download(settings_.server_url, base) ? http_get_public(url) : http_get(url);
  if (response.status != 200) return false;
  std::int64_t era = held ? held->era_number_int() : -1;
  if (const json::value* e = file_info.if_contains("_manifest_era_number")) era = to_int(*e).value_or(era);
  std::optional<std::string> universe = vocabulary_named_universe_from_path(file_path);
  validate_vocabulary_bytes(response.body, era, universe, host().manifest_siblings());
  std::string expected_sha = lower_stripped(file_info.if_contains("sha256"));
  if (!expected_sha.empty() && expected_sha != sha256(response.body)) {
    throw IntegrityError("Checksum failure for " + file_path);
  }
  if (const json::value* size = file_info.if_contains("size_bytes")) {
    if (to_int(*size) != static_cast<std::int64_t>(response.body.size())) {
      throw IntegrityError("Size failure for " + file_path);
    }
  }
  std::string local = manifest_local_write_path(settings_.data_dir, file_path);
  atomic_write(local, response.body);
  hash_cache_.remember(file_path, local, sha256(response.body));
  result.bytes_downloaded += static_cast<std::int64_t>(response.body.size());
  log_sync_event("vocabulary_downloaded", file_path, 1, "validated_repair",
                 {{"size_bytes", static_cast<std::int64_t>(response.body.size())}});
  return true;
}

bool SyncManager::download_signals_index(Manifest& server_manifest, SyncResult& result,
                                         const std::optional<std::string>& target_data_dir) {
  std::optional<std::string> path = manifest_signals_index_path(server_manifest);
  if (!path) return false;
  const std::string target = target_data_dir.value_or(settings_.data_dir);
  const json::value info = server_manifest.files().find(*path)->info();
  const json::object& entry = info.get_object();
  std::string local = manifest_local_path(target, *path);
  if (local_file_matches_manifest(*path, local, entry, true)) {
    std::string body = read_file(local);
    validate_signals_index_bytes(body, server_manifest);
    hash_cache_.remember(*path, local, sha256(body));
    return false;
  }
  remove_manifest_tmp_file(target, *path);
  std::optional<std::string> base = text_field(entry, "base_url");
  if (!base) base = server_manifest.base_url_text();
  std::string url = manifest_file_url(settings_.server_url, *path, base);
  HttpResponse response = manifest_base_url_uses_public_download(settings_.server_url, base) ? http_get_public(url) : http_get(url);
  if (response.status != 200) raise_download_http_status(*path, json::value(response.status));
  validate_signals_index_bytes(response.body, server_manifest);
  std::string digest = sha256(response.body);
  if (digest != lower_stripped(entry.if_contains("sha256"))) throw IntegrityError("Hash failure for " + *path);
  const json::value* size = entry.if_contains("size_bytes");
  if (!size || to_int(*size) != static_cast<std::int64_t>(response.body.size())) {
    throw IntegrityError("Size failure for " + *path);
  }
  local = manifest_local_write_path(target, *path);
  atomic_write(local, response.body);
  if (target == settings_.data_dir) {
    if (HostRef guard = runtime_freshness_guard()) {
      json::object kwargs;
      kwargs["relative_path"] = *path;
      kwargs["kind"] = "signals_index";
      kwargs["sha256"] = digest;
      host().call_method(guard, "record_sync_update", {}, kwargs);
    }
  }
  hash_cache_.remember(*path, local, digest);
  result.bytes_downloaded += static_cast<std::int64_t>(response.body.size());
  return true;
}

void SyncManager::record_scrubbed_signals_index_update(const ScrubbedSignalsIndex& update) {
  log_sync_event("scrubbed_signals_index_update", update.new_relative_path, 1, "missing_found_pnl",
                 {{"old_relative_path", update.old_relative_path},
                  {"new_relative_path", update.new_relative_path},
                  {"sha256", update.sha256}});
  if (HostRef guard = runtime_freshness_guard()) {
    json::object kwargs;
    kwargs["relative_path"] = update.new_relative_path;
    kwargs["kind"] = "signals_index";
    kwargs["sha256"] = update.sha256;
    host().call_method(guard, "record_sync_update", {}, kwargs);
  }
  hash_cache_.remember(update.new_relative_path, update.local_path, update.sha256);
}

bool SyncManager::download_shuffle_seed(const Manifest& server_manifest, const std::optional<std::string>& target_data_dir) {
  const std::string target = target_data_dir.value_or(settings_.data_dir);
  const std::string path = path_join(target, SHUFFLE_SEED_FILENAME);
  ShuffleSeedExpectations expect{server_manifest.era_number_int(),
                                 manifest_positive_int(server_manifest, "market_id").value_or(settings_.market_id),
                                 manifest_positive_int(server_manifest, "version"),
                                 shuffle_seed_generation_for_manifest(server_manifest)};
  if (path_exists(path)) {
    try {
      validate_shuffle_seed_file(path, expect);
      return false;
    } catch (const SyncError& e) {
      log_warning("Local shuffle seed failed validation; re-downloading: %s", {json::value(e.what())});
    }
  }
  HttpResponse response;
  for (std::int64_t attempt = 0;; ++attempt) {
    response = http_get(settings_.server_url + "/data/shuffle");
    if (response.status == 401) throw AuthError("Authentication failed while downloading shuffle seed: HTTP 401");
    if (response.status != 200) {
      throw SyncError("Failed to download shuffle seed: HTTP " + std::to_string(response.status));
    }
    validate_response_era_header(response.headers.items, *expect.era_number, SHUFFLE_SEED_FILENAME);
    if (response.body.size() == SHUFFLE_SEED_BYTES) break;
    double wait = backoff_delay_seconds(attempt);
    emit_sync_backoff_wait("shuffle_seed_download", attempt, "partial_transfer", SHUFFLE_SEED_FILENAME, wait);
    sleep_for_sync_backoff(wait);
  }
  atomic_write(path, response.body);
  if (!path_exists(path)) throw SyncError("Failed to download shuffle seed: shuffle_seed.enc was not written");
  std::optional<std::string> header_generation = header_value(response.headers.items, SHUFFLE_KEY_GENERATION_HEADER);
  std::string generation =
      header_generation ? coerce_shuffle_key_generation(json::value(*header_generation)) : *expect.shuffle_key_generation;
  if (generation != *expect.shuffle_key_generation) {
    throw SyncError("shuffle_seed.enc response shuffle_key_generation=" + generation +
                    " does not match manifest shuffle_key_generation=" + *expect.shuffle_key_generation);
  }
  std::optional<std::string> header_source = header_value(response.headers.items, SHUFFLE_KEY_SOURCE_HEADER);
  std::optional<json::value> source;
  if (header_source) {
    source = json::value(coerce_shuffle_key_source(json::value(*header_source)));
  } else if (auto manifest_source = shuffle_seed_source_for_manifest(server_manifest)) {
    source = json::value(*manifest_source);
  }
  sync_file_system(path_dirname(path));  // the seed is durable before its metadata vouches for it
  write_shuffle_seed_metadata(path, *expect.era_number, expect.market_id, expect.manifest_version,
                              json::value(generation), source);
  validate_shuffle_seed_file(path, expect);
  return true;
}

}  // namespace tidewright::sync
