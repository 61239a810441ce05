#include "tidewright/sync/artifacts/vocabulary.hpp"

#include "tidewright/sync/artifacts/functions_file.hpp"
#include "tidewright/sync/artifacts/functions_vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <set>
#include <utility>

namespace tidewright::sync {

namespace {

void walk_names(const json::value& value, std::vector<std::string>& out) {
  if (value.is_object()) {
    const json::object& obj = value.get_object();
    if (const json::value* name = obj.if_contains("name"); name && name->is_string()) {
      out.emplace_back(name->get_string());
    }
    for (const auto& kv : obj) walk_names(kv.value(), out);
    // Keys are always text, and walking text yields nothing.
  } else if (value.is_array()) {
    for (const auto& item : value.get_array()) walk_names(item, out);
  }
}

std::string text_form(const json::value& value) { return python_str(value); }

}  // namespace

bool json_equals_int(const json::value& value, std::int64_t expected) {
  switch (value.kind()) {
    case json::kind::int64: return value.get_int64() == expected;
    case json::kind::uint64: return expected >= 0 && value.get_uint64() == static_cast<std::uint64_t>(expected);
    case json::kind::double_: return value.get_double() == static_cast<double>(expected);
    case json::kind::bool_: return (value.get_bool() ? 1 : 0) == expected;
    default: return false;
  }
}

std::string validate_named_universe(const json::value& named_universe) {
  std::string name = strip_ws(text_form(named_universe));
  if (name.empty()) throw SyncError("named_universe is required");
  if (name == "." || name == ".." || name.find('/') != std::string::npos || name.find('\\') != std::string::npos ||
      name.find('\0') != std::string::npos) {
    throw SyncError("named_universe must be a single safe path segment: " + python_repr(std::string_view(name)));
  }
  return name;
}

std::vector<std::string> vocabulary_entry_names(const json::value& value) {
  std::vector<std::string> out;
  walk_names(value, out);
  return out;
}

std::vector<std::string> retired_function_names_in_vocabulary(const json::object& vocabulary,
                                                              const ManifestSiblings& siblings) {
  std::set<std::string> names;
  for (const char* section : {"rotations", "filtrations", "reductions", "aggregations", "functions"}) {
    const json::value* v = vocabulary.if_contains(section);
    if (!v) continue;
    for (auto& name : vocabulary_entry_names(*v)) {
      if (siblings.is_retired_public_function_token_name(name)) names.insert(name);
    }
  }
  return {names.begin(), names.end()};
}

void validate_no_retired_function_tokens(const json::object& vocabulary, const ManifestSiblings& siblings) {
  std::vector<std::string> names = retired_function_names_in_vocabulary(vocabulary, siblings);
  if (names.empty()) return;
  std::string listed;
  for (std::size_t i = 0; i < names.size() && i < 5; ++i) {
    if (i) listed += ", ";
    listed += names[i];
  }
  if (names.size() > 5) listed += " (+" + std::to_string(names.size() - 5) + " more)";
  throw SyncError("vocabulary.json contains retired function token ids " + listed +
                  "; regenerate the era distribution with DB-token vocabulary");
}

namespace {

// Throws the error of the first check `vocabulary` fails; it is left as it
// is, so that it is the validated form when this returns.
void check_vocabulary_object(const json::object& vocabulary, std::int64_t expected_era_number,
                             const std::optional<std::string>& named_universe, const ManifestSiblings& siblings) {
  std::vector<std::string> missing;
  for (const auto& key : REQUIRED_VOCABULARY_KEYS) {
    if (!vocabulary.contains(key)) missing.push_back(key);
  }
  if (!vocabulary.contains("era_number")) missing.emplace_back("era_number");
  if (!missing.empty()) {
    std::sort(missing.begin(), missing.end());
    json::array listed;
    for (auto& m : missing) listed.emplace_back(m);
    throw SyncError("vocabulary.json missing required keys: " + python_repr(json::value(listed)));
  }
  const json::value& era = vocabulary.at("era_number");
  if (!json_equals_int(era, expected_era_number)) {
    throw EraError("vocabulary.json era_number=" + text_form(era) + " does not match manifest era_number=" +
                   std::to_string(expected_era_number));
  }
  const json::value& metadata = vocabulary.at("metadata");
  if (!metadata.is_object()) throw SyncError("vocabulary.json metadata must be an object");
  validate_named_universe(vocabulary.at("named_universe"));
  if (named_universe) {
    const json::value& top = vocabulary.at("named_universe");
    if (!top.is_string() || top.get_string() != *named_universe) {
      throw SyncError("vocabulary.json named_universe does not match manifest path " +
                      python_repr(std::string_view(*named_universe)));
    }
    const json::value* meta_name = metadata.get_object().if_contains("named_universe");
    if (!meta_name || !meta_name->is_string() || meta_name->get_string() != *named_universe) {
      throw SyncError("vocabulary.json metadata.named_universe does not match manifest path " +
                      python_repr(std::string_view(*named_universe)));
    }
  }
  validate_no_retired_function_tokens(vocabulary, siblings);
}

}  // namespace

json::object validate_vocabulary_data(const json::value& vocabulary, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings) {
  if (!vocabulary.is_object()) throw SyncError("vocabulary.json must contain a JSON object");
  check_vocabulary_object(vocabulary.get_object(), expected_era_number, named_universe, siblings);
  return vocabulary.get_object();  // the caller's object stays as it was
}

json::object validate_vocabulary_data(json::value&& vocabulary, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings) {
  if (!vocabulary.is_object()) throw SyncError("vocabulary.json must contain a JSON object");
  check_vocabulary_object(vocabulary.get_object(), expected_era_number, named_universe, siblings);
  return std::move(vocabulary.get_object());
}

json::object validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_number,
                                       const std::optional<std::string>& named_universe,
                                       const ManifestSiblings& siblings) {
  json::value parsed;
  try {
    parsed = parse_json(data);
  } catch (const JsonParseError& e) {
    throw SyncError(std::string("vocabulary.json is not valid JSON: ") + e.what());
  }
  // The parsed form becomes the validated one: a vocabulary is held once.
  return validate_vocabulary_data(std::move(parsed), expected_era_number, named_universe, siblings);
}

