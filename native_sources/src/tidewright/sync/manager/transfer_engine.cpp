// The transfer engine (see transfer_engine.hpp): one file streamed into its
// staging file with an incremental SHA-256, resumed from what the staging
// file holds, verified and promoted by an atomic rename; large files fetched
// as several ranges at once; and the worker pool that runs a batch.
#include "tidewright/sync/manager/transfer_engine.hpp"

#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/manager/progress.hpp"
#include "tidewright/sync/manager/staging_file.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace tidewright::sync {

namespace {

constexpr std::size_t kResumeHashBlockBytes = 1048576;
// How often an owner waiting for its ranges looks at their progress: bytes
// land without a wake-up per block, so the owner polls between range ends.
constexpr auto kRangeProgressPoll = std::chrono::milliseconds(20);
// How often an idle worker looks for range work of files still in flight.
constexpr auto kIdleWorkerPoll = std::chrono::milliseconds(50);
// How often the workers of a batch ask the caller's backoff context (a host
// call) whether to stop.
constexpr std::chrono::nanoseconds kParentStopInterval = std::chrono::milliseconds(50);

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

std::string kind_text(const json::object* entry) {
  const json::value* v = entry ? entry->if_contains("kind") : nullptr;
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
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
    if (::ftruncate(fd_, 0) != 0) throw_os_error(errno, file_path_);
    hasher_.reset();
    if (progress_) progress_->add_bytes(-received_);
    received_ = 0;
    written_ = 0;
  }

  void set_progress(ProgressFeed* progress) { progress_ = progress; }
  // Counts every byte that arrives (a resumed prefix is not counted).
  void set_fetched_counter(std::int64_t* fetched) { fetched_ = fetched; }

 private:
  // At the end of the bytes received, which is the end of the file.
  void append(std::string_view bytes) {
    write_fully(fd_, bytes, file_path_, received_);
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
// The staging file's mark, if it has one.
std::optional<std::string> staging_mark(int fd) {
  char value[128];
  ssize_t n = ::fgetxattr(fd, kStagingDigestAttribute, value, sizeof value);
  if (n < 0) return std::nullopt;
  return std::string(value, static_cast<std::size_t>(n));
}

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

// A range answer the engine does not handle range by range: a 200 (the
// server ignores ranges), a 416 or an empty 206. The file is then fetched in
// one stream, where each of them has its own handling.
class RangesUnusable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads [from, to) of `fd` into the hasher through `buffer`; stops early
// (returning false) when `abandon` answers true between blocks.
bool hash_file_bytes(int fd, Sha256& hasher, std::int64_t from, std::int64_t to, std::vector<char>& buffer,
                     const std::string& staging, const std::function<bool()>& abandon = {}) {
  if (buffer.size() < kResumeHashBlockBytes) buffer.resize(kResumeHashBlockBytes);
  while (from < to) {
    if (abandon && abandon()) return false;
    const auto want = static_cast<std::size_t>(std::min<std::int64_t>(to - from, static_cast<std::int64_t>(buffer.size())));
    ssize_t n = ::pread(fd, buffer.data(), want, from);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, staging);
    }
    if (n == 0) throw SyncError("Staging file " + staging + " ended before byte " + std::to_string(to));
    hasher.update(std::string_view(buffer.data(), static_cast<std::size_t>(n)));
    from += n;
  }
  return true;
}

}  // namespace

// --- jobs --------------------------------------------------------------------

DownloadJob DownloadJob::for_manifest(const Manifest& manifest, std::string path, const json::object* entry) {
  DownloadJob job;
  job.path = std::move(path);
  if (entry) {
    job.size = int_field(*entry, "size_bytes");
    job.sha256 = lower_stripped(entry->if_contains("sha256"));
    job.kind = kind_text(entry);
  }
  // The manifest's base URL wins over the entry's, as for a file whose
  // entry was packed with it.
  job.base_url = manifest.base_url_text();
  if (!job.base_url && entry) job.base_url = text_field(*entry, "base_url");
  job.manifest_version = manifest.version_int();
  job.manifest_era_number = manifest.era_number_int();
  return job;
}

DownloadJob DownloadJob::for_manifest(const Manifest& manifest, const ManifestFiles::Entry& entry) {
  // Any field of the entry may matter (its own "base_url"): read off the whole entry.
  return for_manifest(manifest, std::string(entry.path()), entry.info());
}

DownloadJob DownloadJob::from_entry(std::string path, const json::object& entry) {
  DownloadJob job;
  job.path = std::move(path);
  job.size = int_field(entry, "size_bytes");
  job.sha256 = lower_stripped(entry.if_contains("sha256"));
  job.kind = kind_text(&entry);
  job.base_url = text_field(entry, "_manifest_base_url");
  if (!job.base_url) job.base_url = text_field(entry, "base_url");
  job.manifest_version = int_field(entry, "_manifest_version");
  job.manifest_era_number = int_field(entry, "_manifest_era_number");
  return job;
}

// --- the worker pool ---------------------------------------------------------

struct RangeFetch;

