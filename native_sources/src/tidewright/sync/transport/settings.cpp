#include "tidewright/sync/transport/settings.hpp"

#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iterator>
#include <limits>
#include <cctype>
#include <cstdio>

namespace tidewright::sync {

namespace {

bool is_blank(const json::value* raw) {
  return raw == nullptr || raw->is_null() || strip_ws(python_str(*raw)).empty();
}

// The positive-integer knobs share one shape; only the message and the
// default differ.
std::int64_t positive_int_knob(const json::value* raw, std::int64_t fallback, const char* message) {
  if (is_blank(raw)) return fallback;
  std::optional<std::int64_t> value = to_int(*raw);
  if (!value || *value <= 0) throw ValueError(message);
  return *value;
}

constexpr const char* kTransportMessage = "invalid sync_http_transport: expected auto, urllib, or curl";
constexpr const char* kChunkBytesMessage = "invalid sync_http_chunk_bytes: expected a positive integer";
constexpr const char* kConcurrencyMessage = "invalid sync_max_concurrency: expected a positive integer";

std::atomic<bool> g_replaced[std::size(TUNING_FUNCTIONS)];

bool replaced(TuningFunction function) {
  return g_replaced[static_cast<std::size_t>(function)].load(std::memory_order_acquire);
}

// The host's replacement of `function`, called with `args`.
json::value ask_replacement(TuningFunction function, json::array args = {}) {
  return host().call_module_function("tidewright.sync", tuning_function_name(function), args);
}

double replacement_number(TuningFunction function) {
  json::value answer = ask_replacement(function);
  if (!answer.is_number() || answer.is_bool()) {
    throw TypeError(std::string(tuning_function_name(function)) + "() must return a number, got " +
                    python_repr(answer));
  }
  return answer.to_number<double>();
}

std::int64_t replacement_positive_int(TuningFunction function, json::array args, const char* message) {
  json::value answer = ask_replacement(function, std::move(args));
  std::int64_t value = 0;
  if (answer.is_int64()) {
    value = answer.get_int64();
  } else if (answer.is_uint64()) {
    value = std::numeric_limits<std::int64_t>::max();
  }
  if (value <= 0) throw ValueError(message);
  return value;
}

json::array raw_argument(const json::value* raw) { return json::array{raw ? *raw : json::value(nullptr)}; }

}  // namespace

std::string_view tuning_function_name(TuningFunction function) {
  switch (function) {
    case TuningFunction::kHttpTimeoutSeconds: return "_sync_http_timeout_seconds";
    case TuningFunction::kManifestVersionHttpTimeoutSeconds: return "_sync_manifest_version_http_timeout_seconds";
    case TuningFunction::kHttpResponseReadBytes: return "_sync_http_response_read_bytes";
    case TuningFunction::kHttpTransport: return "_sync_http_transport";
    case TuningFunction::kHttpChunkBytes: return "_sync_http_chunk_bytes";
    case TuningFunction::kMaxConcurrency: return "_sync_max_concurrency";
  }
  return "";
}

void set_tuning_function_replaced(TuningFunction function, bool value) {
  g_replaced[static_cast<std::size_t>(function)].store(value, std::memory_order_release);
}

bool tuning_function_replaced(TuningFunction function) { return replaced(function); }

namespace native {

double sync_manifest_version_http_timeout_seconds() { return SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS; }

std::int64_t sync_http_response_read_bytes() { return SYNC_HTTP_RESPONSE_READ_BYTES; }

std::string sync_http_transport(const json::value* raw) {
  if (is_blank(raw)) return std::string(SYNC_HTTP_TRANSPORT);
  std::string text = strip_ws(python_str(*raw));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text == "auto" || text == "urllib" || text == "curl") return text;
  throw ValueError(kTransportMessage);
}

std::int64_t sync_http_chunk_bytes(const json::value* raw) {
  return positive_int_knob(raw, SYNC_HTTP_CHUNK_BYTES, kChunkBytesMessage);
}

std::int64_t sync_max_concurrency(const json::value* raw) {
  return positive_int_knob(raw, SYNC_MAX_CONCURRENCY, kConcurrencyMessage);
}

}  // namespace native

