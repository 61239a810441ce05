// Shared file utilities: SHA-256 of bytes and of files in bounded memory, the
// atomic whole-file write every JSON and artifact file goes through, and the
// "sync-progress.json" file that tells outside observers what a running sync
// is downloading.
//
// Digests are lower-case hexadecimal. File-system failures throw OSError (or
// FileNotFoundError) carrying errno and the path.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct evp_md_ctx_st;  // OpenSSL's EVP_MD_CTX

namespace tidewright::sync {

inline constexpr std::string_view SYNC_PROGRESS_FILENAME = "sync-progress.json";

// An incremental SHA-256 state.
//
// Not thread-safe: one instance per thread (or external locking).
class Sha256 {
 public:
  Sha256();
  Sha256(Sha256&&) noexcept = default;
  Sha256& operator=(Sha256&&) noexcept = default;
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  ~Sha256() = default;

  void update(std::string_view data);
  void update(const void* data, std::size_t size);
  // The digest of everything fed so far. The state is left as it is, so more
  // data may follow.
  std::string hexdigest() const;
  // Back to the digest of nothing.
  void reset();

 private:
  struct ContextDeleter {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, ContextDeleter> context_;
};

std::string sha256(std::string_view data);

// SHA-256 of a file's bytes, read in blocks of `chunk_bytes` so that memory
// use is bounded by one block (a non-positive size reads in the default
// block size).
std::string sha256_file(const std::string& path, std::int64_t chunk_bytes = SYNC_HASH_FILE_CHUNK_BYTES);

// Replaces `path` with `data` so that readers see either the old file or the
// new one, never a partial one. The data goes to a temporary file next to the
// target, named target + "." + pid + "." + thread id + "." + monotonic ns +
// ".tmp" (unique per write, so concurrent writers in other threads or
// processes never share one), which is then renamed over the target. The
// target's parent directories are created when missing. The temporary file
// never outlives the call, whether it succeeds or fails. No fsync: this is
// atomic against readers, not durable against power loss.
// A full disk (or quota) is a DiskSpaceError "Insufficient disk space while
// writing <path>: <strerror>", as during a download.
void atomic_write(const std::string& path, std::string_view data);
// Writes every byte of `data` to `fd` (with pwrite at `offset` when it is not
// negative), retrying interrupted writes. A full disk or quota is a
// DiskSpaceError "Insufficient disk space while writing <path>: <strerror>";
// any other failure an OSError naming `os_error_path` when given, else `path`.
void write_fully(int fd, std::string_view data, const std::string& path, std::int64_t offset = -1,
                 const std::string* os_error_path = nullptr);
// Removes the temporary files that atomic writes of `path` left behind when
// their process was killed mid-write: only those whose writer pid is not a
// live process on this host. Returns how many went; never throws.
int remove_orphaned_temporaries(const std::string& path) noexcept;
// The same for content that `produce` hands, piece by piece, to the writer it
// is given.
void atomic_write_in_pieces(const std::string& path,
                            const std::function<void(const std::function<void(std::string_view)>&)>& produce);

// data_dir joined with SYNC_PROGRESS_FILENAME.
std::string sync_progress_path(const std::string& data_dir);

// Writes the progress file of a running sync: a JSON object with sorted keys
//   "phase": "syncing", "era_number", "version", "updated_at" (wall-clock
//   seconds), "total_bytes" (sum of the known sizes), "total_bytes_known",
//   "unknown_size_files" (paths without a size, in the set's order),
//   "files": {path: {"kind", "platform", ["size_bytes"]}}
// for the files still to download. Sizes come from
// `siblings.manifest_file_size`; "kind" and "platform" are the text forms of
// the entry's values ("" when missing or null).
void write_sync_progress_json(const std::string& data_dir, std::int64_t era_number, std::int64_t version,
                              const json::object& files_to_download, const ManifestSiblings& siblings);
// The text write_sync_progress_json writes, with "updated_at" given.
std::string sync_progress_text(std::int64_t era_number, std::int64_t version, const json::object& files_to_download,
                               const ManifestSiblings& siblings, double updated_at);
// The same for files given by path and manifest entry (none: no entry), in
// the set's order; a path given twice counts once, at its first place. The
// entries are read where they are, not copied.
struct SyncProgressFile {
  std::string_view path;
  const json::value* entry = nullptr;
  std::optional<ManifestFiles::Entry> listed;  // read when `entry` is not given
};
void write_sync_progress_json(const std::string& data_dir, std::int64_t era_number, std::int64_t version,
                              const std::vector<SyncProgressFile>& files_to_download, const ManifestSiblings& siblings);
std::string sync_progress_text(std::int64_t era_number, std::int64_t version,
                               const std::vector<SyncProgressFile>& files_to_download, const ManifestSiblings& siblings,
                               double updated_at);

// Deletes the progress file. Never throws: a missing file is fine, any other
// failure is logged at debug level.
void remove_sync_progress_json(const std::string& data_dir);

}  // namespace tidewright::sync
