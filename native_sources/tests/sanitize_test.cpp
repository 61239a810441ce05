#include "tidewright/sync/manifest/sanitize.hpp"

#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace tidewright::sync {
namespace {

constexpr std::string_view kDigest = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

json::value info(std::string_view kind, std::string_view platform = "") {
  json::object out{{"size_bytes", 10}, {"sha256", kDigest}};
  if (!kind.empty()) out["kind"] = kind;
  if (!platform.empty()) out["platform"] = platform;
  return out;
}

std::vector<std::string> keys_of(const json::value& files) {
  std::vector<std::string> keys;
  for (const auto& entry : files.as_object()) keys.emplace_back(entry.key());
  return keys;
}

// The module's own filters (the binding's, on the caller's objects) are
// checked by the Python sanitising tests; these are the engine's.
TEST(SanitizePredicates, DeclarationsByExtensionOrKind) {
  EXPECT_TRUE(is_agent_bundle_declaration_file("vault/a.pxd", info("vault")));
  EXPECT_TRUE(is_agent_bundle_declaration_file("vault/a.txt", info("vault_declaration")));
  EXPECT_FALSE(is_agent_bundle_declaration_file("vault/a.txt", info("vault")));
  EXPECT_FALSE(is_agent_bundle_declaration_file("a.pxd.txt", json::value(nullptr)));
}

TEST(SanitizePredicates, RetiredRuntimeModulesOnlyForThisPlatform) {
  const std::string_view linux_x86 = "linux_x86_64";
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("backtester-linux_x86_64.so", linux_x86),
            "backtester");
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("vault\\bin\\risk_model-linux_x86_64.pyd", linux_x86),
            "risk_model");
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("backtester-macos_arm64.so", linux_x86), std::nullopt);
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("pricing-linux_x86_64.so", linux_x86), std::nullopt);
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("backtester_linux_x86_64.so", linux_x86), std::nullopt);
  EXPECT_EQ(retired_unsupported_runtime_module_name_from_path("-linux_x86_64.so", linux_x86), std::nullopt);
  EXPECT_TRUE(is_retired_unsupported_runtime_module_path("m/backtester-" + current_platform() + ".so"));
  EXPECT_FALSE(is_retired_unsupported_runtime_module_path("m/backtester-other_platform.so"));
}

TEST(SanitizePredicates, RetiredLongPnlFilesHaveExactlyFiveSegments) {
  EXPECT_TRUE(is_retired_found_pnl_long_file("found_signals/a/b/c/pnl_long.arrow"));
  EXPECT_TRUE(is_retired_found_pnl_long_file("/found_strategies/a/b/c/pnl.long.arrow/"));
  EXPECT_TRUE(is_retired_found_pnl_long_file("found_signals\\a\\b\\c\\pnl_long.arrow"));
  EXPECT_TRUE(is_retired_found_pnl_long_file("found_signals/a//c/pnl_long.arrow"));  // empty segments count
  EXPECT_FALSE(is_retired_found_pnl_long_file("found_signals/a/b/pnl_long.arrow"));
  EXPECT_FALSE(is_retired_found_pnl_long_file("found_signals/a/b/c/d/pnl_long.arrow"));
  EXPECT_FALSE(is_retired_found_pnl_long_file("found_signals/a/b/c/pnl.arrow"));
  EXPECT_FALSE(is_retired_found_pnl_long_file("useful_signals/a/b/c/pnl_long.arrow"));
}

TEST(SanitizePredicates, PlatformAndSyncExclusion) {
  const ManifestSiblings siblings = default_manifest_siblings();
  const std::string_view here = "linux_x86_64";
  EXPECT_TRUE(rotation_file_is_platform_excluded("m.so", info("vault_module", "macos_arm64"), siblings, here));
  EXPECT_FALSE(rotation_file_is_platform_excluded("m.so", info("vault_module"), siblings, here));
  EXPECT_FALSE(rotation_file_is_platform_excluded("f.arrow", info("feature", "macos_arm64"), siblings, here));

  EXPECT_TRUE(manifest_file_is_sync_excluded("m.so", info("backtester_module"), siblings, here));
  EXPECT_FALSE(manifest_file_is_sync_excluded("m.so", info("vault_module", "linux_x86_64"), siblings, here));
  EXPECT_FALSE(manifest_file_is_sync_excluded("f.arrow", info("feature"), siblings, here));
}

