#include "tidewright/sync/era/era_current.hpp"

namespace tidewright::sync {

std::string market_era_current_url(const std::string& server_url, std::int64_t market_id) {
  return server_url + "/market/" + std::to_string(market_id) + "/era/current";
}

json::value normalize_era_current_response(const json::value& data) {
  if (!data.is_object()) return json::object();
  const json::object& answer = data.get_object();
  const json::value* era = answer.if_contains("era");
  if (!era) return data;
  const json::value* top_state = answer.if_contains("state");
  if (era->is_object()) {
    json::object copy = era->get_object();
    if (!copy.contains("state") && top_state && !top_state->is_null()) copy["state"] = *top_state;
    return copy;
  }
  json::object config;
  config["era_number"] = nullptr;
  config["state"] = top_state && !top_state->is_null() ? *top_state : json::value("between_eras");
  return config;
}

std::optional<std::int64_t> strict_era_number(const json::value& value) {
  if (value.is_int64()) return value.get_int64();
  if (value.is_uint64() && value.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)) {
    return static_cast<std::int64_t>(value.get_uint64());
  }
  return std::nullopt;
}

}  // namespace tidewright::sync
