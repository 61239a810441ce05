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

struct EraDirCase {
  const char* name;
  std::optional<std::int64_t> era;
};

class EraDirectoryIdTest : public ::testing::TestWithParam<EraDirCase> {};

TEST_P(EraDirectoryIdTest, ReadsTheEraNumber) { EXPECT_EQ(parse_era_directory_id(GetParam().name), GetParam().era); }

INSTANTIATE_TEST_SUITE_P(
    Names, EraDirectoryIdTest,
    ::testing::Values(EraDirCase{"era_12", 12}, EraDirCase{"era12", 12}, EraDirCase{"era_0", 0},
                      EraDirCase{"era_007", 7},
                      // Digits of other scripts, as the host's int() reads them.
                      EraDirCase{"era_\u0663", 3}, EraDirCase{"era\u0661\u0662", 12}, EraDirCase{"era_\uff19", 9},
                      EraDirCase{"era_\U0001D7D8", 0},
                      // The largest era number, and one past it.
                      EraDirCase{"era_9223372036854775807", INT64_MAX},
                      EraDirCase{"era_9223372036854775808", std::nullopt},
                      // Not era directories.
                      EraDirCase{"era_", std::nullopt}, EraDirCase{"era", std::nullopt},
                      EraDirCase{"era__1", std::nullopt}, EraDirCase{"era_-1", std::nullopt},
                      EraDirCase{"era_1a", std::nullopt}, EraDirCase{"era_ 1", std::nullopt},
                      EraDirCase{"Era_1", std::nullopt}, EraDirCase{"features", std::nullopt},
                      EraDirCase{"era_\u00b2", std::nullopt},  // a superscript is no decimal digit
                      EraDirCase{"era_\u0669\u066a", std::nullopt},  // a digit set's last digit, then past it
                      EraDirCase{"era_\xd9", std::nullopt},          // truncated UTF-8
                      EraDirCase{"era_\xc1\xb1", std::nullopt},      // overlong "1"
                      EraDirCase{"era_\xed\xa0\x80", std::nullopt}   // a surrogate
                      ));

// Integer conversion as the host's int() does it, then positive.
TEST(MarketIdTest, ConvertsToAPositiveInteger) {
  EXPECT_EQ(coerce_agent_market_id(json::value(std::int64_t{5}), "5"), 5);
  EXPECT_EQ(coerce_agent_market_id(json::value(std::uint64_t{7}), "7"), 7);
  EXPECT_EQ(coerce_agent_market_id(json::value("3"), "'3'"), 3);
  EXPECT_EQ(coerce_agent_market_id(json::value(2.5), "2.5"), 2);
  for (const auto& bad : std::vector<std::pair<json::value, std::string>>{
           {json::value(std::int64_t{0}), "0"},
           {json::value(std::int64_t{-3}), "-3"},
           {json::value(nullptr), "None"},
           {json::value("abc"), "'abc'"},
           {json::value(0.5), "0.5"}}) {
    EXPECT_EQ(message_of<ValueError>([&] { coerce_agent_market_id(bad.first, bad.second); }),
              "market_id must be a positive integer, got " + bad.second);
  }
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
