#pragma once
// A point in time: seconds since 1970-01-01 00:00:00 UTC.
#include "fennick/Runtime/Object.h"

#include <chrono>

namespace fennick {

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
