// File download: one manifest file streamed into "<path>.tmp" in ranged
// requests with an incremental SHA-256, resumed from an existing staging
// file, verified, and promoted by an atomic rename; and the worker pool that
// runs many of them.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/download_set.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace tidewright::sync {

namespace {

constexpr std::size_t kResumeHashBlockBytes = 1048576;

std::optional<std::string> text_field(const json::object& entry, const char* key) {
  const json::value* v = entry.if_contains(key);
  if (v && v->is_string() && !v->get_string().empty()) return std::string(v->get_string());
  return std::nullopt;
}

std::optional<std::int64_t> int_field(const json::object& entry, const char* key) {
  const json::value* v = entry.if_contains(key);
  if (!v || v->is_null()) return std::nullopt;
  return to_int(*v);
}

std::string lower_stripped(const json::value* v) {
  if (!v || v->is_null()) return "";
  std::string s = strip_ws(python_str(*v));
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// A 206 whose Content-Range names another range than the one asked for.
class ContentRangeMismatch : public SyncError {
 public:
  ContentRangeMismatch(const std::string& file_path, std::string asked, std::string answered)
      : SyncError("Download failed for " + file_path + ": asked for " + asked + ", the server answered Content-Range: " +
                  answered),
        asked(std::move(asked)),
        answered(std::move(answered)) {}
  std::string asked;
  std::string answered;
};

// The staging file of one download, as the answer to one ranged request
// writes it: appends at its end, hashing every byte, and never more bytes
// than that request can rightly bring (the range asked, as far as the file
// reaches; the whole file for a 200). A server that sends more (a 206 whose
// length lies, a 200 that ignores the range and does not end) gets the
// bytes up to that point written and the rest refused with a SyncError,
// which the download retries like any protocol error: the disk never fills
// with the excess.
class StagingSink : public BodySink {
 public:
  // `range_last` is the last byte asked for; `expected_size` the file's
  // size from the manifest (negative when it gives none).
  StagingSink(int fd, Sha256& hasher, std::int64_t& received, std::int64_t range_start, std::int64_t range_last,
              std::int64_t expected_size, const std::string& file_path)
      : fd_(fd),
        hasher_(hasher),
        received_(received),
        range_start_(range_start),
        range_last_(expected_size >= 0 ? std::min(range_last, expected_size - 1) : range_last),
        expected_size_(expected_size),
        file_path_(file_path) {}

  void begin(std::int64_t status, const HttpHeaders& headers) override {
    if (status == 200) {
      // The server ignored the range and sends the whole file: start over.
      if (range_start_ > 0) start_over();
      limit_ = expected_size_ >= 0 ? std::optional<std::int64_t>(expected_size_) : std::nullopt;
      what_ = "the whole file";
      return;
    }
    if (status != 206) return;
    const std::string asked = "bytes " + std::to_string(range_start_) + "-" + std::to_string(range_last_);
    std::optional<std::string> value = headers.get("Content-Range");
    if (!value) {
      // A proxy may drop the header: the body is taken as the range asked
      // for, and held to its length.
      limit_ = range_last_ - range_start_ + 1;
      what_ = asked;
      return;
    }
    std::optional<ContentRange> range = parse_content_range(*value);
    if (!range || range->first != range_start_ || range->last > range_last_) {
      throw ContentRangeMismatch(file_path_, asked, *value);
    }
    complete_length_ = range->complete_length;
    limit_ = range->last - range->first + 1;
    what_ = "bytes " + std::to_string(range->first) + "-" + std::to_string(range->last);
  }

  // The file's length as the last 206 announced it, if it did.
  std::optional<std::int64_t> complete_length() const { return complete_length_; }

  void write(std::string_view bytes) override {
    std::string_view kept = bytes;
    if (limit_ && written_ + static_cast<std::int64_t>(bytes.size()) > *limit_) {
      kept = bytes.substr(0, static_cast<std::size_t>(*limit_ - written_));
    }
    append(kept);
    if (kept.size() < bytes.size()) {
      throw SyncError("Download failed for " + file_path_ + ": the server sent more than the " +
                      std::to_string(*limit_) + " bytes of " + what_ + "; the excess was not written");
    }
  }

  void start_over() {
    if (::ftruncate(fd_, 0) != 0 || ::lseek(fd_, 0, SEEK_SET) < 0) throw_os_error(errno, file_path_);
    hasher_.reset();
    if (progress_) progress_->add_bytes(-received_);
    received_ = 0;
    written_ = 0;
  }

  void set_progress(ProgressFeed* progress) { progress_ = progress; }
  // Counts every byte that arrives (a resumed prefix is not counted).
  void set_fetched_counter(std::int64_t* fetched) { fetched_ = fetched; }

 private:
  void append(std::string_view bytes) {
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
      ssize_t n = ::write(fd_, data, left);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == ENOSPC || errno == EDQUOT) {
          throw DiskSpaceError("Insufficient disk space while writing " + file_path_ + ": " + std::strerror(errno));
        }
        throw_os_error(errno, file_path_);
      }
      data += n;
      left -= static_cast<std::size_t>(n);
    }
    hasher_.update(bytes);
    received_ += static_cast<std::int64_t>(bytes.size());
    written_ += static_cast<std::int64_t>(bytes.size());
    if (fetched_) *fetched_ += static_cast<std::int64_t>(bytes.size());
    if (progress_) progress_->add_bytes(static_cast<std::int64_t>(bytes.size()));
  }

  int fd_;
  Sha256& hasher_;
  std::int64_t& received_;
  std::int64_t range_start_;
  std::int64_t range_last_;
  std::int64_t expected_size_;
  const std::string& file_path_;
  ProgressFeed* progress_ = nullptr;
  std::int64_t* fetched_ = nullptr;
  std::optional<std::int64_t> complete_length_;
  std::optional<std::int64_t> limit_;  // bytes this answer may write; none: unbounded
  std::string what_;
  std::int64_t written_ = 0;
};

