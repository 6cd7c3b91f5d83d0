#include "fennick/Dispatch/Internal/WorkerPool.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <system_error>
#include <thread>

#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/GlobalQueue.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch::internal {
namespace {

thread_local bool isWorkerThread = false;

// A searching worker polls the roots this many times before it parks: long
// enough to catch the next submission of a busy producer, short enough not to
// burn a core that the producer needs.
constexpr int kSpinRounds = 64;
constexpr int kRelaxPerRound = 16;

struct ClassInfo {
  qos_class_t qos;
  const char* label;
};

// Ordered by priority: workers look at the last root first.
constexpr ClassInfo kClasses[WorkerPool::kClassCount] = {
    {QOS_CLASS_BACKGROUND, "fennick.global.background"},
    {QOS_CLASS_UTILITY, "fennick.global.utility"},
    {QOS_CLASS_DEFAULT, "fennick.global.default"},
    {QOS_CLASS_USER_INITIATED, "fennick.global.user-initiated"},
    {QOS_CLASS_USER_INTERACTIVE, "fennick.global.user-interactive"},
};

}  // namespace

WorkerPool& WorkerPool::shared() {
  static WorkerPool* pool = new WorkerPool;
  return *pool;
}

WorkerPool::WorkerPool()
    : maxRunning_(std::max(2, static_cast<int>(std::thread::hardware_concurrency()))) {
  for (int index = 0; index < kClassCount; ++index) {
    roots_[index].queue =
        std::make_shared<GlobalQueue>(kClasses[index].label, kClasses[index].qos, index);
  }
}

int WorkerPool::indexOf(qos_class_t qos) noexcept {
  if (qos == QOS_CLASS_UNSPECIFIED) qos = QOS_CLASS_DEFAULT;
  for (int index = 0; index < kClassCount; ++index) {
    if (kClasses[index].qos == qos) return index;
  }
  return -1;
}

bool WorkerPool::onWorkerThread() noexcept { return isWorkerThread; }

void WorkerPool::push(int index, WorkItem* item, bool wake) {
  Root& root = roots_[index];
  root.items.push(item);
  root.size.fetch_add(1, std::memory_order_seq_cst);
  if (wake) notifyWork();
}

bool WorkerPool::hasQueuedWork() const noexcept {
  for (const Root& root : roots_) {
    if (root.size.load(std::memory_order_seq_cst) > 0) return true;
  }
  return false;
}

void WorkerPool::notifyWork() noexcept {
  if (searching_.load(std::memory_order_seq_cst) > 0) return;
  if (running_.load(std::memory_order_seq_cst) >= maxRunning_) return;
  int idle = idle_.load(std::memory_order_seq_cst);
  while (idle > 0) {
    if (idle_.compare_exchange_weak(idle, idle - 1, std::memory_order_seq_cst)) {
      running_.fetch_add(1, std::memory_order_seq_cst);
      searching_.fetch_add(1, std::memory_order_seq_cst);
      tokens_.fetch_add(1, std::memory_order_release);
      futexWake(tokens_, 1);
      return;
    }
  }
  spawnWorker();
}

void WorkerPool::spawnWorker() noexcept {
  int threads = threads_.load(std::memory_order_relaxed);
  do {
    if (threads >= kMaxThreads) return;
  } while (!threads_.compare_exchange_weak(threads, threads + 1, std::memory_order_relaxed));
  running_.fetch_add(1, std::memory_order_seq_cst);
  searching_.fetch_add(1, std::memory_order_seq_cst);
  try {
    std::thread([this] { workerMain(); }).detach();
  } catch (const std::system_error&) {
    // Out of threads: the running workers will get to the work in time.
    searching_.fetch_sub(1, std::memory_order_seq_cst);
    running_.fetch_sub(1, std::memory_order_seq_cst);
    threads_.fetch_sub(1, std::memory_order_relaxed);
  }
}

