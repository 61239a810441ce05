// The staging file "<path>.tmp" of one download and what it remembers
// across a kill: a contiguous prefix of the file, or, for a file fetched in
// several ranges at once, the file's bytes at their offsets plus a range
// table after the last byte of the file.
//
// The range table ("trailer") starts at offset size_bytes, so the file is
// size_bytes + trailer bytes long while ranges are in flight: a magic, the
// range length, the expected digest, and for every range the offset up to
// which its bytes are written. Workers store that offset through a shared
// mapping after each write of the range's bytes; a kill -9 loses neither
// (both live in the page cache), so the next run resumes every range where
// it stopped. The table is cut off before the file is promoted.
#pragma once

#include "tidewright/sync/common/fs.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

// A staging file reached through a descriptor of its directory, opened
// segment by segment below the data directory without following links:
// whatever is planted in the data directory meanwhile, reads, writes,
// truncation and the final rename stay inside it.
class StagingFile {
 public:
  // `local` is the checked final path, inside the resolved `root`. Throws
  // ManifestError when a link on the way leads out of the data directory.
  StagingFile(const std::string& root, const std::string& local, const std::string& file_path);
  // The same in `dir`, the directory of `local` already opened beneath the
  // root (no link on the way), shared with the other files of a batch.
  StagingFile(std::shared_ptr<const UniqueFd> dir, const std::string& local, const std::string& file_path);

  const std::string& path() const { return path_; }

  struct Opened {
    UniqueFd fd;
    bool created = false;     // by this open: empty, without a mark or a range table
    std::int64_t length = 0;  // its length when opened
  };
  // Opens (creating) the staging file for reading and writing. Anything
  // but a regular file at the name is never ours: removed, not followed.
  Opened open();
  // Empties the staging file (its range table with it).
  void truncate();
  // The atomic rename onto the final name, in the same directory
  // (rename_into_place: a link planted at the final name meanwhile is
  // refused, not replaced).
  void promote();

 private:
  std::string path_;
  std::string name_;
  std::string final_name_;
  std::string file_path_;  // the manifest path, for the errors
  std::shared_ptr<const UniqueFd> dir_;
};

struct DownloadJob;

// What resumable_staged_bytes answers for the staging file at `staging` (the
// resolved local path of the job's file + ".tmp").
std::int64_t resumable_staged_bytes_at(const std::string& staging, const DownloadJob& job);

// The range table of a staging file fetched in ranges, mapped shared.
class RangeTable {
 public:
  RangeTable() = default;
  RangeTable(RangeTable&& other) noexcept;
  RangeTable& operator=(RangeTable&& other) noexcept;
  RangeTable(const RangeTable&) = delete;
  RangeTable& operator=(const RangeTable&) = delete;
  ~RangeTable();

  // The table of `fd` when it holds a valid one for a file of `size` bytes
  // with digest `sha256` (empty: any); nothing otherwise.
  static std::optional<RangeTable> open_existing(int fd, std::int64_t size, const std::string& sha256,
                                                 const std::string& staging_path);
  // A new table over [0, size) in ranges of `range_bytes`, with the first
  // `prefix` bytes already in place. Returns nothing where the file system
  // refuses the mapping (the caller then downloads in one stream).
  static std::optional<RangeTable> create(int fd, std::int64_t size, std::int64_t range_bytes, std::int64_t prefix,
                                          const std::string& sha256, const std::string& staging_path);

  // The bytes a valid table of `fd` says are in place (sum over ranges);
  // nothing when `fd` has no valid table for this file.
  static std::optional<std::int64_t> staged_bytes(int fd, std::int64_t size, const std::string& sha256);

  std::int64_t size() const { return size_; }
  std::int64_t range_bytes() const { return range_bytes_; }
  std::size_t range_count() const { return count_; }
  std::int64_t range_start(std::size_t i) const { return static_cast<std::int64_t>(i) * range_bytes_; }
  std::int64_t range_end(std::size_t i) const;  // one past its last byte
  // Written up to (exclusive); read by any thread.
  std::int64_t written(std::size_t i) const;
  // Called after the bytes before `offset` of range i are written.
  void set_written(std::size_t i, std::int64_t offset);
  // The length of the contiguous run of written bytes from offset 0.
  std::int64_t contiguous_prefix() const;

 private:
  std::int64_t size_ = 0;
  std::int64_t range_bytes_ = 0;
  std::size_t count_ = 0;
  void* map_ = nullptr;
  std::size_t map_length_ = 0;
  std::uint64_t* slots_ = nullptr;  // inside the mapping
};

}  // namespace tidewright::sync
