#include "tidewright/sync/manifest/paths.hpp"

#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>


#include <filesystem>

namespace tidewright::sync {
namespace {

using test_support::TempDir;

namespace fs = std::filesystem;

template <typename F>
std::string manifest_error_of(F&& fn) {
  return test_support::message_of<ManifestError>(std::forward<F>(fn));
}

std::string safe_error(std::string_view path) {
  return manifest_error_of([&] { safe_manifest_relative_path(path); });
}

json::object files_of(std::initializer_list<std::string_view> paths) {
  json::object files;
  for (auto p : paths) files.emplace(p, json::object{{"size_bytes", 1}});
  return files;
}

// How a path is canonicalised, and the manifest-facing forms of the lookups,
// are checked through the module (the Python manifest path tests); here the
// messages, the links and the edges of each rule.
TEST(SafeManifestRelativePath, RejectsEachFaultWithItsMessage) {
  EXPECT_EQ(safe_error(""), "Manifest file path must be a non-empty relative path");
  EXPECT_EQ(safe_error(" \t\u2028\u1680\u205f"), "Manifest file path must be a non-empty relative path");
  EXPECT_EQ(safe_error(std::string_view("a\0b", 3)), "Manifest file path contains NUL byte: 'a\\x00b'");
  EXPECT_EQ(safe_error("/etc/passwd"), "Manifest file path must be relative: '/etc/passwd'");
  EXPECT_EQ(safe_error("\\\\server\\share"), "Manifest file path must be relative: '\\\\\\\\server\\\\share'");
  EXPECT_EQ(safe_error("/../x"), "Manifest file path must be relative: '/../x'");
  for (std::string_view unsafe : {"a/../b", "..", ".", "./", "a\\..", "x/.././"}) {
    EXPECT_EQ(safe_error(unsafe),
              "Manifest file path contains unsafe segments: " + python_repr(unsafe))
        << unsafe;
  }
}

// A data directory with links that stay inside it (a directory, a file),
// links out of it (to a directory outside, to a sibling whose name extends
// its own) and a link to it from outside.
class ManifestLocalPath : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(data_ / "features/u");
    fs::create_directories(temp_ / "outside");
    fs::create_directories(temp_ / "data-twin");
    fs::create_directory_symlink(data_ / "features", data_ / "inner");
    fs::create_symlink(data_ / "features/u/a.arrow", data_ / "features/u/b.arrow");
    fs::create_directory_symlink(temp_ / "outside", data_ / "escape");
    fs::create_directory_symlink(temp_ / "data-twin", data_ / "twin");
    fs::create_directory_symlink(data_, temp_ / "outside/alias");
  }
  TempDir temp_;
  const fs::path data_ = temp_ / "data";
  const std::string alias_ = temp_ / "outside/alias";
  std::string root() const { return fs::canonical(data_).string(); }
};

TEST_F(ManifestLocalPath, ReadsFollowLinksThatStayInsideAndRefuseLinksOut) {
  EXPECT_EQ(manifest_local_path(data_.string(), "features\\u\\missing\\x.arrow"), root() + "/features/u/missing/x.arrow");
  EXPECT_EQ(manifest_local_path(alias_, "inner/u/x"), root() + "/features/u/x");
  EXPECT_NO_THROW(manifest_local_path(data_.string(), "features/u/b.arrow"));
  for (std::string_view out : {"escape/u/x.arrow", "twin/x"}) {
    EXPECT_EQ(manifest_error_of([&] { manifest_local_path(data_.string(), out); }),
              "Manifest file path escapes data directory: '" + std::string(out) + "'");
  }
}

TEST_F(ManifestLocalPath, WritesNeverGoThroughALinkEvenOneThatStaysInside) {
  // Through a link to the data directory itself the writes are its own.
  EXPECT_EQ(manifest_local_write_path(alias_, "features/u/x.arrow"), root() + "/features/u/x.arrow");
  for (std::string_view path : {"inner/u/x.arrow", "features/u/b.arrow"}) {
    EXPECT_EQ(manifest_error_of([&] { manifest_local_write_path(data_.string(), path); }),
              "Manifest file path passes through a link inside the data directory: '" + std::string(path) +
                  "' (files are never written through links; replace the link with the directory or file it "
                  "points to)");
  }
  EXPECT_EQ(manifest_error_of([&] { manifest_local_write_path(data_.string(), "escape/x"); }),
            "Manifest file path escapes data directory: 'escape/x'");
}

