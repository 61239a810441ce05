// The era artifacts' rules are checked through the module (the Python
// artifact tests); here the universe a vocabulary's path names, which a
// manifest entry decides and no test there reaches with a bad path.
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

namespace tidewright::sync {
namespace {

TEST(Vocabulary, UniverseNamesAndPaths) {
  EXPECT_EQ(test_support::message_of<SyncError>([] { validate_named_universe(json::value("  ")); }),
            "named_universe is required");
  EXPECT_EQ(vocabulary_named_universe_from_path("named_universes/crypto/vocabulary.json"), "crypto");
  for (const char* other : {"named_universes/crypto/other.json", "../named_universes/x/vocabulary.json",
                            "named_universes/a/b/vocabulary.json", "named_universes/vocabulary.json",
                            "named_universes/ /vocabulary.json"}) {
    EXPECT_FALSE(vocabulary_named_universe_from_path(other)) << other;
  }
}

}  // namespace
}  // namespace tidewright::sync
