// The host objects the engine holds (token callables, progress and era
// callbacks, freshness guards, manifest views): how Python's garbage
// collector sees them, and how they are let go at interpreter exit.
//
// A SyncManager or EraThread that only its Python object owns holds its host
// objects on that object's behalf: the object's tp_traverse reports them, so
// the collector finds a cycle such as manager -> token callable -> module
// globals -> manager, and its tp_clear breaks one. An engine object that
// something else owns as well (the registry, a running thread, another
// engine object) is reachable from outside the collector's view, and so is
// everything it holds: those references are not reported, and never cleared
// by the collector.
//
// At interpreter exit, after every manager and era thread has been stopped,
// the registry is emptied and every engine object made through the binding
// lets go of its host objects, so that nothing the engine held keeps a
// Python object alive while the interpreter tears the module down.
#pragma once

#include <Python.h>

#include <nanobind/nanobind.h>

#include <memory>
#include <vector>

namespace tidewright::sync {
class EraThread;
class SyncManager;
}  // namespace tidewright::sync

namespace tidewright::sync::bindings {

namespace nb = nanobind;

// Remembers an engine object made through the binding, for the exit.
void remember_engine_object(const std::shared_ptr<SyncManager>& manager);
void remember_engine_object(const std::shared_ptr<EraThread>& thread);

// Empties the registry and lets every remembered engine object go of its
// host objects. REQUIRES: the GIL held, the engine's threads stopped.
void release_engine_host_objects();

// tp_traverse and tp_clear of a class whose C++ type T (owned through a
// shared_ptr) has try_collect_host_refs() and drop_host_refs().
template <typename T>
int traverse_engine_object(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (!nb::inst_ready(self)) return 0;
  const T* object = nb::inst_ptr<T>(self);
  if (object->weak_from_this().use_count() != 1) return 0;
  std::vector<const void*> held;
  if (!object->try_collect_host_refs(held)) return 0;  // busy: counted as held from elsewhere
  for (const void* p : held) Py_VISIT(static_cast<PyObject*>(const_cast<void*>(p)));
  return 0;
}

template <typename T>
int clear_engine_object(PyObject* self) {
  if (!nb::inst_ready(self)) return 0;
  T* object = nb::inst_ptr<T>(self);
  if (object->weak_from_this().use_count() == 1) object->drop_host_refs();
  return 0;
}

template <typename T>
inline PyType_Slot engine_object_slots[] = {
    {Py_tp_traverse, reinterpret_cast<void*>(&traverse_engine_object<T>)},
    {Py_tp_clear, reinterpret_cast<void*>(&clear_engine_object<T>)},
    {0, nullptr},
};

}  // namespace tidewright::sync::bindings
