// Host: the one interface between the core and the process that loaded it.
//
// The core never touches the host's objects directly. Everything it needs
// from the host (bearer tokens, logging, the sibling modules of the package,
// callbacks) goes through the Host installed with set_host(). The Python
// binding implements it (taking the GIL for each call); the C++ tests use
// FakeHost. Implementations must be callable from any thread.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest_files_table.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

// The sibling module that plans feature rotation and reads its state.
inline constexpr std::string_view ARTIFACT_ROTATION_MODULE = "tidewright._artifact_rotation";

enum class LogLevel : int { kDebug = 10, kInfo = 20, kWarning = 30, kError = 40 };

// An opaque reference to a host object (a callable, a context, an instance).
// Copies share it; dropping the last copy is safe on any thread.
using HostRef = std::shared_ptr<void>;

// The epoch names of the era-configuration module (EpochName values).
struct EpochNames {
  std::string signal_is = "signal_is";
  std::string strategy_is = "strategy_is";
  std::string signal_os = "signal_os";
};

// The sibling-module functions that the manifest code calls per file. A
// snapshot is taken once per operation (modules are looked up at call time,
// not per file); where the package's default implementations are installed
// the snapshot calls native equivalents instead of the host.
struct ManifestSiblings {
  // tidewright._artifact_rotation.manifest_file_kind(path, info)
  std::function<std::string(std::string_view path, const json::value& info)> manifest_file_kind;
  // Whether manifest_file_kind is the native default (the entry's "kind"):
  // file_kind then reads a compact entry's kind without building the entry.
  bool native_file_kind = true;
  // tidewright.runtime_module_freshness.is_runtime_module_kind(kind)
  std::function<bool(std::string_view kind)> is_runtime_module_kind;
  // tidewright.runtime_module_freshness.RUNTIME_MODULE_KIND_SUFFIX
  std::string runtime_module_kind_suffix = "_module";
  // tidewright._sync_progress.manifest_file_size(entry)
  std::function<std::optional<std::int64_t>(const json::value& entry)> manifest_file_size;
  // tidewright._function_token_safety.is_retired_public_function_token_name(name)
  std::function<bool(std::string_view name)> is_retired_public_function_token_name;
  // tidewright._artifact_rotation.FEATURE_ARTIFACT_KINDS
  std::set<std::string> feature_artifact_kinds = {"feature"};
  // tidewright.era_config.EpochName values
  EpochNames epochs;
};

// manifest_file_kind of a manifest entry.
std::string manifest_entry_kind(const ManifestSiblings& siblings, const ManifestFiles::Entry& entry);

// The package's default sibling behaviour, natively (also what FakeHost uses).
ManifestSiblings default_manifest_siblings();

class Host {
 public:
  virtual ~Host() = default;

  // --- logging on the module's logger ("tidewright.sync") ---
  virtual bool log_enabled(LogLevel level) = 0;
  // `format` is a printf-style text with %s/%d placeholders filled from `args`
  // by the host's logger. `event`, when given, is attached to the record as
  // its "tidewright_sync_event" attribute. `exc_info` attaches the exception
  // being handled (where the host has one).
  virtual void log(LogLevel level, std::string_view format, const json::array& args,
                   const json::object* event = nullptr, bool with_traceback = false) = 0;

  // --- callables handed over by the host ---
  virtual bool is_callable(const HostRef& fn) = 0;
  // The type of a host object, as the host prints it (for error messages).
  virtual std::string type_repr(const HostRef& object) = 0;
  // fn() of a token provider. The result is handed over only when it is the
  // host's text type and encodes as UTF-8; otherwise `problem` says what it
  // was instead ("returned None", "returned bytes", ...), never its value.
  struct TokenAnswer {
    std::optional<std::string> text;
    std::string problem;
  };
  // With `context` (a backoff context taken on another thread), the call
  // runs inside that context, entered and left in the same host call.
  virtual TokenAnswer call_for_token(const HostRef& fn, const HostRef& context = nullptr) = 0;
  // fn(*args) with plain-data arguments; the result as plain data (null when
  // it is not representable).
  virtual json::value call(const HostRef& fn, const json::array& args) = 0;