// Entries of every form: those the table keeps as fields and those it keeps
// verbatim. Each reads, looks up, excludes and writes as its JSON does.
TEST(ManifestFilesTable, EveryEntryFormReadsAndWritesAsItsJson) {
  const std::string upper(64, 'A');
  json::object files;
  files["a.arrow"] = info("feature");
  files["b.arrow"] = json::object{{"kind", "feature"}, {"sha256", kDigest}, {"size_bytes", 3}, {"family", "px"}};
  files["c.arrow"] = json::object{{"size_bytes", 3.0}, {"sha256", kDigest}, {"kind", "feature"}};
  files["d.arrow"] = json::object{{"size_bytes", 3}, {"sha256", upper}, {"kind", "feature"}};
  files["e.arrow"] = json::object{{"size_bytes", 3}, {"sha256", kDigest}, {"kind", "feature"}, {"n", json::array{1}}};
  files["f\u00e9.arrow"] = json::object{{"size_bytes", -1}, {"sha256", kDigest}, {"kind", "\u2603 \"q\""}};
  files["m.so"] = info("vault_module", "macos_arm64");
  files["n.so"] = info("vault_module", "linux_x86_64");
  files["functions.json"] = json::object{{"sha256", kDigest}, {"kind", "functions"}};
  files["z"] = "not an entry";
  json::object data{{"era_number", 1}, {"files", files}, {"after", "files"}};
  ManifestPtr manifest = Manifest::from_sanitized(data);
  const ManifestFiles& table = manifest->files();

  EXPECT_EQ(manifest->to_dict(), data);
  EXPECT_EQ(dump_json(manifest->to_dict()), dump_json(data));  // same key order everywhere
  ASSERT_EQ(table.size(), files.size());
  std::vector<std::string> order;
  const ManifestSiblings siblings = default_manifest_siblings();
  for (const ManifestFiles::Entry entry : table) {
    order.emplace_back(entry.path());
    const json::value& expected = files.at(entry.path());
    EXPECT_EQ(entry.info(), expected) << entry.path();
    EXPECT_TRUE(table.find(entry.path())->same_info(entry));
    EXPECT_EQ(manifest_file_is_sync_excluded(entry, siblings),
              manifest_file_is_sync_excluded(entry.path(), expected, siblings))
        << entry.path();
  }
  EXPECT_EQ(order, keys_of(json::value(files)));
  EXPECT_FALSE(table.find("missing.arrow"));
  EXPECT_FALSE(table.contains("a.arrow/"));
  EXPECT_EQ(table.find("a.arrow")->sha256(), kDigest);
  EXPECT_EQ(table.find("b.arrow")->size_bytes(), 3);
  EXPECT_EQ(table.find("functions.json")->size_bytes(), std::nullopt);

  test_support::TempDir dir;
  write_manifest_json(dir.path(), *manifest);
  EXPECT_EQ(read_file(path_join(dir.path(), "manifest.json")), dump_json(data));

  // A copy stands alone; replacing an entry keeps its place.
  Manifest copy(*manifest);
  copy.mutable_files().set("b.arrow", info("functions"));
  EXPECT_EQ(copy.files().find("b.arrow")->info(), info("functions"));
  EXPECT_EQ(table.find("b.arrow")->info(), files.at("b.arrow"));
  EXPECT_EQ(copy.files().at(1).path(), "b.arrow");
  EXPECT_FALSE(copy.files().find("b.arrow")->same_info(*table.find("b.arrow")));
}

// A manifest touching every filter.
json::object mixed_manifest() {
  json::object files;
  files["features/u/signal_is/f.arrow"] = info("feature");
  files["vault/a.pxd"] = info("vault");
  files["vault/m.so"] = info("vault_module");
  files["vault/old.so"] = info("backtester_module");
  files["found_signals/p/i/signal_is/pnl_long.arrow"] = info("found_pnl");
  files["found_signals/p/i/signal_is/pnl.arrow"] = info("found_pnl");
  json::object data;
  data["era"] = 7;
  data["files"] = std::move(files);
  data["artifacts"] = json::array{
      json::object{{"relative_path", "vault/old.so"}, {"kind", "backtester_module"}},
      json::object{{"path", "vault/m.so"}, {"kind", "vault_module"}},
      json::object{{"path", "x"}, {"kind", "risk_module"}},
      "not a map",
  };
  data["found_signals"] = json::object{
      {"p/i", json::object{{"files", json::array{"found_signals/p/i/signal_is/pnl.arrow",
                                                 "found_signals/p/i/signal_is/pnl_long.arrow", 3}}}},
      {"p/j", json::object{{"files", json::array{"found_signals/p/j/signal_is/pnl.arrow"}}}},
  };
  return data;
}

