#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

void write_in_place(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::in | std::ios::out);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

std::int64_t coarse_now() {
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void wait_for_next_tick(std::int64_t after_ns) {
  while (coarse_now() <= after_ns) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(HashCache, TrustsAnUnchangedFileOnlyOnceItsTimesAreOlderThanTheDigest) {
  TempDir dir;
  std::string file = path_join(dir.path(), "a.bin");
  atomic_write(file, "aaaa");
  std::string sha_a = sha256("aaaa");
  HashCache cache(path_join(dir.path(), ".sync_hash_cache.json"));
  wait_for_next_tick(stat_key(file).mtime_ns);
  cache.remember("a.bin", file, sha_a);
  EXPECT_EQ(cache.cached_sha("a.bin", file, sha_a), sha_a);
  EXPECT_FALSE(cache.cached_sha("a.bin", file, sha256("other")));

  // A rewrite of the same size with new times is a miss.
  wait_for_next_tick(coarse_now());
  write_in_place(file, "bbbb");
  EXPECT_FALSE(cache.cached_sha("a.bin", file, sha_a));
}

TEST(HashCache, AnEntryWhoseTimesAreNotOlderThanTheDigestIsHashedAgain) {
  // A file rewritten in place within the timestamp tick of its hashing keeps
  // size, times and inode; only its times being "not older than the digest"
  // tells. Times in the future stand in for that tick here (on file systems
  // with fine-grained timestamps the same-tick rewrite cannot be provoked).
  TempDir dir;
  std::string file = path_join(dir.path(), "a.bin");
  atomic_write(file, "aaaa");
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = ::time(nullptr) + 60;
  times[0].tv_nsec = times[1].tv_nsec = 0;
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  HashCache cache(path_join(dir.path(), ".sync_hash_cache.json"));
  cache.remember("a.bin", file, sha256("aaaa"));
  EXPECT_FALSE(cache.cached_sha("a.bin", file, sha256("aaaa")));
  cache.persist();
  HashCache reloaded(cache.path());
  reloaded.load();
  EXPECT_FALSE(reloaded.cached_sha("a.bin", file, sha256("aaaa")));
}

TEST(HashCache, TheFileIsWrittenBackAsItsEntriesWriteWhateverTheirForm) {
  // Entries as remember() writes them, and entries of other forms (more
  // fields, a float, a digest in capitals, no digest): all written back as
  // they were read, in sorted order.
  TempDir dir;
  const std::string path = path_join(dir.path(), ".sync_hash_cache.json");
  const std::string digest = sha256("x");
  std::string upper = digest;
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  json::object files = parse_json(R"({
    "b/plain": {"sha256": ")" + digest + R"(", "size_bytes": 3, "mtime_ns": -4, "ctime_ns": 5, "inode": 6},
    "a/extra": {"sha256": ")" + digest + R"(", "size_bytes": 3, "mtime_ns": 4, "ctime_ns": 5, "inode": 6, "x": [1]},
    "c/float": {"sha256": ")" + digest + R"(", "size_bytes": 3.0, "mtime_ns": 4, "ctime_ns": 5, "inode": 6},
    "d/upper": {"sha256": ")" + upper + R"(", "size_bytes": 3, "mtime_ns": 4, "ctime_ns": 5, "inode": 6},
    "e/none": {"size_bytes": 3}})").as_object();
  atomic_write(path, hash_cache_text(files));
  HashCache cache(path);
  cache.load();
  EXPECT_EQ(cache.entries(), files);
  // A change makes it write; every other entry is written as it was read.
  const std::string file = path_join(dir.path(), "f.bin");
  atomic_write(file, "x");
  cache.remember("f.bin", file, digest);
  cache.persist();
  const StatKey key = stat_key(file);
  files["f.bin"] = json::object{{"sha256", digest}, {"size_bytes", key.size}, {"mtime_ns", key.mtime_ns},
                                {"ctime_ns", key.ctime_ns}, {"inode", key.inode}};
  EXPECT_EQ(read_file(path), hash_cache_text(files));
  // Lookups answer the digest as it was written, for the identity written.
  EXPECT_EQ(cache.cached_sha("b/plain", StatKey{3, -4, 5, 6}, digest), digest);
  EXPECT_FALSE(cache.cached_sha("b/plain", StatKey{3, 4, 5, 6}, digest));
  EXPECT_EQ(cache.cached_sha("d/upper", StatKey{3, 4, 5, 6}, upper), upper);
  EXPECT_FALSE(cache.cached_sha("d/upper", StatKey{3, 4, 5, 6}, digest));
  EXPECT_FALSE(cache.cached_sha("e/none", StatKey{3, 4, 5, 6}, digest));
}

// Reports an unreadable cache file through the host's log.
using UnreadableHashCache = test_support::HostTest;

TEST_F(UnreadableHashCache, InvalidCacheFilesAreACompleteMissAndOnlyObjectEntriesAreKept) {
  TempDir dir;
  std::string path = path_join(dir.path(), ".sync_hash_cache.json");
  for (const char* content : {"{", "[]", R"({"version": 2, "files": {"a": {}}})", R"({"version": 1, "files": []})",
                              R"({"version": true, "files": {"a": {}}})"}) {
    atomic_write(path, content);
    HashCache cache(path);
    cache.load();
    EXPECT_TRUE(cache.entries().empty()) << content;
  }
  atomic_write(path, R"({"version": 1, "files": {"a": {"sha256": "x"}, "b": 3, "c": []}})");
  HashCache cache(path);
  cache.load();
  EXPECT_EQ(cache.entries(), (json::object{{"a", json::object{{"sha256", "x"}}}}));
}

}  // namespace
}  // namespace tidewright::sync
