#include "fennick/Dispatch/Internal/WorkerPool.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>

#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/Futex.h"
#include "fennick/Dispatch/Internal/GlobalQueue.h"
#include "fennick/Dispatch/Internal/PoolMonitor.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch::detail {
namespace {

// The record of the worker running on this thread; null off the pool.
thread_local WorkerRecord* currentRecord = nullptr;
thread_local std::uint64_t currentSerial = 0;

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
    : monitor_(new PoolMonitor(*this)),
      maxRunning_(std::max(2, static_cast<int>(std::thread::hardware_concurrency()))) {
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

bool WorkerPool::onWorkerThread() noexcept { return currentRecord != nullptr; }

void WorkerPool::push(int index, WorkItem* item, bool wake) {
  Root& root = roots_[index];
  root.items.push(item);
  root.pushed.fetch_add(1, std::memory_order_seq_cst);
  if (wake) notifyWork();
}

bool WorkerPool::hasQueuedWork() const noexcept {
  for (const Root& root : roots_) {
    if (root.hasWork()) return true;
  }
  return false;
}

bool WorkerPool::reserveRunning() noexcept {
  int running = running_.load(std::memory_order_seq_cst);
  do {
    if (running >= maxRunning_) return false;
  } while (!running_.compare_exchange_weak(running, running + 1, std::memory_order_seq_cst));
  return true;
}

void WorkerPool::notifyWork() noexcept {
  if (searching_.load(std::memory_order_seq_cst) > 0) return;
  // Producers that race here each take a place among the running workers
  // first, so together they never start more workers than there are cores.
  if (!reserveRunning()) {
    // Every worker is busy: if they are stuck, the monitor will notice.
    monitor_->watch();
    return;
  }
  searching_.fetch_add(1, std::memory_order_seq_cst);
  int idle = idle_.load(std::memory_order_seq_cst);
  while (idle > 0) {
    if (idle_.compare_exchange_weak(idle, idle - 1, std::memory_order_seq_cst)) {
      tokens_.fetch_add(1, std::memory_order_release);
      futexWake(tokens_, 1);
      return;
    }
  }
  if (!spawnWorker()) {
    // Out of threads: the running workers will get to the work in time.
    searching_.fetch_sub(1, std::memory_order_seq_cst);
    running_.fetch_sub(1, std::memory_order_seq_cst);
  }
}

bool WorkerPool::spawnWorker() noexcept {
  int threads = threads_.load(std::memory_order_relaxed);
  do {
    if (threads >= kMaxThreads) return false;
  } while (!threads_.compare_exchange_weak(threads, threads + 1, std::memory_order_relaxed));
  try {
    std::thread([this] { workerMain(); }).detach();
    return true;
  } catch (const std::system_error&) {
    threads_.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
}

WorkItem* WorkerPool::tryPop(int& index) noexcept {
  for (index = kClassCount - 1; index >= 0; --index) {
    Root& root = roots_[index];
    if (root.pushed.load(std::memory_order_acquire) == root.popped.load(std::memory_order_relaxed)) {
      continue;
    }
    if (root.popping.exchange(true, std::memory_order_acquire)) continue;
    WorkItem* item = root.items.pop();
    if (item != nullptr) {
      root.popped.store(root.popped.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    root.popping.store(false, std::memory_order_release);
    if (item != nullptr) return item;
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
  WorkerRecord& record = *currentRecord;
  currentSerial += WorkerRecord::kSerialStep;
  record.rootIndex.store(index, std::memory_order_relaxed);
  record.activity.store(currentSerial | WorkerRecord::kBusy, std::memory_order_release);
  {
    QueueCore* queue = &QueueCore::of(*roots_[index].queue);
    FrameScope scope(queue);
    runItem(item, queue);
  }
  const std::uint64_t was = record.activity.exchange(currentSerial, std::memory_order_acq_rel);
  if ((was & WorkerRecord::kPresumed) != 0) {
    presumed_[index].fetch_sub(1, std::memory_order_relaxed);
    resumeCounting();
  }
}

WorkerRecord* WorkerPool::claimRecord() noexcept {
  // threads_ never exceeds the number of records, so a free one exists.
  for (;;) {
    for (WorkerRecord& record : records_) {
      bool used = false;
      if (record.used.compare_exchange_strong(used, true, std::memory_order_acquire)) return &record;
    }
  }
}

void WorkerPool::workerMain() noexcept {
  WorkerRecord* record = claimRecord();
  record->tid.store(static_cast<pid_t>(gettid()), std::memory_order_relaxed);
  currentSerial = record->activity.load(std::memory_order_relaxed) & ~(WorkerRecord::kSerialStep - 1);
  currentRecord = record;
  pthread_setname_np(pthread_self(), "fennick-worker");
  // The spawner counted this worker as running and searching.
  for (;;) {
    int index = 0;
    WorkItem* item = search(index);
    const bool lastSearcher = searching_.fetch_sub(1, std::memory_order_seq_cst) == 1;
    if (item == nullptr) {
      if (!park()) break;
      continue;
    }
    if (lastSearcher && hasQueuedWork()) notifyWork();
    // A worker that finds more running than cores (a blocked one came back)
    // steps aside after its item.
    bool crowded = false;
    do {
      run(item, index);
      crowded = running_.load(std::memory_order_seq_cst) > maxRunning_;
    } while (!crowded && (item = tryPop(index)) != nullptr);
    if (crowded) {
      if (!park()) break;
      continue;
    }
    searching_.fetch_add(1, std::memory_order_seq_cst);
  }
  currentRecord = nullptr;
  record->used.store(false, std::memory_order_release);
  threads_.fetch_sub(1, std::memory_order_relaxed);
}

bool WorkerPool::leaveIdle() noexcept {
  int idle = idle_.load(std::memory_order_seq_cst);
  while (idle > 0) {
    if (idle_.compare_exchange_weak(idle, idle - 1, std::memory_order_seq_cst)) return true;
  }
  return false;
}

// Called by a running worker that stops. Returns true when the worker should
// search again (counted as running and searching), false when it should retire.
bool WorkerPool::park() noexcept {
  // Idle before no longer running: a producer that finds a place free among
  // the running workers then finds this one to wake instead of starting a thread.
  idle_.fetch_add(1, std::memory_order_seq_cst);
  running_.fetch_sub(1, std::memory_order_seq_cst);
  if (hasQueuedWork() && reserveRunning()) {
    if (leaveIdle()) {
      searching_.fetch_add(1, std::memory_order_seq_cst);
      return true;
    }
    // A producer claimed this worker and counted it already.
    running_.fetch_sub(1, std::memory_order_seq_cst);
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
      if (!hasQueuedWork() || !reserveRunning()) return false;
      searching_.fetch_add(1, std::memory_order_seq_cst);
      return true;
    }
    // Every idle worker has been claimed: a token is on its way.
    deadline = now + std::chrono::milliseconds(10);
  }
}

void WorkerPool::willBlock() noexcept {
  const std::uint64_t was = currentRecord->activity.fetch_or(WorkerRecord::kBlocking, std::memory_order_acq_rel);
  if ((was & WorkerRecord::kPresumed) != 0) return;  // already not counted
  running_.fetch_sub(1, std::memory_order_seq_cst);
  if (hasQueuedWork()) notifyWork();
}

void WorkerPool::didUnblock() noexcept {
  const std::uint64_t was =
      currentRecord->activity.fetch_and(~WorkerRecord::kBlocking, std::memory_order_acq_rel);
  if ((was & WorkerRecord::kPresumed) == 0) resumeCounting();
}

bool WorkerPool::presumeBlocked(WorkerRecord& record, std::uint64_t seen) noexcept {
  constexpr std::uint64_t kFlags = WorkerRecord::kBusy | WorkerRecord::kPresumed | WorkerRecord::kBlocking;
  if ((seen & kFlags) != WorkerRecord::kBusy) return false;
  const int index = record.rootIndex.load(std::memory_order_relaxed);
  if (presumed_[index].fetch_add(1, std::memory_order_relaxed) >= kMaxPresumedPerClass ||
      !record.activity.compare_exchange_strong(seen, seen | WorkerRecord::kPresumed,
                                               std::memory_order_acq_rel)) {
    presumed_[index].fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  presumedTotal_.fetch_add(1, std::memory_order_relaxed);
  running_.fetch_sub(1, std::memory_order_seq_cst);
  return true;
}

}  // namespace fennick::dispatch::detail
