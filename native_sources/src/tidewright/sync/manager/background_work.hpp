// BackgroundWork: the manager's short-lived worker threads besides the poll
// thread: repairs of files reported corrupted, and the old-era cleanup.
//
// Owns: the queue of files to repair, the repair threads (ended ones are
// dropped when the next starts) and the cleanup thread (at most one runs).
// mu_ guards all of it and is a leaf lock: threads are started under it but
// never joined under it, and the work itself runs outside it. Each thread's
// work holds what it needs (the manager) while it runs; join_all() is the
// stop's wait for them.
#pragma once

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tidewright::sync {

class BackgroundWork {
 public:
  BackgroundWork() = default;
  BackgroundWork(const BackgroundWork&) = delete;
  BackgroundWork& operator=(const BackgroundWork&) = delete;

  // Queues `file_path` and starts a repair thread running `work`, when
  // `accepting()` (asked under the lock, so that a stop collecting the
  // threads after it turned false misses none) holds; false otherwise.
  bool queue_repair(const std::string& file_path, const std::function<bool()>& accepting,
                    std::function<void()> work) EXCLUDES(mu_);
  // Empties the repair queue into the answer.
  std::vector<std::string> take_repair_queue() EXCLUDES(mu_);
  // Starts the cleanup thread running `work`, unless one is running.
  void start_cleanup(ThreadName name, std::function<void()> work) EXCLUDES(mu_);
  // Waits up to `timeout` for each repair thread and the cleanup thread.
  void join_all(std::chrono::seconds timeout) EXCLUDES(mu_);

 private:
  Mutex mu_;
  std::vector<std::string> repair_queue_ GUARDED_BY(mu_);
  std::vector<OwnedThread> repair_threads_ GUARDED_BY(mu_);
  std::shared_ptr<OwnedThread> cleanup_thread_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
