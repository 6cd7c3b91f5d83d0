#pragma once
// The GTK window that shows an Alert: icon, message, informative text, the
// suppression check box and the buttons in the alert's order, the default
// (Return) button marked as suggested. Escape and the window's close button
// press the alert's Escape button; an alert without one cannot be closed
// that way.
//
// Accessibility: each widget's accessible name is what a person reads (the
// window's title, the button's title). GTK 4 reports no settable AT-SPI
// AccessibleId and no custom attributes, so the alert window's and the
// buttons' accessibility identifiers go into their accessible descriptions
// (and their widget names, for CSS and the inspector).
#include <gtk/gtk.h>

#include <cstdint>
#include <functional>

#include "fennick/AppKitExtensions/Alert.h"

namespace fennick::gtk::detail {

class GtkAlertWindow {
 public:
  /// Builds the window, not yet shown. `respond` gets each button's tag when
  /// it is pressed (the caller takes the first answer only).
  GtkAlertWindow(const Ref<Alert>& alert, std::function<void(std::int64_t)> respond);
  GtkAlertWindow(const GtkAlertWindow&) = delete;
  GtkAlertWindow& operator=(const GtkAlertWindow&) = delete;

  GtkWindow* window() const noexcept { return window_; }
  /// The check box's state now (NSControlStateValueOff without one).
  std::int64_t suppressionState() const;

 private:
  GtkWidget* buildIcon(const Alert& alert) const;
  GtkWidget* buildTexts(const Alert& alert) const;
  GtkWidget* buildButtons(const Alert& alert);
  void installKeys(const Alert& alert);

  GtkWindow* window_ = nullptr;
  GtkCheckButton* suppression_ = nullptr;
  GtkWidget* defaultButton_ = nullptr;
  std::function<void(std::int64_t)> respond_;
};

/// Sets the accessible description (and widget name) that carries an
/// accessibility identifier; an empty identifier leaves the widget alone.
void exposeAccessibilityIdentifier(GtkWidget* widget, const std::string& identifier);

}  // namespace fennick::gtk::detail
