#include "fennick/GTK/Internal/GtkAlertWindow.h"

#include <algorithm>

namespace fennick::gtk::detail {
namespace {

constexpr int kIconSize = 48;
constexpr int kMargin = 18;

// GTK signal closures that own a C++ function.
template <class F>
void connect(gpointer instance, const char* signal, GCallback trampoline, F function) {
  g_signal_connect_data(instance, signal, trampoline, new F(std::move(function)),
                        [](gpointer data, GClosure*) { delete static_cast<F*>(data); }, GConnectFlags(0));
}

using Respond = std::function<void(std::int64_t)>;
struct ButtonAction {
  Respond* respond;  // owned by the GtkAlertWindow, which outlives its widgets' signals
  std::int64_t tag;
};

void onClicked(GtkButton*, gpointer data) {
  auto* action = static_cast<ButtonAction*>(data);
  (*action->respond)(action->tag);
}

const char* styleIconName(AlertStyle style) {
  switch (style) {
    case AlertStyle::informational: return "dialog-information";
    case AlertStyle::critical: return "dialog-error";
    case AlertStyle::warning: break;
  }
  return "dialog-warning";
}

GtkWidget* wrappingLabel(const std::string& text, bool bold) {
  GtkWidget* label = gtk_label_new(text.c_str());
  gtk_label_set_wrap(GTK_LABEL(label), TRUE);
  gtk_label_set_max_width_chars(GTK_LABEL(label), 50);
  gtk_label_set_xalign(GTK_LABEL(label), 0);
  gtk_label_set_selectable(GTK_LABEL(label), FALSE);
  if (bold) {
    PangoAttrList* attributes = pango_attr_list_new();
    pango_attr_list_insert(attributes, pango_attr_weight_new(PANGO_WEIGHT_BOLD));
    gtk_label_set_attributes(GTK_LABEL(label), attributes);
    pango_attr_list_unref(attributes);
  }
  return label;
}

}  // namespace

void exposeAccessibilityIdentifier(GtkWidget* widget, const std::string& identifier) {
  if (identifier.empty()) return;
  gtk_widget_set_name(widget, identifier.c_str());
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION, identifier.c_str(), -1);
}

GtkAlertWindow::GtkAlertWindow(const Ref<Alert>& alert, std::function<void(std::int64_t)> respond)
    : respond_(std::move(respond)) {
  window_ = GTK_WINDOW(g_object_new(GTK_TYPE_WINDOW, "accessible-role", GTK_ACCESSIBLE_ROLE_ALERT_DIALOG, nullptr));
  const std::string& title = alert->window()->title();
  gtk_window_set_title(window_, title.empty() ? alert->messageText().c_str() : title.c_str());
  gtk_window_set_resizable(window_, FALSE);
  exposeAccessibilityIdentifier(GTK_WIDGET(window_), alert->window()->accessibilityIdentifier());

  GtkWidget* content = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  for (auto side : {&gtk_widget_set_margin_top, &gtk_widget_set_margin_bottom, &gtk_widget_set_margin_start,
                    &gtk_widget_set_margin_end}) {
    side(content, kMargin);
  }
  GtkWidget* header = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
  gtk_box_append(GTK_BOX(header), buildIcon(*alert));
  gtk_box_append(GTK_BOX(header), buildTexts(*alert));
  gtk_box_append(GTK_BOX(content), header);
  if (alert->showsSuppressionButton()) {
    const auto& box = alert->suppressionButton();
    suppression_ = GTK_CHECK_BUTTON(gtk_check_button_new_with_label(box->title().c_str()));
    gtk_check_button_set_active(suppression_, box->state() != NSControlStateValueOff);
    exposeAccessibilityIdentifier(GTK_WIDGET(suppression_), box->accessibilityIdentifier());
    gtk_box_append(GTK_BOX(content), GTK_WIDGET(suppression_));
  }
  gtk_box_append(GTK_BOX(content), buildButtons(*alert));
  gtk_window_set_child(window_, content);
  installKeys(*alert);
}

