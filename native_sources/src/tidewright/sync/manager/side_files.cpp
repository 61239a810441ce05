#include "tidewright/sync/manager/side_files.hpp"

#include "tidewright/sync/common/json.hpp"

#include <limits>

namespace tidewright::sync {

std::optional<std::int64_t> parse_consumer_count(std::string_view text) {
  return to_int(json::value(text));
}

std::string consumer_count_text(std::int64_t count) { return std::to_string(count); }

std::optional<LockOwner> parse_lock_owner(std::string_view text) {
  std::size_t space = text.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  LockOwner owner;
  std::string_view digits = text.substr(0, space);
  std::int64_t pid = 0;
  bool valid = !digits.empty();
  for (char c : digits) {
    if (c < '0' || c > '9') {
      valid = false;
      break;
    }
    pid = pid * 10 + (c - '0');
    if (pid > std::numeric_limits<pid_t>::max()) {
      valid = false;
      break;
    }
  }
  if (valid && pid > 0) owner.pid = static_cast<pid_t>(pid);
  std::string_view host = text.substr(space + 1);
  host = host.substr(0, host.find('\n'));
  while (!host.empty() && (host.back() == ' ' || host.back() == '\r')) host.remove_suffix(1);
  owner.host = std::string(host);
  return owner;
}

std::string lock_owner_text(pid_t pid, const std::string& host) {
  return std::to_string(pid) + " " + host + "\n";
}

}  // namespace tidewright::sync
