#pragma once
// A push button or check box of an alert: its title, the key that activates
// it, the identifier that assistive technology finds it by, and its tag (the
// response that pressing it gives) or state (for the suppression check box).
// Configured on the main thread before the alert is shown.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace fennick {

/// Key equivalents that alerts give their buttons: Return for the default
/// button, Escape for a button titled "Cancel". An empty key equivalent
/// means no key activates the button.
inline constexpr const char* kAlertReturnKeyEquivalent = "\r";
inline constexpr const char* kAlertEscapeKeyEquivalent = "\x1b";

/// Check box states.
inline constexpr std::int64_t NSControlStateValueOff = 0;
inline constexpr std::int64_t NSControlStateValueOn = 1;

class AlertButton : public Object {
  FENNICK_DECLARE_CLASS(AlertButton, Object)

 public:
  static Ref<AlertButton> buttonWithTitle(std::string_view title);

  const std::string& title() const noexcept { return title_; }
  void setTitle(std::string_view title) { title_ = title; }
  const std::string& keyEquivalent() const noexcept { return keyEquivalent_; }
  void setKeyEquivalent(std::string_view key);
  const std::string& accessibilityIdentifier() const noexcept { return accessibilityIdentifier_; }
  void setAccessibilityIdentifier(std::string_view identifier) { accessibilityIdentifier_ = identifier; }
  std::int64_t tag() const noexcept { return tag_; }
  void setTag(std::int64_t tag) { tag_ = tag; }
  std::int64_t state() const noexcept { return state_; }
  void setState(std::int64_t state) { state_ = state; }

  /// True for the button that Return activates.
  bool isDefaultButton() const { return keyEquivalent_ == kAlertReturnKeyEquivalent; }
  /// True for the button that Escape (closing the alert) activates.
  bool isCancelButton() const { return keyEquivalent_ == kAlertEscapeKeyEquivalent; }

  std::string description() const override;

 protected:
  AlertButton() = default;

 private:
  std::string title_;
  std::string keyEquivalent_;
  std::string accessibilityIdentifier_;
  std::int64_t tag_ = 0;
  std::int64_t state_ = NSControlStateValueOff;
};

}  // namespace fennick
