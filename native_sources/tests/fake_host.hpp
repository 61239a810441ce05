// FakeHost: the Host of the C++ tests and the fuzzers (the engine itself
// has none without the binding's: a missing host is an error). It behaves like the package's default sibling modules,
// records log lines, and lets a test install module functions by name.
//
// Thread-safe: every member is guarded by mu_.
#pragma once

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/host/host.hpp"

#include <map>

namespace tidewright::sync {

class FakeHost : public Host {
 public:
  struct LogLine {
    LogLevel level;
    std::string message;  // the format with its arguments filled in
    std::optional<json::object> event;
  };
  using ModuleFunction = std::function<json::value(const json::array&, const json::object&)>;

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
  // Registered functions are the test's own; nothing counts as a default.
  // True unless a test installed a module function of that name.
  bool module_function_is_native_default(std::string_view module, std::string_view function) override;
  HostRef call_module_function_ref(std::string_view module, std::string_view function,
                                   const json::array& args, const json::object& kwargs) override;
  json::value call_method(const HostRef& object, std::string_view method, const json::array& args,
                          const json::object& kwargs) override;
  // The notices to sibling modules call the module functions a test
  // installed under their names (null, doing nothing, when none is).
  double backoff_delay_seconds(std::int64_t attempt_index) override;
  bool backoff_sleep(double wait_seconds, const std::function<bool()>& stop_requested) override;
  HostRef current_backoff_context() override;
  bool backoff_context_stop_requested(const HostRef& context) override;
  // No backoff contexts: pushing one is a no-op.
  HostRef push_backoff_context(const HostRef&, const json::object&, std::function<bool()>) override { return nullptr; }
  void pop_backoff_context(const HostRef&) override {}
  // Callables made by make_callable take any number of arguments.
  bool accepts_positional_arguments(const HostRef&, std::size_t) override { return true; }
  bool shutting_down() override { return false; }

  // Test hooks.
  std::vector<LogLine> log_lines();
  void set_module_function(const std::string& module, const std::string& function, ModuleFunction fn);
  void set_manifest_siblings(ManifestSiblings siblings);
  // Backoff delays returned by backoff_delay_seconds (default 0: no waiting).
  void set_backoff_delay(double seconds);

  // Fills %s/%d/%r placeholders the way the host's logger does.
  static std::string format_message(std::string_view format, const json::array& args);

  // A callable host object for tests: wraps a C++ function.
  using Callable = std::function<json::value(const json::array&)>;
  static HostRef make_callable(Callable fn);

 private:
  Mutex mu_;
  std::vector<LogLine> lines_ GUARDED_BY(mu_);
  std::map<std::string, ModuleFunction> functions_ GUARDED_BY(mu_);
  std::optional<ManifestSiblings> siblings_ GUARDED_BY(mu_);
  double backoff_delay_ GUARDED_BY(mu_) = 0.0;
};

}  // namespace tidewright::sync
