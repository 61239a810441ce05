// The transfer engine: moves manifest files from the data service into a
// data directory. It owns the worker pool, the download of one file (staging
// file, resume, verification, promotion) and the supersede probes asked when
// a download fails in a way that may mean the service has moved on.
//
// A file larger than one range (sync_http_chunk_bytes) is fetched as several
// ranges at once, by the workers of the batch it belongs to: the worker that
// took the file (its owner) fetches ranges too and feeds the SHA-256 with
// every byte in order as the ranges land, so a file still becomes visible
// only after all its bytes were verified. Resume stays exact across a kill
// through the range table of the staging file (staging_file.hpp).
//
// Thread-safety: the engine holds no state between calls beyond what its
// context gives it; every call may run on several threads at once. No lock
// is held across a transfer.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/results.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tidewright::sync {

class HashCache;
class ProgressFeed;

// One file to download, as the manifest that listed it describes it.
struct DownloadJob {
  std::string path;                              // manifest-relative
  std::optional<std::int64_t> size;              // "size_bytes"
  std::string sha256;                            // lower-case; empty: none given
  std::string kind;                              // "" when absent
  std::optional<std::string> base_url;           // the entry's, else its manifest's
  std::optional<std::int64_t> manifest_version;  // for the supersede probes
  std::optional<std::int64_t> manifest_era_number;

  // The job for `info`, an entry of `manifest`.
  static DownloadJob for_manifest(const Manifest& manifest, std::string path, const json::object* info);
  static DownloadJob for_manifest(const Manifest& manifest, std::string path, const json::value& info) {
    return for_manifest(manifest, std::move(path), info.if_object());
  }
  static DownloadJob for_manifest(const Manifest& manifest, const ManifestFiles::Entry& entry);
  // The job for an entry given by a caller as one object: the entry's keys
  // plus "_manifest_base_url", "_manifest_version", "_manifest_era_number".
  static DownloadJob from_entry(std::string path, const json::object& entry);
};

struct DownloadOptions {
  std::optional<std::string> target_data_dir;
  std::string backoff_surface = "file_download";
  bool retry_partial_transfer = true;
  bool retry_checksum_mismatch = true;
  std::function<void(double)> retry_status_callback;
};

// Whether a failed download may leave its file out while the others go on:
// `set_aside(path, error)` answers true for a failure the caller deals with
// after the batch. Called on worker threads. Without one (and for every
// failure it declines) the first failure ends the batch.
using DownloadFailureFilter = std::function<bool(const std::string& path, const std::exception_ptr& error)>;

class TransferEngine {
 public:
  // What the engine needs of its manager; set once, never changed.
  struct Context {
    std::string server_url;
    std::string data_dir;
    std::function<std::string()> fetch_token;
    std::function<bool()> stop_requested;
    std::function<std::string()> transport;             // the sync_http_transport knob
    std::function<std::int64_t()> chunk_bytes;          // sync_http_chunk_bytes
    std::function<std::int64_t()> max_concurrency;      // sync_max_concurrency
    std::function<std::optional<std::string>()> held_base_url;  // of the manifest held
    std::function<HostRef()> freshness_guard;           // runtime_freshness_guard, may be empty
    ProgressFeed* progress = nullptr;
    HashCache* hash_cache = nullptr;
  };

  explicit TransferEngine(Context context);

  // Downloads one file (its ranges in parallel when it is large) into the
  // data directory or options.target_data_dir; adds to `result`.
  void download(const DownloadJob& job, SyncResult& result, const DownloadOptions& options = {});
  // Downloads a set of files on up to sync_max_concurrency workers shared by
  // all of them (ranges of large files included); adds to `result`.
  void download_batch(const std::vector<DownloadJob>& jobs, SyncResult& result,
                      const DownloadFailureFilter& set_aside = {}, const DownloadOptions& options = {});

  // True when the server has advanced past the manifest of `job`.
  bool manifest_superseded(const DownloadJob& job);
  // The immutable public manifest under the manifest's base URL, with its
  // body, when it is newer than `manifest_data` ("version", "era_number",
  // "base_url").
  std::optional<std::pair<json::object, std::string>> newer_public_manifest(const json::object& manifest_data);

  // Called by the workers; public for the file and range code of the engine.
  struct Batch;
  struct FileRun;

 private:
  struct FileDownload;  // one file's download, across its passes
  struct FilePass;      // one pass over its staging file

  void download_one(const DownloadJob& job, SyncResult& result, const DownloadOptions& options, Batch* batch);
  // The staging file of `job`, beneath the directory the batch opened when it can.
  void open_file_run(const DownloadJob& job, const DownloadOptions& options, Batch* batch,
                     std::optional<FileRun>& opened);
  // One pass and its failure: true once the file is fetched and verified,
  // false when another pass follows.
  bool run_pass(FileDownload& download);
  bool attempt_pass(FileDownload& download);
  // Opens what the staging file holds to resume from: a range table or a prefix.
  void resume_staging(FileDownload& download, FilePass& pass);
  void fetch_in_ranges(FileDownload& download, FilePass& pass);
  void fetch_in_one_stream(FileDownload& download, FilePass& pass);
  bool verify_pass(FileDownload& download, FilePass& pass);
  void promote(const DownloadJob& job, FileRun& run, SyncResult& result, const DownloadOptions& options);

  std::size_t batch_workers(const std::vector<DownloadJob>& jobs);
  void download_in_turn(const std::vector<DownloadJob>& jobs, SyncResult& result,
                        const DownloadFailureFilter& set_aside, const DownloadOptions& options);

  const Context context_;
};

// The bytes a download of `job` into `data_dir` would resume from: what its
// staging file holds when the download will resume from it (a prefix of the
// file, or the ranges its range table records), 0 otherwise.
std::int64_t resumable_staged_bytes(const std::string& data_dir, const DownloadJob& job);

}  // namespace tidewright::sync