TEST(SanitizeFilters, EachFilterRemovesOnlyItsOwnEntriesAndKeepsOrderOrMakesNoCopy) {
  const json::object data = mixed_manifest();
  const json::object original = data;
  const ManifestSiblings siblings = default_manifest_siblings();

  std::optional<json::object> declarations = drop_agent_bundle_declaration_files(data);
  ASSERT_TRUE(declarations);
  EXPECT_EQ(keys_of(declarations->at("files")),
            (std::vector<std::string>{"features/u/signal_is/f.arrow", "vault/m.so", "vault/old.so",
                                      "found_signals/p/i/signal_is/pnl_long.arrow",
                                      "found_signals/p/i/signal_is/pnl.arrow"}));
  EXPECT_EQ(declarations->at("artifacts"), data.at("artifacts"));

  std::optional<json::object> modules = drop_unsupported_runtime_module_files(data, siblings);
  ASSERT_TRUE(modules);
  EXPECT_FALSE(modules->at("files").as_object().contains("vault/old.so"));
  EXPECT_EQ(modules->at("files").as_object().size(), 5u);
  EXPECT_EQ(modules->at("artifacts"),
            (json::array{json::object{{"path", "vault/m.so"}, {"kind", "vault_module"}}, "not a map"}));

  std::optional<json::object> retired = drop_retired_found_pnl_long_files(data);
  ASSERT_TRUE(retired);
  EXPECT_FALSE(retired->at("files").as_object().contains("found_signals/p/i/signal_is/pnl_long.arrow"));
  EXPECT_EQ(retired->at("found_signals").at("p/i").at("files"),
            (json::array{"found_signals/p/i/signal_is/pnl.arrow", 3}));
  EXPECT_EQ(retired->at("found_signals").at("p/j"), data.at("found_signals").at("p/j"));
  EXPECT_EQ(retired->at("era"), 7);

  EXPECT_EQ(data, original);

  // Nothing to remove: no copy.
  const json::object clean = sanitize_manifest_data_for_sync(data, siblings);
  EXPECT_FALSE(drop_agent_bundle_declaration_files(clean));
  EXPECT_FALSE(drop_unsupported_runtime_module_files(clean, siblings));
  EXPECT_FALSE(drop_retired_found_pnl_long_files(clean));
}

TEST(SanitizeFilters, SanitizeAppliesAllThreeAndIsIdempotent) {
  const json::object data = mixed_manifest();
  const ManifestSiblings siblings = default_manifest_siblings();
  bool changed = false;
  json::object once = sanitize_manifest_data_for_sync(data, siblings, &changed);
  EXPECT_TRUE(changed);
  EXPECT_EQ(keys_of(once.at("files")),
            (std::vector<std::string>{"features/u/signal_is/f.arrow", "vault/m.so",
                                      "found_signals/p/i/signal_is/pnl.arrow"}));
  EXPECT_EQ(once.at("artifacts").as_array().size(), 2u);
  EXPECT_FALSE(manifest_has_agent_bundle_declarations(once));
  EXPECT_FALSE(manifest_has_retired_found_pnl_long_files(once));
  EXPECT_TRUE(manifest_has_agent_bundle_declarations(data));
  EXPECT_TRUE(manifest_has_retired_found_pnl_long_files(data));

  json::object twice = sanitize_manifest_data_for_sync(once, siblings, &changed);
  EXPECT_FALSE(changed);
  EXPECT_EQ(twice, once);

  // Moving through the filters gives the same result as copying.
  json::object moved = data;
  EXPECT_EQ(sanitize_manifest_data_for_sync(std::move(moved), siblings), once);
}

TEST(SanitizeFilters, AnEntryRemovedEarlierIsNotSeenByLaterFilters) {
  // A declaration that also looks like a retired PnL path leaves the found
  // sections alone: the retired filter never sees it.
  json::object data;
  data["files"] = json::object{{"found_signals/p/i/signal_is/pnl_long.arrow", info("vault_declaration")}};
  data["found_signals"] = json::object{
      {"p/i", json::object{{"files", json::array{"found_signals/p/i/signal_is/pnl_long.arrow"}}}}};
  int kind_calls = 0;
  ManifestSiblings siblings = default_manifest_siblings();
  siblings.manifest_file_kind = [&](std::string_view, const json::value&) {
    ++kind_calls;
    return std::string("feature");
  };
  json::object out = sanitize_manifest_data_for_sync(data, siblings);
  EXPECT_TRUE(out.at("files").as_object().empty());
  EXPECT_EQ(out.at("found_signals"), data.at("found_signals"));
  EXPECT_EQ(kind_calls, 0);
}

