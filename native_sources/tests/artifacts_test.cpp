#include "tidewright/sync/artifacts/found_pnl.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/artifacts/vocabulary.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace tidewright::sync {
namespace {

using test_support::message_of;
using test_support::TempDir;

json::value vocabulary(std::int64_t era, const std::string& universe) {
  return parse_json(R"({"era_number": )" + std::to_string(era) + R"(, "named_universe": ")" + universe +
                    R"(", "features": [], "metadata": {"named_universe": ")" + universe + R"(", "t_signal_is": 5}})");
}

TEST(Vocabulary, ValidationLadderReportsTheFirstProblem) {
  ManifestSiblings s = default_manifest_siblings();
  EXPECT_EQ(message_of<SyncError>([&] { validate_vocabulary_data(json::value(3), 1, std::nullopt, s); }),
            "vocabulary.json must contain a JSON object");
  EXPECT_EQ(message_of<SyncError>([&] { validate_vocabulary_data(parse_json(R"({"named_universe": "u"})"), 1, std::nullopt, s); }),
            "vocabulary.json missing required keys: ['era_number', 'features', 'metadata']");
  EXPECT_EQ(message_of<EraError>([&] { validate_vocabulary_data(vocabulary(2, "u"), 1, std::nullopt, s); }),
            "vocabulary.json era_number=2 does not match manifest era_number=1");
  json::value v = vocabulary(1, "u");
  v.get_object()["metadata"] = json::array();
  EXPECT_EQ(message_of<SyncError>([&] { validate_vocabulary_data(v, 1, std::nullopt, s); }),
            "vocabulary.json metadata must be an object");
  EXPECT_EQ(message_of<SyncError>([&] { validate_vocabulary_data(vocabulary(1, "u"), 1, std::string("w"), s); }),
            "vocabulary.json named_universe does not match manifest path 'w'");
  json::value good = vocabulary(1, "u");
  json::object out = validate_vocabulary_data(good, 1, std::string("u"), s);
  EXPECT_EQ(out.at("metadata").at("t_signal_is").as_int64(), 5);
}

TEST(Vocabulary, RetiredTokensAreNamedFiveAtMost) {
  ManifestSiblings s = default_manifest_siblings();
  json::value v = vocabulary(1, "u");
  json::array fns;
  for (int i = 1; i <= 7; ++i) fns.push_back(json::object{{"name", "f" + std::to_string(i)}});
  fns.push_back(json::object{{"name", "fx"}});
  v.get_object()["functions"] = fns;
  EXPECT_EQ(message_of<SyncError>([&] { validate_vocabulary_data(v, 1, std::nullopt, s); }),
            "vocabulary.json contains retired function token ids f1, f2, f3, f4, f5 (+2 more); regenerate the era "
            "distribution with DB-token vocabulary");
}

TEST(Vocabulary, UniverseNamesAndPaths) {
  EXPECT_EQ(validate_named_universe(json::value("  crypto ")), "crypto");
  for (const char* bad : {"a/b", "..", "a\\b"}) {
    EXPECT_THROW(validate_named_universe(json::value(bad)), SyncError) << bad;
  }
  EXPECT_EQ(message_of<SyncError>([] { validate_named_universe(json::value("  ")); }), "named_universe is required");
  EXPECT_EQ(vocabulary_named_universe_from_path("named_universes/crypto/vocabulary.json"), "crypto");
  EXPECT_FALSE(vocabulary_named_universe_from_path("named_universes/crypto/other.json"));
  EXPECT_FALSE(vocabulary_named_universe_from_path("../named_universes/x/vocabulary.json"));
  json::object files = parse_json(R"({"named_universes/b/vocabulary.json": {}, "a.arrow": {},
                                      "named_universes/a/vocabulary.json": {}})").get_object();
  EXPECT_EQ(vocabulary_manifest_paths(files),
            (std::vector<std::string>{"named_universes/a/vocabulary.json", "named_universes/b/vocabulary.json"}));
}

TEST(SignalsIndex, PointerRules) {
  std::string digest(64, 'a');
  std::string path = "_control/signals_index." + digest + ".json";
  auto files_with = [&](const std::string& entry) {
    return parse_json(R"({")" + path + R"(": )" + entry + "}").get_object();
  };
  json::object good = files_with(R"({"kind": "signals_index", "sha256": " )" + std::string(64, 'A') + R"( ", "size_bytes": 0})");
  EXPECT_EQ(manifest_signals_index_path(json::value(path), good), path);
  EXPECT_FALSE(manifest_signals_index_path(json::value(nullptr), good));
  EXPECT_EQ(message_of<ManifestError>([&] { manifest_signals_index_path(json::value("signals_index.json"), good); }),
            "legacy signals_index.json sidecar is not supported");
  std::string upper = "_control/signals_index." + std::string(64, 'A') + ".json";
  EXPECT_EQ(message_of<ManifestError>([&] { manifest_signals_index_path(json::value(upper), good); }),
            "manifest signals_index must reference _control/signals_index.<sha256>.json");
  EXPECT_EQ(message_of<ManifestError>([&] { manifest_signals_index_path(json::value(path), json::object()); }),
            "manifest signals_index must be present in files");
  EXPECT_EQ(message_of<ManifestError>([&] {
              manifest_signals_index_path(json::value(path), files_with(R"({"kind": "x", "sha256": "a", "size_bytes": 0})"));
            }),
            "manifest signals_index file kind must be signals_index");
  EXPECT_EQ(message_of<ManifestError>([&] {
              manifest_signals_index_path(json::value(path),
                                          files_with(R"({"kind": "signals_index", "sha256": ")" + digest + R"(", "size_bytes": -1})"));
            }),
            "manifest signals_index file size_bytes must be non-negative");
}

