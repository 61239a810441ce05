// The cross-process lock on ".sync_flock". Re-entrant for the owning thread
// (flock_mu_ is a recursive mutex held from acquire to the matching release).
//
// The lock file is deleted when released, so a process that was already
// waiting may end up holding a lock on a file that no longer has the name
// while a newcomer creates and locks a fresh one. After every successful
// lock we therefore check that the locked file is still the one at
// ".sync_flock" and take the lock again when it is not.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tidewright::sync {

namespace {

bool same_file_at(int fd, const std::string& path) {
  struct stat held, named;
  if (::fstat(fd, &held) != 0 || ::stat(path.c_str(), &named) != 0) return false;
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// True when another process cannot take the lock we hold on `path`.
bool flock_excludes_other_processes(const std::string& path) {
  pid_t child = ::fork();
  if (child < 0) return true;  // cannot check; trust the lock
  if (child == 0) {
    // Only async-signal-safe calls here.
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) ::_exit(2);
    int rc = ::flock(fd, LOCK_EX | LOCK_NB);
    ::_exit(rc == 0 ? 1 : 0);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return !(WIFEXITED(status) && WEXITSTATUS(status) == 1);
}

std::string this_host() {
  char name[256] = {0};
  if (::gethostname(name, sizeof name - 1) != 0) return "unknown";
  return name;
}

// An owner file left by a process of this host that no longer runs.
bool owner_is_stale(const std::string& owner_path) {
  std::string text;
  try {
    text = read_file(owner_path);
  } catch (const std::exception&) {
    return false;  // vanished or unreadable: look again
  }
  std::optional<LockOwner> owner = parse_lock_owner(text);
  if (!owner) return false;                        // still being written
  if (owner->host != this_host()) return false;    // another machine's process: cannot tell
  if (!owner->pid) return true;                    // garbled by a process of this host
  return ::kill(*owner->pid, 0) != 0 && errno == ESRCH;
}

}  // namespace

void SyncManager::acquire_owner_file() {
  const std::string owner_path = flock_path_ + ".owner";
  const std::string content = lock_owner_text(::getpid(), this_host());
  while (true) {
    UniqueFd fd(::open(owner_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.valid()) {
      if (::write(fd.get(), content.data(), content.size()) < 0) {
        log_debug("Failed to write lock owner file: %s", {json::value(std::strerror(errno))});
      }
      return;
    }
    if (errno != EEXIST) throw_os_error(errno, owner_path);
    if (owner_is_stale(owner_path)) {
      log_warning("Removing stale sync lock owner file %s", {json::value(owner_path)});
      ::unlink(owner_path.c_str());
      continue;
    }
    if (stop_requested()) throw SyncBackoffCancelled("stop requested while waiting for the sync lock");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void SyncManager::acquire_flock() {
  flock_mu_.lock();
  if (flock_depth_ > 0) {
    ++flock_depth_;
    return;
  }
  try {
    while (true) {
      // O_NOFOLLOW: a link planted at the name would make O_CREAT create its
      // target, wherever that is.
      UniqueFd fd(::open(flock_path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0666));
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
        if (!flock_checked_) {
          flock_checked_ = true;
          if (!flock_excludes_other_processes(flock_path_)) {
            flock_unreliable_ = true;
            log_warning(
                "File locks do not exclude other processes in %s; serialising syncs with an exclusive lock "
                "file instead",
                {json::value(data_dir_)});
          }
        }
        if (flock_unreliable_) {
          try {
            acquire_owner_file();
          } catch (...) {
            // Not taken after all: the file lock goes with the attempt, or
            // the next acquire would count as re-entry and skip the owner
            // file, and other processes would wait for this one for good.
            ::flock(flock_fd_, LOCK_UN);
            ::close(flock_fd_);
            flock_fd_ = -1;
            flock_depth_ = 0;
            throw;
          }
        }
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
    if (flock_unreliable_ && ::unlink((flock_path_ + ".owner").c_str()) != 0 && errno != ENOENT) {
      log_debug("Failed to remove lock owner file: %s", {json::value(std::strerror(errno))});
    }
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
