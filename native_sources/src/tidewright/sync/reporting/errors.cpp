#include "tidewright/sync/reporting/errors.hpp"

#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/host/host.hpp"

namespace tidewright::sync {

std::string Error::class_name() const {
  switch (kind()) {
    case ErrorKind::kSyncError: return "SyncError";
    case ErrorKind::kPermanentDownloadError: return "PermanentDownloadError";
    case ErrorKind::kSyncUnavailableError: return "SyncUnavailableError";
    case ErrorKind::kManifestSupersededError: return "ManifestSupersededError";
    case ErrorKind::kDiskSpaceError: return "DiskSpaceError";
    case ErrorKind::kIntegrityError: return "IntegrityError";
    case ErrorKind::kEraError: return "EraError";
    case ErrorKind::kManifestError: return "ManifestError";
    case ErrorKind::kStateError: return "StateError";
    case ErrorKind::kFeatureRotationStateError: return "FeatureRotationStateError";
    case ErrorKind::kValueError: return "ValueError";
    case ErrorKind::kTypeError: return "TypeError";
    case ErrorKind::kOSError: return "OSError";
    case ErrorKind::kFileNotFoundError: return "FileNotFoundError";
    case ErrorKind::kConnectionError: return "ConnectionError";
    case ErrorKind::kTimeoutError: return "TimeoutError";
    case ErrorKind::kAuthError: return "AuthError";
    case ErrorKind::kSyncBackoffCancelled: return "SyncBackoffCancelled";
    case ErrorKind::kLibraryUpdateRequired: return "LibraryUpdateRequired";
    case ErrorKind::kHostError: return static_cast<const HostError*>(this)->type_name;
  }
  return "Error";
}

std::string sync_endpoint_from_url(const std::string& url) {
  UrlParts parts = split_url(url);
  if (!parts.path.empty()) return parts.path;
  return url.empty() ? "<unknown>" : url;
}

std::string build_unavailable_message(const UnavailableDetails& d) {
  std::string msg = "Tidewright data sync unavailable after " + std::to_string(d.attempts) + " attempt(s).";
  msg += " endpoint=" + d.endpoint;
  msg += " url=" + d.url;
  if (!d.statuses.empty()) {
    json::array a;
    for (auto s : d.statuses) a.push_back(s);
    msg += " statuses=" + python_repr(json::value(a));
  }
  if (!d.failures.empty()) {
    json::array a;
    for (const auto& f : d.failures) a.push_back(json::value(f));
    msg += " failures=" + python_repr(json::value(a));
  }
  auto piece = [&msg](const char* name, const std::optional<json::value>& v) {
    if (v && truthy(*v)) msg += std::string(" ") + name + "=" + python_str(*v);
  };
  piece("server_error", d.server_error_code);
  piece("dependency", d.dependency);
  if (d.retryable && !d.retryable->is_null()) {
    msg += std::string(" retryable=") + (truthy(*d.retryable) ? "True" : "False");
  }
  piece("recovery", d.recovery);
  piece("reason", d.reason);
  return msg;
}

UnavailableDetails make_unavailable_details(const std::string& url, std::int64_t attempts,
                                            std::vector<std::int64_t> statuses,
                                            std::vector<std::string> failures,
                                            std::optional<json::value> server_error_code,
                                            std::optional<json::value> dependency,
                                            std::optional<json::value> retryable,
                                            std::optional<json::value> recovery,
                                            std::optional<json::value> reason,
                                            std::optional<bool> typed_details) {
  auto present = [](const std::optional<json::value>& v) { return v && !v->is_null(); };
  auto clean = [&](std::optional<json::value> v) { return present(v) ? v : std::nullopt; };
  UnavailableDetails d;
  d.url = url.empty() ? "<unknown>" : url;
  d.endpoint = sync_endpoint_from_url(url);
  d.attempts = attempts;
  d.statuses = std::move(statuses);
  d.failures = std::move(failures);
  d.server_error_code = clean(std::move(server_error_code));
  d.dependency = clean(std::move(dependency));
  d.retryable = clean(std::move(retryable));
  d.recovery = clean(std::move(recovery));
  d.reason = clean(std::move(reason));
  d.typed_details = typed_details ? *typed_details
                                  : (present(d.dependency) || present(d.retryable) || present(d.recovery));
  return d;
}

SyncUnavailableError::SyncUnavailableError(UnavailableDetails d)
    : SyncError(build_unavailable_message(d)), details(std::move(d)) {}

bool SyncUnavailableError::retryable_allowed() const {
  return !(details.retryable && details.retryable->is_bool() && !details.retryable->get_bool());
}

json::object parse_sync_error_body(std::string_view body) {
  if (body.empty()) return {};
  try {
    json::value v = parse_json(body);
    if (v.is_object()) return v.get_object();
    return {};
  } catch (const std::exception& e) {
    Host& h = host();
    if (h.log_enabled(LogLevel::kDebug)) {
      h.log(LogLevel::kDebug, "sync_error_body_parse_failed", {}, nullptr, false);
    }
    return {};
  }
}

SyncUnavailableError sync_unavailable_from(const std::string& url, std::int64_t attempts,
                                           std::vector<std::int64_t> statuses,
                                           std::vector<std::string> failures,
                                           const json::object& details) {
  auto get = [&](const char* key) -> std::optional<json::value> {
    if (const auto* v = details.if_contains(key)) return *v;
    return std::nullopt;
  };
  std::optional<json::value> code = get("error_code");
  if (!code || !truthy(*code)) code = get("error");
  bool typed = false;
  for (const char* key : {"error_code", "dependency", "retryable", "recovery"}) {
    const auto* v = details.if_contains(key);
    if (v && !v->is_null()) typed = true;
  }
  return SyncUnavailableError(make_unavailable_details(url, attempts, std::move(statuses), std::move(failures),
                                                       code, get("dependency"), get("retryable"),
                                                       get("recovery"), get("reason"), typed));
}

}  // namespace tidewright::sync