// A staging file carries the digest of the file it holds a prefix of in an
// extended attribute, so that a prefix of other bytes (a download of an
// earlier manifest version, interrupted) starts over at once instead of being
// resumed and found wrong only at the end. Where the file system has no user
// attributes, or the file has none, the staging file is resumed as it is.
constexpr const char* kStagingDigestAttribute = "user.tidewright.sha256";

// Whether the staging file is marked as a prefix of another file.
bool staging_marked_for_other_bytes(int fd, const std::string& expected_sha) {
  char value[128];
  ssize_t n = ::fgetxattr(fd, kStagingDigestAttribute, value, sizeof value);
  if (n < 0 || expected_sha.empty()) return false;
  return std::string_view(value, static_cast<std::size_t>(n)) != expected_sha;
}

// Best effort: without the mark the file is only resumed blindly.
void mark_staging(int fd, const std::string& expected_sha) {
  if (expected_sha.empty()) {
    ::fremovexattr(fd, kStagingDigestAttribute);
    return;
  }
  ::fsetxattr(fd, kStagingDigestAttribute, expected_sha.data(), expected_sha.size(), 0);
}

// The length N of an unsatisfied-range answer "bytes */N".
std::optional<std::int64_t> unsatisfied_range_length(const HttpHeaders& headers) {
  std::optional<std::string> value = headers.get("Content-Range");
  if (!value) return std::nullopt;
  std::string text = strip_ws(*value);
  constexpr std::string_view kPrefix = "bytes */";
  if (text.size() <= kPrefix.size() || text.compare(0, kPrefix.size(), kPrefix) != 0) return std::nullopt;
  std::int64_t n = 0;
  for (std::size_t i = kPrefix.size(); i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9' || n > (std::numeric_limits<std::int64_t>::max() - 9) / 10) return std::nullopt;
    n = n * 10 + (text[i] - '0');
  }
  return n;
}

