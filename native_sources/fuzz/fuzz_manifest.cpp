// Manifest text from a hostile server: parsing, sanitising, building the
// Manifest and checking every path it names never crash or escape, and what
// sanitising accepts is safe to write: no accepted path names a file of the
// engine, every accepted path is a safe relative path, no two reach one
// local file (nor is one another's directory or staging file), every kept
// entry can be checked (an object, a canonical digest, a usable size, no
// NaN), a sanitised manifest sanitises to itself, also after being written
// and read back, and a built manifest builds again from its own object.
#include "fuzz_support.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

using namespace tidewright::sync;
using tidewright::sync::fuzz::is_safe_relative_path;
using tidewright::sync::fuzz::require;

namespace {

bool same(const json::value& a, const json::value& b) {
  return dump_json(a, {.sort_keys = true}) == dump_json(b, {.sort_keys = true});
}

bool canonical_digest(const json::value& digest) {
  if (!digest.is_string() || digest.get_string().size() != 64) return false;
  for (char c : digest.get_string()) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

bool usable_size(const json::value& size) {
  if (size.is_int64()) return size.get_int64() >= 0;
  if (size.is_uint64()) return size.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX);
  if (size.is_double()) return size.get_double() >= 0 && std::trunc(size.get_double()) == size.get_double();
  return false;
}

void check_entry(const json::value& info) {
  require(info.is_object(), "an entry that is not an object was kept");
  require(!holds_non_finite_number(info), "an entry holding NaN was kept");
  const json::object& entry = info.get_object();
  if (const json::value* digest = entry.if_contains("sha256"); digest && !digest->is_null()) {
    require(canonical_digest(*digest), "a digest was kept that is not 64 lower-case hexadecimal digits");
  }
  if (const json::value* size = entry.if_contains("size_bytes"); size && !size->is_null()) {
    require(usable_size(*size), "a size was kept that is no whole number of bytes");
  }
}

// Each accepted local path is reached by one key only, is nobody's
// directory and nobody's staging file.
void check_local_paths(const json::object& files) {
  std::set<std::string> local;
  for (const auto& kv : files) {
    std::string canonical;
    if (!try_safe_manifest_relative_path(kv.key(), canonical)) continue;
    require(is_safe_relative_path(canonical), "an accepted path is not a safe relative path");
    require(!is_engine_owned_path(canonical), "a path on the engine's own files was accepted");
    require(local.insert(canonical).second, "two accepted paths reach one local file");
  }
  for (const std::string& path : local) {
    for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      require(!local.contains(path.substr(0, slash)), "an accepted file is another path's directory");
    }
    const std::string staging = path + ".tmp";
    auto at = local.lower_bound(staging);
    require(at == local.end() || !(*at == staging || at->starts_with(staging + "/")),
            "an accepted path is another's staging file or lies below it");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ManifestSiblings siblings = default_manifest_siblings();
  json::value value;
  try {
    value = parse_json(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const JsonParseError&) {
    return 0;
  }
  if (!value.is_object()) return 0;

  json::object sanitized;
  try {
    sanitized = sanitize_manifest_data_for_sync(value.get_object(), siblings);
  } catch (const ManifestError&) {
    return 0;
  }
  if (const json::object* files = sanitized.if_contains("files") ? sanitized.at("files").if_object() : nullptr) {
    for (const auto& kv : *files) check_entry(kv.value());
    check_local_paths(*files);
  }
  bool changed = true;
  std::vector<RejectedManifestEntry> rejected;
  json::object again = sanitize_manifest_data_for_sync(sanitized, siblings, &changed, &rejected);
  require(!changed && rejected.empty() && same(json::value(again), json::value(sanitized)),
          "a sanitised manifest changes when sanitised again");

  // Written out and read back, it is still the same sanitised manifest.
  const std::string written = dump_json(json::value(sanitized));
  json::value reread = parse_json(written);
  require(reread.is_object(), "a written manifest reads back as no object");
  changed = true;
  json::object reread_sanitized = sanitize_manifest_data_for_sync(reread.get_object(), siblings, &changed);
  require(!changed && same(json::value(reread_sanitized), json::value(sanitized)),
          "a sanitised manifest changes when written and read back");

  try {
    ManifestPtr manifest = Manifest::from_sanitized(std::move(sanitized));
    // A built manifest builds again from its own object, unchanged.
    ManifestPtr rebuilt = Manifest::from_sanitized(manifest->to_dict());
    require(same(json::value(rebuilt->to_dict()), json::value(manifest->to_dict())) &&
                rebuilt->version_int() == manifest->version_int() &&
                rebuilt->era_number_int() == manifest->era_number_int(),
            "a manifest changes when built again from its own object");
    require(!holds_non_finite_number(json::value(manifest->to_dict())), "a manifest holding NaN was built");
    for (const ManifestFiles::Entry entry : manifest->files()) {
      try {
        std::string safe = safe_manifest_relative_path(entry.path());
        (void)manifest_file_is_sync_excluded(safe, entry.info(), siblings);
        require(manifest_file_is_sync_excluded(entry, siblings) ==
                    manifest_file_is_sync_excluded(entry.path(), entry.info(), siblings),
                "an entry's sync exclusion depends on how it is stored");
        (void)agent_signal_group_key(safe, "", siblings.epochs);
      } catch (const ManifestError&) {
      }
    }
    try {
      (void)manifest_signals_index_path(*manifest);
    } catch (const ManifestError&) {
    }
    (void)dump_json(json::value(manifest->to_dict()), {.sort_keys = true});
  } catch (const ManifestError&) {
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Log lines and sibling defaults come from the host: a quiet fake one.
  tidewright::sync::set_host(std::make_shared<tidewright::sync::fuzz::QuietHost>());
  return 0;
}
