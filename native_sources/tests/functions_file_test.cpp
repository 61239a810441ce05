// The local function catalogue checked against its manifest entry. The
// pointer, kind, size and digest rules and a catalogue of another era are
// checked through the module (the Python artifact tests); here the cases
// that no test there writes.
#include "tidewright/sync/artifacts/functions_file.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

const std::string kCatalogue = R"({"era_number": 3, "functions": {"add": {}}})";

// The SyncError message of checking `bytes` as listed by an entry with
// `edit` applied, or "<no exception>".
std::string check(const std::string& bytes, void (*edit)(json::object& manifest, json::object& entry)) {
  TempDir dir;
  std::ofstream(dir / "functions.json", std::ios::binary) << bytes;
  json::object entry{{"kind", "functions"}, {"sha256", sha256(bytes)},
                     {"size_bytes", static_cast<std::int64_t>(bytes.size())}};
  json::object manifest{{"era_number", 3}, {"version", 1}, {"functions", "functions.json"}};
  edit(manifest, entry);
  manifest["files"] = json::object{{"functions.json", std::move(entry)}};
  ManifestPtr m = Manifest::from_sanitized(std::move(manifest));
  return test_support::message_of<SyncError>([&] {
    EXPECT_TRUE(validate_functions_file(dir.path(), *m, default_manifest_siblings()).contains("functions"));
  });
}

TEST(FunctionsFile, ChecksPointerEntryBytesAndEra) {
  auto none = [](json::object&, json::object&) {};
  EXPECT_EQ(check(kCatalogue, [](json::object&, json::object& e) { e.erase("size_bytes"); }), "<no exception>");
  EXPECT_EQ(check(kCatalogue, [](json::object& m, json::object&) { m.erase("functions"); }),
            "manifest is missing functions.json pointer");
  EXPECT_EQ(check("{not json", none).rfind("functions.json is not valid JSON: ", 0), 0u);
  EXPECT_EQ(check(R"({"functions": {}})", none),
            "functions.json era_number=None does not match manifest era_number=3");
}

}  // namespace
}  // namespace tidewright::sync
