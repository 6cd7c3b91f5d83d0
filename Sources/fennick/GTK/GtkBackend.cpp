#include "fennick/GTK/GtkBackend.h"

#include <algorithm>
#include <optional>

#include "fennick/AppKitExtensions/Alert.h"
#include "fennick/Dispatch/GLibMainContext.h"
#include "fennick/GTK/GtkWindowBridge.h"
#include "fennick/GTK/Internal/GtkAlertWindow.h"

namespace fennick::gtk {

// One window the backend shows, from present() to close(). Main thread.
struct GtkBackend::Presentation {
  Ref<Window> window;
  Ref<Window> parent;
  std::unique_ptr<detail::GtkAlertWindow> alertWindow;
  GtkWindow* gtkWindow = nullptr;
  bool ownsWindow = false;
  std::optional<std::int64_t> response;
  GMainLoop* modalLoop = nullptr;  // set for modal runs
  Window::SheetCompletionHandler sheetHandler;
  gulong closeHandler = 0;
};

std::shared_ptr<GtkBackend> GtkBackend::create() { return std::make_shared<GtkBackend>(Private{}); }

GtkBackend::GtkBackend(Private) {}
GtkBackend::~GtkBackend() = default;

GtkBackend::Presentation& GtkBackend::show(const Ref<Window>& window, const Ref<Window>& parent) {
  Presentation& shown = presentations_.emplace_back();
  shown.window = window;
  shown.parent = parent;
  if (const Ref<Alert> alert = window->alert()) {
    shown.alertWindow = std::make_unique<detail::GtkAlertWindow>(
        alert, [this, presentation = &shown](std::int64_t code) { finish(*presentation, code); });
    shown.gtkWindow = shown.alertWindow->window();
    shown.ownsWindow = true;
    bindWindow(window, shown.gtkWindow);
  } else {
    shown.gtkWindow = gtkWindowForWindow(window);
    if (!shown.gtkWindow) {
      shown.gtkWindow = GTK_WINDOW(gtk_window_new());
      gtk_window_set_title(shown.gtkWindow, window->title().c_str());
      detail::exposeAccessibilityIdentifier(GTK_WIDGET(shown.gtkWindow), window->accessibilityIdentifier());
      shown.ownsWindow = true;
      bindWindow(window, shown.gtkWindow);
    }
  }
  if (!shown.alertWindow) {
    // A plain window shown modally or as a sheet ends when the person closes it.
    struct Stop {
      GtkBackend* backend;
      Presentation* presentation;
    };
    shown.closeHandler = g_signal_connect_data(
        shown.gtkWindow, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
          const auto* stop = static_cast<Stop*>(data);
          stop->backend->finish(*stop->presentation, NSModalResponseStop);
          return TRUE;
        }),
        new Stop{this, &shown}, [](gpointer data, GClosure*) { delete static_cast<Stop*>(data); }, GConnectFlags(0));
  }
  if (GtkWindow* parentWindow = gtkWindowForWindow(parent)) {
    gtk_window_set_transient_for(shown.gtkWindow, parentWindow);
    gtk_window_set_destroy_with_parent(shown.gtkWindow, TRUE);
  }
  gtk_window_set_modal(shown.gtkWindow, TRUE);
  gtk_window_present(shown.gtkWindow);
  return shown;
}

void GtkBackend::finish(Presentation& presentation, std::int64_t code) {
  if (presentation.response) return;
  presentation.response = code;
  if (presentation.alertWindow) {
    presentation.window->alert()->suppressionButton()->setState(presentation.alertWindow->suppressionState());
  }
  gtk_widget_set_visible(GTK_WIDGET(presentation.gtkWindow), FALSE);
  if (presentation.modalLoop) {
    g_main_loop_quit(presentation.modalLoop);  // the run closes it
    return;
  }
  // A sheet closes after the signal that ended it has returned, and then
  // tells its handler.
  struct Close {
    std::weak_ptr<GtkBackend> backend;
    Presentation* presentation;
  };
  g_idle_add_full(G_PRIORITY_DEFAULT, [](gpointer data) {
    const auto* close = static_cast<Close*>(data);
    if (const auto backend = close->backend.lock()) {
      Window::SheetCompletionHandler handler = std::move(close->presentation->sheetHandler);
      const std::int64_t response = *close->presentation->response;
      backend->close(*close->presentation);
      if (handler) handler(response);
    }
    return G_SOURCE_REMOVE;
  }, new Close{weak_from_this(), &presentation}, [](gpointer data) { delete static_cast<Close*>(data); });
}

void GtkBackend::close(Presentation& presentation) {
  if (presentation.closeHandler) g_signal_handler_disconnect(presentation.gtkWindow, presentation.closeHandler);
  if (presentation.ownsWindow) {
    gtk_window_destroy(presentation.gtkWindow);
    presentation.window->setPeer(nullptr);
  } else {
    gtk_window_set_modal(presentation.gtkWindow, FALSE);
    gtk_window_set_transient_for(presentation.gtkWindow, nullptr);
  }
  presentations_.remove_if([&](const Presentation& each) { return &each == &presentation; });
}

void GtkBackend::onMainContext(std::function<void(GtkBackend&)> work) {
  struct Work {
    std::weak_ptr<GtkBackend> backend;
    std::function<void(GtkBackend&)> function;
  };
  g_main_context_invoke_full(nullptr, G_PRIORITY_DEFAULT, [](gpointer data) {
    const auto* work = static_cast<Work*>(data);
    if (const auto backend = work->backend.lock()) work->function(*backend);
    return G_SOURCE_REMOVE;
  }, new Work{weak_from_this(), std::move(work)}, [](gpointer data) { delete static_cast<Work*>(data); });
}

std::int64_t GtkBackend::runModalForWindow(const Ref<Window>& window) {
  Presentation& shown = show(window, nullptr);
  shown.modalLoop = g_main_loop_new(nullptr, FALSE);
  modalRuns_.push_back(&shown);
  g_main_loop_run(shown.modalLoop);
  std::erase(modalRuns_, &shown);
  g_main_loop_unref(shown.modalLoop);
  const std::int64_t response = *shown.response;
  close(shown);
  return response;
}

void GtkBackend::stopModalWithCode(std::int64_t code) {
  onMainContext([code](GtkBackend& backend) {
    if (!backend.modalRuns_.empty()) backend.finish(*backend.modalRuns_.back(), code);
  });
}

void GtkBackend::beginSheet(const Ref<Window>& parent, const Ref<Window>& sheet, Window::SheetCompletionHandler handler) {
  Presentation& shown = show(sheet, parent);
  shown.sheetHandler = std::move(handler);
}

void GtkBackend::endSheet(const Ref<Window>& parent, const Ref<Window>& sheet, std::int64_t code) {
  onMainContext([parent, sheet, code](GtkBackend& backend) {
    for (Presentation& shown : backend.presentations_) {
      if (shown.window == sheet && shown.parent == parent && !shown.modalLoop && !shown.response) {
        backend.finish(shown, code);
        return;
      }
    }
  });
}

void GtkBackend::activateIgnoringOtherApps(bool) {
  GList* toplevels = gtk_window_list_toplevels();
  for (GList* each = toplevels; each; each = each->next) {
    GtkWindow* window = GTK_WINDOW(each->data);
    if (gtk_widget_get_visible(GTK_WIDGET(window))) {
      gtk_window_present(window);
      break;
    }
  }
  g_list_free(toplevels);
}

void useGtkBackend() {
  setInterfaceBackend(GtkBackend::create());
  dispatch::attachMainQueueToGLibMainContext();
}

}  // namespace fennick::gtk
