// The manager's components on their own: putting staged files in place
// without following links planted in the data directory, the era
// transition's lock file, the poll thread's stop event and the background
// workers.
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/manager/background_work.hpp"
#include "tidewright/sync/manager/placement.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"
#include "tidewright/sync/manager/sync_threads.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>

namespace tidewright::sync {
namespace {

using namespace test_support;
namespace fs = std::filesystem;

// --- the era switch ---------------------------------------------------------

// A data directory, a staging directory beside it with the new era's files,
// and a directory outside both that a planted link points to.
class EraSwitchTest : public ::testing::Test {
 protected:
  std::string data() const { return root_ / "data"; }
  std::string staging() const { return root_ / "data/.transition_era2.tmp"; }
  std::string outside() const { return root_ / "outside"; }

  void SetUp() override {
    fs::create_directories(data());
    fs::create_directories(outside());
    write_text(outside() + "/victim.bin", "outside");
    for (const auto& path : paths_) write_text(staging() + "/" + path, "new " + path);
  }

  // Every staged file still in staging, and nothing of the new era in the
  // data directory or outside it.
  void expect_nothing_moved() {
    for (const auto& path : paths_) {
      EXPECT_EQ(read_file(staging() + "/" + path), "new " + path) << path;
    }
    EXPECT_EQ(read_file(outside() + "/victim.bin"), "outside");
    EXPECT_FALSE(fs::exists(outside() + "/b.bin"));
    EXPECT_FALSE(fs::exists(outside() + "/a.bin"));
  }

