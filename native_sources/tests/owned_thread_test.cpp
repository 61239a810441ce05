#include "tidewright/sync/common/owned_thread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace tidewright::sync {
namespace {

using namespace std::chrono_literals;

// A latch the test opens to let a thread finish.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  bool open = false;
  void release() {
    {
      std::lock_guard<std::mutex> lock(mu);
      open = true;
    }
    cv.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [this] { return open; });
  }
};

TEST(OwnedThread, JoinForWaitsOnlyAsLongAsAskedAndJoinsAFinishedThread) {
  auto gate = std::make_shared<Gate>();
  OwnedThread thread([gate] { gate->wait(); });
  EXPECT_TRUE(thread.running());
  EXPECT_FALSE(thread.join_for(50ms));
  EXPECT_TRUE(thread.joinable());
  gate->release();
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
  auto gate = std::make_shared<Gate>();
  {
    auto owner = std::make_shared<SelfOwned>();
    owner->destroyed = &destroyed;
    std::shared_ptr<SelfOwned> keep = owner;
    owner->thread = OwnedThread([keep, gate]() mutable {
      gate->wait();
      EXPECT_FALSE(keep->thread.join_for(0ms));  // never waits for itself
      keep.reset();
    });
  }
  gate->release();
  for (int i = 0; i < 1000 && !destroyed.load(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(destroyed.load());
}

}  // namespace
}  // namespace tidewright::sync
