#include "tidewright/sync/host/host.hpp"

#include "tidewright/sync/common/mutex.hpp"

#include <atomic>
#include <cctype>
#include <mutex>
#include <stdexcept>

namespace tidewright::sync {

namespace {

Mutex g_host_mu;
std::shared_ptr<Host> g_host GUARDED_BY(g_host_mu);

}  // namespace

std::string manifest_entry_kind(const ManifestSiblings& siblings, const ManifestFiles::Entry& entry) {
  if (siblings.native_file_kind && entry.compact()) return std::string(entry.kind());
  return siblings.manifest_file_kind(entry.path(), entry.info());
}

ManifestSiblings default_manifest_siblings() {
  ManifestSiblings s;
  s.manifest_file_kind = [](std::string_view, const json::value& info) -> std::string {
    if (const auto* obj = as_object(&info)) {
      if (const auto* kind = obj->if_contains("kind")) {
        if (kind->is_string()) return std::string(kind->get_string());
        if (kind->is_null()) return "";
        return python_str(*kind);
      }
    }
    return "";
  };
  s.is_runtime_module_kind = [](std::string_view kind) { return kind == "vault_module"; };
  s.runtime_module_kind_suffix = "_module";
  s.manifest_file_size = [](const json::value& entry) -> std::optional<std::int64_t> {
    const auto* obj = as_object(&entry);
    if (!obj) return std::nullopt;
    const auto* size = obj->if_contains("size_bytes");
    if (!size) return std::nullopt;
    if (size->is_int64() && size->get_int64() >= 0) return size->get_int64();
    if (size->is_uint64() && size->get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
      return static_cast<std::int64_t>(size->get_uint64());
    }
    return std::nullopt;
  };
  s.is_retired_public_function_token_name = [](std::string_view name) {
    if (name.size() < 2 || name[0] != 'f') return false;
    for (std::size_t i = 1; i < name.size(); ++i) {
      if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
    }
    return true;
  };
  return s;
}

json::value Host::current_version() {
  return call_module_function("tidewright.deployment", "_CURRENT_VERSION", json::array{}, {});
}

json::value Host::compare_versions(const json::value& a, const json::value& b) {
  return call_module_function("tidewright.deployment", "_compare_versions", json::array{a, b}, {});
}

void Host::check_update() { call_module_function("tidewright.deployment", "check_update", json::array{}, {}); }

json::value Host::auto_update() {
  return call_module_function("tidewright.deployment", "auto_update", json::array{}, {});
}

void Host::load_era_transition_modules() {
  call_module_function("tidewright.sync", "_load_era_transition_modules", json::array{}, {});
}

void Host::record_runtime_freshness_updates(const json::array& updates) {
  call_module_function("tidewright.sync", "_record_runtime_freshness_updates", json::array{updates}, {});
}

void Host::notify_era_change(std::int64_t era_number) {
  call_module_function("tidewright.auth", "notify_era_change", json::array{era_number}, {});
}

void Host::track_era_transition(const std::string& data_dir, std::int64_t era_number,
                                const json::value& previous_era_number) {
  call_module_function("tidewright.sync", "_track_era_transition",
                       json::array{json::value(data_dir), json::value(era_number), previous_era_number}, {});
}

void Host::vault_module_updated(const std::string& relative_path, const std::string& local_path,
                                const std::string& sha256) {
  call_module_function("tidewright.runtime_module_freshness", "vault_module_updated", {},
                       {{"relative_path", relative_path}, {"local_path", local_path}, {"sha256", sha256}});
}

void Host::update_nudge(std::string_view event, const json::object& fields) {
  call_module_function("tidewright.agent_onboarding", "update_nudge", json::array{json::value(event)}, fields);
}

namespace {
constexpr std::string_view kFunctionsVocabularyModule = "tidewright._functions_vocabulary";
constexpr std::string_view kRotationSettingsModule = "tidewright._rotation_settings";
}  // namespace

json::value Host::merge_functions_vocabulary(const json::value& functions, json::value vocabulary,
                                             const std::string& named_universe, std::int64_t expected_era_number) {
  json::object kwargs;
  kwargs["functions"] = functions;
  kwargs["vocabulary"] = std::move(vocabulary);
  kwargs["named_universe"] = named_universe;
  kwargs["expected_era_number"] = expected_era_number;
  return call_module_function(kFunctionsVocabularyModule, "merge_functions_vocabulary", json::array{}, kwargs);
}

bool Host::functions_vocabulary_merge_is_default() {
  return module_function_is_native_default(kFunctionsVocabularyModule, "merge_functions_vocabulary");
}

json::value Host::rotation_full_download_marker() {
  return call_module_function(ARTIFACT_ROTATION_MODULE, "FULL_DOWNLOAD", json::array{}, {});
}

json::value Host::load_rotation_settings(const std::string& data_dir, json::value catalog_context) {
  json::object kwargs;
  kwargs["catalog_context"] = std::move(catalog_context);
  return call_module_function(kRotationSettingsModule, "load_rotation_settings", json::array{json::value(data_dir)},
                              kwargs);
}

bool Host::rotation_settings_loader_is_default() {
  return module_function_is_native_default(kRotationSettingsModule, "load_rotation_settings");
}

json::value Host::plan_rotation(json::array descriptors, json::object settings, const json::object& options) {
  return call_module_function(ARTIFACT_ROTATION_MODULE, "plan_rotation",
                              json::array{json::value(std::move(descriptors)), json::value(std::move(settings))},
                              options);
}

json::value Host::artifact_descriptor(const std::string& path, const json::value& row,
                                      const json::array& feature_kinds) {
  json::object kwargs;
  kwargs["feature_kinds"] = feature_kinds;
  return call_module_function(ARTIFACT_ROTATION_MODULE, "artifact_descriptor_from_manifest_file",
                              json::array{json::value(path), row}, kwargs);
}

json::value Host::rotation_state_payload(const json::value& state, const json::object& options) {
  return call_module_function(ARTIFACT_ROTATION_MODULE, "rotation_state_payload", json::array{state}, options);
}

json::value Host::rotation_state_from_payload(const json::value& payload, const json::object& options) {
  return call_module_function(ARTIFACT_ROTATION_MODULE, "rotation_state_from_payload", json::array{payload}, options);
}

HostRef Host::rotation_state_object_from_payload(const json::value& payload, const json::object& options) {
  return call_module_function_ref(ARTIFACT_ROTATION_MODULE, "rotation_state_from_payload", json::array{payload},
                                  options);
}

Host& host() {
  MutexLock lock(g_host_mu);
  // Installed when the module loads; code that runs without one (a test
  // or a fuzzer that forgot to install its own) is a bug, not a default.
  if (!g_host) throw std::logic_error("no host is installed: call set_host() before using the engine");
  return *g_host;
}

void set_host(std::shared_ptr<Host> new_host) {
  MutexLock lock(g_host_mu);
  g_host = std::move(new_host);
}

namespace {
// The stop test of the innermost ScopedBackoffContext of this thread that
// was given one natively (its context answers stop_requested with it).
thread_local const std::function<bool()>* t_native_backoff_stop = nullptr;
}  // namespace

ScopedBackoffContext::ScopedBackoffContext(const HostRef& base, const json::object& fields,
                                           std::function<bool()> stop_requested)
    : native_stop_(std::move(stop_requested)), outer_native_stop_(t_native_backoff_stop) {
  token_ = host().push_backoff_context(base, fields, native_stop_);
  if (native_stop_) t_native_backoff_stop = &native_stop_;
}

ScopedBackoffContext::~ScopedBackoffContext() {
  t_native_backoff_stop = outer_native_stop_;
  if (token_) host().pop_backoff_context(token_);
}

const std::function<bool()>* native_backoff_stop_of_this_thread() { return t_native_backoff_stop; }

namespace {

thread_local bool t_native_url_check = false;

bool plain_octet(std::string_view s, int& value) {
  if (s.empty() || s.size() > 3 || (s.size() > 1 && s[0] == '0')) return false;
  value = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  return value <= 255;
}

bool plain_loopback_ipv4(std::string_view host) {
  int octets = 0;
  while (true) {
    std::size_t dot = host.find('.');
    int value = 0;
    if (!plain_octet(host.substr(0, dot), value)) return false;
    if (octets == 0 && value != 127) return false;
    ++octets;
    if (dot == std::string_view::npos) break;
    host.remove_prefix(dot + 1);
  }
  return octets == 4;
}

// The stripped URL when the validator's default surely accepts it; nothing
// when the host is to decide (and word any refusal).
std::optional<std::string> natively_accepted_url(const std::string& url) {
  std::string_view text = url;
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  std::size_t scheme_end = text.find("://");
  if (scheme_end == std::string_view::npos) return std::nullopt;
  std::string scheme(text.substr(0, scheme_end));
  for (auto& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (scheme != "https" && scheme != "http") return std::nullopt;
  std::string_view rest = text.substr(scheme_end + 3);
  std::string_view netloc = rest.substr(0, rest.find_first_of("/?#"));
  for (char c : text) {
    // Plain printable ASCII without blanks, quotes or backslashes only.
    if (c <= ' ' || c >= 0x7F || c == '"' || c == '\\' || c == '<' || c == '>' || c == '`' || c == '{' ||
        c == '}' || c == '|' || c == '^') {
      return std::nullopt;
    }
  }
  std::size_t colon = netloc.find(':');
  std::string host(netloc.substr(0, colon));
  if (host.empty()) return std::nullopt;
  for (auto& c : host) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') return std::nullopt;
  }
  if (colon != std::string_view::npos) {
    std::string_view port = netloc.substr(colon + 1);
    if (port.empty() || port.size() > 5) return std::nullopt;
    int value = 0;
    for (char c : port) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + (c - '0');
    }
    if (value > 65535) return std::nullopt;
  }
  if (scheme == "http" && host != "localhost" && host != "localhost." && !plain_loopback_ipv4(host)) {
    return std::nullopt;
  }
  return std::string(text);
}

}  // namespace

ScopedNativeUrlCheck::ScopedNativeUrlCheck(bool enabled) : outer_(t_native_url_check) {
  if (enabled) t_native_url_check = true;
}

ScopedNativeUrlCheck::~ScopedNativeUrlCheck() { t_native_url_check = outer_; }

std::string checked_bearer_transport_url(const std::string& url) {
  if (t_native_url_check) {
    if (std::optional<std::string> accepted = natively_accepted_url(url)) return std::move(*accepted);
  }
  return host().validate_bearer_transport_url(url);
}

void log_debug(std::string_view format, const json::array& args) {
  Host& h = host();
  if (h.log_enabled(LogLevel::kDebug)) h.log(LogLevel::kDebug, format, args);
}

void log_info(std::string_view format, const json::array& args) {
  Host& h = host();
  if (h.log_enabled(LogLevel::kInfo)) h.log(LogLevel::kInfo, format, args);
}

void log_warning(std::string_view format, const json::array& args, bool with_traceback) {
  Host& h = host();
  if (h.log_enabled(LogLevel::kWarning)) h.log(LogLevel::kWarning, format, args, nullptr, with_traceback);
}

}  // namespace tidewright::sync
