#include "tidewright/sync/era/market.hpp"

#include "tidewright/sync/reporting/errors.hpp"

namespace tidewright::sync {

std::int64_t coerce_agent_market_id(const json::value& market_id, const std::string& repr_text) {
  std::optional<std::int64_t> value = market_id.is_null() ? std::nullopt : to_int(market_id);
  if (!value || *value <= 0) {
    throw ValueError("market_id must be a positive integer, got " + repr_text);
  }
  return *value;
}

std::optional<std::int64_t> parse_era_directory_id(std::string_view name) {
  std::string_view digits;
  if (name.substr(0, 4) == "era_") {
    digits = name.substr(4);
  } else if (name.substr(0, 3) == "era") {
    digits = name.substr(3);
  } else {
    return std::nullopt;
  }
  if (digits.empty() || digits.size() > 18) return std::nullopt;
  std::int64_t value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace tidewright::sync
