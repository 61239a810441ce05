#include "tidewright/sync/transport/settings.hpp"

#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
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

}  // namespace


double sync_manifest_version_http_timeout_seconds() { return SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS; }

std::int64_t sync_http_response_read_bytes() { return SYNC_HTTP_RESPONSE_READ_BYTES; }

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

double sync_http_timeout_seconds() {
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

std::string sync_http_transport(const json::value* raw) {
  if (is_blank(raw)) return std::string(SYNC_HTTP_TRANSPORT);
  std::string text = strip_ws(python_str(*raw));
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text == "auto" || text == "urllib" || text == "curl") return text;
  throw ValueError("invalid sync_http_transport: expected auto, urllib, or curl");
}

std::int64_t sync_http_chunk_bytes(const json::value* raw) {
  return positive_int_knob(raw, SYNC_HTTP_CHUNK_BYTES,
                           "invalid sync_http_chunk_bytes: expected a positive integer");
}

std::int64_t sync_max_concurrency(const json::value* raw) {
  return positive_int_knob(raw, SYNC_MAX_CONCURRENCY,
                           "invalid sync_max_concurrency: expected a positive integer");
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
