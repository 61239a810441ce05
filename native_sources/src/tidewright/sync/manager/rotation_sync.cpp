// Feature rotation inside the manager: settings for a manifest, the
// selection a sync works from, its promotion once the files are in place,
// and the per-era set of prefetched feature files that rotation keeps.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/manager/cleanup.hpp"
#include "tidewright/sync/manager/rotation_sync.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/rotation/catalog.hpp"
#include "tidewright/sync/rotation/state.hpp"

#include <cerrno>
#include <chrono>

#include <sys/stat.h>

namespace tidewright::sync {

namespace {

struct LoadedRotationSettings {
  json::object settings;         // the fields of ArtifactRotationSettings
  json::value rotation_frequency;  // the settings' "rotation_frequency"
};

std::string full_download_marker() {
  return python_str(host().rotation_full_download_marker());
}

json::value field_or_null(const json::object& object, std::string_view key) {
  const json::value* v = object.if_contains(key);
  return v ? *v : json::value(nullptr);
}

// With the package's own settings loader in place, a data directory without
// a settings file has rotation off, and nothing needs the era's catalogue
// (building it walks every manifest file, the bulk of a no-op sync).
bool rotation_known_off(const std::string& data_dir) {
  if (!host().rotation_settings_loader_is_default()) return false;
  struct stat st {};
  return ::stat(path_join(data_dir, ROTATION_SETTINGS_FILENAME).c_str(), &st) != 0 && errno == ENOENT;
}

// The manifest object as the rotation settings read it: its fields, with
// "files" holding only the entries its rotation artifacts name (all the
// catalogue looks up), not a copy of every file.
json::object rotation_artifacts_view(const Manifest& manifest) {
  json::object view = manifest.fields();
  if (!manifest.files_held()) return view;
  json::object files;
  const json::value* artifacts = view.if_contains("artifacts");
  if (artifacts && artifacts->is_array()) {
    for (const auto& artifact : artifacts->get_array()) {
      const json::object* entry = as_object(&artifact);
      if (!entry) continue;
      for (const char* key : {"relative_path", "path"}) {
        const json::value* path = entry->if_contains(key);
        if (!path || path->is_null()) continue;
        // Looked up as the catalogue does, as stripped text.
        const std::string text = strip_ws(python_str(*path));
        if (auto listed = manifest.files().find(text)) files[text] = listed->info();
      }
    }
  }
  view["files"] = std::move(files);
  return view;
}

// The user's rotation settings for the data directory, validated against
// the catalogue of `manifest_data` (built from its rotation artifacts);
// nullopt when rotation is off.
std::optional<LoadedRotationSettings> load_rotation_settings(const std::string& data_dir,
                                                             const json::object& manifest_data,
                                                             const ManifestSiblings& siblings,
                                                             std::int64_t free_disk_bytes) {
  json::value loaded = host().load_rotation_settings(
      data_dir, rotation_catalog_context(manifest_data, rotation_artifact_rows_for_sync(manifest_data, siblings)));
  std::string marker = full_download_marker();
  if (loaded.is_string() && loaded.get_string() == marker) return std::nullopt;
  if (!loaded.is_object()) {
    throw ValueError("load_rotation_settings must return rotation settings or FULL_DOWNLOAD, got " +
                     python_repr(loaded));
  }
  const json::object& user = loaded.get_object();
  json::value budget = rotation_feature_budget_bytes(field_or_null(user, "feature_budget_gb"),
                                                     field_or_null(user, "feature_budget_bytes"), marker);
  if (budget.is_string()) return std::nullopt;  // the FULL_DOWNLOAD marker

  LoadedRotationSettings out;
  json::object scope;
  scope["market"] = field_or_null(user, "market");
  json::value universes = field_or_null(user, "named_universes");
  scope["named_universes"] = universes.is_array() ? universes : json::value(json::array{});
  scope["family"] = field_or_null(user, "family");
  scope["subfamily"] = field_or_null(user, "subfamily");
  out.settings["artifact_kind"] = "feature";
  out.settings["algorithm"] = field_or_null(user, "algorithm");
  out.settings["rotation_seed"] = field_or_null(user, "seed");
  out.settings["scope"] = std::move(scope);
  out.settings["feature_budget_bytes"] = budget;
  out.settings["free_disk_bytes"] = free_disk_bytes;
  out.settings["source"] = field_or_null(user, "source");
  out.rotation_frequency = field_or_null(user, "rotation_frequency");
  return out;
}

bool same_era(const json::object& state, std::optional<std::int64_t> era) {
  const json::value* recorded = state.if_contains("era_number");
  if (!recorded || recorded->is_null()) return !era.has_value();
  return era && to_int(*recorded) == era;
}

std::optional<double> number_field(const json::object& object, std::string_view key) {
  const json::value* v = object.if_contains(key);
  if (!v) return std::nullopt;
  if (v->is_double()) return v->get_double();
  if (v->is_int64()) return static_cast<double>(v->get_int64());
  if (v->is_uint64()) return static_cast<double>(v->get_uint64());
  return std::nullopt;
}

double wall_clock_seconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// A rotation is due once its period has passed since the state's rotation.
bool rotation_is_due(const json::object& state, const json::value& rotation_frequency, double now) {
  std::optional<std::int64_t> period = rotation_frequency_seconds(rotation_frequency);
  std::optional<double> rotated_at = number_field(state, "rotated_at");
  return period && rotated_at && now >= *rotated_at + static_cast<double>(*period);
}

std::vector<std::string> text_list(const json::value* value) {
  std::vector<std::string> out;
  if (!value || !value->is_array()) return out;
  for (const auto& item : value->get_array()) out.push_back(python_str(item));
  return out;
}

}  // namespace

void apply_rotation_result_fields(SyncResult& result, const json::object& selection) {
  if (const json::value* v = selection.if_contains("active_relative_paths")) result.active_relative_paths = text_list(v);
  if (const json::value* v = selection.if_contains("mandatory_artifacts"); v && v->is_array()) {
    result.mandatory_relative_paths.clear();
    for (const auto& artifact : v->get_array()) {
      if (const json::object* a = as_object(&artifact)) {
        if (const json::value* path = a->if_contains("relative_path")) {
          result.mandatory_relative_paths.push_back(python_str(*path));
        }
      }
    }
  }
  if (const json::value* v = selection.if_contains("skipped_relative_paths")) {
    result.skipped_relative_paths = text_list(v);
  }
  if (const json::value* v = selection.if_contains("seed"); v && !v->is_null()) result.rotation_seed = to_int(*v);
  if (const json::value* v = selection.if_contains("feature_budget_bytes"); v && !v->is_null()) {
    result.feature_budget_bytes = to_int(*v);
  }
}

RotationSync::RotationSync(std::string data_dir) : data_dir_(std::move(data_dir)) {}

void RotationSync::load_state() {
  std::optional<json::object> state;
  try {
    state = load_feature_rotation_state(data_dir_);
  } catch (const FeatureRotationStateError& e) {
    // Like the other side files, a broken state never fails construction;
    // a sync that plans a rotation raises the error.
    log_warning("Failed to load feature rotation state: %s", {json::value(e.what())});
  }
  MutexLock lock(mu_);
  active_state_ = std::move(state);
}

std::optional<json::object> RotationSync::active_state() const {
  MutexLock lock(mu_);
  return active_state_;
}

std::optional<json::object> RotationSync::settings_for_manifest(const Manifest& manifest,
                                                               std::int64_t free_disk_bytes) {
  if (rotation_known_off(data_dir_)) return std::nullopt;
  auto loaded = load_rotation_settings(data_dir_, rotation_artifacts_view(manifest), host().manifest_siblings(), free_disk_bytes);
  if (!loaded) return std::nullopt;
  return std::move(loaded->settings);
}

RotationPlan RotationSync::plan(const Manifest& manifest, std::int64_t free_disk_bytes) {
  RotationPlan plan;
  if (rotation_known_off(data_dir_)) return plan;
  ManifestSiblings siblings = host().manifest_siblings();
  auto loaded = load_rotation_settings(data_dir_, rotation_artifacts_view(manifest), siblings, free_disk_bytes);
  if (!loaded) return plan;
  json::array rows = rotation_planning_rows(manifest.to_dict(), siblings);

  std::optional<json::object> state = load_feature_rotation_state(data_dir_);
  {
    MutexLock lock(mu_);
    active_state_ = state;
  }
  std::optional<std::int64_t> era = manifest_era_number_or_none(&manifest);
  bool same_era_state = state && same_era(*state, era);
  double now = wall_clock_seconds();
  bool due = same_era_state && rotation_is_due(*state, loaded->rotation_frequency, now);

  json::array keep;
  for (const auto& path : prefetched_keep_paths(manifest)) keep.emplace_back(path);
  json::object kwargs;
  kwargs["previous_state"] = same_era_state ? json::value(*state) : json::value(nullptr);
  kwargs["now"] = now;
  kwargs["force_new_candidate"] = due;
  kwargs["keep_relative_paths"] = std::move(keep);
  kwargs["era_number"] = era ? json::value(*era) : json::value(nullptr);
  json::value selection = host().plan_rotation(rotation_descriptors(rows, siblings), loaded->settings, kwargs);
  if (!selection.is_object()) throw SyncError("Feature rotation planner returned no selection");

  plan.rotating = true;
  plan.selection = std::move(selection.get_object());
  for (auto& path : text_list(plan.selection.if_contains("active_relative_paths"))) {
    if (!manifest.files().contains(path)) throw SyncError("Active rotation path is missing from manifest: " + path);
    plan.active.insert(std::move(path));
  }
  plan.previous_state = std::move(state);
  if (const json::object* candidate = as_object(plan.selection.if_contains("state"))) plan.candidate_state = *candidate;
  if (due) {
    log_info("Feature rotation is due; new candidate with seed %s selects %d file(s)",
             {field_or_null(plan.selection, "seed"), json::value(static_cast<std::int64_t>(plan.active.size()))});
  }
  return plan;
}

void RotationSync::complete_promotion(const Manifest& manifest, const RotationPlan& plan, SyncResult& result) {
  if (!plan.rotating) {
    // Rotation was switched off: every file is present again, so a state
    // left from before no longer describes the directory.
    std::string path = feature_rotation_state_path(data_dir_);
    if (path_exists(path)) {
      try {
        remove_file(path);
        log_info("Feature rotation is not configured; removed %s", {json::value(path)});
      } catch (const OSError& e) {
        log_warning("Failed to remove feature rotation state %s: %s", {json::value(path), json::value(e.what())});
      }
    }
    MutexLock lock(mu_);
    active_state_.reset();
    return;
  }

  apply_rotation_result_fields(result, plan.selection);
  // Promote only a complete active set: until every active file is present,
  // the previous state and the files it keeps stay as they are.
  std::vector<std::string> active;
  for (const auto& path : plan.active) {
    if (manifest.files().contains(path)) active.push_back(path);
  }
  std::vector<std::string> existing = existing_rotation_paths(data_dir_, active);
  if (existing.size() != active.size()) {
    log_warning("Feature rotation not promoted: %d of %d active file(s) missing locally",
                {json::value(static_cast<std::int64_t>(active.size() - existing.size())),
                 json::value(static_cast<std::int64_t>(active.size()))});
    return;
  }
  if (plan.candidate_state && plan.candidate_state != plan.previous_state) {
    write_feature_rotation_state(data_dir_, *plan.candidate_state);
    MutexLock lock(mu_);
    active_state_ = plan.candidate_state;
  }

  ManifestSiblings siblings = host().manifest_siblings();
  std::vector<std::string> kept = prefetched_keep_paths(manifest);
  std::set<std::string> keep(kept.begin(), kept.end());
  std::int64_t removed = 0;
  std::int64_t freed = 0;
  for (const ManifestFiles::Entry entry : manifest.files()) {
    std::string path(entry.path());
    if (plan.active.count(path) || keep.count(path)) continue;
    if (!siblings.feature_artifact_kinds.count(manifest_entry_kind(siblings, entry))) continue;
    std::string local;
    try {
      local = manifest_local_path(data_dir_, path);
    } catch (const ManifestError&) {
      continue;
    }
    remove_manifest_tmp_file(data_dir_, path);
    if (!is_regular_file(local)) continue;
    try {
      std::int64_t size = file_size(local);
      remove_file(local);
      ++removed;
      freed += size;
    } catch (const OSError& e) {
      log_warning("Failed to remove inactive feature file %s: %s", {json::value(local), json::value(e.what())});
    }
  }
  if (removed > 0) {
    log_info("Feature rotation removed %d inactive feature file(s), %d bytes",
             {json::value(removed), json::value(freed)});
  }
}

bool RotationSync::needs_sync(const Manifest& manifest) {
  try {
    if (rotation_known_off(data_dir_)) return false;
    auto loaded = load_rotation_settings(data_dir_, rotation_artifacts_view(manifest), host().manifest_siblings(), 0);
    if (!loaded) return false;
    std::optional<json::object> state = load_feature_rotation_state(data_dir_);
    if (!state || !same_era(*state, manifest_era_number_or_none(&manifest))) return true;
    return rotation_is_due(*state, loaded->rotation_frequency, wall_clock_seconds());
  } catch (const Error& e) {
    // The sync this asks for reports a broken settings file; only a fatal
    // error (an interrupt or stop request) ends the check.
    if (is_fatal(e)) throw;
    log_debug("Feature rotation check failed: %s", {json::value(e.what())});
    return true;
  }
}

RotationCoverage RotationSync::coverage(const Manifest& manifest) const {
  RotationCoverage coverage;
  MutexLock lock(mu_);
  if (!active_state_ || !same_era(*active_state_, manifest_era_number_or_none(&manifest))) {
    return coverage;
  }
  std::vector<std::string> paths = text_list(active_state_->if_contains("active_relative_paths"));
  coverage.active.emplace(paths.begin(), paths.end());
  return coverage;
}

// --- prefetched feature files ---

std::set<std::string> RotationSync::read_prefetched(const Manifest& manifest) const {
  return tidewright::sync::read_prefetched_feature_relative_paths(data_dir_, manifest, host().manifest_siblings());
}

void RotationSync::write_prefetched(std::optional<std::int64_t> era_number,
                                    const std::set<std::string>& relative_paths) const {
  tidewright::sync::write_prefetched_feature_relative_paths(data_dir_, era_number, relative_paths);
}

void RotationSync::refresh_prefetched_for(const Manifest& manifest) {
  std::optional<std::int64_t> era = manifest_era_number_or_none(&manifest);
  if (era == prefetched_era_number_) return;
  prefetched_paths_ = read_prefetched(manifest);
  prefetched_era_number_ = era;
}

void RotationSync::remember_prefetched(const Manifest& manifest, const std::vector<std::string>& relative_paths) {
  std::vector<std::string> fresh = manifest_prefetched_feature_paths(manifest, relative_paths, host().manifest_siblings());
  if (fresh.empty()) return;
  MutexLock lock(mu_);
  refresh_prefetched_for(manifest);
  prefetched_paths_.insert(fresh.begin(), fresh.end());
  write_prefetched(prefetched_era_number_, prefetched_paths_);
}

std::vector<std::string> RotationSync::prefetched_keep_paths(const Manifest& manifest) {
  MutexLock lock(mu_);
  refresh_prefetched_for(manifest);
  return std::vector<std::string>(prefetched_paths_.begin(), prefetched_paths_.end());
}

std::optional<std::int64_t> RotationSync::prefetched_era_number() const {
  MutexLock lock(mu_);
  return prefetched_era_number_;
}

std::set<std::string> RotationSync::prefetched_paths() const {
  MutexLock lock(mu_);
  return prefetched_paths_;
}

}  // namespace tidewright::sync
