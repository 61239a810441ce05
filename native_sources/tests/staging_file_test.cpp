// The range table of a staging file: what a kill leaves is read back as the
// ranges that were written, and nothing else is taken for one.
#include "tidewright/sync/manager/staging_file.hpp"
#include "tidewright/sync/manager/transfer_engine.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "test_support.hpp"
#include <gtest/gtest.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

const std::string kSha(64, 'a');

UniqueFd open_rw(const std::string& path) { return UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)); }

TEST(RangeTable, WrittenOffsetsSurviveTheProcessThatRecordedThem) {
  TempDir dir;
  const std::string path = dir.path() + "/f.tmp";
  {
    UniqueFd fd = open_rw(path);
    ASSERT_EQ(::write(fd.get(), std::string(150, 'x').data(), 150), 150);  // a prefix from one stream
    std::optional<RangeTable> table = RangeTable::create(fd.get(), 1000, 100, 150, kSha, path);
    ASSERT_TRUE(table);
    EXPECT_EQ(table->range_count(), 10u);
    EXPECT_EQ(table->written(1), 150);
    EXPECT_EQ(table->contiguous_prefix(), 150);
    table->set_written(1, 200);
    table->set_written(5, 530);
    table->set_written(9, 1000);
  }  // unmapped as a killed process would leave it
  UniqueFd fd = open_rw(path);
  std::optional<RangeTable> table = RangeTable::open_existing(fd.get(), 1000, kSha, path);
  ASSERT_TRUE(table);
  EXPECT_EQ(table->written(5), 530);
  EXPECT_EQ(table->contiguous_prefix(), 200);
  EXPECT_EQ(RangeTable::staged_bytes(fd.get(), 1000, kSha), 200 + 30 + 100);
  DownloadJob job;
  job.path = "f";
  job.size = 1000;
  job.sha256 = kSha;
  EXPECT_EQ(resumable_staged_bytes(dir.path(), job), 330);
}

TEST(RangeTable, ATableOfAnotherFileIsNotOne) {
  TempDir dir;
  const std::string path = dir.path() + "/f.tmp";
  UniqueFd fd = open_rw(path);
  ASSERT_TRUE(RangeTable::create(fd.get(), 1000, 100, 0, kSha, path));
  EXPECT_FALSE(RangeTable::open_existing(fd.get(), 1000, std::string(64, 'b'), path));  // other digest
  EXPECT_FALSE(RangeTable::open_existing(fd.get(), 999, kSha, path));                  // other size
  ASSERT_EQ(::ftruncate(fd.get(), 1010), 0);                                             // cut short
  EXPECT_FALSE(RangeTable::open_existing(fd.get(), 1000, kSha, path));
  EXPECT_FALSE(RangeTable::staged_bytes(fd.get(), 1000, kSha));
}

}  // namespace
}  // namespace tidewright::sync
