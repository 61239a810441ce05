#include "tidewright/sync/transport/http_request.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"
#include "tidewright/sync/transport/bearer_token.hpp"
#include "tidewright/sync/transport/curl_program.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace tidewright::sync {

namespace {

// The stop tests installed on this thread by ScopedSyncStopPredicate.
thread_local std::vector<std::function<bool()>> t_stop_predicates;

bool installed_predicates_say_stop() {
  // By index: a predicate could (in principle) install another guard.
  for (std::size_t i = 0; i < t_stop_predicates.size(); ++i) {
    if (t_stop_predicates[i] && t_stop_predicates[i]()) return true;
  }
  return false;
}

// The calling thread's stop test, with its backoff context looked up once
// (the context is per thread and stays put for the duration of a call).
StopPredicate thread_stop_predicate() {
  // A context layered natively (the download workers') is answered
  // natively: no trip through the host per request and per check.
  if (const std::function<bool()>* native = native_backoff_stop_of_this_thread()) {
    return [stop = *native]() { return installed_predicates_say_stop() || stop(); };
  }
  HostRef context = host().current_backoff_context();
  return [context]() {
    if (installed_predicates_say_stop()) return true;
    return context && host().backoff_context_stop_requested(context);
  };
}

void sleep_for_backoff(double wait_seconds, const StopPredicate& stop_requested) {
  if (!host().backoff_sleep(wait_seconds, stop_requested)) {
    throw SyncBackoffCancelled("sync backoff wait cancelled: stop requested");
  }
}

std::optional<json::value> knob_value(const std::optional<std::string>& transport) {
  if (!transport) return std::nullopt;
  return json::value(*transport);
}

json::value detail(const json::object& details, std::string_view key) {
  const json::value* v = details.if_contains(key);
  return v ? *v : json::value(nullptr);
}

// Writes to a file that is created (or truncated) only when the response
// turns out to have a body worth keeping, so an error status leaves the
// path alone.
class PathSink : public BodySink {
 public:
  explicit PathSink(std::string path) : path_(std::move(path)) {}
  void write(std::string_view bytes) override {
    open();
    FdSink(fd_.get()).write(bytes);
  }
  void open() {
    if (fd_.valid()) return;
    fd_ = UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd_.valid()) throw_os_error(errno, path_);
  }
  void close() {
    if (fd_.valid() && fd_.reset() != 0) throw_os_error(errno, path_);
  }

 private:
  std::string path_;
  UniqueFd fd_;
};

}  // namespace

