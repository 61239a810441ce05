#include "tidewright/sync/manifest/sanitize.hpp"

#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

namespace tidewright::sync {

namespace {

constexpr std::string_view kFoundSections[] = {"found_signals", "found_strategies"};

const json::object* files_of(const json::object& data) {
  return as_object(data.if_contains("files"));
}

// A file-info field as text; absent, null and other false values count as
// empty, as the manifest's producers leave optional fields out or null.
std::string info_text(const json::value& info, std::string_view key) {
  const json::object* object = as_object(&info);
  if (!object) return {};
  const json::value* value = object->if_contains(key);
  if (!value || !truthy(*value)) return {};
  if (value->is_string()) return std::string(value->get_string());
  return python_str(*value);
}

bool is_sep(char c) { return c == '/' || c == '\\'; }

// Shared by the runtime-module predicates, so that sync exclusion asks the
// host for a file's kind only once.
bool unsupported_for_kind(std::string_view kind, const ManifestSiblings& siblings) {
  if (!kind.ends_with(siblings.runtime_module_kind_suffix)) return false;
  return !siblings.is_runtime_module_kind(kind);
}

bool platform_excluded_for_kind(std::string_view kind, const json::value& info,
                                const ManifestSiblings& siblings, std::string_view platform) {
  if (!siblings.is_runtime_module_kind(kind)) return false;
  const std::string file_platform = info_text(info, "platform");
  return !file_platform.empty() && file_platform != platform;
}

std::string_view artifact_path(const json::object& artifact) {
  for (std::string_view key : {"relative_path", "path"}) {
    const json::value* value = artifact.if_contains(key);
    if (value && !value->is_null()) {
      return value->is_string() ? std::string_view(value->get_string()) : std::string_view();
    }
  }
  return {};
}

// Copy or move a value out of the manifest being filtered.
template <bool kMove, typename V>
json::value take(V& value) {
  if constexpr (kMove) {
    return json::value(std::move(value));
  } else {
    return json::value(value);
  }
}

template <bool kMove>
using ObjectRef = std::conditional_t<kMove, json::object&, const json::object&>;

template <bool kMove>
json::object filtered_files(ObjectRef<kMove> files, const SanitizePlan& plan) {
  json::object out;
  out.reserve(files.size() - std::min(files.size(), plan.dropped_files.size()));
  // The dropped and rewritten keys are in the map's order: one merge walk,
  // no lookups.
  std::size_t next = 0;
  std::size_t next_rewrite = 0;
  for (auto& entry : files) {
    const std::string_view key = entry.key();
    if (next < plan.dropped_files.size() && key == plan.dropped_files[next]) {
      ++next;
      continue;
    }
    json::value& kept = out[key] = take<kMove>(entry.value());
    if (next_rewrite < plan.sha256_rewrites.size() && key == plan.sha256_rewrites[next_rewrite].first) {
      kept.get_object()["sha256"] = plan.sha256_rewrites[next_rewrite++].second;
    }
  }
  return out;
}

template <bool kMove, typename A>
json::array filtered_artifacts(A& artifacts, const SanitizePlan& plan) {
  json::array out;
  out.reserve(artifacts.size());
  std::size_t next = 0;
  for (std::size_t i = 0; i < artifacts.size(); ++i) {
    if (next < plan.dropped_artifacts.size() && plan.dropped_artifacts[next] == i) {
      ++next;
      continue;
    }
    out.push_back(take<kMove>(artifacts[i]));
  }
  return out;
}

template <bool kMove, typename S>
json::object rewritten_found_section(S& section, const std::unordered_set<std::string_view>& retired) {
  auto is_retired = [&](const json::value& item) {
    return item.is_string() && retired.contains(std::string_view(item.get_string()));
  };
  json::object out;
  out.reserve(section.size());
  for (auto& entry : section) {
    json::value& kept = out[entry.key()] = take<kMove>(entry.value());
    json::object* fields = kept.if_object();
    json::value* list = fields ? fields->if_contains("files") : nullptr;
    if (!list || !list->is_array()) continue;
    json::array& paths = list->get_array();
    paths.erase(std::remove_if(paths.begin(), paths.end(), is_retired), paths.end());
  }
  return out;
}

template <bool kMove>
json::object apply_plan(ObjectRef<kMove> data, const SanitizePlan& plan) {
  std::unordered_set<std::string_view> retired(plan.retired_found_paths.begin(), plan.retired_found_paths.end());
  json::object out;
  out.reserve(data.size() + 1);
  bool files_seen = false;
  for (auto& entry : data) {
    const std::string_view key = entry.key();
    auto& value = entry.value();
    if (key == "files") {
      files_seen = true;
      if (auto* files = value.if_object()) {
        out.emplace(key, filtered_files<kMove>(*files, plan));
      } else {
        out.emplace(key, json::object());
      }
    } else if (key == "artifacts" && value.is_array() && !plan.dropped_artifacts.empty()) {
      out.emplace(key, filtered_artifacts<kMove>(value.get_array(), plan));
    } else if (!retired.empty() && value.is_object() &&
               (key == kFoundSections[0] || key == kFoundSections[1])) {
      out.emplace(key, rewritten_found_section<kMove>(value.get_object(), retired));
    } else {
      out.emplace(key, take<kMove>(value));
    }
  }
  if (!files_seen) out.emplace("files", json::object());
  return out;
}

std::optional<json::object> filter_with(const json::object& data, unsigned filters,
                                        const ManifestSiblings& siblings) {
  SanitizePlan plan = plan_manifest_sanitization(data, siblings, filters);
  if (!plan.changes_anything()) return std::nullopt;
  return apply_plan<false>(data, plan);
}

bool is_digits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The blanks the digest comparisons of downloads have always stripped.
std::string_view strip_ascii_blanks(std::string_view text) {
  auto blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r') || (c >= '\x1c' && c <= '\x1f'); };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

bool is_hex_digit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// A value quoted for a message, cut short: a hostile manifest may put
// megabytes into one field.
std::string quoted_value(const json::value& value) {
  constexpr std::size_t kMax = 80;
  std::string text = python_repr(value);
  if (text.size() > kMax) text = text.substr(0, kMax) + "...";
  return text;
}

// A size the engine can download and verify against: a whole number of
// bytes that fits its 64-bit counters. An integral float (123.0) is that
// number; text, booleans, fractions and negative numbers are not sizes.
bool usable_size(const json::value& size) {
  switch (size.kind()) {
    case json::kind::int64: return size.get_int64() >= 0;
    case json::kind::uint64: return size.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX);
    case json::kind::double_: {
      const double d = size.get_double();
      return d >= 0.0 && d < 9.2e18 && std::trunc(d) == d;
    }
    default: return false;
  }
}

// Why an entry cannot be synced, as (reason, message); nullopt when it can.
// `sha256` receives the entry's canonical digest when it has one.
std::optional<std::pair<std::string, std::string>> entry_fault(std::string_view path, const json::value& info,
                                                               std::optional<std::string>& sha256) {
  auto fault = [&](const char* reason, std::string_view what, const json::value* value) {
    std::string message = std::string(what) + python_repr(path);
    if (value) message += " (got " + quoted_value(*value) + ")";
    return std::make_optional(std::make_pair(std::string(reason), std::move(message)));
  };
  const json::object* entry = info.if_object();
  if (!entry) return fault("invalid_entry", "Manifest file entry must be an object: ", nullptr);
  // NaN and infinities would make manifest.json unreadable to strict JSON
  // readers, and no size or digest compares equal to them.
  if (holds_non_finite_number(info)) {
    return fault("non_finite_number", "Manifest file entry holds a number that is not finite (NaN or Infinity): ",
                 nullptr);
  }
  const json::value* size = entry->if_contains("size_bytes");
  if (size && !size->is_null() && !usable_size(*size)) {
    return fault("invalid_size_bytes", "Manifest file size_bytes must be a non-negative integer: ", size);
  }
  const json::value* digest = entry->if_contains("sha256");
  if (digest && !digest->is_null()) {
    const std::string_view raw = digest->is_string() ? std::string_view(digest->get_string()) : std::string_view();
    const std::string_view text = strip_ascii_blanks(raw);
    if (!digest->is_string() || text.size() != 64 || !std::all_of(text.begin(), text.end(), is_hex_digit)) {
      return fault("invalid_sha256", "Manifest file sha256 must be 64 hexadecimal digits: ", digest);
    }
    // Rewritten only when it is not canonical already (the common case).
    const bool upper = std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'F'; });
    if (upper || text.size() != raw.size()) {
      std::string canonical(text);
      for (auto& c : canonical) c = static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
      sha256 = std::move(canonical);
    }
  }
  return std::nullopt;
}

