// The cross-process lock on ".sync_flock". Re-entrant for the owning thread
// (flock_mu_ is a recursive mutex held from acquire to the matching release).
//
// The lock file is deleted when released, so a process that was already
// waiting may end up holding a lock on a file that no longer has the name
// while a newcomer creates and locks a fresh one. After every successful
// lock we therefore check that the locked file is still the one at
// ".sync_flock" and take the lock again when it is not.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cerrno>
#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tidewright::sync {

namespace {

bool same_file_at(int fd, const std::string& path) {
  struct stat held, named;
  if (::fstat(fd, &held) != 0 || ::stat(path.c_str(), &named) != 0) return false;
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

}  // namespace

void SyncManager::acquire_flock() {
  flock_mu_.lock();
  if (flock_depth_ > 0) {
    ++flock_depth_;
    return;
  }
  try {
    while (true) {
      UniqueFd fd(::open(flock_path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
      if (!fd.valid()) throw_os_error(errno, flock_path_);
      // Poll rather than block so that a stop request ends the wait.
      while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
          int err = errno;
          if (fd.reset() != 0) log_debug("Failed to close flock file descriptor: %s", {json::value(std::strerror(errno))});
          throw_os_error(err, flock_path_);
        }
        if (stop_requested()) throw SyncBackoffCancelled("stop requested while waiting for the sync lock");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      if (same_file_at(fd.get(), flock_path_)) {
        flock_fd_ = fd.release();
        flock_depth_ = 1;
        return;
      }
      // The file we locked was removed (and maybe replaced) meanwhile.
    }
  } catch (...) {
    flock_mu_.unlock();
    throw;
  }
}

void SyncManager::release_flock() {
  if (flock_depth_ > 1) {
    --flock_depth_;
    flock_mu_.unlock();
    return;
  }
  if (flock_fd_ >= 0) {
    // Remove the name while still holding the lock, so that nobody can lock
    // this inode after us believing it is the current lock file.
    if (::unlink(flock_path_.c_str()) != 0 && errno != ENOENT) {
      log_debug("Failed to remove flock file: %s", {json::value(std::strerror(errno))});
    }
    ::flock(flock_fd_, LOCK_UN);
    if (::close(flock_fd_) != 0) {
      log_debug("Failed to close flock file descriptor: %s", {json::value(std::strerror(errno))});
    }
    flock_fd_ = -1;
  }
  flock_depth_ = 0;
  flock_mu_.unlock();
}

}  // namespace tidewright::sync
