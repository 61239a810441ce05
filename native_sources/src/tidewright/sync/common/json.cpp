#include "tidewright/sync/common/json.hpp"

#include <boost/json/basic_parser_impl.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <vector>

namespace tidewright::sync {

namespace {

// Builds values as the library's own parser does, except for numbers with a
// fraction or an exponent (or too large for 64 bits): those are read again
// from their text with std::from_chars, which rounds correctly. The
// library's fast conversion is often one unit in the last place off, so a
// float the host wrote would not read back as the same value, and a file
// written from it would not say what the server said.
class PreciseHandler {
 public:
  static constexpr std::size_t max_object_size = json::object::max_size();
  static constexpr std::size_t max_array_size = json::array::max_size();
  static constexpr std::size_t max_key_size = json::string::max_size();
  static constexpr std::size_t max_string_size = json::string::max_size();

  json::value_stack st;

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return true; }
  bool on_object_end(std::size_t n, json::error_code&) {
    st.push_object(n);
    return true;
  }
  bool on_array_begin(json::error_code&) { return true; }
  bool on_array_end(std::size_t n, json::error_code&) {
    st.push_array(n);
    return true;
  }
  bool on_key_part(json::string_view s, std::size_t, json::error_code&) {
    st.push_chars(s);
    return true;
  }
  bool on_key(json::string_view s, std::size_t, json::error_code&) {
    st.push_key(s);
    return true;
  }
  bool on_string_part(json::string_view s, std::size_t, json::error_code&) {
    st.push_chars(s);
    return true;
  }
  bool on_string(json::string_view s, std::size_t, json::error_code&) {
    st.push_string(s);
    return true;
  }
  bool on_number_part(json::string_view s, json::error_code&) {
    number_.append(s.data(), s.size());
    return true;
  }
  bool on_int64(std::int64_t i, json::string_view, json::error_code&) {
    next_number_is_nan();
    number_.clear();
    st.push_int64(i);
    return true;
  }
  bool on_uint64(std::uint64_t u, json::string_view, json::error_code&) {
    next_number_is_nan();
    number_.clear();
    st.push_uint64(u);
    return true;
  }
  bool on_double(double d, json::string_view s, json::error_code&) {
    number_.append(s.data(), s.size());
    double exact = 0;
    const char* end = number_.data() + number_.size();
    auto [ptr, ec] = std::from_chars(number_.data(), end, exact);
    if (ec == std::errc() && ptr == end) d = exact;  // out of range: keep the library's infinity
    if (next_number_is_nan()) d = std::numeric_limits<double>::quiet_NaN();
    number_.clear();
    st.push_double(d);
    return true;
  }
  bool on_bool(bool b, json::error_code&) {
    st.push_bool(b);
    return true;
  }
  bool on_null(json::error_code&) {
    st.push_null();
    return true;
  }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

  // For text whose non-finite literals were rewritten (NonFiniteRewriter):
  // the ordinals, in document order, of the numbers that stood for NaN.
  std::deque<std::uint64_t> nan_ordinals;

 private:
  bool next_number_is_nan() {
    const std::uint64_t ordinal = numbers_seen_++;
    if (nan_ordinals.empty() || nan_ordinals.front() != ordinal) return false;
    nan_ordinals.pop_front();
    return true;
  }

  std::string number_;  // the parts of a number split across writes
  std::uint64_t numbers_seen_ = 0;
};

// The host's encoder writes NaN, Infinity and -Infinity for non-finite
// floats, and its decoder reads them back. The library knows no such
// literals, so outside strings they are rewritten into numbers too large for
// a double (read as infinities), and the ordinals of those that were NaN go
// to the handler. Works on text in pieces of any size: a literal or a
// string split between two pieces is carried over.
class NonFiniteRewriter {
 public:
  explicit NonFiniteRewriter(std::deque<std::uint64_t>& nan_ordinals) : nan_ordinals_(nan_ordinals) {}

