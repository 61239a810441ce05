#include "tidewright/sync/transport/files.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tidewright::sync {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::string hex(const unsigned char* bytes, unsigned int size) {
  std::string out;
  out.reserve(size * 2);
  for (unsigned int i = 0; i < size; ++i) {
    out.push_back(kHexDigits[bytes[i] >> 4]);
    out.push_back(kHexDigits[bytes[i] & 0xF]);
  }
  return out;
}

[[noreturn]] void throw_digest_failure() { throw std::runtime_error("SHA-256 digest operation failed"); }

// The host's printed form of an OS error ("[Errno 2] No such file or
// directory: 'path'"), for log lines.
std::string os_error_text(int error_number, const std::string& path) {
  return "[Errno " + std::to_string(error_number) + "] " + std::strerror(error_number) + ": " +
         python_repr(std::string_view(path));
}

std::string temporary_name(const std::string& path) {
  auto now = std::chrono::steady_clock::now().time_since_epoch();
  auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  return path + "." + std::to_string(::getpid()) + "." +
         std::to_string(static_cast<unsigned long>(::pthread_self())) + "." + std::to_string(nanos) + ".tmp";
}

// Removes the temporary file of an atomic write unless the write got as far
// as renaming it over the target.
class TemporaryFileGuard {
 public:
  explicit TemporaryFileGuard(std::string path) : path_(std::move(path)) {}
  TemporaryFileGuard(const TemporaryFileGuard&) = delete;
  TemporaryFileGuard& operator=(const TemporaryFileGuard&) = delete;
  ~TemporaryFileGuard() {
    if (dismissed_) return;
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
      int error_number = errno;
      try {
        log_debug("best-effort tmp cleanup failed for %s: %s",
                  json::array{json::value(path_), json::value(os_error_text(error_number, path_))});
      } catch (...) {
        // Never let clean-up replace the error that is propagating.
      }
    }
  }
  void dismiss() { dismissed_ = true; }

 private:
  std::string path_;
  bool dismissed_ = false;
};

// The error of a failed write of `path` (the file's final name): a full
// disk or quota is a DiskSpaceError, like one met during a download.
[[noreturn]] void throw_write_error(int error_number, const std::string& temporary, const std::string& path) {
  if (error_number == ENOSPC || error_number == EDQUOT) {
    throw DiskSpaceError("Insufficient disk space while writing " + path + ": " + std::strerror(error_number));
  }
  throw_os_error(error_number, temporary);
}

json::value text_form_or_empty(const json::object* entry, std::string_view key) {
  if (entry == nullptr) return "";
  const json::value* value = entry->if_contains(key);
  if (value == nullptr || value->is_null()) return "";
  return json::value(python_str(*value));
}

double wall_clock_seconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

void write_fully(int fd, std::string_view data, const std::string& path, std::int64_t offset,
                 const std::string* os_error_path) {
  while (!data.empty()) {
    const ssize_t n = offset < 0 ? ::write(fd, data.data(), data.size()) : ::pwrite(fd, data.data(), data.size(), offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_write_error(errno, os_error_path ? *os_error_path : path, path);
    }
    data.remove_prefix(static_cast<std::size_t>(n));
    if (offset >= 0) offset += n;
  }
}

int remove_orphaned_temporaries(const std::string& path) noexcept {
  // Names are "<path>.<pid>.<thread>.<nanos>.tmp" (temporary_name above).
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const std::string prefix = (slash == std::string::npos ? path : path.substr(slash + 1)) + ".";
  int removed = 0;
  try {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
      const std::string name = entry.path().filename().string();
      if (name.size() <= prefix.size() + 4 || name.compare(0, prefix.size(), prefix) != 0 ||
          name.compare(name.size() - 4, 4, ".tmp") != 0) {
        continue;
      }
      const std::size_t end = name.find('.', prefix.size());
      if (end == std::string::npos || end == prefix.size()) continue;
      const std::string digits = name.substr(prefix.size(), end - prefix.size());
      if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
          digits.size() > 9) {
        continue;
      }
      const auto pid = static_cast<pid_t>(std::stol(digits));
      if (pid <= 0 || pid == ::getpid()) continue;
      if (::kill(pid, 0) == 0 || errno != ESRCH) continue;  // its writer may still be at work
      if (::unlink(entry.path().c_str()) == 0) ++removed;
    }
  } catch (...) {
    // Best effort: a leftover temporary file costs a few bytes, nothing more.
  }
  return removed;
}

