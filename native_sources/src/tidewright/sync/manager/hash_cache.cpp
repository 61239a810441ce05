#include "tidewright/sync/manager/hash_cache.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"


namespace tidewright::sync {

namespace {

json::object entry_for(const std::string& sha, const StatKey& key) {
  json::object e;
  e["sha256"] = sha;
  e["size_bytes"] = key.size;
  e["mtime_ns"] = key.mtime_ns;
  e["ctime_ns"] = key.ctime_ns;
  e["inode"] = key.inode;
  return e;
}

std::optional<std::int64_t> int_field(const json::object& e, const char* name) {
  const json::value* v = e.if_contains(name);
  if (!v) return std::nullopt;
  return to_int(*v);
}

}  // namespace

HashCache::HashCache(std::string path) : path_(std::move(path)) {}

HashCache::Entry HashCache::make_entry(json::value stored) {
  Entry entry;
  if (const json::object* e = as_object(&stored)) {
    auto size = int_field(*e, "size_bytes");
    auto mtime = int_field(*e, "mtime_ns");
    auto ctime = int_field(*e, "ctime_ns");
    auto inode = int_field(*e, "inode");
    const json::value* sha = e->if_contains("sha256");
    if (size && mtime && ctime && inode && sha && sha->is_string()) {
      entry.key = StatKey{*size, *mtime, *ctime, *inode};
      entry.sha256 = std::string(sha->get_string());
    }
  }
  entry.stored = std::move(stored);
  return entry;
}

bool HashCache::trusted(const Entry& entry, const StatKey& key, const std::string& expected_sha) {
  return entry.key && *entry.key == key && entry.sha256 == expected_sha && key.mtime_ns < entry.hashed_at_ns &&
         key.ctime_ns < entry.hashed_at_ns;
}

json::object parse_hash_cache_text(std::string_view text) {
  json::value payload = parse_json(text);
  const json::object* obj = as_object(&payload);
  const json::value* version = obj ? obj->if_contains("version") : nullptr;
  const json::value* files = obj ? obj->if_contains("files") : nullptr;
  bool version_ok =
      version && (version->is_int64() || version->is_uint64()) && to_int(*version) == SYNC_HASH_CACHE_VERSION;
  json::object entries;
  if (!version_ok || !files || !files->is_object()) return entries;
  for (const auto& kv : files->get_object()) {
    if (kv.value().is_object()) entries[kv.key()] = kv.value();
  }
  return entries;
}

std::string hash_cache_text(json::object files) {
  json::object snapshot;
  snapshot["version"] = SYNC_HASH_CACHE_VERSION;
  snapshot["files"] = std::move(files);
  return dump_json(snapshot, {.sort_keys = true});
}

void HashCache::load() {
  boost::unordered_flat_map<std::string, Entry> loaded;
  if (path_exists(path_)) {
    std::int64_t written_at = 0;
    if (std::optional<StatKey> cache_key = try_stat_key(path_)) written_at = cache_key->mtime_ns;
    try {
      for (const auto& kv : parse_hash_cache_text(read_file(path_))) {
        Entry entry = make_entry(kv.value());
        entry.hashed_at_ns = written_at;
        loaded.emplace(std::string(kv.key()), std::move(entry));
      }
    } catch (const std::exception& e) {
      log_warning("Ignoring unreadable sync hash cache: %s", {json::value(e.what())});
      loaded.clear();
    }
  }
  std::unique_lock<std::shared_mutex> lock(mu_);
  entries_ = std::move(loaded);
  dirty_ = false;
}

std::optional<std::string> HashCache::cached_sha(const std::string& file_path, const std::string& local_path,
                                                 const std::string& expected_sha) {
  std::optional<StatKey> key = try_stat_key(local_path);
  if (!key) return std::nullopt;
  return cached_sha(file_path, *key, expected_sha);
}

std::optional<std::string> HashCache::cached_sha(const std::string& file_path, const StatKey& key,
                                                 const std::string& expected_sha) {
  std::shared_lock<std::shared_mutex> lock(mu_);
  auto it = entries_.find(file_path);
  if (it == entries_.end() || !trusted(it->second, key, expected_sha)) return std::nullopt;
  return it->second.sha256;
}

std::vector<char> HashCache::cached_batch(const std::vector<Query>& queries) {
  std::vector<char> hits(queries.size(), 0);
  std::shared_lock<std::shared_mutex> lock(mu_);
  for (std::size_t i = 0; i < queries.size(); ++i) {
    auto it = entries_.find(*queries[i].file_path);
    hits[i] = it != entries_.end() && trusted(it->second, queries[i].key, *queries[i].expected_sha);
  }
  return hits;
}

void HashCache::remember(const std::string& file_path, const std::string& local_path, const std::string& actual_sha) {
  StatKey key;
  try {
    key = stat_key(local_path);
  } catch (const std::exception&) {
    return;
  }
  json::value entry = entry_for(actual_sha, key);
  std::int64_t now = coarse_now_ns();
  std::unique_lock<std::shared_mutex> lock(mu_);
  auto it = entries_.find(file_path);
  if (it != entries_.end() && it->second.stored == entry) {
    it->second.hashed_at_ns = now;
    return;
  }
  Entry fresh = make_entry(std::move(entry));
  fresh.hashed_at_ns = now;
  entries_[file_path] = std::move(fresh);
  dirty_ = true;
}

void HashCache::persist() {
  json::object files;
  {
    std::unique_lock<std::shared_mutex> lock(mu_);
    if (!dirty_) return;
    files.reserve(entries_.size());
    for (const auto& [k, v] : entries_) files[k] = v.stored;
    dirty_ = false;
  }
  try {
    // An entry vouches for a file's bytes: they reach stable storage before
    // the entry does.
    sync_file_system(path_dirname(path_));
    atomic_write(path_, hash_cache_text(std::move(files)));
  } catch (const std::exception& e) {
    log_warning("Failed to persist sync hash cache: %s", {json::value(e.what())});
    std::unique_lock<std::shared_mutex> lock(mu_);
    dirty_ = true;
  }
}

json::object HashCache::entries() const {
  std::shared_lock<std::shared_mutex> lock(mu_);
  json::object out;
  for (const auto& [k, v] : entries_) out[k] = v.stored;
  return out;
}

bool HashCache::dirty() const {
  std::shared_lock<std::shared_mutex> lock(mu_);
  return dirty_;
}

}  // namespace tidewright::sync
