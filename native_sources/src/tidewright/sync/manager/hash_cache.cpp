#include "tidewright/sync/manager/hash_cache.hpp"

#include "tidewright/sync/common/digest.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <algorithm>
#include <iterator>

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

// The "files" object of a parsed cache file; none when the file is not a
// version-1 cache.
json::object* cache_files(json::value& payload) {
  json::object* obj = payload.if_object();
  json::value* version = obj ? obj->if_contains("version") : nullptr;
  json::value* files = obj ? obj->if_contains("files") : nullptr;
  const bool version_ok =
      version && (version->is_int64() || version->is_uint64()) && to_int(*version) == SYNC_HASH_CACHE_VERSION;
  if (!version_ok || !files) return nullptr;
  return files->if_object();
}

}  // namespace

bool HashCache::Entry::digest_equals(std::string_view sha) const {
  if (verbatim) return verbatim->sha256 == sha;
  return has_key && sha256_hex_equals(sha, digest);
}

std::string HashCache::Entry::digest_text() const {
  if (verbatim) return verbatim->sha256;
  return sha256_hex(digest);
}

json::value HashCache::Entry::stored() const {
  if (verbatim) return verbatim->stored;
  return entry_for(digest_text(), key);
}

void HashCache::Entry::append_json(std::string& out) const {
  if (verbatim) {
    tidewright::sync::append_json(out, verbatim->stored, {.sort_keys = true});
    return;
  }
  // As dump_json writes entry_for(...) with sorted keys.
  out += "{\"ctime_ns\": ";
  out += std::to_string(key.ctime_ns);
  out += ", \"inode\": ";
  out += std::to_string(key.inode);
  out += ", \"mtime_ns\": ";
  out += std::to_string(key.mtime_ns);
  out += ", \"sha256\": \"";
  append_sha256_hex(out, digest);
  out += "\", \"size_bytes\": ";
  out += std::to_string(key.size);
  out.push_back('}');
}

HashCache::HashCache(std::string path) : path_(std::move(path)) {}

std::optional<HashCache::Entry> HashCache::compact_entry(const std::string& sha, const StatKey& key) {
  std::optional<std::array<unsigned char, 32>> digest = sha256_digest_bytes(sha);
  if (!digest) return std::nullopt;
  Entry entry;
  entry.key = key;
  entry.digest = *digest;
  entry.has_key = true;
  return entry;
}

HashCache::Entry HashCache::make_entry(json::value stored) {
  if (const json::object* e = as_object(&stored)) {
    const json::value* sha = e->if_contains("sha256");
    auto int64_field = [&](const char* name) -> std::optional<std::int64_t> {
      const json::value* v = e->if_contains(name);
      return v && v->is_int64() ? std::optional<std::int64_t>(v->get_int64()) : std::nullopt;
    };
    auto size = int64_field("size_bytes");
    auto mtime = int64_field("mtime_ns");
    auto ctime = int64_field("ctime_ns");
    auto inode = int64_field("inode");
    // Exactly what remember() writes: rebuilt from its fields, it writes the same text.
    if (e->size() == 5 && size && mtime && ctime && inode && sha && sha->is_string()) {
      if (auto entry = compact_entry(std::string(sha->get_string()), StatKey{*size, *mtime, *ctime, *inode})) {
        return std::move(*entry);
      }
    }
  }
  Entry entry;
  entry.verbatim = std::make_unique<Verbatim>();
  if (const json::object* e = as_object(&stored)) {
    auto size = int_field(*e, "size_bytes");
    auto mtime = int_field(*e, "mtime_ns");
    auto ctime = int_field(*e, "ctime_ns");
    auto inode = int_field(*e, "inode");
    const json::value* sha = e->if_contains("sha256");
    if (size && mtime && ctime && inode && sha && sha->is_string()) {
      entry.key = StatKey{*size, *mtime, *ctime, *inode};
      entry.has_key = true;
      entry.verbatim->sha256 = std::string(sha->get_string());
    }
  }
  entry.verbatim->stored = std::move(stored);
  return entry;
}

bool HashCache::trusted(const Entry& entry, const StatKey& key, const std::string& expected_sha) {
  return entry.has_key && entry.key == key && entry.digest_equals(expected_sha) && key.mtime_ns < entry.hashed_at_ns &&
         key.ctime_ns < entry.hashed_at_ns;
}