void Sha256::ContextDeleter::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  if (!context_) throw std::bad_alloc();
  reset();
}

void Sha256::update(std::string_view data) { update(data.data(), data.size()); }

void Sha256::update(const void* data, std::size_t size) {
  if (size == 0) return;
  if (EVP_DigestUpdate(context_.get(), data, size) != 1) throw_digest_failure();
}

std::string Sha256::hexdigest() const {
  // Finalise a copy so the running state can keep going.
  std::unique_ptr<evp_md_ctx_st, ContextDeleter> copy(EVP_MD_CTX_new());
  if (!copy) throw std::bad_alloc();
  if (EVP_MD_CTX_copy_ex(copy.get(), context_.get()) != 1) throw_digest_failure();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(copy.get(), digest, &size) != 1) throw_digest_failure();
  return hex(digest, size);
}

void Sha256::reset() {
  if (EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) throw_digest_failure();
}

std::string sha256(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr) != 1) throw_digest_failure();
  return hex(digest, size);
}

std::string sha256_file(const std::string& path, std::int64_t chunk_bytes) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw_os_error(errno, path);
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) throw_os_error(errno, path);
  if (S_ISDIR(st.st_mode)) throw_os_error(EISDIR, path);
  if (chunk_bytes <= 0) chunk_bytes = SYNC_HASH_FILE_CHUNK_BYTES;
  // A block larger than the file would only waste memory; the loop still
  // reads to the end if the file grows meanwhile.
  std::int64_t block = std::min<std::int64_t>(chunk_bytes, std::max<std::int64_t>(st.st_size, 65536));
  std::vector<char> buffer(static_cast<std::size_t>(block));
  Sha256 state;
  while (true) {
    ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, path);
    }
    if (n == 0) break;
    state.update(buffer.data(), static_cast<std::size_t>(n));
  }
  return state.hexdigest();
}

void atomic_write(const std::string& path, std::string_view data) {
  atomic_write_in_pieces(path, [&](const std::function<void(std::string_view)>& write) { write(data); });
}

void atomic_write_in_pieces(const std::string& path,
                            const std::function<void(const std::function<void(std::string_view)>&)>& produce) {
  std::string parent = path_dirname(path);
  if (!parent.empty()) make_dirs(parent);
  std::string temporary = temporary_name(path);
  TemporaryFileGuard guard(temporary);
  // The name is new for every write: anything already there (a planted link
  // above all) is not ours to write through.
  UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!fd.valid()) throw_write_error(errno, temporary, path);
  produce([&](std::string_view piece) { write_fully(fd.get(), piece, path, -1, &temporary); });
  // A failing close can mean lost data (e.g. on network file systems).
  if (fd.reset() != 0) throw_write_error(errno, temporary, path);
  rename_file(temporary, path);
  guard.dismiss();
}

std::string sync_progress_path(const std::string& data_dir) {
  return path_join(data_dir, SYNC_PROGRESS_FILENAME);
}

namespace {

// The entry of a progress file: given, built from the table entry into
// `built`, or an empty object.
const json::value& progress_entry(const SyncProgressFile& file, json::value& built) {
  static const json::value kNoEntry = json::object();
  if (file.entry) return *file.entry;
  if (!file.listed) return kNoEntry;
  built = file.listed->info();
  return built;
}

}  // namespace

std::string sync_progress_text(std::int64_t era_number, std::int64_t version, const json::object& files_to_download,
                               const ManifestSiblings& siblings, double updated_at) {
  std::vector<SyncProgressFile> files;
  files.reserve(files_to_download.size());
  for (const auto& kv : files_to_download) files.push_back({std::string_view(kv.key()), &kv.value(), std::nullopt});
  return sync_progress_text(era_number, version, files, siblings, updated_at);
}

