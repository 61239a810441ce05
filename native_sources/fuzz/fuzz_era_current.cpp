// Era-current answers from a hostile server, market ids and era directory
// names: normalising an answer keeps to its two shapes and reads back as
// written; a market id is accepted exactly when it reads as a positive
// integer, and then is that integer; an era directory id is the number the
// name spells.
#include "fuzz_support.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/era/era_current.hpp"
#include "tidewright/sync/era/market.hpp"
#include "fake_host.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

using namespace tidewright::sync;
using tidewright::sync::fuzz::QuietHost;
using tidewright::sync::fuzz::require;

namespace {


// Equality of values as written (NaN is not equal to itself).
bool same(const json::value& a, const json::value& b) {
  return dump_json(a, {.sort_keys = true}) == dump_json(b, {.sort_keys = true});
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Decimal text as int() reads it: blanks around, an optional sign, digits
// with single "_" between them. The digits (sign and "_" dropped, leading
// zeros kept) and whether it is negative; empty for any other text.
std::optional<std::pair<bool, std::string>> integer_text(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
  bool negative = false;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  if (s.empty() || !is_digit(s.front()) || !is_digit(s.back())) return std::nullopt;
  std::string digits;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (is_digit(s[i])) {
      digits.push_back(s[i]);
    } else if (s[i] != '_' || !is_digit(s[i - 1]) || !is_digit(s[i + 1])) {
      return std::nullopt;
    }
  }
  return std::make_pair(negative, digits);
}

// The positive market id a value stands for, worked out without integer
// arithmetic on text; empty when it is none (or does not fit in 64 bits).
std::optional<std::int64_t> expected_market_id(const json::value& v) {
  switch (v.kind()) {
    case json::kind::int64:
      return v.get_int64() > 0 ? std::optional<std::int64_t>(v.get_int64()) : std::nullopt;
    case json::kind::uint64:
      return v.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX)
                 ? std::optional<std::int64_t>(static_cast<std::int64_t>(v.get_uint64()))
                 : std::nullopt;
    case json::kind::bool_:
      return v.get_bool() ? std::optional<std::int64_t>(1) : std::nullopt;
    case json::kind::double_: {
      double d = v.get_double();
      if (!(d >= 1.0) || d >= 9.2e18) return std::nullopt;
      return static_cast<std::int64_t>(d);
    }
    case json::kind::string: {
      auto parsed = integer_text(v.get_string());
      if (!parsed) return std::nullopt;
      std::string digits = parsed->second;
      digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
      if (digits.empty() || parsed->first) return std::nullopt;  // zero or negative
      const std::string max = std::to_string(INT64_MAX);
      if (digits.size() > max.size() || (digits.size() == max.size() && digits > max)) return std::nullopt;
      return std::stoll(digits);
    }
    default:
      return std::nullopt;
  }
}

void check_market_id(const json::value& v) {
  std::optional<std::int64_t> expected = expected_market_id(v);
  try {
    std::int64_t id = coerce_agent_market_id(v, "<repr>");
    require(expected.has_value(), "a market id was accepted that is no positive integer");
    require(id == *expected, "a market id was coerced to another integer");
    require(market_era_current_url("http://127.0.0.1:1", id) ==
                "http://127.0.0.1:1/market/" + std::to_string(id) + "/era/current",
            "the era-current URL does not name the market id");
  } catch (const ValueError& e) {
    require(!expected.has_value(), "a positive integer market id was refused");
    require(std::string(e.what()) == "market_id must be a positive integer, got <repr>",
            "the market id error has another text");
  }
}

void check_era_directory_id(std::string_view name) {
  std::optional<std::int64_t> id = parse_era_directory_id(name);
  std::string_view rest = name.substr(0, 4) == "era_" ? name.substr(4) : name.substr(0, 3) == "era" ? name.substr(3) : "";
  bool digits_only = !rest.empty() && std::all_of(rest.begin(), rest.end(), is_digit);
  if (!id) {
    require(!digits_only || rest.size() > 18, "an era directory name with a number was not read");
    return;
  }
  require(digits_only, "an era directory id was read from a name that is not era_<digits>");
  require(*id >= 0, "an era directory id is negative");
  std::string_view significant = rest.substr(std::min(rest.find_first_not_of('0'), rest.size() - 1));
  require(std::to_string(*id) == significant, "an era directory id is not the number the name spells");
  require(parse_era_directory_id("era_" + std::to_string(*id)) == id, "era_<id> does not read back");
}

void check_normalized(const json::value& answer) {
  json::value config = normalize_era_current_response(answer);
  require(config.is_object(), "an era config is not an object");
  const json::object& c = config.get_object();
  if (!answer.is_object()) {
    require(c.empty(), "an answer that is not an object gave a non-empty config");
    return;
  }
  const json::object& a = answer.get_object();
  const json::value* era = a.if_contains("era");
  const json::value* top_state = a.if_contains("state");
  if (!era) {
    require(same(config, answer), "a flat answer was changed");
  } else if (era->is_object()) {
    const json::object& e = era->get_object();
    for (const auto& kv : e) {
      require(c.contains(kv.key()) && same(c.at(kv.key()), kv.value()), "a field of the era object was lost");
    }
    std::size_t added = c.size() - e.size();
    if (e.contains("state")) {
      require(added == 0, "an era object that has a state was given another");
    } else if (top_state && !top_state->is_null()) {
      require(added == 1 && same(c.at("state"), *top_state), "the top-level state was not carried into the era");
    } else {
      require(added == 0, "a state was invented for an era object");
    }
  } else {
    require(c.size() == 2 && c.contains("era_number") && c.at("era_number").is_null(),
            "an answer without an era object did not give era_number null");
    json::value state = top_state && !top_state->is_null() ? *top_state : json::value("between_eras");
    require(same(c.at("state"), state), "an answer without an era object has the wrong state");
  }
  if (!c.contains("era")) {
    require(same(normalize_era_current_response(config), config), "normalising a config changed it");
  }
  if (const json::value* number = c.if_contains("era_number")) {
    std::optional<std::int64_t> n = strict_era_number(*number);
    if (n) {
      require((number->is_int64() && number->get_int64() == *n) ||
                  (number->is_uint64() && number->get_uint64() == static_cast<std::uint64_t>(*n)),
              "an era number was read from a value that is not that integer");
    } else {
      require(!number->is_int64() && !(number->is_uint64() && number->get_uint64() <= INT64_MAX),
              "an integer era number was not read");
    }
  }
  // What the engine writes down of an answer reads back the same (compared
  // as text: NaN is not equal to itself).
  std::string text = dump_json(config, {.sort_keys = true});
  json::value again;
  try {
    again = parse_json(text);
  } catch (const JsonParseError&) {
    require(false, "a normalised era config does not read back");
  }
  require(dump_json(again, {.sort_keys = true}) == text, "a normalised era config reads back as another value");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  set_host(std::make_shared<QuietHost>());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  check_market_id(json::value(text));
  check_era_directory_id(text);
  json::value answer;
  try {
    answer = parse_json(text);
  } catch (const JsonParseError&) {
    return 0;
  }
  check_normalized(answer);
  check_market_id(answer);
  const json::value* era = answer.is_object() ? answer.get_object().if_contains("era") : nullptr;
  const json::value* top = &answer;
  for (const json::value* scope : {top, era}) {
    if (!scope || !scope->is_object()) continue;
    for (const auto& kv : scope->get_object()) {
      check_market_id(kv.value());
      if (kv.value().is_string()) check_era_directory_id(kv.value().get_string());
    }
  }
  return 0;
}
