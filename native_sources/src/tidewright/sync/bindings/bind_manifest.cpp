// Manifest as a Python class: a face over the engine's parsed copy whose
// attributes are ordinary Python objects (see manifest_face.hpp).
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/manifest_face.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

#include <cstdint>
#include <span>
#include <vector>
#include <string_view>
#include <utility>

namespace tidewright::sync::bindings {

namespace {

constexpr const char* kManifestDoc = R"DOC(The manifest of one era, built from a sanitised manifest object.

Its attributes are those of the manifest object (era_number, version,
market_id, base_url, shuffle_key_generation, shuffle_key_source, files,
pnl_column_count, signals_index, functions, and the whole object as _data)
and the membership maps found_signals, found_strategies and useful_signals.
They are ordinary attributes: assignable, and each map is the manifest's own,
so a change made through it is kept (files is the "files" map of the
manifest object, and to_dict() shares the nested maps).

The sync engine does not read these Python objects: it keeps its own parsed
copy of the manifest, which it reads from its own threads. Changes made here
stay with this object; a sync, verify or repair works from the manifest as
it was built or fetched. SyncManager.get_manifest() returns the same object
for as long as the manager holds the same manifest.)DOC";

// The attribute groups, each built at its first read.
enum Group : unsigned {
  kData = 1,        // _data and files (files is a map inside _data)
  kTop = 2,         // the other attributes taken from the manifest object
  kMembership = 4,  // found_signals, found_strategies, useful_signals
};

constexpr std::string_view kTopNames[] = {"era_number",         "version",          "market_id",
                                          "base_url",           "shuffle_key_generation",
                                          "shuffle_key_source", "pnl_column_count", "signals_index",
                                          "functions"};
constexpr std::string_view kMembershipNames[] = {"found_signals", "found_strategies", "useful_signals"};

unsigned group_of(std::string_view name) {
  if (name == "_data" || name == "files") return kData;
  for (std::string_view n : kTopNames) {
    if (n == name) return kTop;
  }
  for (std::string_view n : kMembershipNames) {
    if (n == name) return kMembership;
  }
  return 0;
}

const json::value& top_value(const Manifest& m, std::string_view name) {
  if (name == "era_number") return m.era_number();
  if (name == "version") return m.version();
  if (name == "market_id") return m.market_id();
  if (name == "base_url") return m.base_url();
  if (name == "shuffle_key_generation") return m.shuffle_key_generation();
  if (name == "shuffle_key_source") return m.shuffle_key_source();
  if (name == "pnl_column_count") return m.pnl_column_count();
  if (name == "signals_index") return m.signals_index();
  return m.functions();
}

const json::object& membership_map(const Manifest& m, std::string_view name) {
  if (name == "found_signals") return m.found_signals;
  if (name == "found_strategies") return m.found_strategies;
  return m.useful_signals;
}

nb::str str_of(std::string_view text) { return nb::str(text.data(), text.size()); }

nb::object decoded(std::string_view text) {
  PyObject* s = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape");
  if (!s) throw nb::python_error();
  return nb::steal(s);
}

// The files map as a dict, straight from the table: a compact entry becomes
// the dict its JSON would, its keys and texts shared strings (one per
// distinct text of the table); a verbatim one is converted as it stands.
nb::object files_dict(const ManifestFiles& files) {
  nb::dict out;
  std::vector<nb::object> texts(files.distinct_texts());
  auto text = [&](std::uint32_t id) -> const nb::object& {
    if (!texts[id].is_valid()) texts[id] = decoded(files.text(id));
    return texts[id];
  };
  for (const ManifestFiles::Entry entry : files) {
    nb::object value;
    if (const json::value* info = entry.verbatim()) {
      value = from_json(*info);
    } else {
      const std::span<const std::uint32_t> fields = files.compact_fields(entry);
      nb::dict object;
      for (std::size_t i = 0; i < fields.size(); i += 2) {
        nb::object item;
        if (fields[i + 1] == ManifestFiles::kSizeValue) {
          item = nb::steal(PyLong_FromLongLong(*entry.size_bytes()));
          if (!item.is_valid()) throw nb::python_error();
        } else if (fields[i + 1] == ManifestFiles::kDigestValue) {
          const std::string sha = entry.sha256();
          item = nb::str(sha.data(), sha.size());
        } else {
          item = text(fields[i + 1]);
        }
        if (PyDict_SetItem(object.ptr(), text(fields[i]).ptr(), item.ptr()) != 0) throw nb::python_error();
      }
      value = std::move(object);
    }
    if (PyDict_SetItem(out.ptr(), decoded(entry.path()).ptr(), value.ptr()) != 0) throw nb::python_error();
  }
  return out;
}

// The manifest object as a dict (what from_json_object(m.to_dict()) makes).
nb::object data_dict(const Manifest& m) {
  nb::dict out;
  for (const auto& field : m.fields()) {
    nb::object value = field.key() == "files" && m.files_held() ? files_dict(m.files()) : from_json(field.value());
    if (PyDict_SetItem(out.ptr(), decoded(field.key()).ptr(), value.ptr()) != 0) throw nb::python_error();
  }
  return out;
}

nb::dict instance_dict(nb::handle self) { return nb::borrow<nb::dict>(nb::getattr(self, "__dict__")); }

void build(nb::handle self, ManifestFace& face, unsigned group) {
  if (face.built & group) return;
  nb::dict attributes = instance_dict(self);
  const Manifest& m = *face.manifest;
  if (group == kData) {
    nb::object data = data_dict(m);
    attributes["_data"] = data;
    nb::dict as_dict = nb::borrow<nb::dict>(data);
    attributes["files"] = as_dict.contains("files") ? nb::object(as_dict["files"]) : nb::object(nb::dict());
  } else if (group == kTop) {
    for (std::string_view name : kTopNames) {
      const json::value& value = top_value(m, name);
      if (value.is_object() || value.is_array()) {
        // A map or list is the one inside the manifest object, as files is.
        build(self, face, kData);
        nb::object data = attributes["_data"];
        if (nb::isinstance<nb::dict>(data) && nb::borrow<nb::dict>(data).contains(str_of(name))) {
          attributes[str_of(name)] = data[str_of(name)];
          continue;
        }
      }
      attributes[str_of(name)] = from_json(value);
    }
  } else {
    for (std::string_view name : kMembershipNames) attributes[str_of(name)] = from_json_object(membership_map(m, name));
  }
  face.built |= group;
}

// Reached only for attributes not in the face's __dict__: a manifest
// attribute read for the first time, or one that was deleted.
nb::object face_getattr(nb::handle_t<ManifestFace> self, const std::string& name) {
  ManifestFace& face = manifest_face(self);
  unsigned group = group_of(name);
  if (group != 0 && !(face.built & group)) {
    build(self, face, group);
    nb::dict attributes = instance_dict(self);
    if (attributes.contains(str_of(name))) return attributes[str_of(name)];
  }
  throw nb::attribute_error(("'Manifest' object has no attribute '" + name + "'").c_str());
}

nb::object face_to_dict(nb::handle_t<ManifestFace> self) {
  nb::object data = nb::getattr(self, "_data");
  if (PyDict_Check(data.ptr())) return nb::steal(PyDict_Copy(data.ptr()));
  return nb::module_::import_("builtins").attr("dict")(data);
}

std::string face_repr(nb::handle_t<ManifestFace> self) {
  const ManifestFace& face = manifest_face(self);
  // Each piece as the object shows it, else (deleted, or without a length)
  // as the engine's copy has it.
  auto shown = [&](const char* name, const json::value& fallback) {
    try {
      return to_text(nb::repr(nb::getattr(self, name)));
    } catch (nb::python_error&) {
      return python_repr(fallback);
    }
  };
  std::string count = std::to_string(face.manifest->files().size());
  if (face.built & kData) {
    try {
      count = std::to_string(nb::len(nb::getattr(self, "files")));
    } catch (nb::python_error&) {
    }
  }
  return "<Manifest era_number=" + shown("era_number", face.manifest->era_number()) +
         " version=" + shown("version", face.manifest->version()) + " files=" + count + ">";
}

// The number of files and the sum of their usable sizes (an entry without
// a non-negative integer "size_bytes" counts 0 bytes), counted on the
// engine's copy; None once the files map exists in Python, which may have
// been changed since, or when the sum does not fit 64 bits. Summaries of large manifests then never build that map.
std::optional<std::pair<std::int64_t, std::int64_t>> face_file_totals(nb::handle_t<ManifestFace> self) {
  const ManifestFace& face = manifest_face(self);
  if (face.built & kData) return std::nullopt;
  std::int64_t total = 0;
  for (const ManifestFiles::Entry listed : face.manifest->files()) {
    const json::value* info = listed.verbatim();
    if (!info) {
      const std::int64_t size = *listed.size_bytes();
      if (size < 0) continue;
      if (size > INT64_MAX - total) return std::nullopt;
      total += size;
      continue;
    }
    const json::object* entry = as_object(info);
    const json::value* size = entry ? entry->if_contains("size_bytes") : nullptr;
    if (!size) continue;
    if (size->is_uint64()) return std::nullopt;  // past 64 bits: Python adds it exactly
    if (size->is_int64() && size->get_int64() >= 0) {
      if (size->get_int64() > INT64_MAX - total) return std::nullopt;
      total += size->get_int64();
    }
  }
  return std::make_pair(static_cast<std::int64_t>(face.manifest->files().size()), total);
}

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

}  // namespace

