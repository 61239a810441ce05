// SyncThreads: the manager's poll thread and era thread, and the stop event
// the poll thread waits on.
//
// Owns: the poll thread of the current run, poll threads of earlier runs
// that a stop could not wait for (kept until they have ended, then
// dropped), the era thread, the stop event and the run's generation. A poll
// thread belongs to one run: it ends when the stop event is set or when a
// later run has begun, so a thread of an earlier run never outlives a
// restart by more than its current poll.
//
// mu_ guards all of it and is a leaf lock: nothing here calls out while
// holding it, and joins happen on handles taken out of the lock. Starting
// and stopping are serialised by the manager (its lifecycle lock), not here.
#pragma once

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/era/era_thread.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace tidewright::sync {

class SyncThreads {
 public:
  SyncThreads() = default;
  SyncThreads(const SyncThreads&) = delete;
  SyncThreads& operator=(const SyncThreads&) = delete;

  // Begins a run: clears the stop event and answers the run's generation,
  // which the run's poll thread passes to wait_for_stop().
  std::uint64_t begin_run() EXCLUDES(mu_);
  // Makes `thread` the current poll thread; a still running one of an
  // earlier run is kept as a stray, not waited for.
  void adopt_poll_thread(std::shared_ptr<OwnedThread> thread) EXCLUDES(mu_);
  // Sets the stop event and wakes the poll thread's wait.
  void request_stop() EXCLUDES(mu_);
  // The poll thread's wait between polls: true when its run was stopped
  // (the stop event, or a later run), at once or within `interval`.
  bool wait_for_stop(std::uint64_t generation, std::chrono::steady_clock::duration interval) EXCLUDES(mu_);

  // The calling thread is one of the poll threads (current or stray).
  bool on_poll_thread() const EXCLUDES(mu_);
  // The current poll thread exists and has not ended.
  bool poll_alive() const EXCLUDES(mu_);
  // Takes the current poll thread out, for the stop to join.
  std::shared_ptr<OwnedThread> take_poll_thread() EXCLUDES(mu_);
  // Keeps a poll thread the stop could not join; it is dropped once ended.
  void keep_stray(std::shared_ptr<OwnedThread> thread) EXCLUDES(mu_);

  std::shared_ptr<EraThread> era_thread() const EXCLUDES(mu_);
  void set_era_thread(std::shared_ptr<EraThread> thread) EXCLUDES(mu_);
  std::shared_ptr<EraThread> take_era_thread() EXCLUDES(mu_);

 private:
  void drop_ended_strays() REQUIRES(mu_);

  mutable Mutex mu_;
  CondVar stop_cv_;
  bool stop_event_ GUARDED_BY(mu_) = false;
  std::uint64_t generation_ GUARDED_BY(mu_) = 0;
  std::shared_ptr<OwnedThread> poll_thread_ GUARDED_BY(mu_);
  std::vector<std::shared_ptr<OwnedThread>> stray_poll_threads_ GUARDED_BY(mu_);
  std::shared_ptr<EraThread> era_thread_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
