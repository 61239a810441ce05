#include "tidewright/sync/common/fs.hpp"

#include "tidewright/sync/reporting/errors.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace tidewright::sync {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

UniqueFd::~UniqueFd() { reset(); }

int UniqueFd::reset() {
  if (fd_ < 0) return 0;
  int rc = ::close(fd_);
  fd_ = -1;
  return rc;
}

void throw_os_error(int error_number, const std::string& path) {
  std::string message = std::strerror(error_number);
  if (error_number == ENOENT) throw FileNotFoundError(message, error_number, path);
  throw OSError(message, error_number, path);
}

std::string path_join(std::string_view a, std::string_view b) {
  if (!b.empty() && b[0] == '/') return std::string(b);
  if (a.empty()) return std::string(b);
  std::string out(a);
  if (out.back() != '/') out.push_back('/');
  out.append(b);
  return out;
}

std::string path_dirname(std::string_view path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  std::string head(path.substr(0, slash + 1));
  // Strip trailing slashes unless the head is all slashes.
  std::size_t end = head.size();
  while (end > 0 && head[end - 1] == '/') --end;
  if (end == 0) return head;
  return head.substr(0, end);
}

std::string path_basename(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

namespace {

std::string expand_user(std::string_view path) {
  if (path.empty() || path[0] != '~') return std::string(path);
  std::size_t slash = path.find('/');
  if (slash != 1 && !(slash == std::string_view::npos && path.size() == 1)) return std::string(path);
  const char* home = std::getenv("HOME");
  if (!home) return std::string(path);
  std::string h(home);
  if (!h.empty() && h.back() == '/' && h.size() > 1) h.pop_back();
  return h + std::string(slash == std::string_view::npos ? "" : path.substr(slash));
}

std::string current_dir() {
  std::vector<char> buf(PATH_MAX);
  if (!::getcwd(buf.data(), buf.size())) throw_os_error(errno, ".");
  return std::string(buf.data());
}

// Lexical normalisation like os.path.normpath for absolute paths.
std::string normalize_abs(std::string_view path) {
  std::vector<std::string_view> parts;
  std::size_t i = 0;
  while (i <= path.size()) {
    std::size_t j = path.find('/', i);
    if (j == std::string_view::npos) j = path.size();
    std::string_view seg = path.substr(i, j - i);
    if (seg.empty() || seg == ".") {
    } else if (seg == "..") {
      if (!parts.empty()) parts.pop_back();
    } else {
      parts.push_back(seg);
    }
    i = j + 1;
  }
  std::string out;
  for (auto seg : parts) {
    out.push_back('/');
    out.append(seg);
  }
  return out.empty() ? "/" : out;
}

}  // namespace

std::string abs_path(std::string_view path) {
  std::string p(path);
  if (p.empty() || p[0] != '/') p = path_join(current_dir(), p);
  return normalize_abs(p);
}

std::string real_path(std::string_view path) {
  // Resolve component by component, following links that exist, keeping
  // missing tails lexically (the host's non-strict realpath).
  std::string pending = abs_path(expand_user(path));
  std::string resolved = "/";
  int link_budget = 40;
  std::vector<std::string> rest;
  {
    std::size_t i = 1;
    while (i <= pending.size()) {
      std::size_t j = pending.find('/', i);
      if (j == std::string::npos) j = pending.size();
      if (j > i) rest.emplace_back(pending.substr(i, j - i));
      i = j + 1;
    }
  }
  std::size_t idx = 0;
  bool missing = false;
  while (idx < rest.size()) {
    std::string seg = rest[idx++];
    if (seg == ".") continue;
    if (seg == "..") {
      resolved = path_dirname(resolved);
      if (resolved.empty()) resolved = "/";
      continue;
    }
    std::string candidate = resolved == "/" ? "/" + seg : resolved + "/" + seg;
    if (missing) {
      resolved = candidate;
      continue;
    }
    struct stat st;
    if (::lstat(candidate.c_str(), &st) != 0) {
      missing = true;
      resolved = candidate;
      continue;
    }
    if (S_ISLNK(st.st_mode) && link_budget-- > 0) {
      std::vector<char> buf(PATH_MAX + 1);
      ssize_t n = ::readlink(candidate.c_str(), buf.data(), PATH_MAX);
      if (n < 0) {
        resolved = candidate;
        continue;
      }
      std::string target(buf.data(), static_cast<std::size_t>(n));
      std::vector<std::string> target_parts;
      std::size_t i = 0;
      while (i <= target.size()) {
        std::size_t j = target.find('/', i);
        if (j == std::string::npos) j = target.size();
        if (j > i) target_parts.emplace_back(target.substr(i, j - i));
        i = j + 1;
      }
      if (!target.empty() && target[0] == '/') resolved = "/";
      rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(idx));
      rest.insert(rest.begin(), target_parts.begin(), target_parts.end());
      idx = 0;
      continue;
    }
    resolved = candidate;
  }
  return resolved;
}

