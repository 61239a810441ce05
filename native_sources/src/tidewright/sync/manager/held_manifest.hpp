// HeldManifest: the manifest a manager holds and what goes with it — the
// status message, the validated vocabulary set, and the host's view of the
// held manifest (the host object it keeps for one manifest, so that it
// stays the same object, with its caller's changes, while that manifest is
// held) together with the manifest it is a view of.
//
// Owns all of them. mu_ guards every one and is a leaf lock, held only to
// read or swap a pointer; a manifest handed out is never changed, and a
// replaced host view is released after the lock.
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/manifest.hpp"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

class HeldManifest {
 public:
  HeldManifest() = default;
  HeldManifest(const HeldManifest&) = delete;
  HeldManifest& operator=(const HeldManifest&) = delete;

  ManifestPtr get() const EXCLUDES(mu_);
  void install(ManifestPtr manifest) EXCLUDES(mu_);
  // Installs `replacement` unless another manifest has replaced `current`
  // meanwhile.
  void replace(const ManifestPtr& current, ManifestPtr replacement) EXCLUDES(mu_);
  // A sync's commit: `manifest` replaces `replaces` as replace() does (or is
  // installed when `replaces` is empty), and `vocabularies` becomes the
  // vocabulary set.
  void commit(const ManifestPtr& replaces, ManifestPtr manifest, std::shared_ptr<const json::object> vocabularies)
      EXCLUDES(mu_);

  std::optional<std::string> status() const EXCLUDES(mu_);
  void set_status(std::string message) EXCLUDES(mu_);

  // The validated vocabulary set; shared, never changed once built.
  std::shared_ptr<const json::object> vocabularies() const EXCLUDES(mu_);
  void set_vocabularies(std::shared_ptr<const json::object> vocabularies) EXCLUDES(mu_);

  // The host's view of `manifest`; empty when the view stored is that of
  // another manifest.
  HostRef view(const ManifestPtr& manifest) const EXCLUDES(mu_);
  void set_view(ManifestPtr manifest, HostRef view) EXCLUDES(mu_);

  // The view's host object, for the host's garbage collector; false when
  // the lock is busy (never waits).
  bool try_collect(std::vector<const void*>& out) const EXCLUDES(mu_);
  // Moves the view into `dropped` (the caller releases it) and forgets its
  // manifest.
  void drop_into(std::vector<HostRef>& dropped) EXCLUDES(mu_);

 private:
  mutable Mutex mu_;
  ManifestPtr manifest_ GUARDED_BY(mu_);
  std::optional<std::string> status_ GUARDED_BY(mu_);
  std::shared_ptr<const json::object> vocabularies_ GUARDED_BY(mu_);
  ManifestPtr view_of_ GUARDED_BY(mu_);
  HostRef view_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
