#include "tidewright/sync/common/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

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

TEST(JsonWriter, WritesBytesThatAreNotUtf8AsTheirOwnCodePointsSoTheTextReadsBack) {
  // Header values and file names may hold any bytes; a text that the parser
  // refuses would make a side file unreadable for good.
  EXPECT_EQ(dump_json(json::value("\xF5\xAD\x8D\x9A")), R"("\u00f5\u00ad\u008d\u009a")");  // past U+10FFFF
  EXPECT_EQ(dump_json(json::value("\xED\xA0\x80")), R"("\u00ed\u00a0\u0080")");            // a surrogate
  EXPECT_EQ(dump_json(json::value("\xC0\x80")), R"("\u00c0\u0080")");                          // overlong NUL
  EXPECT_EQ(dump_json(json::value("\xC3\xA9\xF0\x9F\x98\x80")), R"("\u00e9\ud83d\ude00")");
  std::mt19937_64 bytes(3);
  for (int i = 0; i < 5000; ++i) {
    std::string text(1 + bytes() % 12, '\0');
    for (auto& c : text) c = static_cast<char>(bytes() & 0xFF);
    ASSERT_NO_THROW(parse_json(dump_json(json::value(text))));
  }
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

TEST(JsonParse, FloatsReadBackAsTheValuesTheyWereWrittenFrom) {
  // Texts the host's encoder writes; the library's fast conversion reads
  // each of these one unit in the last place off.
  EXPECT_EQ(parse_json("5.563474000000008e+23").get_double(), 5.563474000000008e+23);
  EXPECT_EQ(parse_json("556347400000000811118475").get_double(), 556347400000000811118475.0);
  EXPECT_EQ(dump_json(parse_json("[5.563474000000008e+23, 0.1, 1700000000.123456]")),
            "[5.563474000000008e+23, 0.1, 1700000000.123456]");

  // Non-finite floats as the host writes and reads them, outside strings only.
  json::value special = parse_json(R"({"a": [NaN, -Infinity, 1e999, 2], "NaN": "Infinity"})");
  EXPECT_TRUE(std::isnan(special.at("a").at(0).get_double()));
  EXPECT_EQ(special.at("a").at(1).get_double(), -INFINITY);
  EXPECT_EQ(special.at("a").at(2).get_double(), INFINITY);
  EXPECT_EQ(special.at("a").at(3).get_int64(), 2);
  EXPECT_EQ(special.at("NaN"), "Infinity");
  EXPECT_EQ(dump_json(special), R"({"a": [NaN, -Infinity, Infinity, 2], "NaN": "Infinity"})");
  EXPECT_THROW(parse_json("[NaNa]"), JsonParseError);
  EXPECT_THROW(parse_json("[Infinity"), JsonParseError);

  std::mt19937_64 bits(7);
  for (int i = 0; i < 20000; ++i) {
    std::uint64_t b = bits();
    double d;
    std::memcpy(&d, &b, sizeof d);
    if (!std::isfinite(d)) continue;
    ASSERT_EQ(parse_json(dump_json(json::value(d))).get_double(), d) << dump_json(json::value(d));
  }
}

TEST(JsonWriter, AWriteInPiecesJoinsToTheWholeText) {
  // Large enough to be handed over in several pieces, with members of every
  // kind and text that must be escaped.
  json::object document;
  json::object& files = document["files"].emplace_object();
  for (int i = 0; i < 12000; ++i) {
    files["dir " + std::to_string(i % 7) + "/f\"\u00e9" + std::to_string(i) + ".arrow"] =
        json::object{{"size_bytes", i}, {"sha256", std::string(64, 'a')}, {"kind", "feature"}, {"w", 0.1 * i}};
  }
  document["list"] = json::array{1, "two", nullptr, true, json::array{}, json::object{}};
  for (const JsonWriteOptions& options : {JsonWriteOptions{}, JsonWriteOptions{.sort_keys = true, .compact = true}}) {
    std::string joined;
    std::size_t pieces = 0;
    write_json_in_pieces(document, options, [&](std::string_view piece) {
      joined.append(piece);
      ++pieces;
    });
    const std::string whole = dump_json(json::value(document), options);
    EXPECT_GT(pieces, 1u);
    EXPECT_EQ(joined, whole);
    EXPECT_EQ(dump_json(document, options), whole);
  }
}

TEST(JsonStreamParse, AnySplitOfTheTextGivesTheValueOfTheWholeText) {
  const std::string text =
      R"({"files": {"a/b.arrow": {"size_bytes": 12, "sha256": "ab\"c\\", "kind": "feature"}},)"
      R"( "f": [5.563474000000008e+23, -0.0, 123456789012345678901, NaN, -Infinity, Infinity, 1e999],)"
      R"( "NaN": "Infinity -Infinity", "t": [true, false, null], "u": "\u00e9\ud83d\ude00"})";
  const json::value whole = parse_json(text);
  ASSERT_TRUE(std::isnan(whole.at("f").at(3).get_double()));
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    JsonStreamParser parser;
    parser.write(std::string_view(text).substr(0, cut));
    parser.write(std::string_view(text).substr(cut));
    json::value streamed = parser.finish();
    // NaN is not equal to itself: compare the written forms.
    ASSERT_EQ(dump_json(streamed), dump_json(whole)) << "cut at " << cut;
  }
  JsonStreamParser bytewise;
  for (char c : text) bytewise.write(std::string_view(&c, 1));
  EXPECT_EQ(dump_json(bytewise.finish()), dump_json(whole));
}

TEST(JsonStreamParse, FailsAsSoonAsThePiecesAreMalformedAndStartsAfreshAfterReset) {
  JsonStreamParser parser;
  parser.write(R"({"a": [1, 2)");
  EXPECT_THROW(parser.write("]]"), JsonParseError);  // the object is closed as an array
  parser.reset();
  parser.write("[NaN");
  EXPECT_THROW(parser.finish(), JsonParseError);  // unterminated
  parser.reset();
  for (const char* bad : {"[NaNa]", "[-NaN]", "[Infinityy]", "[1NaN]", "[nul]"}) {
    parser.reset();
    EXPECT_THROW(
        {
          parser.write(bad);
          parser.finish();
        },
        JsonParseError)
        << bad;
  }
  parser.reset();
  parser.write("[12345678901234567890123, NaN, 7]");
  json::value mixed = parser.finish();  // a long number still counts as one: the NaN lands where it stood
  EXPECT_FALSE(std::isnan(mixed.at(0).get_double()));
  EXPECT_TRUE(std::isnan(mixed.at(1).get_double()));
  EXPECT_EQ(mixed.at(2).get_int64(), 7);
}

}  // namespace
}  // namespace tidewright::sync
