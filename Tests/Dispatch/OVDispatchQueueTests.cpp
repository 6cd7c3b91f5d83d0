#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <numeric>
#include <thread>
#include <vector>

#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"

using namespace fennick;
using namespace std::chrono_literals;

TEST(OVBuildDispatchQueue, PrefixesTheLabelAndKeepsClassKindAndTarget) {
  auto target = OVBuildDispatchQueue("target", QOS_CLASS_USER_INITIATED, nullptr, false);
  EXPECT_EQ(target->label(), "com.orvane.target");
  EXPECT_EQ(target->qos(), QOS_CLASS_USER_INITIATED);
  EXPECT_TRUE(target->isSerial());
  EXPECT_EQ(target->target(), dispatch::global(QOS_CLASS_USER_INITIATED));

  auto concurrent = OVBuildDispatchQueue(" shared queue", QOS_CLASS_UTILITY, target, true);
  EXPECT_EQ(concurrent->label(), "com.orvane. shared queue");
  EXPECT_FALSE(concurrent->isSerial());
  EXPECT_EQ(concurrent->target(), target);
  EXPECT_EQ(concurrent->qos(), QOS_CLASS_UTILITY);

  EXPECT_EQ(OVBuildDispatchQueue({}, QOS_CLASS_BACKGROUND, nullptr, false)->label(), "com.orvane.");
  EXPECT_NE(OVBuildDispatchQueue("same", 0, nullptr, false),
            OVBuildDispatchQueue("same", 0, nullptr, false));
}

TEST(OVBuildInternalDispatchQueue, BuildsASerialUtilityQueue) {
  auto queue = OVBuildInternalDispatchQueue("cancellation-token-internal");
  EXPECT_EQ(queue->label(), "com.orvane.cancellation-token-internal.internal-queue");
  EXPECT_TRUE(queue->isSerial());
  EXPECT_EQ(queue->qos(), QOS_CLASS_UTILITY);
  EXPECT_EQ(queue->target(), dispatch::global(QOS_CLASS_UTILITY));
}

// gtest runs tests on the main thread.
TEST(OVInteractWithUI, RunsInlineOnTheMainThreadAndLaterInOrderFromOthers) {
  bool ranInline = false;
  OVInteractWithUI([&] { ranInline = true; });
  EXPECT_TRUE(ranInline);
  OVInteractWithUI(nullptr);

  // Shared with the blocks, which outlive the test if it fails on the timeout.
  struct Seen {
    std::vector<int> order;  // touched on the main thread only
    std::atomic<bool> allOnMain{true};
  };
  auto seen = std::make_shared<Seen>();
  std::atomic<bool> returnedFirst{true};
  std::thread([&] {
    for (int i = 0; i < 50; ++i) {
      OVInteractWithUI([seen, i] {
        seen->order.push_back(i);
        if (!dispatch::isMainThread()) seen->allOnMain = false;
      });
    }
    // The main thread is blocked in join: nothing may have run yet.
    if (!seen->order.empty()) returnedFirst = false;
  }).join();
  EXPECT_TRUE(dispatch::runMainQueueUntil([&] { return seen->order.size() == 50; }, 20s));
  EXPECT_TRUE(returnedFirst);
  EXPECT_TRUE(seen->allOnMain);
  std::vector<int> expected(50);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen->order, expected);
}

// Built without FENNICK_CHECK_QUEUES, as the library and its users are: the
// assertions must neither trap nor write anything, even when they would fail.
TEST(OVQueueAssertionsDeathTest, DoNothingWithoutQueueChecks) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = OVBuildInternalDispatchQueue("unchecked");
  EXPECT_EXIT(
      {
        OVAssertOnQueue(queue);
        OVAssertOnQueue(nullptr);
        OVAssertOnBackgroundQueue();
        std::thread([] { OVAssertOnMainQueue(); }).join();
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
}

TEST(OVAbortingAssertionsDeathTest, EndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(OVAssertUnimplemented(),
               "^Under construction\nThis part of application in not ready for regular use\n"
               "\\[Quit\\]\n$");
  EXPECT_DEATH(OVAssertUnreachable(), "^$");
  EXPECT_DEATH(OVAssertAbstract(), "^$");
}
