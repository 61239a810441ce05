// The pieces of the tidewright.sync module, one function per concept; each
// lives in its own bind_<concept>.cpp and is called once from module.cpp.
#pragma once

#include <nanobind/nanobind.h>

namespace tidewright::sync::bindings {

namespace nb = nanobind;

// The one way a binding enters the core without the GIL. nanobind converts
// the arguments before the call and the result after it with the GIL held,
// and releases it for the call alone; so a core method whose arguments and
// result have converters (convert.hpp) is bound directly:
//   .def("sync", &SyncManager::sync, kReleaseGil)
// and a shim that needs another shape converts only through those argument
// types. Nothing Python may be touched inside such a call; callables the core
// calls back take the GIL themselves (PythonHost, make_ref).
inline constexpr nb::call_guard<nb::gil_scoped_release> kReleaseGil{};

void bind_errors(nb::module_& m);               // errors.cpp
void bind_paths(nb::module_& m);                // bind_paths.cpp: paths, URLs, platform
void bind_sanitize(nb::module_& m);             // bind_sanitize.cpp: sanitisation predicates/filters
void bind_transport_settings(nb::module_& m);   // bind_transport_settings.cpp: knobs, status policy
void bind_files(nb::module_& m);                // bind_files.cpp: hashing, atomic writes, progress, manifest files
void bind_manifest(nb::module_& m);             // bind_manifest.cpp: Manifest
void bind_manager(nb::module_& m);              // bind_manager.cpp: SyncManager, results, registry
void bind_artifacts(nb::module_& m);            // bind_artifacts.cpp: vocabularies, signals index, found PnL, seed
void bind_http(nb::module_& m);                 // bind_http.cpp: GETs, retry loop, curl transport
void bind_events(nb::module_& m);               // bind_events.cpp: sync events
void bind_rotation(nb::module_& m);             // bind_rotation.cpp: rotation catalogue, state files, prefetch
void bind_era(nb::module_& m);                  // bind_era.cpp: era-current helpers, EraThread
void bind_lifecycle(nb::module_& m);            // bind_lifecycle.cpp: SyncManager lifecycle, era transitions

// Takes every name the package module `part` defines into `m`: the classes
// and helpers of this module that are written in Python (_sync_errors.py and
// its siblings). Its classes and functions get `m`'s name, so that they print,
// pickle and are looked up as this module's own.
void adopt_names(nb::module_& m, nb::handle part);

// Stops every live manager; called at interpreter exit (bind_manager.cpp).
void shutdown_all_managers();

}  // namespace tidewright::sync::bindings
