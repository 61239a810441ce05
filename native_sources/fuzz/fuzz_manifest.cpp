// Manifest text from a hostile server: parsing, sanitising, building the
// Manifest and checking every path it names must never crash or escape.
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cstddef>
#include <cstdint>

using namespace tidewright::sync;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ManifestSiblings siblings = default_manifest_siblings();
  json::value value;
  try {
    value = parse_json(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const JsonParseError&) {
    return 0;
  }
  if (!value.is_object()) return 0;
  try {
    ManifestPtr manifest = Manifest::create(value.get_object(), siblings);
    for (const auto& kv : manifest->files()) {
      try {
        std::string safe = safe_manifest_relative_path(kv.key());
        (void)manifest_file_is_sync_excluded(safe, kv.value(), siblings);
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
