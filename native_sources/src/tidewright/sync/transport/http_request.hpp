// Requests to the data service: building GETs, choosing the transport,
// retrying transient failures under the shared backoff policy, reporting
// outages and recoveries, and streaming file downloads.
//
// Every GET returns (status, headers, body). Transient statuses (408, 425,
// 429, 500, 502, 503, 504) and network failures are retried without an
// attempt limit; every other status is returned, not raised. A call ends
// only with a result, with SyncUnavailableError when the server answered a
// transient status with "retryable": false or when its TLS certificate did
// not verify (TlsVerificationError: retrying cannot help), with
// SyncBackoffCancelled when a stop is requested, with ResponseTooLargeError when the answer is larger
// than any valid one (an endless body is never retried), or with an error
// from the host (URL check, backoff module) that passes through unchanged.
// A head that does not arrive within the header deadline is a timeout like
// any stall, so a server trickling header lines is an outage, not an answer.
//
// Stop requests come from two places, both read on the calling thread: the
// host's backoff context ("stop_requested") and the predicates installed
// with ScopedSyncStopPredicate (the download workers' own stop tests). They
// cut backoff waits short and end running transfers and curl children.
//
// Every function may be called from several threads at once; the only state
// kept between calls is each thread's HTTP connection and stop predicates.
#pragma once

#include "tidewright/sync/transport/http_client.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

inline constexpr std::int64_t SYNC_OBSERVATION_LIMIT = 20;

// Appends `value` and drops the oldest entries so that at most `limit`
// (at least 0) remain.
template <typename T>
void append_limited(std::vector<T>& values, T value, std::int64_t limit = SYNC_OBSERVATION_LIMIT) {
  values.push_back(std::move(value));
  const auto keep = static_cast<std::size_t>(limit > 0 ? limit : 0);
  if (values.size() > keep) values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(keep));
}

// The URL, trailing "/" removed, ends with "/data/manifest/version".
bool is_manifest_version_url(std::string_view url);

// The "Range" value for (start, end): none for (0, negative); "bytes=S-E"
// when end >= start and end >= 0; else the open-ended "bytes=S-".
std::optional<std::string> range_header_value(std::int64_t range_start, std::int64_t range_end);

// A GET to the data service: the URL checked with the host's
// validate_bearer_transport_url (its error passes through), "Authorization:
// Bearer <token>" when a token is given (AuthError when check_bearer_token
// refuses it), the User-Agent, and the Range.
HttpRequest make_sync_request(const std::string& url, const std::optional<std::string>& bearer_token,
                              std::int64_t range_start = 0, std::int64_t range_end = -1);

// Authenticated GET (a manifest-version URL without a range is handed to
// http_get_manifest_version), with the ordinary timeout and the in-process
// client.
HttpResponse http_get(const std::string& url, const std::string& token, std::int64_t range_start = 0,
                      std::int64_t range_end = -1);
// The lightweight manifest-version poll, with its own timeout.
HttpResponse http_get_manifest_version(const std::string& url, const std::string& token);
// Public GET without credentials; `transport` is the caller's raw knob.
HttpResponse http_get_public(const std::string& url, std::int64_t range_start = 0, std::int64_t range_end = -1,
                             const std::optional<std::string>& transport = std::nullopt);

// One attempt through curl or the in-process client (should_use_curl_transport
// decides). The head must arrive within the header deadline (the timeout,
// sync_http_header_deadline_seconds) and the body within `timeout` seconds in
// total; a 2xx body longer than sync_response_max_bytes(url) throws
// ResponseTooLargeError, which no retry loop retries.
HttpResponse open_request(const HttpRequest& request, double timeout, const std::optional<std::string>& transport,
                          const StopPredicate& stop_requested);

// The retry loop around open_request; see the top of this file.
HttpResponse request_with_sync_retries(const HttpRequest& request, double timeout,
                                       const std::optional<std::string>& transport = std::nullopt);

// The retry loop with the 2xx body streamed into `sink` instead of memory
// (the in-process client only: requests with a token). Every attempt starts
// with sink.restart(). The body has the same total deadline as in memory;
// bounding its length is the sink's business (it may throw, and what it
// throws ends the call unretried unless it is a network failure).
DownloadResult request_to_sink_with_sync_retries(const HttpRequest& request, BodySink& sink, double timeout);

// One GET whose 2xx body streams into `sink` (through curl when the curl
// rule says so); no retries. `timeout` is a no-progress timeout and the
// header deadline; the body has no total deadline. Returns the status and headers of any HTTP status (a
// non-2xx body is in error_body; the sink sees nothing). Throws
// ConnectionError (a NetworkError; network failures and stalls) after the
// bytes received so far reached the sink, SyncBackoffCancelled on a stop
// request, and whatever the sink throws.
DownloadResult download_request_to_sink(const HttpRequest& request, BodySink& sink, double timeout,
                                        const std::optional<std::string>& transport = std::nullopt);
// download_request_to_sink under the retry loop of request_with_sync_retries,
// for authenticated downloads: transient statuses, and network failures
// before the sink saw anything, are retried (and reported) here; a failure
// after the sink saw the answer is thrown for the caller to resume.
DownloadResult download_request_with_sync_retries(const HttpRequest& request, BodySink& sink, double timeout);
// The same into a file, created or truncated.
DownloadResult download_request_to_path(const HttpRequest& request, const std::string& output_path, double timeout,
                                        const std::optional<std::string>& transport = std::nullopt);

// Backoff hooks (the schedule lives in the host's backoff module).
double backoff_delay_seconds(std::int64_t attempt_index);
// True when the calling thread's backoff context or one of its installed
// predicates asks to stop.
bool sync_backoff_stop_requested();
// Waits under the backoff policy; throws SyncBackoffCancelled when a stop
// request cuts the wait short.
void sleep_for_sync_backoff(double wait_seconds);

// Adds a stop test for the calling thread's requests and backoff waits while
// the guard lives (guards nest; any installed test answering true stops).
class ScopedSyncStopPredicate {
 public:
  explicit ScopedSyncStopPredicate(std::function<bool()> predicate);
  ~ScopedSyncStopPredicate();
  ScopedSyncStopPredicate(const ScopedSyncStopPredicate&) = delete;
  ScopedSyncStopPredicate& operator=(const ScopedSyncStopPredicate&) = delete;
};

}  // namespace tidewright::sync
