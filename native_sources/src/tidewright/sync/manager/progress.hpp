// Progress of a running sync for the host (a progress bar, a status line).
//
// Thread-safe: counters are atomics updated by download workers; the host
// callback is called by whichever thread crosses the reporting interval,
// at most every kIntervalSeconds (plus once at the start and the end of a
// download batch), never under a manager lock.
#pragma once

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/host/host.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace tidewright::sync {

class ProgressFeed {
 public:
  static constexpr double kIntervalSeconds = 0.2;

  void set_callback(HostRef callback);
  HostRef callback() const;
  // The callback's host object, without waiting: false when the lock is busy.
  bool try_callback_object(const void*& out) const;

  // A batch of `files` files, `bytes` bytes in all, starts (`phase` names it).
  void start(const std::string& phase, std::int64_t files, std::int64_t bytes);
  void add_bytes(std::int64_t bytes);
  void file_done();
  // The batch ended (successfully or not).
  void finish();

 private:
  void report(bool force);

  mutable Mutex mu_;
  HostRef callback_ GUARDED_BY(mu_);
  std::string phase_ GUARDED_BY(mu_);
  std::atomic<std::int64_t> files_total_{0};
  std::atomic<std::int64_t> files_done_{0};
  std::atomic<std::int64_t> bytes_total_{0};
  std::atomic<std::int64_t> bytes_done_{0};
  std::atomic<std::int64_t> last_report_ns_{0};
  std::chrono::steady_clock::time_point started_at_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
