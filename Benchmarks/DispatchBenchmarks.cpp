// Dispatch queues against Asio strands on a thread pool of one thread per core.
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "Comparison.h"
#include "fennick/Dispatch/Queue.h"

namespace {

using fennick::Ref;
using fennick::dispatch::Queue;
using Strand = asio::strand<asio::thread_pool::executor_type>;

asio::thread_pool& peerPool() {
  static asio::thread_pool pool(std::max(1u, std::thread::hardware_concurrency()));
  return pool;
}

constexpr int kSerialBlocks = 2'000'000;
constexpr int kQueueCount = 1'000;
constexpr int kBlocksPerQueue = 1'000;

// serial_async_vs_asio_strand: one producer, one serial queue, empty blocks,
// until the last one has run.

void serialAsyncFennick(benchmark::State& state) {
  auto queue = Queue::createSerial("bench.serial-async");
  for (auto _ : state) {
    for (int i = 0; i < kSerialBlocks; ++i) queue->async([] {});
    queue->sync([] {});
  }
}

void serialAsyncPeer(benchmark::State& state) {
  Strand strand = asio::make_strand(peerPool().get_executor());
  for (auto _ : state) {
    for (int i = 0; i < kSerialBlocks; ++i) asio::post(strand, [] {});
    std::promise<void> lastRan;
    asio::post(strand, [&lastRan] { lastRan.set_value(); });
    lastRan.get_future().wait();
  }
}

FENNICK_COMPARISON(serial_async_vs_asio_strand, serialAsyncFennick, serialAsyncPeer, .goal = 2);

// sync_vs_asio_post_wait: one synchronous round trip through an idle queue.

void syncRoundTripFennick(benchmark::State& state) {
  auto queue = Queue::createSerial("bench.sync");
  int counter = 0;
  for (auto _ : state) {
    queue->sync([&counter] { ++counter; });
    benchmark::DoNotOptimize(counter);
  }
}

void syncRoundTripPeer(benchmark::State& state) {
  Strand strand = asio::make_strand(peerPool().get_executor());
  int counter = 0;
  for (auto _ : state) {
    std::promise<void> done;
    asio::post(strand, [&] {
      ++counter;
      done.set_value();
    });
    done.get_future().wait();
    benchmark::DoNotOptimize(counter);
  }
}

FENNICK_COMPARISON(sync_vs_asio_post_wait, syncRoundTripFennick, syncRoundTripPeer, .goal = 50);

// many_serial_queues_vs_asio_strands: 1,000 queues fed round-robin with 1,000
// blocks each; each queue's last block counts down, and the run ends when all
// queues have counted down.

class Countdown {
 public:
  void reset(int count) {
    remaining_.store(count);
    done_ = std::promise<void>();
  }
  void arrive() {
    if (remaining_.fetch_sub(1, std::memory_order_acq_rel) == 1) done_.set_value();
  }
  void wait() { done_.get_future().wait(); }

 private:
  std::atomic<int> remaining_{0};
  std::promise<void> done_;
};

void manyQueuesFennick(benchmark::State& state) {
  std::vector<Ref<Queue>> queues;
  for (int i = 0; i < kQueueCount; ++i) queues.push_back(Queue::createSerial("bench.many"));
  Countdown countdown;
  for (auto _ : state) {
    countdown.reset(kQueueCount);
    for (int round = 0; round < kBlocksPerQueue - 1; ++round) {
      for (const auto& queue : queues) queue->async([] {});
    }
    for (const auto& queue : queues) queue->async([&countdown] { countdown.arrive(); });
    countdown.wait();
  }
}

void manyQueuesPeer(benchmark::State& state) {
  std::vector<Strand> strands;
  for (int i = 0; i < kQueueCount; ++i) strands.push_back(asio::make_strand(peerPool().get_executor()));
  Countdown countdown;
  for (auto _ : state) {
    countdown.reset(kQueueCount);
    for (int round = 0; round < kBlocksPerQueue - 1; ++round) {
      for (auto& strand : strands) asio::post(strand, [] {});
    }
    for (auto& strand : strands) asio::post(strand, [&countdown] { countdown.arrive(); });
    countdown.wait();
  }
}

FENNICK_COMPARISON(many_serial_queues_vs_asio_strands, manyQueuesFennick, manyQueuesPeer, .goal = 1.5);

}  // namespace
