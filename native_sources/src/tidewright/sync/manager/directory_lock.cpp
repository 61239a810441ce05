// The cross-process lock of a data directory; see directory_lock.hpp.
#include "tidewright/sync/manager/directory_lock.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
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

// Gives up a lock file we hold: its owner file (in the fallback), then the
// name while the lock is still held, so that nobody can lock this inode
// after us believing it is the current lock file.
void let_go_of_lock_file(int fd, const std::string& path, bool remove_owner_file) {
  if (remove_owner_file && ::unlink((path + ".owner").c_str()) != 0 && errno != ENOENT) {
    log_debug("Failed to remove lock owner file: %s", {json::value(std::strerror(errno))});
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    log_debug("Failed to remove flock file: %s", {json::value(std::strerror(errno))});
  }
  ::flock(fd, LOCK_UN);
  if (::close(fd) != 0) {
    log_debug("Failed to close flock file descriptor: %s", {json::value(std::strerror(errno))});
  }
}

constexpr std::chrono::milliseconds LOCK_POLL_INTERVAL{20};

}  // namespace

DirectoryLock::DirectoryLock(std::string data_dir, std::string path, std::function<bool()> stop_requested)
    : data_dir_(std::move(data_dir)), path_(std::move(path)), stop_requested_(std::move(stop_requested)) {}

DirectoryLock::~DirectoryLock() {
  MutexLock lock(mu_);
  // Still held only when the host's paired calls were left unbalanced.
  if (fd_ >= 0) let_go_of_lock_file(fd_, path_, unreliable_);
}

void DirectoryLock::throw_if_stopped() const {
  if (stop_requested_ && stop_requested_()) {
    throw SyncBackoffCancelled("stop requested while waiting for the sync lock");
  }
}

void DirectoryLock::acquire() {
  const std::thread::id me = std::this_thread::get_id();
  {
    MutexLock lock(mu_);
    if (owner_ == me) {
      ++depth_;
      return;
    }
    // Another thread of this process holds it: wait for its release.
    while (owner_ != std::thread::id{}) {
      throw_if_stopped();
      released_.wait_for(mu_, LOCK_POLL_INTERVAL);
    }
    owner_ = me;
    depth_ = 1;
  }
  try {
    const int fd = lock_file();
    MutexLock lock(mu_);
    fd_ = fd;
  } catch (...) {
    {
      MutexLock lock(mu_);
      owner_ = std::thread::id{};
      depth_ = 0;
    }
    released_.notify_all();
    throw;
  }
}

int DirectoryLock::lock_file() {
  while (true) {
    // O_NOFOLLOW: a link planted at the name would make O_CREAT create its
    // target, wherever that is.
    UniqueFd fd(::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.valid()) throw_os_error(errno, path_);
    // Poll rather than block so that a stop request ends the wait.
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
        int err = errno;
        if (fd.reset() != 0) log_debug("Failed to close flock file descriptor: %s", {json::value(std::strerror(errno))});
        throw_os_error(err, path_);
      }
      throw_if_stopped();
      std::this_thread::sleep_for(LOCK_POLL_INTERVAL);
    }
    // The file we locked was removed (and maybe replaced) meanwhile.
    if (!same_file_at(fd.get(), path_)) continue;

    bool self_test_due = false;
    bool unreliable = false;
    {
      MutexLock lock(mu_);
      self_test_due = !checked_;
      unreliable = unreliable_;
    }
    if (self_test_due) {
      unreliable = !flock_excludes_other_processes(path_);
      {
        MutexLock lock(mu_);
        checked_ = true;
        unreliable_ = unreliable;
      }
      if (unreliable) {
        log_warning(
            "File locks do not exclude other processes in %s; serialising syncs with an exclusive lock "
            "file instead",
            {json::value(data_dir_)});
      }
    }
    if (unreliable) {
      try {
        acquire_owner_file();
      } catch (...) {
        let_go_of_lock_file(fd.release(), path_, false);
        throw;
      }
    }
    return fd.release();
  }
}

void DirectoryLock::release() {
  int fd = -1;
  bool unreliable = false;
  {
    MutexLock lock(mu_);
    if (owner_ != std::this_thread::get_id() || depth_ == 0) return;  // not ours
    if (--depth_ > 0) return;
    fd = fd_;
    fd_ = -1;
    unreliable = unreliable_;
  }
  // The name goes before another thread of this process may lock it again.
  if (fd >= 0) let_go_of_lock_file(fd, path_, unreliable);
  {
    MutexLock lock(mu_);
    owner_ = std::thread::id{};
  }
  released_.notify_all();
}

void DirectoryLock::acquire_owner_file() {
  const std::string owner_path = path_ + ".owner";
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
    throw_if_stopped();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace tidewright::sync
