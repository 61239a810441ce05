#include "tidewright/sync/artifacts/signals_index.hpp"

#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cctype>

namespace tidewright::sync {

std::optional<std::string> signals_index_path_digest(std::string_view path) {
  constexpr std::string_view prefix = "_control/signals_index.";
  constexpr std::string_view suffix = ".json";
  if (path.size() != prefix.size() + 64 + suffix.size()) return std::nullopt;
  if (path.substr(0, prefix.size()) != prefix || path.substr(prefix.size() + 64) != suffix) return std::nullopt;
  std::string_view digest = path.substr(prefix.size(), 64);
  for (char c : digest) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
  }
  return std::string(digest);
}

namespace {

std::optional<json::value> entry_of(const json::object& files, std::string_view path) {
  if (const json::value* v = files.if_contains(path)) return *v;
  return std::nullopt;
}

std::optional<json::value> entry_of(const ManifestFiles& files, std::string_view path) {
  if (auto entry = files.find(path)) return entry->info();
  return std::nullopt;
}

template <typename Files>
std::optional<std::string> signals_index_path_in(const json::value& signals_index, const Files& files) {
  // An empty pointer ("" as well as null) means the era has no index.
  if (!truthy(signals_index)) return std::nullopt;
  std::string path = safe_manifest_relative_path(python_str(signals_index));
  if (path == LEGACY_SIGNALS_INDEX_RELATIVE_PATH) {
    throw ManifestError("legacy signals_index.json sidecar is not supported");
  }
  std::optional<std::string> digest = signals_index_path_digest(path);
  if (!digest) throw ManifestError("manifest signals_index must reference _control/signals_index.<sha256>.json");
  const std::optional<json::value> listed = entry_of(files, path);
  const json::object* entry = listed ? as_object(&*listed) : nullptr;
  if (!listed) throw ManifestError("manifest signals_index must be present in files");
  if (!entry) throw ManifestError("manifest signals_index must be present in files");
  if (const json::value* rel = entry->if_contains("relative_path"); rel && !rel->is_null()) {
    std::string rel_path;
    try {
      rel_path = safe_manifest_relative_path(python_str(*rel));
    } catch (const ManifestError&) {
      throw ManifestError("manifest signals_index relative_path mismatch");
    }
    if (rel_path != path) throw ManifestError("manifest signals_index relative_path mismatch");
  }
  const json::value* kind = entry->if_contains("kind");
  if (!kind || !kind->is_string() || kind->get_string() != "signals_index") {
    throw ManifestError("manifest signals_index file kind must be signals_index");
  }
  const json::value* sha_value = entry->if_contains("sha256");
  std::string sha = sha_value && !sha_value->is_null() ? strip_ws(python_str(*sha_value)) : "";
  for (auto& c : sha) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (sha.empty()) throw ManifestError("manifest signals_index file sha256 is required");
  if (sha != *digest) throw ManifestError("manifest signals_index path digest must match sha256");
  const json::value* size = entry->if_contains("size_bytes");
  if (!size || !(size->is_int64() || size->is_uint64())) {
    throw ManifestError("manifest signals_index file size_bytes is required");
  }
  if (size->is_int64() && size->get_int64() < 0) {
    throw ManifestError("manifest signals_index file size_bytes must be non-negative");
  }
  return path;
}

}  // namespace

std::optional<std::string> manifest_signals_index_path(const json::value& signals_index, const json::object& files) {
  return signals_index_path_in(signals_index, files);
}

std::optional<std::string> manifest_signals_index_path(const json::value& signals_index, const ManifestFiles& files) {
  return signals_index_path_in(signals_index, files);
}

std::optional<std::string> manifest_signals_index_path(const Manifest& manifest) {
  return manifest_signals_index_path(manifest.signals_index(), manifest.files());
}

SignalsIndexMembership SignalsIndexMembership::of(const Manifest& manifest) {
  return {manifest.found_signals, manifest.found_strategies, manifest.useful_signals};
}

