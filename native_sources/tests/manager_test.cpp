// The manager on a local data directory: integrity checks against the held
// manifest, old-era clean-up, and the cross-process sync lock (flock, and the
// owner file used where flock does not exclude other processes).
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/fake_host.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
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

using test_support::TempDir;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

void write_text(const std::string& path, std::string_view text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::string this_host_name() {
  char name[256] = {0};
  ::gethostname(name, sizeof name - 1);
  return name;
}

// A process id that no process has: a child that has exited and been reaped.
pid_t gone_pid() {
  pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { set_host(host_); }
  void TearDown() override {
    for (auto& m : managers_) m->stop_internal();
    managers_.clear();
    set_host(nullptr);
  }

  // A manager of its own (not the registry's) on the data directory.
  SyncManager& manager() {
    SyncManagerArgs args;
    args.data_dir = dir_.path();
    args.server_url = "http://127.0.0.1:9";
    args.get_token = FakeHost::make_callable([](const json::array&) { return json::value("token"); });
    managers_.push_back(std::make_shared<SyncManager>(std::move(args)));
    return *managers_.back();
  }

  // Writes the files and a manifest that lists each with its digest and size.
  void write_era(std::int64_t era, const std::vector<std::pair<std::string, std::string>>& files) {
    json::object entries;
    for (const auto& [path, bytes] : files) {
      write_text(dir_ / path, bytes);
      entries[path] = json::object{{"sha256", sha256(bytes)}, {"size_bytes", static_cast<std::int64_t>(bytes.size())}};
    }
    json::object manifest{{"era_number", era}, {"version", 1}, {"files", std::move(entries)}};
    write_text(dir_ / "manifest.json", dump_json(json::value(manifest)));
  }

  bool log_has(std::string_view text) {
    auto lines = host_->log_lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const FakeHost::LogLine& l) { return l.message.find(text) != std::string::npos; });
  }

  std::shared_ptr<FakeHost> host_ = std::make_shared<FakeHost>();
  TempDir dir_;
  std::vector<std::shared_ptr<SyncManager>> managers_;
};

// --- integrity against the held manifest ---

TEST_F(ManagerTest, VerifyTellsMissingFromCorruptedAndPassesOnceRepaired) {
  write_era(3, {{"a.bin", "alpha"}, {"sub/b.bin", "bravo"}, {"c.bin", "charlie"}});
  write_text(dir_ / "sub/b.bin", "BRAVO");  // same size, other bytes
  fs::remove(dir_ / "c.bin");
  SyncManager& m = manager();

  VerifyResult result = m.verify();
  EXPECT_TRUE(result.has_manifest);
  EXPECT_FALSE(result.valid);
  EXPECT_EQ(result.corrupted_files, std::vector<std::string>{"sub/b.bin"});
  EXPECT_EQ(result.missing_files, std::vector<std::string>{"c.bin"});
  EXPECT_TRUE(m.first_local_mismatch(*m.get_manifest(), default_manifest_siblings()).has_value());

  write_text(dir_ / "sub/b.bin", "bravo");
  write_text(dir_ / "c.bin", "charlie");
  result = m.verify();
  EXPECT_TRUE(result.valid);
  EXPECT_TRUE(result.corrupted_files.empty() && result.missing_files.empty());
  EXPECT_EQ(m.first_local_mismatch(*m.get_manifest(), default_manifest_siblings()), std::nullopt);
}

TEST_F(ManagerTest, VerifyWithoutManifestChecksNothing) {
  VerifyResult result = manager().verify();
  EXPECT_FALSE(result.has_manifest);
  EXPECT_TRUE(result.valid);
}

// A file rewritten after its digest was cached is hashed again, not vouched
// for by the cache.
TEST_F(ManagerTest, FileChangedAfterItsDigestWasCachedIsHashedAgain) {
  write_era(3, {{"a.bin", "alpha"}});
  SyncManager& m = manager();
  const json::value& entry = m.get_manifest()->files().at("a.bin");
  ASSERT_TRUE(m.local_file_matches_manifest("a.bin", dir_ / "a.bin", entry));
  write_text(dir_ / "a.bin", "ALPHA");
  EXPECT_FALSE(m.local_file_matches_manifest("a.bin", dir_ / "a.bin", entry));
  write_text(dir_ / "a.bin", "alph");  // another size: refused without hashing
  EXPECT_FALSE(m.local_file_matches_manifest("a.bin", dir_ / "a.bin", entry));
}

// --- old eras ---

struct CleanupCase {
  const char* name;
  bool keep_current;
  std::vector<std::string> kept;
  std::vector<std::string> removed;
};

class OldEraCleanupTest : public ManagerTest, public ::testing::WithParamInterface<CleanupCase> {};

