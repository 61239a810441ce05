#include "tidewright/sync/artifacts/found_pnl.hpp"

#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/transport/files.hpp"

namespace tidewright::sync {

namespace {

bool starts_with(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }
bool ends_with(std::string_view s, std::string_view p) {
  return s.size() >= p.size() && s.substr(s.size() - p.size()) == p;
}

std::vector<std::string> recoverable_kinds(std::string_view section) {
  if (section == "found_signals") return {FOUND_SIGNAL_PNL_KIND};
  if (section == "found_strategies") return {FOUND_STRATEGY_EPOCH_PNL_KIND};
  if (section == "useful_signals") return {USEFUL_SIGNAL_OS_PNL_KIND, USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND};
  return {};
}

std::string kind_of(const json::value& info) {
  if (const json::object* obj = as_object(&info)) {
    if (const json::value* k = obj->if_contains("kind"); k && k->is_string()) return std::string(k->get_string());
  }
  return "";
}

}  // namespace

bool is_found_pnl_file_kind(std::string_view kind) {
  return kind == FOUND_SIGNAL_PNL_KIND || kind == FOUND_STRATEGY_EPOCH_PNL_KIND;
}

std::optional<std::string> found_pnl_section_for_path(std::string_view path) {
  if (starts_with(path, "found_signals/") && ends_with(path, "/signal_is/pnl.arrow")) return "found_signals";
  if (starts_with(path, "found_strategies/") && ends_with(path, "/strategy_is/pnl.arrow")) return "found_strategies";
  if (starts_with(path, "useful_signals/") &&
      (ends_with(path, "/signal_os/pnl.arrow") || ends_with(path, "/strategy_is/pnl.arrow"))) {
    return "useful_signals";
  }
  return std::nullopt;
}

bool is_manifest_found_pnl_file(std::string_view file_path, const json::value& file_info) {
  std::optional<std::string> section = found_pnl_section_for_path(file_path);
  if (!section) return false;
  std::string kind = kind_of(file_info);
  for (const auto& k : recoverable_kinds(*section)) {
    if (k == kind) return true;
  }
  return false;
}

std::set<std::string> membership_referenced_files(const json::value& section) {
  std::set<std::string> out;
  const json::object* obj = as_object(&section);
  if (!obj) return out;
  for (const auto& kv : *obj) {
    const json::object* entry = as_object(&kv.value());
    if (!entry) continue;
    const json::value* files = entry->if_contains("files");
    if (!files || !files->is_array()) continue;
    for (const auto& f : files->get_array()) {
      if (f.is_string()) out.emplace(f.get_string());
    }
  }
  return out;
}

std::set<std::string> normalize_found_pnl_paths(const std::vector<std::string>& paths) {
  std::set<std::string> out;
  for (const auto& p : paths) {
    try {
      std::string safe = safe_manifest_relative_path(p);
      if (found_pnl_section_for_path(safe)) out.insert(safe);
    } catch (const ManifestError&) {
    }
  }
  return out;
}

void drop_found_pnl_paths_from_membership(json::value& section, const std::set<std::string>& paths) {
  if (!section.is_object()) return;
  for (auto& kv : section.get_object()) {
    if (!kv.value().is_object()) continue;
    json::value* files = kv.value().get_object().if_contains("files");
    if (!files || !files->is_array()) continue;
    json::array kept;
    for (auto& f : files->get_array()) {
      if (f.is_string() && paths.count(std::string(f.get_string()))) continue;
      kept.push_back(f);
    }
    *files = std::move(kept);
  }
}

json::object drop_missing_found_pnl_paths(const json::object& manifest_data, const std::vector<std::string>& missing) {
  std::set<std::string> paths = normalize_found_pnl_paths(missing);
  json::object out = manifest_data;
  if (paths.empty()) return out;
  if (json::value* files = out.if_contains("files"); files && files->is_object()) {
    for (const auto& p : paths) files->get_object().erase(p);
  }
  for (const char* name : SIGNALS_INDEX_SECTIONS) {
    if (json::value* section = out.if_contains(name)) drop_found_pnl_paths_from_membership(*section, paths);
  }
  return out;
}

std::optional<ScrubbedSignalsIndex> scrub_missing_found_pnl_paths_from_signals_index(
    const std::string& data_dir, json::object& manifest_data, const std::vector<std::string>& missing) {
  std::set<std::string> paths = normalize_found_pnl_paths(missing);
  if (paths.empty()) return std::nullopt;
  static const json::object kNoFiles;
  const json::object* files = as_object(manifest_data.if_contains("files"));
  const json::value* pointer = manifest_data.if_contains("signals_index");
  std::optional<std::string> old_path =
      manifest_signals_index_path(pointer ? *pointer : json::value(nullptr), files ? *files : kNoFiles);
  if (!old_path) return std::nullopt;
  std::string local = manifest_local_path(data_dir, *old_path);
  if (!path_exists(local)) return std::nullopt;
  json::value index;
  try {
    index = parse_json(read_file(local));
  } catch (const JsonParseError& e) {
    throw ManifestError(std::string("Invalid signals_index.json JSON: ") + e.what());
  }
  if (!index.is_object()) throw ManifestError("signals_index.json must contain a JSON object");
  for (const char* name : SIGNALS_INDEX_SECTIONS) {
    if (json::value* section = index.get_object().if_contains(name)) {
      drop_found_pnl_paths_from_membership(*section, paths);
    }
  }
  std::string body = dump_json(index, {.sort_keys = true});
  std::string digest = sha256(body);
  std::string new_path = "_control/signals_index." + digest + ".json";
  std::string new_local = manifest_local_path(data_dir, new_path);
  atomic_write(new_local, body);
  json::object& files_out = manifest_data["files"].is_object() ? manifest_data["files"].get_object()
                                                                : (manifest_data["files"] = json::object()).get_object();
  std::string kind = "signals_index";
  if (const json::object* old_entry = as_object(files_out.if_contains(*old_path))) {
    if (const json::value* k = old_entry->if_contains("kind"); k && k->is_string()) kind = k->get_string();
  }
  files_out.erase(*old_path);
  json::object entry;
  entry["relative_path"] = new_path;
  entry["sha256"] = digest;
  entry["size_bytes"] = static_cast<std::int64_t>(body.size());
  entry["kind"] = kind;
  files_out[new_path] = std::move(entry);
  manifest_data["signals_index"] = new_path;
  return ScrubbedSignalsIndex{*old_path, new_path, new_local, digest};
}

std::optional<std::string> missing_found_pnl_download_path(const PermanentDownloadError& error,
                                                           const json::object& files) {
  if (!error.status || *error.status != 404 || !error.file_path) return std::nullopt;
  const json::value* info = files.if_contains(*error.file_path);
  if (!info) return std::nullopt;
  if (!is_manifest_found_pnl_file(*error.file_path, *info)) return std::nullopt;
  return error.file_path;
}

std::optional<std::string> missing_found_pnl_download_path(const PermanentDownloadError& error,
                                                           const ManifestFiles& files) {
  if (!error.status || *error.status != 404 || !error.file_path) return std::nullopt;
  std::optional<ManifestFiles::Entry> entry = files.find(*error.file_path);
  if (!entry || !is_manifest_found_pnl_file(*error.file_path, entry->info())) return std::nullopt;
  return error.file_path;
}

namespace {

std::string listed_kind(const json::object& files, const std::string& path) {
  const json::value* info = files.if_contains(path);
  return info ? kind_of(*info) : "";
}

std::string listed_kind(const ManifestFiles& files, const std::string& path) {
  std::optional<ManifestFiles::Entry> entry = files.find(path);
  return entry ? kind_of(entry->info()) : "";
}

template <typename Files>
void validate_found_pnl_kinds(const json::object& sections, const Files& files) {
  for (const char* section : {"found_signals", "found_strategies"}) {
    const json::value* value = sections.if_contains(section);
    if (!value) continue;
    std::string expected = section == std::string_view("found_signals") ? FOUND_SIGNAL_PNL_KIND
                                                                        : FOUND_STRATEGY_EPOCH_PNL_KIND;
    for (const auto& path : membership_referenced_files(*value)) {
      std::optional<std::string> path_section = found_pnl_section_for_path(path);
      if (!path_section || *path_section != section) continue;
      std::string kind = listed_kind(files, path);
      if (kind != expected) {
        throw ManifestError("membership-referenced found PnL file " + path + " in " + section +
                            " has missing or unclassifiable kind; expected " + expected + " for " + section +
                            "; allowed found PnL kinds are " + FOUND_SIGNAL_PNL_KIND + ", " +
                            FOUND_STRATEGY_EPOCH_PNL_KIND);
      }
    }
  }
}

}  // namespace

void validate_membership_referenced_found_pnl_kinds(const json::object& sections, const json::object& files) {
  validate_found_pnl_kinds(sections, files);
}

void validate_membership_referenced_found_pnl_kinds(const json::object& sections, const ManifestFiles& files) {
  validate_found_pnl_kinds(sections, files);
}

}  // namespace tidewright::sync
