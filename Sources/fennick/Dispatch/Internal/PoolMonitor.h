#pragma once
// Keeps the worker pool moving when blocks block without saying so.
//
// While every worker is busy and work waits, the monitor looks at the pool
// every kTick. A root queue with waiting work that no worker took since the
// last look is stalled; a worker that has been in the same item since the last
// look and that the kernel has put to sleep (it waits in read(), a lock, a
// child process ...) is then taken for blocked: it stops counting as running,
// so the pool wakes or starts another worker. It counts again when its item
// ends. Workers that keep a core busy are left alone, since another thread
// could not run any sooner. An idle pool costs the monitor nothing: it sleeps
// until the pool next fills up.
#include <atomic>
#include <chrono>
#include <cstdint>

#include "fennick/Dispatch/Internal/WorkerPool.h"

namespace fennick::dispatch::detail {

class PoolMonitor {
 public:
  static constexpr std::chrono::milliseconds kTick{5};

  explicit PoolMonitor(WorkerPool& pool) noexcept : pool_(pool) {}
  PoolMonitor(const PoolMonitor&) = delete;
  PoolMonitor& operator=(const PoolMonitor&) = delete;

  /// Called when work was queued while every worker was busy. Cheap when the
  /// monitor is already watching.
  void watch() noexcept;

 private:
  static constexpr std::uint32_t kSleeping = 0;
  static constexpr std::uint32_t kWatching = 1;

  void main() noexcept;
  void look() noexcept;
  static bool isAsleepInKernel(pid_t tid) noexcept;

  WorkerPool& pool_;
  std::atomic<std::uint32_t> state_{kSleeping};  // futex word
  std::atomic<bool> started_{false};
  // Touched by the monitor thread only: what the last look saw.
  std::uint64_t lastPopped_[WorkerPool::kClassCount] = {};
  std::uint64_t lastActivity_[WorkerPool::kMaxThreads] = {};
};

}  // namespace fennick::dispatch::detail