// The staging file "<name>.tmp" of one download, always reached through a
// descriptor of its directory that was opened segment by segment below the
// data directory without following links (the path was checked before, but
// the tree may change after the check). Whatever is planted in the data
// directory meanwhile, a link at the staging name or a directory swapped for
// a link, reads, writes, truncation and the final rename stay inside it.
class StagingFile {
 public:
  // `local` is the checked final path, inside the resolved `root`.
  StagingFile(const std::string& root, const std::string& local, const std::string& file_path)
      : path_(local + ".tmp"), name_(path_basename(local) + ".tmp"), final_name_(path_basename(local)) {
    const std::string parent = path_dirname(local);
    std::string_view relative;
    if (parent.size() > root.size()) relative = std::string_view(parent).substr(root.size());
    try {
      dir_ = open_directory_beneath(root, relative);
    } catch (const OSError& e) {
      if (e.error_number != ELOOP) throw;
      throw ManifestError("Manifest file path escapes data directory: " + python_repr(file_path));
    }
  }

  const std::string& path() const { return path_; }

  // Opens (creating) the staging file for reading and appending. Anything
  // but a regular file at the name (a link, a pipe that would block a read)
  // is never ours: it is removed, not followed.
  UniqueFd open() {
    for (int attempt = 0;; ++attempt) {
      UniqueFd fd(::openat(dir_.get(), name_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
      if (fd.valid()) {
        struct stat st;
        if (::fstat(fd.get(), &st) != 0) throw_os_error(errno, path_);
        if (S_ISREG(st.st_mode)) return fd;
      } else if (errno != ELOOP) {
        throw_os_error(errno, path_);
      }
      if (attempt > 0) throw_os_error(ELOOP, path_);
      log_warning("Removing %s: a staging file must be a regular file", {json::value(path_)});
      if (::unlinkat(dir_.get(), name_.c_str(), 0) != 0 && errno != ENOENT) throw_os_error(errno, path_);
    }
  }

  void truncate() {
    UniqueFd fd = open();
    if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, path_);
  }

  // The atomic rename onto the final name, in the same directory.
  void promote() {
    if (::renameat(dir_.get(), name_.c_str(), dir_.get(), final_name_.c_str()) != 0) throw_os_error(errno, path_);
  }

 private:
  std::string path_;
  std::string name_;
  std::string final_name_;
  UniqueFd dir_;
};

// Reads an existing staging file into the hasher; returns its length.
std::int64_t hash_existing(int fd, Sha256& hasher, const std::string& staging) {
  std::vector<char> buffer(kResumeHashBlockBytes);
  std::int64_t total = 0;
  if (::lseek(fd, 0, SEEK_SET) < 0) throw_os_error(errno, staging);
  while (true) {
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, staging);
    }
    if (n == 0) break;
    hasher.update(std::string_view(buffer.data(), static_cast<std::size_t>(n)));
    total += n;
  }
  return total;
}

}  // namespace

HttpResponse SyncManager::http_get(const std::string& url, std::int64_t range_start, std::int64_t range_end) {
  ScopedSyncStopPredicate stop([this] { return stop_requested(); });
  return tidewright::sync::http_get(url, fetch_token(), range_start, range_end);
}

HttpResponse SyncManager::http_get_public(const std::string& url, std::int64_t range_start, std::int64_t range_end) {
  ScopedSyncStopPredicate stop([this] { return stop_requested(); });
  return tidewright::sync::http_get_public(url, range_start, range_end, sync_http_transport());
}

