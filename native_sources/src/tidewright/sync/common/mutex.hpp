// Mutex, MutexLock and CondVar: the engine's locks, annotated so that clang's
// thread-safety analysis (-Wthread-safety, `make lint`) checks the lock rules
// written next to the data instead of leaving them to a comment.
//
// A field a lock guards is declared `T field_ GUARDED_BY(mu_);`, a method
// that must be called with the lock held `void f() REQUIRES(mu_);`, and one
// that takes the lock itself `void g() EXCLUDES(mu_);`. The macros expand to
// nothing under compilers without the analysis (g++), so the annotations
// cost nothing in the regular build.
//
// Condition waits take the Mutex, not a predicate: the analysis cannot see
// that a predicate lambda runs with the lock held, so waits are written as
// `while (!ready_) cv_.wait(mu_);` and the guarded reads stay checked.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define TW_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TW_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) TW_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TW_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TW_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) TW_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) TW_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) TW_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) TW_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TW_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TW_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TW_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) TW_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) TW_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) TW_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TW_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace tidewright::sync {

class CondVar;

// A non-recursive mutex the analysis knows as a capability.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mu_.try_lock(); }
  // Tells the analysis the lock is held where it cannot follow (a callback
  // the owner runs under its lock). Checks nothing at run time.
  void assert_held() const ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mu_;
};

// Holds a Mutex for its scope. unlock()/lock() let a scope step out of the
// lock for a while (a wait for the host, a join) and take it back.
// MutexLock(mu, MutexLock::adopt) takes over a lock the caller already
// holds (after a successful try_lock()).
class SCOPED_CAPABILITY MutexLock {
 public:
  struct Adopt {};
  static constexpr Adopt adopt{};

  explicit MutexLock(Mutex& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  MutexLock(Mutex& mu, Adopt) REQUIRES(mu) : mu_(mu) {}
  ~MutexLock() RELEASE() {
    if (held_) mu_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() RELEASE() {
    mu_.unlock();
    held_ = false;
  }
  void lock() ACQUIRE() {
    mu_.lock();
    held_ = true;
  }

 private:
  Mutex& mu_;
  bool held_ = true;
};

// A reader/writer mutex: many readers or one writer. Held with ReaderLock
// (shared) or WriterLock (exclusive); a field it guards is read under
// either and written under WriterLock only.
class CAPABILITY("mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }
  void lock_shared() TW_THREAD_ANNOTATION(acquire_shared_capability()) { mu_.lock_shared(); }
  void unlock_shared() TW_THREAD_ANNOTATION(release_shared_capability()) { mu_.unlock_shared(); }

 private:
  std::shared_mutex mu_;
};

// Holds a SharedMutex shared for its scope.
class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mu) TW_THREAD_ANNOTATION(acquire_shared_capability(mu)) : mu_(mu) {
    mu_.lock_shared();
  }
  ~ReaderLock() RELEASE() { mu_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mu_;
};

// Holds a SharedMutex exclusively for its scope.
class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~WriterLock() RELEASE() { mu_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mu_;
};

// A condition variable waited on with a Mutex held.
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  void notify_one() { cv_.notify_one(); }
  void notify_all() { cv_.notify_all(); }

  // Releases `mu` while waiting; holds it again on return (also spuriously).
  void wait(Mutex& mu) REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu.mu_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // False when the deadline passed.
  template <typename Clock, typename Duration>
  bool wait_until(Mutex& mu, const std::chrono::time_point<Clock, Duration>& deadline) REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu.mu_, std::adopt_lock);
    const bool woken = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return woken;
  }
  // False when `timeout` passed.
  template <typename Rep, typename Period>
  bool wait_for(Mutex& mu, const std::chrono::duration<Rep, Period>& timeout) REQUIRES(mu) {
    return wait_until(mu, std::chrono::steady_clock::now() + timeout);
  }

 private:
  std::condition_variable cv_;
};

}  // namespace tidewright::sync