GtkWidget* GtkAlertWindow::buildIcon(const Alert& alert) const {
  GtkWidget* image = nullptr;
  if (const Ref<Image>& icon = alert.icon()) {
    if (!icon->name().empty()) {
      image = gtk_image_new_from_icon_name(icon->name().c_str());
    } else {
      GBytes* bytes = g_bytes_new(icon->data()->bytes(), icon->data()->length());
      if (GdkTexture* texture = gdk_texture_new_from_bytes(bytes, nullptr)) {
        image = gtk_image_new_from_paintable(GDK_PAINTABLE(texture));
        g_object_unref(texture);
      }
      g_bytes_unref(bytes);
    }
  }
  // Data that does not decode falls back to the style's icon.
  if (!image) image = gtk_image_new_from_icon_name(styleIconName(alert.alertStyle()));
  gtk_image_set_pixel_size(GTK_IMAGE(image), kIconSize);
  gtk_widget_set_valign(image, GTK_ALIGN_START);
  return image;
}

GtkWidget* GtkAlertWindow::buildTexts(const Alert& alert) const {
  GtkWidget* texts = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  gtk_box_append(GTK_BOX(texts), wrappingLabel(alert.messageText(), true));
  if (!alert.informativeText().empty()) gtk_box_append(GTK_BOX(texts), wrappingLabel(alert.informativeText(), false));
  return texts;
}

GtkWidget* GtkAlertWindow::buildButtons(const Alert& alert) {
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  gtk_widget_set_halign(row, GTK_ALIGN_END);
  for (const auto& button : alert.buttons()) {
    GtkWidget* widget = gtk_button_new_with_label(button->title().c_str());
    exposeAccessibilityIdentifier(widget, button->accessibilityIdentifier());
    connect(widget, "clicked", G_CALLBACK(&onClicked), ButtonAction{&respond_, button->tag()});
    if (button->isDefaultButton() && !defaultButton_) {
      defaultButton_ = widget;
      gtk_widget_add_css_class(widget, "suggested-action");
    }
    gtk_box_append(GTK_BOX(row), widget);
  }
  if (defaultButton_) {
    gtk_window_set_default_widget(window_, defaultButton_);
    gtk_window_set_focus(window_, defaultButton_);
  }
  return row;
}

void GtkAlertWindow::installKeys(const Alert& alert) {
  const auto& buttons = alert.buttons();
  const auto cancel = std::find_if(buttons.begin(), buttons.end(), [](const auto& button) { return button->isCancelButton(); });
  const std::int64_t cancelTag = cancel != buttons.end() ? (*cancel)->tag() : 0;
  const bool cancellable = cancel != buttons.end();
  auto pressCancel = [this, cancelTag, cancellable] {
    if (cancellable) respond_(cancelTag);
  };

  // The window's close button and Escape do what the Escape button does.
  connect(window_, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return TRUE;  // the backend closes the window when the alert ends
          }),
          std::function<void()>(pressCancel));
  GtkEventController* keys = gtk_shortcut_controller_new();
  gtk_shortcut_controller_set_scope(GTK_SHORTCUT_CONTROLLER(keys), GTK_SHORTCUT_SCOPE_GLOBAL);
  auto* escape = new std::function<void()>(pressCancel);
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(keys),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)),
                       gtk_callback_action_new(
                           [](GtkWidget*, GVariant*, gpointer data) -> gboolean {
                             (*static_cast<std::function<void()>*>(data))();
                             return TRUE;
                           },
                           escape, [](gpointer data) { delete static_cast<std::function<void()>*>(data); })));
  gtk_widget_add_controller(GTK_WIDGET(window_), keys);
}

std::int64_t GtkAlertWindow::suppressionState() const {
  if (!suppression_) return NSControlStateValueOff;
  return gtk_check_button_get_active(suppression_) ? NSControlStateValueOn : NSControlStateValueOff;
}

}  // namespace fennick::gtk::detail