  // Appends the rewritten form of `piece` to `out`.
  void rewrite(std::string_view piece, std::string& out) {
    std::size_t i = 0;
    while (i < piece.size()) {
      switch (state_) {
        case State::kString: {
          std::size_t j = i;
          while (j < piece.size() && piece[j] != '"' && piece[j] != '\\') ++j;
          if (j < piece.size()) state_ = piece[j] == '"' ? State::kValue : State::kEscape;
          j = std::min(j + 1, piece.size());
          out.append(piece.substr(i, j - i));
          i = j;
          break;
        }
        case State::kEscape:
          out.push_back(piece[i++]);
          state_ = State::kString;
          break;
        case State::kToken:
          if (!is_token_char(piece[i])) {
            end_token(out);
            break;
          }
          if (passthrough_) {
            out.push_back(piece[i++]);
          } else if (token_.size() < kLongestLiteral) {
            token_.push_back(piece[i++]);
          } else {
            out += token_;  // longer than any literal: passed on as it is
            passthrough_ = true;
          }
          break;
        case State::kValue: {
          char c = piece[i];
          if (c == '"') {
            state_ = State::kString;
            out.push_back(c);
            ++i;
          } else if (is_token_char(c)) {
            state_ = State::kToken;
            starts_number_ = c == '-' || (c >= '0' && c <= '9');
            token_.clear();
            passthrough_ = false;
          } else {
            out.push_back(c);
            ++i;
          }
          break;
        }
      }
    }
  }

  // Called after the last piece.
  void finish(std::string& out) {
    if (state_ == State::kToken) end_token(out);
  }

 private:
  enum class State { kValue, kString, kEscape, kToken };
  static constexpr std::size_t kLongestLiteral = 9;  // "-Infinity"

  static bool is_token_char(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '+' ||
           c == '.';
  }

  void end_token(std::string& out) {
    state_ = State::kValue;
    if (passthrough_) {
      if (starts_number_) ++numbers_;
      return;
    }
    if (token_ == "NaN") {
      nan_ordinals_.push_back(numbers_++);
      out += "1e999";
    } else if (token_ == "Infinity" || token_ == "-Infinity") {
      ++numbers_;
      out += token_[0] == '-' ? "-1e999" : "1e999";
    } else {
      if (starts_number_) ++numbers_;
      out += token_;
    }
  }

  std::deque<std::uint64_t>& nan_ordinals_;
  State state_ = State::kValue;
  std::string token_;  // the current bare word or number, up to kLongestLiteral
  bool passthrough_ = false;
  bool starts_number_ = false;
  std::uint64_t numbers_ = 0;
};

json::parse_options parse_options() {
  json::parse_options options;
  options.max_depth = 1024;
  return options;
}

}  // namespace

struct JsonStreamParser::Impl {
  Impl() : parser(parse_options()), rewriter(parser.handler().nan_ordinals) { parser.handler().st.reset(); }

  void feed(std::string_view text, bool more) {
    json::error_code ec;
    std::size_t used = parser.write_some(more, text.data(), text.size(), ec);
    if (!ec && used < text.size()) ec = json::error::extra_data;
    if (ec) throw JsonParseError(ec.message());
  }

  json::basic_parser<PreciseHandler> parser;
  NonFiniteRewriter rewriter;
  std::string rewritten;  // reused between pieces
};

JsonStreamParser::JsonStreamParser() : impl_(std::make_unique<Impl>()) {}
JsonStreamParser::~JsonStreamParser() = default;

void JsonStreamParser::write(std::string_view piece) {
  impl_->rewritten.clear();
  impl_->rewriter.rewrite(piece, impl_->rewritten);
  impl_->feed(impl_->rewritten, true);
}

json::value JsonStreamParser::finish() {
  impl_->rewritten.clear();
  impl_->rewriter.finish(impl_->rewritten);
  impl_->feed(impl_->rewritten, false);
  json::value value = impl_->parser.handler().st.release();
  impl_ = std::make_unique<Impl>();
  return value;
}

void JsonStreamParser::reset() { impl_ = std::make_unique<Impl>(); }

json::value parse_json(std::string_view text) {
  // The library's own pass first: it is the fast one, and non-finite
  // literals are rare.
  json::basic_parser<PreciseHandler> strict(parse_options());
  strict.handler().st.reset();
  json::error_code ec;
  std::size_t used = strict.write_some(false, text.data(), text.size(), ec);
  if (!ec && used < text.size()) ec = json::error::extra_data;
  if (!ec) return strict.handler().st.release();
  if (text.find("NaN") != std::string_view::npos || text.find("Infinity") != std::string_view::npos) {
    JsonStreamParser parser;
    try {
      parser.write(text);
      return parser.finish();
    } catch (const JsonParseError&) {
      // Report the first pass's error: the text was malformed before any rewriting.
    }
  }
  throw JsonParseError(ec.message());
}

