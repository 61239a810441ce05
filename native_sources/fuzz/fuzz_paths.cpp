// Path safety: whatever the input, a path that is accepted is relative,
// canonical and has no empty, "." or ".." segment. (A second pass need not
// accept it: a first or last segment may begin or end with white space that
// the second pass strips, leaving "." behind.)
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace tidewright::sync;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  std::string safe;
  try {
    safe = safe_manifest_relative_path(input);
  } catch (const ManifestError&) {
    return 0;
  }
  if (safe.empty() || safe.front() == '/' || safe.find('\0') != std::string::npos ||
      safe.find('\\') != std::string::npos) {
    std::abort();
  }
  std::size_t start = 0;
  while (start <= safe.size()) {
    std::size_t end = safe.find('/', start);
    if (end == std::string::npos) end = safe.size();
    std::string segment = safe.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == "..") std::abort();
    start = end + 1;
  }
  (void)feature_artifact_family_prefix(input);
  return 0;
}
