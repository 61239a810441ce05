// Conversion between host objects and the core's plain data (JSON values).
// REQUIRES: the GIL held for every function here.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/results.hpp"
#include "tidewright/sync/transport/http_client.hpp"

#include <nanobind/nanobind.h>

namespace tidewright::sync::bindings {

namespace nb = nanobind;

// dict/list/tuple/str/int/float/bool/None -> JSON value. Other objects raise
// TypeError ("Object of type X is not JSON serializable").
json::value to_json(nb::handle object);
// to_json, except that a value with no JSON form (a Decimal, a path object)
// keeps only its text form: what knob parsers and int() conversions look at.
json::value to_json_or_text(nb::handle object);

// JSON value -> new host object (dict keeps key order).
nb::object from_json(const json::value& value);
nb::object from_json_array(const json::array& value);
nb::object from_json_object(const json::object& value);

// A HostRef that owns a reference to `object`; dropping the last copy takes
// the GIL (skipped once the interpreter is finalising).
HostRef make_ref(nb::handle object);
// The object behind a HostRef made by make_ref (borrowed; None for empty).
nb::handle ref_object(const HostRef& ref);

// The text form of an object (str()).
std::string to_text(nb::handle object);

// The text of a path argument (os.fspath(), then str()).
std::string path_text(nb::handle object);
// A file-system path argument (str, bytes or path-like) in the file system's
// encoding, and such a path as str.
std::string fs_path(nb::handle object);
nb::str fs_path_result(const std::string& path);

// A JSON value of an argument, or null when it has none (a market id of the
// wrong type, left to the core to refuse with its own message).
json::value json_or_null(nb::handle object);

// None, or the JSON value of an argument that has one, else its text form:
// what the knob parsers read.
std::optional<json::value> optional_json_or_text(nb::handle object);

// An era transition's kill or restart function: a host callable, or none for None.
SearchesFn searches_fn_from(nb::handle fn);

// A list, or a tuple, of str.
nb::list text_list(const std::vector<std::string>& items);
nb::tuple text_tuple(const std::vector<std::string>& items);

// The result records as the package's dataclasses (tidewright._sync_types),
// and back: a SyncResult the host passes in is read, and the fields the core
// changed are written back onto it. None reads as an empty record.
nb::object to_python(const SyncResult& result);
nb::object to_python(const VerifyResult& result);
SyncResult from_python_result(nb::handle result);
void update_python_result(nb::handle target, const SyncResult& result);

// Argument types that nanobind converts before the call, with the GIL held,
// so that the call itself can run without it (kReleaseGil, bindings.hpp).
// Each takes any object the way the core has always read it, and names in
// signatures the type callers are meant to pass.
struct TextArg {  // str()
  std::string text;
};
struct PathArg {  // os.fspath(), then str()
  std::string text;
};
struct KnobArg {  // a knob value as the knob parsers read it; None is unset
  std::optional<json::value> value;
};
struct FsPathArg {  // str, bytes or path-like, in the file system's encoding
  std::string path;
};
// The contents of a bytes-like object, exported (so unchanged) until the
// caster lets go of it after the call, with the GIL held again.
struct BytesArg {
  BytesArg() = default;
  BytesArg(const BytesArg&) = delete;
  BytesArg& operator=(const BytesArg&) = delete;
  ~BytesArg() {
    if (view.obj != nullptr) PyBuffer_Release(&view);
  }
  std::string_view data() const {
    return std::string_view(static_cast<const char*>(view.buf), static_cast<std::size_t>(view.len));
  }
  Py_buffer view{};
};
struct TextListArg {  // any iterable; each item's str()
  std::vector<std::string> items;
};
struct JsonArg {  // a JSON-able value (TypeError otherwise)
  json::value value;
};
struct HostCallableArg {  // a callable the core calls back (taking the GIL); None is no callable
  HostRef ref;
};

}  // namespace tidewright::sync::bindings