// The workers of one batch. Files are taken in order; range work offered by
// the owners of large files is taken first, so that every worker stays busy
// until the last file ends.
// The directories the files of one batch go to, each opened beneath the
// data root once for the batch instead of once per file (walking the path
// segment by segment, refusing links, creating what is missing), and closed
// when the batch ends. A file whose directory is not here (not openable
// that way, or too many open) takes the path a file at a time, which
// reports what is wrong with it.
class BatchDirectories {
 public:
  // A descriptor of `parent` (relative to `root`, "" for the root itself),
  // shared with the other files of the batch; none when it cannot be opened
  // without a link.
  std::shared_ptr<const UniqueFd> open(const std::string& root, const std::string& parent) {
    std::shared_ptr<const UniqueFd> dir;
    {
      MutexLock lock(mu_);
      if (root != root_) {
        if (!root_.empty()) return nullptr;  // one root per batch
        root_ = root;
      }
      auto it = open_.find(parent);
      if (it != open_.end()) return it->second;
    }
    try {
      dir = std::make_shared<const UniqueFd>(open_directory_beneath(root, parent));
    } catch (const OSError&) {
      return nullptr;
    }
    MutexLock lock(mu_);
    if (open_.size() < kMaxOpen) dir = open_.try_emplace(parent, dir).first->second;
    return dir;
  }

 private:
  static constexpr std::size_t kMaxOpen = 256;
  Mutex mu_;
  std::string root_ GUARDED_BY(mu_);
  std::map<std::string, std::shared_ptr<const UniqueFd>> open_ GUARDED_BY(mu_);
};

struct TransferEngine::Batch {
  BatchDirectories directories;
  std::string root;  // the resolved data root of the batch's target, set before the workers start
  Mutex mu;
  CondVar cv;
  std::deque<std::shared_ptr<RangeFetch>> offers GUARDED_BY(mu);
  std::size_t files_in_flight GUARDED_BY(mu) = 0;
  std::size_t workers = 1;

  void offer(const std::shared_ptr<RangeFetch>& fetch, std::size_t helpers) {
    if (helpers == 0) return;
    {
      MutexLock lock(mu);
      for (std::size_t i = 0; i < helpers; ++i) offers.push_front(fetch);
    }
    if (helpers == 1) {
      cv.notify_one();
    } else {
      cv.notify_all();
    }
  }
};

// The state of one file while its ranges are fetched (one pass of its
// download). Owner and helpers share it; the range offsets live in the
// staging file's range table, written by whoever fetches the range.
struct RangeFetch {
  // Set once by the owner before it is shared.
  RangeTable* table = nullptr;
  int fd = -1;
  const DownloadJob* job = nullptr;
  std::string url;
  bool is_public = false;
  std::string transport;
  std::function<std::string()> fetch_token;
  ProgressFeed* progress = nullptr;
  const DownloadOptions* options = nullptr;

  Mutex mu;
  CondVar cv;  // a range ended
  std::vector<char> claimed GUARDED_BY(mu);
  std::size_t in_flight GUARDED_BY(mu) = 0;
  bool closed GUARDED_BY(mu) = false;         // nothing more is claimed
  std::exception_ptr error GUARDED_BY(mu);    // the first failure
  std::atomic<bool> abort{false};
  std::atomic<std::int64_t> fetched{0};
  // Taken around each write into the staging file. The kernel serialises
  // buffered writes to one file on the inode's lock, and a writer waiting
  // there spins while the holder copies; waiting here sleeps instead, which
  // leaves the CPU to the transfers and the digest.
  Mutex write_mu;

  // The next range nobody fetches yet, marked as being fetched.
  std::optional<std::size_t> claim() {
    MutexLock lock(mu);
    if (closed || abort.load()) return std::nullopt;
    for (std::size_t i = 0; i < claimed.size(); ++i) {
      if (claimed[i] || table->written(i) >= table->range_end(i)) continue;
      claimed[i] = 1;
      ++in_flight;
      return i;
    }
    return std::nullopt;
  }

  void finished(std::exception_ptr failure) {
    {
      MutexLock lock(mu);
      --in_flight;
      if (failure && !error) {
        error = failure;
        abort.store(true);
      }
    }
    cv.notify_all();
  }

  // Ranges left unclaimed (for how many helpers to ask).
  std::size_t unclaimed() {
    MutexLock lock(mu);
    std::size_t n = 0;
    for (std::size_t i = 0; i < claimed.size(); ++i) {
      if (!claimed[i] && table->written(i) < table->range_end(i)) ++n;
    }
    return n;
  }

  void backoff(std::int64_t& attempt, const std::string& reason) {
    double wait = backoff_delay_seconds(attempt);
    emit_sync_backoff_wait(options->backoff_surface, attempt, reason, job->path, wait);
    if (options->retry_status_callback) options->retry_status_callback(wait);
    sleep_for_sync_backoff(wait);
    ++attempt;
  }

  // Fetches range i to its end. A failure that another request may cure is
  // retried here, from where the range stopped, without touching the rest
  // of the file. `hasher` (the owner's, when the range starts where its
  // digest stands) is fed the bytes as they land and `hashed` follows them.
  void fetch(std::size_t i, Sha256* hasher, std::int64_t* hashed);

  // A helper's share: ranges until none is left.
  void help() {
    while (std::optional<std::size_t> i = claim()) {
      std::exception_ptr failure;
      try {
        fetch(*i, nullptr, nullptr);
      } catch (...) {
        failure = std::current_exception();
      }
      finished(failure);
    }
  }
};

namespace {

// Writes the answer to one range request at its place in the staging file,
// recording each landed block in the range table.
class RangeSink : public BodySink {
 public:
  RangeSink(RangeFetch& fetch, std::size_t index, Sha256* hasher, std::int64_t* hashed)
      : fetch_(fetch),
        index_(index),
        start_(fetch.table->written(index)),
        last_(fetch.table->range_end(index) - 1),
        position_(start_),
        hasher_(hasher),
        hashed_(hashed) {}

