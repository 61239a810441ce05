// HashCache: SHA-256 digests of local files keyed by manifest path and
// remembered together with the file's identity (size, mtime, ctime, inode),
// persisted in ".sync_hash_cache.json". A hit costs one stat call; any change
// of identity is a miss.
//
// An entry is trusted only when the file's times are older than the moment
// the digest was taken (for entries read from disk: the moment the cache
// file was written). A file rewritten in place within the same timestamp
// tick as the hashing keeps its size and times, so such "racy" entries are
// hashed again until time has moved on. Times are compared in the file
// system's own (coarse) clock.
//
// Thread-safe: the maps and the dirty flag are guarded by mu_; hashing and
// file writes happen outside it, so download workers remember digests
// concurrently.
#pragma once

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace tidewright::sync {

inline constexpr const char* SYNC_HASH_CACHE_FILENAME = ".sync_hash_cache.json";
inline constexpr std::int64_t SYNC_HASH_CACHE_VERSION = 1;

class HashCache {
 public:
  explicit HashCache(std::string path);

  const std::string& path() const { return path_; }

  // Reads the cache file; an unreadable or invalid file is a cold (empty)
  // cache, logged as "Ignoring unreadable sync hash cache: %s".
  void load();
  // The remembered digest when the file's identity is unchanged and the
  // digest equals `expected_sha`; empty otherwise (the caller hashes).
  std::optional<std::string> cached_sha(const std::string& file_path, const std::string& local_path,
                                        const std::string& expected_sha);
  // Remembers `actual_sha` for the file's current identity.
  void remember(const std::string& file_path, const std::string& local_path, const std::string& actual_sha);
  // Writes the cache when it changed since the last write; failures are
  // logged and leave it dirty.
  void persist();

  // A copy of the entries, as written to the file.
  json::object entries() const;
  bool dirty() const;

 private:
  const std::string path_;
  mutable std::mutex mu_;
  std::unordered_map<std::string, json::value> entries_;          // guarded by mu_
  std::unordered_map<std::string, std::int64_t> remembered_at_;  // guarded by mu_
  std::int64_t written_at_ns_ = 0;                                // guarded by mu_
  bool dirty_ = false;                                            // guarded by mu_
};

}  // namespace tidewright::sync
