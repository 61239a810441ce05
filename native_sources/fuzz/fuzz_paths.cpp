// Path safety: whatever the input, a path that is accepted is relative,
// canonical and has no empty, "." or ".." segment, and the throwing and the
// non-throwing check agree on it. (A second pass need not
// accept it: a first or last segment may begin or end with white space that
// the second pass strips, leaving "." behind.)
#include "fuzz_support.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

using namespace tidewright::sync;
using tidewright::sync::fuzz::is_safe_relative_path;
using tidewright::sync::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  std::string quiet;
  const bool accepted_quietly = try_safe_manifest_relative_path(input, quiet);
  std::string safe;
  try {
    safe = safe_manifest_relative_path(input);
  } catch (const ManifestError&) {
    require(!accepted_quietly, "the non-throwing path check accepts what the throwing one refuses");
    return 0;
  }
  require(accepted_quietly && quiet == safe, "the two forms of the path check disagree");
  require(is_safe_relative_path(safe), "an accepted path is not a safe relative path");
  (void)feature_artifact_family_prefix(input);
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Log lines and sibling defaults come from the host: a quiet fake one.
  tidewright::sync::set_host(std::make_shared<tidewright::sync::fuzz::QuietHost>());
  return 0;
}