std::int64_t sync_response_max_bytes(std::string_view url) {
  std::string path = rstrip_char(split_url(url).path, '/');
  auto ends_with = [&](std::string_view suffix) {
    return path.size() >= suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  if (ends_with("/data/manifest/version")) return SYNC_SMALL_RESPONSE_MAX_BYTES;
  // "/market/<id>/era/current"
  if (ends_with("/era/current")) {
    std::string_view rest = std::string_view(path).substr(0, path.size() - std::string_view("/era/current").size());
    std::size_t slash = rest.rfind('/');
    if (slash != std::string_view::npos && slash >= 7 && rest.substr(slash - 7, 8) == "/market/") {
      return SYNC_SMALL_RESPONSE_MAX_BYTES;
    }
  }
  return SYNC_RESPONSE_MAX_BYTES;
}

namespace {
// NaN: no override.
std::atomic<double> g_header_deadline_override{std::numeric_limits<double>::quiet_NaN()};
std::atomic<double> g_no_progress_timeout_override{std::numeric_limits<double>::quiet_NaN()};

double positive_or_nan(std::optional<double> seconds) {
  return seconds && *seconds > 0 ? *seconds : std::numeric_limits<double>::quiet_NaN();
}
}  // namespace

// The module's own no-progress timeout: the default, or the override a test set.
double native::sync_http_timeout_seconds() {
  double override_seconds = g_no_progress_timeout_override.load();
  return std::isnan(override_seconds) ? SYNC_HTTP_TIMEOUT_SECONDS : override_seconds;
}

void set_sync_http_timeout_override(std::optional<double> seconds) {
  g_no_progress_timeout_override.store(positive_or_nan(seconds));
}

double sync_http_header_deadline_seconds(double timeout) {
  double override_seconds = g_header_deadline_override.load();
  return std::isnan(override_seconds) ? timeout : override_seconds;
}

void set_sync_http_header_deadline_override(std::optional<double> seconds) {
  g_header_deadline_override.store(positive_or_nan(seconds));
}


double sync_http_timeout_seconds() {
  if (!replaced(TuningFunction::kHttpTimeoutSeconds)) return native::sync_http_timeout_seconds();
  return replacement_number(TuningFunction::kHttpTimeoutSeconds);
}

double sync_manifest_version_http_timeout_seconds() {
  if (!replaced(TuningFunction::kManifestVersionHttpTimeoutSeconds)) {
    return native::sync_manifest_version_http_timeout_seconds();
  }
  return replacement_number(TuningFunction::kManifestVersionHttpTimeoutSeconds);
}

std::int64_t sync_http_response_read_bytes() {
  if (!replaced(TuningFunction::kHttpResponseReadBytes)) return native::sync_http_response_read_bytes();
  return replacement_positive_int(TuningFunction::kHttpResponseReadBytes, {},
                                  "_sync_http_response_read_bytes() must return a positive integer");
}

std::string sync_http_transport(const json::value* raw) {
  if (!replaced(TuningFunction::kHttpTransport)) return native::sync_http_transport(raw);
  json::value answer = ask_replacement(TuningFunction::kHttpTransport, raw_argument(raw));
  if (!answer.is_string()) throw ValueError(kTransportMessage);
  std::string text(answer.get_string());
  if (text != "auto" && text != "urllib" && text != "curl") throw ValueError(kTransportMessage);
  return text;
}

std::int64_t sync_http_chunk_bytes(const json::value* raw) {
  if (!replaced(TuningFunction::kHttpChunkBytes)) return native::sync_http_chunk_bytes(raw);
  return replacement_positive_int(TuningFunction::kHttpChunkBytes, raw_argument(raw), kChunkBytesMessage);
}

std::int64_t sync_max_concurrency(const json::value* raw) {
  if (!replaced(TuningFunction::kMaxConcurrency)) return native::sync_max_concurrency(raw);
  return replacement_positive_int(TuningFunction::kMaxConcurrency, raw_argument(raw), kConcurrencyMessage);
}

std::optional<double> sync_parallel_timeout_seconds(std::int64_t, std::int64_t) { return std::nullopt; }

std::string sync_parallel_timeout_description(std::optional<double> timeout_seconds) {
  if (!timeout_seconds) return "unbounded";
  char buf[512];
  std::snprintf(buf, sizeof buf, "%.1fs", *timeout_seconds);
  return buf;
}

bool should_retry_http_status(const json::value& status) {
  std::optional<std::int64_t> code = to_int(status);
  if (!code) return false;
  return std::find(TRANSIENT_HTTP_STATUSES.begin(), TRANSIENT_HTTP_STATUSES.end(), *code) !=
         TRANSIENT_HTTP_STATUSES.end();
}

void raise_download_http_status(const std::string& file_path, const json::value& status) {
  std::optional<std::int64_t> converted = to_int(status);
  std::int64_t code = converted.value_or(-1);
  std::string suffix = file_path + ": HTTP " + std::to_string(code);
  if (code == 401) throw AuthError("Authentication failed while downloading " + suffix);
  if (should_retry_http_status(json::value(code))) throw SyncError("Download failed for " + suffix);
  throw PermanentDownloadError("Download failed for " + suffix, file_path, converted);
}

}  // namespace tidewright::sync
