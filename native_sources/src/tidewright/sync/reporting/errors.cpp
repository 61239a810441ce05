#include "tidewright/sync/reporting/errors.hpp"

#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/host/host.hpp"

#include <cerrno>

namespace tidewright::sync {

std::string Error::class_name() const {
  if (kind() == ErrorKind::kHostError) return static_cast<const HostError*>(this)->type_name;
  return error_kind_name(kind());
}

const char* error_kind_name(ErrorKind kind) {
  switch (kind) {
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
    case ErrorKind::kHostError: return "Exception";
  }
  return "Exception";
}

const char* error_code_name(ErrorCode code) {
  switch (code) {
    case ErrorCode::kOther: return "other";
    case ErrorCode::kCancelled: return "cancelled";
    case ErrorCode::kAuth: return "auth";
    case ErrorCode::kUpdateRequired: return "update_required";
    case ErrorCode::kUnavailable: return "unavailable";
    case ErrorCode::kNetwork: return "network";
    case ErrorCode::kDiskSpace: return "disk_space";
    case ErrorCode::kIntegrity: return "integrity";
    case ErrorCode::kSuperseded: return "superseded";
    case ErrorCode::kPermanentDownload: return "permanent_download";
    case ErrorCode::kEra: return "era";
    case ErrorCode::kManifest: return "manifest";
    case ErrorCode::kSync: return "sync";
    case ErrorCode::kState: return "state";
    case ErrorCode::kInvalidValue: return "invalid_value";
    case ErrorCode::kFileSystem: return "file_system";
  }
  return "other";
}

ErrorCode Error::code() const { return error_kind_code(kind()); }

ErrorCode OSError::code() const {
  if (error_number == ENOSPC || error_number == EDQUOT) return ErrorCode::kDiskSpace;
  return Error::code();
}

ErrorCode error_kind_code(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::kSyncError: return ErrorCode::kSync;
    case ErrorKind::kPermanentDownloadError: return ErrorCode::kPermanentDownload;
    case ErrorKind::kSyncUnavailableError: return ErrorCode::kUnavailable;
    case ErrorKind::kManifestSupersededError: return ErrorCode::kSuperseded;
    case ErrorKind::kDiskSpaceError: return ErrorCode::kDiskSpace;
    case ErrorKind::kIntegrityError: return ErrorCode::kIntegrity;
    case ErrorKind::kEraError: return ErrorCode::kEra;
    case ErrorKind::kManifestError: return ErrorCode::kManifest;
    case ErrorKind::kStateError:
    case ErrorKind::kFeatureRotationStateError: return ErrorCode::kState;
    case ErrorKind::kValueError:
    case ErrorKind::kTypeError: return ErrorCode::kInvalidValue;
    case ErrorKind::kOSError:
    case ErrorKind::kFileNotFoundError: return ErrorCode::kFileSystem;
    case ErrorKind::kConnectionError:
    case ErrorKind::kTimeoutError: return ErrorCode::kNetwork;
    case ErrorKind::kAuthError: return ErrorCode::kAuth;
    case ErrorKind::kSyncBackoffCancelled: return ErrorCode::kCancelled;
    case ErrorKind::kLibraryUpdateRequired: return ErrorCode::kUpdateRequired;
    case ErrorKind::kHostError: return ErrorCode::kOther;  // HostError overrides code()
  }
  return ErrorCode::kOther;
}

// The most specific flag decides: an AuthError that is also a ConnectionError
// is an auth failure.
ErrorCode HostError::code() const {
  if (is(kIsKeyboardInterrupt) || is(kIsSyncBackoffCancelled)) return ErrorCode::kCancelled;
  if (is(kIsAuthError)) return ErrorCode::kAuth;
  if (is(kIsLibraryUpdateRequired)) return ErrorCode::kUpdateRequired;
  if (is(kIsRotationStatePayloadError)) return ErrorCode::kState;
  if (is(kIsSyncError)) return ErrorCode::kSync;
  if (is(kIsConnectionError) || is(kIsTimeoutError)) return ErrorCode::kNetwork;
  if (is(kIsNoSpace)) return ErrorCode::kDiskSpace;
  if (is(kIsOSError)) return ErrorCode::kFileSystem;
  if (is(kIsValueError) || is(kIsTypeError)) return ErrorCode::kInvalidValue;
  return ErrorCode::kOther;
}

ErrorCode error_code(const std::exception& e) {
  if (const auto* error = dynamic_cast<const Error*>(&e)) return error->code();
  return ErrorCode::kOther;
}

bool is_fatal(const std::exception& e) {
  switch (error_code(e)) {
    case ErrorCode::kCancelled:
    case ErrorCode::kAuth:
    case ErrorCode::kUpdateRequired: return true;
    default: return false;
  }
}

bool is_retryable(const std::exception& e) {
  if (dynamic_cast<const HostError*>(&e) != nullptr) return false;
  switch (error_code(e)) {
    case ErrorCode::kNetwork:
    case ErrorCode::kEra:
    case ErrorCode::kManifest:
    case ErrorCode::kSync: return true;
    case ErrorCode::kUnavailable: {
      const auto* unavailable = dynamic_cast<const SyncUnavailableError*>(&e);
      return unavailable != nullptr && unavailable->retryable_allowed();
    }
    default: return false;
  }
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
