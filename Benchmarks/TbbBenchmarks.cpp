// Dispatch queues against oneTBB: a task_arena of concurrency 1 is TBB's
// serial executor, and parallel_for its answer to apply().
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Comparison.h"
#include "fennick/Dispatch/Queue.h"

namespace {

using fennick::Ref;
using fennick::dispatch::Queue;

constexpr int kSerialBlocks = 1'000'000;
constexpr int kQueueCount = 1'000;
constexpr int kBlocksPerQueue = 1'000;
constexpr std::size_t kApplyItems = 10'000'000;

// The TBB side counts its blocks: an arena does not promise to run its tasks
// in order, so the task that brings the count to the end reports completion.
class Completion {
 public:
  void reset() { done_.store(false); }
  void arrive() {
    done_.store(true, std::memory_order_release);
    done_.notify_one();
  }
  void wait() { done_.wait(false, std::memory_order_acquire); }
 private:
  std::atomic<bool> done_{false};
};

// serial_async_vs_tbb_arena: one producer, one serial executor, 1,000,000
// blocks, until the last one has run.

void serialAsyncFennick(benchmark::State& state) {
  auto queue = Queue::createSerial("bench.tbb.serial");
  std::atomic<int> ran{0};
  for (auto _ : state) {
    ran.store(0);
    for (int i = 0; i < kSerialBlocks; ++i) queue->async([&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
    queue->sync([] {});
    if (ran.load() != kSerialBlocks) state.SkipWithError("blocks lost");
  }
}

void serialAsyncTbb(benchmark::State& state) {
  tbb::task_arena arena(1, 0);
  std::atomic<int> ran{0};
  Completion completion;
  for (auto _ : state) {
    ran.store(0);
    completion.reset();
    for (int i = 0; i < kSerialBlocks; ++i) {
      arena.enqueue([&] {
        if (ran.fetch_add(1, std::memory_order_relaxed) + 1 == kSerialBlocks) completion.arrive();
      });
    }
    completion.wait();
  }
}

FENNICK_COMPARISON(serial_async_vs_tbb_arena, serialAsyncFennick, serialAsyncTbb, .goal = 1.5);

// many_serial_queues_vs_tbb_arenas: 1,000 serial executors fed round-robin
// with 1,000 blocks each, until every one has run all of its blocks.

struct Counted {
  std::atomic<int> ran{0};
};

// Feeds executor q its blocks through `submit(q, block)`, a round at a time
// across all of them, and waits until each has run all of its blocks.
template <class Submit>
void feedRoundRobin(Counted* counters, Submit submit) {
  std::atomic<int> queuesLeft{kQueueCount};
  Completion completion;
  for (int q = 0; q < kQueueCount; ++q) counters[q].ran.store(0);
  for (int round = 0; round < kBlocksPerQueue; ++round) {
    for (int q = 0; q < kQueueCount; ++q) {
      submit(q, [&, counter = &counters[q]] {
        if (counter->ran.fetch_add(1, std::memory_order_relaxed) + 1 == kBlocksPerQueue &&
            queuesLeft.fetch_sub(1, std::memory_order_acq_rel) == 1) {
          completion.arrive();
        }
      });
    }
  }
  completion.wait();
}

void manyQueuesFennick(benchmark::State& state) {
  std::vector<Ref<Queue>> queues;
  for (int i = 0; i < kQueueCount; ++i) queues.push_back(Queue::createSerial("bench.tbb.many"));
  auto counters = std::make_unique<Counted[]>(kQueueCount);
  for (auto _ : state) {
    feedRoundRobin(counters.get(), [&](int q, auto block) { queues[q]->async(std::move(block)); });
  }
}

void manyQueuesTbb(benchmark::State& state) {
  std::vector<std::unique_ptr<tbb::task_arena>> arenas;
  for (int i = 0; i < kQueueCount; ++i) arenas.push_back(std::make_unique<tbb::task_arena>(1, 0));
  auto counters = std::make_unique<Counted[]>(kQueueCount);
  for (auto _ : state) {
    feedRoundRobin(counters.get(), [&](int q, auto block) { arenas[q]->enqueue(std::move(block)); });
  }
}

FENNICK_COMPARISON(many_serial_queues_vs_tbb_arenas, manyQueuesFennick, manyQueuesTbb, .goal = 1.5,
                   .iterations = 2);

// apply_vs_tbb_parallel_for: 10,000,000 trivial items over every core.

std::vector<std::uint32_t>& applyTarget() {
  static std::vector<std::uint32_t> values(kApplyItems);
  return values;
}

void applyFennick(benchmark::State& state) {
  auto& values = applyTarget();
  auto queue = fennick::dispatch::global();
  for (auto _ : state) {
    queue->apply(kApplyItems, [&values](std::size_t index) { values[index] = static_cast<std::uint32_t>(index * 3); });
    benchmark::DoNotOptimize(values.data());
  }
}

void applyTbb(benchmark::State& state) {
  auto& values = applyTarget();
  for (auto _ : state) {
    tbb::parallel_for(std::size_t{0}, kApplyItems,
                      [&values](std::size_t index) { values[index] = static_cast<std::uint32_t>(index * 3); });
    benchmark::DoNotOptimize(values.data());
  }
}

FENNICK_COMPARISON(apply_vs_tbb_parallel_for, applyFennick, applyTbb, .goal = 0.8);

}  // namespace
