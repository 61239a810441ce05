// Python face of the sync events. Events arrive as mappings and are turned
// into plain data first (a value with no JSON form keeps its text form); the
// GIL is released before anything that takes the coalescing lock or logs.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"

#include <nanobind/stl/string.h>

#include <Python.h>

#include <chrono>

namespace tidewright::sync::bindings {

namespace {

json::object event_from(nb::handle mapping) {
  nb::object items = nb::module_::import_("builtins").attr("dict")(mapping);
  json::object event;
  for (auto [key, value] : nb::borrow<nb::dict>(items)) event[to_text(key)] = to_json_or_text(value);
  return event;
}

std::string text_or_empty(nb::handle value) {
  return PyObject_IsTrue(value.ptr()) == 1 ? to_text(value) : std::string();
}

std::vector<std::int64_t> int_list(nb::handle values) {
  std::vector<std::int64_t> out;
  if (values.is_none()) return out;
  for (nb::handle v : values) {
    auto n = to_int(to_json_or_text(v));
    out.push_back(n.value_or(0));
  }
  return out;
}

std::vector<std::string> text_list(nb::handle values) {
  std::vector<std::string> out;
  if (values.is_none()) return out;
  for (nb::handle v : values) out.push_back(to_text(v));
  return out;
}

void emit(const json::object& event) {
  nb::gil_scoped_release release;
  emit_tidewright_sync_event(event);
}

}  // namespace

void bind_events(nb::module_& m) {
  m.attr("_SYNC_EVENT_COALESCE_LIMIT") = nb::int_(SYNC_EVENT_COALESCE_LIMIT);

  m.def(
      "_log_sync_event",
      [](Shown<shown::Str> event_type, Shown<shown::Str> file_path, Shown<shown::Int> count, Shown<shown::Str> reason,
         nb::kwargs fields) {
        json::object event;
        event["event_type"] = to_json_or_text(event_type);
        event["file"] = text_or_empty(file_path);
        event["count"] = to_json_or_text(count);
        event["reason"] = text_or_empty(reason);
        for (auto [key, value] : fields) event[to_text(key)] = to_json_or_text(value);
        emit(event);
      },
      nb::arg("event_type"), nb::arg("file_path").none(), nb::arg("count").none(), nb::arg("reason").none(),
      nb::arg("fields"));
  m.def(
      "_emit_tidewright_sync_event", [](Shown<shown::JsonObject> event) { emit(event_from(event)); }, nb::arg("event"));
  m.def(
      "_should_emit_sync_event",
      [](nb::handle event) {
        json::object plain = event_from(event);
        nb::gil_scoped_release release;
        return should_emit_sync_event(plain);
      },
      nb::arg("event"));
  // Not part of the interface: tests start each case with fresh counts.
  m.def("_reset_sync_event_coalescing", [] {
    nb::gil_scoped_release release;
    reset_sync_event_coalescing();
  });
  m.def(
      "_sync_event_is_coalescible", [](nb::handle event) { return sync_event_is_coalescible(event_from(event)); },
      nb::arg("event"));
  m.def(
      "_sync_event_coalesce_key",
      [](nb::handle event) {
        nb::list pairs;
        for (const auto& [name, value] : sync_event_coalesce_key(event_from(event))) {
          pairs.append(nb::make_tuple(nb::str(name.data(), name.size()), nb::str(value.data(), value.size())));
        }
        return nb::tuple(pairs);
      },
      nb::arg("event"));
  m.def(
      "_sync_event_stable_coalesce_value",
      [](nb::handle value) {
        json::value plain = to_json_or_text(value);
        return sync_event_stable_coalesce_value(&plain);
      },
      nb::arg("value").none());
  m.def(
      "_sync_event_level_name", [](nb::handle event) { return sync_event_level_name(event_from(event)); },
      nb::arg("event"));
  m.def(
      "_sync_event_mentions_timeout", [](nb::handle event) { return sync_event_mentions_timeout(event_from(event)); },
      nb::arg("event"));
  m.def(
      "_sync_event_value_mentions_timeout",
      [](nb::handle value) { return sync_event_value_mentions_timeout(to_json_or_text(value)); }, nb::arg("value").none());
  m.def(
      "_sync_event_file_from_url", [](nb::handle url) { return sync_event_file_from_url(text_or_empty(url)); },
      nb::arg("url").none());

  m.def(
      "_emit_sync_unavailable_status",
      [](const std::string& event_type, nb::handle url, nb::handle statuses, nb::handle failures, nb::handle details,
         double started_at) {
        json::value plain = details.is_none() ? json::value(json::object()) : to_json_or_text(details);
        json::object fields = plain.is_object() ? plain.get_object() : json::object();
        std::vector<std::int64_t> status_list = int_list(statuses);
        std::vector<std::string> failure_list = text_list(failures);
        std::string text = text_or_empty(url);
        // The host's monotonic clock and steady_clock read the same clock.
        std::chrono::steady_clock::time_point start(
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(started_at)));
        nb::gil_scoped_release release;
        emit_sync_unavailable_status(event_type, text.empty() ? "<unknown>" : text, status_list, failure_list, fields,
                                     start);
      },
      nb::arg("event_type"), nb::arg("url").none(), nb::arg("statuses").none(), nb::arg("failures").none(),
      nb::arg("details").none(), nb::arg("started_at"));
  m.def(
      "_emit_sync_backoff_wait",
      [](const std::string& default_surface, std::int64_t attempt_index, nb::handle reason, nb::handle file_path,
         double wait_seconds) {
        std::string reason_text = text_or_empty(reason);
        std::string file_text = text_or_empty(file_path);
        nb::gil_scoped_release release;
        emit_sync_backoff_wait(default_surface, attempt_index, reason_text, file_text, wait_seconds);
      },
      nb::arg("default_surface"), nb::arg("attempt_index"), nb::arg("reason").none(), nb::arg("file_path").none(),
      nb::arg("wait_seconds"));
}

}  // namespace tidewright::sync::bindings
