// Python face of manifest sanitisation.
//
// The filters convert only what the decisions need ("files" and
// "artifacts"), decide in C++ without the GIL, and then build the result
// from the caller's own objects: the same dict when nothing changes,
// otherwise a shallow copy whose untouched values are the originals (an
// entry whose "sha256" is rewritten is a copy of the caller's entry).
//
// The platform tag is read from the module's CURRENT_PLATFORM at each call,
// so a host that retags the module is obeyed.
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <Python.h>

#include <unordered_map>
#include <unordered_set>

namespace tidewright::sync::bindings {

using namespace nanobind::literals;

namespace {

std::string module_platform() {
  PyObject* module = PyImport_GetModule(nb::str("tidewright.sync").ptr());
  if (!module) {
    PyErr_Clear();
    return current_platform();
  }
  nb::object m = nb::steal(module);
  if (!nb::hasattr(m, "CURRENT_PLATFORM")) return current_platform();
  return to_text(m.attr("CURRENT_PLATFORM"));
}

// A borrowed item of a dict, or an invalid handle.
nb::handle dict_item(nb::handle dict, const char* key) {
  return nb::handle(PyDict_GetItemString(dict.ptr(), key));
}

std::string_view str_view(nb::handle object) {
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(object.ptr(), &size);
  if (!data) throw nb::python_error();
  return {data, static_cast<std::size_t>(size)};
}

void set_item(nb::handle dict, nb::handle key, nb::handle value) {
  if (PyDict_SetItem(dict.ptr(), key.ptr(), value.ptr()) != 0) throw nb::python_error();
}

nb::object new_dict() {
  PyObject* dict = PyDict_New();
  if (!dict) throw nb::python_error();
  return nb::steal(dict);
}

nb::object copy_dict(nb::handle dict) {
  PyObject* copy = PyDict_Copy(dict.ptr());
  if (!copy) throw nb::python_error();
  return nb::steal(copy);
}

nb::object new_list() {
  PyObject* list = PyList_New(0);
  if (!list) throw nb::python_error();
  return nb::steal(list);
}

void append(nb::handle list, nb::handle item) {
  if (PyList_Append(list.ptr(), item.ptr()) != 0) throw nb::python_error();
}

using ViewSet = std::unordered_set<std::string_view>;

bool is_member(nb::handle item, const ViewSet& set) {
  return PyUnicode_Check(item.ptr()) && set.contains(str_view(item));
}

// The found section with retired paths taken out of its entries' "files"
// lists; entries that held none are shared with the input.
nb::object rewritten_found_section(nb::handle section, const ViewSet& retired) {
  nb::object out = new_dict();
  PyObject* key = nullptr;
  PyObject* entry = nullptr;
  Py_ssize_t pos = 0;
  while (PyDict_Next(section.ptr(), &pos, &key, &entry)) {
    nb::handle files = PyDict_Check(entry) ? dict_item(entry, "files") : nb::handle();
    bool touched = false;
    if (files.is_valid() && PyList_Check(files.ptr())) {
      for (nb::handle item : nb::borrow<nb::list>(files)) touched = touched || is_member(item, retired);
    }
    if (!touched) {
      set_item(out, key, entry);
      continue;
    }
    nb::object kept = new_list();
    for (nb::handle item : nb::borrow<nb::list>(files)) {
      if (!is_member(item, retired)) append(kept, item);
    }
    nb::object rewritten = copy_dict(entry);
    set_item(rewritten, nb::str("files"), kept);
    set_item(out, key, rewritten);
  }
  return out;
}

nb::object run_filters(nb::dict data, unsigned filters) {
  // Only what the decisions read is converted; the plan's views point into it.
  json::object inputs;
  nb::handle files = dict_item(data, "files");
  if (files.is_valid() && PyDict_Check(files.ptr())) inputs.emplace("files", to_json(files));
  nb::handle artifacts = dict_item(data, "artifacts");
  if ((filters & kDropUnsupportedRuntimeModules) && artifacts.is_valid() && PyList_Check(artifacts.ptr())) {
    inputs.emplace("artifacts", to_json(artifacts));
  }
  ManifestSiblings siblings = (filters & kDropUnsupportedRuntimeModules) ? host().manifest_siblings()
                                                                         : default_manifest_siblings();
  SanitizePlan plan;
  {
    nb::gil_scoped_release release;
    plan = plan_manifest_sanitization(inputs, siblings, filters);
  }
  if (!plan.changes_anything()) return nb::borrow(data);

  nb::object out = copy_dict(data);

  ViewSet dropped(plan.dropped_files.begin(), plan.dropped_files.end());
  std::unordered_map<std::string_view, const std::string*> digests;
  for (const auto& [path, digest] : plan.sha256_rewrites) digests.emplace(path, &digest);
  nb::object kept_files = new_dict();
  if (files.is_valid() && PyDict_Check(files.ptr())) {
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(files.ptr(), &pos, &key, &value)) {
      if (is_member(key, dropped)) continue;
      auto digest = digests.empty() || !PyUnicode_Check(key) ? digests.end() : digests.find(str_view(key));
      if (digest == digests.end() || !PyDict_Check(value)) {
        set_item(kept_files, key, value);
        continue;
      }
      nb::object entry = copy_dict(value);
      set_item(entry, nb::str("sha256"), nb::str(digest->second->c_str(), digest->second->size()));
      set_item(kept_files, key, entry);
    }
  }
  set_item(out, nb::str("files"), kept_files);

