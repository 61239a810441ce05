// The era's function catalogue, "functions.json": the manifest pointer rules
// and the validation of the local file.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <string>

namespace tidewright::sync {

inline constexpr const char* FUNCTIONS_FILENAME = "functions.json";

// Validates the local functions.json of `manifest` in `data_dir` and returns
// its object. Pointer problems are SyncError, size/hash mismatches
// IntegrityError, an era mismatch EraError.
json::object validate_functions_file(const std::string& data_dir, const Manifest& manifest,
                                     const ManifestSiblings& siblings);

}  // namespace tidewright::sync