// Refuses two kept paths that reach one local file: the same canonical
// path, a file another path needs as a directory, and a path that is
// another's staging file (or lies below it). `kept` holds (key, canonical
// path) in the map's order.
void check_local_paths_distinct(const std::vector<std::pair<std::string_view, std::string>>& kept) {
  auto repr = [](std::string_view key) { return python_repr(key); };
  std::unordered_map<std::string_view, std::string_view> files;  // canonical path -> key
  files.reserve(kept.size());
  for (const auto& [key, canonical] : kept) {
    auto [it, inserted] = files.emplace(canonical, key);
    if (!inserted) {
      throw ManifestError("Manifest file paths name the same local file: " + repr(it->second) + " and " + repr(key));
    }
  }
  std::unordered_map<std::string_view, std::string_view> dirs;  // directory -> first key below it
  for (const auto& [key, canonical] : kept) {
    const std::string_view path = canonical;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
      dirs.emplace(path.substr(0, slash), key);
    }
  }
  std::string staging;
  for (const auto& [key, canonical] : kept) {
    if (auto dir = dirs.find(canonical); dir != dirs.end()) {
      throw ManifestError("Manifest file paths collide: " + repr(key) + " is a file but " + repr(dir->second) +
                          " needs it as a directory");
    }
    staging.assign(canonical).append(".tmp");
    if (auto file = files.find(staging); file != files.end()) {
      throw ManifestError("Manifest file paths collide: " + repr(file->second) + " is the staging file of " +
                          repr(key));
    }
    if (auto dir = dirs.find(staging); dir != dirs.end()) {
      throw ManifestError("Manifest file paths collide: " + repr(dir->second) + " needs the staging file of " +
                          repr(key) + " as a directory");
    }
  }
}

