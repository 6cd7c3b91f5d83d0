#pragma once
// An immutable result holding a value, an error record, or (when decoded from
// an archive that has both) both; each side is tested by itself. It archives
// with secure coding under the keys "value" and "error".
//
//   auto result = OVValueOrError::initWithValue(data);
//   auto parsed = result->liftValue([](const Id& v) { return parse(v); });
//   parsed->onError([](const Ref<Error>& e) { report(e); });
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <atomic>
#include <functional>

namespace fennick {

class OVValueOrError : public Object {
  FENNICK_DECLARE_CLASS(OVValueOrError, Object)

 public:
  using ValueTransform = std::function<Id(const Id&)>;
  using ErrorTransform = std::function<Ref<Error>(const Ref<Error>&)>;

  /// Holds `value` only.
  static Ref<OVValueOrError> initWithValue(const Id& value);
  /// Holds `error` only.
  static Ref<OVValueOrError> initWithError(const Ref<Error>& error);
  static constexpr bool supportsSecureCoding() { return true; }

  /// Safe to read from any thread.
  Id value() const { return value_.load(); }
  Ref<Error> error() const { return error_.load(); }

  /// With a value: a new instance holding transform(value) (holding nothing
  /// when that is nil). Without one: this very instance.
  Ref<OVValueOrError> liftValue(const ValueTransform& transform) const;
  /// With an error: a new instance holding transform(error). Without one: this
  /// very instance.
  Ref<OVValueOrError> liftError(const ErrorTransform& transform) const;
  /// Calls the consumer synchronously with the value, if there is one.
  void onValue(const std::function<void(const Id&)>& consumer) const;
  /// Calls the consumer synchronously with the error, if there is one.
  void onError(const std::function<void(const Ref<Error>&)>& consumer) const;

  /// The instance itself: it never changes.
  Id copy() const override;
  std::string description() const override;
  /// "value" then "error", each nil when absent.
  void encodeWithCoder(Coder& coder) const override;
  /// "value" as any securely codable object, "error" as an Error.
  void initWithCoder(Coder& coder) override;

 protected:
  OVValueOrError() = default;
  OVValueOrError(Id value, Ref<Error> error) : value_(std::move(value)), error_(std::move(error)) {}

 private:
  Ref<OVValueOrError> me() const;

  std::atomic<Id> value_;
  std::atomic<Ref<Error>> error_;
};

}  // namespace fennick
