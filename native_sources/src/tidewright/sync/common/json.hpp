// JSON text for the whole module: parsing into Boost.JSON values and the one
// writer that renders them the way the host's standard JSON encoder does
// (insertion or sorted key order, default or compact separators, non-ASCII
// escaped, floats in shortest round-trip form).
#pragma once

#include <boost/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tidewright::sync {

namespace json = boost::json;

// Raised by parse_json; what() is a short description of the failure.
class JsonParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct JsonWriteOptions {
  bool sort_keys = false;
  bool compact = false;  // "," and ":" instead of ", " and ": "
};

// Parses UTF-8 JSON text. Throws JsonParseError on malformed input.
json::value parse_json(std::string_view text);

// Parses JSON text that arrives in pieces, as parse_json parses the whole
// text, without ever holding the text: memory is that of the values built.
// Throws JsonParseError as soon as a piece makes the text malformed. Not
// thread-safe; reusable after finish() or reset().
class JsonStreamParser {
 public:
  JsonStreamParser();
  ~JsonStreamParser();
  JsonStreamParser(const JsonStreamParser&) = delete;
  JsonStreamParser& operator=(const JsonStreamParser&) = delete;

  void write(std::string_view piece);
  // The value of the text written since the last finish() or reset().
  json::value finish();
  void reset();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
// Why `bytes` is not UTF-8, in the host's words ("'utf-8' codec can't decode
// byte 0xff in position 0: invalid start byte"); empty when it decodes.
// Surrogate code points and overlong forms do not decode, as in the host.
std::optional<std::string> utf8_decode_error(std::string_view bytes);

// Renders `value` as JSON text, non-ASCII escaped as \uXXXX.
std::string dump_json(const json::value& value, const JsonWriteOptions& options = {});
// The same for an object, without first copying it into a value.
std::string dump_json(const json::object& value, const JsonWriteOptions& options = {});
// The text dump_json writes, handed to `write` in pieces of about a
// megabyte as it is rendered, so that a large document is never held whole.
void write_json_in_pieces(const json::object& value, const JsonWriteOptions& options,
                          const std::function<void(std::string_view)>& write);
// Appends what dump_json writes for `value` (for writers that render a large
// document piece by piece instead of building it as one value first).
void append_json(std::string& out, const json::value& value, const JsonWriteOptions& options = {});
// Appends `text` as dump_json writes a string, quoted and escaped.
void append_json_string(std::string& out, std::string_view text);

// The shortest text that reads back as `value`, in the host's float notation
// ("1.0", "1e-05", "1.5e+20"); NaN and infinities as the JSON encoder writes them.
std::string format_float(double value);

// The host's printed form of a value: repr() for strings ('a\x00b'), True,
// False, None, and lists/maps in their printed notation.
std::string python_repr(const json::value& value);
std::string python_repr(std::string_view text);
// The host's str() of a value: strings unquoted, everything else as repr.
std::string python_str(const json::value& value);

// Accessors that never throw.
const json::object* as_object(const json::value* value);
const json::value* find_key(const json::object& object, std::string_view key);
// The text of a string value, or the fallback for anything else.
std::string string_or(const json::value* value, std::string_view fallback = "");
// The host's int() of a scalar: integers, whole or truncated floats, booleans,
// and decimal text with surrounding blanks. Empty when int() would raise.
std::optional<std::int64_t> to_int(const json::value& value);
// Truth value of a JSON value as the host sees it (empty containers, "", 0
// and null are false).
bool truthy(const json::value& value);

}  // namespace tidewright::sync
