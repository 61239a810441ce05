// Era directory names, market ids and service URL splitting.
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <optional>

namespace tidewright::sync {
namespace {

using test_support::message_of;

// Era directory names and market ids as the host's int() reads them are
// checked through the module (the Python era and construction tests); here
// what the host's text cannot hold: names on disk that are not UTF-8, and
// numbers of other JSON kinds.
TEST(EraDirectoryId, NamesThatAreNotUtf8AreNoEraDirectories) {
  for (const char* name : {"era_\xd9", "era_\xc1\xb1", "era_\xed\xa0\x80", "era_\u0669\u066a"}) {
    EXPECT_EQ(parse_era_directory_id(name), std::nullopt) << name;
  }
  EXPECT_EQ(parse_era_directory_id("era_\u0669"), 9);
}

TEST(MarketIdTest, UnsignedAndFloatIdsConvertToAPositiveInteger) {
  EXPECT_EQ(coerce_agent_market_id(json::value(std::uint64_t{7}), "7"), 7);
  EXPECT_EQ(coerce_agent_market_id(json::value(2.5), "2.5"), 2);
  EXPECT_EQ(message_of<ValueError>([] { coerce_agent_market_id(json::value(0.5), "0.5"); }),
            "market_id must be a positive integer, got 0.5");
}

struct UrlCase {
  const char* url;
  UrlParts parts;
  const char* hostname;
  std::optional<int> port;
};

class SplitUrlTest : public ::testing::TestWithParam<UrlCase> {};

TEST_P(SplitUrlTest, SplitsLikeTheHost) {
  const UrlCase& c = GetParam();
  UrlParts parts = split_url(c.url);
  EXPECT_EQ(parts.scheme, c.parts.scheme);
  EXPECT_EQ(parts.netloc, c.parts.netloc);
  EXPECT_EQ(parts.path, c.parts.path);
  EXPECT_EQ(parts.query, c.parts.query);
  EXPECT_EQ(parts.fragment, c.parts.fragment);
  EXPECT_EQ(parts.hostname(), c.hostname);
  EXPECT_EQ(parts.port(), c.port);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, SplitUrlTest,
    ::testing::Values(
        UrlCase{"HTTPS://User:pw@Data.Example:8443/a/b?x=1#frag",
                {"https", "User:pw@Data.Example:8443", "/a/b", "x=1", "frag"}, "data.example", 8443},
        UrlCase{"http://127.0.0.1", {"http", "127.0.0.1", "", "", ""}, "127.0.0.1", std::nullopt},
        UrlCase{"http://[::1]:80/p", {"http", "[::1]:80", "/p", "", ""}, "::1", 80},
        UrlCase{"http://[::1/p", {"http", "[::1", "/p", "", ""}, "::1", std::nullopt},
        UrlCase{"http://h:/p", {"http", "h:", "/p", "", ""}, "h", std::nullopt},
        UrlCase{"http://h:65536", {"http", "h:65536", "", "", ""}, "h", std::nullopt},
        UrlCase{"http://h:8x", {"http", "h:8x", "", "", ""}, "h", std::nullopt},
        UrlCase{"http://a@b@h:1", {"http", "a@b@h:1", "", "", ""}, "h", 1},
        UrlCase{"//h/p?q#f?g", {"", "h", "/p", "q", "f?g"}, "h", std::nullopt},
        UrlCase{"/only/a/path", {"", "", "/only/a/path", "", ""}, "", std::nullopt},
        // Not a scheme: starts with a digit, or holds a character a scheme cannot.
        UrlCase{"1http://h", {"", "", "1http://h", "", ""}, "", std::nullopt},
        UrlCase{"ht_tp://h", {"", "", "ht_tp://h", "", ""}, "", std::nullopt},
        UrlCase{"mailto:x@y", {"mailto", "", "x@y", "", ""}, "", std::nullopt}));

TEST(StripTest, StripsAsciiWhiteSpaceAndTrailingCharacters) {
  EXPECT_EQ(strip_ws(" \t\n\r\f\v\x1c\x1d\x1e\x1f a b \x1f\n"), "a b");
  EXPECT_EQ(strip_ws("  "), "");
  EXPECT_EQ(strip_ws("\xc2\xa0x"), "\xc2\xa0x");  // not ASCII: kept
  EXPECT_EQ(rstrip_char("http://h///", '/'), "http://h");
  EXPECT_EQ(rstrip_char("///", '/'), "");
}

}  // namespace
}  // namespace tidewright::sync
