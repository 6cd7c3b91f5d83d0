#include "fennick/AppKitExtensions/AlertButton.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(AlertButton) {
  builder.property("title", &AlertButton::title);
  builder.property("keyEquivalent", &AlertButton::keyEquivalent);
  builder.property("accessibilityIdentifier", &AlertButton::accessibilityIdentifier);
  builder.property("tag", &AlertButton::tag);
  builder.property("state", &AlertButton::state);
}

Ref<AlertButton> AlertButton::buttonWithTitle(std::string_view title) {
  auto button = make<AlertButton>();
  button->setTitle(title);
  return button;
}

void AlertButton::setKeyEquivalent(std::string_view key) {
  // Assigned through iterators: GCC 12 warns falsely (restrict) about the
  // inlined string_view assignment of a one-character literal.
  keyEquivalent_.assign(key.begin(), key.end());
}

std::string AlertButton::description() const {
  return fmt::format("<AlertButton: \"{}\" tag {}>", title_, tag_);
}

}  // namespace fennick
