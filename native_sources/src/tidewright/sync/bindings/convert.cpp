#include "tidewright/sync/bindings/convert.hpp"

#include "tidewright/sync/bindings/python_host.hpp"

#include <Python.h>

namespace tidewright::sync::bindings {

namespace {

[[noreturn]] void raise_from_python() { throw nb::python_error(); }

nb::object steal_or_throw(PyObject* p) {
  if (!p) raise_from_python();
  return nb::steal(p);
}

json::value int_to_json(PyObject* o) {
  int overflow = 0;
  long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
  if (overflow == 0) {
    if (v == -1 && PyErr_Occurred()) raise_from_python();
    return json::value(static_cast<std::int64_t>(v));
  }
  if (overflow > 0) {
    unsigned long long u = PyLong_AsUnsignedLongLong(o);
    if (!PyErr_Occurred()) return json::value(static_cast<std::uint64_t>(u));
    PyErr_Clear();
  }
  double d = PyLong_AsDouble(o);
  if (d == -1.0 && PyErr_Occurred()) raise_from_python();
  return json::value(d);
}

std::string key_text(PyObject* key) {
  if (PyUnicode_Check(key)) {
    Py_ssize_t n = 0;
    const char* s = PyUnicode_AsUTF8AndSize(key, &n);
    if (!s) raise_from_python();
    return std::string(s, static_cast<std::size_t>(n));
  }
  if (key == Py_True) return "true";
  if (key == Py_False) return "false";
  if (key == Py_None) return "null";
  if (PyLong_Check(key) || PyFloat_Check(key)) {
    return to_text(nb::handle(key));
  }
  PyErr_Format(PyExc_TypeError, "keys must be str, int, float, bool or None, not %s", Py_TYPE(key)->tp_name);
  raise_from_python();
}

}  // namespace

std::string to_text(nb::handle object) {
  nb::object s = steal_or_throw(PyObject_Str(object.ptr()));
  Py_ssize_t n = 0;
  const char* c = PyUnicode_AsUTF8AndSize(s.ptr(), &n);
  if (!c) raise_from_python();
  return std::string(c, static_cast<std::size_t>(n));
}

json::value to_json(nb::handle object) {
  PyObject* o = object.ptr();
  if (o == Py_None) return nullptr;
  if (o == Py_True) return true;
  if (o == Py_False) return false;
  if (PyUnicode_Check(o)) {
    Py_ssize_t n = 0;
    const char* s = PyUnicode_AsUTF8AndSize(o, &n);
    if (!s) raise_from_python();
    return json::value(json::string_view(s, static_cast<std::size_t>(n)));
  }
  if (PyLong_Check(o)) return int_to_json(o);
  if (PyFloat_Check(o)) return json::value(PyFloat_AS_DOUBLE(o));
  if (PyDict_Check(o)) {
    json::object out;
    out.reserve(static_cast<std::size_t>(PyDict_Size(o)));
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(o, &pos, &key, &value)) {
      out.insert_or_assign(key_text(key), to_json(value));
    }
    return out;
  }
  if (PyList_Check(o) || PyTuple_Check(o)) {
    nb::object seq = steal_or_throw(PySequence_Fast(o, "expected a sequence"));
    Py_ssize_t n = PySequence_Fast_GET_SIZE(seq.ptr());
    PyObject** items = PySequence_Fast_ITEMS(seq.ptr());
    json::array out;
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) out.push_back(to_json(items[i]));
    return out;
  }
  if (PyObject_HasAttrString(o, "keys") && PyMapping_Check(o)) {
    nb::object d = steal_or_throw(PyDict_New());
    if (PyDict_Update(d.ptr(), o) != 0) raise_from_python();
    return to_json(d);
  }
  PyErr_Format(PyExc_TypeError, "Object of type %s is not JSON serializable", Py_TYPE(o)->tp_name);
  raise_from_python();
}

json::value to_json_or_text(nb::handle object) {
  try {
    return to_json(object);
  } catch (nb::python_error&) {
    return json::value(to_text(object));
  }
}

nb::object from_json_array(const json::array& array) {
  nb::object list = steal_or_throw(PyList_New(static_cast<Py_ssize_t>(array.size())));
  Py_ssize_t i = 0;
  for (const auto& item : array) {
    PyList_SET_ITEM(list.ptr(), i++, from_json(item).release().ptr());
  }
  return list;
}

