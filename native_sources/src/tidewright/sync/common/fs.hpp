// File-system primitives with the host's path semantics. Functions that
// report OS failures throw OSError (or FileNotFoundError) with errno and the
// path; those documented as lenient never throw.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

struct stat;

namespace tidewright::sync {

// A file's identity for the hash cache.
struct StatKey {
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t inode = 0;
  bool operator==(const StatKey&) const = default;
};

// An owned file descriptor, closed on destruction.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd();
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  // Closes now; returns the close() result (0 when nothing was open).
  int reset();

 private:
  int fd_ = -1;
};

// os.path.join(a, b): b when it is absolute, else a + "/" + b (no doubled /).
std::string path_join(std::string_view a, std::string_view b);
// os.path.dirname / basename.
std::string path_dirname(std::string_view path);
std::string path_basename(std::string_view path);
// os.path.expanduser + abspath + realpath (non-strict: missing tails kept).
std::string real_path(std::string_view path);
// os.path.abspath (lexical, no link resolution).
std::string abs_path(std::string_view path);

// Lenient predicates (never throw).
bool path_exists(const std::string& path);  // follows links
bool is_directory(const std::string& path);
bool is_regular_file(const std::string& path);

// Throwing operations.
StatKey stat_key(const std::string& path);
// The identity of a stat result.
StatKey stat_key_of(const struct ::stat& st);
// Now, in the coarse real-time clock the file system stamps times from. A
// digest taken at time T vouches only for files whose times are older than
// T: a file rewritten within the same tick keeps its size and times.
std::int64_t coarse_now_ns();
// stat_key, or nothing when the path cannot be stat'ed (lenient).
std::optional<StatKey> try_stat_key(const std::string& path);
std::int64_t file_size(const std::string& path);
std::string read_file(const std::string& path);
// The same, handed to `piece` as it is read (a large file is never held whole).
void read_file_in_pieces(const std::string& path, const std::function<void(std::string_view)>& piece);
void make_dirs(const std::string& path);  // exist-ok
// The directory `relative` ("/"-separated, below `root`), opened one segment
// at a time from `root` without following links and created where missing
// (exist-ok). A link on the way fails with ELOOP (OSError) instead of leading
// elsewhere, and the descriptor keeps naming the directory it found even if
// the tree is rearranged afterwards. ".." segments fail with EINVAL.
UniqueFd open_directory_beneath(const std::string& root, std::string_view relative);
void remove_file(const std::string& path);  // FileNotFoundError when missing
void rename_file(const std::string& from, const std::string& to);
// Flushes the file system holding `path` (a file or directory) to stable
// storage: the data of every file written so far and the directory entries
// of every rename, in one call. A write-back error surfaces here (OSError).
void sync_file_system(const std::string& path);
// Calls of sync_file_system in this process so far and the time spent in
// them: what the flushes cost a sync, read by the durability benchmark.
struct FlushTotals {
  std::int64_t calls = 0;
  double seconds = 0.0;
};
FlushTotals flush_totals();
// Free bytes available to this user on the file system holding `path`.
std::int64_t free_disk_bytes(const std::string& path);

// [[noreturn]] helper: OSError/FileNotFoundError from errno for `path`.
[[noreturn]] void throw_os_error(int error_number, const std::string& path);

}  // namespace tidewright::sync
