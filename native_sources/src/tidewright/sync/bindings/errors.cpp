#include "tidewright/sync/bindings/errors.hpp"

#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/python_host.hpp"

#include <Python.h>

namespace tidewright::sync::bindings {

namespace {

// The error classes are ordinary Python classes of this module, so that they
// have the host's exception semantics (several bases, keyword constructors,
// pickling). They are defined once at import.
constexpr const char* kErrorSource = R"PY(
from __future__ import annotations  # annotations stay text: the stubs read them as written

import errno as _errno
import logging as _logging
import os as _os
import urllib.parse as _urlparse

_errors_logger = _logging.getLogger("tidewright.sync")


class SyncError(Exception):
    """Base sync error."""


class PermanentDownloadError(SyncError):
    """Raised when a file download response is not transient."""

    def __init__(self, message: str, *, file_path: str | None = None, status: int | None = None) -> None:
        super().__init__(message)
        self.file_path = file_path
        try:
            self.status = None if status is None else int(status)
        except (TypeError, ValueError):
            self.status = None


def _sync_endpoint_from_url(url):
    text = str(url or "")
    try:
        path = _urlparse.urlparse(text).path
        if path:
            return path
    except Exception:
        _errors_logger.debug("sync_endpoint_parse_failed", exc_info=True)
    return text or "<unknown>"


class SyncUnavailableError(SyncError, ConnectionError):
    """Raised when a retryable sync dependency remains unavailable."""

    def __init__(self, url: str | None, attempts: int, statuses: list[int] | None = None,
                 failures: list[str] | None = None, server_error_code: str | None = None,
                 dependency: str | None = None, retryable: bool | None = None, recovery: str | None = None,
                 reason: str | None = None, typed_details: bool | None = None) -> None:
        self.url = str(url or "") or "<unknown>"
        self.endpoint = _sync_endpoint_from_url(url)
        self.attempts = int(attempts)
        self.statuses = list(statuses or [])
        self.failures = list(failures or [])
        self.server_error_code = server_error_code
        self.dependency = dependency
        self.retryable = retryable
        self.recovery = recovery
        self.reason = reason
        if typed_details is None:
            typed_details = any(value is not None for value in (dependency, retryable, recovery))
        self.typed_details = bool(typed_details)
        super().__init__(self._build_message())

    def _build_message(self):
        parts = [f"Tidewright data sync unavailable after {self.attempts} attempt(s)."]
        parts.append(f"endpoint={self.endpoint}")
        parts.append(f"url={self.url}")
        if self.statuses:
            parts.append(f"statuses={self.statuses}")
        if self.failures:
            parts.append(f"failures={self.failures}")
        if self.server_error_code:
            parts.append(f"server_error={self.server_error_code}")
        if self.dependency:
            parts.append(f"dependency={self.dependency}")
        if self.retryable is not None:
            parts.append(f"retryable={bool(self.retryable)}")
        if self.recovery:
            parts.append(f"recovery={self.recovery}")
        if self.reason:
            parts.append(f"reason={self.reason}")
        return " ".join(parts)

    def __reduce__(self):
        return (type(self), (self.url, self.attempts, self.statuses, self.failures,
                             self.server_error_code, self.dependency, self.retryable,
                             self.recovery, self.reason, self.typed_details))


class ManifestSupersededError(SyncError):
    """Raised when a newer manifest generation supersedes active downloads."""


class DiskSpaceError(SyncError, OSError):
    """Raised when insufficient disk space for sync.

    Also an OSError whose errno is ENOSPC (strerror "No space left on
    device"), so that a handler for the operating-system error a full disk
    raises on a write catches it too. str() is the message alone.
    """

    def __init__(self, *args: str) -> None:
        super().__init__(*args)
        self.errno = _errno.ENOSPC
        self.strerror = _os.strerror(_errno.ENOSPC)

    def __str__(self) -> str:
        return Exception.__str__(self)


class IntegrityError(SyncError):
    """Raised when file checksum verification fails after retries."""


class EraError(SyncError):
    """Raised on era-related errors."""


class ManifestError(SyncError):
    """Raised on manifest parsing or validation errors."""


class StateError(Exception):
    """Raised when operation is invalid for current state."""


class FeatureRotationStateError(StateError):
    """Raised when persisted feature-rotation state is invalid."""


def _read_http_error_body(exc):
    read = getattr(exc, "read", None)
    if read is None:
        return b""
    try:
        return read()
    except Exception:
        return b""


def _sync_unavailable_has_typed_details(exc):
    return bool(getattr(exc, "typed_details", False))
)PY";

nb::handle g_module;  // the module object; lives as long as the interpreter

nb::object sibling_class(const char* module, const char* name) {
  return nb::module_::import_("importlib").attr("import_module")(module).attr(name);
}

nb::object opt(const std::optional<json::value>& v) { return v ? from_json(*v) : nb::none(); }

}  // namespace

nb::object error_class(const char* name) { return g_module.attr(name); }