bool SyncManager::download_manifest_superseded(const json::object& file_info) {
  std::optional<std::int64_t> expected_version = int_field(file_info, "_manifest_version");
  std::optional<std::int64_t> expected_era = int_field(file_info, "_manifest_era_number");
  HttpResponse probe;
  try {
    HttpRequest request = make_sync_request(server_url_ + "/data/manifest/version", fetch_token());
    probe = open_request(request, sync_manifest_version_http_timeout_seconds(), std::nullopt,
                         [this] { return stop_requested(); });
  } catch (const SyncBackoffCancelled&) {
    throw;
  } catch (const HostError& e) {
    if (e.is(HostError::kIsAuthError) || e.is(HostError::kIsSyncBackoffCancelled)) throw;
    log_info("Manifest version probe failed during checksum repair: %s", {json::value(e.what())});
    return false;
  } catch (const std::exception& e) {
    log_info("Manifest version probe failed during checksum repair: %s", {json::value(e.what())});
    return false;
  }
  if (probe.status == 401) throw AuthError("Authentication failed while probing manifest version: HTTP 401");
  if (probe.status != 200) return false;
  json::object body;
  try {
    json::value parsed = parse_json(probe.body);
    if (!parsed.is_object()) throw JsonParseError("not a JSON object");
    body = std::move(parsed.get_object());
  } catch (const JsonParseError& e) {
    log_info("Manifest version probe was not parseable during checksum repair: %s", {json::value(e.what())});
    return false;
  }
  std::optional<std::int64_t> server_version = int_field(body, "version");
  std::optional<std::int64_t> server_era = int_field(body, "era_number");
  if (server_era && expected_era && *server_era > *expected_era) return true;
  if (server_version && expected_version && *server_version > *expected_version &&
      (!server_era || !expected_era || *server_era == *expected_era)) {
    return true;
  }
  // The API's hints may lag behind an immutable public manifest.
  std::optional<std::string> base = text_field(file_info, "_manifest_base_url");
  if (!base) base = text_field(file_info, "base_url");
  if (!base) return false;
  json::object expected;
  if (expected_version) expected["version"] = *expected_version;
  if (expected_era) expected["era_number"] = *expected_era;
  expected["base_url"] = *base;
  return newer_public_manifest(expected).has_value();
}

std::optional<std::pair<json::object, std::string>> SyncManager::newer_public_manifest(const json::object& manifest_data) {
  std::optional<std::string> base = text_field(manifest_data, "base_url");
  // Only an immutable public location is worth asking; the server's own
  // download endpoint serves what the API serves.
  if (!base || manifest_base_url_uses_public_download(server_url_, base)) return std::nullopt;
  UrlParts parts = split_url(*base);
  if (parts.scheme.empty() || parts.netloc.empty()) return std::nullopt;
  std::string url = rstrip_char(strip_ws(*base), '/') + "/manifest.json";
  HttpResponse response;
  try {
    HttpRequest request = make_sync_request(url, std::nullopt);
    response = open_request(request, sync_http_timeout_seconds(), sync_http_transport(),
                            [this] { return stop_requested(); });
  } catch (const SyncBackoffCancelled&) {
    throw;
  } catch (const std::exception& e) {
    log_debug("Public manifest probe failed: %s", {json::value(e.what())});
    return std::nullopt;
  }
  if (response.status != 200) return std::nullopt;
  json::value parsed;
  try {
    parsed = parse_json(response.body);
  } catch (const JsonParseError&) {
    return std::nullopt;
  }
  if (!parsed.is_object()) return std::nullopt;
  const json::object& pub = parsed.get_object();
  std::int64_t pub_era = int_field(pub, "era_number").value_or(-1);
  std::int64_t pub_version = int_field(pub, "version").value_or(-1);
  std::int64_t era = int_field(manifest_data, "era_number").value_or(-1);
  std::int64_t version = int_field(manifest_data, "version").value_or(-1);
  bool newer = pub_era > era || (pub_era == era && pub_version > version);
  if (!newer) return std::nullopt;
  return std::make_pair(pub, std::move(response.body));
}

