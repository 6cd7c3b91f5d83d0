#pragma once
// Points in time for deadlines (group waits, timer sources).
//
// A Time is on one of two clocks. Times made with time() count on the
// monotonic clock (CLOCK_MONOTONIC, std::chrono::steady_clock): they are not
// affected by changes of the system clock and do not advance while the machine
// is suspended. Times made with walltime() count on the wall clock
// (CLOCK_REALTIME, std::chrono::system_clock): a deadline of 9:00 stays 9:00
// when the clock is set, and passes during a suspend. Two special values:
// NOW ("the moment the time is used") and FOREVER (never reached).
#include <chrono>
#include <cstdint>
#include <ctime>

namespace fennick::dispatch {

inline constexpr std::int64_t NSEC_PER_SEC = 1'000'000'000;
inline constexpr std::int64_t NSEC_PER_MSEC = 1'000'000;
inline constexpr std::int64_t NSEC_PER_USEC = 1'000;

class Time {
 public:
  static const Time NOW;
  static const Time FOREVER;

  /// NOW.
  constexpr Time() noexcept = default;
  /// A point on the monotonic clock.
  Time(std::chrono::steady_clock::time_point point) noexcept;  // NOLINT: implicit by design
  /// A point on the wall clock.
  Time(std::chrono::system_clock::time_point point) noexcept;  // NOLINT: implicit by design

  /// NOW + `delay` on the monotonic clock.
  static Time after(std::chrono::nanoseconds delay) noexcept;

  constexpr bool isNow() const noexcept { return clock_ == Clock::Now; }
  constexpr bool isForever() const noexcept { return clock_ == Clock::Forever; }
  constexpr bool isWallClock() const noexcept { return clock_ == Clock::Wall; }

  /// The point on the monotonic clock; a wall-clock time is converted with the
  /// clocks' present offset. FOREVER gives steady_clock::time_point::max().
  std::chrono::steady_clock::time_point toSteady() const noexcept;
  /// The point on the wall clock, converted likewise.
  std::chrono::system_clock::time_point toSystem() const noexcept;
  /// Time left until this point, measured on its own clock: zero or less once
  /// passed, nanoseconds::max() for FOREVER.
  std::chrono::nanoseconds remaining() const noexcept;

  friend constexpr bool operator==(const Time& a, const Time& b) noexcept {
    return a.clock_ == b.clock_ && a.nanoseconds_ == b.nanoseconds_;
  }

 private:
  enum class Clock : std::uint8_t { Now, Forever, Monotonic, Wall };

  constexpr Time(Clock clock, std::int64_t nanoseconds) noexcept
      : clock_(clock), nanoseconds_(nanoseconds) {}

  friend Time time(Time base, std::int64_t deltaNanoseconds) noexcept;
  friend Time walltime(const timespec* when, std::int64_t deltaNanoseconds) noexcept;

  Clock clock_ = Clock::Now;
  std::int64_t nanoseconds_ = 0;  // since the clock's epoch
};

inline constexpr Time Time::NOW{};
inline constexpr Time Time::FOREVER{Time::Clock::Forever, 0};

/// `base` moved by `deltaNanoseconds` on base's clock; NOW as base means the
/// present moment on the monotonic clock. FOREVER stays FOREVER, and a sum
/// past the representable range saturates to FOREVER (or to the clock's epoch
/// for large negative deltas).
Time time(Time base, std::int64_t deltaNanoseconds) noexcept;

/// A wall-clock time: `*when` (or the present moment when `when` is null)
/// moved by `deltaNanoseconds`, saturating like time().
Time walltime(const timespec* when, std::int64_t deltaNanoseconds) noexcept;

}  // namespace fennick::dispatch
