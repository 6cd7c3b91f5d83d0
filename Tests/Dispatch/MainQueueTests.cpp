#include <gtest/gtest.h>

#include <atomic>
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
  std::vector<int> order;
  std::atomic<bool> allOnMain{true};
  std::thread producer([&] {
    for (int i = 0; i < 100; ++i) {
      mainQueue()->async([&, i] {
        order.push_back(i);
        if (!isMainThread()) allOnMain = false;
      });
    }
  });
  producer.join();
  EXPECT_TRUE(runMainQueueUntil([&] { return order.size() == 100; }, 20s));
  EXPECT_TRUE(allOnMain);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
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

TEST(MainQueueDeathTest, SyncOntoTheMainQueueFromTheMainThreadAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(mainQueue()->sync([] {}), "fennick.main");
  EXPECT_DEATH(std::thread([] { runMainQueueUntil([] { return true; }, 1ms); }).join(),
               "off the main thread");
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
