#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Dispatch/TestSupport.h"
#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Once.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Time.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;
using fennick::dispatch::testing::eventually;

TEST(Group, WaitTimesOutWhileTasksRemainAndReturnsOnceEmptied) {
  auto group = Group::create();
  EXPECT_TRUE(group->wait(Time::NOW)) << "an empty group";
  group->enter();
  EXPECT_FALSE(group->wait(Time::NOW));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(group->wait(time(Time::NOW, 20 * NSEC_PER_MSEC)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_FALSE(group->wait(walltime(nullptr, 5 * NSEC_PER_MSEC)));
  std::thread leaver([&] {
    std::this_thread::sleep_for(10ms);
    group->leave();
  });
  EXPECT_TRUE(group->wait(Time::FOREVER));
  leaver.join();
}

TEST(Group, NotifyRunsOnceAfterAllTasksOfItsRound) {
  auto group = Group::create();
  auto queue = Queue::createSerial("group.tasks");
  struct Shared {
    std::atomic<bool> gate{false};
    std::atomic<int> finished{0};
    std::atomic<int> notifiedAt{-1};
    std::atomic<int> notifications{0};
    std::atomic<bool> immediate{false};
  };
  auto shared = std::make_shared<Shared>();
  // The queue's task waits behind a closed gate, so the notification is
  // registered while the round is still open.
  queue->async([shared] { eventually([&] { return shared->gate.load(); }); });
  for (int i = 0; i < 10; ++i) group->async(global(), [shared] { shared->finished.fetch_add(1); });
  group->async(queue, [shared] { shared->finished.fetch_add(1); });
  group->notify(queue, [shared] {
    shared->notifiedAt = shared->finished.load();
    shared->notifications.fetch_add(1);
  });
  EXPECT_FALSE(group->wait(Time::NOW));
  shared->gate = true;
  EXPECT_TRUE(group->wait(Time::after(20s)));
  EXPECT_TRUE(eventually([&] { return shared->notifications.load() == 1; }));
  EXPECT_EQ(shared->notifiedAt.load(), 11);
  group->notify(queue, [shared] { shared->immediate = true; });
  EXPECT_TRUE(eventually([&] { return shared->immediate.load(); }));
  EXPECT_EQ(shared->notifications.load(), 1);
}

TEST(GroupDeathTest, UnbalancedLeaveAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Group::create()->leave(), "without a matching enter");
}

TEST(Once, RunsExactlyOnceAcrossThreadsAndPublishesItsWork) {
  for (int round = 0; round < 20; ++round) {
    OnceFlag flag;
    std::atomic<int> calls{0};
    int published = 0;
    std::vector<std::thread> threads;
    std::atomic<int> sawResult{0};
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        once(flag, [&] {
          std::this_thread::sleep_for(1ms);
          published = 42;
          calls.fetch_add(1);
        });
        if (published == 42) sawResult.fetch_add(1);
      });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_EQ(calls.load(), 1);
    ASSERT_EQ(sawResult.load(), 8);
  }
}

TEST(Once, AThrowingFunctionLetsTheNextCallTryAgain) {
  OnceFlag flag;
  int attempts = 0;
  EXPECT_THROW(once(flag, [&] {
                 ++attempts;
                 throw std::runtime_error("not yet");
               }),
               std::runtime_error);
  once(flag, [&] { ++attempts; });
  once(flag, [&] { ++attempts; });
  EXPECT_EQ(attempts, 2);
}

TEST(OnceDeathTest, ReentryAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  static OnceFlag flag;
  EXPECT_DEATH(once(flag, [] { once(flag, [] {}); }), "again from its own function");
}

TEST(Time, ArithmeticKeepsTheClockAndSaturates) {
  const auto before = std::chrono::steady_clock::now();
  const Time soon = time(Time::NOW, NSEC_PER_SEC);
  EXPECT_FALSE(soon.isWallClock());
  EXPECT_GE(soon.toSteady(), before + 1s);
  EXPECT_LE(soon.remaining(), 1s);
  EXPECT_GT(soon.remaining(), 500ms);
  EXPECT_EQ(time(soon, -NSEC_PER_SEC).toSteady() + 1s, soon.toSteady());

  EXPECT_TRUE(time(Time::FOREVER, -5).isForever());
  EXPECT_TRUE(time(soon, INT64_MAX).isForever());
  EXPECT_EQ(Time::FOREVER.remaining(), std::chrono::nanoseconds::max());
  EXPECT_EQ(Time::FOREVER.toSteady(), std::chrono::steady_clock::time_point::max());

  const timespec epochPlusOne{1, 500};
  const Time wall = walltime(&epochPlusOne, 1000);
  EXPECT_TRUE(wall.isWallClock());
  EXPECT_EQ(wall.toSystem().time_since_epoch(), 1s + 1500ns);
  EXPECT_TRUE(time(wall, 1).isWallClock());
  EXPECT_LE(wall.remaining().count(), 0) << "1970 has passed";
  EXPECT_EQ(walltime(&epochPlusOne, -3 * NSEC_PER_SEC).toSystem().time_since_epoch(), 0s);

  const Time inAMinute = walltime(nullptr, 60 * NSEC_PER_SEC);
  EXPECT_GT(inAMinute.toSteady(), std::chrono::steady_clock::now() + 59s);
  EXPECT_LE(inAMinute.toSteady(), std::chrono::steady_clock::now() + 60s);
  EXPECT_EQ(Time(std::chrono::system_clock::time_point(5s)).toSystem().time_since_epoch(), 5s);
}
