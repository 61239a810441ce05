#include "tidewright/sync/manager/staging_file.hpp"

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/placement.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tidewright::sync {

namespace {

// magic, size, range length, range count, then the digest's 64 hex digits.
constexpr char kMagic[8] = {'T', 'W', 'R', 'A', 'N', 'G', 'E', '1'};
constexpr std::int64_t kHeaderBytes = 8 + 8 + 8 + 8 + 64;

struct Header {
  char magic[8];
  std::int64_t size;
  std::int64_t range_bytes;
  std::int64_t count;
  char sha256[64];
};
static_assert(sizeof(Header) == kHeaderBytes);

// Slots are 8-aligned in the file, so that the mapping (page-aligned) keeps
// them aligned for atomic access.
std::int64_t slots_offset(std::int64_t size) { return (size + kHeaderBytes + 7) / 8 * 8; }

std::int64_t table_end(std::int64_t size, std::size_t count) {
  return slots_offset(size) + 8 * static_cast<std::int64_t>(count);
}

std::size_t range_count_for(std::int64_t size, std::int64_t range_bytes) {
  return static_cast<std::size_t>((size + range_bytes - 1) / range_bytes);
}

void fill_digest(char (&out)[64], const std::string& sha256) {
  std::memset(out, 0, sizeof out);
  std::memcpy(out, sha256.data(), std::min(sha256.size(), sizeof out));
}

bool read_full(int fd, void* buffer, std::size_t length, std::int64_t offset) {
  auto* out = static_cast<char*>(buffer);
  while (length > 0) {
    ssize_t n = ::pread(fd, out, length, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    length -= static_cast<std::size_t>(n);
    offset += n;
  }
  return true;
}

// A header that describes a table for this file, read from `fd`.
std::optional<Header> valid_header(int fd, std::int64_t size, const std::string& sha256) {
  struct stat st;
  if (size <= 0 || ::fstat(fd, &st) != 0 || st.st_size <= size) return std::nullopt;
  Header header;
  if (!read_full(fd, &header, sizeof header, size)) return std::nullopt;
  if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.size != size || header.range_bytes <= 0 ||
      header.count <= 0 || static_cast<std::size_t>(header.count) != range_count_for(size, header.range_bytes)) {
    return std::nullopt;
  }
  char expected[64];
  fill_digest(expected, sha256);
  if (!sha256.empty() && std::memcmp(expected, header.sha256, sizeof expected) != 0) return std::nullopt;
  if (st.st_size != table_end(size, static_cast<std::size_t>(header.count))) return std::nullopt;
  return header;
}

}  // namespace

// --- StagingFile -------------------------------------------------------------

StagingFile::StagingFile(const std::string& root, const std::string& local, const std::string& file_path)
    : path_(local + ".tmp"), name_(path_basename(local) + ".tmp"), final_name_(path_basename(local)),
      file_path_(file_path) {
  const std::string parent = path_dirname(local);
  std::string_view relative;
  if (parent.size() > root.size()) relative = std::string_view(parent).substr(root.size());
  try {
    dir_ = std::make_shared<const UniqueFd>(open_directory_beneath(root, relative));
  } catch (const OSError& e) {
    if (e.error_number != ELOOP) throw;
    throw ManifestError("Manifest file path escapes data directory: " + python_repr(file_path));
  }
}

StagingFile::StagingFile(std::shared_ptr<const UniqueFd> dir, const std::string& local, const std::string& file_path)
    : path_(local + ".tmp"), name_(path_basename(local) + ".tmp"), final_name_(path_basename(local)),
      file_path_(file_path), dir_(std::move(dir)) {}

StagingFile::Opened StagingFile::open() {
  constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int dir = dir_->get();
  // Usually nothing is staged yet: a file this open creates needs no look
  // at what it is or holds.
  UniqueFd created(::openat(dir, name_.c_str(), kFlags | O_EXCL, 0666));
  if (created.valid()) return {std::move(created), true, 0};
  if (errno != EEXIST) throw_os_error(errno, path_);
  for (int attempt = 0;; ++attempt) {
    UniqueFd fd(::openat(dir, name_.c_str(), kFlags, 0666));
    if (fd.valid()) {
      struct stat st;
      if (::fstat(fd.get(), &st) != 0) throw_os_error(errno, path_);
      if (S_ISREG(st.st_mode)) return {std::move(fd), false, static_cast<std::int64_t>(st.st_size)};
    } else if (errno != ELOOP) {
      throw_os_error(errno, path_);
    }
    if (attempt > 0) throw_os_error(ELOOP, path_);
    log_warning("Removing %s: a staging file must be a regular file", {json::value(path_)});
    if (::unlinkat(dir, name_.c_str(), 0) != 0 && errno != ENOENT) throw_os_error(errno, path_);
  }
}

void StagingFile::truncate() {
  Opened staged = open();
  if (staged.length > 0 && ::ftruncate(staged.fd.get(), 0) != 0) throw_os_error(errno, path_);
}

void StagingFile::promote() { rename_into_place(dir_->get(), name_, dir_->get(), final_name_, file_path_, path_); }

// --- RangeTable --------------------------------------------------------------

RangeTable::RangeTable(RangeTable&& other) noexcept { *this = std::move(other); }

RangeTable& RangeTable::operator=(RangeTable&& other) noexcept {
  if (this == &other) return *this;
  if (map_) ::munmap(map_, map_length_);
  size_ = other.size_;
  range_bytes_ = other.range_bytes_;
  count_ = other.count_;
  map_ = other.map_;
  map_length_ = other.map_length_;
  slots_ = other.slots_;
  other.map_ = nullptr;
  other.slots_ = nullptr;
  other.map_length_ = 0;
  return *this;
}

RangeTable::~RangeTable() {
  if (map_) ::munmap(map_, map_length_);
}

namespace {

// Maps the slots of a table of `count` ranges; false when refused.
bool map_slots(int fd, std::int64_t size, std::size_t count, void*& map, std::size_t& length,
               std::uint64_t*& slots) {
  const long page = ::sysconf(_SC_PAGESIZE);
  const std::int64_t first = slots_offset(size);
  const std::int64_t base = first / page * page;
  length = static_cast<std::size_t>(table_end(size, count) - base);
  void* p = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, base);
  if (p == MAP_FAILED) return false;
  map = p;
  slots = reinterpret_cast<std::uint64_t*>(static_cast<char*>(p) + (first - base));
  return true;
}

}  // namespace

