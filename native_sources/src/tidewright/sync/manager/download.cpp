// File download: one manifest file streamed into "<path>.tmp" in ranged
// requests with an incremental SHA-256, resumed from an existing staging
// file, verified, and promoted by an atomic rename; and the worker pool that
// runs many of them.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
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

// The staging file of one download: appends at its end, hashing every byte.
class StagingSink : public BodySink {
 public:
  StagingSink(int fd, Sha256& hasher, std::int64_t& received, std::int64_t range_start, const std::string& file_path)
      : fd_(fd), hasher_(hasher), received_(received), range_start_(range_start), file_path_(file_path) {}

  void begin(std::int64_t status, const HttpHeaders& headers) override {
    if (status == 200 && range_start_ > 0) {
      // The server ignored the range and sends the whole file: start over.
      restart();
      return;
    }
    if (status == 206) {
      std::optional<std::string> value = headers.get("Content-Range");
      std::optional<ContentRange> range = value ? parse_content_range(*value) : std::nullopt;
      if (!range || range->first != range_start_) {
        throw SyncError("Download failed for " + file_path_ + ": unexpected Content-Range " +
                        (value ? *value : std::string("(none)")));
      }
      complete_length_ = range->complete_length;
    }
  }

  // The file's length as the last 206 announced it, if it did.
  std::optional<std::int64_t> complete_length() const { return complete_length_; }

  void write(std::string_view bytes) override {
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
    if (progress_) progress_->add_bytes(static_cast<std::int64_t>(bytes.size()));
  }

  void restart() {
    if (::ftruncate(fd_, 0) != 0 || ::lseek(fd_, 0, SEEK_SET) < 0) throw_os_error(errno, file_path_);
    hasher_.reset();
    if (progress_) progress_->add_bytes(-received_);
    received_ = 0;
  }

  void set_progress(ProgressFeed* progress) { progress_ = progress; }

 private:
  int fd_;
  Sha256& hasher_;
  std::int64_t& received_;
  std::int64_t range_start_;
  const std::string& file_path_;
  ProgressFeed* progress_ = nullptr;
  std::optional<std::int64_t> complete_length_;
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
  const std::string local = manifest_local_path(target, file_path);
  StagingFile staging_file(real_path(target), local, file_path);
  const std::string& staging = staging_file.path();

  const std::int64_t expected_size = int_field(file_info, "size_bytes").value_or(-1);
  const std::string expected_sha = lower_stripped(file_info.if_contains("sha256"));
  const std::int64_t chunk = sync_http_chunk_bytes();
  const std::string transport = sync_http_transport();
  std::int64_t attempt = 0;
  std::int64_t checksum_repairs = 0;
  std::string actual_sha;

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
        StagingSink sink(fd.get(), hasher, received, start, file_path);
        sink.set_progress(&progress_);
        DownloadResult response = download_request_to_sink(request, sink, sync_http_timeout_seconds(),
                                                           is_public ? std::optional<std::string>(transport) : std::nullopt);
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
          if (should_retry_http_status(json::value(response.status))) {
            // A transient status is retried below, unless the server said not to.
            json::object details = parse_sync_error_body(response.error_body);
            const json::value* retryable = details.if_contains("retryable");
            if (retryable && retryable->is_bool() && !retryable->get_bool()) {
              throw sync_unavailable_from(url, attempt + 1, {response.status}, {}, details);
            }
          }
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
  if (target == data_dir_) hash_cache_.remember(file_path, local, actual_sha);
  result.bytes_downloaded += expected_size >= 0 ? expected_size : file_size(local);
  if (kind == "feature") ++result.features_downloaded;
  if (is_found_pnl_file_kind(kind)) result.found_pnl_paths_downloaded.push_back(file_path);
  progress_.file_done();
}

void SyncManager::download_files_parallel(const std::vector<std::pair<std::string, json::object>>& files,
                                          SyncResult& result) {
  if (files.empty()) return;
  const std::size_t workers =
      std::min<std::size_t>(static_cast<std::size_t>(std::max<std::int64_t>(1, sync_max_concurrency())), files.size());
  if (workers == 1) {
    for (const auto& [path, entry] : files) download_file(path, entry, result);
    return;
  }
  HostRef parent_context = host().current_backoff_context();
  std::atomic<bool> cancel{false};
  std::atomic<std::size_t> next{0};
  std::mutex mu;
  std::exception_ptr first_error;                 // guarded by mu
  std::vector<SyncResult> results(files.size());  // slot per file, written by its worker only
  std::vector<char> completed(files.size(), 0);

  auto worker = [&](std::size_t index) {
    set_current_thread_name({"tw-sync_" + std::to_string(index), ""});
    ScopedSyncStopPredicate stop([&] {
      return cancel.load() || (parent_context && host().backoff_context_stop_requested(parent_context));
    });
    while (!cancel.load()) {
      std::size_t i = next.fetch_add(1);
      if (i >= files.size()) break;
      try {
        download_file(files[i].first, files[i].second, results[i]);
        completed[i] = 1;
      } catch (...) {
        std::lock_guard<std::mutex> lock(mu);
        if (!first_error) first_error = std::current_exception();
        cancel.store(true);  // queued work is abandoned; running transfers stop
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

}  // namespace tidewright::sync
