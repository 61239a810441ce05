#include "tidewright/sync/reporting/sync_events.hpp"

#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include "tidewright/sync/common/mutex.hpp"

namespace tidewright::sync {

namespace {

// The process's coalescing counts; cleared only by tests (clear()).
//
// Thread-safe: every read-increment-compare happens under mu_.
class CoalesceCounts {
 public:
  // Counts one more event with `key`; true while the count was below the limit.
  bool admit(SyncEventCoalesceKey key) {
    MutexLock lock(mu_);
    std::int64_t& seen = counts_[std::move(key)];
    bool emit = seen < SYNC_EVENT_COALESCE_LIMIT;
    // Saturate: a key seen billions of times must not wrap around.
    if (seen < SYNC_EVENT_COALESCE_LIMIT) ++seen;
    return emit;
  }

  void clear() {
    MutexLock lock(mu_);
    counts_.clear();
  }

 private:
  Mutex mu_;
  std::map<SyncEventCoalesceKey, std::int64_t> counts_ GUARDED_BY(mu_);
};

CoalesceCounts& coalesce_counts() {
  static CoalesceCounts counts;
  return counts;
}

constexpr std::array<std::string_view, 7> kCoalescibleTypes = {
    "sync_unavailable_status", "http_retry",         "sync_backoff_wait", "range_resume",
    "range_resume_reset",      "checksum_repair",    "manifest_superseded"};

constexpr std::array<std::string_view, 8> kVolatileFields = {
    "attempt", "count", "elapsed_seconds", "wait_seconds", "bytes_existing", "actual_size", "range_start", "range_end"};

std::string ascii_lower(std::string text) {
  for (auto& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// The host's text of an optional field, "" when absent or null.
std::string field_text(const json::object& event, std::string_view name) {
  const json::value* v = event.if_contains(name);
  if (!v || v->is_null()) return "";
  return python_str(*v);
}

LogLevel level_of(std::string_view name) {
  if (name == "error") return LogLevel::kError;
  if (name == "warning") return LogLevel::kWarning;
  return LogLevel::kInfo;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percent_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int hi = hex_value(text[i + 1]);
      int lo = hex_value(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

json::value optional_field(const json::object& object, std::string_view name) {
  const json::value* v = object.if_contains(name);
  return v ? *v : json::value(nullptr);
}

json::value rounded_seconds(double seconds) {
  if (!std::isfinite(seconds)) return json::value(seconds);
  return json::value(std::round(seconds * 1000.0) / 1000.0);
}

}  // namespace

bool sync_event_value_mentions_timeout(const json::value& value) {
  return ascii_lower(python_str(value)).find("timeout") != std::string::npos;
}

bool sync_event_mentions_timeout(const json::object& event) {
  for (const char* name : {"last_server_error_code", "error_code"}) {
    const json::value* v = event.if_contains(name);
    if (v && sync_event_value_mentions_timeout(*v)) return true;
  }
  const json::value* sequence = event.if_contains("exception_sequence");
  if (sequence && sequence->is_array()) {
    for (const auto& item : sequence->get_array()) {
      if (sync_event_value_mentions_timeout(item)) return true;
    }
  }
  return false;
}

std::string sync_event_level_name(const json::object& event) {
  const std::string type = field_text(event, "event_type");
  if (type == "sync_recovered_status") return "info";
  if (type == "checksum_repair_exhausted") return "warning";
  const bool unavailable = type == "sync_unavailable_status";
  if (unavailable && sync_event_mentions_timeout(event)) return "error";
  const std::string next_action = ascii_lower(field_text(event, "next_action"));
  const std::string recovery = ascii_lower(field_text(event, "recovery"));
  if (next_action == "contact_tidewright" || next_action == "contact tidewright" || next_action == "reauthenticate" ||
      recovery == "operator_fix_required" || recovery == "reauthenticate") {
    return "warning";
  }
  if (unavailable) {
    const json::value* retryable = event.if_contains("retryable");
    if (retryable && retryable->is_bool() && !retryable->get_bool()) return "warning";
  }
  return "info";
}

bool sync_event_is_coalescible(const json::object& event) {
  if (sync_event_level_name(event) != "info") return false;
  const json::value* type = event.if_contains("event_type");
  if (!type || !type->is_string()) return false;
  std::string_view name(type->get_string().data(), type->get_string().size());
  return std::find(kCoalescibleTypes.begin(), kCoalescibleTypes.end(), name) != kCoalescibleTypes.end();
}

std::string sync_event_stable_coalesce_value(const json::value* value) {
  if (!value || value->is_null()) return "null";
  if (value->is_bool()) return value->get_bool() ? "true" : "false";
  if (value->is_array() || value->is_object()) return dump_json(*value, {.sort_keys = true});
  return python_str(*value);
}

SyncEventCoalesceKey sync_event_coalesce_key(const json::object& event) {
  SyncEventCoalesceKey key;
  key.reserve(event.size());
  for (const auto& kv : event) {
    std::string_view name(kv.key().data(), kv.key().size());
    if (std::find(kVolatileFields.begin(), kVolatileFields.end(), name) != kVolatileFields.end()) continue;
    key.emplace_back(std::string(name), sync_event_stable_coalesce_value(&kv.value()));
  }
  std::sort(key.begin(), key.end());
  return key;
}

bool should_emit_sync_event(const json::object& event) {
  if (!sync_event_is_coalescible(event)) return true;
  return coalesce_counts().admit(sync_event_coalesce_key(event));
}

void reset_sync_event_coalescing() { coalesce_counts().clear(); }

void emit_tidewright_sync_event(const json::object& event) {
  if (!should_emit_sync_event(event)) return;
  Host& h = host();
  LogLevel level = level_of(sync_event_level_name(event));
  if (!h.log_enabled(level)) return;
  json::array args;
  args.emplace_back(dump_json(json::value(event), {.sort_keys = true}));
  h.log(level, "tidewright_sync_event %s", args, &event, false);
}

void log_sync_event(std::string_view event_type, std::string_view file_path, std::int64_t count,
                    std::string_view reason, const json::object& fields) {
  json::object event;
  event.reserve(4 + fields.size());
  event["event_type"] = event_type;
  event["file"] = file_path;
  event["count"] = count;
  event["reason"] = reason;
  for (const auto& kv : fields) event[kv.key()] = kv.value();
  emit_tidewright_sync_event(event);
}

std::string sync_event_file_from_url(std::string_view url) {
  const std::string path = split_url(url).path;
  constexpr std::string_view kFiles = "/data/files/";
  std::size_t at = path.find(kFiles);
  if (at != std::string::npos && at + kFiles.size() < path.size()) {
    return percent_decode(std::string_view(path).substr(at + kFiles.size()));
  }
  return path;
}

json::object sync_event_service_fields(std::string_view url) {
  const UrlParts parts = split_url(url);
  json::value port = nullptr;
  if (std::optional<int> written = parts.port()) {
    port = *written;
  } else if (parts.scheme == "https") {
    port = 443;
  } else if (parts.scheme == "http") {
    port = 80;
  }
  return json::object{{"host", parts.hostname()}, {"port", port}};
}

void emit_sync_unavailable_status(std::string_view event_type, const std::string& url,
                                  const std::vector<std::int64_t>& statuses,
                                  const std::vector<std::string>& failures, const json::object& details,
                                  std::chrono::steady_clock::time_point started_at) {
  json::array status_list;
  for (auto s : statuses) status_list.emplace_back(s);
  json::array failure_list;
  for (const auto& f : failures) failure_list.emplace_back(f);

  json::value server_code = optional_field(details, "error_code");
  if (!truthy(server_code)) server_code = optional_field(details, "error");

  std::string reason = field_text(details, "reason");
  if (reason.empty() && !failures.empty()) reason = failures.back();
  if (reason.empty() && !statuses.empty()) reason = "http_" + std::to_string(statuses.back());

  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_at).count();

  json::object fields;
  fields["endpoint"] = sync_endpoint_from_url(url);
  fields["status"] = statuses.empty() ? json::value(nullptr) : json::value(statuses.back());
  fields["statuses"] = std::move(status_list);
  fields["failures"] = failure_list;
  fields["exception_sequence"] = std::move(failure_list);
  fields["error_code"] = server_code;
  fields["last_server_error_code"] = server_code;
  fields["dependency"] = optional_field(details, "dependency");
  fields["retryable"] = optional_field(details, "retryable");
  fields["recovery"] = optional_field(details, "recovery");
  fields["elapsed_seconds"] = rounded_seconds(elapsed);
  for (const auto& kv : sync_event_service_fields(url)) fields[kv.key()] = kv.value();
  const auto observed = static_cast<std::int64_t>(statuses.size() + failures.size());
  log_sync_event(event_type, sync_event_file_from_url(url), observed, reason, fields);
}

void emit_sync_backoff_wait(std::string_view default_surface, std::int64_t attempt_index, std::string_view reason,
                            std::string_view file_path, double wait_seconds) {
  std::string surface(default_surface);
  Host& h = host();
  if (HostRef context = h.current_backoff_context()) {
    try {
      json::value named = h.call_method(context, "get", json::array{json::value("surface")});
      if (truthy(named)) surface = python_str(named);
    } catch (const std::exception&) {
      // The label is cosmetic; an odd context keeps the default surface.
    }
  }
  json::object fields;
  fields["surface"] = surface;
  fields["attempt"] = attempt_index;
  fields["wait_seconds"] = rounded_seconds(wait_seconds);
  log_sync_event("sync_backoff_wait", file_path, attempt_index + 1, reason, fields);
}

}  // namespace tidewright::sync
