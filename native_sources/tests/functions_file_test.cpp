// The local function catalogue checked against its manifest entry.
#include "tidewright/sync/artifacts/functions_file.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

const std::string kCatalogue = R"({"era_number": 3, "functions": {"add": {}}})";

struct FunctionsCase {
  const char* name;
  std::string bytes;                              // the local file (none when empty)
  std::function<void(json::object&)> edit_entry;  // of files["functions.json"]
  std::function<void(json::object&)> edit_manifest;
  const char* error;  // "" when accepted, else the error class
  const char* message_start;
};

// The class an error of the check belongs to, most specific first.
template <typename F>
std::pair<std::string, std::string> outcome(F&& fn) {
  try {
    fn();
  } catch (const IntegrityError& e) {
    return {"IntegrityError", e.what()};
  } catch (const EraError& e) {
    return {"EraError", e.what()};
  } catch (const SyncError& e) {
    return {"SyncError", e.what()};
  }
  return {"", ""};
}

class FunctionsFileTest : public ::testing::TestWithParam<FunctionsCase> {};

TEST_P(FunctionsFileTest, ChecksPointerEntryBytesAndEra) {
  const FunctionsCase& c = GetParam();
  TempDir dir;
  if (!c.bytes.empty()) std::ofstream(dir / "functions.json", std::ios::binary) << c.bytes;
  const std::string& listed = c.bytes.empty() ? kCatalogue : c.bytes;
  json::object entry{{"kind", "functions"},
                     {"sha256", sha256(listed)},
                     {"size_bytes", static_cast<std::int64_t>(listed.size())}};
  if (c.edit_entry) c.edit_entry(entry);
  json::object manifest{{"era_number", 3}, {"version", 1}, {"functions", "functions.json"},
                        {"files", json::object{{"functions.json", std::move(entry)}}}};
  if (c.edit_manifest) c.edit_manifest(manifest);
  ManifestPtr m = Manifest::from_sanitized(std::move(manifest));

  json::object functions;
  auto [error, message] = outcome([&] { functions = validate_functions_file(dir.path(), *m, default_manifest_siblings()); });
  EXPECT_EQ(error, c.error) << message;
  EXPECT_EQ(message.substr(0, std::string_view(c.message_start).size()), c.message_start);
  if (error.empty()) {
    EXPECT_TRUE(functions.contains("functions"));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FunctionsFileTest,
    ::testing::Values(
        FunctionsCase{"Accepted", kCatalogue, {}, {}, "", ""},
        FunctionsCase{"DigestInCapitalsWithBlanks", kCatalogue,
                      [](json::object& e) {
                        std::string upper(e.at("sha256").get_string());
                        for (auto& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
                        e["sha256"] = " " + upper + "\n";
                      },
                      {}, "", ""},
        FunctionsCase{"NoSizeListed", kCatalogue, [](json::object& e) { e.erase("size_bytes"); }, {}, "", ""},
        FunctionsCase{"NoPointer", kCatalogue, {}, [](json::object& m) { m.erase("functions"); }, "SyncError",
                      "manifest is missing functions.json pointer"},
        FunctionsCase{"PointerElsewhere", kCatalogue, {}, [](json::object& m) { m["functions"] = "other.json"; },
                      "SyncError", "manifest is missing functions.json pointer"},
        FunctionsCase{"EntryNotAnObject", kCatalogue, {},
                      [](json::object& m) { m["files"] = json::object{{"functions.json", "x"}}; }, "SyncError",
                      "manifest files[\"functions.json\"] must be an object"},
        FunctionsCase{"OtherKind", kCatalogue, [](json::object& e) { e["kind"] = "feature"; }, {}, "SyncError",
                      "manifest files[\"functions.json\"].kind must be functions"},
        FunctionsCase{"FileMissing", "", {}, {}, "SyncError", "functions.json is missing: "},
        FunctionsCase{"SizeDiffers", kCatalogue,
                      [](json::object& e) { e["size_bytes"] = static_cast<std::int64_t>(kCatalogue.size() + 1); }, {},
                      "IntegrityError", "functions.json size_bytes mismatch"},
        FunctionsCase{"NoDigest", kCatalogue, [](json::object& e) { e["sha256"] = nullptr; }, {}, "SyncError",
                      "manifest files[\"functions.json\"].sha256 is required"},
        FunctionsCase{"DigestDiffers", kCatalogue, [](json::object& e) { e["sha256"] = std::string(64, 'a'); }, {},
                      "IntegrityError", "functions.json sha256 mismatch"},
        FunctionsCase{"NotJson", "{not json", {}, {}, "SyncError", "functions.json is not valid JSON: "},
        FunctionsCase{"NotAnObject", "[3]", {}, {}, "SyncError", "functions.json must contain a JSON object"},
        FunctionsCase{"OtherEra", R"({"era_number": 4})", {}, {}, "EraError",
                      "functions.json era_number=4 does not match manifest era_number=3"},
        FunctionsCase{"NoEra", R"({"functions": {}})", {}, {}, "EraError",
                      "functions.json era_number=None does not match manifest era_number=3"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tidewright::sync
