// The in-process HTTP client: GET requests on libcurl.
//
// Each thread owns one long-lived easy handle (HttpClient::for_current_thread)
// so that connections to the data service are reused from one request to the
// next; the handles of all threads share only the DNS cache and TLS sessions.
// Signals are never used (CURLOPT_NOSIGNAL), TLS peers are verified (the CA
// bundle named by SSL_CERT_FILE or CURL_CA_BUNDLE is used when set, else the
// system's own bundle, see ca_bundle_fallback), and redirects are followed
// only to https, or to plain http on this machine (the rule for the first
// request too); a redirect elsewhere is not followed but returned as the
// answer (its 3xx status and headers). Proxies named in the environment
// are used, except for this machine's own addresses (and the hosts in
// no_proxy).
//
// Timeouts mean "no progress for that long": connecting, and then every gap
// between received bytes, may take at most `timeout_seconds`. In addition the
// head of the final response must be complete within a total deadline from
// the start of the request (by default `timeout_seconds` too), so that header
// lines trickled every few seconds cannot keep a request alive forever; the
// body of a response may also be given a total deadline.
//
// What a server sends is bounded too: the head of a response by
// SYNC_RESPONSE_HEAD_MAX_BYTES, a 2xx body by the caller's max_body_bytes,
// and the body of any other status is kept up to kMaxErrorBodyBytes, after
// which the transfer ends (the status is what matters).
//
// Every status is a result here, not an error: 404 and 503 come back as
// responses and the caller decides. Failures of the exchange itself throw
// errors named after the host's classes so that retry loops can label them:
//   NetworkError  host_class() "URLError" (no connection: refused, DNS, a
//                 failed TLS handshake, connect timeout), "RemoteDisconnected" (closed without a
//                 response), "ConnectionResetError" (broken while reading),
//                 "IncompleteRead" (body shorter than announced),
//                 "BadStatusLine" (not an HTTP response)
//   TimeoutError  "timed out" (no progress for timeout_seconds once
//                 connected), "response headers not complete within N s"
//                 (header deadline), "response body read exceeded
//                 configured deadline" (body deadline)
//   TlsVerificationError  the peer's certificate did not verify; never
//                 retried
//   ResponseTooLargeError  a head or a 2xx body past its bound; never
//                 retried (the same server would send it again)
//   SyncBackoffCancelled  the stop predicate answered true mid-transfer
// Exceptions thrown by a BodySink or by the stop predicate end the transfer
// and are rethrown unchanged.
#pragma once

#include "tidewright/sync/reporting/errors.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tidewright::sync {

// Response headers in the order received, names as the server sent them.
struct HttpHeaders {
  std::vector<std::pair<std::string, std::string>> items;

  // The value of the last header called `name` (compared case-insensitively).
  std::optional<std::string> get(std::string_view name) const;
};

// A GET request: its URL and the headers to send, in order.
struct HttpRequest {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;

  // Sets `name` to `value`, replacing a header of that name in any case.
  void set_header(std::string_view name, std::string_view value);
  bool has_header(std::string_view name) const;  // case-insensitive
};

// The most of the body of a non-2xx response that is kept (1 MiB): error
// bodies are small JSON objects.
inline constexpr std::size_t kMaxErrorBodyBytes = 1 << 20;

struct HttpResponse {
  std::int64_t status = 0;
  HttpHeaders headers;  // of the final response after redirects
  std::string body;     // of a non-2xx status: at most kMaxErrorBodyBytes
};

// The outcome of a GET whose body went to a BodySink. Only a 2xx body goes
// to the sink; the body of any other status is kept in `error_body` (up to
// kMaxErrorBodyBytes) and the sink sees nothing.
struct DownloadResult {
  std::int64_t status = 0;
  HttpHeaders headers;
  std::int64_t body_bytes = 0;  // bytes handed to the sink
  std::string error_body;
};

// Receives a response body in order, in pieces of at most
// SYNC_HTTP_RESPONSE_READ_BYTES. Memory use of a download is bounded by
// those pieces, never by the body.
class BodySink {
 public:
  virtual ~BodySink() = default;
  // Called once with the status and headers of a 2xx response, before its
  // first body bytes (not at all for an empty body). May throw; the
  // transfer then ends and the exception is rethrown.
  virtual void begin(std::int64_t status, const HttpHeaders& headers) {
    (void)status;
    (void)headers;
  }
  // May throw; the transfer then ends and the exception is rethrown.
  virtual void write(std::string_view bytes) = 0;
  // Called before every attempt of a request that is retried with the
  // same sink: what an earlier attempt delivered is to be forgotten.
  virtual void restart() {}
};

// Writes to a file descriptor that it does not own, and hands every piece
// to `observer` too (for example an incremental hasher). Throws OSError when
// a write fails.
class FdSink : public BodySink {
 public:
  explicit FdSink(int fd, std::function<void(std::string_view)> observer = {});
  void write(std::string_view bytes) override;
  std::int64_t bytes_written() const { return bytes_written_; }

