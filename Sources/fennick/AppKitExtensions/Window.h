#pragma once
// A top-level window as the interface layer sees it: a title, an
// accessibility identifier, and sheets shown modally for it. The installed
// backend (fennick/AppKitExtensions/InterfaceBackend.h) gives it a real
// toolkit window; the GTK backend wraps an application's GtkWindow with
// fennick::gtk::windowForGtkWindow.
//
// Like the toolkit's own windows, a Window is used on the main thread, with
// one exception: endSheet_returnCode may be called from any thread.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace fennick {

class Alert;

class Window : public Object {
  FENNICK_DECLARE_CLASS(Window, Object)

 public:
  using SheetCompletionHandler = std::function<void(std::int64_t returnCode)>;

  /// A window of the interface layer with this title.
  static Ref<Window> windowWithTitle(std::string_view title);

  const std::string& title() const noexcept { return title_; }
  void setTitle(std::string_view title) { title_ = title; }
  /// The identifier that assistive technology and interface tests find the
  /// window by (the accessible ID that AT-SPI reports under GTK).
  const std::string& accessibilityIdentifier() const noexcept { return accessibilityIdentifier_; }
  void setAccessibilityIdentifier(std::string_view identifier) { accessibilityIdentifier_ = identifier; }

  /// The alert this window shows, for an alert's own window; nullptr otherwise.
  Ref<Alert> alert() const { return alert_.lock(); }

  /// Shows `sheet` modally for this window. `handler` runs on the main thread
  /// with the code that ended the sheet: an alert's response, or the code
  /// given to endSheet_returnCode.
  void beginSheet_completionHandler(const Ref<Window>& sheet, SheetCompletionHandler handler);
  /// Ends `sheet`, shown for this window, with `returnCode`; nothing when it is
  /// not shown here. Any thread.
  void endSheet_returnCode(const Ref<Window>& sheet, std::int64_t returnCode);

  /// For backends: the toolkit's window that stands for this one.
  std::shared_ptr<void> peer() const;
  void setPeer(std::shared_ptr<void> peer);

  std::string description() const override;

 protected:
  Window() = default;

 private:
  friend class Alert;
  std::string title_;
  std::string accessibilityIdentifier_;
  std::weak_ptr<Alert> alert_;
  mutable std::mutex peerMutex_;
  std::shared_ptr<void> peer_;
};

}  // namespace fennick
