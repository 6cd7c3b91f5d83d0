// Barriers, suspension, inactive queues, after() and apply(), each hammered
// from eight threads where that can break something.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Dispatch/TestSupport.h"
#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;
using fennick::dispatch::testing::eventually;

namespace {

constexpr int kThreads = 8;

void onThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

}  // namespace

// Every thread interleaves plain blocks with barriers (async and sync). A
// barrier runs alone, after every block its thread submitted before it, and
// before any block its thread submits after it.
TEST(Barrier, RunsAloneAfterEarlierBlocksAndBeforeLaterOnes) {
  constexpr int kRounds = 150;
  struct Shared {
    std::atomic<int> plainInside{0};
    std::atomic<int> barrierInside{0};
    std::atomic<int> violations{0};
    std::atomic<int> plainDone[kThreads] = {};
    std::atomic<int> barriersDone[kThreads] = {};
  };
  auto shared = std::make_shared<Shared>();
  auto queue = Queue::createConcurrent("barrier.stress");
  onThreads(kThreads, [&](int t) {
    int plainSubmitted = 0;
    for (int round = 0; round < kRounds; ++round) {
      for (int i = 0; i < 3; ++i, ++plainSubmitted) {
        queue->async([shared, t, round] {
          if (shared->barrierInside.load() != 0) shared->violations.fetch_add(1);
          if (shared->barriersDone[t].load() < round) shared->violations.fetch_add(1);
          shared->plainInside.fetch_add(1);
          std::this_thread::yield();
          shared->plainInside.fetch_sub(1);
          shared->plainDone[t].fetch_add(1);
        });
      }
      auto barrier = [shared, t, before = plainSubmitted] {
        if (shared->barrierInside.fetch_add(1) != 0) shared->violations.fetch_add(1);
        if (shared->plainInside.load() != 0) shared->violations.fetch_add(1);
        if (shared->plainDone[t].load() != before) shared->violations.fetch_add(1);
        shared->barrierInside.fetch_sub(1);
        shared->barriersDone[t].fetch_add(1);
      };
      if (round % 3 == 0) {
        queue->barrierSync(barrier);
      } else {
        queue->barrierAsync(barrier);
      }
    }
  });
  queue->barrierSync([] {});
  EXPECT_EQ(shared->violations.load(), 0);
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(shared->plainDone[t].load(), 3 * kRounds);
    EXPECT_EQ(shared->barriersDone[t].load(), kRounds);
  }
}

// A suspended queue runs nothing, keeps everything, and a sync onto it waits;
// suspensions nest. Serial queues also keep each thread's order.
TEST(Suspend, NothingRunsWhileSuspendedAndNothingIsLost) {
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "concurrent");
    constexpr int kBlocks = 500;
    struct Shared {
      std::atomic<bool> running{false};
      std::atomic<int> ranWhileSuspended{0};
      std::atomic<int> ran{0};
      std::atomic<int> outOfOrder{0};
      int lastSeen[kThreads];
    };
    auto shared = std::make_shared<Shared>();
    std::fill(std::begin(shared->lastSeen), std::end(shared->lastSeen), -1);
    auto queue = serial ? Queue::createSerial("suspend.serial") : Queue::createConcurrent("suspend.concurrent");
    queue->suspend();
    queue->suspend();
    const auto submit = [&](int t) {
      for (int i = 0; i < kBlocks; ++i) {
        queue->async([shared, serial, t, i] {
          if (!shared->running.load()) shared->ranWhileSuspended.fetch_add(1);
          if (serial) {
            if (shared->lastSeen[t] >= i) shared->outOfOrder.fetch_add(1);
            shared->lastSeen[t] = i;
          }
          shared->ran.fetch_add(1);
        });
      }
    };
    std::atomic<bool> syncRan{false};
    std::thread syncCaller([&] {
      queue->sync([&] {
        if (!shared->running.load()) shared->ranWhileSuspended.fetch_add(1);
        syncRan = true;
      });
    });
    onThreads(kThreads / 2, submit);
    queue->resume();  // still suspended once
    onThreads(kThreads / 2, [&](int t) { submit(t + kThreads / 2); });
    EXPECT_EQ(shared->ran.load(), 0);
    EXPECT_FALSE(syncRan.load());
    shared->running = true;
    queue->resume();
    syncCaller.join();
    queue->barrierSync([] {});
    EXPECT_EQ(shared->ran.load(), kThreads * kBlocks);
    EXPECT_EQ(shared->ranWhileSuspended.load(), 0);
    EXPECT_EQ(shared->outOfOrder.load(), 0);
  }
}

// A block that suspends its own serial queue is the last to run until resume.
TEST(Suspend, TakesEffectAfterTheRunningBlock) {
  auto queue = Queue::createSerial("suspend.self");
  auto ran = std::make_shared<std::atomic<int>>(0);
  queue->async([queue, ran] {
    queue->suspend();
    ran->fetch_add(1);
  });
  for (int i = 0; i < 10; ++i) queue->async([ran] { ran->fetch_add(1); });
  ASSERT_TRUE(eventually([&] { return ran->load() >= 1; }));
  EXPECT_EQ(ran->load(), 1);
  queue->resume();
  queue->sync([] {});
  EXPECT_EQ(ran->load(), 11);
}

