#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <cstdlib>
#include <thread>
#include <vector>

#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;

// gtest runs tests on the process's main thread.
TEST(MainQueue, BelongsToTheMainThread) {
  EXPECT_TRUE(isMainThread());
  EXPECT_TRUE(mainQueue()->isCurrent());
  EXPECT_EQ(Queue::current(), mainQueue());
  EXPECT_EQ(mainQueue(), mainQueue());
  EXPECT_TRUE(mainQueue()->isSerial());
  EXPECT_EQ(mainQueue()->target(), nullptr);
  std::thread([] {
    EXPECT_FALSE(isMainThread());
    EXPECT_FALSE(mainQueue()->isCurrent());
  }).join();
}

TEST(MainQueue, RunUntilDrainsBlocksInOrderOnTheMainThread) {
  // Touched only on the main thread; shared because blocks left over by a
  // failure would run in a later test that serves the main queue.
  struct Shared {
    std::vector<int> order;
    bool allOnMain = true;
  };
  auto shared = std::make_shared<Shared>();
  std::thread producer([shared] {
    for (int i = 0; i < 100; ++i) {
      mainQueue()->async([shared, i] {
        shared->order.push_back(i);
        if (!isMainThread()) shared->allOnMain = false;
      });
    }
  });
  producer.join();
  ASSERT_TRUE(runMainQueueUntil([&] { return shared->order.size() == 100; }, 20s));
  EXPECT_TRUE(shared->allOnMain);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(shared->order[i], i);
}

TEST(MainQueue, RunUntilReturnsFalseAtTheTimeout) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(runMainQueueUntil([] { return false; }, 30ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(MainQueue, SyncFromAnotherThreadRunsOnTheMainThread) {
  auto serialOnMain = Queue::createSerial("on-main", QOS_CLASS_UNSPECIFIED, mainQueue());
  std::atomic<int> done{0};
  std::thread caller([&] {
    EXPECT_TRUE(mainQueue()->sync([] { return isMainThread(); }));
    EXPECT_TRUE(serialOnMain->sync([&] { return isMainThread() && serialOnMain->isCurrent(); }));
    EXPECT_THROW(mainQueue()->sync([] { throw 1; }), int);
    done = 1;
  });
  EXPECT_TRUE(runMainQueueUntil([&] { return done.load() == 1; }, 20s));
  caller.join();
}

// A queue moved off the main queue in the middle of a batch finishes its work
// on the pool. The main thread that ran the batch never serves the pool, so
// the rest of the work must wake a worker rather than wait for one.
TEST(MainQueue, AQueueMovedOffTheMainQueueMidBatchFinishesOnTheWorkers) {
  constexpr int kBlocks = 300;  // more than one batch
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    int ran = 0;
  };
  auto shared = std::make_shared<Shared>();
  auto queue = Queue::createSerial("moving-off-main", QOS_CLASS_UNSPECIFIED, mainQueue());
  queue->async([queue] { queue->setTarget(nullptr); });
  for (int i = 0; i < kBlocks; ++i) {
    queue->async([shared] {
      std::lock_guard lock(shared->mutex);
      ++shared->ran;
      shared->changed.notify_all();
    });
  }
  ASSERT_TRUE(runMainQueueUntil(
      [&] {
        std::lock_guard lock(shared->mutex);
        return shared->ran > 0;
      },
      20s));
  std::unique_lock lock(shared->mutex);
  EXPECT_TRUE(shared->changed.wait_for(lock, 20s, [&] { return shared->ran == kBlocks; }))
      << shared->ran << " of " << kBlocks << " ran";
}

TEST(MainQueueDeathTest, SyncOntoTheMainQueueFromTheMainThreadAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(mainQueue()->sync([] {}), "fennick.main");
  EXPECT_DEATH(std::thread([] { runMainQueueUntil([] { return true; }, 1ms); }).join(),
               "off the main thread");
}

// A nested loop does not give the main queue away: the main thread still
// holds it, and a sync onto it from there is the same programming error.
TEST(MainQueueDeathTest, SyncOntoTheMainQueueFromANestedLoopAbortsAsADeadlock) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        mainQueue()->async([] {
          mainQueue()->async([] { mainQueue()->sync([] {}); });
          runMainQueueUntil([] { return false; }, 20s);
        });
        runMainQueueUntil([] { return false; }, 20s);
      },
      "sync onto queue \"fennick.main\" from work already running on it would wait forever");
}

TEST(MainQueueDeathTest, MainServesTheQueueUntilABlockEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::thread([] { mainQueue()->async([] { std::exit(isMainThread() ? 3 : 4); }); }).join();
        dispatch::main();
      },
      ::testing::ExitedWithCode(3), "");
}
