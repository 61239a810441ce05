// Python face of manifest paths, URLs and the platform tag.
//
// The per-path functions are called in host loops and do a few hundred
// nanoseconds of work; they keep the GIL, since handing it to another thread
// and waiting for it back would cost far more. Functions that scan a whole
// manifest or touch the disk release it.
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <Python.h>

namespace tidewright::sync::bindings {

using namespace nanobind::literals;

namespace {

// An enumeration member stands for its value.
std::string expression_type_text(nb::handle expression_type) {
  if (nb::hasattr(expression_type, "value")) return to_text(expression_type.attr("value"));
  return to_text(expression_type);
}

std::optional<std::string> optional_text(nb::handle object) {
  if (object.is_none()) return std::nullopt;
  return to_text(object);
}

// The "files" map of a manifest-like object (anything with a .files mapping).
json::object manifest_files(nb::handle manifest) {
  nb::object files = manifest.attr("files");
  if (files.is_none()) return {};
  json::value value = to_json(files);
  if (!value.is_object()) throw TypeError("manifest.files must be a mapping of paths to file entries");
  return std::move(value.get_object());
}

struct FeatureQuery {
  json::object files;
  std::string feature_name;
  std::string expression_type;
  std::optional<std::string> named_universe;
  EpochNames epochs;
};

FeatureQuery feature_query(nb::handle manifest, nb::handle feature_name, nb::handle expression_type,
                           nb::handle named_universe) {
  FeatureQuery query;
  query.files = manifest_files(manifest);
  query.feature_name = to_text(feature_name);
  query.expression_type = expression_type_text(expression_type);
  query.named_universe = optional_text(named_universe);
  query.epochs = host().manifest_siblings().epochs;
  return query;
}

std::optional<std::string_view> view_of(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  return std::string_view(*text);
}

}  // namespace

void bind_paths(nb::module_& m) {
  m.def("_detect_platform", &detect_platform,
        "Return this host's platform tag (operating system and processor).");
  m.attr("CURRENT_PLATFORM") = nb::str(current_platform().c_str());

  m.def(
      "_safe_manifest_relative_path",
      [](const TextArg& file_path) { return safe_manifest_relative_path(file_path.text); }, "file_path"_a,
      "Normalize and validate a manifest path before URL/local path use.");

  m.def(
      "_manifest_local_path",
      [](const PathArg& data_dir, const TextArg& file_path) {
        return manifest_local_path(data_dir.text, file_path.text);
      },
      kReleaseGil, "data_dir"_a, "file_path"_a,
      "Resolve a manifest path inside data_dir, rejecting traversal/symlinks.");

  m.def(
      "_feature_epoch_for_expression_type",
      [](nb::handle expression_type) {
        return feature_epoch_for_expression_type(expression_type_text(expression_type),
                                                 host().manifest_siblings().epochs);
      },
      "expression_type"_a.none(), "Return the epoch path segment that holds features of an expression type.");

  m.def(
      "_manifest_feature_relative_path",
      [](nb::handle manifest, Shown<shown::Str> feature_name, nb::handle expression_type, nb::handle named_universe) {
        FeatureQuery q = feature_query(manifest, feature_name, expression_type, named_universe);
        nb::gil_scoped_release release;
        return manifest_feature_relative_path(q.files, q.feature_name, q.expression_type,
                                              view_of(q.named_universe), q.epochs);
      },
      "manifest"_a, nb::kw_only(), "feature_name"_a, "expression_type"_a.none() = "SIGNAL",
      "named_universe"_a.none() = nb::none(), "Return the manifest path of one feature file, or None.");

  m.def(
      "_feature_artifact_family_prefix",
      [](const TextArg& feature_name) { return feature_artifact_family_prefix(feature_name.text); },
      "feature_name"_a, "Return the manifest stem prefix shared by runtime companion features.");

  m.def(
      "_manifest_feature_companion_relative_paths",
      [](nb::handle manifest, Shown<shown::Str> relative_path) {
        json::object files = manifest_files(manifest);
        std::string path = to_text(relative_path);
        std::vector<std::string> paths;
        {
          nb::gil_scoped_release release;
          paths = manifest_feature_companion_relative_paths(files, path);
        }
        return text_tuple(paths);
      },
      "manifest"_a, "relative_path"_a,
      "Return the other manifest files of a feature's runtime family, sorted.");

  m.def(
      "_manifest_feature_prefetch_relative_paths",
      [](nb::handle manifest, Shown<shown::Str> feature_name, nb::handle expression_type, nb::handle named_universe) {
        FeatureQuery q = feature_query(manifest, feature_name, expression_type, named_universe);
        std::vector<std::string> paths;
        {
          nb::gil_scoped_release release;
          paths = manifest_feature_prefetch_relative_paths(q.files, q.feature_name, q.expression_type,
                                                           view_of(q.named_universe), q.epochs);
        }
        return text_tuple(paths);
      },
      "manifest"_a, nb::kw_only(), "feature_name"_a, "expression_type"_a.none() = "SIGNAL",
      "named_universe"_a.none() = nb::none(), "Return a feature's manifest path followed by its companions.");

  // The bearer-transport check calls the host with the GIL held either way.
  m.def(
      "_manifest_file_url",
      [](const TextArg& server_url, const TextArg& file_path, nb::handle base_url) {
        std::optional<std::string> base = optional_text(base_url);
        return manifest_file_url(server_url.text, file_path.text, view_of(base));
      },
      "server_url"_a, "file_path"_a, "base_url"_a.none() = nb::none(), "Build a data-file URL for a manifest path.");

  m.def(
      "_manifest_base_url_uses_public_download",
      [](const TextArg& server_url, nb::handle base_url) {
        std::optional<std::string> base = optional_text(base_url);
        return manifest_base_url_uses_public_download(server_url.text, view_of(base));
      },
      "server_url"_a, "base_url"_a.none(), "Return whether base_url is the server's own data-file endpoint.");

  m.def(
      "_agent_signal_group_key",
      [](const TextArg& file_path, const TextArg& prefix) {
        return agent_signal_group_key(file_path.text, prefix.text, host().manifest_siblings().epochs);
      },
      "file_path"_a, "prefix"_a, "Return the pool-scoped signal group key for current manifest paths.");
}

}  // namespace tidewright::sync::bindings
