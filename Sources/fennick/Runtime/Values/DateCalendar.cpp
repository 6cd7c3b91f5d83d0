// Date's calendar questions, through ICU's calendar in its default locale and
// time zone (the user's current calendar), and its conversions to Unix and
// dispatch times.
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Values/Number.h"

#include <unicode/calendar.h>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>

namespace fennick {

namespace {

constexpr double kMillisecondsPerSecond = 1000.0;

std::unique_ptr<icu::Calendar> currentCalendarAt(UDate when, UErrorCode& status) {
  std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(status));
  if (U_SUCCESS(status)) calendar->setTime(when, status);
  return U_SUCCESS(status) ? std::move(calendar) : nullptr;
}

UDate icuTime(const Date& date) { return date.timeIntervalSince1970() * kMillisecondsPerSecond; }

// A field of the date in the current calendar, or nullopt when ICU cannot
// place the date (far outside its range).
std::optional<std::int32_t> calendarField(UDate when, UCalendarDateFields field) {
  UErrorCode status = U_ZERO_ERROR;
  auto calendar = currentCalendarAt(when, status);
  if (!calendar) return std::nullopt;
  const std::int32_t value = calendar->get(field, status);
  return U_SUCCESS(status) ? std::optional(value) : std::nullopt;
}

// The local day number (days since an epoch, in the calendar's time zone).
std::optional<std::int32_t> localDay(UDate when) { return calendarField(when, UCAL_JULIAN_DAY); }

}  // namespace

Ref<Date> Date::dateWithTimeSpec(const timespec& wallClock) {
  return dateWithTimeIntervalSince1970(static_cast<double>(wallClock.tv_sec) + static_cast<double>(wallClock.tv_nsec) / 1e9);
}

dispatch::Time Date::dispatchTime() const {
  // Whole seconds as unixtime() truncates them (which also keeps dates past
  // the int64 range representable); the fraction keeps the seconds' sign.
  timespec wallClock{};
  wallClock.tv_sec = static_cast<time_t>(unixtime());
  const double fraction = seconds_ - static_cast<double>(wallClock.tv_sec);
  if (std::fabs(fraction) < 1) wallClock.tv_nsec = static_cast<long>(fraction * 1e9);
  return dispatch::walltime(&wallClock, 0);
}

std::int64_t Date::daysBeforeDate_fullDaysOnly(const Ref<Date>& other, bool fullDaysOnly) const {
  if (!other) return 0;
  UErrorCode status = U_ZERO_ERROR;
  auto calendar = currentCalendarAt(icuTime(*this), status);
  if (!calendar) return 0;
  // fieldDifference advances the calendar by what it counted, so the seconds
  // are what remains after the whole days.
  const std::int32_t days = calendar->fieldDifference(icuTime(*other), UCAL_DATE, status);
  const std::int32_t seconds = calendar->fieldDifference(icuTime(*other), UCAL_SECOND, status);
  if (U_FAILURE(status)) return 0;
  if (fullDaysOnly || seconds == 0) return days;
  return days + (seconds > 0 ? 1 : -1);
}

Ref<Date> Date::dateByAddingDays(std::int64_t days) const {
  if (days < std::numeric_limits<std::int32_t>::min() || days > std::numeric_limits<std::int32_t>::max())
    return nullptr;
  // ICU keeps whole milliseconds; the sum is applied as a difference so that
  // the receiver's sub-millisecond part survives.
  const UDate start = std::floor(icuTime(*this));
  UErrorCode status = U_ZERO_ERROR;
  auto calendar = currentCalendarAt(start, status);
  if (!calendar) return nullptr;
  calendar->add(UCAL_DATE, static_cast<std::int32_t>(days), status);
  const UDate end = calendar->getTime(status);
  if (U_FAILURE(status)) return nullptr;
  return dateWithTimeIntervalSince1970(seconds_ + (end - start) / kMillisecondsPerSecond);
}

std::int64_t Date::unixtime() const noexcept {
  constexpr double limit = 9.2e18;  // inside the int64 range, whole seconds
  if (std::isnan(seconds_)) return 0;
  if (seconds_ >= limit) return static_cast<std::int64_t>(limit);
  if (seconds_ <= -limit) return -static_cast<std::int64_t>(limit);
  return static_cast<std::int64_t>(seconds_);  // truncates toward zero
}

Ref<Number> Date::unixtimeValue() const { return Number::numberWithInteger(unixtime()); }

bool Date::isToday() const {
  const auto day = localDay(icuTime(*this));
  return day && day == localDay(icuTime(*Date::date()));
}

bool Date::isYesterday() const {
  const auto day = localDay(icuTime(*this));
  const auto today = localDay(icuTime(*Date::date()));
  return day && today && *day == *today - 1;
}

bool Date::isCurrentYear() const {
  const UDate now = icuTime(*Date::date());
  const UDate mine = icuTime(*this);
  const auto era = calendarField(mine, UCAL_ERA);
  const auto year = calendarField(mine, UCAL_YEAR);
  return era && year && era == calendarField(now, UCAL_ERA) && year == calendarField(now, UCAL_YEAR);
}

}  // namespace fennick
