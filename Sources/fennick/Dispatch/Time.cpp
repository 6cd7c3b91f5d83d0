#include "fennick/Dispatch/Time.h"

#include <limits>

namespace fennick::dispatch {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

std::int64_t sinceEpoch(steady_clock::time_point point) {
  return std::chrono::duration_cast<nanoseconds>(point.time_since_epoch()).count();
}
std::int64_t sinceEpoch(system_clock::time_point point) {
  return std::chrono::duration_cast<nanoseconds>(point.time_since_epoch()).count();
}

// False when the sum leaves the range: the caller saturates.
bool add(std::int64_t base, std::int64_t delta, std::int64_t& sum) {
  return !__builtin_add_overflow(base, delta, &sum);
}

}  // namespace

Time::Time(steady_clock::time_point point) noexcept
    : clock_(Clock::Monotonic), nanoseconds_(sinceEpoch(point)) {}

Time::Time(system_clock::time_point point) noexcept
    : clock_(Clock::Wall), nanoseconds_(sinceEpoch(point)) {}

Time Time::after(nanoseconds delay) noexcept { return time(NOW, delay.count()); }

Time time(Time base, std::int64_t delta) noexcept {
  using Clock = Time::Clock;
  if (base.isForever()) return Time::FOREVER;
  if (base.isNow()) base = Time(steady_clock::now());
  std::int64_t sum = 0;
  if (!add(base.nanoseconds_, delta, sum)) return delta > 0 ? Time::FOREVER : Time(base.clock_, 0);
  if (sum < 0) sum = 0;
  return Time(base.clock_ == Clock::Wall ? Clock::Wall : Clock::Monotonic, sum);
}

Time walltime(const timespec* when, std::int64_t delta) noexcept {
  std::int64_t base = 0;
  if (when == nullptr) {
    base = sinceEpoch(system_clock::now());
  } else {
    std::int64_t seconds = 0;
    if (__builtin_mul_overflow(static_cast<std::int64_t>(when->tv_sec), NSEC_PER_SEC, &seconds) ||
        !add(seconds, when->tv_nsec, base)) {
      return when->tv_sec > 0 ? Time::FOREVER : Time(Time::Clock::Wall, 0);
    }
  }
  return time(Time(Time::Clock::Wall, base), delta);
}

steady_clock::time_point Time::toSteady() const noexcept {
  switch (clock_) {
    case Clock::Now:
      return steady_clock::now();
    case Clock::Forever:
      return steady_clock::time_point::max();
    case Clock::Monotonic:
      return steady_clock::time_point(nanoseconds(nanoseconds_));
    case Clock::Wall:
      break;
  }
  const auto left = remaining();
  const auto now = steady_clock::now();
  if (left.count() > 0 && left > steady_clock::time_point::max() - now) {
    return steady_clock::time_point::max();
  }
  return now + left;
}

system_clock::time_point Time::toSystem() const noexcept {
  switch (clock_) {
    case Clock::Now:
      return system_clock::now();
    case Clock::Forever:
      return system_clock::time_point::max();
    case Clock::Wall:
      return system_clock::time_point(
          std::chrono::duration_cast<system_clock::duration>(nanoseconds(nanoseconds_)));
    case Clock::Monotonic:
      break;
  }
  return system_clock::now() +
         std::chrono::duration_cast<system_clock::duration>(remaining());
}

nanoseconds Time::remaining() const noexcept {
  switch (clock_) {
    case Clock::Now:
      return nanoseconds(0);
    case Clock::Forever:
      return nanoseconds(kMax);
    case Clock::Monotonic:
      return nanoseconds(nanoseconds_ - sinceEpoch(steady_clock::now()));
    case Clock::Wall:
      return nanoseconds(nanoseconds_ - sinceEpoch(system_clock::now()));
  }
  return nanoseconds(0);
}

}  // namespace fennick::dispatch
