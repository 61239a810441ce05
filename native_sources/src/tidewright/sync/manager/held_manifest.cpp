#include "tidewright/sync/manager/held_manifest.hpp"

#include <utility>

namespace tidewright::sync {

ManifestPtr HeldManifest::get() const {
  MutexLock lock(mu_);
  return manifest_;
}

void HeldManifest::install(ManifestPtr manifest) {
  MutexLock lock(mu_);
  std::swap(manifest_, manifest);
}

void HeldManifest::replace(const ManifestPtr& current, ManifestPtr replacement) {
  MutexLock lock(mu_);
  if (manifest_ == current) std::swap(manifest_, replacement);
}

void HeldManifest::commit(const ManifestPtr& replaces, ManifestPtr manifest,
                          std::shared_ptr<const json::object> vocabularies) {
  MutexLock lock(mu_);
  if (!replaces || manifest_ == replaces) std::swap(manifest_, manifest);
  std::swap(vocabularies_, vocabularies);
}

std::optional<std::string> HeldManifest::status() const {
  MutexLock lock(mu_);
  return status_;
}

void HeldManifest::set_status(std::string message) {
  MutexLock lock(mu_);
  status_ = std::move(message);
}

std::shared_ptr<const json::object> HeldManifest::vocabularies() const {
  MutexLock lock(mu_);
  return vocabularies_;
}

void HeldManifest::set_vocabularies(std::shared_ptr<const json::object> vocabularies) {
  MutexLock lock(mu_);
  std::swap(vocabularies_, vocabularies);
}

HostRef HeldManifest::view(const ManifestPtr& manifest) const {
  MutexLock lock(mu_);
  return manifest && view_of_ == manifest ? view_ : HostRef();
}

void HeldManifest::set_view(ManifestPtr manifest, HostRef view) {
  MutexLock lock(mu_);
  std::swap(view_of_, manifest);
  std::swap(view_, view);
  // The previous view is released after the lock, with the arguments.
}

bool HeldManifest::try_collect(std::vector<const void*>& out) const {
  if (!mu_.try_lock()) return false;
  MutexLock lock(mu_, MutexLock::adopt);
  out.push_back(view_.get());
  return true;
}

void HeldManifest::drop_into(std::vector<HostRef>& dropped) {
  MutexLock lock(mu_);
  dropped.push_back(std::exchange(view_, nullptr));
  view_of_.reset();
}

}  // namespace tidewright::sync
