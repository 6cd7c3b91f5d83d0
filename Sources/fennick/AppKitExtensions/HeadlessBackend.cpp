#include "fennick/AppKitExtensions/HeadlessBackend.h"

#include <algorithm>

#include "fennick/Dispatch/Main.h"

namespace fennick {
namespace {

ShownWindow snapshot(const Ref<Window>& window, const Ref<Window>& parent) {
  ShownWindow shown;
  shown.windowTitle = window->title();
  shown.windowAccessibilityIdentifier = window->accessibilityIdentifier();
  shown.isSheet = parent != nullptr;
  shown.parentWindow = parent;
  const Ref<Alert> alert = window->alert();
  if (!alert) return shown;
  shown.isAlert = true;
  shown.messageText = alert->messageText();
  shown.informativeText = alert->informativeText();
  shown.alertStyle = alert->alertStyle();
  shown.icon = alert->icon();
  for (const auto& button : alert->buttons()) {
    shown.buttons.push_back({button->title(), button->keyEquivalent(), button->accessibilityIdentifier(), button->tag()});
  }
  shown.showsSuppressionButton = alert->showsSuppressionButton();
  shown.suppressionButtonTitle = alert->suppressionButton()->title();
  shown.suppressionButtonInitialState = alert->suppressionButton()->state();
  return shown;
}

// What the person left the check box at becomes the alert's state. Main thread.
void writeBackSuppressionState(const Window& window, std::int64_t state) {
  if (const Ref<Alert> alert = window.alert()) alert->suppressionButton()->setState(state);
}

// A modal run on the main thread is a nested loop, as a toolkit's is: the
// main queue goes on meanwhile (completions, OVInteractWithUI work, syncs
// from other threads), and a block that started the run stays suspended.
std::int64_t waitServingMainQueue(const HeadlessPresentation& presentation) {
  if (!dispatch::isMainThread()) return presentation.waitForResponse();
  while (!dispatch::runMainQueueUntil([&] { return !presentation.isOpen(); }, std::chrono::hours(1))) {
  }
  return *presentation.response();
}

}  // namespace

// -- HeadlessPresentation -------------------------------------------------------

HeadlessPresentation::HeadlessPresentation(Ref<Window> window, ShownWindow shown)
    : window_(std::move(window)), shown_(std::move(shown)), suppressionState_(shown_.suppressionButtonInitialState) {}

bool HeadlessPresentation::isOpen() const {
  std::lock_guard lock(mutex_);
  return !response_;
}

std::optional<std::int64_t> HeadlessPresentation::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

std::int64_t HeadlessPresentation::suppressionButtonState() const {
  std::lock_guard lock(mutex_);
  return suppressionState_;
}

bool HeadlessPresentation::pressButton(std::size_t index) {
  if (index >= shown_.buttons.size()) return false;
  return end(shown_.buttons[index].tag);
}

bool HeadlessPresentation::toggleSuppressionButton() {
  std::lock_guard lock(mutex_);
  if (response_ || !shown_.showsSuppressionButton) return false;
  suppressionState_ = suppressionState_ == NSControlStateValueOff ? NSControlStateValueOn : NSControlStateValueOff;
  return true;
}

bool HeadlessPresentation::dismiss() {
  const auto& buttons = shown_.buttons;
  const auto cancel = std::find_if(buttons.begin(), buttons.end(),
                                   [](const ShownButton& button) { return button.keyEquivalent == kAlertEscapeKeyEquivalent; });
  return cancel != buttons.end() && end(cancel->tag);
}

std::int64_t HeadlessPresentation::waitForResponse() const {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [&] { return response_.has_value(); });
  return *response_;
}

std::optional<std::int64_t> HeadlessPresentation::waitForResponse(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  ended_.wait_for(lock, timeout, [&] { return response_.has_value(); });
  return response_;
}

bool HeadlessPresentation::end(std::int64_t code) {
  EndAction action;
  std::int64_t suppressionState;
  {
    std::lock_guard lock(mutex_);
    if (response_) return false;
    response_ = code;
    suppressionState = suppressionState_;
    action = std::move(endAction_);
  }
  ended_.notify_all();
  if (action) action(code, suppressionState);
  return true;
}

