#include "fennick/Dispatch/Internal/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace fennick::dispatch::detail {
namespace {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "the futex word must be a plain 32-bit integer");

long futex(const std::atomic<std::uint32_t>& word, int op, std::uint32_t value,
           const timespec* timeout) {
  // The kernel only reads the word; the const_cast is for the syscall's signature.
  auto* address = const_cast<std::atomic<std::uint32_t>*>(&word);
  return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(address), op, value, timeout,
                 nullptr, 0);
}

}  // namespace

bool futexWait(const std::atomic<std::uint32_t>& word, std::uint32_t expected) {
  futex(word, FUTEX_WAIT_PRIVATE, expected, nullptr);
  return true;
}

bool futexWaitFor(const std::atomic<std::uint32_t>& word, std::uint32_t expected,
                  std::chrono::nanoseconds timeout) {
  if (timeout.count() <= 0) return false;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
  timespec relative{};
  relative.tv_sec = static_cast<time_t>(seconds.count());
  relative.tv_nsec = static_cast<long>((timeout - seconds).count());
  const long result = futex(word, FUTEX_WAIT_PRIVATE, expected, &relative);
  return !(result == -1 && errno == ETIMEDOUT);
}

void futexWake(const std::atomic<std::uint32_t>& word, int count) {
  futex(word, FUTEX_WAKE_PRIVATE, static_cast<std::uint32_t>(count), nullptr);
}

}  // namespace fennick::dispatch::detail
