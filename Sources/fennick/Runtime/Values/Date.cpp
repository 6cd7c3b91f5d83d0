#include "fennick/Runtime/Values/Date.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Coding/Coder.h"

#include <cmath>
#include <ctime>

namespace fennick {

FENNICK_DEFINE_CLASS(Date) {
  builder.archiveNames({"NSDate"});
  builder.coding();
  builder.property("timeIntervalSince1970", &Date::timeIntervalSince1970);
}

Ref<Date> Date::date() { return dateWithTimePoint(std::chrono::system_clock::now()); }

Ref<Date> Date::dateWithTimeIntervalSince1970(double seconds) { return make<Date>(seconds); }

Ref<Date> Date::dateWithTimeIntervalSinceReferenceDate(double seconds) {
  return make<Date>(seconds + NSTimeIntervalSince1970);
}

Ref<Date> Date::dateWithTimePoint(std::chrono::system_clock::time_point point) {
  return make<Date>(std::chrono::duration<double>(point.time_since_epoch()).count());
}

Ref<Date> Date::dateByAddingTimeInterval(double seconds) const { return make<Date>(seconds_ + seconds); }

std::chrono::system_clock::time_point Date::timePoint() const noexcept {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::duration<double>(seconds_)));
}

bool Date::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* date = Date::dynamicCastObject(other);
  return date && date->seconds_ == seconds_;
}

std::size_t Date::hash() const { return std::hash<double>()(seconds_); }

std::string Date::description() const {
  const auto whole = static_cast<std::time_t>(std::floor(seconds_));
  std::tm parts{};
  gmtime_r(&whole, &parts);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts);
  return text;
}

Id Date::copy() const { return std::const_pointer_cast<Object>(self()); }

void Date::encodeWithCoder(Coder& coder) const {
  coder.encodeDouble_forKey(timeIntervalSinceReferenceDate(), "NS.time");
}

void Date::initWithCoder(Coder& coder) {
  seconds_ = coder.decodeDoubleForKey("NS.time") + NSTimeIntervalSince1970;
}

}  // namespace fennick
