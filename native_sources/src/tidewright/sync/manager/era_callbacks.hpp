// EraCallbacks: the host callables told about era transitions, called as
// callback(event_type, era_number) or, for the callbacks that take a third
// argument, callback(event_type, era_number, payload).
//
// Owns: the list of registered callbacks, in registration order, duplicates
// kept. mu_ guards it and is a leaf lock: callbacks are called on a copy,
// outside the lock, so a callback may register or unregister callbacks, and
// a host reference is never released while the lock is held (releasing one
// may wait for the host).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/host/host.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace tidewright::sync {

class EraCallbacks {
 public:
  EraCallbacks() = default;
  EraCallbacks(const EraCallbacks&) = delete;
  EraCallbacks& operator=(const EraCallbacks&) = delete;

  void add(HostRef callback) EXCLUDES(mu_);
  // Removes the first registration of the same host object; silent when
  // there is none.
  void remove(const HostRef& callback) EXCLUDES(mu_);
  std::vector<HostRef> list() const EXCLUDES(mu_);
  // Calls every callback; a callback's error is logged and the others still
  // run.
  void notify(const std::string& event_type, std::int64_t era_number) const;
  // The same with a payload, for the callbacks that take a third argument;
  // the others are not called.
  void notify(const std::string& event_type, std::int64_t era_number, const json::object& payload) const;

  // The callbacks' host objects, for the host's garbage collector; false
  // (nothing added) when the lock is busy.
  bool try_collect(std::vector<const void*>& out) const EXCLUDES(mu_);
  // Empties the list into `dropped`, which the caller releases after its
  // own locks.
  void drop_into(std::vector<HostRef>& dropped) EXCLUDES(mu_);

 private:
  mutable Mutex mu_;
  std::vector<HostRef> callbacks_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