std::string sync_progress_text(std::int64_t era_number, std::int64_t version,
                               const std::vector<SyncProgressFile>& files_to_download, const ManifestSiblings& siblings,
                               double updated_at) {
  // Rendered directly, as dump_json renders the progress object with sorted
  // keys: a set of 100,000 files is not copied into JSON values first.
  const std::size_t n = files_to_download.size();
  json::value built;
  std::vector<std::size_t> by_path(n);
  for (std::size_t i = 0; i < n; ++i) by_path[i] = i;
  std::stable_sort(by_path.begin(), by_path.end(), [&](std::size_t a, std::size_t b) {
    return files_to_download[a].path < files_to_download[b].path;
  });
  std::vector<char> counted(n, 0);  // the first place of each path
  for (std::size_t k = 0; k < n; ++k) {
    counted[by_path[k]] = k == 0 || files_to_download[by_path[k - 1]].path != files_to_download[by_path[k]].path;
  }
  std::vector<std::optional<std::int64_t>> sizes(n);
  std::int64_t total_bytes = 0;
  bool all_known = true;
  for (std::size_t i = 0; i < n; ++i) {
    if (!counted[i]) continue;
    const json::value& entry = progress_entry(files_to_download[i], built);
    if (siblings.manifest_file_size) sizes[i] = siblings.manifest_file_size(entry);
    if (sizes[i]) {
      // Saturates: sizes from a hostile manifest may add up past 64 bits.
      total_bytes = *sizes[i] > INT64_MAX - total_bytes ? INT64_MAX : total_bytes + *sizes[i];
    } else {
      all_known = false;
    }
  }
  std::string out;
  out.reserve(256 + n * 96);
  out += "{\"era_number\": ";
  out += std::to_string(era_number);
  out += ", \"files\": {";
  bool first = true;
  for (std::size_t i : by_path) {
    if (!counted[i]) continue;
    if (!first) out += ", ";
    first = false;
    const json::value& entry = progress_entry(files_to_download[i], built);
    const json::object* object = as_object(&entry);
    append_json_string(out, files_to_download[i].path);
    out += ": {\"kind\": ";
    append_json(out, text_form_or_empty(object, "kind"));
    out += ", \"platform\": ";
    append_json(out, text_form_or_empty(object, "platform"));
    if (sizes[i]) {
      out += ", \"size_bytes\": ";
      out += std::to_string(*sizes[i]);
    }
    out.push_back('}');
  }
  out += "}, \"phase\": \"syncing\", \"total_bytes\": ";
  out += std::to_string(total_bytes);
  out += ", \"total_bytes_known\": ";
  out += all_known ? "true" : "false";
  out += ", \"unknown_size_files\": [";
  first = true;
  for (std::size_t i = 0; i < n; ++i) {
    if (!counted[i] || sizes[i]) continue;
    if (!first) out += ", ";
    first = false;
    append_json_string(out, files_to_download[i].path);
  }
  out += "], \"updated_at\": ";
  append_json(out, json::value(updated_at));
  out += ", \"version\": ";
  out += std::to_string(version);
  out.push_back('}');
  return out;
}

void write_sync_progress_json(const std::string& data_dir, std::int64_t era_number, std::int64_t version,
                              const json::object& files_to_download, const ManifestSiblings& siblings) {
  atomic_write(sync_progress_path(data_dir),
               sync_progress_text(era_number, version, files_to_download, siblings, wall_clock_seconds()));
}

void write_sync_progress_json(const std::string& data_dir, std::int64_t era_number, std::int64_t version,
                              const std::vector<SyncProgressFile>& files_to_download, const ManifestSiblings& siblings) {
  atomic_write(sync_progress_path(data_dir),
               sync_progress_text(era_number, version, files_to_download, siblings, wall_clock_seconds()));
}

void remove_sync_progress_json(const std::string& data_dir) {
  std::string path = sync_progress_path(data_dir);
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  int error_number = errno;
  try {
    log_debug("best-effort sync progress cleanup failed for %s: %s",
              json::array{json::value(path), json::value(os_error_text(error_number, path))});
  } catch (...) {
    // Clean-up never fails the caller.
  }
}

}  // namespace tidewright::sync