nb::object new_manifest_face(ManifestPtr manifest) {
  return nb::cast(ManifestFace{std::move(manifest)}, nb::rv_policy::move);
}

ManifestFace& manifest_face(nb::handle object) {
  if (!nb::isinstance<ManifestFace>(object)) {
    throw nb::type_error(("manifest must be a Manifest, got " + to_text(nb::repr(object.type()))).c_str());
  }
  return nb::cast<ManifestFace&>(object);
}

void show_changed_manifest(nb::handle self, ManifestPtr changed, ManifestChange change) {
  ManifestFace& face = manifest_face(self);
  ManifestPtr before = std::exchange(face.manifest, std::move(changed));
  const Manifest& after = *face.manifest;
  nb::dict attributes = instance_dict(self);
  if (change == ManifestChange::kMembership ||
      (change == ManifestChange::kMembershipIfChanged &&
       (before->found_signals != after.found_signals || before->found_strategies != after.found_strategies ||
        before->useful_signals != after.useful_signals))) {
    for (std::string_view name : kMembershipNames) attributes[str_of(name)] = from_json_object(membership_map(after, name));
    face.built |= kMembership;
  }
  if (change == ManifestChange::kFiles && (face.built & kData)) {
    nb::object files = attributes.contains("files") ? nb::object(attributes["files"]) : nb::object();
    if (!files.is_valid() || !PyDict_Check(files.ptr())) return;
    for (const ManifestFiles::Entry entry : after.files()) {
      std::optional<ManifestFiles::Entry> old = before->files().find(entry.path());
      if (!old || !old->same_info(entry)) files[str_of(entry.path())] = from_json(entry.info());
    }
    for (const ManifestFiles::Entry entry : before->files()) {
      if (!after.files().contains(entry.path()) && PyDict_DelItem(files.ptr(), str_of(entry.path()).ptr()) != 0) {
        PyErr_Clear();
      }
    }
  }
}

