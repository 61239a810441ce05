// MissingFoundPnl: the found PnL files that storage no longer has, left out
// of the manifest version they were met in. A sync's passes fill it and the
// next pass fetches the manifest without them; a new manifest version
// forgets them. The manager keeps it under its sync lock.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace tidewright::sync {

struct MissingFoundPnl {
  std::set<std::string> paths;
  std::optional<std::int64_t> manifest_version;  // the version `paths` were met in
};

}  // namespace tidewright::sync