  TempDir root_;
  const std::vector<std::string> paths_{"a.bin", "features/b.bin", "features/deep/c.bin"};
};

TEST_F(EraSwitchTest, MovesEveryStagedFileOverTheOldOneAndCreatesMissingDirectories) {
  write_text(data() + "/a.bin", "old a");
  const std::vector<std::string> finals = move_staged_files_into_place(staging(), data(), paths_);
  ASSERT_EQ(finals.size(), paths_.size());
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    EXPECT_EQ(read_file(finals[i]), "new " + paths_[i]);
    EXPECT_TRUE(fs::equivalent(finals[i], data() + "/" + paths_[i]));
    EXPECT_FALSE(fs::exists(staging() + "/" + paths_[i]));
  }
}

struct PlantedLink {
  const char* name;
  const char* link;    // below the data directory
  const char* target;  // below the outside directory
};

class PlantedLinkTest : public EraSwitchTest, public ::testing::WithParamInterface<PlantedLink> {};

// A link in the data directory refuses the switch before any file moved.
TEST_P(PlantedLinkTest, RefusesTheWholeSwitch) {
  fs::create_symlink(outside() + "/" + GetParam().target, data() + "/" + GetParam().link);
  EXPECT_THROW(move_staged_files_into_place(staging(), data(), paths_), ManifestError);
  expect_nothing_moved();
}

// A link planted after the destinations were checked is not followed either.
TEST_P(PlantedLinkTest, IsNotFollowedByTheMoveItself) {
  fs::create_symlink(outside() + "/" + GetParam().target, data() + "/" + GetParam().link);
  const std::string relative = std::string(GetParam().link) == "a.bin" ? "a.bin" : "features/b.bin";
  EXPECT_THROW(move_into_place(real_path(staging()), real_path(data()), relative, relative), ManifestError);
  expect_nothing_moved();
}

INSTANTIATE_TEST_SUITE_P(AtTheDestinationOrOnTheWay, PlantedLinkTest,
                         ::testing::Values(PlantedLink{"destination", "a.bin", "victim.bin"},
                                           PlantedLink{"dangling_destination", "a.bin", "a.bin"},
                                           PlantedLink{"parent", "features", ""}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(EraSwitchTest, APathOutOfTheDataDirectoryIsRefused) {
  EXPECT_THROW(move_staged_files_into_place(staging(), data(), {"a.bin", "../outside/victim.bin"}), ManifestError);
  expect_nothing_moved();
}

// --- the transition's lock file ---------------------------------------------

struct LockFileCase {
  const char* name;
  bool live_writer;
  bool in_progress;
};

class TransitionLockFileTest : public ManagerTest, public ::testing::WithParamInterface<LockFileCase> {};

TEST_P(TransitionLockFileTest, InProgressOnlyWhileItsWriterRuns) {
  EraTransition& transition = manager().transition();
  const pid_t writer = GetParam().live_writer ? ::getpid() : gone_pid();
  write_text(transition.lock_path(), std::to_string(writer));
  EXPECT_EQ(transition.in_progress(), GetParam().in_progress);
  // A lock whose writer is gone is taken over; a live one stays.
  EXPECT_EQ(fs::exists(transition.lock_path()), GetParam().in_progress);
  EXPECT_FALSE(transition.active());
}

INSTANTIATE_TEST_SUITE_P(Writers, TransitionLockFileTest,
                         ::testing::Values(LockFileCase{"live", true, true}, LockFileCase{"gone", false, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// --- the poll thread and its stop event -----------------------------------------

// What ends a poll thread's wait between polls, looked at without waiting:
// a stop or a later run, nothing else.
TEST(SyncThreadsTest, WaitEndsOnlyForAStopOrALaterRun) {
  for (bool stop : {false, true}) {
    for (bool later_run : {false, true}) {
      SyncThreads threads;
      const std::uint64_t generation = threads.begin_run();
      if (stop) threads.request_stop();
      if (later_run) threads.begin_run();
      EXPECT_EQ(threads.wait_for_stop(generation, std::chrono::seconds(0)), stop || later_run)
          << "stop " << stop << ", later run " << later_run;
    }
  }
}

TEST(SyncThreadsTest, AStopWakesTheWaitingPollThreadAndTheNextRunStartsCleared) {
  SyncThreads threads;
  const std::uint64_t generation = threads.begin_run();
  auto thread = std::make_shared<OwnedThread>([&threads, generation] {
    while (!threads.wait_for_stop(generation, std::chrono::hours(1))) {
    }
  });
  threads.adopt_poll_thread(thread);
  EXPECT_FALSE(threads.on_poll_thread());
  threads.request_stop();
  std::shared_ptr<OwnedThread> taken = threads.take_poll_thread();
  ASSERT_EQ(taken, thread);
  EXPECT_TRUE(taken->join_for(std::chrono::minutes(5)));
  EXPECT_FALSE(threads.poll_alive());

  const std::uint64_t next = threads.begin_run();
  EXPECT_NE(next, generation);
  EXPECT_FALSE(threads.wait_for_stop(next, std::chrono::seconds(0)));
}

TEST(SyncThreadsTest, APollThreadOfAnEarlierRunStaysKnownUntilItEnds) {
  SyncThreads threads;
  const std::uint64_t first = threads.begin_run();
  std::promise<void> replaced;
  std::shared_future<void> replaced_seen = replaced.get_future().share();
  std::promise<bool> own_thread;
  auto earlier = std::make_shared<OwnedThread>([&, replaced_seen] {
    while (!threads.wait_for_stop(first, std::chrono::hours(1))) {
    }
    replaced_seen.wait();
    own_thread.set_value(threads.on_poll_thread());
  });
  threads.adopt_poll_thread(earlier);

  // A new run ends the earlier thread's wait without a stop.
  const std::uint64_t second = threads.begin_run();
  auto later = std::make_shared<OwnedThread>([&threads, second] {
    while (!threads.wait_for_stop(second, std::chrono::hours(1))) {
    }
  });
  threads.adopt_poll_thread(later);
  replaced.set_value();
  EXPECT_TRUE(own_thread.get_future().get());
  EXPECT_TRUE(earlier->join_for(std::chrono::minutes(5)));
  EXPECT_TRUE(threads.poll_alive());

  threads.request_stop();
  EXPECT_TRUE(threads.take_poll_thread()->join_for(std::chrono::minutes(5)));
}

// --- repair and cleanup workers ---------------------------------------------------

TEST(BackgroundWorkTest, ARepairIsQueuedAndStartedOnlyWhileAccepted) {
  BackgroundWork work;
  std::atomic<int> runs{0};
  EXPECT_FALSE(work.queue_repair("a.arrow", [] { return false; }, [&runs] { ++runs; }));
  EXPECT_TRUE(work.take_repair_queue().empty());

  EXPECT_TRUE(work.queue_repair("b.arrow", [] { return true; }, [&runs] { ++runs; }));
  EXPECT_TRUE(work.queue_repair("c.arrow", [] { return true; }, [&runs] { ++runs; }));
  work.join_all(std::chrono::seconds(300));
  EXPECT_EQ(runs.load(), 2);
  EXPECT_EQ(work.take_repair_queue(), (std::vector<std::string>{"b.arrow", "c.arrow"}));
  EXPECT_TRUE(work.take_repair_queue().empty());
}

TEST(BackgroundWorkTest, OneCleanupAtATime) {
  BackgroundWork work;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> runs{0};
  work.start_cleanup({}, [&runs, released] {
    ++runs;
    released.wait();
  });
  work.start_cleanup({}, [&runs] { ++runs; });  // the first still runs
  release.set_value();
  work.join_all(std::chrono::seconds(300));
  EXPECT_EQ(runs.load(), 1);

  work.start_cleanup({}, [&runs] { ++runs; });  // the first has ended
  work.join_all(std::chrono::seconds(300));
  EXPECT_EQ(runs.load(), 2);
}

}  // namespace
}  // namespace tidewright::sync
