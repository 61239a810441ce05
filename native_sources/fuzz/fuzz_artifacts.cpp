// Era artifact bytes from a hostile server: vocabularies, signals indexes,
// shuffle-seed metadata and the sync side files must be rejected with a
// typed error, never crash.
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cstddef>
#include <cstdint>

using namespace tidewright::sync;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ManifestSiblings siblings = default_manifest_siblings();
  std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    (void)validate_vocabulary_bytes(text, 7, std::string("crypto"), siblings);
  } catch (const SyncError&) {
  }
  try {
    ManifestPtr manifest = Manifest::from_sanitized(parse_json(R"({"era_number": 7})").get_object());
    (void)validate_signals_index_bytes(text, *manifest);
  } catch (const SyncError&) {
  }
  try {
    json::value v = parse_json(text);
    if (v.is_object()) {
      const json::object& o = v.get_object();
      if (const json::value* g = o.if_contains("shuffle_key_generation")) (void)coerce_shuffle_key_generation(*g);
      if (const json::value* s = o.if_contains("shuffle_key_source")) (void)coerce_shuffle_key_source(*s);
      if (const json::value* name = o.if_contains("named_universe")) (void)validate_named_universe(*name);
    }
    (void)python_repr(v);
  } catch (const JsonParseError&) {
  } catch (const SyncError&) {
  }
  return 0;
}
