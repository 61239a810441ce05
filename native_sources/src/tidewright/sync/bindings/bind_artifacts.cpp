// Era artifacts as module-level functions: vocabularies, functions file,
// signals index, found PnL membership and the shuffle seed.
#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/artifacts/functions_file.hpp"
#include "tidewright/sync/artifacts/functions_vocabulary.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/bindings/annotations.hpp"
#include "tidewright/sync/bindings/bindings.hpp"
#include "tidewright/sync/bindings/convert.hpp"
#include "tidewright/sync/bindings/manifest_face.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

namespace tidewright::sync::bindings {

namespace {

std::optional<std::string> opt_text(nb::handle v) {
  if (v.is_none()) return std::nullopt;
  return to_text(v);
}

std::string bytes_of(nb::handle data) {
  if (PyBytes_Check(data.ptr())) {
    return std::string(PyBytes_AS_STRING(data.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(data.ptr())));
  }
  if (PyByteArray_Check(data.ptr()) || PyMemoryView_Check(data.ptr())) {
    nb::object b = nb::steal(PyBytes_FromObject(data.ptr()));
    if (!b.is_valid()) throw nb::python_error();
    return bytes_of(b);
  }
  if (PyUnicode_Check(data.ptr())) return to_text(data);
  throw nb::type_error("expected bytes");
}

std::int64_t era_of(nb::handle v) {
  std::optional<std::int64_t> n = to_int(to_json(v));
  if (!n) throw nb::value_error(("invalid era number: " + to_text(nb::repr(v))).c_str());
  return *n;
}

json::object files_of(nb::handle manifest) {
  nb::object files = manifest.attr("files");
  json::value v = to_json(files);
  return v.is_object() ? std::move(v.get_object()) : json::object();
}

std::vector<std::string> string_list(nb::handle items) {
  std::vector<std::string> out;
  for (nb::handle item : items) out.push_back(to_text(item));
  return out;
}

nb::object section_kinds_map(std::initializer_list<std::pair<const char*, std::vector<const char*>>> entries,
                             bool tuple_values) {
  nb::dict d;
  for (const auto& [key, kinds] : entries) {
    if (tuple_values) {
      nb::list l;
      for (const char* k : kinds) l.append(nb::str(k));
      d[key] = nb::tuple(l);
    } else {
      d[key] = nb::str(kinds.front());
    }
  }
  return d;
}

}  // namespace

void bind_artifacts(nb::module_& m) {
  // Vocabularies.
  nb::list required;
  for (const auto& k : REQUIRED_VOCABULARY_KEYS) required.append(nb::str(k.c_str()));
  m.attr("_REQUIRED_VOCABULARY_KEYS") = nb::tuple(required);
  m.def("_validate_named_universe", [](nb::handle v) {
    json::value value = to_json(v);
    return validate_named_universe(value);
  });
  m.def("_iter_vocabulary_entry_names", [](nb::handle v) {
    json::value value = to_json(v);
    nb::list names;
    for (auto& n : vocabulary_entry_names(value)) names.append(nb::str(n.c_str(), n.size()));
    return nb::iter(names);
  });
  m.def("_retired_function_names_in_vocabulary", [](nb::handle v) {
    json::value value = to_json(v);
    if (!value.is_object()) return std::vector<std::string>{};
    return retired_function_names_in_vocabulary(value.get_object(), host().manifest_siblings());
  });
  m.def("_validate_no_retired_function_tokens", [](nb::handle v) {
    json::value value = to_json(v);
    if (value.is_object()) validate_no_retired_function_tokens(value.get_object(), host().manifest_siblings());
  });
  m.def(
      "_validate_vocabulary_data",
      [](Shown<shown::JsonObject> vocabulary, Shown<shown::Int> era, nb::handle universe) {
        json::value value = to_json(vocabulary);
        json::object out = validate_vocabulary_data(value, era_of(era), opt_text(universe), host().manifest_siblings());
        return from_json(json::value(std::move(out)));
      },
      nb::arg("vocabulary"), nb::arg("expected_era_number"), nb::arg("named_universe") = nb::none());
  m.def(
      "_validate_vocabulary_bytes",
      [](Shown<shown::Bytes> data, Shown<shown::Int> era, nb::handle universe) {
        std::string bytes = bytes_of(data);
        json::object out = validate_vocabulary_bytes(bytes, era_of(era), opt_text(universe), host().manifest_siblings());
        return from_json(json::value(std::move(out)));
      },
      nb::arg("data"), nb::arg("expected_era_number"), nb::arg("named_universe") = nb::none());
  m.def(
      "_validate_vocabulary_file",
      [](Shown<shown::PathLike> path, Shown<shown::Int> era, nb::handle universe) {
        std::string p = path_text(path);
        json::object out = validate_vocabulary_file(p, era_of(era), opt_text(universe), host().manifest_siblings());
        return from_json(json::value(std::move(out)));
      },
      nb::arg("path"), nb::arg("expected_era_number"), nb::arg("named_universe") = nb::none());
  m.def("_vocabulary_named_universe_from_path",
        [](const std::string& path) { return vocabulary_named_universe_from_path(path); }, nb::arg("file_path"));
  m.def("_vocabulary_manifest_paths",
        [](Shown<shown::ManifestType> manifest) { return vocabulary_manifest_paths(files_of(manifest)); },
        nb::arg("manifest"));
  m.def(
      "_validate_manifest_vocabulary_files",
      [](const std::string& data_dir, ManifestArg face) {
        ManifestPtr manifest = engine_manifest(face);
        json::object out;
        {
          nb::gil_scoped_release release;
          out = validate_manifest_vocabulary_files(data_dir, *manifest);
        }
        return from_json(json::value(std::move(out)));
      },
      nb::arg("data_dir"), nb::arg("manifest"));
  // The engine's own merge, whatever the sibling module holds (for checks
  // that it answers as the module's default does).
  m.def(
      "_native_merge_functions_vocabulary",
      [](nb::handle functions, nb::handle vocabulary, nb::handle named_universe, nb::handle expected_era_number) {
        std::optional<std::int64_t> era;
        if (!expected_era_number.is_none()) era = nb::cast<std::int64_t>(expected_era_number);
        return from_json(merge_functions_vocabulary(to_json(functions), to_json(vocabulary), opt_text(named_universe), era));
      },
      nb::kw_only(), nb::arg("functions").none(), nb::arg("vocabulary").none(),
      nb::arg("named_universe").none() = nb::none(), nb::arg("expected_era_number").none() = nb::none());
  m.def("_first_vocabulary_metadata", [](nb::handle vocabularies) {
    json::value v = to_json(vocabularies);
    return from_json(json::value(v.is_object() ? first_vocabulary_metadata(v.get_object()) : json::object()));
  });

  // Functions file and signals index.
  m.attr("_LEGACY_SIGNALS_INDEX_RELATIVE_PATH") = LEGACY_SIGNALS_INDEX_RELATIVE_PATH;
  m.attr("_SIGNALS_INDEX_VERSIONED_RE") = nb::module_::import_("re").attr("compile")(SIGNALS_INDEX_VERSIONED_RE);
  m.attr("_SIGNALS_INDEX_SECTIONS") = nb::make_tuple("found_signals", "found_strategies", "useful_signals");
  m.def(
      "_validate_functions_file",
      [](const std::string& data_dir, ManifestArg face) {
        ManifestPtr manifest = engine_manifest(face);
        json::object out;
        {
          nb::gil_scoped_release release;
          out = validate_functions_file(data_dir, *manifest, host().manifest_siblings());
        }
        return from_json(json::value(std::move(out)));
      },
      nb::arg("data_dir"), nb::arg("manifest"));
  m.def("_manifest_signals_index_path",
        [](ManifestArg face) { return manifest_signals_index_path(*engine_manifest(face)); }, nb::arg("manifest"));
  m.def(
      "_manifest_data_signals_index_path",
      [](Shown<shown::JsonObject> data) {
        json::value v = to_json(data);
        static const json::object kNoFiles;
        const json::object* obj = as_object(&v);
        const json::value* pointer = obj ? obj->if_contains("signals_index") : nullptr;
        const json::object* files = obj ? as_object(obj->if_contains("files")) : nullptr;
        return manifest_signals_index_path(pointer ? *pointer : json::value(nullptr), files ? *files : kNoFiles);
      },
      nb::arg("manifest_data"));
  m.def(
      "_validate_signals_index_bytes",
      [](Shown<shown::Bytes> body, ManifestArg face) {
        std::string bytes = bytes_of(body);
        json::object index = change_manifest(face, ManifestChange::kMembership, [&](Manifest& manifest) {
          return validate_signals_index_bytes(bytes, manifest);
        });
        return from_json_object(index);
      },
      nb::arg("body"), nb::arg("manifest"));
  m.def(
      "_apply_manifest_signals_index",
      [](ManifestArg face, Shown<shown::JsonObject> index) {
        json::value v = to_json(index);
        change_manifest(face, ManifestChange::kMembership,
                        [&](Manifest& manifest) { apply_manifest_signals_index(v, manifest); });
      },
      nb::arg("manifest"), nb::arg("index_data").none());
  m.def(
      "_load_manifest_signals_index",
      [](const std::string& data_dir, ManifestArg face, std::optional<std::string> fallback) {
        return change_manifest(face, ManifestChange::kMembershipIfChanged, [&](Manifest& manifest) {
          return load_manifest_signals_index(data_dir, manifest, fallback);
        });
      },
      nb::arg("data_dir"), nb::arg("manifest"), nb::arg("fallback_data_dir") = nb::none());

  // Found PnL membership.
  m.attr("_FOUND_SIGNAL_PNL_KIND") = FOUND_SIGNAL_PNL_KIND;
  m.attr("_FOUND_STRATEGY_EPOCH_PNL_KIND") = FOUND_STRATEGY_EPOCH_PNL_KIND;
  m.attr("_USEFUL_SIGNAL_OS_PNL_KIND") = USEFUL_SIGNAL_OS_PNL_KIND;
  m.attr("_USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND") = USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND;
  m.attr("_FOUND_PNL_FILE_KINDS") =
      nb::module_::import_("builtins").attr("frozenset")(nb::make_tuple(FOUND_SIGNAL_PNL_KIND, FOUND_STRATEGY_EPOCH_PNL_KIND));
  m.attr("_FOUND_PNL_SECTION_KINDS") = section_kinds_map(
      {{"found_signals", {FOUND_SIGNAL_PNL_KIND}}, {"found_strategies", {FOUND_STRATEGY_EPOCH_PNL_KIND}}}, false);
  m.attr("_RECOVERABLE_SIGNAL_PNL_SECTION_KINDS") = section_kinds_map(
      {{"found_signals", {FOUND_SIGNAL_PNL_KIND}},
       {"found_strategies", {FOUND_STRATEGY_EPOCH_PNL_KIND}},
       {"useful_signals", {USEFUL_SIGNAL_OS_PNL_KIND, USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND}}},
      true);
  m.def("_found_pnl_section_for_path", [](nb::handle path) { return found_pnl_section_for_path(to_text(path)); },
        nb::arg("path"));
  m.def(
      "_is_manifest_found_pnl_file",
      [](const std::string& path, nb::handle info) { return is_manifest_found_pnl_file(path, to_json(info)); },
      nb::arg("file_path"), nb::arg("file_info"));
  m.def("_membership_referenced_files", [](nb::handle section) {
    nb::set out;
    for (const auto& p : membership_referenced_files(to_json(section))) out.add(nb::str(p.c_str(), p.size()));
    return out;
  });
  m.def("_normalize_found_pnl_paths", [](nb::handle paths) {
    nb::set out;
    for (const auto& p : normalize_found_pnl_paths(string_list(paths))) out.add(nb::str(p.c_str(), p.size()));
    return out;
  });
  m.def("_drop_missing_found_pnl_paths", [](nb::handle data, nb::handle missing) {
    json::value v = to_json(data);
    if (!v.is_object()) return nb::borrow(data);
    return from_json(json::value(drop_missing_found_pnl_paths(v.get_object(), string_list(missing))));
  });
  m.def(
      "_scrub_missing_found_pnl_paths_from_signals_index",
      [](const std::string& data_dir, Shown<shown::JsonObject> data, nb::handle missing) -> nb::object {
        json::value v = to_json(data);
        if (!v.is_object()) return nb::none();
        json::object obj = std::move(v.get_object());
        auto update = scrub_missing_found_pnl_paths_from_signals_index(data_dir, obj, string_list(missing));
        if (!update) return nb::none();
        // Write the rewritten manifest back into the caller's dict.
        nb::dict target = nb::borrow<nb::dict>(data);
        target.clear();
        for (auto item : nb::borrow<nb::dict>(from_json(json::value(obj)))) target[item.first] = item.second;
        nb::dict out;
        out["old_relative_path"] = update->old_relative_path;
        out["new_relative_path"] = update->new_relative_path;
        out["local_path"] = update->local_path;
        out["sha256"] = update->sha256;
        return out;
      },
      nb::arg("data_dir"), nb::arg("manifest_data"), nb::arg("missing_paths"));
  m.def(
      "_validate_membership_referenced_found_pnl_kinds",
      [](nb::handle data) {
        json::value v = to_json(data);
        static const json::object kEmpty;
        const json::object* obj = as_object(&v);
        if (!obj) return;
        const json::object* files = as_object(obj->if_contains("files"));
        validate_membership_referenced_found_pnl_kinds(*obj, files ? *files : kEmpty);
      },
      nb::arg("manifest_data"));

  // Shuffle seed.
  m.attr("SHUFFLE_KEY_GENERATION_MARKET_ERA_V1") = SHUFFLE_KEY_GENERATION_MARKET_ERA_V1;
  m.attr("DEFAULT_SHUFFLE_KEY_GENERATION") = DEFAULT_SHUFFLE_KEY_GENERATION;
  m.attr("RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1") = RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1;
  m.attr("SHUFFLE_KEY_GENERATION_HEADER") = SHUFFLE_KEY_GENERATION_HEADER;
  m.attr("SHUFFLE_KEY_SOURCE_HEADER") = SHUFFLE_KEY_SOURCE_HEADER;
  m.def("_shuffle_seed_meta_path", [](const std::string& path) { return shuffle_seed_meta_path(path); });
  m.def("_header_value", [](nb::handle headers, const std::string& name) -> nb::object {
    nb::object items = nb::hasattr(headers, "items") ? headers.attr("items")() : nb::borrow(headers);
    for (nb::handle pair : items) {
      nb::object key = pair[nb::int_(0)];
      if (to_text(key.attr("lower")()) == to_text(nb::str(name.c_str()).attr("lower")())) {
        return nb::borrow(pair[nb::int_(1)]);
      }
    }
    return nb::none();
  });
  m.def(
      "_validate_response_era_header",
      [](Shown<shown::JsonObject> headers, std::int64_t expected, const std::string& artifact) {
        HeaderList list;
        nb::object items = nb::hasattr(headers, "items") ? headers.attr("items")() : nb::borrow(headers);
        for (nb::handle pair : items) list.emplace_back(to_text(pair[nb::int_(0)]), to_text(pair[nb::int_(1)]));
        validate_response_era_header(list, expected, artifact);
      },
      nb::arg("headers"), nb::arg("expected_era_number"), nb::arg("artifact"));
  m.def("_coerce_shuffle_key_generation", [](nb::handle v) { return coerce_shuffle_key_generation(to_json(v)); });
  m.def("_coerce_shuffle_key_source", [](nb::handle v) { return coerce_shuffle_key_source(to_json(v)); });
  m.def("_manifest_positive_int", [](ManifestArg face, const std::string& field) {
    return manifest_positive_int(*engine_manifest(face), field.c_str());
  });
  m.def("_shuffle_seed_market_id_for_manifest",
        [](ManifestArg face) { return manifest_positive_int(*engine_manifest(face), "market_id"); });
  m.def("_shuffle_seed_manifest_version",
        [](ManifestArg face) { return manifest_positive_int(*engine_manifest(face), "version"); });
  m.def("_shuffle_seed_generation_for_manifest",
        [](ManifestArg face) { return shuffle_seed_generation_for_manifest(*engine_manifest(face)); });
  m.def("_shuffle_seed_source_for_manifest",
        [](ManifestArg face) { return shuffle_seed_source_for_manifest(*engine_manifest(face)); });
  m.def(
      "_write_shuffle_seed_metadata",
      [](const std::string& path, std::int64_t era, std::optional<std::int64_t> market_id,
         std::optional<std::int64_t> manifest_version, nb::handle generation, nb::handle source) {
        std::optional<json::value> g, s;
        if (!generation.is_none()) g = to_json(generation);
        if (!source.is_none()) s = to_json(source);
        write_shuffle_seed_metadata(path, era, market_id, manifest_version, g, s);
      },
      nb::arg("path"), nb::arg("era_number"), nb::kw_only(), nb::arg("market_id") = nb::none(),
      nb::arg("manifest_version") = nb::none(), nb::arg("shuffle_key_generation") = nb::none(),
      nb::arg("shuffle_key_source") = nb::none());
  m.def("_validate_shuffle_seed_bytes", [](nb::handle data) { validate_shuffle_seed_bytes(bytes_of(data)); });
  m.def(
      "_validate_shuffle_seed_file",
      [](const std::string& path, std::optional<std::int64_t> era, std::optional<std::int64_t> market_id,
         std::optional<std::int64_t> version, std::optional<std::string> generation) {
        nb::gil_scoped_release release;
        validate_shuffle_seed_file(path, ShuffleSeedExpectations{era, market_id, version, generation});
      },
      nb::arg("path"), nb::arg("expected_era_number") = nb::none(), nb::kw_only(),
      nb::arg("expected_market_id") = nb::none(), nb::arg("expected_manifest_version") = nb::none(),
      nb::arg("expected_shuffle_key_generation") = nb::none());
}

}  // namespace tidewright::sync::bindings
