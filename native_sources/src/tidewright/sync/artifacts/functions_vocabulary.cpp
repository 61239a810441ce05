#include "tidewright/sync/artifacts/functions_vocabulary.hpp"

#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <unordered_set>
#include <utility>

namespace tidewright::sync {

namespace {

// The host's name for the type of a JSON value that is neither list nor object.
const char* type_name(const json::value& value) {
  switch (value.kind()) {
    case json::kind::string: return "str";
    case json::kind::int64:
    case json::kind::uint64: return "int";
    case json::kind::double_: return "float";
    case json::kind::bool_: return "bool";
    default: return "NoneType";
  }
}

void check_section(const json::value& section, const char* what) {
  if (!section.is_array() && !section.is_object()) {
    throw ValueError(std::string(what) + " functions must be a list or an object, got " + type_name(section));
  }
}

// The name of an entry of a list-shaped section: its "name" when text.
const json::string* entry_name(const json::value& entry) {
  const json::object* fields = entry.if_object();
  const json::value* name = fields ? fields->if_contains("name") : nullptr;
  return name ? name->if_string() : nullptr;
}

bool is_absent(const json::value* value) { return !value || value->is_null(); }

}  // namespace

json::value merge_functions_vocabulary(const json::value& functions, json::value vocabulary,
                                       const std::optional<std::string>& named_universe,
                                       std::optional<std::int64_t> expected_era_number) {
  if (!vocabulary.is_object()) throw ValueError("vocabulary must be a JSON object");
  json::object& merged = vocabulary.get_object();
  if (named_universe) {
    const json::value* own_universe = merged.if_contains("named_universe");
    if (!is_absent(own_universe) && !(own_universe->is_string() && own_universe->get_string() == *named_universe)) {
      throw ValueError("vocabulary named_universe " + python_repr(*own_universe) + " does not match " +
                       python_repr(std::string_view(*named_universe)));
    }
  }
  if (functions.is_null()) return vocabulary;
  if (!functions.is_object()) throw ValueError("functions.json must be a JSON object");
  const json::value* era = functions.get_object().if_contains("era_number");
  if (expected_era_number && !is_absent(era) && !json_equals_int(*era, *expected_era_number)) {
    throw ValueError("functions.json era_number=" + python_str(*era) +
                     " does not match era_number=" + std::to_string(*expected_era_number));
  }
  const json::value* catalogue = functions.get_object().if_contains("functions");
  if (is_absent(catalogue)) return vocabulary;
  check_section(*catalogue, "functions.json");
  json::value* own = merged.if_contains("functions");
  if (is_absent(own)) own = nullptr;
  if (own) check_section(*own, "vocabulary.json");

  // The vocabulary's own entries stay as they are, in place; catalogue
  // entries it does not name (and every unnamed one) are appended.
  json::value section = own                      ? std::move(*own)
                        : catalogue->is_object() ? json::value(json::object())
                                                 : json::value(json::array());
  std::unordered_set<std::string> known;
  if (section.is_object()) {
    for (const auto& kv : section.get_object()) known.emplace(kv.key());
  } else {
    for (const auto& entry : section.get_array()) {
      if (const json::string* name = entry_name(entry)) known.emplace(*name);
    }
  }
  auto add = [&](const json::string* name, const json::value& entry, bool keyed) {
    if (name && !known.emplace(*name).second) return;
    if (section.is_object()) {
      if (name) section.get_object().emplace(*name, entry);
      return;
    }
    const json::object* fields = entry.if_object();
    if (keyed && fields && !fields->contains("name")) {
      // A keyed entry in a list names itself first.
      json::object named;
      named.reserve(fields->size() + 1);
      named.emplace("name", *name);
      for (const auto& kv : *fields) named.emplace(kv.key(), kv.value());
      section.get_array().emplace_back(std::move(named));
    } else {
      section.get_array().emplace_back(entry);
    }
  };
  if (catalogue->is_object()) {
    for (const auto& kv : catalogue->get_object()) {
      const json::string key(kv.key());
      add(&key, kv.value(), true);
    }
  } else {
    for (const auto& entry : catalogue->get_array()) add(entry_name(entry), entry, false);
  }
  merged["functions"] = std::move(section);
  return vocabulary;
}

}  // namespace tidewright::sync