void bind_errors(nb::module_& m) {
  g_module = m;
  nb::object builtins = nb::module_::import_("builtins");
  nb::dict globals = nb::borrow<nb::dict>(m.attr("__dict__"));
  nb::object code = builtins.attr("compile")(kErrorSource, "<tidewright.sync errors>", "exec");
  builtins.attr("exec")(code, globals);
  m.def(
      "_error_code", [](nb::handle exc) { return error_code_name(python_error_code(exc)); }, nb::arg("exc"),
      nb::sig("def _error_code(exc: BaseException) -> str"),
      "What a failure means, whatever its class: \"auth\", \"unavailable\", \"disk_space\", ... "
      "(\"other\" when nothing more is known).");
}

ErrorCode python_error_code(nb::handle value) {
  // Most specific class first: the first match decides.
  static constexpr ErrorKind kFamily[] = {
      ErrorKind::kFeatureRotationStateError, ErrorKind::kStateError,        ErrorKind::kPermanentDownloadError,
      ErrorKind::kSyncUnavailableError,      ErrorKind::kManifestSupersededError, ErrorKind::kDiskSpaceError,
      ErrorKind::kIntegrityError,            ErrorKind::kEraError,          ErrorKind::kManifestError,
      ErrorKind::kSyncError,
  };
  for (ErrorKind kind : kFamily) {
    nb::object cls = error_class(error_kind_name(kind));
    if (PyObject_IsInstance(value.ptr(), cls.ptr()) == 1) return error_kind_code(kind);
    PyErr_Clear();
  }
  return HostError("", "", host_error_flags(value), nullptr).code();
}

void set_python_error(const Error& error) {
  try {
    nb::object cls;
    nb::object instance;
    switch (error.kind()) {
      case ErrorKind::kHostError: {
        const auto& host_error = static_cast<const HostError&>(error);
        if (host_error.payload) {
          static_cast<nb::python_error*>(host_error.payload.get())->restore();
          return;
        }
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return;
      }
      case ErrorKind::kPermanentDownloadError: {
        const auto& e = static_cast<const PermanentDownloadError&>(error);
        cls = error_class("PermanentDownloadError");
        nb::object file_path = e.file_path ? nb::object(nb::str(e.file_path->c_str())) : nb::none();
        nb::object status = e.status ? nb::object(nb::int_(*e.status)) : nb::none();
        instance = cls(nb::str(error.what()), nb::arg("file_path") = file_path, nb::arg("status") = status);
        break;
      }
      case ErrorKind::kSyncUnavailableError: {
        const auto& d = static_cast<const SyncUnavailableError&>(error).details;
        cls = error_class("SyncUnavailableError");
        nb::list statuses, failures;
        for (auto s : d.statuses) statuses.append(s);
        for (const auto& f : d.failures) failures.append(nb::str(f.c_str()));
        instance = cls(nb::str(d.url.c_str()), d.attempts, statuses, failures, opt(d.server_error_code),
                       opt(d.dependency), opt(d.retryable), opt(d.recovery), opt(d.reason), d.typed_details);
        break;
      }
      case ErrorKind::kValueError: PyErr_SetString(PyExc_ValueError, error.what()); return;
      case ErrorKind::kTypeError: PyErr_SetString(PyExc_TypeError, error.what()); return;
      case ErrorKind::kOSError:
      case ErrorKind::kFileNotFoundError:
      case ErrorKind::kConnectionError:
      case ErrorKind::kTimeoutError: {
        const auto& e = static_cast<const OSError&>(error);
        PyObject* type = error.kind() == ErrorKind::kFileNotFoundError ? PyExc_FileNotFoundError
                         : error.kind() == ErrorKind::kConnectionError ? PyExc_ConnectionError
                         : error.kind() == ErrorKind::kTimeoutError   ? PyExc_TimeoutError
                                                                       : PyExc_OSError;
        cls = nb::borrow(type);
        if (e.error_number != 0) {
          instance = e.filename.empty() ? cls(e.error_number, nb::str(error.what()))
                                        : cls(e.error_number, nb::str(error.what()), nb::str(e.filename.c_str()));
        } else {
          instance = cls(nb::str(error.what()));
        }
        break;
      }
      case ErrorKind::kAuthError:
        cls = sibling_class("tidewright.auth", "AuthError");
        instance = cls(nb::str(error.what()));
        break;
      case ErrorKind::kSyncBackoffCancelled:
        cls = sibling_class("tidewright.sync_backoff", "SyncBackoffCancelled");
        instance = cls(nb::str(error.what()));
        break;
      case ErrorKind::kLibraryUpdateRequired:
        cls = sibling_class("tidewright.deployment", "LibraryUpdateRequired");
        instance = cls(nb::str(error.what()));
        break;
      default: {
        std::string name = error.class_name();
        cls = error_class(name.c_str());
        instance = cls(nb::str(error.what()));
        break;
      }
    }
    PyErr_SetObject(cls.ptr(), instance.ptr());
  } catch (nb::python_error& e) {
    e.restore();
  }
}

}  // namespace tidewright::sync::bindings
