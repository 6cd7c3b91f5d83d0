#pragma once
// The link between an application's GTK windows and the interface layer's
// Window objects, so that errors can be presented as sheets on them.
#include <gtk/gtk.h>

#include "fennick/AppKitExtensions/Window.h"

namespace fennick::gtk {

/// The Window that stands for `window`: the same object for the same GTK
/// window for as long as either lives. It holds a reference on the GTK window.
/// nullptr for nullptr. Main thread.
Ref<Window> windowForGtkWindow(GtkWindow* window);
/// The GTK window behind `window`, or nullptr when it has none yet (an
/// alert's window gets one while it is shown). The pointer is borrowed.
GtkWindow* gtkWindowForWindow(const Ref<Window>& window);
/// Makes `gtkWindow` the toolkit window of `window` (the backend does so for
/// the windows it builds). Main thread.
void bindWindow(const Ref<Window>& window, GtkWindow* gtkWindow);

}  // namespace fennick::gtk
