// The manager's cross-process sync lock: flock, and the owner file used
// where flock does not exclude other processes.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

namespace tidewright::sync {

// Puts a manager on the owner-file lock, as if flock had been found not to
// exclude other processes in its data directory.
struct DirectoryLockTestAccess {
  static void use_owner_file(DirectoryLock& lock) {
    MutexLock held(lock.mu_);
    lock.checked_ = true;
    lock.unreliable_ = true;
  }
};

struct SyncManagerTestAccess {
  static void use_owner_file_lock(SyncManager& manager) {
    DirectoryLockTestAccess::use_owner_file(manager.directory_lock());
  }
  // Takes the file lock as a sync does, under the sync lock (which a stop
  // waits for, so the stop request is seen before it is withdrawn).
  static void acquire_as_sync(SyncManager& manager) {
    MutexLock lock(manager.sync_mu_);
    manager.acquire_flock();
  }
};

namespace {

using namespace test_support;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A sync's attempt to take the lock that `m` waits for ends with a stop.
void expect_stop_ends_the_wait(SyncManager& m) {
  auto waited = std::async(std::launch::async, [&] { SyncManagerTestAccess::acquire_as_sync(m); });
  // Asked again until the wait ends: a stop ends only a wait already begun.
  do {
    m.stop_internal();
  } while (waited.wait_for(50ms) != std::future_status::ready);
  EXPECT_THROW(waited.get(), SyncBackoffCancelled);
}

// Missing and corrupted files are told apart (also through the module, by
// test_cli and test_concurrency); a file rewritten after its digest was
// cached is hashed again, not vouched for by the cache.
TEST_F(ManagerTest, VerifyTellsMissingFromCorruptedAndHashesAFileChangedAfterItsDigestWasCached) {
  json::object entries;
  for (const char* path : {"a.bin", "sub/b.bin", "c.bin"}) {
    write_text(dir_ / path, path);
    entries[path] = json::object{{"sha256", sha256(path)}, {"size_bytes", static_cast<std::int64_t>(std::strlen(path))}};
  }
  write_text(dir_ / "manifest.json",
             dump_json(json::value(json::object{{"era_number", 3}, {"version", 1}, {"files", entries}})));
  SyncManager& m = manager();
  ASSERT_TRUE(m.verify().valid);
  EXPECT_EQ(m.first_local_mismatch(*m.get_manifest(), default_manifest_siblings()), std::nullopt);
  write_text(dir_ / "sub/b.bin", "SUB/B.BIN");  // same size, other bytes
  std::filesystem::remove(dir_ / "c.bin");
  VerifyResult result = m.verify();
  EXPECT_FALSE(result.valid);
  EXPECT_EQ(result.corrupted_files, std::vector<std::string>{"sub/b.bin"});
  EXPECT_EQ(result.missing_files, std::vector<std::string>{"c.bin"});
  EXPECT_TRUE(m.first_local_mismatch(*m.get_manifest(), default_manifest_siblings()).has_value());
}

// --- flock ---

TEST_F(ManagerTest, FlockIsReentrantAndRemovedWithTheLastRelease) {
  SyncManager& m = manager();
  m.acquire_flock();
  m.acquire_flock();
  m.release_flock();
  EXPECT_TRUE(fs::exists(m.flock_path()));
  m.release_flock();
  EXPECT_FALSE(fs::exists(m.flock_path()));
}

// Two managers of one directory hold separate descriptors, which exclude
// each other as two processes would. The waiter ends up on the file the
// holder's release removed, and must not keep that stale lock.
TEST_F(ManagerTest, SecondHolderWaitsForTheFirstAndLocksTheCurrentFile) {
  SyncManager& first = manager();
  SyncManager& second = manager();
  first.acquire_flock();
  // The lock is held by a thread: the second holder takes and lets go of it
  // on its own thread.
  std::atomic<bool> second_holds{false};
  std::atomic<bool> let_go{false};
  std::thread waiter([&] {
    second.acquire_flock();
    second_holds = true;
    while (!let_go) std::this_thread::sleep_for(1ms);
    second.release_flock();
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(second_holds.load());
  first.release_flock();
  while (!second_holds) std::this_thread::sleep_for(1ms);
  ASSERT_TRUE(fs::exists(second.flock_path()));

  // While the second holds it, the first cannot take it.
  std::atomic<bool> first_holds{false};
  std::thread other([&] {
    first.acquire_flock();
    first_holds = true;
    first.release_flock();
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(first_holds.load());
  let_go = true;
  waiter.join();
  other.join();
  EXPECT_TRUE(first_holds.load());
}

TEST_F(ManagerTest, StopEndsTheWaitForTheLock) {
  SyncManager& holder = manager();
  holder.acquire_flock();
  expect_stop_ends_the_wait(manager());
  holder.release_flock();
}

// --- the owner file, where flock does not exclude ---

TEST_F(ManagerTest, OwnerFileNamesThisProcessWhileHeld) {
  SyncManager& m = manager();
  SyncManagerTestAccess::use_owner_file_lock(m);
  const std::string owner = m.flock_path() + ".owner";
  m.acquire_flock();
  std::optional<LockOwner> parsed = parse_lock_owner(read_file(owner));
  ASSERT_TRUE(parsed && parsed->pid);
  EXPECT_EQ(*parsed->pid, ::getpid());
  EXPECT_EQ(parsed->host, this_host_name());
  m.release_flock();
  EXPECT_FALSE(fs::exists(owner));
}

struct OwnerCase {
  const char* name;
  std::function<std::string()> text;
};

class OwnerFileTest : public ManagerTest, public ::testing::WithParamInterface<OwnerCase> {
 protected:
  SyncManager& owner_file_manager() {
    SyncManager& m = manager();
    SyncManagerTestAccess::use_owner_file_lock(m);
    owner_ = m.flock_path() + ".owner";
    write_text(owner_, GetParam().text());
    return m;
  }
  std::string owner_;
};

// An owner file that a process of this host left behind (one no longer
// running, or one that wrote no usable pid) is taken over.
class StaleOwnerTest : public OwnerFileTest {};

TEST_P(StaleOwnerTest, IsTakenOver) {
  SyncManager& m = owner_file_manager();
  m.acquire_flock();
  EXPECT_EQ(parse_lock_owner(read_file(owner_))->pid, ::getpid());
  EXPECT_TRUE(log_has("Removing stale sync lock owner file"));
  m.release_flock();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StaleOwnerTest,
    ::testing::Values(OwnerCase{"ExitedProcess", [] { return lock_owner_text(gone_pid(), this_host_name()); }},
                      OwnerCase{"GarbledPid", [] { return "not-a-pid " + this_host_name() + "\n"; }}),
    [](const auto& info) { return std::string(info.param.name); });

// An owner that may still run (a live process here, any process of another
// machine) is waited for: until its file goes, or until a stop.
class LiveOwnerTest : public OwnerFileTest {};

TEST_P(LiveOwnerTest, IsWaitedFor) {
  SyncManager& m = owner_file_manager();
  std::atomic<bool> holds{false};
  std::thread waiter([&] {
    m.acquire_flock();
    holds = true;
    m.release_flock();
  });
  std::this_thread::sleep_for(150ms);
  EXPECT_FALSE(holds.load());
  EXPECT_TRUE(fs::exists(owner_));
  fs::remove(owner_);
  waiter.join();
  EXPECT_TRUE(holds.load());

  write_text(owner_, GetParam().text());
  expect_stop_ends_the_wait(m);
  EXPECT_TRUE(fs::exists(owner_));
  // The attempt that gave up holds nothing: the file lock is free.
  UniqueFd fd(::open(m.flock_path().c_str(), O_RDWR | O_CLOEXEC));
  if (fd.valid()) {
    EXPECT_EQ(::flock(fd.get(), LOCK_EX | LOCK_NB), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LiveOwnerTest,
    ::testing::Values(OwnerCase{"ProcessOfThisHost", [] { return lock_owner_text(::getppid(), this_host_name()); }},
                      OwnerCase{"OtherHost", [] { return lock_owner_text(gone_pid(), "elsewhere.invalid"); }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tidewright::sync