  void begin(std::int64_t status, const HttpHeaders& headers) override {
    if (status == 200) throw RangesUnusable("the server ignored the range");
    if (status != 206) return;
    std::optional<std::string> value = headers.get("Content-Range");
    if (!value) {
      limit_ = last_ - start_ + 1;
      return;
    }
    std::optional<ContentRange> range = parse_content_range(*value);
    if (!range || range->first != start_ || range->last > last_) {
      throw ContentRangeMismatch(fetch_.job->path, "bytes " + std::to_string(start_) + "-" + std::to_string(last_),
                                 *value);
    }
    limit_ = range->last - range->first + 1;
  }

  void write(std::string_view bytes) override {
    std::string_view kept = bytes;
    if (position_ - start_ + static_cast<std::int64_t>(bytes.size()) > limit_) {
      kept = bytes.substr(0, static_cast<std::size_t>(limit_ - (position_ - start_)));
    }
    {
      MutexLock lock(fetch_.write_mu);
      write_fully(fetch_.fd, kept, fetch_.job->path, position_);
    }
    if (hasher_) {
      hasher_->update(kept);
      *hashed_ += static_cast<std::int64_t>(kept.size());
    }
    position_ += static_cast<std::int64_t>(kept.size());
    fetch_.table->set_written(index_, position_);  // after the bytes: a kill never records bytes not written
    fetch_.fetched.fetch_add(static_cast<std::int64_t>(kept.size()), std::memory_order_relaxed);
    if (fetch_.progress) fetch_.progress->add_bytes(static_cast<std::int64_t>(kept.size()));
    if (kept.size() < bytes.size()) {
      throw SyncError("Download failed for " + fetch_.job->path + ": the server sent more than the " +
                      std::to_string(limit_) + " bytes of the range asked for; the excess was not written");
    }
  }

  std::int64_t landed() const { return position_ - start_; }

 private:
  RangeFetch& fetch_;
  std::size_t index_;
  std::int64_t start_;
  std::int64_t last_;
  std::int64_t position_;
  std::int64_t limit_ = 0;
  Sha256* hasher_;
  std::int64_t* hashed_;
};

}  // namespace

void RangeFetch::fetch(std::size_t i, Sha256* hasher, std::int64_t* hashed) {
  // A failure elsewhere in the file ends this range's transfer too.
  ScopedSyncStopPredicate stop([this] { return abort.load(std::memory_order_relaxed); });
  std::int64_t attempt = 0;
  while (table->written(i) < table->range_end(i)) {
    if (abort.load()) return;
    try {
      std::optional<std::string> token;
      if (!is_public) token = fetch_token();
      const std::int64_t start = table->written(i);
      HttpRequest request = make_sync_request(url, token, start, table->range_end(i) - 1);
      RangeSink sink(*this, i, hasher, hashed);
      DownloadResult response =
          is_public ? download_request_to_sink(request, sink, sync_http_timeout_seconds(), transport)
                    : download_request_with_sync_retries(request, sink, sync_http_timeout_seconds());
      if (response.status == 206) {
        if (sink.landed() == 0) throw RangesUnusable("empty range");
        if (table->written(i) < table->range_end(i)) backoff(attempt, "partial_transfer");
      } else if (response.status == 200 || response.status == 416) {
        throw RangesUnusable("HTTP " + std::to_string(response.status));
      } else {
        raise_download_http_status(job->path, json::value(response.status));
      }
    } catch (const RangesUnusable&) {
      throw;
    } catch (const ContentRangeMismatch&) {
      throw;
    } catch (const SyncUnavailableError& e) {
      if (!e.retryable_allowed()) throw;
      backoff(attempt, "SyncUnavailableError");
    } catch (const ManifestSupersededError&) {
      throw;
    } catch (const PermanentDownloadError&) {
      throw;
    } catch (const DiskSpaceError&) {
      throw;
    } catch (const IntegrityError&) {
      throw;
    } catch (const ConnectionError& e) {
      if (abort.load()) return;
      const auto* network = dynamic_cast<const NetworkError*>(&e);
      backoff(attempt, network ? network->host_class() : std::string("ConnectionError"));
    } catch (const TimeoutError&) {
      if (abort.load()) return;
      backoff(attempt, "TimeoutError");
    } catch (const SyncError& e) {
      backoff(attempt, e.class_name());
    }
  }
}

// --- one file ----------------------------------------------------------------

// What one download of a file carries between its passes.
struct TransferEngine::FileRun {
  FileRun(const std::string& root, std::string local_path, const std::string& file_path)
      : local(std::move(local_path)), staging(root, local, file_path) {}
  FileRun(std::shared_ptr<const UniqueFd> dir, std::string local_path, const std::string& file_path)
      : local(std::move(local_path)), staging(std::move(dir), local, file_path) {}
  std::string local;
  StagingFile staging;
  std::string actual_sha;
  std::int64_t fetched = 0;  // bytes that arrived during this call
  UniqueFd verified;         // the staging file, verified: open until it is in place
};