nb::object from_json(const json::value& value) {
  switch (value.kind()) {
    case json::kind::null: return nb::none();
    case json::kind::bool_: return nb::borrow(value.get_bool() ? Py_True : Py_False);
    case json::kind::int64: return steal_or_throw(PyLong_FromLongLong(value.get_int64()));
    case json::kind::uint64: return steal_or_throw(PyLong_FromUnsignedLongLong(value.get_uint64()));
    case json::kind::double_: return steal_or_throw(PyFloat_FromDouble(value.get_double()));
    case json::kind::string: {
      const auto& s = value.get_string();
      return steal_or_throw(PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape"));
    }
    case json::kind::array: return from_json_array(value.get_array());
    case json::kind::object: return from_json_object(value.get_object());
  }
  return nb::none();
}

nb::object from_json_object(const json::object& object) {
  nb::object dict = steal_or_throw(PyDict_New());
  for (const auto& kv : object) {
    nb::object key = steal_or_throw(
        PyUnicode_DecodeUTF8(kv.key().data(), static_cast<Py_ssize_t>(kv.key().size()), "surrogateescape"));
    nb::object item = from_json(kv.value());
    if (PyDict_SetItem(dict.ptr(), key.ptr(), item.ptr()) != 0) raise_from_python();
  }
  return dict;
}

HostRef make_ref(nb::handle object) {
  if (!object.is_valid() || object.is_none()) return nullptr;
  PyObject* p = object.inc_ref().ptr();
  return HostRef(static_cast<void*>(p), [](void* raw) {
    if (!Py_IsInitialized() || PythonHost::interpreter_exiting()) return;  // leaked at exit
    nb::gil_scoped_acquire gil;
    Py_DECREF(static_cast<PyObject*>(raw));
  });
}

nb::handle ref_object(const HostRef& ref) {
  if (!ref) return nb::none();
  return nb::handle(static_cast<PyObject*>(ref.get()));
}

std::string fs_path(nb::handle object) {
  nb::object path = steal_or_throw(PyOS_FSPath(object.ptr()));
  if (PyUnicode_Check(path.ptr())) path = steal_or_throw(PyUnicode_EncodeFSDefault(path.ptr()));
  char* data = nullptr;
  Py_ssize_t size = 0;
  if (PyBytes_AsStringAndSize(path.ptr(), &data, &size) != 0) raise_from_python();
  return std::string(data, static_cast<std::size_t>(size));
}

nb::str fs_path_result(const std::string& path) {
  return nb::steal<nb::str>(
      steal_or_throw(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size()))).release());
}

std::string path_text(nb::handle object) { return to_text(nb::module_::import_("os").attr("fspath")(object)); }

json::value json_or_null(nb::handle object) {
  try {
    return to_json(object);
  } catch (nb::python_error&) {
    return nullptr;
  }
}

std::optional<json::value> optional_json_or_text(nb::handle object) {
  if (object.is_none()) return std::nullopt;
  return to_json_or_text(object);
}

SearchesFn searches_fn_from(nb::handle fn) {
  if (fn.is_none()) return SearchesFn();
  return SearchesFn::host_callable(make_ref(fn));
}

namespace {

// Fills a new list or tuple (`set` is PyList_SET_ITEM or PyTuple_SET_ITEM).
template <typename Sequence>
Sequence texts_into(PyObject* created, const std::vector<std::string>& items,
                    void (*set)(PyObject*, Py_ssize_t, PyObject*)) {
  nb::object out = steal_or_throw(created);
  for (std::size_t i = 0; i < items.size(); ++i) {
    set(out.ptr(), static_cast<Py_ssize_t>(i), nb::str(items[i].data(), items[i].size()).release().ptr());
  }
  return nb::borrow<Sequence>(out);
}

}  // namespace

nb::list text_list(const std::vector<std::string>& items) {
  return texts_into<nb::list>(PyList_New(static_cast<Py_ssize_t>(items.size())), items,
                              [](PyObject* l, Py_ssize_t i, PyObject* v) { PyList_SET_ITEM(l, i, v); });
}

nb::tuple text_tuple(const std::vector<std::string>& items) {
  return texts_into<nb::tuple>(PyTuple_New(static_cast<Py_ssize_t>(items.size())), items,
                               [](PyObject* t, Py_ssize_t i, PyObject* v) { PyTuple_SET_ITEM(t, i, v); });
}

namespace {

nb::object sync_type(const char* name) { return nb::module_::import_("tidewright._sync_types").attr(name); }

nb::object optional_int(const std::optional<std::int64_t>& value) {
  return value ? nb::object(nb::int_(*value)) : nb::none();
}

}  // namespace

