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
//
// Thread names. The kernel keeps at most 15 bytes of a thread's name and
// refuses longer ones outright, so every engine thread has a short kernel
// name (what gdb, top, /proc and py-spy's native view show) and a name for
// the host: the host shows it as the thread's name where its own code runs on
// the thread (callbacks, and the thread name of log records), so that a
// thread the host knows by a longer name ("tidewright-sync-cleanup") keeps it
// there.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>

namespace tidewright::sync {

// The longest thread name the kernel keeps (bytes, without the terminator).
inline constexpr std::size_t KERNEL_THREAD_NAME_MAX = 15;

struct ThreadName {
  std::string name;         // the host's name of the thread
  std::string kernel_name;  // at most KERNEL_THREAD_NAME_MAX bytes; empty: `name`, cut to fit
};

namespace thread_name_detail {
inline thread_local std::string current;  // the calling thread's host name
inline std::string kernel_form(const ThreadName& name) {
  const std::string& text = name.kernel_name.empty() ? name.name : name.kernel_name;
  return text.substr(0, KERNEL_THREAD_NAME_MAX);
}
}  // namespace thread_name_detail

// Names the calling thread (kernel and host name).
inline void set_current_thread_name(const ThreadName& name) {
  thread_name_detail::current = name.name;
  pthread_setname_np(pthread_self(), thread_name_detail::kernel_form(name).c_str());
}

// The host name given to the calling thread; empty for threads the engine
// did not name (the host's own threads among them).
inline const std::string& current_thread_name() { return thread_name_detail::current; }

class OwnedThread {
 public:
  OwnedThread() = default;

  // Starts `fn` on a new thread. `fn` must not throw (thread entry points
  // catch everything themselves).
  template <typename F>
  explicit OwnedThread(F&& fn) : OwnedThread(ThreadName{}, std::forward<F>(fn)) {}

  // Starts `fn` on a new thread named `name`. The kernel name is set before
  // this returns, so the thread is never seen unnamed.
  template <typename F>
  OwnedThread(ThreadName name, F&& fn) : shared_(std::make_shared<Shared>()) {
    std::string kernel_name = thread_name_detail::kernel_form(name);
    thread_ = std::thread([shared = shared_, name = std::move(name),
                           fn = std::optional<std::decay_t<F>>(std::forward<F>(fn))]() mutable {
      if (!name.name.empty()) set_current_thread_name(name);
      (*fn)();
      fn.reset();  // drop what the function captured before signalling the end
      std::lock_guard<std::mutex> lock(shared->mu);
      shared->finished = true;
      shared->cv.notify_all();
    });
    if (!kernel_name.empty()) pthread_setname_np(thread_.native_handle(), kernel_name.c_str());
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
