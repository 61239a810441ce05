#include "tidewright/sync/bindings/python_host.hpp"

#include <cerrno>

#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <Python.h>

#include <nanobind/stl/string.h>

#include <atomic>
#include <string_view>
#include <unistd.h>

namespace tidewright::sync::bindings {

using namespace nanobind::literals;

namespace {

std::atomic<bool> g_exiting{false};

// Thrown when the interpreter is shutting down and a call cannot be made.
[[noreturn]] void throw_shutting_down() {
  throw StateError("interpreter is shutting down");
}

bool isinstance_of(nb::handle obj, const char* module, const char* name) {
  PyObject* mod = PyImport_GetModule(nb::str(module).ptr());  // new ref or NULL, never imports
  if (!mod) {
    PyErr_Clear();
    return false;
  }
  nb::object m = nb::steal(mod);
  if (!nb::hasattr(m, name)) return false;
  nb::object cls = m.attr(name);
  int r = PyObject_IsInstance(obj.ptr(), cls.ptr());
  if (r < 0) {
    PyErr_Clear();
    return false;
  }
  return r == 1;
}

nb::object import_module(std::string_view name) {
  nb::object importlib = nb::module_::import_("importlib");
  return importlib.attr("import_module")(nb::str(name.data(), name.size()));
}

nb::object loaded_module(const char* name) {
  PyObject* mod = PyImport_GetModule(nb::str(name).ptr());
  if (!mod) {
    PyErr_Clear();
    return nb::object();
  }
  return nb::steal(mod);
}

bool is_native_default(nb::handle fn, const char* name) {
  if (!nb::hasattr(fn, "__tidewright_native__")) return false;
  try {
    return nb::cast<std::string>(fn.attr("__tidewright_native__")) == name;
  } catch (...) {
    return false;
  }
}

nb::object kwargs_dict(const json::object& kwargs) {
  nb::dict d;
  for (const auto& kv : kwargs) d[nb::str(kv.key().data(), kv.key().size())] = from_json(kv.value());
  return d;
}

nb::object args_tuple(const json::array& args) {
  return nb::steal(PySequence_Tuple(from_json_array(args).ptr()));
}

}  // namespace

// An engine thread shows its name where host code runs on it: in
// threading.current_thread().name and so in the thread name of log records.
// The engine's threads are not registered as threading.Thread objects (the
// host cannot start or join them, and its exit would wait for any that were
// not daemons); the host's own placeholder for a thread it did not start is
// named instead. Set on every entry: a host may make a new placeholder each
// time a thread enters, and a placeholder outlives its thread, so a later
// thread with the same ident must rename it. An engine thread without a name
// (a token helper of a host thread) gets a placeholder name of its own
// rather than the name a placeholder kept from an earlier engine thread.
// REQUIRES: the GIL held.
void show_engine_thread_name() {
  const std::string& name = current_thread_name();
  try {
    nb::module_ threading = nb::module_::import_("threading");
    nb::object current = threading.attr("current_thread")();
    if (name.empty()) {
      if (!nb::isinstance(current, threading.attr("_DummyThread"))) return;  // a host thread
      nb::str old_name = nb::str(current.attr("name"));
      if (std::string_view(old_name.c_str()).rfind("Dummy-", 0) == 0) return;
      current.attr("name") = nb::str(("Dummy-" + std::to_string(::gettid())).c_str());
      return;
    }
    nb::str wanted(name.c_str(), name.size());
    if (!current.attr("name").equal(wanted)) current.attr("name") = wanted;
  } catch (nb::python_error&) {
    // A name is not worth failing the call for.
  }
}

namespace {

// Runs `fn` with the GIL held, turning a Python exception into a HostError.
template <typename F>
auto with_gil(F&& fn) -> decltype(fn()) {
  if (PythonHost::interpreter_exiting() || !Py_IsInitialized()) throw_shutting_down();
  nb::gil_scoped_acquire gil;
  show_engine_thread_name();
  try {
    return fn();
  } catch (nb::python_error& e) {
    e.restore();
    throw_host_error_from_python();
  }
}

json::value result_to_json(nb::handle result) {
  try {
    return to_json(result);
  } catch (nb::python_error&) {
    PyErr_Clear();
    return nullptr;
  }
}

// The exception being handled, for a log record: the host exception a
// HostError carries, with its traceback; otherwise True (whatever the host
// itself is handling).
nb::object exc_info_of_current_exception() {
  std::exception_ptr current = std::current_exception();
  if (!current) return nb::bool_(true);
  try {
    std::rethrow_exception(current);
  } catch (const HostError& e) {
    auto* error = static_cast<nb::python_error*>(e.payload.get());
    if (error && error->value().is_valid() && PyExceptionInstance_Check(error->value().ptr())) {
      return nb::make_tuple(error->type(), error->value(), error->traceback());
    }
  } catch (...) {
  }
  return nb::bool_(true);
}

}  // namespace

unsigned host_error_flags(nb::handle value) {
  unsigned flags = 0;
  auto mark = [&](PyObject* cls, unsigned flag) {
    if (PyObject_IsInstance(value.ptr(), cls) == 1) flags |= flag;
  };
  mark(PyExc_ValueError, HostError::kIsValueError);
  mark(PyExc_TypeError, HostError::kIsTypeError);
  mark(PyExc_OSError, HostError::kIsOSError);
  mark(PyExc_ConnectionError, HostError::kIsConnectionError);
  mark(PyExc_TimeoutError, HostError::kIsTimeoutError);
  mark(PyExc_KeyboardInterrupt, HostError::kIsKeyboardInterrupt);
  PyErr_Clear();
  if ((flags & HostError::kIsOSError) != 0 && nb::hasattr(value, "errno")) {
    nb::object number = value.attr("errno");
    if (nb::isinstance<nb::int_>(number)) {
      int e = nb::cast<int>(number);
      if (e == ENOSPC || e == EDQUOT) flags |= HostError::kIsNoSpace;
    }
  }
  if (isinstance_of(value, "tidewright.auth", "AuthError")) flags |= HostError::kIsAuthError;
  if (isinstance_of(value, "tidewright.sync_backoff", "SyncBackoffCancelled")) flags |= HostError::kIsSyncBackoffCancelled;
  if (isinstance_of(value, "tidewright.deployment", "LibraryUpdateRequired")) flags |= HostError::kIsLibraryUpdateRequired;
  if (isinstance_of(value, "tidewright.sync", "SyncError")) flags |= HostError::kIsSyncError;
  if (isinstance_of(value, "tidewright._artifact_rotation", "RotationStatePayloadError")) {
    flags |= HostError::kIsRotationStatePayloadError;
  }
  return flags;
}

[[noreturn]] void throw_host_error_from_python() {
  nb::python_error err;  // fetches and clears the current exception
  nb::handle value = err.value();
  unsigned flags = host_error_flags(value);
  std::string message;
  try {
    message = to_text(value);
  } catch (...) {
    PyErr_Clear();
  }
  std::string type_name = nb::type_name(value.type()).c_str();
  auto payload = std::make_shared<nb::python_error>(std::move(err));
  throw HostError(message, type_name, flags, std::static_pointer_cast<void>(payload));
}

void PythonHost::mark_interpreter_exiting() { g_exiting.store(true); }
bool PythonHost::interpreter_exiting() { return g_exiting.load(); }

bool PythonHost::shutting_down() {
  return interpreter_exiting() || !Py_IsInitialized();
}

bool PythonHost::holds_host_lock() { return !shutting_down() && PyGILState_Check() == 1; }

bool PythonHost::log_enabled(LogLevel level) {
  if (shutting_down()) return false;
  try {
    return with_gil([&] {
      nb::object logger = nb::module_::import_("logging").attr("getLogger")("tidewright.sync");
      return nb::cast<bool>(logger.attr("isEnabledFor")(static_cast<int>(level)));
    });
  } catch (...) {
    return false;
  }
}

void PythonHost::log(LogLevel level, std::string_view format, const json::array& args,
                     const json::object* event, bool with_traceback) {
  if (shutting_down()) return;
  try {
    with_gil([&] {
      nb::object logger = nb::module_::import_("logging").attr("getLogger")("tidewright.sync");
      nb::dict kwargs;
      if (event) {
        nb::dict extra;
        extra["tidewright_sync_event"] = from_json(json::value(*event));
        kwargs["extra"] = extra;
      }
      if (with_traceback) kwargs["exc_info"] = exc_info_of_current_exception();
      nb::list call_args;
      call_args.append(static_cast<int>(level));
      call_args.append(nb::str(format.data(), format.size()));
      for (const auto& a : args) call_args.append(from_json(a));
      logger.attr("log")(*nb::tuple(call_args), **kwargs);
      return 0;
    });
  } catch (...) {
    // Logging never fails the caller.
  }
}

bool PythonHost::is_callable(const HostRef& fn) {
  return with_gil([&] { return PyCallable_Check(ref_object(fn).ptr()) == 1; });
}

std::string PythonHost::type_repr(const HostRef& object) {
  return with_gil([&] { return to_text(nb::repr(ref_object(object).type())); });
}

namespace {

// A backoff context entered for the scope of one call, with the GIL held
// throughout; not entering it (the backoff module broken) leaves the call
// without it.
class BackoffContextScope {
 public:
  explicit BackoffContextScope(nb::handle fields) {
    try {
      nb::object mod = loaded_module("tidewright.sync_backoff");
      if (!mod.is_valid()) mod = import_module("tidewright.sync_backoff");
      nb::dict layered;
      for (nb::handle key : fields) layered[key] = fields[key];
      nb::object context = mod.attr("backoff_context")(**layered);
      context.attr("__enter__")();
      context_ = std::move(context);
    } catch (nb::python_error& e) {
      std::string what = e.what();
      e.restore();
      PyErr_Clear();
      log_debug("Backoff context not entered: %s", {json::value(what)});
    }
  }
  ~BackoffContextScope() {
    if (!context_.is_valid()) return;
    // Left like a with-statement whose body returned: the call's own error
    // is already held by the caller's exception, not by the interpreter.
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    try {
      context_.attr("__exit__")(nb::none(), nb::none(), nb::none());
    } catch (nb::python_error& e) {
      e.restore();
      PyErr_Clear();
    }
    PyErr_Restore(type, value, traceback);
  }
  BackoffContextScope(const BackoffContextScope&) = delete;
  BackoffContextScope& operator=(const BackoffContextScope&) = delete;

