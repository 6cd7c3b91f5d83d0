#include "fennick/GTK/GdkColor.h"

#include <algorithm>

namespace fennick::gtk {

GdkRGBA toGdkRGBA(const Color& color) {
  auto unit = [](double value) { return static_cast<float>(std::clamp(value, 0.0, 1.0)); };
  return GdkRGBA{unit(color.redComponent), unit(color.greenComponent), unit(color.blueComponent),
                 unit(color.alphaComponent)};
}

}  // namespace fennick::gtk