namespace {

// Fetches the missing ranges of a file with the helpers of `batch`, and
// feeds `hasher` with all its bytes in order. Returns once every byte is in
// place and hashed; throws the first failure no range retry could cure
// (after every range in flight has ended).
void fetch_ranges(TransferEngine::Batch& batch, const std::shared_ptr<RangeFetch>& fetch, Sha256& hasher,
                  const std::string& staging) {
  RangeTable& table = *fetch->table;
  const std::int64_t size = table.size();
  std::int64_t hashed = 0;
  std::vector<char> buffer;
  batch.offer(fetch, std::min(fetch->unclaimed(), batch.workers) - (fetch->unclaimed() > 0 ? 1 : 0));
  auto abandoned = [&] { return fetch->abort.load(); };
  auto close = [&] {
    MutexLock lock(fetch->mu);
    fetch->closed = true;
    while (fetch->in_flight > 0) fetch->cv.wait_for(fetch->mu, kRangeProgressPoll);
  };
  try {
    while (true) {
      if (sync_backoff_stop_requested()) throw SyncBackoffCancelled("Download cancelled: stop requested");
      // Digest: the bytes in order, as far as they have landed.
      while (hashed < size && !abandoned()) {
        const std::size_t r = static_cast<std::size_t>(hashed / table.range_bytes());
        const std::int64_t landed = table.written(r);
        if (landed <= hashed) break;
        if (!hash_file_bytes(fetch->fd, hasher, hashed, landed, buffer, staging, abandoned)) break;
        hashed = landed;
      }
      {
        MutexLock lock(fetch->mu);
        if (fetch->error) {
          fetch->closed = true;
          while (fetch->in_flight > 0) fetch->cv.wait_for(fetch->mu, kRangeProgressPoll);
          // Taken out: the failure then ends on this thread, whichever
          // thread lets go of the shared state last.
          std::exception_ptr failure = std::exchange(fetch->error, nullptr);
          std::rethrow_exception(failure);
        }
      }
      if (hashed == size) break;
      if (std::optional<std::size_t> r = fetch->claim()) {
        // The owner fetches too; a range that starts where the digest
        // stands is hashed as it lands instead of being read back.
        const bool inline_hash = table.written(*r) == hashed;
        std::exception_ptr failure;
        try {
          fetch->fetch(*r, inline_hash ? &hasher : nullptr, inline_hash ? &hashed : nullptr);
        } catch (...) {
          failure = std::current_exception();
        }
        fetch->finished(failure);
        continue;
      }
      MutexLock lock(fetch->mu);
      fetch->cv.wait_for(fetch->mu, kRangeProgressPoll);
    }
  } catch (...) {
    fetch->abort.store(true);
    close();
    throw;
  }
  close();
}

}  // namespace

TransferEngine::TransferEngine(Context context) : context_(std::move(context)) {}

void TransferEngine::download(const DownloadJob& job, SyncResult& result, const DownloadOptions& options) {
  const std::int64_t chunk = context_.chunk_bytes();
  if (context_.max_concurrency() > 1 && job.size && *job.size > chunk) {
    download_batch({job}, result, {}, options);
    return;
  }
  download_one(job, result, options, nullptr);
}

// One file's download, across the passes it takes.
struct TransferEngine::FileDownload {
  const DownloadJob& job;
  const DownloadOptions& options;
  Batch* batch;
  FileRun& run;
  std::string url;
  bool is_public;
  std::int64_t expected_size;
  std::int64_t chunk;
  std::string transport;
  // Ranges in parallel need workers to share them and a known size; a
  // server that answers them otherwise than with their bytes gets the file
  // in one stream.
  bool one_stream;
  std::int64_t attempt = 0;
  std::int64_t checksum_repairs = 0;
  bool restarted_for_content_range = false;

  // Waits before the next pass.
  void backoff(const std::string& reason) {
    double wait = backoff_delay_seconds(attempt);
    emit_sync_backoff_wait(options.backoff_surface, attempt, reason, job.path, wait);
    if (options.retry_status_callback) options.retry_status_callback(wait);
    sleep_for_sync_backoff(wait);
    ++attempt;
  }

  // Logs the supersede and empties the staging file; the error to throw.
  ManifestSupersededError superseded_error(const char* reason, std::int64_t received, std::int64_t start,
                                           std::int64_t end) {
    json::object fields;
    fields["expected_size"] = expected_size;
    fields["actual_size"] = received;
    fields["range_start"] = start;
    fields["range_end"] = end;
    fields["manifest_version"] = job.manifest_version ? json::value(*job.manifest_version) : json::value(nullptr);
    fields["manifest_era_number"] =
        job.manifest_era_number ? json::value(*job.manifest_era_number) : json::value(nullptr);
    log_sync_event("manifest_superseded", job.path, 1, reason, fields);
    run.staging.truncate();
    return ManifestSupersededError("Manifest advanced while downloading " + job.path + "; refreshing before retry");
  }
};

// One pass over the staging file. Members go in reverse order: the range
// table is unmapped before the file closes.
struct TransferEngine::FilePass {
  Sha256 hasher;
  UniqueFd fd;
  bool created = false;     // the staging file is new: nothing to resume
  std::int64_t length = 0;  // the staging file's length, as opened
  bool marked = false;
  std::optional<RangeTable> table;
  std::int64_t received = 0;
};

void TransferEngine::download_one(const DownloadJob& job, SyncResult& result, const DownloadOptions& options,
                                  Batch* batch) {
  ScopedSyncStopPredicate stop_guard(context_.stop_requested);
  std::optional<std::string> base = job.base_url;
  if (!base) base = context_.held_base_url();
  std::string url = manifest_file_url(context_.server_url, job.path, base);
  const bool is_public = manifest_base_url_uses_public_download(context_.server_url, base);
  std::optional<FileRun> opened;
  open_file_run(job, options, batch, opened);
  FileRun& run = *opened;

  const std::int64_t expected_size = job.size.value_or(-1);
  const std::int64_t chunk = context_.chunk_bytes();
  FileDownload download{job,          options, batch, run, std::move(url), is_public, expected_size, chunk,
                        context_.transport(),
                        batch == nullptr || batch->workers < 2 || expected_size <= chunk};
  while (!run_pass(download)) {
  }
  promote(job, run, result, options);
}

