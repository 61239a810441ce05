#include "tidewright/sync/era/market.hpp"

#include "tidewright/sync/reporting/errors.hpp"

#include <algorithm>
#include <iterator>
#include <limits>

namespace tidewright::sync {

std::int64_t coerce_agent_market_id(const json::value& market_id, const std::string& repr_text) {
  std::optional<std::int64_t> value = market_id.is_null() ? std::nullopt : to_int(market_id);
  if (!value || *value <= 0) {
    throw ValueError("market_id must be a positive integer, got " + repr_text);
  }
  return *value;
}

namespace {

// The code points that are the digit zero of a decimal digit set (Unicode
// 15, category Nd); each set is ten consecutive code points. The host's
// int() reads every one of them.
constexpr char32_t kDecimalZeros[] = {
    0x30,    0x660,   0x6F0,   0x7C0,   0x966,   0x9E6,   0xA66,   0xAE6,   0xB66,   0xBE6,   0xC66,
    0xCE6,   0xD66,   0xDE6,   0xE50,   0xED0,   0xF20,   0x1040,  0x1090,  0x17E0,  0x1810,  0x1946,
    0x19D0,  0x1A80,  0x1A90,  0x1B50,  0x1BB0,  0x1C40,  0x1C50,  0xA620,  0xA8D0,  0xA900,  0xA9D0,
    0xA9F0,  0xAA50,  0xABF0,  0xFF10,  0x104A0, 0x10D30, 0x11066, 0x110F0, 0x11136, 0x111D0, 0x112F0,
    0x11450, 0x114D0, 0x11650, 0x116C0, 0x11730, 0x118E0, 0x11950, 0x11C50, 0x11D50, 0x11DA0, 0x11F50,
    0x16A60, 0x16AC0, 0x16B50, 0x1D7CE, 0x1D7D8, 0x1D7E2, 0x1D7EC, 0x1D7F6, 0x1E140, 0x1E2F0, 0x1E4F0,
    0x1E950, 0x1FBF0,
};

// The value of a decimal digit, or -1.
int decimal_digit_value(char32_t cp) {
  const char32_t* after = std::upper_bound(std::begin(kDecimalZeros), std::end(kDecimalZeros), cp);
  if (after == std::begin(kDecimalZeros)) return -1;
  const char32_t zero = *(after - 1);
  return cp - zero < 10 ? static_cast<int>(cp - zero) : -1;
}

// The next code point of well-formed UTF-8 text, or nothing (and `i` is
// left as it was) when the bytes at `i` are not one.
std::optional<char32_t> next_code_point(std::string_view s, std::size_t& i) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  const int length = b0 < 0x80 ? 1 : (b0 >> 5) == 0x6 ? 2 : (b0 >> 4) == 0xE ? 3 : (b0 >> 3) == 0x1E ? 4 : 0;
  if (length == 0 || i + length > s.size()) return std::nullopt;
  char32_t cp = length == 1 ? b0 : b0 & (0xFF >> (length + 1));
  for (int k = 1; k < length; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return std::nullopt;
    cp = (cp << 6) | (b & 0x3F);
  }
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
  i += length;
  return cp;
}

}  // namespace

std::optional<std::int64_t> parse_era_directory_id(std::string_view name) {
  std::string_view digits;
  if (name.substr(0, 4) == "era_") {
    digits = name.substr(4);
  } else if (name.substr(0, 3) == "era") {
    digits = name.substr(3);
  } else {
    return std::nullopt;
  }
  if (digits.empty()) return std::nullopt;
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  std::int64_t value = 0;
  for (std::size_t i = 0; i < digits.size();) {
    std::optional<char32_t> cp = next_code_point(digits, i);
    const int digit = cp ? decimal_digit_value(*cp) : -1;
    if (digit < 0) return std::nullopt;
    if (value > (kMax - digit) / 10) return std::nullopt;  // no era number this large
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace tidewright::sync
