// Manifest as a Python class: attributes are converted on access; the files
// map is converted once per manifest and then kept.
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {

json::object object_argument(nb::handle data) {
  if (!PyDict_Check(data.ptr())) {
    throw nb::type_error(("manifest data must be a dict, got " + to_text(nb::repr(data.type()))).c_str());
  }
  return std::move(to_json(data).get_object());
}

ManifestPtr manifest_from_dict(nb::handle data) {
  json::object object = object_argument(data);
  nb::gil_scoped_release release;
  return Manifest::create(object, host().manifest_siblings());
}

nb::object files_of(Manifest& manifest) {
  if (!manifest.host_files_view) manifest.host_files_view = make_ref(from_json(manifest.files_value()));
  return nb::borrow(ref_object(manifest.host_files_view));
}

}  // namespace

void bind_manifest(nb::module_& m) {
  nb::class_<Manifest>(m, "Manifest", "The manifest of one era, built from a sanitised manifest object.")
      .def(nb::new_([](nb::handle data) { return manifest_from_dict(data); }), nb::arg("data"))
      .def_static("from_dict", [](nb::handle data) { return manifest_from_dict(data); }, nb::arg("data"),
                  "Build a Manifest from a manifest object (same validation as the constructor).")
      .def("to_dict", [](const Manifest& self) { return from_json(json::value(self.data())); },
           "Return a new shallow copy of the sanitised manifest object.")
      .def_prop_ro("era_number", [](const Manifest& self) { return from_json(self.era_number()); })
      .def_prop_ro("version", [](const Manifest& self) { return from_json(self.version()); })
      .def_prop_ro("market_id", [](const Manifest& self) { return from_json(self.market_id()); })
      .def_prop_ro("base_url", [](const Manifest& self) { return from_json(self.base_url()); })
      .def_prop_ro("shuffle_key_generation", [](const Manifest& self) { return from_json(self.shuffle_key_generation()); })
      .def_prop_ro("shuffle_key_source", [](const Manifest& self) { return from_json(self.shuffle_key_source()); })
      .def_prop_ro("files", [](Manifest& self) { return files_of(self); })
      .def_prop_ro("pnl_column_count", [](const Manifest& self) { return from_json(self.pnl_column_count()); })
      .def_prop_ro("signals_index", [](const Manifest& self) { return from_json(self.signals_index()); })
      .def_prop_ro("functions", [](const Manifest& self) { return from_json(self.functions()); })
      .def_prop_rw(
          "found_signals", [](const Manifest& self) { return from_json(json::value(self.found_signals)); },
          [](Manifest& self, nb::handle v) { self.found_signals = object_argument(v); })
      .def_prop_rw(
          "found_strategies", [](const Manifest& self) { return from_json(json::value(self.found_strategies)); },
          [](Manifest& self, nb::handle v) { self.found_strategies = object_argument(v); })
      .def_prop_rw(
          "useful_signals", [](const Manifest& self) { return from_json(json::value(self.useful_signals)); },
          [](Manifest& self, nb::handle v) { self.useful_signals = object_argument(v); })
      .def("__repr__", [](const Manifest& self) {
        return "<Manifest era_number=" + python_repr(self.era_number()) + " version=" + python_repr(self.version()) +
               " files=" + std::to_string(self.files().size()) + ">";
      });
}

}  // namespace tidewright::sync::bindings
