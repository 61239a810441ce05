#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <gtest/gtest.h>

#include <climits>

namespace tidewright::sync {
namespace {

TEST(LockOwnerFile, ReadsWhatThisProcessWritesAndRefusesPidsOutOfRange) {
  std::optional<LockOwner> owner = parse_lock_owner(lock_owner_text(4321, "build-host"));
  ASSERT_TRUE(owner);
  EXPECT_EQ(owner->pid, 4321);
  EXPECT_EQ(owner->host, "build-host");

  EXPECT_FALSE(parse_lock_owner("4321")) << "no blank yet: still being written";
  // Numbers that do not fit a pid are garbled files, not some other process
  // (4294967297 used to wrap to pid 1, which always runs).
  for (const char* text : {"4294967297 h\n", "99999999999 h\n", "-5 h\n", "0 h\n", "12x h\n", " h\n"}) {
    std::optional<LockOwner> garbled = parse_lock_owner(text);
    ASSERT_TRUE(garbled) << text;
    EXPECT_FALSE(garbled->pid) << text;
    EXPECT_EQ(garbled->host, "h");
  }
  EXPECT_EQ(parse_lock_owner(std::to_string(INT_MAX) + " h")->pid, INT_MAX);
}

TEST(ConsumerCountFile, ReadsLikeTheHostsIntAndBackWhatIsWritten) {
  EXPECT_EQ(parse_consumer_count(" 3\n"), 3);
  EXPECT_EQ(parse_consumer_count("1_000"), 1000);
  EXPECT_EQ(parse_consumer_count(""), std::nullopt);
  EXPECT_EQ(parse_consumer_count("three"), std::nullopt);
  for (std::int64_t n : {0LL, 7LL, -2LL, static_cast<long long>(INT64_MAX)}) {
    EXPECT_EQ(parse_consumer_count(consumer_count_text(n)), n);
  }
}

TEST(HashCacheFile, KeepsObjectEntriesOfAVersionOneCacheOnly) {
  json::object files = parse_hash_cache_text(R"({"version": 1, "files": {"a": {"sha256": "x"}, "b": [], "c": 3}})");
  EXPECT_EQ(files.size(), 1u);
  EXPECT_TRUE(files.contains("a"));
  EXPECT_EQ(parse_hash_cache_text(hash_cache_text(files)), files);
  EXPECT_TRUE(parse_hash_cache_text(R"({"version": 2, "files": {"a": {}}})").empty());
  EXPECT_TRUE(parse_hash_cache_text(R"({"version": true, "files": {"a": {}}})").empty());
  EXPECT_THROW(parse_hash_cache_text("{"), JsonParseError);
}

}  // namespace
}  // namespace tidewright::sync
