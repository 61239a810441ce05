// Python face of the transport settings: constants, knob parsers, the
// parallel timeout and the download status policy.
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {

std::optional<json::value> optional_to_json_or_text(nb::handle object) {
  if (object.is_none()) return std::nullopt;
  return to_json_or_text(object);
}

const json::value* pointer(const std::optional<json::value>& value) { return value ? &*value : nullptr; }

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

  m.def("_sync_http_timeout_seconds", &sync_http_timeout_seconds);
  m.def("_sync_manifest_version_http_timeout_seconds", &sync_manifest_version_http_timeout_seconds);
  m.def("_sync_http_response_read_bytes", &sync_http_response_read_bytes);
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

  m.def(
      "_sync_http_transport", [](nb::handle raw) { return sync_http_transport(pointer(optional_to_json_or_text(raw))); },
      nb::arg("raw") = nb::none());
  m.def(
      "_sync_http_chunk_bytes", [](nb::handle raw) { return sync_http_chunk_bytes(pointer(optional_to_json_or_text(raw))); },
      nb::arg("raw") = nb::none());
  m.def(
      "_sync_max_concurrency", [](nb::handle raw) { return sync_max_concurrency(pointer(optional_to_json_or_text(raw))); },
      nb::arg("raw") = nb::none());

  // The batch is unbounded whatever its shape, so the counts are accepted as given.
  m.def(
      "_sync_parallel_timeout_seconds",
      [](nb::handle, nb::handle) { return sync_parallel_timeout_seconds(0, 0); }, nb::arg("file_count"),
      nb::arg("max_workers"));
  m.def("_sync_parallel_timeout_description", &sync_parallel_timeout_description,
        nb::arg("timeout_seconds").none());

  m.def(
      "_should_retry_http_status", [](nb::handle status) { return should_retry_http_status(to_json_or_text(status)); },
      nb::arg("status").none());
  m.def(
      "_raise_download_http_status",
      [](nb::handle file_path, nb::handle status) {
        raise_download_http_status(to_text(file_path), to_json_or_text(status));
      },
      nb::arg("file_path"), nb::arg("status").none());
}

}  // namespace tidewright::sync::bindings
