// Manifest: the manifest of one era, built from a sanitised manifest object.
//
// A Manifest is immutable once published to other threads, except for the
// three membership sections that loading the signals index fills in before
// the manifest is installed, and the vocabulary entries that the vocabulary
// repair corrects in the server manifest it is about to install. Both happen
// on the thread that owns the not-yet-published manifest.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/manifest_files_table.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

class Manifest {
 public:
  // Sanitises `data` for sync (its ManifestErrors pass through), then builds
  // the manifest from the result, remembering the entries sanitising refused.
  // Throws ManifestError
  //   "manifest.json missing required era_number"   absent or null
  //   "Manifest era_number must be a non-negative integer: <repr>"
  //   "Manifest version must be a non-negative integer: <repr>"
  //   "Manifest field <repr> holds a number that is not finite (NaN or Infinity)"
  // Era number and version are whole numbers (an integral float such as 3.0
  // is taken as 3 and kept as written); text, booleans and NaN are not. No
  // value anywhere in the object may be NaN or infinite (the entries of
  // "files" have been checked one by one by then).
  static std::shared_ptr<Manifest> create(const json::object& data, const ManifestSiblings& siblings);
  // The same for an object the caller gives up: its values are moved, not copied.
  static std::shared_ptr<Manifest> create(json::object&& data, const ManifestSiblings& siblings);
  // Builds from an object that is already sanitised (no copy of the files),
  // with the entries its sanitising refused. Same checks and errors.
  static std::shared_ptr<Manifest> from_sanitized(json::object data,
                                                  std::vector<RejectedManifestEntry> rejected_entries = {});

  // The sanitised object's fields in its order, except that a "files" map
  // is held by files() and stands here as null. Never handed to the host.
  const json::object& fields() const { return data_; }
  // Whether "files" is a map (held by files()); otherwise it is in fields()
  // as it came, or absent.
  bool files_held() const { return files_held_; }
  // The sanitised object as one JSON object (built: the files map of a
  // large era is tens of megabytes as JSON).
  json::object to_dict() const;

  // Attributes, as the decoder produced them (defaults where absent).
  const json::value& era_number() const { return era_number_; }
  const json::value& version() const { return version_; }
  const json::value& market_id() const { return market_id_; }
  const json::value& base_url() const { return base_url_; }
  const json::value& shuffle_key_generation() const { return shuffle_key_generation_; }
  const json::value& shuffle_key_source() const { return shuffle_key_source_; }
  const json::value& pnl_column_count() const { return pnl_column_count_; }
  const json::value& signals_index() const { return signals_index_; }
  const json::value& functions() const { return functions_; }
  // The files map; empty when "files" is not a map.
  const ManifestFiles& files() const { return files_; }
  // Mutable access for the owner of an unpublished manifest.
  ManifestFiles& mutable_files();

  json::object found_signals;
  json::object found_strategies;
  json::object useful_signals;

  // A copy with empty membership sections and no rejected entries, as
  // from_sanitized builds from this manifest's object.
  std::shared_ptr<Manifest> without_membership() const;

  // The server's entries that sanitising refused one by one (they are not in
  // files()), in the manifest's order.
  const std::vector<RejectedManifestEntry>& rejected_entries() const { return rejected_entries_; }

  // Integer views: the host's int() of era_number / version, or -1.
  std::int64_t era_number_int() const;
  std::int64_t version_int() const;
  // base_url as text when it is a non-empty string.
  std::optional<std::string> base_url_text() const;

 private:
  struct Key {};  // only the factories above construct a Manifest

 public:
  Manifest(Key, json::object data, std::vector<RejectedManifestEntry> rejected_entries);

 private:
  json::object data_;
  ManifestFiles files_;
  bool files_held_ = false;
  std::vector<RejectedManifestEntry> rejected_entries_;
  json::value era_number_;
  json::value version_;
  json::value market_id_;
  json::value base_url_;
  json::value shuffle_key_generation_;
  json::value shuffle_key_source_;
  json::value pnl_column_count_;
  json::value signals_index_;
  json::value functions_;
};

using ManifestPtr = std::shared_ptr<Manifest>;

// A manifest response body as a JSON object; ManifestError "Invalid manifest
// JSON: ..." when it does not decode or is not an object.
json::object parse_manifest_json(std::string_view body);

}  // namespace tidewright::sync