TEST(SignalsIndex, ApplyingChecksEraAndSections) {
  auto manifest = Manifest::from_sanitized(parse_json(R"({"era_number": 7})").get_object());
  apply_manifest_signals_index(parse_json(R"({"era_number": "7", "found_signals": {"a": {"files": []}}})"), *manifest);
  EXPECT_EQ(manifest->found_signals.size(), 1u);
  EXPECT_EQ(message_of<EraError>([&] { apply_manifest_signals_index(parse_json(R"({"era_number": 8})"), *manifest); }),
            "signals_index.json era_number=8 does not match manifest era_number=7");
  EXPECT_EQ(message_of<ManifestError>([&] { apply_manifest_signals_index(parse_json(R"({"useful_signals": []})"), *manifest); }),
            "signals_index.json useful_signals must be a JSON object");
}

TEST(FoundPnl, SectionsKindsAndScrubbing) {
  EXPECT_EQ(found_pnl_section_for_path("found_signals/a/signal_is/pnl.arrow"), "found_signals");
  EXPECT_FALSE(found_pnl_section_for_path("found_signals/a/strategy_is/pnl.arrow"));
  EXPECT_EQ(found_pnl_section_for_path("useful_signals/x/strategy_is/pnl.arrow"), "useful_signals");

  TempDir dir;
  json::object index = parse_json(R"({"era_number": 1, "found_signals": {"s1": {"files":
      ["found_signals/p/1/signal_is/pnl.arrow", "found_signals/p/2/signal_is/pnl.arrow"]}}})").get_object();
  std::string body = dump_json(index, {.sort_keys = true});
  std::string digest = sha256(body);
  std::string old_path = "_control/signals_index." + digest + ".json";
  atomic_write(path_join(dir.path(), old_path), body);
  json::object data;
  data["signals_index"] = old_path;
  data["files"] = json::object{{old_path, json::object{{"kind", "signals_index"}, {"sha256", digest},
                                                         {"size_bytes", static_cast<std::int64_t>(body.size())}}}};
  auto update = scrub_missing_found_pnl_paths_from_signals_index(dir.path(), data,
                                                                 {"found_signals/p/1/signal_is/pnl.arrow"});
  ASSERT_TRUE(update);
  EXPECT_NE(update->new_relative_path, old_path);
  EXPECT_EQ(data.at("signals_index").as_string(), update->new_relative_path);
  EXPECT_FALSE(data.at("files").as_object().contains(old_path));
  json::value rewritten = parse_json(read_file(update->local_path));
  EXPECT_EQ(rewritten.at("found_signals").at("s1").at("files").as_array().size(), 1u);
  EXPECT_EQ(sha256(read_file(update->local_path)), update->sha256);

  PermanentDownloadError not_found("x", std::string("found_signals/p/2/signal_is/pnl.arrow"), 404);
  json::object files = parse_json(R"({"found_signals/p/2/signal_is/pnl.arrow": {"kind": "found_signal_is_pnl"},
                                      "features/a.arrow": {"kind": "feature"}})").get_object();
  EXPECT_EQ(missing_found_pnl_download_path(not_found, files), "found_signals/p/2/signal_is/pnl.arrow");
  PermanentDownloadError other("x", std::string("features/a.arrow"), 404);
  EXPECT_FALSE(missing_found_pnl_download_path(other, files));
}

TEST(ShuffleSeed, FileChecksFollowTheLadder) {
  TempDir dir;
  std::string seed = path_join(dir.path(), "shuffle_seed.enc");
  ShuffleSeedExpectations expect{3, 1, 2, std::string("market-era-v1")};
  EXPECT_EQ(message_of<SyncError>([&] { validate_shuffle_seed_file(seed, expect); }), "shuffle_seed.enc is missing");
  atomic_write(seed, std::string(59, 'x'));
  EXPECT_EQ(message_of<SyncError>([&] { validate_shuffle_seed_file(seed, expect); }),
            "shuffle_seed.enc has invalid size: expected 60 bytes, got 59");
  atomic_write(seed, std::string(60, 'x'));
  EXPECT_EQ(message_of<SyncError>([&] { validate_shuffle_seed_file(seed, expect); }),
            "shuffle_seed.enc era metadata is missing");
  write_shuffle_seed_metadata(seed, 3, 1, 2, json::value("market-era-v1"), json::value("kms"));
  EXPECT_NO_THROW(validate_shuffle_seed_file(seed, expect));
  expect.era_number = 4;
  EXPECT_EQ(message_of<EraError>([&] { validate_shuffle_seed_file(seed, expect); }),
            "shuffle_seed.enc era_number=3 does not match manifest era_number=4");
  atomic_write(shuffle_seed_meta_path(seed), R"({"era_number": 3, "market_id": 1, "manifest_version": 2,
                                               "shuffle_key_generation": "legacy-era-only-v1"})");
  expect.era_number = 3;
  EXPECT_EQ(message_of<EraError>([&] { validate_shuffle_seed_file(seed, expect); }),
            "shuffle_seed.enc shuffle_key_generation is invalid");
  EXPECT_THROW(coerce_shuffle_key_source(json::value("a\nb")), SyncError);
  HeaderList headers = {{"x-era-number", "5"}};
  EXPECT_EQ(header_value(headers, "X-Era-Number"), "5");
  EXPECT_EQ(message_of<EraError>([&] { validate_response_era_header(headers, 6, "shuffle_seed.enc"); }),
            "shuffle_seed.enc response era_number=5 does not match manifest era_number=6");
}

}  // namespace
}  // namespace tidewright::sync
