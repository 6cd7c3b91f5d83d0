#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Dispatch/TestSupport.h"
#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Internal/QueueCore.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick;
using namespace fennick::dispatch;
using fennick::dispatch::testing::eventually;
using fennick::dispatch::testing::sleepsInTheKernel;

TEST(Queue, SerialQueueRunsBlocksInOrderAndSyncWaitsForThem) {
  auto queue = Queue::createSerial("order");
  std::vector<int> seen;
  for (int i = 0; i < 1000; ++i) queue->async([&seen, i] { seen.push_back(i); });
  const std::size_t countAtSync = queue->sync([&seen] { return seen.size(); });
  ASSERT_EQ(countAtSync, 1000u);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(seen[i], i);
}

TEST(Queue, SyncRunsOnTheCallingThreadAndPassesResultsAndExceptions) {
  auto queue = Queue::createSerial("sync");
  const auto caller = std::this_thread::get_id();
  EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }), caller);
  EXPECT_EQ(Queue::createConcurrent("inline")->sync([] { return std::this_thread::get_id(); }), caller);
  EXPECT_EQ(global()->sync([] { return std::this_thread::get_id(); }), caller);
  int value = 1;
  int& reference = queue->sync([&value]() -> int& { return value; });
  EXPECT_EQ(&reference, &value);
  EXPECT_THROW(queue->sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_EQ(queue->sync([] { return 7; }), 7) << "the queue is released after an exception";
}

TEST(Queue, GlobalQueuesAreSharedPerClass) {
  EXPECT_EQ(global(QOS_CLASS_UTILITY), global(QOS_CLASS_UTILITY));
  EXPECT_EQ(global(QOS_CLASS_UNSPECIFIED), global(QOS_CLASS_DEFAULT));
  EXPECT_NE(global(QOS_CLASS_UTILITY), global(QOS_CLASS_BACKGROUND));
  EXPECT_EQ(global(5), nullptr);
  EXPECT_FALSE(global(QOS_CLASS_UTILITY)->isSerial());
  EXPECT_EQ(global(QOS_CLASS_UTILITY)->target(), nullptr);
  auto queue = Queue::createSerial("utility", QOS_CLASS_UTILITY);
  EXPECT_EQ(queue->target(), global(QOS_CLASS_UTILITY));
  EXPECT_EQ(Queue::createSerial("odd", 77)->qos(), QOS_CLASS_UNSPECIFIED);
}

TEST(Queue, ConcurrentQueueRunsBlocksInParallel) {
  auto queue = Queue::createConcurrent("parallel");
  struct Shared {
    std::atomic<int> arrived{0};
    std::atomic<int> metEachOther{0};
  };
  auto shared = std::make_shared<Shared>();
  for (int i = 0; i < 2; ++i) {
    queue->async([shared] {
      shared->arrived.fetch_add(1);
      if (eventually([&] { return shared->arrived.load() == 2; })) shared->metEachOther.fetch_add(1);
    });
  }
  EXPECT_TRUE(eventually([&] { return shared->metEachOther.load() == 2; }));
}

TEST(Queue, PendingWorkKeepsAReleasedQueueAlive) {
  auto ran = std::make_shared<std::atomic<int>>(0);
  auto gate = std::make_shared<std::atomic<bool>>(false);
  WeakRef<Queue> weak;
  {
    auto parent = Queue::createSerial("parent");
    auto queue = Queue::createSerial("released", QOS_CLASS_UNSPECIFIED, parent);
    weak = queue;
    parent->async([gate] { eventually([&] { return gate->load(); }); });
    for (int i = 0; i < 100; ++i) queue->async([ran] { ran->fetch_add(1); });
  }
  EXPECT_FALSE(weak.expired()) << "its blocks wait behind the parent's";
  *gate = true;
  EXPECT_TRUE(eventually([&] { return ran->load() == 100 && weak.expired(); }));
}

