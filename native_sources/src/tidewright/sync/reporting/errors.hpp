// The module's error family as C++ exceptions. Every exception the core lets
// escape towards the host derives from Error and names the host class it
// becomes (kind()). The binding layer raises the Python class of that name
// with the same message and fields.
#pragma once

#include "tidewright/sync/common/json.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tidewright::sync {

enum class ErrorKind {
  // The sync error family.
  kSyncError,
  kPermanentDownloadError,
  kSyncUnavailableError,
  kManifestSupersededError,
  kDiskSpaceError,
  kIntegrityError,
  kEraError,
  kManifestError,
  kStateError,
  kFeatureRotationStateError,
  // Errors of the host's standard classes.
  kValueError,
  kTypeError,
  kOSError,
  kFileNotFoundError,
  kConnectionError,
  kTimeoutError,
  // Errors of sibling modules, raised through the host.
  kAuthError,
  kSyncBackoffCancelled,
  kLibraryUpdateRequired,
  // An exception raised by host code (a callback); re-raised unchanged.
  kHostError,
};

// What a failure means to the code that meets it, whatever class carries it:
// the engine's catch sites decide by it (see is_fatal / is_retryable), and the
// command line maps it to an exit status. Every error, native or raised by
// host code, has exactly one.
enum class ErrorCode {
  kOther,            // nothing below: a bug, or a failure of the host's own code
  kCancelled,        // a stop request or an interrupt ended the wait or transfer
  kAuth,             // the service refused the token
  kUpdateRequired,   // this library is too old for the service's era
  kUnavailable,      // the service stayed unavailable (SyncUnavailableError)
  kNetwork,          // a connection failed or made no progress in time
  kDiskSpace,        // not enough room for what must be written
  kIntegrity,        // bytes kept failing verification
  kSuperseded,       // a newer manifest replaced the one being downloaded
  kPermanentDownload,  // an answer no retry will change
  kEra,              // the era changed or does not match
  kManifest,         // a manifest that cannot be used
  kSync,             // another failure of the sync family: an answer that may be right next time
  kState,            // the operation does not fit the current state
  kInvalidValue,     // a value or type the operation cannot take
  kFileSystem,       // a local file operation failed
};

// The host class name of a kind ("SyncError", "ValueError", ...);
// "Exception" for kHostError, whose class only the instance knows.
const char* error_kind_name(ErrorKind kind);

// The code of every error of a kind (an OSError's errno may refine it).
ErrorCode error_kind_code(ErrorKind kind);

// The name of a code as the host sees it ("auth", "disk_space", ...).
const char* error_code_name(ErrorCode code);

class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& message) : std::runtime_error(message) {}
  virtual ErrorKind kind() const = 0;
  virtual ErrorCode code() const;
  // The host class name ("SyncError", "ValueError", ...).
  std::string class_name() const;
};