std::optional<std::string> utf8_decode_error(std::string_view bytes) {
  auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  auto continuation = [](unsigned char c) { return (c & 0xC0) == 0x80; };
  // The failure as the host reports it: the first offending byte and the
  // extent of the sequence it spoils.
  auto failure = [&](std::size_t start, std::size_t end, const char* reason) {
    char buf[160];
    if (end == start + 1) {
      std::snprintf(buf, sizeof buf, "'utf-8' codec can't decode byte 0x%02x in position %zu: %s", at(start), start,
                    reason);
    } else {
      std::snprintf(buf, sizeof buf, "'utf-8' codec can't decode bytes in position %zu-%zu: %s", start, end - 1,
                    reason);
    }
    return std::optional<std::string>(buf);
  };
  const std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = at(i);
    if (c < 0x80) {
      ++i;
      continue;
    }
    // The bytes that may follow the lead byte: overlong forms, surrogates and
    // values past U+10FFFF are refused at the second byte.
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return failure(i, i + 1, "invalid start byte");
    }
    for (std::size_t k = 1; k < length; ++k) {
      if (i + k >= n) return failure(i, n, "unexpected end of data");
      const unsigned char b = at(i + k);
      const bool ok = k == 1 ? (b >= low && b <= high) : continuation(b);
      if (!ok) return failure(i, i + k, "invalid continuation byte");
    }
    i += length;
  }
  return std::nullopt;
}

