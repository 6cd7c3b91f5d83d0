#include "fennick/AppKitExtensions/Alert.h"

#include "fennick/AppKitExtensions/Application.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Alert) {
  builder.property("messageText", &Alert::messageText);
  builder.property("informativeText", &Alert::informativeText);
  builder.property("icon", &Alert::icon);
  builder.property("showsSuppressionButton", &Alert::showsSuppressionButton);
  builder.property("suppressionButton", &Alert::suppressionButton);
  builder.property("window", &Alert::window);
}

Alert::Alert()
    : suppressionButton_(AlertButton::buttonWithTitle("Do not show this message again")),
      window_(Window::windowWithTitle("")) {}

Ref<Alert> Alert::init() {
  auto alert = make<Alert>();
  alert->window_->alert_ = alert;
  return alert;
}

Ref<Alert> Alert::alertWithError(const Ref<Error>& error) {
  auto alert = init();
  if (!error) return alert;
  alert->setMessageText(error->localizedDescription());
  alert->setInformativeText(error->localizedRecoverySuggestion());
  if (const Ref<Array> options = error->localizedRecoveryOptions()) {
    for (const Id& option : *options) {
      const auto* title = String::dynamicCastObject(option.get());
      alert->addButtonWithTitle(title ? std::string_view(title->utf8()) : std::string_view());
    }
  }
  alert->addDefaultButtonIfNone();
  return alert;
}

void Alert::setAlertStyle(AlertStyle style) {
  const bool known = style == AlertStyle::warning || style == AlertStyle::informational || style == AlertStyle::critical;
  alertStyle_ = known ? style : AlertStyle::warning;
}

Ref<AlertButton> Alert::addButtonWithTitle(std::string_view title) {
  auto button = AlertButton::buttonWithTitle(title);
  button->setTag(NSAlertFirstButtonReturn + static_cast<std::int64_t>(buttons_.size()));
  if (buttons_.empty()) button->setKeyEquivalent(kAlertReturnKeyEquivalent);
  else if (title == "Cancel") button->setKeyEquivalent(kAlertEscapeKeyEquivalent);
  buttons_.push_back(button);
  return button;
}

std::int64_t Alert::runModal() {
  addDefaultButtonIfNone();
  return Application::sharedApplication()->runModalForWindow(window_);
}

void Alert::beginSheetModalForWindow_completionHandler(const Ref<Window>& window,
                                                       Window::SheetCompletionHandler handler) {
  if (!window) return;
  addDefaultButtonIfNone();
  window->beginSheet_completionHandler(window_, std::move(handler));
}

void Alert::addDefaultButtonIfNone() {
  // An alert always offers a way out.
  if (buttons_.empty()) addButtonWithTitle("OK");
}

std::string Alert::description() const {
  return fmt::format("<Alert: \"{}\", {} buttons>", messageText_, buttons_.size());
}

}  // namespace fennick
