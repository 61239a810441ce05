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
// Thread-safe: the map and the dirty flag are guarded by mu_ (lookups share
// it, so the threads of a no-op check do not queue on each other); hashing
// and file writes happen outside it, so download workers remember digests
// concurrently.
#pragma once

#include "tidewright/sync/common/mutex.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"

#include <boost/unordered/unordered_flat_map.hpp>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

inline constexpr const char* SYNC_HASH_CACHE_FILENAME = ".sync_hash_cache.json";
inline constexpr std::int64_t SYNC_HASH_CACHE_VERSION = 1;

// The entries of a cache file's text that are objects, by path; empty when
// the text is not a version-1 cache object. Throws JsonParseError when the
// text is not JSON.
json::object parse_hash_cache_text(std::string_view text);
// The text written for `files` (sorted keys).
std::string hash_cache_text(json::object files);

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
  // The same for a file whose identity the caller has just taken.
  std::optional<std::string> cached_sha(const std::string& file_path, const StatKey& key,
                                        const std::string& expected_sha);
  // cached_sha for many files under one lock: whether each file's digest is
  // remembered for its identity and equals the expected digest.
  struct Query {
    const std::string* file_path;
    StatKey key;
    const std::string* expected_sha;
  };
  std::vector<char> cached_batch(const std::vector<Query>& queries);
  // Remembers `actual_sha` for the file's current identity.
  void remember(const std::string& file_path, const std::string& local_path, const std::string& actual_sha);
  // The same for the identity the caller took of the file it verified.
  void remember(const std::string& file_path, const StatKey& key, const std::string& actual_sha);
  // Writes the cache when it changed since the last write, after flushing the
  // files it describes to stable storage; failures are logged and leave it
  // dirty.
  void persist();

  // A copy of the entries, as written to the file.
  json::object entries() const;
  bool dirty() const;

 private:
  // An entry in the form remember() writes it (the four integers and a
  // lower-case hex digest, nothing else) is kept as its fields alone, the
  // digest as its 32 bytes: a cache of a large era holds 100,000 of them.
  // Any other entry read from the file is kept as it stands, and written
  // back unchanged; its fields are read once for lookups (none when an
  // integer field cannot be read or the digest is not text).
  struct Verbatim {
    json::value stored;
    std::string sha256;
  };
  struct Entry {
    StatKey key;
    std::array<unsigned char, 32> digest{};
    bool has_key = false;
    std::int64_t hashed_at_ns = 0;  // the digest is trusted for older file times only
    std::unique_ptr<Verbatim> verbatim;

    bool digest_equals(std::string_view sha) const;
    std::string digest_text() const;
    json::value stored() const;
    void append_json(std::string& out) const;
  };
  // REQUIRES: mu_ held.
  static bool trusted(const Entry& entry, const StatKey& key, const std::string& expected_sha);
  static Entry make_entry(json::value stored);
  static std::optional<Entry> compact_entry(const std::string& sha, const StatKey& key);

  const std::string path_;
  mutable SharedMutex mu_;
  // Open addressing: a lookup is one probe of a flat array, which matters
  // when a no-op sync looks up every file of a large era.
  boost::unordered_flat_map<std::string, Entry> entries_ GUARDED_BY(mu_);
  bool dirty_ GUARDED_BY(mu_) = false;
};

}  // namespace tidewright::sync
