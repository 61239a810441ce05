// The result of one GET: status, headers of the final response (in the
// order received), and the whole body.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tidewright::sync {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpResult {
  std::int64_t status = 0;
  HeaderList headers;
  std::string body;
};

}  // namespace tidewright::sync
