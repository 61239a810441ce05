#include "tidewright/sync/common/owned_thread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace tidewright::sync {
namespace {

using namespace std::chrono_literals;

TEST(OwnedThread, JoinForWaitsOnlyAsLongAsAskedAndJoinsAFinishedThread) {
  std::promise<void> gate;
  OwnedThread thread([opened = gate.get_future().share()] { opened.wait(); });
  EXPECT_TRUE(thread.running());
  EXPECT_FALSE(thread.join_for(50ms));
  EXPECT_TRUE(thread.joinable());
  gate.set_value();
  EXPECT_TRUE(thread.join_for(10s));
  EXPECT_FALSE(thread.running());
  EXPECT_FALSE(thread.joinable());
  EXPECT_TRUE(thread.join_for(0ms));  // nothing left to join
  EXPECT_TRUE(OwnedThread().join_for(0ms));
}

TEST(OwnedThread, DropsWhatTheFunctionCapturedBeforeItCountsAsFinished) {
  auto owned = std::make_shared<int>(7);
  std::weak_ptr<int> watch = owned;
  OwnedThread thread([owned] { (void)*owned; });
  owned.reset();
  ASSERT_TRUE(thread.join_for(10s));
  EXPECT_TRUE(watch.expired());
}

// An owner whose last reference is held by its own thread: the destructor
// runs on that thread, which must not join itself.
struct SelfOwned {
  OwnedThread thread;
  std::atomic<bool>* destroyed;
  ~SelfOwned() { destroyed->store(true); }
};

TEST(OwnedThread, AnOwnerDestroyedOnItsOwnThreadDetachesIt) {
  std::atomic<bool> destroyed{false};
  std::promise<void> gate;
  {
    auto owner = std::make_shared<SelfOwned>();
    owner->destroyed = &destroyed;
    std::shared_ptr<SelfOwned> keep = owner;
    owner->thread = OwnedThread([keep, opened = gate.get_future().share()]() mutable {
      opened.wait();
      EXPECT_FALSE(keep->thread.join_for(0ms));  // never waits for itself
      keep.reset();
    });
  }
  gate.set_value();
  for (int i = 0; i < 1000 && !destroyed.load(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(destroyed.load());
}

}  // namespace
}  // namespace tidewright::sync