// For the filters that never consult the host's sibling modules.
const ManifestSiblings& unused_siblings() {
  static const ManifestSiblings siblings = default_manifest_siblings();
  return siblings;
}

}  // namespace

bool is_engine_owned_path(std::string_view canonical_path) {
  const std::string_view first = canonical_path.substr(0, canonical_path.find('/'));
  for (std::string_view name : ENGINE_OWNED_FILENAMES) {
    if (first.starts_with(name) && (first.size() == name.size() || first[name.size()] == '.')) return true;
  }
  if (first.starts_with(".transition_era")) return true;
  // Era directories, as old-era clean-up recognises them.
  return (first.starts_with("era_") && is_digits(first.substr(4))) ||
         (first.starts_with("era") && is_digits(first.substr(3)));
}

bool holds_non_finite_number(const json::value& value) {
  // Iterative, since manifests nest up to the parser's depth limit; only
  // nested containers are queued, so a flat entry costs no allocation.
  std::vector<const json::value*> pending;
  auto seen_non_finite = [&](const json::value& v) {
    if (v.is_double()) return !std::isfinite(v.get_double());
    if (v.is_structured()) pending.push_back(&v);
    return false;
  };
  if (seen_non_finite(value)) return true;
  while (!pending.empty()) {
    const json::value* v = pending.back();
    pending.pop_back();
    if (const json::object* object = v->if_object()) {
      for (const auto& entry : *object) {
        if (seen_non_finite(entry.value())) return true;
      }
    } else {
      for (const auto& item : v->get_array()) {
        if (seen_non_finite(item)) return true;
      }
    }
  }
  return false;
}

bool is_agent_bundle_declaration_file(std::string_view path, const json::value& info) {
  if (path.ends_with(".pxd")) return true;
  const json::object* object = as_object(&info);
  const json::value* kind = object ? object->if_contains("kind") : nullptr;
  if (!kind || !kind->is_string()) return false;
  const std::string_view text = kind->get_string();
  return text == "vault_declaration" || text == "backtester_declaration";
}

bool is_unsupported_runtime_module_file(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings) {
  return unsupported_for_kind(siblings.manifest_file_kind(path, info), siblings);
}

