#include "tidewright/sync/manifest/manifest.hpp"

#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cmath>

namespace tidewright::sync {

namespace {

json::value get_or(const json::object& data, std::string_view key, json::value fallback) {
  if (const auto* v = data.if_contains(key)) return *v;
  return fallback;
}

// Era numbers and versions order manifests and name era directories: a
// whole number or nothing. NaN, text and booleans compare with nothing.
bool is_whole_number(const json::value& value) {
  switch (value.kind()) {
    case json::kind::int64: return value.get_int64() >= 0;
    case json::kind::uint64: return value.get_uint64() <= static_cast<std::uint64_t>(INT64_MAX);
    case json::kind::double_: {
      const double d = value.get_double();
      return d >= 0.0 && d < 9.2e18 && std::trunc(d) == d;
    }
    default: return false;
  }
}

}  // namespace

std::shared_ptr<Manifest> Manifest::create(const json::object& data, const ManifestSiblings& siblings) {
  std::vector<RejectedManifestEntry> rejected;
  json::object sanitized = sanitize_manifest_data_for_sync(data, siblings, nullptr, &rejected);
  return from_sanitized(std::move(sanitized), std::move(rejected));
}

std::shared_ptr<Manifest> Manifest::create(json::object&& data, const ManifestSiblings& siblings) {
  std::vector<RejectedManifestEntry> rejected;
  json::object sanitized = sanitize_manifest_data_for_sync(std::move(data), siblings, nullptr, &rejected);
  return from_sanitized(std::move(sanitized), std::move(rejected));
}

std::shared_ptr<Manifest> Manifest::from_sanitized(json::object data,
                                                  std::vector<RejectedManifestEntry> rejected_entries) {
  const json::value* era = data.if_contains("era_number");
  if (era == nullptr || era->is_null()) {
    throw ManifestError("manifest.json missing required era_number");
  }
  if (!is_whole_number(*era)) {
    throw ManifestError("Manifest era_number must be a non-negative integer: " + python_repr(*era));
  }
  if (const json::value* version = data.if_contains("version"); version && !is_whole_number(*version)) {
    throw ManifestError("Manifest version must be a non-negative integer: " + python_repr(*version));
  }
  // The entries of "files" were checked one by one; the rest is the
  // manifest's own, and manifest.json is never written with NaN in it.
  for (const auto& field : data) {
    if (field.key() != "files" && holds_non_finite_number(field.value())) {
      throw ManifestError("Manifest field " + python_repr(std::string_view(field.key())) +
                          " holds a number that is not finite (NaN or Infinity)");
    }
  }
  return std::make_shared<Manifest>(Key{}, std::move(data), std::move(rejected_entries));
}

Manifest::Manifest(Key, json::object data, std::vector<RejectedManifestEntry> rejected_entries)
    : data_(std::move(data)), rejected_entries_(std::move(rejected_entries)) {
  // The entries move into the table one by one, each freed as it is taken,
  // so that the parsed map and the table are never both whole.
  if (json::value* files = data_.if_contains("files"); files && files->is_object()) {
    files_ = ManifestFiles::from_object(std::move(files->get_object()));
    *files = nullptr;
    files_held_ = true;
  }
  era_number_ = data_.at("era_number");
  version_ = get_or(data_, "version", 0);
  market_id_ = get_or(data_, "market_id", nullptr);
  base_url_ = get_or(data_, "base_url", nullptr);
  shuffle_key_generation_ = get_or(data_, "shuffle_key_generation", nullptr);
  shuffle_key_source_ = get_or(data_, "shuffle_key_source", nullptr);
  pnl_column_count_ = get_or(data_, "pnl_column_count", 0);
  signals_index_ = get_or(data_, "signals_index", nullptr);
  functions_ = get_or(data_, "functions", nullptr);
}

json::object Manifest::to_dict() const {
  json::object out = data_;
  if (files_held_) out["files"] = files_.to_object();
  return out;
}

ManifestFiles& Manifest::mutable_files() {
  if (!files_held_) {
    data_["files"] = nullptr;
    files_held_ = true;
  }
  return files_;
}

std::shared_ptr<Manifest> Manifest::without_membership() const {
  auto copy = std::make_shared<Manifest>(*this);
  copy->found_signals = {};
  copy->found_strategies = {};
  copy->useful_signals = {};
  copy->rejected_entries_.clear();
  return copy;
}

std::int64_t Manifest::era_number_int() const { return to_int(era_number_).value_or(-1); }

std::int64_t Manifest::version_int() const { return to_int(version_).value_or(-1); }

std::optional<std::string> Manifest::base_url_text() const {
  if (base_url_.is_string() && !base_url_.get_string().empty()) return std::string(base_url_.get_string());
  return std::nullopt;
}

json::object parse_manifest_json(std::string_view body) {
  json::value parsed;
  try {
    parsed = parse_json(body);
  } catch (const JsonParseError& e) {
    throw ManifestError(std::string("Invalid manifest JSON: ") + e.what());
  }
  if (!parsed.is_object()) throw ManifestError("Invalid manifest JSON: the manifest must be a JSON object");
  return std::move(parsed.get_object());
}

}  // namespace tidewright::sync
