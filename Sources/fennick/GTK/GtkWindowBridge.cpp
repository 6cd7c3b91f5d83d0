#include "fennick/GTK/GtkWindowBridge.h"

namespace fennick::gtk {
namespace {

constexpr const char* kWindowKey = "fennick-window";

void deleteWeakWindow(gpointer data) { delete static_cast<std::weak_ptr<Window>*>(data); }

}  // namespace

void bindWindow(const Ref<Window>& window, GtkWindow* gtkWindow) {
  g_object_ref(gtkWindow);
  window->setPeer(std::shared_ptr<void>(gtkWindow, [](void* object) { g_object_unref(object); }));
  g_object_set_data_full(G_OBJECT(gtkWindow), kWindowKey, new std::weak_ptr<Window>(window), &deleteWeakWindow);
}

Ref<Window> windowForGtkWindow(GtkWindow* gtkWindow) {
  if (!gtkWindow) return nullptr;
  if (auto* known = static_cast<std::weak_ptr<Window>*>(g_object_get_data(G_OBJECT(gtkWindow), kWindowKey))) {
    if (Ref<Window> window = known->lock()) return window;
  }
  const char* title = gtk_window_get_title(gtkWindow);
  Ref<Window> window = Window::windowWithTitle(title ? title : "");
  bindWindow(window, gtkWindow);
  return window;
}

GtkWindow* gtkWindowForWindow(const Ref<Window>& window) {
  return window ? static_cast<GtkWindow*>(window->peer().get()) : nullptr;
}

}  // namespace fennick::gtk
