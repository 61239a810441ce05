// What the invariant-checking fuzz targets share: a host that logs nothing
// and a check that stops the run on a broken invariant.
#pragma once

#include "fake_host.hpp"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tidewright::sync::fuzz {

class QuietHost : public FakeHost {
 public:
  bool log_enabled(LogLevel) override { return false; }
};

inline void require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
  }
}

// Whether `path` is a relative path that stays below the directory it is
// joined to: not empty, no leading "/", no NUL or backslash, and no empty,
// "." or ".." segment.
inline bool is_safe_relative_path(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\0') != std::string_view::npos ||
      path.find('\\') != std::string_view::npos) {
    return false;
  }
  for (std::size_t start = 0; start <= path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view segment = path.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    start = end + 1;
  }
  return true;
}

}  // namespace tidewright::sync::fuzz
