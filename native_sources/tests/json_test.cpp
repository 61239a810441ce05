#include "tidewright/sync/common/json.hpp"

#include <gtest/gtest.h>

namespace tidewright::sync {
namespace {

TEST(JsonWriter, MatchesTheHostEncoderForScalarsAndEscapes) {
  json::value v = parse_json(R"({"b": [1, 2.5, 1e-05, 1e16, true, null], "a": "\u00e9\ud83d\ude00\n"})");
  EXPECT_EQ(dump_json(v), R"({"b": [1, 2.5, 1e-05, 1e+16, true, null], "a": "\u00e9\ud83d\ude00\n"})");
  EXPECT_EQ(dump_json(v, {.sort_keys = true, .compact = true}),
            R"({"a":"\u00e9\ud83d\ude00\n","b":[1,2.5,1e-05,1e+16,true,null]})");
  EXPECT_EQ(format_float(1.0), "1.0");
  EXPECT_EQ(format_float(0.0001), "0.0001");
  EXPECT_EQ(format_float(123456789012345.6), "123456789012345.6");
  EXPECT_EQ(format_float(1.5e300), "1.5e+300");
  EXPECT_EQ(format_float(-2e-7), "-2e-07");
}

TEST(JsonWriter, PrintsValuesLikeTheHost) {
  EXPECT_EQ(python_repr(std::string_view("a\0b", 3)), "'a\\x00b'");
  EXPECT_EQ(python_repr(std::string_view("it's")), "\"it's\"");
  EXPECT_EQ(python_repr(parse_json(R"([503, "x", null, false])")), "[503, 'x', None, False]");
  EXPECT_EQ(python_str(json::value("plain")), "plain");
}

TEST(JsonParse, RejectsMalformedTextAndConvertsIntegersLikeTheHost) {
  EXPECT_THROW(parse_json("{"), JsonParseError);
  EXPECT_EQ(to_int(json::value(" 42 ")), 42);
  EXPECT_EQ(to_int(json::value("-7")), -7);
  EXPECT_EQ(to_int(json::value(3.9)), 3);
  EXPECT_FALSE(to_int(json::value("x")).has_value());
  EXPECT_FALSE(to_int(json::value("1.5")).has_value());
  EXPECT_FALSE(to_int(json::value(nullptr)).has_value());
}

}  // namespace
}  // namespace tidewright::sync
