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

}  // namespace tidewright::sync::bindings