TEST(Platform, TagsFollowTheTableAndFallBackToSystemAndMachine) {
  EXPECT_EQ(platform_tag("Linux", "AMD64"), "linux_x86_64");
  EXPECT_EQ(platform_tag("Linux", "arm64"), "linux_aarch64");
  EXPECT_EQ(platform_tag("Darwin", "x86_64"), "macos_x86_64");
  EXPECT_EQ(platform_tag("Darwin", "aarch64"), "macos_arm64");
  EXPECT_EQ(platform_tag("Windows", "ARM64"), "windows_amd64");
  EXPECT_EQ(platform_tag("Linux", "riscv64"), "linux_riscv64");
  EXPECT_EQ(platform_tag("FreeBSD", "AMD64"), "freebsd_amd64");
  EXPECT_EQ(current_platform(), detect_platform());
}

TEST(FeaturePaths, DirectPathWinsThenTheFirstMatchingPathInManifestOrder) {
  const EpochNames epochs;
  json::object files = files_of({
      "features/other/signal_is/f1.arrow",
      "features/eu/signal_is/f1.arrow",
      "features/eu/strategy_is/f1.arrow",
      "features/strategy_is/f2.arrow",
      "features/a/b/c/signal_is/f3.arrow",
      "vault/signal_is/f4.arrow",
  });
  auto find = [&](std::string_view name, std::string_view type, std::optional<std::string_view> universe) {
    return manifest_feature_relative_path(files, name, type, universe, epochs);
  };
  EXPECT_EQ(find(" f1 ", "SIGNAL", " eu "), "features/eu/signal_is/f1.arrow");
  EXPECT_EQ(find("f1", "StraTegy", "eu"), "features/eu/strategy_is/f1.arrow");
  EXPECT_EQ(find("f1", "strategies", "eu"), "features/eu/signal_is/f1.arrow");
  // Universe not in the manifest: any universe with the right epoch.
  EXPECT_EQ(find("f1", "SIGNAL", "us"), "features/other/signal_is/f1.arrow");
  EXPECT_EQ(find("f2", "SIGNAL", "us"), std::nullopt);
  // Without a universe, the unscoped path, else any feature file of that name.
  EXPECT_EQ(find("f2", "SIGNAL", std::nullopt), "features/strategy_is/f2.arrow");
  EXPECT_EQ(find("f1", "SIGNAL", "  "), "features/other/signal_is/f1.arrow");
  EXPECT_EQ(find("f3", "SIGNAL", std::nullopt), std::nullopt);  // too deep
  EXPECT_EQ(find("f4", "SIGNAL", std::nullopt), std::nullopt);  // not under features
  EXPECT_EQ(find("1", "SIGNAL", std::nullopt), std::nullopt);   // a name's tail is not the name
  files.emplace("features/signal_is/f1.arrow", json::object());
  EXPECT_EQ(find("f1", "SIGNAL", std::nullopt), "features/signal_is/f1.arrow");
}

TEST(FeaturePaths, FamilyPrefixNeedsFourPartsAndTwoNamedOnes) {
  EXPECT_EQ(feature_artifact_family_prefix(" fam__kind__x__y.arrow "), "fam__kind__");
  EXPECT_EQ(feature_artifact_family_prefix("fam__kind__x__y__z"), "fam__kind__");
  EXPECT_EQ(feature_artifact_family_prefix("fam__kind____"), "fam__kind__");
  EXPECT_EQ(feature_artifact_family_prefix("fam__kind__x"), std::nullopt);
  EXPECT_EQ(feature_artifact_family_prefix("__kind__x__y"), std::nullopt);
  EXPECT_EQ(feature_artifact_family_prefix("fam____x__y"), std::nullopt);
  EXPECT_EQ(feature_artifact_family_prefix("fam___k__x"), std::nullopt);  // "___" is one separator
  EXPECT_EQ(feature_artifact_family_prefix("  "), std::nullopt);
}

