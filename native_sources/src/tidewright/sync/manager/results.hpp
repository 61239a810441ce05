// The result records of sync, repair and verify.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

// Result of a sync operation. Plain value; every field has a default.
struct SyncResult {
  std::int64_t features_downloaded = 0;
  std::int64_t useful_signals_downloaded = 0;
  std::int64_t bytes_downloaded = 0;
  std::int64_t era_number = 0;
  std::int64_t t_signal_is = 0;
  std::int64_t t_strategy_is = 0;
  std::int64_t n_instruments = 0;
  std::int64_t n_features = 0;
  std::int64_t n_useful_signals = 0;
  std::int64_t n_found_strategies = 0;
  std::int64_t pnl_column_count = 0;
  bool vocabulary_downloaded = false;
  bool shuffle_seed_downloaded = false;
  std::vector<std::string> active_relative_paths;
  std::vector<std::string> skipped_relative_paths;
  std::vector<std::string> mandatory_relative_paths;
  std::vector<std::string> found_pnl_paths_downloaded;
  // Manifest entries refused one by one (not synced; see the
  // "manifest_entry_rejected" events for why), in the manifest's order.
  std::vector<std::string> rejected_files;
  std::optional<std::int64_t> rotation_seed;
  std::optional<std::int64_t> feature_budget_bytes;
};

// Result of a verify operation.
struct VerifyResult {
  bool valid = true;
  std::vector<std::string> corrupted_files;
  std::vector<std::string> missing_files;
  // False when there was no local manifest to check against (the result is
  // then valid with empty lists: nothing was checked).
  bool has_manifest = true;
};

}  // namespace tidewright::sync