  if (!plan.dropped_artifacts.empty()) {
    nb::object kept = new_list();
    std::size_t next = 0;
    Py_ssize_t size = PyList_GET_SIZE(artifacts.ptr());
    for (Py_ssize_t i = 0; i < size; ++i) {
      if (next < plan.dropped_artifacts.size() && plan.dropped_artifacts[next] == static_cast<std::size_t>(i)) {
        ++next;
        continue;
      }
      append(kept, PyList_GET_ITEM(artifacts.ptr(), i));
    }
    set_item(out, nb::str("artifacts"), kept);
  }

  if (!plan.retired_found_paths.empty()) {
    ViewSet retired(plan.retired_found_paths.begin(), plan.retired_found_paths.end());
    for (const char* name : {"found_signals", "found_strategies"}) {
      nb::handle section = dict_item(data, name);
      if (section.is_valid() && PyDict_Check(section.ptr())) {
        set_item(out, nb::str(name), rewritten_found_section(section, retired));
      }
    }
  }
  return out;
}

// The "files" map of a manifest object as plain data (empty when absent).
json::object files_only(nb::dict data) {
  json::object out;
  nb::handle files = dict_item(data, "files");
  if (files.is_valid() && PyDict_Check(files.ptr())) out.emplace("files", to_json(files));
  return out;
}

}  // namespace