TEST(Queue, CurrentQueueAndSpecificsFollowTheTargetChain) {
  static const char key = 0;
  static const char otherKey = 0;
  int rootValue = 1;
  int middleValue = 2;
  auto root = Queue::createSerial("root");
  auto middle = Queue::createConcurrent("middle", QOS_CLASS_UNSPECIFIED, root);
  auto leaf = Queue::createSerial("leaf", QOS_CLASS_UNSPECIFIED, middle);
  auto unrelated = Queue::createSerial("unrelated");
  root->setSpecific(&key, &rootValue);

  const auto check = [&](void* expected) {
    EXPECT_EQ(Queue::current(), leaf);
    EXPECT_TRUE(leaf->isCurrent());
    EXPECT_TRUE(middle->isCurrent());
    EXPECT_TRUE(root->isCurrent());
    EXPECT_FALSE(unrelated->isCurrent());
    EXPECT_EQ(Queue::getSpecificCurrent(&key), expected);
    EXPECT_EQ(Queue::getSpecificCurrent(&otherKey), nullptr);
  };
  leaf->sync([&] { check(&rootValue); });
  middle->setSpecific(&key, &middleValue);
  leaf->sync([&] { check(&middleValue); });
  auto done = Group::create();
  done->async(leaf, [&] { check(&middleValue); });
  EXPECT_TRUE(done->wait(Time::after(std::chrono::seconds(20))));
  EXPECT_EQ(leaf->getSpecific(&key), nullptr);
  EXPECT_EQ(middle->getSpecific(&key), &middleValue);

  std::thread([&] {
    EXPECT_EQ(Queue::current(), nullptr);
    EXPECT_FALSE(root->isCurrent());
  }).join();
}

TEST(Queue, SpecificDestructorsRunOnReplacementAndRelease) {
  static const char key = 0;
  static std::vector<int> destroyed;
  destroyed.clear();
  auto destroy = [](void* value) { destroyed.push_back(*static_cast<int*>(value)); };
  int first = 1, second = 2;
  auto queue = Queue::createSerial("specifics");
  queue->setSpecific(&key, &first, destroy);
  queue->setSpecific(&key, &second, destroy);
  EXPECT_EQ(destroyed, std::vector<int>{1});
  EXPECT_EQ(queue->getSpecific(&key), &second);
  queue.reset();
  EXPECT_EQ(destroyed, (std::vector<int>{1, 2}));
}

TEST(Queue, SetTargetMovesLaterWork) {
  auto first = Queue::createSerial("first");
  auto second = Queue::createSerial("second");
  auto queue = Queue::createSerial("moving", QOS_CLASS_UNSPECIFIED, first);
  queue->setTarget(second);
  EXPECT_EQ(queue->target(), second);
  EXPECT_TRUE(queue->sync([&] { return second->isCurrent() && !first->isCurrent(); }));
  auto done = Group::create();
  std::atomic<bool> onSecond{false};
  done->async(queue, [&] { onSecond = second->isCurrent(); });
  EXPECT_TRUE(done->wait(Time::FOREVER));
  EXPECT_TRUE(onSecond);
  queue->setTarget(nullptr);
  EXPECT_EQ(queue->target(), global(QOS_CLASS_UNSPECIFIED));
}