void bind_manifest(nb::module_& m) {
  nb::class_<ManifestFace>(m, "Manifest", kManifestDoc, nb::dynamic_attr())
      .def(
          "__init__", [](ManifestFace* self, nb::handle data) { new (self) ManifestFace{manifest_from_dict(data)}; },
          nb::arg("data"), nb::sig("def __init__(self, data: dict[str, typing.Any]) -> None"))
      .def_static(
          "from_dict", [](nb::handle data) { return new_manifest_face(manifest_from_dict(data)); }, nb::arg("data"),
          nb::sig("def from_dict(data: dict[str, typing.Any]) -> Manifest"),
          "Build a Manifest from a manifest object (same validation as the constructor).")
      .def("to_dict", &face_to_dict, nb::sig("def to_dict(self) -> dict[str, typing.Any]"),
           "Return a new shallow copy of the manifest object (_data): a fresh top-level map whose nested maps "
           "are the manifest's own.")
      .def("_file_totals", &face_file_totals,
           nb::sig("def _file_totals(self) -> tuple[int, int] | None"))
      .def("__getattr__", &face_getattr, nb::arg("name"), nb::sig("def __getattr__(self, name: str) -> typing.Any"))
      .def("__repr__", &face_repr);
}

}  // namespace tidewright::sync::bindings
