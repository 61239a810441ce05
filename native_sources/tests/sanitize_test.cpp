#include "tidewright/sync/manifest/sanitize.hpp"

#include "tidewright/sync/manifest/paths.hpp"

#include <gtest/gtest.h>

namespace tidewright::sync {
namespace {

json::value info(std::string_view kind, std::string_view platform = "") {
  json::object out{{"size_bytes", 10}, {"sha256", "00"}};
  if (!kind.empty()) out["kind"] = kind;
  if (!platform.empty()) out["platform"] = platform;
  return out;
}

std::vector<std::string> keys_of(const json::value& files) {
  std::vector<std::string> keys;
  for (const auto& entry : files.as_object()) keys.emplace_back(entry.key());
  return keys;
}

TEST(SanitizePredicates, DeclarationsByExtensionOrKindAndRuntimeModulesBySiblingKind) {
  EXPECT_TRUE(is_agent_bundle_declaration_file("vault/a.pxd", info("vault")));
  EXPECT_TRUE(is_agent_bundle_declaration_file("vault/a.txt", info("vault_declaration")));
  EXPECT_FALSE(is_agent_bundle_declaration_file("vault/a.txt", info("vault")));
  EXPECT_FALSE(is_agent_bundle_declaration_file("a.pxd.txt", json::value(nullptr)));

  ManifestSiblings siblings = default_manifest_siblings();
  EXPECT_FALSE(is_unsupported_runtime_module_file("m.so", info("vault_module"), siblings));
  EXPECT_TRUE(is_unsupported_runtime_module_file("m.so", info("backtester_module"), siblings));
  EXPECT_FALSE(is_unsupported_runtime_module_file("m.so", info("feature"), siblings));
  // The kind and the suffix come from the siblings, not from the entry.
  siblings.manifest_file_kind = [](std::string_view path, const json::value&) {
    return std::string(path.ends_with(".so") ? "risk_mod" : "feature");
  };
  siblings.runtime_module_kind_suffix = "_mod";
  EXPECT_TRUE(is_unsupported_runtime_module_file("x.so", info("vault_module"), siblings));
  EXPECT_FALSE(is_unsupported_runtime_module_file("x.arrow", info("backtester_module"), siblings));
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

TEST(SanitizeFilters, EachFilterRemovesOnlyItsOwnEntriesAndKeepsOrder) {
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
}

TEST(SanitizeFilters, NothingToRemoveMeansNoCopy) {
  json::object clean;
  clean["files"] = json::object{{"features/u/signal_is/f.arrow", info("feature")}};
  clean["found_signals"] = json::object{{"p/i", json::object{{"files", json::array{"x"}}}}};
  const ManifestSiblings siblings = default_manifest_siblings();
  EXPECT_FALSE(drop_agent_bundle_declaration_files(clean));
  EXPECT_FALSE(drop_unsupported_runtime_module_files(clean, siblings));
  EXPECT_FALSE(drop_retired_found_pnl_long_files(clean));
  EXPECT_FALSE(drop_agent_bundle_declaration_files(json::object{{"files", nullptr}}));
  EXPECT_FALSE(drop_retired_found_pnl_long_files(json::object{}));

  // The rvalue form hands the very same storage back.
  json::object moved = clean;
  const json::value* files_before = &moved.at("files").as_object().begin()->value();
  bool changed = true;
  json::object result = sanitize_manifest_data_for_sync(std::move(moved), siblings, &changed);
  EXPECT_FALSE(changed);
  EXPECT_EQ(result, clean);
  EXPECT_EQ(&result.at("files").as_object().begin()->value(), files_before);
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

}  // namespace
}  // namespace tidewright::sync