// Eight threads submit numbered blocks, async and sync, to serial queues that
// all drain on one root through a chain. Nothing may run at the same time and
// each thread's blocks must run in its submission order, per queue.
TEST(Queue, MixedAsyncAndSyncAcrossATargetChainStayExclusiveAndOrdered) {
  constexpr int kThreads = 8;
  constexpr int kOperations = 1500;
  auto root = Queue::createSerial("stress.root");
  auto left = Queue::createSerial("stress.left", QOS_CLASS_UNSPECIFIED, root);
  auto right = Queue::createSerial("stress.right", QOS_CLASS_UTILITY, root);
  auto leftLeaf = Queue::createSerial("stress.leaf", QOS_CLASS_UNSPECIFIED, left);
  auto fanOut = Queue::createConcurrent("stress.fan-out", QOS_CLASS_UNSPECIFIED, root);
  const std::vector<Ref<Queue>> queues{root, left, right, leftLeaf, fanOut};

  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> executed{0};
  // Touched only inside the blocks: their exclusion is what protects them.
  std::vector<std::vector<int>> lastSeen(kThreads, std::vector<int>(queues.size(), -1));
  int outOfOrder = 0;

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int op = 0; op < kOperations; ++op) {
        const std::size_t q = random() % queues.size();
        auto block = [&, t, q, op] {
          if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
          if (lastSeen[t][q] >= op) ++outOfOrder;
          lastSeen[t][q] = op;
          executed.fetch_add(1);
          inside.fetch_sub(1);
        };
        if (random() % 4 == 0) {
          queues[q]->sync(block);
        } else {
          queues[q]->async(block);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& queue : {leftLeaf, left, right, root}) queue->sync([] {});
  EXPECT_EQ(executed.load(), kThreads * kOperations);
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(root->sync([&] { return outOfOrder; }), 0);
}

// Threads that submit a few hundred blocks and exit hand their item memory back
// at exit; every count, including exact multiples of the allocator's batch,
// must leave each block intact and in order.
TEST(Queue, ShortLivedSubmittersLoseAndCorruptNothing) {
  auto queue = Queue::createSerial("short-lived");
  std::vector<int> expectedNext(400, 0);
  int corrupted = 0;
  for (int thread = 0; thread < 400; ++thread) {
    std::thread([&, thread] {
      for (int seq = 0; seq <= thread; ++seq) {
        queue->async([&, thread, seq] {
          if (expectedNext[thread] != seq) ++corrupted;
          expectedNext[thread] = seq + 1;
        });
      }
      queue->sync([] {});
    }).join();
  }
  queue->sync([] {});
  EXPECT_EQ(corrupted, 0);
  for (int thread = 0; thread < 400; ++thread) ASSERT_EQ(expectedNext[thread], thread + 1);
}

// Every worker that blocks in sync must let the pool start another one, or the
// block that unblocks them would never get a thread.
TEST(Queue, SixtyFourBlockingSyncCallsFromWorkersAllComplete) {
  constexpr int kCallers = 64;
  auto busy = Queue::createSerial("busy");
  struct Shared {
    std::atomic<int> waiting{0};
    std::atomic<int> completed{0};
  };
  auto shared = std::make_shared<Shared>();
  busy->async([shared] { eventually([&] { return shared->waiting.load() == kCallers; }); });
  auto pool = global(QOS_CLASS_DEFAULT);
  for (int i = 0; i < kCallers; ++i) {
    pool->async([shared, busy] {
      shared->waiting.fetch_add(1);
      busy->sync([&] { shared->completed.fetch_add(1); });
    });
  }
  EXPECT_TRUE(eventually([&] { return shared->completed.load() == kCallers; }));
}

// Two threads point two queues at each other at the same moment. One of them
// must see the other's change: two successes would close a loop that every
// walk along the chain (current-queue look-ups, sync) would never leave.
TEST(Queue, RacingRetargetsNeverCloseACycle) {
  using detail::QueueCore;
  for (int round = 0; round < 1000; ++round) {
    auto a = Queue::createSerial("race.a");
    auto b = Queue::createSerial("race.b");
    std::atomic<int> ready{0};
    bool bToA = false;
    std::thread other([&] {
      ready.fetch_add(1);
      while (ready.load() < 2) std::this_thread::yield();
      bToA = QueueCore::of(*b).retarget(a);
    });
    ready.fetch_add(1);
    while (ready.load() < 2) std::this_thread::yield();
    const bool aToB = QueueCore::of(*a).retarget(b);
    other.join();
    ASSERT_NE(aToB, bToA) << "round " << round;
  }
}

class QueueDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(QueueDeathTest, SyncOntoAHeldQueueAbortsNamingIt) {
  auto queue = Queue::createSerial("com.example.held");
  EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }), "com.example.held");
  auto parent = Queue::createSerial("com.example.parent");
  auto child = Queue::createSerial("com.example.child", QOS_CLASS_UNSPECIFIED, parent);
  EXPECT_DEATH(parent->sync([&] { child->sync([] {}); }), "com.example.child.*com.example.parent");
  EXPECT_DEATH(
      {
        queue->async([&] { queue->sync([] {}); });
        std::this_thread::sleep_for(std::chrono::seconds(10));
      },
      "com.example.held");
}

TEST_F(QueueDeathTest, AnExceptionEscapingABlockNamesTheQueueAndTheError) {
  EXPECT_DEATH(
      {
        Queue::createSerial("com.example.thrower")->async([] { throw std::runtime_error("disk on fire"); });
        std::this_thread::sleep_for(std::chrono::seconds(10));
      },
      "com.example.thrower.*disk on fire");
  EXPECT_DEATH(
      {
        Queue::createConcurrent("com.example.wide")->async([] { throw 42; });
        std::this_thread::sleep_for(std::chrono::seconds(10));
      },
      "com.example.wide.*not a std::exception");
}

TEST_F(QueueDeathTest, TargetCyclesAndEmptyBlocksAbort) {
  auto first = Queue::createSerial("com.example.first");
  auto second = Queue::createSerial("com.example.second", QOS_CLASS_UNSPECIFIED, first);
  EXPECT_DEATH(first->setTarget(second), "cycle.*com.example.first");
  EXPECT_DEATH(first->async(Block()), "empty block.*com.example.first");
  EXPECT_DEATH(global(QOS_CLASS_DEFAULT)->setTarget(first), "cannot change the target");
}

// Every worker is stuck on a condition that only the second of two sync
// callers can satisfy. The first caller's release must hand the queue to the
// second directly: waiting for a free worker to do it would never end.
TEST(Queue, WaitingSyncCallersTakeOverWithoutAFreeWorker) {
  auto queue = Queue::createSerial("com.example.handover");
  // Shared with the workers, which may still be leaving when the test ends.
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    bool secondDone = false;
    std::atomic<int> blockedWorkers{0};
  };
  auto shared = std::make_shared<Shared>();
  const int workers = static_cast<int>(std::thread::hardware_concurrency()) + 2;
  for (int i = 0; i < workers; ++i)
    global(QOS_CLASS_DEFAULT)->async([shared] {
      ++shared->blockedWorkers;
      {
        std::unique_lock lock(shared->mutex);
        shared->changed.wait_for(lock, std::chrono::seconds(10), [&] { return shared->secondDone; });
      }
      --shared->blockedWorkers;
    });
  ASSERT_TRUE(eventually([&] { return shared->blockedWorkers >= 1; }));

  std::atomic<bool> firstHolds{false};
  std::atomic<pid_t> secondThread{0};
  std::thread first([&] {
    queue->sync([&] {
      firstHolds = true;
      // The second caller is in line once it sleeps: it does nothing else that sleeps.
      EXPECT_TRUE(eventually([&] { return sleepsInTheKernel(secondThread.load()); }));
    });
  });
  ASSERT_TRUE(eventually([&] { return firstHolds.load(); }));
  std::thread second([&] {
    secondThread = static_cast<pid_t>(gettid());
    queue->sync([] {});
    std::lock_guard lock(shared->mutex);
    shared->secondDone = true;
    shared->changed.notify_all();
  });
  {
    // Without the direct hand-over this wait runs out (the workers give up only later).
    std::unique_lock lock(shared->mutex);
    EXPECT_TRUE(shared->changed.wait_for(lock, std::chrono::seconds(5), [&] { return shared->secondDone; }));
  }
  second.join();
  first.join();
  EXPECT_TRUE(eventually([&] { return shared->blockedWorkers == 0; }));
}
