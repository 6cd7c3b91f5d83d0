// Queue::apply: an indexed loop spread over the pool.
#include <algorithm>
#include <atomic>
#include <memory>

#include "fennick/Dispatch/Blocking.h"
#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/WorkerPool.h"
#include "fennick/Dispatch/Queue.h"

namespace fennick::dispatch {
namespace {

using Chunk = void (*)(void*, std::size_t, std::size_t);

// Chunks per participant: enough to even out uneven items, few enough that
// claiming a chunk stays a rounding error next to running it.
constexpr std::size_t kChunksPerParticipant = 8;

// Shared by the caller and its helpers. Helpers hold it by reference count,
// since one may start after the caller has returned; such a helper finds no
// chunk left and never touches the caller's function.
class Loop {
 public:
  Loop(std::size_t iterations, std::size_t chunk, Chunk function, void* context) noexcept
      : iterations_(iterations), chunk_(chunk), function_(function), context_(context) {}

  // Not noexcept: an exception from the function reaches runBlock(), which
  // names the queue before the process ends.
  void work() {
    for (;;) {
      const std::size_t begin = next_.fetch_add(chunk_, std::memory_order_relaxed);
      if (begin >= iterations_) return;
      const std::size_t end = std::min(begin + chunk_, iterations_);
      function_(context_, begin, end);
      const std::size_t count = end - begin;
      if (done_.fetch_add(count, std::memory_order_acq_rel) + count == iterations_) {
        finished_.store(1, std::memory_order_release);
        detail::futexWake(finished_, 1);
      }
    }
  }

  void wait() noexcept {
    for (int spin = 0; spin < 1024; ++spin) {
      if (finished_.load(std::memory_order_acquire) != 0) return;
      detail::cpuRelax();
    }
    BlockingScope blocking;
    while (finished_.load(std::memory_order_acquire) == 0) detail::futexWait(finished_, 0);
  }

 private:
  const std::size_t iterations_;
  const std::size_t chunk_;
  const Chunk function_;
  void* const context_;
  alignas(64) std::atomic<std::size_t> next_{0};
  alignas(64) std::atomic<std::size_t> done_{0};
  std::atomic<std::uint32_t> finished_{0};
};

// A chain that reaches a serial queue runs one block at a time.
bool drainsThroughSerial(const detail::QueueCore& queue) {
  for (const detail::QueueCore* link = &queue; link != nullptr; link = link->targetPointer()) {
    if (link->kind() == detail::QueueKind::Serial) return true;
  }
  return false;
}

}  // namespace

void Queue::applyInvoke(std::size_t iterations, Chunk chunk, void* context) {
  if (iterations == 0) return;
  detail::QueueCore& self = detail::QueueCore::of(*this);
  if (drainsThroughSerial(self)) {
    // One call at a time, on this thread, holding the queue as sync() does.
    sync([&] {
      Block loop([&] { chunk(context, 0, iterations); });
      detail::runBlock(loop);
    });
    return;
  }
  const std::size_t participants =
      std::min<std::size_t>(iterations, static_cast<std::size_t>(detail::WorkerPool::shared().maxRunning()));
  const std::size_t chunkSize =
      std::max<std::size_t>(1, iterations / (participants * kChunksPerParticipant));
  auto loop = std::make_shared<Loop>(iterations, chunkSize, chunk, context);
  for (std::size_t helper = 1; helper < participants; ++helper) {
    async([loop] { loop->work(); });
  }
  {
    detail::ChainScope scope(&self, nullptr);
    Block share([&loop] { loop->work(); });
    detail::runBlock(share);
  }
  loop->wait();
}

}  // namespace fennick::dispatch
