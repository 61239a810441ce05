#include "tidewright/sync/transport/files.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

namespace fs = std::filesystem;

constexpr const char* kEmptySha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

void write_plain(const std::string& path, std::string_view data) {
  std::ofstream out(path, std::ios::binary);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

// Everything in `dir` whose name ends in ".tmp".
std::vector<std::string> leftover_temporaries(const std::string& dir) {
  std::vector<std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (entry.path().extension() == ".tmp") out.push_back(entry.path().string());
  }
  return out;
}

TEST(Sha256, OneShotAndIncrementalDigestsAgree) {
  EXPECT_EQ(sha256(""), kEmptySha256);
  EXPECT_EQ(sha256("abc"), kAbcSha256);
  Sha256 state;
  EXPECT_EQ(state.hexdigest(), kEmptySha256);
  for (std::string_view piece : {"a", "", "bc"}) state.update(piece);
  // Reading the digest does not finish the state: more data may follow.
  EXPECT_EQ(state.hexdigest(), kAbcSha256);
  state.update("def");
  EXPECT_EQ(state.hexdigest(), sha256("abcdef"));
  state.reset();
  state.update("abc");
  EXPECT_EQ(Sha256(std::move(state)).hexdigest(), kAbcSha256);
}

TEST(AtomicWrite, ConcurrentWritersAndReadersNeverSeeATornFile) {
  TempDir dir;
  std::string target = dir / "shared.bin";
  atomic_write(target, std::string(1000, 'a'));
  // Each payload is one repeated letter, so a reader can tell a whole file
  // from a mix of two.
  auto whole = [](const std::string& data) {
    return !data.empty() && data.find_first_not_of(data[0]) == std::string::npos;
  };
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!done.load()) {
      if (!whole(read_file(target))) torn.fetch_add(1);
    }
  });
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < 100; ++i) {
        atomic_write(target, std::string(1000 + 5000 * ((i + w) % 7), static_cast<char>('b' + w)));
      }
    });
  }
  for (auto& t : writers) t.join();
  done.store(true);
  reader.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_TRUE(whole(read_file(target)));
  EXPECT_TRUE(leftover_temporaries(dir.path()).empty());
}

// What the progress file holds is checked through the module (the Python
// file tests); here the list form the engine writes it from, and totals past
// what a count holds.
TEST(SyncProgress, AListOfEntriesWritesWhatTheSameEntriesAsAnObjectWrite) {
  const json::object files = parse_json(R"({"z/b.arrow": {"kind": "feature", "platform": "linux", "size_bytes": 5},
                                            "a\u00e9.arrow": {"kind": null},
                                            "m.arrow": {"size_bytes": 7}})").as_object();
  ManifestSiblings siblings = default_manifest_siblings();
  const std::string expected = sync_progress_text(2, 9, files, siblings, 1.5);
  // The set's order, a path given twice, and a path without an entry (as
  // the object the set used to be copied into held it).
  const json::value none = json::object();
  std::vector<SyncProgressFile> list;
  for (const auto& kv : files) list.push_back({std::string_view(kv.key()), &kv.value(), std::nullopt});
  list.push_back(list.front());
  EXPECT_EQ(sync_progress_text(2, 9, list, siblings, 1.5), expected);
  // Entries read off a manifest's files table, as the sync hands them.
  const ManifestFiles table = ManifestFiles::from_object(files);
  std::vector<SyncProgressFile> listed;
  for (const auto& kv : files) listed.push_back({std::string_view(kv.key()), nullptr, table.find(kv.key())});
  listed.push_back(listed.front());
  EXPECT_EQ(sync_progress_text(2, 9, listed, siblings, 1.5), expected);
  json::object with_missing = files;
  with_missing["q.arrow"] = none;
  list.push_back({"q.arrow", nullptr, std::nullopt});
  EXPECT_EQ(sync_progress_text(2, 9, list, siblings, 1.5), sync_progress_text(2, 9, with_missing, siblings, 1.5));
  EXPECT_EQ(sync_progress_text(2, 9, std::vector<SyncProgressFile>{}, siblings, 1.5),
            sync_progress_text(2, 9, json::object(), siblings, 1.5));
}

TEST(SyncProgress, TotalsOfHugeSizesSaturateInsteadOfWrappingAround) {
  // Each size is valid on its own; a wrapped sum would be negative and pass
  // the disk space check.
  json::object files = parse_json(R"({"a": {"size_bytes": 9223372036854775807}, "b": {"size_bytes": 2}})").as_object();
  ManifestSiblings siblings = default_manifest_siblings();
  json::object progress = parse_json(sync_progress_text(1, 1, files, siblings, 0.0)).as_object();
  EXPECT_EQ(progress["total_bytes"], INT64_MAX);
  DownloadSet set;
  for (const auto& kv : files) set.push_back(DownloadJob::from_entry(std::string(kv.key()), kv.value().as_object()));
  TempDir dir;
  EXPECT_THROW(require_disk_space(dir.path(), set, ManifestFiles::from_object(files), 1LL << 40, siblings),
               DiskSpaceError);
}

TEST(DiskSpace, StagedBytesThatWillBeResumedAreNotNeededAgain) {
  TempDir dir;
  json::object entries =
      parse_json(R"({"a.arrow": {"size_bytes": 100}, "b.arrow": {"size_bytes": 10}, "c.arrow": {"size_bytes": 10}})")
          .as_object();
  DownloadSet set;
  for (const auto& kv : entries) set.push_back(DownloadJob::from_entry(std::string(kv.key()), kv.value().as_object()));
  ManifestSiblings siblings = default_manifest_siblings();
  write_plain(dir / "a.arrow.tmp", std::string(70, 'a'));  // resumes: 30 left
  write_plain(dir / "b.arrow.tmp", std::string(50, 'b'));  // longer than the file: starts over
  fs::create_directory(dir / "c.arrow.tmp");               // not a staging file: starts over
  const ManifestFiles table = ManifestFiles::from_object(entries);
  EXPECT_EQ(require_disk_space(dir.path(), set, table, 50, siblings), 30 + 10 + 10);
  EXPECT_THROW(require_disk_space(dir.path(), set, table, 49, siblings), DiskSpaceError);
}

}  // namespace
}  // namespace tidewright::sync
