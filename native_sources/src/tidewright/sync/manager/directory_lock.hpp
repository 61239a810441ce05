// DirectoryLock: the cross-process lock of a data directory, on its
// ".sync_flock" file. A sync, a repair, a feature prefetch, the second look
// of verify() and an era transition hold it, so that one process at a time
// writes the directory's files.
//
// Owns: the lock file's descriptor, the re-entrancy count of the owning
// thread, and what the self-test found about the file system. mu_ guards all
// of them; it is held only for short book-keeping, never while waiting for
// the file lock or another thread's release (those waits poll and observe
// the stop request).
//
// Re-entrant per thread: a thread that holds the lock may take it again
// (a transition syncs under its own lock); the last release lets it go.
//
// The lock file is deleted when released, so a process that was already
// waiting may end up holding a lock on a file that no longer has the name
// while a newcomer creates and locks a fresh one. After every successful
// lock the locked file is checked to still be the one at ".sync_flock", and
// locked again when it is not.
//
// Where flock() does not exclude other processes (some network file
// systems; checked once by a forked child), an exclusively created
// ".sync_flock.owner" file naming this process serialises instead; one left
// by a process of this host that no longer runs is taken over.
#pragma once

#include "tidewright/sync/common/mutex.hpp"

#include <functional>
#include <string>
#include <thread>

namespace tidewright::sync {

class DirectoryLock {
 public:
  // `stop_requested`: ends a wait for the lock with SyncBackoffCancelled.
  DirectoryLock(std::string data_dir, std::string path, std::function<bool()> stop_requested);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  // Holds the lock for its scope.
  class Guard {
   public:
    explicit Guard(DirectoryLock& lock) : lock_(lock) { lock_.acquire(); }
    ~Guard() { lock_.release(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    DirectoryLock& lock_;
  };

  // Paired calls, for the host's own tests of cross-process exclusion only;
  // the engine takes the lock with a Guard. acquire() throws
  // SyncBackoffCancelled on a stop request and the OS error of the lock file.
  void acquire() EXCLUDES(mu_);
  void release() EXCLUDES(mu_);

  const std::string& path() const { return path_; }

 private:
  // Locks the file itself (the calling thread owns the lock meanwhile).
  int lock_file();
  // The exclusive-create fallback.
  void acquire_owner_file();
  void throw_if_stopped() const;

  // Set by the constructor, never changed.
  const std::string data_dir_;
  const std::string path_;
  const std::function<bool()> stop_requested_;

  Mutex mu_;
  CondVar released_;                     // owner_ cleared
  std::thread::id owner_ GUARDED_BY(mu_);
  int depth_ GUARDED_BY(mu_) = 0;
  int fd_ GUARDED_BY(mu_) = -1;
  bool checked_ GUARDED_BY(mu_) = false;     // the self-test ran
  bool unreliable_ GUARDED_BY(mu_) = false;  // flock() does not exclude here

  // Tests take the owner-file path where flock() does exclude.
  friend struct DirectoryLockTestAccess;
};

}  // namespace tidewright::sync
