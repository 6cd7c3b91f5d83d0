#pragma once
// The toolkit behind the interface layer. Alerts, windows, sheets, modal runs
// and activation go through one installed backend: the headless backend
// (fennick/AppKitExtensions/HeadlessBackend.h) until the application installs
// another, for example the GTK 4 backend of the fennick-gtk library.
//
//   int main() {
//     fennick::gtk::useGtkBackend();   // or setInterfaceBackend(...)
//     ...
//   }
#include "fennick/AppKitExtensions/Window.h"

#include <cstdint>
#include <memory>

namespace fennick {

class InterfaceBackend {
 public:
  virtual ~InterfaceBackend();

  /// Main thread. Shows `window` modally for the application and returns the
  /// code that ended the run. For an alert's window (window->alert() set) the
  /// backend draws the alert; pressing the button at index i ends the run
  /// with the button's tag (1000 + i), and the suppression check box's final
  /// state is written back to the alert before the call returns. The run is
  /// a nested loop that serves the main queue: work submitted to it meanwhile
  /// runs before the run ends, even when a main-queue block started it.
  virtual std::int64_t runModalForWindow(const Ref<Window>& window) = 0;
  /// Any thread. Ends the innermost modal run with `code`; nothing when no
  /// modal run is going on.
  virtual void stopModalWithCode(std::int64_t code) = 0;
  /// Main thread. Shows `sheet` modally for `parent` and returns at once;
  /// `handler` runs once, on the main thread, with the code that ended it.
  virtual void beginSheet(const Ref<Window>& parent, const Ref<Window>& sheet,
                          Window::SheetCompletionHandler handler) = 0;
  /// Any thread. Ends `sheet` on `parent` with `code`; nothing when it is not
  /// shown there.
  virtual void endSheet(const Ref<Window>& parent, const Ref<Window>& sheet, std::int64_t code) = 0;
  /// Main thread. Brings the application to the front.
  virtual void activateIgnoringOtherApps(bool ignoringOtherApps) = 0;
};

/// Installs the backend for the whole process; call it once at start-up,
/// before the first alert. Installing a backend also lets
/// OVAssertUnimplemented show its alert through it (without an installed
/// backend it writes its texts to standard error). Passing nullptr goes back
/// to the headless default.
void setInterfaceBackend(std::shared_ptr<InterfaceBackend> backend);
/// The installed backend, or the shared headless backend when none was
/// installed. Never nullptr. Thread-safe.
std::shared_ptr<InterfaceBackend> interfaceBackend();

}  // namespace fennick
