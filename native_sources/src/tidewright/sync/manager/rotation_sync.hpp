// RotationSync: feature rotation as a data directory's syncs see it. The
// settings for a manifest, the selection a sync works from, its promotion
// once the files are in place, what the integrity checks cover under the
// persisted state, and the per-era set of prefetched feature files that
// rotation keeps.
//
// Owns: the rotation state last loaded or persisted, and the prefetched set
// of one era as read from (and written to) its side file. mu_ guards the
// three; it is a leaf lock, never held while the host's rotation planner or
// settings loader runs, only around the book-keeping and the reads and
// writes of the prefetched set's side file.
//
// Every file this object reads or writes is in the data directory given at
// construction; it borrows nothing else.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/manager/results.hpp"
#include "tidewright/sync/manager/rotation_plan.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tidewright::sync {

class RotationSync {
 public:
  explicit RotationSync(std::string data_dir);
  RotationSync(const RotationSync&) = delete;
  RotationSync& operator=(const RotationSync&) = delete;

  // Reads the persisted state; a broken one is logged, never raised (a sync
  // that plans a rotation raises it).
  void load_state() EXCLUDES(mu_);
  // The state loaded or last persisted (its fields).
  std::optional<json::object> active_state() const EXCLUDES(mu_);

  // The rotation settings for `manifest` as plain data (the fields of the
  // rotation module's ArtifactRotationSettings), or nullopt when rotation is
  // not configured (the settings loader answers FULL_DOWNLOAD, or the budget
  // is that marker). Errors of the settings loader propagate unchanged.
  std::optional<json::object> settings_for_manifest(const Manifest& manifest, std::int64_t free_disk_bytes);
  // The selection for a sync to `manifest`: the persisted state of its era
  // carried forward, or a new candidate when none fits or a rotation is due.
  // Throws SyncError "Active rotation path is missing from manifest: <path>",
  // FeatureRotationStateError for a corrupt state file, and the planner's and
  // settings loader's errors unchanged.
  RotationPlan plan(const Manifest& manifest, std::int64_t free_disk_bytes) EXCLUDES(mu_);
  // After the active files are in place: fills the result's rotation fields,
  // persists the candidate state and removes the feature files that are
  // neither active nor prefetched. Without rotation, a state left from an
  // earlier configuration is removed (every file is present now).
  void complete_promotion(const Manifest& manifest, const RotationPlan& plan, SyncResult& result) EXCLUDES(mu_);
  // True when rotation is configured and has no state for the manifest's era
  // or its rotation is due (a broken settings file also answers true, so that
  // the sync reports it).
  bool needs_sync(const Manifest& manifest);
  // What the integrity checks cover under the active state.
  RotationCoverage coverage(const Manifest& manifest) const EXCLUDES(mu_);

  // --- the prefetched feature files of one era ---
  std::set<std::string> read_prefetched(const Manifest& manifest) const;
  void write_prefetched(std::optional<std::int64_t> era_number, const std::set<std::string>& relative_paths) const;
  // Adds the paths that are feature files of `manifest` to the set kept for
  // its era (and to the file); does nothing when there are none.
  void remember_prefetched(const Manifest& manifest, const std::vector<std::string>& relative_paths) EXCLUDES(mu_);
  // The prefetched paths of the manifest's era, sorted.
  std::vector<std::string> prefetched_keep_paths(const Manifest& manifest) EXCLUDES(mu_);
  std::optional<std::int64_t> prefetched_era_number() const EXCLUDES(mu_);
  std::set<std::string> prefetched_paths() const EXCLUDES(mu_);

 private:
  // The set in memory switched to the manifest's era, read from its file.
  void refresh_prefetched_for(const Manifest& manifest) REQUIRES(mu_);

  const std::string data_dir_;

  mutable Mutex mu_;
  std::optional<json::object> active_state_ GUARDED_BY(mu_);
  std::optional<std::int64_t> prefetched_era_number_ GUARDED_BY(mu_);
  std::set<std::string> prefetched_paths_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