bool path_exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool is_directory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_regular_file(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::int64_t coarse_now_ns() {
  struct timespec ts;
  ::clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

StatKey stat_key_of(const struct ::stat& st) {
  StatKey key;
  key.size = static_cast<std::int64_t>(st.st_size);
  key.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  key.ctime_ns = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000LL + st.st_ctim.tv_nsec;
  key.inode = static_cast<std::int64_t>(st.st_ino);
  return key;
}

StatKey stat_key(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) throw_os_error(errno, path);
  return stat_key_of(st);
}

std::optional<StatKey> try_stat_key(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return stat_key_of(st);
}

std::int64_t file_size(const std::string& path) { return stat_key(path).size; }

namespace {

// Reads `path` in pieces of up to 64 KiB; `reserve` learns the file's size first.
void read_pieces(const std::string& path, const std::function<void(std::size_t)>& reserve,
                 const std::function<void(std::string_view)>& piece) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw_os_error(errno, path);
  struct stat st;
  if (::fstat(fd.get(), &st) == 0 && S_ISDIR(st.st_mode)) throw_os_error(EISDIR, path);
  if (reserve && ::fstat(fd.get(), &st) == 0 && st.st_size > 0) reserve(static_cast<std::size_t>(st.st_size));
  char buf[1 << 16];
  while (true) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, path);
    }
    if (n == 0) break;
    piece(std::string_view(buf, static_cast<std::size_t>(n)));
  }
}

}  // namespace

std::string read_file(const std::string& path) {
  std::string out;
  read_pieces(
      path, [&](std::size_t size) { out.reserve(size); }, [&](std::string_view piece) { out.append(piece); });
  return out;
}

void read_file_in_pieces(const std::string& path, const std::function<void(std::string_view)>& piece) {
  read_pieces(path, {}, piece);
}

void make_dirs(const std::string& path) {
  if (path.empty() || is_directory(path)) return;
  std::string parent = path_dirname(path);
  if (!parent.empty() && parent != path) make_dirs(parent);
  if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) throw_os_error(errno, path);
  if (!is_directory(path)) throw_os_error(ENOTDIR, path);
}

UniqueFd open_directory_beneath(const std::string& root, std::string_view relative) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd dir(::open(root.c_str(), kFlags));
  if (!dir.valid()) throw_os_error(errno, root);
  std::string walked = root;
  std::size_t start = 0;
  while (start <= relative.size()) {
    std::size_t end = relative.find('/', start);
    if (end == std::string_view::npos) end = relative.size();
    const std::string name(relative.substr(start, end - start));
    start = end + 1;
    if (name.empty() || name == ".") continue;
    walked = path_join(walked, name);
    if (name == "..") throw_os_error(EINVAL, walked);
    int fd = ::openat(dir.get(), name.c_str(), kFlags);
    if (fd < 0 && errno == ENOENT) {
      if (::mkdirat(dir.get(), name.c_str(), 0777) != 0 && errno != EEXIST) throw_os_error(errno, walked);
      fd = ::openat(dir.get(), name.c_str(), kFlags);
    }
    if (fd < 0) {
      int error = errno;
      struct stat st;
      // O_DIRECTORY reports a link as "not a directory"; name it for what it is.
      if (error == ENOTDIR && ::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
        error = ELOOP;
      }
      throw_os_error(error, walked);
    }
    dir = UniqueFd(fd);
  }
  return dir;
}

void remove_file(const std::string& path) {
  if (::unlink(path.c_str()) != 0) throw_os_error(errno, path);
}

void rename_file(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) throw_os_error(errno, from);
}

namespace {
std::atomic<std::int64_t> flush_calls{0};
std::atomic<std::int64_t> flush_nanoseconds{0};
}  // namespace

void sync_file_system(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw_os_error(errno, path);
  const auto started = std::chrono::steady_clock::now();
  const int rc = ::syncfs(fd.get());
  const int err = errno;
  flush_nanoseconds.fetch_add(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - started).count());
  flush_calls.fetch_add(1);
  if (rc != 0) throw_os_error(err, path);
}

FlushTotals flush_totals() {
  return FlushTotals{flush_calls.load(), static_cast<double>(flush_nanoseconds.load()) / 1e9};
}

std::int64_t free_disk_bytes(const std::string& path) {
  struct statvfs st;
  if (::statvfs(path.c_str(), &st) != 0) throw_os_error(errno, path);
  return static_cast<std::int64_t>(st.f_bavail) * static_cast<std::int64_t>(st.f_frsize);
}

}  // namespace tidewright::sync