  // --- sibling modules, looked up at call time ---
  // tidewright._transport_security.validate_bearer_transport_url(url)
  virtual std::string validate_bearer_transport_url(const std::string& url) = 0;
  virtual ManifestSiblings manifest_siblings() = 0;
  // A module-level function or attribute of a sibling module called with
  // plain data; returns plain data. Raises HostError for errors in the call.
  virtual json::value call_module_function(std::string_view module, std::string_view function,
                                           const json::array& args,
                                           const json::object& kwargs = {}) = 0;
  // True when `module.function` is still the package's own default (it
  // carries the "__tidewright_native__" marker naming itself), so the core
  // may answer the easy cases natively without calling it.
  virtual bool module_function_is_native_default(std::string_view module, std::string_view function) = 0;
  // Like call_module_function, but keeps the result as a host object.
  virtual HostRef call_module_function_ref(std::string_view module, std::string_view function,
                                           const json::array& args,
                                           const json::object& kwargs = {}) = 0;
  // obj.method(*args, **kwargs) with plain data in and out.
  virtual json::value call_method(const HostRef& object, std::string_view method,
                                  const json::array& args, const json::object& kwargs = {}) = 0;

  // --- the era transition's and the engine's notices to sibling modules ---
  // Each calls the named module function through call_module_function with
  // plain data (the one place that names them); an exception it raises
  // reaches the caller as a HostError.
  // tidewright.deployment._CURRENT_VERSION (the package version).
  json::value current_version();
  // tidewright.deployment._compare_versions(a, b), as returned.
  json::value compare_versions(const json::value& a, const json::value& b);
  // tidewright.deployment.check_update()
  void check_update();
  // tidewright.deployment.auto_update(), as returned (a mapping with
  // "success" and "warning").
  json::value auto_update();
  // tidewright.sync._load_era_transition_modules(): loads the modules an era
  // transition needs, raising when one cannot be loaded.
  void load_era_transition_modules();
  // tidewright.sync._record_runtime_freshness_updates(updates)
  void record_runtime_freshness_updates(const json::array& updates);
  // tidewright.auth.notify_era_change(era_number)
  void notify_era_change(std::int64_t era_number);
  // tidewright.sync._track_era_transition(data_dir, era_number, previous_era_number)
  void track_era_transition(const std::string& data_dir, std::int64_t era_number,
                                    const json::value& previous_era_number);
  // tidewright.runtime_module_freshness.vault_module_updated(relative_path=,
  // local_path=, sha256=)
  void vault_module_updated(const std::string& relative_path, const std::string& local_path,
                                    const std::string& sha256);
  // tidewright.agent_onboarding.update_nudge(event, **fields)
  void update_nudge(std::string_view event, const json::object& fields);
  // tidewright._functions_vocabulary.merge_functions_vocabulary(functions=,
  // vocabulary=, named_universe=, expected_era_number=): the vocabulary with
  // the functions file merged in, by the host's replacement of the merge.
  json::value merge_functions_vocabulary(const json::value& functions, json::value vocabulary,
                                         const std::string& named_universe, std::int64_t expected_era_number);
  // Whether that merge is still the package's own (the engine merges natively).
  bool functions_vocabulary_merge_is_default();

  // --- feature rotation (the artifact rotation module, tidewright._rotation_settings) ---
  // The FULL_DOWNLOAD marker: rotation settings that ask for every file.
  json::value rotation_full_download_marker();
  // load_rotation_settings(data_dir, catalog_context=): the user's settings
  // for the directory, or the FULL_DOWNLOAD marker.
  json::value load_rotation_settings(const std::string& data_dir, json::value catalog_context);
  // Whether load_rotation_settings is still the package's own loader.
  bool rotation_settings_loader_is_default();
  // plan_rotation(descriptors, settings, **options): the selection.
  json::value plan_rotation(json::array descriptors, json::object settings, const json::object& options);
  // artifact_descriptor_from_manifest_file(path, row, feature_kinds=)
  json::value artifact_descriptor(const std::string& path, const json::value& row, const json::array& feature_kinds);
  // rotation_state_payload(state, **options): the state as stored.
  json::value rotation_state_payload(const json::value& state, const json::object& options);
  // rotation_state_from_payload(payload, **options): the state read back,
  // as plain data or (the _ref form) as the module's own object.
  json::value rotation_state_from_payload(const json::value& payload, const json::object& options);
  HostRef rotation_state_object_from_payload(const json::value& payload, const json::object& options);