std::string format_float(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
  std::string sci(buf, res.ptr);
  // sci is "[-]d[.ddd]e[+-]XX"
  bool negative = false;
  std::size_t pos = 0;
  if (sci[0] == '-') {
    negative = true;
    pos = 1;
  }
  std::size_t epos = sci.find('e');
  std::string mantissa = sci.substr(pos, epos - pos);
  int exponent = std::stoi(sci.substr(epos + 1));
  std::string digits;
  for (char c : mantissa) {
    if (c != '.') digits.push_back(c);
  }
  while (digits.size() > 1 && digits.back() == '0') digits.pop_back();
  std::string out;
  out.reserve(32);
  if (negative) out.push_back('-');
  if (exponent >= -4 && exponent < 16) {
    if (exponent >= 0) {
      const std::size_t int_len = static_cast<std::size_t>(exponent) + 1;
      if (digits.size() <= int_len) {
        out.append(digits);
        out.append(int_len - digits.size(), '0');
        out.append(".0");
      } else {
        out.append(digits, 0, int_len);
        out.push_back('.');
        out.append(digits, int_len, std::string::npos);
      }
    } else {
      out.append("0.");
      out.append(static_cast<std::size_t>(-exponent - 1), '0');
      out.append(digits);
    }
  } else {
    out.push_back(digits[0]);
    if (digits.size() > 1) {
      out.push_back('.');
      out.append(digits, 1, std::string::npos);
    }
    char ebuf[16];
    std::snprintf(ebuf, sizeof ebuf, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
    out += ebuf;
  }
  return out;
}

namespace {

// Decodes one UTF-8 code point starting at s[i]; advances i. Bytes that do
// not start a well-formed sequence (overlong forms, surrogates and values
// past U+10FFFF included) decode as themselves (U+0080..U+00FF), so that
// writing never fails and what is written always reads back.
std::uint32_t next_code_point(std::string_view s, std::size_t& i) {
  auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  int len = (b0 >> 5) == 0x6 ? 2 : (b0 >> 4) == 0xE ? 3 : (b0 >> 3) == 0x1E ? 4 : 0;
  if (len == 0 || i + len > s.size()) {
    ++i;
    return b0;
  }
  std::uint32_t cp = b0 & (0xFF >> (len + 1));
  for (int k = 1; k < len; ++k) {
    auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return b0;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    return b0;
  }
  i += len;
  return cp;
}

void append_u_escape(std::string& out, std::uint32_t unit) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\u%04x", unit);
  out += buf;
}

void write_string(std::string& out, std::string_view s) {
  out.push_back('"');
  std::size_t i = 0;
  while (i < s.size()) {
    std::uint32_t cp = next_code_point(s, i);
    switch (cp) {
      case '"': out += "\\\""; continue;
      case '\\': out += "\\\\"; continue;
      case '\n': out += "\\n"; continue;
      case '\r': out += "\\r"; continue;
      case '\t': out += "\\t"; continue;
      case '\b': out += "\\b"; continue;
      case '\f': out += "\\f"; continue;
      default: break;
    }
    if (cp < 0x20 || (cp >= 0x7F && cp < 0x10000)) {
      if (cp == 0x7F) {
        out.push_back(static_cast<char>(cp));
      } else {
        append_u_escape(out, cp);
      }
    } else if (cp >= 0x10000) {
      std::uint32_t v = cp - 0x10000;
      append_u_escape(out, 0xD800 + (v >> 10));
      append_u_escape(out, 0xDC00 + (v & 0x3FF));
    } else {
      out.push_back(static_cast<char>(cp));
    }
  }
  out.push_back('"');
}

// Hands what `out` holds to `spill` once it is large, between the members of
// a container (never inside a string or number).
using Spill = std::function<void(std::string&)>;
constexpr std::size_t kSpillBytes = 1 << 20;

void maybe_spill(std::string& out, const Spill* spill) {
  if (spill && out.size() >= kSpillBytes) {
    (*spill)(out);
    out.clear();
  }
}

void write_object(std::string& out, const json::object& obj, const JsonWriteOptions& o, const Spill* spill);

void write_value(std::string& out, const json::value& v, const JsonWriteOptions& o, const Spill* spill = nullptr) {
  const char* item_sep = o.compact ? "," : ", ";
  switch (v.kind()) {
    case json::kind::null: out += "null"; break;
    case json::kind::bool_: out += v.get_bool() ? "true" : "false"; break;
    case json::kind::int64: out += std::to_string(v.get_int64()); break;
    case json::kind::uint64: out += std::to_string(v.get_uint64()); break;
    case json::kind::double_: out += format_float(v.get_double()); break;
    case json::kind::string: write_string(out, v.get_string()); break;
    case json::kind::array: {
      out.push_back('[');
      bool first = true;
      for (const auto& item : v.get_array()) {
        if (!first) out += item_sep;
        first = false;
        write_value(out, item, o, spill);
        maybe_spill(out, spill);
      }
      out.push_back(']');
      break;
    }
    case json::kind::object: write_object(out, v.get_object(), o, spill); break;
  }
}

void write_object(std::string& out, const json::object& obj, const JsonWriteOptions& o, const Spill* spill) {
  const char* item_sep = o.compact ? "," : ", ";
  const char* key_sep = o.compact ? ":" : ": ";
  out.push_back('{');
  bool first = true;
  auto emit = [&](const json::key_value_pair& kv) {
    if (!first) out += item_sep;
    first = false;
    write_string(out, kv.key());
    out += key_sep;
    write_value(out, kv.value(), o, spill);
    maybe_spill(out, spill);
  };
  if (o.sort_keys) {
    std::vector<const json::key_value_pair*> items;
    items.reserve(obj.size());
    for (const auto& kv : obj) items.push_back(&kv);
    std::sort(items.begin(), items.end(), [](auto* a, auto* b) {
      return std::string_view(a->key()) < std::string_view(b->key());
    });
    for (auto* kv : items) emit(*kv);
  } else {
    for (const auto& kv : obj) emit(kv);
  }
  out.push_back('}');
}

}  // namespace

std::string dump_json(const json::value& value, const JsonWriteOptions& options) {
  std::string out;
  write_value(out, value, options);
  return out;
}

std::string dump_json(const json::object& value, const JsonWriteOptions& options) {
  std::string out;
  write_object(out, value, options, nullptr);
  return out;
}

void append_json(std::string& out, const json::value& value, const JsonWriteOptions& options) {
  write_value(out, value, options);
}

void write_json_in_pieces(const json::object& value, const JsonWriteOptions& options,
                          const std::function<void(std::string_view)>& write) {
  std::string out;
  const Spill spill = [&](std::string& text) { write(text); };
  write_object(out, value, options, &spill);
  if (!out.empty()) write(out);
}

void append_json_string(std::string& out, std::string_view text) { write_string(out, text); }