TEST(FeaturePaths, CompanionsShareFamilyAndDirectoryAndComeSorted) {
  json::object files = files_of({
      "features/eu/signal_is/fam__k__main__0.arrow",
      "features/eu/signal_is/fam__k__z__1.arrow",
      "features\\eu\\signal_is\\fam__k__b__1.arrow",
      "features/eu/signal_is/fam__k__c__1.json",
      "features/eu/signal_is/other__k__c__1.arrow",
      "features/us/signal_is/fam__k__d__1.arrow",
      "features/eu/signal_is/../signal_is/fam__k__e__1.arrow",
      "features/eu/signal_is/fam__k__a__1.arrow",
  });
  const std::vector<std::string> expected = {"features/eu/signal_is/fam__k__a__1.arrow",
                                             "features/eu/signal_is/fam__k__b__1.arrow",
                                             "features/eu/signal_is/fam__k__z__1.arrow"};
  EXPECT_EQ(manifest_feature_companion_relative_paths(files, "features/eu/signal_is/fam__k__main__0.arrow"),
            expected);
  EXPECT_TRUE(manifest_feature_companion_relative_paths(files, "../features/x.arrow").empty());
  EXPECT_TRUE(manifest_feature_companion_relative_paths(files, "other/eu/fam__k__a__1.arrow").empty());
  EXPECT_TRUE(manifest_feature_companion_relative_paths(files, "features/eu/plain.arrow").empty());
}

using ManifestUrls = test_support::HostTest;

TEST_F(ManifestUrls, BuildFromTheServerOrTheBaseUrl) {
  EXPECT_EQ(manifest_file_url(" http://127.0.0.1:8080/ ", "features\\u\\f.arrow", std::nullopt),
            "http://127.0.0.1:8080/data/files/features/u/f.arrow");
  EXPECT_EQ(manifest_file_url("http://h", "a b/c%d", "  "), "http://h/data/files/a b/c%d");
  EXPECT_EQ(manifest_file_url("http://h", "x", " https://cdn.example/bucket/// "),
            "https://cdn.example/bucket/x");
  EXPECT_EQ(manifest_error_of([] { manifest_file_url("http://h", "x", "cdn.example/bucket"); }),
            "Manifest base_url must be an absolute data-file URL");
  EXPECT_EQ(manifest_error_of([] { manifest_file_url("", "x", std::nullopt); }),
            "Manifest base_url must be an absolute data-file URL");
  EXPECT_FALSE(manifest_base_url_uses_public_download("http://h:1", std::nullopt));
  EXPECT_TRUE(manifest_base_url_uses_public_download(" http://h:1/ ", " https://h:1/data/files// "));
  EXPECT_FALSE(manifest_base_url_uses_public_download("http://h:1", "http://h:2/data/files"));
  EXPECT_FALSE(manifest_base_url_uses_public_download("http://h:1", "http://h:1/data/files/x"));
  // The path is checked before anything else.
  EXPECT_EQ(manifest_error_of([] { manifest_file_url("nonsense", "/x", std::nullopt); }),
            "Manifest file path must be relative: '/x'");
}

// The validator the module really has is checked through it (test_manifest_
// paths); here that its refusal, whatever it says, becomes a ManifestError.
TEST_F(ManifestUrls, TransportRefusalBecomesAManifestError) {
  std::vector<std::string> seen;
  host_->set_module_function("tidewright._transport_security", "validate_bearer_transport_url",
                             [&](const json::array& args, const json::object&) -> json::value {
                               seen.push_back(python_str(args.at(0)));
                               throw ValueError("refusing plain http to remote host");
                             });
  EXPECT_EQ(manifest_error_of([] { manifest_file_url("http://remote.example/", "x", std::nullopt); }),
            "refusing plain http to remote host");
  EXPECT_EQ(seen, std::vector<std::string>{"http://remote.example/data/files"});
}

TEST(SignalGroupKey, GroupsPoolFilesWhoseDirectoryMatchesTheirEpoch) {
  EpochNames epochs;
  EXPECT_EQ(agent_signal_group_key("found_signals/p/i/signal_is/pnl.arrow", "", epochs), "found_signals/p/i");
  EXPECT_EQ(agent_signal_group_key("era_3/found_strategies/p/i/strategy_is/x/y", "era_3", epochs),
            "found_strategies/p/i");
  EXPECT_EQ(agent_signal_group_key("root//useful_signals/p/i/signal_os/pnl.arrow/", "root", epochs),
            "useful_signals/p/i");
  EXPECT_EQ(agent_signal_group_key("found_signals/p/i/signal_is", "", epochs), std::nullopt);
  EXPECT_EQ(agent_signal_group_key("found_signals/p/i/strategy_is/pnl.arrow", "", epochs), std::nullopt);
  EXPECT_EQ(agent_signal_group_key("other/found_signals/p/i/signal_is/x", "era_3", epochs), std::nullopt);
  epochs.signal_is = "sig";
  EXPECT_EQ(agent_signal_group_key("found_signals/p/i/sig/pnl.arrow", "", epochs), "found_signals/p/i");
}

}  // namespace
}  // namespace tidewright::sync