  // --- backoff (tidewright.sync_backoff) ---
  virtual double backoff_delay_seconds(std::int64_t attempt_index) = 0;
  // Sleeps `wait_seconds` under the policy; false when cut short because
  // `stop_requested` answered true.
  virtual bool backoff_sleep(double wait_seconds, const std::function<bool()>& stop_requested) = 0;
  // The calling thread's backoff context (an empty reference when none).
  virtual HostRef current_backoff_context() = 0;
  // Truth of context["stop_requested"](); false when absent or failing.
  virtual bool backoff_context_stop_requested(const HostRef& context) = 0;
  // Layers a backoff context on the calling thread until pop_backoff_context
  // is called with the returned token on the same thread: the fields of
  // `base` (a context taken on another thread; empty: none), then `fields`,
  // then "stop_requested" when `stop_requested` is given. An empty token
  // when the backoff module cannot be used (the caller runs without one).
  // Use ScopedBackoffContext.
  virtual HostRef push_backoff_context(const HostRef& base, const json::object& fields,
                                       std::function<bool()> stop_requested) = 0;
  virtual void pop_backoff_context(const HostRef& token) = 0;

  // Whether the signature of `fn` accepts `count` positional arguments
  // (false when the host cannot tell).
  virtual bool accepts_positional_arguments(const HostRef& fn, std::size_t count) = 0;

  // True once the host is shutting down: no further calls should be made.
  virtual bool shutting_down() = 0;
  // True when the calling thread holds the host's interpreter lock, so that
  // another thread calling into the host would wait for this one.
  virtual bool holds_host_lock() { return false; }
};

// A backoff context layered on the calling thread for the guard's lifetime
// (see Host::push_backoff_context). Must be destroyed on the thread that
// made it.
class ScopedBackoffContext {
 public:
  ScopedBackoffContext(const HostRef& base, const json::object& fields, std::function<bool()> stop_requested = {});
  ~ScopedBackoffContext();
  ScopedBackoffContext(const ScopedBackoffContext&) = delete;
  ScopedBackoffContext& operator=(const ScopedBackoffContext&) = delete;

 private:
  HostRef token_;
  std::function<bool()> native_stop_;
  const std::function<bool()>* outer_native_stop_;
};

// The stop test of the calling thread's backoff context when the innermost
// one was layered by a ScopedBackoffContext with a native stop test (its
// stop_requested is that test): the test, answered without the host. Null
// otherwise.
const std::function<bool()>* native_backoff_stop_of_this_thread();

// While alive on a thread, bearer URL checks that the native rules surely
// accept (https, or http to a loopback address, in plain form) are answered
// without the host. Installed by code that has just asked the host whether
// its validator is the native default (the download workers of a batch);
// every other URL still goes to the host's validator, for its own message.
class ScopedNativeUrlCheck {
 public:
  explicit ScopedNativeUrlCheck(bool enabled);
  ~ScopedNativeUrlCheck();
  ScopedNativeUrlCheck(const ScopedNativeUrlCheck&) = delete;
  ScopedNativeUrlCheck& operator=(const ScopedNativeUrlCheck&) = delete;

 private:
  bool outer_;
};

// validate_bearer_transport_url through the host, or natively under a
// ScopedNativeUrlCheck for a URL the native rules accept.
std::string checked_bearer_transport_url(const std::string& url);

// The process-wide host. set_host() is called once at load (and by tests).
Host& host();
void set_host(std::shared_ptr<Host> host);

// Logging shorthands that skip formatting when the level is disabled.
void log_debug(std::string_view format, const json::array& args = {});
void log_info(std::string_view format, const json::array& args = {});
void log_warning(std::string_view format, const json::array& args = {}, bool with_traceback = false);

}  // namespace tidewright::sync
