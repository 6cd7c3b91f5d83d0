#pragma once
// The backend without a toolkit: it draws nothing and lets a program (a test,
// a tool) play the person in front of the screen. Every window it is asked to
// show becomes a HeadlessPresentation that records everything it showed and
// takes scripted answers: press a button, toggle the suppression check box,
// dismiss. It is the default backend of the interface layer.
//
//   auto backend = HeadlessBackend::create();
//   setInterfaceBackend(backend);
//   backend->setResponder([](const Ref<HeadlessPresentation>& shown) { shown->pressButton(1); });
//
// A modal run on the main thread lasts until its presentation is answered (by
// the responder, or from another thread) or stopped, and serves the main
// queue meanwhile, as a toolkit's modal loop does: blocks submitted to it run
// inside the run, and a block that started the run is suspended until it
// ends. A sheet's completion handler runs on the main queue after its
// presentation ended. Thread-safe; callbacks (the responder, completion
// handlers) are called with no lock of the backend held.
#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/AppKitExtensions/InterfaceBackend.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace fennick {

/// What one button showed.
struct ShownButton {
  std::string title;
  std::string keyEquivalent;
  std::string accessibilityIdentifier;
  std::int64_t tag = 0;
};

/// Everything a presented window showed, copied when it appeared.
struct ShownWindow {
  std::string windowTitle;
  std::string windowAccessibilityIdentifier;
  bool isAlert = false;
  bool isSheet = false;
  Ref<Window> parentWindow;
  // For alerts:
  std::string messageText;
  std::string informativeText;
  AlertStyle alertStyle = AlertStyle::warning;
  Ref<Image> icon;
  std::vector<ShownButton> buttons;
  bool showsSuppressionButton = false;
  std::string suppressionButtonTitle;
  std::int64_t suppressionButtonInitialState = NSControlStateValueOff;
};

/// One window that the headless backend showed, modally or as a sheet.
class HeadlessPresentation : public std::enable_shared_from_this<HeadlessPresentation> {
 public:
  HeadlessPresentation(Ref<Window> window, ShownWindow shown);
  HeadlessPresentation(const HeadlessPresentation&) = delete;
  HeadlessPresentation& operator=(const HeadlessPresentation&) = delete;

  const ShownWindow& shown() const noexcept { return shown_; }
  const Ref<Window>& window() const noexcept { return window_; }
  bool isOpen() const;
  /// The code that ended it; nullopt while open.
  std::optional<std::int64_t> response() const;
  /// The suppression check box's current state.
  std::int64_t suppressionButtonState() const;

  // What the person does. Each answers false when it had no effect: the
  // presentation already ended, or it has no such control.
  /// Presses the button at `index` (0 first), ending with its tag.
  bool pressButton(std::size_t index);
  /// Flips the suppression check box.
  bool toggleSuppressionButton();
  /// Closes the alert without choosing (Escape): presses the button whose key
  /// equivalent is Escape; an alert without such a button stays open.
  bool dismiss();

  /// Waits until the presentation ended; its response, or nullopt after `timeout`.
  std::optional<std::int64_t> waitForResponse(std::chrono::milliseconds timeout) const;
  /// Waits as long as it takes.
  std::int64_t waitForResponse() const;

 private:
  friend class HeadlessBackend;
  using EndAction = std::function<void(std::int64_t code, std::int64_t suppressionState)>;
  /// Ends with `code` unless already ended; calls the end action outside the lock.
  bool end(std::int64_t code);
  void setEndAction(EndAction action);

  const Ref<Window> window_;
  const ShownWindow shown_;
  mutable std::mutex mutex_;
  mutable std::condition_variable ended_;
  std::optional<std::int64_t> response_;
  std::int64_t suppressionState_;
  EndAction endAction_;
};

class HeadlessBackend final : public InterfaceBackend {
  struct Private {};

 public:
  using Responder = std::function<void(const Ref<HeadlessPresentation>& presentation)>;

  static std::shared_ptr<HeadlessBackend> create();
  /// The backend used while no other is installed.
  static const std::shared_ptr<HeadlessBackend>& shared();
  explicit HeadlessBackend(Private) {}

  /// Called on the showing thread (the main thread) each time a window
  /// appears, before a modal run waits; it may answer at once or later, from
  /// any thread. A copy is kept.
  void setResponder(Responder responder);
  /// Every presentation so far, oldest first, open or ended.
  std::vector<Ref<HeadlessPresentation>> presentations() const;
  /// The presentation at `index` once it appeared; nullptr after `timeout`.
  Ref<HeadlessPresentation> waitForPresentation(std::size_t index, std::chrono::milliseconds timeout) const;
  /// Forgets the presentations recorded so far (open ones still end normally).
  void removeAllPresentations();
  /// How often the application was brought to the front.
  int activationCount() const;

  std::int64_t runModalForWindow(const Ref<Window>& window) override;
  void stopModalWithCode(std::int64_t code) override;
  void beginSheet(const Ref<Window>& parent, const Ref<Window>& sheet, Window::SheetCompletionHandler handler) override;
  void endSheet(const Ref<Window>& parent, const Ref<Window>& sheet, std::int64_t code) override;
  void activateIgnoringOtherApps(bool ignoringOtherApps) override;

 private:
  /// Records a presentation (a modal run when there is no parent) and hands
  /// it to the responder.
  Ref<HeadlessPresentation> present(const Ref<Window>& window, const Ref<Window>& parent,
                                    HeadlessPresentation::EndAction endAction);

  mutable std::mutex mutex_;
  mutable std::condition_variable appeared_;
  Responder responder_;
  std::vector<Ref<HeadlessPresentation>> presentations_;
  std::vector<Ref<HeadlessPresentation>> modalRuns_;
  int activations_ = 0;
};

}  // namespace fennick
