// Date's calendar questions in a fixed time zone (with daylight saving), its
// truncation to Unix seconds and its dispatch time.
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <memory>

using namespace fennick;

namespace {

// Sets ICU's default time zone (the "current" one) for the test's duration.
class TimeZoneScope {
 public:
  explicit TimeZoneScope(const char* id) : saved_(icu::TimeZone::createDefault()) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(id));
  }
  ~TimeZoneScope() { icu::TimeZone::adoptDefault(saved_.release()); }

 private:
  std::unique_ptr<icu::TimeZone> saved_;
};

constexpr double kHour = 3600;
// 2024-03-09 12:00 EST; New York moves to EDT at 02:00 on 2024-03-10.
constexpr double kNoonBeforeSpringForward = 1710003600;

Ref<Date> at(double seconds) { return Date::dateWithTimeIntervalSince1970(seconds); }

TEST(DateCalendarTest, DaysBetweenDatesCountPartialDaysOnRequest) {
  TimeZoneScope zone("UTC");
  auto start = at(1700000000);
  auto later = at(1700000000 + 36 * kHour);
  EXPECT_EQ(start->daysBeforeDate_fullDaysOnly(later, true), 1);
  EXPECT_EQ(start->daysBeforeDate_fullDaysOnly(later, false), 2);
  EXPECT_EQ(later->daysBeforeDate_fullDaysOnly(start, true), -1);
  EXPECT_EQ(later->daysBeforeDate_fullDaysOnly(start, false), -2);
  EXPECT_EQ(start->daysBeforeDate_fullDaysOnly(at(1700000000 + 48 * kHour), false), 2);
  EXPECT_EQ(start->daysBeforeDate_fullDaysOnly(at(1700000000 + 0.5), false), 0);  // under a second
  EXPECT_EQ(start->daysBeforeDate_fullDaysOnly(start, false), 0);
}

TEST(DateCalendarTest, CalendarDaysFollowWallClockAcrossDaylightSaving) {
  TimeZoneScope zone("America/New_York");
  auto noon = at(kNoonBeforeSpringForward + 0.25);
  auto nextNoon = noon->dateByAddingDays(1);
  ASSERT_NE(nextNoon, nullptr);
  EXPECT_DOUBLE_EQ(nextNoon->timeIntervalSinceDate(*noon), 23 * kHour);  // the short day
  EXPECT_DOUBLE_EQ(nextNoon->dateByAddingDays(-1)->timeIntervalSince1970(), noon->timeIntervalSince1970());
  // 23 hours across the change are one whole calendar day, with nothing left over.
  EXPECT_EQ(noon->daysBeforeDate_fullDaysOnly(nextNoon, false), 1);
  EXPECT_EQ(noon->daysBeforeDate_fullDaysOnly(at(kNoonBeforeSpringForward + 24 * kHour), true), 1);
  EXPECT_EQ(noon->daysBeforeDate_fullDaysOnly(at(kNoonBeforeSpringForward + 24 * kHour), false), 2);
  EXPECT_DOUBLE_EQ(noon->dateByAddingDays(30)->timeIntervalSinceDate(*noon), 30 * 24 * kHour - kHour);
  EXPECT_EQ(noon->dateByAddingDays(std::int64_t{1} << 40), nullptr);
}

TEST(DateCalendarTest, TodayYesterdayAndCurrentYearAreLocalCalendarQuestions) {
  TimeZoneScope zone("Pacific/Kiritimati");  // UTC+14: local days differ from UTC days
  auto now = Date::date();
  EXPECT_TRUE(now->isToday());
  EXPECT_FALSE(now->isYesterday());
  EXPECT_TRUE(now->isCurrentYear());
  auto yesterday = now->dateByAddingDays(-1);
  EXPECT_FALSE(yesterday->isToday());
  EXPECT_TRUE(yesterday->isYesterday());
  EXPECT_FALSE(now->dateByAddingDays(-2)->isYesterday());
  EXPECT_FALSE(now->dateByAddingDays(1)->isToday());
  EXPECT_FALSE(now->dateByAddingDays(-366)->isCurrentYear());
  EXPECT_FALSE(at(0)->isCurrentYear());
}

TEST(DateCalendarTest, UnixTimeTruncatesTowardZero) {
  EXPECT_EQ(at(1.9)->unixtime(), 1);
  EXPECT_EQ(at(-1.9)->unixtime(), -1);
  EXPECT_EQ(at(-0.5)->unixtime(), 0);
  EXPECT_TRUE(at(1700000000.7)->unixtimeValue()->isEqual(Number::numberWithInteger(1700000000).get()));
  EXPECT_EQ(at(1e300)->unixtime(), static_cast<std::int64_t>(9.2e18));
}

TEST(DateCalendarTest, TimeSpecAndDispatchTimeKeepNanoseconds) {
  auto date = Date::dateWithTimeSpec(timespec{1700000000, 250000000});
  EXPECT_DOUBLE_EQ(date->timeIntervalSince1970(), 1700000000.25);
  const timespec expected{1700000000, 250000000};
  EXPECT_EQ(date->dispatchTime(), dispatch::walltime(&expected, 0));
  EXPECT_TRUE(date->dispatchTime().isWallClock());
  const timespec before{-1, -900000000};
  EXPECT_EQ(at(-1.9)->dispatchTime().toSystem(), dispatch::walltime(&before, 0).toSystem());
}

}  // namespace
