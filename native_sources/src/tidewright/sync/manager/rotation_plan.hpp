// The feature-rotation selection as the sync pipeline uses it.
//
// When rotation applies, the planner of the rotation module chose which
// files must be present: the mandatory artifacts (every file that is not a
// rotating feature file), the kept (prefetched) feature files and the
// selected feature files. Feature files outside that set are neither
// downloaded nor kept. When rotation does not apply, every manifest file is
// active and nothing else changes.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/results.hpp"

#include <optional>
#include <set>
#include <string>

namespace tidewright::sync {

struct RotationPlan {
  bool rotating = false;
  // The selection's paths that must be present locally (when rotating).
  std::set<std::string> active;
  // The planner's answer, as plain data.
  json::object selection;
  // The state persisted before this plan (of the same era), and the state to
  // persist once the active files are in place.
  std::optional<json::object> previous_state;
  std::optional<json::object> candidate_state;

  // Whether `path` belongs to the files that must be present.
  bool covers(const std::string& path) const { return !rotating || active.count(path) != 0; }
};

// Which manifest files the integrity checks cover under a persisted rotation
// state: the state's active paths, plus every file that is not a feature
// file. Without a state (or with one of another era) every file is covered.
struct RotationCoverage {
  std::optional<std::set<std::string>> active;

  bool leaves_out(const std::string& path, const json::value& info, const ManifestSiblings& siblings) const {
    if (!active || active->count(path)) return false;
    return siblings.feature_artifact_kinds.count(siblings.manifest_file_kind(path, info)) != 0;
  }
  bool leaves_out(const std::string& path, const ManifestFiles::Entry& entry, const ManifestSiblings& siblings) const {
    if (!active || active->count(path)) return false;
    return siblings.feature_artifact_kinds.count(manifest_entry_kind(siblings, entry)) != 0;
  }
};

// Copies the selection's "active_relative_paths", the relative paths of its
// "mandatory_artifacts" (as mandatory_relative_paths), its
// "skipped_relative_paths", "seed" (as rotation_seed) and
// "feature_budget_bytes" onto the result, each only when the selection has
// it (a null seed or budget leaves the field empty).
void apply_rotation_result_fields(SyncResult& result, const json::object& selection);

}  // namespace tidewright::sync
