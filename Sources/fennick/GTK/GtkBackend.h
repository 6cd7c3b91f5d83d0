#pragma once
// The GTK 4 backend of the interface layer (library fennick-gtk). Alerts
// become GTK windows: application-modal when run modally, modal and transient
// for their parent when shown as a sheet. Accessibility identifiers travel
// with the widgets so that assistive technology and interface tests find
// them over AT-SPI (see GtkAlertWindow.h for where).
//
//   int main(int argc, char** argv) {
//     gtk_init();
//     fennick::gtk::useGtkBackend();   // also serves the main queue from GLib
//     ...
//     while (running) g_main_context_iteration(nullptr, TRUE);   // or g_application_run
//   }
//
// Threads: GTK is used on the main thread only. runModalForWindow,
// beginSheet and activateIgnoringOtherApps must be called there (the
// interface layer does); stopModalWithCode and endSheet may come from any
// thread and are carried to the main thread through GLib's default context.
// A modal run is a nested GLib loop on that context, so the main queue keeps
// running while the alert is up, also when one of its blocks presented it.
#include <gtk/gtk.h>

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "fennick/AppKitExtensions/InterfaceBackend.h"
#include "fennick/AppKitExtensions/Window.h"

namespace fennick::gtk {

class GtkBackend final : public InterfaceBackend, public std::enable_shared_from_this<GtkBackend> {
  struct Private {};

 public:
  static std::shared_ptr<GtkBackend> create();
  explicit GtkBackend(Private);
  ~GtkBackend() override;

  std::int64_t runModalForWindow(const Ref<Window>& window) override;
  void stopModalWithCode(std::int64_t code) override;
  void beginSheet(const Ref<Window>& parent, const Ref<Window>& sheet, Window::SheetCompletionHandler handler) override;
  void endSheet(const Ref<Window>& parent, const Ref<Window>& sheet, std::int64_t code) override;
  void activateIgnoringOtherApps(bool ignoringOtherApps) override;

 private:
  struct Presentation;
  Presentation& show(const Ref<Window>& window, const Ref<Window>& parent);
  /// Takes the first answer; a modal run or an idle callback closes it.
  void finish(Presentation& presentation, std::int64_t code);
  void close(Presentation& presentation);
  void onMainContext(std::function<void(GtkBackend&)> work);

  // Main thread only.
  std::list<Presentation> presentations_;
  std::vector<Presentation*> modalRuns_;
};

/// Installs a GtkBackend as the interface layer's backend and serves the
/// main queue from GLib's default main context.
void useGtkBackend();

}  // namespace fennick::gtk
