#pragma once
// An alert: a message, an informative text, buttons in order, an icon, a
// style and an optional suppression check box, shown application-modally
// (runModal) or as a sheet on a window. The installed backend draws it
// (fennick/AppKitExtensions/InterfaceBackend.h).
//
// Responses: pressing the button at index i answers NSAlertFirstButtonReturn
// + i (1000 for the first button); a run ended from outside answers the code
// it was ended with.
//
// An alert is configured and shown on the main thread.
#include "fennick/AppKitExtensions/AlertButton.h"
#include "fennick/AppKitExtensions/Image.h"
#include "fennick/AppKitExtensions/Window.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fennick {

inline constexpr std::int64_t NSAlertFirstButtonReturn = 1000;
inline constexpr std::int64_t NSAlertSecondButtonReturn = 1001;
inline constexpr std::int64_t NSAlertThirdButtonReturn = 1002;
/// Codes of modal runs ended without a button.
inline constexpr std::int64_t NSModalResponseStop = -1000;
inline constexpr std::int64_t NSModalResponseAbort = -1001;

/// The alert styles, with the platform's values.
enum class AlertStyle : std::uint64_t { warning = 0, informational = 1, critical = 2 };

class Alert : public Object {
  FENNICK_DECLARE_CLASS(Alert, Object)

 public:
  static Ref<Alert> init();
  /// An alert for an error: its description as message, its recovery
  /// suggestion as informative text, and one button per recovery option (a
  /// button with an empty title for an option that is not text, so that the
  /// positions still match the options), or one "OK" button without options.
  static Ref<Alert> alertWithError(const Ref<Error>& error);

  const std::string& messageText() const noexcept { return messageText_; }
  void setMessageText(std::string_view text) { messageText_ = text; }
  const std::string& informativeText() const noexcept { return informativeText_; }
  void setInformativeText(std::string_view text) { informativeText_ = text; }
  /// The icon; nullptr shows the style's icon.
  const Ref<Image>& icon() const noexcept { return icon_; }
  void setIcon(Ref<Image> icon) { icon_ = std::move(icon); }
  AlertStyle alertStyle() const noexcept { return alertStyle_; }
  /// Values other than the three styles count as warning.
  void setAlertStyle(AlertStyle style);

  /// Adds a button at the end with the next response code as its tag. The
  /// first button gets Return as key equivalent, a button titled "Cancel"
  /// gets Escape.
  Ref<AlertButton> addButtonWithTitle(std::string_view title);
  const std::vector<Ref<AlertButton>>& buttons() const noexcept { return buttons_; }

  bool showsSuppressionButton() const noexcept { return showsSuppressionButton_; }
  void setShowsSuppressionButton(bool shows) { showsSuppressionButton_ = shows; }
  /// The check box (titled "Do not show this message again" until changed);
  /// its state after the alert ended is what the person left it at.
  const Ref<AlertButton>& suppressionButton() const noexcept { return suppressionButton_; }

  /// The alert's own window: its accessibility identifier names the alert
  /// for assistive technology; a sheet is ended through it.
  const Ref<Window>& window() const noexcept { return window_; }

  /// Shows the alert application-modally and returns the response once the
  /// person answered or Application::stopModalWithCode ended the run. An
  /// alert without buttons gets an "OK" button first. Main thread; the main
  /// queue goes on while the alert is up.
  std::int64_t runModal();
  /// Shows the alert as a sheet on `window` and returns at once; `handler`
  /// runs on the main thread with the response. Main thread.
  void beginSheetModalForWindow_completionHandler(const Ref<Window>& window,
                                                  Window::SheetCompletionHandler handler);

  std::string description() const override;

 protected:
  Alert();

 private:
  void addDefaultButtonIfNone();

  std::string messageText_;
  std::string informativeText_;
  Ref<Image> icon_;
  AlertStyle alertStyle_ = AlertStyle::warning;
  std::vector<Ref<AlertButton>> buttons_;
  bool showsSuppressionButton_ = false;
  const Ref<AlertButton> suppressionButton_;
  const Ref<Window> window_;
};

}  // namespace fennick
