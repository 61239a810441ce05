// The market-scoped era-current endpoint ("/market/<id>/era/current"): its
// URL and the normalisation of its answer into an era config.
//
// The service answers in one of two shapes: flat (the era fields at top
// level) or wrapped ({"era": {...}, "state": ...}). Both become one era
// config: an object with "era_number" (integer or null), "state" ("active",
// "closing", "between_eras"), and, when present, "next_closing_at" and
// "min_library_version".
#pragma once

#include "tidewright/sync/common/json.hpp"

#include <cstdint>
#include <string>

namespace tidewright::sync {

// server_url + "/market/" + market_id + "/era/current". The server URL is
// used as given (no slash trimmed or added).
std::string market_era_current_url(const std::string& server_url, std::int64_t market_id);

// The era config of an era-current answer:
//   not an object                      -> {}
//   no key "era" (flat)                -> the answer unchanged
//   "era" an object                    -> a shallow copy of it, given the
//                                         top-level "state" when it has none
//                                         and that state is not null
//   "era" null or anything else        -> {"era_number": null, "state":
//                                         top-level "state" or "between_eras"}
json::value normalize_era_current_response(const json::value& data);

// The era number of a config as an integer: an integer value only (not a
// boolean, float or text). Empty otherwise.
std::optional<std::int64_t> strict_era_number(const json::value& value);

}  // namespace tidewright::sync