void TransferEngine::open_file_run(const DownloadJob& job, const DownloadOptions& options, Batch* batch,
                                   std::optional<FileRun>& opened) {
  const std::string& file_path = job.path;
  const std::string target = options.target_data_dir.value_or(context_.data_dir);
  // Never through a link: two manifest paths would share a file.
  if (batch && !batch->root.empty() && !options.target_data_dir) {
    // The directory as the batch opened it; the file's own name must not be a link.
    const std::string relative = safe_manifest_relative_path(file_path);
    const std::size_t slash = relative.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : relative.substr(0, slash);
    const std::string leaf = slash == std::string::npos ? relative : relative.substr(slash + 1);
    if (std::shared_ptr<const UniqueFd> dir = batch->directories.open(batch->root, parent)) {
      struct stat st;
      const int rc = ::fstatat(dir->get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW);
      if ((rc == 0 && !S_ISLNK(st.st_mode)) || (rc != 0 && errno == ENOENT)) {
        opened.emplace(std::move(dir), path_join(batch->root, relative), file_path);
      }
    }
  }
  if (!opened) opened.emplace(real_path(target), manifest_local_write_path(target, file_path), file_path);
}

bool TransferEngine::run_pass(FileDownload& d) {
  const std::string& file_path = d.job.path;
  try {
    return attempt_pass(d);
  } catch (const RangesUnusable& e) {
    // The next pass fetches the file in one stream, from what is in place.
    log_info("Fetching %s in one stream: %s", {json::value(file_path), json::value(e.what())});
    d.one_stream = true;
  } catch (const ContentRangeMismatch& e) {
    // A staging file built from a misplaced range is worth nothing: start
    // the file over once; a server that still answers other ranges than
    // asked is not asked again and again.
    if (d.restarted_for_content_range) {
      throw PermanentDownloadError("Download failed for " + file_path + ": asked for " + e.asked +
                                       ", the server answered Content-Range: " + e.answered +
                                       " (also after starting the file over); not retried: the data service or a "
                                       "proxy on the way serves other ranges than asked for",
                                   file_path, 206);
    }
    d.restarted_for_content_range = true;
    log_sync_event("range_resume_reset", file_path, 1, "content_range_mismatch",
                   {{"expected_size", d.expected_size}, {"asked", e.asked}, {"content_range", e.answered}});
    d.run.staging.truncate();
  } catch (const SyncUnavailableError& e) {
    if (!e.retryable_allowed()) throw;
    d.backoff("SyncUnavailableError");
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
    d.backoff(network ? network->host_class() : std::string("ConnectionError"));
  } catch (const TimeoutError&) {
    d.backoff("TimeoutError");
  } catch (const SyncError& e) {
    d.backoff(e.class_name());
  }
  return false;
}

bool TransferEngine::attempt_pass(FileDownload& d) {
  FilePass pass;
  StagingFile::Opened staged = d.run.staging.open();
  pass.fd = std::move(staged.fd);
  pass.created = staged.created;
  pass.length = staged.length;
  resume_staging(d, pass);
  if (pass.table) {
    fetch_in_ranges(d, pass);
  } else {
    fetch_in_one_stream(d, pass);
  }
  return verify_pass(d, pass);
}

void TransferEngine::resume_staging(FileDownload& d, FilePass& pass) {
  const std::string& file_path = d.job.path;
  const std::string& expected_sha = d.job.sha256;
  const std::string& staging = d.run.staging.path();
  const std::int64_t expected_size = d.expected_size;
  const int fd = pass.fd.get();
  std::int64_t length = pass.length;
  // A file fetched in one request has nothing worth marking: a prefix
  // of other bytes costs at most that one request again.
  const std::optional<std::string> mark = pass.created ? std::nullopt : staging_mark(fd);
  pass.marked = mark.has_value();
  if (mark && !expected_sha.empty() && *mark != expected_sha) {
    json::object fields;
    fields["expected_size"] = expected_size;
    fields["actual_size"] = length;
    fields["expected_sha"] = expected_sha;
    log_sync_event("range_resume_reset", file_path, 1, "stale_tmp", fields);
    if (::ftruncate(fd, 0) != 0) throw_os_error(errno, staging);
    length = 0;
  }
  if (expected_size < 0 || expected_size > d.chunk) {
    mark_staging(fd, expected_sha);
    pass.marked = true;
  }

  // What the staging file holds: ranges recorded in its range table
  // (after the file's last byte), or a prefix of the file.
  std::optional<RangeTable>& table = pass.table;
  if (expected_size > 0 && length > expected_size) {
    table = RangeTable::open_existing(fd, expected_size, expected_sha, staging);
  }
  if (table && d.one_stream) {
    const std::int64_t prefix = table->contiguous_prefix();
    table.reset();  // unmapped before the file shrinks under it
    if (::ftruncate(fd, prefix) != 0) throw_os_error(errno, staging);
    length = prefix;
  }
  if (table) {
    std::int64_t staged = 0;
    for (std::size_t i = 0; i < table->range_count(); ++i) staged += table->written(i) - table->range_start(i);
    if (staged > 0) log_sync_event("range_resume", file_path, 1, "partial_tmp", {{"bytes_existing", staged}});
  } else {
    std::int64_t& received = pass.received;
    received = length;
    if (expected_size >= 0 && received > expected_size) {
      // Longer than the file can be: not a prefix of it.
      if (::ftruncate(fd, 0) != 0) throw_os_error(errno, staging);
      received = 0;
    }
    if (received > 0) {
      log_sync_event("range_resume", file_path, 1, "partial_tmp", {{"bytes_existing", received}});
    }
    if (!d.one_stream && received < expected_size) {
      table = RangeTable::create(fd, expected_size, d.chunk, received, expected_sha, staging);
      if (!table) d.one_stream = true;
    }
  }
}

