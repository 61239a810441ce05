// The small text files the manager keeps in the data directory beside the
// JSON ones: ".consumer_count" (the decimal count) and the owner file of the
// exclusive lock file that stands in for flock where file locks do not
// exclude other processes ("<pid> <host name>\n").
//
// The parsers never throw: the files are shared with other processes and
// may be torn, empty or garbled.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tidewright::sync {

// The count in ".consumer_count" as the host's int() reads it (surrounding
// blanks, a sign, "_" between digits); empty when int() would refuse it.
std::optional<std::int64_t> parse_consumer_count(std::string_view text);
std::string consumer_count_text(std::int64_t count);

struct LockOwner {
  // The process id; empty when the text before the first blank is not a
  // process id (decimal digits only, 1 to the largest pid_t).
  std::optional<pid_t> pid;
  std::string host;  // the rest of the first line, trailing blanks removed
};

// Empty when the text has no blank (a file still being written).
std::optional<LockOwner> parse_lock_owner(std::string_view text);
std::string lock_owner_text(pid_t pid, const std::string& host);

}  // namespace tidewright::sync
