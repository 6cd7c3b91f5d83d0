#pragma once
// Thin wrappers over the Linux futex: the parking primitive of the engine.
// Callers always re-check their condition after a wait returns: wake-ups may be
// spurious, and a wake may reach a word whose owner has already moved on.
#include <atomic>
#include <chrono>
#include <cstdint>

namespace fennick::dispatch::detail {

/// Sleeps while `word` holds `expected`, at most `timeout` when one is given
/// (negative or zero timeouts return at once). Returns false on timeout.
bool futexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected);
bool futexWaitFor(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                  std::chrono::nanoseconds timeout);

/// Wakes up to `count` threads sleeping on `word`.
void futexWake(const std::atomic<std::uint32_t>& word, int count);

/// A pause for spin loops, easing the pipeline and a sibling hyper-thread.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
}

}  // namespace fennick::dispatch::detail