// The missing ranges with the workers of the batch; leaves the file whole.
void TransferEngine::fetch_in_ranges(FileDownload& d, FilePass& pass) {
  const std::string& staging = d.run.staging.path();
  auto fetch = std::make_shared<RangeFetch>();
  fetch->table = &*pass.table;
  fetch->fd = pass.fd.get();
  fetch->job = &d.job;
  fetch->url = d.url;
  fetch->is_public = d.is_public;
  fetch->transport = d.transport;
  fetch->fetch_token = context_.fetch_token;
  fetch->progress = context_.progress;
  fetch->options = &d.options;
  {
    MutexLock lock(fetch->mu);  // not shared yet: for the analysis
    fetch->claimed.assign(pass.table->range_count(), 0);
  }
  try {
    fetch_ranges(*d.batch, fetch, pass.hasher, staging);
  } catch (...) {
    d.run.fetched += fetch->fetched.load();
    throw;
  }
  d.run.fetched += fetch->fetched.load();
  pass.received = d.expected_size;
  pass.table.reset();
  // The table goes; the file is whole. A kill from here on leaves a
  // staging file that is the whole file, resumed as such.
  if (::ftruncate(pass.fd.get(), d.expected_size) != 0) throw_os_error(errno, staging);
}

// The rest of the file after the prefix in place, a chunk a request.
void TransferEngine::fetch_in_one_stream(FileDownload& d, FilePass& pass) {
  const std::string& file_path = d.job.path;
  const std::string& staging = d.run.staging.path();
  const std::int64_t expected_size = d.expected_size;
  const std::int64_t chunk = d.chunk;
  const int fd = pass.fd.get();
  std::int64_t& received = pass.received;
  if (received > 0) {  // the prefix in place, as resume_staging found it
    std::vector<char> buffer;
    hash_file_bytes(fd, pass.hasher, 0, received, buffer, staging);
  }

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
    if (!d.is_public) token = context_.fetch_token();
    HttpRequest request = make_sync_request(d.url, token, start, end);
    StagingSink sink(fd, pass.hasher, received, start, end, expected_size, file_path);
    sink.set_progress(context_.progress);
    sink.set_fetched_counter(&d.run.fetched);
    // Authenticated requests retry transient answers inside the request,
    // as every authenticated GET does; a public one fails the pass (its
    // error body is not read) and another pass follows.
    DownloadResult response =
        d.is_public ? download_request_to_sink(request, sink, sync_http_timeout_seconds(), d.transport)
                    : download_request_with_sync_retries(request, sink, sync_http_timeout_seconds());
    if (response.status == 200) {
      done = true;  // the whole body, from byte 0
    } else if (response.status == 206) {
      if (response.body_bytes == 0) {
        if (manifest_superseded(d.job)) throw d.superseded_error("empty_range", received, start, end);
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
      if (manifest_superseded(d.job)) throw d.superseded_error("http_416", received, start, end);
      json::object fields;
      fields["expected_size"] = expected_size;
      fields["actual_size"] = received;
      fields["range_start"] = start;
      fields["range_end"] = end;
      log_sync_event("range_resume_reset", file_path, 1, "http_416", fields);
      if (::ftruncate(fd, 0) != 0) throw_os_error(errno, staging);
      throw SyncError("Download resume reset for " + file_path + ": HTTP 416");
    } else {
      raise_download_http_status(file_path, json::value(response.status));
    }
  }
}

// Size and checksum of what the pass fetched: true when the staging file is
// ready to promote (its mark gone, its descriptor handed to the run); false
// after waiting for another pass.
bool TransferEngine::verify_pass(FileDownload& d, FilePass& pass) {
  const std::string& file_path = d.job.path;
  const std::string& expected_sha = d.job.sha256;
  const std::string& staging = d.run.staging.path();
  const std::int64_t expected_size = d.expected_size;
  const std::int64_t received = pass.received;
  UniqueFd& fd = pass.fd;
  if (expected_size >= 0 && received < expected_size) {
    if (manifest_superseded(d.job)) throw d.superseded_error("partial_transfer", received, received, -1);
    if (d.options.retry_partial_transfer) {
      fd.reset();
      d.backoff("partial_transfer");
      return false;
    }
    throw IntegrityError("Incomplete download for " + file_path + ": got " + std::to_string(received) +
                         " bytes, expected " + std::to_string(expected_size));
  }

  d.run.actual_sha = pass.hasher.hexdigest();
  bool size_ok = expected_size < 0 || received == expected_size;
  if ((!expected_sha.empty() && d.run.actual_sha != expected_sha) || !size_ok) {
    json::object fields;
    fields["expected_sha"] = expected_sha;
    fields["actual_sha"] = d.run.actual_sha;
    log_sync_event("sha256_mismatch", file_path, d.attempt + 1, "sha256_mismatch", fields);
    if (!d.options.retry_checksum_mismatch) {
      throw IntegrityError("Checksum failure for " + file_path + ": expected " + expected_sha + ", got " +
                           d.run.actual_sha);
    }
    if (manifest_superseded(d.job)) throw d.superseded_error("sha256_mismatch", received, 0, -1);
    if (++d.checksum_repairs > SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS) {
      log_sync_event("checksum_repair_exhausted", file_path, d.checksum_repairs, "sha256_mismatch", fields);
      throw IntegrityError("Checksum failure for " + file_path + ": expected " + expected_sha + ", got " +
                           d.run.actual_sha);
    }
    log_sync_event("checksum_repair", file_path, d.checksum_repairs, "sha256_mismatch", fields);
    if (::ftruncate(fd.get(), 0) != 0) throw_os_error(errno, staging);
    fd.reset();
    d.backoff("sha256_mismatch");
    return false;
  }
  if (pass.marked) ::fremovexattr(fd.get(), kStagingDigestAttribute);  // the mark belongs to the staging file only
  d.run.verified = std::move(fd);
  return true;
}