std::optional<RangeTable> RangeTable::open_existing(int fd, std::int64_t size, const std::string& sha256,
                                                    const std::string& staging_path) {
  (void)staging_path;
  std::optional<Header> header = valid_header(fd, size, sha256);
  if (!header) return std::nullopt;
  RangeTable table;
  table.size_ = size;
  table.range_bytes_ = header->range_bytes;
  table.count_ = static_cast<std::size_t>(header->count);
  if (!map_slots(fd, size, table.count_, table.map_, table.map_length_, table.slots_)) return std::nullopt;
  for (std::size_t i = 0; i < table.count_; ++i) {
    const std::int64_t w = table.written(i);
    if (w < table.range_start(i) || w > table.range_end(i)) return std::nullopt;  // not a table of ours
  }
  return table;
}

std::optional<RangeTable> RangeTable::create(int fd, std::int64_t size, std::int64_t range_bytes, std::int64_t prefix,
                                             const std::string& sha256, const std::string& staging_path) {
  const std::size_t count = range_count_for(size, range_bytes);
  Header header;
  std::memcpy(header.magic, kMagic, sizeof kMagic);
  header.size = size;
  header.range_bytes = range_bytes;
  header.count = static_cast<std::int64_t>(count);
  fill_digest(header.sha256, sha256);
  // Header, padding and slots in one write: a kill leaves either no table
  // or a whole one.
  std::string block(static_cast<std::size_t>(table_end(size, count) - size), '\0');
  std::memcpy(block.data(), &header, sizeof header);
  const std::size_t first = static_cast<std::size_t>(slots_offset(size) - size);
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t start = static_cast<std::int64_t>(i) * range_bytes;
    const std::int64_t end = std::min(size, start + range_bytes);
    const auto written = static_cast<std::uint64_t>(std::clamp(prefix, start, end));
    std::memcpy(block.data() + first + 8 * i, &written, 8);
  }
  write_fully(fd, block, staging_path, size);
  RangeTable table;
  table.size_ = size;
  table.range_bytes_ = range_bytes;
  table.count_ = count;
  if (!map_slots(fd, size, count, table.map_, table.map_length_, table.slots_)) {
    if (::ftruncate(fd, prefix) != 0) throw_os_error(errno, staging_path);
    return std::nullopt;
  }
  return table;
}

std::optional<std::int64_t> RangeTable::staged_bytes(int fd, std::int64_t size, const std::string& sha256) {
  std::optional<Header> header = valid_header(fd, size, sha256);
  if (!header) return std::nullopt;
  std::vector<std::uint64_t> slots(static_cast<std::size_t>(header->count));
  if (!read_full(fd, slots.data(), slots.size() * 8, slots_offset(size))) return std::nullopt;
  std::int64_t staged = 0;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    const std::int64_t start = static_cast<std::int64_t>(i) * header->range_bytes;
    const auto w = static_cast<std::int64_t>(slots[i]);
    if (w < start || w > std::min(size, start + header->range_bytes)) return std::nullopt;
    staged += w - start;
  }
  return staged;
}

std::int64_t RangeTable::range_end(std::size_t i) const { return std::min(size_, range_start(i) + range_bytes_); }

std::int64_t RangeTable::written(std::size_t i) const {
  return static_cast<std::int64_t>(std::atomic_ref<std::uint64_t>(slots_[i]).load(std::memory_order_acquire));
}

void RangeTable::set_written(std::size_t i, std::int64_t offset) {
  std::atomic_ref<std::uint64_t>(slots_[i]).store(static_cast<std::uint64_t>(offset), std::memory_order_release);
}

std::int64_t RangeTable::contiguous_prefix() const {
  for (std::size_t i = 0; i < count_; ++i) {
    const std::int64_t w = written(i);
    if (w < range_end(i)) return w;
  }
  return size_;
}

}  // namespace tidewright::sync
