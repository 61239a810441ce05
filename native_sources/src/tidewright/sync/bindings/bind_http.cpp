// Python face of the HTTP transport: the GET family, the retry loop, the curl
// transport's helpers, the download-to-path entry and the error-body
// helpers. Requests run with the GIL released; response headers are decoded
// as ISO-8859-1, as the host's own HTTP client does.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/errors.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/curl_program.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <Python.h>

namespace tidewright::sync::bindings {

namespace {

[[noreturn]] void raise_from_python() { throw nb::python_error(); }

nb::str latin1(const std::string& bytes) {
  PyObject* text = PyUnicode_DecodeLatin1(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), nullptr);
  if (!text) raise_from_python();
  return nb::steal<nb::str>(text);
}

nb::bytes to_bytes(const std::string& data) { return nb::bytes(data.data(), data.size()); }

// Headers as a mapping; a repeated name keeps its last value.
nb::dict headers_dict(const HttpHeaders& headers) {
  nb::dict out;
  for (const auto& [name, value] : headers.items) out[latin1(name)] = latin1(value);
  return out;
}

nb::tuple response_tuple(const HttpResponse& response) {
  return nb::make_tuple(response.status, headers_dict(response.headers), to_bytes(response.body));
}

// A request argument: a URL, or a request object with `full_url` and
// `header_items()` (the host's own request class qualifies).
HttpRequest request_from(nb::handle object) {
  HttpRequest request;
  if (nb::isinstance<nb::str>(object)) {
    request.url = to_text(object);
    return request;
  }
  request.url = to_text(object.attr("full_url"));
  if (nb::hasattr(object, "header_items")) {
    for (nb::handle item : object.attr("header_items")()) {
      request.headers.emplace_back(to_text(item[0]), to_text(item[1]));
    }
  }
  return request;
}

std::optional<std::string> optional_text(nb::handle object) {
  if (object.is_none()) return std::nullopt;
  return to_text(object);
}

// The bytes of a bytes-like object or the UTF-8 of a str; empty otherwise.
std::optional<std::string> raw_bytes(nb::handle object) {
  if (nb::isinstance<nb::str>(object)) return to_text(object);
  if (!PyObject_CheckBuffer(object.ptr())) return std::nullopt;
  Py_buffer view{};
  if (PyObject_GetBuffer(object.ptr(), &view, PyBUF_SIMPLE) != 0) raise_from_python();
  std::string data(static_cast<const char*>(view.buf), static_cast<std::size_t>(view.len));
  PyBuffer_Release(&view);
  return data;
}

template <typename F>
nb::tuple without_gil(F&& request) {
  HttpResponse response;
  {
    nb::gil_scoped_release release;
    response = request();
  }
  return response_tuple(response);
}

}  // namespace

