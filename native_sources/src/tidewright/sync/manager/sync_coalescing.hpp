// SyncCoalescing: request_for_sync callers arriving while one of them runs
// a sync share that sync instead of each running their own, and a feature
// prefetch lets a running one finish first.
//
// Owns the sync under way (a shared round: its done flag, lock and
// condition). mu_ guards which round is under way and is a leaf lock; a
// round's own lock guards its done flag and is a leaf too. Neither is held
// while the sync runs.
#pragma once

#include "tidewright/sync/common/mutex.hpp"

#include <chrono>
#include <functional>
#include <memory>

namespace tidewright::sync {

class SyncCoalescing {
 public:
  // How long a caller waits for a sync under way (a timeout is not an
  // error: the caller goes on with what is on disk). A stop request ends
  // the wait the same way, within STOP_POLL: `stopped` (the manager's stop)
  // and the calling thread's backoff context are asked.
  static constexpr std::chrono::seconds WAIT{30};
  static constexpr std::chrono::milliseconds STOP_POLL{100};

  explicit SyncCoalescing(std::function<bool()> stopped) : stopped_(std::move(stopped)) {}
  SyncCoalescing(const SyncCoalescing&) = delete;
  SyncCoalescing& operator=(const SyncCoalescing&) = delete;

  // Runs `sync` when none is under way (callers arriving meanwhile wait for
  // it, also when it throws) and returns true; else waits for the one under
  // way and returns false. `sync`'s exception propagates.
  bool run_or_join(const std::function<void()>& sync) EXCLUDES(mu_);
  // Waits for the sync under way, if any.
  void wait_for_running() EXCLUDES(mu_);

 private:
  struct Round {
    Mutex mu;
    CondVar done_cv;
    bool done GUARDED_BY(mu) = false;
  };
  void wait_for(Round& round) const;
  void finish(Round& round) EXCLUDES(mu_);

  const std::function<bool()> stopped_;
  Mutex mu_;
  std::shared_ptr<Round> running_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
