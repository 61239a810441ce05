// What the invariant-checking fuzz targets share: a host that logs nothing
// and a check that stops the run on a broken invariant.
#pragma once

#include "tidewright/sync/host/fake_host.hpp"

#include <cstdio>
#include <cstdlib>

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

}  // namespace tidewright::sync::fuzz
