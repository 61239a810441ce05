#include "tidewright/sync/reporting/errors.hpp"

#include <gtest/gtest.h>

#include <functional>

namespace tidewright::sync {
namespace {

SyncUnavailableError unavailable(const char* body) {
  return sync_unavailable_from("https://h/data/manifest", 3, {503}, {}, parse_sync_error_body(body));
}

HostError host_error(unsigned flags) { return HostError("raised by a callback", "X", flags, nullptr); }

// The catch sites of the engine rely on these two answers: what ends an
// operation and what another attempt may cure.
TEST(ErrorClassification, FatalAndRetryableNeverOverlap) {
  struct Case {
    std::function<void()> raise;
    bool fatal;
    bool retryable;
  };
  const std::vector<Case> cases = {
      {[] { throw AuthError("refused"); }, true, false},
      {[] { throw SyncBackoffCancelled("stop"); }, true, false},
      {[] { throw LibraryUpdateRequired("old"); }, true, false},
      {[] { throw host_error(HostError::kIsKeyboardInterrupt); }, true, false},
      {[] { throw host_error(HostError::kIsAuthError | HostError::kIsConnectionError); }, true, false},
      {[] { throw host_error(HostError::kIsConnectionError); }, false, false},  // the host's own failure
      {[] { throw ConnectionError("reset"); }, false, true},
      {[] { throw TimeoutError("no progress"); }, false, true},
      {[] { throw unavailable(R"({"error": "maintenance"})"); }, false, true},
      {[] { throw unavailable(R"({"retryable": false})"); }, false, false},
      {[] { throw EraError("other era"); }, false, true},
      {[] { throw IntegrityError("sha"); }, false, false},
      {[] { throw DiskSpaceError("full"); }, false, false},
      {[] { throw ManifestSupersededError("newer"); }, false, false},
      {[] { throw PermanentDownloadError("404", "a", 404); }, false, false},
      {[] { throw FeatureRotationStateError("bad"); }, false, false},
      {[] { throw std::runtime_error("bug"); }, false, false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    try {
      cases[i].raise();
    } catch (const std::exception& e) {
      EXPECT_EQ(is_fatal(e), cases[i].fatal) << "case " << i;
      EXPECT_EQ(is_retryable(e), cases[i].retryable) << "case " << i;
    }
  }
}

// The codes of the host's standard classes are checked through the module
// (test_errors); here a sibling's class that is also a standard one.
TEST(ErrorClassification, HostErrorTakesItsMostSpecificCode) {
  EXPECT_EQ(host_error(HostError::kIsRotationStatePayloadError | HostError::kIsValueError).code(), ErrorCode::kState);
  EXPECT_EQ(error_code(FileNotFoundError("gone")), ErrorCode::kFileSystem);
}

}  // namespace
}  // namespace tidewright::sync
