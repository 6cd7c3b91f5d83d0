// An outside program of fennick-gtk: installs the GTK backend (no display
// needed until an alert is shown) and converts a colour.
#include <fennick/Fennick.h>
#include <fennick/GTK/GdkColor.h>
#include <fennick/GTK/GtkBackend.h>

#include <cstdio>

int main() {
  fennick::setInterfaceBackend(fennick::gtk::GtkBackend::create());
  const GdkRGBA red = fennick::gtk::toGdkRGBA(fennick::Color::ov_colorWithRGBHex(0xFF0000));
  const bool ok = red.red == 1.0f && red.green == 0.0f && fennick::interfaceBackend() != nullptr;
  std::puts(ok ? "gtk consumer: ok" : "gtk consumer: wrong");
  return ok ? 0 : 1;
}