json::object parse_hash_cache_text(std::string_view text) {
  json::value payload = parse_json(text);
  json::object entries;
  json::object* files = cache_files(payload);
  if (!files) return entries;
  for (auto& kv : *files) {
    if (kv.value().is_object()) entries[kv.key()] = std::move(kv.value());
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
      json::value payload = parse_json(read_file(path_));
      if (json::object* files = cache_files(payload)) {
        loaded.reserve(files->size());
        // Taken from the back, each entry's parsed values freed as it is
        // converted: the parsed file and the cache are not both held whole.
        // (A key the object held twice keeps its last value, as parsing does.)
        while (!files->empty()) {
          auto last = std::prev(files->end());
          std::string path(last->key());
          if (last->value().is_object() && !loaded.contains(path)) {
            Entry entry = make_entry(std::move(last->value()));
            entry.hashed_at_ns = written_at;
            loaded.emplace(std::move(path), std::move(entry));
          }
          files->erase(last);
        }
      }
    } catch (const std::exception& e) {
      log_warning("Ignoring unreadable sync hash cache: %s", {json::value(e.what())});
      loaded.clear();
    }
  }
  WriterLock lock(mu_);
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
  ReaderLock lock(mu_);
  auto it = entries_.find(file_path);
  if (it == entries_.end() || !trusted(it->second, key, expected_sha)) return std::nullopt;
  return it->second.digest_text();
}

std::vector<char> HashCache::cached_batch(const std::vector<Query>& queries) {
  std::vector<char> hits(queries.size(), 0);
  ReaderLock lock(mu_);
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
  remember(file_path, key, actual_sha);
}

void HashCache::remember(const std::string& file_path, const StatKey& key, const std::string& actual_sha) {
  std::optional<Entry> compact = compact_entry(actual_sha, key);
  Entry fresh = compact ? std::move(*compact) : make_entry(entry_for(actual_sha, key));
  std::int64_t now = coarse_now_ns();
  WriterLock lock(mu_);
  auto it = entries_.find(file_path);
  if (it != entries_.end() && !it->second.verbatim && !fresh.verbatim && it->second.has_key &&
      it->second.key == fresh.key && it->second.digest == fresh.digest) {
    it->second.hashed_at_ns = now;
    return;
  }
  fresh.hashed_at_ns = now;
  entries_[file_path] = std::move(fresh);
  dirty_ = true;
}

void HashCache::persist() {
  // The text is written straight from the entries, as hash_cache_text
  // writes them (sorted keys): no copy of the cache as JSON values.
  std::string text;
  {
    WriterLock lock(mu_);
    if (!dirty_) return;
    std::vector<const std::pair<const std::string, Entry>*> sorted;
    sorted.reserve(entries_.size());
    for (const auto& item : entries_) sorted.push_back(&item);
    std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) { return a->first < b->first; });
    // Sized up front: an entry in the written form takes about 190 bytes
    // besides its path, and growing by doubling would hold up to twice that.
    std::size_t size = 32;
    for (const auto* item : sorted) size += item->first.size() + 200;
    text.reserve(size);
    text += "{\"files\": {";
    bool first = true;
    for (const auto* item : sorted) {
      if (!first) text += ", ";
      first = false;
      append_json_string(text, item->first);
      text += ": ";
      item->second.append_json(text);
    }
    text += "}, \"version\": ";
    text += std::to_string(SYNC_HASH_CACHE_VERSION);
    text.push_back('}');
    dirty_ = false;
  }
  try {
    // An entry vouches for a file's bytes: they reach stable storage before
    // the entry does.
    sync_file_system(path_dirname(path_));
    atomic_write(path_, text);
  } catch (const std::exception& e) {
    log_warning("Failed to persist sync hash cache: %s", {json::value(e.what())});
    WriterLock lock(mu_);
    dirty_ = true;
  }
}

json::object HashCache::entries() const {
  ReaderLock lock(mu_);
  json::object out;
  out.reserve(entries_.size());
  for (const auto& [k, v] : entries_) out[k] = v.stored();
  return out;
}

bool HashCache::dirty() const {
  ReaderLock lock(mu_);
  return dirty_;
}

}  // namespace tidewright::sync