void HeadlessPresentation::setEndAction(EndAction action) {
  std::lock_guard lock(mutex_);
  endAction_ = std::move(action);
}

// -- HeadlessBackend ------------------------------------------------------------

std::shared_ptr<HeadlessBackend> HeadlessBackend::create() { return std::make_shared<HeadlessBackend>(Private{}); }

const std::shared_ptr<HeadlessBackend>& HeadlessBackend::shared() {
  static const auto* backend = new std::shared_ptr<HeadlessBackend>(create());
  return *backend;
}

void HeadlessBackend::setResponder(Responder responder) {
  {
    std::lock_guard lock(mutex_);
    responder_.swap(responder);
  }
  // The responder replaced goes here, unlocked: what it captured may call back.
}

std::vector<Ref<HeadlessPresentation>> HeadlessBackend::presentations() const {
  std::lock_guard lock(mutex_);
  return presentations_;
}

Ref<HeadlessPresentation> HeadlessBackend::waitForPresentation(std::size_t index,
                                                               std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  appeared_.wait_for(lock, timeout, [&] { return presentations_.size() > index; });
  return presentations_.size() > index ? presentations_[index] : nullptr;
}

void HeadlessBackend::removeAllPresentations() {
  std::vector<Ref<HeadlessPresentation>> removed;
  {
    std::lock_guard lock(mutex_);
    removed.swap(presentations_);
  }
  // Dropped unlocked: a presentation may hold the last reference to a sheet's
  // completion handler and what it captured.
}

int HeadlessBackend::activationCount() const {
  std::lock_guard lock(mutex_);
  return activations_;
}

Ref<HeadlessPresentation> HeadlessBackend::present(const Ref<Window>& window, const Ref<Window>& parent,
                                                   HeadlessPresentation::EndAction endAction) {
  auto presentation = std::make_shared<HeadlessPresentation>(window, snapshot(window, parent));
  presentation->setEndAction(std::move(endAction));
  Responder responder;
  {
    // A modal run is on the stack before anyone can see it, so that a stop
    // from a thread that waited for it always finds it.
    std::lock_guard lock(mutex_);
    presentations_.push_back(presentation);
    if (!parent) modalRuns_.push_back(presentation);
    responder = responder_;
  }
  appeared_.notify_all();
  if (responder) responder(presentation);
  return presentation;
}

std::int64_t HeadlessBackend::runModalForWindow(const Ref<Window>& window) {
  const auto presentation = present(window, nullptr, nullptr);
  const std::int64_t response = waitServingMainQueue(*presentation);
  {
    std::lock_guard lock(mutex_);
    std::erase(modalRuns_, presentation);
  }
  writeBackSuppressionState(*window, presentation->suppressionButtonState());
  return response;
}

void HeadlessBackend::stopModalWithCode(std::int64_t code) {
  Ref<HeadlessPresentation> innermost;
  {
    std::lock_guard lock(mutex_);
    if (modalRuns_.empty()) return;
    innermost = modalRuns_.back();
  }
  innermost->end(code);
}

void HeadlessBackend::beginSheet(const Ref<Window>& parent, const Ref<Window>& sheet,
                                 Window::SheetCompletionHandler handler) {
  // The window, not the presentation, is captured: the presentation owns
  // this action.
  present(sheet, parent, [sheet, handler = std::move(handler)](std::int64_t code, std::int64_t suppressionState) {
    dispatch::mainQueue()->async([sheet, handler, code, suppressionState] {
      writeBackSuppressionState(*sheet, suppressionState);
      if (handler) handler(code);
    });
  });
}

void HeadlessBackend::endSheet(const Ref<Window>& parent, const Ref<Window>& sheet, std::int64_t code) {
  for (const auto& presentation : presentations()) {
    if (presentation->window() == sheet && presentation->shown().parentWindow == parent && presentation->end(code)) return;
  }
}

void HeadlessBackend::activateIgnoringOtherApps(bool) {
  std::lock_guard lock(mutex_);
  ++activations_;
}

}  // namespace fennick
