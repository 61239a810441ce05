#include "tidewright/sync/artifacts/functions_file.hpp"

#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <cctype>

namespace tidewright::sync {

json::object validate_functions_file(const std::string& data_dir, const Manifest& manifest,
                                     const ManifestSiblings& siblings) {
  const json::value& pointer = manifest.functions();
  std::string pointer_text = pointer.is_null() ? "" : python_str(pointer);
  if (pointer_text != FUNCTIONS_FILENAME) throw SyncError("manifest is missing functions.json pointer");
  std::optional<ManifestFiles::Entry> listed = manifest.files().find(FUNCTIONS_FILENAME);
  const json::value info = listed ? listed->info() : json::value(nullptr);
  const json::object* entry = as_object(&info);
  if (!entry) throw SyncError("manifest files[\"functions.json\"] must be an object");
  const json::value* kind = entry->if_contains("kind");
  if (!kind || !kind->is_string() || kind->get_string() != "functions") {
    throw SyncError("manifest files[\"functions.json\"].kind must be functions");
  }
  std::string local = manifest_local_path(data_dir, FUNCTIONS_FILENAME);
  if (!path_exists(local)) throw SyncError("functions.json is missing: " + local);
  std::string data;
  try {
    data = read_file(local);
  } catch (const std::exception& e) {
    throw SyncError(std::string("functions.json is not readable: ") + e.what());
  }
  if (const json::value* size = entry->if_contains("size_bytes")) {
    std::optional<std::int64_t> expected = to_int(*size);
    if (!expected || *expected != static_cast<std::int64_t>(data.size())) {
      throw IntegrityError("functions.json size_bytes mismatch");
    }
  }
  const json::value* sha_value = entry->if_contains("sha256");
  std::string expected_sha = sha_value && !sha_value->is_null() ? strip_ws(python_str(*sha_value)) : "";
  for (auto& c : expected_sha) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (expected_sha.empty()) throw SyncError("manifest files[\"functions.json\"].sha256 is required");
  if (expected_sha != sha256(data)) throw IntegrityError("functions.json sha256 mismatch");
  json::value parsed;
  try {
    parsed = parse_json(data);
  } catch (const JsonParseError& e) {
    throw SyncError(std::string("functions.json is not valid JSON: ") + e.what());
  }
  if (!parsed.is_object()) throw SyncError("functions.json must contain a JSON object");
  json::object functions = std::move(parsed.get_object());
  const json::value* era = functions.if_contains("era_number");
  std::optional<std::int64_t> era_int = era ? to_int(*era) : std::nullopt;
  if (!era_int || *era_int != manifest.era_number_int()) {
    throw EraError("functions.json era_number=" + (era ? python_str(*era) : std::string("None")) +
                   " does not match manifest era_number=" + std::to_string(manifest.era_number_int()));
  }
  validate_no_retired_function_tokens(functions, siblings);
  return functions;
}

}  // namespace tidewright::sync
