#include "tidewright/sync/bindings/errors.hpp"

#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/python_host.hpp"

#include <Python.h>

namespace tidewright::sync::bindings {

namespace {


nb::handle g_module;  // the module object; lives as long as the interpreter

nb::object sibling_class(const char* module, const char* name) {
  return nb::module_::import_("importlib").attr("import_module")(module).attr(name);
}

nb::object opt(const std::optional<json::value>& v) { return v ? from_json(*v) : nb::none(); }

}  // namespace

nb::object error_class(const char* name) { return g_module.attr(name); }

void bind_errors(nb::module_& m) {
  g_module = m;
  adopt_names(m, nb::module_::import_("tidewright._sync_errors"));
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
