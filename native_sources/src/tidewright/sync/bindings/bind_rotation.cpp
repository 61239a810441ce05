// Feature rotation as seen from Python: the catalogue and settings helpers,
// the state files, and the SyncManager's rotation, prefetched-set and
// prefetch methods (added to the class bound in bind_manager.cpp).
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/manifest_face.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/rotation/catalog.hpp"
#include "tidewright/sync/rotation/state.hpp"

#include <Python.h>

#include <nanobind/stl/optional.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

namespace tidewright::sync::bindings {

namespace {

// "_request_feature_files_for_sync_impl": the host's tests call the work
// itself, without the sync lock and the cross-process lock the engine's own
// callers hold.
std::vector<SyncManager::PrefetchedFeatureFile> request_feature_files_unlocked(
    SyncManager& manager, const std::vector<std::string>& feature_names, const std::string& expression_type,
    const std::optional<std::string>& named_universe) NO_THREAD_SAFETY_ANALYSIS {
  return manager.request_feature_files_for_sync_impl(feature_names, expression_type, named_universe);
}

using namespace nanobind::literals;

nb::object rotation_module() {
  return nb::module_::import_("importlib").attr("import_module")(std::string(ARTIFACT_ROTATION_MODULE));
}

nb::tuple tuple_of_json(const json::array& items) {
  nb::list list;
  for (const auto& item : items) list.append(from_json(item));
  return nb::tuple(list);
}

std::vector<std::string> texts(nb::handle iterable) {
  std::vector<std::string> out;
  if (iterable.is_none()) return out;
  if (PyUnicode_Check(iterable.ptr())) {
    out.push_back(to_text(iterable));
    return out;
  }
  for (nb::handle item : iterable) out.push_back(to_text(item));
  return out;
}

// A manifest object: a Manifest's sanitised object, a mapping, or anything
// with to_dict(). None is an empty manifest.
json::object manifest_data_of(nb::handle manifest) {
  if (manifest.is_none()) return {};
  if (nb::isinstance<ManifestFace>(manifest)) return engine_manifest(manifest)->to_dict();
  nb::object source = nb::borrow(manifest);
  if (!PyMapping_Check(manifest.ptr()) && nb::hasattr(manifest, "to_dict")) source = manifest.attr("to_dict")();
  json::value value = to_json(source);
  if (!value.is_object()) {
    throw nb::type_error(("manifest must be a Manifest or a mapping, got " + to_text(nb::repr(manifest.type()))).c_str());
  }
  return std::move(value.get_object());
}

ManifestPtr manifest_of(nb::handle manifest) {
  if (nb::isinstance<ManifestFace>(manifest)) return engine_manifest(manifest);
  return Manifest::from_sanitized(manifest_data_of(manifest));
}

// settings.<name>, else settings[name] for a mapping, else None.
nb::object settings_field(nb::handle settings, const char* name) {
  if (settings.is_none()) return nb::none();
  if (nb::hasattr(settings, name)) return settings.attr(name);
  if (PyMapping_Check(settings.ptr()) && nb::hasattr(settings, "get")) return settings.attr("get")(name);
  return nb::none();
}

json::value json_or_text(nb::handle value) {
  try {
    return to_json(value);
  } catch (nb::python_error&) {
    return json::value(to_text(value));
  }
}

nb::object state_object(const std::optional<json::object>& state) {
  HostRef ref;
  {
    nb::gil_scoped_release release;
    ref = feature_rotation_state_object(state);
  }
  return ref ? nb::borrow(ref_object(ref)) : nb::none();
}

std::string expression_type_text(nb::handle expression_type) {
  if (nb::hasattr(expression_type, "value")) return to_text(expression_type.attr("value"));
  return to_text(expression_type);
}

std::optional<std::string> optional_text(nb::handle value) {
  if (value.is_none()) return std::nullopt;
  return to_text(value);
}

nb::list prefetched_list(const std::vector<SyncManager::PrefetchedFeatureFile>& files) {
  nb::list out;
  for (const auto& f : files) {
    nb::dict item;
    item["feature_name"] = nb::str(f.feature_name.data(), f.feature_name.size());
    item["relative_path"] = nb::str(f.relative_path.data(), f.relative_path.size());
    item["local_path"] = nb::str(f.local_path.data(), f.local_path.size());
    out.append(item);
  }
  return out;
}

nb::set to_set(const std::set<std::string>& items) {
  nb::set out;
  for (const auto& s : items) out.add(nb::str(s.data(), s.size()));
  return out;
}

void bind_module_functions(nb::module_& m) {
  m.attr("_FEATURE_ROTATION_STATE_FILENAME") = std::string(FEATURE_ROTATION_STATE_FILENAME);
  m.attr("_FEATURE_ROTATION_STATE_VERSION") = FEATURE_ROTATION_STATE_VERSION;
  m.attr("_PREFETCHED_FEATURES_FILENAME") = std::string(PREFETCHED_FEATURES_FILENAME);
  m.attr("_PREFETCHED_FEATURES_VERSION") = PREFETCHED_FEATURES_VERSION;

  m.def(
      "_feature_named_universe_from_path",
      [](const TextArg& file_path) { return feature_named_universe_from_path(file_path.text); }, "file_path"_a);
  m.def(
      "_rotation_manifest_default_named_universe",
      [](nb::handle manifest_data) { return rotation_manifest_default_named_universe(manifest_data_of(manifest_data)); },
      "manifest_data"_a.none());
  m.def(
      "_rotation_manifest_default_market",
      [](nb::handle manifest_data) { return rotation_manifest_default_market(manifest_data_of(manifest_data)); },
      "manifest_data"_a.none());
  m.def(
      "_rotation_file_info_with_legacy_scope",
      [](Shown<shown::Str> file_path, Shown<shown::JsonObject> file_info, nb::handle manifest_data) {
        std::string path = to_text(file_path);
        json::value info = to_json(file_info);
        json::object data = manifest_data_of(manifest_data);
        json::value out;
        {
          nb::gil_scoped_release release;
          out = rotation_file_info_with_legacy_scope(path, info, data, host().manifest_siblings());
        }
        return from_json(out);
      },
      "file_path"_a, "file_info"_a, "manifest_data"_a.none());
  m.def(
      "_rotation_artifact_rows",
      [](nb::handle manifest) {
        json::object data = manifest_data_of(manifest);
        json::array rows;
        {
          nb::gil_scoped_release release;
          rows = rotation_artifact_rows(data, host().manifest_siblings());
        }
        return tuple_of_json(rows);
      },
      "manifest"_a.none());
  m.def(
      "_rotation_manifest_artifacts",
      [](nb::handle manifest) {
        json::object data = manifest_data_of(manifest);
        json::array descriptors;
        {
          nb::gil_scoped_release release;
          descriptors = rotation_manifest_artifacts(data, host().manifest_siblings());
        }
        return tuple_of_json(descriptors);
      },
      "manifest"_a.none());
  m.def(
      "_rotation_catalog_context_from_manifest",
      [](nb::handle manifest) {
        json::object data = manifest_data_of(manifest);
        json::object context;
        {
          nb::gil_scoped_release release;
          context = rotation_catalog_context(data, rotation_artifact_rows_for_sync(data, host().manifest_siblings()));
        }
        return from_json(context);
      },
      "manifest"_a.none());
  m.def(
      "_rotation_artifacts_require_scoped_settings",
      [](nb::handle artifacts) {
        json::array items;
        if (!artifacts.is_none()) {
          for (nb::handle artifact : artifacts) items.push_back(to_json(artifact));
        }
        nb::gil_scoped_release release;
        return rotation_artifacts_require_scoped_settings(items, host().manifest_siblings());
      },
      "artifacts"_a.none(),
      "Whether the artifacts include rotating feature artifacts that name a market or a named universe "
      "(artifact kind \"feature\", \"mandatory\" not set): rotation settings for them must configure a scope.");
  m.def(
      "_rotation_feature_budget_bytes",
      [](nb::handle settings) {
        json::value gb = json_or_text(settings_field(settings, "feature_budget_gb"));
        json::value exact = json_or_text(settings_field(settings, "feature_budget_bytes"));
        std::string marker = to_text(rotation_module().attr("FULL_DOWNLOAD"));
        return from_json(rotation_feature_budget_bytes(gb, exact, marker));
      },
      "settings"_a.none(),
      "The rotation budget in bytes: None, FULL_DOWNLOAD, or whole configured GiB (an exact "
      "feature_budget_bytes wins).");
  m.def(
      "_rotation_frequency_seconds",
      [](nb::handle settings_payload) {
        return rotation_frequency_seconds(json_or_text(settings_field(settings_payload, "rotation_frequency")));
      },
      "settings_payload"_a.none());
  m.def(
      "_apply_rotation_result_fields",
      [](nb::handle result, nb::handle selection) {
        json::value plain = to_json(selection);
        if (!plain.is_object()) throw nb::type_error("selection must be a mapping");
        SyncResult r = from_python_result(result);
        apply_rotation_result_fields(r, plain.get_object());
        update_python_result(result, r);
        if (const json::value* eligible = plain.get_object().if_contains("eligible_artifacts");
            eligible && eligible->is_array()) {
          nb::setattr(result, "eligible_artifacts", tuple_of_json(eligible->get_array()));
        }
      },
      "result"_a, "selection"_a);
  m.def(
      "_existing_rotation_paths",
      [](Shown<shown::PathLike> data_dir, nb::handle relative_paths) {
        std::string dir = path_text(data_dir);
        std::vector<std::string> paths = texts(relative_paths);
        std::vector<std::string> out;
        {
          nb::gil_scoped_release release;
          out = existing_rotation_paths(dir, paths);
        }
        return text_tuple(out);
      },
      "data_dir"_a, "relative_paths"_a);

  m.def(
      "feature_rotation_state_path",
      [](const PathArg& data_dir) { return feature_rotation_state_path(data_dir.text); },
      "data_dir"_a, "Path of the persisted feature-rotation state in data_dir.");
  m.def(
      "_prefetched_features_state_path",
      [](const PathArg& data_dir) { return prefetched_features_state_path(data_dir.text); }, "data_dir"_a);
  m.def(
      "load_feature_rotation_state",
      [](Shown<shown::PathLike> data_dir) -> ShownObject<shown::OptionalRotationState> {
        std::string dir = path_text(data_dir);
        std::optional<json::object> state;
        {
          nb::gil_scoped_release release;
          state = load_feature_rotation_state(dir);
        }
        return state_object(state);
      },
      "data_dir"_a, "Load the persisted feature-rotation state of data_dir; None when no rotation has happened yet.");
  m.def(
      "write_feature_rotation_state",
      [](Shown<shown::PathLike> data_dir, Shown<shown::RotationState> state) {
        std::string dir = path_text(data_dir);
        json::value plain;
        try {
          plain = to_json(state);
        } catch (nb::python_error&) {
          throw FeatureRotationStateError("rotation state must be a FeatureRotationState, got " +
                                          to_text(state.type().attr("__name__")));
        }
        nb::gil_scoped_release release;
        return write_feature_rotation_state(dir, plain);
      },
      "data_dir"_a, "state"_a, "Persist a feature-rotation state atomically; returns the path written.");
  m.def(
      "_manifest_era_number_or_none",
      [](nb::handle manifest) -> std::optional<std::int64_t> {
        if (manifest.is_none()) return std::nullopt;
        if (nb::isinstance<ManifestFace>(manifest)) return manifest_era_number_or_none(engine_manifest(manifest).get());
        if (!nb::hasattr(manifest, "era_number")) return std::nullopt;
        return to_int(json_or_text(manifest.attr("era_number")));
      },
      "manifest"_a.none());
  m.def(
      "_manifest_prefetched_feature_paths",
      [](nb::handle manifest, nb::handle paths) {
        if (manifest.is_none()) return nb::tuple();
        ManifestPtr m = manifest_of(manifest);
        std::vector<std::string> given = texts(paths);
        std::vector<std::string> out;
        {
          nb::gil_scoped_release release;
          out = manifest_prefetched_feature_paths(*m, given, host().manifest_siblings());
        }
        return text_tuple(out);
      },
      "manifest"_a.none(), "paths"_a);
}

void bind_manager_methods() {
  nb::handle cls = nb::type<SyncManager>();
  auto property = [&](const char* name, nb::object getter) {
    nb::setattr(cls, name, nb::module_::import_("builtins").attr("property")(getter));
  };

  nb::cpp_function_def(
      [](SyncManager& self, nb::handle manifest, std::int64_t free_disk_bytes) -> nb::object {
        ManifestPtr m = manifest_of(manifest);
        std::optional<json::object> settings;
        {
          nb::gil_scoped_release release;
          settings = self.feature_rotation_settings_for_manifest(*m, free_disk_bytes);
        }
        if (!settings) return nb::none();
        nb::dict kwargs = nb::borrow<nb::dict>(from_json(json::value(*settings)));
        return rotation_module().attr("ArtifactRotationSettings")(**kwargs);
      },
      nb::scope(cls), nb::name("_feature_rotation_settings_for_manifest"), nb::is_method(), "manifest"_a, nb::kw_only(),
      "free_disk_bytes"_a);
  nb::cpp_function_def(
      [](SyncManager& self, nb::handle manifest) {
        if (manifest.is_none()) return nb::set();
        ManifestPtr m = manifest_of(manifest);
        std::set<std::string> paths;
        {
          nb::gil_scoped_release release;
          paths = self.read_prefetched_feature_relative_paths(*m);
        }
        return to_set(paths);
      },
      nb::scope(cls), nb::name("_read_prefetched_feature_relative_paths"), nb::is_method(), "manifest"_a.none());
  nb::cpp_function_def(
      [](SyncManager& self, nb::handle era_number, nb::handle relative_paths) {
        std::optional<std::int64_t> era;
        if (!era_number.is_none()) era = to_int(json_or_text(era_number));
        std::vector<std::string> given = texts(relative_paths);
        nb::gil_scoped_release release;
        self.write_prefetched_feature_relative_paths(era, std::set<std::string>(given.begin(), given.end()));
      },
      nb::scope(cls), nb::name("_write_prefetched_feature_relative_paths"), nb::is_method(), "era_number"_a.none(),
      "relative_paths"_a);
  nb::cpp_function_def(
      [](SyncManager& self, nb::handle manifest, nb::handle relative_paths) {
        if (manifest.is_none()) return;
        ManifestPtr m = manifest_of(manifest);
        std::vector<std::string> given = texts(relative_paths);
        nb::gil_scoped_release release;
        self.remember_prefetched_feature_relative_paths(*m, given);
      },
      nb::scope(cls), nb::name("_remember_prefetched_feature_relative_paths"), nb::is_method(), "manifest"_a.none(),
      "relative_paths"_a);
  nb::cpp_function_def(
      [](SyncManager& self, nb::handle manifest) {
        if (manifest.is_none()) return nb::tuple();
        ManifestPtr m = manifest_of(manifest);
        std::vector<std::string> paths;
        {
          nb::gil_scoped_release release;
          paths = self.prefetched_feature_keep_paths(*m);
        }
        return text_tuple(paths);
      },
      nb::scope(cls), nb::name("_prefetched_feature_keep_paths"), nb::is_method(), "manifest"_a.none());

  auto request = [](bool impl) {
    return [impl](SyncManager& self, Shown<shown::TextList> feature_names, Shown<std::string> expression_type,
                  Shown<std::string> named_universe) -> ShownObject<shown::PrefetchedFiles> {
      std::vector<std::string> names = texts(feature_names);
      std::string expression = expression_type_text(expression_type);
      std::optional<std::string> universe = optional_text(named_universe);
      std::vector<SyncManager::PrefetchedFeatureFile> files;
      {
        nb::gil_scoped_release release;
        files = impl ? request_feature_files_unlocked(self, names, expression, universe)
                     : self.request_feature_files_for_sync(names, expression, universe);
      }
      return prefetched_list(files);
    };
  };
  nb::cpp_function_def(request(false), nb::scope(cls), nb::name("request_feature_files_for_sync"), nb::is_method(),
                       "feature_names"_a, nb::kw_only(), "expression_type"_a = "SIGNAL",
                       "named_universe"_a.none() = nb::none(),
                       "Ensure manifest feature arrow files exist locally for parent dispatch.\n\n"
                       "Returns a list of dicts {feature_name, relative_path, local_path}, one per feature file "
                       "(or runtime companion) now present locally.");
  nb::cpp_function_def(request(true), nb::scope(cls), nb::name("_request_feature_files_for_sync_impl"),
                       nb::is_method(), "feature_names"_a, nb::kw_only(), "expression_type"_a = "SIGNAL",
                       "named_universe"_a.none() = nb::none());

  property("_active_rotation_state",
           nb::cpp_function([](SyncManager& self) { return state_object(self.active_rotation_state()); }));
  property("_prefetched_feature_era_number",
           nb::cpp_function([](SyncManager& self) { return self.prefetched_feature_era_number(); }));
  property("_prefetched_feature_relative_paths",
           nb::cpp_function([](SyncManager& self) { return to_set(self.prefetched_feature_relative_paths()); }));
}

}  // namespace

void bind_rotation(nb::module_& m) {
  bind_module_functions(m);
  bind_manager_methods();
}

}  // namespace tidewright::sync::bindings
