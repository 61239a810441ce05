// Tuning of the HTTP layer: the module-wide constants, the three knobs a
// caller may override when it builds a SyncManager (transport, chunk size,
// worker count), the parallel-download timeout, and the policy that turns a
// file download's HTTP status into a retry or a final error.
//
// Other transport code reads its timeouts, chunk size, read size and worker
// count through the functions here rather than through the constants, so that
// one place governs them. Everything here is stateless and thread-safe.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/version.hpp"  // generated from pyproject.toml

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {

// User-Agent sent on every request: the package's own version.
inline constexpr std::string_view SYNC_USER_AGENT = "tidewright-sync/" TW_PACKAGE_VERSION;
// Transport used when no override is given ("auto", "urllib" or "curl").
inline constexpr std::string_view SYNC_HTTP_TRANSPORT = "auto";
// Settings handed to the external curl program.
inline constexpr double SYNC_CURL_CONNECT_TIMEOUT_SECONDS = 5.0;
inline constexpr std::int64_t SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND = 1024;
inline constexpr std::int64_t SYNC_CURL_RETRIES = 4;
inline constexpr std::int64_t SYNC_CURL_RETRY_DELAY_SECONDS = 0;
// Per-request timeout of ordinary GETs, and of the lightweight version poll.
inline constexpr double SYNC_HTTP_TIMEOUT_SECONDS = 30.0;
inline constexpr double SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS = 30.0;
// Public latency bound for found-payload availability (era artifacts).
inline constexpr double SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS = 6.0;
// The most of a response body held in memory. The version poll and the
// era-current answer are a few hundred bytes: 1 MiB. Everything else read
// into memory (the manifest first of all) gets 256 MiB: a manifest of 100k
// files is about 15 MB, so this is room for well over a million files
// (200k must work), yet an endless body stops long before memory runs out.
inline constexpr std::int64_t SYNC_SMALL_RESPONSE_MAX_BYTES = std::int64_t{1} << 20;
inline constexpr std::int64_t SYNC_RESPONSE_MAX_BYTES = std::int64_t{256} << 20;
// Size of one ranged download request (64 MiB).
inline constexpr std::int64_t SYNC_HTTP_CHUNK_BYTES = 67108864;
// Size of one read from a response body (64 KiB).
inline constexpr std::int64_t SYNC_HTTP_RESPONSE_READ_BYTES = 65536;
// Read size when hashing a file (8 MiB).
inline constexpr std::int64_t SYNC_HASH_FILE_CHUNK_BYTES = 8388608;
// Default number of parallel download workers.
inline constexpr std::int64_t SYNC_MAX_CONCURRENCY = 8;
// Kept for reference only: parallel batches are deliberately unbounded (see
// sync_parallel_timeout_seconds).
inline constexpr double SYNC_PARALLEL_TIMEOUT_SECONDS = 300.0;
// How often a running manager re-checks the manifest version.
inline constexpr double SYNC_MANIFEST_POLL_INTERVAL_SECONDS = 5.0;
// Whole-sync restarts allowed when a newer manifest supersedes a download.
inline constexpr std::int64_t SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT = 3;
// Repairs of a file whose checksum stays wrong before giving up on it.
inline constexpr std::int64_t SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS = 3;
inline constexpr std::int64_t DEFAULT_AGENT_MARKET_ID = 1;
inline constexpr std::int64_t FEATURE_ROTATION_BYTES_PER_GB = 1073741824;
// Statuses that are retried.
inline constexpr std::array<std::int64_t, 7> TRANSIENT_HTTP_STATUSES = {408, 425, 429, 500, 502, 503, 504};

// The tuning functions below are the host's point of control: a host may
// replace any of them in the module ("_sync_http_timeout_seconds", ...).
// While one is replaced, the function asks the host's replacement (through
// host(), so with the host's lock taken); while it is the module's own, it
// answers natively and never calls the host. The binding reports each
// replacement with set_tuning_function_replaced().
enum class TuningFunction : int {
  kHttpTimeoutSeconds,
  kManifestVersionHttpTimeoutSeconds,
  kHttpResponseReadBytes,
  kHttpTransport,
  kHttpChunkBytes,
  kMaxConcurrency,
};
inline constexpr TuningFunction TUNING_FUNCTIONS[] = {
    TuningFunction::kHttpTimeoutSeconds, TuningFunction::kManifestVersionHttpTimeoutSeconds,
    TuningFunction::kHttpResponseReadBytes, TuningFunction::kHttpTransport,
    TuningFunction::kHttpChunkBytes, TuningFunction::kMaxConcurrency};
// The module's name of a tuning function ("_sync_http_timeout_seconds").
std::string_view tuning_function_name(TuningFunction function);
void set_tuning_function_replaced(TuningFunction function, bool replaced);
bool tuning_function_replaced(TuningFunction function);

// What a replacement answered, checked: timeouts must be numbers (TypeError
// "<name>() must return a number, got <repr>"), sizes and counts positive
// integers and the transport one of the three (the knob's ValueError).
double sync_http_timeout_seconds();
// Overrides the module's own no-progress timeout (not a replaced one) (nullopt, or a value that is not positive, clears it).
// For tests that must not wait the default 30 s for a stalled body.
void set_sync_http_timeout_override(std::optional<double> seconds);
double sync_manifest_version_http_timeout_seconds();
std::int64_t sync_http_response_read_bytes();

// The bound of a body read into memory from `url`: SYNC_SMALL_RESPONSE_MAX_BYTES
// for the version poll ("/data/manifest/version") and the era-current
// endpoint ("/market/<id>/era/current"), else SYNC_RESPONSE_MAX_BYTES.
std::int64_t sync_response_max_bytes(std::string_view url);

// The total time a request has for the head of its final response: its
// no-progress `timeout`, unless a process-wide override is set.
double sync_http_header_deadline_seconds(double timeout);
// Sets the override (nullopt, or a value that is not positive, clears it).
// For tests that must not wait the default 30 s for a trickled head.
void set_sync_http_header_deadline_override(std::optional<double> seconds);

// The knobs. `raw` is the caller's override: nullptr (or a JSON null) and a
// value whose text form is blank after stripping white space both mean "use
// the default". Integers are converted the way the host's int() converts
// (12, 12.7, "12" and " 12 " are accepted; "1.5" and "abc" are not). Invalid
// values throw ValueError with a fixed message:
//   "invalid sync_http_transport: expected auto, urllib, or curl"
//   "invalid sync_http_chunk_bytes: expected a positive integer"
//   "invalid sync_max_concurrency: expected a positive integer"
// The transport is returned stripped and lower-cased. Neither integer knob
// has an upper bound.
std::string sync_http_transport(const json::value* raw);
std::int64_t sync_http_chunk_bytes(const json::value* raw);
std::int64_t sync_max_concurrency(const json::value* raw);

// The module's own tuning functions: the values above without asking any
// replacement (what the module's defaults answer).
namespace native {
double sync_http_timeout_seconds();
double sync_manifest_version_http_timeout_seconds();
std::int64_t sync_http_response_read_bytes();
std::string sync_http_transport(const json::value* raw);
std::int64_t sync_http_chunk_bytes(const json::value* raw);
std::int64_t sync_max_concurrency(const json::value* raw);
}  // namespace native

// Always empty: a parallel download batch is never cut off by a wall-clock
// limit, whatever its size. Callers wait without a limit.
std::optional<double> sync_parallel_timeout_seconds(std::int64_t file_count, std::int64_t max_workers);
// "unbounded" for no timeout, else the seconds with one decimal and "s" ("300.0s").
std::string sync_parallel_timeout_description(std::optional<double> timeout_seconds);

// Whether a status (an integer, or anything int() accepts) is one of
// TRANSIENT_HTTP_STATUSES. Unconvertible statuses are not retried.
bool should_retry_http_status(const json::value& status);

// Turns a failed download status into its error and throws it:
//   401        -> AuthError "Authentication failed while downloading <path>: HTTP 401"
//   transient  -> SyncError "Download failed for <path>: HTTP <status>" (the
//                 download retry loop retries a plain SyncError)
//   otherwise  -> PermanentDownloadError with the same text, file_path and status.
// A status that does not convert to an integer is written as -1 and leaves
// the error's status empty.
[[noreturn]] void raise_download_http_status(const std::string& file_path, const json::value& status);

}  // namespace tidewright::sync