json::object validate_vocabulary_file(const std::string& path, std::int64_t expected_era_number,
                                      const std::optional<std::string>& named_universe,
                                      const ManifestSiblings& siblings) {
  if (!path_exists(path)) throw SyncError("vocabulary.json is missing");
  std::string data;
  try {
    data = read_file(path);
  } catch (const std::exception& e) {
    throw SyncError(std::string("vocabulary.json is not readable: ") + e.what());
  }
  return validate_vocabulary_bytes(data, expected_era_number, named_universe, siblings);
}

std::optional<std::string> vocabulary_named_universe_from_path(std::string_view file_path) {
  // Normalising a path never changes a segment's text, so every spelling of
  // a vocabulary path holds its file name: most paths end here, unparsed.
  if (file_path.find("vocabulary.json") == std::string_view::npos) return std::nullopt;
  std::string safe;
  try {
    safe = safe_manifest_relative_path(file_path);
  } catch (const ManifestError&) {
    return std::nullopt;
  }
  // named_universes/<universe>/vocabulary.json
  std::size_t first = safe.find('/');
  if (first == std::string::npos || safe.substr(0, first) != "named_universes") return std::nullopt;
  std::size_t second = safe.find('/', first + 1);
  if (second == std::string::npos || safe.substr(second + 1) != "vocabulary.json") return std::nullopt;
  std::string universe = safe.substr(first + 1, second - first - 1);
  try {
    return validate_named_universe(json::value(universe));
  } catch (const SyncError&) {
    return std::nullopt;
  }
}

std::vector<std::string> vocabulary_manifest_paths(const json::object& files) {
  std::vector<std::string> out;
  for (const auto& kv : files) {
    if (vocabulary_named_universe_from_path(kv.key())) out.emplace_back(kv.key());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> vocabulary_manifest_paths(const ManifestFiles& files) {
  std::vector<std::string> out;
  for (const ManifestFiles::Entry entry : files) {
    if (vocabulary_named_universe_from_path(entry.path())) out.emplace_back(entry.path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

json::object validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest) {
  ManifestSiblings siblings = host().manifest_siblings();
  std::vector<std::string> paths = vocabulary_manifest_paths(manifest.files());
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  const json::value functions(validate_functions_file(data_dir, manifest, siblings));
  std::int64_t era = manifest.era_number_int();
  json::object out;
  for (const auto& path : paths) {
    std::string universe = *vocabulary_named_universe_from_path(path);
    std::string local = manifest_local_path(data_dir, path);
    // The validated vocabulary is handed over: the merge moves its entries.
    json::value vocabulary(validate_vocabulary_file(local, era, universe, siblings));
    // While the package's own merge is installed it runs natively, and the
    // vocabulary is taken over, never handed to the host.
    out[universe] = host().functions_vocabulary_merge_is_default()
                        ? merge_functions_vocabulary(functions, std::move(vocabulary), universe, era)
                        : host().merge_functions_vocabulary(functions, std::move(vocabulary), universe, era);
  }
  return out;
}

json::object first_vocabulary_metadata(const json::object& vocabularies) {
  if (vocabularies.empty()) return {};
  const json::value& first = vocabularies.begin()->value();
  if (const json::object* obj = as_object(&first)) {
    if (const json::object* meta = as_object(obj->if_contains("metadata"))) return *meta;
  }
  return {};
}

}  // namespace tidewright::sync
