#include "tidewright/sync/manager/era_callbacks.hpp"

#include <algorithm>
#include <exception>

namespace tidewright::sync {

void EraCallbacks::add(HostRef callback) {
  MutexLock lock(mu_);
  callbacks_.push_back(std::move(callback));
}

void EraCallbacks::remove(const HostRef& callback) {
  HostRef removed;  // released after the lock
  MutexLock lock(mu_);
  auto it = std::find_if(callbacks_.begin(), callbacks_.end(),
                         [&](const HostRef& r) { return r.get() == callback.get(); });
  if (it == callbacks_.end()) return;
  removed = std::move(*it);
  callbacks_.erase(it);
}

std::vector<HostRef> EraCallbacks::list() const {
  MutexLock lock(mu_);
  return callbacks_;
}

void EraCallbacks::notify(const std::string& event_type, std::int64_t era_number) const {
  for (const HostRef& callback : list()) {
    try {
      host().call(callback, json::array{json::value(event_type), json::value(era_number)});
    } catch (const std::exception& e) {
      log_warning("Era callback failed (%s): %s", {json::value(event_type), json::value(e.what())}, true);
    }
  }
}

void EraCallbacks::notify(const std::string& event_type, std::int64_t era_number, const json::object& payload) const {
  for (const HostRef& callback : list()) {
    try {
      if (!host().accepts_positional_arguments(callback, 3)) continue;
      host().call(callback, json::array{json::value(event_type), json::value(era_number), json::value(payload)});
    } catch (const std::exception& e) {
      log_warning("Era callback failed (%s): %s", {json::value(event_type), json::value(e.what())}, true);
    }
  }
}

bool EraCallbacks::try_collect(std::vector<const void*>& out) const {
  if (!mu_.try_lock()) return false;
  for (const HostRef& callback : callbacks_) out.push_back(callback.get());
  mu_.unlock();
  return true;
}

void EraCallbacks::drop_into(std::vector<HostRef>& dropped) {
  MutexLock lock(mu_);
  for (HostRef& callback : callbacks_) dropped.push_back(std::move(callback));
  callbacks_.clear();
}

}  // namespace tidewright::sync