TEST_P(OldEraCleanupTest, RemovesWhatItShouldAndCountsTheBytes) {
  const CleanupCase& c = GetParam();
  write_era(3, {{"features/f.arrow", "feature"}});
  write_text(dir_ / "era_1/x.bin", "1234");
  write_text(dir_ / "era2/y.bin", "123456");
  write_text(dir_ / "era_3/z.bin", "12");
  write_text(dir_ / "era_x/keep.bin", "not an era");
  write_text(dir_ / ".hidden/keep.bin", "hidden");
  write_text(dir_ / "shuffle_seed.enc", "seed");
  fs::create_directory_symlink(dir_ / "features", dir_ / "era_9");
  std::int64_t before = 0;
  for (const auto& p : c.removed) {
    if (fs::is_regular_file(dir_ / p)) {
      before += static_cast<std::int64_t>(fs::file_size(dir_ / p));
      continue;
    }
    for (const auto& e : fs::recursive_directory_iterator(dir_ / p)) {
      if (e.is_regular_file()) before += static_cast<std::int64_t>(e.file_size());
    }
  }
  EXPECT_EQ(manager().cleanup_old_eras(c.keep_current), before);
  for (const auto& p : c.kept) EXPECT_TRUE(fs::exists(fs::symlink_status(dir_ / p))) << p;
  for (const auto& p : c.removed) EXPECT_FALSE(fs::exists(dir_ / p)) << p;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OldEraCleanupTest,
    ::testing::Values(
        CleanupCase{"KeepCurrent", true,
                    {"era_3/z.bin", "era_x/keep.bin", ".hidden/keep.bin", "manifest.json", "shuffle_seed.enc",
                     "features/f.arrow", "era_9"},
                    {"era_1", "era2"}},
        CleanupCase{"Everything", false,
                    {".hidden/keep.bin", "era_9"},
                    {"era_1", "era2", "era_3", "era_x", "features", "manifest.json", "shuffle_seed.enc"}}),
    [](const auto& info) { return std::string(info.param.name); });

// --- the cross-process lock ---

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
  SyncManager& waiter = manager();
  holder.acquire_flock();
  auto waited = std::async(std::launch::async, [&] { SyncManagerTestAccess::acquire_as_sync(waiter); });
  // Asked again until the wait ends: a stop ends only a wait already begun.
  do {
    waiter.stop_internal();
  } while (waited.wait_for(50ms) != std::future_status::ready);
  EXPECT_THROW(waited.get(), SyncBackoffCancelled);
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

struct StaleOwnerCase {
  const char* name;
  std::function<std::string()> text;
};

class StaleOwnerTest : public ManagerTest, public ::testing::WithParamInterface<StaleOwnerCase> {};

// An owner file that a process of this host left behind (one no longer
// running, or one that wrote no usable pid) is taken over.
TEST_P(StaleOwnerTest, IsTakenOver) {
  SyncManager& m = manager();
  SyncManagerTestAccess::use_owner_file_lock(m);
  const std::string owner = m.flock_path() + ".owner";
  write_text(owner, GetParam().text());
  m.acquire_flock();
  EXPECT_EQ(parse_lock_owner(read_file(owner))->pid, ::getpid());
  EXPECT_TRUE(log_has("Removing stale sync lock owner file"));
  m.release_flock();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StaleOwnerTest,
    ::testing::Values(StaleOwnerCase{"ExitedProcess", [] { return lock_owner_text(gone_pid(), this_host_name()); }},
                      StaleOwnerCase{"GarbledPid", [] { return "not-a-pid " + this_host_name() + "\n"; }}),
    [](const auto& info) { return std::string(info.param.name); });

struct LiveOwnerCase {
  const char* name;
  std::function<std::string()> text;
};

class LiveOwnerTest : public ManagerTest, public ::testing::WithParamInterface<LiveOwnerCase> {};

// An owner that may still run (a live process here, any process of another
// machine) is waited for: until its file goes, or until a stop.
TEST_P(LiveOwnerTest, IsWaitedFor) {
  SyncManager& m = manager();
  SyncManagerTestAccess::use_owner_file_lock(m);
  const std::string owner = m.flock_path() + ".owner";
  write_text(owner, GetParam().text());

  std::atomic<bool> holds{false};
  std::thread waiter([&] {
    m.acquire_flock();
    holds = true;
    m.release_flock();
  });
  std::this_thread::sleep_for(150ms);
  EXPECT_FALSE(holds.load());
  EXPECT_TRUE(fs::exists(owner));
  fs::remove(owner);
  waiter.join();
  EXPECT_TRUE(holds.load());

  write_text(owner, GetParam().text());
  auto stopped = std::async(std::launch::async, [&] { SyncManagerTestAccess::acquire_as_sync(m); });
  // Asked again until the attempt ends: a stop ends only a wait already begun.
  do {
    m.stop_internal();
  } while (stopped.wait_for(50ms) != std::future_status::ready);
  EXPECT_THROW(stopped.get(), SyncBackoffCancelled);
  EXPECT_TRUE(fs::exists(owner));
  // The attempt that gave up holds nothing: the file lock is free.
  UniqueFd fd(::open(m.flock_path().c_str(), O_RDWR | O_CLOEXEC));
  if (fd.valid()) {
    EXPECT_EQ(::flock(fd.get(), LOCK_EX | LOCK_NB), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LiveOwnerTest,
    ::testing::Values(LiveOwnerCase{"ProcessOfThisHost", [] { return lock_owner_text(::getppid(), this_host_name()); }},
                      LiveOwnerCase{"OtherHost", [] { return lock_owner_text(gone_pid(), "elsewhere.invalid"); }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tidewright::sync