namespace nanobind::detail {

// Results: SyncResult and VerifyResult as the package dataclasses,
// HttpResponse as the (status, headers, body) triple, JSON objects as dicts.
template <typename T>
struct ValueCaster {
  using Value = T;
  template <typename T_>
  using Cast = movable_cast_t<T_>;
  template <typename T_>
  static constexpr bool can_cast() { return true; }
  explicit operator Value*() { return &value; }
  explicit operator Value&() { return value; }
  explicit operator Value&&() { return std::move(value); }
  Value value;
};

template <typename T, typename Derived>
struct ToPythonCaster : ValueCaster<T> {
  static handle from_cpp(const T& value, rv_policy, cleanup_list*) noexcept {
    try {
      return Derived::convert(value).release();
    } catch (python_error& e) {
      e.restore();
      return handle();
    }
  }
  bool from_python(handle, uint8_t, cleanup_list*) noexcept { return false; }
};

template <>
struct type_caster<tidewright::sync::SyncResult>
    : ToPythonCaster<tidewright::sync::SyncResult, type_caster<tidewright::sync::SyncResult>> {
  static constexpr auto Name = const_name("SyncResult");
  static object convert(const tidewright::sync::SyncResult& r) { return tidewright::sync::bindings::to_python(r); }
};
template <>
struct type_caster<tidewright::sync::VerifyResult>
    : ToPythonCaster<tidewright::sync::VerifyResult, type_caster<tidewright::sync::VerifyResult>> {
  static constexpr auto Name = const_name("VerifyResult");
  static object convert(const tidewright::sync::VerifyResult& r) { return tidewright::sync::bindings::to_python(r); }
};
template <>
struct type_caster<tidewright::sync::HttpResponse>
    : ToPythonCaster<tidewright::sync::HttpResponse, type_caster<tidewright::sync::HttpResponse>> {
  static constexpr auto Name = const_name("tuple[int, dict[str, str], bytes]");
  static object convert(const tidewright::sync::HttpResponse& r);
};
template <>
struct type_caster<tidewright::sync::json::object>
    : ToPythonCaster<tidewright::sync::json::object, type_caster<tidewright::sync::json::object>> {
  static constexpr auto Name = const_name("dict[str, typing.Any]");
  static object convert(const tidewright::sync::json::object& o) {
    return tidewright::sync::bindings::from_json_object(o);
  }
};

// Arguments. A conversion that fails raises its Python error from here,
// before the call, as the hand-written conversions did.
template <typename T, typename Derived>
struct FromPythonCaster : ValueCaster<T> {
  bool from_python(handle src, uint8_t, cleanup_list*) {
    Derived::convert(src, this->value);
    return true;
  }
};

template <>
struct type_caster<tidewright::sync::bindings::TextArg>
    : FromPythonCaster<tidewright::sync::bindings::TextArg, type_caster<tidewright::sync::bindings::TextArg>> {
  static constexpr auto Name = const_name("str");
  static void convert(handle src, tidewright::sync::bindings::TextArg& out) {
    out.text = tidewright::sync::bindings::to_text(src);
  }
};
template <>
struct type_caster<tidewright::sync::bindings::PathArg>
    : FromPythonCaster<tidewright::sync::bindings::PathArg, type_caster<tidewright::sync::bindings::PathArg>> {
  static constexpr auto Name = const_name("str | os.PathLike[str]");
  static void convert(handle src, tidewright::sync::bindings::PathArg& out) {
    out.text = tidewright::sync::bindings::path_text(src);
  }
};
template <>
struct type_caster<tidewright::sync::bindings::FsPathArg>
    : FromPythonCaster<tidewright::sync::bindings::FsPathArg, type_caster<tidewright::sync::bindings::FsPathArg>> {
  static constexpr auto Name = const_name("str | os.PathLike[str]");
  static void convert(handle src, tidewright::sync::bindings::FsPathArg& out) {
    out.path = tidewright::sync::bindings::fs_path(src);
  }
};
template <>
struct type_caster<tidewright::sync::bindings::BytesArg>
    : FromPythonCaster<tidewright::sync::bindings::BytesArg, type_caster<tidewright::sync::bindings::BytesArg>> {
  static constexpr auto Name = const_name("bytes");
  static void convert(handle src, tidewright::sync::bindings::BytesArg& out) {
    if (PyObject_GetBuffer(src.ptr(), &out.view, PyBUF_SIMPLE) != 0) throw python_error();
  }
};
template <>
struct type_caster<tidewright::sync::bindings::KnobArg>
    : FromPythonCaster<tidewright::sync::bindings::KnobArg, type_caster<tidewright::sync::bindings::KnobArg>> {
  static constexpr auto Name = const_name("int | str");
  static void convert(handle src, tidewright::sync::bindings::KnobArg& out) {
    out.value = tidewright::sync::bindings::optional_json_or_text(src);
  }
};
template <>
struct type_caster<tidewright::sync::bindings::TextListArg>
    : FromPythonCaster<tidewright::sync::bindings::TextListArg, type_caster<tidewright::sync::bindings::TextListArg>> {
  static constexpr auto Name = const_name("collections.abc.Iterable[str]");
  static void convert(handle src, tidewright::sync::bindings::TextListArg& out) {
    for (handle item : src) out.items.push_back(tidewright::sync::bindings::to_text(item));
  }
};
template <>
struct type_caster<tidewright::sync::bindings::JsonArg>
    : FromPythonCaster<tidewright::sync::bindings::JsonArg, type_caster<tidewright::sync::bindings::JsonArg>> {
  static constexpr auto Name = const_name("dict[str, typing.Any]");
  static void convert(handle src, tidewright::sync::bindings::JsonArg& out) {
    out.value = tidewright::sync::bindings::to_json(src);
  }
};
template <>
struct type_caster<tidewright::sync::bindings::HostCallableArg>
    : FromPythonCaster<tidewright::sync::bindings::HostCallableArg,
                       type_caster<tidewright::sync::bindings::HostCallableArg>> {
  static constexpr auto Name = const_name("collections.abc.Callable[..., object]");
  static void convert(handle src, tidewright::sync::bindings::HostCallableArg& out) {
    out.ref = tidewright::sync::bindings::make_ref(src);
  }
};
template <>
struct type_caster<tidewright::sync::SearchesFn>
    : FromPythonCaster<tidewright::sync::SearchesFn, type_caster<tidewright::sync::SearchesFn>> {
  static constexpr auto Name = const_name("collections.abc.Callable[[], object]");
  static void convert(handle src, tidewright::sync::SearchesFn& out) {
    out = tidewright::sync::bindings::searches_fn_from(src);
  }
};

}  // namespace nanobind::detail