void bind_http(nb::module_& m) {
  m.def(
      "_http_get",
      [](const std::string& url, const std::string& token, std::int64_t range_start, std::int64_t range_end) {
        return without_gil([&] { return http_get(url, token, range_start, range_end); });
      },
      nb::arg("url"), nb::arg("token"), nb::arg("range_start") = 0, nb::arg("range_end") = -1,
      "HTTP GET with auth header.");
  m.def(
      "_http_get_manifest_version",
      [](const std::string& url, const std::string& token) {
        return without_gil([&] { return http_get_manifest_version(url, token); });
      },
      nb::arg("url"), nb::arg("token"), "HTTP GET for the lightweight manifest-version poll.");
  m.def(
      "_http_get_public",
      [](const std::string& url, std::int64_t range_start, std::int64_t range_end, nb::handle transport) {
        std::optional<std::string> knob = optional_text(transport);
        return without_gil([&] { return http_get_public(url, range_start, range_end, knob); });
      },
      nb::arg("url"), nb::arg("range_start") = 0, nb::arg("range_end") = -1, nb::arg("transport") = nb::none(),
      "HTTP GET for public manifest artifacts without an Authorization header.");
  m.def(
      "_request_with_sync_retries",
      [](nb::handle req, double timeout, nb::handle transport) {
        HttpRequest request = request_from(req);
        std::optional<std::string> knob = optional_text(transport);
        return without_gil([&] { return request_with_sync_retries(request, timeout, knob); });
      },
      nb::arg("req"), nb::arg("timeout"), nb::arg("transport") = nb::none());
  m.def(
      "_download_request_to_path",
      [](nb::handle req, Shown<shown::PathLike> output, double timeout, nb::handle transport) {
        HttpRequest request = request_from(req);
        std::string output_path = fs_path(output);
        std::optional<std::string> knob = optional_text(transport);
        DownloadResult result;
        {
          nb::gil_scoped_release release;
          result = download_request_to_path(request, output_path, timeout, knob);
        }
        return nb::make_tuple(result.status, headers_dict(result.headers));
      },
      nb::arg("req"), nb::arg("output_path"), nb::arg("timeout"), nb::arg("transport") = nb::none());

  m.def("_is_manifest_version_url", [](const std::string& url) { return is_manifest_version_url(url); },
        nb::arg("url"));
  m.def(
      "_append_limited",
      [](nb::handle values, nb::handle value, std::int64_t limit) {
        values.attr("append")(value);
        Py_ssize_t keep = limit > 0 ? static_cast<Py_ssize_t>(limit) : 0;
        Py_ssize_t size = PySequence_Size(values.ptr());
        if (size < 0) raise_from_python();
        if (size > keep && PySequence_DelSlice(values.ptr(), 0, size - keep) != 0) raise_from_python();
      },
      nb::arg("values").none(false), nb::arg("value").none(), nb::arg("limit") = SYNC_OBSERVATION_LIMIT);

  m.def(
      "_backoff_delay_seconds",
      [](std::int64_t attempt_index) {
        nb::gil_scoped_release release;
        return backoff_delay_seconds(attempt_index);
      },
      nb::arg("attempt_index"));
  m.def(
      "_sleep_for_sync_backoff",
      [](double wait_seconds) {
        nb::gil_scoped_release release;
        sleep_for_sync_backoff(wait_seconds);
      },
      nb::arg("wait_seconds"));
  m.def("_sync_backoff_stop_requested", [] {
    nb::gil_scoped_release release;
    return sync_backoff_stop_requested();
  });

  m.def("_find_curl_binary", [] { return find_curl_binary(); });
  m.def("_request_host", [](nb::handle req) { return request_host(request_from(req)); }, nb::arg("req"));
  m.def("_curl_auto_host", [](nb::handle req) { return curl_auto_host(request_from(req)); }, nb::arg("req"));
  m.def(
      "_should_use_curl_transport",
      [](nb::handle req, nb::handle transport) {
        HttpRequest request = request_from(req);
        std::optional<json::value> knob;
        if (!transport.is_none()) knob = to_json_or_text(transport);
        return should_use_curl_transport(request, knob ? &*knob : nullptr);
      },
      nb::arg("req"), nb::arg("transport") = nb::none());
  m.def(
      "_parse_curl_headers",
      [](const std::string& text) {
        nb::dict out;
        for (const auto& [name, value] : parse_curl_headers(text).items) {
          out[nb::str(name.data(), name.size())] = nb::str(value.data(), value.size());
        }
        return out;
      },
      nb::arg("text"));
  m.def(
      "_curl_status_from_stdout",
      [](nb::handle stdout_bytes) { return curl_status_from_stdout(raw_bytes(stdout_bytes).value_or("")); },
      nb::arg("stdout"));

  m.def(
      "_parse_sync_error_body",
      [](Shown<shown::Bytes> body) -> nb::object {
        std::optional<std::string> data;
        if (!nb::isinstance<nb::str>(body)) data = raw_bytes(body);
        if (!data) return nb::dict();
        json::object parsed;
        {
          nb::gil_scoped_release release;
          parsed = parse_sync_error_body(*data);
        }
        return from_json(json::value(std::move(parsed)));
      },
      nb::arg("body").none());
  m.def(
      "_sync_unavailable_from",
      [](Shown<shown::Str> url, Shown<shown::Int> attempts, nb::handle statuses, nb::handle failures,
         Shown<shown::JsonObject> details) {
        json::value plain = details.is_none() ? json::value(json::object()) : to_json_or_text(details);
        const json::object empty;
        const json::object& fields = plain.is_object() ? plain.get_object() : empty;
        SyncUnavailableError built = sync_unavailable_from("", 0, {}, {}, fields);
        auto opt = [](const std::optional<json::value>& v) { return v ? from_json(*v) : nb::none(); };
        const UnavailableDetails& d = built.details;
        return error_class("SyncUnavailableError")(url, attempts, statuses, failures, opt(d.server_error_code),
                                                   opt(d.dependency), opt(d.retryable), opt(d.recovery),
                                                   opt(d.reason), d.typed_details);
      },
      nb::arg("url").none(), nb::arg("attempts"), nb::arg("statuses").none(), nb::arg("failures").none(),
      nb::arg("details").none());
}

}  // namespace tidewright::sync::bindings