TEST(Inactive, KeepsWorkUntilActivatedOnce) {
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "concurrent");
    auto target = Queue::createSerial("inactive.target");
    auto queue = serial ? Queue::createInactiveSerial("inactive.serial")
                        : Queue::createInactiveConcurrent("inactive.concurrent");
    auto ran = std::make_shared<std::atomic<int>>(0);
    auto onTarget = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < 100; ++i) {
      queue->async([ran, onTarget, target] {
        ran->fetch_add(1);
        if (target->isCurrent()) onTarget->fetch_add(1);
      });
    }
    queue->setTarget(target);
    queue->suspend();
    queue->resume();
    EXPECT_EQ(ran->load(), 0);
    queue->activate();
    queue->activate();
    queue->barrierSync([] {});
    EXPECT_EQ(ran->load(), 100);
    EXPECT_EQ(onTarget->load(), 100);
  }
}

// Deadlines hold on both clocks, in order on each, with one reactor thread
// for any number of them; FOREVER releases the block at once.
TEST(After, RunsEachBlockAtItsTimeInDeadlineOrder) {
  auto queue = Queue::createSerial("after.order");
  struct Shared {
    std::mutex mutex;
    std::vector<int> order;
    int early = 0;
  };
  auto shared = std::make_shared<Shared>();
  const auto record = [shared](int tag, Time deadline) {
    return [shared, tag, deadline] {
      std::lock_guard lock(shared->mutex);
      if (deadline.remaining().count() > 0) ++shared->early;
      shared->order.push_back(tag);
    };
  };
  const Time in30 = time(Time::NOW, 30 * NSEC_PER_MSEC);
  const Time in10 = time(Time::NOW, 10 * NSEC_PER_MSEC);
  const Time wallIn20 = walltime(nullptr, 20 * NSEC_PER_MSEC);
  queue->after(in30, record(30, in30));
  queue->after(in10, record(10, in10));
  queue->after(wallIn20, record(20, wallIn20));
  queue->after(Time::NOW, record(0, Time::NOW));
  // A test thread held up for longer than the shortest delay submits work
  // that is already due, and the order it gets says nothing about after().
  const bool submittedInTime = in10.remaining().count() > 0;

  auto many = std::make_shared<std::atomic<int>>(0);
  for (int i = 0; i < 1000; ++i) {
    global()->after(time(Time::NOW, (i % 50) * NSEC_PER_MSEC), [many] { many->fetch_add(1); });
  }
  auto watched = std::make_shared<int>(0);
  queue->after(Time::FOREVER, [watched] {});
  EXPECT_EQ(watched.use_count(), 1) << "a block that can never run is released";

  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(shared->mutex);
    return shared->order.size() == 4;
  }));
  std::lock_guard lock(shared->mutex);
  // Deadlines on one clock keep their order; across the two clocks they can
  // meet when the reactor is late, so only the monotonic ones are compared.
  std::vector<int> monotonic;
  std::copy_if(shared->order.begin(), shared->order.end(), std::back_inserter(monotonic),
               [](int tag) { return tag != 20; });
  if (submittedInTime) {
    EXPECT_EQ(monotonic, (std::vector<int>{0, 10, 30}));
  }
  EXPECT_EQ(shared->early, 0);
  EXPECT_TRUE(eventually([&] { return many->load() == 1000; }));
}

// Every index runs exactly once, from many callers at once and from inside
// the pool itself; a serial queue runs them in order on the calling thread.
TEST(Apply, RunsEveryIndexOnceAndTheCallerTakesPart) {
  constexpr std::size_t kIterations = 20000;
  auto queue = Queue::createConcurrent("apply.wide");
  onThreads(kThreads, [&](int) {
    std::vector<std::atomic<int>> hits(kIterations);
    queue->apply(kIterations, [&](std::size_t index) { hits[index].fetch_add(1, std::memory_order_relaxed); });
    for (const auto& hit : hits) ASSERT_EQ(hit.load(), 1);
  });

  // Nested inside blocks on every worker: the callers do the work themselves.
  auto group = Group::create();
  auto total = std::make_shared<std::atomic<std::size_t>>(0);
  for (int i = 0; i < 16; ++i) {
    group->async(global(), [total] {
      global()->apply(100, [&](std::size_t index) { total->fetch_add(index + 1); });
    });
  }
  ASSERT_TRUE(group->wait(Time::after(60s)));
  EXPECT_EQ(total->load(), 16u * 5050u);

  auto serial = Queue::createSerial("apply.serial");
  std::vector<std::size_t> order;
  const auto caller = std::this_thread::get_id();
  bool onCaller = true;
  serial->apply(50, [&](std::size_t index) {
    order.push_back(index);
    onCaller = onCaller && std::this_thread::get_id() == caller && serial->isCurrent();
  });
  EXPECT_EQ(order.size(), 50u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_TRUE(onCaller);
  serial->apply(0, [](std::size_t) { ADD_FAILURE() << "no iterations, no calls"; });
}

TEST(QueueControlDeathTest, MisuseAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = Queue::createConcurrent("com.example.control");
  EXPECT_DEATH(queue->resume(), "without a matching suspend.*com.example.control");
  EXPECT_DEATH(Queue::createInactiveSerial("com.example.idle")->resume(), "without a matching suspend");
  EXPECT_DEATH(global()->suspend(), "cannot suspend");
  EXPECT_DEATH(queue->sync([&] { queue->barrierSync([] {}); }), "would wait forever");
}
