#include "tidewright/sync/rotation/catalog.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cmath>
#include <map>
#include <set>

namespace tidewright::sync {

namespace {

// The stripped text of a non-null value; nullopt for null, absent or blank.
std::optional<std::string> stripped_text(const json::value* value) {
  if (!value || value->is_null()) return std::nullopt;
  std::string text = strip_ws(python_str(*value));
  if (text.empty()) return std::nullopt;
  return text;
}

std::optional<std::string> field_text(const json::object& object, std::string_view key) {
  return stripped_text(object.if_contains(key));
}

bool is_feature_kind(const std::string& kind, const ManifestSiblings& siblings) {
  return siblings.feature_artifact_kinds.count(kind) != 0;
}

json::array feature_kinds_list(const ManifestSiblings& siblings) {
  json::array kinds;
  for (const auto& k : siblings.feature_artifact_kinds) kinds.emplace_back(k);
  return kinds;
}

json::value descriptor_for(const std::string& path, const json::value& row, const json::array& feature_kinds) {
  return host().artifact_descriptor(path, row, feature_kinds);
}

json::array sorted_list(const std::set<std::string>& items) {
  json::array out;
  for (const auto& s : items) out.emplace_back(s);
  return out;
}

}  // namespace

std::optional<std::string> feature_named_universe_from_path(std::string_view file_path) {
  std::string path(file_path);
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  std::size_t first = path.find('/');
  if (first == std::string::npos || path.substr(0, first) != "features") return std::nullopt;
  std::size_t second = path.find('/', first + 1);
  std::string universe = strip_ws(path.substr(first + 1, second == std::string::npos ? std::string::npos
                                                                                        : second - first - 1));
  if (universe.empty() || universe == "." || universe == "..") return std::nullopt;
  return universe;
}

std::optional<std::string> rotation_manifest_default_named_universe(const json::object& manifest_data) {
  if (auto universe = field_text(manifest_data, "named_universe")) return universe;
  const json::value* universes = manifest_data.if_contains("named_universes");
  if (universes && universes->is_array() && universes->get_array().size() == 1) {
    return stripped_text(&universes->get_array()[0]);
  }
  return std::nullopt;
}

std::optional<std::string> rotation_manifest_default_market(const json::object& manifest_data) {
  if (auto market = field_text(manifest_data, "market")) return market;
  const json::value* id = manifest_data.if_contains("market_id");
  if (id && to_int(*id) == 1) return "crypto";
  return std::nullopt;
}

json::value rotation_file_info_with_legacy_scope(std::string_view file_path, const json::value& file_info,
                                                 const json::object& manifest_data, const ManifestSiblings& siblings) {
  if (!is_feature_kind(siblings.manifest_file_kind(file_path, file_info), siblings)) return file_info;
  json::object info = file_info.is_object() ? file_info.get_object() : json::object();
  if (!info.contains("artifact_kind")) info["artifact_kind"] = "feature";
  if (!info.contains("named_universe")) {
    std::optional<std::string> universe = feature_named_universe_from_path(file_path);
    if (!universe) universe = rotation_manifest_default_named_universe(manifest_data);
    if (universe) info["named_universe"] = *universe;
  }
  if (!info.contains("market")) {
    if (auto market = rotation_manifest_default_market(manifest_data)) info["market"] = *market;
  }
  return info;
}

json::array rotation_artifact_rows(const json::object& manifest_data, const ManifestSiblings& siblings) {
  json::array rows;
  const json::value* artifacts = manifest_data.if_contains("artifacts");
  if (!artifacts || !artifacts->is_array()) return rows;
  const json::value* files_value = manifest_data.if_contains("files");
  const json::object* files = as_object(files_value);
  for (const auto& artifact : artifacts->get_array()) {
    const json::object* entry = as_object(&artifact);
    if (!entry) continue;
    std::optional<std::string> path = stripped_text(entry->if_contains("relative_path"));
    if (!path) path = stripped_text(entry->if_contains("path"));
    if (!path) continue;
    json::object row;
    if (files) {
      if (const json::object* info = as_object(files->if_contains(*path))) row = *info;
    }
    for (const auto& kv : *entry) row[kv.key()] = kv.value();
    json::value scoped = rotation_file_info_with_legacy_scope(*path, row, manifest_data, siblings);
    json::object out = scoped.is_object() ? std::move(scoped.get_object()) : json::object();
    out["relative_path"] = *path;
    rows.emplace_back(std::move(out));
  }
  return rows;
}

json::array rotation_descriptors(const json::array& rows, const ManifestSiblings& siblings) {
  json::array descriptors;
  json::array kinds = feature_kinds_list(siblings);
  for (const auto& row : rows) {
    descriptors.push_back(descriptor_for(std::string(row.get_object().at("relative_path").get_string()), row, kinds));
  }
  return descriptors;
}

json::array rotation_artifact_rows_for_sync(const json::object& manifest_data, const ManifestSiblings& siblings) {
  json::array rows;
  for (auto& row : rotation_artifact_rows(manifest_data, siblings)) {
    std::string path(row.get_object().at("relative_path").get_string());
    if (!manifest_file_is_sync_excluded(path, row, siblings)) rows.push_back(std::move(row));
  }
  return rows;
}

json::array rotation_manifest_artifacts(const json::object& manifest_data, const ManifestSiblings& siblings) {
  return rotation_descriptors(rotation_artifact_rows_for_sync(manifest_data, siblings), siblings);
}

bool rotation_artifacts_require_scoped_settings(const json::array& artifacts, const ManifestSiblings& siblings) {
  for (const auto& artifact : artifacts) {
    const json::object* a = as_object(&artifact);
    if (!a) continue;
    std::optional<std::string> kind = field_text(*a, "artifact_kind");
    if (!kind) kind = field_text(*a, "kind");
    if (!kind || !is_feature_kind(*kind, siblings)) continue;
    const json::value* mandatory = a->if_contains("mandatory");
    if (mandatory && truthy(*mandatory)) continue;
    if (field_text(*a, "market") || field_text(*a, "named_universe")) return true;
  }
  return false;
}

json::array rotation_planning_rows(const json::object& manifest_data, const ManifestSiblings& siblings) {
  json::array rows;
  std::set<std::string> named;
  for (auto& row : rotation_artifact_rows(manifest_data, siblings)) {
    std::string path(row.get_object().at("relative_path").get_string());
    named.insert(path);
    if (!manifest_file_is_sync_excluded(path, row, siblings)) rows.push_back(std::move(row));
  }
  const json::object* files = as_object(manifest_data.if_contains("files"));
  if (!files) return rows;
  for (const auto& kv : *files) {
    std::string path(kv.key());
    if (named.count(path) || manifest_file_is_sync_excluded(path, kv.value(), siblings)) continue;
    json::value scoped = rotation_file_info_with_legacy_scope(path, kv.value(), manifest_data, siblings);
    json::object row = scoped.is_object() ? std::move(scoped.get_object()) : json::object();
    row["relative_path"] = path;
    rows.emplace_back(std::move(row));
  }
  return rows;
}

json::object rotation_catalog_context(const json::object& manifest_data, const json::array& artifacts) {
  const json::object* rotation = as_object(manifest_data.if_contains("rotation"));
  const json::object* scope = rotation ? as_object(rotation->if_contains("scope")) : nullptr;

  std::set<std::string> scope_universes;
  std::optional<std::string> scope_market;
  if (scope) {
    if (const json::value* list = scope->if_contains("named_universes"); list && list->is_array()) {
      for (const auto& u : list->get_array()) {
        if (auto text = stripped_text(&u)) scope_universes.insert(*text);
      }
    }
    if (auto single = field_text(*scope, "named_universe")) scope_universes.insert(*single);
    scope_market = field_text(*scope, "market");
  }

  std::set<std::string> universes;
  std::optional<std::string> artifact_market;
  std::map<std::string, std::map<std::string, std::set<std::string>>> families;
  for (const auto& artifact : artifacts) {
    const json::object* a = as_object(&artifact);
    if (!a) continue;
    std::optional<std::string> universe = field_text(*a, "named_universe");
    if (!artifact_market) artifact_market = field_text(*a, "market");
    if (!universe) continue;
    universes.insert(*universe);
    auto& by_family = families[*universe];
    if (auto family = field_text(*a, "family")) {
      auto& subfamilies = by_family[*family];
      if (auto subfamily = field_text(*a, "subfamily")) subfamilies.insert(*subfamily);
    }
  }

  json::object context;
  std::optional<std::string> market = scope_market ? scope_market : artifact_market;
  context["current_market"] = market ? json::value(*market) : json::value(nullptr);
  context["current_universes"] = sorted_list(scope_universes.empty() ? universes : scope_universes);
  context["named_universes"] = sorted_list(universes);
  json::object family_map;
  for (const auto& [universe, by_family] : families) {
    json::object entry;
    for (const auto& [family, subfamilies] : by_family) entry[family] = sorted_list(subfamilies);
    family_map[universe] = std::move(entry);
  }
  context["families"] = std::move(family_map);
  return context;
}

json::value rotation_feature_budget_bytes(const json::value& feature_budget_gb, const json::value& feature_budget_bytes,
                                          std::string_view full_download_marker) {
  if (!feature_budget_bytes.is_null()) {
    std::optional<std::int64_t> exact = feature_budget_bytes.is_bool() ? std::nullopt : to_int(feature_budget_bytes);
    if (!exact || *exact < 0) {
      throw ValueError("feature_budget_bytes must be a non-negative integer, got " + python_repr(feature_budget_bytes));
    }
    return *exact;
  }
  if (feature_budget_gb.is_null()) return nullptr;
  if (feature_budget_gb.is_string() && feature_budget_gb.get_string() == full_download_marker) {
    return feature_budget_gb;
  }
  std::optional<std::int64_t> whole;
  if (feature_budget_gb.is_double()) {
    double v = feature_budget_gb.get_double();
    if (std::isfinite(v) && std::fabs(v) < 9.0e18 / FEATURE_ROTATION_BYTES_PER_GB) whole = static_cast<std::int64_t>(v);
  } else {
    whole = to_int(feature_budget_gb);
  }
  if (!whole) throw ValueError("feature_budget_gb must be a number, got " + python_repr(feature_budget_gb));
  return *whole * FEATURE_ROTATION_BYTES_PER_GB;
}

std::optional<std::int64_t> rotation_frequency_seconds(const json::value& rotation_frequency) {
  std::string text = rotation_frequency.is_null() ? "" : strip_ws(python_str(rotation_frequency));
  if (text == "weekly") return 604800;
  if (text.size() < 4 || text.rfind("PT", 0) != 0 || text.back() != 'H') return std::nullopt;
  std::string digits = text.substr(2, text.size() - 3);
  if (digits.empty() || digits.size() > 12) return std::nullopt;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  std::int64_t hours = std::stoll(digits);
  if (hours <= 0) return std::nullopt;
  return hours * 60 * 60;
}

std::vector<std::string> existing_rotation_paths(const std::string& data_dir,
                                                 const std::vector<std::string>& relative_paths) {
  std::vector<std::string> out;
  for (const auto& path : relative_paths) {
    try {
      if (path_exists(manifest_local_path(data_dir, path))) out.push_back(path);
    } catch (const ManifestError&) {
    }
  }
  return out;
}

}  // namespace tidewright::sync
