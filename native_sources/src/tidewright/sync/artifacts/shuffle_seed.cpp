#include "tidewright/sync/artifacts/shuffle_seed.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cctype>

namespace tidewright::sync {

namespace {

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

std::optional<std::int64_t> positive_int(const json::value* v) {
  if (!v || v->is_null()) return std::nullopt;
  std::optional<std::int64_t> n = to_int(*v);
  if (!n || *n <= 0) return std::nullopt;
  return n;
}

}  // namespace

std::string shuffle_seed_meta_path(const std::string& path) { return path + ".meta.json"; }

std::optional<std::string> header_value(const HeaderList& headers, std::string_view name) {
  for (const auto& [k, v] : headers) {
    if (iequals(k, name)) return v;
  }
  return std::nullopt;
}

void validate_response_era_header(const HeaderList& headers, std::int64_t expected_era_number,
                                  const std::string& artifact) {
  std::optional<std::string> value = header_value(headers, ERA_NUMBER_HEADER);
  if (!value) throw SyncError(artifact + " response is missing X-Era-Number");
  std::optional<std::int64_t> era = to_int(json::value(*value));
  if (!era) throw EraError(artifact + " response has invalid X-Era-Number=" + *value);
  if (*era != expected_era_number) {
    throw EraError(artifact + " response era_number=" + std::to_string(*era) + " does not match manifest era_number=" +
                   std::to_string(expected_era_number));
  }
}

std::string coerce_shuffle_key_generation(const json::value& value) {
  std::string text = strip_ws(value.is_null() ? std::string() : python_str(value));
  if (text == RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1) {
    throw SyncError(
        "retired shuffle_key_generation 'legacy-era-only-v1' is not supported; sync the current market-era-v1 "
        "distribution");
  }
  if (text != SHUFFLE_KEY_GENERATION_MARKET_ERA_V1) {
    throw SyncError("unknown shuffle_key_generation " + python_repr(std::string_view(text)));
  }
  return text;
}

std::string coerce_shuffle_key_source(const json::value& value) {
  std::string text = strip_ws(value.is_null() ? std::string() : python_str(value));
  if (text.find('\n') != std::string::npos || text.find('\r') != std::string::npos) {
    throw SyncError("shuffle_key_source must be a single-line string");
  }
  return text;
}

std::optional<std::int64_t> manifest_positive_int(const Manifest& manifest, const char* field) {
  return positive_int(manifest.fields().if_contains(field));
}

std::string shuffle_seed_generation_for_manifest(const Manifest& manifest) {
  const json::value& g = manifest.shuffle_key_generation();
  return coerce_shuffle_key_generation(g.is_null() ? json::value(DEFAULT_SHUFFLE_KEY_GENERATION) : g);
}

std::optional<std::string> shuffle_seed_source_for_manifest(const Manifest& manifest) {
  const json::value& s = manifest.shuffle_key_source();
  if (s.is_null()) return std::nullopt;
  return coerce_shuffle_key_source(s);
}

void write_shuffle_seed_metadata(const std::string& path, std::int64_t era_number,
                                 std::optional<std::int64_t> market_id, std::optional<std::int64_t> manifest_version,
                                 const std::optional<json::value>& shuffle_key_generation,
                                 const std::optional<json::value>& shuffle_key_source) {
  json::object meta;
  meta["era_number"] = era_number;
  meta["market_id"] = market_id ? json::value(*market_id) : json::value(nullptr);
  meta["manifest_version"] = manifest_version ? json::value(*manifest_version) : json::value(nullptr);
  meta["shuffle_key_generation"] = coerce_shuffle_key_generation(
      shuffle_key_generation ? *shuffle_key_generation : json::value(DEFAULT_SHUFFLE_KEY_GENERATION));
  meta["shuffle_key_source"] =
      coerce_shuffle_key_source(shuffle_key_source ? *shuffle_key_source : json::value(nullptr));
  atomic_write(shuffle_seed_meta_path(path), dump_json(meta, {.sort_keys = true}));
}

void validate_shuffle_seed_bytes(std::string_view data) {
  if (data.size() != SHUFFLE_SEED_BYTES) {
    throw SyncError("shuffle_seed.enc has invalid size: expected 60 bytes, got " + std::to_string(data.size()));
  }
}

void validate_shuffle_seed_file(const std::string& path, const ShuffleSeedExpectations& expected) {
  if (!path_exists(path)) throw SyncError("shuffle_seed.enc is missing");
  validate_shuffle_seed_bytes(read_file(path));
  std::string meta_path = shuffle_seed_meta_path(path);
  if (!path_exists(meta_path)) throw SyncError("shuffle_seed.enc era metadata is missing");
  json::value meta_value;
  try {
    meta_value = parse_json(read_file(meta_path));
  } catch (const std::exception&) {
    throw SyncError("shuffle_seed.enc era metadata is invalid");
  }
  if (!meta_value.is_object()) throw SyncError("shuffle_seed.enc era metadata is invalid");
  const json::object& meta = meta_value.get_object();
  auto shown = [](const json::value* v) { return v ? python_str(*v) : std::string("None"); };
  if (expected.era_number) {
    const json::value* v = meta.if_contains("era_number");
    std::optional<std::int64_t> era = v && !v->is_null() ? to_int(*v) : std::nullopt;
    if (!era) throw EraError("shuffle_seed.enc era metadata has invalid era_number=" + shown(v));
    if (*era != *expected.era_number) {
      throw EraError("shuffle_seed.enc era_number=" + std::to_string(*era) + " does not match manifest era_number=" +
                     std::to_string(*expected.era_number));
    }
  }
  if (expected.market_id) {
    std::optional<std::int64_t> market = positive_int(meta.if_contains("market_id"));
    if (!market) throw EraError("shuffle_seed.enc market metadata is missing or invalid");
    if (*market != *expected.market_id) {
      throw EraError("shuffle_seed.enc market_id=" + std::to_string(*market) + " does not match manifest market_id=" +
                     std::to_string(*expected.market_id));
    }
  }
  if (expected.manifest_version) {
    std::optional<std::int64_t> version = positive_int(meta.if_contains("manifest_version"));
    if (!version) throw EraError("shuffle_seed.enc manifest_version metadata is missing or invalid");
    if (*version != *expected.manifest_version) {
      throw EraError("shuffle_seed.enc manifest_version=" + std::to_string(*version) +
                     " does not match manifest version=" + std::to_string(*expected.manifest_version));
    }
  }
  if (expected.shuffle_key_generation) {
    const json::value* v = meta.if_contains("shuffle_key_generation");
    std::string generation;
    try {
      generation = coerce_shuffle_key_generation(v ? *v : json::value(nullptr));
    } catch (const SyncError&) {
      throw EraError("shuffle_seed.enc shuffle_key_generation is invalid");
    }
    if (generation != *expected.shuffle_key_generation) {
      throw EraError("shuffle_seed.enc shuffle_key_generation=" + generation +
                     " does not match manifest shuffle_key_generation=" + *expected.shuffle_key_generation);
    }
  }
}

}  // namespace tidewright::sync
