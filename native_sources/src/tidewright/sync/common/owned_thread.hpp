// OwnedThread: a std::thread that belongs to an object and is joined, with a
// bounded wait where the caller wants one.
//
// The function's return is signalled, so join_for() can wait for it with a
// timeout and join only a thread that has finished (std::thread has no timed
// join). The destructor joins; when it runs on the thread itself (the thread
// dropped the last reference to its owner) it detaches instead, and the
// thread does nothing but return afterwards.
//
// Thread-safety: running() and join_for() may be called from any thread
// concurrently; construction, assignment and destruction may not race with
// other calls on the same object.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

namespace tidewright::sync {

class OwnedThread {
 public:
  OwnedThread() = default;

  // Starts `fn` on a new thread. `fn` must not throw (thread entry points
  // catch everything themselves).
  template <typename F>
  explicit OwnedThread(F&& fn) : shared_(std::make_shared<Shared>()) {
    thread_ = std::thread([shared = shared_, fn = std::optional<std::decay_t<F>>(std::forward<F>(fn))]() mutable {
      (*fn)();
      fn.reset();  // drop what the function captured before signalling the end
      std::lock_guard<std::mutex> lock(shared->mu);
      shared->finished = true;
      shared->cv.notify_all();
    });
  }

  OwnedThread(OwnedThread&& other) noexcept = default;
  OwnedThread& operator=(OwnedThread&& other) noexcept {
    if (this != &other) {
      release();
      shared_ = std::move(other.shared_);
      thread_ = std::move(other.thread_);
    }
    return *this;
  }
  OwnedThread(const OwnedThread&) = delete;
  OwnedThread& operator=(const OwnedThread&) = delete;
  ~OwnedThread() { release(); }

  // A thread was started and has not been joined.
  bool joinable() const { return thread_.joinable(); }
  // The function has not returned yet.
  bool running() const {
    if (!shared_) return false;
    std::lock_guard<std::mutex> lock(shared_->mu);
    return !shared_->finished;
  }
  bool is_current() const { return thread_.joinable() && thread_.get_id() == std::this_thread::get_id(); }

  // Waits up to `timeout` for the function to return and joins the thread.
  // True when joined (or nothing to join); false on timeout or when called
  // on the thread itself.
  template <typename Rep, typename Period>
  bool join_for(std::chrono::duration<Rep, Period> timeout) {
    if (!shared_) return true;
    if (is_current()) return false;
    {
      std::unique_lock<std::mutex> lock(shared_->mu);
      if (!shared_->cv.wait_for(lock, timeout, [this] { return shared_->finished; })) return false;
    }
    std::lock_guard<std::mutex> join_lock(shared_->join_mu);
    if (thread_.joinable()) thread_.join();
    return true;
  }

 private:
  struct Shared {
    std::mutex mu;
    std::condition_variable cv;
    bool finished = false;  // guarded by mu
    std::mutex join_mu;     // one joiner at a time
  };

  void release() {
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      std::lock_guard<std::mutex> join_lock(shared_->join_mu);
      if (thread_.joinable()) thread_.join();
    }
  }

  std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

}  // namespace tidewright::sync
