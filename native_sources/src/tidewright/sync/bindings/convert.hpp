// Conversion between host objects and the core's plain data (JSON values).
// REQUIRES: the GIL held for every function here.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"

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

}  // namespace tidewright::sync::bindings