WorkItem* WorkerPool::tryPop(int& index) noexcept {
  for (index = kClassCount - 1; index >= 0; --index) {
    Root& root = roots_[index];
    if (root.size.load(std::memory_order_acquire) <= 0) continue;
    if (root.popping.exchange(true, std::memory_order_acquire)) continue;
    WorkItem* item = root.items.pop();
    root.popping.store(false, std::memory_order_release);
    if (item != nullptr) {
      root.size.fetch_sub(1, std::memory_order_relaxed);
      return item;
    }
  }
  return nullptr;
}

WorkItem* WorkerPool::search(int& index) noexcept {
  for (int round = 0; round < kSpinRounds; ++round) {
    if (WorkItem* item = tryPop(index)) return item;
    if (round % 8 == 7) {
      sched_yield();
    } else {
      for (int relax = 0; relax < kRelaxPerRound; ++relax) cpuRelax();
    }
  }
  return nullptr;
}

void WorkerPool::run(WorkItem* item, int index) noexcept {
  QueueCore* queue = &QueueCore::of(*roots_[index].queue);
  FrameScope scope(queue);
  runItem(item, queue);
}

void WorkerPool::workerMain() noexcept {
  isWorkerThread = true;
  pthread_setname_np(pthread_self(), "fennick-worker");
  // The spawner counted this worker as running and searching.
  for (;;) {
    int index = 0;
    WorkItem* item = search(index);
    const bool lastSearcher = searching_.fetch_sub(1, std::memory_order_seq_cst) == 1;
    if (item == nullptr) {
      running_.fetch_sub(1, std::memory_order_seq_cst);
      if (!park()) break;
      continue;
    }
    if (lastSearcher && hasQueuedWork()) notifyWork();
    do {
      run(item, index);
    } while ((item = tryPop(index)) != nullptr);
    searching_.fetch_add(1, std::memory_order_seq_cst);
  }
  threads_.fetch_sub(1, std::memory_order_relaxed);
}

bool WorkerPool::leaveIdle() noexcept {
  int idle = idle_.load(std::memory_order_seq_cst);
  while (idle > 0) {
    if (idle_.compare_exchange_weak(idle, idle - 1, std::memory_order_seq_cst)) return true;
  }
  return false;
}

// Returns true when the worker should search again (counted as running and
// searching), false when it should retire.
bool WorkerPool::park() noexcept {
  idle_.fetch_add(1, std::memory_order_seq_cst);
  if (hasQueuedWork() && leaveIdle()) {
    running_.fetch_add(1, std::memory_order_seq_cst);
    searching_.fetch_add(1, std::memory_order_seq_cst);
    return true;
  }
  // From here on, either a waker claims this worker (it then accounts for it
  // and posts a token) or the worker leaves on its own with leaveIdle().
  auto deadline = std::chrono::steady_clock::now() + kIdleTimeout;
  for (;;) {
    std::uint32_t tokens = tokens_.load(std::memory_order_acquire);
    if (tokens > 0) {
      if (tokens_.compare_exchange_weak(tokens, tokens - 1, std::memory_order_acquire)) {
        return true;
      }
      continue;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < deadline) {
      futexWaitFor(tokens_, 0, deadline - now);
      continue;
    }
    if (leaveIdle()) {
      if (!hasQueuedWork()) return false;
      running_.fetch_add(1, std::memory_order_seq_cst);
      searching_.fetch_add(1, std::memory_order_seq_cst);
      return true;
    }
    // Every idle worker has been claimed: a token is on its way.
    deadline = now + std::chrono::milliseconds(10);
  }
}

void WorkerPool::willBlock() noexcept {
  running_.fetch_sub(1, std::memory_order_seq_cst);
  if (hasQueuedWork()) notifyWork();
}

void WorkerPool::didUnblock() noexcept { running_.fetch_add(1, std::memory_order_seq_cst); }

}  // namespace fennick::dispatch::internal