void SyncManager::download_file(const std::string& file_path, const json::object& file_info, SyncResult& result,
                                const DownloadOptions& options) {
  ScopedSyncStopPredicate stop_guard([this] { return stop_requested(); });
  ManifestPtr held = get_manifest();
  std::optional<std::string> base = text_field(file_info, "_manifest_base_url");
  if (!base) base = text_field(file_info, "base_url");
  if (!base && held) base = held->base_url_text();
  const std::string url = manifest_file_url(server_url_, file_path, base);
  const bool is_public = manifest_base_url_uses_public_download(server_url_, base);
  const std::string target = options.target_data_dir.value_or(data_dir_);
  // Never through a link: two manifest paths would share a file.
  const std::string local = manifest_local_write_path(target, file_path);
  StagingFile staging_file(real_path(target), local, file_path);
  const std::string& staging = staging_file.path();

  const std::int64_t expected_size = int_field(file_info, "size_bytes").value_or(-1);
  const std::string expected_sha = lower_stripped(file_info.if_contains("sha256"));
  const std::int64_t chunk = sync_http_chunk_bytes();
  const std::string transport = sync_http_transport();
  std::int64_t attempt = 0;
  std::int64_t checksum_repairs = 0;
  bool restarted_for_content_range = false;
  std::string actual_sha;
  std::int64_t fetched = 0;  // bytes that arrived during this call

  auto backoff = [&](const std::string& reason) {
    double wait = backoff_delay_seconds(attempt);
    emit_sync_backoff_wait(options.backoff_surface, attempt, reason, file_path, wait);
    if (options.retry_status_callback) options.retry_status_callback(wait);
    sleep_for_sync_backoff(wait);
    ++attempt;
  };
  auto superseded_error = [&](const char* reason, std::int64_t received, std::int64_t start, std::int64_t end) {
    json::object fields;
    fields["expected_size"] = expected_size;
    fields["actual_size"] = received;
    fields["range_start"] = start;
    fields["range_end"] = end;
    fields["manifest_version"] = int_field(file_info, "_manifest_version") ? json::value(*int_field(file_info, "_manifest_version")) : json::value(nullptr);
    fields["manifest_era_number"] = int_field(file_info, "_manifest_era_number") ? json::value(*int_field(file_info, "_manifest_era_number")) : json::value(nullptr);
    log_sync_event("manifest_superseded", file_path, 1, reason, fields);
    staging_file.truncate();
    return ManifestSupersededError("Manifest advanced while downloading " + file_path + "; refreshing before retry");
  };

  while (true) {
    try {
      Sha256 hasher;
      UniqueFd fd = staging_file.open();
      if (staging_marked_for_other_bytes(fd.get(), expected_sha)) {
        json::object fields;
        fields["expected_size"] = expected_size;
        fields["actual_size"] = file_size(staging);
        fields["expected_sha"] = expected_sha;
        log_sync_event("range_resume_reset", file_path, 1, "stale_tmp", fields);
        if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, staging);
      }
      mark_staging(fd.get(), expected_sha);
      std::int64_t received = hash_existing(fd.get(), hasher, staging);
      if (received > 0) {
        log_sync_event("range_resume", file_path, 1, "partial_tmp", {{"bytes_existing", received}});
      }
      if (expected_size >= 0 && received > expected_size) {
        // Longer than the file can be: not a prefix of it.
        if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, staging);
        hasher.reset();
        received = 0;
      }
      if (::lseek(fd.get(), 0, SEEK_END) < 0) throw_os_error(errno, staging);

      // Without a size in the manifest, the length comes from the server's
      // Content-Range; a short chunk or an unsatisfiable range at the end
      // also ends the file.
      std::optional<std::int64_t> total;
      if (expected_size >= 0) total = expected_size;
      bool done = false;
      while (!done && (!total || received < *total)) {
        const std::int64_t start = received;
        const std::int64_t end = start + chunk - 1;
        std::optional<std::string> token;
        if (!is_public) token = fetch_token();
        HttpRequest request = make_sync_request(url, token, start, end);
        StagingSink sink(fd.get(), hasher, received, start, end, expected_size, file_path);
        sink.set_progress(&progress_);
        sink.set_fetched_counter(&fetched);
        // Authenticated requests retry transient answers inside the request,
        // as every authenticated GET does; a public one fails the pass (its
        // error body is not read) and the pass is retried below.
        DownloadResult response =
            is_public ? download_request_to_sink(request, sink, sync_http_timeout_seconds(), transport)
                      : download_request_with_sync_retries(request, sink, sync_http_timeout_seconds());
        if (response.status == 200) {
          done = true;  // the whole body, from byte 0
        } else if (response.status == 206) {
          if (response.body_bytes == 0) {
            if (download_manifest_superseded(file_info)) throw superseded_error("empty_range", received, start, end);
            throw SyncError("Download failed for " + file_path + ": empty range " + std::to_string(start) + "-" +
                            std::to_string(end));
          }
          if (!total) total = sink.complete_length();
          if (!total && response.body_bytes < chunk) done = true;
        } else if (response.status == 416) {
          if (expected_size < 0 && unsatisfied_range_length(response.headers) == received) {
            done = true;  // asked for the range just past the end
            continue;
          }
          if (download_manifest_superseded(file_info)) throw superseded_error("http_416", received, start, end);
          json::object fields;
          fields["expected_size"] = expected_size;
          fields["actual_size"] = received;
          fields["range_start"] = start;
          fields["range_end"] = end;
          log_sync_event("range_resume_reset", file_path, 1, "http_416", fields);
          if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, staging);
          throw SyncError("Download resume reset for " + file_path + ": HTTP 416");
        } else {
          raise_download_http_status(file_path, json::value(response.status));
        }
      }

      if (expected_size >= 0 && received < expected_size) {
        if (download_manifest_superseded(file_info)) throw superseded_error("partial_transfer", received, received, -1);
        if (options.retry_partial_transfer) {
          fd.reset();
          backoff("partial_transfer");
          continue;
        }
        throw IntegrityError("Incomplete download for " + file_path + ": got " + std::to_string(received) +
                             " bytes, expected " + std::to_string(expected_size));
      }

      actual_sha = hasher.hexdigest();
      bool size_ok = expected_size < 0 || received == expected_size;
      if ((!expected_sha.empty() && actual_sha != expected_sha) || !size_ok) {
        json::object fields;
        fields["expected_sha"] = expected_sha;
        fields["actual_sha"] = actual_sha;
        log_sync_event("sha256_mismatch", file_path, attempt + 1, "sha256_mismatch", fields);
        if (!options.retry_checksum_mismatch) {
          throw IntegrityError("Checksum failure for " + file_path + ": expected " + expected_sha + ", got " + actual_sha);
        }
        if (download_manifest_superseded(file_info)) throw superseded_error("sha256_mismatch", received, 0, -1);
        if (++checksum_repairs > SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS) {
          log_sync_event("checksum_repair_exhausted", file_path, checksum_repairs, "sha256_mismatch", fields);
          throw IntegrityError("Checksum failure for " + file_path + ": expected " + expected_sha + ", got " + actual_sha);
        }
        log_sync_event("checksum_repair", file_path, checksum_repairs, "sha256_mismatch", fields);
        if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, staging);
        fd.reset();
        backoff("sha256_mismatch");
        continue;
      }
      ::fremovexattr(fd.get(), kStagingDigestAttribute);  // the mark belongs to the staging file only
      if (fd.reset() != 0) throw_os_error(errno, staging);
      break;
    } catch (const ContentRangeMismatch& e) {
      // A staging file built from a misplaced range is worth nothing: start
      // the file over once; a server that still answers other ranges than
      // asked is not asked again and again.
      if (restarted_for_content_range) {
        throw PermanentDownloadError("Download failed for " + file_path + ": asked for " + e.asked +
                                         ", the server answered Content-Range: " + e.answered +
                                         " (also after starting the file over); not retried: the data service or a "
                                         "proxy on the way serves other ranges than asked for",
                                     file_path, 206);
      }
      restarted_for_content_range = true;
      log_sync_event("range_resume_reset", file_path, 1, "content_range_mismatch",
                     {{"expected_size", expected_size}, {"asked", e.asked}, {"content_range", e.answered}});
      staging_file.truncate();
    } catch (const SyncUnavailableError& e) {
      if (!e.retryable_allowed()) throw;
      backoff("SyncUnavailableError");
    } catch (const ManifestSupersededError&) {
      throw;
    } catch (const PermanentDownloadError&) {
      throw;
    } catch (const DiskSpaceError&) {
      throw;
    } catch (const IntegrityError&) {
      throw;  // raised only where the retry flags forbid another pass
    } catch (const ConnectionError& e) {
      const auto* network = dynamic_cast<const NetworkError*>(&e);
      backoff(network ? network->host_class() : std::string("ConnectionError"));
    } catch (const TimeoutError&) {
      backoff("TimeoutError");
    } catch (const SyncError& e) {
      backoff(e.class_name());
    }
  }

  // Promotion.
  staging_file.promote();
  std::string kind = file_info.if_contains("kind") && file_info.at("kind").is_string()
                         ? std::string(file_info.at("kind").get_string())
                         : std::string();
  if (HostRef guard = runtime_freshness_guard()) {
    json::object kwargs;
    kwargs["relative_path"] = file_path;
    kwargs["kind"] = kind;
    host().call_method(guard, "record_sync_update", {}, kwargs);
  }
  if (kind == "vault_module" && target == data_dir_) {
    // Only a module in its final place: a staged era's files are not live yet.
    host().call_module_function("tidewright.runtime_module_freshness", "vault_module_updated", {},
                                {{"relative_path", file_path}, {"local_path", local}, {"sha256", actual_sha}});
  }
  if (target == data_dir_) hash_cache_.remember(file_path, local, actual_sha);
  // What this run fetched: a download resumed from an earlier run's staging
  // file counts only the rest of the file.
  result.bytes_downloaded += fetched;
  if (kind == "feature") ++result.features_downloaded;
  if (is_found_pnl_file_kind(kind)) result.found_pnl_paths_downloaded.push_back(file_path);
  progress_.file_done();
}

