#pragma once
// Colours of the interface layer in GDK's form.
#include <gdk/gdk.h>

#include "fennick/AppKitExtensions/Color.h"

namespace fennick::gtk {

/// The colour as GdkRGBA, whose components GTK renders as sRGB. Generic and
/// device RGB colours are taken as sRGB: the desktop has no other RGB space
/// to map them to, so their components pass unchanged. Components are
/// clamped to 0...1.
GdkRGBA toGdkRGBA(const Color& color);

}  // namespace fennick::gtk