void TransferEngine::promote(const DownloadJob& job, FileRun& run, SyncResult& result, const DownloadOptions& options) {
  run.staging.promote();
  // The identity the hash cache keeps is that of the file verified, taken
  // through its descriptor once it has its final name (the rename changes
  // its ctime). A close that fails (a file system that reports deferred
  // write errors there) fails the download: the file has its final name
  // then, but the cache does not vouch for it, so the next check reads it.
  struct stat st;
  const bool identified = ::fstat(run.verified.get(), &st) == 0;
  if (run.verified.reset() != 0) throw_os_error(errno, run.local);
  const std::string target = options.target_data_dir.value_or(context_.data_dir);
  if (HostRef guard = context_.freshness_guard ? context_.freshness_guard() : HostRef()) {
    json::object kwargs;
    kwargs["relative_path"] = job.path;
    kwargs["kind"] = job.kind;
    host().call_method(guard, "record_sync_update", {}, kwargs);
  }
  if (job.kind == "vault_module" && target == context_.data_dir) {
    // Only a module in its final place: a staged era's files are not live yet.
    host().vault_module_updated(job.path, run.local, run.actual_sha);
  }
  if (target == context_.data_dir && identified) context_.hash_cache->remember(job.path, stat_key_of(st), run.actual_sha);
  // What this run fetched: a download resumed from an earlier run's staging
  // file counts only the rest of the file.
  result.bytes_downloaded += run.fetched;
  if (job.kind == "feature") ++result.features_downloaded;
  if (is_found_pnl_file_kind(job.kind)) result.found_pnl_paths_downloaded.push_back(job.path);
  context_.progress->file_done();
}

// --- a batch -----------------------------------------------------------------

namespace {

// The stop test of a batch worker: the batch abandoned (`cancel`), or the
// caller's stop test. The caller's stop test is the host's: asked at most
// every kParentStopInterval, not at every check of every transfer.
std::function<bool()> batch_worker_stop(const HostRef& parent_context,
                                        const std::shared_ptr<std::atomic<bool>>& cancel) {
  struct ParentStop {
    std::atomic<bool> said_stop{false};
    std::atomic<std::int64_t> next_ask_ns{0};
  };
  auto parent_stop = std::make_shared<ParentStop>();
  const bool native_parent = native_backoff_stop_of_this_thread() != nullptr;
  std::function<bool()> native_parent_stop = native_parent ? *native_backoff_stop_of_this_thread() : nullptr;
  return [cancel, parent_context, parent_stop, native_parent_stop] {
    if (cancel->load() || parent_stop->said_stop.load()) return true;
    if (native_parent_stop) return native_parent_stop();
    if (!parent_context) return false;
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    std::int64_t due = parent_stop->next_ask_ns.load();
    if (now < due || !parent_stop->next_ask_ns.compare_exchange_strong(due, now + kParentStopInterval.count())) {
      return false;
    }
    if (host().backoff_context_stop_requested(parent_context)) parent_stop->said_stop.store(true);
    return parent_stop->said_stop.load();
  };
}

// Adds the results of the files that completed to `result`, in file order.
void add_batch_results(SyncResult& result, const std::vector<SyncResult>& results,
                       const std::vector<char>& completed) {
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (!completed[i]) continue;
    result.bytes_downloaded += results[i].bytes_downloaded;
    result.features_downloaded += results[i].features_downloaded;
    for (auto& p : results[i].found_pnl_paths_downloaded) result.found_pnl_paths_downloaded.push_back(p);
  }
}

}  // namespace