#define TW_DEFINE_ERROR(Name, Base)                                       \
  class Name : public Base {                                              \
   public:                                                                \
    explicit Name(const std::string& message) : Base(message) {}          \
    ErrorKind kind() const override { return ErrorKind::k##Name; }        \
  };

class SyncError : public Error {
 public:
  explicit SyncError(const std::string& message) : Error(message) {}
  ErrorKind kind() const override { return ErrorKind::kSyncError; }
};

class PermanentDownloadError : public SyncError {
 public:
  PermanentDownloadError(const std::string& message, std::optional<std::string> file_path,
                         std::optional<std::int64_t> status)
      : SyncError(message), file_path(std::move(file_path)), status(status) {}
  ErrorKind kind() const override { return ErrorKind::kPermanentDownloadError; }
  std::optional<std::string> file_path;
  std::optional<std::int64_t> status;
};

// Fields of an endpoint that stays unavailable, as the server described it.
struct UnavailableDetails {
  std::string url;  // "<unknown>" when empty
  std::string endpoint;
  std::int64_t attempts = 0;
  std::vector<std::int64_t> statuses;
  std::vector<std::string> failures;
  std::optional<json::value> server_error_code;
  std::optional<json::value> dependency;
  std::optional<json::value> retryable;
  std::optional<json::value> recovery;
  std::optional<json::value> reason;
  bool typed_details = false;
};

class SyncUnavailableError : public SyncError {
 public:
  explicit SyncUnavailableError(UnavailableDetails details);
  ErrorKind kind() const override { return ErrorKind::kSyncUnavailableError; }
  // False only when the server said "retryable": false.
  bool retryable_allowed() const;
  UnavailableDetails details;
};

TW_DEFINE_ERROR(ManifestSupersededError, SyncError)
TW_DEFINE_ERROR(DiskSpaceError, SyncError)
TW_DEFINE_ERROR(IntegrityError, SyncError)
TW_DEFINE_ERROR(EraError, SyncError)
TW_DEFINE_ERROR(ManifestError, SyncError)

class StateError : public Error {
 public:
  explicit StateError(const std::string& message) : Error(message) {}
  ErrorKind kind() const override { return ErrorKind::kStateError; }
};
TW_DEFINE_ERROR(FeatureRotationStateError, StateError)

TW_DEFINE_ERROR(ValueError, Error)
TW_DEFINE_ERROR(TypeError, Error)

class OSError : public Error {
 public:
  OSError(const std::string& message, int error_number = 0, std::string filename = {})
      : Error(message), error_number(error_number), filename(std::move(filename)) {}
  ErrorKind kind() const override { return ErrorKind::kOSError; }
  // A full disk or quota is a disk space failure whatever the call.
  ErrorCode code() const override;
  int error_number;
  std::string filename;
};
class FileNotFoundError : public OSError {
 public:
  using OSError::OSError;
  ErrorKind kind() const override { return ErrorKind::kFileNotFoundError; }
};
class ConnectionError : public OSError {
 public:
  using OSError::OSError;
  ErrorKind kind() const override { return ErrorKind::kConnectionError; }
};
class TimeoutError : public OSError {
 public:
  using OSError::OSError;
  ErrorKind kind() const override { return ErrorKind::kTimeoutError; }
};

TW_DEFINE_ERROR(AuthError, Error)
TW_DEFINE_ERROR(SyncBackoffCancelled, Error)
TW_DEFINE_ERROR(LibraryUpdateRequired, Error)

#undef TW_DEFINE_ERROR

// An exception raised by host code inside a callback. It crosses the core
// untouched and is re-raised unchanged at the boundary. `payload` is owned by
// the host side; the flags say which standard classes the original belongs to
// so that the core can classify it without the host.
class HostError : public Error {
 public:
  enum Flags : unsigned {
    kIsValueError = 1u << 0,
    kIsTypeError = 1u << 1,
    kIsOSError = 1u << 2,
    kIsConnectionError = 1u << 3,
    kIsTimeoutError = 1u << 4,
    kIsAuthError = 1u << 5,
    kIsSyncBackoffCancelled = 1u << 6,
    kIsLibraryUpdateRequired = 1u << 7,
    kIsSyncError = 1u << 8,
    kIsRotationStatePayloadError = 1u << 9,
    kIsKeyboardInterrupt = 1u << 10,
    kIsNoSpace = 1u << 11,  // an OSError with errno ENOSPC or EDQUOT
  };
  HostError(const std::string& message, std::string type_name, unsigned flags,
            std::shared_ptr<void> payload)
      : Error(message), type_name(std::move(type_name)), flags(flags), payload(std::move(payload)) {}
  ErrorKind kind() const override { return ErrorKind::kHostError; }
  ErrorCode code() const override;
  bool is(Flags flag) const { return (flags & flag) != 0; }
  std::string type_name;  // the class name of the original exception
  unsigned flags;
  std::shared_ptr<void> payload;
};

// The code of any exception: an Error's own, kOther for anything else.
ErrorCode error_code(const std::exception& e);

// True for a failure no retry and no fallback may absorb: a stop request or
// interrupt, a refused token, a library too old for the service. A catch
// site that would log and carry on, or try again, rethrows these.
bool is_fatal(const std::exception& e);

// True for a failure of the engine's own exchange with the service that
// another attempt may cure: a network failure or timeout, an unavailability
// the server did not declare final, an answer of the sync family that was
// wrong this time. Never true for a fatal error, for a verdict on the data
// (integrity, disk space, a superseded manifest, a permanent answer), or for
// an exception raised by host code: that is the host's to handle.
bool is_retryable(const std::exception& e);

// Builds the SyncUnavailableError message from its fields.
std::string build_unavailable_message(const UnavailableDetails& details);

// The path part of a URL, else the URL, else "<unknown>".
std::string sync_endpoint_from_url(const std::string& url);

// Fills url/endpoint/typed_details the way the error's constructor does.
// `typed_details` left empty means: derive it from dependency/retryable/recovery.
UnavailableDetails make_unavailable_details(const std::string& url, std::int64_t attempts,
                                            std::vector<std::int64_t> statuses,
                                            std::vector<std::string> failures,
                                            std::optional<json::value> server_error_code,
                                            std::optional<json::value> dependency,
                                            std::optional<json::value> retryable,
                                            std::optional<json::value> recovery,
                                            std::optional<json::value> reason,
                                            std::optional<bool> typed_details);

// The server's JSON error object from an error body, or an empty object.
json::object parse_sync_error_body(std::string_view body);

// SyncUnavailableError from a parsed error body (built, not raised).
SyncUnavailableError sync_unavailable_from(const std::string& url, std::int64_t attempts,
                                           std::vector<std::int64_t> statuses,
                                           std::vector<std::string> failures,
                                           const json::object& details);

}  // namespace tidewright::sync
