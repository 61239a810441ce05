#include "tidewright/sync/manager/sync_coalescing.hpp"

#include "tidewright/sync/transport/http_request.hpp"

#include <algorithm>

namespace tidewright::sync {

void SyncCoalescing::wait_for(Round& round) const {
  const auto deadline = std::chrono::steady_clock::now() + WAIT;
  // The stop tests may ask the host: asked with no lock held.
  while (!stopped_() && !sync_backoff_stop_requested()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return;
    MutexLock lock(round.mu);
    if (round.done) return;
    round.done_cv.wait_until(round.mu, std::min(deadline, now + STOP_POLL));
  }
}

void SyncCoalescing::finish(Round& round) {
  {
    MutexLock lock(round.mu);
    round.done = true;
  }
  round.done_cv.notify_all();
  MutexLock lock(mu_);
  running_.reset();
}

bool SyncCoalescing::run_or_join(const std::function<void()>& sync) {
  std::shared_ptr<Round> running;
  std::shared_ptr<Round> mine;
  {
    MutexLock lock(mu_);
    if (running_) {
      running = running_;
    } else {
      mine = std::make_shared<Round>();
      running_ = mine;
    }
  }
  if (running) {
    wait_for(*running);
    return false;
  }
  try {
    sync();
  } catch (...) {
    finish(*mine);
    throw;
  }
  finish(*mine);
  return true;
}

void SyncCoalescing::wait_for_running() {
  std::shared_ptr<Round> running;
  {
    MutexLock lock(mu_);
    running = running_;
  }
  if (running) wait_for(*running);
}

}  // namespace tidewright::sync