 private:
  nb::object context_;
};

}  // namespace

Host::TokenAnswer PythonHost::call_for_token(const HostRef& fn, const HostRef& context) {
  return with_gil([&]() -> TokenAnswer {
    std::optional<BackoffContextScope> scope;
    if (context) scope.emplace(ref_object(context));
    nb::object result = ref_object(fn)();
    // Only a str is a token: str() of None, a number or bytes would be sent
    // as "Bearer None", "Bearer 42" or "Bearer b'...'".
    if (!PyUnicode_Check(result.ptr())) {
      return {std::nullopt, "returned " + std::string(Py_TYPE(result.ptr())->tp_name) + ", not str"};
    }
    Py_ssize_t n = 0;
    const char* data = PyUnicode_AsUTF8AndSize(result.ptr(), &n);
    if (!data) {
      PyErr_Clear();  // the error text would quote the offending character
      return {std::nullopt, "returned a str that is not valid Unicode (an unpaired surrogate)"};
    }
    return {std::string(data, static_cast<std::size_t>(n)), ""};
  });
}

json::value PythonHost::call(const HostRef& fn, const json::array& args) {
  return with_gil([&] {
    nb::object result = ref_object(fn)(*args_tuple(args));
    return result_to_json(result);
  });
}

std::string PythonHost::validate_bearer_transport_url(const std::string& url) {
  return with_gil([&] {
    nb::object mod = import_module("tidewright._transport_security");
    nb::object result = mod.attr("validate_bearer_transport_url")(nb::str(url.data(), url.size()));
    return to_text(result);
  });
}

ManifestSiblings PythonHost::manifest_siblings() {
  ManifestSiblings s = default_manifest_siblings();
  if (shutting_down()) return s;
  with_gil([&] {
    nb::object rotation = import_module("tidewright._artifact_rotation");
    nb::object freshness = import_module("tidewright.runtime_module_freshness");
    nb::object progress = import_module("tidewright._sync_progress");
    nb::object tokens = import_module("tidewright._function_token_safety");
    nb::object era_config = import_module("tidewright.era_config");

    nb::object kind_fn = rotation.attr("manifest_file_kind");
    if (!is_native_default(kind_fn, "manifest_file_kind")) {
      HostRef ref = make_ref(kind_fn);
      s.native_file_kind = false;
      s.manifest_file_kind = [ref](std::string_view path, const json::value& info) {
        return with_gil([&] {
          return to_text(ref_object(ref)(nb::str(path.data(), path.size()), from_json(info)));
        });
      };
    }
    nb::object runtime_fn = freshness.attr("is_runtime_module_kind");
    if (!is_native_default(runtime_fn, "is_runtime_module_kind")) {
      HostRef ref = make_ref(runtime_fn);
      s.is_runtime_module_kind = [ref](std::string_view kind) {
        return with_gil([&] { return nb::bool_(ref_object(ref)(nb::str(kind.data(), kind.size()))).operator bool(); });
      };
    }
    s.runtime_module_kind_suffix = to_text(freshness.attr("RUNTIME_MODULE_KIND_SUFFIX"));
    nb::object size_fn = progress.attr("manifest_file_size");
    if (!is_native_default(size_fn, "manifest_file_size")) {
      HostRef ref = make_ref(size_fn);
      s.manifest_file_size = [ref](const json::value& entry) -> std::optional<std::int64_t> {
        return with_gil([&]() -> std::optional<std::int64_t> {
          nb::object r = ref_object(ref)(from_json(entry));
          if (r.is_none()) return std::nullopt;
          return nb::cast<std::int64_t>(r);
        });
      };
    }
    nb::object token_fn = tokens.attr("is_retired_public_function_token_name");
    if (!is_native_default(token_fn, "is_retired_public_function_token_name")) {
      HostRef ref = make_ref(token_fn);
      s.is_retired_public_function_token_name = [ref](std::string_view name) {
        return with_gil([&] { return nb::bool_(ref_object(ref)(nb::str(name.data(), name.size()))).operator bool(); });
      };
    }
    s.feature_artifact_kinds.clear();
    for (nb::handle k : rotation.attr("FEATURE_ARTIFACT_KINDS")) s.feature_artifact_kinds.insert(to_text(k));
    nb::object epoch = era_config.attr("EpochName");
    s.epochs.signal_is = to_text(epoch.attr("SIGNAL_IS").attr("value"));
    s.epochs.strategy_is = to_text(epoch.attr("STRATEGY_IS").attr("value"));
    s.epochs.signal_os = to_text(epoch.attr("SIGNAL_OS").attr("value"));
    return 0;
  });
  return s;
}

json::value PythonHost::call_module_function(std::string_view module, std::string_view function,
                                             const json::array& args, const json::object& kwargs) {
  return with_gil([&] {
    nb::object mod = import_module(module);
    nb::object fn = mod.attr(nb::str(function.data(), function.size()));
    nb::object result = PyCallable_Check(fn.ptr()) ? fn(*args_tuple(args), **kwargs_dict(kwargs)) : fn;
    return result_to_json(result);
  });
}

bool PythonHost::module_function_is_native_default(std::string_view module, std::string_view function) {
  if (shutting_down()) return false;
  return with_gil([&] {
    nb::object fn = import_module(module).attr(nb::str(function.data(), function.size()));
    return is_native_default(fn, std::string(function).c_str());
  });
}

HostRef PythonHost::call_module_function_ref(std::string_view module, std::string_view function,
                                             const json::array& args, const json::object& kwargs) {
  return with_gil([&] {
    nb::object mod = import_module(module);
    nb::object fn = mod.attr(nb::str(function.data(), function.size()));
    nb::object result = PyCallable_Check(fn.ptr()) ? fn(*args_tuple(args), **kwargs_dict(kwargs)) : fn;
    return make_ref(result);
  });
}

json::value PythonHost::call_method(const HostRef& object, std::string_view method,
                                    const json::array& args, const json::object& kwargs) {
  return with_gil([&] {
    nb::object fn = ref_object(object).attr(nb::str(method.data(), method.size()));
    return result_to_json(fn(*args_tuple(args), **kwargs_dict(kwargs)));
  });
}

double PythonHost::backoff_delay_seconds(std::int64_t attempt_index) {
  return with_gil([&] {
    nb::object mod = loaded_module("tidewright.sync_backoff");
    if (!mod.is_valid()) mod = import_module("tidewright.sync_backoff");
    return nb::cast<double>(nb::float_(mod.attr("SyncBackoffPolicy").attr("delay_seconds")(attempt_index)));
  });
}

bool PythonHost::backoff_sleep(double wait_seconds, const std::function<bool()>& stop_requested) {
  // The policy's sleep runs in Python; it calls back into stop_requested,
  // which may itself call the host, so the GIL is released around it.
  return with_gil([&] {
    nb::object mod = loaded_module("tidewright.sync_backoff");
    if (!mod.is_valid()) mod = import_module("tidewright.sync_backoff");
    nb::object time_sleep = nb::module_::import_("time").attr("sleep");
    nb::object stop = nb::cpp_function([stop_requested]() {
      nb::gil_scoped_release release;
      return stop_requested ? stop_requested() : false;
    });
    nb::object r = mod.attr("SyncBackoffPolicy").attr("sleep")(wait_seconds, "sleep"_a = time_sleep,
                                                                "stop_requested"_a = stop);
    return PyObject_IsTrue(r.ptr()) == 1;
  });
}

HostRef PythonHost::current_backoff_context() {
  if (shutting_down()) return nullptr;
  try {
    return with_gil([&] {
      nb::object mod = loaded_module("tidewright.sync_backoff");
      if (!mod.is_valid()) return HostRef();
      return make_ref(mod.attr("current_context")());
    });
  } catch (...) {
    return nullptr;
  }
}

bool PythonHost::backoff_context_stop_requested(const HostRef& context) {
  if (!context || shutting_down()) return false;
  try {
    return with_gil([&] {
      nb::handle ctx = ref_object(context);
      nb::object fn = ctx.attr("get")("stop_requested");
      if (fn.is_none()) return false;
      return PyObject_IsTrue(fn().ptr()) == 1;
    });
  } catch (...) {
    return false;
  }
}

namespace {

// A context entered on a thread that may have no Python thread state of its
// own (a core thread). The thread state made for it is kept until the
// context is left: the backoff module keeps its contexts per thread, and a
// thread state made and dropped around each call would forget them.
struct EnteredBackoffContext {
  nb::object context;  // touched only with the GIL held
  PyGILState_STATE gil_state{};
  PyThreadState* saved = nullptr;
  ~EnteredBackoffContext() { context.release(); }  // left in pop_backoff_context, or leaked at exit
};

}  // namespace

HostRef PythonHost::push_backoff_context(const HostRef& base, const json::object& fields,
                                         std::function<bool()> stop_requested) {
  if (shutting_down()) return nullptr;
  auto entered = std::make_shared<EnteredBackoffContext>();
  entered->gil_state = PyGILState_Ensure();
  try {
    nb::object mod = loaded_module("tidewright.sync_backoff");
    if (!mod.is_valid()) mod = import_module("tidewright.sync_backoff");
    nb::dict layered;
    if (base) {
      nb::handle given = ref_object(base);
      for (nb::handle key : given) layered[key] = given[key];
    }
    for (const auto& kv : fields) layered[nb::str(kv.key().data(), kv.key().size())] = from_json(kv.value());
    if (stop_requested) {
      layered["stop_requested"] = nb::cpp_function([stop_requested]() {
        nb::gil_scoped_release release;
        return stop_requested();
      });
    }
    nb::object context = mod.attr("backoff_context")(**layered);
    context.attr("__enter__")();
    entered->context = std::move(context);
  } catch (nb::python_error& e) {
    std::string what = e.what();
    e.restore();
    PyErr_Clear();
    PyGILState_Release(entered->gil_state);
    log_debug("Backoff context not entered: %s", {json::value(what)});
    return nullptr;
  }
  entered->saved = PyEval_SaveThread();
  return entered;
}

void PythonHost::pop_backoff_context(const HostRef& token) {
  if (!token || shutting_down()) return;
  auto entered = std::static_pointer_cast<EnteredBackoffContext>(token);
  PyEval_RestoreThread(entered->saved);
  try {
    entered->context.attr("__exit__")(nb::none(), nb::none(), nb::none());
  } catch (nb::python_error& e) {
    e.restore();
    PyErr_Clear();
  }
  entered->context.reset();
  PyGILState_Release(entered->gil_state);
}

bool PythonHost::accepts_positional_arguments(const HostRef& fn, std::size_t count) {
  if (!fn || shutting_down()) return false;
  try {
    return with_gil([&] {
      nb::object signature = nb::module_::import_("inspect").attr("signature")(ref_object(fn));
      nb::list args;
      for (std::size_t i = 0; i < count; ++i) args.append(nb::none());
      signature.attr("bind")(*nb::tuple(args));
      return true;
    });
  } catch (const HostError&) {
    return false;  // no signature to read, or one that does not bind
  }
}

}  // namespace tidewright::sync::bindings
