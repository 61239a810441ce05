// Market ids and era directory names.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {


// The market id as a positive integer. `repr_text` is the host's printed
// form of the value as passed, used in the error message. Throws ValueError
// "market_id must be a positive integer, got <repr>".
std::int64_t coerce_agent_market_id(const json::value& market_id, const std::string& repr_text);

// The era number in an era directory name ("era_12", "era12"), or empty.
// The number is read as the host's int() reads decimal digits of any script
// ("era_\u0663" is 3); anything else after the prefix, and numbers past the
// 64-bit range, give empty.
std::optional<std::int64_t> parse_era_directory_id(std::string_view name);

}  // namespace tidewright::sync