nb::object to_python(const SyncResult& r) {
  nb::dict kw;
  kw["features_downloaded"] = r.features_downloaded;
  kw["useful_signals_downloaded"] = r.useful_signals_downloaded;
  kw["bytes_downloaded"] = r.bytes_downloaded;
  kw["era_number"] = r.era_number;
  kw["t_signal_is"] = r.t_signal_is;
  kw["t_strategy_is"] = r.t_strategy_is;
  kw["n_instruments"] = r.n_instruments;
  kw["n_features"] = r.n_features;
  kw["n_useful_signals"] = r.n_useful_signals;
  kw["n_found_strategies"] = r.n_found_strategies;
  kw["pnl_column_count"] = r.pnl_column_count;
  kw["vocabulary_downloaded"] = r.vocabulary_downloaded;
  kw["shuffle_seed_downloaded"] = r.shuffle_seed_downloaded;
  kw["active_relative_paths"] = text_tuple(r.active_relative_paths);
  kw["skipped_relative_paths"] = text_tuple(r.skipped_relative_paths);
  kw["mandatory_relative_paths"] = text_tuple(r.mandatory_relative_paths);
  kw["found_pnl_paths_downloaded"] = text_tuple(r.found_pnl_paths_downloaded);
  kw["rejected_files"] = text_tuple(r.rejected_files);
  kw["rotation_seed"] = optional_int(r.rotation_seed);
  kw["feature_budget_bytes"] = optional_int(r.feature_budget_bytes);
  return sync_type("SyncResult")(**kw);
}

nb::object to_python(const VerifyResult& r) {
  return sync_type("VerifyResult")(r.valid, text_list(r.corrupted_files), text_list(r.missing_files),
                                   nb::arg("has_manifest") = r.has_manifest);
}

SyncResult from_python_result(nb::handle r) {
  SyncResult out;
  if (r.is_none()) return out;
  auto i64 = [&](const char* name) { return nb::cast<std::int64_t>(r.attr(name)); };
  auto strings = [&](const char* name) {
    std::vector<std::string> v;
    for (nb::handle item : r.attr(name)) v.push_back(to_text(item));
    return v;
  };
  out.features_downloaded = i64("features_downloaded");
  out.useful_signals_downloaded = i64("useful_signals_downloaded");
  out.bytes_downloaded = i64("bytes_downloaded");
  out.era_number = i64("era_number");
  out.t_signal_is = i64("t_signal_is");
  out.t_strategy_is = i64("t_strategy_is");
  out.n_instruments = i64("n_instruments");
  out.n_features = i64("n_features");
  out.n_useful_signals = i64("n_useful_signals");
  out.n_found_strategies = i64("n_found_strategies");
  out.pnl_column_count = i64("pnl_column_count");
  out.vocabulary_downloaded = nb::cast<bool>(r.attr("vocabulary_downloaded"));
  out.shuffle_seed_downloaded = nb::cast<bool>(r.attr("shuffle_seed_downloaded"));
  out.active_relative_paths = strings("active_relative_paths");
  out.skipped_relative_paths = strings("skipped_relative_paths");
  out.mandatory_relative_paths = strings("mandatory_relative_paths");
  out.found_pnl_paths_downloaded = strings("found_pnl_paths_downloaded");
  out.rejected_files = strings("rejected_files");
  if (!r.attr("rotation_seed").is_none()) out.rotation_seed = i64("rotation_seed");
  if (!r.attr("feature_budget_bytes").is_none()) out.feature_budget_bytes = i64("feature_budget_bytes");
  return out;
}

void update_python_result(nb::handle target, const SyncResult& r) {
  if (target.is_none()) return;
  nb::object fresh = to_python(r);
  for (nb::handle field : nb::module_::import_("dataclasses").attr("fields")(fresh)) {
    nb::object name = field.attr("name");
    nb::setattr(target, name, nb::getattr(fresh, name));
  }
}

}  // namespace tidewright::sync::bindings

namespace nanobind::detail {

object type_caster<tidewright::sync::HttpResponse>::convert(const tidewright::sync::HttpResponse& r) {
  dict headers;
  for (const auto& [k, v] : r.headers.items) headers[str(k.c_str(), k.size())] = str(v.c_str(), v.size());
  return make_tuple(r.status, headers, bytes(r.body.data(), r.body.size()));
}

}  // namespace nanobind::detail