std::string python_repr(std::string_view text) {
  bool has_single = text.find('\'') != std::string_view::npos;
  bool has_double = text.find('"') != std::string_view::npos;
  char quote = (has_single && !has_double) ? '"' : '\'';
  std::string out(1, quote);
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t start = i;
    std::uint32_t cp = next_code_point(text, i);
    if (cp == static_cast<std::uint32_t>(quote) || cp == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(cp));
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\r') {
      out += "\\r";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp < 0xA0)) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", cp);
      out += buf;
    } else {
      out.append(text.substr(start, i - start));
    }
  }
  out.push_back(quote);
  return out;
}

std::string python_repr(const json::value& value) {
  switch (value.kind()) {
    case json::kind::null: return "None";
    case json::kind::bool_: return value.get_bool() ? "True" : "False";
    case json::kind::int64: return std::to_string(value.get_int64());
    case json::kind::uint64: return std::to_string(value.get_uint64());
    case json::kind::double_: {
      double d = value.get_double();
      if (std::isnan(d)) return "nan";
      if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
      return format_float(d);
    }
    case json::kind::string: return python_repr(std::string_view(value.get_string()));
    case json::kind::array: {
      std::string out = "[";
      bool first = true;
      for (const auto& item : value.get_array()) {
        if (!first) out += ", ";
        first = false;
        out += python_repr(item);
      }
      return out + "]";
    }
    case json::kind::object: {
      std::string out = "{";
      bool first = true;
      for (const auto& kv : value.get_object()) {
        if (!first) out += ", ";
        first = false;
        out += python_repr(std::string_view(kv.key())) + ": " + python_repr(kv.value());
      }
      return out + "}";
    }
  }
  return "";
}

std::string python_str(const json::value& value) {
  if (value.is_string()) return std::string(value.get_string());
  return python_repr(value);
}

const json::object* as_object(const json::value* value) {
  return (value && value->is_object()) ? &value->get_object() : nullptr;
}

const json::value* find_key(const json::object& object, std::string_view key) {
  return object.if_contains(key);
}

std::string string_or(const json::value* value, std::string_view fallback) {
  if (value && value->is_string()) return std::string(value->get_string());
  return std::string(fallback);
}

std::optional<std::int64_t> to_int(const json::value& value) {
  switch (value.kind()) {
    case json::kind::int64: return value.get_int64();
    case json::kind::uint64:
      if (value.get_uint64() > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
      return static_cast<std::int64_t>(value.get_uint64());
    case json::kind::bool_: return value.get_bool() ? 1 : 0;
    case json::kind::double_: {
      double d = value.get_double();
      if (!std::isfinite(d) || std::fabs(d) >= 9.2e18) return std::nullopt;
      return static_cast<std::int64_t>(std::trunc(d));
    }
    case json::kind::string: {
      std::string_view s = value.get_string();
      auto is_space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; };
      while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
      while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
      if (s.empty()) return std::nullopt;
      std::string cleaned;
      std::size_t start = 0;
      if (s[0] == '+' || s[0] == '-') {
        if (s[0] == '-') cleaned.push_back('-');
        start = 1;
      }
      bool prev_digit = false;
      for (std::size_t k = start; k < s.size(); ++k) {
        char c = s[k];
        if (c >= '0' && c <= '9') {
          cleaned.push_back(c);
          prev_digit = true;
        } else if (c == '_' && prev_digit && k + 1 < s.size() && s[k + 1] >= '0' && s[k + 1] <= '9') {
          prev_digit = false;
        } else {
          return std::nullopt;
        }
      }
      if (cleaned.empty() || cleaned == "-") return std::nullopt;
      std::int64_t out = 0;
      auto [p, ec] = std::from_chars(cleaned.data(), cleaned.data() + cleaned.size(), out);
      if (ec != std::errc() || p != cleaned.data() + cleaned.size()) return std::nullopt;
      return out;
    }
    default: return std::nullopt;
  }
}

bool truthy(const json::value& value) {
  switch (value.kind()) {
    case json::kind::null: return false;
    case json::kind::bool_: return value.get_bool();
    case json::kind::int64: return value.get_int64() != 0;
    case json::kind::uint64: return value.get_uint64() != 0;
    case json::kind::double_: return value.get_double() != 0.0;
    case json::kind::string: return !value.get_string().empty();
    case json::kind::array: return !value.get_array().empty();
    case json::kind::object: return !value.get_object().empty();
  }
  return false;
}

}  // namespace tidewright::sync
