#include "tidewright/sync/manager/sync_threads.hpp"

#include <algorithm>
#include <utility>

namespace tidewright::sync {

std::uint64_t SyncThreads::begin_run() {
  std::uint64_t generation = 0;
  {
    MutexLock lock(mu_);
    stop_event_ = false;
    generation = ++generation_;
  }
  // A poll thread of an earlier run still waiting between polls ends now.
  stop_cv_.notify_all();
  return generation;
}

void SyncThreads::adopt_poll_thread(std::shared_ptr<OwnedThread> thread) {
  MutexLock lock(mu_);
  if (poll_thread_ && poll_thread_->running()) stray_poll_threads_.push_back(std::move(poll_thread_));
  drop_ended_strays();
  poll_thread_ = std::move(thread);
}

void SyncThreads::request_stop() {
  {
    MutexLock lock(mu_);
    stop_event_ = true;
  }
  stop_cv_.notify_all();
}

bool SyncThreads::wait_for_stop(std::uint64_t generation, std::chrono::steady_clock::duration interval) {
  const auto deadline = std::chrono::steady_clock::now() + interval;
  MutexLock lock(mu_);
  while (!stop_event_ && generation_ == generation) {
    if (!stop_cv_.wait_until(mu_, deadline) && std::chrono::steady_clock::now() >= deadline) {
      return stop_event_ || generation_ != generation;
    }
  }
  return true;
}

bool SyncThreads::on_poll_thread() const {
  MutexLock lock(mu_);
  if (poll_thread_ && poll_thread_->is_current()) return true;
  return std::any_of(stray_poll_threads_.begin(), stray_poll_threads_.end(),
                     [](const std::shared_ptr<OwnedThread>& t) { return t->is_current(); });
}

bool SyncThreads::poll_alive() const {
  MutexLock lock(mu_);
  return poll_thread_ && poll_thread_->running();
}

std::shared_ptr<OwnedThread> SyncThreads::take_poll_thread() {
  MutexLock lock(mu_);
  return std::exchange(poll_thread_, nullptr);
}

void SyncThreads::keep_stray(std::shared_ptr<OwnedThread> thread) {
  MutexLock lock(mu_);
  stray_poll_threads_.push_back(std::move(thread));
}

std::shared_ptr<EraThread> SyncThreads::era_thread() const {
  MutexLock lock(mu_);
  return era_thread_;
}

void SyncThreads::set_era_thread(std::shared_ptr<EraThread> thread) {
  MutexLock lock(mu_);
  era_thread_ = std::move(thread);
}

std::shared_ptr<EraThread> SyncThreads::take_era_thread() {
  MutexLock lock(mu_);
  return std::exchange(era_thread_, nullptr);
}

void SyncThreads::drop_ended_strays() {
  std::erase_if(stray_poll_threads_, [](const std::shared_ptr<OwnedThread>& t) { return !t->running(); });
}

}  // namespace tidewright::sync
