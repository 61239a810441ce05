// The manifest files of a data directory: the local copy of the server's
// manifest ("manifest.json") and its side file (".manifest_sync_metadata.json"),
// which remembers which server manifest the local copy came from. With it a
// later sync can trust a server hash hint and skip downloading an unchanged
// manifest.
//
// "manifest.json" is the manifest object as JSON text in the host encoder's
// default form: keys in the object's order, ", " and ": " separators, no
// indentation, non-ASCII escaped, no trailing newline. The side file is one
// JSON object with sorted keys:
//   "version", "era_number"        the manifest's values as found (may be null)
//   "server_manifest_sha256"       the server's hash of the raw response, or ""
//   "server_manifest_body_sha256"  the server's hash of the response body, or ""
//   "local_manifest_sha256"        SHA-256 of the manifest.json on disk when written
//   "updated_at"                   wall-clock seconds since the Unix epoch
//
// Both files are replaced atomically. Nothing here takes a lock; serialising
// writers is the caller's business.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {

inline constexpr std::string_view MANIFEST_SYNC_METADATA_FILENAME = ".manifest_sync_metadata.json";

// Writes data_dir/manifest.json. When either server hash is given and
// non-empty the side file is rewritten too; otherwise it is left as it is.
// Write failures throw OSError. An object holding NaN or an infinity anywhere
// is not written: ManifestError "manifest.json not written: field <repr>
// holds a number that is not finite (NaN or Infinity)".
void write_manifest_json(const std::string& data_dir, const json::object& manifest_data,
                         const std::optional<std::string>& server_manifest_sha256 = {},
                         const std::optional<std::string>& server_manifest_body_sha256 = {});
// The same for a Manifest: the text of manifest.to_dict(), rendered straight
// from its files table.
void write_manifest_json(const std::string& data_dir, const Manifest& manifest,
                         const std::optional<std::string>& server_manifest_sha256 = {},
                         const std::optional<std::string>& server_manifest_body_sha256 = {});

// data_dir joined with MANIFEST_SYNC_METADATA_FILENAME.
std::string manifest_sync_metadata_path(const std::string& data_dir);

// The side file's object; an empty object when the file is missing,
// unreadable, not JSON or not a JSON object. Never throws for a bad file.
json::object load_manifest_sync_metadata(const std::string& data_dir);

// Writes the side file for the manifest.json currently on disk (an empty
// hash argument is recorded as ""). Does nothing when manifest.json cannot be
// read. Write failures throw OSError.
void write_manifest_sync_metadata(const std::string& data_dir, const json::object& manifest_data,
                                  const std::optional<std::string>& server_manifest_sha256 = {},
                                  const std::optional<std::string>& server_manifest_body_sha256 = {});

// Whether the server's manifest hash hint names the manifest already on disk:
// the side file records the same version and era as the caller's, the hint is
// one of its recorded server hashes (of the raw response or of the body), and
// manifest.json has not changed since the side file was written. An empty or
// missing hint, a missing manifest.json and any problem with the side file
// answer false; never throws for bad local state.
bool manifest_hash_hint_matches_local_state(const std::string& data_dir, std::int64_t local_version,
                                            std::int64_t local_era_number,
                                            const std::optional<std::string>& server_manifest_sha_hint);

}  // namespace tidewright::sync
