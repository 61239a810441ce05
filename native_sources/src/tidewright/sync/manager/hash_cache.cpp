#include "tidewright/sync/manager/hash_cache.hpp"

#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <time.h>

namespace tidewright::sync {

namespace {

// The file system stamps times from the coarse real-time clock.
std::int64_t coarse_now_ns() {
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

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

void HashCache::load() {
  std::unordered_map<std::string, json::value> loaded;
  std::int64_t written_at = 0;
  if (path_exists(path_)) {
    try {
      written_at = stat_key(path_).mtime_ns;
    } catch (const std::exception&) {
    }
    try {
      json::value payload = parse_json(read_file(path_));
      const json::object* obj = as_object(&payload);
      const json::value* version = obj ? obj->if_contains("version") : nullptr;
      const json::value* files = obj ? obj->if_contains("files") : nullptr;
      bool version_ok = version && (version->is_int64() || version->is_uint64()) &&
                        to_int(*version) == SYNC_HASH_CACHE_VERSION;
      if (version_ok && files && files->is_object()) {
        for (const auto& kv : files->get_object()) {
          if (kv.value().is_object()) loaded.emplace(std::string(kv.key()), kv.value());
        }
      }
    } catch (const std::exception& e) {
      log_warning("Ignoring unreadable sync hash cache: %s", {json::value(e.what())});
      loaded.clear();
    }
  }
  std::lock_guard<std::mutex> lock(mu_);
  entries_ = std::move(loaded);
  remembered_at_.clear();
  written_at_ns_ = written_at;
  dirty_ = false;
}

std::optional<std::string> HashCache::cached_sha(const std::string& file_path, const std::string& local_path,
                                                 const std::string& expected_sha) {
  StatKey key;
  try {
    key = stat_key(local_path);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  std::lock_guard<std::mutex> lock(mu_);
  auto it = entries_.find(file_path);
  if (it == entries_.end() || !it->second.is_object()) return std::nullopt;
  const json::object& e = it->second.get_object();
  auto size = int_field(e, "size_bytes");
  auto mtime = int_field(e, "mtime_ns");
  auto ctime = int_field(e, "ctime_ns");
  auto inode = int_field(e, "inode");
  if (!size || !mtime || !ctime || !inode) return std::nullopt;
  if (*size != key.size || *mtime != key.mtime_ns || *ctime != key.ctime_ns || *inode != key.inode) {
    return std::nullopt;
  }
  auto when = remembered_at_.find(file_path);
  std::int64_t hashed_at = when != remembered_at_.end() ? when->second : written_at_ns_;
  if (key.mtime_ns >= hashed_at || key.ctime_ns >= hashed_at) return std::nullopt;  // racy: hash again
  const json::value* sha = e.if_contains("sha256");
  if (!sha || !sha->is_string() || sha->get_string() != expected_sha) return std::nullopt;
  return std::string(sha->get_string());
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
  std::lock_guard<std::mutex> lock(mu_);
  remembered_at_[file_path] = now;
  auto it = entries_.find(file_path);
  if (it != entries_.end() && it->second == entry) return;
  entries_[file_path] = std::move(entry);
  dirty_ = true;
}

void HashCache::persist() {
  json::object snapshot;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!dirty_) return;
    json::object files;
    files.reserve(entries_.size());
    for (const auto& [k, v] : entries_) files[k] = v;
    snapshot["version"] = SYNC_HASH_CACHE_VERSION;
    snapshot["files"] = std::move(files);
    dirty_ = false;
  }
  try {
    atomic_write(path_, dump_json(snapshot, {.sort_keys = true}));
    std::int64_t written_at = stat_key(path_).mtime_ns;
    std::lock_guard<std::mutex> lock(mu_);
    written_at_ns_ = written_at;
  } catch (const std::exception& e) {
    log_warning("Failed to persist sync hash cache: %s", {json::value(e.what())});
    std::lock_guard<std::mutex> lock(mu_);
    dirty_ = true;
  }
}

json::object HashCache::entries() const {
  std::lock_guard<std::mutex> lock(mu_);
  json::object out;
  for (const auto& [k, v] : entries_) out[k] = v;
  return out;
}

bool HashCache::dirty() const {
  std::lock_guard<std::mutex> lock(mu_);
  return dirty_;
}

}  // namespace tidewright::sync
