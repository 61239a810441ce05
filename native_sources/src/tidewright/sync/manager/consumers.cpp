#include "tidewright/sync/manager/consumers.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <exception>
#include <optional>
#include <string_view>

namespace tidewright::sync {

Consumers::Consumers(const std::string& data_dir) : count_path_(path_join(data_dir, ".consumer_count")) {}

void Consumers::load() {
  // A process killed while it rewrote the count leaves its temporary file.
  remove_orphaned_temporaries(count_path_);
  std::int64_t count = 0;
  if (path_exists(count_path_)) {
    try {
      std::string text = read_file(count_path_);
      std::optional<std::int64_t> parsed = parse_consumer_count(text);
      if (!parsed) {
        std::string stripped = text;
        auto is_ws = [](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; };
        while (!stripped.empty() && is_ws(stripped.back())) stripped.pop_back();
        std::size_t b = 0;
        while (b < stripped.size() && is_ws(stripped[b])) ++b;
        throw ValueError("invalid literal for int() with base 10: " + python_repr(std::string_view(stripped).substr(b)));
      }
      count = *parsed;
    } catch (const std::exception& e) {
      log_warning("Failed to read consumer count: %s", {json::value(e.what())});
      count = 0;
    }
  }
  MutexLock lock(mu_);
  count_.store(count);
}

std::int64_t Consumers::change(std::int64_t delta) {
  const std::int64_t count = count_.load() + delta;
  count_.store(count);
  persist();
  return count;
}

void Consumers::persist() {
  try {
    atomic_write(count_path_, consumer_count_text(count_.load()));
  } catch (const std::exception& e) {
    log_warning("Failed to persist consumer count: %s", {json::value(e.what())});
  }
}

}  // namespace tidewright::sync