std::optional<std::string> retired_unsupported_runtime_module_name_from_path(std::string_view path,
                                                                             std::string_view platform) {
  const std::size_t cut = path.find_last_of("/\\");
  const std::string_view name = cut == std::string_view::npos ? path : path.substr(cut + 1);
  for (std::string_view suffix : RUNTIME_MODULE_EXTENSION_SUFFIXES) {
    // The ending is "-" + platform + suffix; the first one the name has decides.
    if (name.size() < suffix.size() + platform.size() + 1 || !name.ends_with(suffix)) continue;
    std::string_view body = name.substr(0, name.size() - suffix.size());
    if (!body.ends_with(platform) || body[body.size() - platform.size() - 1] != '-') continue;
    const std::string_view module = body.substr(0, body.size() - platform.size() - 1);
    for (std::string_view retired : RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES) {
      if (module == retired) return std::string(module);
    }
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<std::string> retired_unsupported_runtime_module_name_from_path(std::string_view path) {
  return retired_unsupported_runtime_module_name_from_path(path, current_platform());
}

bool is_retired_unsupported_runtime_module_path(std::string_view path, std::string_view platform) {
  return retired_unsupported_runtime_module_name_from_path(path, platform).has_value();
}

bool is_retired_unsupported_runtime_module_path(std::string_view path) {
  return is_retired_unsupported_runtime_module_path(path, current_platform());
}

bool is_retired_found_pnl_long_file(std::string_view path) {
  while (!path.empty() && is_sep(path.front())) path.remove_prefix(1);
  while (!path.empty() && is_sep(path.back())) path.remove_suffix(1);
  if (!path.ends_with("long.arrow")) return false;  // the common case, cheaply
  // Exactly five segments, empty ones counted (a//b is three).
  std::string_view first, last;
  std::size_t segments = 0, start = 0;
  for (std::size_t i = 0; i <= path.size(); ++i) {
    if (i < path.size() && !is_sep(path[i])) continue;
    if (++segments > 5) return false;
    if (segments == 1) first = path.substr(start, i - start);
    last = path.substr(start, i - start);
    start = i + 1;
  }
  if (segments != 5) return false;
  return (first == "found_signals" || first == "found_strategies") &&
         (last == "pnl_long.arrow" || last == "pnl.long.arrow");
}

bool rotation_file_is_platform_excluded(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings, std::string_view platform) {
  return platform_excluded_for_kind(siblings.manifest_file_kind(path, info), info, siblings, platform);
}

bool rotation_file_is_platform_excluded(std::string_view path, const json::value& info,
                                        const ManifestSiblings& siblings) {
  return rotation_file_is_platform_excluded(path, info, siblings, current_platform());
}

bool manifest_file_is_sync_excluded(const ManifestFiles::Entry& entry, const ManifestSiblings& siblings) {
  if (const json::value* info = entry.verbatim()) return manifest_file_is_sync_excluded(entry.path(), *info, siblings);
  const std::string kind = manifest_entry_kind(siblings, entry);
  if (unsupported_for_kind(kind, siblings)) return true;
  // Only a runtime module's entry is read for its "platform".
  return siblings.is_runtime_module_kind(kind) &&
         platform_excluded_for_kind(kind, entry.info(), siblings, current_platform());
}

bool manifest_file_is_sync_excluded(std::string_view path, const json::value& info,
                                    const ManifestSiblings& siblings, std::string_view platform) {
  const std::string kind = siblings.manifest_file_kind(path, info);
  return unsupported_for_kind(kind, siblings) || platform_excluded_for_kind(kind, info, siblings, platform);
}

bool manifest_file_is_sync_excluded(std::string_view path, const json::value& info,
                                    const ManifestSiblings& siblings) {
  return manifest_file_is_sync_excluded(path, info, siblings, current_platform());
}

SanitizePlan plan_manifest_sanitization(const json::object& data, const ManifestSiblings& siblings,
                                        unsigned filters) {
  SanitizePlan plan;
  const bool check = filters & kCheckKeptEntries;
  std::vector<std::pair<std::string_view, std::string>> kept;  // (key, canonical path) of safe kept keys
  if (const json::object* files = files_of(data)) {
    if (check) kept.reserve(files->size());
    std::string canonical;
    // The filters run in order, so an entry one filter removed is never shown
    // to the next (nor counted as a retired path the found sections lose).
    for (const auto& entry : *files) {
      const std::string_view path = entry.key();
      const json::value& info = entry.value();
      if ((filters & kDropAgentBundleDeclarations) && is_agent_bundle_declaration_file(path, info)) {
        plan.dropped_files.push_back(path);
      } else if ((filters & kDropUnsupportedRuntimeModules) &&
                 is_unsupported_runtime_module_file(path, info, siblings)) {
        plan.dropped_files.push_back(path);
      } else if ((filters & kDropRetiredFoundPnlLong) && is_retired_found_pnl_long_file(path)) {
        plan.dropped_files.push_back(path);
        plan.retired_found_paths.push_back(path);
      } else if (check) {
        const bool safe = try_safe_manifest_relative_path(path, canonical);
        if (safe && is_engine_owned_path(canonical)) {
          throw ManifestError("Manifest file path names a file the sync engine keeps for itself: " +
                              python_repr(path));
        }
        std::optional<std::string> sha256;
        if (auto fault = entry_fault(path, info, sha256)) {
          plan.dropped_files.push_back(path);
          plan.rejected.push_back({std::string(path), std::move(fault->first), std::move(fault->second)});
          continue;
        }
        if (sha256) plan.sha256_rewrites.emplace_back(path, std::move(*sha256));
        if (safe) kept.emplace_back(path, canonical);
      }
    }
  }
  if (check) check_local_paths_distinct(kept);
  if (filters & kDropUnsupportedRuntimeModules) {
    const json::value* artifacts = data.if_contains("artifacts");
    if (artifacts && artifacts->is_array()) {
      const json::array& list = artifacts->get_array();
      for (std::size_t i = 0; i < list.size(); ++i) {
        const json::object* artifact = list[i].if_object();
        if (artifact && is_unsupported_runtime_module_file(artifact_path(*artifact), list[i], siblings)) {
          plan.dropped_artifacts.push_back(i);
        }
      }
    }
  }
  return plan;
}

json::object apply_sanitize_plan(const json::object& data, const SanitizePlan& plan) {
  return apply_plan<false>(data, plan);
}

std::optional<json::object> drop_agent_bundle_declaration_files(const json::object& data) {
  return filter_with(data, kDropAgentBundleDeclarations, unused_siblings());
}

std::optional<json::object> drop_unsupported_runtime_module_files(const json::object& data,
                                                                  const ManifestSiblings& siblings) {
  return filter_with(data, kDropUnsupportedRuntimeModules, siblings);
}

std::optional<json::object> drop_retired_found_pnl_long_files(const json::object& data) {
  return filter_with(data, kDropRetiredFoundPnlLong, unused_siblings());
}

json::object sanitize_manifest_data_for_sync(const json::object& data, const ManifestSiblings& siblings,
                                             bool* changed, std::vector<RejectedManifestEntry>* rejected) {
  SanitizePlan plan = plan_manifest_sanitization(data, siblings, kAllSanitizeFilters);
  if (changed) *changed = plan.changes_anything();
  if (rejected) *rejected = std::move(plan.rejected);
  if (!plan.changes_anything()) return data;
  return apply_plan<false>(data, plan);
}

json::object sanitize_manifest_data_for_sync(json::object&& data, const ManifestSiblings& siblings,
                                             bool* changed, std::vector<RejectedManifestEntry>* rejected) {
  SanitizePlan plan = plan_manifest_sanitization(data, siblings, kAllSanitizeFilters);
  if (changed) *changed = plan.changes_anything();
  if (rejected) *rejected = std::move(plan.rejected);
  if (!plan.changes_anything()) return std::move(data);
  // Values are moved out; the keys the plan points at stay in place.
  return apply_plan<true>(data, plan);
}

bool manifest_has_agent_bundle_declarations(const json::object& data) {
  const json::object* files = files_of(data);
  if (!files) return false;
  return std::any_of(files->begin(), files->end(), [](const auto& entry) {
    return is_agent_bundle_declaration_file(entry.key(), entry.value());
  });
}

bool manifest_has_retired_found_pnl_long_files(const json::object& data) {
  const json::object* files = files_of(data);
  if (!files) return false;
  return std::any_of(files->begin(), files->end(),
                     [](const auto& entry) { return is_retired_found_pnl_long_file(entry.key()); });
}

bool manifest_has_agent_bundle_declarations(const ManifestFiles& files) {
  return std::any_of(files.begin(), files.end(), [](const ManifestFiles::Entry& entry) {
    if (entry.path().ends_with(".pxd")) return true;
    const std::string_view kind = entry.kind();
    return kind == "vault_declaration" || kind == "backtester_declaration";
  });
}

bool manifest_has_retired_found_pnl_long_files(const ManifestFiles& files) {
  return std::any_of(files.begin(), files.end(),
                     [](const ManifestFiles::Entry& entry) { return is_retired_found_pnl_long_file(entry.path()); });
}

}  // namespace tidewright::sync
