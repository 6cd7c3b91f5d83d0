#include "fennick/Dispatch/Internal/PoolMonitor.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>

#include "fennick/Dispatch/Internal/Futex.h"

namespace fennick::dispatch::detail {

void PoolMonitor::watch() noexcept {
  // Pairs with the re-check in main(): a push either sees kSleeping here or
  // is seen by the monitor's look at the queues after it said so.
  if (state_.load(std::memory_order_seq_cst) == kWatching) return;
  std::uint32_t expected = kSleeping;
  if (!state_.compare_exchange_strong(expected, kWatching, std::memory_order_seq_cst)) return;
  if (!started_.exchange(true, std::memory_order_acq_rel)) {
    try {
      std::thread([this] { main(); }).detach();
    } catch (const std::system_error&) {
      started_.store(false, std::memory_order_release);  // try again next time
      state_.store(kSleeping, std::memory_order_seq_cst);
    }
    return;
  }
  futexWake(state_, 1);
}

void PoolMonitor::main() noexcept {
  pthread_setname_np(pthread_self(), "fennick-monitor");
  for (;;) {
    if (state_.load(std::memory_order_seq_cst) == kSleeping) {
      futexWait(state_, kSleeping);
      continue;
    }
    std::this_thread::sleep_for(kTick);
    if (!pool_.hasQueuedWork()) {
      state_.store(kSleeping, std::memory_order_seq_cst);
      if (!pool_.hasQueuedWork()) continue;
      std::uint32_t expected = kSleeping;
      state_.compare_exchange_strong(expected, kWatching, std::memory_order_seq_cst);
      continue;
    }
    look();
  }
}

void PoolMonitor::look() noexcept {
  bool stalled = false;
  for (int index = 0; index < WorkerPool::kClassCount; ++index) {
    const WorkerPool::Root& root = pool_.roots_[index];
    const std::uint64_t popped = root.popped.load(std::memory_order_acquire);
    if (popped == lastPopped_[index] && root.hasWork()) stalled = true;
    lastPopped_[index] = popped;
  }
  bool presumed = false;
  for (int slot = 0; slot < WorkerPool::kMaxThreads; ++slot) {
    WorkerRecord& record = pool_.records_[slot];
    if (!record.used.load(std::memory_order_acquire)) continue;
    const std::uint64_t activity = record.activity.load(std::memory_order_acquire);
    const bool sameItem = activity == lastActivity_[slot];
    lastActivity_[slot] = activity;
    if (!stalled || !sameItem || (activity & WorkerRecord::kBusy) == 0) continue;
    if (!isAsleepInKernel(record.tid.load(std::memory_order_relaxed))) continue;
    presumed = pool_.presumeBlocked(record, activity) || presumed;
  }
  if (presumed) pool_.notifyWork();
}

// The scheduler state of a thread of this process: S (sleeping) or D
// (uninterruptible, typically disk I/O) mean it waits for something.
bool PoolMonitor::isAsleepInKernel(pid_t tid) noexcept {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(tid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[512];
  const ssize_t length = read(fd, buffer, sizeof buffer - 1);
  close(fd);
  if (length <= 0) return false;
  buffer[length] = '\0';
  // "tid (name) S ...": the name may hold spaces and parentheses.
  const char* end = std::strrchr(buffer, ')');
  if (end == nullptr || end[1] != ' ') return false;
  return end[2] == 'S' || end[2] == 'D';
}

}  // namespace fennick::dispatch::detail
