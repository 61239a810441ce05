#include "tidewright/sync/host/host.hpp"

#include "tidewright/sync/host/fake_host.hpp"

#include <atomic>
#include <cctype>
#include <mutex>

namespace tidewright::sync {

namespace {

std::mutex g_host_mu;
std::shared_ptr<Host> g_host;  // guarded by g_host_mu

}  // namespace

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

Host& host() {
  std::lock_guard<std::mutex> lock(g_host_mu);
  if (!g_host) g_host = std::make_shared<FakeHost>();
  return *g_host;
}

void set_host(std::shared_ptr<Host> new_host) {
  std::lock_guard<std::mutex> lock(g_host_mu);
  g_host = std::move(new_host);
}

ScopedBackoffContext::ScopedBackoffContext(const HostRef& base, const json::object& fields,
                                           std::function<bool()> stop_requested)
    : token_(host().push_backoff_context(base, fields, std::move(stop_requested))) {}

ScopedBackoffContext::~ScopedBackoffContext() {
  if (token_) host().pop_backoff_context(token_);
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