void TransferEngine::download_batch(const std::vector<DownloadJob>& jobs, SyncResult& result,
                                    const DownloadFailureFilter& set_aside, const DownloadOptions& options) {
  if (jobs.empty()) return;
  const std::size_t workers = batch_workers(jobs);
  if (workers == 1) {
    download_in_turn(jobs, result, set_aside, options);
    return;
  }
  // Each worker runs in the caller's backoff context (its surface, say) with
  // a stop test of its own: the caller's, or the batch being abandoned.
  HostRef parent_context = host().current_backoff_context();
  auto cancel = std::make_shared<std::atomic<bool>>(false);  // may outlive the call inside a context
  std::function<bool()> worker_stop = batch_worker_stop(parent_context, cancel);
  Batch batch;
  batch.workers = workers;
  if (!options.target_data_dir) batch.root = real_path(context_.data_dir);
  std::atomic<std::size_t> next{0};
  Mutex mu;
  std::exception_ptr first_error;                // guarded by mu
  std::vector<SyncResult> results(jobs.size());  // slot per file, written by its worker only
  std::vector<char> completed(jobs.size(), 0);

  auto run_file = [&](std::size_t i) {
    try {
      download_one(jobs[i], results[i], options, &batch);
      completed[i] = 1;
    } catch (...) {
      std::exception_ptr error = std::current_exception();
      if (set_aside && set_aside(jobs[i].path, error)) return;
      MutexLock lock(mu);
      if (!first_error) first_error = error;
      cancel->store(true);  // queued work is abandoned; running transfers stop
    }
  };
  const bool native_url_check =
      host().module_function_is_native_default("tidewright._transport_security", "validate_bearer_transport_url");
  auto worker = [&](std::size_t index) {
    set_current_thread_name({"tw-sync_" + std::to_string(index), ""});
    ScopedBackoffContext context(parent_context, {}, worker_stop);
    ScopedSyncStopPredicate stop(worker_stop);
    ScopedNativeUrlCheck url_check(native_url_check);
    while (!cancel->load()) {
      std::shared_ptr<RangeFetch> offer;
      {
        MutexLock lock(batch.mu);
        if (!batch.offers.empty()) {
          offer = std::move(batch.offers.front());
          batch.offers.pop_front();
        }
      }
      if (offer) {
        offer->help();
        continue;
      }
      std::size_t i = next.fetch_add(1);
      if (i < jobs.size()) {
        {
          MutexLock lock(batch.mu);
          ++batch.files_in_flight;
        }
        run_file(i);
        {
          MutexLock lock(batch.mu);
          --batch.files_in_flight;
        }
        batch.cv.notify_all();
        continue;
      }
      // No file left to start: help the files still in flight, if they ask.
      MutexLock lock(batch.mu);
      if (batch.offers.empty() && batch.files_in_flight == 0) break;
      if (batch.offers.empty()) batch.cv.wait_for(batch.mu, kIdleWorkerPoll);
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (std::size_t w = 0; w < workers; ++w) threads.emplace_back(worker, w);
  for (auto& t : threads) t.join();

  add_batch_results(result, results, completed);
  if (first_error) std::rethrow_exception(first_error);
}

// Workers for `jobs`: sync_max_concurrency at most, and no more than the
// work that can run at once (a file, or each range of a large one).
std::size_t TransferEngine::batch_workers(const std::vector<DownloadJob>& jobs) {
  const std::int64_t chunk = context_.chunk_bytes();
  const auto concurrency = static_cast<std::size_t>(std::max<std::int64_t>(1, context_.max_concurrency()));
  std::size_t units = 0;
  for (const auto& job : jobs) {
    const std::int64_t size = job.size.value_or(0);
    units += size > chunk ? static_cast<std::size_t>((size + chunk - 1) / chunk) : 1;
    if (units >= concurrency) break;
  }
  return std::min(concurrency, units);
}

// The batch on the calling thread, one file after the other.
void TransferEngine::download_in_turn(const std::vector<DownloadJob>& jobs, SyncResult& result,
                                      const DownloadFailureFilter& set_aside, const DownloadOptions& options) {
  for (const auto& job : jobs) {
    try {
      download_one(job, result, options, nullptr);
    } catch (...) {
      if (!set_aside || !set_aside(job.path, std::current_exception())) throw;
    }
  }
}

// --- supersede probes --------------------------------------------------------

bool TransferEngine::manifest_superseded(const DownloadJob& job) {
  const std::optional<std::int64_t>& expected_version = job.manifest_version;
  const std::optional<std::int64_t>& expected_era = job.manifest_era_number;
  HttpResponse probe;
  try {
    HttpRequest request = make_sync_request(context_.server_url + "/data/manifest/version", context_.fetch_token());
    probe = open_request(request, sync_manifest_version_http_timeout_seconds(), std::nullopt, context_.stop_requested);
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
  if (!job.base_url) return false;
  json::object expected;
  if (expected_version) expected["version"] = *expected_version;
  if (expected_era) expected["era_number"] = *expected_era;
  expected["base_url"] = *job.base_url;
  return newer_public_manifest(expected).has_value();
}

std::optional<std::pair<json::object, std::string>> TransferEngine::newer_public_manifest(
    const json::object& manifest_data) {
  std::optional<std::string> base = text_field(manifest_data, "base_url");
  // Only an immutable public location is worth asking; the server's own
  // download endpoint serves what the API serves.
  if (!base || manifest_base_url_uses_public_download(context_.server_url, base)) return std::nullopt;
  UrlParts parts = split_url(*base);
  if (parts.scheme.empty() || parts.netloc.empty()) return std::nullopt;
  std::string url = rstrip_char(strip_ws(*base), '/') + "/manifest.json";
  HttpResponse response;
  try {
    HttpRequest request = make_sync_request(url, std::nullopt);
    response = open_request(request, sync_http_timeout_seconds(), context_.transport(), context_.stop_requested);
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

// Mirrors the resume decision of a download: a staging file is resumed when
// it is a regular file, not marked for other bytes, and either holds a range
// table of this file or is no longer than the file.
std::int64_t resumable_staged_bytes(const std::string& data_dir, const DownloadJob& job) {
  std::string staging;
  try {
    staging = manifest_local_path(data_dir, job.path) + ".tmp";
  } catch (const ManifestError&) {
    return 0;
  }
  return resumable_staged_bytes_at(staging, job);
}

std::int64_t resumable_staged_bytes_at(const std::string& staging, const DownloadJob& job) {
  UniqueFd fd(::open(staging.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  if (staging_marked_for_other_bytes(fd.get(), job.sha256)) return 0;
  if (job.size && *job.size > 0) {
    if (std::optional<std::int64_t> staged = RangeTable::staged_bytes(fd.get(), *job.size, job.sha256)) return *staged;
  }
  const auto staged = static_cast<std::int64_t>(st.st_size);
  if (job.size && staged > *job.size) return 0;
  return staged;
}

}  // namespace tidewright::sync
