// ManagerSettings: what a SyncManager is made for — its data directory (in
// canonical form), the data service's URL, the market id and the poll
// interval. Set once by the constructor and never changed, so read without
// a lock.
#pragma once

#include <cstdint>
#include <string>

namespace tidewright::sync {

struct ManagerSettings {
  std::string data_dir;
  std::string server_url;
  std::int64_t market_id = 1;
  double poll_interval = 0;
};

}  // namespace tidewright::sync
