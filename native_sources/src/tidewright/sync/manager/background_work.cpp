#include "tidewright/sync/manager/background_work.hpp"

#include "tidewright/sync/host/host.hpp"

#include <utility>

namespace tidewright::sync {

bool BackgroundWork::queue_repair(const std::string& file_path, const std::function<bool()>& accepting,
                                  std::function<void()> work) {
  MutexLock lock(mu_);
  if (!accepting()) return false;
  repair_queue_.push_back(file_path);
  std::erase_if(repair_threads_, [](const OwnedThread& t) { return !t.running(); });
  repair_threads_.emplace_back(ThreadName{"tw-sync-repair", ""}, std::move(work));
  return true;
}

std::vector<std::string> BackgroundWork::take_repair_queue() {
  MutexLock lock(mu_);
  return std::exchange(repair_queue_, {});
}

void BackgroundWork::start_cleanup(ThreadName name, std::function<void()> work) {
  MutexLock lock(mu_);
  if (cleanup_thread_ && cleanup_thread_->running()) return;
  cleanup_thread_ = std::make_shared<OwnedThread>(std::move(name), std::move(work));
}

void BackgroundWork::join_all(std::chrono::seconds timeout) {
  std::vector<OwnedThread> repair_threads;
  std::shared_ptr<OwnedThread> cleanup_thread;
  {
    MutexLock lock(mu_);
    repair_threads = std::exchange(repair_threads_, {});
    cleanup_thread = cleanup_thread_;
  }
  for (auto& t : repair_threads) {
    if (!t.join_for(timeout) && !t.is_current()) {
      log_warning("Background repair did not stop within %s seconds", {json::value(timeout.count())});
    }
  }
  if (cleanup_thread) cleanup_thread->join_for(timeout);
}

}  // namespace tidewright::sync