bool is_manifest_version_url(std::string_view url) {
  const std::string trimmed = rstrip_char(url, '/');
  constexpr std::string_view kSuffix = "/data/manifest/version";
  return trimmed.size() >= kSuffix.size() && trimmed.compare(trimmed.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

std::optional<std::string> range_header_value(std::int64_t range_start, std::int64_t range_end) {
  if (!(range_start > 0 || range_end >= 0)) return std::nullopt;
  if (range_end >= range_start && range_end >= 0) {
    return "bytes=" + std::to_string(range_start) + "-" + std::to_string(range_end);
  }
  return "bytes=" + std::to_string(range_start) + "-";
}

HttpRequest make_sync_request(const std::string& url, const std::optional<std::string>& bearer_token,
                              std::int64_t range_start, std::int64_t range_end) {
  checked_bearer_transport_url(url);
  HttpRequest request;
  request.url = url;
  if (bearer_token) {
    check_bearer_token(*bearer_token);
    request.headers.emplace_back("Authorization", "Bearer " + *bearer_token);
  }
  request.headers.emplace_back("User-Agent", std::string(SYNC_USER_AGENT));
  if (auto range = range_header_value(range_start, range_end)) request.headers.emplace_back("Range", *range);
  return request;
}

HttpResponse http_get(const std::string& url, const std::string& token, std::int64_t range_start,
                      std::int64_t range_end) {
  if (range_start == 0 && range_end < 0 && is_manifest_version_url(url)) {
    return http_get_manifest_version(url, token);
  }
  HttpRequest request = make_sync_request(url, token, range_start, range_end);
  return request_with_sync_retries(request, sync_http_timeout_seconds());
}

HttpResponse http_get_manifest_version(const std::string& url, const std::string& token) {
  HttpRequest request = make_sync_request(url, token);
  return request_with_sync_retries(request, sync_manifest_version_http_timeout_seconds());
}

HttpResponse http_get_public(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                             const std::optional<std::string>& transport) {
  HttpRequest request = make_sync_request(url, std::nullopt, range_start, range_end);
  return request_with_sync_retries(request, sync_http_timeout_seconds(), transport);
}

namespace {

TransferOptions transfer_options(double timeout, const StopPredicate& stop_requested) {
  TransferOptions options;
  options.timeout_seconds = timeout;
  options.header_deadline_seconds = sync_http_header_deadline_seconds(timeout);
  options.stop_requested = stop_requested;
  return options;
}

const std::string& error_body_of(const HttpResponse& response) { return response.body; }
const std::string& error_body_of(const DownloadResult& result) { return result.error_body; }

// The retry loop shared by in-memory and streamed requests: `attempt()`
// makes one exchange and returns its result (an HttpResponse or a
// DownloadResult); see the top of the header for what is retried.
// Network failures are retried while `retry_network_failure()` allows it.
template <typename Attempt, typename RetryNetworkFailure>
auto retry_sync_request(const HttpRequest& request, const StopPredicate& stop_requested, Attempt attempt,
                        RetryNetworkFailure retry_network_failure) -> decltype(attempt()) {
  const std::string url = request.url.empty() ? "<unknown>" : request.url;
  const std::string file_label = sync_event_file_from_url(request.url);
  const json::object service_fields = sync_event_service_fields(request.url);
  const auto started_at = std::chrono::steady_clock::now();
  std::vector<std::int64_t> statuses;
  std::vector<std::string> failures;
  json::object details;
  bool reported = false;

  for (std::int64_t attempt_index = 0;; ++attempt_index) {
    std::string failure;
    json::value status_field = nullptr;
    try {
      auto result = attempt();
      if (result.status < 400) {
        if (reported) {
          emit_sync_unavailable_status("sync_recovered_status", url, statuses, failures, details, started_at);
        }
        return result;
      }
      append_limited(statuses, result.status);
      details = parse_sync_error_body(error_body_of(result));
      const bool transient = should_retry_http_status(json::value(result.status));
      const json::value* retryable = details.if_contains("retryable");
      if (transient && retryable && retryable->is_bool() && !retryable->get_bool()) {
        throw sync_unavailable_from(url, attempt_index + 1, statuses, failures, details);
      }
      if (!transient) return result;
      failure = "http_" + std::to_string(result.status);
      status_field = result.status;
    } catch (const TlsVerificationError& e) {
      // Not retried; the error tells what this loop saw before it.
      throw TlsVerificationError(url, e.host, e.cause, attempt_index + 1, statuses, failures);
    } catch (const NetworkError& e) {
      if (!retry_network_failure()) throw;
      failure = e.host_class();
    } catch (const TimeoutError& e) {
      if (!retry_network_failure()) throw;
      failure = e.class_name();
    }
    if (status_field.is_null()) {
      details = json::object{{"error_code", failure},
                             {"dependency", "network"},
                             {"retryable", true},
                             {"recovery", "retry_with_backoff"},
                             {"reason", failure}};
      append_limited(failures, failure);
    }

    const double wait = backoff_delay_seconds(attempt_index);
    if (!reported) {
      emit_sync_unavailable_status("sync_unavailable_status", url, statuses, failures, details, started_at);
      reported = true;
    }
    json::object retry_fields{{"status", status_field},
                              {"error_code", detail(details, "error_code")},
                              {"dependency", detail(details, "dependency")},
                              {"retryable", detail(details, "retryable")}};
    for (const auto& kv : service_fields) retry_fields[kv.key()] = kv.value();
    log_sync_event("http_retry", file_label, attempt_index + 1, failure, retry_fields);
    emit_sync_backoff_wait("http_request", attempt_index, failure, file_label, wait);
    sleep_for_backoff(wait, stop_requested);
  }
}

}  // namespace

HttpResponse open_request(const HttpRequest& request, double timeout, const std::optional<std::string>& transport,
                          const StopPredicate& stop_requested) {
  TransferOptions options = transfer_options(timeout, stop_requested);
  options.body_deadline_seconds = timeout;
  options.max_body_bytes = sync_response_max_bytes(request.url);
  std::optional<json::value> knob = knob_value(transport);
  if (should_use_curl_transport(request, knob ? &*knob : nullptr)) return curl_request(request, options);
  return HttpClient::for_current_thread().get(request, options);
}

HttpResponse request_with_sync_retries(const HttpRequest& request, double timeout,
                                       const std::optional<std::string>& transport) {
  const StopPredicate stop_requested = thread_stop_predicate();
  return retry_sync_request(
      request, stop_requested, [&] { return open_request(request, timeout, transport, stop_requested); },
      [] { return true; });
}

DownloadResult request_to_sink_with_sync_retries(const HttpRequest& request, BodySink& sink, double timeout) {
  const StopPredicate stop_requested = thread_stop_predicate();
  return retry_sync_request(request, stop_requested, [&] {
    sink.restart();
    TransferOptions options = transfer_options(timeout, stop_requested);
    options.body_deadline_seconds = timeout;
    return HttpClient::for_current_thread().download(request, sink, options);
  }, [] { return true; });
}

DownloadResult download_request_with_sync_retries(const HttpRequest& request, BodySink& sink, double timeout) {
  // A failure after the sink saw the answer is the caller's to resume: the
  // bytes received so far are in its file, and asking for the same range
  // again would write them twice.
  class Watched : public BodySink {
   public:
    explicit Watched(BodySink& inner) : inner_(inner) {}
    void begin(std::int64_t status, const HttpHeaders& headers) override {
      touched_ = true;
      inner_.begin(status, headers);
    }
    void write(std::string_view bytes) override {
      touched_ = true;
      inner_.write(bytes);
    }
    bool touched() const { return touched_; }

   private:
    BodySink& inner_;
    bool touched_ = false;
  } watched(sink);
  return retry_sync_request(
      request, thread_stop_predicate(), [&] { return download_request_to_sink(request, watched, timeout); },
      [&] { return !watched.touched(); });
}

DownloadResult download_request_to_sink(const HttpRequest& request, BodySink& sink, double timeout,
                                        const std::optional<std::string>& transport) {
  const StopPredicate stop_requested = thread_stop_predicate();
  const TransferOptions options = transfer_options(timeout, stop_requested);
  std::optional<json::value> knob = knob_value(transport);
  try {
    if (should_use_curl_transport(request, knob ? &*knob : nullptr)) return curl_download(request, sink, options);
    return HttpClient::for_current_thread().download(request, sink, options);
  } catch (const TimeoutError& e) {
    // A download reports every failed exchange as a connection error.
    throw NetworkError(e.class_name(), e.what());
  }
}

DownloadResult download_request_to_path(const HttpRequest& request, const std::string& output_path, double timeout,
                                        const std::optional<std::string>& transport) {
  PathSink sink(output_path);
  DownloadResult result = download_request_to_sink(request, sink, timeout, transport);
  if (result.status >= 200 && result.status < 300) sink.open();  // an empty body still makes the file
  sink.close();
  return result;
}

double backoff_delay_seconds(std::int64_t attempt_index) { return host().backoff_delay_seconds(attempt_index); }

bool sync_backoff_stop_requested() { return thread_stop_predicate()(); }

void sleep_for_sync_backoff(double wait_seconds) { sleep_for_backoff(wait_seconds, thread_stop_predicate()); }

ScopedSyncStopPredicate::ScopedSyncStopPredicate(std::function<bool()> predicate) {
  t_stop_predicates.push_back(std::move(predicate));
}

ScopedSyncStopPredicate::~ScopedSyncStopPredicate() { t_stop_predicates.pop_back(); }

}  // namespace tidewright::sync
