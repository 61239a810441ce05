#include "fake_host.hpp"

#include "tidewright/sync/reporting/errors.hpp"

#include <chrono>
#include <thread>

namespace tidewright::sync {

namespace {

struct CallableBox {
  FakeHost::Callable fn;
};

std::string module_key(std::string_view module, std::string_view function) {
  return std::string(module) + ":" + std::string(function);
}

}  // namespace

bool FakeHost::log_enabled(LogLevel) { return true; }

std::string FakeHost::format_message(std::string_view format, const json::array& args) {
  std::string out;
  std::size_t next = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    char c = format[i];
    if (c == '%' && i + 1 < format.size()) {
      char conversion = format[i + 1];
      if (conversion == '%') {
        out.push_back('%');
        ++i;
        continue;
      }
      if ((conversion == 's' || conversion == 'd' || conversion == 'r') && next < args.size()) {
        const json::value& arg = args[next++];
        out += conversion == 'r' ? python_repr(arg) : python_str(arg);
        ++i;
        continue;
      }
    }
    out.push_back(c);
  }
  return out;
}

void FakeHost::log(LogLevel level, std::string_view format, const json::array& args,
                   const json::object* event, bool) {
  LogLine line{level, format_message(format, args), std::nullopt};
  if (event) line.event = *event;
  MutexLock lock(mu_);
  lines_.push_back(std::move(line));
}

std::vector<FakeHost::LogLine> FakeHost::log_lines() {
  MutexLock lock(mu_);
  return lines_;
}

HostRef FakeHost::make_callable(Callable fn) {
  return std::make_shared<CallableBox>(CallableBox{std::move(fn)});
}

bool FakeHost::is_callable(const HostRef& fn) { return fn != nullptr; }

std::string FakeHost::type_repr(const HostRef& object) {
  return object ? "<class 'function'>" : "<class 'NoneType'>";
}

Host::TokenAnswer FakeHost::call_for_token(const HostRef& fn, const HostRef&) {
  json::value v = call(fn, {});
  if (v.is_string()) return {std::string(v.get_string()), ""};
  return {std::nullopt, std::string("returned ") + (v.is_null() ? "None" : v.is_bool() ? "bool" : v.is_number() ? "a number" : "a container")};
}

json::value FakeHost::call(const HostRef& fn, const json::array& args) {
  if (!fn) throw TypeError("'NoneType' object is not callable");
  return static_cast<CallableBox*>(fn.get())->fn(args);
}

std::string FakeHost::validate_bearer_transport_url(const std::string& url) {
  {
    MutexLock lock(mu_);
    auto it = functions_.find(module_key("tidewright._transport_security", "validate_bearer_transport_url"));
    if (it != functions_.end()) {
      return python_str(it->second(json::array{json::value(url)}, {}));
    }
  }
  std::string stripped = url;
  while (!stripped.empty() && std::isspace(static_cast<unsigned char>(stripped.back()))) stripped.pop_back();
  std::size_t start = 0;
  while (start < stripped.size() && std::isspace(static_cast<unsigned char>(stripped[start]))) ++start;
  stripped = stripped.substr(start);
  if (stripped.empty()) throw ValueError("bearer transport URL is empty");
  return stripped;
}

ManifestSiblings FakeHost::manifest_siblings() {
  MutexLock lock(mu_);
  return siblings_ ? *siblings_ : default_manifest_siblings();
}

void FakeHost::set_manifest_siblings(ManifestSiblings siblings) {
  MutexLock lock(mu_);
  siblings_ = std::move(siblings);
}

bool FakeHost::module_function_is_native_default(std::string_view module, std::string_view function) {
  MutexLock lock(mu_);
  return !functions_.contains(module_key(module, function));
}

json::value FakeHost::call_module_function(std::string_view module, std::string_view function,
                                           const json::array& args, const json::object& kwargs) {
  ModuleFunction fn;
  {
    MutexLock lock(mu_);
    auto it = functions_.find(module_key(module, function));
    if (it == functions_.end()) return nullptr;
    fn = it->second;
  }
  return fn(args, kwargs);
}

HostRef FakeHost::call_module_function_ref(std::string_view module, std::string_view function,
                                           const json::array& args, const json::object& kwargs) {
  json::value v = call_module_function(module, function, args, kwargs);
  return std::make_shared<json::value>(std::move(v));
}

json::value FakeHost::call_method(const HostRef& object, std::string_view method,
                                  const json::array& args, const json::object& kwargs) {
  (void)object;
  return call_module_function("<object>", method, args, kwargs);
}

void FakeHost::set_module_function(const std::string& module, const std::string& function,
                                   ModuleFunction fn) {
  MutexLock lock(mu_);
  functions_[module_key(module, function)] = std::move(fn);
}

void FakeHost::set_backoff_delay(double seconds) {
  MutexLock lock(mu_);
  backoff_delay_ = seconds;
}

double FakeHost::backoff_delay_seconds(std::int64_t) {
  MutexLock lock(mu_);
  return backoff_delay_;
}

bool FakeHost::backoff_sleep(double wait_seconds, const std::function<bool()>& stop_requested) {
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(wait_seconds));
  while (true) {
    if (stop_requested && stop_requested()) return false;
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return true;
    std::chrono::steady_clock::duration slice = deadline - now;
    if (slice > std::chrono::milliseconds(100)) slice = std::chrono::milliseconds(100);
    std::this_thread::sleep_for(slice);
  }
}

HostRef FakeHost::current_backoff_context() { return nullptr; }

bool FakeHost::backoff_context_stop_requested(const HostRef&) { return false; }

}  // namespace tidewright::sync