 private:
  int fd_;
  std::function<void(std::string_view)> observer_;
  std::int64_t bytes_written_ = 0;
};

// Asked from time to time while a transfer runs (at most every 100 ms, at
// least about once a second); true ends the transfer.
using StopPredicate = std::function<bool()>;

struct TransferOptions {
  double timeout_seconds = 30.0;                  // no progress for this long
  std::optional<double> header_deadline_seconds;  // total time for the final head; unset: timeout_seconds
  std::optional<double> body_deadline_seconds;    // total time for the body
  std::optional<std::int64_t> max_body_bytes;     // of a 2xx body, in memory or to a sink
  StopPredicate stop_requested;
};

// The most a response head (status line and header lines, redirects
// included) may hold: 1 MiB, far above any real head.
inline constexpr std::int64_t SYNC_RESPONSE_HEAD_MAX_BYTES = 1 << 20;

// A failed exchange with a server. It is a ConnectionError to the host;
// host_class() names the class the host's own client would have raised.
class NetworkError : public ConnectionError {
 public:
  NetworkError(std::string host_class, const std::string& message)
      : ConnectionError(message), host_class_(std::move(host_class)) {}
  const std::string& host_class() const { return host_class_; }

 private:
  std::string host_class_;
};

// The server's TLS certificate could not be verified (an issuer the CA
// bundle does not trust, another host's name, an expired certificate), or
// the CA bundle itself could not be read. Not an outage: every attempt
// fails alike until the configuration changes, so no retry loop retries it
// and nothing was sent. To the host it is a SyncUnavailableError with
// dependency "tls", "retryable" false, and a reason naming the host and the
// cause; `attempts`, `statuses` and `failures` are those of the retry loop
// that met it ("SSLCertVerificationError" added to the failures).
class TlsVerificationError : public SyncUnavailableError {
 public:
  TlsVerificationError(const std::string& url, std::string host, std::string cause, std::int64_t attempts = 1,
                       std::vector<std::int64_t> statuses = {}, std::vector<std::string> failures = {});
  std::string host;
  std::string cause;
};

// Whether a libcurl result code (also the curl program's exit status) says
// that TLS verification failed: CURLE_PEER_FAILED_VERIFICATION,
// CURLE_SSL_CACERT_BADFILE or CURLE_SSL_ISSUER_ERROR.
bool is_tls_verification_failure(int curl_code);

// A response larger than its bound (see the top of this file). To the host
// it is a PermanentDownloadError without a file path and with the HTTP
// status of the response (absent when the head itself was too large):
// retrying cannot help, so no retry loop retries it.
class ResponseTooLargeError : public PermanentDownloadError {
 public:
  // `what` is "body" or "head".
  ResponseTooLargeError(const std::string& url, std::string_view what, std::int64_t limit,
                        std::optional<std::int64_t> status);
  std::string url;
  std::int64_t limit;
};

// The class label of a transfer failure: host_class() of a NetworkError,
// "TimeoutError" for a TimeoutError.
std::string network_failure_class(const Error& error);

// A parsed "Content-Range: bytes first-last/complete" header ("*" for an
// unknown complete length).
struct ContentRange {
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::optional<std::int64_t> complete_length;
};
std::optional<ContentRange> parse_content_range(std::string_view value);

// Where the system keeps its CA bundle, by distribution family: Debian and
// Ubuntu (also Arch, Gentoo), Fedora and RHEL, RHEL's extracted trust store,
// openSUSE, Alpine.
inline const std::vector<std::string> kSystemCaBundles = {
    "/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem", "/etc/ssl/ca-bundle.pem", "/etc/ssl/cert.pem"};

// The CA bundle to verify servers with when neither SSL_CERT_FILE nor
// CURL_CA_BUNDLE names one: the first of `candidates` that is a readable
// file, or nullopt when none is. libcurl's compiled-in default is the path of
// the system it was built on; the wheel carries that libcurl to systems that
// keep their bundle elsewhere (Fedora: /etc/pki/tls/certs/ca-bundle.crt), where
// every TLS handshake would fail for want of a trusted root. So the transfer
// code asks with libcurl's own path first, then kSystemCaBundles.
std::optional<std::string> ca_bundle_fallback(const std::vector<std::string>& candidates);

// One thread's client. Not thread-safe: use the calling thread's own
// instance. A call made while the thread's client is busy (from inside a
// callback) runs on a temporary handle instead.
class HttpClient {
 public:
  HttpClient();
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  static HttpClient& for_current_thread();

  // GET with the body in memory.
  HttpResponse get(const HttpRequest& request, const TransferOptions& options);
  // GET with a 2xx body streamed into `sink`.
  DownloadResult download(const HttpRequest& request, BodySink& sink, const TransferOptions& options);

 private:
  struct Handles;
  struct Transfer;
  void perform(const HttpRequest& request, Transfer& transfer);

  std::unique_ptr<Handles> handles_;
  bool busy_ = false;
};

}  // namespace tidewright::sync
