#pragma once
// The automatic notifications that key-value coding is sending on this thread:
// one frame per observable-property setter running inside them, so that a
// setter which also notifies by itself is caught at its first change instead
// of announcing every change twice.
#include <string_view>

namespace fennick {
class Object;
}

namespace fennick::detail {

class AutomaticChangeFrame {
 public:
  AutomaticChangeFrame(const Object& object, std::string_view key) noexcept;
  ~AutomaticChangeFrame();
  AutomaticChangeFrame(const AutomaticChangeFrame&) = delete;
  AutomaticChangeFrame& operator=(const AutomaticChangeFrame&) = delete;

  /// Aborts, naming the class and the key, when `object`'s `key` is already
  /// being announced automatically on this thread.
  static void checkManualChange(const Object& object, std::string_view key);

 private:
  const Object* object_;
  std::string_view key_;
  AutomaticChangeFrame* outer_;
};

}  // namespace fennick::detail