void SignalsIndexMembership::apply_to(Manifest& manifest) && {
  manifest.found_signals = std::move(found_signals);
  manifest.found_strategies = std::move(found_strategies);
  manifest.useful_signals = std::move(useful_signals);
}

SignalsIndexMembership signals_index_membership(const json::value& index, const Manifest& manifest) {
  if (!index.is_object()) throw ManifestError("signals_index.json must contain a JSON object");
  const json::object& obj = index.get_object();
  if (const json::value* era = obj.if_contains("era_number")) {
    std::optional<std::int64_t> era_int = to_int(*era);
    if (!era_int) {
      throw EraError("signals_index.json has invalid era_number=" + python_repr(*era));
    }
    if (*era_int != manifest.era_number_int()) {
      throw EraError("signals_index.json era_number=" + python_str(*era) + " does not match manifest era_number=" +
                     std::to_string(manifest.era_number_int()));
    }
  }
  SignalsIndexMembership membership;
  json::object* sections[3] = {&membership.found_signals, &membership.found_strategies, &membership.useful_signals};
  for (int i = 0; i < 3; ++i) {
    const char* name = SIGNALS_INDEX_SECTIONS[i];
    if (const json::value* v = obj.if_contains(name)) {
      if (!v->is_object()) throw ManifestError(std::string("signals_index.json ") + name + " must be a JSON object");
      *sections[i] = v->get_object();
    }
  }
  return membership;
}

json::object apply_manifest_signals_index(const json::value& index, Manifest& manifest) {
  SignalsIndexMembership membership = signals_index_membership(index, manifest);
  json::object applied = index.get_object();
  const json::object* sections[3] = {&membership.found_signals, &membership.found_strategies,
                                     &membership.useful_signals};
  for (int i = 0; i < 3; ++i) {
    if (applied.contains(SIGNALS_INDEX_SECTIONS[i])) applied[SIGNALS_INDEX_SECTIONS[i]] = *sections[i];
  }
  std::move(membership).apply_to(manifest);
  return applied;
}

json::object validate_signals_index_bytes(std::string_view data, Manifest& manifest) {
  // The body is text first: bytes that are not UTF-8 are that, whatever the
  // JSON around them would have been.
  if (std::optional<std::string> error = utf8_decode_error(data)) {
    throw ManifestError("Invalid signals_index.json UTF-8: " + *error);
  }
  json::value parsed;
  try {
    parsed = parse_json(data);
  } catch (const JsonParseError& e) {
    throw ManifestError(std::string("Invalid signals_index.json JSON: ") + e.what());
  }
  return apply_manifest_signals_index(parsed, manifest);
}

std::optional<SignalsIndexMembership> read_manifest_signals_index(
    const std::string& data_dir, const Manifest& manifest, const std::optional<std::string>& fallback_data_dir) {
  std::optional<std::string> path = manifest_signals_index_path(manifest);
  if (!path) return std::nullopt;
  std::string local = manifest_local_path(data_dir, *path);
  if (!path_exists(local) && fallback_data_dir) {
    std::string fallback = manifest_local_path(*fallback_data_dir, *path);
    if (path_exists(fallback)) local = fallback;
  }
  if (!path_exists(local)) throw SyncError("signals_index.json missing from local sync: " + *path);
  json::value parsed;
  try {
    parsed = parse_json(read_file(local));
  } catch (const JsonParseError& e) {
    throw ManifestError(std::string("Invalid signals_index.json JSON: ") + e.what());
  }
  return signals_index_membership(parsed, manifest);
}

bool load_manifest_signals_index(const std::string& data_dir, Manifest& manifest,
                                 const std::optional<std::string>& fallback_data_dir) {
  std::optional<SignalsIndexMembership> membership = read_manifest_signals_index(data_dir, manifest, fallback_data_dir);
  if (!membership) return false;
  std::move(*membership).apply_to(manifest);
  return true;
}

}  // namespace tidewright::sync