TEST(SanitizeChecks, EntriesAreRefusedOneByOneWithTheirPathAndReason) {
  json::object files;
  files["ok.arrow"] = info("feature");
  files["list.arrow"] = json::array{1};
  files["nan.arrow"] = json::object{{"size_bytes", 1}, {"weight", std::nan("")}};
  files["negative.arrow"] = json::object{{"size_bytes", -2}};
  files["half.arrow"] = json::object{{"size_bytes", 1.5}};
  files["short.arrow"] = json::object{{"sha256", "abc"}};
  files["float.arrow"] = json::object{{"size_bytes", 10.0}, {"sha256", nullptr}};
  bool changed = false;
  std::vector<RejectedManifestEntry> rejected;
  json::object out = sanitize_manifest_data_for_sync(json::object{{"files", files}}, default_manifest_siblings(),
                                                     &changed, &rejected);
  EXPECT_TRUE(changed);
  EXPECT_EQ(keys_of(out.at("files")), (std::vector<std::string>{"ok.arrow", "float.arrow"}));
  ASSERT_EQ(rejected.size(), 5u);
  const std::vector<std::tuple<std::string, std::string, std::string>> expected = {
      {"list.arrow", "invalid_entry", "Manifest file entry must be an object: 'list.arrow'"},
      {"nan.arrow", "non_finite_number",
       "Manifest file entry holds a number that is not finite (NaN or Infinity): 'nan.arrow'"},
      {"negative.arrow", "invalid_size_bytes",
       "Manifest file size_bytes must be a non-negative integer: 'negative.arrow' (got -2)"},
      {"half.arrow", "invalid_size_bytes",
       "Manifest file size_bytes must be a non-negative integer: 'half.arrow' (got 1.5)"},
      {"short.arrow", "invalid_sha256",
       "Manifest file sha256 must be 64 hexadecimal digits: 'short.arrow' (got 'abc')"},
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(rejected[i].path, std::get<0>(expected[i]));
    EXPECT_EQ(rejected[i].reason, std::get<1>(expected[i]));
    EXPECT_EQ(rejected[i].message, std::get<2>(expected[i]));
  }

  // The Manifest remembers them; a sanitised object has none left.
  ManifestPtr manifest =
      Manifest::create(json::object{{"era_number", 1}, {"files", files}}, default_manifest_siblings());
  EXPECT_EQ(manifest->rejected_entries().size(), 5u);
  sanitize_manifest_data_for_sync(out, default_manifest_siblings(), &changed, &rejected);
  EXPECT_FALSE(changed);
  EXPECT_TRUE(rejected.empty());
}

TEST(SanitizeChecks, MovingAndCopyingGiveTheSameDigestsAndRefusalsAndACleanObjectIsHandedBack) {
  std::string upper(kDigest);
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  json::object data;
  data["files"] = json::object{
      {"a.arrow", json::object{{"sha256", "\t" + upper + " "}, {"kind", "feature"}}},
      {"b.arrow", json::object{{"sha256", 7}}},
      {"c.pxd", info("vault")},
      {"d.arrow", info("feature")},
  };
  const ManifestSiblings siblings = default_manifest_siblings();
  std::vector<RejectedManifestEntry> copied_rejected, moved_rejected;
  json::object copied = sanitize_manifest_data_for_sync(data, siblings, nullptr, &copied_rejected);
  json::object moved_input = data;
  json::object moved = sanitize_manifest_data_for_sync(std::move(moved_input), siblings, nullptr, &moved_rejected);
  EXPECT_EQ(copied, moved);
  EXPECT_EQ(keys_of(copied.at("files")), (std::vector<std::string>{"a.arrow", "d.arrow"}));
  EXPECT_EQ(copied.at("files").at("a.arrow").at("sha256").as_string(), kDigest);
  ASSERT_EQ(copied_rejected.size(), 1u);
  ASSERT_EQ(moved_rejected.size(), 1u);
  EXPECT_EQ(copied_rejected[0].message, moved_rejected[0].message);

  // With nothing left to remove, the moved object's storage comes back as it is.
  const json::value* first_entry = &moved.at("files").as_object().begin()->value();
  bool changed = true;
  json::object same = sanitize_manifest_data_for_sync(std::move(moved), siblings, &changed);
  EXPECT_FALSE(changed);
  EXPECT_EQ(same, copied);
  EXPECT_EQ(&same.at("files").as_object().begin()->value(), first_entry);
}

}  // namespace
}  // namespace tidewright::sync
