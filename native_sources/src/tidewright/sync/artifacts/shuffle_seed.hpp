// The era's enciphered shuffle seed ("shuffle_seed.enc", 60 opaque bytes) and
// its metadata file ("shuffle_seed.enc.meta.json"): size rule, key
// generation and source values, response era header, and the checks that
// decide whether a local seed may be used.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

inline constexpr const char* SHUFFLE_SEED_FILENAME = "shuffle_seed.enc";
inline constexpr std::size_t SHUFFLE_SEED_BYTES = 60;
inline constexpr const char* SHUFFLE_KEY_GENERATION_MARKET_ERA_V1 = "market-era-v1";
inline constexpr const char* DEFAULT_SHUFFLE_KEY_GENERATION = SHUFFLE_KEY_GENERATION_MARKET_ERA_V1;
inline constexpr const char* RETIRED_SHUFFLE_KEY_GENERATION_ERA_ONLY_V1 = "legacy-era-only-v1";
inline constexpr const char* SHUFFLE_KEY_GENERATION_HEADER = "X-Tidewright-Shuffle-Key-Generation";
inline constexpr const char* SHUFFLE_KEY_SOURCE_HEADER = "X-Tidewright-Shuffle-Key-Source";
inline constexpr const char* ERA_NUMBER_HEADER = "X-Era-Number";

using HeaderList = std::vector<std::pair<std::string, std::string>>;

std::string shuffle_seed_meta_path(const std::string& path);
// The first header whose name equals `name` ignoring case.
std::optional<std::string> header_value(const HeaderList& headers, std::string_view name);
// SyncError/EraError when the response's X-Era-Number is missing, invalid
// or not `expected_era_number`.
void validate_response_era_header(const HeaderList& headers, std::int64_t expected_era_number,
                                  const std::string& artifact);
std::string coerce_shuffle_key_generation(const json::value& value);
std::string coerce_shuffle_key_source(const json::value& value);

// The manifest's value of `field` as a positive integer, else empty.
std::optional<std::int64_t> manifest_positive_int(const Manifest& manifest, const char* field);
std::string shuffle_seed_generation_for_manifest(const Manifest& manifest);
std::optional<std::string> shuffle_seed_source_for_manifest(const Manifest& manifest);

void write_shuffle_seed_metadata(const std::string& path, std::int64_t era_number,
                                 std::optional<std::int64_t> market_id, std::optional<std::int64_t> manifest_version,
                                 const std::optional<json::value>& shuffle_key_generation,
                                 const std::optional<json::value>& shuffle_key_source);
void validate_shuffle_seed_bytes(std::string_view data);

struct ShuffleSeedExpectations {
  std::optional<std::int64_t> era_number;
  std::optional<std::int64_t> market_id;
  std::optional<std::int64_t> manifest_version;
  std::optional<std::string> shuffle_key_generation;
};
void validate_shuffle_seed_file(const std::string& path, const ShuffleSeedExpectations& expected);

}  // namespace tidewright::sync