void SyncManager::download_files_parallel(const std::vector<std::pair<std::string, json::object>>& files,
                                          SyncResult& result, const DownloadFailureFilter& set_aside) {
  if (files.empty()) return;
  const std::size_t workers =
      std::min<std::size_t>(static_cast<std::size_t>(std::max<std::int64_t>(1, sync_max_concurrency())), files.size());
  if (workers == 1) {
    for (const auto& [path, entry] : files) {
      try {
        download_file(path, entry, result);
      } catch (...) {
        if (!set_aside || !set_aside(path, std::current_exception())) throw;
      }
    }
    return;
  }
  // Each worker runs in the caller's backoff context (its surface, say) with
  // a stop test of its own: the caller's, or the batch being abandoned.
  HostRef parent_context = host().current_backoff_context();
  auto cancel = std::make_shared<std::atomic<bool>>(false);  // may outlive the call inside a context
  auto worker_stop = [cancel, parent_context] {
    return cancel->load() || (parent_context && host().backoff_context_stop_requested(parent_context));
  };
  std::atomic<std::size_t> next{0};
  std::mutex mu;
  std::exception_ptr first_error;                 // guarded by mu
  std::vector<SyncResult> results(files.size());  // slot per file, written by its worker only
  std::vector<char> completed(files.size(), 0);

  auto worker = [&](std::size_t index) {
    set_current_thread_name({"tw-sync_" + std::to_string(index), ""});
    ScopedBackoffContext context(parent_context, {}, worker_stop);
    ScopedSyncStopPredicate stop(worker_stop);
    while (!cancel->load()) {
      std::size_t i = next.fetch_add(1);
      if (i >= files.size()) break;
      try {
        download_file(files[i].first, files[i].second, results[i]);
        completed[i] = 1;
      } catch (...) {
        std::exception_ptr error = std::current_exception();
        if (set_aside && set_aside(files[i].first, error)) continue;
        std::lock_guard<std::mutex> lock(mu);
        if (!first_error) first_error = error;
        cancel->store(true);  // queued work is abandoned; running transfers stop
      }
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (std::size_t w = 0; w < workers; ++w) threads.emplace_back(worker, w);
  for (auto& t : threads) t.join();

  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!completed[i]) continue;
    result.bytes_downloaded += results[i].bytes_downloaded;
    result.features_downloaded += results[i].features_downloaded;
    for (auto& p : results[i].found_pnl_paths_downloaded) result.found_pnl_paths_downloaded.push_back(p);
  }
  if (first_error) std::rethrow_exception(first_error);
}

// Mirrors the resume decision of download_file: a staging file is resumed
// when it is a regular file, not marked for other bytes, and no longer than
// the file.
std::int64_t resumable_staged_bytes(const std::string& data_dir, const std::string& file_path,
                                    const json::object& info, std::optional<std::int64_t> size) {
  std::string staging;
  try {
    staging = manifest_local_path(data_dir, file_path) + ".tmp";
  } catch (const ManifestError&) {
    return 0;
  }
  UniqueFd fd(::open(staging.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  if (staging_marked_for_other_bytes(fd.get(), lower_stripped(info.if_contains("sha256")))) return 0;
  const auto staged = static_cast<std::int64_t>(st.st_size);
  if (size && staged > *size) return 0;
  return staged;
}

}  // namespace tidewright::sync