void bind_sanitize(nb::module_& m) {
  {
    nb::object names = nb::steal(PyFrozenSet_New(nullptr));
    if (!names.is_valid()) throw nb::python_error();
    for (std::string_view name : RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES) {
      if (PySet_Add(names.ptr(), nb::str(name.data(), name.size()).ptr()) != 0) throw nb::python_error();
    }
    m.attr("_RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES") = names;
    nb::list suffixes;
    for (std::string_view suffix : RUNTIME_MODULE_EXTENSION_SUFFIXES) suffixes.append(nb::str(suffix.data(), suffix.size()));
    m.attr("_RUNTIME_MODULE_EXTENSION_SUFFIXES") = nb::tuple(suffixes);
  }

  // Per-file predicates: cheap, called in host loops, so the GIL is kept.
  m.def(
      "_is_agent_bundle_declaration_file",
      [](nb::handle file_path, nb::handle file_info) {
        return is_agent_bundle_declaration_file(to_text(file_path), to_json(file_info));
      },
      "file_path"_a, "file_info"_a.none(), "Return whether a manifest file declares an agent bundle.");
  m.def(
      "_is_unsupported_runtime_module_file",
      [](nb::handle file_path, nb::handle file_info) {
        return is_unsupported_runtime_module_file(to_text(file_path), to_json(file_info),
                                                  host().manifest_siblings());
      },
      "file_path"_a, "file_info"_a.none(), "Return whether a manifest file is a runtime module this client cannot use.");
  m.def(
      "_retired_unsupported_runtime_module_name_from_path",
      [](nb::handle file_path) {
        return retired_unsupported_runtime_module_name_from_path(to_text(file_path), module_platform());
      },
      "file_path"_a, "Return the retired runtime module a path names for this platform, or None.");
  m.def(
      "_is_retired_unsupported_runtime_module_path",
      [](nb::handle file_path) {
        return is_retired_unsupported_runtime_module_path(to_text(file_path), module_platform());
      },
      "file_path"_a, "Return whether a path is a retired runtime module for this platform.");
  m.def(
      "_is_retired_found_pnl_long_file",
      [](nb::handle file_path) { return is_retired_found_pnl_long_file(to_text(file_path)); }, "file_path"_a,
      "Return whether a path is a retired long-format found-PnL file.");
  m.def(
      "_rotation_file_is_platform_excluded",
      [](nb::handle file_path, nb::handle file_info) {
        return rotation_file_is_platform_excluded(to_text(file_path), to_json(file_info),
                                                  host().manifest_siblings(), module_platform());
      },
      "file_path"_a, "file_info"_a.none(), "Return whether a runtime-module file is built for another platform.");
  m.def(
      "_manifest_file_is_sync_excluded",
      [](nb::handle file_path, nb::handle file_info) {
        return manifest_file_is_sync_excluded(to_text(file_path), to_json(file_info), host().manifest_siblings(),
                                              module_platform());
      },
      "file_path"_a, "file_info"_a.none(), "Return whether sync skips a manifest file while keeping it listed.");

  m.def(
      "_drop_agent_bundle_declaration_files",
      [](nb::dict manifest_data) { return run_filters(manifest_data, kDropAgentBundleDeclarations); },
      "manifest_data"_a, "Return the manifest without agent-bundle declaration files.");
  m.def(
      "_drop_unsupported_runtime_module_files",
      [](nb::dict manifest_data) { return run_filters(manifest_data, kDropUnsupportedRuntimeModules); },
      "manifest_data"_a, "Return the manifest without runtime modules this client cannot use.");
  m.def(
      "_drop_retired_found_pnl_long_files",
      [](nb::dict manifest_data) { return run_filters(manifest_data, kDropRetiredFoundPnlLong); },
      "manifest_data"_a, "Return the manifest without retired long-format found-PnL files.");
  m.def(
      "_sanitize_manifest_data_for_sync",
      [](nb::dict manifest_data) { return run_filters(manifest_data, kAllSanitizeFilters); },
      "manifest_data"_a,
      "Return the manifest without the entries this client never syncs.\n\n"
      "Beyond the three filters, entries that cannot be synced safely are handled here: a path naming one of "
      "the engine's own files, or two paths reaching one local file, raise ManifestError; an entry that is not an "
      "object, has a sha256 that is not 64 hexadecimal digits, an unusable size_bytes or a NaN/infinite number "
      "is left out; a sha256 in capitals or with blanks is rewritten stripped and lower-cased.");

  m.def(
      "_manifest_has_agent_bundle_declarations",
      [](nb::dict manifest_data) {
        json::object data = files_only(manifest_data);
        nb::gil_scoped_release release;
        return manifest_has_agent_bundle_declarations(data);
      },
      "manifest_data"_a, "Return whether a manifest lists agent-bundle declaration files.");
  m.def(
      "_manifest_has_retired_found_pnl_long_files",
      [](nb::dict manifest_data) {
        json::object data = files_only(manifest_data);
        nb::gil_scoped_release release;
        return manifest_has_retired_found_pnl_long_files(data);
      },
      "manifest_data"_a, "Return whether a manifest lists retired long-format found-PnL files.");
}

}  // namespace tidewright::sync::bindings
