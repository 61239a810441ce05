// Python face of the transport settings: constants, the tuning functions a
// host may replace, the parallel timeout and the download status policy.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {

const json::value* pointer(const std::optional<json::value>& value) { return value ? &*value : nullptr; }


// Records whether `value`, now the module's `name`, is the module's own.
void note_tuning_function(const std::string& name, nb::handle value) {
  for (TuningFunction function : TUNING_FUNCTIONS) {
    if (tuning_function_name(function) != name) continue;
    bool own = value.is_none();  // deleted: the engine answers natively
    if (!own) {
      nb::object marker = nb::getattr(value, "__tidewright_native__", nb::none());
      own = nb::isinstance<nb::str>(marker) && to_text(marker) == name;
    }
    set_tuning_function_replaced(function, !own);
  }
}

void bind_tuning_functions(nb::module_& m) {
  nb::object namespace_type = nb::module_::import_("types").attr("SimpleNamespace");
  nb::object defaults = namespace_type();
  nb::setattr(defaults, "sync_http_timeout_seconds", nb::cpp_function(&native::sync_http_timeout_seconds));
  nb::setattr(defaults, "sync_manifest_version_http_timeout_seconds",
              nb::cpp_function(&native::sync_manifest_version_http_timeout_seconds));
  nb::setattr(defaults, "sync_http_response_read_bytes", nb::cpp_function(&native::sync_http_response_read_bytes));
  nb::setattr(defaults, "sync_http_transport", nb::cpp_function([](nb::handle raw) {
                return native::sync_http_transport(pointer(optional_json_or_text(raw)));
              }, nb::arg("raw").none()));
  nb::setattr(defaults, "sync_http_chunk_bytes", nb::cpp_function([](nb::handle raw) {
                return native::sync_http_chunk_bytes(pointer(optional_json_or_text(raw)));
              }, nb::arg("raw").none()));
  nb::setattr(defaults, "sync_max_concurrency", nb::cpp_function([](nb::handle raw) {
                return native::sync_max_concurrency(pointer(optional_json_or_text(raw)));
              }, nb::arg("raw").none()));
  nb::setattr(defaults, "note_tuning_function", nb::cpp_function(&note_tuning_function, nb::arg("name"),
                                                               nb::arg("value").none()));
  nb::module_ tuning = nb::module_::import_("tidewright._sync_tuning");
  tuning.attr("_native_tuning") = defaults;
  adopt_names(m, tuning);
  for (TuningFunction function : TUNING_FUNCTIONS) set_tuning_function_replaced(function, false);
  m.attr("__class__") = tuning.attr("_SyncModule");
}

}  // namespace

void bind_transport_settings(nb::module_& m) {
  m.attr("_SYNC_USER_AGENT") = nb::str(SYNC_USER_AGENT.data(), SYNC_USER_AGENT.size());
  m.attr("_SYNC_HTTP_TRANSPORT") = nb::str(SYNC_HTTP_TRANSPORT.data(), SYNC_HTTP_TRANSPORT.size());
  m.attr("_SYNC_CURL_CONNECT_TIMEOUT_SECONDS") = nb::float_(SYNC_CURL_CONNECT_TIMEOUT_SECONDS);
  m.attr("_SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND") = nb::int_(SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND);
  m.attr("_SYNC_CURL_RETRIES") = nb::int_(SYNC_CURL_RETRIES);
  m.attr("_SYNC_CURL_RETRY_DELAY_SECONDS") = nb::int_(SYNC_CURL_RETRY_DELAY_SECONDS);
  m.attr("_SYNC_HTTP_TIMEOUT_SECONDS") = nb::float_(SYNC_HTTP_TIMEOUT_SECONDS);
  m.attr("_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS") = nb::float_(SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS);
  m.attr("SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS") = nb::float_(SYNC_FOUND_PAYLOAD_LATENCY_BOUND_SECONDS);
  m.attr("_SYNC_HTTP_CHUNK_BYTES") = nb::int_(SYNC_HTTP_CHUNK_BYTES);
  m.attr("_SYNC_HTTP_RESPONSE_READ_BYTES") = nb::int_(SYNC_HTTP_RESPONSE_READ_BYTES);
  m.attr("_SYNC_HASH_FILE_CHUNK_BYTES") = nb::int_(SYNC_HASH_FILE_CHUNK_BYTES);
  m.attr("_SYNC_MAX_CONCURRENCY") = nb::int_(SYNC_MAX_CONCURRENCY);
  m.attr("_SYNC_PARALLEL_TIMEOUT_SECONDS") = nb::float_(SYNC_PARALLEL_TIMEOUT_SECONDS);
  m.attr("_SYNC_MANIFEST_POLL_INTERVAL_SECONDS") = nb::float_(SYNC_MANIFEST_POLL_INTERVAL_SECONDS);
  m.attr("_SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT") = nb::int_(SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT);
  m.attr("_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS") = nb::int_(SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS);
  m.attr("_DEFAULT_AGENT_MARKET_ID") = nb::int_(DEFAULT_AGENT_MARKET_ID);
  m.attr("_FEATURE_ROTATION_BYTES_PER_GB") = nb::int_(FEATURE_ROTATION_BYTES_PER_GB);
  nb::list transient;
  for (std::int64_t status : TRANSIENT_HTTP_STATUSES) transient.append(nb::int_(status));
  m.attr("_TRANSIENT_HTTP_STATUSES") = nb::tuple(transient);

  bind_tuning_functions(m);
  // Not part of the interface: lets a test see a trickled head refused in
  // a second instead of the default 30 s. None restores the default.
  m.def(
      "_set_sync_http_header_deadline_seconds",
      [](std::optional<double> seconds) { set_sync_http_header_deadline_override(seconds); },
      nb::arg("seconds").none());
  // Not part of the interface: lets a test see a stalled body given up on
  // in a second instead of the default 30 s. None restores the default.
  m.def(
      "_set_sync_http_timeout_seconds",
      [](std::optional<double> seconds) { set_sync_http_timeout_override(seconds); }, nb::arg("seconds").none());

  // The batch is unbounded whatever its shape, so the counts are accepted as given.
  m.def(
      "_sync_parallel_timeout_seconds",
      [](Shown<shown::Int>, Shown<shown::Int>) { return sync_parallel_timeout_seconds(0, 0); },
      nb::arg("file_count").none(),
      nb::arg("max_workers").none(),
      "No timeout (None): a parallel download batch is never cut off by a wall-clock limit. The engine does not "
      "consult this function, so replacing it changes nothing.");
  m.def("_sync_parallel_timeout_description", &sync_parallel_timeout_description,
        nb::arg("timeout_seconds").none());

  m.def(
      "_should_retry_http_status",
      [](Shown<shown::Int> status) { return should_retry_http_status(to_json_or_text(status)); },
      nb::arg("status").none());
  m.def(
      "_raise_download_http_status",
      [](Shown<shown::Str> file_path, nb::handle status) {
        raise_download_http_status(to_text(file_path), to_json_or_text(status));
      },
      nb::arg("file_path"), nb::arg("status").none());
}

}  // namespace tidewright::sync::bindings
