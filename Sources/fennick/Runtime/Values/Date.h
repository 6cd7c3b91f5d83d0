#pragma once
// A point in time: seconds since 1970-01-01 00:00:00 UTC.
#include "fennick/Dispatch/Time.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <chrono>
#include <cstdint>
#include <ctime>

namespace fennick {

class Number;

/// Seconds between 1970-01-01 and 2001-01-01 (the platform's reference date).
inline constexpr double NSTimeIntervalSince1970 = 978307200.0;

class Date : public Object {
  FENNICK_DECLARE_CLASS(Date, Object)

 public:
  /// Now.
  static Ref<Date> date();
  static Ref<Date> dateWithTimeIntervalSince1970(double seconds);
  static Ref<Date> dateWithTimeIntervalSinceReferenceDate(double seconds);
  static Ref<Date> dateWithTimePoint(std::chrono::system_clock::time_point point);

  double timeIntervalSince1970() const noexcept { return seconds_; }
  double timeIntervalSinceReferenceDate() const noexcept { return seconds_ - NSTimeIntervalSince1970; }
  double timeIntervalSinceDate(const Date& other) const noexcept { return seconds_ - other.seconds_; }
  Ref<Date> dateByAddingTimeInterval(double seconds) const;
  std::chrono::system_clock::time_point timePoint() const noexcept;

  // Calendar questions in the user's current calendar and time zone (ICU's
  // defaults: the locale's calendar, TZ or /etc/localtime), and conversions
  // (DateCalendar.cpp).
  /// seconds + nanoseconds / 1e9 after 1970.
  static Ref<Date> dateWithTimeSpec(const timespec& wallClock);
  /// The date as a wall-clock dispatch time (whole nanoseconds, truncated).
  dispatch::Time dispatchTime() const;
  /// Whole calendar days from the receiver to `other` (negative when `other`
  /// is earlier); unless fullDaysOnly, a remaining part of a day counts as one
  /// more day in its direction.
  std::int64_t daysBeforeDate_fullDaysOnly(const Ref<Date>& other, bool fullDaysOnly) const;
  /// The same wall-clock time `days` calendar days later (or earlier), across
  /// daylight-saving changes.
  Ref<Date> dateByAddingDays(std::int64_t days) const;
  /// Seconds since 1970, truncated toward zero.
  std::int64_t unixtime() const noexcept;
  Ref<Number> unixtimeValue() const;
  bool isToday() const;
  bool isYesterday() const;
  bool isCurrentYear() const;

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// "2001-01-01 00:00:00 +0000".
  std::string description() const override;
  Id copy() const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  explicit Date(double seconds = 0) : seconds_(seconds) {}

 private:
  double seconds_;
};

}  // namespace fennick
