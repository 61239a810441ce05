// Era artifact bytes from a hostile server: vocabularies, signals indexes and
// shuffle-seed metadata are refused with a typed error, never crash, and what
// is accepted keeps the promises its users rely on: a vocabulary names the
// era and universe it was asked for and validates again unchanged, also
// when written and read back; an applied signals index is what the manifest
// now holds, and is applied unchanged again, also when written and read
// back; a key generation is
// the supported one, a key source a single stripped line, a universe name a
// single path segment.
#include "fuzz_support.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>

using namespace tidewright::sync;
using tidewright::sync::fuzz::require;

namespace {

const std::string kUniverse = "crypto";
constexpr std::int64_t kEra = 7;

// Equality of values as written (NaN is not equal to itself).
bool same(const json::value& a, const json::value& b) {
  return dump_json(a, {.sort_keys = true}) == dump_json(b, {.sort_keys = true});
}

void check_vocabulary(std::string_view text, const ManifestSiblings& siblings) {
  json::object vocabulary;
  try {
    vocabulary = validate_vocabulary_bytes(text, kEra, kUniverse, siblings);
  } catch (const SyncError&) {
    return;
  }
  require(json_equals_int(vocabulary.at("era_number"), kEra), "a vocabulary of another era was accepted");
  require(vocabulary.at("named_universe") == json::value(kUniverse), "a vocabulary of another universe was accepted");
  require(retired_function_names_in_vocabulary(vocabulary, siblings).empty(),
          "a vocabulary with retired function tokens was accepted");
  require(same(validate_vocabulary_data(vocabulary, kEra, kUniverse, siblings), vocabulary),
          "an accepted vocabulary changes when validated again");
  json::object reread;
  try {
    reread = validate_vocabulary_bytes(dump_json(json::value(vocabulary)), kEra, kUniverse, siblings);
  } catch (const SyncError&) {
    require(false, "an accepted vocabulary is refused when written and read back");
  }
  require(same(reread, vocabulary), "an accepted vocabulary changes when written and read back");
}

void check_signals_index(std::string_view text) {
  ManifestPtr manifest = Manifest::from_sanitized(json::object{{"era_number", kEra}});
  json::object applied;
  try {
    applied = validate_signals_index_bytes(text, *manifest);
  } catch (const SyncError&) {
    return;
  }
  const json::object* sections[] = {&manifest->found_signals, &manifest->found_strategies, &manifest->useful_signals};
  for (int i = 0; i < 3; ++i) {
    const json::value* section = applied.if_contains(SIGNALS_INDEX_SECTIONS[i]);
    require(section ? same(*section, *sections[i]) : sections[i]->empty(),
            "the manifest holds another section than the index applied");
  }
  if (const json::value* era = applied.if_contains("era_number")) {
    require(to_int(*era) == kEra, "a signals index of another era was applied");
  }
  ManifestPtr again = Manifest::from_sanitized(json::object{{"era_number", kEra}});
  require(same(apply_manifest_signals_index(json::value(applied), *again), applied),
          "an applied signals index changes when applied again");
  ManifestPtr fresh = Manifest::from_sanitized(json::object{{"era_number", kEra}});
  json::object reread;
  try {
    reread = validate_signals_index_bytes(dump_json(json::value(applied)), *fresh);
  } catch (const SyncError&) {
    require(false, "an applied signals index is refused when written and read back");
  }
  require(same(reread, applied), "an applied signals index changes when written and read back");
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

void check_seed_fields(const json::object& o) {
  if (const json::value* g = o.if_contains("shuffle_key_generation")) {
    try {
      require(coerce_shuffle_key_generation(*g) == "market-era-v1", "an unsupported key generation was accepted");
    } catch (const SyncError&) {
    }
  }
  if (const json::value* s = o.if_contains("shuffle_key_source")) {
    try {
      const std::string source = coerce_shuffle_key_source(*s);
      require(source.find_first_of("\n\r") == std::string::npos, "a key source with a line break was accepted");
      require(source.empty() || (!is_blank(source.front()) && !is_blank(source.back())),
              "a key source was kept with blanks around it");
    } catch (const SyncError&) {
    }
  }
  if (const json::value* name = o.if_contains("named_universe")) {
    try {
      const std::string universe = validate_named_universe(*name);
      require(!universe.empty() && universe != "." && universe != ".." &&
                  universe.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos,
              "a universe name that is not one path segment was accepted");
      require(validate_named_universe(json::value(universe)) == universe, "a universe name changes when checked again");
    } catch (const SyncError&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ManifestSiblings siblings = default_manifest_siblings();
  std::string_view text(reinterpret_cast<const char*>(data), size);
  check_vocabulary(text, siblings);
  check_signals_index(text);
  try {
    json::value v = parse_json(text);
    if (v.is_object()) check_seed_fields(v.get_object());
    (void)python_repr(v);
  } catch (const JsonParseError&) {
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Log lines and sibling defaults come from the host: a quiet fake one.
  tidewright::sync::set_host(std::make_shared<tidewright::sync::fuzz::QuietHost>());
  return 0;
}
