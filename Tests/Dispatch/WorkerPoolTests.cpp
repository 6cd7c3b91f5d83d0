#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Dispatch/TestSupport.h"
#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Internal/WorkerPool.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;
using fennick::dispatch::testing::eventually;
using detail::WorkerPool;

// Blocks that wait in read() without telling the pool take every worker. The
// pool must notice and add threads, so that a block on an unrelated queue runs
// within a few ticks of its monitor, and every blocked block gets a thread.
TEST(WorkerPool, BlocksWaitingInReadDoNotHoldBackOtherQueues) {
  constexpr int kBlocked = 16;
  struct Shared {
    int pipes[kBlocked][2];
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    std::mutex mutex;
    std::condition_variable changed;
    std::chrono::steady_clock::duration delay{};
    bool otherRan = false;
  };
  auto shared = std::make_shared<Shared>();
  for (auto& ends : shared->pipes) ASSERT_EQ(pipe(ends), 0);
  for (int i = 0; i < kBlocked; ++i) {
    global(QOS_CLASS_UTILITY)->async([shared, i] {
      shared->started.fetch_add(1);
      char byte = 0;
      EXPECT_EQ(read(shared->pipes[i][0], &byte, 1), 1);
      shared->finished.fetch_add(1);
    });
  }
  const int workers = WorkerPool::shared().maxRunning();
  ASSERT_TRUE(eventually([&] { return shared->started.load() >= workers; }));

  const auto submitted = std::chrono::steady_clock::now();
  Queue::createSerial("unblocked")->async([shared, submitted] {
    std::lock_guard lock(shared->mutex);
    shared->delay = std::chrono::steady_clock::now() - submitted;
    shared->otherRan = true;
    shared->changed.notify_all();
  });
  {
    std::unique_lock lock(shared->mutex);
    ASSERT_TRUE(shared->changed.wait_for(lock, 20s, [&] { return shared->otherRan; }));
    const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(shared->delay);
    std::printf("a block on another queue waited %lld ms behind %d blocked readers\n",
                static_cast<long long>(delay.count()), kBlocked);
    EXPECT_LT(delay, 250ms);
  }
  EXPECT_TRUE(eventually([&] { return shared->started.load() == kBlocked; }))
      << "every blocked reader gets a thread";
  for (auto& ends : shared->pipes) ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_TRUE(eventually([&] { return shared->finished.load() == kBlocked; }));
  for (auto& ends : shared->pipes) {
    close(ends[0]);
    close(ends[1]);
  }
}

// Short blocks never sleep in the kernel, so however many arrive at once the
// pool keeps to one running thread per core. On a loaded machine a worker can
// still sleep around its block (a burst this large frees item slabs, and the
// allocator's lock may be held by a preempted producer) long enough for the
// monitor to take it for blocked; each such time may add one thread, and only
// those are allowed.
TEST(WorkerPool, ABurstOfShortBlocksStartsNoMoreThreadsThanCores) {
  WorkerPool& pool = WorkerPool::shared();
  const std::uint64_t presumedBefore = pool.presumedBlockedCount();
  const int before = pool.threadCount();
  auto group = Group::create();
  auto counter = std::make_shared<std::atomic<int>>(0);
  std::vector<std::thread> submitters;
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        group->async(global(), [counter] { counter->fetch_add(1, std::memory_order_relaxed); });
      }
    });
  }
  for (auto& submitter : submitters) submitter.join();
  ASSERT_TRUE(group->wait(Time::after(60s)));
  EXPECT_EQ(counter->load(), 80000);
  const auto presumed = static_cast<int>(pool.presumedBlockedCount() - presumedBefore);
  EXPECT_LE(pool.threadCount(), std::max(before, pool.maxRunning()) + presumed);
}
