#include "tidewright/sync/rotation/state.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/rotation/catalog.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <algorithm>

namespace tidewright::sync {

namespace {

json::object schema_kwargs() {
  json::object kwargs;
  kwargs["schema_version"] = FEATURE_ROTATION_STATE_VERSION;
  return kwargs;
}

// Runs a call into the rotation module, turning its payload error into ours.
template <typename F>
auto rotation_call(F&& call) -> decltype(call()) {
  try {
    return call();
  } catch (const HostError& e) {
    if (e.is(HostError::kIsRotationStatePayloadError)) throw FeatureRotationStateError(e.what());
    throw;
  }
}

json::value state_payload(const json::value& state) {
  json::value payload = rotation_call([&] {
    return host().rotation_state_payload(state, schema_kwargs());
  });
  if (!payload.is_object()) throw FeatureRotationStateError("rotation_state_payload did not return a JSON object");
  return payload;
}

// Python's == between a JSON era and an optional integer era.
bool same_era(const json::value& recorded, std::optional<std::int64_t> era) {
  if (recorded.is_null()) return !era.has_value();
  if (!era) return false;
  if (recorded.is_int64()) return recorded.get_int64() == *era;
  if (recorded.is_uint64()) return *era >= 0 && recorded.get_uint64() == static_cast<std::uint64_t>(*era);
  if (recorded.is_double()) return recorded.get_double() == static_cast<double>(*era);
  if (recorded.is_bool()) return (recorded.get_bool() ? 1 : 0) == *era;
  return false;
}

}  // namespace

std::string feature_rotation_state_path(const std::string& data_dir) {
  return path_join(data_dir, FEATURE_ROTATION_STATE_FILENAME);
}

std::string prefetched_features_state_path(const std::string& data_dir) {
  return path_join(data_dir, PREFETCHED_FEATURES_FILENAME);
}

std::optional<json::object> load_feature_rotation_state(const std::string& data_dir) {
  std::string path = feature_rotation_state_path(data_dir);
  if (!path_exists(path)) return std::nullopt;
  json::value payload;
  try {
    payload = parse_json(read_file(path));
  } catch (const JsonParseError& e) {
    throw FeatureRotationStateError("invalid feature rotation state at " + path + ": " + e.what());
  } catch (const OSError& e) {
    throw FeatureRotationStateError("invalid feature rotation state at " + path + ": " + e.what());
  }
  json::object kwargs = schema_kwargs();
  kwargs["source"] = path;
  json::value state = rotation_call([&] {
    return host().rotation_state_from_payload(payload, kwargs);
  });
  if (!state.is_object()) {
    throw FeatureRotationStateError("invalid feature rotation state at " + path +
                                    ": the rotation module returned no state");
  }
  return std::move(state.get_object());
}

std::string write_feature_rotation_state(const std::string& data_dir, const json::value& state) {
  std::string text = dump_json(state_payload(state), JsonWriteOptions{.sort_keys = true, .compact = true});
  std::string path = feature_rotation_state_path(data_dir);
  atomic_write(path, text);
  return path;
}

HostRef feature_rotation_state_object(const std::optional<json::object>& state) {
  if (!state) return nullptr;
  json::value payload = state_payload(*state);
  json::object kwargs = schema_kwargs();
  kwargs["source"] = nullptr;
  return rotation_call([&] {
    return host().rotation_state_object_from_payload(payload, kwargs);
  });
}

std::optional<std::int64_t> manifest_era_number_or_none(const Manifest* manifest) {
  if (!manifest) return std::nullopt;
  return to_int(manifest->era_number());
}

std::vector<std::string> manifest_prefetched_feature_paths(const Manifest& manifest,
                                                           const std::vector<std::string>& paths,
                                                           const ManifestSiblings& siblings) {
  const ManifestFiles& files = manifest.files();
  std::vector<std::string> out;
  for (const auto& given : paths) {
    std::string path = strip_ws(given);
    std::optional<ManifestFiles::Entry> info = files.find(path);
    if (!info || manifest_entry_kind(siblings, *info) != "feature") continue;
    out.push_back(std::move(path));
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::set<std::string> parse_prefetched_features_text(std::string_view text, const Manifest& manifest,
                                                     const ManifestSiblings& siblings) {
  json::value payload;
  try {
    payload = parse_json(text);
  } catch (const std::exception& e) {
    log_debug("Ignoring unreadable prefetched features file: %s", {json::value(e.what())});
    return {};
  }
  const json::object* object = as_object(&payload);
  if (!object) return {};
  const json::value* version = object->if_contains("schema_version");
  if (!version || !same_era(*version, PREFETCHED_FEATURES_VERSION)) return {};
  const json::value* era = object->if_contains("era_number");
  if (!same_era(era ? *era : json::value(nullptr), manifest_era_number_or_none(&manifest))) return {};
  const json::value* listed = object->if_contains("paths");
  if (!listed || !listed->is_array()) return {};
  std::vector<std::string> paths;
  for (const auto& p : listed->get_array()) paths.push_back(python_str(p));
  std::vector<std::string> kept = manifest_prefetched_feature_paths(manifest, paths, siblings);
  return std::set<std::string>(kept.begin(), kept.end());
}

std::set<std::string> read_prefetched_feature_relative_paths(const std::string& data_dir, const Manifest& manifest,
                                                             const ManifestSiblings& siblings) {
  std::string path = prefetched_features_state_path(data_dir);
  if (!path_exists(path)) return {};
  std::string text;
  try {
    text = read_file(path);
  } catch (const std::exception& e) {
    log_debug("Ignoring unreadable prefetched features file %s: %s", {json::value(path), json::value(e.what())});
    return {};
  }
  return parse_prefetched_features_text(text, manifest, siblings);
}

std::string prefetched_features_text(std::optional<std::int64_t> era_number,
                                     const std::set<std::string>& relative_paths) {
  json::object payload;
  payload["schema_version"] = PREFETCHED_FEATURES_VERSION;
  payload["era_number"] = era_number ? json::value(*era_number) : json::value(nullptr);
  json::array paths;
  for (const auto& p : relative_paths) paths.emplace_back(p);  // a std::set iterates sorted
  payload["paths"] = std::move(paths);
  return dump_json(payload, JsonWriteOptions{.sort_keys = true});
}

void write_prefetched_feature_relative_paths(const std::string& data_dir, std::optional<std::int64_t> era_number,
                                             const std::set<std::string>& relative_paths) {
  atomic_write(prefetched_features_state_path(data_dir), prefetched_features_text(era_number, relative_paths));
}

}  // namespace tidewright::sync
