// The Python face of the error family: the classes, and the translation of
// core exceptions into them at the binding boundary.
#pragma once

#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/nanobind.h>

namespace tidewright::sync::bindings {

namespace nb = nanobind;

// Defines the error classes (and the other pure-Python helpers) in `m`.
void bind_errors(nb::module_& m);

// Sets the Python exception that corresponds to `error`.
// REQUIRES: the GIL held.
void set_python_error(const Error& error);

// The code of a Python exception instance: the family class it belongs to,
// else what its standard and sibling classes say. REQUIRES: the GIL held.
ErrorCode python_error_code(nb::handle value);

// The Python class of the module with this name (e.g. "SyncError").
nb::object error_class(const char* name);

}  // namespace tidewright::sync::bindings
