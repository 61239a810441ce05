// The "curl" transport: public HTTPS requests carried out by the external
// curl program, run as a child process.
//
// Results look exactly like those of the in-process client (http_client.hpp):
// a status, the final response's headers and the body, every HTTP status a
// result; failures of the exchange are NetworkError("URLError") with curl's
// error text. A bearer token never reaches a command line: a request with an
// "Authorization" header is never given to curl (should_use_curl_transport).
//
// Each request runs in a fresh temporary directory "tidewright-curl-*"
// holding curl's header dump ("headers.txt"), removed when the request ends,
// however it ends. The body is not stored on the way: curl writes it
// ("-o /dev/fd/3") into a pipe that is read as it fills, straight into the
// caller's sink (the staging file of a download) or into memory. So the
// bounds of the in-process client hold here too: the head must be complete
// within the header deadline and be at most SYNC_RESPONSE_HEAD_MAX_BYTES, a
// 2xx body at most the caller's max_body_bytes, and an error body is kept
// up to kMaxErrorBodyBytes. A stop request, or a bound broken, kills the
// child. Curl's own retries cannot rewind a pipe: after part of a body has
// arrived, a failure ends the run ("Failed to truncate file"), the part
// received stays with the caller and the module's retry loop resumes.
//
// All functions are safe to call from several threads at once.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/transport/http_client.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

// The data host that "auto" sends through curl (with its sub-domains).
inline constexpr std::string_view SYNC_CURL_DEFAULT_DATA_HOST = "data.tidewright.io";

// The path of "curl" on the search path (PATH at call time), if any.
std::optional<std::string> find_curl_binary();

// Lower-cased host name of the request URL; "" when it has none.
std::string request_host(const HttpRequest& request);
// The host is SYNC_CURL_DEFAULT_DATA_HOST or one of its sub-domains.
bool curl_auto_host(const HttpRequest& request);

// Whether a request goes through curl. `transport` is the caller's raw knob
// (nullptr: none; validated by sync_http_transport, so an invalid value
// throws ValueError). False under "urllib", for requests carrying an
// "Authorization" header, for schemes other than https, and under "auto" for
// hosts other than the data host; otherwise true exactly when a curl program
// is found.
bool should_use_curl_transport(const HttpRequest& request, const json::value* transport = nullptr);

// The command line: curl -q -4 -sS -L --proto-redir =https --connect-timeout <min(timeout, 5)>
// --speed-limit 1024 --speed-time <timeout> --retry 4 --retry-delay 0
// -D <headers_path> -o <body_path> -w %{http_code}, then -H "Name: value" for
// every request header but User-Agent, -A <user agent>, and the URL.
// Numbers are written in the shortest general form ("5", "0.5", "30").
std::vector<std::string> curl_command(const std::string& curl_path, const HttpRequest& request, double timeout,
                                      const std::string& headers_path, const std::string& body_path);

// What a finished curl run left behind.
struct CurlRun {
  int exit_status = 0;  // negative: killed by that signal
  std::string stdout_bytes;
  std::string stderr_bytes;
};

// Runs `argv` (argv[0] a path) with standard input from /dev/null,
// capturing standard output and error (each up to 64 KiB); a non-zero exit is
// not an error. While it runs, `stop_requested` is asked every 100 ms; when
// it answers true the child is killed and SyncBackoffCancelled thrown.
// Throws OSError when the program cannot be started.
CurlRun run_curl_command(const std::vector<std::string>& argv, const StopPredicate& stop_requested = {});
// The same, and when `on_body` is given the child's descriptor 3 is a pipe
// whose bytes go to `on_body` as they arrive (in pieces of at most
// SYNC_HTTP_RESPONSE_READ_BYTES); `on_tick` is called at least every 100 ms.
// An exception from either kills the child and ends the call.
CurlRun run_curl_process(const std::vector<std::string>& argv, const StopPredicate& stop_requested,
                         const std::function<void(std::string_view)>& on_body, const std::function<void()>& on_tick);

// The headers of the last response block of a "-D" dump (a line starting
// with "HTTP/" opens a block); lines "name: value" split at the first ":",
// both parts stripped.
HttpHeaders parse_curl_headers(std::string_view text);

// The status curl printed with -w (the last line of its output); failing
// that, the status of an "HTTP/" line; 0 when there is none.
std::int64_t curl_status_from_stdout(std::string_view stdout_bytes);

// One GET through curl with the body in memory, under `options` as the
// in-process client would be (timeout, header and body deadlines, body
// bound, stop predicate). Throws NetworkError("URLError") when no curl
// program exists ("curl transport requested but curl is not available") and
// when curl fails without an HTTP error status (curl's error text, or "curl
// exited with status N"); TimeoutError and ResponseTooLargeError as the
// in-process client does.
HttpResponse curl_request(const HttpRequest& request, const TransferOptions& options);

// The streaming counterpart: a 2xx body goes into `sink` as it arrives, in
// pieces of at most SYNC_HTTP_RESPONSE_READ_BYTES; any other body is
// returned as `error_body` and the sink sees nothing. When curl fails after
// part of a 2xx body arrived, that part has reached the sink before the
// NetworkError is thrown.
DownloadResult curl_download(const HttpRequest& request, BodySink& sink, const TransferOptions& options);

}  // namespace tidewright::sync
