#pragma once
// The application as the interface layer sees it: bringing it to the front
// and modal runs. Every call goes to the installed backend
// (fennick/AppKitExtensions/InterfaceBackend.h).
#include "fennick/AppKitExtensions/Window.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>

namespace fennick {

class Application : public Object {
  FENNICK_DECLARE_CLASS(Application, Object)

 public:
  /// The one application object.
  static Ref<Application> sharedApplication();

  /// Brings the application's windows to the front. Main thread.
  void activateIgnoringOtherApps(bool ignoringOtherApps);
  /// Shows `window` (an alert's window, or a window of the backend) modally
  /// for the whole application and returns the code that ended the run: an
  /// alert's response, or the code given to stopModalWithCode. Main thread.
  std::int64_t runModalForWindow(const Ref<Window>& window);
  /// Ends the innermost modal run with `code`; nothing when none is running.
  /// Any thread.
  void stopModalWithCode(std::int64_t code);
  /// stopModalWithCode(NSModalResponseStop).
  void stopModal();

 protected:
  Application() = default;
};

}  // namespace fennick
