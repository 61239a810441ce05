// PythonHost: the Host implemented with the Python interpreter that loaded
// the module. Every call takes the GIL for its own duration and converts
// values at the edge; a Python exception raised inside a call is captured as
// a HostError and re-raised unchanged when it reaches the binding boundary.
//
// Thread-safe: holds no state besides the process-wide exit flag.
#pragma once

#include "tidewright/sync/host/host.hpp"

#include <nanobind/nanobind.h>

namespace tidewright::sync::bindings {

class PythonHost : public Host {
 public:
  bool log_enabled(LogLevel level) override;
  void log(LogLevel level, std::string_view format, const json::array& args,
           const json::object* event, bool with_traceback) override;
  bool is_callable(const HostRef& fn) override;
  std::string type_repr(const HostRef& object) override;
  TokenAnswer call_for_token(const HostRef& fn, const HostRef& context = nullptr) override;
  json::value call(const HostRef& fn, const json::array& args) override;
  std::string validate_bearer_transport_url(const std::string& url) override;
  ManifestSiblings manifest_siblings() override;
  json::value call_module_function(std::string_view module, std::string_view function,
                                   const json::array& args, const json::object& kwargs) override;
  bool module_function_is_native_default(std::string_view module, std::string_view function) override;
  HostRef call_module_function_ref(std::string_view module, std::string_view function,
                                   const json::array& args, const json::object& kwargs) override;
  json::value call_method(const HostRef& object, std::string_view method, const json::array& args,
                          const json::object& kwargs) override;
  double backoff_delay_seconds(std::int64_t attempt_index) override;
  bool backoff_sleep(double wait_seconds, const std::function<bool()>& stop_requested) override;
  HostRef current_backoff_context() override;
  bool backoff_context_stop_requested(const HostRef& context) override;
  HostRef push_backoff_context(const HostRef& base, const json::object& fields,
                               std::function<bool()> stop_requested) override;
  void pop_backoff_context(const HostRef& token) override;
  bool accepts_positional_arguments(const HostRef& fn, std::size_t count) override;
  bool shutting_down() override;
  bool holds_host_lock() override;

  // Set by the exit hook once every manager has been stopped: from then on
  // no core thread may call into the interpreter.
  static void mark_interpreter_exiting();
  static bool interpreter_exiting();
};

// Shows an engine thread's name to the host code about to run on it (see
// python_host.cpp). REQUIRES: the GIL held.
void show_engine_thread_name();

// Converts the Python exception being raised into a HostError (clearing it).
// REQUIRES: the GIL held and an exception set.
[[noreturn]] void throw_host_error_from_python();

// The HostError flags of a Python exception instance: which standard and
// sibling classes it belongs to. REQUIRES: the GIL held.
unsigned host_error_flags(nanobind::handle value);

}  // namespace tidewright::sync::bindings
